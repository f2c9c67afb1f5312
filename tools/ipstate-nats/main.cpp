// ipstate-nats: a device's state to a fleet, and a fleet's state to a tree.

#include "tools/ipstate-nats/Mirror.h"
#include "tools/ipstate-nats/Publisher.h"

#include "framework/Exception.h"
#include "framework/Version.h"
#include "platform/Kelmo/Server.h"
#include "platform/Kelmo/SocketMountGroup.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <grp.h>
#include <optional>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

using namespace IpstateNats;
using Clock = std::chrono::steady_clock;

namespace {

enum Status : int { succeeded = 0, misused = 1, failed = 4 };

void
say( const std::string & text ) {
   std::string line = "ipstate-nats: ";
   for( char c : text ) line += c >= 0x20 && c < 0x7f ? c : '?';
   line += '\n';
   (void)!write( STDERR_FILENO, line.data(), line.size() );
}

/// A text that is said when it becomes another one.
class Said {
 public:
   void operator()( const std::string & text ) {
      if( text == last_ ) return;
      last_ = text;
      if( !text.empty() ) say( text );
   }

 private:
   std::string last_;
};

/// SIGINT and SIGTERM as a descriptor; every thread that is begun later leaves them to it.
int
endingSignals() {
   sigset_t set;
   sigemptyset( &set );
   sigaddset( &set, SIGINT );
   sigaddset( &set, SIGTERM );
   sigprocmask( SIG_BLOCK, &set, nullptr );
   signal( SIGPIPE, SIG_IGN );
   return signalfd( -1, &set, SFD_CLOEXEC );
}

int
millisecondsUntil( Clock::time_point when ) {
   using namespace std::chrono;
   const auto left = ceil< milliseconds >( when - Clock::now() ).count();
   return static_cast< int >( std::clamp< int64_t >( left, 0, 60000 ) );
}

struct Common {
   BucketOptions bucket;
   double check = 5;
   void addTo( CLI::App & command ) {
      NatsOptions & nats = bucket.nats;
      command.add_option( "--server", nats.servers, "URLs of NATS servers, separated by commas" )
         ->capture_default_str();
      command.add_option( "--bucket", bucket.bucket, "name of the key-value bucket" )
         ->capture_default_str();
      command
         .add_option( "--replicas", bucket.replicas,
                      "copies of the bucket if it has to be made; 0: it must be there" )
         ->capture_default_str()
         ->check( CLI::Range( 0, 5 ) );
      command.add_option( "--creds", nats.credentials, "file with JWT and seed" );
      command.add_option( "--user", nats.user,
                          "user's name; the password is in IPSTATE_NATS_PASSWORD" );
      command.add_flag( "--tls", nats.tls, "insist on TLS" );
      command.add_option( "--ca", nats.trusted,
                          "file with the authorities to trust; implies --tls" );
      command.add_option( "--cert", nats.certificate, "file with our certificate; implies --tls" );
      command.add_option( "--key", nats.key, "file with its private key" );
   }
   void finish() {
      if( const char * password = getenv( "IPSTATE_NATS_PASSWORD" ) ) {
         bucket.nats.password = password;
      }
   }
};

// -- publish ----------------------------------------------------------------------------------

struct Publishing : Kelmo::MountGroupOwner {
   Common common;
   PublisherOptions options;
   std::string agent;
   std::vector< std::string > mounts;
   double lease = 10;

   Publisher * publisher = nullptr;
   size_t refusedMounts = 0;

   void onSynchronised() override {
      if( refusedMounts == mounts.size() ) return;
      publisher->isFedIs( true );
   }
   void onRefused( const Kelmo::Mount & mount, const std::string & reason ) override {
      ++refusedMounts;
      say( mount.path().toString() + " cannot be mounted: " + reason );
   }
   void onLost( const std::string & reason ) override {
      refusedMounts = 0;
      publisher->isFedIs( false );
      say( reason );
   }

   int run();
};

int
Publishing::run() {
   common.finish();
   const int signals = endingSignals();
   common.bucket.filter = Publisher::filterOf( options.device );
   common.bucket.follows = false;
   common.bucket.nats.name = "ipstate-nats publish " + options.device;
   options.lease = std::chrono::milliseconds( static_cast< int64_t >( lease * 1000 ) );

   Zek::Dir::Ptr root = Zek::dirFactory();
   Bucket bucket( common.bucket );
   Publisher publishes( root, bucket, options );
   publisher = &publishes;
   auto group = Zek::allocate< Kelmo::SocketMountGroup >( root, agent, *this );
   for( const std::string & mount : mounts ) {
      const size_t mark = mount.find( '=' );
      group->doMount( Kelmo::Mount(
         Zek::String( std::string_view( mount ).substr( 0, mark ) ),
         Zek::String( mark == std::string::npos ? std::string_view( "Zek::Dir" )
                                                : std::string_view( mount ).substr( mark + 1 ) ),
         "r", Kelmo::MountFilter( false ) ) );
   }

   Said fault, refusal;
   for( ;; ) {
      auto wakeUp = publishes.timePassed( Clock::now() );
      if( const auto group_ = group->timePassed( Clock::now() ) ) {
         wakeUp = std::min( wakeUp, *group_ );
      }
      group->flush();
      publishes.flush();
      fault( publishes.isOnline() ? std::string() : publishes.fault() );
      refusal( publishes.lastRefusal() );
      pollfd waits[] = { { signals, POLLIN, 0 },
                         { group->fd(), POLLIN, 0 },
                         { bucket.fd(), POLLIN, 0 } };
      if( poll( waits, 3, millisecondsUntil( wakeUp ) ) < 0 ) continue;
      if( waits[0].revents ) break;
      if( waits[1].revents ) group->onReadable();
      if( waits[2].revents ) publishes.onReadable();
   }
   close( signals );
   return succeeded;
}

// -- mirror -----------------------------------------------------------------------------------

struct Mirroring {
   Common common;
   MirrorOptions options;
   std::string serve;
   std::string group;
   double forget = 86400;
   double tidy = 0;

