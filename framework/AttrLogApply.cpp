#include "framework/AttrLogIn.h"

#include "framework/Generic.h"

#include <algorithm>

namespace Zek {

using Sa = Entity::ZekNboAttrLogSa;

namespace NboAttrLog {

namespace {

std::string_view
bytesBetween( const uint8_t * begin, const uint8_t * end ) {
   return { reinterpret_cast< const char * >( begin ), static_cast< size_t >( end - begin ) };
}

} // namespace

// -- Records of entities ----------------------------------------------------------------------

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
   Flow & flow = flows_[header.flow];
   if( !flow.entity || header.sequence != flow.sequence ) return false;
   NotifieeList & list = flow.entity->notifieeList();
   if( !list.isOnly( flow.notifiee ) ) return false;
   bool taken = false;
   if( header.kind == Kind::value ) {
      const AttributeRow * row = flow.type->value( header.attribute );
      taken = row && takeValue( flow, *row, body );
   } else if( header.kind == Kind::state ) {
      taken = flow.type->same && flow.type->type->state && takeState( flow, body );
   }
   flow.sequence += taken;
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
   } catch( ... ) {
      return false; // the type refuses it, and will again
   }
   NotifieeList::Muted muted( flow.entity->notifieeList() );
   if( !guarded( [&] { row.write( flow.entity, value ); } ) ) refusedIs( *flow.sa, row, nullptr );
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
      awaited_ = { id, flows_[id].incarnation };
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
   if( row.stored->decode ) {
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
   if( !mayApply( sa, row, nullptr ) ) return true;
   Entity::Ptr entity( sa.entity_ );
   if( !change( sa, row, nullptr, value, false, [&] { row.write( entity.ptr(), value ); } ) ) {
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
      if( row->stored->decode ) {
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
      if( !mayApply( sa, *item.row, nullptr ) ) continue;
      if( !change( sa, *item.row, nullptr, item.value, false,
                   [&] { item.row->write( entity.ptr(), item.value ); } ) ) {
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
      } else if( mayApply( sa, row, key ) ) {
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
      if( !mayApply( sa, row, key ) ) return true;
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
   if( !mayApply( sa, row, key ) ) return true;
   if( !change( sa, row, key, value, false, [&] {
          const void * arguments[] = { value };
          row.collection->is( entity.ptr(), row.has( keyIsField ) ? value : key,
                              row.has( keyIsField ) || row.has( isSet ) ? nullptr : arguments );
       } ) ) {
      refusedIs( sa, row, key );
   }
   return true;
}

bool
In::readArguments( const Plan & plan, Wire::Decoder & body, Scratch & scratch,
                   std::vector< const void * > & arguments ) {
   bool present = true;
   for( const AttributeRow * row : plan.parameters ) {
      if( row->stored->decode ) {
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
      if( row.write ) continue;
      const void * stored = row.address( &entity );
      if( row.stored->equal( stored, arguments[i + 1] ) ) continue;
      // What has left its tree was read as null.
      if( row.stored->decode || static_cast< const Entity::Ptr * >( arguments[i + 1] )->ptr() ||
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
                                  return !row->stored->decode && isOutside( *row, *member );
                               } ) &&
          isSame( *member, plan, arguments );
}

/// A number that was given to another instance goes on with another sequence.
bool
In::isKnown( FlowName name, const WireType & type ) const {
   const uint32_t id = name.id;
   return id && id < flows_.size() && flows_[id].type == &type &&
          flows_[id].sequence == name.sequence;
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
   bool passedOver = isKnown( flow, wire ) && !flows_[flow.id].sa;
   if( passedOver && flows_[flow.id].asked ) flows_[flow.id].asked = passedOver = false;
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
      if( flow.id ) flows_[flow.id].asked = true;
      return true;
   }
   if( passedOver && !sa.is( Sa::fromPeer ) ) {
      // It could not be made before, or is gone here: what it has came and went.
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

// -- Collections as a whole -------------------------------------------------------------------

void
In::beginWhole( Sa & sa, const AttributeRow & row, uint32_t members ) {
   std::erase_if( wholes_, [&]( auto & w ) { return w.sa.ptr() == &sa && w.row == &row; } );
   dropHeld( sa.flowIn_, row.id, row.id ); // told again, or absent
   if( row.collection->count( sa.entity_ ) == 0 && !sa.is( Sa::fromPeer ) ) {
      // Nothing can be left over. They come in the order of the table, which would be one long run
      // in a table that grows.
      if( row.collection->reserve && members <= quota.reserved - reserved_ ) {
         row.collection->reserve( sa.entity_, members );
         // Their flows follow. Less than twice as many come without being asked.
         const size_t flows = flows_.size() + members;
         if( row.has( ownsMembers ) && flows > 2 * flows_.capacity() ) flows_.reserve( flows );
         reserved_ += members;
      }
      return;
   }
   Whole whole{ Sa::Ptr( &sa ), &row, {} };
   if( sa.is( Sa::toOwner ) && !sa.unackedKeys( row, whole.mentioned ) ) return;
   wholes_.push_back( std::move( whole ) );
}

void
In::mention( Sa & sa, const AttributeRow & row, const void * key ) {
   for( Whole & whole : wholes_ ) {
      if( whole.sa.ptr() != &sa || whole.row != &row ) continue;
      if( whole.mentioned.find( key ) == whole.mentioned.end() ) {
         whole.mentioned.emplace( AnyKey( *row.keyType->values, key ), true );
      }
   }
   if( !sa.hasSweep_ ) return;
   for( Sweep & sweep : sweeps_ ) {
      if( sweep.sa.ptr() != &sa || sweep.row != &row ) continue;
      auto at = sweep.keys.find( key );
      if( at != sweep.keys.end() ) sweep.keys.erase( at );
   }
}

void
In::endWhole( Sa & sa, const AttributeRow & row ) {
   auto whole = std::find_if( wholes_.begin(), wholes_.end(),
                              [&]( auto & w ) { return w.sa.ptr() == &sa && w.row == &row; } );
   if( whole == wholes_.end() ) return;
   Sweep sweep{ Sa::Ptr( &sa ), &row, {} };
   const CollectionOps & ops = *row.collection;
   const PtrInterface * member = ops.first( sa.entity_ );
   while( member ) {
      member = withMemberKey( row, member, [&]( const void * key ) {
         // What the owner does not know yet is not gone there.
         if( whole->mentioned.find( key ) == whole->mentioned.end() ) {
            if( mayApply( sa, row, key ) ) {
               sweep.keys.emplace( AnyKey( *row.keyType->values, key ), true );
            }
         } else if( sa.is( Sa::fromPeer ) && row.has( ownsMembers ) ) {
            // The writer lost its own, and passed over the one it was answered with.
            Sa * child = adapter_.adaptorOf( *static_cast< const Entity * >( member ) );
            if( child && child->announced_ && !child->flowIn_ ) answer( sa, row, key );
         }
         return ops.after( sa.entity_, key );
      } );
   }
   // The writer has what did not come to be here, and passed over the answer.
   if( sa.is( Sa::fromPeer ) && row.has( ownsMembers ) ) {
      for( auto & [key, is] : whole->mentioned ) {
         if( !ops.find( sa.entity_, key.get() ) ) answer( sa, row, key.get() );
      }
   }
   wholes_.erase( whole );
   // What it leaves out is no less than what the one before left out and it did not mention.
   if( sa.hasSweep_ ) {
      std::erase_if( sweeps_, [&]( auto & s ) { return s.sa.ptr() == &sa && s.row == &row; } );
   }
   if( !sweep.keys.empty() ) {
      sa.hasSweep_ = true;
      sweeps_.push_back( std::move( sweep ) );
   }
   if( !openDumps_ ) sweepAll();
}

/// Removes what was not mentioned, what came last first: references go before what they refer to.
void
In::sweepAll() {
   while( !sweeps_.empty() ) {
      Sweep sweep = std::move( sweeps_.back() );
      sweeps_.pop_back();
      sweep.sa->hasSweep_ = false;
      for( auto at = sweep.keys.rbegin(); at != sweep.keys.rend(); ++at ) {
         if( !sweep.sa->entity_ ) break;
         if( mayApply( *sweep.sa, *sweep.row, at->first.get() ) ) {
            remove( *sweep.sa, *sweep.row, at->first.get() );
         }
      }
   }
}

// -- What waits for what it refers to ---------------------------------------------------------

/// A record that was read waits, or takes the place of one that did.
void
In::settle( const FrameHeader & header, std::string_view key, bool complete, const uint8_t * body,
            size_t size ) {
   if( !complete || isProvisional_ ) {
      hold( header, key, complete ? Awaited{} : awaited_, body, size );
   } else {
      dropHeld( header.flow, header.attribute, key );
   }
}

void
In::hold( const FrameHeader & header, std::string_view key, Awaited awaited, const uint8_t * body,
          size_t size ) {
   dropHeld( header.flow, header.attribute, key );
   if( held_.size() >= quota.held || size > quota.heldBytes - heldBytes_ ) {
      malformed( header, "fewer references that wait", 0 );
   }
   held_[{ header.flow, header.attribute, std::string( key ) }] = {
      header.kind, awaited, std::vector< uint8_t >( body, body + size )
   };
   heldBytes_ += size;
}

/// A newer record says what the attribute, or member, is.
void
In::dropHeld( uint32_t flow, uint16_t attribute, std::string_view key ) {
   if( held_.empty() ) return;
   auto at = held_.find( { flow, attribute, std::string( key ) } );
   if( at == held_.end() ) return;
   heldBytes_ -= at->second.body.size();
   held_.erase( at );
}

/// All of some attributes.
void
In::dropHeld( uint32_t flow, uint16_t first, uint16_t last ) {
   auto at = held_.lower_bound( { flow, first, {} } );
   while( at != held_.end() && std::get< 0 >( at->first ) == flow &&
          std::get< 1 >( at->first ) <= last ) {
      heldBytes_ -= at->second.body.size();
      at = held_.erase( at );
   }
}

/// A record refers to what is not here. False when it is to wait for that. But the owner takes no
/// write that leads nowhere at it, and what a write of this end overtakes is void.
bool
In::settledWithout( Sa & sa, const AttributeRow & row, const void * key ) {
   if( !sa.is( Sa::fromPeer ) ) return !mayApply( sa, row, key );
   ++refused_;
   lastRefusal_ =
      "'" + EntityUriPath( *sa.entity_ ).text() + "." + row.name + "' refers to what is not here";
   refusedIs( sa, row, key );
   return true;
}

/// This end writes to the owner: what the owner said before is void, also where it waits, and what
/// it does not mention in a collection that it is telling may be what it has not seen yet.
void
In::overtaken( Sa & sa, const AttributeRow & row, const void * key ) {
   if( !held_.empty() && sa.flowIn_ ) {
      if( row.collection && !key ) {
         dropHeld( sa.flowIn_, row.id, row.id );
      } else {
         Wire::Buffer bytes;
         Wire::Encoder encoder( bytes );
         if( key ) row.keyType->values->encode( key, encoder );
         dropHeld( sa.flowIn_, row.id, bytes.view() );
      }
   }
   if( !row.collection ) return;
   if( key ) {
      mention( sa, row, key );
      return;
   }
   auto isOf = [&]( auto & part ) { return part.sa.ptr() == &sa && part.row == &row; };
   std::erase_if( wholes_, isOf );
   std::erase_if( sweeps_, isOf );
}

void
In::retryHeld() {
   bound_ = 0;
   auto waiting = std::move( held_ );
   held_.clear();
   heldBytes_ = 0;
   for( auto & [place, held] : waiting ) {
      const auto & [id, attribute, key] = place;
      Flow & flow = flows_[id];
      if( !flow.sa ) continue;
      const Awaited awaited = held.awaited;
      if( awaited.id && flows_[awaited.id].incarnation != awaited.incarnation ) continue; // gone
      FrameHeader header{};
      header.flow = id;
      header.attribute = attribute;
      header.kind = held.kind;
      Wire::Decoder body( held.body.data(), held.body.size() );
      if( held.kind != Kind::instantiate && held.kind != Kind::adopt ) {
         entityRecord( flow, header, body );
      } else if( !retryInstance( *flow.sa, place, body ) ) {
         held.awaited = isProvisional_ ? Awaited{} : awaited_;
         heldBytes_ += held.body.size();
         held_[place] = std::move( held );
      }
   }
}

/// False while the instance waits on for its arguments. With them it is asked for again, and so all
/// that was passed over meanwhile; unless it has turned out to be what stands here.
bool
In::retryInstance( Sa & sa, const HeldPlace & place, Wire::Decoder & body ) {
   const auto & [parent, attribute, keyBytes] = place;
   Scratch scratch;
   const ValueOps & keyOps = *sa.plan_.row( attribute )->keyType->values;
   void * key = scratch.make( keyOps );
   FlowName flow;
   if( !flowName( body, flow ) ) return false;
   const WireType * wire = wireType( body );
   if( !wire || !keyOps.decode( body, key ) ) return false;
   Plan & plan = adapter_.plan( *wire->type );
   std::vector< const void * > arguments{ key };
   isProvisional_ = false;
   if( !readArguments( plan, body, scratch, arguments ) || isProvisional_ ) return false;
   if( Sa * bound = flow.id ? flows_[flow.id].sa : nullptr ) {
      if( isSame( *bound->entity_, plan, arguments ) ) return true;
      unbind( *bound );
   }
   again( parent, attribute, keyBytes, flow.id );
   return true;
}

void
In::again( uint32_t parent, uint16_t attribute, std::string_view key, uint32_t flow ) {
   if( flow ) flows_[flow].asked = true;
   if( wanted_.size() >= quota.held || key.size() > quota.heldBytes - wantedBytes_ ) {
      FrameHeader header{};
      header.flow = parent;
      header.attribute = attribute;
      malformed( header, "fewer members that are wanted again", 0 );
   }
   if( wanted_.emplace( parent, attribute, key ).second ) wantedBytes_ += key.size();
   askAgain();
}

void
In::askAgain() {
   while( !wanted_.empty() && adapter_.out_.hasSufficientBuffer() ) {
      const auto place = wanted_.extract( wanted_.begin() );
      const auto & [parent, attribute, key] = place.value();
      wantedBytes_ -= key.size();
      Wire::Encoder body = adapter_.out_.control( againControl );
      body.u32( parent );
      body.u16( attribute );
      body.bytes( key.data(), key.size() );
      adapter_.out_.controlEnd();
   }
}

} // namespace NboAttrLog
} // namespace Zek
