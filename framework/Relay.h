// Relays: notifiees that forward every change of a record by attribute number to a sink.
//
// Generated code lists the callbacks of a type once, in its relay; whoever must follow records
// known only by their descriptor (generic watchers, attribute logs) is a sink behind one.

#pragma once

#include "framework/FlowHead.h"
#include "framework/Notifiee.h"
#include "framework/Ptr.h"
#include "framework/Type.h"

namespace Zek {

/// `T`: the type whose callbacks it has, which is that of the object or a base of it.
template< class T >
class Relay : public T::NotifieeConst {
 public:
   explicit Relay( AttributeSink & sink ) : sink_( sink ) { sink.onRelay( head_ ); }

   AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline constinit AllocTrackTypeInfo allocTrackTypeInfo_{
      "Zek::Relay", sizeof( typename T::NotifieeConst ) + 8 + sizeof( NboAttrLog::FlowHead )
   };

   AttributeSink * zekSink() const override { return &sink_; }
   void zekEntityLeaves() override { sink_.onEntityLeaves(); }
   void onNotificationException() override { sink_.onNotificationException(); }

 protected:
   ~Relay() override = default;

   void changed( uint16_t attributeId ) { changed( row( attributeId ) ); }
   void changed( uint16_t attributeId, const void * key ) {
      sink_.onMember( row( attributeId ), key );
   }
   void changed( const AttributeRow & row ) {
      if( head_.open && head_.writeAtOnce( *this->template notifierPtr< Notifier >(), row ) ) {
         return;
      }
      sink_.onAttribute( row );
   }
   AttributeSink & sink() const { return sink_; }

 private:
   static const AttributeRow & row( uint16_t attributeId ) {
      const TypeDescriptor & type = T::zekTypeDescriptor_;
      if( attributeId < firstTypedAttr ) return *type.attribute( attributeId );
      const AttributeRow * own = type.attributes.data();
      return own[attributeId - own->id];
   }

   AttributeSink & sink_;
   NboAttrLog::FlowHead head_;
};

/// Makes a relay of type R, attached to `object` and registered.
template< class R >
Ptr< PtrInterface >
makeRelay( const PtrInterface & object, AttributeSink & sink ) {
   auto relay = allocate< R >( sink );
   relay->notifierIs( &object );
   relay->isRegisteredNotifieeIs( true );
   return relay;
}

/// Forwards what the object announces to the sink as long as the result lives: a relay of its type
/// or, for a derived one, of its base. Null for types that announce nothing.
inline Ptr< PtrInterface::NotifieeConst >
relayOf( const PtrInterface & object, AttributeSink & sink ) {
   const TypeDescriptor * type = object.fwkType();
   while( type && !type->relay ) type = type->base;
   if( !type ) return nullptr;
   const Ptr< PtrInterface > relay = type->relay( object, sink );
   return Ptr< PtrInterface::NotifieeConst >(
      static_cast< PtrInterface::NotifieeConst * >( relay.ptr() ) );
}

} // namespace Zek
