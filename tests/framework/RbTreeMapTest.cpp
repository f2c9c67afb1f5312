#include "framework/RbTreeMap.h"
#include "tests/framework/CollectionModel.h"

#include <functional>

namespace CollectionTest {
namespace {

using TreeNode = Node< Zek::RbKeyValueNode< Id, int > >;
using TreeMap = Zek::RbTreeMap< TreeNode, Id, int >;
static_assert( sizeof( TreeMap ) == sizeof( void * ) );

TEST( RbTreeMap, FollowsTheModelThroughRandomChanges ) {
   for( uint32_t seed = 1; seed <= 4; ++seed ) {
      {
         Story< TreeMap, Id, std::less< Id > > story( seed );
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

} // namespace
} // namespace CollectionTest
