#include "framework/attrlog/AttrLog.h"

#include "framework/Exception.h"
#include "framework/ValueOps.h"
#include "framework/attrlog/StreamAdapter.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <list>
#include <map>
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

/// What was written to the owner of an entity and is not known to have reached it, by attribute
/// and key; in the order of the records that said it.
struct Sa::Unacked {
   struct Write {
      uint64_t record; // the last that said something of it
      bool removal;    // and one of them that what was there is gone
   };
   using Keys = std::map< AnyKey, Write, AnyKeyLess >;
   struct Row {
      const AttributeRow * row;
      uint64_t all = 0; // record of the attribute, or of all of the collection
      Keys keys;
      bool lostKeys = false; // `all` stands for keys too
   };
   struct Step {
      uint64_t record;
      const AttributeRow * row;
      Keys::iterator at;
   };
   std::list< Row > rows;
   std::deque< Step > steps;

   Row * find( const AttributeRow & row ) {
      for( Row & r : rows ) {
         if( r.row == &row ) return &r;
      }
      return nullptr;
   }
   void allOf( Row & r, uint64_t record ) {
      r.all = record;
      r.lostKeys = true;
      r.keys.clear();
      std::erase_if( steps, [&]( const Step & step ) { return step.row == r.row; } );
   }
   /// Forgets what the owner has seen.
   void acknowledged( uint64_t records ) {
      for( ; !steps.empty() && steps.front().record <= records; steps.pop_front() ) {
         const Step & step = steps.front();
         if( step.at->second.record == step.record ) find( *step.row )->keys.erase( step.at );
      }
      rows.remove_if( [=]( const Row & r ) { return r.all <= records && r.keys.empty(); } );
   }
};

Sa::ZekNboAttrLogSa( Entity & entity, StreamAdapter & adapter, NboAttrLog::Plan & plan,
                     uint32_t flags )
   : entity_( &entity ),
     adapter_( adapter ),
     plan_( plan ),
     flags_( flags ) {
   reactor_ = relayOf( entity, *this );
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
   if( flow_ ) flow_->close();
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
      flow_ = NboAttrLog::Demuxer::createFlowOut( adapter_.out_, EntityUriPath( *entity_ ), *this,
                                                  NboAttrLog::firstGeneration,
                                                  NboAttrLog::lastGeneration );
   }
   return *flow_;
}

template< class Visit >
void
Sa::eachMemberAdaptor( Visit visit ) {
   for( const AttributeRow * row : plan_.collections ) {
      if( !row->has( ownsMembers ) ) continue;
      const PtrInterface * member = row->collection->first( entity_ );
      while( member ) {
         auto & child = *static_cast< const Entity * >( member );
         if( Sa * sa = adapter_.adaptorOf( child ) ) visit( *sa );
         member = withMemberKey( *row, member, [&]( const void * key ) {
            return row->collection->after( entity_, key );
         } );
      }
   }
}

/// As if the peer had not been told of the entity and its members, so that it will be told of all
/// they have. With `forget` it is to make them anew: what it writes to those it has is void.
void
Sa::unannounce( bool forget ) {
   eachMemberAdaptor( [=]( Sa & sa ) { sa.unannounce( forget ); } );
   announced_ = false;
   if( flow_ ) {
      flow_->close();
      flow_->allClean();
      adapter_.out_.unqueue( *flow_ );
   }
   if( forget ) adapter_.in_.unbind( *this );
   adapter_.exportAgain( *this );
}

void
Sa::detach() {
   if( !entity_ ) return;
   Zek::Ptr< Sa > self( this );
   // Those that are missed go with the connection.
   adapter_.out_.orBreakOff( [&] {
      if( referred_ ) adapter_.out_.strangers_.met( *entity_, adapter_ );
      eachMemberAdaptor( []( Sa & sa ) { sa.detach(); } );
   } );
   detachAlone();
}

void
Sa::detachAlone() {
   Zek::Ptr< Sa > self( this );
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
   adapter_.out_.orBreakOff( [&] { removalOwed(); } );
   detach();
}

