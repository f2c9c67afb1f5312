#include "framework/attrlog/InParts.h"

#include "framework/Generic.h"
#include "framework/Interner.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <utility>

namespace Zek {

using Sa = Entity::ZekNboAttrLogSa;

namespace NboAttrLog {

// -- Inbound: frames --------------------------------------------------------------------------

In::In( StreamAdapter & adapter ) : adapter_( adapter ) {}
In::~In() = default;

void
In::reset() {
   buffer_.clear();
   late_.clear();
   applied_ = 0;
   closed_ = false;
   records_ = acked_ = acknowledged_ = 0;
   types_.clear();
   flows_.clear();
   held_.clear();
   wanted_.clear();
   fences_.clear();
   passedOver_.clear();
   heldBytes_ = wantedBytes_ = nameBytes_ = 0;
   wholes_.clear();
   sweeps_.clear();
   roots_.clear();
   openDumps_ = reserved_ = 0;
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

constexpr int framesAhead = 8;

} // namespace

void
In::receive( const void * bytes, size_t count ) {
   if( count ) std::memcpy( room( count ), bytes, count );
   arrived( count );
}

void
In::arrived( size_t count ) {
   if( closed_ ) throw StreamException( "the stream was closed by a malformed record" );
   incoming().written( count );
   if( receiving_ ) return;
   struct Receiving {
      In & in;
      explicit Receiving( In & receiver ) : in( receiver ) {
         in.receiving_ = true;
         // What the owner writes behind an acknowledgement must know all of what is acknowledged:
         // nothing is written while a record is half applied.
         if( in.adapter_.peerWrites_ ) in.adapter_.out_.isHeldIs( true );
      }
      ~Receiving() {
         in.receiving_ = false;
         in.buffer_.consume( std::exchange( in.applied_, 0 ) );
         in.adapter_.out_.isHeldIs( false );
      }
   };
   std::optional< Receiving > receiving( std::in_place, *this );
   for( bool done = false; !done; ) {
      try {
         applyAll();
         done = true;
      } catch( const Over & ) {
         // Perhaps there is another connection already.
         takeLate();
      } catch( const std::bad_alloc & ) {
         // Of the record that was applied something may be missing here.
         closed_ = true;
         throw StreamException( "out of memory at record " + std::to_string( records_ ) );
      }
   }
   receiving.reset();
   // Else it goes ahead of what is written next.
   if( adapter_.peerWrites_ && adapter_.out_.hasSufficientBuffer() ) acknowledge();
}

/// Applies every record that is complete.
void
In::applyAll() {
   const size_t names = Interner::bytes();
   size_t ahead = 0;
   for( int i = 0; i < framesAhead; ++i ) fetchAhead( ahead );
   while( buffer_.size() - applied_ >= FrameHeader::size ) {
      const uint8_t * frame = buffer_.data() + applied_;
      const auto header = FrameHeader::of( frame );
      if( FrameHeader::checkOf( frame, static_cast< uint32_t >( records_ ) ) != header.check ) {
         malformed( FrameHeader{}, "the check of the next record's header", FrameHeader::checked );
      }
      const uint32_t longest = adapter_.says_ == Says::greeting ? greetingBytes : quota.recordBytes;
      if( header.length < FrameHeader::size + 2 || header.length > longest ) {
         malformed( header, "a length of 22 bytes up to the quota", 0 );
      }
      if( buffer_.size() - applied_ < header.length ) break;
      if( Wire::checksum( frame + FrameHeader::size, header.length - FrameHeader::size,
                          header.check ) != header.checksum ) {
         malformed( header, "the checksum of the record", FrameHeader::checked + 4 );
      }
      if( frame[FrameHeader::size] != openToken ) {
         malformed( header, "the opening token", FrameHeader::size );
      }
      if( frame[header.length - 1] != closeToken ) {
         malformed( header, "the closing token", header.length - 1 );
      }
      ++records_;
      fetchAhead( ahead );
      Wire::Decoder body( frame + FrameHeader::size + 1, header.length - FrameHeader::size - 2 );
      if( !applyUnheard( header, body ) ) {
         callOut( [&] { record( header, body ); } );
         if( body.failed() ) {
            malformed( header, body.expected(), FrameHeader::size + 1 + body.failedAt() );
         }
         takeLate();
      }
      applied_ += header.length;
   }
   nameBytes_ += Interner::bytes() - names;
   if( nameBytes_ > quota.nameBytes ) malformed( FrameHeader{}, "fewer names", 0 );
   // While a dump goes on, no oftener than pays.
   if( bound_ && ( !openDumps_ || bound_ >= held_.size() ) ) retryHeld();
}

/// What came meanwhile goes behind what there is.
void
In::takeLate() {
   if( late_.empty() ) return;
   buffer_.append( late_.data(), late_.size() );
   late_.clear();
}

/// Frames say whom they concern: while one is applied, the entity of one behind it is on its way
/// from memory.
inline void
In::fetchAhead( size_t & ahead ) const {
   if( ahead + FrameHeader::size > buffer_.size() ) return;
   const uint8_t * frame = buffer_.data() + ahead;
   const auto length = Wire::numberAt< uint32_t >( frame ),
              flow = Wire::numberAt< uint32_t >( frame + 4 );
   if( flow < flows_.size() && flows_[flow].entity ) {
      auto * entity = reinterpret_cast< const char * >( flows_[flow].entity );
      __builtin_prefetch( entity );
      __builtin_prefetch( entity + 64 );
   }
   // Nothing has been checked yet: what does not fit is met again where it is.
   const size_t left = buffer_.size() - ahead;
   ahead += length < FrameHeader::size || length > left ? left : length;
}

void
In::acknowledge() {
   if( !owesAcknowledgement() ) return;
   acknowledged_ = records_;
   Wire::Encoder body = adapter_.out_.control( ackControl );
   body.u64( records_ );
   adapter_.out_.controlEnd();
}

/// Whether records for the entity are applied: it is the peer's, or the peer may write it.
bool
In::takes( const Sa * sa ) {
   if( !sa ) return false;
   if( sa->flags_ & ( Sa::readOnly | Sa::toOwner | Sa::fromPeer ) ) return true;
   ++refused_;
   lastRefusal_ = "'" + EntityUriPath( *sa->entity_ ).text() + "' is not mounted for writing";
   return false;
}

void
In::record( const FrameHeader & header, Wire::Decoder & body ) {
   if( header.flags ) malformed( header, "known flags", 11 );
   if( header.kind > Kind::state ) malformed( header, "a kind of record", 10 );
   if( adapter_.says_ != Says::state ) [[unlikely]] {
      checkRole( header );
   }
   if( header.flow == 0 ) {
      control( header.attribute, body );
      if( !body.failed() && body.left() ) body.fail( "the end of the record" );
      return;
   }
   if( header.flow >= flows_.size() || !flows_[header.flow].type ) {
      malformed( header, "a flow that was announced", 4 );
   }
   Flow & flow = flows_[header.flow];
   if( header.kind == Kind::instantiate || header.kind == Kind::adopt ) {
      instanceRecord( header, body );
   } else if( takes( flow.sa ) ) {
      entityRecord( flow, header, body );
   }
}

/// Before anything of the record is looked at.
void
In::checkRole( const FrameHeader & header ) {
   const bool isGreeting = header.flow == 0 && header.attribute == firstUserControl;
   if( adapter_.says_ == Says::greeting ) {
      if( !isGreeting ) malformed( header, "a greeting before all else", 4 );
      return;
   }
   if( header.flow == 0 &&
       ( header.attribute >= firstUserControl || header.attribute == ackControl ||
         header.attribute == againControl ) ) {
      return;
   }
   malformed( header, "a mount for writing before", 4 );
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
      askForPassedOver();
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
      callOut( [&] { adapter_.owner_.onDump( id, false ); } );
      return;
   }
   case endControl: {
      uint32_t id;
      if( !body.u32( id ) ) return;
      if( !openDumps_ ) {
         body.fail( "the end of a dump that began" );
         return;
      }
      if( --openDumps_ == 0 ) {
         retryHeld(); // and so mention what waited
         sweepAll();
      }
      callOut( [&] { adapter_.owner_.onDump( id, true ); } );
      return;
   }
   default:
      break;
   }
   if( message < firstUserControl ) {
      body.fail( "a control message" );
      return;
   }
   callOut( [&] { adapter_.owner_.onControl( message, body ); } );
}

