// Any part of a tree as text or JSON, as ipstatectl shows it.

#pragma once

#include "framework/Entity.h"

#include <string>
#include <string_view>

namespace Ipstated {

/// What stands at the path below `root`, as text or JSON; several things one after the other.
/// Zek::Inspect::NotFoundException naming what is nearest when nothing does, RangeException for
/// what is no path.
std::string dump( const Zek::Entity & root, std::string_view path, bool json );

/// The full names of all record types that the library knows, sorted, one a line.
std::string typeNames();

} // namespace Ipstated
