// Which ipstate this is. Before version 1 each minor version has interfaces of its own: what is
// built against one does not run with another.

#pragma once

#include "framework/Export.h"

#define IPSTATE_VERSION_MAJOR 0
#define IPSTATE_VERSION_MINOR 1
#define IPSTATE_VERSION_PATCH 0
#define IPSTATE_VERSION_TEXT "0.1.0"

namespace Zek {

/// The version of the library that runs, as in "0.1.0"; IPSTATE_VERSION_TEXT is the one that was
/// compiled against. Lives as long as the library is loaded.
IPSTATE_EXPORT const char * version() noexcept;

} // namespace Zek
