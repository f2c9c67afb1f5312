// The feed against the real kernel, in a network namespace that each test makes for itself.
//
// The measure is always the same: after anything that happened, the model that followed the events
// equals that of a feed that has just dumped the kernel afresh, in the kernel's order; and a copy
// kept by the differences alone equals both.

#include "tests/agents/Namespace.h"
#include "tests/agents/ScriptedKernel.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstdio>
#include <net/if.h>
#include <poll.h>
#include <random>
#include <set>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Ipstated::Scripted {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// One line a fact, in the kernel's order where that has a meaning.
std::vector< std::string >
factsOf( const Interface & interface ) {
   std::vector< std::string > facts;
   auto fact = [&]( const std::string & text ) { facts.push_back( interface.name + " " + text ); };
   fact( "vrf " + interface.vrf );
   fact( std::string( interface.up() ? "up" : "down" ) + ( interface.noArp() ? " noarp" : "" ) );
   fact( "config4 " + std::to_string( interface.config4.forwarding ) + " " +
         std::to_string( interface.config4.rpFilter ) + " " +
         std::to_string( interface.config4.bcForwarding ) );
   fact( "config6 " + std::to_string( interface.config6.forwarding ) + " " +
         std::to_string( interface.config6.acceptDad ) + " " +
         std::to_string( interface.config6.enhancedDad ) + " " +
         std::to_string( interface.config6.retransTime ) );
   for( const Ip4Address & address : interface.addresses4 ) {
      fact( text( address ) + " peer " + text( address.peer ) + " scope " +
            std::to_string( address.scope ) + ( address.primary() ? "" : " secondary" ) + " " +
            address.label );
   }
   std::set< std::string > unordered;
   for( const Ip6Address & address : interface.addresses6 ) {
      unordered.insert( text( address ) + ( address.dadFailed() ? " dadfailed" : "" ) );
   }
   for( RawIp4 group : interface.groups4 ) {
      unordered.insert( "group " + text( group ) );
   }
   for( const RawIp6 & group : interface.groups6 ) {
      unordered.insert( "group " + text( group ) );
   }
   for( const std::string & each : unordered ) {
      fact( each );
   }
   return facts;
}

std::vector< std::string >
factsOf( const KernelState & state ) {
   std::vector< std::string > facts;
   for( const auto & [index, interface] : state.interfaces() ) {
      if( interface.present ) {
         std::vector< std::string > more = factsOf( interface );
         facts.insert( facts.end(), more.begin(), more.end() );
      }
   }
   return facts;
}

/// Keeps addresses and groups by interface name from the differences alone.
class Keeper : public Listener {
 public:
   std::map< std::string, std::set< std::string > > held;

   void onInterface( const Interface & interface ) override {
      Listener::onInterface( interface );
      EXPECT_FALSE( held.count( interface.name ) ) << interface.name;
      held[interface.name] = all( interface );
   }

   void onInterfaceGone( const Interface & interface ) override {
      Listener::onInterfaceGone( interface );
      EXPECT_EQ( held.erase( interface.name ), 1u ) << interface.name;
   }

   void onAddress4( const Interface & interface, const Ip4Address & address,
                    Difference difference ) override {
      Listener::onAddress4( interface, address, difference );
      note( interface, text( address ) + " " + text( address.peer ), difference );
   }

   void onAddress6( const Interface & interface, const Ip6Address & address,
                    Difference difference ) override {
      Listener::onAddress6( interface, address, difference );
      note( interface, text( address ), difference );
   }

   void onGroup4( const Interface & interface, RawIp4 group, Difference difference ) override {
      Listener::onGroup4( interface, group, difference );
      note( interface, text( group ), difference );
   }

   void onGroup6( const Interface & interface, const RawIp6 & group,
                  Difference difference ) override {
      Listener::onGroup6( interface, group, difference );
      note( interface, text( group ), difference );
   }

