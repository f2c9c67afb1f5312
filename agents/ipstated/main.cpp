// ipstated: mirrors the kernel's interfaces into the records and shows them.
//
// Prints the table of all interfaces, then, if asked, why each would send from which address to a
// destination, then the addresses of registered source interfaces, then a line for every
// notification until interrupted. Ends before the last with --once, and where standard output is
// no terminal unless --follow, --apply or --serve is given. With --dump, prints a part of the tree
// instead; with --types, the types that it is made of.

#include "agents/ipstated/Apply.h"
#include "agents/ipstated/Dump.h"
#include "agents/ipstated/Explain.h"
#include "agents/ipstated/KernelFeed.h"
#include "agents/ipstated/Mirror.h"
#include "agents/ipstated/Observers.h"
#include "agents/ipstated/Reflect.h"
#include "agents/ipstated/Serve.h"
#include "agents/ipstated/Sources.h"
#include "agents/ipstated/Table.h"
#include "agents/ipstated/Watch.h"

#include "framework/Exception.h"
#include "framework/Version.h"
#include "platform/Cell/Cell.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <exception>
#include <fcntl.h>
#include <memory>
#include <net/if.h>
#include <optional>
#include <poll.h>
#include <signal.h>
#include <string>
#include <string_view>
#include <sys/signalfd.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using namespace Ipstated;
using Clock = std::chrono::steady_clock;

constexpr int badUsage = 2;

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

/// Standard output. A reader who reads slowly or no more must not keep the program from ending.
class Output {
 public:
   explicit Output( const EndSignals & signals ) : signals_( signals ) {
      // A broken pipe is seen where it is written to.
      signal( SIGPIPE, SIG_IGN );
   }

   /// Whether it goes on: nobody asked for the end, and somebody reads.
   bool open() const { return open_; }
   void close() { open_ = false; }

   /// Throws if something could not be written, for another reason than that nobody reads.
   void check() const {
      if( error_ ) {
         throw std::system_error( error_, std::generic_category(), "cannot write the output" );
      }
   }

   /// Writes all of `text` unless the end comes before. What cannot be written is the end too:
   /// reactions, which must not throw, write.
   void write( std::string_view text ) {
      while( open_ && !text.empty() ) {
         pollfd waits[] = { { STDOUT_FILENO, POLLOUT, 0 }, { signals_.fd(), POLLIN, 0 } };
         if( poll( waits, 2, -1 ) < 0 && errno != EINTR ) {
            fail();
         } else if( waits[1].revents ) {
            close();
         } else if( waits[0].revents ) {
            // What a pipe that is ready takes without waiting.
            writeSome( text.substr( 0, 4096 ), text );
         }
      }
   }

 private:
   void writeSome( std::string_view part, std::string_view & text ) {
      const ssize_t written = ::write( STDOUT_FILENO, part.data(), part.size() );
      if( written >= 0 ) {
         text.remove_prefix( size_t( written ) );
      } else if( errno == EPIPE ) {
         close(); // as head(1) does when it has enough
      } else if( errno != EINTR && errno != EAGAIN ) {
         fail();
      }
   }

   void fail() {
      error_ = errno;
      close();
   }

   const EndSignals & signals_;
   bool open_ = true;
   int error_ = 0;
};

/// Fills the places of standard descriptors that are closed, lest a socket gets written to as if it
/// were the output. Whether standard output was open.
bool
standardDescriptorsAreTaken() {
   bool outputOpen = true;
   for( int fd : { STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO } ) {
      if( fcntl( fd, F_GETFD ) < 0 && errno == EBADF ) {
         outputOpen = outputOpen && fd != STDOUT_FILENO;
         if( open( "/dev/null", O_RDWR ) < 0 ) {
            return false;
         }
      }
   }
   return outputOpen;
}

/// In milliseconds, at most an hour.
int
timeoutUntil( std::optional< Clock::time_point > deadline ) {
   if( !deadline ) {
      return -1;
   }
   const auto now = Clock::now();
   const auto left = std::clamp( *deadline, now, now + std::chrono::hours( 1 ) ) - now;
   return int( std::chrono::ceil< std::chrono::milliseconds >( left ).count() );
}

/// What keeps the kernel as the records ip/config and ip6/config of the tree want it; it tells what
/// is wrong with them in ip/configError.
std::unique_ptr< Apply >
applyOf( Zek::Dir & root, const KernelState & state ) {
   auto config4 = Ip::configFactory( "config" );
   auto config6 = Ip6::configFactory( "config" );
   auto errors = Ip::ipConfigErrorFactory( "configError" );
   root.dirIs( "ip" )->entityIs( config4 );
   root.dirIs( "ip6" )->entityIs( config6 );
   root.dirIs( "ip" )->entityIs( errors );
   return std::make_unique< Apply >( config4, config6, errors, state );
}

