// Ordered collections of member nodes.
//
//    RbTreeMap< ZekSecondaryWithMask, Velon::IpAddrWithMask, bool >
//
// Nodes derive from RbKeyValueNode, RbKeyNode or RbValueNode (framework/Node.h) and stand in
// ascending order of operator< of their keys. Operations and iterators are those of HashMap
// (framework/HashMap.h), with the same promises; the map is one pointer. One difference: a node
// that left its map is never inserted again (framework/RbTree.h).

#pragma once

#include "framework/Assert.h"
#include "framework/Ptr.h"
#include "framework/RbTree.h"

#include <utility>

namespace Zek {

template< class Node, class Key, class Value = void >
class RbTreeMap {
 public:
   using MemberType = Node;
   using KeyType = Key;

   size_t count() const { return tree_.count(); }
   /// The member under `key`, or null; no reference is taken.
   Node * find( const Key & key ) const {
      for( RbNode * node = tree_.root(); node; ) {
         const Key & here = keyOf( node );
         if( here == key ) return typed( node );
         node = RbTree::child( node, here < key );
      }
      return nullptr;
   }
   bool has( const Key & key ) const { return find( key ) != nullptr; }

   /// Adds a member. REQUIRES none under its key.
   void insert( Node * member ) {
      const Key & key = member->fwkKey();
      add( placeOf( key ), member );
   }
   /// Puts `member` in the place of the one under its key, which is returned. REQUIRES one there.
   Ptr< Node > replace( Node * member ) {
      const Key & key = member->fwkKey();
      Node * old = find( key );
      assertThat( old != nullptr, "fwkKey() == KeyFunktor()( _value )", "RbTreeMap" );
      tree_.replace( old, member );
      return Ptr< Node >::adopt( old );
   }
   /// Removes and returns the member under `key`, or returns null. `key` may be the member's own.
   Ptr< Node > take( const Key & key ) {
      Node * member = find( key );
      if( member ) tree_.unlink( member );
      return Ptr< Node >::adopt( member );
   }
   /// Empties the map first, then drops the members in order.
   void clear() { tree_.clear(); }

   /// Nodes of key and value: sets the value under `key`. True when a member was added or its
   /// value changed; allocates one node at most.
   template< class V >
   bool valueIs( const Key & key, const V & value ) {
      Place place = placeOf( key );
      if( place.found ) return change( typed( place.found ), value );
      add( place, allocate< Node >( key, value ).ptr() );
      return true;
   }
   /// Nodes keyed by a field of their value: the same.
   template< class V >
   bool valueIs( const V & value ) {
      const Key & key = typename Node::KeyFunktorType()( value );
      Place place = placeOf( key );
      if( place.found ) return change( typed( place.found ), value );
      add( place, allocate< Node >( value ).ptr() );
      return true;
   }
   /// Sets: adds the key. True when it was absent.
   bool keyIs( const Key & key ) {
      Place place = placeOf( key );
      if( place.found ) return false;
      add( place, allocate< Node >( key ).ptr() );
      return true;
   }

   class IteratorConst {
    public:
      explicit IteratorConst( const RbTreeMap & map )
         : map_( &map ),
           member_( typed( map.tree_.firstMember() ) ) {}
      /// At `key`, or at the end when it is absent.
      IteratorConst( const RbTreeMap & map, const Key & key )
         : map_( &map ),
           member_( map.find( key ) ) {}

      explicit operator bool() const { return static_cast< bool >( member_ ); }
      IteratorConst & operator++() {
         step();
         return *this;
      }
      // REQUIRES of the rest: not at the end. Answers stay valid until the iterator moves.
      decltype( auto ) key() const { return member_->fwkKey(); }
      const Node * ptr() const { return member_.ptr(); }
      decltype( auto ) value() const { return ptr()->value(); }

    protected:
      void step() {
         if( !member_ ) return;
         RbNode * next = member_->isLinked() ? RbTree::memberAfter( member_.ptr() )
                                             : map_->after( member_->fwkKey() );
         if( next ) next->referencesInc();
         member_ = Ptr< Node >::adopt( typed( next ) );
      }
      Node * member() const { return member_.ptr(); }

    private:
      const RbTreeMap * map_;
      Ptr< Node > member_;
   };

   class Iterator : public IteratorConst {
    public:
      using IteratorConst::IteratorConst;
      Iterator & operator++() {
         this->step();
         return *this;
      }
      Node * ptr() const { return this->member(); }
   };

   /// The untyped map, for those who measure it.
   const RbTree & tree() const { return tree_; }
   /// For walks that know no types: the first member, and the one after `key`, be it present or
   /// not; null at the end.
   const PtrInterface * firstMember() const { return tree_.firstMember(); }
   const PtrInterface * memberAfter( const Key & key ) const { return after( key ); }
   static int compare( const PtrInterface * member, const void * other ) {
      const Key & a = static_cast< const Node * >( member )->fwkKey();
      const Key & b = *static_cast< const Key * >( other );
      return a == b ? 0 : a < b ? -1 : 1;
   }

 private:
   // Where a key is, or where it would be linked.
   struct Place {
      RbNode * found;
      RbNode * parent;
      bool right;
   };

   static Node * typed( RbNode * node ) { return static_cast< Node * >( node ); }
   static decltype( auto ) keyOf( const RbNode * node ) {
      return static_cast< const Node * >( node )->fwkKey();
   }
   Place placeOf( const Key & key ) const {
      Place place{ tree_.root(), nullptr, false };
      while( place.found ) {
         const Key & here = keyOf( place.found );
         if( here == key ) break;
         place.right = here < key;
         place.parent = place.found;
         place.found = RbTree::child( place.found, place.right );
      }
      return place;
   }
   void add( const Place & place, Node * member ) {
      assertThat( !place.found, "key is absent", "RbTreeMap" );
      tree_.link( place.parent, place.right, member );
   }
   RbNode * after( const Key & key ) const { return tree_.memberAfter( &key, &compare ); }
   template< class V >
   static bool change( Node * member, const V & value ) {
      if( member->value() == value ) return false;
      member->valueIs( value );
      return true;
   }

   RbTree tree_;
};

} // namespace Zek