   static std::set< std::string > all( const Interface & interface ) {
      std::set< std::string > result;
      for( const Ip4Address & address : interface.addresses4 ) {
         result.insert( text( address ) + " " + text( address.peer ) );
      }
      for( const Ip6Address & address : interface.addresses6 ) {
         result.insert( text( address ) );
      }
      for( RawIp4 group : interface.groups4 ) {
         result.insert( text( group ) );
      }
      for( const RawIp6 & group : interface.groups6 ) {
         result.insert( text( group ) );
      }
      return result;
   }

 private:
   void note( const Interface & interface, const std::string & what, Difference difference ) {
      std::set< std::string > & facts = held.at( interface.name );
      if( difference == Difference::added ) {
         EXPECT_TRUE( facts.insert( what ).second ) << interface.name << " has " << what;
      } else if( difference == Difference::removed ) {
         EXPECT_EQ( facts.erase( what ), 1u ) << interface.name << " has no " << what;
      } else {
         EXPECT_TRUE( facts.count( what ) ) << interface.name << " has no " << what;
      }
   }
};

class NetnsTest : public NamespaceTest {
 protected:
   void TearDown() override {
      feed_.reset();
      source_.reset();
      NamespaceTest::TearDown();
   }

   void begin( int receiveBuffer = 8 * 1024 * 1024 ) {
      NetlinkSource::Options sourceOptions;
      sourceOptions.receiveBuffer = receiveBuffer;
      source_ = std::make_unique< NetlinkSource >( sourceOptions );
      KernelFeed::Options options;
      options.pollInterval = milliseconds( 200 );
      options.retryDelay = milliseconds( 20 );
      feed_ = std::make_unique< KernelFeed >( *source_, keeper, options );
      feed_->start( Clock::now() );
      settle();
      keeper.heard();
   }

   /// Serves the feed as a program's loop would, once.
   void serve( milliseconds most ) {
      pollfd wait{ feed_->fd(), POLLIN, 0 };
      auto deadline = feed_->deadline();
      Clock::time_point now = Clock::now();
      auto left =
         deadline ? std::clamp( *deadline - now, Clock::duration::zero(), Clock::duration( most ) )
                  : Clock::duration( most );
      auto timeout = std::chrono::ceil< milliseconds >( left ).count();
      if( poll( &wait, 1, int( timeout ) ) > 0 ) {
         feed_->onReadable( Clock::now() );
      }
      now = Clock::now();
      if( feed_->deadline() && *feed_->deadline() <= now ) {
         feed_->onDeadline( now );
      }
   }

   /// Serves until the feed is true again and nothing has come for a moment.
   void settle() {
      Clock::time_point end = Clock::now() + std::chrono::seconds( 20 );
      Clock::time_point quietSince = Clock::now();
      size_t lines = keeper.lines.size();
      while( Clock::now() < end ) {
         uint64_t before = feed_->statistics().events;
         serve( milliseconds( 10 ) );
         if( before != feed_->statistics().events || lines != keeper.lines.size() ||
             !feed_->synchronized() ) {
            quietSince = Clock::now();
            lines = keeper.lines.size();
         } else if( Clock::now() - quietSince > milliseconds( 60 ) ) {
            return;
         }
      }
      ADD_FAILURE() << "the feed does not come to rest";
   }

   template< class Condition >
   bool eventually( Condition condition ) {
      for( Clock::time_point end = Clock::now() + std::chrono::seconds( 8 ); Clock::now() < end; ) {
         serve( milliseconds( 20 ) );
         if( condition() ) {
            return true;
         }
      }
      return false;
   }

   static std::vector< std::string > freshFacts() {
      NetlinkSource source;
      KernelObserver nobody;
      KernelFeed fresh( source, nobody );
      fresh.start( Clock::now() );
      while( !fresh.everSynchronized() ) {
         fresh.onReadable( Clock::now() );
      }
      return factsOf( fresh.state() );
   }

