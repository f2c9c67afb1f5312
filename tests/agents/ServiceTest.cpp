// The agent as people leave it running: among services, under readers and clients that misbehave,
// killed at any moment, with its configuration on the disk.

#include "agents/ipstated/Config.h"
#include "agents/ipstated/KernelState.h"
#include "tests/agents/Namespace.h"
#include "tests/agents/Program.h"

#include "Ip/Ip.h"
#include "platform/Kelmo/SocketMountGroup.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <arpa/inet.h>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <termios.h>

namespace Ipstated::Scripted {
namespace {

namespace fs = std::filesystem;

class ServiceTest : public NamespaceTest {
 protected:
   void SetUp() override {
      char name[] = "/tmp/ipstate-XXXXXX";
      folder = mkdtemp( name );
      socket = folder + "/socket";
      fs::create_directory( folder + "/state" );
      state = folder + "/state";
      NamespaceTest::SetUp();
   }
   void TearDown() override {
      fs::remove_all( folder );
      NamespaceTest::TearDown();
   }

   /// What ip(8) says of the interface's IPv4 addresses.
   static std::set< std::string > addresses( const std::string & intf ) {
      FILE * dump = popen( ( "ip -json address show dev " + intf ).c_str(), "re" );
      std::string text;
      for( int c; ( c = fgetc( dump ) ) != EOF; ) text += char( c );
      pclose( dump );
      std::set< std::string > all;
      const auto json = nlohmann::json::parse( text );
      for( const auto & each : json.at( 0 ).at( "addr_info" ) ) {
         if( each.at( "family" ) == "inet" ) {
            all.insert( each.at( "local" ).get< std::string >() + "/" +
                        std::to_string( each.at( "prefixlen" ).get< int >() ) );
         }
      }
      return all;
   }

   /// Whether it comes true before long.
   template< class Condition >
   static bool eventually( Condition condition ) {
      for( auto end = Clock::now() + patience; Clock::now() < end; usleep( 5000 ) ) {
         if( condition() ) return true;
      }
      return false;
   }

   int connected() const {
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      strcpy( address.sun_path, socket.c_str() );
      const int fd = ::socket( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0 );
      if( connect( fd, reinterpret_cast< sockaddr * >( &address ), sizeof address ) == 0 )
         return fd;
      close( fd );
      return -1;
   }
   bool answers() const {
      const int fd = connected();
      if( fd >= 0 ) close( fd );
      return fd >= 0;
   }

   std::string configure( const std::string & what ) const {
      Program program( socket + " " + what, "2>&1", "examples/configure-address" );
      return program.allOutput();
   }

