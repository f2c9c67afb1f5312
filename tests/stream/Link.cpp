#include "tests/stream/Link.h"

#include <algorithm>

namespace ipstate::test {

using Zek::NboAttrLog::FrameHeader;

// -- Pipes ------------------------------------------------------------------------------------

void
Pipe::fill( Kelmo::Session & from, size_t most ) {
   if( size() >= capacity ) return;
   size_t n = std::min( { from.output().size(), most, capacity - size() } );
   if( n == 0 ) return;
   bytes_.append( from.output().view().substr( 0, n ) );
   from.carried( n );
}

std::string
Pipe::take( size_t most, Situations & situations ) {
   std::string piece = bytes_.substr( head_, most );
   head_ += piece.size();
   if( head_ == bytes_.size() ) {
      bytes_.clear();
      head_ = 0;
   }
   // Where the records are.
   for( size_t at = 0; at < piece.size(); ) {
      if( inside_ < FrameHeader::size ) {
         header_[inside_] = static_cast< uint8_t >( piece[at] );
         ++at;
         if( ++inside_ < FrameHeader::size ) continue;
         const auto header = FrameHeader::of( header_ );
         length_ = std::max< size_t >( header.length, FrameHeader::size + 2 );
         situations.record( header );
      } else {
         size_t n = std::min( piece.size() - at, length_ - inside_ );
         at += n;
         inside_ += n;
         if( inside_ == length_ ) inside_ = 0;
      }
   }
   return piece;
}

void
Pipe::corrupt( Random & random ) {
   auto & byte = bytes_[head_ + random.below( static_cast< uint32_t >( size() ) )];
   byte = static_cast< char >( byte ^ ( 1 << random.below( 8 ) ) );
}

void
Pipe::clear() {
   bytes_.clear();
   head_ = inside_ = length_ = 0;
}

// -- Links ------------------------------------------------------------------------------------

void
Link::serve( const Zek::Dir::Ptr & tree ) {
   server = std::make_unique< Kelmo::Session >( tree, *this );
   server->adapter().nboAttrLogOut().capacityIs( capacity );
}

void
Link::follow( const Zek::Dir::Ptr & tree ) {
   client = std::make_unique< Kelmo::Session >( tree, *this );
   client->adapter().nboAttrLogOut().capacityIs( capacity );
   for( auto & mount : mounts ) client->mount( mount );
}

void
Link::onMountRefused( const Kelmo::Mount & mount, const std::string & why ) {
   problem = "refused " + mount.path().toString() + ": " + why;
}

void
Link::connect() {
   if( connected_ ) return;
   connected_ = true;
   const uint32_t connection = ++connections_;
   server->connected();
   if( connected_ && connection == connections_ ) client->connected();
}

void
Link::cut() {
   if( !connected_ ) return;
   situations_.cut( down.inside(), down.length() );
   if( !server->adapter().nboAttrLogOut().isClean() )
      situations_.reached( Situation::cutWhileFull );
   if( client->adapter().nboAttrLogIn().dumpInProgress() ) {
      situations_.reached( Situation::cutInDump );
   }
   if( client->adapter().nboAttrLogIn().refused() ) situations_.reached( Situation::refusedRecord );
   connected_ = corrupted = false;
   server->disconnected();
   client->disconnected();
   down.clear();
   up.clear();
}

void
Link::empty( Kelmo::Session & to, Pipe & pipe, size_t most ) {
   if( pipe.stalled || pipe.size() == 0 ) return;
   const std::string piece = pipe.take( most, situations_ );
   to.receive( piece.data(), piece.size() );
}

bool
Link::pump( Random & random, bool all ) {
   try {
      return pumpSome( random, all );
   } catch( const Zek::StreamException & e ) {
      failed( e.what() );
   }
   return true;
}

void
Link::failed( std::string_view what ) {
   const bool noMemory = what.find( "out of memory" ) != what.npos;
   if( noMemory ) situations_.reached( Situation::memoryShort );
   if( !corrupted && !noMemory ) problem = what;
   if( what.find( "checksum" ) != what.npos ) situations_.reached( Situation::checksumWrong );
   if( what.find( "header" ) != what.npos ) situations_.reached( Situation::headerWrong );
   cut();
}

bool
Link::pumpSome( Random & random, bool all ) {
   if( server->isBroken() || client->isBroken() ) {
      situations_.reached( Situation::brokenOff );
      cut();
   }
   if( !connected_ ) return false;
   const size_t before =
      down.size() + up.size() + server->output().size() + client->output().size();
   auto most = [&] { return all ? 1u << 20 : 1 + random.below( random.oneIn( 2 ) ? 40 : 4000 ); };
   down.fill( *server, most() );
   if( connected_ ) up.fill( *client, most() );
   if( connected_ ) empty( *client, down, most() );
   if( connected_ ) empty( *server, up, most() );
   if( !connected_ ) return true;
   if( client->adapter().nboAttrLogIn().held() ) situations_.reached( Situation::heldReference );
   if( all ) {
      server->drain();
      if( connected_ ) client->drain();
   }
   return before || down.size() || up.size() || !server->output().empty() ||
          !client->output().empty();
}

void
Link::open() {
   down.stalled = up.stalled = false;
   down.capacity = up.capacity = 1 << 20;
   connect();
}

} // namespace ipstate::test
