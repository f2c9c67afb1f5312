// Records as text: for people, and to be read back.

#pragma once

#include "tools/print/Json.h"
#include "tools/print/Style.h"

#include <string>

namespace Print {

/// One attribute a line, what a record owns below it; attributes as JSON has them, values as
/// people write them. Texts that would not end with their line are in quotes.
///
///    ip/status  Ip::Status
///       urpfConfiguredOnAnyIntf = false
///       ipIntfStatus[eth0] = cell/1/ip/input/status-1/ipIntfStatus[eth0]
///       vrfIpIntfStatus[default]  Ip::VrfIpIntfStatus
///          vrfName = default
std::string dumpText( const Zek::PtrInterface & record, const Extent & extent = {} );

/// The same for people: joined by lines, in the colours of `style`.
std::string treeText( const Zek::PtrInterface & record, const Extent & extent,
                      const Style & style );

/// A value, in quotes where it holds what would not be seen, or would end the line.
std::string lineValue( const std::string & text );

} // namespace Print
