// Collections beside their peers, all holding the same counted records.
//
// Prints medians of several rounds, in nanoseconds per operation, and the ratio of ours to the
// peer named in the heading. Peers run in turn within each round, so that a slow moment of the
// machine falls on all alike. Times never fail a run.
//
// Hashed: against absl::flat_hash_map (the reference of the ratios and the goals), node_hash_map,
// std::unordered_map and boost::intrusive, at 100, 10,000 and 1,000,000 members. Every peer uses
// the hash cached in the key. "find" reads one field of the record found, as every caller does;
// "find only" does not touch the record, which favours the peers that keep a copy of the key.
// Ordered: against std::map at 3, 100 and 10,000 members.

#include "framework/HashMap.h"
#include "framework/Node.h"
#include "framework/RbTreeMap.h"

#include <absl/container/flat_hash_map.h>
#include <absl/container/node_hash_map.h>
#include <boost/intrusive/unordered_set.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

// -- Records ----------------------------------------------------------------------------------

struct Id {
   Id() = default;
   explicit Id( uint32_t n ) : number( n ), reversed( Zek::bitReverse( Zek::hashNumber( n ) ) ) {}
   uint32_t hash() const { return Zek::bitReverse( reversed ); }
   uint32_t reversedHash() const { return reversed; }
   bool operator==( const Id & other ) const { return number == other.number; }
   bool operator<( const Id & other ) const { return number < other.number; }
   uint32_t number = 0;
   uint32_t reversed = 0;
};

struct IdHash {
   size_t operator()( const Id & id ) const { return id.reversed; }
};

class Record final : public Zek::PtrInterface {
 public:
   explicit Record( Id id ) : id_( id ), value( id.number ) {}
   const Id & fwkKey() const { return id_; }
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "Record", 40 };

 private:
   Id id_;

 public:
   uint64_t value;
   boost::intrusive::unordered_set_member_hook<> hook;
};

using RecordPtr = Zek::Ptr< Record >;

// -- One face for all maps --------------------------------------------------------------------

struct Ours {
   void insert( Record * r ) { map.insert( r ); }
   Record * find( const Id & id ) const { return map.find( id ); }
   void erase( const Id & id ) { map.take( id ); }
   uint64_t walk() const {
      uint64_t sum = 0;
      for( Map::IteratorConst i( map ); i; ++i ) sum += i.ptr()->value;
      return sum;
   }
   using Map = Zek::HashMap< Record, Id >;
   Map map;
};

template< class Map >
struct Standard {
   void insert( Record * r ) { map.emplace( r->fwkKey(), r ); }
   Record * find( const Id & id ) const {
      auto at = map.find( id );
      return at == map.end() ? nullptr : at->second.ptr();
   }
   void erase( const Id & id ) { map.erase( id ); }
   uint64_t walk() const {
      uint64_t sum = 0;
      for( const auto & [id, record] : map ) sum += record->value;
      return sum;
   }
   Map map;
};

using Flat = Standard< absl::flat_hash_map< Id, RecordPtr, IdHash > >;
using NodeMap = Standard< absl::node_hash_map< Id, RecordPtr, IdHash > >;
using Unordered = Standard< std::unordered_map< Id, RecordPtr, IdHash > >;
using Tree = Standard< std::map< Id, RecordPtr > >;

struct Intrusive {
   struct KeyOf {
      using type = Id;
      const Id & operator()( const Record & r ) const { return r.fwkKey(); }
   };
   using Hook =
      boost::intrusive::member_hook< Record, boost::intrusive::unordered_set_member_hook<>,
                                     &Record::hook >;
   using Set =
      boost::intrusive::unordered_set< Record, Hook, boost::intrusive::key_of_value< KeyOf >,
                                       boost::intrusive::hash< IdHash >,
                                       boost::intrusive::power_2_buckets< true > >;
   using Bucket = Set::bucket_type;

   Intrusive()
      : buckets( new Bucket[16] ),
        count( 16 ),
        set( Set::bucket_traits( buckets.get(), 16 ) ) {}
   ~Intrusive() {
      set.clear_and_dispose( []( Record * r ) { r->referencesDec(); } );
   }
   void insert( Record * r ) {
      if( set.size() == count ) {
         std::unique_ptr< Bucket[] > more( new Bucket[count * 2] );
         set.rehash( Set::bucket_traits( more.get(), count * 2 ) );
         buckets = std::move( more );
         count *= 2;
      }
      r->referencesInc();
      set.insert( *r );
   }
   Record * find( const Id & id ) const {
      auto at = set.find( id );
      return at == set.end() ? nullptr : const_cast< Record * >( &*at );
   }
   void erase( const Id & id ) {
      set.erase_and_dispose( id, []( Record * r ) { r->referencesDec(); } );
   }
   uint64_t walk() const {
      uint64_t sum = 0;
      for( const Record & r : set ) sum += r.value;
      return sum;
   }
   std::unique_ptr< Bucket[] > buckets;
   size_t count;
   Set set;
};

