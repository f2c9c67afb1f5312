// Reactors: notifiees that a state machine owns, one per input record.
//
// Attaching, re-targeting, the zombie state and resynchronisation are written here once; the
// generated reactor adds its callbacks and the lists of handlers that run at its start and when
// its record is replaced. A reactor holds its input strongly and its machine by a plain pointer:
// the machine outlives its reactors, and whoever is being called inside one when the machine goes
// finds it dead (live() is false).

#pragma once

#include "framework/Notifiee.h"
#include "framework/Ptr.h"

#include <type_traits>

namespace Zek {

/// `N` is the NotifieeConst of the watched type, `Machine` the owner.
template< class N, class Machine >
class Reactor : public N {
 public:
   /// The machine, or null once it is gone.
   Machine * owner() const { return owner_; }
   /// What it watches, or null. No reference is taken: valid until the next thing that may run a
   /// callback.
   auto watched() const {
      using Input = std::remove_pointer_t< decltype( N::notifier().ptr() ) >;
      return this->template notifierPtr< std::remove_const_t< Input > >();
   }
   /// Whether callbacks are to be acted upon.
   bool live() const { return owner_ && !this->zekMarkedForDeletion(); }

   /// Replaces the input: the same one changes nothing. A live reactor then runs its re-target
   /// handlers and is registered. Null detaches.
   void notifierIs( Ptr< const PtrInterface > notifier ) override {
      const PtrInterface * before = N::notifier().ptr();
      N::notifierIs( notifier );
      if( N::notifier().ptr() == before || !N::notifier() || !live() ) return;
      zekRetargeted();
      this->isRegisteredNotifieeIs( true );
   }

   /// Attaches a new reactor: notifier, start handlers, registration, in this order. One that the
   /// machine lets go in the meantime stays unregistered.
   void zekStart( const Ptr< const PtrInterface > & input ) {
      N::notifierIs( input );
      if( N::notifier() ) zekStarted();
      this->isRegisteredNotifieeIs( owner_ != nullptr );
   }
   /// The machine is gone or lets this reactor go: nothing reaches it any more.
   void zekRelease() {
      owner_ = nullptr;
      this->isRegisteredNotifieeIs( false );
   }

 protected:
   explicit Reactor( Machine * owner ) : owner_( owner ) {}
   ~Reactor() override = default;

   /// The handlers for the input's present state, and after its replacement.
   virtual void zekStarted() = 0;
   virtual void zekRetargeted() = 0;

 private:
   Machine * owner_;
};

/// xIs( input ) of a keyed reactor collection: re-targets the reactor under the input's key, or
/// makes, keeps and starts one; true when it made one. A start that throws leaves no reactor.
template< class R, class Reactors, class Machine, class Input >
bool
reactorIs( Reactors & reactors, Machine & machine, const Ptr< const Input > & input ) {
   const auto key = input->fwkKey();
   if( Ptr< R > present = reactors.find( key ) ) {
      present->notifierIs( input );
      return false;
   }
   Ptr< R > reactor = allocate< R >( &machine, key );
   reactors.insert( reactor.ptr() );
   try {
      reactor->zekStart( input );
   } catch( ... ) {
      if( reactors.find( key ) == reactor.ptr() ) reactors.take( key );
      reactor->zekRelease();
      throw;
   }
   return true;
}

/// xIs( input ) of a single reactor. Null removes it.
template< class R, class Machine, class Input >
void
reactorIs( Ptr< R > & held, Machine & machine, const Ptr< const Input > & input ) {
   if( !input ) {
      reactorDel( held );
   } else if( held ) {
      Ptr< R >( held )->notifierIs( input );
   } else {
      Ptr< R > reactor = allocate< R >( &machine );
      held = reactor;
      try {
         reactor->zekStart( input );
      } catch( ... ) {
         if( held == reactor ) held = nullptr;
         reactor->zekRelease();
         throw;
      }
   }
}

template< class R >
void
reactorDel( Ptr< R > & held ) {
   Ptr< R > removed = std::move( held );
   if( removed ) removed->zekRelease();
}

/// Lets a reactor go when its last handlers have run, also when they throw.
template< class R >
struct ReleaseAtEnd {
   R & reactor;
   ~ReleaseAtEnd() { reactor.zekRelease(); }
};

/// The machine dies: its reactors are released in order, then dropped.
template< class Reactors >
void
releaseReactors( Reactors & reactors ) {
   for( typename Reactors::Iterator i( reactors ); i; ++i ) i.ptr()->zekRelease();
}

} // namespace Zek
