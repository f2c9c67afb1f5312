// The program as its users meet it: options, output, ends; and the addresses of source interfaces
// while they are changed with ordinary tools.

#include "tests/agents/Program.h"
#include "agents/ipstated/Mirror.h"
#include "agents/ipstated/Netlink.h"
#include "tests/agents/Namespace.h"

#include "Ip/SrcIntf.h"
#include "IpGen/IpGenStatusSm.h"
#include "IpGen/SrcGenIntf.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cstring>
#include <memory>
#include <net/if.h>
#include <optional>
#include <sys/socket.h>

namespace Ipstated::Scripted {
namespace {

TEST( ProgramTest, PrintsTheTableAndEndsWhereNobodyLooks ) {
   for( const char * options : { "", "--once" } ) {
      Program program( options );
      const std::string output = program.allOutput();
      EXPECT_EQ( program.status(), 0 );
      EXPECT_EQ( output.rfind( "Interface", 0 ), 0u ) << output;
      EXPECT_NE( output.find( "\nlo " ), std::string::npos ) << output;
   }
}

TEST( ProgramTest, BadOptionsAreRefusedWithTheReason ) {
   const struct {
      const char * options;
      const char * text;
   } cases[] = {
      { "--explain-source 10.0.0.1",
        "--explain-source: '10.0.0.1' is no IPv6 address, as 2001:db8::1 is one" },
      { "--explain-source fe80::1%eth0",
        "--explain-source: 'fe80::1%eth0' is no IPv6 address, as 2001:db8::1 is one" },
      { "--explain-source ''", "--explain-source: '' is no IPv6 address, as 2001:db8::1 is one" },
      { "--source-intf 'my if'", "--source-intf: 'my if' cannot be an interface's name" },
      { "--source-intf a/b", "--source-intf: 'a/b' cannot be an interface's name" },
      { "--source-intf ''", "--source-intf: '' cannot be an interface's name" },
      { "--source-intf abcdefghijklmnop",
        "--source-intf: 'abcdefghijklmnop' cannot be an interface's name" },
      { "eth0", "'eth0' is no option; only --dump takes a word by itself, the full name of a "
                "record, as ip/status" },
      { "--dump ip ip6", "'ip6' is no option; only --dump takes a word by itself, the full name of "
                         "a record, as ip/status" },
      { "--once --follow", "--once excludes --follow" },
      { "--json --follow", "--json excludes --follow" },
      { "--dump --follow", "--dump excludes --follow" },
      { "--folow", "'--folow' is no option; did you mean --follow?" },
      { "--xyz", "'--xyz' is no option" },
      { "--once=yes", "--once takes no value, not 'yes'" },
      { "--serve", "--serve: expected SOCKET" },
      { "--allow-read root", "--allow-read requires --serve" },
      { "--poll-interval nan", "--poll-interval: 'nan' is no number from 0.05 to 86400" },
      { "--poll-interval 1 --poll-interval 2", "--poll-interval is given twice" },
      { "--metrics 127.0.0.1", "--metrics: '127.0.0.1' is no address with a port, as "
                               "127.0.0.1:9469 or [::1]:9469" },
      { "--state /tmp", "--state requires --apply" },
      { "--apply --state /nowhere", "--state: '/nowhere': No such file or directory" },
      { "--config /nowhere", "--config: cannot read '/nowhere': No such file or directory" },
      { "--log-level loud", "--log-level: 'loud' is none of error, warning, notice, info, debug" },
      { "--serve /tmp/x --allow-group 'no\tgroup'",
        "--allow-group: 'no\\x09group' is no group of this system" },
      // All of them at once.
      { "--serve= --apply --source-intf= --metrics x",
        "--serve: '' of 0 bytes cannot be a socket: expected a path of 1 to 107 bytes\n"
        "ipstated: --source-intf: '' cannot be an interface's name\n"
        "ipstated: --metrics: 'x' is no address with a port, as 127.0.0.1:9469 or [::1]:9469" },
   };
   for( const auto & each : cases ) {
      SCOPED_TRACE( each.options );
      Program program( each.options );
      EXPECT_EQ( program.status(), 1 );
      EXPECT_EQ( program.allErrors(),
                 std::string( "ipstated: " ) + each.text + "\nTry 'ipstated --help'.\n" );
      EXPECT_EQ( program.allOutput(), "" );
   }
}

TEST( ProgramTest, NamesTheTypes ) {
   Program program( "--types" );
   Lines names;
   while( const auto name = program.line() ) {
      names.push_back( *name );
   }
   EXPECT_EQ( program.status(), 0 );
   EXPECT_EQ( names.size(), 101u );
   EXPECT_TRUE( std::is_sorted( names.begin(), names.end() ) );
   EXPECT_EQ( names.front(), "Ip6::AcceptDad" );
}

using DumpTest = NamespaceTest;

std::string
dump( const std::string & options ) {
   Program program( "--dump " + options );
   const std::string output = program.allOutput();
   EXPECT_EQ( program.status(), 0 ) << program.allErrors();
   return output;
}

TEST_F( DumpTest, AppliesNothingUnlessConfigured ) {
   ip( { "addr add 10.0.0.1/24 dev v0" } );
   Program program( "--apply --follow" );
   while( const auto line = program.line() ) {
      if( line->empty() ) break; // behind the table
   }
   ip( { "addr add 10.0.0.2/24 dev v0" } );
   const auto line = program.line();
   ASSERT_TRUE( line );
   EXPECT_NE( line->find( "10.0.0.2/24" ), std::string::npos ) << *line;
   program.signal( SIGTERM );
   EXPECT_EQ( program.status(), 0 );
   EXPECT_EQ( program.allErrors(), "" );
   EXPECT_EQ( system( "ip addr show dev v0 | grep -c 'inet 10' | grep -qx 2" ), 0 );
}

TEST_F( DumpTest, ShowsAnyPartAsText ) {
   ip( { "addr add 10.0.0.1/24 dev v0", "addr add 10.0.0.2/24 dev v0" } );
   const std::string path = "cell/1/ip/input/status-1/ipIntfStatus[v0]";
   const std::string text = dump( "'" + path + "'" );
   EXPECT_EQ( text.rfind( path + "  Ip::IpIntfStatus\n   intfId = v0\n"
                                 "   activeAddrWithMask = 10.0.0.1/24\n"
                                 "   activeSecondaryWithMask[10.0.0.2/24] = true\n",
                          0 ),
              0u )
      << text;
   EXPECT_NE( text.find( "\n   l3Status = cell/1/l3/intf/input/status-1/intfStatus[v0]\n" ),
              std::string::npos )
      << text;
   EXPECT_EQ( text.find( "Default" ), std::string::npos ) << "constants:\n" << text;
   const std::string vrf = dump( "ip/status" );
   EXPECT_NE( vrf.find( "\n   vrfIpIntfStatus[default]  Ip::VrfIpIntfStatus\n"
                        "      vrfName = default\n      ipIntfStatus[lo] = cell/1/" ),
              std::string::npos )
      << vrf;
   // The whole has each record once.
   const std::string all = dump( "" );
   EXPECT_EQ( all.find( "[v0]  Ip::IpIntfStatus" ), all.rfind( "[v0]  Ip::IpIntfStatus" ) );
   EXPECT_EQ( all.rfind( "Zek::Dir\n   cell  Zek::Dir\n", 0 ), 0u ) << all;
}

TEST_F( DumpTest, ShowsJsonWhateverTheNames ) {
   const std::string odd = "a]\xff\xc3"; // no UTF-8
   ASSERT_TRUE( ip(
      { "link add " + odd + " type veth peer name \u00fc", "addr add 10.0.0.1/24 dev " + odd } ) );
   const std::string text = dump( "--json" );
   EXPECT_EQ( text, dump( "--json" ) );
   const auto root = nlohmann::json::parse( text ); // refuses bad UTF-8
   EXPECT_EQ( root["fwkType"], "Zek::Dir" );
   const auto & status = root["ip"]["status"];
   const std::string path = "cell/1/ip/input/status-1/ipIntfStatus[\u00fc]";
   // A path is ASCII, whatever the names.
   EXPECT_EQ( status["ipIntfStatus"]["\u00fc"],
              "cell/1/ip/input/status-1/ipIntfStatus[\"\\xc3\\xbc\"]" );
   EXPECT_EQ( nlohmann::json::parse( dump( "--json '" + path + "'" ) )["intfId"], "\u00fc" );
   const auto & inputs = root["cell"]["1"];
   const auto & record = inputs["ip"]["input"]["status-1"]["ipIntfStatus"]["a]\\xff\\xc3"];
   EXPECT_EQ( record["activeAddrWithMask"], "10.0.0.1/24" );
   EXPECT_EQ( record["maxMssEgress"], 0 );
   EXPECT_EQ( record["attachedRoutes"], true );
   EXPECT_EQ( record["urpf"], ( nlohmann::json{ { "mode", "disable" }, { "acl", "" } } ) );
   const auto & group = inputs["ip"]["input"]["status-1"]["ipIntfStatus"]["v0"]["mcaddr"];
   EXPECT_EQ( group["224.0.0.1"],
              ( nlohmann::json{ { "address", "224.0.0.1" },
                                { "application", nlohmann::json::array() } } ) );
}

TEST_F( DumpTest, TakesThePathsOfTheToolAndNamesTheNearest ) {
   ip( { "addr add 10.0.0.1/24 dev v0" } );
   EXPECT_EQ( dump( "'ip/status/ipIntfStatus[v0].activeAddrWithMask'" ), "10.0.0.1/24\n" );
   EXPECT_EQ( dump( "'ip/status/ipIntfStatus[*].urpf.mode'" ), "disable\ndisable\ndisable\n" );
   for( const auto & [path, problem] :
        { std::pair( "ip/state", "no 'state' in 'ip' (Zek::Dir); the nearest is 'status'" ),
          std::pair( "nowhere", "no 'nowhere' in the root (Zek::Dir)" ),
          std::pair( "ip/status/a/b", "no 'a' in 'ip/status' (Ip::Status)" ),
          std::pair( "'ip/status/ipIntfStatus[v2]'",
                     "no 'ipIntfStatus[v2]' in 'ip/status'; the nearest is 'v0'" ),
          std::pair( "ip//status", "path 'ip//status': expected a name at offset 3" ) } ) {
      Program program( std::string( "--dump " ) + path );
      EXPECT_EQ( program.status(), path == std::string( "ip//status" ) ? 1 : 3 );
      EXPECT_EQ( program.allErrors(), "ipstated: " + std::string( problem ) + "\n" );
      EXPECT_EQ( program.allOutput(), "" );
   }
}

TEST( ProgramTest, EndsWhenNobodyReads ) {
   Program idle( "--follow --source-intf lo" );
   EXPECT_EQ( idle.sources( 6 ).size(), 6u );
   idle.stopReading();
   EXPECT_EQ( idle.status(), 0 );
   EXPECT_EQ( idle.allErrors(), "" );

   Program closed( "--once", ">&-" );
   EXPECT_EQ( closed.status(), 2 );
   EXPECT_EQ( closed.allErrors(), "ipstated: standard output is closed\n" );

   for( const char * options : { "--once", "--help", "--types", "--dump" } ) {
      Program full( options, ">/dev/full" );
      EXPECT_EQ( full.status(), 2 );
      EXPECT_EQ( full.allErrors(), "ipstated: cannot write the output: No space left on device\n" );
   }
}

class ProgramInNamespaceTest : public NamespaceTest {
 protected:
   void SetUp() override {
      NamespaceTest::SetUp();
      // No link-local addresses but those of the test.
      if( !IsSkipped() && !ip( { "link add s0 type veth peer name s1",
                                 "link set s0 addrgenmode none", "link set s0 up" } ) ) {
         SKIP_BECAUSE( "no choice of link-local addresses" );
      }
   }

