#include "framework/AttrLog.h"

#include "framework/Exception.h"
#include "framework/StreamAdapter.h"
#include "framework/ValueOps.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace Zek {

using NboAttrLog::DirtyCollection;
using NboAttrLog::FlowOut;
using NboAttrLog::Kind;
using NboAttrLog::Out;
using Sa = Entity::ZekNboAttrLogSa;

// -- Adaptors ---------------------------------------------------------------------------------

constinit AllocTrackTypeInfo Sa::allocTrackTypeInfo_( "Zek::Entity::ZekNboAttrLogSa",
                                                      sizeof( Sa ) );

/// What was written to the owner of an entity and is not known to have reached it.
struct Sa::Unacked {
   struct Write {
      uint16_t attrId;
      AnyKey key;
      uint64_t record;
   };
   std::vector< Write > writes;
};

Sa::ZekNboAttrLogSa( Entity & entity, StreamAdapter & adapter, NboAttrLog::Plan & plan,
                     uint32_t flags )
   : entity_( &entity ),
     adapter_( adapter ),
     plan_( plan ),
     flags_( flags ) {
   const TypeDescriptor * type = &plan.type;
   while( !type->relay ) type = type->base;
   Zek::Ptr< PtrInterface > relay = type->relay( entity, *this );
   reactor_ = Zek::Ptr< NotifieeConst >( static_cast< NotifieeConst * >( relay.ptr() ) );
   reactor_->zekIsLogAdaptorIs( true );
   reactor_->isWeakNotifieeIs( true );
}

Sa::~ZekNboAttrLogSa() = default;

void
Sa::onZeroReferences() {
   detach();
}

void
Sa::flagsAdd( uint32_t flags ) {
   uint32_t before = flags_;
   flags_ |= flags;
   if( flags_ != before && flowIn_ ) adapter_.in_.flagsChanged( *this );
   if( is( toOwner ) && !( before & toOwner ) && flowIn_ ) boundToOwner();
   // An owner has it all.
   if( is( sends ) && !is( toOwner ) && flags_ != before && announced_ ) {
      flow_->allDirty();
      adapter_.out_.queue( *flow_ );
   }
}

std::unique_ptr< FlowOut >
Sa::createFlowOut( uint32_t id, uint32_t first, uint32_t last ) {
   return std::make_unique< FlowOut >( *this, id, first, last );
}

FlowOut &
Sa::makeFlow() {
   if( !flow_ ) {
      flow_ =
         NboAttrLog::Demuxer::createFlowOut( adapter_.out_, EntityUriPath( *entity_ ), *this,
                                             NboAttrLog::firstSequence, NboAttrLog::lastSequence );
   }
   return *flow_;
}

void
Sa::detach() {
   if( !entity_ ) return;
   Zek::Ptr< Sa > self( this );
   Entity & entity = *entity_;
   for( const AttributeRow * row : plan_.collections ) {
      if( !row->has( ownsMembers ) ) continue;
      const PtrInterface * member = row->collection->first( &entity );
      while( member ) {
         auto & child = *static_cast< const Entity * >( member );
         if( Sa * sa = adapter_.adaptorOf( child ) ) sa->detach();
         member = withMemberKey( *row, member, [&]( const void * key ) {
            return row->collection->after( &entity, key );
         } );
      }
   }
   adapter_.leave( *this );
   for( auto * h = adapter_.in_.handling_; h; h = h->outer ) {
      if( h->sa == this ) h->sa = nullptr;
   }
   entity_ = nullptr;
   reactor_->notifierIs( nullptr );
   reactor_ = nullptr;
   flow_ = nullptr;
   referencesDec(); // the adapter's
}

void
Sa::onEntityLeaves() {
   Zek::Ptr< Sa > self( this );
   if( Entity * parent = entity_->parent() ) {
      const AttributeRow * row = parent->fwkType()->attribute( entity_->parentAttrId() );
      Sa * parentSa = adapter_.adaptorOf( *parent );
      if( row && parentSa && announced_ && parentSa->is( sends ) ) {
         withMemberKey( *row, entity_, [&]( const void * key ) {
            // A removal that came from the peer is no news to it.
            const NboAttrLog::Handling * h = parentSa->handling();
            if( h && h->attrId == row->id && !h->instance && !h->value &&
                row->keyType->values->equal( h->key, key ) ) {
               return;
            }
            parentSa->markDirty( *row, key, true );
         } );
      }
   }
   detach();
}

void
Sa::onNotificationException() {
   // Nothing of the adaptor's own is half done when one of its callbacks throws.
   throw;
}

