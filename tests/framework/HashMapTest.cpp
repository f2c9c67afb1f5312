#include "framework/HashMap.h"
#include "tests/framework/CollectionModel.h"

#include <algorithm>
#include <bit>
#include <compare>
#include <random>
#include <set>
#include <string>

namespace CollectionTest {
namespace {

template< class Key >
using IntNode = Node< Zek::KeyValueNode< Key, int > >;
template< class Key >
using IntMap = Zek::HashMap< IntNode< Key >, Key >;

template< class Key >
constexpr bool HasGoodHash = std::is_same_v< Key, Id > || std::is_same_v< Key, Plain >;

template< class Key >
class AnyHash : public testing::Test {};
using Keys = testing::Types< Id, Plain, Clash, Same, Skewed >;
TYPED_TEST_SUITE( AnyHash, Keys );

TYPED_TEST( AnyHash, FollowsTheModelThroughRandomChanges ) {
   static_assert( sizeof( IntMap< TypeParam > ) == sizeof( void * ) );
   const uint32_t most = HasGoodHash< TypeParam > ? 4000 : 400;
   for( KeyOrder order : keyOrders ) {
      for( uint32_t seed = 1; seed <= 2; ++seed ) {
         {
            Story< IntMap< TypeParam >, TypeParam, HashedOrder > story( seed, order );
            for( uint32_t keys : { 3u, 12u, 40u, most } ) {
               story.tell( 1500, keys, 70 );
               story.tell( 1000, keys, 30 );
               if( seed % 2 ) story.clear();
            }
            story.clear();
            story.tell( static_cast< int >( most ), most, 98 );
            story.map.clear();
            EXPECT_EQ( story.map.table().bytes(), 0u );
         }
         EXPECT_EQ( IntNode< TypeParam >::alive(), 0u );
      }
   }
}

// What grows crowded is widened, the old array too, while its iterators are others than before.
TEST( HashMap, GrowsUnderIteratorsThatComeAndGo ) {
   std::set< Id, HashedOrder > keys;
   for( uint32_t n = 0; n < 3000; ++n ) keys.emplace( n );
   IntMap< Id > map;
   for( auto key = keys.rbegin(); key != keys.rend(); ++key ) {
      const IntMap< Id >::IteratorConst passing( map );
      map.valueIs( *key, 0 );
   }
   EXPECT_EQ( map.count(), 3000u );
}

// A walk of one step per insertion, so that it meets every stage of every growth.
TYPED_TEST( AnyHash, AWalkDuringGrowthSeesWhatIsAheadOnceAndInOrder ) {
   const uint32_t last = HasGoodHash< TypeParam > ? 30000 : 600;
   IntMap< TypeParam > map;
   std::set< TypeParam, HashedOrder > model;
   auto add = [&]( uint32_t n ) {
      map.valueIs( TypeParam( n ), 0 );
      model.insert( TypeParam( n ) );
   };
   add( 0 );
   for( uint32_t n = 1; n < last; ) {
      for( typename IntMap< TypeParam >::Iterator i( map ); i && n < last; ) {
         TypeParam on = i.key();
         add( n++ );
         add( n++ );
         ++i;
         auto next = model.upper_bound( on );
         ASSERT_EQ( static_cast< bool >( i ), next != model.end() );
         if( i ) {
            ASSERT_EQ( i.key().number, next->number );
         }
      }
      // The untyped walk in the middle of whatever goes on.
      Zek::PtrInterface * member = map.table().firstMember();
      for( const TypeParam & key : model ) {
         ASSERT_EQ( member, map.find( key ) );
         ASSERT_EQ( map.table().memberAfter( Zek::reversedHashOf( key ), &key ),
                    map.table().memberAfter( member ) );
         member = map.table().memberAfter( member );
      }
      ASSERT_EQ( member, nullptr );
   }
}

TYPED_TEST( AnyHash, TheOrderDoesNotDependOnTheHistory ) {
   IntMap< TypeParam > up, down;
   for( uint32_t n = 0; n < 900; ++n ) {
      up.valueIs( TypeParam( n ), 0 );
      down.valueIs( TypeParam( 1799 - n ), 0 );
   }
   for( uint32_t n = 0; n < 600; ++n ) {
      up.valueIs( TypeParam( 900 + n ), 0 );
      up.take( TypeParam( n ) );
      down.take( TypeParam( 1799 - n ) ); // 1200 to 1799
   }
   for( uint32_t n = 0; n < 300; ++n ) up.take( TypeParam( 1499 - n ) );
   for( uint32_t n = 0; n < 300; ++n ) down.valueIs( TypeParam( 600 + n ), 0 );
   typename IntMap< TypeParam >::IteratorConst a( up ), b( down );
   for( ; a && b; ++a, ++b ) ASSERT_EQ( a.key().number, b.key().number );
   EXPECT_TRUE( !a && !b );
   EXPECT_EQ( up.count(), 600u );
}

struct Chosen { // the hash is the test's choice
   uint32_t hash() const { return Zek::bitReverse( reversed ); }
   uint32_t reversedHash() const { return reversed; }
   auto operator<=>( const Chosen & ) const = default;
   uint32_t number;
   uint32_t reversed;
};

// The run behind the last home outgrows the old array while it moves, after the new one was made:
// that needs an old array of 256 homes that is full to the end when its growth begins, which one
// of these mixtures has.
TEST( HashMap, MakesRoomBehindTheLastHomeInTheMiddleOfGrowth ) {
   for( uint32_t spread = 30; spread < 64; ++spread ) {
      IntMap< Chosen > map;
      uint32_t n = 0;
      for( ; n < 100; ++n ) map.valueIs( Chosen{ n, n << 25 }, 0 );
      while( n > spread ) --n, map.take( Chosen{ n, n << 25 } );
      for( ; n < 230; ++n ) map.valueIs( Chosen{ n, 0xffffffff }, 0 );
      uint32_t walked = 0;
      for( IntMap< Chosen >::Iterator i( map ); i; ++i ) ASSERT_EQ( i.key().number, walked++ );
      ASSERT_EQ( walked, n );
      while( n-- > spread ) ASSERT_TRUE( map.take( Chosen{ n, 0xffffffff } ) );
      ASSERT_EQ( map.count(), spread );
   }
}

// A copy of a walk crowds the front of the table until each growth; so do removals meanwhile.
TEST( HashMap, FillsInHashedOrderWithoutWalkingPastWhatIsThere ) {
   for( uint32_t n : { 1000u, 8000u, 32000u } ) {
      std::vector< Id > keys;
      for( uint32_t i = 0; i < n; ++i ) keys.emplace_back( i );
      std::sort( keys.begin(), keys.end(), HashedOrder() );
      IntMap< Id > map;
      const uint64_t before = Zek::HashTable::longRunSteps();
      for( const Id & key : keys ) {
         map.valueIs( key, 0 );
         ASSERT_EQ( map.memberAfter( key ), nullptr );
      }
      // Three gallops of at most twice the logarithm of a run of 3/8 n.
      EXPECT_LE( Zek::HashTable::longRunSteps() - before, uint64_t{ n } * 6 * std::bit_width( n ) );
      size_t at = 0;
      for( IntMap< Id >::Iterator i( map ); i; ++i ) ASSERT_EQ( i.key().number, keys[at++].number );
      ASSERT_EQ( at, n );
   }
}

TEST( HashMap, MovesARunInPartsWhileMembersComeAndGo ) {
   std::set< Id, HashedOrder > keys, model;
   for( uint32_t n = 0; n < 6000; ++n ) keys.emplace( n );
   IntMap< Id > map;
   std::mt19937 random( 5 );
   for( const Id & key : keys ) {
      map.valueIs( key, 0 );
      model.insert( key );
      const Id other( static_cast< uint32_t >( random() % 6000 ) );
      if( random() % 3 == 0 ) {
         ASSERT_EQ( static_cast< bool >( map.take( other ) ), model.erase( other ) == 1 );
      } else if( random() % 4 == 0 ) {
         ASSERT_EQ( map.valueIs( other, 0 ), model.insert( other ).second );
      }
      ASSERT_EQ( map.count(), model.size() );
      if( random() % 64 ) continue;
      auto expected = model.begin();
      for( IntMap< Id >::IteratorConst i( map ); i; ++i, ++expected ) {
         ASSERT_EQ( i.key().number, expected->number );
         ASSERT_EQ( map.find( i.key() ), i.ptr() );
      }
      ASSERT_EQ( expected, model.end() );
   }
}

TEST( HashMap, FewMembersCostFewBytes ) {
   IntMap< Id > map;
   EXPECT_EQ( map.table().bytes(), 0u );
   for( auto [count, limit] : { std::pair( 1u, 56u ), { 2u, 72u }, { 4u, 104u }, { 8u, 168u } } ) {
      while( map.count() < count ) map.valueIs( Id( static_cast< uint32_t >( map.count() ) ), 0 );
      EXPECT_LE( map.table().bytes(), limit );
   }
}

// -- Members that live elsewhere --------------------------------------------------------------

class Record : public Zek::PtrInterface {
 public:
   explicit Record( std::string name ) : name_( std::move( name ) ) {}
   const std::string & fwkKey() const { return name_; }
   std::string label() const { return "/" + name_; }
   void labelledIs() { ++labelled; }
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "CollectionTest::Record", 64 };
   int labelled = 0;

