#include "framework/attrlog/OutFrame.h"

#include <optional>
#include <utility>

namespace Zek {

using NboAttrLog::DirtyCollection;
using NboAttrLog::FlowOut;
using NboAttrLog::Kind;
using NboAttrLog::Out;
using NboAttrLog::Plan;
using Sa = Entity::ZekNboAttrLogSa;

// -- Serialisers ------------------------------------------------------------------------------

bool
Sa::serializeIfDirty( uint16_t attrId ) {
   if( !announced_ || !flow_ ) return true;
   const AttributeRow * row = plan_.row( attrId );
   if( row && row->collection ) return serializeCollection( attrId );
   return !flow_->zekIsDirty( attrId ) || serializeAttribute( attrId );
}

bool
Sa::serializeAttribute( uint16_t attrId ) {
   return serializeAttribute( *plan_.row( attrId ) );
}

bool
Sa::serializeAttribute( const AttributeRow & row ) {
   Out & out = adapter_.out_;
   const uint16_t attrId = row.id;
   const void * value = row.address( entity_ );
   if( row.stored->isWireNumber() ) {
      out.writeNumber( *head_, attrId, row.stored->wireBytes( value ), row.stored->wireSize );
   } else if( row.stored->hasWireForm() ) {
      Wire::Encoder body = out.begin( *flow_, attrId, Kind::value );
      row.stored->encode( value, body );
      out.end();
   } else {
      auto * target = *static_cast< PtrInterface * const * >( value );
      out.prepareReference( target );
      Wire::Encoder body = out.begin( *flow_, attrId, Kind::value );
      out.encodeReference( body, target );
      out.end();
   }
   flow_->zekIsDirtyIs( attrId, false );
   if( is( toOwner ) ) wroteToOwner( row, nullptr );
   return out.hasSufficientBuffer();
}

bool
NboAttrLog::FlowHead::writeAtOnce( const Notifier & notifier, const AttributeRow & row ) {
   Out & out = *open;
   auto & entity = static_cast< const Entity & >( notifier );
   if( !entity.zekIsLogged() || out.adapter_.in_.handling_ || out.barrier_ || !row.isMutable() ||
       !row.stored->hasWireForm() || !out.hasSufficientBuffer() ) {
      return false;
   }
   attrId = row.id;
   const void * value = row.address( &entity );
   if( row.stored->isWireNumber() ) [[likely]] {
      out.writeNumber( *this, row.id, row.stored->wireBytes( value ), row.stored->wireSize );
   } else {
      Wire::Encoder body = out.begin( *this, row.id, Kind::value );
      row.stored->encode( value, body );
      out.end();
   }
   return true;
}

void
Sa::encodeInState( const AttributeRow & row, Wire::Encoder & body ) {
   const void * value = row.address( entity_ );
   std::optional< Wire::Counted > counted;
   if( Plan::sizeInState( row ) == Wire::varies ) counted.emplace( body );
   if( row.stored->hasWireForm() ) {
      row.stored->encode( value, body );
   } else {
      adapter_.out_.encodeReference( body, *static_cast< PtrInterface * const * >( value ) );
   }
}

/// All plain attributes in one record, in the order of the type's declaration; behind them of each
/// collection whether it is empty.
void
Sa::serializeState() {
   Out & out = adapter_.out_;
   for( const AttributeRow * row : plan_.references ) {
      out.prepareReference( *static_cast< PtrInterface * const * >( row->address( entity_ ) ) );
   }
   Wire::Encoder body = out.begin( *flow_, 0, Kind::state );
   if( const StateOps * state = plan_.type.state ) {
      state->encode( entity_, out.buffer_ );
   } else {
      for( const AttributeRow * row : plan_.plain ) encodeInState( *row, body );
   }
   uint8_t * isEmpty = out.buffer_.room( plan_.collections.size() );
   for( const AttributeRow * row : plan_.collections ) {
      const bool isDirty = flow_->zekIsDirty( row->id );
      *isEmpty = isDirty && row->collection->count( entity_ ) == 0;
      if( isDirty && !*isEmpty ) flow_->wholeIs( *row ); // no longer empty
      ++isEmpty;
   }
   out.buffer_.written( plan_.collections.size() );
   out.end();
   flow_->stateDirty_ = false;
   if( is( toOwner ) ) {
      for( const AttributeRow * row : plan_.plain ) wroteToOwner( *row, nullptr );
      for( const AttributeRow * row : plan_.collections ) {
         if( flow_->zekIsDirty( row->id ) ) wroteToOwner( *row, nullptr );
      }
   }
   flow_->dirty_.clear();
}

void
Sa::writeRemoval( const AttributeRow & row, const void * key ) {
   Out & out = adapter_.out_;
   Wire::Encoder body = out.begin( *flow_, row.id, Kind::removal );
   row.keyType->values->encode( key, body );
   out.end();
   if( is( toOwner ) ) wroteToOwner( row, key, true );
}

/// Writes what the collection has under the key. `removal`: something else was there.
void
Sa::sendMember( const AttributeRow & row, const void * key, bool removal ) {
   Out & out = adapter_.out_;
   const PtrInterface * member = row.collection->find( entity_, key );
   if( !member || removal ) writeRemoval( row, key );
   if( !member ) return;
   if( row.has( ownsMembers ) ) {
      auto & child = const_cast< Entity & >( *static_cast< const Entity * >( member ) );
      announceMember( row, child, Kind::instantiate, true );
      return;
   }
   if( row.has( refersToMembers ) ) out.prepareReference( member );
   Wire::Encoder body = out.begin( *flow_, row.id, Kind::value );
   row.keyType->values->encode( key, body );
   if( row.has( refersToMembers ) ) {
      out.encodeReference( body, member );
   } else if( const void * value = row.collection->hasMemberValue()
                                      ? row.collection->memberValue( member )
                                      : nullptr ) {
      row.type->values->encode( value, body );
   }
   out.end();
   if( is( toOwner ) ) wroteToOwner( row, key );
}

/// The adaptor of a member of an owning collection, with what is passed on to members; null for
/// a type without attribute log.
Sa *
Sa::memberAdaptor( const AttributeRow &, const PtrInterface * member ) {
   auto & child = const_cast< Entity & >( *static_cast< const Entity * >( member ) );
   uint32_t flags = flags_;
   if( !is( deep ) ) flags &= ~( withContent | withMembers );
   return adapter_.adaptorIs( child, flags );
}

void
Sa::zekInstantiateSerialize( Kind kind ) {
   Out & out = adapter_.out_;
   Entity & parent = *entity_->parent();
   Sa & parentSa = *adapter_.adaptorOf( parent );
   const AttributeRow & row = *parent.fwkType()->attribute( entity_->parentAttrId() );
   out.number( makeFlow() );
   for( const AttributeRow * parameter : plan_.parameters ) {
      if( parameter->stored->hasWireForm() ) continue;
      out.prepareReference(
         *static_cast< PtrInterface * const * >( parameter->address( entity_ ) ) );
   }
   out.declare( plan_ );
   Wire::Encoder body = out.begin( *parentSa.flow_, row.id, kind );
   out.encodeFlow( body, flow_.get(), plan_ );
   withMemberKey( row, entity_,
                  [&]( const void * key ) { row.keyType->values->encode( key, body ); } );
   out.encodeArguments( body, *entity_, plan_ );
   out.end();
}

void
Sa::doSerializeOrphan( uint32_t exportId ) {
   Out & out = adapter_.out_;
   out.number( makeFlow() );
   for( const AttributeRow * parameter : plan_.parameters ) {
      if( parameter->stored->hasWireForm() ) continue;
      out.prepareReference(
         *static_cast< PtrInterface * const * >( parameter->address( entity_ ) ) );
   }
   out.declare( plan_ );
   Wire::Encoder body = out.control( NboAttrLog::rootControl );
   body.u32( exportId );
   body.text( entity_->fwkType()->fullName );
   body.text( entity_->name().view() );
   out.encodeFlow( body, flow_.get(), plan_ );
   out.encodeArguments( body, *entity_, plan_ );
   out.controlEnd();
}

/// Announces a member of an owning collection. With `state`, what it has follows as far as there
/// is room.
void
Sa::announceMember( const AttributeRow & row, Entity & member, Kind kind, bool state ) {
   Out & out = adapter_.out_;
   Sa * child = memberAdaptor( row, &member );
   if( !child ) {
      // Of a type that cannot be streamed: the instance alone.
      NboAttrLog::Plan & plan = adapter_.plan( *member.fwkType() );
      for( const AttributeRow * p : plan.parameters ) {
         if( p->stored->hasWireForm() ) continue;
         out.prepareReference( *static_cast< PtrInterface * const * >( p->address( &member ) ) );
      }
      out.declare( plan );
      Wire::Encoder body = out.begin( *flow_, row.id, kind );
      out.encodeFlow( body, nullptr, plan );
      withMemberKey( row, &member,
                     [&]( const void * key ) { row.keyType->values->encode( key, body ); } );
      out.encodeArguments( body, member, plan );
      out.end();
      return;
   }
   bool isNew = !child->announced_;
   const bool again = std::exchange( child->askedAgain_, false );
   if( !isNew && kind == Kind::instantiate && !again ) return;
   // The peer has it, by its own flow.
   if( isNew && child->flowIn_ ) kind = Kind::adopt;
   // Announced first: a reference back to it needs no other announcement.
   child->zekInstantiateSerialize( isNew ? kind : Kind::adopt );
   if( !isNew ) {
      if( again ) child->allDirtyIs();
      // Another export may have more of it sent: that is part of its dump.
      if( dump_ && child->flow_->isDirty() ) adapter_.joinDump( *child, dump_ );
      return;
   }
   child->announced_ = true;
   out.strangers_.exported( member );
   if( is( toOwner ) ) {
      withMemberKey( row, &member, [&]( const void * key ) { wroteToOwner( row, key ); } );
   }
   if( dump_ && !child->dump_ ) adapter_.joinDump( *child, dump_ );
   child->flow_->allDirty();
   if( !state || !out.hasSufficientBuffer() || !child->serializeDirty() ) {
      out.queue( *child->flow_ );
   }
}

bool
Sa::serializeCollection( uint16_t attrId ) {
   Out & out = adapter_.out_;
   FlowOut & flow = *flow_;
   const AttributeRow & row = *plan_.row( attrId );
   DirtyCollection * c = flow.collection( attrId );
   if( !c ) return true;
   const CollectionOps & ops = *row.collection;
   if( c->whole || c->resync ) {
      if( !c->resync ) {
         c->resync = std::make_unique< DirtyCollection::ResyncState >();
         c->whole = false;
         c->keys.clear();
         Wire::Encoder body = out.begin( flow, attrId, Kind::beginWhole );
         body.u32( static_cast< uint32_t >( ops.count( entity_ ) ) );
         out.end();
      }
      const void * bookmark = c->resync->bookmark.get();
      const PtrInterface * member =
         bookmark ? ops.after( entity_, bookmark ) : ops.first( entity_ );
      while( member ) {
         if( !out.hasSufficientBuffer() ) return false;
         const PtrInterface * next = withMemberKey( row, member, [&]( const void * key ) {
            // Both first: writing the member may announce others, but changes no collection.
            c->resync->bookmark = AnyKey( *row.keyType->values, key );
            const PtrInterface * following = ops.after( entity_, key );
            if( following && row.keyType->values->hasPrefetch() ) {
               withMemberKey( row, following,
                              [&]( const void * next ) { row.keyType->values->prefetch( next ); } );
            }
            // Changed behind the mark, and now part of the whole.
            auto at = c->keys.find( key );
            const bool removal = at != c->keys.end() && at->second;
            if( at != c->keys.end() ) c->keys.erase( at );
            if( row.has( ownsMembers ) ) {
               auto & child = const_cast< Entity & >( *static_cast< const Entity * >( member ) );
               Sa * sa = adapter_.adaptorOf( child );
               if( removal && !( sa && sa->announced_ ) ) writeRemoval( row, key );
               announceInWhole( row, child );
            } else {
               sendMember( row, key, false );
            }
            return following;
         } );
         member = next;
      }
      out.begin( flow, attrId, Kind::endWhole );
      out.end();
      // What it did not mention goes at the owner.
      if( is( toOwner ) ) wroteToOwner( row, nullptr );
      c->resync.reset();
   }
   // Announcing one member may announce another and be the end of the marks.
   while( ( c = flow.collection( attrId ) ) && !c->whole && !c->keys.empty() ) {
      if( !out.hasSufficientBuffer() ) return false;
      auto node = c->keys.extract( c->keys.begin() );
      sendMember( row, node.key().get(), node.mapped() );
   }
   if( c && c->whole ) return false;
   if( c ) flow.collectionDone( *c );
   return true;
}

/// A member of an owning collection that is sent as a whole: across connections, the same key,
/// type and arguments are the same member; on a live stream, what was not announced is new. Of a
/// type that is not streamed a member is no more than these; whether the owner of the collection
/// was told of it is not known.
void
Sa::announceInWhole( const AttributeRow & row, Entity & member ) {
   Sa * child = adapter_.adaptorOf( member );
   const bool known = child ? child->announced_ : !is( toOwner );
   announceMember( row, member, dump_ || known ? Kind::adopt : Kind::instantiate, true );
}

bool
Sa::serializeDirty() {
   Zek::Ptr< Sa > self( this );
   Out & out = adapter_.out_;
   FlowOut & flow = *flow_;
   if( !entity_->zekIsLogged() ) {
      // Until it is logged again, which marks everything.
      flow.allClean();
      adapter_.flowDone( *this );
      return true;
   }
   if( flow.stateDirty_ && !plan_.plain.empty() ) serializeState();
   for( const AttributeRow * row : plan_.plain ) {
      if( !flow.dirty_.any() ) break;
      if( !flow.zekIsDirty( row->id ) ) continue;
      if( !out.hasSufficientBuffer() ) return false;
      serializeAttribute( *row );
   }
   while( !flow.collections_.empty() ) {
      if( !out.hasSufficientBuffer() ) return false;
      if( !serializeCollection( flow.collections_.front()->row->id ) ) return false;
   }
   adapter_.flowDone( *this );
   return true;
}

} // namespace Zek