void
Sa::hasNotificationActiveIs( bool active ) {
   if( !reactor_ || active == reactor_->hasNotificationActive() ) return;
   reactor_->hasNotificationActiveIs( active );
   if( active ) allDirtyIs();
}

void
Sa::zekDoZombieReactors( bool zombie ) {
   if( !reactor_ || zombie == reactor_->zekMarkedForDeletion() ) return;
   reactor_->zekDoZombieReactors( zombie );
   if( !zombie ) allDirtyIs();
}

/// Whatever happened unseen: everything is sent again.
void
Sa::allDirtyIs() {
   if( !announced_ || !is( sends ) ) return;
   flow_->allDirty();
   adapter_.out_.queue( *flow_ );
}

bool
Sa::convertedToWritable() {
   if( is( toOwner ) ) flags_ &= ~readOnly;
   return !is( readOnly );
}

void
Sa::doThrowReadOnly( const char * attribute ) const {
   throw ReadOnlyException( std::string( entity_->fwkType()->fullName ) + "::" + attribute +
                            " of '" + EntityUriPath( *entity_ ).text() + "' is read-only" );
}

namespace {

bool
sameValue( const ValueOps & ops, const void * a, const void * b ) {
   // NaN is no news of NaN.
   return ops.equal( a, b ) ||
          ( &ops == &valueOps< double > && std::memcmp( a, b, sizeof( double ) ) == 0 );
}

} // namespace

NboAttrLog::Handling *
Sa::handling() const {
   NboAttrLog::Handling * h = adapter_.in_.handling_;
   while( h && h->sa != this ) h = h->outer;
   return h;
}

/// Whether the present state of the attribute, or member, is what the record being applied says.
bool
Sa::isAsInLog( const NboAttrLog::Handling & h, const AttributeRow & row, const void * key ) const {
   if( !row.collection ) {
      return h.value && sameValue( *row.stored, row.address( entity_ ), h.value );
   }
   if( !h.key || !row.keyType->values->equal( h.key, key ) ) return false;
   const PtrInterface * member = row.collection->find( entity_, key );
   if( h.instance ) return row.id == entityAttr ? member == h.value : member != nullptr;
   if( !member || !h.value ) return !member && !h.value;
   if( row.has( refersToMembers ) ) return member == h.value;
   if( row.has( isSet ) ) return true;
   return sameValue( *row.type->values, row.collection->memberValue( member ), h.value );
}

/// Whether a change is the one that the record being applied makes. What is changed here
/// meanwhile is not, even where it ends as the record says: the peer was told of the way there.
bool
Sa::arrivedFromLog( const AttributeRow & row, const void * key ) {
   NboAttrLog::Handling * h = handling();
   if( !h || h->attrId != row.id || h->answered ) return false;
   if( h->key && !( key && row.keyType->values->equal( h->key, key ) ) ) return false;
   h->answered = !isAsInLog( *h, row, key );
   return !h->answered;
}

void
Sa::markDirty( const AttributeRow & row, const void * key, bool removal ) {
   // What was not announced yet is announced with all it has.
   if( !announced_ && !is( toOwner ) ) return;
   if( !covers( row ) ) return;
   FlowOut & flow = makeFlow();
   if( key ) {
      flow.zekKeyDirtyIs( row, key, removal );
   } else {
      flow.attrIdIs( row.id );
      flow.zekIsDirtyIs( row.id, true );
   }
   if( announced_ ) adapter_.out_.queue( flow );
}

/// Whether a reaction puts a member in the place of the instance that is just arriving, which the
/// peer has: that one must go first.
bool
Sa::replacesArrived( const AttributeRow & row, const void * key ) const {
   const NboAttrLog::Handling * h = handling();
   return h && h->instance && h->answered && h->attrId == row.id && key &&
          row.keyType->values->equal( h->key, key );
}

/// The steps that all changes have in common. True when the change is to be written now.
inline bool
Sa::mayGoOut( const AttributeRow & row, const void * key ) {
   if( !entity_->zekIsLogged() ) return false;
   if( adapter_.in_.handling_ && arrivedFromLog( row, key ) ) return false;
   if( is( readOnly ) && !convertedToWritable() ) doThrowReadOnly( row.name );
   if( !is( sends ) || !covers( row ) ) return false;
   Out & out = adapter_.out_;
   out.clearBarrier();
   if( !announced_ && !is( toOwner ) ) return false;
   FlowOut & flow = flow_ ? *flow_ : makeFlow();
   if( !announced_ || !out.hasSufficientBuffer() || !flow.prepareImmediateTransmission( row.id ) ) {
      markDirty( row, key, replacesArrived( row, key ) );
      return false;
   }
   return true;
}

