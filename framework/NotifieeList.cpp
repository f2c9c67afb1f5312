#include "framework/NotifieeList.h"

#include "framework/Assert.h"
#include "framework/Notifiee.h"
#include "framework/Notifier.h"

#include <algorithm>
#include <exception>
#include <new>
#include <utility>

namespace Zek {

namespace {

// Tags of the word; objects and blocks are aligned to eight.
constexpr uintptr_t visitingTag = 1;
constexpr uintptr_t blockTag = 2;
constexpr uintptr_t anyTag = visitingTag | blockTag;

} // namespace

/// A visit of a block in progress. It lives on the visitor's stack, but for one that began in
/// place and was moved here when the word changed under it: that one is on the heap.
///
/// Positions are addresses in the block's array; every change of the array adjusts them.
struct NotifieeList::Visit {
   /// Behind the notifiee being called.
   NotifieeConst ** cursor;
   /// Where the visitor pauses to look around: the end, or the cursor when something came up.
   NotifieeConst ** stop;
   /// Behind the last one that was registered when the visit began.
   NotifieeConst ** end;
   /// The notifiee being called after it left the list; the visit holds one reference to it.
   NotifieeConst * held;
   Visit * outer;

   NotifieeConst * current( NotifieeConst ** begin ) const {
      if( held ) return held;
      return cursor == begin ? nullptr : cursor[-1];
   }
   void releaseHeld() {
      // The destruction of the one may give the visit another to hold.
      while( held ) std::exchange( held, nullptr )->referencesDec();
   }
};

/// Everything that does not fit the word. The array follows: the registered notifiees in order,
/// then the passive ones in any order.
struct NotifieeList::Block {
   Extras * extras = nullptr;
   Visit * innermost = nullptr;
   /// The notifier, when the visits in progress hold a reference to it.
   const Notifier * kept = nullptr;
   uint32_t registered = 0;
   uint32_t passive = 0;
   /// How many of the registered are suspended or watch a base part of the notifier only.
   uint32_t unusual = 0;
   uint32_t capacity = 0;

