#include "platform/Kelmo/SocketMountGroup.h"

#include "framework/Exception.h"
#include "platform/Vistrel/Trace.h"

#include <algorithm>
#include <cerrno>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace Kelmo {

namespace {

constinit Vistrel::TraceHandle traceHandle( "KelmoMount", "SocketMountGroup" );
constexpr unsigned lossLevel = 1;
constexpr unsigned stateLevel = 5;

} // namespace

MountGroupOwner::~MountGroupOwner() = default;
void
MountGroupOwner::onSynchronised() {}
void
MountGroupOwner::onRefused( const Mount &, const std::string & ) {}
void
MountGroupOwner::onLost( const std::string & ) {}

constinit Zek::AllocTrackTypeInfo
   SocketMountGroup::allocTrackTypeInfo_( "Kelmo::SocketMountGroup", sizeof( SocketMountGroup ) );

SocketMountGroup::SocketMountGroup( const Zek::Entity::Ptr & root, const std::string & path,
                                    MountGroupOwner & owner, std::optional< gid_t > group )
   : path_( path ),
     owner_( owner ),
     group_( group ),
     epoll_( epoll_create1( EPOLL_CLOEXEC ) ),
     session_( root, *this ) {
   socketAddress( path_ );
   if( !epoll_ ) throwSystemError( "cannot wait for '" + path_ + "'" );
}

SocketMountGroup::~SocketMountGroup() = default;

void
SocketMountGroup::doMount( const Mount & mount ) {
   session_.mount( mount );
}

// -- Connecting -------------------------------------------------------------------------------

std::optional< SocketMountGroup::Clock::time_point >
SocketMountGroup::timePassed( Clock::time_point now ) {
   if( connection_ ) return {};
   if( !connectAt_ ) connectAt_ = now + pause_;
   if( now < *connectAt_ ) return connectAt_;
   connectAt_.reset();
   pause_ = std::clamp( pause_ * 2, firstPause, longestPause );
   guarded( [this] { connect(); } );
   if( connection_ ) return {};
   connectAt_ = now + pause_;
   return connectAt_;
}

void
SocketMountGroup::connect() {
   const sockaddr_un address = socketAddress( path_ );
   Descriptor socket( ::socket( AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0 ) );
   // On these sockets a connection is made at once or not at all.
   if( !socket || ::connect( socket.fd(), reinterpret_cast< const sockaddr * >( &address ),
                             sizeof address ) != 0 ) {
      throwSystemError( "cannot connect to '" + path_ + "'" );
   }
   const Peer server = Peer::of( socket.fd() );
   if( !server.isAdmitted( group_ ) ) {
      throw Zek::StreamException( "the server at '" + path_ + "' is " + server.text() +
                                  ": expected uid 0" +
                                  ( geteuid() ? " or " + std::to_string( geteuid() ) : "" ) +
                                  ( group_ ? ", or group " + std::to_string( *group_ ) : "" ) );
   }
   connection_ =
      std::make_unique< Connection >( session_, std::move( socket ), epoll_.fd(), nullptr );
   session_.connected();
   Vistrel::trace( traceHandle, stateLevel, "connect", path_, " connected" );
   connection_->write();
}

void
SocketMountGroup::lost( const std::string & reason ) {
   if( connection_ ) {
      connection_.reset();
      session_.disconnected();
   }
   connectAt_.reset();
   Vistrel::trace( traceHandle, lossLevel, "lost", reason );
   if( reason == fault_ ) return;
   fault_ = reason;
   owner_.onLost( reason );
}

template< class Work >
void
SocketMountGroup::guarded( Work work ) {
   if( busy_ ) return;
   const Ptr self( this ); // the owner may drop it from what it is told
   std::string reason;
   busy_ = true;
   try {
      work();
   } catch( const std::exception & error ) {
      reason = error.what();
   }
   busy_ = false;
   if( !reason.empty() ) lost( reason );
}

// -- The agent's loop -------------------------------------------------------------------------

void
SocketMountGroup::onReadable() {
   guarded( [this] {
      if( !connection_ ) return;
      if( !connection_->read() ) {
         throw Zek::StreamException(
            "the server at '" + path_ + "' closed the connection" +
            ( connection_->everRead() ? ""
                                      : ": it may not admit uid " + std::to_string( geteuid() ) ) );
      }
      connection_->write();
   } );
}

void
SocketMountGroup::flush() {
   if( connection_ && ( session_.isBroken() || !session_.output().empty() ) ) {
      guarded( [this] { connection_->write(); } );
   }
}

void
SocketMountGroup::onMountRefused( const Mount & mount, const std::string & reason ) {
   Vistrel::trace( traceHandle, lossLevel, "onMountRefused", mount.path(), " ", reason );
   owner_.onRefused( mount, reason );
}

void
SocketMountGroup::onSynchronised() {
   pause_ = pause_.zero();
   fault_.clear();
   Vistrel::trace( traceHandle, stateLevel, "onSynchronised", path_, " synchronised" );
   owner_.onSynchronised();
}

/// The server may not look into the tree that its state is copied to.
bool
SocketMountGroup::allows( const Mount & mount, std::string & reason ) {
   reason = "'" + mount.path().toString() + "' is not exported: this end mounts";
   return false;
}

} // namespace Kelmo
