#include "agents/ipstated/Service.h"

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <linux/capability.h>
#include <mutex>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace Ipstated {

// -- What a service manager hands over --------------------------------------------------------

namespace {

constexpr int firstHandedOver = 3;

std::string
taken( const char * variable ) {
   const char * value = getenv( variable );
   std::string text = value ? value : "";
   unsetenv( variable );
   return text;
}

bool
isOurs( const std::string & pid ) {
   return pid == std::to_string( getpid() );
}

} // namespace

Service::Service() : socket_( taken( "NOTIFY_SOCKET" ) ) {
   const std::string watchdog = taken( "WATCHDOG_USEC" ), watched = taken( "WATCHDOG_PID" );
   if( const long usec = atol( watchdog.c_str() );
       usec > 0 && ( watched.empty() || isOurs( watched ) ) ) {
      period_ = std::chrono::microseconds( usec / 2 );
   }
   const std::string count = taken( "LISTEN_FDS" ), listens = taken( "LISTEN_PID" );
   taken( "LISTEN_FDNAMES" );
   if( count.empty() || !isOurs( listens ) ) return;
   sockaddr_un address{};
   socklen_t size = sizeof address;
   int type = 0, accepts = 0;
   socklen_t length = sizeof type;
   const int fd = firstHandedOver;
   const bool good =
      count == "1" && getsockname( fd, reinterpret_cast< sockaddr * >( &address ), &size ) == 0 &&
      address.sun_family == AF_UNIX && getsockopt( fd, SOL_SOCKET, SO_TYPE, &type, &length ) == 0 &&
      type == SOCK_STREAM && getsockopt( fd, SOL_SOCKET, SO_ACCEPTCONN, &accepts, &length ) == 0 &&
      accepts;
   if( !good ) {
      throw std::runtime_error( "the service manager handed over " + count +
                                " descriptors: expected one Unix-domain stream socket that "
                                "listens" );
   }
   listener_ = fd;
   const size_t bytes = size - offsetof( sockaddr_un, sun_path );
   listenerPath_.assign( address.sun_path, strnlen( address.sun_path, bytes ) );
}

void
Service::notify( const std::string & text ) const {
   sockaddr_un address{};
   if( socket_.empty() || socket_.size() >= sizeof address.sun_path ) return;
   address.sun_family = AF_UNIX;
   memcpy( address.sun_path, socket_.data(), socket_.size() );
   if( address.sun_path[0] == '@' ) address.sun_path[0] = '\0'; // of the abstract namespace
   const int fd = socket( AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0 );
   if( fd < 0 ) return;
   (void)sendto( fd, text.data(), text.size(), MSG_NOSIGNAL,
                 reinterpret_cast< const sockaddr * >( &address ),
                 socklen_t( offsetof( sockaddr_un, sun_path ) + socket_.size() ) );
   close( fd );
}

void
Service::ready( const std::string & status ) {
   notify( "READY=1\nSTATUS=" + status + "\nMAINPID=" + std::to_string( getpid() ) );
}

void
Service::reloading() {
   timespec now{};
   clock_gettime( CLOCK_MONOTONIC, &now );
   notify( "RELOADING=1\nMONOTONIC_USEC=" +
           std::to_string( now.tv_sec * 1000000 + now.tv_nsec / 1000 ) );
}

void
Service::stopping() {
   notify( "STOPPING=1" );
}

std::optional< Service::Time >
Service::deadline() const {
   return period_ ? std::optional( next_ ) : std::nullopt;
}

void
Service::serve( Time now ) {
   if( period_ && now >= next_ ) {
      notify( "WATCHDOG=1" );
      next_ = now + *period_;
   }
}

// -- Signals ----------------------------------------------------------------------------------

struct Signals::Shared {
   int event = -1;
   std::atomic< bool > reload = false;
   std::atomic< bool > end = false;
   std::atomic< bool > over = false; // the owner is about to go
   std::mutex mutex;
   std::condition_variable overChanged;
   std::thread thread;
};

Signals::Signals( bool hangupReloads, std::chrono::milliseconds patience,
                  std::function< void() > lastly )
   : shared_( std::make_unique< Shared >() ) {
   sigset_t signals;
   sigemptyset( &signals );
   for( int number : { SIGINT, SIGTERM, SIGHUP, SIGUSR2 } ) sigaddset( &signals, number );
   pthread_sigmask( SIG_BLOCK, &signals, nullptr );
   shared_->event = eventfd( 0, EFD_CLOEXEC | EFD_NONBLOCK );
   if( shared_->event < 0 ) {
      throw std::system_error( errno, std::generic_category(), "cannot wait for signals" );
   }
   shared_->thread = std::thread( [signals, hangupReloads, patience, lastly = std::move( lastly ),
                                   &shared = *shared_] {
      for( int number = 0; !shared.over; ) {
         if( sigwait( &signals, &number ) != 0 || number == SIGUSR2 ) continue;
         const bool ends = number != SIGHUP || !hangupReloads;
         ( ends ? shared.end : shared.reload ) = true;
         eventfd_write( shared.event, 1 );
         if( !ends ) continue;
         std::unique_lock lock( shared.mutex );
         if( !shared.overChanged.wait_for( lock, patience, [&] { return shared.over.load(); } ) ) {
            lastly();
            _exit( 0 );
         }
      }
   } );
}

Signals::~Signals() {
   {
      const std::lock_guard lock( shared_->mutex );
      shared_->over = true;
   }
   shared_->overChanged.notify_all();
   pthread_kill( shared_->thread.native_handle(), SIGUSR2 ); // wakes it where it waits for signals
   shared_->thread.join();
   close( shared_->event );
}

int
Signals::fd() const {
   return shared_->event;
}

Signals::Wanted
Signals::take() {
   eventfd_t count;
   (void)eventfd_read( shared_->event, &count );
   if( shared_->end ) return Wanted::end;
   return shared_->reload.exchange( false ) ? Wanted::reload : Wanted::nothing;
}

// -- Rights -----------------------------------------------------------------------------------

void
dropRights( bool keepsNetworkAdministration ) {
   // The system calls themselves: all that is needed of libcap.
   __user_cap_header_struct header{ _LINUX_CAPABILITY_VERSION_3, 0 };
   __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3]{};
   if( syscall( SYS_capget, &header, sets ) != 0 ) return;
   const uint32_t kept = keepsNetworkAdministration ? 1u << CAP_NET_ADMIN : 0;
   for( int each = 0; prctl( PR_CAPBSET_READ, each ) >= 0; ++each ) {
      if( each != CAP_NET_ADMIN || !kept ) (void)prctl( PR_CAPBSET_DROP, each );
   }
   (void)prctl( PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0 );
   sets[0].permitted &= kept;
   sets[0].effective &= kept;
   sets[0].inheritable = 0;
   sets[1] = {};
   if( syscall( SYS_capset, &header, sets ) != 0 ||
       prctl( PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0 ) != 0 ) {
      throw std::system_error( errno, std::generic_category(), "cannot give up rights" );
   }
}

} // namespace Ipstated
