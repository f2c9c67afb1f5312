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

template< class N >
class Relay : public N {
 public:
   /// `type`: the one whose callbacks N has, which is that of the object or a base of it.
   Relay( const TypeDescriptor & type, AttributeSink & sink ) : type_( type ), sink_( sink ) {
      sink.onRelay( head_ );
   }

   AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline constinit AllocTrackTypeInfo allocTrackTypeInfo_{
      "Zek::Relay", sizeof( N ) + 16 + sizeof( NboAttrLog::FlowHead )
   };

   AttributeSink * zekSink() const override { return &sink_; }
   void zekEntityLeaves() override { sink_.onEntityLeaves(); }
   void onNotificationException() override { sink_.onNotificationException(); }

 protected:
   ~Relay() override = default;

   void changed( uint16_t attributeId ) {
      const AttributeRow & row = this->row( attributeId );
      if( head_.open && head_.writeAtOnce( *this->template notifierPtr< Notifier >(), row ) ) {
         return;
      }
      sink_.onAttribute( row );
   }
   void changed( uint16_t attributeId, const void * key ) {
      sink_.onMember( row( attributeId ), key );
   }

 private:
   const AttributeRow & row( uint16_t attributeId ) const {
      if( attributeId < firstTypedAttr ) return *type_.attribute( attributeId );
      const AttributeRow * own = type_.attributes.data();
      return own[attributeId - own->id];
   }

   const TypeDescriptor & type_;
   AttributeSink & sink_;
   NboAttrLog::FlowHead head_;
};

/// Makes a relay of type R, attached to `object` (a T) and registered.
template< class R, class T >
Ptr< PtrInterface >
makeRelay( const PtrInterface & object, AttributeSink & sink ) {
   auto relay = allocate< R >( T::zekTypeDescriptor_, sink );
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
