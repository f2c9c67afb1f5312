// The agent's records in other processes: what a routing agent mounts, and how it follows the
// kernel.

#include "Ip/Ip.h"
#include "Ip6/Ip6.h"
#include "Ira/IpStatusMounter.h"
#include "platform/Kelmo/SocketMountGroup.h"
#include "tests/agents/Namespace.h"
#include "tests/agents/Program.h"

#include <filesystem>

namespace Ipstated::Scripted {
namespace {

namespace fs = std::filesystem;

class ServeTest : public NamespaceTest {
 protected:
   void SetUp() override {
      char name[] = "/tmp/ipstate-XXXXXX";
      directory_ = mkdtemp( name );
      socket = directory_ + "/socket";
      NamespaceTest::SetUp();
   }
   void TearDown() override {
      fs::remove_all( directory_ );
      NamespaceTest::TearDown();
   }
   std::string socket;

 private:
   std::string directory_;
};

/// Whether the program says that line before long.
testing::AssertionResult
says( Program & program, const std::string & wanted ) {
   std::string said;
   while( const auto line = program.line() ) {
      if( *line == wanted ) return testing::AssertionSuccess();
      said += *line + "\n";
   }
   return testing::AssertionFailure() << "not '" << wanted << "' but\n" << said;
}

TEST_F( ServeTest, ARoutingAgentFollowsTheKernel ) {
   ip( { "addr add 10.0.0.1/24 dev v0" } );
   auto ipstated = std::make_unique< Program >( "--serve " + socket );
   Program agent( socket + " v0", "", "examples/routing-agent" );
   EXPECT_TRUE( says( agent, "synchronised" ) );
   EXPECT_TRUE( says( agent, "IPv4 v0 has 10.0.0.1/24" ) );
   EXPECT_TRUE( says( agent, "IPv4 source of v0 is 10.0.0.1" ) );
   ip( { "addr add 10.0.0.2/24 dev v0" } );
   EXPECT_TRUE( says( agent, "IPv4 v0 has 10.0.0.2/24" ) );
   ip( { "addr add fe80::7/64 dev v1 nodad" } );
   EXPECT_TRUE( says( agent, "IPv6 v1 has fe80::7/64" ) );

   ipstated->signal( SIGTERM );
   EXPECT_EQ( ipstated->status(), 0 );
   EXPECT_EQ( ipstated->allErrors(), "" );
   EXPECT_FALSE( fs::exists( socket ) );
   ip( { "addr del 10.0.0.1/24 dev v0", "addr add 10.0.9.1/24 dev v0" } );
   ipstated = std::make_unique< Program >( "--serve " + socket );
   EXPECT_TRUE( says( agent, "IPv4 source of v0 is 10.0.9.1" ) );
   EXPECT_TRUE( says( agent, "synchronised" ) );
}

TEST_F( ServeTest, HasAllThatTheMounterAsksFor ) {
   Program ipstated( "--serve " + socket );
   struct Owner final : Kelmo::MountGroupOwner {
      void onRefused( const Kelmo::Mount & mount, const std::string & reason ) override {
         refused += mount.path().toString() + ": " + reason + "\n";
      }
      std::string refused;
   } owner;
   auto root = Zek::dirFactory();
   auto group = Zek::allocate< Kelmo::SocketMountGroup >( root, socket, owner );
   Ira::IraIpStatusMounter::doMountEntities( group, true, true );
   const auto end = Clock::now() + patience;
   while( !group->isSynchronised() && Clock::now() < end ) {
      group->timePassed( Clock::now() );
      group->flush();
      pollfd wait{ group->fd(), POLLIN, 0 };
      if( poll( &wait, 1, 20 ) > 0 ) group->onReadable();
   }
   EXPECT_TRUE( group->isSynchronised() ) << group->fault();
   EXPECT_EQ( owner.refused, "" );
   std::string types;
   for( const char * path : { "l3/intf/input/status/system", "cell/1/l3/intf/input/status-1",
                              "ip/input/status", "cell/1/ip/input/status-1", "ip/status",
                              "ip6/input/status", "cell/1/ip6/input/status-1", "ip6/status" } ) {
      const auto entity = root->entityAt( path );
      types += std::string( entity ? entity->fwkType()->fullName : "none" ) + "\n";
   }
   EXPECT_EQ( types, "L3::Intf::Input::StatusDir\nL3::Intf::Input::StatusDir\n"
                     "Zek::Dir\nIp::Input::Status\nIp::Status\n"
                     "Zek::Dir\nIp6::Input::Status\nIp6::Status\n" );
   auto status = dynamic_cast< Ip::Status * >( root->entityAt( "ip/status" ).ptr() );
   auto input =
      dynamic_cast< Ip::Input::Status * >( root->entityAt( "cell/1/ip/input/status-1" ).ptr() );
   const Velon::IntfId v0( "v0" );
   EXPECT_EQ( status->ipIntfStatus( v0 ), input->ipIntfStatus( v0 ) );
   EXPECT_TRUE( input->ipIntfStatus( v0 )->l3Status() );
}

TEST_F( ServeTest, ConfigurationOfAnotherProcessReachesTheKernel ) {
   Program ipstated( "--apply --serve " + socket );
   auto configure = [&]( const std::string & what ) {
      Program program( socket + " " + what, "2>&1", "examples/configure-address" );
      return program.allOutput();
   };
   EXPECT_EQ( configure( "v0 10.0.0.1/24" ), "v0 has 10.0.0.1/24\n" );
   EXPECT_EQ( configure( "v0 2001:db8::1/64" ), "v0 has 2001:db8::1/64\n" );
   EXPECT_EQ( configure( "v0 10.0.9.1/24" ), "v0 has 10.0.9.1/24\n" );
   EXPECT_NE( configure( "none7 10.0.0.1/24" ).find( "none7: " ), std::string::npos );
   // Where the configuration has nothing, there is nothing to wait for: this one stays.
   ip( { "addr add 10.0.7.1/24 dev v1" } );
   for( const char * intf : { "v0", "v1", "lo" } ) {
      EXPECT_EQ( configure( std::string( intf ) + " none" ),
                 std::string( intf ) + ": nothing configured\n" );
   }
   EXPECT_EQ( system( "ip address show dev v0 | grep -q 'inet 10\\.'" ) >> 8, 1 );
   EXPECT_EQ( system( "ip address show dev v1 | grep -q 'inet 10\\.0\\.7\\.1/'" ), 0 );
   for( const char * address : { "0.0.0.0/0", "::/0", "''", "10.0.0.1" } ) {
      EXPECT_NE( configure( std::string( "v0 " ) + address ).find( "is no address" ),
                 std::string::npos );
   }
   Program readers( "--serve " + socket + ".2" );
   EXPECT_NE( Program( socket + ".2 v0 10.0.0.1/24", "2>&1", "examples/configure-address" )
                 .allOutput()
                 .find( "is not exported for writing" ),
              std::string::npos );
}

TEST( ExamplesTest, SayWhatCannotBeASocket ) {
   for( const std::string & path : { std::string( "''" ), std::string( 200, 'x' ) } ) {
      for( const char * name : { "configure-address v0 none", "routing-agent v0" } ) {
         const std::string program =
            std::string( name ).substr( 0, std::string( name ).find( ' ' ) );
         Program refused( path + ( name + program.size() ), "", "examples/" + program );
         EXPECT_EQ( refused.status(), 2 );
         EXPECT_NE( refused.allErrors().find( "cannot be a socket: expected a path of 1 to" ),
                    std::string::npos );
      }
   }
}

TEST( ProgramTest, SaysWhyItCannotServe ) {
   Program directory( "--serve /tmp" );
   EXPECT_EQ( directory.status(), 2 );
   EXPECT_EQ( directory.allOutput(), "" ); // before any table
   EXPECT_EQ( directory.allErrors(),
              "ipstated: cannot listen at '/tmp': it is no socket; expected one that nobody "
              "answers on, or nothing: Address already in use\n" );
}

} // namespace
} // namespace Ipstated::Scripted