   /// What both scopes' registries of these names tell of `intf`.
   static Lines told( const std::string & intf, const Lines & registries,
                      const std::string & change ) {
      Lines lines;
      for( const char * scope : { "system", "vrf default" } ) {
         for( const std::string & registry : registries ) {
            lines.push_back( std::string( "source  " ) + scope + "  " + registry + "  " + intf +
                             "  " + change );
         }
      }
      return lines;
   }
   const Lines v4{ "IPv4", "generic IPv4" };
   const Lines v6{ "generic IPv6" };
};

TEST_F( ProgramInNamespaceTest, SignalEndsItEvenWhileItsOutputIsStuck ) {
   Lines commands;
   for( int i = 0; i < 250; ++i ) {
      commands.push_back( "addr add 10.0.0." + std::to_string( i + 1 ) + "/24 dev v0" );
   }
   ip( commands );
   for( int number : { SIGINT, SIGTERM } ) {
      // The table is longer than the pipe.
      Program program( "--follow", "", "ipstated", Program::smallPipe );
      for( auto end = Clock::now() + patience; program.unread() < Program::smallPipe; ) {
         ASSERT_LT( Clock::now(), end );
         usleep( 5000 );
      }
      program.signal( number );
      EXPECT_EQ( program.status(), 0 );
   }
}

TEST_F( ProgramInNamespaceTest, SourcesFollowAddressesThatIpChanges ) {
   ip( { "addr add 10.0.0.1/24 dev s0", "addr add fe80::1/64 dev s0 nodad" } );
   Program program( "--follow --source-intf s0 --source-intf t0" );
   EXPECT_EQ( program.sources( 12 ).front(), "source  system  IPv4  s0  - -> 10.0.0.1" );
   const struct {
      Lines commands;
      const char * intf;
      const Lines & registries;
      const char * change;
   } steps[] = {
      { { "addr add 10.1.0.1/24 dev s0", "addr del 10.0.0.1/24 dev s0" },
        "s0",
        v4,
        "10.0.0.1 -> 10.1.0.1" },
      { { "addr add 2001:db8::1/64 dev s0 nodad", "addr del fe80::1/64 dev s0" },
        "s0",
        v6,
        "fe80::1 -> ::" },
      { { "addr add fe80::2/64 dev s0 nodad" }, "s0", v6, ":: -> fe80::2" },
      { { "addr del 10.1.0.1/24 dev s0" }, "s0", v4, "10.1.0.1 -> 0.0.0.0" },
      { { "addr add 10.1.0.9/24 dev s0" }, "s0", v4, "0.0.0.0 -> 10.1.0.9" },
      { { "addr del fe80::2/64 dev s0" }, "s0", v6, "fe80::2 -> ::" },
   };
   for( const auto & step : steps ) {
      SCOPED_TRACE( step.commands.back() );
      ip( step.commands );
      const Lines expected = told( step.intf, step.registries, step.change );
      EXPECT_EQ( program.sources( expected.size() ), expected );
   }
   // Gone, back under its name, and moved to another name.
   auto both = []( Lines lines, const Lines & more ) {
      lines.insert( lines.end(), more.begin(), more.end() );
      std::sort( lines.begin(), lines.end() );
      return lines;
   };
   ip( { "link del s0" } );
   EXPECT_EQ( program.sources( 6 ),
              both( told( "s0", v4, "10.1.0.9 -> 0.0.0.0" ), told( "s0", v6, ":: -> 0.0.0.0" ) ) );
   ip( { "link add s0 type veth peer name s1", "link set s0 addrgenmode none",
         "addr add 10.2.0.1/24 dev s0" } );
   EXPECT_EQ( program.sources( 4 ), told( "s0", v4, "0.0.0.0 -> 10.2.0.1" ) );
   ip( { "link set s0 name t0" } );
   Lines renamed = both( told( "s0", v4, "10.2.0.1 -> 0.0.0.0" ),
                         Lines{ "source  system  IPv4  t0  0.0.0.0 -> 10.2.0.1",
                                "source  system  generic IPv4  t0  0.0.0.0 -> 10.2.0.1",
                                "source  system  generic IPv4  t0  none -> 0.0.0.0",
                                "source  system  generic IPv6  t0  none -> 0.0.0.0",
                                "source  vrf default  IPv4  t0  0.0.0.0 -> 10.2.0.1",
                                "source  vrf default  generic IPv4  t0  none -> 10.2.0.1" } );
   EXPECT_EQ( program.sources( renamed.size() ), renamed );
   program.signal( SIGINT );
   EXPECT_EQ( program.status(), 0 );
   EXPECT_EQ( program.sources( 1 ), Lines{} ); // the end is no change of an address
}

TEST_F( ProgramInNamespaceTest, SourcesFollowInterfacesBetweenVrfs ) {
   if( !ip( { "link add red type vrf table 10", "link set red up" } ) ) {
      SKIP_BECAUSE( "no vrf" );
   }
   ip( { "addr add 10.0.0.1/24 dev s0" } );
   Program program( "--follow --source-intf s0" );
   EXPECT_EQ( program.sources( 9 ).size(), 9u );
   ip( { "link set s0 master red" } );
   EXPECT_EQ( program.sources( 5 ),
              ( Lines{ "source  vrf default  IPv4  s0  10.0.0.1 -> 0.0.0.0",
                       "source  vrf default  generic IPv4  s0  10.0.0.1 -> 0.0.0.0",
                       "source  vrf default  generic IPv6  s0  :: -> 0.0.0.0",
                       "source  vrf red  IPv4  s0  0.0.0.0 -> 10.0.0.1",
                       "source  vrf red  generic IPv4  s0  none -> 10.0.0.1" } ) );
   ip( { "link set s0 nomaster" } );
   EXPECT_EQ( program.sources( 5 ).back(), "source  vrf red  generic IPv6  s0  none -> 0.0.0.0" );
   ip( { "link del red" } );
   EXPECT_EQ( program.sources( 3 ),
              ( Lines{ "source  vrf red  IPv4  s0  0.0.0.0 -> -",
                       "source  vrf red  generic IPv4  s0  0.0.0.0 -> -",
                       "source  vrf red  generic IPv6  s0  0.0.0.0 -> -" } ) );
}

TEST_F( ProgramInNamespaceTest, ExplanationAgreesWithTheTable ) {
   ip( { "addr add 2001:db8::1/64 dev s0 nodad", "addr add fe80::1/64 dev s0 nodad" } );
   Program program( "--explain-source 2001:db8::9" );
   const std::string output = program.allOutput();
   EXPECT_EQ( program.status(), 0 );
   EXPECT_NE( output.find( "\nSource addresses for 2001:db8::9, scope 2 (global), label 1\n" ),
              std::string::npos )
      << output;
   EXPECT_NE( output.find( "\ns0 sends from 2001:db8::1\n" ), std::string::npos ) << output;
   EXPECT_NE( output.find( "\ns1 has no IPv6 address to send from\n" ), std::string::npos )
      << output;
}

// -- Packets ----------------------------------------------------------------------------------

/// Follows the kernel in this process and sends from the address that a registry holds.
class Sender {
 public:
   Sender() {
      feed_.start( Clock::now() );
      while( !feed_.everSynchronized() ) {
         feed_.onReadable( Clock::now() );
      }
      view_ = IpGen::ipv6StatusFactory( &mirror_.ip6Status() );
      machine_ = IpGen::statusSmFactory( view_ );
      registry4_ = Ip::SourceIntf::sourceIntfSmFactory( Ip::SourceIntf::sourceIntfDirFactory(),
                                                        &mirror_.ipStatus() );
      registry6_ =
         IpGen::SourceIntf::sourceIntfSmFactory( IpGen::SourceIntf::sourceIntfDirFactory(), view_ );
      source4 = registry4_->registerSourceIntf( Velon::IntfId( "s0" ) );
      source6 = registry6_->registerSourceIntf( Velon::IntfId( "s0" ) );
   }

