// Records of entities: attributes, whole states, members.

#include "framework/attrlog/InParts.h"

#include <algorithm>

namespace Zek {

using Sa = Entity::ZekNboAttrLogSa;

namespace NboAttrLog {

/// What this end wrote and the owner has not seen yet counts more than what the owner said.
bool
In::mayApply( Sa & sa, const AttributeRow & row, const void * key ) {
   return !sa.is( Sa::toOwner ) || sa.awaitsOwner( row, key ) == Sa::Awaited::nothing;
}

/// What this end made or took away, the owner will answer, and tell of it again. Where only the
/// collection as a whole is on its way, what both have goes on.
bool
In::answersLater( Sa & sa, const AttributeRow & row, const void * key, bool both ) {
   if( !sa.is( Sa::toOwner ) ) return false;
   const auto awaited = sa.awaitsOwner( row, key );
   return awaited == Sa::Awaited::member || ( awaited == Sa::Awaited::all && !both );
}

/// A write of the peer's was refused: it gets what stands here.
void
In::refusedIs( Sa & sa, const AttributeRow & row, const void * key ) {
   if( !sa.entity_ || !sa.is( Sa::fromPeer ) ) return;
   if( row.has( ownsMembers ) ) {
      answer( sa, row, key );
   } else {
      sa.markDirty( row, key );
   }
}

/// The peer made a member or took it away, and passes over what it is told of the key until it
/// knows that this was seen: it is told what stands here, with all it has. Where that is not the
/// peer's own instance, the peer makes it anew, and what it still writes to its own is void.
void
In::answer( Sa & sa, const AttributeRow & row, const void * key ) {
   auto * member = static_cast< const Entity * >( row.collection->find( sa.entity_, key ) );
   Sa * child = member ? adapter_.adaptorOf( *member ) : nullptr;
   const bool kept = child && child->flowIn_;
   if( child ) child->unannounce( !kept );
   // It may have had another under the key: that one is gone at the peer too.
   if( kept && sa.flow_ ) sa.flow_->zekKeyDirtyDel( row.id, key );
   sa.markDirty( row, key, !kept );
}

/// The row of an attribute of which both ends think the same, or null.
const AttributeRow *
In::agreedRow( Sa & sa, const WireType & type, uint16_t attribute ) {
   const AttributeRow * row = sa.plan_.row( attribute );
   if( type.same ) return row;
   return std::binary_search( type.agreed.begin(), type.agreed.end(), attribute ) ? row : nullptr;
}

/// A value, or all of them, of an instance whose changes only the adaptor hears of, to which they
/// are no news: nobody needs to be told. False for any other record, and for one that is to be
/// looked at closer; nothing has been done then.
bool
In::applyUnheard( const FrameHeader & header, Wire::Decoder body ) {
   if( header.flow >= flows_.size() || header.flags || !held_.empty() ) return false;
   const Flow & flow = flows_[header.flow];
   if( !flow.entity ) return false;
   NotifieeList & list = flow.entity->notifieeList();
   if( !list.isOnly( flow.notifiee ) ) return false;
   bool taken = false;
   if( header.kind == Kind::value ) {
      const AttributeRow * row = flow.type->value( header.attribute );
      taken = row && takeValue( flow, *row, body );
   } else if( header.kind == Kind::state ) {
      taken = flow.type->same && flow.type->type->state && takeState( flow, body );
   }
   return taken;
}

bool
In::takeValue( const Flow & flow, const AttributeRow & row, Wire::Decoder & body ) {
   const ValueOps & ops = *row.stored;
   alignas( std::max_align_t ) char value[64];
   if( ops.size > sizeof value || ops.alignment > alignof( std::max_align_t ) ) return false;
   ops.construct( value );
   struct Destroyed {
      const ValueOps & ops;
      void * value;
      ~Destroyed() {
         if( !ops.isTrivial ) ops.destroy( value );
      }
   } destroyed{ ops, value };
   try {
      if( !ops.decode( body, value ) || body.left() ) return false;
   } catch( const std::bad_alloc & ) {
      throw;
   } catch( ... ) {
      return false; // the type refuses it, and will again
   }
   NotifieeList::Muted muted( flow.entity->notifieeList() );
   if( !guarded( [&] { row.bring( flow.entity, value ); } ) ) refusedIs( *flow.sa, row, nullptr );
   return true;
}

class In::Taker final : public StateTaker {
 public:
   Taker( In & in, const Flow & flow ) : in_( in ), flow_( flow ), plan_( flow.sa->plan() ) {}
   /// What is said of collections: none is empty that is not so here.
   bool rest( Wire::Decoder & body ) override {
      if( body.left() != plan_.collections.size() ) return false;
      const uint8_t * isEmpty = body.at();
      for( const AttributeRow * row : plan_.collections ) {
         const uint8_t said = *isEmpty++;
         if( said > 1 || ( said && row->collection->count( flow_.entity ) ) ) return false;
      }
      return true;
   }
   void refused( uint16_t attribute ) override {
      in_.guarded( [] { throw; } );
      in_.refusedIs( *flow_.sa, *plan_.row( attribute ), nullptr );
   }

