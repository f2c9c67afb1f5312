// Random stories told to a collection and to a std::map beside it, with iterators alive meanwhile.
//
// Whatever happens to the collection, an iterator must stay on its key and step to what the model
// calls the next one. The order in which keys come is a dimension of each story: a copy of a walk,
// forwards, backwards or from its middle, crowds an array as no random order does.

#pragma once

#include "framework/Hash.h"
#include "framework/Node.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <vector>

namespace CollectionTest {

// Keys are numbers of 32 bits under different hashes.

struct Id { // well mixed, cached
   Id( uint32_t n ) : number( n ), reversed( Zek::bitReverse( Zek::hashNumber( n ) ) ) {}
   uint32_t hash() const { return Zek::bitReverse( reversed ); }
   uint32_t reversedHash() const { return reversed; }
   uint32_t number;
   uint32_t reversed;
};

struct Plain { // well mixed, not cached
   Plain( uint32_t n ) : number( n ) {}
   uint32_t hash() const { return Zek::hashNumber( number ); }
   uint32_t number;
};

struct Clash { // three hashes in all, those at the upper end
   Clash( uint32_t n ) : number( n ) {}
   uint32_t hash() const {
      static constexpr uint32_t hashes[] = { 0xffffffff, 0x7fffffff, 0xfffffffe };
      return hashes[number % 3];
   }
   uint32_t number;
};

struct Same { // one hash for all
   Same( uint32_t n ) : number( n ) {}
   uint32_t hash() const { return 0x5eed; }
   uint32_t number;
};

struct Skewed { // all homes in the last eighth
   Skewed( uint32_t n ) : number( n ) {}
   uint32_t hash() const { return Zek::hashNumber( number ) | 7; }
   uint32_t number;
};

template< class Key >
requires requires( const Key & key ) {
   key.number;
}
bool
operator==( const Key & a, const Key & b ) {
   return a.number == b.number;
}

template< class Key >
requires requires( const Key & key ) {
   key.number;
}
bool
operator<( const Key & a, const Key & b ) {
   return a.number < b.number;
}

struct HashedOrder {
   template< class Key >
   bool operator()( const Key & a, const Key & b ) const {
      uint32_t hashA = Zek::reversedHashOf( a ), hashB = Zek::reversedHashOf( b );
      return hashA != hashB ? hashA < hashB : a < b;
   }
};

template< class Base >
class Node final : public Base {
 public:
   using Base::Base;
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "CollectionTest::Node",
                                                              sizeof( Base ) };
   static uint64_t alive() { return allocTrackTypeInfo_.liveObjects(); }
};

/// How the keys of a story's changes follow each other.
enum class KeyOrder { random, forwards, backwards, fromTheMiddle, clustered };
constexpr KeyOrder keyOrders[] = { KeyOrder::random, KeyOrder::forwards, KeyOrder::backwards,
                                   KeyOrder::fromTheMiddle, KeyOrder::clustered };

template< class Map, class Key, class Order >
class Story {
 public:
   explicit Story( uint32_t seed, KeyOrder order = KeyOrder::random )
      : random_( seed ),
        order_( order ) {}

   /// `keys` numbers take part; of 100 changes of the members, `insertions` add or change.
   void tell( int steps, uint32_t keys, uint32_t insertions ) {
      walk_.clear();
      for( uint32_t n = 0; n < keys; ++n ) walk_.emplace_back( n );
      std::sort( walk_.begin(), walk_.end(), Order() );
      at_ = order_ == KeyOrder::backwards ? keys : order_ == KeyOrder::fromTheMiddle ? keys / 2 : 0;
      for( int i = 0; i < steps && !testing::Test::HasFatalFailure(); ++i ) {
         // Made and gone before the next change.
         if( any( 2 ) ) typename Map::IteratorConst passing( map );
         if( any( 100 ) < insertions ) {
            set( next() );
         } else {
            remove( any( 2 ) ? next() : Key( any( keys ) ) );
         }
         tellIterators( keys );
         if( any( 300 ) == 0 ) checkWalk();
         ASSERT_EQ( map.count(), model.size() );
         Key other( any( keys ) );
         ASSERT_EQ( map.has( other ), model.count( other ) == 1 );
      }
      checkWalk();
   }
   void clear() {
      map.clear();
      model.clear();
      checkWalk();
      for( const auto & c : cursors_ ) check( *c );
   }
   void checkWalk() {
      auto expected = model.begin();
      for( typename Map::IteratorConst i( map ); i; ++i, ++expected ) {
         ASSERT_NE( expected, model.end() );
         ASSERT_EQ( i.key().number, expected->first.number );
         ASSERT_EQ( i.value(), expected->second );
         ASSERT_EQ( map.find( i.key() ), i.ptr() );
      }
      ASSERT_EQ( expected, model.end() );
   }
   void dropIterators() { cursors_.clear(); }

