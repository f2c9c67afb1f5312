// ipstated: mirrors the kernel's interfaces into the records and shows them.
//
// Prints the table of all interfaces, then a line for every notification until interrupted. Ends
// after the table with --once, and where standard output is no terminal unless --follow is given.

#include "agents/ipstated/KernelFeed.h"
#include "agents/ipstated/Mirror.h"
#include "agents/ipstated/Table.h"
#include "agents/ipstated/Watch.h"

#include "framework/Exception.h"
#include "platform/Cell/Cell.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <exception>
#include <memory>
#include <poll.h>
#include <signal.h>
#include <string>
#include <sys/signalfd.h>
#include <system_error>
#include <unistd.h>

namespace {

using namespace Ipstated;
using Clock = std::chrono::steady_clock;

/// A descriptor that becomes readable when the process is asked to end.
class EndSignals {
 public:
   EndSignals() {
      sigset_t signals;
      sigemptyset( &signals );
      sigaddset( &signals, SIGINT );
      sigaddset( &signals, SIGTERM );
      sigprocmask( SIG_BLOCK, &signals, nullptr );
      fd_ = signalfd( -1, &signals, SFD_CLOEXEC | SFD_NONBLOCK );
      if( fd_ < 0 ) {
         throw std::system_error( errno, std::generic_category(), "cannot wait for signals" );
      }
   }
   ~EndSignals() { close( fd_ ); }
   EndSignals( const EndSignals & ) = delete;
   EndSignals & operator=( const EndSignals & ) = delete;

   int fd() const { return fd_; }

 private:
   int fd_;
};

/// Writes to standard output; false when nobody can read it any more.
bool
print( const std::string & text ) {
   return fwrite( text.data(), 1, text.size(), stdout ) == text.size() && fflush( stdout ) == 0;
}

int
timeoutOf( const KernelFeed & feed ) {
   auto deadline = feed.deadline();
   if( !deadline ) {
      return -1;
   }
   auto left = std::chrono::ceil< std::chrono::milliseconds >( *deadline - Clock::now() ).count();
   return int( std::clamp< long long >( left, 0, 60 * 60 * 1000 ) );
}

int
run( bool follow, const NetlinkSource::Options & sourceOptions,
     const KernelFeed::Options & feedOptions ) {
   EndSignals signals;
   bool writable = true;
   Mirror mirror( Cell::cellId(), []( const std::string & text ) {
      fprintf( stderr, "ipstated: %s\n", printable( text ).c_str() );
   } );
   NetlinkSource source( sourceOptions );
   KernelFeed feed( source, mirror, feedOptions );
   std::unique_ptr< Watch > watch;
   bool ended = false;
   mirror.onFullDump = [&] {
      if( watch || ended ) {
         return; // what later dumps bring to light is told as notifications
      }
      writable = print( table( mirror.ipStatus(), mirror.ip6Status() ) );
      ended = !follow;
      if( follow ) {
         watch = std::make_unique< Watch >( *mirror.root(), [&]( const std::string & line ) {
            writable = writable && print( line + "\n" );
         } );
      }
   };
   feed.start( Clock::now() );
   while( !ended && writable ) {
      pollfd waits[] = { { feed.fd(), POLLIN, 0 }, { signals.fd(), POLLIN, 0 } };
      if( poll( waits, 2, timeoutOf( feed ) ) < 0 && errno != EINTR ) {
         throw std::system_error( errno, std::generic_category(), "poll" );
      }
      if( waits[1].revents ) {
         break;
      }
      if( waits[0].revents ) {
         feed.onReadable( Clock::now() );
      }
      Clock::time_point now = Clock::now();
      if( feed.deadline() && *feed.deadline() <= now ) {
         feed.onDeadline( now );
      }
   }
   return writable ? 0 : 1;
}

} // namespace

int
main( int argc, char ** argv ) {
   CLI::App app( "Mirrors the kernel's interfaces, addresses and VRFs into records and shows "
                 "them.",
                 "ipstated" );
   bool once = false;
   bool follow = false;
   double poll = 5;
   int buffer = NetlinkSource::Options().receiveBuffer;
   app.add_flag( "--once", once, "End after the table" );
   app.add_flag( "--follow", follow, "Go on after the table even if the output is no terminal" )
      ->excludes( "--once" );
   app.add_option( "--poll-interval", poll,
                   "Seconds between reading what the kernel tells no event of" )
      ->check( CLI::Range( 0.05, 86400.0 ) )
      ->capture_default_str();
   app.add_option( "--receive-buffer", buffer, "Bytes of kernel events that may wait to be read" )
      ->check( CLI::Range( 4096, 1 << 30 ) )
      ->capture_default_str();
   CLI11_PARSE( app, argc, argv );

   NetlinkSource::Options sourceOptions;
   sourceOptions.receiveBuffer = buffer;
   KernelFeed::Options feedOptions;
   feedOptions.pollInterval =
      std::chrono::duration_cast< KernelFeed::Duration >( std::chrono::duration< double >( poll ) );
   try {
      return run( follow || ( !once && isatty( STDOUT_FILENO ) ), sourceOptions, feedOptions );
   } catch( const std::exception & error ) {
      fprintf( stderr, "ipstated: %s\n", error.what() );
      return 1;
   }
}