   int run();
};

int
Mirroring::run() {
   common.finish();
   const int signals = endingSignals();
   options.forget = std::chrono::seconds( static_cast< int64_t >( forget ) );
   // One device named plainly is all that has to be read.
   if( options.devices.size() == 1 &&
       options.devices[0].find_first_of( "*?[\\" ) == std::string::npos ) {
      common.bucket.filter = Publisher::filterOf( options.devices[0] );
   }
   common.bucket.nats.name = "ipstate-nats mirror";

   Zek::Dir::Ptr root = Zek::dirFactory();
   Kelmo::ServerOptions serverOptions;
   serverOptions.problem = []( const std::string & text ) { say( text ); };
   if( !group.empty() ) {
      const ::group * found = getgrnam( group.c_str() );
      if( !found ) {
         say( "'" + group + "' is no group of this system" );
         return misused;
      }
      serverOptions.roles.push_back( { found->gr_gid, { "" }, {} } );
   }
   std::optional< Kelmo::Server > server;
   server.emplace( root, serve, serverOptions );
   Bucket bucket( common.bucket );
   Mirror mirror( root, bucket, options );

   Said fault, refusal, state;
   Clock::time_point tidyAt = Clock::now();
   for( ;; ) {
      auto wakeUp = mirror.timePassed( Clock::now() );
      const auto forgotten = mirror.forgotten();
      if( tidy > 0 ) {
         const auto age = std::chrono::seconds( static_cast< int64_t >( tidy ) );
         if( mirror.isSynchronised() && ( Clock::now() >= tidyAt || !forgotten.empty() ) ) {
            bucket.tidy( age, forgotten );
            tidyAt = Clock::now() + std::max( age / 2, std::chrono::seconds( 1 ) );
         }
         wakeUp =
            std::min( wakeUp, std::max( tidyAt, Clock::now() + std::chrono::milliseconds( 100 ) ) );
      }
      server->flush();
      fault( mirror.isSynchronised() ? std::string() : mirror.fault() );
      refusal( mirror.devices().lastRefusal().toString() );
      state( mirror.isSynchronised() ? "synchronised" : "" );
      pollfd waits[] = { { signals, POLLIN, 0 },
                         { server->fd(), POLLIN, 0 },
                         { bucket.fd(), POLLIN, 0 } };
      if( poll( waits, 3, millisecondsUntil( wakeUp ) ) < 0 ) continue;
      if( waits[0].revents ) break;
      if( waits[1].revents ) server->onReadable();
      if( waits[2].revents ) mirror.onReadable();
   }
   close( signals );
   return succeeded;
}

} // namespace

int
main( int argc, char ** argv ) {
   CLI::App app( "Carries a device's state to a fleet over NATS with JetStream, and a fleet's "
                 "state into a tree that other programs mount." );
   app.set_version_flag( "--version", std::string( "ipstate-nats " ) + Zek::version() );
   app.require_subcommand( 1 );

   Publishing publishing;
   CLI::App & publish = *app.add_subcommand( "publish", "keep the keys of one device equal to what "
                                                        "a local agent serves" );
   char host[256] = "";
   gethostname( host, sizeof host - 1 );
   publishing.options.device = host;
   publishing.mounts = { "ip", "ip6", "l3" };
   publishing.common.addTo( publish );
   publish.add_option( "--agent", publishing.agent, "socket of the local agent" )->required();
   publish.add_option( "--device", publishing.options.device, "name of this device" )
      ->capture_default_str();
   publish
      .add_option( "--mount", publishing.mounts,
                   "what to publish: PATH of a directory, or PATH=TYPE of a record" )
      ->capture_default_str();
   publish.add_option( "--lease", publishing.lease, "seconds between refreshments of the lease" )
      ->capture_default_str()
      ->check( CLI::Range( 0.1, 86400.0 ) );

   Mirroring mirroring;
   CLI::App & mirror = *app.add_subcommand( "mirror", "take a part of the fleet into a tree, and "
                                                      "serve it" );
   mirroring.common.addTo( mirror );
   mirror.add_option( "--serve", mirroring.serve, "socket to serve the tree at" )->required();
   mirror.add_option( "--allow-group", mirroring.group, "members of this group may connect too" );
   mirror.add_option( "--device", mirroring.options.devices, "patterns of devices; none: all" );
   mirror.add_option( "--type", mirroring.options.types, "patterns of types; none: all" );
   mirror.add_option( "--attribute", mirroring.options.attributes,
                      "patterns of attributes; none: all" );
   mirror
      .add_option( "--forget", mirroring.forget,
                   "seconds after which the records of a stale device go" )
      ->capture_default_str()
      ->check( CLI::Range( 0.0, 1e9 ) );
   mirror
      .add_option( "--tidy", mirroring.tidy,
                   "take from the bucket, too, what is forgotten, and removals older than so many "
                   "seconds; 0: leave it as it is" )
      ->capture_default_str()
      ->check( CLI::Range( 0.0, 1e9 ) );

   try {
      app.parse( argc, argv );
   } catch( const CLI::ParseError & error ) {
      return app.exit( error ) == 0 ? succeeded : misused;
   }
   try {
      return publish.parsed() ? publishing.run() : mirroring.run();
   } catch( const std::exception & error ) {
      say( error.what() );
      return failed;
   }
}
