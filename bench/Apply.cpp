// From configuration records to status records through the kernel: 10,000 addresses, half of each
// family, over 100 interfaces; in one process, and from another process across mounts. The peer is
// ip -batch, which installs the same addresses and waits for nothing. Each measurement of ours
// comes right after one of the peer's, since the kernel's lock, which nearly all time is spent
// under, is shared with all other work of the machine; of the ratios the median counts.
//
// Needs the right to make network namespaces; each measurement makes one for itself.

#include "agents/ipstated/Apply.h"
#include "Ira/IpStatusMounter.h"
#include "agents/ipstated/Mirror.h"
#include "agents/ipstated/Observers.h"
#include "platform/Kelmo/Server.h"
#include "platform/Kelmo/SocketMountGroup.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace Ipstated;
using Clock = std::chrono::steady_clock;

constexpr int interfaces = 100;
constexpr int each = 50; // of either family on each
constexpr int total = interfaces * each * 2;
constexpr auto patience = std::chrono::seconds( 120 );

std::string
intfName( int i ) {
   return ( i % 2 ? "w" : "v" ) + std::to_string( i / 2 );
}
Velon::IpAddrWithMask
address4( int i, int n ) {
   return { Velon::IpAddr( 10, uint8_t( i ), uint8_t( n ), 1 ), 24 };
}
Velon::Ip6AddrWithMask
address6( int i, int n ) {
   return { Velon::Ip6Addr( 0x20010db800000000 | unsigned( i ) << 16 | unsigned( n ), 1 ), 64 };
}

bool
batch( const std::string & commands ) {
   FILE * ip = popen( "ip -force -batch - >/dev/null 2>&1", "we" );
   fwrite( commands.data(), 1, commands.size(), ip );
   return pclose( ip ) == 0;
}

/// A namespace with the interfaces up and no address on them.
bool
enter() {
   if( unshare( CLONE_NEWNET ) != 0 ) return false;
   std::string commands = "link set lo up\n";
   for( int i = 0; i < interfaces; i += 2 ) {
      commands += "link add " + intfName( i ) + " type veth peer name " + intfName( i + 1 ) + "\n";
   }
   if( !batch( commands ) ) return false;
   commands.clear();
   for( int i = 0; i < interfaces; ++i ) {
      const std::string conf = "/proc/sys/net/ipv6/conf/" + intfName( i );
      std::ofstream( conf + "/accept_dad" ) << 0;
      std::ofstream( conf + "/addr_gen_mode" ) << 1;
      commands += "link set " + intfName( i ) + " up\n";
   }
   return batch( commands );
}

/// The kernel ends a namespace in its own time; with thousands of addresses in it, that would
/// fall into the next measurement.
void
leave() {
   std::string commands;
   for( int i = 0; i < interfaces; i += 2 ) commands += "link del " + intfName( i ) + "\n";
   batch( commands );
}

double
secondsSince( Clock::time_point start ) {
   return std::chrono::duration< double >( Clock::now() - start ).count();
}

double
byBatch() {
   std::string commands;
   for( int i = 0; i < interfaces; ++i ) {
      for( int n = 0; n < each; ++n ) {
         commands += "addr replace " + address4( i, n ).toString() + " dev " + intfName( i ) + "\n";
         commands += "addr replace " + address6( i, n ).toString() + " dev " + intfName( i ) + "\n";
      }
   }
   const auto start = Clock::now();
   return batch( commands ) ? secondsSince( start ) : 0;
}

void
configure( Ip::Config & config4, Ip6::Config & config6 ) {
   for( int i = 0; i < interfaces; ++i ) {
      const Velon::IntfId id( intfName( i ) );
      auto intf4 = config4.ipIntfConfigIs( id );
      auto intf6 = config6.intfIs( id );
      for( int n = 0; n < each; ++n ) {
         if( n == 0 ) {
            intf4->addrWithMaskIs( address4( i, n ) );
         } else {
            intf4->secondaryWithMaskIs( address4( i, n ), true );
         }
         intf6->addrIs( Ip6::AddressInfo( address6( i, n ) ) );
      }
   }
}

/// How many of the addresses the status records have.
int
count( const Ip::Status & status4, const Ip6::Status & status6 ) {
   int found = 0;
   for( int i = 0; i < interfaces; ++i ) {
      const Velon::IntfId id( intfName( i ) );
      if( auto status = status4.ipIntfStatus( id ) ) {
         found +=
            bool( status->activeAddrWithMask() ) + int( status->activeSecondaryWithMaskCount() );
      }
      if( auto status = status6.intf( id ) ) found += int( status->addrCount() );
   }
   return found;
}

/// What ipstated --apply is made of.
struct Agent {
   Agent() : feed( source, observers ), apply( config4, config6, errors, feed.state() ) {
      mirror.root()->dirIs( "ip" )->entityIs( config4 );
      mirror.root()->dirIs( "ip6" )->entityIs( config6 );
      observers.add( mirror );
      observers.add( apply );
      feed.start( Clock::now() );
   }
   void turn( int more, std::chrono::milliseconds most ) {
      const auto deadline = apply.deadline();
      const bool busy = deadline && *deadline <= Clock::now();
      pollfd waits[] = { { feed.fd(), POLLIN, 0 }, { more, POLLIN, 0 } };
      poll( waits, 2, busy ? 0 : int( most.count() ) );
      if( waits[0].revents ) feed.onReadable( Clock::now() );
      const auto now = Clock::now();
      if( feed.deadline() && *feed.deadline() <= now ) feed.onDeadline( now );
      if( busy ) apply.serve( now );
   }
   Ip::Config::Ptr config4 = Ip::configFactory( "config" );
   Ip6::Config::Ptr config6 = Ip6::configFactory( "config" );
   Ip::IpConfigError::Ptr errors = Ip::ipConfigErrorFactory( "error" );
   Mirror mirror{ 1 };
   Observers observers;
   NetlinkSource source;
   KernelFeed feed;
   Apply apply;
};

