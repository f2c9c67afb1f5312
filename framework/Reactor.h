// Reactors: notifiees that a state machine owns, one per input record.
//
// Attaching, re-targeting, the zombie state and resynchronisation are written here once; the
// generated reactor adds its callbacks and the lists of handlers that run at its start and when
// its record is replaced. A reactor holds its input strongly and its machine by a plain pointer:
// the machine outlives its reactors, and whoever is being called inside one when the machine goes
// finds it dead (live() is false).

#pragma once

#include "framework/HashMap.h"
#include "framework/Notifiee.h"
#include "framework/Ptr.h"

#include <exception>
#include <type_traits>

namespace Zek {

/// Steps that are made whatever the ones before them throw: the first exception leaves at the end.
class FirstThrown {
 public:
   template< class Step >
   void of( const Step & step ) {
      try {
         step();
      } catch( ... ) {
         if( !thrown_ ) thrown_ = std::current_exception();
      }
   }
   void leave() const {
      if( thrown_ ) std::rethrow_exception( thrown_ );
   }

 private:
   std::exception_ptr thrown_;
};

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
      FirstThrown thrown;
      thrown.of( [&] { zekRetargeted(); } );
      this->isRegisteredNotifieeIs( owner_ != nullptr );
      thrown.leave();
   }

   /// Attaches a new reactor: notifier, start handlers, registration, in this order. One that the
   /// machine lets go in the meantime stays unregistered. What a handler throws leaves at the end:
   /// the machine goes on watching.
   void zekStart( const Ptr< const PtrInterface > & input ) {
      N::notifierIs( input );
      FirstThrown thrown;
      if( N::notifier() ) thrown.of( [&] { zekStarted(); } );
      this->isRegisteredNotifieeIs( owner_ != nullptr );
      thrown.leave();
   }
   /// The machine is gone or lets this reactor go: nothing reaches it any more.
   void zekRelease() {
      owner_ = nullptr;
      this->isRegisteredNotifieeIs( false );
   }

 protected:
   explicit Reactor( Machine * owner ) : owner_( owner ) {}
   ~Reactor() override = default;

   /// The steps of a reaction in order, for as long as the reactor lives. What a client throws in
   /// answer to a handler keeps none from what feeds the machine's own collections.
   template< class... Steps >
   void zekInAnyCase( const Steps &... steps ) const {
      FirstThrown thrown;
      ( ( live() ? thrown.of( steps ) : void() ), ... );
      thrown.leave();
   }
   /// Makes the reactors `held()` the same as the members from `member` on: `is` takes the key of
   /// each member, `del` that of each reactor.
   template< class Member, class Is, class Held, class Del >
   void zekFeedAll( Member member, const Is & is, const Held & held, const Del & del ) const {
      FirstThrown thrown;
      for( ; member && live(); ++member ) thrown.of( [&] { is( member.key() ); } );
      for( auto at = held(); at && live(); ++at ) thrown.of( [&] { del( at.key() ); } );
      thrown.leave();
   }

   /// The handlers for the input's present state, and after its replacement.
   virtual void zekStarted() = 0;
   virtual void zekRetargeted() = 0;

 private:
   Machine * owner_;
};

/// Starts a reactor that stands in its place, and announces it. What its start throws leaves at the
/// end; one that cannot be registered goes: `out` takes it out of its place.
template< class R, class Input, class Out, class Announce >
void
startReactor( R & reactor, const Ptr< const Input > & input, const Out & out,
              const Announce & announce ) {
   FirstThrown thrown;
   thrown.of( [&] { reactor.zekStart( input ); } );
   if( reactor.owner() && !reactor.isRegisteredNotifiee() ) {
      out();
      reactor.zekRelease();
   } else {
      thrown.of( announce );
   }
   thrown.leave();
}

/// xIs( input ) of a keyed reactor collection: re-targets the reactor under the input's key, or
/// makes, keeps and starts one and announces it.
template< class R, class Reactors, class Machine, class Input, class Announce >
void
reactorIs( Reactors & reactors, Machine & machine, const Ptr< const Input > & input,
           const Announce & announce ) {
   const auto key = KeyOf< Input, FwkKeyFunktor >::toPut( *input );
   if( Ptr< R > present = reactors.find( key ) ) {
      present->notifierIs( input );
      return;
   }
   Ptr< R > reactor = allocate< R >( &machine, key );
   reactors.insert( reactor.ptr() );
   const auto out = [&] {
      if( reactors.find( key ) == reactor.ptr() ) reactors.take( key );
   };
   startReactor( *reactor, input, out, announce );
}

/// xIs( input ) of a single reactor; announces what changed. Null removes it.
template< class R, class Machine, class Input, class Announce >
void
reactorIs( Ptr< R > & held, Machine & machine, const Ptr< const Input > & input,
           const Announce & announce ) {
   if( input && !held ) {
      Ptr< R > reactor = allocate< R >( &machine );
      held = reactor;
      const auto out = [&] {
         if( held == reactor ) held = nullptr;
      };
      startReactor( *reactor, input, out, announce );
      return;
   }
   FirstThrown thrown;
   if( input ) {
      thrown.of( [&] { Ptr< R >( held )->notifierIs( input ); } );
   } else {
      reactorDel( held );
   }
   thrown.of( announce );
   thrown.leave();
}

template< class R >
void
reactorDel( Ptr< R > & held ) {
   Ptr< R > removed = std::move( held );
   if( removed ) removed->zekRelease();
}

/// The last handlers of a reactor that has left its collection; then it is let go and `announce`
/// tells of it, also when they throw.
template< class R, class Gone, class Announce >
void
reactorGone( R & reactor, const Gone & gone, const Announce & announce ) {
   FirstThrown thrown;
   thrown.of( gone );
   reactor.zekRelease();
   thrown.of( announce );
   thrown.leave();
}

/// The machine dies: its reactors are released in order, then dropped.
template< class Reactors >
void
releaseReactors( Reactors & reactors ) {
   for( typename Reactors::Iterator i( reactors ); i; ++i ) i.ptr()->zekRelease();
}

} // namespace Zek
