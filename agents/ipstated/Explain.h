// Why an interface sends from the address it does, in words for people.

#pragma once

#include "Ip6/Ip6.h"

#include <string>

namespace Ipstated {

/// For each interface, in the order of the ids: the address that it sends from to `destination`,
/// and the comparisons that lead there, each with the rules asked, the one that decided and its
/// reason.
std::string explainSource( const Ip6::Status & ip6, const Velon::Ip6Addr & destination );

} // namespace Ipstated
