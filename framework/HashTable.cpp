#include "framework/HashTable.h"

#include "framework/Assert.h"

#include <algorithm>
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
   return std::clamp( homes / 4, 8u, 128u );
}

size_t
pieceOf( const void * array, const void * place ) {
   return static_cast< size_t >( static_cast< const char * >( place ) -
                                 static_cast< const char * >( array ) ) /
          pieceBytes;
}

// The first piece that has slots only.
size_t
firstPiece( const void * array, const void * slots ) {
   return pieceOf( array, static_cast< const char * >( slots ) + pieceBytes - 1 );
}

} // namespace

// -- Arrays -----------------------------------------------------------------------------------

HashTable::Rep *
HashTable::make( const HashTableOps & ops, uint8_t shift, uint32_t length ) {
   static_assert( sizeof( Rep ) == 40 && sizeof( Slot ) == 16 );
   Rep header{ &ops, nullptr, nullptr, { 0 }, UINT32_MAX, length, shift, false };
   size_t bytes = header.bytes();
   header.isMapped = bytes >= mappedBytes;
   void * memory;
   if( header.isMapped ) {
      memory = mmap( nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0 );
      if( memory == MAP_FAILED ) memory = nullptr;
   } else {
      memory = ::operator new( bytes );
      std::memset( memory, 0, bytes );
   }
   if( !memory ) throw std::bad_alloc();
   return new( memory ) Rep( header );
}

// Gives a mapped array's memory back between two slots, in whole pieces. What comes before the
// first piece of nothing but slots, and the last, incomplete piece, stay for destroy().
void
HashTable::release( Rep * rep, uint32_t from, uint32_t to ) {
   if( !rep->isMapped ) return;
   size_t first = pieceOf( rep, rep->slots() + from ), last = pieceOf( rep, rep->slots() + to );
   first = std::max( first, firstPiece( rep, rep->slots() ) );
   if( first < last ) {
      munmap( reinterpret_cast< char * >( rep ) + first * pieceBytes,
              ( last - first ) * pieceBytes );
   }
}

// `from`: everything before that slot has been released.
void
HashTable::destroy( Rep * rep, uint32_t from ) {
   if( !rep->isMapped ) {
      ::operator delete( rep );
      return;
   }
   size_t bytes = rep->bytes();
   size_t first = firstPiece( rep, rep->slots() ), last = pieceOf( rep, rep->slots() + from );
   char * memory = reinterpret_cast< char * >( rep );
   if( first < last ) {
      munmap( memory + last * pieceBytes, bytes - last * pieceBytes );
      bytes = first * pieceBytes;
   }
   munmap( memory, bytes );
}

// The same array with more room behind the last home; the old one is gone, from `from` on.
HashTable::Rep *
HashTable::widened( Rep * rep, uint32_t from ) {
   uint32_t behind = rep->length - rep->homes();
   Rep * wide = make( *rep->ops, rep->shift, rep->homes() + 2 * behind + groupSize );
   wide->old = rep->old;
   wide->count = rep->count;
   wide->limit = rep->limit;
   std::memcpy( wide->slots() + from, rep->slots() + from,
                ( rep->length - from ) * sizeof( Slot ) );
   std::memcpy( wide->tags() + from, rep->tags() + from, rep->length - from );
   passCursors( rep, wide );
   destroy( rep, from );
   return wide;
}

size_t
HashTable::bytes() const {
   size_t sum = 0;
   for( const Rep * rep = rep_; rep; rep = rep->old ) {
      sum += rep->bytes();
   }
   return sum;
}

// -- Searches ---------------------------------------------------------------------------------

