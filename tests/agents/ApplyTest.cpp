// The configuration records against the real kernel, in a network namespace that each test makes
// for itself. The measure: at rest, what the records want is in the kernel and in the status, what
// else is there was put there by hand, and the registries of source interfaces follow.

#include "agents/ipstated/Apply.h"
#include "agents/ipstated/Mirror.h"
#include "agents/ipstated/Observers.h"
#include "agents/ipstated/Sources.h"
#include "tests/agents/Namespace.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <poll.h>
#include <random>
#include <set>
#include <sstream>

namespace Ipstated::Scripted {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using Texts = std::set< std::string >;

class ApplyTest : public NamespaceTest {
 protected:
   struct World {
      explicit World( const Apply::Options & options )
         : feed( source, observers ),
           apply( config4, config6, errors, feed.state(), options ) {
         observers.add( mirror );
         observers.add( apply );
         feed.start( Clock::now() );
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

   void SetUp() override {
      NamespaceTest::SetUp();
      if( IsSkipped() ) return;
      for( const char * which : { "all", "default", "v0", "v1" } ) {
         const std::string conf = std::string( "ipv6/conf/" ) + which;
         setting( conf + "/accept_dad", "0" );
         setting( conf + "/addr_gen_mode", "1" ); // no link-local addresses of its own
      }
      ip( { "addr flush dev v0", "addr flush dev v1" } );
      Apply::Options options;
      options.mostPerTurn = 7; // so that everything takes turns
      options.retryDelay = milliseconds( 100 );
      world = std::make_unique< World >( options );
      settle();
   }
   void TearDown() override {
      world.reset();
      NamespaceTest::TearDown();
   }

   /// One turn of a program's loop; whether something happened.
   bool turn( milliseconds most ) {
      const auto deadline = world->apply.deadline();
      const bool busy = deadline && *deadline <= Clock::now();
      pollfd wait{ world->feed.fd(), POLLIN, 0 };
      const bool readable = poll( &wait, 1, busy ? 0 : int( most.count() ) ) > 0;
      const uint64_t events = world->feed.statistics().events;
      if( readable ) world->feed.onReadable( Clock::now() );
      const auto now = Clock::now();
      if( world->feed.deadline() && *world->feed.deadline() <= now ) world->feed.onDeadline( now );
      if( busy ) world->apply.serve( now );
      return busy || events != world->feed.statistics().events || !world->feed.synchronized();
   }

   void settle() {
      const auto end = Clock::now() + std::chrono::seconds( 20 );
      for( auto quiet = Clock::now(); Clock::now() - quiet < milliseconds( 40 ); ) {
         if( turn( milliseconds( 10 ) ) ) quiet = Clock::now();
         ASSERT_LT( Clock::now(), end ) << "does not come to rest";
      }
   }

   template< class Condition >
   bool eventually( Condition condition ) {
      for( auto end = Clock::now() + std::chrono::seconds( 8 ); Clock::now() < end; ) {
         if( condition() ) return true;
         turn( milliseconds( 10 ) );
      }
      return false;
   }

   Ip::IpIntfConfig & config4( const char * intf ) {
      return *world->config4->ipIntfConfigIs( Velon::IntfId( intf ) );
   }
   Ip6::IntfConfig & config6( const char * intf ) {
      return *world->config6->intfIs( Velon::IntfId( intf ) );
   }
   std::string error( const char * intf ) {
      return world->errors->ipIntfConfigError( Velon::IntfId( intf ) ).charPtr();
   }

   Texts inStatus( const char * name ) {
      Texts all;
      const Velon::IntfId intf( name );
      if( auto status = world->mirror.ipStatus().ipIntfStatus( intf ) ) {
         if( status->activeAddrWithMask() ) all.insert( status->activeAddrWithMask().toString() );
         for( auto i = status->activeSecondaryWithMaskIteratorConst(); i; ++i ) {
            all.insert( i.key().toString() );
         }
      }
      if( auto status = world->mirror.ip6Status().intf( intf ) ) {
         for( auto i = status->addrIteratorConst(); i; ++i ) all.insert( i.key().toString() );
      }
      return all;
   }

   /// In the kernel's order, of those families.
   static std::vector< std::string > dumped( const std::string & which,
                                             const std::string & families ) {
      FILE * dump = popen( ( "ip -oneline address show dev " + which + " 2>&1" ).c_str(), "re" );
      std::string text;
      for( int c; ( c = fgetc( dump ) ) != EOF; ) text += char( c );
      pclose( dump );
      std::istringstream words( text );
      std::vector< std::string > all;
      for( std::string word; words >> word; ) {
         if( word == "inet" || ( word == "inet6" && families == "both" ) ) {
            words >> word;
            all.push_back( word );
         }
      }
      return all;
   }
   static Texts inKernel( const std::string & intf ) {
      const auto all = dumped( intf, "both" );
      return { all.begin(), all.end() };
   }

   static Velon::IpAddrWithMask a4( const std::string & text ) {
      return Velon::IpAddrWithMask( text );
   }
   static Ip6::AddressInfo a6( const std::string & text ) {
      return Ip6::AddressInfo( Velon::Ip6AddrWithMask( text ) );
   }

   /// At rest, in the kernel and in the status.
   void expect( const char * intf, const Texts & addresses ) {
      EXPECT_TRUE( eventually( [&] { return inStatus( intf ) == addresses; } ) );
      settle();
      EXPECT_EQ( inStatus( intf ), addresses ) << intf << ": " << error( intf );
      EXPECT_EQ( inKernel( intf ), addresses ) << intf;
   }

   /// What the records want there.
   Texts wanted( const char * name ) {
      Texts all;
      const Velon::IntfId intf( name );
      auto want = [&]( const auto & key ) {
         if( key ) all.insert( key.toString() );
      };
      if( auto config = world->config4->ipIntfConfig( intf ); config && isInVrf( *config ) ) {
         want( config->addrWithMask() );
         want( config->virtualAddrWithMask() );
         for( auto i = config->secondaryWithMaskIteratorConst(); i; ++i ) {
            if( config->secondaryWithMask( i.key() ) ) want( i.key() );
         }
         for( auto i = config->virtualSecondaryWithMaskIteratorConst(); i; ++i ) {
            if( config->virtualSecondaryWithMask( i.key() ) ) want( i.key() );
         }
         if( !config->addrWithMask() ) want( lent( config->unnumberedIntfId() ) );
      }
      if( auto config = world->config6->intf( intf ); config && isInVrf( *config ) ) {
         want( config->linkLocalAddrWithMask() );
         for( auto i = config->addrIteratorConst(); i; ++i ) want( i.key() );
      }
      return all;
   }

   template< class Config >
   static bool isInVrf( const Config & config ) {
      return config.vrf().empty() || config.vrf().view() == defaultVrf;
   }

   Velon::IpAddrWithMask lent( Velon::IntfId lender ) {
      auto config = world->config4->ipIntfConfig( lender );
      auto status = world->mirror.ipStatus().ipIntfStatus( lender );
      if( !status || !status->activeAddrWithMask() || ( config && config->unnumberedIntfId() ) ) {
         return {};
      }
      return { status->activeAddrWithMask().addr(), 32 };
   }

   /// What is wrong with that interface; empty when all agrees.
   std::string disagreement( const char * name, const Texts & byHand ) {
      std::ostringstream out;
      const Texts status = inStatus( name ), wants = wanted( name ), kernel = inKernel( name );
      const Velon::IntfId intf( name );
      const auto status4 = world->mirror.ipStatus().ipIntfStatus( intf );
      const auto status6 = world->mirror.ip6Status().intf( intf );
      for( const std::string & each : wants ) {
         if( !status4 || status.count( each ) ) continue;
         // The kernel holds an IPv6 address once.
         const std::string address = each.substr( 0, each.find( '/' ) );
         if( address.find( ':' ) == std::string::npos ||
             !( status.count( address + "/48" ) || status.count( address + "/64" ) ) ) {
            out << each << " is missing; ";
         }
      }
      for( const std::string & each : status ) {
         if( !wants.count( each ) && !byHand.count( name + ( " " + each ) ) ) {
            out << each << " is nobody's; ";
         }
      }
      if( kernel != status ) {
         out << "kernel " << ::testing::PrintToString( kernel ) << ", status "
             << ::testing::PrintToString( status ) << "; ";
      }
      // The kernel decides which are secondary.
      std::vector< std::string > primaries = dumped( name + std::string( " primary" ), "inet" );
      primaries.emplace_back( "0.0.0.0/0" );
      if( status4 && status4->activeAddrWithMask().toString() != primaries[0] ) {
         out << "the kernel's primary is " << primaries[0] << "; ";
      }
      const std::string without = "none 0.0.0.0 ::", &told = error( name );
      for( const auto & [registry, address] : sources ) {
         if( registry.substr( registry.rfind( ' ' ) + 1 ) != name ) continue;
         const bool six = registry.find( "IPv6" ) != std::string::npos;
         const std::string now = !status4 ? ""
                                 : six    ? textOf( status6->linkLocalAddrWithMask() )
                                          : textOf( status4->activeAddrWithMask() );
         if( now.empty() ? without.find( address ) == std::string::npos : address != now ) {
            out << registry << " has " << address << "; ";
         }
      }
      auto tells = [&]( const auto & config, bool hasAddresses, const char * what ) {
         const bool elsewhere = status4 && config && !isInVrf( *config );
         const bool isTold = told.find( what ) != std::string::npos;
         if( elsewhere ? hasAddresses && !isTold : isTold ) out << "told: " << told;
      };
      const auto config4 = world->config4->ipIntfConfig( intf );
      const auto config6 = world->config6->intf( intf );
      tells( config4, config4 && config4->addrWithMask(), "its IPv4 configuration in 'red'" );
      tells( config6, config6 && config6->addrCount(), "its IPv6 configuration in 'red'" );
      return out.str();
   }

   template< class Key >
   static std::string textOf( const Key & key ) {
      return key ? key.addr().toString() : "";
   }

   /// At rest, all agrees. What is wanted is not there by hand any more, but installed.
   void expectAgreement( const char * name, Texts & byHand ) {
      settle();
      EXPECT_TRUE( eventually( [&] { return disagreement( name, byHand ) == ""; } ) )
         << name << ": " << disagreement( name, byHand ) << error( name );
      settle();
      for( const std::string & each : wanted( name ) ) byHand.erase( name + ( " " + each ) );
   }

   std::map< std::string, std::string > sources; ///< address by registry and interface
   std::unique_ptr< World > world;
};

TEST_F( ApplyTest, InstallsChangesAndRemovesItsOwnAlone ) {
   ip( { "addr add 10.9.0.1/24 dev v0", "addr add 10.0.0.1/24 dev v0" } );
   settle();
   config4( "v0" ).addrWithMaskIs( a4( "10.0.0.1/24" ) ); // is there: becomes its own
   config4( "v0" ).secondaryWithMaskIs( a4( "10.0.0.2/24" ), true );
   config4( "v0" ).secondaryWithMaskIs( a4( "10.0.0.3/24" ), false );
   config4( "v0" ).virtualAddrWithMaskIs( a4( "10.1.0.1/16" ) );
   config4( "v0" ).virtualSecondaryWithMaskIs( a4( "10.1.0.2/31" ), true );
   config6( "v0" ).addrIs( a6( "2001:db8::1/64" ) );
   config6( "v0" ).linkLocalAddrWithMaskIs( Velon::Ip6AddrWithMask( "fe80::1/64" ) );
   expect( "v0", { "10.9.0.1/24", "10.0.0.1/24", "10.0.0.2/24", "10.1.0.1/16", "10.1.0.2/31",
                   "2001:db8::1/64", "fe80::1/64" } );
   config4( "v0" ).addrWithMaskIs( a4( "10.0.0.3/24" ) ); // takes .2 along
   config4( "v0" ).virtualAddrWithMaskIs( {} );
   config4( "v0" ).virtualSecondaryWithMaskDelAll();
   config6( "v0" ).addrDel( Velon::Ip6AddrWithMask( "2001:db8::1/64" ) );
   config6( "v0" ).addrIs( a6( "2001:db8::1/48" ) ); // the same with another length
   expect( "v0", { "10.9.0.1/24", "10.0.0.3/24", "10.0.0.2/24", "2001:db8::1/48", "fe80::1/64" } );
   config4( "v0" ).scopeIs( Ip::IpAddrScope::link );
   expect( "v0", { "10.9.0.1/24", "10.0.0.3/24", "10.0.0.2/24", "2001:db8::1/48", "fe80::1/64" } );
   EXPECT_EQ( system( "ip addr show dev v0 scope link | grep -q 10.0.0.3/24" ), 0 );
   world->config4->ipIntfConfigDel( Velon::IntfId( "v0" ) );
   world->config6->intfDel( Velon::IntfId( "v0" ) );
   expect( "v0", { "10.9.0.1/24" } );
   EXPECT_EQ( world->errors->ipIntfConfigErrorCount(), 0u );
}

TEST_F( ApplyTest, PutsBackWhatOthersTakeAway ) {
   Texts all{ "10.0.0.1/24", "2001:db8::1/64" };
   config4( "v0" ).addrWithMaskIs( a4( "10.0.0.1/24" ) );
   config6( "v0" ).addrIs( a6( "2001:db8::1/64" ) );
   for( int i = 2; i < 40; ++i ) {
      const std::string secondary = "10.0.0." + std::to_string( i ) + "/24";
      config4( "v0" ).secondaryWithMaskIs( a4( secondary ), true );
      all.insert( secondary );
   }
   expect( "v0", all );
   ip( { "addr del 10.0.0.1/24 dev v0" } );
   settle();
   expect( "v0", all );
   ip( { "link set v0 down", "link set v0 up" } );
   settle();
   expect( "v0", all );
   ip( { "link del v0", "link add v0 type veth peer name v1", "link set v0 up" } );
   settle();
   expect( "v0", all );
   EXPECT_EQ( error( "v0" ), "" );
}

TEST_F( ApplyTest, BorrowsAddresses ) {
   config4( "v1" ).unnumberedIntfIdIs( Velon::IntfId( "v0" ) );
   settle();
   EXPECT_EQ( error( "v1" ), "'v0', whose address it borrows, has none" );
   config4( "v0" ).addrWithMaskIs( a4( "10.0.0.1/24" ) );
   expect( "v1", { "10.0.0.1/32" } );
   EXPECT_EQ( error( "v1" ), "" );
   config4( "v0" ).addrWithMaskIs( a4( "10.0.0.2/24" ) );
   expect( "v1", { "10.0.0.2/32" } );
   config4( "v0" ).unnumberedIntfIdIs( Velon::IntfId( "v1" ) );
   settle();
   EXPECT_EQ( error( "v1" ), "'v0', whose address it borrows, borrows itself" );
   expect( "v1", {} );
   config4( "v0" ).unnumberedIntfIdIs( {} );
   expect( "v1", { "10.0.0.2/32" } );
   config4( "v1" ).addrWithMaskIs( a4( "10.7.0.1/24" ) ); // its own comes first
   expect( "v1", { "10.7.0.1/24" } );
}

TEST_F( ApplyTest, TellsWhatCannotBeDone ) {
   auto tells = [&]( const char * intf, const std::string & text ) {
      EXPECT_TRUE( eventually( [&] { return error( intf ) == text; } ) ) << error( intf );
   };
   config4( "w0" ).addrWithMaskIs( a4( "10.2.0.1/24" ) );
   tells( "w0", "the kernel has no such interface" );
   ip( { "link add w0 type veth peer name w1", "link set w0 up" } );
   settle();
   expect( "w0", { "10.2.0.1/24" } );
   tells( "w0", "" );

   config4( "v0" ).secondaryWithMaskIs( a4( "10.0.0.1/0" ), true );
   tells( "v0", "10.0.0.1/0: a prefix length from 1 to 32 expected" );
   config4( "v0" ).secondaryWithMaskIs( a4( "224.0.0.1/24" ), true );
   config4( "v0" ).addrSourceIs( Ip::AddrSource::dhcp );
   tells( "v0", "its primary IPv4 address comes from DHCP: none is installed; "
                "10.0.0.1/0: a prefix length from 1 to 32 expected; "
                "224.0.0.1/24: no interface may have this address" );
   world->config4->ipIntfConfigDel( Velon::IntfId( "v0" ) );
   tells( "v0", "" );

   ip( { "addr add 2001:db8::1/48 dev v0" } );
   settle();
   config6( "v0" ).addrIs( a6( "2001:db8::1/64" ) );
   tells( "v0", "2001:db8::1/64: the kernel has it with prefix length 48" );
   ip( { "addr del 2001:db8::1/48 dev v0" } );
   expect( "v0", { "2001:db8::1/64" } );
   tells( "v0", "" );

   auto l3 = L3::Intf::configFactory( Velon::IntfId( "v0" ) );
   l3->vrfIs( L3::VrfName( "red" ) );
   config6( "v0" ).l3ConfigIs( l3 );
   tells( "v0", "it is in VRF 'default', its IPv6 configuration in 'red'" );
   expect( "v0", {} );
   l3->vrfIs( L3::VrfName( "default" ) );
   expect( "v0", { "2001:db8::1/64" } );

   setting( "ipv6/conf/v1/disable_ipv6", "1" );
   config6( "v1" ).addrIs( a6( "2001:db8:1::1/64" ) );
   EXPECT_TRUE( eventually( [&] { return error( "v1" ) != ""; } ) );
   EXPECT_EQ( error( "v1" ).rfind( "2001:db8:1::1/64: Permission denied", 0 ), 0u )
      << error( "v1" );
   setting( "ipv6/conf/v1/disable_ipv6", "0" );
   expect( "v1", { "2001:db8:1::1/64" } ); // tried again
   tells( "v1", "" );
}

TEST_F( ApplyTest, TellsOfAnAddressThatAnotherHostHas ) {
   setting( "ipv6/conf/v1/accept_dad", "1" );
   ip( { "addr add 2001:db8::5/64 dev v0 nodad" } );
   config6( "v1" ).addrIs( a6( "2001:db8::5/64" ) );
   EXPECT_TRUE( eventually(
      [&] { return error( "v1" ) == "2001:db8::5/64: another host has this address"; } ) )
      << error( "v1" );
}

/// Configuration and kernel, both changed at random.
TEST_F( ApplyTest, RandomScriptsComeToAgreement ) {
   const char * soak = getenv( "IPSTATE_SOAK" ); // how many scripts
   bool there = ip( { "link add w0 type veth peer name w1", "link set w0 up" } );
   settle();
   // The registries hold what their last line says.
   Sources registries( world->mirror.ipStatus(), world->mirror.ip6Status(),
                       [this]( const Change & change ) { sources[change.what] = change.now; } );
   std::map< std::string, L3::Intf::Config::Ptr > l3;
   for( const char * name : { "v0", "w0" } ) {
      registries.sourceIntfIs( Velon::IntfId( name ) );
      l3[name] = L3::Intf::configFactory( Velon::IntfId( name ) );
   }
   Texts byHand;
   for( unsigned script = 0; script < ( soak ? unsigned( atoi( soak ) ) : 4 ); ++script ) {
      SCOPED_TRACE( script );
      std::mt19937 random( script );
      auto below = [&]( unsigned limit ) { return unsigned( random() % limit ); };
      auto address4 = [&] {
         return "10.0." + std::to_string( below( 2 ) ) + "." + std::to_string( 1 + below( 4 ) ) +
                ( below( 4 ) ? "/24" : "/16" );
      };
      auto address6 = [&] {
         return "2001:db8::" + std::to_string( 1 + below( 4 ) ) + ( below( 4 ) ? "/64" : "/48" );
      };
      for( unsigned step = 0; step < 200; ++step ) {
         const char * intf = below( 2 ) ? "v0" : "w0";
         const std::string text4 = address4(), text6 = address6();
         const std::string text = below( 2 ) ? text4 : text6;
         const bool clear = below( 3 ) == 0;
         switch( below( 17 ) ) {
         case 0:
            config4( intf ).addrWithMaskIs( clear ? a4( "0.0.0.0/0" ) : a4( text4 ) );
            break;
         case 1:
         case 2:
            config4( intf ).secondaryWithMaskIs( a4( text4 ), below( 4 ) );
            break;
         case 3:
            config4( intf ).secondaryWithMaskDel( a4( text4 ) );
            break;
         case 4:
            config4( intf ).virtualAddrWithMaskIs( clear ? a4( "0.0.0.0/0" ) : a4( text4 ) );
            break;
         case 5:
            if( clear ) {
               config4( intf ).virtualSecondaryWithMaskDelAll();
            } else {
               config4( intf ).virtualSecondaryWithMaskIs( a4( text4 ), below( 4 ) );
            }
            break;
         case 6:
            config4( intf ).unnumberedIntfIdIs(
               Velon::IntfId( clear ? intf[0] == 'v' ? "w0" : "v0" : "" ) );
            break;
         case 7:
         case 8:
            config6( intf ).addrIs( a6( text6 ) );
            break;
         case 9:
            config6( intf ).addrDel( a6( text6 ).key() );
            break;
         case 10:
            config6( intf ).linkLocalAddrWithMaskIs(
               clear
                  ? Velon::Ip6AddrWithMask()
                  : Velon::Ip6AddrWithMask( "fe80::" + std::to_string( 1 + below( 2 ) ) + "/64" ) );
            break;
         case 11:
            config4( intf ).l3ConfigIs( l3[intf] );
            config6( intf ).l3ConfigIs( l3[intf] );
            l3[intf]->vrfIs( L3::VrfName( clear ? "red" : "default" ) );
            break;
         case 12:
            ip( { "addr add " + text + " dev " + intf } );
            byHand.insert( intf + ( " " + text ) );
            break;
         case 13:
            ip( { "addr del " + text + " dev " + intf } );
            break;
         case 14:
            if( below( 4 ) == 0 ) {
               ip( { "link del w0" } );
               there = clear && ip( { "link add w0 type veth peer name w1", "link set w0 up" } );
            } else if( !there ) {
               there = ip( { "link add w0 type veth peer name w1", "link set w0 up" } );
            } else if( below( 2 ) ) {
               ip( { std::string( "link set down dev " ) + intf,
                     std::string( "link set up dev " ) + intf } );
            }
            break;
         case 15:
            if( below( 8 ) == 0 ) world->config4->ipIntfConfigDel( Velon::IntfId( intf ) );
            if( below( 8 ) == 0 ) world->config6->intfDel( Velon::IntfId( intf ) );
            break;
         default:
            turn( milliseconds( 0 ) );
         }
         if( step % 40 == 39 ) {
            expectAgreement( "v0", byHand );
            expectAgreement( "w0", byHand );
            ASSERT_FALSE( HasFailure() ) << "step " << step;
         }
      }
   }
}

} // namespace
} // namespace Ipstated::Scripted
