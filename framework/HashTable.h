// The untyped core of all hashed collections: one flat array of counted members in hashed order.
//
// Order. Members stand in the order of their reversed hash, and among equal hashes in the order of
// their keys. A member's home is the top bits of its reversed hash; it stands there or, when that
// slot is taken, a little further on, never before a smaller one and never behind an empty slot.
// So the array is sorted, with gaps, and a walk over it has the same order whatever the size and
// the history of the table.
//
// Slots. A slot is 16 bytes: the member and the mark of its reversed hash. Marks decide everything
// but equal hashes, so neither growth nor removal looks at a member. They are complemented hashes:
// zero means empty, fresh pages of the system are empty slots, and one comparison tells both an
// empty slot and a greater hash.
//
// Tags. Beside each slot of a hashed array stands one byte of its hash, zero when empty. A lookup
// compares sixteen of them at once from the home on, up to the first empty one. At a load of at
// most 3/4 that is nearly always enough: an absent key costs one line of tags, a present one also
// one of slots and one of the member.
//
// Long runs. Who fills a table in hashed order, as from a walk of another one, crowds the front of
// it until the next growth. All slots from a member's home up to it are full and sorted, so what
// is not found among the first tags is found by galloping: the work grows with the logarithm of
// the run.
//
// Growth. Twice as many homes send slot i to 2i or 2i+1, so the order stays and the move is one
// sequential pass. It is done a few slots per insertion: hashes up to Rep::limit are in the new
// array, greater ones still in the old one (Rep::old). The frontier between them may cut a run: in
// the old array, its first slot left (Rep::begin) then stands for all homes before it. Large
// arrays are mapped, and the old one is given back piece by piece behind the frontier: no
// insertion pays for all.
//
// Up to denseLength members stand without gaps in an array of 1, 2, 4 or 8 slots, which is the
// same thing with a single home. Nothing ever shrinks, except that an empty table owns nothing.
//
// Cursors. An iterator that stands on a member is listed in the table and takes a reference only
// when the member leaves the table, so a walk touches no reference counts.
//
// The table is one pointer. It holds a reference to each member. Dropping a reference may run any
// code, also code that uses the table: it happens only after the table is sound again.

#pragma once

#include "framework/Export.h"
#include "framework/Ptr.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <utility>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace Zek {

/// What the core must know of the keys: a constant per instantiation. Thunks as in ValueOps.
struct HashTableOps {
   uint32_t ( *reversedHashThunk )( const PtrInterface *, const HashTableOps & );
   int ( *compareThunk )( const PtrInterface *, const void *, const HashTableOps & );
   int ( *compareMembersThunk )( const PtrInterface *, const PtrInterface *, const HashTableOps & );

   uint32_t reversedHash( const PtrInterface * member ) const {
      return reversedHashThunk( member, *this );
   }
   /// Less than, equal to or greater than zero as the member's key stands before, at or after
   /// `key` (reversed hash first).
   int compare( const PtrInterface * member, const void * key ) const {
      return compareThunk( member, key, *this );
   }
   /// The same with the key of `b`.
   int compareMembers( const PtrInterface * a, const PtrInterface * b ) const {
      return compareMembersThunk( a, b, *this );
   }
};

class HashCursor;

class IPSTATE_EXPORT HashTable {
 public:
   HashTable() = default;
   HashTable( const HashTable & ) = delete;
   HashTable & operator=( const HashTable & ) = delete;
   ~HashTable() {
      if( rep_ ) clear();
   }

   size_t count() const { return rep_ ? rep_->count : 0; }
   /// Bytes of memory held beside the table itself and its members.
   size_t bytes() const;

   /// The walk of reflection, without iterators: null at the end. The second form starts from a
   /// key that need not be present, the third from a member that need not be in the table.
   PtrInterface * firstMember() const;
   PtrInterface * memberAfter( uint32_t reversedHash, const void * key ) const;
   PtrInterface * memberAfter( const PtrInterface * member ) const;

   struct Slot {
      uint64_t mark;         // 2^32 - reversed hash; 0: empty
      PtrInterface * member; // null: empty
   };

   /// The slot of the member for which `same( member )` holds, or null. Valid until the next
   /// change. Only members of that reversed hash are asked. REQUIRES !isDense().
   template< class Same >
   Slot * find( uint32_t reversedHash, Same same ) const;
   /// The same among the few members of a dense table, without a hash. REQUIRES isDense().
   template< class Same >
   Slot * findDense( Same same ) const;
   bool isDense() const { return !rep_ || rep_->shift == 32; }

   /// Adds a member and takes a reference. REQUIRES its key absent. Changes nothing on bad_alloc.
   void insert( const HashTableOps & ops, uint32_t reversedHash, const void * key,
                PtrInterface * member );
   /// Makes room in a table that never had a member since it was cleared: it does not grow before
   /// it has so many. Changes nothing on bad_alloc.
   void reserve( const HashTableOps & ops, size_t members );
   /// Removes the member of a slot and leaves its reference to the caller.
   void unlink( Slot * slot );
   /// Puts `member` into the slot, takes a reference to it and leaves that of the old member to
   /// the caller. REQUIRES equal keys.
   void replace( Slot * slot, PtrInterface * member );
   /// Empties the table, then drops the references in order.
   void clear();

