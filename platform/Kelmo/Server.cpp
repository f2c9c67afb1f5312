#include "platform/Kelmo/Server.h"

#include "framework/Exception.h"
#include "platform/Vistrel/Trace.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <string_view>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/un.h>
#include <unistd.h>

namespace Kelmo {

namespace {

constinit Vistrel::TraceHandle traceHandle( "Kelmo", "Server" );
constexpr unsigned faultLevel = 1;
constexpr unsigned clientLevel = 5;

using Clock = std::chrono::steady_clock;

constexpr int mostEvents = 64;
constexpr int mostAccepted = 16; // in one turn
/// What a client may leave unread before it is not listened to any more.
constexpr size_t mostWaiting = 1 << 20;

/// Whether one of the paths, however many slashes it has, is that one, or above it.
bool
covers( const std::vector< std::string > & paths, std::string_view path ) {
   return std::any_of( paths.begin(), paths.end(), [&]( const std::string & written ) {
      const Zek::String normalised = normalisedPath( written );
      const std::string_view above = normalised.view();
      return above.empty() || ( path.starts_with( above ) &&
                                ( path.size() == above.size() || path[above.size()] == '/' ) );
   } );
}

/// The user of this process and root need no role.
bool
isOwn( const Peer & peer ) {
   return peer.isAdmitted( {} );
}

bool
isMember( const Peer & peer, const Role & role ) {
   return std::find( peer.groups.begin(), peer.groups.end(), role.group ) != peer.groups.end();
}

bool
isAdmitted( const Peer & peer, const std::vector< Role > & roles ) {
   return isOwn( peer ) || std::any_of( roles.begin(), roles.end(), [&]( const Role & role ) {
             return isMember( peer, role );
          } );
}

/// "0 or group 7, 8", as what was expected of a peer.
std::string
admitted( const std::vector< Role > & roles ) {
   std::string text = std::to_string( geteuid() );
   for( const Role & role : roles ) {
      text += ( &role == roles.data() ? " or group " : ", " ) + std::to_string( role.group );
   }
   return text;
}

/// A lock that nobody else can take, as a file beside the socket that only its owner can open. It
/// is gone when the lock is. A directory's own lock would be anybody's who may read the directory.
class Lock {
 public:
   explicit Lock( const std::string & path ) : path_( path + ".lock" ) {
      for( int tries = 0;; ++tries ) {
         const int flags = O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC;
         Descriptor file( open( path_.c_str(), flags, 0600 ) );
         struct stat opened, named;
         if( !file || fstat( file.fd(), &opened ) != 0 ) {
            const std::string directory = path.substr( 0, path.rfind( '/' ) + 1 );
            throwSystemError( "cannot listen at '" + path + "': " +
                              ( errno == ENOENT ? "expected a directory '" + directory + "'"
                                                : "cannot open '" + path_ + "'" ) );
         }
         if( opened.st_uid != geteuid() ) {
            errno = EPERM;
            throwSystemError( "cannot listen at '" + path + "': expected '" + path_ +
                              "' to be this user's" );
         }
         const bool locked = flock( file.fd(), LOCK_EX | LOCK_NB ) == 0;
         // Who had it before has removed the file, maybe after we opened it.
         if( locked && lstat( path_.c_str(), &named ) == 0 && named.st_ino == opened.st_ino &&
             named.st_dev == opened.st_dev ) {
            file_ = std::move( file );
            return;
         }
         if( !locked && ( ( errno != EWOULDBLOCK && errno != EINTR ) || tries >= 100 ) ) {
            throwSystemError( "cannot listen at '" + path + "': cannot lock '" + path_ + "'" );
         }
         if( !locked ) usleep( 2000 );
      }
   }
   ~Lock() { unlink( path_.c_str() ); }
   Lock( const Lock & ) = delete;
   Lock & operator=( const Lock & ) = delete;

