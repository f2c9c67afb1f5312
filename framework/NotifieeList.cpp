#include "framework/NotifieeList.h"

#include "framework/Assert.h"
#include "framework/Notifiee.h"
#include "framework/Notifier.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <utility>

namespace Zek {

/// A visit of a block in progress. It lives on the visitor's stack, but for one that began in
/// place and was moved here when something happened: that one is on the heap.
///
/// As long as nothing happens the visitor walks by an address in the array, of which it leaves a
/// copy here, and reads only `stop` on the way. Whoever changes the array, or what the visitor
/// assumes about it, first calls pause(): it makes the walk stop when the present call returns,
/// and from then on positions are indices, which the changes adjust.
struct NotifieeList::Visit {
   /// Before pause(): behind the notifiee being called, and behind the last one that was
   /// registered when the visit began.
   NotifieeConst ** cursor;
   NotifieeConst ** stop;
   Visit * outer;
   bool paused;
   /// After pause(): the same as indices.
   size_t next;
   size_t end;
   /// After pause(): the notifiee being called when it has left the list; the visit holds one
   /// reference to it.
   NotifieeConst * held;

   void pause( NotifieeConst ** members ) {
      if( paused ) return;
      paused = true;
      next = static_cast< size_t >( cursor - members );
      end = static_cast< size_t >( stop - members );
      held = nullptr;
      stop = cursor;
   }
   NotifieeConst * current( NotifieeConst ** members ) const {
      if( !paused ) return cursor[-1];
      if( held ) return held;
      return next ? members[next - 1] : nullptr;
   }
   void releaseHeld() {
      // The destruction of the one may give the visit another to hold.
      while( held ) std::exchange( held, nullptr )->referencesDec();
   }
};

/// Everything that does not fit the word. The array follows: the registered notifiees in order,
/// with holes perhaps, then the passive ones in any order.
struct NotifieeList::Block {
   Visit * innermost = nullptr;
   /// Their places, the holes included.
   uint32_t registered = 0;
   /// How many of them are suspended, watch a base part of the notifier only, or are holes.
   uint32_t unusual = 0;
   uint32_t holes = 0;
   uint32_t passive = 0;
   uint32_t capacity = 0;
   /// Something for settle() may have come up.
   bool unsettled = false;
   /// The notifier, when the visits in progress hold a reference to it.
   const Notifier * kept = nullptr;
   Extras * extras = nullptr;

   /// In lists of no more places, who leaves makes the others move up. There the places that
   /// registered notifiees know may be those of earlier times.
   static constexpr uint32_t fewPlaces = 64;
   bool leavesHoles() const { return registered > fewPlaces; }

   NotifieeConst ** members() { return reinterpret_cast< NotifieeConst ** >( this + 1 ); }
   NotifieeConst ** passives() { return members() + registered; }
   NotifieeConst ** end() { return members() + registered + passive; }

   void put( NotifieeConst ** place, NotifieeConst * notifiee ) {
      *place = notifiee;
      notifiee->place_ = static_cast< uint16_t >( place - members() );
   }
   NotifieeConst ** find( NotifieeConst ** from, NotifieeConst ** to, const NotifieeConst * what ) {
      const auto first = static_cast< size_t >( from - members() );
      const auto last = static_cast< size_t >( to - members() );
      for( size_t at = what->place_; at < last; at += size_t{ UINT16_MAX } + 1 ) {
         if( at >= first && members()[at] == what ) return members() + at;
      }
      return std::find( from, to, what );
   }
   /// One more registered one, for which there is room at passives().
   void append( NotifieeConst * notifiee ) {
      put( passives(), notifiee );
      registered++;
      unusual += notifiee->unusual();
      if( registered == fewPlaces + 1 ) {
         for( NotifieeConst ** at = members(); at != passives(); ++at ) put( at, *at );
      }
   }
   void erase( NotifieeConst * notifiee );
   void closeHoles();

