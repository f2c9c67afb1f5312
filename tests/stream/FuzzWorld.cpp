#include "tests/stream/FuzzWorld.h"

#include "framework/Relay.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <stdexcept>

namespace ipstate::test {

using namespace Zek;
using NboAttrLog::FrameHeader;

namespace {

constexpr size_t capacity = 4096;
constexpr const char * interfaces = "L3::Intf::Input::StatusDir";
constexpr size_t fixed = 4; // the length: not in a piece, nor the checks

void
require( bool holds, const std::string & what ) {
   if( holds ) return;
   std::fprintf( stderr, "%s\n", what.c_str() );
   std::abort();
}

const TypeDescriptor &
rootType( const Setup & setup ) {
   return *rootTypes()[setup.type % rootTypes().size()];
}

void
append( std::string & out, const PtrInterface * target ) {
   auto * entity = dynamic_cast< const Entity * >( target );
   out += entity ? entity->fullName().view() : "null";
}

void
appendMembers( std::string & out, const AttributeRow & row, const Entity & entity ) {
   const CollectionOps & ops = *row.collection;
   size_t count = 0;
   const PtrInterface * member = ops.first( &entity );
   while( member ) {
      ++count;
      member = withMemberKey( row, member, [&]( const void * key ) {
         row.keyType->values->append( key, out );
         require( ops.find( &entity, key ) == member, "a member is not under its key" );
         if( row.has( refersToMembers ) ) append( out, member );
         const void * value = ops.hasMemberValue() ? ops.memberValue( member ) : nullptr;
         if( value ) row.type->values->append( value, out );
         return ops.after( &entity, key );
      } );
   }
   require( count == ops.count( &entity ), "members are not as many as counted" );
}

void
append( std::string & out, const AttributeRow & row, const Entity & entity ) {
   if( row.has( abortsOnRead ) || row.kind == AttributeKind::callable ) return;
   if( row.collection ) {
      appendMembers( out, row, entity );
   } else if( !row.stored ) {
   } else if( row.isStored() && row.stored->hasWireForm() ) {
      row.stored->append( row.address( &entity ), out );
   } else if( row.isStored() ) {
      append( out, *static_cast< PtrInterface * const * >( row.address( &entity ) ) );
   } else if( row.isComputed() ) {
      std::unique_ptr< std::byte[] > memory( new std::byte[row.stored->size] );
      row.read( &entity, memory.get() );
      if( row.stored->hasWireForm() ) {
         row.stored->append( memory.get(), out );
      } else {
         append( out, *reinterpret_cast< PtrInterface * const * >( memory.get() ) );
      }
      row.stored->destroy( memory.get() );
   }
}

/// Carries bytes between the two until neither has any.
void
settle( Kelmo::Session & one, Kelmo::Session & other, std::string * toOne = nullptr ) {
   auto carry = []( Kelmo::Session & from, Kelmo::Session & to, std::string * record ) {
      const std::string bytes( from.output().view() );
      if( record ) *record += bytes;
      from.carried( bytes.size() );
      to.receive( bytes.data(), bytes.size() );
   };
   do {
      carry( other, one, toOne );
      carry( one, other, nullptr );
   } while( !one.output().empty() || !other.output().empty() );
}

/// All that an entity says of itself.
void
append( std::string & out, const Entity & entity ) {
   out += entity.fullName().view();
   for( const TypeDescriptor * type = entity.fwkType(); type; type = type->base ) {
      for( const AttributeRow & row : type->attributes ) append( out, row, entity );
   }
}

} // namespace

// -- Inputs -----------------------------------------------------------------------------------

Setup
Setup::of( std::string_view input ) {
   Setup setup;
   if( input.size() > 0 ) setup.flags = static_cast< uint8_t >( input[0] );
   if( input.size() > 1 ) setup.type = static_cast< uint8_t >( input[1] );
   if( input.size() > 2 ) setup.seed = static_cast< uint8_t >( input[2] );
   return setup;
}

std::vector< std::string >
piecesOf( std::string_view stream ) {
   std::vector< std::string > pieces;
   while( stream.size() >= FrameHeader::size ) {
      const uint32_t length = FrameHeader::of( stream.data() ).length;
      require( length <= stream.size(), "half a record was recorded" );
      std::string_view frame = stream.substr( 0, length );
      stream.remove_prefix( length );
      std::string piece( 1, '\0' );
      piece += frame.substr( fixed, FrameHeader::checked - fixed );
      piece += frame.substr( FrameHeader::size + 1, length - FrameHeader::size - 2 );
      pieces.push_back( std::move( piece ) );
   }
   return pieces;
}

std::string
frameOf( std::string_view piece, uint64_t number ) {
   if( piece.empty() ) return {};
   const auto steps = static_cast< uint8_t >( piece[0] );
   piece.remove_prefix( 1 );
   if( steps & isRaw ) return std::string( piece );
   constexpr size_t rest = FrameHeader::checked - fixed;
   if( piece.size() < rest ) return {};
   std::string frame( fixed, '\0' );
   frame += piece.substr( 0, rest );
   frame.resize( FrameHeader::size );
   frame += char( NboAttrLog::openToken );
   frame += piece.substr( rest );
   frame += char( NboAttrLog::closeToken );
   correct( frame, number );
   return frame;
}

void
correct( std::string & frame, uint64_t number, size_t length ) {
   auto put = [&frame]( size_t at, uint32_t value ) {
      value = Wire::networkOrder( value );
      std::memcpy( &frame[at], &value, sizeof value );
   };
   put( 0, static_cast< uint32_t >( length ? length : frame.size() ) );
   const uint32_t check = FrameHeader::checkOf( reinterpret_cast< uint8_t * >( frame.data() ),
                                                static_cast< uint32_t >( number ) );
   put( FrameHeader::checked, check );
   put( FrameHeader::checked + 4, Wire::checksum( frame.data() + FrameHeader::size,
                                                  frame.size() - FrameHeader::size, check ) );
}

std::vector< std::string >
split( std::string_view input ) {
   std::vector< std::string > parts;
   parts.emplace_back( input.substr( 0, Setup::size ) );
   input.remove_prefix( parts.front().size() );
   while( !input.empty() ) {
      const size_t end = input.find( mark );
      parts.emplace_back( input.substr( 0, end ) );
      input = end == input.npos ? "" : input.substr( end + mark.size() );
   }
   return parts;
}

std::string
joined( const std::vector< std::string > & parts ) {
   std::string input = parts.front();
   for( size_t i = 1; i < parts.size(); ++i ) {
      if( i > 1 ) input += mark;
      input += parts[i];
   }
   return input;
}

// -- Watching ---------------------------------------------------------------------------------

/// Reads what it is told of, as any agent does; throws and changes things where the setup says so.
class FuzzWorld::Watcher final : public AttributeSink {
 public:
   Watcher( FuzzWorld & world, const Entity & entity ) : world_( world ), entity_( &entity ) {
      relay_ = relayOf( entity, *this );
      relay_->isWeakNotifieeIs( true );
   }
   ~Watcher() override { relay_->notifierIs( nullptr ); }
   void onAttribute( const AttributeRow & row ) override { react( row ); }
   void onMember( const AttributeRow & row, const void * key ) override {
      if( row.has( ownsMembers ) ) {
         const PtrInterface * member = row.collection->find( entity_, key );
         if( member ) world_.watch( *static_cast< const Entity * >( member ) );
      }
      react( row );
   }
   void onNotificationException() override { throw; }