/// Whether a state has what it has here, in the same order.
bool
In::WireType::isAsIn( const Plan & plan ) const {
   auto at = state.begin();
   for( const auto * rows : { &plan.plain, &plan.collections } ) {
      for( const AttributeRow * row : *rows ) {
         if( at == state.end() || ( at++ )->row != row ) return false;
      }
   }
   return at == state.end();
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
   if( count > body.left() / 7 || count > quota.attributes ) {
      body.fail( "as many attributes as were counted, up to the quota" );
      return;
   }
   WireType wire;
   wire.type = typeNode( name );
   if( wire.type && !Plan::covers( *wire.type ) ) wire.type = nullptr;
   const Plan * plan = wire.type ? &adapter_.plan( *wire.type ) : nullptr;
   for( ; count; --count ) {
      uint16_t id;
      uint32_t signature;
      uint8_t size;
      if( !body.u16( id ) || !body.u32( signature ) || !body.u8( size ) ) return;
      const AttributeRow * row = plan ? plan->row( id ) : nullptr;
      if( row && ( Plan::signature( *row ) != signature || Plan::sizeInState( *row ) != size ) ) {
         row = nullptr;
      }
      wire.state.push_back( { row, size } );
      if( row ) wire.agreed.push_back( id );
   }
   wire.same = plan && plan->fingerprint == fingerprint && wire.isAsIn( *plan );
   std::sort( wire.agreed.begin(), wire.agreed.end() );
   wire.agreed.erase( std::unique( wire.agreed.begin(), wire.agreed.end() ), wire.agreed.end() );
   for( uint16_t id : wire.agreed ) {
      const AttributeRow & row = *adapter_.plan( *wire.type ).row( id );
      if( row.collection || !row.stored->hasWireForm() ) continue;
      if( wire.values.empty() ) wire.firstValue = id;
      wire.values.resize( id - wire.firstValue + 1u );
      wire.values.back() = &row;
   }
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
   if( !body.u32( name.id, "a flow's number" ) || !body.u32( name.generation ) ) return false;
   // They are given in order: the table grows with what was said, not with what numbers say.
   if( name.id > quota.flows || name.id > flows_.size() + 64 ) {
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
   dropHeld( name.id, 0, UINT16_MAX ); // it was for another
   const bool known = isKnown( name, type );
   flow.saIs( nullptr );
   flow.type = &type;
   if( known ) return;
   flow.generation = name.generation;
   flow.asked = false;
}

void
In::Flow::saIs( Sa * bound ) {
   sa = bound;
   const bool counts =
      sa && sa->flags() & ( Sa::readOnly | Sa::fromPeer ) && !sa->is( Sa::toOwner );
   entity = counts ? sa->entity() : nullptr;
   notifiee = counts ? sa->zekReactor() : nullptr;
}

void
In::flagsChanged( Sa & sa ) {
   flows_[sa.flowIn_].saIs( &sa );
}

void
In::bind( uint32_t id, Sa & sa ) {
   if( !id ) return;
   unbind( sa );
   flows_[id].saIs( &sa );
   sa.flowIn_ = id;
   ++bound_;
   if( sa.is( Sa::toOwner ) ) sa.boundToOwner();
}

void
In::unbind( Sa & sa ) {
   if( !sa.flowIn_ ) return;
   flows_[sa.flowIn_].saIs( nullptr );
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
   if( nameText.empty() ||
       !adapter_.owner_.acceptsRoot( exportId, wire->type, nameText, &flags ) ) {
      body.fail( "the root of an export that was asked for" );
      return;
   }
   const Name name( nameText );
   Scratch scratch;
   std::vector< const void * > arguments{ &name };
   Plan & plan = adapter_.plan( *wire->type );
   bool present = false;
   if( !guarded( [&] { present = readArguments( plan, body, scratch, arguments ); } ) ) {
      body.skip( body.left() );
      repeats( flow, *wire );
      return;
   }
   if( !present ) {
      if( !body.failed() ) body.fail( "a root without references that wait" );
      return;
   }
   if( body.left() ) {
      body.fail( "the end of the record" );
      return;
   }
   if( repeats( flow, *wire ) ) {
      flows_[flow.id].sa->flagsAdd( flags );
      callOut( [&] { adapter_.owner_.onRoot( exportId, flows_[flow.id].sa->entity() ); } );
      return;
   }
   Entity::Ptr directory;
   callOut( [&] { directory = adapter_.owner_.rootDirectory( exportId ); } );
   if( !directory ) return;
   Entity::Ptr root = directory->entity( String( nameText ) );
   const bool same = root && isSame( *root, plan, arguments );
   if( Sa * sa = adapter_.adaptorOf( *directory ) ) {
      const String key( nameText );
      if( answersLater( *sa, *Entity::zekTypeDescriptor_.attribute( entityAttr ), &key, same ) ) {
         passedOver( *sa, *Entity::zekTypeDescriptor_.attribute( entityAttr ), &key );
         return;
      }
   }
   if( !same ) {
      root = wire->type->genericIf->newEntityForAttrLogUnchecked( arguments.data() );
   }
   // First: who hears of it may end the connection, and it is a copy all the same.
   const Sa::Ptr rootSa( adapter_.adaptorIs( *root, flags ) );
   if( !same ) adapter_.childIs( *directory, root );
   if( rootSa && rootSa->entity_ ) bind( flow.id, *rootSa );
   callOut( [&] { adapter_.owner_.onRoot( exportId, root.ptr() ); } );
}

void
In::rootWent( Wire::Decoder & body ) {
   uint32_t exportId;
   if( !body.u32( exportId ) ) return;
   uint32_t flags = 0;
   if( !adapter_.owner_.acceptsRoot( exportId, nullptr, {}, &flags ) ) {
      body.fail( "an export that was asked for" );
      return;
   }
   callOut( [&] { adapter_.owner_.onRoot( exportId, nullptr ); } );
}

/// The peer wants a member from its instantiation on; or the value of an attribute or under a key,
/// or without a key all of a collection.
void
In::sendAgain( Wire::Decoder & body ) {
   uint32_t id;
   uint16_t attribute;
   if( !body.u32( id ) || !body.u16( attribute ) ) return;
   Out & out = adapter_.out_;
   Sa * sa = id < out.flows_.size() ? out.flows_[id] : nullptr;
   const AttributeRow * row = sa && sa->entity_ ? sa->plan_.row( attribute ) : nullptr;
   Wire::Decoder keyBytes( body.at(), body.left() );
   body.skip( body.left() );
   // The flow may have ended meanwhile, and be another's.
   if( !row || !sa->announced_ || !sa->is( Sa::sends ) ) return;
   if( !row->collection ) {
      sa->markDirty( *row, nullptr );
      return;
   }
   if( !keyBytes.left() ) {
      sa->flow_->wholeIs( *row );
      out.queue( *sa->flow_ );
      return;
   }
   Scratch scratch;
   const ValueOps & keyOps = *row->keyType->values;
   void * key = scratch.make( keyOps );
   bool read = false;
   if( !guarded( [&] { read = keyOps.decode( keyBytes, key ); } ) || !read ) return;
   const PtrInterface * found = row->collection->find( sa->entity_, key );
   if( found && row->has( ownsMembers ) ) {
      if( Sa * member = adapter_.adaptorOf( *static_cast< const Entity * >( found ) ) ) {
         member->askedAgain_ = member->announced_;
      }
   }
   sa->markDirty( *row, key );
}

/// A flow of this end as the peer names it; null where the instance that it means has gone
/// meanwhile, or after a failure.
Sa *
In::ownFlow( Wire::Decoder & body ) {
   uint32_t id, generation;
   if( !body.u32( id, "a flow's number" ) || !body.u32( generation ) ) return nullptr;
   const auto & flows = adapter_.out_.flows_;
   if( id >= flows.size() ) {
      body.fail( "a flow that was announced" );
      return nullptr;
   }
   Sa * sa = flows[id];
   return sa && sa->flow_ && generation == sa->flow_->generation() ? sa : nullptr;
}

/// The peer, which may write, tells its flow for an instance that it has from us.
void
In::bindToPeer( Wire::Decoder & body ) {
   FlowName theirs;
   if( !flowName( body, theirs ) ) return;
   if( !theirs.id ) {
      body.fail( "a flow's number" );
      return;
   }
   Sa * sa = ownFlow( body );
   const WireType * wire = wireType( body );
   if( !wire ) return;
   // Either end may have made its instance anew: what the peer wrote to the one before, and passed
   // over meanwhile, changed nothing here.
   const bool another =
      sa && ( isKnown( theirs, *wire ) ? flows_[theirs.id].sa != sa : sa->flowIn_ != 0 );
   flowIs( theirs, *wire );
   if( !sa ) return; // it went meanwhile
   // It may be a member of what is still to be exported for writing: what is written before that
   // is refused.
   if( !adapter_.peerWrites_ ) {
      body.fail( "a mount for writing before" );
      return;
   }
   if( wire->type != sa->entity_->fwkType() ) return;
   bind( theirs.id, *sa );
   if( another ) sa->allDirtyIs();
}

} // namespace NboAttrLog
} // namespace Zek