   /// The measure of this file. The kernel does some things later by itself (carriers, link-local
   /// addresses), so a difference gets a few chances.
   void expectTrue() {
      std::vector< std::string > followed, dumped;
      for( int i = 0; i < 10 && ( followed.empty() || followed != dumped ); ++i ) {
         settle();
         dumped = freshFacts();
         followed = factsOf( feed_->state() );
      }
      EXPECT_EQ( onlyIn( followed, dumped ), onlyIn( dumped, followed ) );
      EXPECT_TRUE( followed == dumped ) << "order: " << ::testing::PrintToString( followed )
                                        << "\nkernel: " << ::testing::PrintToString( dumped );
      for( const auto & [index, interface] : feed_->state().interfaces() ) {
         if( interface.present ) {
            EXPECT_EQ( keeper.held[interface.name], Keeper::all( interface ) ) << interface.name;
         }
      }
   }

   static std::vector< std::string > onlyIn( const std::vector< std::string > & these,
                                             const std::vector< std::string > & those ) {
      std::vector< std::string > result;
      for( const std::string & each : these ) {
         if( std::find( those.begin(), those.end(), each ) == those.end() ) {
            result.push_back( each );
         }
      }
      return result;
   }

   const Interface & interface( const std::string & name ) {
      const Interface * found = feed_->state().findByName( name );
      static const Interface none;
      EXPECT_TRUE( found ) << name;
      return found ? *found : none;
   }

   static size_t linesWith( const std::vector< std::string > & lines, const std::string & part ) {
      return size_t( std::count_if( lines.begin(), lines.end(), [&]( const std::string & line ) {
         return line.find( part ) != std::string::npos;
      } ) );
   }

   Keeper keeper;
   std::unique_ptr< NetlinkSource > source_;
   std::unique_ptr< KernelFeed > feed_;
};

TEST_F( NetnsTest, FollowsLinksAddressesAndSettings ) {
   ip( { "addr add 10.0.0.1/24 dev v0", "addr add 10.0.0.2/24 dev v0" } );
   begin();
   EXPECT_EQ( interface( "v0" ).addresses4.size(), 2u );
   expectTrue();
   ip( { "addr add 10.1.0.1 peer 10.1.0.2/32 dev v0 label v0:p2p",
         "addr add 2001:db8::1/64 dev v0 nodad", "link set v1 arp off", "link set v1 down" } );
   setting( "ipv4/conf/v0/rp_filter", "2" );
   setting( "ipv4/conf/all/forwarding", "1" );
   setting( "ipv6/conf/all/forwarding", "1" );
   setting( "ipv4/conf/all/rp_filter", "1" );
   expectTrue();
   EXPECT_EQ( interface( "v0" ).config4.rpFilter, 2 );
   EXPECT_EQ( interface( "lo" ).config4.rpFilter, 1 );
   EXPECT_TRUE( interface( "v1" ).noArp() );
   EXPECT_FALSE( interface( "v1" ).up() );
   EXPECT_TRUE( interface( "lo" ).config6.forwarding );
   // A repeated dump tells nothing.
   settle();
   keeper.heard();
   feed_->start( Clock::now() );
   settle();
   EXPECT_EQ( keeper.heard(), std::vector< std::string >{} );
   EXPECT_EQ( keeper.problems, std::vector< std::string >{} );
}

TEST_F( NetnsTest, FindsWhatHasNoEvent ) {
   ip( { "link add a.b-c type veth peer name x_y" } );
   begin();
   for( const char * name : { "v0", "a.b-c" } ) {
      setting( std::string( "ipv4/conf/" ) + name + "/bc_forwarding", "1" );
      setting( std::string( "ipv6/conf/" ) + name + "/accept_dad", "2" );
   }
   setting( "ipv4/conf/all/bc_forwarding", "1" );
   EXPECT_TRUE( eventually( [&] {
      const Interface & odd = interface( "a.b-c" );
      return odd.config4.bcForwarding && odd.config6.acceptDad == 2 &&
             interface( "v0" ).config4.bcForwarding;
   } ) );
   EXPECT_FALSE( interface( "x_y" ).config4.bcForwarding );
   EXPECT_NE( interface( "x_y" ).config6.acceptDad, 2 );
   setting( "ipv6/conf/all/accept_dad", "2" );
   EXPECT_TRUE( eventually( [&] { return interface( "x_y" ).config6.acceptDad == 2; } ) );
   expectTrue();
}

