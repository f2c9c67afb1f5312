#include "framework/attrlog/OutFrame.h"

#include <utility>

namespace Zek {

using Sa = Entity::ZekNboAttrLogSa;

namespace NboAttrLog {

// -- Out --------------------------------------------------------------------------------------

Out::~Out() = default;

/// Before a record takes its number: what the peer wrote is in what follows.
void
Out::acknowledge() {
   adapter_.in_.acknowledge();
}

Wire::Encoder
Out::control( uint16_t message ) {
   acknowledgeFirst();
   return beginFrame( 0, message, Kind::value );
}

void
Out::controlEnd() {
   end();
}

void
Out::declare( Plan & plan ) {
   if( plan.wireType ) return;
   plan.wireType = ++types_;
   Wire::Encoder out = control( typeControl );
   out.u32( plan.wireType );
   out.text( plan.type.fullName );
   out.u64( plan.fingerprint );
   out.u32( static_cast< uint32_t >( plan.plain.size() + plan.collections.size() ) );
   // In the order that they have in a state.
   for( const auto * rows : { &plan.plain, &plan.collections } ) {
      for( const AttributeRow * row : *rows ) {
         out.u16( row->id );
         out.u32( Plan::signature( *row ) );
         out.u8( Plan::sizeInState( *row ) );
      }
   }
   controlEnd();
}

void
Out::queue( FlowOut & flow ) {
   if( flow.queued_ ) return;
   flow.queued_ = true;
   flow.previous_ = queueTail_;
   flow.next_ = nullptr;
   ( queueTail_ ? queueTail_->next_ : queueHead_ ) = &flow;
   queueTail_ = &flow;
   ++queued_;
}

void
Out::unqueue( FlowOut & flow ) {
   if( !flow.queued_ ) return;
   flow.queued_ = false;
   ( flow.previous_ ? flow.previous_->next_ : queueHead_ ) = flow.next_;
   ( flow.next_ ? flow.next_->previous_ : queueTail_ ) = flow.previous_;
   --queued_;
}

void
Out::breakOff() {
   broken_ = true;
   room_ = 0;
   buffer_.clear();
}

bool
Out::drain() {
   if( hasSufficientBuffer() ) acknowledgeFirst();
   adapter_.in_.askAgain();
   if( !adapter_.writeExports() ) return false;
   do {
      while( queueHead_ && hasSufficientBuffer() ) {
         FlowOut & flow = *queueHead_;
         unqueue( flow );
         if( !flow.sa_.serializeDirty() ) queue( flow );
      }
      // For all at once, however many there are.
      if( !queueHead_ && strangers_.waits() ) strangers_.markReferences( adapter_ );
   } while( queueHead_ && hasSufficientBuffer() );
   return !queueHead_;
}

bool
Out::isClean() const {
   return !queueHead_ && !strangers_.waits() && adapter_.in_.wanted_.empty() &&
          !adapter_.exportsWait() &&
          !( adapter_.peerWrites_ && adapter_.in_.owesAcknowledgement() );
}

/// A flow that is announced has a number. They are given in that order, so that the peer's table
/// grows with what it is told.
void
Out::number( FlowOut & flow ) {
   if( flow.head_.id ) return;
   if( free_.empty() ) {
      flows_.push_back( &flow.sa_ );
      // So that a flow can end without memory.
      if( free_.capacity() < flows_.size() ) free_.reserve( flows_.capacity() );
      flow.head_.id = static_cast< uint32_t >( flows_.size() - 1 );
   } else {
      flow.head_.id = free_.back().id;
      flow.head_.generation = free_.back().generation;
      free_.pop_back();
      flows_[flow.head_.id] = &flow.sa_;
   }
   ++liveFlows_;
}

/// On a new connection: the flow of what is still there begins again.
void
Out::unnumber( FlowOut & flow ) {
   flow.close();
   flow.head_.id = 0;
   flow.head_.generation = firstGeneration;
   flow.freeResyncState();
}

void
Out::reset() {
   buffer_.clear();
   broken_ = false;
   capacityIs( capacity_ );
   flows_.assign( 1, nullptr );
   free_.clear();
   strangers_.clear();
   liveFlows_ = 0;
   types_ = 0;
   records_ = 0;
   barrier_ = false;
}

// -- References -------------------------------------------------------------------------------

namespace {

const Entity *
asEntity( const PtrInterface * target ) {
   return dynamic_cast< const Entity * >( target );
}

} // namespace

bool
Out::announce( const Entity & entity ) {
   Sa * sa = adapter_.adaptorOf( entity );
   if( sa && sa->announced_ ) return true;
   const Entity * parent = entity.parent();
   if( !parent || !announce( *parent ) ) return false;
   Sa * parentSa = adapter_.adaptorOf( *parent );
   if( !parentSa->is( Sa::sends ) || !parentSa->is( Sa::withMembers ) ) return false;
   const AttributeRow & row = *parent->fwkType()->attribute( entity.parentAttrId() );
   withMemberKey( row, &entity, [&]( const void * key ) {
      const DirtyKeys * keys = parentSa->flow_->dirtyKeys( row.id );
      auto at = keys ? keys->find( key ) : DirtyKeys::const_iterator();
      bool removal = keys && at != keys->end() && at->second;
      if( removal ) parentSa->writeRemoval( row, key );
      if( keys ) parentSa->flow_->zekKeyDirtyDel( row.id, key );
      Kind kind = parentSa->dump_ && !removal ? Kind::adopt : Kind::instantiate;
      parentSa->announceMember( row, const_cast< Entity & >( entity ), kind, false );
   } );
   sa = adapter_.adaptorOf( entity );
   return sa && sa->announced_;
}

void
Out::prepareReference( const PtrInterface * target ) {
   if( !target ) return;
   if( const Entity * entity = asEntity( target ) ) announce( *entity );
}

void
Out::encodeReference( Wire::Encoder & out, const PtrInterface * target ) {
   const Entity * entity = target ? asEntity( target ) : nullptr;
   if( !entity ) {
      out.u8( nullReference );
      return;
   }
   Sa * sa = adapter_.adaptorOf( *entity );
   const EntityUriPath path( *entity );
   if( sa && sa->announced_ && sa->flow_ ) {
      sa->referred_ = true;
      out.u8( flowReference );
      out.u32( sa->flow_->id() );
   } else if( sa && sa->flowIn_ ) {
      // By path it could be another one by the time the reader sees it.
      out.u8( readersFlowReference );
      out.u32( sa->flowIn_ );
      out.u32( adapter_.in_.flows_[sa->flowIn_].generation );
   } else if( &path.root() == adapter_.root_.ptr() ) {
      out.u8( pathReference );
      path.encodeTo( out );
   } else {
      strangers_.met( *entity, adapter_ );
      out.u8( outsideReference );
   }
}

/// An instance's flow, its generation, and type: first, so that a reader that
/// knows no more of the instance can pass over what follows. No flow: nothing follows.
void
Out::encodeFlow( Wire::Encoder & out, const FlowOut * flow, const Plan & plan ) {
   out.u32( flow ? flow->id() : 0 );
   out.u32( flow ? flow->generation() : 0 );
   out.u32( plan.wireType );
}

/// The constructor's arguments behind the key.
void
Out::encodeArguments( Wire::Encoder & out, const Entity & entity, const Plan & plan ) {
   for( const AttributeRow * row : plan.parameters ) {
      const void * value = row->address( &entity );
      if( row->stored->hasWireForm() ) {
         row->stored->encode( value, out );
      } else {
         encodeReference( out, *static_cast< PtrInterface * const * >( value ) );
      }
   }
}

} // namespace NboAttrLog
} // namespace Zek