double
inOneProcess() {
   Agent agent;
   const auto end = Clock::now() + patience;
   while( !agent.feed.synchronized() ) agent.turn( -1, std::chrono::milliseconds( 10 ) );
   const auto start = Clock::now();
   configure( *agent.config4, *agent.config6 );
   while( count( agent.mirror.ipStatus(), agent.mirror.ip6Status() ) != total ) {
      if( Clock::now() > end ) return 0;
      agent.turn( -1, std::chrono::milliseconds( 10 ) );
   }
   return secondsSince( start );
}

[[noreturn]] void
serve( const std::string & path ) {
   Agent agent;
   while( !agent.feed.synchronized() ) agent.turn( -1, std::chrono::milliseconds( 10 ) );
   Kelmo::ServerOptions options;
   options.writable = { "ip/config", "ip6/config" };
   Kelmo::Server server( agent.mirror.root(), path, options );
   for( ;; ) {
      server.flush();
      agent.turn( server.fd(), std::chrono::milliseconds( 1000 ) );
      server.onReadable();
   }
}

double
acrossMounts() {
   char directory[] = "/tmp/ipstate-bench-XXXXXX";
   if( !mkdtemp( directory ) ) return 0;
   const std::string path = std::string( directory ) + "/socket";
   const pid_t server = fork();
   if( server == 0 ) serve( path );
   double taken = 0;
   {
      struct Owner final : Kelmo::MountGroupOwner {
      } owner;
      auto root = Zek::dirFactory();
      auto group = Zek::allocate< Kelmo::SocketMountGroup >( root, path, owner );
      Ira::IraIpStatusMounter::doMountEntities( group, true, true );
      const Kelmo::MountFilter all( false );
      group->doMount( Kelmo::Mount( "ip/config", "Ip::Config", "w", all ) );
      group->doMount( Kelmo::Mount( "ip6/config", "Ip6::Config", "w", all ) );
      auto turn = [&] {
         group->timePassed( Clock::now() );
         group->flush();
         pollfd wait{ group->fd(), POLLIN, 0 };
         if( poll( &wait, 1, 10 ) > 0 ) group->onReadable();
      };
      const auto end = Clock::now() + patience;
      while( !group->isSynchronised() && Clock::now() < end ) turn();
      auto at = [&]( const char * where ) { return root->entityAt( where ); };
      auto config4 = Zek::ptrCast< Ip::Config >( at( "ip/config" ) );
      auto config6 = Zek::ptrCast< Ip6::Config >( at( "ip6/config" ) );
      auto status4 = Zek::ptrCast< Ip::Status >( at( "ip/status" ) );
      auto status6 = Zek::ptrCast< Ip6::Status >( at( "ip6/status" ) );
      if( config4 && config6 && status4 && status6 ) {
         const auto start = Clock::now();
         configure( *config4, *config6 );
         while( count( *status4, *status6 ) != total && Clock::now() < end ) turn();
         if( count( *status4, *status6 ) == total ) taken = secondsSince( start );
      }
   }
   kill( server, SIGKILL );
   waitpid( server, nullptr, 0 );
   std::filesystem::remove_all( directory );
   return taken;
}

/// In a process and a namespace of its own. 0 when it could not be done.
double
measured( double ( *measure )() ) {
   int ends[2];
   if( pipe( ends ) != 0 ) return 0;
   const pid_t child = fork();
   if( child == 0 ) {
      const double taken = enter() ? measure() : 0;
      leave();
      const bool written = write( ends[1], &taken, sizeof taken ) == sizeof taken;
      _exit( written ? 0 : 1 );
   }
   close( ends[1] );
   double taken = 0;
   if( read( ends[0], &taken, sizeof taken ) != sizeof taken ) taken = 0;
   close( ends[0] );
   waitpid( child, nullptr, 0 );
   return taken;
}

double
median( std::vector< double > values ) {
   std::sort( values.begin(), values.end() );
   return values[values.size() / 2];
}

} // namespace

int
main() {
   constexpr double goal = 1.3;
   constexpr int rounds = 5;
   struct {
      const char * name;
      double ( *measure )();
      std::vector< double > seconds, ratios;
   } ways[] = { { "in one process", inOneProcess, {}, {} },
                { "across mounts", acrossMounts, {}, {} } };
   std::vector< double > peer;
   for( int round = 0; round < rounds; ++round ) {
      for( auto & way : ways ) {
         peer.push_back( measured( byBatch ) );
         if( peer.back() == 0 ) {
            printf( "SKIPPED: no right to make a network namespace, or no ip command\n" );
            return 0;
         }
         way.seconds.push_back( measured( way.measure ) );
         if( way.seconds.back() == 0 ) {
            printf( "%s: did not come to an end\n", way.name );
            return 1;
         }
         way.ratios.push_back( way.seconds.back() / peer.back() );
      }
   }
   printf( "%d addresses, ip -batch: %.3f s\n", total, median( peer ) );
   bool met = true;
   for( const auto & way : ways ) {
      const double ratio = median( way.ratios );
      met = met && ratio <= goal;
      printf( "%s: %.3f s, ratio %.2f (goal %.1f) %s\n", way.name, median( way.seconds ), ratio,
              goal, ratio <= goal ? "met" : "MISSED" );
   }
   return met ? 0 : 1;
}