TEST_F( NetnsTest, TellsNothingWrongWhileDescriptorsHaveRunOut ) {
   setting( "ipv6/conf/all/accept_dad", "2" );
   begin();
   ASSERT_EQ( interface( "v0" ).config6.acceptDad, 2 );
   keeper.heard();
   std::vector< int > taken;
   for( int fd; ( fd = dup( 0 ) ) >= 0; ) taken.push_back( fd );
   source_->abandonRequest(); // as after a dump without an answer: the next one needs a socket
   feed_->start( Clock::now() );
   for( auto end = Clock::now() + milliseconds( 100 ); Clock::now() < end; )
      serve( milliseconds( 10 ) );
   EXPECT_EQ( keeper.heard(), std::vector< std::string >() );
   EXPECT_FALSE( feed_->synchronized() );
   for( int fd : taken ) close( fd );
   EXPECT_TRUE( eventually( [&] { return feed_->synchronized(); } ) );
   EXPECT_EQ( keeper.heard(), std::vector< std::string >() );
   expectTrue();
}

TEST_F( NetnsTest, FollowsGroupsOfApplications ) {
   ip( { "addr add 10.0.0.1/24 dev v0" } );
   begin();
   int socketOf4 = socket( AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0 );
   ip_mreqn wanted{};
   wanted.imr_multiaddr = ip4( "239.1.2.3" );
   wanted.imr_ifindex = int( if_nametoindex( "v0" ) );
   ASSERT_EQ( setsockopt( socketOf4, IPPROTO_IP, IP_ADD_MEMBERSHIP, &wanted, sizeof wanted ), 0 );
   int socketOf6 = socket( AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0 );
   ipv6_mreq wanted6{ ip6( "ff05::1234" ), if_nametoindex( "v0" ) };
   ASSERT_EQ( setsockopt( socketOf6, IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, &wanted6, sizeof wanted6 ),
              0 );
   auto has = [&]( const char * group ) { return keeper.held["v0"].count( group ) == 1; };
   EXPECT_TRUE( eventually( [&] { return has( "239.1.2.3" ) && has( "ff05::1234" ); } ) );
   expectTrue();
   close( socketOf4 );
   close( socketOf6 );
   EXPECT_TRUE( eventually( [&] { return !has( "239.1.2.3" ) && !has( "ff05::1234" ); } ) );
   expectTrue();
}

TEST_F( NetnsTest, TextAndDumpAgreeOnGroups ) {
   begin();
   std::string text;
   std::vector< std::pair< int, RawIp4 > > groups4;
   std::vector< std::pair< int, RawIp6 > > groups6;
   ASSERT_EQ( source_->readText( KernelText::igmp, text ), 0 );
   EXPECT_TRUE( readIgmp( text, groups4 ) );
   ASSERT_EQ( source_->readText( KernelText::igmp6, text ), 0 );
   EXPECT_TRUE( readIgmp6( text, groups6 ) );
   std::map< int, std::set< RawIp4 > > byText4, byDump4;
   std::map< int, std::set< RawIp6 > > byText6, byDump6;
   for( auto & [index, group] : groups4 ) {
      byText4[index].insert( group );
   }
   for( auto & [index, group] : groups6 ) {
      byText6[index].insert( group );
   }
   for( const auto & [index, interface] : feed_->state().interfaces() ) {
      for( RawIp4 group : interface.groups4 ) {
         byDump4[index].insert( group );
      }
      for( const RawIp6 & group : interface.groups6 ) {
         byDump6[index].insert( group );
      }
   }
   EXPECT_EQ( byText4, byDump4 );
   EXPECT_EQ( byText6, byDump6 );
   EXPECT_FALSE( byDump4.empty() );
}

