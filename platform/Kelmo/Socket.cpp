#include "platform/Kelmo/Socket.h"

#include "framework/Exception.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

namespace Kelmo {

Descriptor::~Descriptor() {
   if( fd_ >= 0 ) ::close( fd_ );
}

void
throwSystemError( const std::string & what ) {
   throw std::system_error( errno, std::generic_category(), what );
}

sockaddr_un
socketAddress( const std::string & path ) {
   sockaddr_un address{};
   address.sun_family = AF_UNIX;
   if( path.empty() || path.size() >= sizeof address.sun_path || path.find( '\0' ) != path.npos ) {
      Zek::throwRangeException( "'" + path + "' of " + std::to_string( path.size() ) +
                                " bytes cannot be a socket: expected a path of 1 to " +
                                std::to_string( sizeof address.sun_path - 1 ) + " bytes" );
   }
   std::memcpy( address.sun_path, path.data(), path.size() );
   return address;
}

// -- Peers ------------------------------------------------------------------------------------

Peer
Peer::of( int fd ) {
   ucred credentials;
   socklen_t size = sizeof credentials;
   if( getsockopt( fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size ) != 0 ) {
      throwSystemError( "cannot tell who is at the other end" );
   }
   Peer peer{ credentials.uid, credentials.pid, {} };
   // Tells the room it needs when there is too little.
   std::vector< gid_t > others( 32 );
   size = static_cast< socklen_t >( others.size() * sizeof( gid_t ) );
   int failed = getsockopt( fd, SOL_SOCKET, SO_PEERGROUPS, others.data(), &size );
   if( failed && errno == ERANGE ) {
      others.resize( size / sizeof( gid_t ) );
      failed = getsockopt( fd, SOL_SOCKET, SO_PEERGROUPS, others.data(), &size );
   }
   others.resize( failed ? 0 : size / sizeof( gid_t ) );
   peer.groups.push_back( credentials.gid );
   peer.groups.insert( peer.groups.end(), others.begin(), others.end() );
   return peer;
}

bool
Peer::isAdmitted( std::optional< gid_t > group ) const {
   return uid == geteuid() || uid == 0 ||
          ( group && std::find( groups.begin(), groups.end(), *group ) != groups.end() );
}

std::string
Peer::text() const {
   return "pid " + std::to_string( pid ) + " of uid " + std::to_string( uid );
}

// -- Connections ------------------------------------------------------------------------------

namespace {

constexpr size_t partBytes = 64 << 10;
constexpr int mostParts = 4; // in one turn, so that the others get theirs

} // namespace

Connection::Connection( Session & session, Descriptor socket, int epoll, void * mark )
   : session_( session ),
     socket_( std::move( socket ) ),
     epoll_( epoll ),
     mark_( mark ) {
   epoll_event event{};
   event.events = wanted_ = EPOLLIN;
   event.data.ptr = mark_;
   if( epoll_ctl( epoll_, EPOLL_CTL_ADD, socket_.fd(), &event ) != 0 ) {
      throwSystemError( "cannot wait for a connection" );
   }
}

bool
Connection::read() {
   for( int parts = 0; parts < mostParts; ++parts ) {
      ssize_t count = recv( socket_.fd(), session_.room( partBytes ), partBytes, 0 );
      if( count < 0 ) {
         if( errno == EINTR ) continue;
         if( errno == EAGAIN || errno == EWOULDBLOCK ) break;
         if( errno == ECONNRESET ) return false;
         throwSystemError( "cannot read" );
      }
      if( count == 0 ) return false;
      everRead_ = true;
      session_.arrived( static_cast< size_t >( count ) );
      if( static_cast< size_t >( count ) < partBytes ) break;
      if( session_.output().size() > mostWaiting_ ) break;
   }
   return true;
}

void
Connection::write() {
   if( session_.isBroken() ) session_.drain(); // says so
   bool full = false;
   while( !full && !session_.output().empty() ) {
      const Zek::Wire::Buffer & output = session_.output();
      ssize_t count = send( socket_.fd(), output.data(), output.size(), MSG_NOSIGNAL );
      if( count >= 0 ) {
         session_.carried( static_cast< size_t >( count ) );
      } else if( errno == EAGAIN || errno == EWOULDBLOCK ) {
         full = true;
      } else if( errno == EPIPE || errno == ECONNRESET ) {
         // What the peer said before it went is still to be read; then comes the end.
         wantedIs( EPOLLIN );
         return;
      } else if( errno != EINTR ) {
         throwSystemError( "cannot write" );
      }
   }
   bool reads = session_.output().size() <= mostWaiting_;
   wantedIs( ( reads ? EPOLLIN : 0u ) | ( full ? EPOLLOUT : 0u ) );
}

void
Connection::wantedIs( uint32_t events ) {
   if( events == wanted_ ) return;
   epoll_event event{};
   event.events = wanted_ = events;
   event.data.ptr = mark_;
   if( epoll_ctl( epoll_, EPOLL_CTL_MOD, socket_.fd(), &event ) != 0 ) {
      throwSystemError( "cannot wait for a connection" );
   }
}

} // namespace Kelmo