   NotifieeConst ** members() { return reinterpret_cast< NotifieeConst ** >( this + 1 ); }
   NotifieeConst ** passives() { return members() + registered; }
   NotifieeConst ** end() { return members() + registered + passive; }

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
   return word_ & blockTag ? block()->registered : 1;
}

NotifieeList::Extras *
NotifieeList::extras() const {
   return word_ & blockTag ? block()->extras : nullptr;
}

void
NotifieeList::extrasIs( Extras * extras ) {
   if( !extras && !this->extras() ) return;
   Block * b = roomFor( 0 );
   Extras * old = std::exchange( b->extras, extras );
   if( !b->innermost ) settle();
   delete old;
}

// ---- members ------------------------------------------------------------------------------

void
NotifieeList::add( NotifieeConst * notifiee ) {
   bool unusual = notifiee->unusual();
   if( !word_ && !unusual ) {
      word_ = reinterpret_cast< uintptr_t >( notifiee );
      return;
   }
   Block * b = roomFor( 1 );
   if( b->passive ) *b->end() = *b->passives();
   *b->passives() = notifiee;
   b->registered++;
   b->unusual += unusual;
}

void
NotifieeList::addPassive( NotifieeConst * notifiee ) {
   Block * b = roomFor( 1 );
   *b->end() = notifiee;
   b->passive++;
}

void
NotifieeList::remove( NotifieeConst * notifiee ) {
   if( word_ == reinterpret_cast< uintptr_t >( notifiee ) ) {
      word_ = 0;
      return;
   }
   Block * b = roomFor( 0 );
   NotifieeConst ** place = std::find( b->members(), b->passives(), notifiee );
   assertThat( place != b->passives(), "registered notifiee is in the list", "NotifieeList" );
   for( Visit * v = b->innermost; v; v = v->outer ) {
      if( place < v->end ) v->end--;
      if( place < v->cursor ) {
         bool called = v->current( b->members() ) == notifiee;
         v->cursor--;
         v->stop--;
         if( called ) {
            notifiee->referencesInc();
            v->held = notifiee;
            v->stop = v->cursor;
         }
      } else if( place < v->stop ) {
         v->stop--;
      }
   }
   std::copy( place + 1, b->passives(), place );
   b->registered--;
   if( b->passive ) *b->passives() = *b->end();
   b->unusual -= notifiee->unusual();
   if( !b->innermost ) settle();
}

void
NotifieeList::removePassive( NotifieeConst * notifiee ) {
   Block * b = block();
   NotifieeConst ** place = std::find( b->passives(), b->end(), notifiee );
   assertThat( place != b->end(), "weak notifiee is in the list", "NotifieeList" );
   b->passive--;
   *place = *b->end();
   if( !b->innermost ) settle();
}

void
NotifieeList::unusualChanged( NotifieeConst * notifiee ) {
   Block * b = roomFor( 0 );
   if( notifiee->unusual() ) {
      b->unusual++;
      for( Visit * v = b->innermost; v; v = v->outer ) v->stop = v->cursor;
   } else {
      b->unusual--;
   }
   if( !b->innermost ) settle();
}

bool
NotifieeList::isBeingCalled( const NotifieeConst * notifiee ) const {
   if( !( word_ & blockTag ) ) {
      return word_ == ( reinterpret_cast< uintptr_t >( notifiee ) | visitingTag );
   }
   Block * b = block();
   for( Visit * v = b->innermost; v; v = v->outer ) {
      if( v->current( b->members() ) == notifiee ) return true;
   }
   return false;
}

void
NotifieeList::keep( const Notifier * notifier ) {
   notifier->referencesInc();
   roomFor( 0 )->kept = notifier;
}

void
NotifieeList::detachAll() {
   auto forget = []( NotifieeConst * notifiee ) {
      notifiee->notifier_ = nullptr;
      notifiee->flag( NotifieeConst::partialFlag, false );
   };
   if( !word_ ) return;
   assertThat( !inVisit(), "no visit while the notifier dies", "NotifieeList" );
   if( word_ & blockTag ) {
      Block * b = block();
      std::for_each( b->members(), b->end(), forget );
      b->registered = b->passive = b->unusual = 0;
      settle();
   } else {
      forget( reinterpret_cast< NotifieeConst * >( word_ ) );
      word_ = 0;
   }
}

// ---- the block ----------------------------------------------------------------------------

bool
NotifieeList::inVisit() const {
   return word_ & blockTag ? block()->innermost != nullptr : word_ & visitingTag;
}

NotifieeList::Block *
NotifieeList::block() const {
   return reinterpret_cast< Block * >( word_ - blockTag );
}

/// The block, made or grown where needed, with room for `more` members.
NotifieeList::Block *
NotifieeList::roomFor( uint32_t more ) {
   if( !( word_ & blockTag ) ) return makeBlock();
   Block * old = block();
   uint32_t used = old->registered + old->passive;
   if( used + more <= old->capacity ) return old;
   Block * grown = Block::make( old->capacity * 2 + 5 ); // 64, 128, 256 ... bytes
   uint32_t capacity = grown->capacity;
   *grown = *old;
   grown->capacity = capacity;
   std::copy( old->members(), old->end(), grown->members() );
   for( Visit * v = grown->innermost; v; v = v->outer ) {
      for( NotifieeConst *** place : { &v->cursor, &v->stop, &v->end } ) {
         *place = grown->members() + ( *place - old->members() );
      }
   }
   ::operator delete( old );
   word_ = reinterpret_cast< uintptr_t >( grown ) | blockTag;
   return grown;
}

/// Moves what is in place, and the visit that may be in progress there, to a block.
NotifieeList::Block *
NotifieeList::makeBlock() {
   Block * b = Block::make( 3 );
   if( word_ ) {
      *b->members() = reinterpret_cast< NotifieeConst * >( word_ & ~anyTag );
      b->registered = 1;
   }
   if( word_ & visitingTag ) {
      NotifieeConst ** end = b->members() + 1;
      b->innermost = new Visit{ end, end, end, nullptr, nullptr };
   }
   word_ = reinterpret_cast< uintptr_t >( b ) | blockTag;
   return b;
}

/// Outside of visits: gives up a block that is no longer needed, then the notifier.
void
NotifieeList::settle() {
   Block * b = block();
   const Notifier * kept = std::exchange( b->kept, nullptr );
   if( !b->extras && !b->passive && !b->unusual && b->registered <= 1 ) {
      word_ = b->registered ? reinterpret_cast< uintptr_t >( *b->members() ) : 0;
      ::operator delete( b );
   }
   if( kept ) kept->referencesDec();
}

// ---- visits -------------------------------------------------------------------------------

template < class Call >
[[gnu::always_inline]] inline void
NotifieeList::visitWith( const Call & call, Accepts accepts ) {
   if( word_ & anyTag ) {
      visitTagged( call, accepts );
      return;
   }
   auto notifiee = reinterpret_cast< NotifieeConst * >( word_ );
   word_ |= visitingTag;
   try {
      call( *notifiee );
   } catch( ... ) {
      thrownInPlace();
   }
   endVisitInPlace();
}

/// A nested visit in place, or the visit of a block.
template < class Call >
[[gnu::noinline]] void
NotifieeList::visitTagged( Call call, Accepts accepts ) {
   if( word_ & blockTag ) {
      visitBlock( call, accepts );
      return;
   }
   // The outer visit finds all that happens to the word meanwhile, and holds the notifiee.
   auto notifiee = reinterpret_cast< NotifieeConst * >( word_ & ~anyTag );
   try {
      call( *notifiee );
   } catch( ... ) {
      notifiee->onNotificationException();
   }
}

template < class Call >
void
NotifieeList::visitBlock( const Call & call, Accepts accepts ) {
   Block * b = block();
   Visit visit{ b->members(), b->members(), b->passives(), nullptr, b->innermost };
   b->innermost = &visit;
   std::exception_ptr pending;
   while( visit.cursor != visit.end ) {
      try {
         if( !pending && block()->unusual == 0 ) [[likely]] {
            visit.stop = visit.end;
            do {
               call( **visit.cursor++ );
            } while( visit.cursor != visit.stop );
         } else {
            NotifieeConst & notifiee = **visit.cursor++;
            visit.stop = visit.cursor;
            bool wanted =
               notifiee.hasNotificationActive() && ( !pending || notifiee.zekIsLogAdaptor() ) &&
               ( !( notifiee.flags_ & NotifieeConst::partialFlag ) || accepts( notifiee ) );
            if( wanted ) call( notifiee );
         }
      } catch( ... ) {
         try {
            visit.current( block()->members() )->onNotificationException();
         } catch( ... ) {
            if( !pending ) pending = std::current_exception();
         }
      }
      visit.releaseHeld();
   }
   b = block();
   b->innermost = visit.outer;
   if( !visit.outer ) settle();
   if( pending ) std::rethrow_exception( pending );
}

[[gnu::always_inline]] inline void
NotifieeList::endVisitInPlace() {
   if( word_ & visitingTag ) [[likely]] {
      word_ -= visitingTag;
   } else {
      endMovedVisit();
   }
}

/// The end of a visit in place that was moved to a block.
void
NotifieeList::endMovedVisit() {
   Visit * moved = block()->innermost;
   moved->releaseHeld();
   block()->innermost = nullptr;
   delete moved;
   settle();
}

/// In the catch block of a visit in place.
void
NotifieeList::thrownInPlace() {
   NotifieeConst * notifiee = reinterpret_cast< NotifieeConst * >( word_ & ~anyTag );
   if( word_ & blockTag ) {
      Visit * outermost = block()->innermost;
      while( outermost->outer ) outermost = outermost->outer;
      notifiee = outermost->current( block()->members() );
   }
   try {
      notifiee->onNotificationException();
   } catch( ... ) {
      endVisitInPlace();
      throw;
   }
}

void
NotifieeList::visit( Callback callback, Accepts accepts ) {
   visitWith( [callback]( NotifieeConst & notifiee ) { ( notifiee.*callback )(); }, accepts );
}

void
NotifieeList::visitKeyed( Invoke invoke, const void * call, Accepts accepts ) {
   visitWith( [=]( NotifieeConst & notifiee ) { invoke( notifiee, call ); }, accepts );
}

} // namespace Zek