   void serve() {
      pollfd wait{ feed_.fd(), POLLIN, 0 };
      if( poll( &wait, 1, 1 ) > 0 ) {
         feed_.onReadable( Clock::now() );
      }
   }

   Ip::SourceIntf::SourceIntf::Ptr source4;
   IpGen::SourceIntf::SourceIntf::Ptr source6;

 private:
   NetlinkSource source_;
   Mirror mirror_{ 1 };
   KernelFeed feed_{ source_, mirror_ };
   IpGen::Ipv6Status::Ptr view_;
   IpGen::StatusSm::Ptr machine_;
   Ip::SourceIntf::SourceIntfSm::Ptr registry4_;
   IpGen::SourceIntf::SourceIntfSm::Ptr registry6_;
};

sockaddr_storage
endpoint( const Velon::IpGenAddr & address, uint16_t port ) {
   sockaddr_storage storage{};
   if( address.af() == Velon::AddressFamily::ipv4 ) {
      auto & to = reinterpret_cast< sockaddr_in & >( storage );
      to.sin_family = AF_INET;
      to.sin_port = htons( port );
      to.sin_addr.s_addr = address.v4Addr().networkOrder();
   } else {
      auto & to = reinterpret_cast< sockaddr_in6 & >( storage );
      to.sin6_family = AF_INET6;
      to.sin6_port = htons( port );
      memcpy( &to.sin6_addr, address.v6Addr().bytes().data(), 16 );
      to.sin6_scope_id = if_nametoindex( "s0" );
   }
   return storage;
}

const sockaddr *
raw( const sockaddr_storage & storage ) {
   return reinterpret_cast< const sockaddr * >( &storage );
}

socklen_t
lengthOf( const sockaddr_storage & storage ) {
   return storage.ss_family == AF_INET ? sizeof( sockaddr_in ) : sizeof( sockaddr_in6 );
}

/// A UDP socket bound there, or below 0 when the address is not there any more.
int
boundSocket( const Velon::IpGenAddr & address, uint16_t port ) {
   const sockaddr_storage local = endpoint( address, port );
   const int fd = socket( local.ss_family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0 );
   if( bind( fd, raw( local ), lengthOf( local ) ) == 0 ) {
      return fd;
   }
   EXPECT_EQ( errno, EADDRNOTAVAIL );
   close( fd );
   return -1;
}

/// Takes the packets that come to a receiver within a moment after the first; each carries the text
/// of the address that it was sent from. Notes a run of equal sources once.
void
receive( int receiver, Lines & sources ) {
   pollfd wait{ receiver, POLLIN, 0 };
   poll( &wait, 1, 50 );
   char text[INET6_ADDRSTRLEN];
   sockaddr_storage from{};
   socklen_t length = sizeof from;
   ssize_t size;
   while( ( size = recvfrom( receiver, text, sizeof text, 0,
                             reinterpret_cast< sockaddr * >( &from ), &length ) ) > 0 ) {
      const Velon::IpGenAddr source =
         from.ss_family == AF_INET
            ? Velon::IpGenAddr( Velon::IpAddr::fromBytes(
                 &reinterpret_cast< const sockaddr_in & >( from ).sin_addr ) )
            : Velon::IpGenAddr( Velon::Ip6Addr::fromBytes(
                 &reinterpret_cast< const sockaddr_in6 & >( from ).sin6_addr ) );
      EXPECT_EQ( source.toString(), std::string( text, size_t( size ) ) );
      if( sources.empty() || sources.back() != source.toString() ) {
         sources.push_back( source.toString() );
      }
   }
}

TEST_F( ProgramInNamespaceTest, PacketsFollowTheRegistryWhileAddressesChange ) {
   constexpr uint16_t ports[] = { 5005, 5006 };
   constexpr int changes = 20;
   // Receivers in this very namespace: IPv4 on the loopback, IPv6 behind the other end of s0.
   ip( { "addr add 192.0.2.1/32 dev lo", "link set s1 addrgenmode none", "link set s1 up",
         "addr add fe80::ff/64 dev s1 nodad", "addr add 10.0.0.1/24 dev s0",
         "addr add fe80::1/64 dev s0 nodad" } );
   const Velon::IpGenAddr receivers[] = { Velon::IpAddr( "192.0.2.1" ),
                                          Velon::Ip6Addr( "fe80::ff" ) };
   const int sockets[] = { boundSocket( receivers[0], ports[0] ),
                           boundSocket( Velon::Ip6Addr(), ports[1] ) };
   ASSERT_TRUE( sockets[0] >= 0 && sockets[1] >= 0 );
   Sender sender;

   auto addressOf = []( bool six, int i ) {
      char text[32];
      snprintf( text, sizeof text, six ? "fe80::%x" : "10.0.0.%d", i );
      return std::string( text );
   };
   int turns[2]; // a byte for each change
   ASSERT_EQ( pipe( turns ), 0 );
   const pid_t changer = fork();
   ASSERT_GE( changer, 0 );
   if( changer == 0 ) {
      close( turns[1] );
      char turn;
      for( int i = 1; read( turns[0], &turn, 1 ) == 1; ++i ) {
         // The old one goes first: which of two IPv6 addresses would count is the records' order.
         ip( { "addr del " + addressOf( false, i ) + "/24 dev s0",
               "addr add " + addressOf( false, i + 1 ) + "/24 dev s0",
               "addr del " + addressOf( true, i ) + "/64 dev s0",
               "addr add " + addressOf( true, i + 1 ) + "/64 dev s0 nodad" } );
      }
      _exit( 0 );
   }
   close( turns[0] );
   Lines received[2];
   auto send = [&]( bool six ) {
      const Velon::IpGenAddr from =
         six ? sender.source6->ipAddr() : Velon::IpGenAddr( sender.source4->ipAddr() );
      const bool any = from.v4Addr() || from.v6Addr();
      const int fd = any ? boundSocket( from, 0 ) : -1;
      if( fd < 0 ) {
         return; // none at this moment, or the kernel is ahead of what it has told
      }
      const std::string text = from.toString();
      const sockaddr_storage to = endpoint( receivers[six], ports[six] );
      sendto( fd, text.data(), text.size(), 0, raw( to ), lengthOf( to ) );
      close( fd );
      receive( sockets[six], received[six] );
   };
   int current = 1;
   auto arrived = [&]( bool six ) {
      return !received[six].empty() && received[six].back() == addressOf( six, current );
   };
   for( auto end = Clock::now() + patience; current <= changes && Clock::now() < end; ) {
      sender.serve();
      send( false );
      send( true );
      if( arrived( false ) && arrived( true ) && ++current <= changes ) {
         ASSERT_EQ( write( turns[1], "", 1 ), 1 );
      }
   }
   close( turns[1] );
   EXPECT_EQ( waitpid( changer, nullptr, 0 ), changer );
   for( bool six : { false, true } ) {
      Lines all;
      for( int i = 1; i <= changes; ++i ) all.push_back( addressOf( six, i ) );
      EXPECT_EQ( received[six], all );
      close( sockets[six] );
   }
}

} // namespace
} // namespace Ipstated::Scripted
