// Hashed collections of counted members.
//
//    HashMap< Entity, Velon::IntfId >            members owned here or elsewhere, keyed by fwkKey()
//    HashMap< const Entity, Zek::Name, Functor > read-only members, keyed by Functor()( member )
//    HashMap< ZekMcaddr, Velon::IpAddr >         member nodes (framework/Node.h)
//
// The map is one pointer. It holds a reference to every member. A member's key must not change
// while it is in the map; one that is keyed by a name that may change keeps the key under which it
// was put in, and is told of it (see KeyOf). Order: by reversed hash, then by key; nothing else
// counts. What does not depend on the types is in framework/HashTable.h, once.
//
// Iterators keep the member they stand on alive and tolerate every change of the map: a
// removed member still answers, and the next step goes to the next member present. Members
// inserted ahead are seen, members inserted behind are not. They must not outlive the map.

#pragma once

#include "framework/Assert.h"
#include "framework/Hash.h"
#include "framework/HashTable.h"
#include "framework/Ptr.h"

#include <type_traits>

namespace Zek {

/// The key of a member that knows it.
struct FwkKeyFunktor {
   template< class Member >
   decltype( auto ) operator()( const Member & member ) const {
      return member.fwkKey();
   }
   /// Members that choose their key when they are put into their first collection.
   template< class Member >
   static decltype( auto ) toPut( const Member & member ) requires requires {
      member.zekKeyToPut();
   }
   { return member.zekKeyToPut(); }
   template< class Member >
   static void heldIs( const Member & member, bool held ) requires requires {
      member.zekHeldIs( held );
   }
   { member.zekHeldIs( held ); }
};

/// What a collection must know of its members' keys, by its functor. Beside the call operator a
/// functor may have toPut( member ), the key under which a member is to be put in, and
/// heldIs( member, bool ), which learns of each collection that takes or loses a member.
template< class Member, class KeyFunktor >
struct KeyOf {
   static constexpr bool isTold = requires( const Member & m ) { KeyFunktor::heldIs( m, true ); };
   static decltype( auto ) toPut( const Member & member ) {
      if constexpr( requires { KeyFunktor::toPut( member ); } ) {
         return KeyFunktor::toPut( member );
      } else {
         return KeyFunktor()( member );
      }
   }
   static void heldIs( [[maybe_unused]] const Member & member, [[maybe_unused]] bool held ) {
      if constexpr( isTold ) KeyFunktor::heldIs( member, held );
   }
};

template< class Member, class Key, class KeyFunktor = FwkKeyFunktor >
class HashMap {
 public:
   using MemberType = Member;
   using KeyType = Key;

   HashMap() = default;
   ~HashMap() { letGo(); }

   size_t count() const { return table_.count(); }
   /// The member under `key`, or null. The map's reference is the only one: a caller that keeps
   /// the member takes its own.
   Member * find( const Key & key ) const {
      const Slot * slot = slotOf( key );
      return slot ? typed( slot->member ) : nullptr;
   }
   bool has( const Key & key ) const { return find( key ) != nullptr; }

   /// Adds a member. REQUIRES none under its key.
   void insert( Member * member ) {
      const Key & key = Keys::toPut( *member );
      assertKey( member, key );
      table_.insert( ops, reversedHashOf( key ), &key, untyped( member ) );
      Keys::heldIs( *member, true );
   }
   /// Puts `member` in the place of the one under its key, which is returned. REQUIRES one there.
   Ptr< Member > replace( Member * member ) {
      const Key & key = Keys::toPut( *member );
      Slot * slot = slotOf( key );
      assertThat( slot != nullptr, "fwkKey() == KeyFunktor()( _value )", "HashMap" );
      assertKey( member, key );
      Member * old = typed( slot->member );
      table_.replace( slot, untyped( member ) );
      Keys::heldIs( *member, true );
      Keys::heldIs( *old, false );
      return Ptr< Member >::adopt( old );
   }
   /// Puts a member that lives elsewhere under its key, in the place of another one if need be.
   /// False when it stands there already.
   bool put( Member * member ) {
      Member * present = find( Keys::toPut( *member ) );
      if( present == member ) return false;
      if( present ) {
         replace( member );
      } else {
         insert( member );
      }
      return true;
   }
   /// Removes and returns the member under `key`, or returns null. `key` may be the member's own.
   Ptr< Member > take( const Key & key ) {
      Slot * slot = slotOf( key );
      if( !slot ) return nullptr;
      Member * member = typed( slot->member );
      table_.unlink( slot );
      Keys::heldIs( *member, false );
      return Ptr< Member >::adopt( member );
   }
   /// Empties the map first, then drops the members in order.
   void clear() {
      letGo();
      table_.clear();
   }
   /// Makes room for so many members in an empty map.
   void reserve( size_t members ) { table_.reserve( ops, members ); }