// The first slot from `at` on that does not come before that mark: it is empty or has the mark or
// a smaller one. REQUIRES `at` to be the home of the mark, so that the slots before the one looked
// for are full and sorted.
uint32_t
HashTable::slotBehind( const Rep * rep, uint32_t at, uint64_t mark ) {
   const Slot * slots = rep->slots();
   const uint32_t length = rep->length;
   const uint32_t near = std::min( at + groupSize, length );
   for( ; at < near; ++at ) {
      if( slots[at].mark <= mark ) return at;
   }
   // Gallop: what is looked for is at `low` or behind, and then not behind `high`.
   uint32_t low = at, high = at;
   for( uint32_t step = groupSize; high < length; step *= 2 ) {
      ++longRunSteps_;
      if( slots[high].mark <= mark ) break;
      low = high + 1;
      high = step < length - high ? high + step : length;
   }
   const Slot * found =
      std::partition_point( slots + low, slots + high, [mark]( const Slot & slot ) {
         ++longRunSteps_;
         return slot.mark > mark;
      } );
   return static_cast< uint32_t >( found - slots );
}

thread_local uint64_t HashTable::longRunSteps_ = 0;

uint64_t
HashTable::longRunSteps() {
   return longRunSteps_;
}

// The first empty slot from `at` on, or the length.
uint32_t
HashTable::emptySlot( const Rep * rep, uint32_t at ) {
   if( rep->shift == 32 ) return rep->count;
   const Slot * slots = rep->slots();
   const uint32_t near = std::min( at + groupSize, rep->length );
   for( ; at < near; ++at ) {
      if( !slots[at].mark ) return at;
   }
   for( ; at < rep->length; at += groupSize ) {
      if( uint32_t empty = matches( rep->tags() + at, 0 ) ) {
         return std::min( at + static_cast< uint32_t >( std::countr_zero( empty ) ), rep->length );
      }
      ++longRunSteps_;
   }
   return rep->length;
}

// -- Growth -----------------------------------------------------------------------------------

