// Watchers: the common base of every type's NotifieeConst.
//
// A notifiee is detached, attached, or attached and registered; only the last is called. It starts
// detached, unregistered and switched on. It holds its notifier by a counted reference or, with
// the weak hold, by a bare pointer that becomes null when the notifier dies.
//
// A type T derives its own NotifieeConst and adds one virtual callback per attribute, each doing
// nothing by default, and
//
//    void notifierIs( Ptr< const PtrInterface > p ) override {
//       notifierAssign( dynamic_cast< const T * >( p.ptr() ) );
//    }
//    Ptr< const T > notifier() const { return notifierAs< T >(); }
//
// None of the switches delivers anything retroactively. All of them may be used from inside
// callbacks. Those that need memory and find none throw std::bad_alloc and have changed nothing; to
// leave a list needs none.

#pragma once

#include "framework/Export.h"
#include "framework/Ptr.h"

#include <cstdint>
#include <typeinfo>

namespace Zek {

class AttributeSink;
class Notifier;
class NotifieeList;

class IPSTATE_EXPORT PtrInterface::NotifieeConst : public PtrInterface {
 public:
   using Ptr = Zek::Ptr< NotifieeConst >;
   using PtrConst = Zek::Ptr< const NotifieeConst >;

   /// Suspends (off) or resumes delivery; the place in the list is kept.
   virtual void hasNotificationActiveIs( bool active );
   /// Starts (at the end of the list) or stops receiving callbacks.
   virtual void isRegisteredNotifieeIs( bool registered );
   bool isRegisteredNotifiee() const { return flags_ & registeredFlag; }
   /// Attaches to a notifier, replaces it, or detaches on null and on an object of a type that
   /// this notifiee does not watch. A registered notifiee moves to the end of the new list. The
   /// old notifier lives until this notifiee has left its list.
   virtual void notifierIs( Zek::Ptr< const PtrInterface > notifier );
   Zek::Ptr< const PtrInterface > notifier() const;

   /// Runs in the catch block when one of the callbacks threw. The exception that leaves it (by
   /// default the one caught) leaves the mutator; when it returns, the visit goes on.
   virtual void onNotificationException();

   /// Puts a reactor into or out of the zombie state, in which it stays attached and ignores
   /// every callback.
   virtual void zekDoZombieReactors( bool zombie );

   /// The hold on the notifier: weak keeps a bare pointer that becomes null, without a callback,
   /// when the notifier dies. May be switched while attached.
   bool isWeakNotifiee() const { return flags_ & weakFlag; }
   void isWeakNotifieeIs( bool weak );

   /// Marks attribute-log adaptors, which are called even when an earlier notifiee threw.
   bool zekIsLogAdaptor() const { return flags_ & logAdaptorFlag; }
   void zekIsLogAdaptorIs( bool logAdaptor );
   /// To attribute-log adaptors only: the entity is about to lose its parent, or dies. The
   /// notifiee may detach in it.
   virtual void zekEntityLeaves();
   /// Where a relay forwards to (framework/Relay.h); null for all other notifiees.
   virtual AttributeSink * zekSink() const;

 protected:
   NotifieeConst() = default;
   /// A notifiee leaves its list before its destruction starts and lets go of its notifier.
   ~NotifieeConst() override;

   /// Does the work of notifierIs() for a notifiee of T.
   template< class T >
   void notifierAssign( const T * notifier ) {
      assign( notifier, notifier && notifier->zekCallbackType() != typeid( T ) );
   }
   /// The notifier, which notifierAssign() took as a T.
   template< class T >
   Zek::Ptr< const T > notifierAs() const {
      return notifierPtr< T >();
   }
   /// The same without a reference.
   template< class T >
   const T * notifierPtr() const {
      return static_cast< const T * >( notifier_ );
   }

   void handleZeroRef() override;

 private:
   friend class NotifieeList;
   // The list must learn when this flag changes.
   using PtrInterface::notificationActiveIs;

   static constexpr uint8_t registeredFlag = 1;
   static constexpr uint8_t weakFlag = 2;
   static constexpr uint8_t logAdaptorFlag = 4;
   // The notifier is of a type derived from the one that is watched and has callbacks that this
   // notifiee lacks.
   static constexpr uint8_t partialFlag = 8;

   // Whether a visit must look closer before it calls.
   bool unusual() const { return ( flags_ & partialFlag ) || !hasNotificationActive(); }
   void flag( uint8_t bit, bool on ) {
      flags_ = static_cast< uint8_t >( on ? flags_ | bit : flags_ & ~bit );
   }
   void assign( const Notifier * notifier, bool partial );
   void detach();
   void registeredIs( bool registered );
   // Into and out of the notifier's list, as the flags say.
   void join();
   void leave();

   uint8_t flags_ = 0;
   // The list's mark while it calls this notifiee in place; it has converted to a block before
   // anything else happens to this notifiee or the list.
   bool calledInPlace_ = false;
   // The lower half of its place in the array of a long list; see there.
   uint16_t place_ = 0;
   const Notifier * notifier_ = nullptr;
};

} // namespace Zek
