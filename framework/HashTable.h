// The untyped core of all hashed collections: one flat array of counted members in hashed order.
//
// Order. Members stand in the order of their reversed hash, and among equal hashes in the order of
// their keys. A member's home is the top bits of its reversed hash; it stands there or, when that
// slot is taken, a little further on, never before a smaller one and never behind an empty slot.
// So the array is sorted, with gaps, and a walk over it has the same order whatever the size and
// the history of the table.
//
// Slots. A slot is 16 bytes, four to a cache line: the member and the mark of its reversed hash.
// Marks decide everything but equal hashes, so neither growth nor removal looks at a member. They
// are complemented hashes: zero means empty, fresh pages of the system are empty slots, and one
// comparison tells both an empty slot and a greater hash. A lookup compares four marks at once
// from the home slot on, which at a load of at most 3/4 is nearly always enough: one or two lines
// of the array, then the member itself.
//
// Growth. Twice as many homes send slot i to 2i or 2i+1, so the order stays and the move is one
// sequential pass. It is done a few slots per insertion: hashes up to Rep::limit are in the new
// array, greater ones still in the old one (Rep::old). The frontier between them always follows an
// empty slot, so that no run of slots lies on both sides. Large arrays are mapped, and the old one
// is given back piece by piece behind the frontier: no insertion pays for all.
//
// Up to denseLength members stand without gaps in an array of 1, 2, 4 or 8 slots, which is the
// same thing with a single home. Nothing ever shrinks, except that an empty table owns nothing.
//
// The table is one pointer. It holds a reference to each member. Dropping a reference may run any
// code, also code that uses the table: it happens only after the table is sound again.

#pragma once

#include "framework/Export.h"
#include "framework/Ptr.h"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <utility>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace Zek {

/// What the core must know of the keys: a constant per instantiation.
struct HashTableOps {
   uint32_t ( *reversedHash )( const PtrInterface * member );
   /// Less than, equal to or greater than zero as the member's key stands before, at or after
   /// `key` (reversed hash first).
   int ( *compare )( const PtrInterface * member, const void * key );
   /// The same with the key of `b`.
   int ( *compareMembers )( const PtrInterface * a, const PtrInterface * b );
};

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

   /// The member for which `same( member )` holds, or null. Only members with that reversed hash
   /// are asked. REQUIRES count() > denseLength or the cost of asking by hash in a dense table.
   template < class Same >
   PtrInterface * find( uint32_t reversedHash, Same same ) const;
   /// The same among the few members of a dense table, without a hash.
   template < class Same >
   PtrInterface * findDense( Same same ) const;
   bool isDense() const { return !rep_ || rep_->shift == 32; }

   /// Adds a member and takes a reference. REQUIRES its key absent. Changes nothing on bad_alloc.
   void insert( const HashTableOps & ops, uint32_t reversedHash, const void * key,
                PtrInterface * member );
   /// Removes a member and leaves its reference to the caller. REQUIRES the member present.
   void unlink( uint32_t reversedHash, const PtrInterface * member );
   /// Puts `member` in the place of `old`, takes a reference to it and leaves that of `old` to the
   /// caller. REQUIRES equal keys.
   void replace( uint32_t reversedHash, const PtrInterface * old, PtrInterface * member );
   /// Empties the table, then drops the references in order.
   void clear();

   static constexpr uint32_t denseLength = 8;

 private:
   friend class HashCursor;

   struct Slot {
      uint32_t mark; // 0: empty
      uint32_t spare;
      PtrInterface * member; // null: empty
   };

   // Header of an array; the slots follow it.
   struct Rep {
      const HashTableOps * ops;
      Rep * old;       // holds the hashes above limit while the table grows, else null
      uint32_t count;  // members here and in old
      uint32_t limit;  // greatest reversed hash that belongs here
      uint32_t length; // slots, those after the last home and the sentinels included
      uint8_t shift;   // home = reversed hash >> shift; 32 for a dense array
      bool isMapped;

      Slot * slots() { return reinterpret_cast< Slot * >( this + 1 ); }
      const Slot * slots() const { return reinterpret_cast< const Slot * >( this + 1 ); }
      uint32_t homes() const { return shift == 32 ? 1 : 1u << ( 32 - shift ); }
      uint32_t home( uint32_t reversedHash ) const {
         return static_cast< uint32_t >( static_cast< uint64_t >( reversedHash ) >> shift );
      }
      // Slots that may be filled: a hashed array ends in a group of empty ones.
      uint32_t usable() const { return shift == 32 ? length : length - groupSize; }
   };

   static constexpr uint32_t groupSize = 4;
   static constexpr uint32_t inOld = 1u << 31; // in a cursor's position
   static constexpr uint32_t nowhere = inOld - 1;

   // Falls as the reversed hash rises. The two greatest hashes share a mark, since zero is taken.
   static uint32_t markOf( uint32_t reversedHash ) {
      return ~reversedHash + ( reversedHash == UINT32_MAX );
   }
   static uint32_t matches( const Slot * group, uint32_t mark );

   // First slot of the old array that is not yet moved.
   static uint32_t oldBegin( const Rep * rep ) { return ( rep->limit + 1 ) >> rep->old->shift; }
   static Rep * make( const HashTableOps & ops, uint8_t shift, uint32_t length );
   static void destroy( Rep * rep, uint32_t from );
   static void release( Rep * rep, uint32_t from, uint32_t to );
   static Rep * widened( Rep * rep, uint32_t from );
   void grow();
   void migrate( uint32_t begin, uint32_t atLeast );

   // The next member from a slot on; `at` becomes its position.
   PtrInterface * memberFrom( uint32_t & at ) const;
   template < class Compare >
   PtrInterface * seek( uint32_t reversedHash, uint32_t & at, Compare compare ) const;
   PtrInterface * after( const PtrInterface * member, uint32_t & at ) const;
   PtrInterface * afterChange( const PtrInterface * member, uint32_t & at ) const;

   Rep * rep_ = nullptr;
};