TEST_F( NetnsTest, FailedDuplicateAddressDetectionIsSeen ) {
   ip( { "addr add 2001:db8::5/64 dev v0 nodad" } );
   begin();
   ip( { "addr add 2001:db8::5/64 dev v1" } );
   EXPECT_TRUE( eventually( [&] {
      for( const Ip6Address & address : interface( "v1" ).addresses6 ) {
         if( text( address ) == "2001:db8::5/64" && address.dadFailed() ) {
            return true;
         }
      }
      return false;
   } ) );
   expectTrue();
}

TEST_F( NetnsTest, RenamesAndReCreationsAreToldByName ) {
   begin();
   ip( { "addr add 10.0.0.1/24 dev v0", "link set v0 down", "link set v0 name w0" } );
   settle();
   std::vector< std::string > lines = keeper.heard();
   EXPECT_EQ( linesWith( lines, "- v0" ), 1u );
   EXPECT_EQ( linesWith( lines, "+ w0 vrf default 10.0.0.1/24" ), 1u );
   expectTrue();
   unsigned index = if_nametoindex( "w0" );
   ip( { "link del w0", "link add w0 index " + std::to_string( index ) + " type veth peer name w1",
         "addr add 10.0.0.1/24 dev w0" } );
   expectTrue();
   ip( { "link del w0", "link add w0 type veth peer name w1", "addr add 10.0.0.1/24 dev w0" } );
   EXPECT_NE( if_nametoindex( "w0" ), index );
   expectTrue();
}

TEST_F( NetnsTest, BridgePortsComeAndGo ) {
   if( !ip( { "link add br0 type bridge" } ) ) {
      SKIP_BECAUSE( "no bridge" );
   }
   begin();
   ip( { "link set br0 up", "link set v1 master br0", "addr add 10.0.0.1/24 dev br0" } );
   settle();
   EXPECT_EQ( interface( "v1" ).master, interface( "br0" ).index );
   EXPECT_EQ( interface( "v1" ).vrf, "default" );
   ip( { "link set v1 nomaster" } );
   settle();
   // The bridge family's "link deleted" for the port is no end of the interface.
   EXPECT_EQ( linesWith( keeper.heard(), "- v1" ), 0u );
   EXPECT_EQ( interface( "v1" ).master, 0 );
   expectTrue();
   ip( { "link del br0" } );
   expectTrue();
}

TEST_F( NetnsTest, MovesBetweenVrfs ) {
   if( !ip( { "link add red type vrf table 10", "link add blue type vrf table 11" } ) ) {
      SKIP_BECAUSE( "no vrf" );
   }
   ip( { "link set red up", "link set blue up", "link set v0 master red" } );
   begin();
   EXPECT_EQ( interface( "v0" ).vrf, "red" );
   ip( { "link set v0 master blue" } );
   settle();
   std::vector< std::string > lines = keeper.heard();
   EXPECT_GE( linesWith( lines, "v0 vrf " ), 1u );
   EXPECT_EQ( linesWith( lines, "- v0" ), 0u );
   EXPECT_EQ( interface( "v0" ).vrf, "blue" );
   ip( { "link del blue" } );
   settle();
   EXPECT_EQ( interface( "v0" ).vrf, "default" );
   expectTrue();
}

TEST_F( NetnsTest, RandomAddressesKeepTheKernelsOrder ) {
   begin();
   std::mt19937 random( 4 );
   for( int round = 0; round < 30; ++round ) {
      // Promotion of secondaries as well as their deletion with the primary.
      setting( "ipv4/conf/all/promote_secondaries", round % 3 ? "1" : "0" );
      std::vector< std::string > commands;
      for( int i = 0; i < 20; ++i ) {
         std::string address = "10.0." + std::to_string( random() % 4 ) + "." +
                               std::to_string( 1 + random() % 4 ) + "/24 dev v0";
         if( random() % 5 < 3 ) {
            const char * scopes[] = { "global", "global", "global", "link", "host" };
            commands.push_back( "addr add " + address + " scope " + scopes[random() % 5] );
         } else {
            commands.push_back( "addr del " + address );
         }
      }
      ip( commands );
      expectTrue();
      ASSERT_FALSE( HasFailure() ) << "round " << round;
   }
}

