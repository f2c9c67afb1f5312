// The records of all interfaces as a table for people.

#pragma once

#include "agents/ipstated/KernelState.h"

#include "Ip/Ip.h"
#include "Ip6/Ip6.h"

#include <string>

namespace Ipstated {

/// A heading and a block of lines for each interface of the merged status, in the order of the
/// interface ids; beside what the records say, what the kernel says of the link. An address that is
/// not the primary one is marked, and so is one that turned out to be a duplicate. The colours are
/// those of ip(8).
std::string table( const Ip::Status & ip, const Ip6::Status & ip6, const KernelState & kernel,
                   bool colours );

/// The same as JSON, an object an interface.
std::string tableJson( const Ip::Status & ip, const Ip6::Status & ip6, const KernelState & kernel );

} // namespace Ipstated
