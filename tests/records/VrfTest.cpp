// What is particular to the records of VRFs and to the route distinguishers asked for them.

#include "Ip/Ip.h"
#include "tests/records/Records.h"

using namespace Records;
using Velon::AddressFamily;

namespace {

constexpr auto rd = valueOf< Velon::RouteDistinguisher >;

TEST( VrfRecords, StartWithTheirDefaults ) {
   const struct {
      Zek::Ptr< Zek::PtrInterface > record;
      const char * expected;
   } rows[] = {
      { Ip::vrfConfigFactory( "red" ), "vrfName red\naddressFamily {}\ndescription \n" },
      { Ip::allVrfConfigFactory(), "vrf {}\nvrfDefinitionCmdShowOldFormat false\n" },
      { Ip::vrfCapabilityFactory(), "maxVrfs -1\nipv4EnabledDefault true\n"
                                    "ipv6EnabledDefault true\nafEnabledDefault()\n" },
      { Ip::vrfStatusGlobalFactory( "red" ), "vrfName red\nrouteDistinguisher 0:0\n"
                                             "routeDistinguisherPrecedence invalid\n"
                                             "addressFamily {}\n" },
      { Ip::vrfStatusLocalFactory( "red" ), "vrfName red\nstate initializing\nnetworkNamespace \n"
                                            "nsInode 0\nnsInodeValid false\n" },
      { Ip::routeDistinguisherInputFactory( "input", {} ),
        "clientPrecedence invalid\nrouteDistinguisher {}\n" },
   };
   for( auto & [record, expected] : rows ) {
      EXPECT_EQ( shown( *record ), expected ) << record->fwkType()->fullName;
   }
}

TEST( VrfCapability, AnswersForEachFamily ) {
   auto capability = Ip::vrfCapabilityFactory();
   capability->ipv6EnabledDefaultIs( false );
   EXPECT_TRUE( capability->afEnabledDefault( AddressFamily::ipv4 ) );
   EXPECT_FALSE( capability->afEnabledDefault( AddressFamily::ipv6 ) );
   capability->ipv4EnabledDefaultIs( false );
   capability->ipv6EnabledDefaultIs( true );
   EXPECT_FALSE( capability->afEnabledDefault( AddressFamily::ipv4 ) );
   EXPECT_TRUE( capability->afEnabledDefault( AddressFamily::ipv6 ) );
}

TEST( VrfCapabilityDeathTest, KnowsNoOtherFamily ) {
   auto capability = Ip::vrfCapabilityFactory();
   for( int family : { 0, 3 } ) {
      EXPECT_DEATH( capability->afEnabledDefault( static_cast< AddressFamily >( family ) ),
                    "assertion 'false' failed \\(source Ip\\)" );
   }
}

TEST( VrfStatusLocal, BoundsTheNameOfItsNamespace ) {
   auto status = Ip::vrfStatusLocalFactory( "red" );
   const std::string longest( 150, 'n' );
   status->networkNamespaceIs( longest );
   Story story( *status );
   EXPECT_EQ(
      refusal< Zek::RangeException >( [&] { status->networkNamespaceIs( longest + "n" ); } ),
      "NamespaceName::bytes > 150 not allowed" );
   EXPECT_EQ( status->networkNamespace().string(), longest );
   EXPECT_EQ( story.told(), "" );
}

TEST( VrfDirectories, RefuseANameTooLongBeforeAnythingChanges ) {
   const std::string longest( 100, 'v' );
   auto config = Ip::allVrfConfigFactory();
   auto global = Ip::allVrfStatusGlobalFactory();
   auto local = Ip::allVrfStatusLocalFactory();
   auto input = Ip::bgpRouteDistinguisherInputFactory( "bgp" );
   Story stories[] = { Story( *config ), Story( *global ), Story( *local ), Story( *input ) };
   const std::function< void( const std::string & ) > doors[] = {
      [&]( const std::string & name ) { config->vrfIs( name ); },
      [&]( const std::string & name ) { global->vrfIs( name ); },
      [&]( const std::string & name ) { local->vrfIs( name ); },
      [&]( const std::string & name ) { input->routeDistinguisherIs( name, rd( "1:1" ) ); },
   };
   for( size_t i = 0; i < std::size( doors ); ++i ) {
      EXPECT_EQ( refusal< Zek::RangeException >( [&] { doors[i]( longest + "v" ); } ),
                 "VrfName::bytes > VrfName::maxLength not allowed" );
      EXPECT_EQ( stories[i].told(), "" );
      doors[i]( longest );
      EXPECT_NE( stories[i].told(), "" );
   }
}

TEST( RouteDistinguisherInput, CarriesThePrecedenceOfItsClient ) {
   using Input = Ip::RouteDistinguisherInput;
   auto bgp = Ip::bgpRouteDistinguisherInputFactory( "bgp" );
   auto definition = Ip::vrfDefinitionRouteDistinguisherInputFactory( "definition" );
   EXPECT_EQ( bgp->clientPrecedence(), Input::ClientPrecedence::bgp );
   EXPECT_EQ( definition->clientPrecedence(), Input::ClientPrecedence::vrfDefinition );
   EXPECT_EQ( definition->name(), "definition" );
   EXPECT_EQ( definition->routeDistinguisherCount(), 0u );
   Story story( *definition );
   for( const char * text : { "65000:1", "65000:1", "65000:2" } ) {
      definition->routeDistinguisherIs( "red", rd( text ) );
   }
   EXPECT_EQ( definition->routeDistinguisherDel( "red" ), rd( "65000:2" ) );
   EXPECT_EQ( definition->routeDistinguisherDel( "red" ), Velon::RouteDistinguisher() );
   EXPECT_EQ( story.told(), "routeDistinguisher[red] 65000:1\nrouteDistinguisher[red] 65000:2\n"
                            "routeDistinguisher[red] gone\n" );
}

} // namespace
