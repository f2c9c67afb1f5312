// What is particular to the launching of VRF agents and to the cleaning up after them.

#include "VrfTypes/VrfTypes.h"
#include "framework/System.h"
#include "tests/records/Records.h"

#include <cmath>
#include <limits>

using namespace Records;

namespace {

// -- Launching --------------------------------------------------------------------------------

TEST( MultiAgentVrfProtocolEntry, RefusesOtherDirectoriesTheLaunchDirectoryFirst ) {
   auto config = VrfTypes::multiAgentVrfProtoConfigFactory( "config" );
   auto entry = config->vrfConfigIs( "bgp" );
   EXPECT_EQ( config->vrfConfigIs( "bgp" ), entry );
   Story story( *entry );
   auto agent = entry->agentIs( "Bgp", "/launch", "/qual" );
   EXPECT_EQ( entry->agentIs( "Bgp", "/launch", "/qual" ), agent );
   const struct {
      const char *launchDir, *qualPathDir, *refused;
   } rows[] = {
      { "/other", "/qual",
        "'launchDir' has a different value of /other than the current value "
        "of /launch" },
      { "/other", "/other",
        "'launchDir' has a different value of /other than the current value "
        "of /launch" },
      { "/launch", "/other",
        "'qualPathDir' has a different value of /other than the current "
        "value of /qual" },
   };
   for( auto & [launchDir, qualPathDir, refused] : rows ) {
      EXPECT_EQ( refusal< Zek::NameInUseException >(
                    [&, l = launchDir, q = qualPathDir] { entry->agentIs( "Bgp", l, q ); } ),
                 std::string( "Reinstantiating the entity with fullName config/bgp/Bgp where "
                              "constructor parameter attribute " ) +
                    refused + " not allowed" );
   }
   EXPECT_EQ( entry->agent( "Bgp" ), agent );
   EXPECT_EQ( story.told(), "agent[Bgp]\n" );
   EXPECT_EQ( entry->agentDel( "Bgp" ), agent );
   EXPECT_EQ( entry->agentDel( "Bgp" ), nullptr );
   EXPECT_EQ( config->vrfConfigDel( "ospf" ), nullptr );
   EXPECT_EQ( story.told(), "agent[Bgp] gone\n" );
   EXPECT_EQ( agent->parent(), nullptr );
   EXPECT_EQ( agent->qualPathDir(), "/qual" );
}

TEST( NamesFromBackup, LeaveMembersUnderTheirKeys ) {
   auto config = VrfTypes::multiAgentVrfProtoConfigFactory( "config" );
   auto entry = config->vrfConfigIs( "bgp" );
   auto root = Zek::dirFactory();
   Story story( *config ), entryStory( *entry );
   config->nameIsFromBackup( "restored" ); // not a member yet
   root->entityIs( config );
   EXPECT_EQ( root->entity( "restored" ), config );
   config->nameIsFromBackup( "again" );
   entry->nameIsFromBackup( "ospf" );
   EXPECT_EQ( entry->name(), "ospf" );
   EXPECT_EQ( entry->fullName(), "again/ospf" );
   EXPECT_EQ( story.told() + entryStory.told(), "" );
   EXPECT_EQ( config->vrfConfig( "bgp" ), entry );
   EXPECT_FALSE( config->vrfConfigHas( "ospf" ) );
   EXPECT_EQ( config->vrfConfigIs( "bgp" ), entry );
   EXPECT_NE( config->vrfConfigIs( "ospf" ), entry );
   EXPECT_EQ( config->vrfConfigDel( "bgp" ), entry );
   EXPECT_EQ( root->entityDel( "restored" ), config );
   root->entityIs( config );
   EXPECT_EQ( root->entity( "again" ), config ) << "by its name as it is now";
}

TEST( VrfProtocolLaunchStatus, StartsNowWithNoPhaseReached ) {
   const double before = Zek::System::currentTime();
   auto status = VrfTypes::vrfProtocolLaunchStatusFactory( "launch" );
   EXPECT_GE( status->startTime(), before );
   EXPECT_LE( status->startTime(), Zek::System::currentTime() );
   EXPECT_EQ( shown( *status ).substr( shown( *status ).find( '\n' ) ),
              "\ninitAgentConditionalMountsTime -inf\nloadPluginsTime -inf\ninitialize()\n" );
   status->startTimeIs( 0 );
   status->loadPluginsTimeIs( 2 );
   status->initAgentConditionalMountsTimeIs( 1.5 );
   Story story( *status );
   status->initialize();
   const std::string text = story.told();
   EXPECT_EQ( text.substr( 0, 10 ), "startTime " );
   EXPECT_EQ( text.substr( text.find( '\n' ) ),
              "\ninitAgentConditionalMountsTime -inf\nloadPluginsTime -inf\n" );
}

TEST( VrfProtocolLaunchStatus, ComparesTimesPlainly ) {
   auto status = VrfTypes::vrfProtocolLaunchStatusFactory( "launch" );
   Story story( *status );
   status->loadPluginsTimeIs( -std::numeric_limits< double >::infinity() );
   status->loadPluginsTimeIs( 0.0 );
   status->loadPluginsTimeIs( -0.0 );
   EXPECT_FALSE( std::signbit( status->loadPluginsTime() ) ) << "equal to what is there";
   for( int i = 0; i < 2; ++i ) status->loadPluginsTimeIs( std::nan( "" ) );
   EXPECT_EQ( story.told(), "loadPluginsTime 0\nloadPluginsTime nan\nloadPluginsTime nan\n" );
}

// -- Cleaning up ------------------------------------------------------------------------------

TEST( VrfCleanupIndicator, HoldsTheAnswerOfEachPlugin ) {
   using Entry = VrfTypes::VrfCleanupEntry;
   auto indicator = VrfTypes::vrfCleanupIndicatorFactory();
   Story story( *indicator );
   indicator->doPluginCleanupIs( false );
   for( bool done : { false, false, true } ) indicator->stateIs( Entry( "fib", done ) );
   const std::string entry = "state[fib] Value('VrfTypes::VrfCleanupEntry', ** "
                             "{'pluginName': fib, 'cleanupDone': ";
   EXPECT_EQ( story.told(), entry + "false})\n" + entry + "true})\n" );
   EXPECT_TRUE( !indicator->state( "none" ) );
   EXPECT_EQ( indicator->stateDel( "fib" ), Entry( "fib", true ) );
   EXPECT_EQ( indicator->stateDel( "fib" ), Entry() );
   indicator->doPluginCleanupIs( true );
   EXPECT_EQ( story.told(), "state[fib] gone\ndoPluginCleanup true\n" );
   EXPECT_FALSE( !Entry( "", true ) || !Entry( "fib", false ) );
}

TEST( RibVrfAgents, StartWithFourAgents ) {
   auto agents = VrfTypes::ribVrfAgentsFactory();
   auto expectFour = [&] {
      EXPECT_TRUE( agents->init() );
      EXPECT_EQ( agents->agentsCount(), 4u );
      for( const char * name : { "Rib", "Ospf", "Ospf3", "Isis" } ) {
         EXPECT_TRUE( agents->agents( name ) ) << name;
      }
   };
   expectFour();
   agents->agentsIs( "Rib", false );
   EXPECT_TRUE( agents->agentsDel( "Isis" ) );
   EXPECT_FALSE( agents->agentsDel( "Isis" ) || agents->agentsDel( "Rib" ) );
   agents->initIs( false );
   agents->initialize();
   expectFour();
}

} // namespace