   Map map;
   std::map< Key, int, Order > model;

 private:
   using Member = typename Map::MemberType;
   struct Cursor {
      typename Map::Iterator at;
      std::vector< Key > on; // empty: at the end
   };

   uint32_t any( uint32_t below ) { return static_cast< uint32_t >( random_() % below ); }
   // The key of the next change: round and round the walk, but where the order is random.
   Key next() {
      const auto keys = static_cast< uint32_t >( walk_.size() );
      switch( order_ ) {
      case KeyOrder::random:
         return walk_[any( keys )];
      case KeyOrder::forwards:
      case KeyOrder::fromTheMiddle:
         return walk_[at_++ % keys];
      case KeyOrder::backwards:
         at_ = at_ ? at_ - 1 : keys - 1;
         return walk_[at_];
      case KeyOrder::clustered:
         if( any( 64 ) == 0 ) at_ = any( keys );
         return walk_[( at_ + any( 8 ) ) % keys];
      }
      return walk_.front();
   }

   void set( const Key & key ) {
      int value = static_cast< int >( any( 3 ) );
      auto known = model.find( key );
      if( known != model.end() && any( 4 ) == 0 ) {
         auto made = Zek::allocate< Member >( key, value );
         Zek::Ptr< Member > old = map.replace( made.ptr() );
         ASSERT_EQ( old->value(), known->second );
         ASSERT_EQ( map.find( key ), made.ptr() );
         ASSERT_EQ( made->references(), 2u );
      } else {
         bool changes = known == model.end() || known->second != value;
         ASSERT_EQ( map.valueIs( key, value ), changes );
      }
      model.insert_or_assign( key, value );
   }
   void remove( const Key & key ) {
      auto known = model.find( key );
      Member * member = map.find( key );
      ASSERT_EQ( member != nullptr, known != model.end() );
      // By the member's own key, which may die with it.
      Zek::Ptr< Member > taken = map.take( member ? member->key() : key );
      ASSERT_EQ( taken.ptr(), member );
      ASSERT_EQ( map.find( key ), nullptr );
      if( member ) model.erase( known );
   }
   void tellIterators( uint32_t keys ) {
      if( cursors_.size() < 6 ) {
         if( any( 2 ) ) {
            auto first = model.begin();
            cursors_.emplace_back( new Cursor{ typename Map::Iterator( map ), {} } );
            if( first != model.end() ) cursors_.back()->on.push_back( first->first );
         } else {
            Key key( any( keys ) );
            cursors_.emplace_back( new Cursor{ typename Map::Iterator( map, key ), {} } );
            if( model.count( key ) ) cursors_.back()->on.push_back( key );
         }
         check( *cursors_.back() );
      }
      const uint32_t chosen = any( static_cast< uint32_t >( cursors_.size() ) );
      Cursor & c = *cursors_[chosen];
      check( c );
      if( c.on.empty() || any( 8 ) == 0 ) {
         const Cursor last = *cursors_.back();
         c = last;
         check( c );
         cursors_.erase( cursors_.begin() + any( static_cast< uint32_t >( cursors_.size() ) ) );
         return;
      }
      ++c.at;
      auto next = model.upper_bound( c.on.front() );
      c.on.clear();
      if( next != model.end() ) c.on.push_back( next->first );
      check( c );
   }
   void check( const Cursor & c ) {
      ASSERT_EQ( static_cast< bool >( c.at ), !c.on.empty() );
      if( c.at ) {
         ASSERT_EQ( c.at.key().number, c.on.front().number );
         ASSERT_TRUE( c.at.value() >= 0 && c.at.value() < 3 );
      }
   }

   std::mt19937 random_;
   const KeyOrder order_;
   std::vector< Key > walk_;                          // all keys in the order of the collection
   uint32_t at_ = 0;                                  // a place in it
   std::vector< std::unique_ptr< Cursor > > cursors_; // alone, so that a stray one is found
};

} // namespace CollectionTest
