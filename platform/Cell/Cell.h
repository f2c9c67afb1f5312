// The identity of the cell in which the process runs: one of the supervisors of a device, each
// with state of its own.

#pragma once

#include "framework/Export.h"

#include <cstdint>

namespace Cell {

/// The number in the environment variable IPSTATE_CELL, 1 when it is not set; read at each call.
/// Throws Zek::RangeException, with offset and content, when the variable holds anything but a
/// decimal number of 32 bits without sign, blanks or leading zeros. An empty variable is such a
/// fault too.
IPSTATE_EXPORT uint32_t cellId();

} // namespace Cell
