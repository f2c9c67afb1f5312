#include "tests/stream/Simulation.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace ipstate::test {

namespace {

uint64_t
setting( const char * name, uint64_t otherwise ) {
   const char * text = std::getenv( name );
   return text ? std::strtoull( text, nullptr, 10 ) : otherwise;
}

} // namespace

TEST( Simulation, CopiesEqualTheirSources ) {
   uint64_t first = setting( "FIRST", 1 );
   uint64_t seeds = setting( "SEEDS", 200 );
   for( uint64_t seed = first; seed < first + seeds; ++seed ) {
      std::string found = simulate( seed );
      ASSERT_EQ( found, "" );
   }
}

} // namespace ipstate::test