/// Notes in the parent's flow that what stands under the key goes.
void
Sa::removalOwed() {
   Entity * parent = entity_->parent();
   if( !parent ) return;
   const AttributeRow * row = parent->fwkType()->attribute( entity_->parentAttrId() );
   Sa * parentSa = adapter_.adaptorOf( *parent );
   if( !row || !parentSa || !parentSa->is( sends ) || !( announced_ || is( toOwner ) ) ) return;
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

void
Sa::onNotificationException() {
   // Whoever changed the entity has nothing to do with it if there is no memory for this peer.
   adapter_.out_.orBreakOff( [] { throw; } );
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
   flow_->resynchronise();
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
   if( !row.isMutable() ) return;
   if( !mayGoOut( row, nullptr ) ) return;
   serializeAttribute( row );
   openIfUsual();
}

/// Lets changes of plain attributes go out without being looked at while nothing is to be asked:
/// whatever changes that closes the flow again.
void
Sa::openIfUsual() {
   const FlowOut & flow = *flow_;
   if( ( flags_ & ( sends | withContent | readOnly | toOwner ) ) != ( sends | withContent ) )
      return;
   if( !announced_ || flow.dirty_.any() || flow.stateDirty_ ) return;
   head_->open = &adapter_.out_;
}

void
Sa::onRelay( NboAttrLog::FlowHead & head ) {
   head_ = &head;
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
Sa::wroteToOwner( const AttributeRow & row, const void * key, bool removal ) {
   if( !unacked_ ) unacked_ = std::make_unique< Unacked >();
   Unacked & unacked = *unacked_;
   unacked.acknowledged( adapter_.in_.acked_ );
   const uint64_t record = adapter_.out_.records_;
   Unacked::Row * r = unacked.find( row );
   if( !r ) r = &unacked.rows.emplace_back( Unacked::Row{ &row, 0, {}, false } );
   if( !key ) {
      r->all = record;
   } else {
      auto at = r->keys.find( key );
      if( at == r->keys.end() ) {
         at = r->keys.emplace( AnyKey( *row.keyType->values, key ), Unacked::Write{} ).first;
      }
      at->second.record = record;
      at->second.removal |= removal;
      unacked.steps.push_back( { record, &row, at } );
      // An owner that acknowledges nothing must not make it grow.
      if( unacked.steps.size() > 4 * row.collection->count( entity_ ) + 64 ) {
         unacked.allOf( *r, record );
      }
   }
   adapter_.in_.overtaken( *this, row, key );
}

Sa::Awaited
Sa::awaitsOwner( const AttributeRow & row, const void * key ) {
   Awaited awaited = Awaited::nothing;
   // Of a member that the owner was told of, it answers also where all of them are on their way,
   // and ahead of their end.
   bool told = false;
   if( key && row.has( ownsMembers ) ) {
      auto * member = static_cast< const Entity * >( row.collection->find( entity_, key ) );
      const Sa * sa = member ? adapter_.adaptorOf( *member ) : nullptr;
      told = sa && sa->announced_;
   }
   if( flow_ ) {
      if( key && flow_->zekIsKeyDirty( row.id, key ) ) return Awaited::member;
      const auto * dirty = row.collection ? flow_->dirtyCollection( row.id ) : nullptr;
      if( flow_->zekIsDirty( row.id ) || ( dirty && ( dirty->whole || dirty->resync ) ) ) {
         if( !told ) awaited = Awaited::all;
      }
   }
   if( !unacked_ ) return awaited;
   unacked_->acknowledged( adapter_.in_.acked_ );
   if( const Unacked::Row * r = unacked_->find( row ) ) {
      if( key && r->keys.find( key ) != r->keys.end() ) return Awaited::member;
      if( r->all > adapter_.in_.acked_ && ( !told || r->lostKeys ) ) awaited = Awaited::all;
   }
   return awaited;
}

/// Adds the keys of a collection that were written and not seen yet. False when it is all of them.
bool
Sa::unackedKeys( const AttributeRow & row, DirtyKeys & keys ) {
   if( !unacked_ ) return true;
   unacked_->acknowledged( adapter_.in_.acked_ );
   const Unacked::Row * r = unacked_->find( row );
   if( !r ) return true;
   if( r->all > adapter_.in_.acked_ ) return false;
   for( auto & [key, write] : r->keys ) {
      keys.emplace( AnyKey( *row.keyType->values, key.get() ), true );
   }
   return true;
}

/// The connection is gone: whether the owner saw the last writes is not known.
void
Sa::rewriteUnacked() {
   if( !unacked_ ) return;
   auto held = std::move( unacked_ );
   const uint64_t acked = adapter_.in_.acked_;
   held->acknowledged( acked );
   for( auto & r : held->rows ) {
      const AttributeRow & row = *r.row;
      if( r.all > acked ) row.collection ? makeFlow().wholeIs( row ) : markDirty( row, nullptr );
      for( auto & [key, write] : r.keys ) markDirty( row, key.get(), write.removal );
   }
}

/// The entity has a flow of the peer's: what was written to it meanwhile can go out.
void
Sa::boundToOwner( bool again ) {
   if( announced_ && !again ) return;
   FlowOut & flow = makeFlow();
   Out & out = adapter_.out_;
   out.number( flow );
   out.declare( plan_ );
   Wire::Encoder body = out.control( NboAttrLog::bindControl );
   body.u32( flow.id() );
   body.u32( flow.generation() );
   body.u32( flowIn_ );
   body.u32( adapter_.in_.flows_[flowIn_].generation );
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