   static Block * make( uint32_t capacity ) {
      void * memory = ::operator new( sizeof( Block ) + capacity * sizeof( NotifieeConst * ) );
      Block * block = new( memory ) Block;
      block->capacity = capacity;
      return block;
   }
};

NotifieeList::Extras::~Extras() = default;

NotifieeList::~NotifieeList() {
   detachAll();
   extrasIs( nullptr );
}

uint32_t
NotifieeList::count() const {
   if( !word_ ) return 0;
   return holdsBlock() ? block()->registered - block()->holes : !departed();
}

NotifieeList::Extras *
NotifieeList::extras() const {
   return holdsBlock() ? block()->extras : nullptr;
}

void
NotifieeList::extrasIs( std::unique_ptr< Extras > extras ) {
   if( !extras && !this->extras() ) return;
   Block * b = roomFor( 0 );
   const std::unique_ptr< Extras > old( std::exchange( b->extras, extras.release() ) );
   settleUnlessVisited();
}

// ---- members ------------------------------------------------------------------------------

void
NotifieeList::reserve( bool unusual, bool passive ) {
   if( word_ || unusual || passive ) roomFor( 1 );
}

void
NotifieeList::add( NotifieeConst * notifiee ) {
   if( !word_ && !notifiee->unusual() ) {
      word_ = reinterpret_cast< uintptr_t >( notifiee );
      return;
   }
   Block * b = roomFor( 1 );
   if( b->passive ) b->put( b->end(), *b->passives() );
   b->append( notifiee );
}

void
NotifieeList::addPassive( NotifieeConst * notifiee ) {
   Block * b = roomFor( 1 );
   b->put( b->end(), notifiee );
   b->passive++;
}

void
NotifieeList::remove( NotifieeConst * notifiee ) {
   if( !holdsBlock() ) {
      assertThat( inPlace() == notifiee, "registered notifiee is in the list", "NotifieeList" );
      if( notifiee->calledInPlace_ ) {
         notifiee->calledInPlace_ = false;
         notifiee->referencesInc();
         word_ |= blockTag | departedTag;
      } else {
         word_ = 0;
      }
      return;
   }
   block()->erase( notifiee );
   settleUnlessVisited();
}

/// Takes a registered notifiee out; what visits are about to call stays the same.
void
NotifieeList::Block::erase( NotifieeConst * notifiee ) {
   NotifieeConst ** place = find( members(), passives(), notifiee );
   assertThat( place != passives(), "registered notifiee is in the list", "NotifieeList" );
   const auto index = static_cast< size_t >( place - members() );
   const bool leavesHole = leavesHoles();
   for( Visit * v = innermost; v; v = v->outer ) {
      v->pause( members() );
      if( index >= v->end ) continue;
      if( !leavesHole ) v->end--;
      if( index >= v->next ) continue;
      if( v->current( members() ) == notifiee ) {
         notifiee->referencesInc();
         v->held = notifiee;
      }
      if( !leavesHole ) v->next--;
   }
   unusual -= notifiee->unusual();
   if( leavesHole ) {
      *place = nullptr;
      holes++;
      unusual++;
      if( holes * 2 > registered ) closeHoles();
   } else {
      std::copy( place + 1, passives(), place );
      registered--;
      if( passive ) put( passives(), *end() );
   }
}

/// REQUIRES all visits paused.
void
NotifieeList::Block::closeHoles() {
   for( Visit * v = innermost; v; v = v->outer ) {
      NotifieeConst ** next = members() + v->next;
      const auto before = std::count( members(), next, nullptr );
      v->end -= static_cast< size_t >( before + std::count( next, members() + v->end, nullptr ) );
      v->next -= static_cast< size_t >( before );
   }
   NotifieeConst ** to = members();
   for( NotifieeConst ** at = to; at != end(); ++at ) {
      if( *at ) put( to++, *at );
   }
   registered -= holes;
   unusual -= holes;
   holes = 0;
}

void
NotifieeList::removePassive( NotifieeConst * notifiee ) {
   Block * b = block();
   NotifieeConst ** place = b->find( b->passives(), b->end(), notifiee );
   assertThat( place != b->end(), "weak notifiee is in the list", "NotifieeList" );
   b->passive--;
   if( place != b->end() ) b->put( place, *b->end() );
   settleUnlessVisited();
}

void
NotifieeList::promote( NotifieeConst * notifiee ) {
   Block * b = block();
   NotifieeConst ** place = b->find( b->passives(), b->end(), notifiee );
   assertThat( place != b->end(), "weak notifiee is in the list", "NotifieeList" );
   b->put( place, *b->passives() );
   b->passive--;
   b->append( notifiee );
   settleUnlessVisited();
}

void
NotifieeList::demote( NotifieeConst * notifiee ) {
   Block * b = roomFor( 1 );
   b->erase( notifiee );
   b->put( b->end(), notifiee );
   b->passive++;
   settleUnlessVisited();
}

void
NotifieeList::unusualChanged( NotifieeConst * notifiee ) {
   Block * b = block();
   if( notifiee->unusual() ) {
      b->unusual++;
      for( Visit * v = b->innermost; v; v = v->outer ) v->pause( b->members() );
   } else {
      b->unusual--;
   }
   settleUnlessVisited();
}

bool
NotifieeList::isBeingCalled( const NotifieeConst * notifiee ) const {
   if( !holdsBlock() ) return inPlace() == notifiee && visitInProgress();
   Block * b = block();
   for( Visit * v = b->innermost; v; v = v->outer ) {
      if( v->current( b->members() ) == notifiee ) return true;
   }
   return false;
}

void
NotifieeList::keep( const Notifier * notifier ) {
   notifier->referencesInc();
   if( holdsBlock() ) {
      block()->kept = notifier;
      block()->unsettled = true;
   } else {
      word_ |= blockTag | keptTag;
   }
}

NotifieeList::NotifieeConst *
NotifieeList::logAdaptor( uint32_t n ) const {
   if( !word_ || departed() ) return nullptr;
   NotifieeConst * single = holdsBlock() ? nullptr : inPlace();
   NotifieeConst ** at = single ? &single : block()->members();
   NotifieeConst ** end = single ? at + 1 : block()->passives();
   for( ; at != end; ++at ) {
      if( *at && ( *at )->zekIsLogAdaptor() && n-- == 0 ) return *at;
   }
   return nullptr;
}

void
NotifieeList::tellLeaving() {
   // One that stays in the list is passed over, one that leaves it makes room for the next.
   uint32_t stayed = 0;
   while( NotifieeConst * adaptor = logAdaptor( stayed ) ) {
      adaptor->zekEntityLeaves();
      if( logAdaptor( stayed ) == adaptor ) ++stayed;
   }
}

void
NotifieeList::detachAll() {
   auto forget = []( NotifieeConst * notifiee ) {
      if( !notifiee ) return;
      notifiee->notifier_ = nullptr;
      notifiee->flag( NotifieeConst::partialFlag, false );
   };
   if( !word_ ) return;
   assertThat( !visitInProgress(), "no visit while the notifier dies", "NotifieeList" );
   if( holdsBlock() ) {
      Block * b = block();
      std::for_each( b->members(), b->end(), forget );
      b->registered = b->passive = b->unusual = b->holes = 0;
      settle();
   } else {
      forget( inPlace() );
      word_ = 0;
   }
}

// ---- the block ----------------------------------------------------------------------------

bool
NotifieeList::visitInProgress() const {
   if( holdsBlock() ) return block()->innermost != nullptr;
   return ( word_ & tags ) || ( word_ && inPlace()->calledInPlace_ );
}

/// The block, made or grown where needed, with room for `more` members.
NotifieeList::Block *
NotifieeList::roomFor( uint32_t more ) {
   if( !holdsBlock() ) return makeBlock();
   Block * old = block();
   uint32_t used = old->registered + old->passive;
   if( used + more <= old->capacity ) return old;
   Block * grown = Block::make( old->capacity * 2 + 6 );
   uint32_t capacity = grown->capacity;
   *grown = *old;
   grown->capacity = capacity;
   std::copy( old->members(), old->end(), grown->members() );
   for( Visit * v = old->innermost; v; v = v->outer ) v->pause( old->members() );
   ::operator delete( old );
   word_ = reinterpret_cast< uintptr_t >( grown ) + blockTag;
   return grown;
}

/// Moves what is in place, and the visit that may be in progress there, to a block.
NotifieeList::Block *
NotifieeList::makeBlock() {
   std::unique_ptr< Visit > moved;
   if( visitInProgress() ) moved.reset( new Visit{} );
   Block * b = Block::make( 2 );
   NotifieeConst * notifiee = inPlace();
   const bool isMember = notifiee && !departed();
   if( isMember ) {
      b->append( notifiee );
      notifiee->calledInPlace_ = false;
   }
   if( moved ) {
      moved->paused = true;
      moved->next = moved->end = isMember;
      moved->held = isMember ? nullptr : notifiee;
      b->innermost = moved.release();
   }
   if( word_ & keptTag ) {
      b->kept = &Notifier::of( *this );
      b->unsettled = true;
   }
   word_ = reinterpret_cast< uintptr_t >( b ) + blockTag;
   return b;
}

/// Outside of visits: gives up a block that is no longer needed, then the notifier.
void
NotifieeList::settle() {
   Block * b = block();
   b->unsettled = false;
   const Notifier * kept = std::exchange( b->kept, nullptr );
   if( !b->extras && !b->passive && !b->unusual && b->registered <= 1 ) {
      word_ = b->registered ? reinterpret_cast< uintptr_t >( *b->members() ) : 0;
      ::operator delete( b );
   }
   if( kept ) kept->referencesDec();
}

void
NotifieeList::settleUnlessVisited() {
   Block * b = block();
   if( b->innermost ) {
      b->unsettled = true;
   } else {
      settle();
   }
}

// ---- visits -------------------------------------------------------------------------------

/// The end of a visit in place during which something happened.
void
NotifieeList::endEventfulVisit() {
   if( departed() ) {
      // Whatever its destruction does finds the visit still in progress.
      NotifieeConst * held = inPlace();
      word_ &= tags;
      if( held ) held->referencesDec();
   }
   if( holdsBlock() ) {
      Visit * moved = block()->innermost;
      moved->releaseHeld();
      block()->innermost = nullptr;
      delete moved;
      settle();
      return;
   }
   const bool isKept = word_ & keptTag;
   word_ &= ~tags;
   if( NotifieeConst * notifiee = inPlace() ) notifiee->calledInPlace_ = false;
   if( isKept ) Notifier::of( *this ).referencesDec();
}

/// In the catch block of a visit in place.
void
NotifieeList::thrownInPlace() {
   NotifieeConst * notifiee = inPlace();
   if( holdsBlock() ) notifiee = block()->innermost->current( block()->members() );
   try {
      notifiee->onNotificationException();
   } catch( ... ) {
      endInPlace();
      throw;
   }
}

/// The visit of a block, or one inside the visit of a notifiee in place.
template< class Call >
[[gnu::always_inline]] inline void
NotifieeList::visitTagged( Call call, Accepts accepts ) {
   if( !holdsBlock() ) {
      if( departed() ) return;
      // The outer visit holds the notifiee and finds all that happens to the word meanwhile.
      NotifieeConst * notifiee = inPlace();
      try {
         call( *notifiee );
      } catch( ... ) {
         notifiee->onNotificationException();
      }
      return;
   }
   Block * b = block();
   NotifieeConst ** cursor = b->members();
   Visit visit;
   visit.stop = b->passives();
   visit.outer = b->innermost;
   visit.paused = false;
   b->innermost = &visit;
   if( b->unusual ) [[unlikely]] {
      visit.cursor = cursor;
      visit.pause( cursor );
      if( b->holes && !visit.outer ) b->closeHoles();
      visitRest( visit, call, accepts, false );
      return;
   }
   if( b->registered ) [[likely]] {
      try {
         do {
            NotifieeConst & notifiee = **cursor++;
            visit.cursor = cursor;
            call( notifiee );
         } while( cursor != visit.stop );
      } catch( ... ) {
         visitRest( visit, call, accepts, true );
         return;
      }
      if( visit.paused ) [[unlikely]] {
         visitRest( visit, call, accepts, false );
         return;
      }
      b = block();
   }
   b->innermost = visit.outer;
   if( b->unsettled && !visit.outer ) [[unlikely]] {
      settle();
   }
}

/// Goes on with a visit in which something came up, and ends it. `thrown`: in the catch block of
/// what the present notifiee threw.
template< class Call >
[[gnu::noinline]] void
NotifieeList::visitRest( Visit & visit, Call call, Accepts accepts, bool thrown ) {
   visit.pause( block()->members() );
   std::exception_ptr pending;
   auto caught = [&] {
      try {
         visit.current( block()->members() )->onNotificationException();
      } catch( ... ) {
         if( !pending ) pending = std::current_exception();
      }
   };
   if( thrown ) caught();
   visit.releaseHeld();
   while( visit.next != visit.end ) {
      NotifieeConst * at = block()->members()[visit.next++];
      if( !at ) continue;
      NotifieeConst & notifiee = *at;
      bool wanted = notifiee.hasNotificationActive() &&
                    ( !pending || notifiee.zekIsLogAdaptor() ) &&
                    ( !( notifiee.flags_ & NotifieeConst::partialFlag ) || accepts( notifiee ) );
      if( !wanted ) continue;
      try {
         call( notifiee );
      } catch( ... ) {
         caught();
      }
      visit.releaseHeld();
   }
   block()->innermost = visit.outer;
   if( !visit.outer ) settle();
   if( pending ) std::rethrow_exception( pending );
}

#ifdef __x86_64__

// Deliberate: how this platform's C++ ABI lays out member pointers and calls through virtual
// tables is spelled out here. The compiler would examine the member pointer anew for every
// notifiee, which costs a third of the visit.
struct NotifieeList::Slot {
   uintptr_t function; // address, or for a virtual function one more than its offset in the table
   ptrdiff_t adjustment;

