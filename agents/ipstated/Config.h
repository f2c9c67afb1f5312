// What the agent is asked to do, by the command line and a configuration file.
//
// A file has the options by their names, one a line, as in
//
//    # what follows a number sign is passed over
//    serve = /run/ipstate/ipstated.socket
//    allow-read = netops:ip,ip6
//    apply
//
// The command line comes after it: it takes the place of a value and adds to a list. Everything is
// checked before anything is done, and all faults are told together.

#pragma once

#include "agents/ipstated/KernelFeed.h"
#include "agents/ipstated/Log.h"
#include "agents/ipstated/Netlink.h"

#include "platform/Kelmo/Server.h"
#include "platform/Velon/Ip6Addr.h"

#include <optional>
#include <string>
#include <sys/socket.h>
#include <vector>

namespace Ipstated {

/// Which interfaces may be configured. The loopback and those of management only where a pattern
/// is their very name.
struct ApplyScope {
   std::vector< std::string > patterns; ///< with "*", "?" and "[...]"; none: as "*"
   std::vector< std::string > management;

   bool covers( const std::string & name ) const;
   bool operator==( const ApplyScope & ) const = default;
};

struct Endpoint {
   std::string text; ///< as it was given
   sockaddr_storage address{};
   socklen_t length = 0;
};

struct Options {
   bool once = false;
   bool follow = false;
   bool apply = false;
   bool types = false;
   bool json = false;
   bool check = false;
   bool colours = false;
   std::optional< std::string > dumped; ///< full name of a record
   std::vector< std::string > sourceIntfs;
   std::optional< Velon::Ip6Addr > explained; ///< destination
   std::string served;                        ///< path of a socket, or empty
   std::vector< Kelmo::Role > roles;
   ApplyScope scope;
   std::string state; ///< a folder, or empty
   std::optional< Endpoint > metrics;
   std::string file; ///< the configuration file, or empty
   LogLevel logLevel = LogLevel::notice;
   NetlinkSource::Options source;
   KernelFeed::Options feed;

   /// Runs until it is told to end.
   bool goesOn() const { return follow || apply || !served.empty() || metrics; }
};

struct Parsed {
   Options options;
   bool help = false;
   bool version = false;
   std::vector< std::string > faults; ///< none: the options are good
};

/// `arguments` without the program's name. `isTerminal` says what standard output is.
Parsed parse( const std::vector< std::string > & arguments, bool isTerminal );

/// Names of the options that need a restart and differ.
std::vector< std::string > needRestart( const Options & before, const Options & now );

std::string helpText();

} // namespace Ipstated