 private:
   In & in_;
   const Flow & flow_;
   const Plan & plan_;
};

bool
In::takeState( const Flow & flow, Wire::Decoder & body ) {
   Taker taker( *this, flow );
   NotifieeList::Muted muted( flow.entity->notifieeList() );
   try {
      return flow.type->type->state->take( body, flow.entity, taker );
   } catch( const std::bad_alloc & ) {
      throw;
   } catch( ... ) {
      return false; // a type refuses its value, and will again
   }
}

/// An instance takes its flow into use even where nothing here follows the parent.
void
In::instanceRecord( const FrameHeader & header, Wire::Decoder & body ) {
   const uint8_t * start = body.at();
   const size_t size = body.left();
   FlowName name;
   if( !flowName( body, name ) ) return;
   if( name.id == header.flow ) {
      body.fail( "a flow other than the parent's" );
      return;
   }
   const WireType * wire = wireType( body );
   if( !wire ) return;
   const Flow & flow = flows_[header.flow];
   Sa::Ptr sa( takes( flow.sa ) ? flow.sa : nullptr );
   const AttributeRow * row = sa ? agreedRow( *sa, *flow.type, header.attribute ) : nullptr;
   if( !row ) {
      body.skip( body.left() );
      repeats( name, *wire );
      return;
   }
   if( !row->has( ownsMembers ) ) {
      body.fail( "a member of a collection that owns none" );
      return;
   }
   std::string_view key;
   isProvisional_ = false;
   const bool complete = applyInstance( *sa, *row, header.kind, name, *wire, body, key );
   if( !body.failed() ) settle( header, key, complete, start, size );
}

void
In::entityRecord( Flow & flow, const FrameHeader & header, Wire::Decoder & body ) {
   Sa::Ptr sa( flow.sa );
   const WireType & type = *flow.type;
   if( header.kind == Kind::state ) {
      applyState( *sa, type, body );
      return;
   }
   const AttributeRow * row = agreedRow( *sa, type, header.attribute );
   if( !row ) {
      body.skip( body.left() ); // the peer knows more than we do
      return;
   }
   switch( header.kind ) {
   case Kind::beginWhole:
   case Kind::endWhole: {
      uint32_t members = 0;
      if( header.kind == Kind::beginWhole && !body.u32( members, "a count of members" ) ) return;
      if( body.left() || !row->collection ) {
         body.fail( "a collection and nothing more" );
      } else if( header.kind == Kind::beginWhole ) {
         beginWhole( *sa, *row, members );
      } else {
         endWhole( *sa, *row );
      }
      return;
   }
   default:
      break;
   }
   const uint8_t * start = body.at();
   size_t size = body.left();
   std::string_view key;
   bool complete = true;
   isProvisional_ = false;
   if( !row->collection ) {
      if( header.kind != Kind::value ) {
         body.fail( "an attribute's value" );
         return;
      }
      complete = applyValue( *sa, *row, body );
   } else {
      complete = applyMember( *sa, *row, header.kind, body, key );
   }
   if( !body.failed() ) settle( header, key, complete, start, size );
}

In::Reference
In::readReference( Wire::Decoder & body, const TypeDescriptor & type, Entity *& target ) {
   uint8_t tag;
   target = nullptr;
   if( !body.u8( tag, "a reference" ) ) return Reference::null;
   if( tag == nullReference ) return Reference::null;
   if( tag == flowReference ) {
      uint32_t id;
      if( !body.u32( id, "a flow's number" ) ) return Reference::null;
      if( id == 0 || id >= flows_.size() || !flows_[id].type ) {
         body.fail( "a flow that was announced" );
         return Reference::null;
      }
      if( flows_[id].sa ) target = flows_[id].sa->entity();
      awaited_ = { id, flows_[id].generation };
      if( target && !target->fwkType()->isA( type ) ) {
         body.fail( "a reference to an entity of the attribute's type" );
         return Reference::null;
      }
      return target ? Reference::found : Reference::absent;
   }
   if( tag == outsideReference ) return Reference::outside;
   if( tag == pathReference || tag == readersFlowReference ) {
      if( tag == pathReference ) {
         target = EntityUriPath::resolve( adapter_.root(), body );
         const Sa * sa = target ? adapter_.adaptorOf( *target ) : nullptr;
         const bool isCopy = sa && sa->flags() & ( Sa::readOnly | Sa::toOwner );
         isProvisional_ |= isCopy && !sa->flowIn_;
      } else if( Sa * sa = ownFlow( body ) ) {
         target = sa->entity();
      }
      awaited_ = {};
      // Something else may stand there still.
      if( target && !target->fwkType()->isA( type ) ) target = nullptr;
      return target ? Reference::found : Reference::absent;
   }
   body.fail( "a kind of reference" );
   return Reference::null;
}

/// Whether the attribute refers to what stands in no tree.
bool
In::isOutside( const AttributeRow & row, const Entity & entity ) const {
   auto * target = *static_cast< PtrInterface * const * >( row.address( &entity ) );
   return target &&
          &EntityUriPath( *static_cast< const Entity * >( target ) ).root() != adapter_.root_.ptr();
}

bool
In::applyValue( Sa & sa, const AttributeRow & row, Wire::Decoder & body ) {
   Scratch scratch;
   const void * value;
   if( row.stored->hasWireForm() ) {
      void * made = scratch.make( *row.stored );
      bool read = false;
      if( !guarded( [&] { read = row.stored->decode( body, made ); } ) || !read ) {
         // Refused by the type itself, or malformed.
         if( !body.failed() ) body.skip( body.left() );
         return true;
      }
      value = made;
   } else {
      Entity * target;
      Reference reference = readReference( body, *row.type, target );
      if( body.failed() ) return true;
      if( reference == Reference::absent ) return settledWithout( sa, row, nullptr );
      if( reference == Reference::outside ) {
         refusedIs( sa, row, nullptr ); // what the peer has there cannot be told of
         if( isOutside( row, *sa.entity_ ) ) return true;
      }
      value = scratch.pointer( target );
   }
   if( body.left() ) {
      body.fail( "the end of the record" );
      return true;
   }
   if( !passesFence( sa, row, nullptr ) ) return true;
   Entity::Ptr entity( sa.entity_ );
   if( !change( sa, row, nullptr, value, false, [&] { row.bring( entity.ptr(), value ); } ) ) {
      refusedIs( sa, row, nullptr );
   }
   return true;
}

void
In::applyState( Sa & sa, const WireType & type, Wire::Decoder & body ) {
   Scratch scratch;
   std::vector< Item > & items = stateItems_;
   items.clear();
   // All of it is read before any of it is applied. What is not agreed on is passed over.
   for( const WireType::InState & attribute : type.state ) {
      const AttributeRow * row = attribute.row;
      const uint8_t *bytes = body.at(), *rest;
      uint32_t size = attribute.size;
      if( !Wire::isFixed( attribute.size ) && !body.u32( size, "the length of a value" ) ) return;
      if( attribute.size == Wire::varies ) bytes = body.at();
      if( !body.bytes( rest, size, "a value of that length" ) ) return;
      if( !row ) continue;
      size = static_cast< uint32_t >( body.at() - bytes );
      const size_t offset = body.offset() - size;
      Wire::Decoder in( bytes, size );
      Item item{ row, nullptr, bytes, size };
      if( row->collection ) {
         if( *bytes > 1 ) {
            body.failAt( "0 or 1", offset );
            return;
         }
         if( *bytes ) items.push_back( item );
         continue;
      }
      if( row->stored->hasWireForm() ) {
         void * value = scratch.make( *row->stored );
         bool read = false;
         bool accepted = guarded( [&] { read = row->stored->decode( in, value ); } );
         if( accepted && read && in.left() ) in.fail( "the end of the value" );
         if( in.failed() ) {
            body.failAt( in.expected(), offset + in.failedAt() );
            return;
         }
         if( !accepted ) continue;
         item.value = value;
      } else {
         Entity * target;
         isProvisional_ = false;
         Reference reference = readReference( in, *row->type, target );
         item.isProvisional = isProvisional_;
         if( !in.failed() && reference != Reference::absent && in.left() ) {
            in.fail( "the end of the value" );
         }
         if( in.failed() ) {
            body.failAt( in.expected(), offset + in.failedAt() );
            return;
         }
         if( reference == Reference::outside ) {
            refusedIs( sa, *row, nullptr );
            if( isOutside( *row, *sa.entity_ ) ) continue;
         }
         if( reference != Reference::absent ) {
            item.value = scratch.pointer( target );
         } else {
            item.awaited = awaited_;
         }
      }
      items.push_back( item );
   }
   if( body.left() ) {
      body.fail( "the end of the record" );
      return;
   }
   Entity::Ptr entity( sa.entity_ );
   for( const Item & item : items ) {
      if( !sa.entity_ ) return; // a reaction removed it
      if( item.row->collection ) {
         beginWhole( sa, *item.row, 0 );
         endWhole( sa, *item.row );
         continue;
      }
      FrameHeader header{};
      header.flow = sa.flowIn_;
      header.attribute = item.row->id;
      header.kind = Kind::value;
      awaited_ = item.awaited;
      isProvisional_ = item.isProvisional;
      settle( header, {}, item.value || settledWithout( sa, *item.row, nullptr ), item.bytes,
              item.size );
      if( !item.value ) continue;
      // Most of a new instance's attributes are what its constructor made them.
      const AttributeRow & row = *item.row;
      if( row.stored->equal( row.address( entity.ptr() ), item.value ) ) continue;
      if( !passesFence( sa, *item.row, nullptr ) ) continue;
      if( !change( sa, *item.row, nullptr, item.value, false,
                   [&] { item.row->bring( entity.ptr(), item.value ); } ) ) {
         refusedIs( sa, *item.row, nullptr );
      }
   }
}

void
In::remove( Sa & sa, const AttributeRow & row, const void * key ) {
   Entity::Ptr entity( sa.entity_ );
   if( !row.collection->find( entity.ptr(), key ) ) return;
   if( !change( sa, row, key, nullptr, false,
                [&] { row.collection->del( entity.ptr(), key ); } ) ) {
      if( sa.entity_ && row.collection->find( entity.ptr(), key ) ) refusedIs( sa, row, key );
   }
}

bool
In::applyMember( Sa & sa, const AttributeRow & row, Kind kind, Wire::Decoder & body,
                 std::string_view & keyBytes ) {
   Scratch scratch;
   const uint8_t * start = body.at();
   const ValueOps & keyOps = *row.keyType->values;
   void * key = scratch.make( keyOps );
   bool read = false;
   if( !guarded( [&] { read = keyOps.decode( body, key ); } ) || !read ) {
      if( !body.failed() ) body.skip( body.left() );
      return true;
   }
   keyBytes = bytesBetween( start, body.at() );
   if( kind == Kind::removal ) {
      if( body.left() ) {
         body.fail( "the end of the record" );
      } else if( passesFence( sa, row, key ) ) {
         remove( sa, row, key );
      }
      return true;
   }
   if( row.has( ownsMembers ) ) {
      body.fail( "an instance" );
      return true;
   }
   Entity::Ptr entity( sa.entity_ );
   const void * value = key; // what arrivedFromLog() compares with; a set has no value
   if( row.has( refersToMembers ) ) {
      Entity * target;
      Reference reference = readReference( body, *row.type, target );
      if( body.failed() ) return true;
      if( reference == Reference::absent ) return settledWithout( sa, row, key );
      if( body.left() ) {
         body.fail( "the end of the record" );
         return true;
      }
      mention( sa, row, key );
      if( !target ) {
         refusedIs( sa, row, key ); // one that stands in no tree cannot be told of
         return true;
      }
      if( !passesFence( sa, row, key ) ) return true;
      // Another instance comes behind the removal of the one that is here: the writer may have
      // merged what it was told.
      const PtrInterface * present = row.collection->find( entity.ptr(), key );
      if( present && present != target ) remove( sa, row, key );
      if( !sa.entity_ ) return true;
      const void * member = scratch.pointer( target );
      if( !change( sa, row, key, target, false,
                   [&] { row.collection->is( entity.ptr(), member, nullptr ); } ) ) {
         refusedIs( sa, row, key );
      }
      return true;
   }
   if( !row.has( isSet ) ) {
      void * made = scratch.make( *row.type->values );
      if( !guarded( [&] { read = row.type->values->decode( body, made ); } ) || !read ) {
         if( !body.failed() ) body.skip( body.left() );
         return true;
      }
      value = made;
   }
   if( body.left() ) {
      body.fail( "the end of the record" );
      return true;
   }
   if( row.has( keyIsField ) &&
       !row.keyType->values->equal( row.collection->valueKey( value ), key ) ) {
      body.fail( "a value with the key it stands under" );
      return true;
   }
   mention( sa, row, key );
   if( !passesFence( sa, row, key ) ) return true;
   if( !change( sa, row, key, value, false, [&] {
          const void * arguments[] = { value };
          row.collection->is( entity.ptr(), row.has( keyIsField ) ? value : key,
                              row.has( keyIsField ) || row.has( isSet ) ? nullptr : arguments );
       } ) ) {
      refusedIs( sa, row, key );
   }
   return true;
}

} // namespace NboAttrLog
} // namespace Zek