void
Sa::onAttribute( const AttributeRow & row ) {
   if( !row.address || !row.write ) return;
   if( mayGoOut( row, nullptr ) ) serializeAttribute( row );
}

void
Sa::onMember( const AttributeRow & row, const void * key ) {
   if( row.has( ownsMembers ) && ( flags_ & ( readOnly | toOwner | fromPeer ) ) ) {
      // The new member is watched before anyone else can change it.
      const PtrInterface * member = row.collection->find( entity_, key );
      if( member && handlingFlowInFor( row.id ) ) memberAdaptor( row, member );
   }
   if( !mayGoOut( row, key ) ) return;
   const DirtyKeys * keys = flow_->dirtyKeys( row.id );
   bool removal = replacesArrived( row, key );
   if( keys ) {
      auto at = keys->find( key );
      removal |= at != keys->end() && at->second;
      flow_->zekKeyDirtyDel( row.id, key );
   }
   sendMember( row, key, removal );
}

// -- Towards the owner ------------------------------------------------------------------------

void
Sa::wroteToOwner( const AttributeRow & row, const void * key ) {
   if( !unacked_ ) unacked_ = std::make_unique< Unacked >();
   auto & writes = unacked_->writes;
   uint64_t acked = adapter_.in_.acked_;
   std::erase_if( writes, [=]( auto & w ) { return w.record <= acked; } );
   Unacked::Write write{ row.id, {}, adapter_.out_.records_ };
   if( key ) write.key = AnyKey( *row.keyType->values, key );
   writes.push_back( std::move( write ) );
}

bool
Sa::awaitsOwner( const AttributeRow & row, const void * key ) {
   if( flow_ ) {
      if( flow_->zekIsDirty( row.id ) ) return true;
      if( key && flow_->zekIsKeyDirty( row.id, key ) ) return true;
      auto * dirty = key ? flow_->dirtyCollection( row.id ) : nullptr;
      if( dirty && ( dirty->whole || dirty->resync ) ) return true;
   }
   if( !unacked_ ) return false;
   uint64_t acked = adapter_.in_.acked_;
   std::erase_if( unacked_->writes, [=]( auto & w ) { return w.record <= acked; } );
   for( auto & write : unacked_->writes ) {
      if( write.attrId != row.id ) continue;
      const void * written = write.key.get(); // null: all of them
      if( !key || !written || row.keyType->values->equal( written, key ) ) return true;
   }
   if( unacked_->writes.empty() ) unacked_ = nullptr;
   return false;
}

/// The connection is gone: whether the owner saw the last writes is not known.
void
Sa::rewriteUnacked() {
   if( !unacked_ ) return;
   auto held = std::move( unacked_ );
   for( auto & write : held->writes ) {
      if( write.record <= adapter_.in_.acked_ ) continue;
      const AttributeRow & row = *plan_.row( write.attrId );
      if( row.collection && !write.key.get() ) {
         makeFlow().wholeIs( row );
      } else {
         markDirty( row, write.key.get() );
      }
   }
}

/// The entity has a flow of the peer's: what was written to it meanwhile can go out.
void
Sa::boundToOwner() {
   if( announced_ ) return;
   FlowOut & flow = makeFlow();
   Out & out = adapter_.out_;
   out.number( flow );
   out.declare( plan_ );
   Wire::Encoder body = out.control( NboAttrLog::bindControl );
   body.u32( flow.id() );
   body.u32( flow.sequence() );
   body.u32( flowIn_ );
   body.u32( plan_.wireType );
   out.controlEnd();
   announced_ = true;
   if( flow.isDirty() ) out.queue( flow );
}

// -- Entities ---------------------------------------------------------------------------------

Sa::Ptr
Entity::zekNboAttrLogSaIs( uint32_t flags, uint32_t, NboAttrLog::Out & out ) {
   return out.adapter().adaptorIs( *this, flags );
}

void
Entity::zekIsLoggedIs( bool logged ) {
   if( logged == zekIsLogged() ) return;
   notLogged_ = !logged;
   if( !logged ) return;
   for( uint32_t n = 0; auto * adaptor = notifieeList().logAdaptor( n ); ++n ) {
      if( auto * sa = static_cast< Sa * >( adaptor->zekSink() ) ) sa->allDirtyIs();
   }
}

} // namespace Zek
