#include "framework/HashTable.h"

#include "framework/Assert.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include <sys/mman.h>

namespace Zek {

namespace {

// Arrays from this size on are mapped, to be given back in pieces. A leak checker does not see
// into mappings of its own kind, so under it all memory is the heap's.
#if defined( __SANITIZE_ADDRESS__ )
#define ZEK_HEAP_ONLY 1
#elif defined( __has_feature )
#if __has_feature( address_sanitizer )
#define ZEK_HEAP_ONLY 1
#endif
#endif
#ifdef ZEK_HEAP_ONLY
constexpr size_t mappedBytes = SIZE_MAX;
#else
constexpr size_t mappedBytes = 256 * 1024;
#endif
constexpr size_t pieceBytes = 64 * 1024; // a multiple of every page size in use

// The first hashed array has 1 << 4 homes.
constexpr uint8_t firstShift = 28;
// Slots moved per insertion while growing: the move ends long before the next one is due (the
// load of what is not yet moved rises to 0.8), and costs one insertion a few cache lines.
constexpr uint32_t slotsPerStep = 16;
// Arrays of fewer slots move at once.
constexpr uint32_t atOnce = 256;

// Slots behind the last home: enough for the runs of good hashes. Others widen the array.
uint32_t
slotsBehind( uint32_t homes ) {
   return std::min( homes / 4, 124u );
}

} // namespace

// -- Arrays -----------------------------------------------------------------------------------

HashTable::Rep *
HashTable::make( const HashTableOps & ops, uint8_t shift, uint32_t length ) {
   size_t bytes = sizeof( Rep ) + size_t{ length } * sizeof( Slot );
   bool isMapped = bytes >= mappedBytes;
   void * memory;
   if( isMapped ) {
      memory = mmap( nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0 );
      if( memory == MAP_FAILED ) memory = nullptr;
   } else {
      memory = std::calloc( 1, bytes );
   }
   if( !memory ) throw std::bad_alloc();
   return new( memory ) Rep{ &ops, nullptr, 0, UINT32_MAX, length, shift, isMapped };
}

// Gives a mapped array's memory back between two slots, in whole pieces. The first piece, which
// has the header, and the last, incomplete one stay for destroy().
void
HashTable::release( Rep * rep, uint32_t from, uint32_t to ) {
   auto piece = [rep]( uint32_t slot ) {
      auto offset =
         reinterpret_cast< char * >( rep->slots() + slot ) - reinterpret_cast< char * >( rep );
      return std::max< size_t >( static_cast< size_t >( offset ) / pieceBytes, 1 );
   };
   size_t first = piece( from ), last = piece( to );
   if( rep->isMapped && first < last ) {
      munmap( reinterpret_cast< char * >( rep ) + first * pieceBytes,
              ( last - first ) * pieceBytes );
   }
}

// `from`: everything before that slot has been released.
void
HashTable::destroy( Rep * rep, uint32_t from ) {
   if( !rep->isMapped ) {
      std::free( rep );
      return;
   }
   size_t bytes = sizeof( Rep ) + size_t{ rep->length } * sizeof( Slot );
   size_t kept = ( sizeof( Rep ) + size_t{ from } * sizeof( Slot ) ) / pieceBytes * pieceBytes;
   char * memory = reinterpret_cast< char * >( rep );
   if( kept > pieceBytes ) {
      munmap( memory + kept, bytes - kept );
      bytes = pieceBytes;
   }
   munmap( memory, bytes );
}

// The same array with more room behind the last home; the old one is gone, from `from` on.
HashTable::Rep *
HashTable::widened( Rep * rep, uint32_t from ) {
   uint32_t behind = rep->usable() - rep->homes();
   Rep * wide = make( *rep->ops, rep->shift, rep->homes() + 2 * behind + 2 * groupSize );
   wide->old = rep->old;
   wide->count = rep->count;
   wide->limit = rep->limit;
   std::memcpy( wide->slots() + from, rep->slots() + from,
                ( rep->usable() - from ) * sizeof( Slot ) );
   destroy( rep, from );
   return wide;
}

size_t
HashTable::bytes() const {
   size_t sum = 0;
   for( const Rep * rep = rep_; rep; rep = rep->old ) {
      sum += sizeof( Rep ) + size_t{ rep->length } * sizeof( Slot );
   }
   return sum;
}

// -- Growth -----------------------------------------------------------------------------------

// REQUIRES no growth in progress. Afterwards there is room for one more member.
void
HashTable::grow() {
   Rep * old = rep_;
   if( old->shift == 32 && old->length < denseLength ) {
      Rep * rep = make( *old->ops, 32, old->length * 2 );
      rep->count = old->count;
      std::memcpy( rep->slots(), old->slots(), old->count * sizeof( Slot ) );
      destroy( old, 0 );
      rep_ = rep;
      return;
   }
   uint8_t shift = old->shift == 32 ? firstShift : static_cast< uint8_t >( old->shift - 1 );
   if( old->shift != 32 ) {
      int slotsToShift = old->shift - shift;
      assertThat( slotsToShift == 1, "slotsToShift == 1", "HashTable" );
   }
   uint32_t homes = 1u << ( 32 - shift );
   // Members spread as they move, so those behind the last home need no more room than before.
   uint32_t behind = std::max( slotsBehind( homes ), old->usable() - old->homes() );
   Rep * rep = make( *old->ops, shift, homes + behind + groupSize );
   static_assert( sizeof( Rep ) == 32 && sizeof( Slot ) == 16 );
   rep->count = old->count;
   rep->old = old;
   rep_ = rep;
   migrate( 0, old->length < atOnce ? UINT32_MAX : slotsPerStep );
}

// Moves the slots of the old array from `begin` on: at least so many, and on to the next empty
// one. On bad_alloc nothing has moved.
void
HashTable::migrate( uint32_t begin, uint32_t atLeast ) {
   Rep * rep = rep_;
   Rep * old = rep->old;
   const Slot * from = old->slots();
   uint32_t end = begin;
   while( end < old->usable() && ( end - begin < atLeast || from[end].mark ) ) ++end;

   // Behind what has moved already: it ends before the first new home or in a run across it.
   uint32_t first = begin * 2;
   while( rep->slots()[first].mark ) ++first;
   if( end >= old->homes() ) {
      // Insertions of bad hashes may have filled the room behind the last home meanwhile.
      uint32_t next = first;
      for( uint32_t at = begin; at < end; ++at ) {
         if( from[at].mark ) next = std::max( next, rep->home( ~from[at].mark ) ) + 1;
      }
      while( next > rep->usable() ) rep = rep_ = widened( rep, 0 );
   }

   Slot * to = rep->slots();
   uint32_t next = first;
   for( uint32_t at = begin; at < end; ++at ) {
      if( !from[at].mark ) continue;
      next = std::max( next, rep->home( ~from[at].mark ) );
      to[next++] = from[at];
   }
   if( end >= old->homes() ) {
      rep->old = nullptr;
      rep->limit = UINT32_MAX;
      destroy( old, begin );
   } else {
      rep->limit = ( end << old->shift ) - 1;
      release( old, begin, end );
   }
}

// -- Changes ----------------------------------------------------------------------------------

void
HashTable::insert( const HashTableOps & ops, uint32_t reversedHash, const void * key,
                   PtrInterface * member ) {
   if( !rep_ ) {
      rep_ = make( ops, 32, 1 );
   } else if( rep_->old ) {
      migrate( oldBegin( rep_ ), slotsPerStep );
   } else if( rep_->count == ( rep_->shift == 32 ? rep_->length : rep_->homes() / 4 * 3 ) ) {
      grow();
   }
   bool isOld = reversedHash > rep_->limit;
   Rep * rep = isOld ? rep_->old : rep_;
   Slot * slots = rep->slots();
   const uint32_t mark = markOf( reversedHash );

   uint32_t at = rep->home( reversedHash );
   uint32_t usable = rep->usable();
   while( at < usable && slots[at].mark > mark ) ++at;
   for( ; at < usable && slots[at].mark == mark; ++at ) {
      int order = ops.compare( slots[at].member, key );
      assertThat( order != 0, "key is absent", "HashTable" );
      if( order > 0 ) break;
   }
   uint32_t end = at;
   while( end < usable && slots[end].mark ) ++end;
   if( end == usable ) {
      rep = widened( rep, isOld ? oldBegin( rep_ ) : 0 );
      ( isOld ? rep_->old : rep_ ) = rep;
      slots = rep->slots();
   }
   for( ; end > at; --end ) slots[end] = slots[end - 1];
   slots[at] = Slot{ mark, 0, member };
   ++rep_->count;
   member->referencesInc();
}

void
HashTable::unlink( uint32_t reversedHash, const PtrInterface * member ) {
   Rep * rep = reversedHash > rep_->limit ? rep_->old : rep_;
   Slot * slots = rep->slots();
   uint32_t at = rep->home( reversedHash );
   while( slots[at].member != member ) ++at;
   // Members behind that are not at home move up.
   const uint32_t length = rep->length;
   for( uint32_t next = at + 1;
        next < length && slots[next].mark && rep->home( ~slots[next].mark ) < next; ++next ) {
      slots[at] = slots[next];
      at = next;
   }
   slots[at] = Slot{};
   if( --rep_->count == 0 ) clear();
}

void
HashTable::replace( uint32_t reversedHash, const PtrInterface * old, PtrInterface * member ) {
   Rep * rep = reversedHash > rep_->limit ? rep_->old : rep_;
   Slot * slot = rep->slots() + rep->home( reversedHash );
   while( slot->member != old ) ++slot;
   member->referencesInc();
   slot->member = member;
}

void
HashTable::clear() {
   Rep * rep = std::exchange( rep_, nullptr );
   uint32_t left = rep ? rep->count : 0;
   uint32_t from = 0;
   while( rep ) {
      Rep * old = rep->old;
      uint32_t oldFrom = old ? oldBegin( rep ) : 0;
      for( uint32_t at = from; left && at < rep->length; ++at ) {
         if( PtrInterface * member = rep->slots()[at].member ) {
            --left;
            member->referencesDec();
         }
      }
      destroy( rep, from );
      rep = old;
      from = oldFrom;
   }
}

// -- Walks ------------------------------------------------------------------------------------

PtrInterface *
HashTable::memberFrom( uint32_t & at ) const {
   const Rep * rep = rep_;
   if( !( at & inOld ) ) {
      // Behind the homes in use, the first empty slot ends the array.
      const uint32_t homes = rep->home( rep->limit ) + 1;
      for( ; at < rep->length; ++at ) {
         if( PtrInterface * member = rep->slots()[at].member ) return member;
         if( at >= homes ) break;
      }
      if( !rep->old ) return nullptr;
      at = oldBegin( rep ) | inOld;
   }
   for( rep = rep->old; ( at & ~inOld ) < rep->length; ++at ) {
      if( PtrInterface * member = rep->slots()[at & ~inOld].member ) return member;
   }
   return nullptr;
}

// The first member behind that hash and those for which `compare( member ) <= 0`.
template < class Compare >
PtrInterface *
HashTable::seek( uint32_t reversedHash, uint32_t & at, Compare compare ) const {
   if( !rep_ ) return nullptr;
   bool isOld = reversedHash > rep_->limit;
   const Rep * rep = isOld ? rep_->old : rep_;
   const Slot * slots = rep->slots();
   const uint32_t mark = markOf( reversedHash );
   uint32_t i = rep->home( reversedHash );
   while( i < rep->length && slots[i].mark > mark ) ++i;
   while( i < rep->length && slots[i].mark == mark && compare( slots[i].member ) <= 0 ) ++i;
   at = isOld ? i | inOld : i;
   return memberFrom( at );
}

PtrInterface *
HashTable::firstMember() const {
   uint32_t at = 0;
   return rep_ ? memberFrom( at ) : nullptr;
}

PtrInterface *
HashTable::memberAfter( uint32_t reversedHash, const void * key ) const {
   uint32_t at;
   return seek( reversedHash, at,
                [&]( const PtrInterface * m ) { return rep_->ops->compare( m, key ); } );
}

PtrInterface *
HashTable::memberAfter( const PtrInterface * member ) const {
   uint32_t at = nowhere;
   return afterChange( member, at );
}

// after(), without reliance on the position.
PtrInterface *
HashTable::afterChange( const PtrInterface * member, uint32_t & at ) const {
   if( !rep_ ) return nullptr;
   const uint32_t i = at & ~inOld;
   const Rep * rep = at & inOld ? rep_->old : rep_;
   if( rep && i < rep->length && ( rep == rep_ || i >= oldBegin( rep_ ) ) &&
       rep->slots()[i].member == member ) {
      ++at;
      return memberFrom( at );
   }
   return seek( rep_->ops->reversedHash( member ), at,
                [&]( const PtrInterface * m ) { return rep_->ops->compareMembers( m, member ); } );
}

// -- Cursors ----------------------------------------------------------------------------------

HashCursor::HashCursor( const HashTable & table ) : table_( &table ), member_( nullptr ), at_( 0 ) {
   if( table.rep_ ) member_ = table.memberFrom( at_ );
   if( member_ ) member_->referencesInc();
}

HashCursor::HashCursor( const HashTable & table, PtrInterface * member )
   : table_( &table ),
     member_( member ),
     at_( HashTable::nowhere ) {
   if( member_ ) member_->referencesInc();
}

HashCursor::HashCursor( const HashCursor & other )
   : table_( other.table_ ),
     member_( other.member_ ),
     at_( other.at_ ) {
   if( member_ ) member_->referencesInc();
}

HashCursor &
HashCursor::operator=( const HashCursor & other ) {
   if( other.member_ ) other.member_->referencesInc();
   PtrInterface * old = std::exchange( member_, other.member_ );
   table_ = other.table_;
   at_ = other.at_;
   if( old ) old->referencesDec();
   return *this;
}

} // namespace Zek