   /// Nodes of key and value: sets the value under `key`. True when a member was added or its
   /// value changed; allocates one node at most.
   template< class Value >
   bool valueIs( const Key & key, const Value & value ) {
      if( Member * member = find( key ) ) return change( member, value );
      insert( allocate< Member >( key, value ).ptr() );
      return true;
   }
   /// Nodes keyed by a field of their value: the same.
   template< class Value >
   bool valueIs( const Value & value ) {
      const Key & key = typename Member::KeyFunktorType()( value );
      if( Member * member = find( key ) ) return change( member, value );
      insert( allocate< Member >( value ).ptr() );
      return true;
   }
   /// Sets: adds the key. True when it was absent.
   bool keyIs( const Key & key ) {
      if( find( key ) ) return false;
      insert( allocate< Member >( key ).ptr() );
      return true;
   }

   class IteratorConst : public HashCursor {
    public:
      explicit IteratorConst( const HashMap & map ) : HashCursor( map.table_ ) {}
      /// At `key`, or at the end when it is absent.
      IteratorConst( const HashMap & map, const Key & key )
         : HashCursor( map.table_, map.slotOf( key ) ) {}

      IteratorConst & operator++() {
         step();
         return *this;
      }
      // REQUIRES of the rest: not at the end. Answers stay valid until the iterator moves.
      decltype( auto ) key() const { return KeyFunktor()( *ptr() ); }
      const Member * ptr() const { return typed( member() ); }
      decltype( auto ) value() const { return ptr()->value(); }
   };

   class Iterator : public IteratorConst {
    public:
      using IteratorConst::IteratorConst;
      Iterator & operator++() {
         this->step();
         return *this;
      }
      Member * ptr() const { return typed( this->member() ); }
   };

   /// The untyped map, for those who measure it.
   const HashTable & table() const { return table_; }
   /// For walks that know no types: the first member, and the one after `key`, be it present or
   /// not; null at the end.
   const PtrInterface * firstMember() const { return table_.firstMember(); }
   const PtrInterface * memberAfter( const Key & key ) const {
      return table_.memberAfter( reversedHashOf( key ), &key );
   }

 private:
   using Slot = HashTable::Slot;
   using Keys = KeyOf< Member, KeyFunktor >;

   // Before all members leave.
   void letGo() {
      if constexpr( Keys::isTold ) {
         for( IteratorConst i( *this ); i; ++i ) Keys::heldIs( *i.ptr(), false );
      }
   }

   Slot * slotOf( const Key & key ) const {
      auto same = [&key]( const PtrInterface * member ) { return keyOf( member ) == key; };
      return table_.isDense() ? table_.findDense( same )
                              : table_.find( reversedHashOf( key ), same );
   }
   static Member * typed( PtrInterface * member ) { return static_cast< Member * >( member ); }
   static PtrInterface * untyped( const Member * member ) {
      return const_cast< std::remove_const_t< Member > * >( member );
   }
   static decltype( auto ) keyOf( const PtrInterface * member ) {
      return KeyFunktor()( *static_cast< const Member * >( member ) );
   }
   static void assertKey( const Member * member, const Key & key ) {
      if constexpr( !std::is_same_v< KeyFunktor, FwkKeyFunktor > &&
                    requires { member->fwkKey() == key; } ) {
         assertThat( member->fwkKey() == key, "fwkKey() == KeyFunktor()( _value )", "HashMap" );
      }
   }
   template< class Value >
   static bool change( Member * member, const Value & value ) {
      if( member->value() == value ) return false;
      member->valueIs( value );
      return true;
   }

   static uint32_t reversedHashOfMember( const PtrInterface * member, const HashTableOps & ) {
      return reversedHashOf< Key >( keyOf( member ) );
   }
   static int compare( const PtrInterface * member, const void * other, const HashTableOps & ) {
      const Key & a = keyOf( member );
      const Key & b = *static_cast< const Key * >( other );
      uint32_t hashA = reversedHashOf( a ), hashB = reversedHashOf( b );
      if( hashA != hashB ) return hashA < hashB ? -1 : 1;
      return a == b ? 0 : a < b ? -1 : 1;
   }
   static int compareMembers( const PtrInterface * a, const PtrInterface * b,
                              const HashTableOps & ) {
      const Key & key = keyOf( b );
      return compare( a, &key, ops );
   }
   static constexpr HashTableOps ops = { &reversedHashOfMember, &compare, &compareMembers };

   HashTable table_;
};

} // namespace Zek
