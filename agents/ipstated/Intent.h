// The configuration records as a file: the text of one, and the records of such a text.
//
//    8f14e45f ipstate intent 1
//    02522a2b Ip::Config  ip/config
//    a2b4c5d6    ipIntfConfig[eth0]
//    91e8f3aa       addrWithMask = 10.0.0.1/24
//    c0ffee11       secondaryWithMask[10.0.0.2/24] = true
//    5ca1ab1e owned eth0 10.0.0.1/24
//    00c0ffee end
//
// A line tells an attribute that is not as in a fresh record, or a member of a collection; what
// belongs to a record is indented below it. Pointers are not kept. A backslash, bytes that do not
// print and, in keys, brackets stand as \xNN. The number at the beginning of a line is the checksum
// (CRC-32C) of it and of all lines before: the first line that was damaged is told from those that
// were not, and a file that lacks its end is damaged there.

#pragma once

#include "framework/Entity.h"

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Ipstated {

/// What a file keeps: records under their full names, and addresses by interface.
struct Intent {
   std::vector< Zek::Entity::Ptr > records;
   std::vector< std::pair< std::string, std::string > > owned;
};

std::string intentText( const Intent & intent );

/// Fills the records of `intent`, fresh ones, and its addresses. Throws std::runtime_error saying
/// at which line and byte the text is damaged and what was expected there; the records may hold a
/// part then.
void readIntent( std::string_view text, Intent & intent );

} // namespace Ipstated
