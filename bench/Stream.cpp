// What it costs to keep another process's copy of the records current, beside peers that are
// measured in the same run:
//
//    mirror by hand   the same bytes over a Unix-domain socket; finds the record and stores
//    bare hop         as many bytes written, waited for with poll, read
//    Redis            redis-server over a Unix-domain socket, hiredis; HSET and PUBLISH,
//                     pipelined by 100
//    ovsdb-server     over a Unix-domain socket, one monitor, 100 updates a transaction
//
// Updates change one attribute of each of 10,000 interfaces in turn; 1000 of them are one turn of
// the writer's loop. A hop is from before the mutator to the reader's callback, the reader waiting
// in poll. A first synchronisation is from connect() to the last record of interfaces with
// addresses, in processes that have seen nothing before.
//
// Writer and reader are two processes on a processor each, each peer has its own; servers between
// them run on any. Rounds alternate between the peers,
// the best round counts (of hops: the median). A peer that is not installed is left out.
//
//    Stream [quick]   fewer rounds, and no million records

#include "bench/stream/Mirror.h"
#include "bench/stream/Ours.h"
#include "bench/stream/Ovsdb.h"
#ifdef BENCH_HIREDIS
#include "bench/stream/Redis.h"
#endif

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace {

using namespace bench;

constexpr size_t records = 10'000;
bool quick = false;
bool fine = true;

/// `ratio`, and what it should be: at least the goal, or at most.
void
line( const char * figure, const char * unit, double ours, const char * peer, double theirs,
      double ratio, double goal, bool atLeast ) {
   const bool met = atLeast ? ratio >= goal : ratio <= goal;
   fine = fine && met;
   std::printf( "%-20s %10.3f %-8s %-16s %10.3f %8.2f x  %s %-6g %s\n", figure, ours, unit, peer,
                theirs, ratio, atLeast ? ">=" : "<=", goal, met ? "met" : "MISSED" );
}

/// The peer, or null when it is not installed.
template< class Peer >
std::unique_ptr< Peer >
started() {
   if( access( Peer::program, X_OK ) != 0 ) {
      std::printf( "%s is left out: there is no %s\n", Peer::name, Peer::program );
      return nullptr;
   }
   return std::make_unique< Peer >( records );
}

double
median( std::vector< double > & values ) {
   std::nth_element( values.begin(), values.begin() + long( values.size() / 2 ), values.end() );
   return values[values.size() / 2];
}

/// The least of some first synchronisations, in seconds.
template< class Peer >
double
firstSync( size_t count, int rounds ) {
   double best = 1e9;
   for( int round = 0; round < rounds; ++round ) {
      const double spent = isolated( [&] { return Peer( count ).firstSync(); } );
      if( spent > 0 ) best = std::min( best, spent );
   }
   return best;
}

/// Updates a second in millions, and hops in microseconds.
struct Figures {
   double rate = 0;
   std::vector< double > hops;
   template< class Peer >
   void rateOf( Peer & peer, size_t updates ) {
      rate = std::max( rate, peer.updatesASecond( updates ) * 1e-6 );
   }
   template< class Peer >
   void hopOf( Peer & peer ) {
      hops.push_back( peer.hop() * 1e-3 );
   }
};

template< class Peer >
void
against( Figures & ours, double oursFirst, double rateGoal, double firstGoal ) {
   auto peer = started< Peer >();
   if( !peer ) return;
   Figures theirs;
   for( int round = 0; round < 3; ++round ) theirs.rateOf( *peer, quick ? 10'000 : 50'000 );
   for( int i = 0; i < 1000; ++i ) theirs.hopOf( *peer );
   peer = nullptr;
   const double first = firstSync< Peer >( records, quick ? 1 : 3 );
   line( "updates", "M/s", ours.rate, Peer::name, theirs.rate, ours.rate / theirs.rate, rateGoal,
         true );
   const double hop = median( theirs.hops );
   line( "one hop", "us", median( ours.hops ), Peer::name, hop, hop / median( ours.hops ), 1,
         true );
   line( "first sync 10,000", "ms", oursFirst * 1e3, Peer::name, first * 1e3, first / oursFirst,
         firstGoal, true );
}

} // namespace

int
main( int count, char ** arguments ) {
   quick = count > 1 && std::string_view( arguments[1] ) == "quick";
   runAt( Place::writer );
   Figures ours, mirrors, bare;
   {
      Mirror mirror( records );
      Ours library( records );
      BareHop hop;
      for( int round = 0; round < ( quick ? 5 : 20 ); ++round ) {
         ours.rateOf( library, 1'000'000 );
         mirrors.rateOf( mirror, 1'000'000 );
      }
      for( int i = 0; i < ( quick ? 2000 : 10'000 ); ++i ) {
         bare.hopOf( hop );
         ours.hopOf( library );
      }
   }
   line( "updates", "M/s", ours.rate, Mirror::name, mirrors.rate, ours.rate / mirrors.rate, 0.5,
         true );
   line( "one hop", "us", median( ours.hops ), "bare hop", median( bare.hops ),
         median( ours.hops ) / median( bare.hops ), 1.3, false );

   const int rounds = quick ? 5 : 15;
   const double first = firstSync< Ours >( records, rounds );
   const double mirrored = firstSync< Mirror >( records, rounds );
   line( "first sync 10,000", "ms", first * 1e3, Mirror::name, mirrored * 1e3, first / mirrored, 3,
         false );
   if( !quick ) {
      const double million = firstSync< Ours >( 1'000'000, 2 );
      line( "first sync 1,000,000", "ms", million * 1e3, "100 x 10,000", first * 1e5,
            million / first / 100, 1.5, false );
   }
#ifdef BENCH_HIREDIS
   against< Redis >( ours, first, 50, 10 );
#else
   std::printf( "Redis is left out: built without hiredis\n" );
#endif
   against< Ovsdb >( ours, first, 200, 30 );
   return fine ? 0 : 1;
}