struct Options {
   bool follow = false;
   bool apply = false;
   bool types = false;
   std::optional< std::string > dumped; ///< full name of a record
   bool json = false;
   std::vector< std::string > sourceIntfs;
   std::optional< Velon::Ip6Addr > explained; ///< destination
   std::string served;                        ///< path of a socket, or empty
   std::string servedGroup;
   NetlinkSource::Options source;
   KernelFeed::Options feed;
};

void
run( const Options & options ) {
   EndSignals signals;
   Output output( signals );
   auto writeLine = [&]( const std::string & line ) { output.write( line + "\n" ); };
   if( options.types ) {
      output.write( typeNames() );
      output.check();
      return;
   }
   Mirror mirror( Cell::cellId(), []( const std::string & text ) {
      fprintf( stderr, "ipstated: %s\n", printable( text ).c_str() );
   } );
   Observers observers;
   NetlinkSource source( options.source );
   KernelFeed feed( source, observers, options.feed );
   observers.add( mirror );
   std::unique_ptr< Apply > apply;
   if( options.apply ) {
      apply = applyOf( *mirror.root(), feed.state() );
      observers.add( *apply );
   }
   std::unique_ptr< Watch > watch;
   std::unique_ptr< Sources > sources;
   std::unique_ptr< Kelmo::Server > server;
   bool shown = false;
   std::exception_ptr fault; // of what is called by the feed, which nothing must be thrown through
   mirror.onFullDump = [&] {
      if( std::exchange( shown, true ) ) {
         return; // what later dumps bring to light is told as notifications
      }
      if( options.dumped ) {
         try {
            output.write( dump( *mirror.root(), *options.dumped, options.json ) );
         } catch( ... ) {
            fault = std::current_exception();
         }
         output.close();
         return;
      }
      output.write( table( mirror.ipStatus(), mirror.ip6Status() ) );
      if( options.explained ) {
         output.write( "\n" + explainSource( mirror.ip6Status(), *options.explained ) );
      }
      if( options.follow || !options.sourceIntfs.empty() ) {
         output.write( "\n" );
      }
      // Before the registries: the line of a change comes before what follows from it.
      if( options.follow ) {
         watch = std::make_unique< Watch >( *mirror.root(), writeLine );
      }
      if( !options.sourceIntfs.empty() ) {
         sources = std::make_unique< Sources >( mirror.ipStatus(), mirror.ip6Status(), writeLine );
      }
      for( const std::string & name : options.sourceIntfs ) {
         sources->sourceIntfIs( Velon::IntfId( name ) );
      }
      if( !options.follow && !options.apply && options.served.empty() ) {
         output.close();
      }
   };
   feed.start( Clock::now() );
   while( output.open() ) {
      if( shown && !server && !options.served.empty() ) {
         // Not before: who mounts finds the whole.
         std::vector< std::string > writable;
         if( options.apply ) writable = { "ip/config", "ip6/config" };
         server = serveTree( mirror.root(), options.served, options.servedGroup, writable );
      }
      if( server ) {
         server->flush();
      }
      // Errors and hang-ups are told unasked: a reader who goes while there is nothing to say.
      const bool isForReaders = options.follow || !options.sourceIntfs.empty() || !server;
      pollfd waits[] = { { feed.fd(), POLLIN, 0 },
                         { signals.fd(), POLLIN, 0 },
                         { isForReaders ? STDOUT_FILENO : -1, 0, 0 },
                         { server ? server->fd() : -1, POLLIN, 0 } };
      auto deadline = feed.deadline();
      if( const auto other = apply ? apply->deadline() : std::nullopt ) {
         deadline = std::min( deadline.value_or( *other ), *other );
      }
      if( poll( waits, std::size( waits ), timeoutUntil( deadline ) ) < 0 && errno != EINTR ) {
         throw std::system_error( errno, std::generic_category(), "poll" );
      }
      if( waits[1].revents || waits[2].revents ) {
         break;
      }
      if( waits[0].revents ) {
         feed.onReadable( Clock::now() );
      }
      if( waits[3].revents ) {
         server->onReadable();
      }
      Clock::time_point now = Clock::now();
      if( feed.deadline() && *feed.deadline() <= now ) {
         feed.onDeadline( now );
      }
      if( apply && apply->deadline() && *apply->deadline() <= now ) {
         apply->serve( now );
      }
   }
   if( fault ) {
      std::rethrow_exception( fault );
   }
   output.check();
}

