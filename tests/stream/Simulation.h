// Trees joined by sessions over simulated pipes, in one thread, from one seed.

#pragma once

#include "platform/Kelmo/Session.h"
#include "tests/stream/Trees.h"

#include <memory>
#include <string>
#include <vector>

namespace ipstate::test {

/// Runs the schedule of a seed to its end. Empty when every copy equals its source; else what
/// differs, with the last steps.
std::string simulate( uint64_t seed, uint32_t steps = 200 );

} // namespace ipstate::test
