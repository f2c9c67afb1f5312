#include "framework/Notifiee.h"

#include "framework/Notifier.h"

#include <utility>

namespace Zek {

using NotifieeConst = PtrInterface::NotifieeConst;

NotifieeConst::~NotifieeConst() {
   // Only a notifiee whose construction failed is still attached here.
   detach();
}

void
NotifieeConst::handleZeroRef() {
   if( isRegisteredNotifiee() && notifier_ && notifier_->notifieeList().isBeingCalled( this ) ) {
      // Its call goes on, but no visit starts another one: leaving the list makes the visit hold
      // it. Its notifier stays, since the callback may still be using it.
      isWeakNotifieeIs( false );
      registeredIs( false );
   } else if( lastReferenceGone() ) {
      detach();
      destroy();
   }
}

void
NotifieeConst::hasNotificationActiveIs( bool active ) {
   if( active == hasNotificationActive() ) return;
   const bool before = unusual();
   const bool isMember = notifier_ && isRegisteredNotifiee();
   if( isMember && !before ) notifier_->notifieeList().reserveUnusual();
   notificationActiveIs( active );
   if( isMember && unusual() != before ) notifier_->notifieeList().unusualChanged( this );
}

void
NotifieeConst::isRegisteredNotifieeIs( bool registered ) {
   if( registered != isRegisteredNotifiee() ) registeredIs( registered );
}

void
NotifieeConst::notifierIs( Zek::Ptr< const PtrInterface > notifier ) {
   notifierAssign( dynamic_cast< const Notifier * >( notifier.ptr() ) );
}

Zek::Ptr< const PtrInterface >
NotifieeConst::notifier() const {
   return notifierAs< Notifier >();
}

void
NotifieeConst::onNotificationException() {
   throw;
}

void
NotifieeConst::zekEntityLeaves() {}

AttributeSink *
NotifieeConst::zekSink() const {
   return nullptr;
}

void
NotifieeConst::zekDoZombieReactors( bool zombie ) {
   if( zombie == zekMarkedForDeletion() ) return;
   if( notifier_ ) hasNotificationActiveIs( !zombie );
   zekMarkedForDeletionIs( zombie );
}

void
NotifieeConst::isWeakNotifieeIs( bool weak ) {
   if( weak == isWeakNotifiee() ) return;
   if( notifier_ && !weak ) notifier_->referencesInc();
   // The place of a registered notifiee does not depend on its hold.
   if( notifier_ && !isRegisteredNotifiee() ) {
      if( weak ) {
         notifier_->notifieeList().addPassive( this );
      } else {
         notifier_->notifieeList().removePassive( this );
      }
   }
   flag( weakFlag, weak );
   if( notifier_ && weak ) notifier_->referencesDec();
}

void
NotifieeConst::zekIsLogAdaptorIs( bool logAdaptor ) {
   flag( logAdaptorFlag, logAdaptor );
}

void
NotifieeConst::assign( const Notifier * notifier, bool partial ) {
   if( notifier == notifier_ ) return;
   bool counted = !isWeakNotifiee();
   if( notifier && ( isRegisteredNotifiee() || !counted ) ) {
      notifier->notifieeList().reserve( partial || !hasNotificationActive(),
                                        !isRegisteredNotifiee() );
   }
   if( notifier && counted ) notifier->referencesInc();
   leave();
   const Notifier * old = std::exchange( notifier_, notifier );
   flag( partialFlag, partial );
   join();
   // Last, since it may destroy the old notifier and with it whatever that held.
   if( old && counted ) old->referencesDec();
}

void
NotifieeConst::registeredIs( bool registered ) {
   if( notifier_ ) {
      NotifieeList & list = notifier_->notifieeList();
      const bool weak = isWeakNotifiee();
      if( registered ) {
         weak ? list.promote( this ) : list.add( this );
      } else {
         weak ? list.demote( this ) : list.remove( this );
      }
   }
   flag( registeredFlag, registered );
}

void
NotifieeConst::join() {
   if( !notifier_ ) return;
   if( isRegisteredNotifiee() ) {
      notifier_->notifieeList().add( this );
   } else if( isWeakNotifiee() ) {
      notifier_->notifieeList().addPassive( this );
   }
}

void
NotifieeConst::leave() {
   if( !notifier_ ) return;
   if( isRegisteredNotifiee() ) {
      notifier_->notifieeList().remove( this );
   } else if( isWeakNotifiee() ) {
      notifier_->notifieeList().removePassive( this );
   }
}

void
NotifieeConst::detach() {
   assign( nullptr, false );
}

} // namespace Zek
