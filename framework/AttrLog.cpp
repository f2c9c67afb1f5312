#include "framework/AttrLog.h"

#include "framework/Assert.h"
#include "framework/Exception.h"
#include "framework/StreamAdapter.h"
#include "framework/ValueOps.h"

#include <algorithm>
#include <utility>

namespace Zek {

using NboAttrLog::DirtyCollection;
using NboAttrLog::FlowOut;
using NboAttrLog::Kind;
using NboAttrLog::Out;
using Sa = Entity::ZekNboAttrLogSa;

// -- Plans ------------------------------------------------------------------------------------

namespace NboAttrLog {

namespace {

uint64_t
mixText( uint64_t hash, std::string_view text ) {
   // FNV-1a, and a byte that no text contains between two texts.
   for( char c : text ) hash = ( hash ^ static_cast< uint8_t >( c ) ) * 0x100000001b3;
   return ( hash ^ 0xff ) * 0x100000001b3;
}

constexpr uint64_t hashStart = 0xcbf29ce484222325;

bool
isSynchronised( const AttributeRow & row ) {
   if( row.collection ) return true;
   return row.address && row.write;
}

} // namespace

uint32_t
Plan::signature( const AttributeRow & row ) {
   constexpr unsigned shape = isSet | ownsMembers | refersToMembers | keyIsField;
   uint64_t hash = mixText( hashStart, row.name );
   hash = mixText( hash, row.type->fullName );
   hash = mixText( hash, row.keyType ? row.keyType->fullName : "" );
   hash = mixText( hash, std::to_string( row.id ) );
   hash = mixText( hash, std::to_string( static_cast< unsigned >( row.kind ) ) );
   hash = mixText( hash, std::to_string( row.flags & shape ) );
   return static_cast< uint32_t >( hash ^ hash >> 32 );
}

Plan::Plan( const TypeDescriptor & described ) : type( described ) {
   std::vector< const TypeDescriptor * > line;
   for( const TypeDescriptor * t = &type; t; t = t->base ) line.insert( line.begin(), t );
   const AttributeRow * children = nullptr;
   for( const TypeDescriptor * t : line ) {
      for( const AttributeRow & row : t->attributes ) {
         if( !isSynchronised( row ) ) continue;
         attrIdsReqSync.push_back( row.id );
         if( row.id == entityAttr ) {
            children = &row;
         } else {
            ( row.collection ? collections : plain ).push_back( &row );
         }
      }
   }
   if( children ) collections.push_back( children );
   std::sort( attrIdsReqSync.begin(), attrIdsReqSync.end() );
   auto arguments = type.constructorParameters;
   for( size_t i = 1; i < arguments.size(); ++i ) {
      parameters.push_back( type.attribute( arguments[i].name ) );
   }
   fingerprint = mixText( hashStart, type.fullName );
   for( const AttributeRow * row : parameters ) {
      fingerprint = mixText( fingerprint, std::to_string( signature( *row ) ) );
   }
   for( uint16_t id : attrIdsReqSync ) {
      fingerprint = mixText( fingerprint, std::to_string( signature( *type.attribute( id ) ) ) );
   }
}

const AttributeRow *
Plan::row( uint16_t attrId ) const {
   const AttributeRow * row = type.attribute( attrId );
   return row && isSynchronised( *row ) ? row : nullptr;
}

// -- Flows ------------------------------------------------------------------------------------

std::unique_ptr< FlowOut >
Demuxer::createFlowOut( Out & out, const EntityUriPath &, Entity::ZekNboAttrLogSa & sa,
                        uint32_t first, uint32_t last ) {
   uint32_t id;
   if( out.free_.empty() ) {
      id = static_cast< uint32_t >( out.flows_.size() );
      out.flows_.push_back( &sa );
   } else {
      id = out.free_.back();
      out.free_.pop_back();
      out.flows_[id] = &sa;
   }
   return sa.createFlowOut( id, first, last );
}

FlowOut::~FlowOut() {
   Out & out = sa_.adapter().nboAttrLogOut();
   out.unqueue( *this );
   if( id_ < out.flows_.size() && out.flows_[id_] == &sa_ ) {
      out.flows_[id_] = nullptr;
      out.free_.push_back( id_ );
   }
}

void
FlowOut::zekIsDirtyIs( uint16_t attrId, bool dirty ) {
   if( dirty ) {
      dirty_ |= bit( attrId );
   } else {
      dirty_ &= ~bit( attrId );
   }
}

DirtyCollection *
FlowOut::collection( uint16_t attrId ) const {
   for( auto & c : collections_ ) {
      if( c->row->id == attrId ) return c.get();
   }
   return nullptr;
}

DirtyCollection &
FlowOut::collectionIs( const AttributeRow & row ) {
   if( DirtyCollection * present = collection( row.id ) ) return *present;
   collections_.push_back( std::make_unique< DirtyCollection >() );
   collections_.back()->row = &row;
   return *collections_.back();
}

void
FlowOut::collectionDone( DirtyCollection & done ) {
   std::erase_if( collections_, [&]( auto & c ) { return c.get() == &done; } );
}

const DirtyKeys *
FlowOut::dirtyKeys( uint16_t attrId ) const {
   DirtyCollection * c = collection( attrId );
   return c ? &c->keys : nullptr;
}

bool
FlowOut::hasDirtyCollKeys() const {
   return std::any_of( collections_.begin(), collections_.end(),
                       []( auto & c ) { return !c->keys.empty(); } );
}

bool
FlowOut::zekIsKeyDirty( uint16_t attrId, const void * key ) const {
   const DirtyKeys * keys = dirtyKeys( attrId );
   return keys && keys->find( key ) != keys->end();
}

void
FlowOut::zekKeyDirtyIs( const AttributeRow & row, const void * key, bool removal ) {
   DirtyCollection & c = collectionIs( row );
   // What has not begun includes it anyway.
   if( c.whole && !c.resync ) return;
   auto at = c.keys.find( key );
   if( at != c.keys.end() ) {
      at->second |= removal;
      return;
   }
   c.keys.emplace( AnyKey( *row.keyType->values, key ), removal );
   // Removals must not pile up behind a stalled reader.
   size_t members = row.collection->count( sa_.entity() );
   if( c.keys.size() > 2 * members + 16 ) wholeIs( row );
}

void
FlowOut::zekKeyDirtyIs( uint16_t attrId, const void * key, bool dirty ) {
   if( !dirty ) {
      zekKeyDirtyDel( attrId, key );
   } else if( const AttributeRow * row = sa_.plan_.row( attrId ) ) {
      zekKeyDirtyIs( *row, key, false );
   }
}

void
FlowOut::zekKeyDirtyDel( uint16_t attrId, const void * key ) {
   DirtyCollection * c = collection( attrId );
   if( !c ) return;
   auto at = c->keys.find( key );
   if( at != c->keys.end() ) c->keys.erase( at );
   if( c->keys.empty() && !c->whole && !c->resync ) collectionDone( *c );
}

bool
FlowOut::prepareImmediateTransmission( uint16_t attrId ) {
   attrIdIs( attrId );
   if( sequence_ >= lastSequence_ || stateDirty_ ) return false;
   const DirtyCollection * c = collections_.empty() ? nullptr : collection( attrId );
   return !c || ( !c->whole && !c->resync );
}

void
FlowOut::allDirty() {
   const Plan & plan = sa_.plan_;
   dirty_ = 0;
   stateDirty_ = !plan.plain.empty() && sa_.is( Sa::withContent );
   if( stateDirty_ ) {
      for( const AttributeRow * row : plan.plain ) dirty_ |= bit( row->id );
   }
   for( const AttributeRow * row : plan.collections ) {
      if( sa_.covers( *row ) ) wholeIs( *row );
   }
}

void
FlowOut::wholeIs( const AttributeRow & row ) {
   DirtyCollection & c = collectionIs( row );
   c.keys.clear();
   c.resync.reset();
   c.whole = true;
}

void
FlowOut::freeResyncState() {
   for( auto & c : collections_ ) {
      if( !c->resync ) continue;
      c->resync.reset();
      c->whole = true;
   }
}

void
FlowOut::resynchronise() {
   freeResyncState();
   for( auto & c : collections_ ) {
      [[maybe_unused]] DirtyCollection::ResyncState * rsc = c->resync.get();
      assertThat( !rsc || !rsc->hasBookmark(), "!rsc->bookmark()", "AttrLog" );
   }
   sequence_ = firstSequence_;
   restarts_ = true;
   allDirty();
}

// -- Out --------------------------------------------------------------------------------------

Out::~Out() = default;

Wire::Encoder
Out::beginFrame( uint32_t flow, uint16_t attribute, Kind kind, uint8_t flags, uint32_t sequence ) {
   frame_ = buffer_.size();
   Wire::Encoder out( buffer_ );
   uint8_t * at = buffer_.room( FrameHeader::size + 1 );
   auto put = [&at]( auto number ) {
      number = Wire::networkOrder( number );
      std::memcpy( at, &number, sizeof number );
      at += sizeof number;
   };
   put( uint64_t( 0 ) ); // length and checksum: end() knows them
   put( flow );
   put( attribute );
   *at++ = static_cast< uint8_t >( kind );
   *at++ = flags;
   put( sequence );
   *at++ = openToken;
   buffer_.written( FrameHeader::size + 1 );
   return out;
}

/// Before a record takes its number: what the peer wrote is in what follows.
void
Out::acknowledgeFirst() {
   if( adapter_.peerWrites_ ) [[unlikely]] {
      adapter_.in_.acknowledge();
   }
}

Wire::Encoder
Out::begin( FlowOut & flow, uint16_t attribute, Kind kind ) {
   acknowledgeFirst();
   uint8_t flags = std::exchange( flow.restarts_, false ) ? restartsSequence : 0;
   return beginFrame( flow.id_, attribute, kind, flags, flow.sequence_++ );
}

void
Out::end() {
   *buffer_.room( 1 ) = closeToken;
   buffer_.written( 1 );
   uint8_t * frame = buffer_.at( frame_ );
   auto length = static_cast< uint32_t >( buffer_.size() - frame_ );
   uint32_t sum = Wire::networkOrder( Wire::checksum( frame + 8, length - 8 ) );
   length = Wire::networkOrder( length );
   std::memcpy( frame, &length, sizeof length );
   std::memcpy( frame + 4, &sum, sizeof sum );
   ++records_;
}

Wire::Encoder
Out::control( uint16_t message ) {
   acknowledgeFirst();
   return beginFrame( 0, message, Kind::value, 0, controlSequence_++ );
}

void
Out::declare( Plan & plan ) {
   if( plan.wireType ) return;
   plan.wireType = ++types_;
   Wire::Encoder out = control( typeControl );
   out.u32( plan.wireType );
   out.text( plan.type.fullName );
   out.u64( plan.fingerprint );
   out.u32( static_cast< uint32_t >( plan.attrIdsReqSync.size() ) );
   for( uint16_t id : plan.attrIdsReqSync ) {
      out.u16( id );
      out.u32( Plan::signature( *plan.type.attribute( id ) ) );
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

bool
Out::drain() {
   while( queueHead_ && hasSufficientBuffer() ) {
      FlowOut & flow = *queueHead_;
      unqueue( flow );
      if( !flow.sa_.serializeDirty() ) queue( flow );
   }
   return !queueHead_;
}

/// On a new connection: the flow of what is still there.
void
Out::renumber( FlowOut & flow ) {
   flow.id_ = static_cast< uint32_t >( flows_.size() );
   flows_.push_back( &flow.sa_ );
   flow.sequence_ = flow.firstSequence_;
   flow.restarts_ = false;
   flow.freeResyncState();
}

void
Out::reset() {
   buffer_.clear();
   flows_.assign( 1, nullptr );
   free_.clear();
   types_ = 0;
   controlSequence_ = firstSequence;
   records_ = 0;
   barrier_ = false;
}

// -- References -------------------------------------------------------------------------------

namespace {

enum ReferenceTag : uint8_t { nullReference, flowReference, pathReference };

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
   if( entity ) {
      Sa * sa = adapter_.adaptorOf( *entity );
      if( sa && sa->announced_ && sa->flow_ ) {
         out.u8( flowReference );
         out.u32( sa->flow_->id() );
         return;
      }
      EntityUriPath path( *entity );
      if( &path.root() == adapter_.root_.ptr() ) {
         out.u8( pathReference );
         path.encodeTo( out );
         return;
      }
   }
   out.u8( nullReference );
}

/// Behind the key: flow, number of its next record, type, further constructor arguments.
void
Out::encodeInstance( Wire::Encoder & out, Sa & sa ) {
   out.u32( sa.flow_->id() );
   out.u32( sa.flow_->sequence() );
   out.u32( sa.plan_.wireType );
   for( const AttributeRow * row : sa.plan_.parameters ) {
      const void * value = row->address( sa.entity_ );
      if( row->stored->encode ) {
         row->stored->encode( value, out );
      } else {
         encodeReference( out, *static_cast< PtrInterface * const * >( value ) );
      }
   }
}

} // namespace NboAttrLog

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
   if( is( sends ) && flags_ != before && announced_ ) {
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
            const Handling & h = parentSa->handling_;
            if( h.attrId == row->id && !h.instance && !h.value &&
                row->keyType->values->equal( h.key, key ) ) {
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
Sa::convertedToWritable( uint16_t attrId, const void * key ) const {
   static_cast< void >( key );
   return !is( readOnly ) || handling_.attrId == attrId;
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

/// Whether the present state of the attribute, or member, is what the record being applied says.
bool
Sa::arrivedFromLog( const AttributeRow & row, const void * key ) const {
   const Handling & h = handling_;
   if( h.attrId != row.id ) return false;
   if( !row.collection ) {
      return h.value && sameValue( *row.stored, row.address( entity_ ), h.value );
   }
   if( !h.key || !row.keyType->values->equal( h.key, key ) ) return false;
   const PtrInterface * member = row.collection->find( entity_, key );
   if( h.instance ) return member != nullptr;
   if( !member || !h.value ) return !member && !h.value;
   if( row.has( refersToMembers ) ) return member == h.value;
   if( row.has( isSet ) ) return true;
   return sameValue( *row.type->values, row.collection->memberValue( member ), h.value );
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

/// The steps that all changes have in common. True when the change is to be written now.
bool
Sa::mayGoOut( const AttributeRow & row, const void * key ) {
   if( !entity_->zekIsLogged() || arrivedFromLog( row, key ) ) return false;
   if( is( readOnly ) ) doThrowReadOnly( row.name );
   if( !is( sends ) || !covers( row ) ) return false;
   Out & out = adapter_.out_;
   out.clearBarrier();
   if( !announced_ && !is( toOwner ) ) return false;
   FlowOut & flow = makeFlow();
   if( !announced_ || !out.hasSufficientBuffer() || !flow.prepareImmediateTransmission( row.id ) ) {
      markDirty( row, key );
      return false;
   }
   return true;
}

void
Sa::onAttribute( const AttributeRow & row ) {
   if( !row.address || !row.write ) return;
   if( mayGoOut( row, nullptr ) ) serializeAttribute( row.id );
}

void
Sa::onMember( const AttributeRow & row, const void * key ) {
   if( row.has( ownsMembers ) && ( flags_ & ( readOnly | toOwner | fromPeer ) ) ) {
      // The new member is watched before anyone else can change it.
      const PtrInterface * member = row.collection->find( entity_, key );
      if( member && handling_.attrId == row.id ) memberAdaptor( row, member );
   }
   if( !mayGoOut( row, key ) ) return;
   const DirtyKeys * keys = flow_->dirtyKeys( row.id );
   bool removal = false;
   if( keys ) {
      auto at = keys->find( key );
      removal = at != keys->end() && at->second;
      flow_->zekKeyDirtyDel( row.id, key );
   }
   sendMember( row, key, removal );
}

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
   Out & out = adapter_.out_;
   const AttributeRow & row = *plan_.row( attrId );
   const void * value = row.address( entity_ );
   if( row.stored->encode ) {
      Wire::Encoder body = out.begin( *flow_, attrId, Kind::value );
      row.stored->encode( value, body );
   } else {
      auto * target = *static_cast< PtrInterface * const * >( value );
      out.prepareReference( target );
      Wire::Encoder body = out.begin( *flow_, attrId, Kind::value );
      out.encodeReference( body, target );
   }
   out.end();
   flow_->zekIsDirtyIs( attrId, false );
   if( is( toOwner ) ) wroteToOwner( row, nullptr );
   return out.hasSufficientBuffer();
}

/// All plain attributes in one record: number, length and value of each.
void
Sa::serializeState() {
   Out & out = adapter_.out_;
   for( const AttributeRow * row : plan_.plain ) {
      if( row->stored->encode ) continue;
      out.prepareReference( *static_cast< PtrInterface * const * >( row->address( entity_ ) ) );
   }
   Wire::Encoder body = out.begin( *flow_, 0, Kind::state );
   for( const AttributeRow * row : plan_.plain ) {
      const void * value = row->address( entity_ );
      body.u16( row->id );
      body.u32( 0 );
      size_t start = out.buffer_.size();
      if( row->stored->encode ) {
         row->stored->encode( value, body );
      } else {
         out.encodeReference( body, *static_cast< PtrInterface * const * >( value ) );
      }
      uint32_t length = Wire::networkOrder( static_cast< uint32_t >( out.buffer_.size() - start ) );
      std::memcpy( out.buffer_.at( start - sizeof length ), &length, sizeof length );
   }
   out.end();
   flow_->stateDirty_ = false;
   flow_->dirty_ = 0;
}

void
Sa::writeRemoval( const AttributeRow & row, const void * key ) {
   Out & out = adapter_.out_;
   Wire::Encoder body = out.begin( *flow_, row.id, Kind::removal );
   row.keyType->values->encode( key, body );
   out.end();
   if( is( toOwner ) ) wroteToOwner( row, key );
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
   } else if( const void * value =
                 row.collection->memberValue ? row.collection->memberValue( member ) : nullptr ) {
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
   makeFlow();
   for( const AttributeRow * parameter : plan_.parameters ) {
      if( parameter->stored->encode ) continue;
      out.prepareReference(
         *static_cast< PtrInterface * const * >( parameter->address( entity_ ) ) );
   }
   out.declare( plan_ );
   Wire::Encoder body = out.begin( *parentSa.flow_, row.id, kind );
   withMemberKey( row, entity_,
                  [&]( const void * key ) { row.keyType->values->encode( key, body ); } );
   out.encodeInstance( body, *this );
   out.end();
}

void
Sa::doSerializeOrphan( uint32_t exportId ) {
   Out & out = adapter_.out_;
   makeFlow();
   for( const AttributeRow * parameter : plan_.parameters ) {
      if( parameter->stored->encode ) continue;
      out.prepareReference(
         *static_cast< PtrInterface * const * >( parameter->address( entity_ ) ) );
   }
   out.declare( plan_ );
   Wire::Encoder body = out.control( NboAttrLog::rootControl );
   body.u32( exportId );
   body.text( entity_->fwkType()->fullName );
   body.text( entity_->name().view() );
   out.encodeInstance( body, *this );
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
      for( const AttributeRow * p : adapter_.plan( *member.fwkType() ).parameters ) {
         if( p->stored->encode ) continue;
         out.prepareReference( *static_cast< PtrInterface * const * >( p->address( &member ) ) );
      }
      out.declare( adapter_.plan( *member.fwkType() ) );
      Wire::Encoder body = out.begin( *flow_, row.id, kind );
      withMemberKey( row, &member,
                     [&]( const void * key ) { row.keyType->values->encode( key, body ); } );
      body.u32( 0 ); // no flow
      body.u32( 0 );
      body.u32( adapter_.plan( *member.fwkType() ).wireType );
      for( const AttributeRow * p : adapter_.plan( *member.fwkType() ).parameters ) {
         const void * value = p->address( &member );
         if( p->stored->encode ) {
            p->stored->encode( value, body );
         } else {
            out.encodeReference( body, *static_cast< PtrInterface * const * >( value ) );
         }
      }
      out.end();
      return;
   }
   if( child->cameFromPeer_ ) kind = Kind::adopt;
   bool isNew = !child->announced_;
   if( !isNew && kind == Kind::instantiate ) return;
   // Announced first: a reference back to it needs no other announcement.
   child->zekInstantiateSerialize( isNew ? kind : Kind::adopt );
   if( !isNew ) return;
   child->announced_ = true;
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
         out.begin( flow, attrId, Kind::beginWhole );
         out.end();
      }
      const void * bookmark = c->resync->bookmark.get();
      const PtrInterface * member =
         bookmark ? ops.after( entity_, bookmark ) : ops.first( entity_ );
      while( member ) {
         if( !out.hasSufficientBuffer() ) return false;
         if( flow.sequence_ >= flow.lastSequence_ ) {
            flow.resynchronise();
            return false;
         }
         const PtrInterface * next = withMemberKey( row, member, [&]( const void * key ) {
            // Copied first: writing the member may announce others, but changes no collection.
            c->resync->bookmark = AnyKey( *row.keyType->values, key );
            if( row.has( ownsMembers ) ) {
               auto & child = const_cast< Entity & >( *static_cast< const Entity * >( member ) );
               announceInWhole( row, child );
            } else {
               sendMember( row, key, false );
            }
            return ops.after( entity_, key );
         } );
         member = next;
      }
      out.begin( flow, attrId, Kind::endWhole );
      out.end();
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
/// type and arguments are the same member; on a live stream, what was not announced is new.
void
Sa::announceInWhole( const AttributeRow & row, Entity & member ) {
   Sa * child = adapter_.adaptorOf( member );
   bool known = child && child->announced_;
   announceMember( row, member, dump_ || known ? Kind::adopt : Kind::instantiate, true );
}

bool
Sa::serializeDirty() {
   Zek::Ptr< Sa > self( this );
   Out & out = adapter_.out_;
   FlowOut & flow = *flow_;
   if( !entity_->zekIsLogged() ) {
      // Until it is logged again, which marks everything.
      flow.dirty_ = 0;
      flow.stateDirty_ = false;
      flow.collections_.clear();
      adapter_.flowDone( *this );
      return true;
   }
   if( flow.sequence_ >= flow.lastSequence_ ) flow.resynchronise();
   if( flow.stateDirty_ && !plan_.plain.empty() ) serializeState();
   for( const AttributeRow * row : plan_.plain ) {
      if( !flow.dirty_ ) break;
      if( !flow.zekIsDirty( row->id ) ) continue;
      if( !out.hasSufficientBuffer() ) return false;
      serializeAttribute( row->id );
   }
   while( !flow.collections_.empty() ) {
      if( !out.hasSufficientBuffer() ) return false;
      if( !serializeCollection( flow.collections_.front()->row->id ) ) return false;
   }
   adapter_.flowDone( *this );
   return true;
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
      if( key ? flow_->zekIsKeyDirty( row.id, key ) : flow_->zekIsDirty( row.id ) ) return true;
   }
   if( !unacked_ ) return false;
   uint64_t acked = adapter_.in_.acked_;
   std::erase_if( unacked_->writes, [=]( auto & w ) { return w.record <= acked; } );
   for( auto & write : unacked_->writes ) {
      if( write.attrId != row.id ) continue;
      if( !key || row.keyType->values->equal( write.key.get(), key ) ) return true;
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
      markDirty( *plan_.row( write.attrId ), write.key.get() );
   }
}

/// The entity has a flow of the peer's: what was written to it meanwhile can go out.
void
Sa::boundToOwner() {
   if( announced_ ) return;
   FlowOut & flow = makeFlow();
   Out & out = adapter_.out_;
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
Entity::zekNboAttrLogSaIs( uint32_t flags, uint32_t id, NboAttrLog::Out & out ) {
   static_cast< void >( id );
   return out.adapter().adaptorIs( *this, flags );
}

void
Entity::zekIsLoggedIs( bool logged ) {
   if( logged == zekIsLogged() ) return;
   notLogged_ = !logged;
   if( !logged ) return;
   for( uint32_t n = 0; auto * adaptor = notifieeList().logAdaptor( n ); ++n ) {
      static_cast< Sa * >( adaptor->zekSink() )->allDirtyIs();
   }
}

} // namespace Zek