// -- Measuring --------------------------------------------------------------------------------

using Clock = std::chrono::steady_clock;
volatile uint64_t sink;

template< class Work >
double
nanoseconds( size_t operations, Work work ) {
   auto begin = Clock::now();
   work();
   std::chrono::duration< double, std::nano > took = Clock::now() - begin;
   return took.count() / static_cast< double >( operations );
}

enum Measure { findHit, findOnly, findMiss, insertAll, eraseAll, walkAll, measures };
const char * const measureNames[] = { "find", "find only", "miss", "insert", "erase", "walk" };

using Samples = std::vector< double >;

double
median( Samples samples ) {
   std::sort( samples.begin(), samples.end() );
   return samples[samples.size() / 2];
}

/// Present keys are even, absent ones odd, so that misses of ordered maps end anywhere. Queries are
/// long random sequences, which no branch predictor learns by heart.
struct Data {
   explicit Data( uint32_t count ) : random( 7 ) {
      for( uint32_t i = 0; i < count; ++i ) {
         records.push_back( Zek::allocate< Record >( Id( 2 * i ) ) );
         present.emplace_back( 2 * i );
      }
      for( uint32_t i = 0; i < std::max( count, 200000u ); ++i ) {
         uint32_t n = static_cast< uint32_t >( random() % count );
         hits.emplace_back( 2 * n );
         misses.emplace_back( 2 * n + 1 );
      }
      shuffle();
   }
   void shuffle() {
      std::shuffle( records.begin(), records.end(), random );
      std::shuffle( present.begin(), present.end(), random );
   }
   std::mt19937 random;
   std::vector< RecordPtr > records;
   std::vector< Id > present, hits, misses;
};

template< class Found >
uint64_t
valueOf( const Found & found ) {
   if constexpr( requires { found->value(); } ) {
      return found->value();
   } else if constexpr( requires { found->value; } ) {
      return found->value;
   } else {
      return *found;
   }
}

/// One round: every measure once, small maps many times over.
template< class Map >
void
measure( const Data & data, Samples ( &samples )[measures] ) {
   const size_t count = data.records.size();
   const size_t times = std::max< size_t >( 1, 200000 / count );
   // Deliberate: a record with a hook stands in one map only.
   constexpr bool isIntrusive = std::is_same_v< Map, Intrusive >;
   std::vector< Map > maps( isIntrusive ? 1 : std::min< size_t >( times, 200 ) );
   samples[insertAll].push_back( nanoseconds( count * maps.size(), [&] {
      for( Map & map : maps ) {
         for( const RecordPtr & r : data.records ) map.insert( r.ptr() );
      }
   } ) );
   Map & map = maps.front();
   uint64_t sum = 0;
   samples[findHit].push_back( nanoseconds( data.hits.size(), [&] {
      for( const Id & id : data.hits ) sum += valueOf( map.find( id ) );
   } ) );
   samples[findOnly].push_back( nanoseconds( data.hits.size(), [&] {
      for( const Id & id : data.hits ) sum += map.find( id ) != nullptr;
   } ) );
   samples[findMiss].push_back( nanoseconds( data.misses.size(), [&] {
      for( const Id & id : data.misses ) sum += map.find( id ) != nullptr;
   } ) );
   samples[walkAll].push_back( nanoseconds( count * times, [&] {
      for( size_t t = 0; t < times; ++t ) sum += map.walk();
   } ) );
   samples[eraseAll].push_back( nanoseconds( count * maps.size(), [&] {
      for( Map & m : maps ) {
         for( const Id & id : data.present ) m.erase( id );
      }
   } ) );
   sink = sum;
}

/// Time this thread ran, page faults included, without what the machine gave to others.
double
threadMicroseconds() {
   timespec now;
   clock_gettime( CLOCK_THREAD_CPUTIME_ID, &now );
   return static_cast< double >( now.tv_sec ) * 1e6 + static_cast< double >( now.tv_nsec ) / 1e3;
}

