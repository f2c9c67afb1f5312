#include "framework/StreamAdapter.h"

#include "framework/Assert.h"
#include "framework/ValueOps.h"

#include <algorithm>
#include <cstring>

namespace Zek {

using NboAttrLog::FrameHeader;
using NboAttrLog::In;
using NboAttrLog::Kind;
using Sa = Entity::ZekNboAttrLogSa;

StreamException::~StreamException() = default;
StreamOwner::~StreamOwner() = default;

// -- The adapter ------------------------------------------------------------------------------

StreamAdapter::StreamAdapter( const Entity::Ptr & root, StreamOwner & owner )
   : root_( root ),
     owner_( owner ),
     out_( *this ),
     in_( *this ) {}

StreamAdapter::~StreamAdapter() {
   exports_.clear();
   while( first_ ) first_->detach();
}

Sa *
StreamAdapter::adaptorOf( const Entity & entity, const StreamAdapter & adapter ) {
   NotifieeList & list = entity.notifieeList();
   for( uint32_t n = 0; auto * notifiee = list.logAdaptor( n ); ++n ) {
      auto * sa = static_cast< Sa * >( notifiee->zekSink() );
      if( &sa->adapter_ == &adapter ) return sa;
   }
   return nullptr;
}

NboAttrLog::Plan &
StreamAdapter::plan( const TypeDescriptor & type ) {
   auto & plan = plans_[&type];
   if( !plan ) plan = std::make_unique< NboAttrLog::Plan >( type );
   return *plan;
}

Sa *
StreamAdapter::adaptorIs( Entity & entity, uint32_t flags ) {
   if( Sa * present = adaptorOf( entity ) ) {
      present->flagsAdd( flags );
      return present;
   }
   if( !entity.zekHasAttrLogInterface() ) return nullptr;
   const TypeDescriptor * type = entity.fwkType();
   NboAttrLog::Plan & plan = this->plan( *type );
   while( type && !type->attrLogSa ) type = type->base;
   auto make = type ? type->attrLogSa : &makeAttrLogSa< Sa >;
   auto * made = static_cast< Sa * >( make( entity, *this, plan, flags ).release() );
   join( *made ); // the adapter has the reference
   return made;
}

void
StreamAdapter::join( Sa & sa ) {
   sa.nextSa_ = first_;
   if( first_ ) first_->previousSa_ = &sa;
   first_ = &sa;
   ++adaptors_;
}

void
StreamAdapter::leave( Sa & sa ) {
   in_.unbind( sa );
   bool gone = false;
   for( Export & e : exports_ ) {
      if( e.root != &sa ) continue;
      e.root = nullptr;
      gone = true;
   }
   sa.flow_ = nullptr;
   flowDone( sa );
   ( sa.previousSa_ ? sa.previousSa_->nextSa_ : first_ ) = sa.nextSa_;
   if( sa.nextSa_ ) sa.nextSa_->previousSa_ = sa.previousSa_;
   sa.previousSa_ = sa.nextSa_ = nullptr;
   --adaptors_;
   if( !gone ) return;
   std::vector< uint32_t > ids;
   for( Export & e : exports_ ) {
      if( !e.root && e.entity ) {
         e.entity = nullptr;
         ids.push_back( e.id );
      }
   }
   for( uint32_t id : ids ) {
      Wire::Encoder body = out_.control( NboAttrLog::noRootControl );
      body.u32( id );
      out_.controlEnd();
      owner_.onExportGone( id );
   }
}

// -- Exports ----------------------------------------------------------------------------------

StreamAdapter::Export *
StreamAdapter::exported( uint32_t exportId ) {
   for( Export & e : exports_ ) {
      if( e.id == exportId ) return &e;
   }
   return nullptr;
}

namespace {

void
mark( NboAttrLog::Out & out, NboAttrLog::Control mark, uint32_t exportId ) {
   Wire::Encoder body = out.control( mark );
   body.u32( exportId );
   out.controlEnd();
}

} // namespace

void
StreamAdapter::exportIs( uint32_t exportId, Entity & entity, uint32_t flags ) {
   Sa * sa = adaptorIs( entity, flags | Sa::sends );
   if( !sa ) {
      throwRangeException( std::string( "'" ) + EntityUriPath( entity ).text() + "' of type " +
                           entity.fwkType()->fullName + " cannot be streamed" );
   }
   Export * present = exported( exportId );
   if( !present ) {
      exports_.push_back( { exportId, nullptr, nullptr } );
      present = &exports_.back();
   }
   present->root = sa;
   present->entity = &entity;
   present->ended = false;
   mark( out_, NboAttrLog::beginControl, exportId );
   bool isNew = !sa->announced_;
   sa->doSerializeOrphan( exportId );
   sa->announced_ = true;
   if( isNew || !sa->dump_ ) {
      joinDump( *sa, exportId );
      sa->flow_->allDirty();
      out_.queue( *sa->flow_ );
   }
   out_.drain();
}

void
StreamAdapter::exportAbsent( uint32_t exportId ) {
   Export * present = exported( exportId );
   if( !present ) {
      exports_.push_back( { exportId, nullptr, nullptr } );
      present = &exports_.back();
   }
   mark( out_, NboAttrLog::beginControl, exportId );
   mark( out_, NboAttrLog::noRootControl, exportId );
   present->ended = false;
   endDumps();
}

void
StreamAdapter::joinDump( Sa & sa, uint32_t exportId ) {
   if( sa.dump_ ) return;
   sa.dump_ = exportId;
   if( Export * e = exported( exportId ) ) ++e->pending;
}

void
StreamAdapter::flowDone( Sa & sa ) {
   if( !sa.dump_ ) return;
   Export * e = exported( std::exchange( sa.dump_, 0 ) );
   if( e && --e->pending == 0 ) endDumps();
}

/// Says, in the order of the exports, which dumps are complete: an export within another may
/// have been sent with that.
void
StreamAdapter::endDumps() {
   for( size_t i = 0; i < exports_.size(); ++i ) {
      if( exports_[i].pending ) break;
      if( std::exchange( exports_[i].ended, true ) ) continue;
      mark( out_, NboAttrLog::endControl, exports_[i].id );
   }
}

void
StreamAdapter::reset() {
   exports_.clear();
   for( Sa * sa = first_; sa; ) {
      Sa * next = sa->nextSa_;
      sa->announced_ = false;
      sa->cameFromPeer_ = false;
      sa->flowIn_ = 0;
      sa->dump_ = 0;
      if( sa->is( Sa::toOwner ) ) {
         sa->rewriteUnacked();
         if( sa->flow_ ) out_.unqueue( *sa->flow_ );
      }
      sa = next;
   }
   std::vector< Sa::Ptr > exportedOnly;
   for( Sa * sa = first_; sa; sa = sa->nextSa_ ) {
      if( !( sa->flags_ & ( Sa::readOnly | Sa::toOwner ) ) ) exportedOnly.emplace_back( sa );
   }
   for( const Sa::Ptr & sa : exportedOnly ) sa->detach();
   out_.reset();
   for( Sa * sa = first_; sa; sa = sa->nextSa_ ) {
      if( sa->flow_ ) out_.renumber( *sa->flow_ );
   }
   for( auto & [type, plan] : plans_ ) plan->wireType = 0;
   in_.reset();
}

// -- Inbound: frames --------------------------------------------------------------------------

namespace NboAttrLog {

namespace {

std::string_view
bytesBetween( const uint8_t * begin, const uint8_t * end ) {
   return { reinterpret_cast< const char * >( begin ), static_cast< size_t >( end - begin ) };
}

} // namespace

/// While it lives, the adaptor knows which change arrived from the log.
class In::Handles {
 public:
   Handles( Sa & sa, const AttributeRow & row, const void * key, const void * value, bool instance )
      : sa_( &sa ) {
      before_ = sa.handling_;
      sa.handling_ = { row.id, key, value, instance };
   }
   ~Handles() { sa_->handling_ = before_; }
   Handles( const Handles & ) = delete;
   Handles & operator=( const Handles & ) = delete;

