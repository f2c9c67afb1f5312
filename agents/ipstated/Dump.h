// Any part of a tree as text or JSON, by the type descriptors alone.
//
// Text, one attribute a line, what a record owns below it:
//
//    ip/status  Ip::Status
//       urpfConfiguredOnAnyIntf = false
//       ipIntfStatus[eth0] = cell/1/ip/input/status-1/ipIntfStatus[eth0]
//       vrfIpIntfStatus[default]  Ip::VrfIpIntfStatus
//          vrfName = default
//
// JSON, the same with numbers, truth values and values by field; a record's own members are
// "fullName" and "fwkType", followed by its attributes. A text that is no UTF-8 has its odd bytes
// written as \xNN; infinite numbers and NaN are texts.
//
// Attributes come in the order of their declaration, without constants and operations, members of
// collections in the order of their keys. What a record refers to and does not own stands as its
// full name, null as "null". Attributes whose reading asserts are passed over.

#pragma once

#include "framework/Entity.h"

#include <string>
#include <string_view>

namespace Ipstated {

std::string dumpText( const Zek::Entity & record );
std::string dumpJson( const Zek::Entity & record );

/// The record below `root` with that full name; `root` itself for the empty path. Throws
/// std::runtime_error naming the nearest record above it when there is none.
Zek::Entity::PtrConst recordAt( const Zek::Entity & root, std::string_view path );

/// The full names of all record types that the library knows, sorted, one a line.
std::string typeNames();

} // namespace Ipstated