 private:
   std::string path_;
   Descriptor file_;
};

Descriptor
openSpare() {
   return Descriptor( open( "/dev/null", O_RDONLY | O_CLOEXEC ) );
}

} // namespace

// -- Clients ----------------------------------------------------------------------------------

class Server::Client final : public SessionOwner {
 public:
   Client( Server & server, Descriptor socket, Peer peer, std::string name )
      : server_( server ),
        peer_( std::move( peer ) ),
        name_( std::move( name ) ),
        session_( server.root_, *this ),
        connection_( session_, std::move( socket ), server.fd(), this ) {
      connection_.mostWaitingIs( mostWaiting );
      session_.mostMountsIs( server.options_.mounts );
      session_.connected();
   }

   bool isGone() const { return gone_; }
   void leave() { gone_ = true; }
   const Peer & peer() const { return peer_; }
   size_t waiting() const { return session_.output().size(); }
   /// When it must have greeted; none once it has.
   std::optional< Clock::time_point > greetsUntil() const {
      if( gone_ || session_.isGreeted() ) return {};
      return came_ + server_.options_.greeting;
   }
   void isLate() {
      guarded( [] { throw Zek::StreamException( "expected a greeting within the time for it" ); } );
   }
   void onEvents( uint32_t events ) {
      if( events & ~uint32_t( EPOLLOUT ) ) {
         guarded( [this] {
            if( !connection_.read() ) {
               gone_ = true;
               Vistrel::trace( traceHandle, clientLevel, "onEvents", name_, " left" );
            }
            const auto & mounted = server_.options_.mounted;
            if( std::exchange( mountedTold_, mounted_.size() ) < mounted_.size() && mounted ) {
               mounted( name_, mounted_ );
            }
         } );
      }
   }
   void flush() {
      guarded( [this] { connection_.write(); } );
   }

 private:
   template< class Work >
   void guarded( Work work ) {
      if( gone_ ) return;
      try {
         work();
      } catch( const std::exception & error ) {
         gone_ = true;
         server_.fault( name_ + " is disconnected: " + error.what() );
      }
   }
   bool allows( const Mount & mount, std::string & reason ) override {
      const std::string path = mount.path().toString();
      const ServerOptions & options = server_.options_;
      if( !options.exported.empty() && !covers( options.exported, path ) ) {
         reason = "'" + path + "' is not exported";
      } else if( mount.mode() == "w" && !covers( options.writable, path ) ) {
         reason = "'" + path + "' is not exported for writing: expected mode r or ri";
      } else if( !roleAllows( path, mount.mode() == "w" ) ) {
         reason = "'" + path + "' may not be " + ( mount.mode() == "w" ? "written" : "read" ) +
                  " by " + peer_.text();
      } else if( options.refuses ) {
         reason = options.refuses( mount );
      }
      if( !reason.empty() ) {
         Vistrel::trace( traceHandle, faultLevel, "allows", name_, " is refused: ", reason );
      } else {
         mounted_.push_back( path );
      }
      return reason.empty();
   }

   bool roleAllows( std::string_view path, bool toWrite ) const {
      const auto & roles = server_.options_.roles;
      return isOwn( peer_ ) || std::any_of( roles.begin(), roles.end(), [&]( const Role & role ) {
                return isMember( peer_, role ) && ( covers( role.writable, path ) ||
                                                    ( !toWrite && covers( role.readable, path ) ) );
             } );
   }

