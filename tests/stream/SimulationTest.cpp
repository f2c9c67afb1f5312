#include "tests/stream/Simulation.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>

namespace ipstate::test {

namespace {

uint64_t
setting( const char * name, uint64_t otherwise ) {
   const char * text = std::getenv( name );
   return text ? std::strtoull( text, nullptr, 10 ) : otherwise;
}

} // namespace

TEST( Simulation, SeedsThatOnceFailed ) {
   std::ifstream file( IPSTATE_SOURCE_DIR "/tests/stream/seeds.txt" );
   ASSERT_TRUE( file );
   Situations situations;
   for( std::string line; std::getline( file, line ); ) {
      if( line.empty() || line[0] == '#' ) continue;
      const bool wide = line.ends_with( " wide" );
      EXPECT_EQ( simulateSeed( std::stoull( line ), situations, Seeds::all, wide ), "" );
   }
}

/// SEEDS of them from FIRST on; of these, WRITABLE=1 takes only those that mount something for
/// writing, WRITABLE=0 the others; with WIDE=0 the steps are the fewer ones of former seeds.
/// `make soak` runs many.
TEST( Simulation, CopiesEqualTheirSources ) {
   using Clock = std::chrono::steady_clock;
   const uint64_t first = setting( "FIRST", 1 );
   const uint64_t seeds = setting( "SEEDS", 600 );
   const uint64_t writable = setting( "WRITABLE", 2 );
   const bool wide = setting( "WIDE", 1 );
   const Seeds which = writable == 0   ? Seeds::withoutWritableMounts
                       : writable == 1 ? Seeds::withWritableMounts
                                       : Seeds::all;
   Situations situations;
   const auto start = Clock::now();
   auto said = start;
   uint64_t failed = 0;
   for( uint64_t seed = first; seed < first + seeds && failed < 5; ++seed ) {
      const std::string found = simulateSeed( seed, situations, which, wide );
      if( !found.empty() ) {
         ++failed;
         ADD_FAILURE() << found;
      }
      if( Clock::now() - said > std::chrono::seconds( 10 ) ) {
         said = Clock::now();
         const uint64_t done = seed - first + 1;
         std::cerr << done << " of " << seeds << " seeds from " << first << ", "
                   << done / std::chrono::duration< double >( said - start ).count()
                   << " a second\n";
      }
   }
   if( std::getenv( "SITUATIONS" ) ) std::cerr << situations.text();
   // Few seeds need not meet everything.
   if( seeds >= 2000 && which == Seeds::all && wide ) {
      EXPECT_EQ( situations.missing(), "" );
   }
}

} // namespace ipstate::test
