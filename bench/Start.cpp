// From a scripted kernel's first dump to records: time per address, which should not depend on how
// many there are.

#include "agents/ipstated/Mirror.h"
#include "tests/agents/ScriptedKernel.h"

#include <benchmark/benchmark.h>

namespace {

using namespace Ipstated;

constexpr int addressesEach = 10;

/// Dumps of `count` interfaces with ten addresses each, one of them IPv6.
void
fill( Scripted::Source & source, int count ) {
   Scripted::Reply links, addresses4, addresses6;
   for( int i = 1; i <= count; ++i ) {
      links.messages.push_back( Scripted::newLink( { i, "eth" + std::to_string( i ) } ) );
      std::string middle = std::to_string( i / 256 ) + "." + std::to_string( i % 256 );
      for( int j = 1; j < addressesEach; ++j ) {
         addresses4.messages.push_back(
            Scripted::newAddress( i, "10." + middle + "." + std::to_string( j ) + "/24" ) );
      }
      char text[64];
      snprintf( text, sizeof text, "2001:db8:%x::1/64", unsigned( i ) );
      addresses6.messages.push_back( Scripted::address6( RTM_NEWADDR, i, text ) );
   }
   source.dumps[Dump::links] = { links };
   source.dumps[Dump::addresses4] = { addresses4 };
   source.dumps[Dump::addresses6] = { addresses6 };
}

void
start( benchmark::State & state ) {
   int interfaces = int( state.range( 0 ) );
   for( auto _ : state ) {
      state.PauseTiming();
      {
         Scripted::Source source;
         fill( source, interfaces );
         Mirror mirror( 1 );
         KernelFeed feed( source, mirror );
         state.ResumeTiming();
         feed.start( {} );
         while( !feed.everSynchronized() ) {
            feed.onReadable( {} );
         }
         state.PauseTiming();
         if( mirror.ipStatus().ipIntfStatusCount() != size_t( interfaces ) ) {
            state.SkipWithError( "interfaces are missing" );
         }
      }
      state.ResumeTiming();
   }
   double addresses = double( state.iterations() ) * interfaces * addressesEach;
   state.counters["per_address"] =
      benchmark::Counter( addresses, benchmark::Counter::kIsRate | benchmark::Counter::kInvert );
   state.SetComplexityN( interfaces );
}

BENCHMARK( start )
   ->Arg( 100 )
   ->Arg( 1000 )
   ->Arg( 10000 )
   ->Unit( benchmark::kMillisecond )
   ->Complexity( benchmark::oN );

} // namespace

BENCHMARK_MAIN();
