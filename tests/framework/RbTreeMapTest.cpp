#include "framework/RbTreeMap.h"
#include "framework/ValueSet.h"
#include "tests/framework/CollectionModel.h"

#include <algorithm>
#include <functional>
#include <random>
#include <set>

namespace CollectionTest {
namespace {

using TreeNode = Node< Zek::RbKeyValueNode< Id, int > >;
using TreeMap = Zek::RbTreeMap< TreeNode, Id, int >;
static_assert( sizeof( TreeMap ) == sizeof( void * ) );

TEST( RbTreeMap, FollowsTheModelThroughRandomChanges ) {
   uint32_t seed = 0;
   for( KeyOrder order : keyOrders ) {
      ++seed;
      {
         Story< TreeMap, Id, std::less< Id > > story( seed, order );
         for( uint32_t keys : { 3u, 12u, 40u, 2000u } ) {
            for( uint32_t insertions : { 70u, 30u } ) {
               for( int round = 0; round < 40; ++round ) {
                  story.tell( 40, keys, insertions );
                  story.map.tree().checkedHeight();
               }
            }
            if( seed % 2 ) story.clear();
         }
      }
      EXPECT_EQ( TreeNode::alive(), 0u );
   }
}

TEST( RbTreeMap, EveryRemovalFromEverySmallTreeLeavesATree ) {
   for( uint32_t size = 1; size <= 24; ++size ) {
      for( uint32_t gone = 0; gone < size; ++gone ) {
         for( bool rising : { true, false } ) {
            TreeMap map;
            for( uint32_t i = 0; i < size; ++i ) map.valueIs( Id( rising ? i : size - 1 - i ), 0 );
            TreeMap::Iterator on( map, Id( gone ) );
            map.take( on.key() );
            map.tree().checkedHeight();
            EXPECT_EQ( map.count(), size - 1 );
            EXPECT_EQ( on.key().number, gone );
            ++on;
            ASSERT_EQ( static_cast< bool >( on ), gone + 1 < size );
            if( on ) {
               EXPECT_EQ( on.key().number, gone + 1 );
            }
         }
      }
   }
   EXPECT_EQ( TreeNode::alive(), 0u );
}

TEST( RbTreeMap, IsWalkedWithoutItsTypes ) {
   TreeMap map;
   for( uint32_t n = 0; n < 100; n += 2 ) map.valueIs( Id( n ), 0 );
   uint32_t n = 0;
   for( const Zek::RbNode * m = map.tree().firstMember(); m; n += 2 ) {
      ASSERT_EQ( m, map.find( Id( n ) ) );
      Id odd( n + 1 );
      m = Zek::RbTree::memberAfter( m );
      ASSERT_EQ( map.tree().memberAfter( &odd, &TreeMap::compare ), m );
   }
   EXPECT_EQ( n, 100u );
}

TEST( RbTreeMap, ARemovedNodeIsNotInsertedAgain ) {
   TreeMap map;
   map.valueIs( Id( 1 ), 0 );
   Zek::Ptr< TreeNode > taken = map.take( Id( 1 ) );
   EXPECT_DEATH( map.insert( taken.ptr() ), "a node belongs to one collection" );
}

// -- Sets inside values -----------------------------------------------------------------------

TEST( ValueSet, FollowsTheModelWhileItIsWalkedByKey ) {
   std::mt19937 random( 1 );
   for( KeyOrder order : { KeyOrder::random, KeyOrder::forwards, KeyOrder::backwards } ) {
      Zek::ValueSet< uint32_t > set;
      std::set< uint32_t > model;
      uint32_t on = 0;
      for( uint32_t i = 0; i < 4000; ++i ) {
         const uint32_t key = order == KeyOrder::random     ? random() % 64
                              : order == KeyOrder::forwards ? i % 64
                                                            : 63 - i % 64;
         if( random() % 3 ) {
            ASSERT_EQ( set.insert( key ), model.insert( key ).second );
         } else {
            // By the set's own key, which goes with it.
            auto own = std::find( set.begin(), set.end(), key );
            ASSERT_EQ( set.remove( own == set.end() ? key : *own ), model.erase( key ) == 1 );
         }
         auto next = model.upper_bound( on );
         auto at = std::upper_bound( set.begin(), set.end(), on );
         ASSERT_EQ( at == set.end(), next == model.end() );
         if( at != set.end() ) {
            ASSERT_EQ( *at, *next );
         }
         on = at == set.end() ? 0 : *at;
         ASSERT_TRUE( std::equal( set.begin(), set.end(), model.begin(), model.end() ) );
      }
   }
}

} // namespace
} // namespace CollectionTest
