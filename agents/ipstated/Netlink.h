// The kernel's routing messages: reading them, and the sockets that they come from.
//
// Reading is apart from receiving: decode() and the functions beside it take bytes and a length,
// so that tests feed messages built by hand. Nothing in those bytes is believed before its length
// is checked; a message with a part that is short, too long or missing is reported (what, where,
// what was expected) and skipped as a whole, and reading goes on behind it.
//
// MessageSource is what the feed reads from: NetlinkSource for the kernel, a script for tests.

#pragma once

#include "agents/ipstated/KernelState.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Ipstated {

// ---- messages ----

/// The header of the message that is being delivered.
struct MessageHeader {
   uint16_t type = 0;
   uint16_t flags = 0;
   uint32_t sequence = 0;

   /// The dump to which the message belongs was not taken of one state of the kernel.
   bool interrupted() const;
};

struct Ip6LinkConfig {
   std::optional< int > acceptDad;
   std::optional< bool > enhancedDad;
   std::optional< uint32_t > retransTime;
};

struct LinkMessage {
   bool gone = false;
   bool ip6Only = false; ///< tells of the IPv6 configuration alone
   int index = 0;
   std::string name;
   uint32_t flags = 0;
   bool isVrf = false;
   uint32_t table = 0;
   int master = 0;
   LinkFacts facts;
   Ip6LinkConfig config6;
};

template< class Address >
struct AddressMessage {
   bool gone = false;
   int index = 0;
   Address address;
};

struct ConfigMessage {
   static constexpr int forAll = -1;
   static constexpr int forNew = -2;

   bool gone = false;
   int index = 0; ///< an interface index, or one of the two above
   std::optional< bool > forwarding;
   std::optional< uint8_t > rpFilter;  ///< IPv4 only
   std::optional< bool > bcForwarding; ///< IPv4 only
};

template< class Group >
struct GroupMessage {
   bool gone = false;
   int index = 0;
   Group group{};
};

/// Receives what decode() reads, in the order of the bytes. What a handler does not override is
/// of no interest to it.
class MessageHandler {
 public:
   virtual ~MessageHandler() = default;

   /// Called first for every message; false skips it.
   virtual bool onHeader( const MessageHeader & ) { return true; }

   virtual void onLink( const LinkMessage & ) {}
   virtual void onAddress4( const AddressMessage< Ip4Address > & ) {}
   virtual void onAddress6( const AddressMessage< Ip6Address > & ) {}
   virtual void onConfig4( const ConfigMessage & ) {}
   virtual void onConfig6( const ConfigMessage & ) {}
   virtual void onGroup4( const GroupMessage< RawIp4 > & ) {}
   virtual void onGroup6( const GroupMessage< RawIp6 > & ) {}

   /// A dump has ended; `error` is 0 or the errno that cut it short.
   virtual void onDone( int /*error*/ ) {}

   /// The kernel refuses a request (`error` is an errno) or confirms it (0); `text` is its own
   /// explanation, mostly empty.
   virtual void onError( int /*error*/, const std::string & /*text*/ ) {}

   /// The kernel says that messages were lost.
   virtual void onOverrun() {}

   /// Part of the bytes was not believed and skipped.
   virtual void onMalformed( const std::string & /*what*/ ) {}
};

/// Reads every message of one datagram. `bytes` needs no alignment.
void decode( const void * bytes, size_t length, MessageHandler & handler );

/// Reads the text of /proc/net/igmp or /proc/net/igmp6: pairs of interface index and group.
/// False when a line is not of the known shape; the pairs of the other lines are there.
bool readIgmp( const std::string & text, std::vector< std::pair< int, RawIp4 > > & groups );
bool readIgmp6( const std::string & text, std::vector< std::pair< int, RawIp6 > > & groups );

// ---- sources ----

/// What can be asked for as a whole.
enum class Dump { links, addresses4, addresses6, config4, config6, groups4, groups6 };

/// "links", "IPv4 addresses", ...
const char * dumpName( Dump dump );

/// What the kernel tells as a small text file.
enum class KernelText { igmp, igmp6, allAcceptDad, allEnhancedDad };

struct Received {
   enum class Status {
      data,    ///< `bytes` and `length` hold a datagram, valid until the next receive call
      none,    ///< nothing there now
      overrun, ///< datagrams were lost
      failed   ///< `error` says why
   };
   Status status = Status::none;
   const void * bytes = nullptr;
   size_t length = 0;
   int error = 0;
};

class MessageSource {
 public:
   virtual ~MessageSource() = default;

   /// Readable when a receive function may have something; -1 for a source without one.
   virtual int fd() const = 0;

   /// Starts a dump, whose replies carry `sequence`. 0, or the errno. One dump at a time.
   virtual int request( Dump dump, uint32_t sequence ) = 0;

   /// Gives up a dump under way, so that the next can be requested.
   virtual void abandonRequest() = 0;

   virtual Received receiveReply() = 0;
   virtual Received receiveEvent() = 0;

   /// Whether joining and leaving groups of that dump (groups4 or groups6) is told by events.
   virtual bool hasGroupEvents( Dump dump ) const = 0;

   /// 0, or the errno; ENOENT when the kernel does not offer the text.
   virtual int readText( KernelText which, std::string & text ) = 0;
};

/// The kernel of the network namespace in which it is made; use it from the thread that made it,
/// while that thread is in that namespace.
class NetlinkSource : public MessageSource {
 public:
   struct Options {
      /// Receive buffer of the listening socket. An agent that may set it beyond the system's
      /// limit does; else the limit holds.
      int receiveBuffer = 16 * 1024 * 1024;
   };

   /// Throws std::system_error saying which call failed.
   NetlinkSource();
   explicit NetlinkSource( const Options & options );
   ~NetlinkSource() override;
   NetlinkSource( const NetlinkSource & ) = delete;
   NetlinkSource & operator=( const NetlinkSource & ) = delete;

   int fd() const override;
   int request( Dump dump, uint32_t sequence ) override;
   void abandonRequest() override;
   Received receiveReply() override;
   Received receiveEvent() override;
   bool hasGroupEvents( Dump dump ) const override;
   int readText( KernelText which, std::string & text ) override;

 private:
   class Socket;
   int openRequests();

   int poll_ = -1; ///< an epoll descriptor over both sockets
   std::unique_ptr< Socket > events_;
   std::unique_ptr< Socket > requests_;
   bool groupEvents4_ = false;
   bool groupEvents6_ = false;
};

} // namespace Ipstated