   static constexpr uint32_t denseLength = 8;

   /// Steps that this thread took in runs longer than usual, over all tables: slots probed there,
   /// and groups of slots passed to make room. Few where hashes are good.
   static uint64_t longRunSteps();

 private:
   friend class HashCursor;

   // Header of an array. The tags follow it, unless it is dense, and then the slots.
   struct Rep {
      const HashTableOps * ops;
      Rep * old;            // holds the hashes above limit while the table grows, else null
      HashCursor * cursors; // those that stand on members; only here, not in old
      union {
         uint32_t count; // members here and in old
         uint32_t begin; // of an old array instead: its first slot that has not moved
      };
      uint32_t limit;  // greatest reversed hash that belongs here
      uint32_t length; // slots, those behind the last home included
      uint8_t shift;   // home = reversed hash >> shift; 32 for a dense array
      bool isMapped;

      uint8_t * tags() { return reinterpret_cast< uint8_t * >( this + 1 ); }
      const uint8_t * tags() const { return reinterpret_cast< const uint8_t * >( this + 1 ); }
      // Aligns the slots behind the tags: the length of a hashed array is a multiple of eight.
      size_t tagBytes() const { return shift == 32 ? 0 : hashedTagBytes(); }
      size_t hashedTagBytes() const { return size_t{ length } + groupSize + 8; }
      Slot * slots() { return reinterpret_cast< Slot * >( tags() + tagBytes() ); }
      const Slot * slots() const { return const_cast< Rep * >( this )->slots(); }
      uint32_t homes() const { return shift == 32 ? 1 : 1u << ( 32 - shift ); }
      uint32_t home( uint32_t reversedHash ) const {
         return static_cast< uint32_t >( static_cast< uint64_t >( reversedHash ) >> shift );
      }
      // The same in an old array, of which the front has moved.
      uint32_t homeLeft( uint32_t reversedHash ) const {
         return std::max( home( reversedHash ), begin );
      }
      size_t bytes() const {
         return sizeof( Rep ) + tagBytes() + size_t{ length } * sizeof( Slot );
      }
   };

   static constexpr uint32_t groupSize = 16; // tags compared at once; a group of zeros ends them
   static constexpr uint32_t nearGroups = 4; // longer runs than these are not scanned by tags

   // Falls as the reversed hash rises, and is not zero.
   static uint64_t markOf( uint32_t reversedHash ) {
      return ( uint64_t{ 1 } << 32 ) - reversedHash;
   }
   static uint32_t reversedHashOf( uint64_t mark ) { return 0u - static_cast< uint32_t >( mark ); }
   // Of the bits that homes do not use; not zero.
   static uint8_t tagOf( uint32_t reversedHash ) {
      return static_cast< uint8_t >( reversedHash | 1 );
   }
   static uint32_t matches( const uint8_t * tags, uint8_t tag );

   // Where the search for a hash begins: the array that it belongs to, and a slot.
   struct Home {
      Rep * rep;
      uint32_t at;
   };
   Home homeOf( uint32_t reversedHash ) const {
      if( reversedHash <= rep_->limit ) [[likely]]
         return { rep_, rep_->home( reversedHash ) };
      return { rep_->old, rep_->old->homeLeft( reversedHash ) };
   }
   template< class Same >
   Slot * findFar( uint32_t reversedHash, Same same ) const;
   static uint32_t slotBehind( const Rep * rep, uint32_t at, uint64_t mark );
   static uint32_t emptySlot( const Rep * rep, uint32_t at );
   static Slot * endOf( Rep * rep ) { return rep->slots() + rep->length; }
   // The array that a slot belongs to.
   Rep * repOf( const Slot * slot ) const {
      if( !rep_->old ) return rep_;
      auto * own = reinterpret_cast< const char * >( rep_ );
      auto * place = reinterpret_cast< const char * >( slot );
      return place > own && place < own + rep_->bytes() ? rep_ : rep_->old;
   }
   static Rep * make( const HashTableOps & ops, uint8_t shift, uint32_t length );
   static void destroy( Rep * rep, uint32_t from );
   static void release( Rep * rep, uint32_t from, uint32_t to );
   static Rep * widened( Rep * rep, uint32_t from );
   static void passCursors( Rep * from, Rep * to );
   void disturbCursors( const PtrInterface * leaving );
   void detachCursors();
   void grow();
   void migrate( uint32_t atLeast );