/// The longest single insertion while a map grows to all records, in microseconds.
template< class Map >
double
worstInsert( const Data & data ) {
   Map map;
   double worst = 0;
   for( const RecordPtr & r : data.records ) {
      double begin = threadMicroseconds();
      map.insert( r.ptr() );
      worst = std::max( worst, threadMicroseconds() - begin );
   }
   return worst;
}

// -- Hashed -----------------------------------------------------------------------------------

void
hashed( uint32_t count, int rounds ) {
   static const double goals[][measures] = { { 1.3, 0, 1.7, 0, 0.9, 1.3 },
                                             { 1.3, 0, 1.7, 2, 0.9, 1.3 },
                                             { 1.3, 0, 1.7, 1.2, 0.9, 1.3 } };
   const double * goal = goals[count <= 100 ? 0 : count <= 10000 ? 1 : 2];
   Data data( count );
   Samples ours[measures], flat[measures], node[measures], unordered[measures], boost[measures];
   for( int i = 0; i < rounds; ++i ) {
      data.shuffle();
      measure< Ours >( data, ours );
      measure< Flat >( data, flat );
      measure< NodeMap >( data, node );
      measure< Unordered >( data, unordered );
      measure< Intrusive >( data, boost );
   }
   std::printf( "\n%9u members      ours    flat    node   unord.  boost   ours/flat  goal\n",
                count );
   for( int m = 0; m < measures; ++m ) {
      double mine = median( ours[m] ), peer = median( flat[m] );
      std::printf( "%-18s %9.1f %7.1f %7.1f %7.1f %7.1f %9.2f", measureNames[m], mine, peer,
                   median( node[m] ), median( unordered[m] ), median( boost[m] ), mine / peer );
      std::printf( goal[m] > 0 ? "  %6.1f\n" : "\n", goal[m] );
   }
}

void
spikes( uint32_t count, int rounds ) {
   Data data( count );
   double ours = 1e9, flat = 1e9, tree = 1e9;
   for( int i = 0; i < rounds; ++i ) {
      ours = std::min( ours, worstInsert< Ours >( data ) );
      flat = std::min( flat, worstInsert< Flat >( data ) );
      tree = std::min( tree, worstInsert< Tree >( data ) );
   }
   std::printf( "\nworst single insert growing to %u, least of %d runs, microseconds\n", count,
                rounds );
   std::printf( "   ours %.1f, flat_hash_map %.1f (ours/flat %.4f, goal 0.01), std::map %.1f\n",
                ours, flat, ours / flat, tree );
}

// -- Ordered ----------------------------------------------------------------------------------

class TreeNode final : public Zek::RbKeyValueNode< Id, uint64_t > {
 public:
   using KeyValueNode::KeyValueNode;
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "TreeNode", 56 };
};

struct OurTree {
   void insert( Record * r ) { map.valueIs( r->fwkKey(), r->value ); }
   const TreeNode * find( const Id & id ) const { return map.find( id ); }
   void erase( const Id & id ) { map.take( id ); }
   uint64_t walk() const {
      uint64_t sum = 0;
      for( Map::IteratorConst i( map ); i; ++i ) sum += i.value();
      return sum;
   }
   using Map = Zek::RbTreeMap< TreeNode, Id, uint64_t >;
   Map map;
};

struct StdTree {
   void insert( Record * r ) { map.insert_or_assign( r->fwkKey(), r->value ); }
   const uint64_t * find( const Id & id ) const {
      auto at = map.find( id );
      return at == map.end() ? nullptr : &at->second;
   }
   void erase( const Id & id ) { map.erase( id ); }
   uint64_t walk() const {
      uint64_t sum = 0;
      for( const auto & [id, value] : map ) sum += value;
      return sum;
   }
   std::map< Id, uint64_t > map;
};

void
ordered( uint32_t count, int rounds ) {
   Data data( count );
   Samples ours[measures], peer[measures];
   for( int i = 0; i < rounds; ++i ) {
      data.shuffle();
      measure< OurTree >( data, ours );
      measure< StdTree >( data, peer );
   }
   std::printf( "\n%9u members      ours  std::map  ratio   goal\n", count );
   for( int m = 0; m < measures; ++m ) {
      if( m == findOnly ) continue;
      double mine = median( ours[m] ), other = median( peer[m] );
      std::printf( "%-18s %9.1f %9.1f %6.2f    1.2\n", measureNames[m], mine, other, mine / other );
   }
}

} // namespace

int
main() {
   hashed( 100, 15 );
   hashed( 10000, 15 );
   hashed( 1000000, 5 );
   spikes( 1000000, 5 );
   ordered( 3, 15 );
   ordered( 100, 15 );
   ordered( 10000, 15 );
}
