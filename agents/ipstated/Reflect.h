// Walking records of any type by their descriptors: what Watch and others share.

#pragma once

#include "framework/inspect/Reflect.h"

#include <string>

namespace Ipstated {

using Zek::Inspect::forEachMember;
using Zek::Inspect::printable;
using Zek::Inspect::rowsOf;
using Zek::Inspect::valueOf;

/// "ipIntfStatus[eth0]"
std::string memberName( const Zek::AttributeRow & row, const void * key );

} // namespace Ipstated