 private:
   std::string name_;
};

struct LabelFunktor {
   std::string operator()( const Record & record ) const { return record.label(); }
};

TEST( HashMap, HoldsMembersOfOthersByReference ) {
   auto eth = Zek::allocate< Record >( "eth" );
   Zek::Ptr< const Record > otherEth = Zek::allocate< Record >( "eth" );
   {
      Zek::HashMap< const Record, std::string > map;
      map.insert( eth.ptr() );
      EXPECT_EQ( eth->references(), 2u );
      EXPECT_EQ( map.find( "eth" ), eth.ptr() );
      Zek::HashMap< const Record, std::string >::Iterator on( map, "eth" ), end( map, "et" );
      EXPECT_FALSE( end );
      EXPECT_EQ( map.replace( otherEth.ptr() ), eth );
      EXPECT_EQ( eth->references(), 2u ); // the iterator's
      EXPECT_EQ( on.ptr(), eth.ptr() );
      ++on;
      EXPECT_FALSE( on );
      EXPECT_EQ( otherEth->references(), 2u );
   }
   EXPECT_EQ( eth->references(), 1u );
   EXPECT_EQ( otherEth->references(), 1u );
}

TEST( HashMap, TakesAKeyThatAFunktorComputes ) {
   struct NameFunktor {
      std::string operator()( const Record & record ) const { return record.fwkKey(); }
   };
   Zek::HashMap< Record, std::string, NameFunktor > map;
   for( int i = 0; i < 20; ++i ) map.insert( Zek::allocate< Record >( std::to_string( i ) ).ptr() );
   EXPECT_EQ( map.find( "13" )->label(), "/13" );
   Zek::HashMap< Record, std::string, NameFunktor >::Iterator i( map, "7" );
   i.ptr()->labelledIs();
   EXPECT_EQ( map.take( "7" )->labelled, 1 );
   EXPECT_EQ( map.count(), 19u );

   Zek::HashMap< Record, std::string, LabelFunktor > wrong;
   EXPECT_DEATH( wrong.insert( Zek::allocate< Record >( "x" ).ptr() ),
                 "assertion 'fwkKey\\(\\) == KeyFunktor\\(\\)\\( _value \\)' failed" );
}

// -- Values keyed by a field, sets ------------------------------------------------------------

struct Group {
   uint32_t address;
   int members;
   bool operator==( const Group & ) const = default;
};
struct AddressFunktor {
   const uint32_t & operator()( const Group & group ) const { return group.address; }
};
using GroupNode = Node< Zek::ValueNode< Group, AddressFunktor > >;
using SetNode = Node< Zek::KeyNode< uint32_t > >;

TEST( HashMap, KeepsAValueUnderOneOfItsFields ) {
   Zek::HashMap< GroupNode, uint32_t > map;
   EXPECT_TRUE( map.valueIs( Group{ 5, 1 } ) );
   EXPECT_FALSE( map.valueIs( Group{ 5, 1 } ) );
   EXPECT_TRUE( map.valueIs( Group{ 5, 2 } ) );
   EXPECT_EQ( GroupNode::alive(), 1u );
   EXPECT_EQ( map.find( 5 )->value().members, 2 );
   EXPECT_DEATH( map.find( 5 )->valueIs( Group{ 6, 2 } ),
                 "assertion 'fwkKey\\(\\) == KeyFunktor\\(\\)\\( _value \\)' failed" );
   Zek::HashMap< SetNode, uint32_t > set;
   EXPECT_TRUE( set.keyIs( 5 ) );
   EXPECT_FALSE( set.keyIs( 5 ) );
   EXPECT_EQ( SetNode::alive(), 1u );
}

// -- Members that act as they die -------------------------------------------------------------

class Avenger final : public Zek::KeyNode< uint32_t > {
 public:
   using Map = Zek::HashMap< Avenger, uint32_t >;
   Avenger( uint32_t key, Map & map ) : KeyNode( key ), map_( map ) {}
   ~Avenger() override {
      EXPECT_FALSE( map_.has( key() ) );
      if( key() < 100 ) map_.insert( Zek::allocate< Avenger >( key() + 100, map_ ).ptr() );
   }
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "CollectionTest::Avenger", 32 };

 private:
   Map & map_;
};

TEST( HashMap, IsSoundWhenADyingMemberChangesIt ) {
   {
      Avenger::Map map;
      for( uint32_t i = 0; i < 50; ++i ) map.insert( Zek::allocate< Avenger >( i, map ).ptr() );
      Avenger::Map::Iterator on( map, 7 );
      map.take( 3 );
      EXPECT_TRUE( map.has( 103 ) );
      map.clear();
      EXPECT_EQ( map.count(), 48u ); // not that of 3, which went, nor that of 7, which is held
      EXPECT_EQ( on.key(), 7u );
      ++on;
      EXPECT_TRUE( on );
      EXPECT_EQ( map.count(), 49u );
      map.clear();
      EXPECT_EQ( map.count(), 0u );
   }
   EXPECT_EQ( Avenger::allocTrackTypeInfo_.liveObjects(), 0u );
}

} // namespace
} // namespace CollectionTest
