// Trees joined by sessions over simulated pipes, in one thread, from one seed: whatever happens on
// the way, at rest every copy equals its source.

#pragma once

#include "tests/stream/Situations.h"

#include <cstdint>
#include <string>
#include <vector>

namespace ipstate::test {

struct Outcome {
   std::string problem;            // empty: none
   uint32_t steps;                 // taken until it was seen
   std::vector< std::string > log; // of what the steps did, when asked for
};

/// Which of the seeds count; the others are passed over.
enum class Seeds { all, withoutWritableMounts, withWritableMounts };

/// Each step draws from a source of its own, so that others can be left out.
struct Schedule {
   uint64_t seed;
   uint32_t steps = 120;
   std::vector< bool > dropped = {}; // by step
   bool describe = false;
   Seeds which = Seeds::all;
   /// Subtrees that move, want of memory, connections that end from within. Without them the steps
   /// are those of seeds that failed before there were such.
   bool wide = true;
};

Outcome simulate( const Schedule & schedule, Situations & situations );

/// Runs a seed. Empty, or what was found, with the steps that are needed for it.
std::string simulateSeed( uint64_t seed, Situations & situations, Seeds which = Seeds::all,
                          bool wide = true );

} // namespace ipstate::test