   Server & server_;
   Peer peer_;
   std::string name_;
   Session session_;
   Connection connection_;
   const Clock::time_point came_ = Clock::now();
   std::vector< std::string > mounted_;
   size_t mountedTold_ = 0;
   bool gone_ = false;
};

// -- Listening --------------------------------------------------------------------------------

Server::Server( const Zek::Entity::Ptr & root, const std::string & path, ServerOptions options )
   : root_( root ),
     path_( path ),
     options_( std::move( options ) ),
     epoll_( epoll_create1( EPOLL_CLOEXEC ) ),
     listener_( options_.listener >= 0
                   ? options_.listener
                   : socket( AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0 ) ),
     timer_( timerfd_create( CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC ) ),
     spare_( openSpare() ) {
   if( !epoll_ || !listener_ || !timer_ || !spare_ ) {
      throwSystemError( "cannot listen at '" + path_ + "'" );
   }
   if( options_.listener < 0 ) {
      listen();
   } else if( fcntl( listener_.fd(), F_SETFL, O_RDWR | O_NONBLOCK ) != 0 ||
              fcntl( listener_.fd(), F_SETFD, FD_CLOEXEC ) != 0 ) {
      throwSystemError( "cannot take over the listening socket of '" + path_ + "'" );
   }
   epoll_event event{};
   event.events = EPOLLIN;
   epoll_event late{};
   late.events = EPOLLIN;
   late.data.ptr = this;
   if( epoll_ctl( epoll_.fd(), EPOLL_CTL_ADD, listener_.fd(), &event ) != 0 ||
       epoll_ctl( epoll_.fd(), EPOLL_CTL_ADD, timer_.fd(), &late ) != 0 ) {
      throwSystemError( "cannot wait for clients at '" + path_ + "'" );
   }
}

Server::~Server() {
   clients_.clear();
   struct stat found;
   if( lstat( path_.c_str(), &found ) == 0 && found.st_dev == device_ && found.st_ino == inode_ ) {
      unlink( path_.c_str() );
   }
}

void
Server::listen() {
   const sockaddr_un address = socketAddress( path_ );
   auto bind = [&] {
      return ::bind( listener_.fd(), reinterpret_cast< const sockaddr * >( &address ),
                     sizeof address );
   };
   // Of two that start at the same path, neither takes the other's socket, bound and not yet
   // listened on, for a stale one.
   const Lock lock( path_ );
   int failed = bind();
   if( failed && errno == EADDRINUSE ) {
      removeStale();
      failed = bind();
   }
   if( failed ) {
      throwSystemError( "cannot listen at '" + path_ + "'" );
   }
   struct stat made;
   if( lstat( path_.c_str(), &made ) == 0 ) {
      device_ = made.st_dev;
      inode_ = made.st_ino;
   }
   // Nobody can connect before listen().
   try {
      accessIs();
      if( ::listen( listener_.fd(), SOMAXCONN ) != 0 ) {
         throwSystemError( "cannot listen at '" + path_ + "'" );
      }
   } catch( ... ) {
      unlink( path_.c_str() );
      throw;
   }
}

/// Lets those open the socket file who have a role.
void
Server::accessIs() {
   const std::vector< Role > & roles = options_.roles;
   // Who is no member of the group may not give it the file: credentials decide then, too.
   const bool isGiven =
      roles.size() == 1 && chown( path_.c_str(), uid_t( -1 ), roles[0].group ) == 0;
   const mode_t mode = roles.empty() ? 0600 : isGiven ? 0660 : 0666;
   if( chmod( path_.c_str(), mode ) != 0 ) {
      throwSystemError( "cannot listen at '" + path_ + "'" );
   }
}

void
Server::rolesIs( std::vector< Role > roles ) {
   if( options_.roles == roles ) return;
   options_.roles = std::move( roles );
   for( const auto & client : clients_ ) {
      if( !isOwn( client->peer() ) ) client->leave();
   }
   if( options_.listener < 0 ) accessIs();
}

void
Server::removeStale() {
   auto taken = [&]( const char * why ) {
      errno = EADDRINUSE;
      throwSystemError( "cannot listen at '" + path_ + "': " + why );
   };
   struct stat found;
   if( lstat( path_.c_str(), &found ) == 0 && !S_ISSOCK( found.st_mode ) ) {
      taken( "it is no socket; expected one that nobody answers on, or nothing" );
   }
   const Descriptor probe( socket( AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0 ) );
   const sockaddr_un address = socketAddress( path_ );
   if( connect( probe.fd(), reinterpret_cast< const sockaddr * >( &address ), sizeof address ) ==
          0 ||
       errno == EAGAIN ) {
      taken( "somebody answers there; expected a socket that nobody answers on, or nothing" );
   }
   if( errno != ECONNREFUSED && errno != ENOENT ) {
      throwSystemError( "cannot listen at '" + path_ + "': cannot tell whether somebody answers" );
   }
   if( unlink( path_.c_str() ) != 0 && errno != ENOENT ) {
      throwSystemError( "cannot remove the stale socket '" + path_ + "'" );
   }
}

void
Server::accept() {
   for( int accepted = 0; accepted < mostAccepted; ++accepted ) {
      Descriptor socket(
         accept4( listener_.fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC ) );
      if( socket ) {
         admit( std::move( socket ) );
         continue;
      }
      if( errno == EINTR || errno == ECONNABORTED ) continue;
      if( ( errno != EMFILE && errno != ENFILE ) || !turnAway() ) return;
   }
}

/// Without a descriptor for the one who waits: left alone, it would keep the loop turning.
bool
Server::turnAway() {
   spare_ = Descriptor();
   bool any;
   {
      const Descriptor socket( accept4( listener_.fd(), nullptr, nullptr, SOCK_CLOEXEC ) );
      any = bool( socket );
   }
   spare_ = openSpare();
   if( any ) fault( "a client is turned away: no more file descriptors" );
   return any;
}

void
Server::admit( Descriptor socket ) {
   std::string name = "a client";
   try {
      Peer peer = Peer::of( socket.fd() );
      name += ", " + peer.text() + ",";
      if( !isAdmitted( peer, options_.roles ) ) {
         fault( name + " is turned away: expected uid " + admitted( options_.roles ) );
      } else if( const size_t most = mostClients( peer ); clients_.size() >= most ) {
         fault( name + " is turned away: expected no more than " + std::to_string( most ) +
                " clients" );
      } else {
         clients_.push_back(
            std::make_unique< Client >( *this, std::move( socket ), std::move( peer ), name ) );
         awaitGreetings();
         Vistrel::trace( traceHandle, clientLevel, "admit", name, " came" );
      }
   } catch( const std::exception & error ) {
      fault( name + " is turned away: " + error.what() );
   }
}

/// So that whoever else connects, the machine's owner can.
size_t
Server::mostClients( const Peer & peer ) const {
   const size_t all = options_.clients;
   return all - ( peer.uid == 0 ? 0 : isOwn( peer ) ? all / 32 : all / 16 );
}

/// Ends those that have not greeted in time; waits for the next one's.
void
Server::awaitGreetings() {
   std::optional< Clock::time_point > next;
   const auto now = Clock::now();
   for( const auto & client : clients_ ) {
      const auto until = client->greetsUntil();
      if( until && *until <= now ) {
         client->isLate();
      } else if( until && ( !next || *until < *next ) ) {
         next = until;
      }
   }
   itimerspec when{}; // nothing: it does not expire
   if( next ) {
      const auto left = std::chrono::duration_cast< std::chrono::nanoseconds >( *next - now );
      when.it_value.tv_sec = left.count() / 1'000'000'000;
      when.it_value.tv_nsec = left.count() % 1'000'000'000 + 1;
      if( when.it_value.tv_nsec == 1'000'000'000 ) --when.it_value.tv_nsec;
   }
   timerfd_settime( timer_.fd(), 0, &when, nullptr );
}

void
Server::fault( const std::string & text ) {
   ++faults_;
   lastFault_ = text;
   Vistrel::trace( traceHandle, faultLevel, "fault", text );
   if( options_.problem ) options_.problem( text );
}

// -- The agent's loop -------------------------------------------------------------------------

void
Server::onReadable() {
   if( busy_ ) return;
   busy_ = true;
   epoll_event events[mostEvents];
   const int count = epoll_wait( epoll_.fd(), events, mostEvents, 0 );
   for( int i = 0; i < count; ++i ) {
      if( events[i].data.ptr == this ) {
         awaitGreetings();
      } else if( auto * client = static_cast< Client * >( events[i].data.ptr ) ) {
         client->onEvents( events[i].events );
      } else {
         accept();
      }
   }
   busy_ = false;
   flush();
}

void
Server::flush() {
   if( busy_ ) return; // called from a callback: onReadable() comes to it
   busy_ = true;
   for( const auto & client : clients_ ) client->flush();
   std::erase_if( clients_, []( const auto & client ) { return client->isGone(); } );
   busy_ = false;
}

size_t
Server::waiting() const {
   size_t bytes = 0;
   for( const auto & client : clients_ ) bytes += client->waiting();
   return bytes;
}

} // namespace Kelmo