/// A place in a table that survives every change of the table, but not the table. It holds a
/// reference to the member it stands on; when that member is removed it stays with it and the next
/// step finds the member that now follows its key. Typed iterators derive from it.
class IPSTATE_EXPORT HashCursor {
 public:
   HashCursor( const HashCursor & other );
   HashCursor & operator=( const HashCursor & other );
   ~HashCursor() {
      if( member_ ) member_->referencesDec();
   }
   explicit operator bool() const { return member_ != nullptr; }

 protected:
   /// At the first member.
   explicit HashCursor( const HashTable & table );
   /// At `member`, or at the end when it is null.
   HashCursor( const HashTable & table, PtrInterface * member );

   /// To the next member. At the end, stays there.
   void step() {
      if( !member_ ) return;
      PtrInterface * next = table_->after( member_, at_ );
      if( next ) next->referencesInc();
      std::exchange( member_, next )->referencesDec();
   }
   PtrInterface * member() const { return member_; }

 private:
   const HashTable * table_;
   PtrInterface * member_;
   uint32_t at_; // believed only while the slot still holds the member
};

// -- Inline bodies ----------------------------------------------------------------------------

/// Bit i is set when slot i of the group has that mark.
inline uint32_t
HashTable::matches( const Slot * group, uint32_t mark ) {
#ifdef __SSE2__
   auto load = [group]( int i ) {
      return _mm_loadu_si128( reinterpret_cast< const __m128i * >( group + i ) );
   };
   __m128i marks = _mm_unpacklo_epi64( _mm_unpacklo_epi32( load( 0 ), load( 1 ) ),
                                       _mm_unpacklo_epi32( load( 2 ), load( 3 ) ) );
   __m128i equal = _mm_cmpeq_epi32( marks, _mm_set1_epi32( static_cast< int >( mark ) ) );
   return static_cast< uint32_t >( _mm_movemask_ps( _mm_castsi128_ps( equal ) ) );
#else
   uint32_t result = 0;
   for( uint32_t i = 0; i < groupSize; ++i ) {
      result |= static_cast< uint32_t >( group[i].mark == mark ) << i;
   }
   return result;
#endif
}

template < class Same >
PtrInterface *
HashTable::find( uint32_t reversedHash, Same same ) const {
   const Rep * rep = rep_;
   if( reversedHash > rep->limit ) rep = rep->old;
   const uint32_t mark = markOf( reversedHash );
   const Slot * group = rep->slots() + ( reversedHash >> rep->shift );
   for( ;; group += groupSize ) {
      for( uint32_t m = matches( group, mark ); m != 0; m &= m - 1 ) {
         PtrInterface * member = group[std::countr_zero( m )].member;
         if( same( member ) ) return member;
      }
      // An empty slot or a greater hash: none of this hash follows.
      if( group[groupSize - 1].mark < mark ) return nullptr;
   }
}

template < class Same >
PtrInterface *
HashTable::findDense( Same same ) const {
   if( rep_ ) {
      const Slot * slot = rep_->slots();
      for( const Slot * end = slot + rep_->count; slot != end; ++slot ) {
         if( same( slot->member ) ) return slot->member;
      }
   }
   return nullptr;
}

inline PtrInterface *
HashTable::after( const PtrInterface * member, uint32_t & at ) const {
   const Rep * rep = rep_;
   if( !rep || rep->old || at >= rep->length || rep->slots()[at].member != member ) {
      return afterChange( member, at );
   }
   const Slot * slots = rep->slots();
   const uint32_t length = rep->length;
   while( ++at < length ) {
      if( PtrInterface * next = slots[at].member ) {
         // The walk touches every member: fetch those ahead.
         if( at + 8 < length ) __builtin_prefetch( slots[at + 8].member );
         return next;
      }
   }
   return nullptr;
}

} // namespace Zek