   static Slot of( Callback callback ) {
      static_assert( sizeof( Slot ) == sizeof( Callback ) );
      return std::bit_cast< Slot >( callback );
   }
   bool isPlainVirtual() const { return ( function & 1 ) && adjustment == 0; }
   void operator()( NotifieeConst & notifiee ) const {
      const char * table;
      void ( *entry )( NotifieeConst * );
      std::memcpy( &table, static_cast< const void * >( &notifiee ), sizeof( table ) );
      std::memcpy( &entry, table + function - 1, sizeof( entry ) );
      entry( &notifiee );
   }
};

#else

struct NotifieeList::Slot {
   Callback callback;
   static Slot of( Callback callback ) { return { callback }; }
   bool isPlainVirtual() const { return true; }
   void operator()( NotifieeConst & notifiee ) const { ( notifiee.*callback )(); }
};

#endif

void
NotifieeList::visit( Callback callback, Accepts accepts ) {
   Slot slot = Slot::of( callback );
   if( !slot.isPlainVirtual() ) [[unlikely]] {
      visitOddly( callback, accepts );
      return;
   }
   visitTagged( slot, accepts );
}

/// The visit for a callback that is not virtual, or stands in another than the first base.
[[gnu::noinline]] void
NotifieeList::visitOddly( Callback callback, Accepts accepts ) {
   auto invoke = []( NotifieeConst & notifiee, const void * call ) {
      ( notifiee.**static_cast< const Callback * >( call ) )();
   };
   visitKeyed( invoke, &callback, accepts );
}

void
NotifieeList::visitKeyed( Invoke invoke, const void * call, Accepts accepts ) {
   visitTagged( [=]( NotifieeConst & notifiee ) { invoke( notifiee, call ); }, accepts );
}

} // namespace Zek