   std::string folder, socket, state;
};

// -- Readers that stall -----------------------------------------------------------------------

TEST_F( ServiceTest, AReaderWhoStallsDelaysNeitherMirrorNorClients ) {
   Program agent( "--follow --apply --serve " + socket, "", "ipstated", Program::smallPipe );
   ASSERT_TRUE( eventually( [&] { return answers(); } ) );
   // More than waits in order.
   Lines flips;
   for( int i = 0; i < 16000; ++i ) {
      flips.push_back( std::string( i % 2 ? "addr del" : "addr add" ) + " 10.9.0." +
                       std::to_string( i / 2 % 100 + 1 ) + "/32 dev v1" );
   }
   ASSERT_TRUE( ip( flips ) );
   ip( { "addr add 10.8.0.1/24 dev v1" } );
   const auto before = Clock::now();
   EXPECT_EQ( configure( "v0 10.0.0.1/24" ), "v0 has 10.0.0.1/24\n" );
   EXPECT_LT( Clock::now() - before, seconds( 5 ) );
   // Once it is read, all that holds has been told.
   std::map< std::string, std::string > told;
   bool merged = false;
   while( !merged ||
          told["activeAddrWithMask  cell/1/ip/input/status-1/ipIntfStatus[v0]"] != "10.0.0.1/24" ) {
      const auto line = agent.line();
      ASSERT_TRUE( line );
      merged = merged || line->rfind( "merged  ", 0 ) == 0;
      const size_t arrow = line->find( " -> " );
      if( arrow == line->npos ) continue;
      const std::string what = line->substr( 0, line->rfind( "  ", arrow ) );
      told[what] = line->substr( arrow + 4 );
   }
   EXPECT_EQ( told["activeAddrWithMask  cell/1/ip/input/status-1/ipIntfStatus[v1]"],
              "10.8.0.1/24" );
   agent.signal( SIGTERM );
   EXPECT_EQ( agent.status(), 0 );
}

TEST_F( ServiceTest, AStoppedTerminalDelaysNobodyAndStaysAsItWas ) {
   const int terminal = posix_openpt( O_RDWR | O_NOCTTY | O_CLOEXEC );
   ASSERT_TRUE( terminal >= 0 && grantpt( terminal ) == 0 && unlockpt( terminal ) == 0 );
   const std::string name = ptsname( terminal );
   Program agent( "--apply --serve " + socket, ">" + name + " 2>" + name );
   ASSERT_TRUE( eventually( [&] { return answers(); } ) );
   ASSERT_EQ( write( terminal, "\x13", 1 ), 1 ); // ^S
   Lines flips;
   for( int i = 0; i < 4000; ++i ) {
      flips.push_back( std::string( i % 2 ? "addr del" : "addr add" ) + " 10.9.0.1/24 dev v1" );
   }
   ASSERT_TRUE( ip( flips ) );
   EXPECT_EQ( configure( "v0 10.0.0.1/24" ), "v0 has 10.0.0.1/24\n" );
   const int side = open( name.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC );
   EXPECT_EQ( fcntl( side, F_GETFL ) & O_NONBLOCK, 0 );
   close( side );
   agent.signal( SIGTERM );
   EXPECT_EQ( agent.status(), 0 );
   close( terminal );
}

TEST_F( ServiceTest, NobodyReadsTheLogAndManyClientsAreTurnedAway ) {
   setenv( "IPSTATE_TRACE", "*", 1 ); // so that it has much to say
   Program agent( "--apply --serve " + socket, ">/dev/null" );
   unsetenv( "IPSTATE_TRACE" );
   Program quiet( "--serve " + socket + ".2", ">/dev/null" );
   ASSERT_TRUE( eventually( [&] { return answers() && fs::exists( socket + ".2" ); } ) );
   auto disturb = [this]( int times ) {
      for( int i = 0; i < times; ++i ) {
         const int fd = connected();
         ASSERT_GE( fd, 0 );
         const std::string noise( 64, char( 'a' + i % 26 ) );
         (void)send( fd, noise.data(), noise.size(), MSG_NOSIGNAL );
         char part[256];
         while( recv( fd, part, sizeof part, 0 ) > 0 ) {} // until it hangs up
         close( fd );
      }
   };
   disturb( 2000 );
   EXPECT_EQ( configure( "v0 10.0.0.1/24" ), "v0 has 10.0.0.1/24\n" );
   agent.signal( SIGTERM );
   const auto before = Clock::now();
   EXPECT_EQ( agent.status(), 0 );
   EXPECT_LT( Clock::now() - before, seconds( 1 ) );

   socket += ".2";
   disturb( 1000 );
   quiet.signal( SIGTERM );
   EXPECT_EQ( quiet.status(), 0 );
   const std::string lines = quiet.allErrors();
   EXPECT_LE( std::count( lines.begin(), lines.end(), '\n' ), 10 ) << lines;
   EXPECT_GE( std::count( lines.begin(), lines.end(), '\n' ), 1 ) << lines;
}

// -- A rename, and what is shown of links -----------------------------------------------------

TEST_F( ServiceTest, TellsARenameAndALinksChangesInALineEach ) {
   ip( { "addr add 10.0.0.1/24 dev v0" } );
   Program agent( "--follow" );
   while( const auto line = agent.line() ) {
      if( line->empty() ) break; // behind the table
   }
   ip( { "link set v0 mtu 1400" } );
   EXPECT_EQ( agent.line(), "link  v0  mtu  1500 -> 1400" );
   // Renamed while it is up, as kernels of today allow.
   if( !ip( { "link set v0 name w0" } ) ) SKIP_BECAUSE( "no rename of an interface that is up" );
   const auto line = agent.line();
   ASSERT_TRUE( line );
   EXPECT_EQ( line->substr( line->rfind( "  " ) ), "  v0 -> w0" );
   ip( { "link set w0 mtu 1300" } );
   EXPECT_EQ( agent.line(), "link  w0  mtu  1400 -> 1300" );

   Program table( "--json" );
   const auto json = nlohmann::json::parse( table.allOutput() );
   const auto found = std::find_if( json.begin(), json.end(),
                                    []( const auto & each ) { return each["interface"] == "w0"; } );
   ASSERT_NE( found, json.end() );
   EXPECT_EQ( ( *found )["mtu"], 1300 );
   EXPECT_EQ( ( *found )["kind"], "veth" );
   EXPECT_EQ( ( *found )["state"], "UP" );
   EXPECT_EQ( ( *found )["mac"].get< std::string >().size(), 17u );
   EXPECT_EQ( ( *found )["ipv4"][0]["address"], "10.0.0.1/24" );
}

// -- Configuration that survives --------------------------------------------------------------

TEST_F( ServiceTest, AfterARestartItOwnsWhatItSetAndTouchesNothingElse ) {
   ip( { "addr add 10.1.0.1/24 dev v0" } ); // somebody else's
   const std::string options = "--apply --state " + state + " --serve " + socket;
   {
      Program agent( options, ">/dev/null" );
      ASSERT_TRUE( eventually( [&] { return answers(); } ) );
      EXPECT_EQ( configure( "v0 10.2.0.1/24" ), "v0 has 10.2.0.1/24\n" );
      EXPECT_EQ( configure( "v1 10.3.0.1/24" ), "v1 has 10.3.0.1/24\n" );
      ASSERT_TRUE( eventually( [&] {
         std::ifstream file( state + "/intent" );
         std::stringstream text;
         text << file.rdbuf();
         return text.str().find( "10.3.0.1/24" ) != std::string::npos;
      } ) );
      agent.signal( SIGKILL );
      EXPECT_EQ( agent.status(), -SIGKILL );
   }
   EXPECT_EQ( addresses( "v0" ), ( std::set< std::string >{ "10.1.0.1/24", "10.2.0.1/24" } ) );
   ip( { "addr del 10.3.0.1/24 dev v1" } );
   Program agent( options, ">/dev/null" );
   EXPECT_TRUE( eventually( [&] { return addresses( "v1" ).count( "10.3.0.1/24" ) == 1; } ) );
   EXPECT_EQ( configure( "v0 none" ), "v0: nothing configured\n" );
   EXPECT_EQ( addresses( "v0" ), std::set< std::string >{ "10.1.0.1/24" } );

   // No second one takes the folder, nor one whose file is damaged.
   Program second( "--apply --state " + state + " --once" );
   EXPECT_EQ( second.status(), 1 );
   Program third( "--apply --state " + state, ">/dev/null" );
   EXPECT_EQ( third.status(), 2 );
   EXPECT_NE( third.allErrors().find( "is in use by another process" ), std::string::npos );
   agent.signal( SIGTERM );
   EXPECT_EQ( agent.status(), 0 );
   std::ofstream( state + "/intent", std::ios::app ) << "00000000 x\n";
   Program fourth( "--apply --state " + state, ">/dev/null" );
   EXPECT_EQ( fourth.status(), 2 );
   const std::string fault = fourth.allErrors();
   EXPECT_NE( fault.find( "/intent' is refused: damaged at line " ), std::string::npos ) << fault;
   EXPECT_NE( fault.find( "the one before it is '" + state + "/intent.last'" ), std::string::npos );
   EXPECT_TRUE( fs::exists( state + "/intent.last" ) );
}

/// Killed again and again while others configure: in the end the kernel has what the file wants,
/// and what was there by hand.
TEST_F( ServiceTest, KillsAtAnyMomentLeaveNoAddressBehind ) {
   ip( { "addr add 10.1.0.1/24 dev v0" } );
   const std::string options = "--apply --state " + state + " --serve " + socket;
   std::mt19937 random( 7 );
   for( int round = 0; round < 12; ++round ) {
      Program agent( options, ">/dev/null" );
      ASSERT_TRUE( eventually( [&] { return answers(); } ) );
      std::vector< std::unique_ptr< Program > > writers;
      for( int i = 0; i < 2; ++i ) {
         const std::string address =
            "10.2." + std::to_string( round ) + "." + std::to_string( random() % 200 + 1 ) + "/24";
         writers.push_back( std::make_unique< Program >(
            socket + " v0 " + address, ">/dev/null 2>&1", "examples/configure-address" ) );
      }
      usleep( unsigned( random() % 250000 ) );
      agent.signal( SIGKILL );
      agent.status();
   }
   Program agent( options, ">/dev/null" );
   ASSERT_TRUE( eventually( [&] { return answers(); } ) );
   std::string wanted;
   std::ifstream file( state + "/intent" );
   for( std::string line; std::getline( file, line ); ) {
      const size_t at = line.find( "addrWithMask = " );
      if( at != line.npos ) wanted = line.substr( at + 15 );
   }
   std::set< std::string > expected{ "10.1.0.1/24" };
   if( !wanted.empty() ) expected.insert( wanted );
   EXPECT_TRUE( eventually( [&] { return addresses( "v0" ) == expected; } ) ) << wanted;
   EXPECT_FALSE( wanted.empty() ) << "the test never got so far";
}

TEST_F( ServiceTest, ConfiguresOnlyWhatItMay ) {
   std::ofstream file( folder + "/conf" );
   file << "apply # what is wanted\nserve = " << socket << "\nmanagement-intf = v1\n\n";
   file.close();
   Program agent( "--config " + folder + "/conf", ">/dev/null" );
   ASSERT_TRUE( eventually( [&] { return answers(); } ) );
   EXPECT_EQ( configure( "v0 10.0.0.1/24" ), "v0 has 10.0.0.1/24\n" );
   for( const char * intf : { "lo", "v1" } ) {
      EXPECT_EQ( configure( std::string( intf ) + " 10.4.0.1/24" ),
                 std::string( intf ) + ": this agent is not to configure it\n" );
   }
   // Said by its very name, and read again.
   std::ofstream( folder + "/conf" )
      << "apply\nserve = " << socket
      << "\nmanagement-intf = v1\napply-intf = v1\nlog-level = info\n";
   agent.signal( SIGHUP );
   EXPECT_TRUE( eventually( [&] { return addresses( "v1" ).count( "10.4.0.1/24" ) == 1; } ) );
   EXPECT_TRUE( eventually( [&] { return addresses( "v0" ).count( "10.0.0.1/24" ) == 0; } ) );
   // What is wrong with it changes nothing; all of it is told.
   std::ofstream( folder + "/conf" ) << "aply\nserve = /elsewhere\nlog-level = loud\nonce\n";
   agent.signal( SIGHUP );
   usleep( 100000 );
   EXPECT_EQ( addresses( "v1" ).count( "10.4.0.1/24" ), 1u );
   agent.signal( SIGTERM );
   EXPECT_EQ( agent.status(), 0 );
   const std::string log = agent.allErrors();
   for( const char * text :
        { "conf:1: 'aply' is no option; did you mean apply?", "conf:3: log-level: 'loud' is none",
          "conf:4: once is for the command line", "the configuration stays as it was" } ) {
      EXPECT_NE( log.find( text ), std::string::npos ) << log;
   }
}

TEST( ApplyScopeTest, ExceptsLoopbackAndManagementUnlessNamed ) {
   const ApplyScope all{ {}, { "mgmt0" } }, some{ { "eth*", "lo", "v[01]" }, { "eth0" } };
   EXPECT_TRUE( all.covers( "eth0" ) );
   EXPECT_FALSE( all.covers( "lo" ) || all.covers( "mgmt0" ) );
   EXPECT_TRUE( some.covers( "eth1" ) && some.covers( "lo" ) && some.covers( "v1" ) );
   EXPECT_FALSE( some.covers( "eth0" ) || some.covers( "v2" ) );
}

// -- Among services ---------------------------------------------------------------------------

/// The socket to which a service manager has its services talk.
class Manager {
 public:
   explicit Manager( const std::string & path ) {
      fd_ = ::socket( AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0 );
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      strcpy( address.sun_path, path.c_str() );
      EXPECT_EQ( bind( fd_, reinterpret_cast< sockaddr * >( &address ), sizeof address ), 0 );
      setenv( "NOTIFY_SOCKET", path.c_str(), 1 );
      setenv( "WATCHDOG_USEC", "200000", 1 );
   }
   ~Manager() {
      unsetenv( "NOTIFY_SOCKET" );
      unsetenv( "WATCHDOG_USEC" );
      close( fd_ );
   }
   /// Whether it hears that before long.
   bool hears( const std::string & wanted ) {
      pollfd wait{ fd_, POLLIN, 0 };
      for( auto end = Clock::now() + patience; Clock::now() < end; ) {
         char text[512];
         if( poll( &wait, 1, 100 ) <= 0 ) continue;
         const ssize_t length = recv( fd_, text, sizeof text, 0 );
         heard_.assign( text, size_t( std::max< ssize_t >( length, 0 ) ) );
         if( heard_.rfind( wanted, 0 ) == 0 ) return true;
      }
      return false;
   }