 private:
   Sa::Ptr sa_;
   Sa::Handling before_;
};

/// Values of any type for the length of one record.
class In::Scratch {
 public:
   Scratch() {} // the memory stays as it is
   Scratch( const Scratch & ) = delete;
   Scratch & operator=( const Scratch & ) = delete;
   ~Scratch() {
      for( size_t i = count_; i; --i ) ops_[i - 1]->destroy( values_[i - 1] );
      count_ = 0;
   }
   /// The type's zero value.
   void * make( const ValueOps & ops ) {
      void * at;
      size_t aligned = ( used_ + ops.alignment - 1 ) & ~size_t( ops.alignment - 1 );
      if( aligned + ops.size <= sizeof memory_ && ops.alignment <= alignof( std::max_align_t ) &&
          count_ < most ) {
         at = memory_ + aligned;
         used_ = aligned + ops.size;
         ops.construct( at );
         ops_[count_] = &ops;
         values_[count_++] = at;
      } else {
         more_.push_back( AnyKey::zero( ops ) );
         at = more_.back().get();
      }
      return at;
   }
   /// A pointer, as attributes and constructors take it.
   const void * pointer( Entity * target ) {
      auto * made = static_cast< Entity::Ptr * >( make( valueOps< Entity::Ptr > ) );
      *made = Entity::Ptr( target );
      return made;
   }

