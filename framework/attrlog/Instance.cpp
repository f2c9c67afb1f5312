// Instances that arrive: made, taken for what is here already, or put off.

#include "framework/attrlog/InParts.h"

#include "framework/Generic.h"

#include <algorithm>

namespace Zek {

using Sa = Entity::ZekNboAttrLogSa;

namespace NboAttrLog {

bool
In::readArguments( const Plan & plan, Wire::Decoder & body, Scratch & scratch,
                   std::vector< const void * > & arguments ) {
   bool present = true;
   for( const AttributeRow * row : plan.parameters ) {
      if( row->stored->hasWireForm() ) {
         void * value = scratch.make( *row->stored );
         if( !row->stored->decode( body, value ) ) return false;
         arguments.push_back( value );
         continue;
      }
      Entity * target;
      if( readReference( body, *row->type, target ) == Reference::absent ) present = false;
      if( body.failed() ) return false;
      arguments.push_back( scratch.pointer( target ) );
   }
   return present;
}

/// Whether an instance made with these arguments would be what is there.
bool
In::isSame( const Entity & entity, const Plan & plan,
            const std::vector< const void * > & arguments ) const {
   if( entity.fwkType() != &plan.type ) return false;
   for( size_t i = 0; i < plan.parameters.size(); ++i ) {
      const AttributeRow & row = *plan.parameters[i];
      // One with a mutator may have changed since: it is no part of what the instance is.
      if( row.isWritable() ) continue;
      const void * stored = row.address( &entity );
      if( row.stored->equal( stored, arguments[i + 1] ) ) continue;
      // What has left its tree was read as null.
      if( row.stored->hasWireForm() ||
          static_cast< const Entity::Ptr * >( arguments[i + 1] )->ptr() ||
          !isOutside( row, entity ) ) {
         return false;
      }
   }
   return true;
}

/// Whether the owner tells of a member that it has from this end, where what an argument refers to
/// has gone meanwhile.
bool
In::isAnswered( const Entity * member, const Plan & plan,
                const std::vector< const void * > & arguments ) const {
   const Sa * child = member ? adapter_.adaptorOf( *member ) : nullptr;
   return child && child->is( Sa::toOwner ) && child->announced_ &&
          std::ranges::any_of( plan.parameters,
                               [&]( const AttributeRow * row ) {
                                  return !row->stored->hasWireForm() && isOutside( *row, *member );
                               } ) &&
          isSame( *member, plan, arguments );
}

bool
In::isKnown( FlowName name, const WireType & type ) const {
   const uint32_t id = name.id;
   return id && id < flows_.size() && flows_[id].type == &type &&
          flows_[id].generation == name.generation;
}

/// Whether a child would stand deeper than the quota says.
bool
In::isTooDeep( const Entity & directory ) const {
   uint32_t depth = 1;
   for( const Entity * at = &directory; at; at = at->parent() ) {
      if( ++depth > quota.depth ) return true;
   }
   return false;
}

bool
In::repeats( FlowName name, const WireType & type ) {
   if( isKnown( name, type ) && flows_[name.id].sa ) return true;
   flowIs( name, type );
   return false;
}

bool
In::applyInstance( Sa & sa, const AttributeRow & row, Kind kind, FlowName flow,
                   const WireType & wire, Wire::Decoder & body, std::string_view & keyBytes ) {
   bool wasPassedOver = isKnown( flow, wire ) && !flows_[flow.id].sa;
   if( wasPassedOver && flows_[flow.id].asked ) flows_[flow.id].asked = wasPassedOver = false;
   Scratch scratch;
   const ValueOps & keyOps = *row.keyType->values;
   void * key = scratch.make( keyOps );
   bool read = false;
   const uint8_t * start = body.at();
   bool keyAccepted = guarded( [&] { read = keyOps.decode( body, key ); } );
   if( body.failed() ) return true;
   if( !keyAccepted || !read ) {
      body.skip( body.left() ); // the type itself refuses the key
      repeats( flow, wire );
      return true;
   }
   keyBytes = bytesBetween( start, body.at() );
   if( wire.type && !wire.type->isA( *row.type ) ) {
      body.fail( "a type that the collection holds" );
      return true;
   }
   const bool inDirectory = row.id == entityAttr;
   if( !wire.type || ( !inDirectory && wire.type != row.type ) ||
       ( inDirectory && !wire.type->isNamed ) ) {
      body.skip( body.left() );
      repeats( flow, wire );
      return true;
   }
   Plan & plan = adapter_.plan( *wire.type );
   const Name name = inDirectory ? Name( static_cast< String * >( key )->view() ) : Name();
   std::vector< const void * > arguments;
   arguments.reserve( plan.parameters.size() + 1 );
   arguments.push_back( inDirectory ? &name : key );
   bool present = false;
   bool accepted = guarded( [&] { present = readArguments( plan, body, scratch, arguments ); } );
   if( body.failed() ) return true;
   if( !accepted ) {
      body.skip( body.left() );
      repeats( flow, wire );
      return true;
   }
   const PtrInterface * found = row.collection->find( sa.entity_, key );
   auto * member = const_cast< Entity * >( static_cast< const Entity * >( found ) );
   if( !present && !( kind == Kind::adopt && isAnswered( member, plan, arguments ) ) ) {
      // An argument refers to what is not there. The flow is asked for again when it comes; what
      // a new instance takes the place of is gone already.
      body.skip( body.left() );
      const bool isNew = !repeats( flow, wire ) && kind == Kind::instantiate;
      if( isNew && !sa.is( Sa::fromPeer ) && mayApply( sa, row, key ) ) remove( sa, row, key );
      return !sa.entity_ || settledWithout( sa, row, key );
   }
   if( body.left() ) {
      body.fail( "the end of the record" );
      return true;
   }
   const bool isProvisional = std::exchange( isProvisional_, false );
   if( inDirectory && isTooDeep( *sa.entity_ ) ) {
      ++refused_;
      lastRefusal_ = "'" + EntityUriPath( *sa.entity_ ).text() + "' is as deep as may be";
      repeats( flow, wire );
      refusedIs( sa, row, key );
      return true;
   }
   mention( sa, row, key );
   if( repeats( flow, wire ) && member && flows_[flow.id].sa->entity() == member ) {
      // Perhaps by another mount, which may do more.
      Sa * known = sa.memberAdaptor( row, member );
      if( known->is( Sa::toOwner ) ) known->boundToOwner();
      isProvisional_ = isProvisional;
      return true;
   }
   flowIs( flow, wire );
   const bool same = member && isSame( *member, plan, arguments );
   if( answersLater( sa, row, key, same && kind == Kind::adopt ) ) {
      passedOver( sa, row, key );
      return true;
   }
   if( wasPassedOver && kind == Kind::adopt && !sa.is( Sa::fromPeer ) ) {
      // It was not made before, or is gone here: what it has came and went.
      again( sa.flowIn_, row.id, keyBytes, flow.id );
      return true;
   }
   if( sa.is( Sa::fromPeer ) && ( kind == Kind::adopt || ( member && !same ) ) ) {
      // One that went here meanwhile, or that stands here otherwise.
      ++refused_;
      lastRefusal_ = "'" + EntityUriPath( *sa.entity_ ).text() + "." + row.name +
                     "' has another member under the key, or none";
      answer( sa, row, key );
      return true;
   }
   if( member && sa.is( Sa::fromPeer ) ) {
      // Both made it: from now on it is the peer's too.
      if( Sa * known = adapter_.adaptorOf( *member ) ) known->unannounce( true );
   } else if( member && ( !same || kind == Kind::instantiate ) ) {
      remove( sa, row, key );
      if( !sa.entity_ ) return true;
      found = row.collection->find( sa.entity_, key );
      member = const_cast< Entity * >( static_cast< const Entity * >( found ) );
   }
   const bool isNew = !member;
   if( isNew ) {
      Entity::Ptr entity( sa.entity_ );
      if( inDirectory ) {
         Entity::Ptr made;
         if( guarded( [&] {
                made = wire.type->genericIf->newEntityForAttrLogUnchecked( arguments.data() );
             } ) ) {
            adapter_.childIs( *entity, made );
         }
      } else {
         change( sa, row, key, key, true,
                 [&] { row.collection->is( entity.ptr(), key, arguments.data() + 1 ); } );
      }
      if( !sa.entity_ ) return true;
      found = row.collection->find( entity.ptr(), key );
      member = const_cast< Entity * >( static_cast< const Entity * >( found ) );
   }
   if( !member ) {
      refusedIs( sa, row, key );
      return true;
   }
   if( isNew && answered_ ) return true; // what stands there now is not what came
   Sa * child = member->fwkType() == wire.type ? sa.memberAdaptor( row, member ) : nullptr;
   // The owner may have another of the same kind now, which has no flow of ours yet.
   const bool again = child && child->announced_ && child->is( Sa::toOwner );
   if( child ) bind( flow.id, *child );
   if( again ) child->boundToOwner( true );
   if( sa.is( Sa::fromPeer ) ) answer( sa, row, key );
   isProvisional_ = isProvisional;
   return true;
}

} // namespace NboAttrLog
} // namespace Zek