TEST_F( NetnsTest, BurstAgainstAPausedReaderIsToldAsItsOutcome ) {
   begin( 64 * 1024 );
   std::vector< std::string > commands;
   for( int i = 0; i < 2500; ++i ) {
      std::string address =
         "10." + std::to_string( 1 + i / 250 ) + "." + std::to_string( i % 250 ) + ".1/24 dev v0";
      commands.push_back( "addr add " + address );
      if( i % 10 ) {
         commands.push_back( "addr del " + address );
      }
   }
   ip( commands ); // nobody reads meanwhile
   expectTrue();
   std::vector< std::string > lines = keeper.heard();
   EXPECT_EQ( linesWith( lines, "v0 +10." ), 250u );
   EXPECT_EQ( linesWith( lines, "v0 -10." ), 0u );
   EXPECT_EQ( linesWith( lines, "+ v" ) + linesWith( lines, "- v" ), 0u );
   EXPECT_GE( feed_->statistics().overruns, 1u );
   printf( "burst of %zu changes: %lu events read, %lu overruns, %lu full dumps\n", commands.size(),
           static_cast< unsigned long >( feed_->statistics().events ),
           static_cast< unsigned long >( feed_->statistics().overruns ),
           static_cast< unsigned long >( feed_->statistics().fullDumps ) );
}

TEST_F( NetnsTest, DumpsUnderChurnComeToAnEndAndToTheTruth ) {
   std::vector< std::string > still;
   for( int i = 0; i < 1000; ++i ) {
      still.push_back( "addr add 172.16." + std::to_string( i / 250 ) + "." +
                       std::to_string( i % 250 + 1 ) + "/32 dev v1" );
   }
   ip( still );
   int running[2]; // as long as its other end is open
   ASSERT_EQ( pipe( running ), 0 );
   pid_t churn = fork();
   ASSERT_GE( churn, 0 );
   if( churn == 0 ) {
      close( running[1] );
      std::vector< std::string > commands;
      for( int i = 0; i < 500; ++i ) {
         std::string address = "10.0." + std::to_string( i % 7 ) + ".1/24 dev v0";
         commands.push_back( ( i / 7 % 2 ? "addr del " : "addr add " ) + address );
      }
      for( pollfd wait{ running[0], POLLIN, 0 }; poll( &wait, 1, 0 ) == 0; ) {
         ip( commands );
      }
      _exit( 0 );
   }
   close( running[0] );
   NetlinkSource::Options sourceOptions;
   sourceOptions.receiveBuffer = 128 * 1024;
   source_ = std::make_unique< NetlinkSource >( sourceOptions );
   KernelFeed::Options options;
   options.retryDelay = milliseconds( 20 );
   feed_ = std::make_unique< KernelFeed >( *source_, keeper, options );
   feed_->start( Clock::now() );
   for( Clock::time_point end = Clock::now() + milliseconds( 1500 ); Clock::now() < end; ) {
      serve( milliseconds( 10 ) );
      if( feed_->statistics().fullDumps >= 1 && feed_->synchronized() ) {
         feed_->start( Clock::now() );
      }
   }
   EXPECT_TRUE( feed_->everSynchronized() ); // even though it never was quiet
   close( running[1] );
   waitpid( churn, nullptr, 0 );
   expectTrue();
   std::vector< std::string > lines = keeper.heard();
   EXPECT_EQ( linesWith( lines, "v1 -172" ), 0u ); // what never changed is never told as gone
   printf( "churn: %lu full dumps, %lu single dumps interrupted, %lu overruns\n",
           static_cast< unsigned long >( feed_->statistics().fullDumps ),
           static_cast< unsigned long >( feed_->statistics().interrupted ),
           static_cast< unsigned long >( feed_->statistics().overruns ) );
}

} // namespace
} // namespace Ipstated::Scripted