 private:
   int fd_;
   std::string heard_;
};

TEST_F( ServiceTest, SaysWhenItIsReadyAliveAndAboutToEnd ) {
   Manager manager( folder + "/notify" );
   std::ofstream( folder + "/conf" ) << "serve = " << socket << "\n";
   Program agent( "--config " + folder + "/conf", ">/dev/null" );
   EXPECT_TRUE( manager.hears( "READY=1\nSTATUS=3 interfaces" ) );
   EXPECT_TRUE( answers() );
   for( int i = 0; i < 3; ++i ) EXPECT_TRUE( manager.hears( "WATCHDOG=1" ) );
   agent.signal( SIGHUP );
   EXPECT_TRUE( manager.hears( "RELOADING=1\nMONOTONIC_USEC=" ) );
   EXPECT_TRUE( manager.hears( "READY=1" ) );
   agent.signal( SIGTERM );
   EXPECT_TRUE( manager.hears( "STOPPING=1" ) );
   EXPECT_EQ( agent.status(), 0 );
   EXPECT_FALSE( fs::exists( socket ) );
}

TEST_F( ServiceTest, TakesTheSocketOfAServiceManager ) {
   sockaddr_un address{};
   address.sun_family = AF_UNIX;
   strcpy( address.sun_path, socket.c_str() );
   const int fd = ::socket( AF_UNIX, SOCK_STREAM, 0 );
   ASSERT_EQ( bind( fd, reinterpret_cast< sockaddr * >( &address ), sizeof address ), 0 );
   ASSERT_EQ( listen( fd, 8 ), 0 );
   const pid_t child = fork();
   if( child == 0 ) {
      if( fd != 3 ) dup2( fd, 3 );
      setenv( "LISTEN_FDS", "1", 1 );
      setenv( "LISTEN_PID", std::to_string( getpid() ).c_str(), 1 );
      dup2( open( "/dev/null", O_WRONLY ), STDOUT_FILENO );
      execl( IPSTATE_BINARY_DIR "/ipstated", "ipstated", "--apply", nullptr );
      _exit( 1 );
   }
   close( fd );
   EXPECT_EQ( configure( "v0 10.0.0.1/24" ), "v0 has 10.0.0.1/24\n" );
   kill( child, SIGTERM );
   int status = -1;
   EXPECT_EQ( waitpid( child, &status, 0 ), child );
   EXPECT_EQ( status, 0 );
   EXPECT_TRUE( fs::exists( socket ) ); // it is the manager's
}

TEST( ServiceUnitTest, IsHardened ) {
   if( system( "command -v systemd-analyze >/dev/null" ) != 0 )
      SKIP_BECAUSE( "no systemd-analyze" );
   const std::string unit = IPSTATE_BINARY_DIR "/ipstated.service";
   const std::string apply = IPSTATE_SOURCE_DIR "/agents/ipstated/service/apply.conf";
   char name[] = "/tmp/ipstate-XXXXXX";
   const std::string both = mkdtemp( name ) + std::string( "/ipstated.service" );
   EXPECT_EQ( system( ( "cat " + unit + " " + apply + " >" + both ).c_str() ), 0 );
   for( const std::string & each : { unit, both } ) { // an exposure of 2.0 of 10
      EXPECT_EQ( system( ( "systemd-analyze security --offline=true --threshold=20 " + each +
                           " >/dev/null" )
                            .c_str() ),
                 0 );
   }
   fs::remove_all( name );
}

TEST_F( ServiceTest, KeepsNoRightThatItDoesNotNeed ) {
   for( const auto & [options, rights] : { std::pair( "--serve ", "0000000000000000" ),
                                           std::pair( "--apply --serve ", "0000000000001000" ) } ) {
      Program agent( options + socket, ">/dev/null" );
      ASSERT_TRUE( eventually( [&] { return answers(); } ) );
      std::ifstream status( "/proc/" + std::to_string( agent.pid() ) + "/status" );
      std::map< std::string, std::string > values;
      for( std::string line; std::getline( status, line ); ) {
         const size_t colon = line.find( ":\t" );
         if( colon != line.npos ) values[line.substr( 0, colon )] = line.substr( colon + 2 );
      }
      for( const char * set : { "CapPrm", "CapEff", "CapBnd" } ) EXPECT_EQ( values[set], rights );
      EXPECT_EQ( values["CapAmb"], "0000000000000000" );
      EXPECT_EQ( values["NoNewPrivs"], "1" );
      agent.signal( SIGTERM );
      EXPECT_EQ( agent.status(), 0 );
   }
}

/// Whoever floods it: the end comes at once.
TEST_F( ServiceTest, EndsAtOnceUnderLoad ) {
   Program agent( "--apply --state " + state + " --serve " + socket, ">/dev/null" );
   ASSERT_TRUE( eventually( [&] { return answers(); } ) );
   const pid_t writer = fork();
   if( writer == 0 ) {
      Kelmo::MountGroupOwner owner;
      auto root = Zek::dirFactory();
      auto group = Zek::allocate< Kelmo::SocketMountGroup >( root, socket, owner );
      group->doMount( { "ip/config", "Ip::Config", "w", Kelmo::MountFilter( false ) } );
      for( unsigned i = 0;; ) {
         group->timePassed( Clock::now() );
         group->flush();
         pollfd wait{ group->fd(), POLLIN, 0 };
         if( poll( &wait, 1, 0 ) > 0 ) group->onReadable();
         if( !group->isSynchronised() ) continue;
         auto config = Zek::ptrCast< Ip::Config >( root->entityAt( "ip/config" ) );
         for( int n = 0; n < 1000; ++n, ++i ) {
            config->ipIntfConfigIs( Velon::IntfId( "x" + std::to_string( i % 100000 ) ) )
               ->addrWithMaskIs( { Velon::IpAddr( i ), 24 } );
         }
      }
   }
   usleep( 700000 );
   const auto before = Clock::now();
   agent.signal( SIGTERM );
   EXPECT_EQ( agent.status(), 0 );
   EXPECT_LT( Clock::now() - before, milliseconds( 700 ) ); // half a second, and a busy machine
   EXPECT_FALSE( fs::exists( socket ) );
   kill( writer, SIGKILL );
   waitpid( writer, nullptr, 0 );
}

TEST_F( ServiceTest, OfManyThatStartAtOnceExactlyOneLives ) {
   std::vector< std::unique_ptr< Program > > agents;
   for( int i = 0; i < 8; ++i ) {
      agents.push_back( std::make_unique< Program >( "--serve " + socket, ">/dev/null" ) );
   }
   ASSERT_TRUE( eventually( [&] {
      return std::count_if( agents.begin(), agents.end(),
                            []( const auto & each ) { return each->isRunning(); } ) == 1;
   } ) );
   EXPECT_TRUE( eventually( [&] { return answers(); } ) );
   EXPECT_FALSE( fs::exists( socket + ".lock" ) );
}

TEST_F( ServiceTest, TellsBothEndsOfAnotherCell ) {
   Program agent( "--serve " + socket, ">/dev/null" );
   ASSERT_TRUE( eventually( [&] { return answers(); } ) );
   setenv( "IPSTATE_CELL", "9", 1 );
   Program client( socket + " v0", "", "examples/routing-agent" );
   unsetenv( "IPSTATE_CELL" );
   const std::string reason = "'cell/9/l3/intf/input/status-9' is of another cell: this agent's is "
                              "cell/1";
   auto line = client.line();
   while( line && line->rfind( "cannot mount", 0 ) != 0 ) line = client.line();
   EXPECT_EQ( line, "cannot mount cell/9/l3/intf/input/status-9: " + reason );
   agent.signal( SIGTERM );
   EXPECT_EQ( agent.status(), 0 );
   EXPECT_NE( agent.allErrors().find( reason ), std::string::npos );
}

TEST_F( ServiceTest, TellsWhoMountsWhatReferencesLeadOutOf ) {
   setenv( "IPSTATE_TRACE", "KernelFeed/3", 1 );
   Program agent( "--serve " + socket, ">/dev/null" );
   unsetenv( "IPSTATE_TRACE" );
   ASSERT_TRUE( eventually( [&] { return answers(); } ) );
   Kelmo::MountGroupOwner owner;
   auto root = Zek::dirFactory();
   auto group = Zek::allocate< Kelmo::SocketMountGroup >( root, socket, owner );
   group->doMount( { "ip/status", "Ip::Status", "r", Kelmo::MountFilter( false ) } );
   for( auto end = Clock::now() + patience; !group->isSynchronised() && Clock::now() < end; ) {
      group->timePassed( Clock::now() );
      group->flush();
      pollfd wait{ group->fd(), POLLIN, 0 };
      if( poll( &wait, 1, 20 ) > 0 ) group->onReadable();
   }
   agent.signal( SIGTERM );
   EXPECT_EQ( agent.status(), 0 );
   const std::string log = agent.allErrors();
   EXPECT_NE( log.find( "mounts 'ip/status' without 'cell/1/ip/input/status-1'" ), log.npos )
      << log;
   EXPECT_EQ( log.find( "mounts 'ip6/status'" ), log.npos ) << log;
   EXPECT_NE( log.find( "KernelFeed/3 KernelFeed:onSynchronized a full dump is told\n" ), log.npos )
      << log;
}

// -- Figures ----------------------------------------------------------------------------------

std::string
asked( uint16_t port, const std::string & request ) {
   const int fd = socket( AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0 );
   sockaddr_in address{};
   address.sin_family = AF_INET;
   address.sin_port = htons( port );
   address.sin_addr.s_addr = htonl( INADDR_LOOPBACK );
   std::string reply;
   if( connect( fd, reinterpret_cast< sockaddr * >( &address ), sizeof address ) == 0 ) {
      (void)send( fd, request.data(), request.size(), MSG_NOSIGNAL );
      char part[4096];
      for( ssize_t length; ( length = recv( fd, part, sizeof part, 0 ) ) > 0; ) {
         reply.append( part, size_t( length ) );
      }
   }
   close( fd );
   return reply;
}

TEST_F( ServiceTest, TellsItsFiguresInPrometheusForm ) {
   Program agent( "--apply --state " + state + " --serve " + socket + " --metrics 9469",
                  ">/dev/null" );
   ASSERT_TRUE( eventually( [&] { return answers(); } ) );
   EXPECT_EQ( configure( "v0 10.0.0.1/24" ), "v0 has 10.0.0.1/24\n" );
   const std::string get = "GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n";
   // Some who say nothing, and one who never ends.
   std::vector< int > idle;
   for( int i = 0; i < 40; ++i ) {
      idle.push_back( ::socket( AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0 ) );
      sockaddr_in address{};
      address.sin_family = AF_INET;
      address.sin_port = htons( 9469 );
      address.sin_addr.s_addr = htonl( INADDR_LOOPBACK );
      ASSERT_EQ( connect( idle.back(), reinterpret_cast< sockaddr * >( &address ), sizeof address ),
                 0 );
   }
   EXPECT_EQ( asked( 9469, "POST /metrics HTTP/1.1\r\n\r\n" ).rfind( "HTTP/1.1 405 ", 0 ), 0u );
   EXPECT_EQ( asked( 9469, "GET / HTTP/1.1\r\n\r\n" ).rfind( "HTTP/1.1 404 ", 0 ), 0u );
   EXPECT_EQ( asked( 9469, "\r\n\r\n" ).rfind( "HTTP/1.1 400 ", 0 ), 0u );
   EXPECT_EQ( asked( 9469, std::string( 20000, 'x' ) ), "" );
   const std::string reply = asked( 9469, get );
   ASSERT_EQ( reply.rfind( "HTTP/1.1 200 OK\r\n", 0 ), 0u );
   const std::string body = reply.substr( reply.find( "\r\n\r\n" ) + 4 );
   for( const char * line : { "\nipstated_interfaces 3\n", "\nipstated_apply_installed_total 1\n",
                              "\nipstated_mirror_synchronized 1\n",
                              "\nipstated_live_objects{type=\"Ip::IpIntfConfig\"} 1\n" } ) {
      EXPECT_NE( body.find( line ), std::string::npos ) << line << body;
   }
   for( int fd : idle ) close( fd );
   if( system( "command -v promtool >/dev/null" ) != 0 ) SKIP_BECAUSE( "no promtool" );
   std::ofstream( folder + "/metrics" ) << body;
   EXPECT_EQ( system( ( "promtool check metrics <" + folder + "/metrics" ).c_str() ), 0 );
}

} // namespace
} // namespace Ipstated::Scripted
