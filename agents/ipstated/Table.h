// The records of all interfaces as a table for people.

#pragma once

#include "Ip/Ip.h"
#include "Ip6/Ip6.h"

#include <string>

namespace Ipstated {

/// A heading and a block of lines for each interface of the merged status, in the order of the
/// interface ids. An address that is not the primary one is marked, and so is one that turned out
/// to be a duplicate.
std::string table( const Ip::Status & ip, const Ip6::Status & ip6 );

} // namespace Ipstated