// REQUIRES no growth in progress. Afterwards there is room for one more member. Changes nothing
// on bad_alloc.
void
HashTable::grow() {
   Rep * old = rep_;
   if( old->shift == 32 && old->length < denseLength ) {
      Rep * rep = make( *old->ops, 32, old->length * 2 );
      rep->count = old->count;
      std::memcpy( rep->slots(), old->slots(), old->count * sizeof( Slot ) );
      passCursors( old, rep );
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
   uint32_t behind = std::max( slotsBehind( homes ), old->length - old->homes() );
   Rep * rep = make( *old->ops, shift, homes + behind );
   rep->count = old->count;
   rep->old = old;
   old->begin = 0;
   passCursors( old, rep );
   rep_ = rep;
   try {
      migrate( old->length < atOnce ? old->length : slotsPerStep );
   } catch( ... ) {
      rep = std::exchange( rep_, old ); // widened, perhaps
      old->count = rep->count;
      passCursors( rep, old );
      destroy( rep, 0 );
      throw;
   }
}

// Moves so many slots of the old array, and members of the last one's hash. On bad_alloc nothing
// has moved.
void
HashTable::migrate( uint32_t atLeast ) {
   Rep * rep = rep_;
   Rep * old = rep->old;
   const uint32_t begin = old->begin;
   const Slot * from = old->slots();
   uint32_t end = begin + std::min( atLeast, old->length - begin );
   for( ; end < old->length && from[end].mark && from[end].mark == from[end - 1].mark; ++end ) {
      ++longRunSteps_;
   }

   uint32_t at = begin;
   while( at < end && !from[at].mark ) ++at;
   if( at < end ) {
      auto homeAt = [&]( uint32_t i ) { return rep->home( reversedHashOf( from[i].mark ) ); };
      // Behind what has moved already.
      uint32_t next = slotBehind( rep, homeAt( at ), from[at].mark );
      if( std::max( next, end * 2 ) + ( end - at ) > rep->length ) {
         // Bad hashes may have filled the room behind the last home meanwhile.
         uint32_t last = next;
         for( uint32_t i = at; i < end; ++i ) {
            if( from[i].mark ) last = std::max( last, homeAt( i ) ) + 1;
         }
         while( last > rep->length ) rep = rep_ = widened( rep, 0 );
      }
      Slot * slots = rep->slots();
      uint8_t * tags = rep->tags();
      for( ; at < end; ++at ) {
         if( !from[at].mark ) continue;
         next = std::max( next, homeAt( at ) );
         slots[next] = from[at];
         tags[next++] = tagOf( reversedHashOf( from[at].mark ) );
      }
   }
   const bool isLeft = end < old->length && from[end].mark;
   if( end >= old->homes() && !isLeft ) {
      rep->old = nullptr;
      rep->limit = UINT32_MAX;
      destroy( old, begin );
      return;
   }
   const uint64_t behind = isLeft ? reversedHashOf( from[end].mark ) : UINT32_MAX;
   rep->limit = static_cast< uint32_t >( std::min( behind, uint64_t{ end } << old->shift ) - 1 );
   old->begin = end;
   release( old, begin, end );
}

// -- Changes ----------------------------------------------------------------------------------

void
HashTable::reserve( const HashTableOps & ops, size_t members ) {
   if( rep_ || members <= denseLength ) return;
   uint8_t shift = firstShift;
   while( shift > 1 && ( 1u << ( 32 - shift ) ) / 4 * 3 < members ) --shift;
   const uint32_t homes = 1u << ( 32 - shift );
   rep_ = make( ops, shift, homes + slotsBehind( homes ) );
}

void
HashTable::insert( const HashTableOps & ops, uint32_t reversedHash, const void * key,
                   PtrInterface * member ) {
   if( rep_ && rep_->cursors ) disturbCursors( nullptr );
   if( !rep_ ) {
      rep_ = make( ops, 32, 1 );
   } else if( rep_->old ) {
      migrate( slotsPerStep );
   } else if( rep_->count == ( rep_->shift == 32 ? rep_->length : rep_->homes() / 4 * 3 ) ) {
      grow();
   }
   auto [rep, home] = homeOf( reversedHash );
   const uint64_t mark = markOf( reversedHash );

   uint32_t at = slotBehind( rep, home, mark );
   for( const Slot * slots = rep->slots(); at < rep->length && slots[at].mark == mark; ++at ) {
      int order = ops.compare( slots[at].member, key );
      assertThat( order != 0, "key is absent", "HashTable" );
      if( order > 0 ) break;
   }
   const uint32_t end = emptySlot( rep, at );
   if( end == rep->length ) {
      const bool isOld = rep != rep_;
      rep = widened( rep, isOld ? rep->begin : 0 );
      ( isOld ? rep_->old : rep_ ) = rep;
   }
   Slot * slots = rep->slots();
   if( rep->shift == 32 ) {
      std::memmove( slots + at + 1, slots + at, ( end - at ) * sizeof( Slot ) );
   } else {
      // Tags are written, not moved: their line may still be on its way.
      uint8_t * tags = rep->tags();
      for( uint32_t to = end; to > at; --to ) {
         slots[to] = slots[to - 1];
         tags[to] = tagOf( reversedHashOf( slots[to].mark ) );
      }
      tags[at] = tagOf( reversedHash );
   }
   slots[at] = Slot{ mark, member };
   ++rep_->count;
   member->referencesInc();
}

void
HashTable::unlink( Slot * slot ) {
   if( rep_->cursors ) disturbCursors( slot->member );
   Rep * rep = repOf( slot );
   Slot * slots = rep->slots();
   uint32_t at = static_cast< uint32_t >( slot - slots );
   // Members behind that are not at home move up. The tags tell of empty slots without a look at
   // another line of the array.
   const uint32_t length = rep->length;
   if( rep->shift == 32 ) {
      for( ; at + 1 < length; ++at ) slots[at] = slots[at + 1];
   } else {
      uint8_t * tags = rep->tags();
      for( uint32_t next = at + 1;
           tags[next] && rep->home( reversedHashOf( slots[next].mark ) ) < next; ++next ) {
         slots[at] = slots[next];
         tags[at] = tags[next];
         at = next;
      }
      tags[at] = 0;
   }
   slots[at] = Slot{};
   if( --rep_->count == 0 ) clear();
}

void
HashTable::replace( Slot * slot, PtrInterface * member ) {
   if( rep_->cursors ) disturbCursors( slot->member );
   member->referencesInc();
   slot->member = member;
}

void
HashTable::clear() {
   if( rep_ && rep_->cursors ) detachCursors();
   Rep * rep = std::exchange( rep_, nullptr );
   uint32_t left = rep ? rep->count : 0;
   uint32_t from = 0;
   while( rep ) {
      Rep * old = rep->old;
      uint32_t oldFrom = old ? old->begin : 0;
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

// A walk of a large table touches every member: fetches those ahead.
void
HashTable::prefetchGroup( const Rep * rep, uint32_t at ) {
   if( at >= rep->length ) return;
   const Slot * slots = rep->slots() + at;
   for( uint32_t full = ~matches( rep->tags() + at, 0 ) & 0xffff; full; full &= full - 1 ) {
      __builtin_prefetch( slots[std::countr_zero( full )].member );
   }
}

// The first group with a member from a slot on; its bits before that slot are clear.
HashTable::Group
HashTable::groupFrom( const Rep * rep, uint32_t at ) const {
   if( rep->shift == 32 ) {
      uint32_t full = ( 1u << rep->count ) - 1;
      return { rep->slots(), full & ~0u << at };
   }
   // Behind the homes in use, the first empty slot ends the array.
   const uint32_t homes = rep->home( rep->limit ) + 1;
   for( ; at < rep->length; at += groupSize ) {
      uint32_t empty = matches( rep->tags() + at, 0 );
      if( empty != 0xffff ) {
         return { rep->slots() + at, ~empty & 0xffff };
      }
      if( at >= homes ) break;
   }
   return rep->old ? groupFrom( rep->old, rep->old->begin ) : Group{ nullptr, 0 };
}

// REQUIRES that the table has not changed.
HashTable::Group
HashTable::groupAfter( const Group & group ) const {
   if( rep_->shift == 32 ) return { nullptr, 0 };
   const Slot * next = group.slots + groupSize;
   const Rep * rep = repOf( group.slots );
   const auto at = static_cast< uint32_t >( next - rep->slots() );
   if( rep->isMapped ) prefetchGroup( rep, at + groupSize );
   return groupFrom( rep, at );
}

// Behind that hash and those of its members for which `compare( member ) <= 0`.
template< class Compare >
HashTable::Group
HashTable::groupBehind( uint32_t reversedHash, Compare compare ) const {
   if( !rep_ ) return { nullptr, 0 };
   const auto [rep, home] = homeOf( reversedHash );
   const Slot * slots = rep->slots();
   const uint64_t mark = markOf( reversedHash );
   uint32_t at = slotBehind( rep, home, mark );
   while( at < rep->length && slots[at].mark == mark && compare( slots[at].member ) <= 0 ) ++at;
   return groupFrom( rep, at );
}

HashTable::Group
HashTable::groupBehind( const PtrInterface * member ) const {
   if( !rep_ ) return { nullptr, 0 };
   return groupBehind( rep_->ops->reversedHash( member ), [&]( const PtrInterface * m ) {
      return rep_->ops->compareMembers( m, member );
   } );
}

PtrInterface *
HashTable::firstMember() const {
   return rep_ ? firstOf( groupFrom( rep_, 0 ) ) : nullptr;
}

PtrInterface *
HashTable::memberAfter( uint32_t reversedHash, const void * key ) const {
   const Group group = groupBehind(
      reversedHash, [&]( const PtrInterface * m ) { return rep_->ops->compare( m, key ); } );
   // The walk of reflection and of streams, which do much with each member: the first 128 bytes of
   // the fourth from here are fetched meanwhile.
   uint32_t ahead = group.full;
   for( int i = 0; i < 3; ++i ) ahead &= ahead - 1;
   if( ahead ) {
      auto * member =
         reinterpret_cast< const char * >( group.slots[std::countr_zero( ahead )].member );
      __builtin_prefetch( member );
      __builtin_prefetch( member + 64 );
      __builtin_prefetch( member + 127 ); // in a third line, mostly
   }
   return firstOf( group );
}

PtrInterface *
HashTable::memberAfter( const PtrInterface * member ) const {
   return firstOf( groupBehind( member ) );
}

// -- Cursors ----------------------------------------------------------------------------------

void
HashTable::passCursors( Rep * from, Rep * to ) {
   // An array that lives on must not pass on again those that have gone meanwhile.
   to->cursors = std::exchange( from->cursors, nullptr );
   if( to->cursors ) to->cursors->previous_ = &to->cursors;
}

// Before any change: no cursor relies on slots any more, and those on the member that leaves, if
// one does, keep it.
void
HashTable::disturbCursors( const PtrInterface * leaving ) {
   for( HashCursor * cursor = rep_->cursors; cursor; ) {
      HashCursor * next = cursor->next_;
      cursor->ahead_ = Group{ nullptr, 0 };
      if( cursor->member_ == leaving ) {
         cursor->member_->referencesInc();
         cursor->unlist();
      }
      cursor = next;
   }
}

// All members leave.
void
HashTable::detachCursors() {
   while( HashCursor * cursor = rep_->cursors ) {
      cursor->ahead_ = Group{ nullptr, 0 };
      cursor->member_->referencesInc();
      cursor->unlist();
   }
}

HashCursor::HashCursor( const HashTable & table )
   : table_( &table ),
     member_( nullptr ),
     ahead_{ nullptr, 0 } {
   if( !table.rep_ ) return;
   ahead_ = table.groupFrom( table.rep_, 0 );
   member_ = HashTable::firstOf( ahead_ );
   ahead_.full &= ahead_.full - 1;
   join();
}

HashCursor::HashCursor( const HashTable & table, const HashTable::Slot * slot )
   : table_( &table ),
     member_( slot ? slot->member : nullptr ),
     ahead_{ nullptr, 0 } {
   if( member_ ) join();
}

HashCursor::HashCursor( const HashCursor & other )
   : table_( other.table_ ),
     member_( other.member_ ),
     ahead_( other.ahead_ ) {
   if( other.isListed() ) {
      join();
   } else if( member_ ) {
      member_->referencesInc();
   }
}

HashCursor &
HashCursor::operator=( const HashCursor & other ) {
   if( this == &other ) return *this;
   HashCursor old( *this ); // drops the reference, if there is one, when all is done
   leave();
   table_ = other.table_;
   member_ = other.member_;
   ahead_ = other.ahead_;
   if( other.isListed() ) {
      join();
   } else if( member_ ) {
      member_->referencesInc();
   }
   return *this;
}

// REQUIRES a member of the table, not listed.
void
HashCursor::join() {
   HashCursor ** head = &table_->rep_->cursors;
   next_ = *head;
   previous_ = head;
   if( next_ ) next_->previous_ = &next_;
   *head = this;
}

// The group is used up, or no longer known, or the member was removed.
void
HashCursor::stepFar() {
   PtrInterface * old = member_;
   ahead_ = ahead_.slots ? table_->groupAfter( ahead_ ) : table_->groupBehind( old );
   member_ = HashTable::firstOf( ahead_ );
   ahead_.full &= ahead_.full - 1;
   if( isListed() ) {
      if( !member_ ) unlist();
      return;
   }
   if( member_ ) join();
   old->referencesDec();
}

} // namespace Zek