 private:
   void react( const AttributeRow & row ) {
      std::string text;
      append( text, row, *entity_ );
      if( !world_.reactions_ || !world_.random_.oneIn( 4 ) ) return;
      --world_.reactions_;
      if( world_.setup_.is( Setup::reacts ) ) {
         const bool same = world_.random_.oneIn( 2 ) && ( row.isWritable() || row.collection );
         mutate( world_.random_, Entity::Ptr( const_cast< Entity * >( entity_ ) ),
                 same ? &row : nullptr, false );
      }
      if( world_.setup_.is( Setup::throws ) && world_.random_.oneIn( 2 ) ) {
         throw std::runtime_error( "a reaction" );
      }
   }

   FuzzWorld & world_;
   const Entity * entity_;
   Ptr< PtrInterface::NotifieeConst > relay_;
};

void
FuzzWorld::watch( const Entity & entity ) {
   if( watchers_.size() >= 64 || !entity.fwkType()->hasNotifier ) return;
   watchers_.push_back( std::make_unique< Watcher >( *this, entity ) );
}

// -- Worlds -----------------------------------------------------------------------------------

FuzzWorld::FuzzWorld( Setup setup ) : setup_( setup ), random_( setup.seed ) {
   if( setup_.is( Setup::owner ) || setup_.is( Setup::filled ) ) fill( *tree_, setup_.seed );
   forEachEntity( *tree_, [&]( const Entity & entity ) { watch( entity ); } );
   connect();
}

FuzzWorld::~FuzzWorld() {
   watchers_.clear();
}

/// Members of the setup's type, and of types that they may refer to.
void
FuzzWorld::fill( Dir & tree, uint64_t seed ) const {
   Random random( seed );
   Dir::Ptr all = tree.dirIs( "all" );
   const char * const others[] = { "Ip::Input::Status", "Ip6::Input::Status",
                                   "L3::Intf::ConfigDir" };
   for( const char * type :
        { interfaces, others[seed % std::size( others )], rootType( setup_ ).fullName } ) {
      Entity::Ptr made = all->entity( String( type ) );
      if( !made ) made = all->entityIs( type, Name( type ) );
      for( int i = 0; i < 8; ++i ) mutate( random, *made, false );
   }
   for( int i = 0; i < 3; ++i ) mutate( random, *all, false );
}

void
FuzzWorld::mount() {
   auto add = [this]( const std::string & path, const char * type, const char * mode ) {
      session_->mount( Kelmo::Mount( String( path ), type, mode, Kelmo::MountFilter( false ) ) );
   };
   const char * mode = setup_.is( Setup::writes ) ? "w" : "r";
   const char * type = rootType( setup_ ).fullName;
   const std::string child = std::string( "all/" ) + type;
   if( setup_.is( Setup::narrow ) ) {
      add( child, type, mode );
      if( setup_.is( Setup::twice ) ) add( std::string( "all/" ) + interfaces, interfaces, "r" );
   } else {
      add( "all", "Zek::Dir", mode );
      if( setup_.is( Setup::twice ) ) add( child, type, "r" );
   }
}

void
FuzzWorld::connect() {
   if( setup_.is( Setup::owner ) || !session_ ) {
      session_ = std::make_unique< Kelmo::Session >( tree_, *this );
      if( !setup_.is( Setup::owner ) ) mount();
      NboAttrLog::Quota & quota = session_->adapter().nboAttrLogIn().quota;
      quota = {
         .recordBytes = 1 << 16, .flows = 1 << 13, .types = 64, .reserved = 1 << 12, .held = 256
      };
      session_->adapter().nboAttrLogOut().capacityIs( stalled_ ? 0 : capacity );
   } else {
      session_->disconnected();
   }
   session_->connected();
}

void
FuzzWorld::change() {
   Entity::Ptr all = tree_->entity( "all" );
   if( !all ) return;
   reactions_ = 3;
   mutate( random_, *all, false );
}

void
FuzzWorld::take( std::string_view piece ) {
   if( piece.empty() ) return;
   const auto steps = static_cast< uint8_t >( piece[0] );
   switch( steps & 0xf0 ) {
   case Step::change:
      change();
      break;
   case Step::carry:
      session_->carried( session_->output().size() );
      break;
   case Step::reconnect:
      waiting_.clear();
      waits_ = 0;
      connect();
      break;
   case Step::stall:
      stalled_ = !stalled_;
      session_->adapter().nboAttrLogOut().capacityIs( stalled_ ? 0 : capacity );
      break;
   default:
      break;
   }
   waiting_ += frameOf( piece, session_->received() + waits_++ );
   if( steps & waits ) return;
   waits_ = 0;
   const std::string bytes = std::exchange( waiting_, {} );
   const size_t first = steps & isSplit ? bytes.size() / 2 : bytes.size();
   try {
      receive( std::string_view( bytes ).substr( 0, first ) );
      if( first < bytes.size() ) receive( std::string_view( bytes ).substr( first ) );
   } catch( const StreamException & e ) {
      const std::string_view what = e.what();
      require( what.find( "malformed record " ) == 0 && what.find( ", attribute " ) != what.npos &&
                  what.find( ", offset " ) != what.npos && what.find( ": expected " ) != what.npos,
               "no place in: " + std::string( what ) );
      connect();
   }
   // What is written may be an answer to each record, and one record behind the capacity.
   const size_t written = session_->output().size();
   require( written < ( 64 << 10 ) + 64 * taken_, "written: " + std::to_string( written ) );
}

void
FuzzWorld::receive( std::string_view bytes ) {
   reactions_ = 3;
   taken_ += bytes.size();
   session_->receive( bytes.data(), bytes.size() );
}

std::string
FuzzWorld::text() const {
   std::string out;
   forEachEntity( *tree_, [&]( const Entity & entity ) { append( out, entity ); } );
   return out;
}

void
FuzzWorld::recover() {
   if( setup_.is( Setup::owner ) || setup_.is( Setup::writes ) ) return;
   watchers_.clear();
   Dir::Ptr source = dirFactory();
   fill( *source, setup_.seed + 1u );
   Kelmo::SessionOwner owner;
   Kelmo::Session server( source, owner );
   stalled_ = false;
   session_->adapter().nboAttrLogOut().capacityIs( capacity );
   connect();
   server.connected();
   settle( *session_, server );
   const String path( "all" + ( setup_.is( Setup::narrow )
                                   ? "/" + std::string( rootType( setup_ ).fullName )
                                   : std::string() ) );
   Entity::Ptr top = source->entityAt( path.view() );
   Entity::Ptr copy = tree_->entityAt( path.view() );
   if( !top ) return; // what this end made there itself stays
   for( auto & difference : differences( top.ptr(), copy.ptr(), Depth::all ) ) {
      require( difference.waits, difference.place + ": " + difference.what );
   }
}

std::string
recorded( Setup setup, unsigned changes ) {
   Setup peer = setup;
   peer.flags ^= Setup::owner;
   if( setup.is( Setup::owner ) ) {
      peer.flags |= Setup::writes;
   } else {
      ++peer.seed;
   }
   FuzzWorld world( setup );
   FuzzWorld other( peer );
   std::string stream;
   settle( world.session(), other.session(), &stream );
   for( ; changes; --changes ) {
      other.change();
      settle( world.session(), other.session(), &stream );
   }
   return stream;
}

std::map< std::string, uint64_t >
liveObjects() {
   std::map< std::string, uint64_t > live;
   for( auto * type = AllocTrackTypeInfo::all(); type; type = type->next() ) {
      if( type->liveObjects() ) live[type->name()] += type->liveObjects();
   }
   return live;
}

} // namespace ipstate::test