 private:
   static constexpr size_t most = 48;
   size_t used_ = 0;
   size_t count_ = 0;
   alignas( std::max_align_t ) char memory_[1024];
   const ValueOps * ops_[most];
   void * values_[most];
   std::vector< AnyKey > more_;
};

In::In( StreamAdapter & adapter ) : adapter_( adapter ) {}
In::~In() = default;

void
In::reset() {
   buffer_.clear();
   late_.clear();
   closed_ = false;
   controlSequence_ = firstSequence;
   records_ = acked_ = acknowledged_ = 0;
   types_.clear();
   flows_.clear();
   held_.clear();
   wholes_.clear();
   sweeps_.clear();
   roots_.clear();
   openDumps_ = 0;
}

void
In::malformed( const FrameHeader & header, const char * expected, size_t offset ) {
   closed_ = true;
   std::string where = "flow " + std::to_string( header.flow );
   std::string attribute = std::to_string( header.attribute );
   if( header.flow && header.flow < flows_.size() && flows_[header.flow].sa ) {
      Entity & entity = *flows_[header.flow].sa->entity();
      where = "'" + EntityUriPath( entity ).text() + "'";
      if( auto * row = entity.fwkType()->attribute( header.attribute ) ) attribute = row->name;
   }
   throw StreamException( "malformed record " + std::to_string( records_ ) + " of " + where +
                          ", attribute " + attribute + ", offset " + std::to_string( offset ) +
                          ": expected " + expected );
}

namespace {

FrameHeader
readHeader( const uint8_t * at ) {
   FrameHeader header;
   uint8_t kind;
   Wire::Decoder in( at, FrameHeader::size );
   in.u32( header.length );
   in.u32( header.checksum );
   in.u32( header.flow );
   in.u16( header.attribute );
   in.u8( kind );
   in.u8( header.flags );
   in.u32( header.sequence );
   header.kind = static_cast< Kind >( kind );
   return header;
}

} // namespace

void
In::receive( const void * bytes, size_t count ) {
   if( closed_ ) throw StreamException( "the stream was closed by a malformed record" );
   if( receiving_ ) {
      // From a callback of a mutator: the loop that called it goes on with them.
      late_.append( bytes, count );
      return;
   }
   buffer_.append( bytes, count );
   receiving_ = true;
   struct Done {
      bool & flag;
      ~Done() { flag = false; }
   } done{ receiving_ };
   while( buffer_.size() >= FrameHeader::size ) {
      const FrameHeader header = readHeader( buffer_.data() );
      if( header.length < FrameHeader::size + 2 || header.length > quota.recordBytes ) {
         malformed( header, "a length of 22 bytes up to the quota", 0 );
      }
      if( buffer_.size() < header.length ) break;
      const uint8_t * frame = buffer_.data();
      if( Wire::checksum( frame + 8, header.length - 8 ) != header.checksum ) {
         malformed( header, "the checksum of the record", 4 );
      }
      if( frame[FrameHeader::size] != openToken ) {
         malformed( header, "the opening token", FrameHeader::size );
      }
      if( frame[header.length - 1] != closeToken ) {
         malformed( header, "the closing token", header.length - 1 );
      }
      ++records_;
      Wire::Decoder body( frame + FrameHeader::size + 1, header.length - FrameHeader::size - 2 );
      record( header, body );
      if( body.failed() ) {
         malformed( header, body.expected(), FrameHeader::size + 1 + body.failedAt() );
      }
      buffer_.consume( header.length );
      if( !late_.empty() ) {
         buffer_.append( late_.data(), late_.size() );
         late_.clear();
      }
   }
   if( boundSomething_ && !held_.empty() ) retryHeld();
   boundSomething_ = false;
   if( adapter_.peerWrites_ ) acknowledge();
}

void
In::acknowledge() {
   if( acknowledged_ == records_ ) return;
   acknowledged_ = records_;
   Wire::Encoder body = adapter_.out_.control( ackControl );
   body.u64( records_ );
   adapter_.out_.controlEnd();
}

void
In::record( const FrameHeader & header, Wire::Decoder & body ) {
   auto sequenced = [&]( uint32_t & next ) {
      if( header.flags & restartsSequence ) next = header.sequence;
      if( header.flags & ~restartsSequence ) malformed( header, "known flags", 15 );
      if( header.sequence != next ) malformed( header, "the next sequence number", 16 );
      next = header.sequence + 1;
   };
   if( header.kind > Kind::state ) malformed( header, "a kind of record", 14 );
   if( header.flow == 0 ) {
      sequenced( controlSequence_ );
      control( header.attribute, body );
      if( !body.failed() && body.left() ) body.fail( "the end of the record" );
      return;
   }
   if( header.flow >= flows_.size() || !flows_[header.flow].type ) {
      malformed( header, "a flow that was announced", 8 );
   }
   Flow & flow = flows_[header.flow];
   sequenced( flow.sequence );
   if( flow.sa ) entityRecord( flow, header, body );
}

// -- Control ----------------------------------------------------------------------------------

void
In::control( uint16_t message, Wire::Decoder & body ) {
   switch( message ) {
   case typeControl:
      typeDeclared( body );
      return;
   case rootControl:
      rootCame( body );
      return;
   case noRootControl:
      rootWent( body );
      return;
   case ackControl: {
      uint64_t records;
      if( !body.u64( records ) ) return;
      if( records > adapter_.out_.records_ ) {
         body.fail( "no more records than were sent" );
         return;
      }
      acked_ = records;
      return;
   }
   case againControl:
      sendAgain( body );
      return;
   case bindControl:
      bindToPeer( body );
      return;
   case beginControl: {
      uint32_t id;
      if( !body.u32( id ) ) return;
      ++openDumps_;
      adapter_.owner_.onDump( id, false );
      return;
   }
   case endControl: {
      uint32_t id;
      if( !body.u32( id ) ) return;
      if( !openDumps_ ) {
         body.fail( "the end of a dump that began" );
         return;
      }
      if( --openDumps_ == 0 ) sweepAll();
      adapter_.owner_.onDump( id, true );
      return;
   }
   default:
      break;
   }
   if( message < firstUserControl ) {
      body.fail( "a control message" );
      return;
   }
   adapter_.owner_.onControl( message, body );
}

void
In::typeDeclared( Wire::Decoder & body ) {
   uint32_t number, count;
   uint64_t fingerprint;
   std::string_view name;
   if( !body.u32( number ) || !body.text( name ) || !body.u64( fingerprint ) ||
       !body.u32( count ) ) {
      return;
   }
   if( number != types_.size() + 1 || number > quota.types ) {
      body.fail( "the next type's number, up to the quota" );
      return;
   }
   if( count > body.left() / 6 ) {
      body.fail( "as many attributes as were counted" );
      return;
   }
   WireType wire;
   wire.type = typeNode( name );
   if( wire.type && ( !wire.type->isEntity() || !wire.type->create ) ) wire.type = nullptr;
   wire.same = wire.type && adapter_.plan( *wire.type ).fingerprint == fingerprint;
   for( ; count; --count ) {
      uint16_t id;
      uint32_t signature;
      if( !body.u16( id ) || !body.u32( signature ) ) return;
      const AttributeRow * row = wire.type ? adapter_.plan( *wire.type ).row( id ) : nullptr;
      if( row && Plan::signature( *row ) == signature ) wire.agreed.push_back( id );
   }
   std::sort( wire.agreed.begin(), wire.agreed.end() );
   types_.push_back( std::move( wire ) );
}

/// The next type number, as the type declared under it; null after a failure.
const In::WireType *
In::wireType( Wire::Decoder & body ) {
   uint32_t number;
   if( !body.u32( number, "a type's number" ) ) return nullptr;
   if( number == 0 || number > types_.size() ) {
      body.fail( "the number of a type that was declared" );
      return nullptr;
   }
   return &types_[number - 1];
}

/// Takes the flow's number into use.
bool
In::flowName( Wire::Decoder & body, FlowName & name ) {
   if( !body.u32( name.id, "a flow's number" ) || !body.u32( name.sequence ) ) return false;
   if( name.id > quota.flows || name.id > flows_.size() + 4096 ) {
      return body.fail( "the number of a flow" );
   }
   return true;
}

void
In::flowIs( FlowName name, const WireType & type ) {
   if( !name.id ) return;
   if( name.id >= flows_.size() ) flows_.resize( name.id + 1 );
   Flow & flow = flows_[name.id];
   if( flow.sa ) flow.sa->flowIn_ = 0;
   flow = { nullptr, &type, name.sequence };
}

void
In::bind( uint32_t id, Sa & sa ) {
   if( !id ) return;
   if( sa.flowIn_ ) flows_[sa.flowIn_].sa = nullptr;
   flows_[id].sa = &sa;
   sa.flowIn_ = id;
   boundSomething_ = true;
   if( sa.is( Sa::toOwner ) ) sa.boundToOwner();
}

void
In::unbind( Sa & sa ) {
   if( !sa.flowIn_ ) return;
   flows_[sa.flowIn_].sa = nullptr;
   sa.flowIn_ = 0;
}

void
In::rootCame( Wire::Decoder & body ) {
   uint32_t exportId;
   FlowName flow;
   std::string_view typeName, nameText;
   if( !body.u32( exportId ) || !body.text( typeName ) || !body.text( nameText ) ||
       !flowName( body, flow ) ) {
      return;
   }
   const WireType * wire = wireType( body );
   if( !wire ) return;
   if( wire->type && typeName != wire->type->fullName ) {
      body.fail( "the name of the type that was declared" );
      return;
   }
   uint32_t flags = 0;
   if( !wire->type ) {
      // Of a type that is unknown here: its records are passed over.
      body.skip( body.left() );
      repeats( flow, *wire );
      return;
   }
   if( !wire->type->isNamed ) {
      body.fail( "a type with names" );
      return;
   }
   const Name name( nameText );
   if( name.empty() || !adapter_.owner_.acceptsRoot( exportId, wire->type, &flags ) ) {
      body.fail( "the root of an export that was asked for" );
      return;
   }
   Scratch scratch;
   std::vector< const void * > arguments{ &name };
   Plan & plan = adapter_.plan( *wire->type );
   if( !readArguments( plan, body, scratch, arguments ) ) {
      if( !body.failed() ) body.fail( "a root without references that wait" );
      return;
   }
   if( body.left() ) {
      body.fail( "the end of the record" );
      return;
   }
   if( repeats( flow, *wire ) && flows_[flow.id].sa &&
       flows_[flow.id].sa->entity()->name() == name ) {
      flows_[flow.id].sa->flagsAdd( flags );
      adapter_.owner_.onRoot( exportId, flows_[flow.id].sa->entity() );
      return;
   }
   Entity::Ptr directory = adapter_.owner_.rootDirectory( exportId );
   if( !directory ) return;
   Entity::Ptr present = directory->entity( String( nameText ) );
   if( !present || !isSame( *present, plan, arguments ) ) {
      Ptr< PtrInterface > made = wire->type->create( arguments.data() );
      present = Entity::Ptr( static_cast< Entity * >( made.ptr() ) );
      adapter_.childIs( *directory, present );
   }
   if( Sa * sa = adapter_.adaptorIs( *present, flags ) ) bind( flow.id, *sa );
   adapter_.owner_.onRoot( exportId, present.ptr() );
}

void
In::rootWent( Wire::Decoder & body ) {
   uint32_t exportId;
   if( !body.u32( exportId ) ) return;
   uint32_t flags = 0;
   if( !adapter_.owner_.acceptsRoot( exportId, nullptr, &flags ) ) {
      body.fail( "an export that was asked for" );
      return;
   }
   adapter_.owner_.onRoot( exportId, nullptr );
}

/// The peer wants a member from its instantiation on.
void
In::sendAgain( Wire::Decoder & body ) {
   uint32_t id;
   uint16_t attribute;
   if( !body.u32( id ) || !body.u16( attribute ) ) return;
   Out & out = adapter_.out_;
   Sa * sa = id < out.flows_.size() ? out.flows_[id] : nullptr;
   const AttributeRow * row = sa && sa->entity_ ? sa->plan_.row( attribute ) : nullptr;
   if( !row || !row->collection || !row->has( ownsMembers ) ) {
      body.skip( body.left() ); // it went meanwhile
      return;
   }
   Scratch scratch;
   const ValueOps & keyOps = *row->keyType->values;
   void * key = scratch.make( keyOps );
   if( !keyOps.decode( body, key ) ) return;
   if( const PtrInterface * found = row->collection->find( sa->entity_, key ) ) {
      if( Sa * member = adapter_.adaptorOf( *static_cast< const Entity * >( found ) ) ) {
         member->detach();
      }
   }
   sa->markDirty( *row, key );
}

/// The peer, which may write, tells its flow for an instance that it has from us.
void
In::bindToPeer( Wire::Decoder & body ) {
   FlowName theirs;
   uint32_t ours;
   if( !flowName( body, theirs ) || !body.u32( ours ) ) return;
   const WireType * wire = wireType( body );
   if( !wire ) return;
   Out & out = adapter_.out_;
   flowIs( theirs, *wire );
   if( !theirs.id || ours >= out.flows_.size() ) {
      body.fail( "a flow that was announced" );
      return;
   }
   Sa * sa = out.flows_[ours];
   if( !sa || !sa->entity_ ) return; // it went meanwhile
   if( !sa->is( Sa::fromPeer ) ) {
      body.fail( "an entity that may be written" );
      return;
   }
   if( wire->type == sa->entity_->fwkType() ) bind( theirs.id, *sa );
}

// -- Records of entities ----------------------------------------------------------------------

/// Runs what calls mutators. What they and their notifiees throw is counted and traced, and is
/// no fault of the stream's.
template< class Change >
bool
In::guarded( Change change ) {
   try {
      change();
      return true;
   } catch( const std::exception & e ) {
      lastRefusal_ = e.what();
   } catch( ... ) {
      lastRefusal_ = "an exception that is none of the standard library's";
   }
   ++refused_;
   return false;
}

template< class Change >
bool
In::change( Sa & sa, const AttributeRow & row, const void * key, const void * value, bool instance,
            Change change ) {
   Handles handles( sa, row, key, value, instance );
   return guarded( change );
}

/// What this end wrote and the owner has not seen yet counts more than what the owner said.
bool
In::mayApply( Sa & sa, const AttributeRow & row, const void * key ) {
   return !sa.is( Sa::toOwner ) || !sa.awaitsOwner( row, key );
}

/// A write of the peer's was refused: it gets what stands here.
void
In::refusedIs( Sa & sa, const AttributeRow & row, const void * key ) {
   if( sa.entity_ && sa.is( Sa::fromPeer ) ) sa.markDirty( row, key );
}

void
In::entityRecord( Flow & flow, const FrameHeader & header, Wire::Decoder & body ) {
   Sa::Ptr sa( flow.sa );
   const WireType & type = *flow.type;
   if( header.kind == Kind::state ) {
      applyState( *sa, type, body );
      return;
   }
   const AttributeRow * row = sa->plan_.row( header.attribute );
   if( !row || ( !type.same && !std::binary_search( type.agreed.begin(), type.agreed.end(),
                                                    header.attribute ) ) ) {
      body.skip( body.left() ); // the peer knows more than we do
      return;
   }
   switch( header.kind ) {
   case Kind::beginWhole:
   case Kind::endWhole:
      if( body.left() || !row->collection ) {
         body.fail( "a collection and nothing more" );
      } else if( header.kind == Kind::beginWhole ) {
         beginWhole( *sa, *row );
      } else {
         endWhole( *sa, *row );
      }
      return;
   default:
      break;
   }
   const uint8_t * start = body.at();
   size_t size = body.left();
   std::string_view key;
   bool complete = true;
   if( !row->collection ) {
      if( header.kind != Kind::value ) {
         body.fail( "an attribute's value" );
         return;
      }
      complete = applyValue( *sa, *row, body );
   } else if( header.kind == Kind::instantiate || header.kind == Kind::adopt ) {
      complete = applyInstance( *sa, *row, header.kind, body, key );
   } else {
      complete = applyMember( *sa, *row, header.kind, body, key );
   }
   if( body.failed() ) return;
   if( complete ) {
      dropHeld( header.flow, header.attribute, key );
   } else {
      hold( header, key, start, size );
   }
}

In::Reference
In::readReference( Wire::Decoder & body, Entity *& target ) {
   uint8_t tag;
   target = nullptr;
   if( !body.u8( tag, "a reference" ) ) return Reference::null;
   if( tag == 0 ) return Reference::null;
   if( tag == 1 ) {
      uint32_t id;
      if( !body.u32( id, "a flow's number" ) ) return Reference::null;
      if( id == 0 || id >= flows_.size() || !flows_[id].type ) {
         body.fail( "a flow that was announced" );
         return Reference::null;
      }
      if( flows_[id].sa ) target = flows_[id].sa->entity();
      return target ? Reference::found : Reference::absent;
   }
   if( tag == 2 ) {
      target = EntityUriPath::resolve( adapter_.root(), body );
      return target ? Reference::found : Reference::absent;
   }
   body.fail( "a kind of reference" );
   return Reference::null;
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
      Reference reference = readReference( body, target );
      if( body.failed() ) return true;
      if( reference == Reference::absent ) return false;
      if( target && !target->fwkType()->isA( *row.type ) ) {
         body.fail( "a reference to an entity of the attribute's type" );
         return true;
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
   struct Item {
      const AttributeRow * row;
      const void * value; // null: to be held
      const uint8_t * bytes;
      uint32_t size;
   };
   Scratch scratch;
   std::vector< Item > items;
   // All of it is read before any of it is applied.
   while( body.left() ) {
      uint16_t id;
      uint32_t size;
      const uint8_t * bytes;
      if( !body.u16( id ) || !body.u32( size ) ) return;
      size_t offset = body.offset();
      if( !body.bytes( bytes, size, "a value of that length" ) ) return;
      const AttributeRow * row = sa.plan_.row( id );
      bool agreed = type.same || std::binary_search( type.agreed.begin(), type.agreed.end(), id );
      if( !row || row->collection || !agreed ) continue;
      Wire::Decoder in( bytes, size );
      Item item{ row, nullptr, bytes, size };
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
         Reference reference = readReference( in, target );
         if( !in.failed() && target && !target->fwkType()->isA( *row->type ) ) {
            in.fail( "a reference to an entity of the attribute's type" );
         }
         if( !in.failed() && reference != Reference::absent && in.left() ) {
            in.fail( "the end of the value" );
         }
         if( in.failed() ) {
            body.failAt( in.expected(), offset + in.failedAt() );
            return;
         }
         if( reference != Reference::absent ) item.value = scratch.pointer( target );
      }
      items.push_back( item );
   }
   Entity::Ptr entity( sa.entity_ );
   for( const Item & item : items ) {
      if( !sa.entity_ ) return; // a reaction removed it
      if( !item.value ) {
         FrameHeader header{};
         header.flow = sa.flowIn_;
         header.attribute = item.row->id;
         header.kind = Kind::value;
         hold( header, {}, item.bytes, item.size );
         continue;
      }
      dropHeld( sa.flowIn_, item.row->id, {} );
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
      Reference reference = readReference( body, target );
      if( body.failed() ) return true;
      if( reference == Reference::absent ) return false;
      if( body.left() ) {
         body.fail( "the end of the record" );
         return true;
      }
      mention( sa, row, key );
      if( !target ) return true; // one that stands in no tree cannot be told of
      if( !target->fwkType()->isA( *row.type ) ) {
         body.fail( "a reference to an entity of the collection's type" );
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
   if( row.has( keyIsField ) && !hasKey( row, value, key ) ) {
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

/// Whether the value, keyed by one of its fields, has this key.
bool
In::hasKey( const AttributeRow & row, const void * value, const void * key ) {
   for( const AttributeRow & field : row.type->attributes ) {
      if( field.has( isKey ) ) {
         return row.keyType->values->equal( field.address( value ), key );
      }
   }
   return true;
}

bool
In::readArguments( const Plan & plan, Wire::Decoder & body, Scratch & scratch,
                   std::vector< const void * > & arguments ) {
   for( const AttributeRow * row : plan.parameters ) {
      if( row->stored->decode ) {
         void * value = scratch.make( *row->stored );
         if( !row->stored->decode( body, value ) ) return false;
         arguments.push_back( value );
         continue;
      }
      Entity * target;
      Reference reference = readReference( body, target );
      if( body.failed() || reference == Reference::absent ) return false;
      if( target && !target->fwkType()->isA( *row->type ) ) {
         return body.fail( "a reference to an entity of the argument's type" );
      }
      arguments.push_back( scratch.pointer( target ) );
   }
   return true;
}

/// Whether an instance made with these arguments would be what is there.
bool
In::isSame( const Entity & entity, const Plan & plan,
            const std::vector< const void * > & arguments ) {
   if( entity.fwkType() != &plan.type ) return false;
   for( size_t i = 0; i < plan.parameters.size(); ++i ) {
      const AttributeRow & row = *plan.parameters[i];
      if( !row.stored->equal( row.address( &entity ), arguments[i + 1] ) ) return false;
   }
   return true;
}

bool
In::repeats( FlowName name, const WireType & type ) {
   const uint32_t id = name.id;
   if( id && id < flows_.size() && flows_[id].type == &type && flows_[id].sa ) {
      flows_[id].sequence = name.sequence;
      return true;
   }
   flowIs( name, type );
   return false;
}

bool
In::applyInstance( Sa & sa, const AttributeRow & row, Kind kind, Wire::Decoder & body,
                   std::string_view & keyBytes ) {
   if( !row.has( ownsMembers ) ) {
      body.fail( "a member of a collection that owns none" );
      return true;
   }
   Scratch scratch;
   const ValueOps & keyOps = *row.keyType->values;
   void * key = scratch.make( keyOps );
   bool read = false;
   FlowName flow{};
   const uint8_t * start = body.at();
   bool keyAccepted = guarded( [&] { read = keyOps.decode( body, key ); } );
   if( body.failed() ) return true;
   if( !keyAccepted ) {
      // The type itself refuses the key; what follows cannot be found without it.
      body.skip( body.left() );
      return true;
   }
   keyBytes = bytesBetween( start, body.at() );
   if( !flowName( body, flow ) ) return true;
   const uint32_t id = flow.id;
   const WireType * wire = wireType( body );
   if( !wire ) return true;
   if( wire->type && !wire->type->isA( *row.type ) ) {
      body.fail( "a type that the collection holds" );
      return true;
   }
   const bool inDirectory = row.id == entityAttr;
   if( !wire->type || ( !inDirectory && wire->type != row.type ) ||
       ( inDirectory && !wire->type->isNamed ) ) {
      body.skip( body.left() );
      repeats( flow, *wire );
      return true;
   }
   Plan & plan = adapter_.plan( *wire->type );
   const Name name = inDirectory ? Name( static_cast< String * >( key )->view() ) : Name();
   std::vector< const void * > arguments{ inDirectory ? &name : key };
   bool present = false;
   bool accepted = guarded( [&] { present = readArguments( plan, body, scratch, arguments ); } );
   if( body.failed() ) return true;
   if( !accepted ) {
      body.skip( body.left() );
      repeats( flow, *wire );
      return true;
   }
   if( !present ) {
      // An argument refers to what is not there. The flow is asked for again when it comes.
      body.skip( body.left() );
      repeats( flow, *wire );
      return false;
   }
   if( body.left() ) {
      body.fail( "the end of the record" );
      return true;
   }
   mention( sa, row, key );
   const PtrInterface * found = row.collection->find( sa.entity_, key );
   auto * member = const_cast< Entity * >( static_cast< const Entity * >( found ) );
   if( repeats( flow, *wire ) && member && flows_[id].sa->entity() == member ) return true;
   flowIs( flow, *wire );
   if( sa.is( Sa::toOwner ) && sa.awaitsOwner( row, key ) ) {
      // Ours counts: gone, or another instance that the owner will take or refuse.
      if( !member ) return true;
      kind = Kind::adopt;
   }
   const bool same = member && isSame( *member, plan, arguments );
   if( member && sa.is( Sa::fromPeer ) && !same ) {
      // The owner's stands; the peer learns of it.
      ++refused_;
      lastRefusal_ =
         "'" + EntityUriPath( *member ).text() + "' exists with other constructor arguments";
      sa.markDirty( row, key );
      return true;
   }
   if( member && ( !same || kind == Kind::instantiate ) && !sa.is( Sa::fromPeer ) ) {
      remove( sa, row, key );
      if( !sa.entity_ ) return true;
      found = row.collection->find( sa.entity_, key );
      member = const_cast< Entity * >( static_cast< const Entity * >( found ) );
   }
   if( !member ) {
      Entity::Ptr entity( sa.entity_ );
      if( inDirectory ) {
         Ptr< PtrInterface > made;
         if( guarded( [&] { made = wire->type->create( arguments.data() ); } ) ) {
            adapter_.childIs( *entity, Entity::Ptr( static_cast< Entity * >( made.ptr() ) ) );
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
   if( member->fwkType() != wire->type ) return true;
   Sa * child = sa.memberAdaptor( row, member );
   if( !child ) return true;
   if( sa.is( Sa::fromPeer ) && !child->announced_ ) {
      // The peer has it; what it lacks is our flow.
      child->cameFromPeer_ = true;
      bind( id, *child );
      sa.markDirty( row, key );
   } else {
      bind( id, *child );
   }
   return true;
}

// -- Collections as a whole -------------------------------------------------------------------

void
In::beginWhole( Sa & sa, const AttributeRow & row ) {
   std::erase_if( wholes_, [&]( auto & w ) { return w.sa.ptr() == &sa && w.row == &row; } );
   if( row.collection->count( sa.entity_ ) == 0 ) return; // nothing can be left over
   wholes_.push_back( { Sa::Ptr( &sa ), &row, {} } );
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
         if( whole->mentioned.find( key ) == whole->mentioned.end() ) {
            sweep.keys.emplace( AnyKey( *row.keyType->values, key ), true );
         }
         return ops.after( sa.entity_, key );
      } );
   }
   wholes_.erase( whole );
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

void
In::hold( const FrameHeader & header, std::string_view key, const uint8_t * body, size_t size ) {
   if( held_.size() >= quota.held ) malformed( header, "fewer references that wait", 0 );
   held_[{ header.flow, header.attribute, std::string( key ) }] = {
      header.kind, std::vector< uint8_t >( body, body + size )
   };
}

/// A newer record says what the attribute, or member, is.
void
In::dropHeld( uint32_t flow, uint16_t attribute, std::string_view key ) {
   if( !held_.empty() ) held_.erase( { flow, attribute, std::string( key ) } );
}

void
In::retryHeld() {
   auto waiting = std::move( held_ );
   held_.clear();
   for( auto & [place, held] : waiting ) {
      const auto & [id, attribute, key] = place;
      Flow & flow = flows_[id];
      if( !flow.sa ) continue;
      FrameHeader header{};
      header.flow = id;
      header.attribute = attribute;
      header.kind = held.kind;
      Wire::Decoder body( held.body.data(), held.body.size() );
      if( held.kind == Kind::instantiate || held.kind == Kind::adopt ) {
         // Asked for again with all that was passed over meanwhile.
         if( argumentsThere( *flow.sa, attribute, body ) ) {
            again( id, attribute, key );
         } else {
            held_[place] = std::move( held );
         }
         continue;
      }
      entityRecord( flow, header, body );
   }
}

bool
In::argumentsThere( Sa & sa, uint16_t attribute, Wire::Decoder & body ) {
   Scratch scratch;
   const ValueOps & keyOps = *sa.plan_.row( attribute )->keyType->values;
   FlowName flow;
   if( !keyOps.decode( body, scratch.make( keyOps ) ) || !flowName( body, flow ) ) return false;
   const WireType * wire = wireType( body );
   std::vector< const void * > arguments;
   return wire && readArguments( adapter_.plan( *wire->type ), body, scratch, arguments );
}

void
In::again( uint32_t flow, uint16_t attribute, std::string_view key ) {
   Wire::Encoder body = adapter_.out_.control( againControl );
   body.u32( flow );
   body.u16( attribute );
   body.bytes( key.data(), key.size() );
   adapter_.out_.controlEnd();
}

} // namespace NboAttrLog

// -- Directories ------------------------------------------------------------------------------

void
StreamAdapter::childIs( Entity & directory, const Entity::Ptr & child ) {
   const AttributeRow & row = *Entity::zekTypeDescriptor_.attribute( entityAttr );
   const String key( child->name().view() );
   auto place = [&] { directory.entityIs( child ); };
   if( Sa * sa = adaptorOf( directory ) ) {
      in_.change( *sa, row, &key, child.ptr(), true, place );
   } else {
      in_.guarded( place );
   }
}

void
StreamAdapter::childDel( Entity & directory, const Name & name ) {
   const AttributeRow & row = *Entity::zekTypeDescriptor_.attribute( entityAttr );
   const String key( name.view() );
   if( Sa * sa = adaptorOf( directory ) ) {
      in_.remove( *sa, row, &key );
   } else {
      in_.guarded( [&] { directory.entityDel( key ); } );
   }
}

} // namespace Zek