   // Up to sixteen slots in order, those that hold members marked in `full`.
   struct Group {
      const Slot * slots; // null: nowhere
      uint32_t full;
   };
   static void prefetchGroup( const Rep * rep, uint32_t at );
   Group groupFrom( const Rep * rep, uint32_t at ) const;
   Group groupAfter( const Group & group ) const;
   template< class Compare >
   Group groupBehind( uint32_t reversedHash, Compare compare ) const;
   Group groupBehind( const PtrInterface * member ) const;
   static PtrInterface * firstOf( const Group & group ) {
      return group.full ? group.slots[std::countr_zero( group.full )].member : nullptr;
   }

   static thread_local uint64_t longRunSteps_;

   Rep * rep_ = nullptr;
};

/// A place in a table that survives every change of the table, but not the table. It keeps the
/// member it stands on alive; when that member is removed it stays with it and the next step finds
/// the member that now follows its key. Typed iterators derive from it.
class IPSTATE_EXPORT HashCursor {
 public:
   HashCursor( const HashCursor & other );
   HashCursor & operator=( const HashCursor & other );
   ~HashCursor() { leave(); }
   explicit operator bool() const { return member_ != nullptr; }

 protected:
   /// At the first member.
   explicit HashCursor( const HashTable & table );
   /// At the member of a slot, or at the end when it is null.
   HashCursor( const HashTable & table, const HashTable::Slot * slot );

   /// To the next member. At the end, stays there.
   void step() {
      if( ahead_.full ) [[likely]] {
         member_ = HashTable::firstOf( ahead_ );
         ahead_.full &= ahead_.full - 1;
      } else if( member_ ) {
         stepFar();
      }
   }
   PtrInterface * member() const { return member_; }

 private:
   friend class HashTable;

   // On a member of the table a cursor is listed and owns no reference; on a removed one it is not
   // listed and owns one; at the end neither.
   bool isListed() const { return previous_ != nullptr; }
   void join();
   void unlist() {
      *previous_ = next_;
      if( next_ ) next_->previous_ = previous_;
      previous_ = nullptr;
   }
   void leave() {
      if( isListed() ) {
         unlist();
      } else if( member_ ) {
         member_->referencesDec();
      }
   }
   void stepFar();

   const HashTable * table_;
   PtrInterface * member_;
   HashCursor * next_ = nullptr;
   HashCursor ** previous_ = nullptr; // what points here; null: not listed
   HashTable::Group ahead_;           // what follows here; nowhere once the table has changed
};

// -- Inline bodies ----------------------------------------------------------------------------

/// Bit i is set when tag i of the group is that one.
inline uint32_t
HashTable::matches( const uint8_t * tags, uint8_t tag ) {
#ifdef __SSE2__
   __m128i group = _mm_loadu_si128( reinterpret_cast< const __m128i * >( tags ) );
   __m128i equal = _mm_cmpeq_epi8( group, _mm_set1_epi8( static_cast< char >( tag ) ) );
   return static_cast< uint32_t >( _mm_movemask_epi8( equal ) );
#else
   uint32_t result = 0;
   for( uint32_t i = 0; i < groupSize; ++i ) {
      result |= static_cast< uint32_t >( tags[i] == tag ) << i;
   }
   return result;
#endif
}

template< class Same >
inline HashTable::Slot *
HashTable::find( uint32_t reversedHash, Same same ) const {
   const auto [rep, home] = homeOf( reversedHash );
   const uint64_t mark = markOf( reversedHash );
   const uint8_t tag = tagOf( reversedHash );
   const uint8_t * tags = rep->tags() + home;
   Slot * slot = reinterpret_cast< Slot * >( rep->tags() + rep->hashedTagBytes() ) + home;
   __builtin_prefetch( slot ); // on its way while the tags are
   const uint8_t * far = tags + nearGroups * groupSize;
   do {
      for( uint32_t m = matches( tags, tag ); m != 0; m &= m - 1 ) {
         Slot * found = slot + std::countr_zero( m );
         if( found->mark == mark && same( found->member ) ) return found;
      }
      // Nothing of this hash stands behind an empty slot.
      if( matches( tags, 0 ) != 0 ) return nullptr;
      tags += groupSize;
      slot += groupSize;
   } while( tags != far );
   return findFar( reversedHash, same );
}

// Out of line, so that usual lookups save no registers for it.
template< class Same >
[[gnu::noinline]] HashTable::Slot *
HashTable::findFar( uint32_t reversedHash, Same same ) const {
   const auto [rep, home] = homeOf( reversedHash );
   const uint64_t mark = markOf( reversedHash );
   Slot * slot = rep->slots() + slotBehind( rep, home, mark );
   for( ; slot != endOf( rep ) && slot->mark == mark; ++slot ) {
      if( same( slot->member ) ) return slot;
   }
   return nullptr;
}

template< class Same >
HashTable::Slot *
HashTable::findDense( Same same ) const {
   if( rep_ ) {
      Slot * slot = reinterpret_cast< Slot * >( rep_->tags() );
      for( Slot * end = slot + rep_->count; slot != end; ++slot ) {
         if( same( slot->member ) ) return slot;
      }
   }
   return nullptr;
}

} // namespace Zek
