// Relays: notifiees that forward every change of a record by attribute number to a sink.
//
// Generated code lists the callbacks of a type once, in its relay; whoever must follow records
// known only by their descriptor (generic watchers, attribute logs) is a sink behind one.

#pragma once

#include "framework/Notifiee.h"
#include "framework/Ptr.h"
#include "framework/Type.h"

namespace Zek {

template< class N >
class Relay : public N {
 public:
   Relay( const TypeDescriptor & type, AttributeSink & sink ) : type_( type ), sink_( sink ) {}

   AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline constinit AllocTrackTypeInfo allocTrackTypeInfo_{ "Zek::Relay", sizeof( N ) + 16 };

   AttributeSink * zekSink() const override { return &sink_; }
   void zekEntityLeaves() override { sink_.onEntityLeaves(); }
   void onNotificationException() override { sink_.onNotificationException(); }

 protected:
   ~Relay() override = default;

   void changed( uint16_t attributeId ) { sink_.onAttribute( *type_.attribute( attributeId ) ); }
   void changed( uint16_t attributeId, const void * key ) {
      sink_.onMember( *type_.attribute( attributeId ), key );
   }

 private:
   const TypeDescriptor & type_;
   AttributeSink & sink_;
};

/// Makes a relay of type R, attached to `object` (a T) and registered.
template< class R, class T >
Ptr< PtrInterface >
makeRelay( const PtrInterface & object, AttributeSink & sink ) {
   auto relay = allocate< R >( *object.fwkType(), sink );
   relay->notifierIs( &object );
   relay->isRegisteredNotifieeIs( true );
   return relay;
}

} // namespace Zek