/// What is wrong with it, for a name that the kernel gives no interface.
std::string
faultOfName( const std::string & name ) {
   bool possible = !name.empty() && name.size() < IFNAMSIZ && name != "." && name != "..";
   for( char each : name ) {
      possible = possible && each != '/' && each != ':' && !isspace( uint8_t( each ) );
   }
   return possible ? std::string() : "'" + printable( name ) + "' cannot be an interface's name";
}

std::string
faultOfDestination( const std::string & text ) {
   Velon::Ip6Addr address;
   return Velon::Ip6Addr::fromText( text, address )
             ? std::string()
             : "'" + printable( text ) + "' is no IPv6 address, as 2001:db8::1 is one";
}

} // namespace

int
main( int argc, char ** argv ) {
   if( !standardDescriptorsAreTaken() ) {
      fprintf( stderr, "ipstated: standard output is closed\n" );
      return 1;
   }
   CLI::App app( "Mirrors the kernel's interfaces, addresses and VRFs into records and shows "
                 "them: a table of\nall interfaces, then a line for every change until "
                 "interrupted.",
                 "ipstated" );
   app.failure_message( []( const CLI::App *, const CLI::Error & error ) {
      return "ipstated: " + printable( error.what() ) + "\nTry 'ipstated --help'.\n";
   } );
   Options options;
   bool once = false;
   bool follow = false;
   double poll = 5;
   std::string explained;
   app.set_version_flag( "--version", std::string( "ipstated " ) + Zek::version() );
   app.add_flag( "--once", once, "End after the table and what else is asked for" );
   app.add_flag( "--follow", follow, "Go on even if the output is no terminal" )
      ->excludes( "--once" );
   app.add_flag( "--apply", options.apply,
                 "Install the addresses of the records ip/config and ip6/config, and go on" )
      ->excludes( "--once" );
   auto serve = app.add_option( "--serve", options.served,
                                "Let other processes mount the records at this socket, and go on" )
                   ->excludes( "--once" )
                   ->type_name( "SOCKET" );
   app.add_option( "--allow-group", options.servedGroup,
                   "Let members of this group connect too, not only root and the agent's user" )
      ->needs( serve )
      ->type_name( "NAME" );
   app.add_option( "--source-intf", options.sourceIntfs,
                   "Show the address of packets from this interface, and each change of it; "
                   "repeatable,\nthe interface may be absent" )
      ->check( CLI::Validator( faultOfName, "" ) )
      ->allow_extra_args( false )
      ->type_name( "NAME" );
   app.add_option( "--explain-source", explained,
                   "Show from which address each interface would send to this IPv6 one, and why" )
      ->check( CLI::Validator( faultOfDestination, "" ) )
      ->type_name( "DEST" );
   std::string dumped;
   bool wantsDump = false;
   auto types = app.add_flag( "--types", options.types, "Show the names of all record types" );
   auto dump = app.add_flag( "--dump", wantsDump,
                             "Show what stands at PATH and what is below it; all "
                             "records without PATH" );
   app.add_flag( "--json", options.json, "Show it as JSON" )->needs( dump );
   app.add_option( "PATH", dumped, "Path of a record or attribute, as ip/status" )
      ->needs( dump )
      ->type_name( "" );
   for( const char * other :
        { "--once", "--follow", "--apply", "--serve", "--source-intf", "--explain-source" } ) {
      types->excludes( other );
      dump->excludes( other );
   }
   types->excludes( dump );
   app.add_option( "--poll-interval", poll, "Between reading what the kernel tells no event of" )
      ->check( CLI::Range( 0.05, 86400.0 ) )
      ->type_name( "SECONDS" )
      ->capture_default_str();
   app.add_option( "--receive-buffer", options.source.receiveBuffer,
                   "Room for kernel events that wait to be read" )
      ->check( CLI::Range( 4096, 1 << 30 ) )
      ->type_name( "BYTES" )
      ->capture_default_str();
   try {
      app.parse( argc, argv );
   } catch( const CLI::ParseError & error ) {
      return app.exit( error ) == 0 ? 0 : badUsage;
   }

   if( wantsDump ) {
      options.dumped = dumped;
   }
   options.follow = follow || ( !once && isatty( STDOUT_FILENO ) );
   if( !explained.empty() ) {
      options.explained = Velon::Ip6Addr( explained );
   }
   options.feed.pollInterval =
      std::chrono::duration_cast< KernelFeed::Duration >( std::chrono::duration< double >( poll ) );
   try {
      run( options );
   } catch( const std::exception & error ) {
      fprintf( stderr, "ipstated: %s\n", error.what() );
      return 1;
   }
   return 0;
}
