// What is particular to the layer-3 records.

#include "L3/L3.h"
#include "tests/records/Records.h"

using namespace Records;
using L3::VrfName;
using Velon::IntfId;

namespace {

const IntfId ethernet1( "Ethernet1" );
const std::string tooLong( 101, 'v' );
const std::string longest( 100, 'v' );

TEST( VrfName, HoldsUpTo100BytesHoweverItIsMade ) {
   EXPECT_EQ( VrfName( longest ).string(), longest );
   // Bytes count, not characters: 50 times two bytes.
   std::string accented;
   for( int i = 0; i < 50; ++i ) accented += "\xc3\xa9";
   EXPECT_EQ( VrfName( accented ).size(), 100u );
   const Zek::String text( tooLong );
   const Zek::String request = stringValue( L3::UpdateIpIntfStatusRequest( ethernet1, "V" ) );
   std::string longRequest( request.view() );
   longRequest.replace( longRequest.find( "V}" ), 1, tooLong );
   auto config = L3::Intf::configFactory( ethernet1 );
   L3::UpdateIpIntfStatusRequest kept( ethernet1, "kept" );
   const std::function< void() > doors[] = {
      [&] { VrfName{ text }; },
      [&] { VrfName{ tooLong.c_str() }; },
      [&] { VrfName{ tooLong }; },
      [&] { VrfName{ std::string_view( tooLong ) }; },
      [&] { VrfName( text.begin(), text.end() ); },
      [&] { VrfName{ accented + "v" }; },
      [&] { config->vrfIs( tooLong ); },
      [&] { L3::updateIpIntfStatusVrfRequestFactory( ethernet1, tooLong ); },
      [&] {
         const Zek::String form( longRequest );
         sequenceToValue( form.begin(), form.end(), kept );
      },
   };
   for( auto & door : doors ) {
      EXPECT_EQ( refusal< Zek::RangeException >( door ),
                 "VrfName::bytes > VrfName::maxLength not allowed" )
         << "door " << &door - doors;
   }
   EXPECT_EQ( config->vrf(), VrfName( "default" ) );
   EXPECT_EQ( kept.vrf(), VrfName( "kept" ) );
}

TEST( VrfName, IsItsString ) {
   EXPECT_EQ( VrfName().string(), "" );
   EXPECT_EQ( VrfName( static_cast< const char * >( nullptr ) ), VrfName() );
   EXPECT_TRUE( !VrfName() && !!VrfName( "red" ) );
   EXPECT_EQ( VrfName( "red" ).hash(), Zek::String( "red" ).hash() );
   EXPECT_LT( VrfName( "Red" ), VrfName( "red" ) );
   EXPECT_EQ( stringValue( VrfName( "red" ) ), "red" );
   EXPECT_EQ( VrfName::maxLength, 100u );
}

TEST( L3Records, StartWithTheirDefaults ) {
   const struct {
      Zek::Ptr< Zek::PtrInterface > record;
      const char * expected;
   } rows[] = {
      { L3::Intf::configFactory( ethernet1 ), "intfId Ethernet1\nvrf default\n" },
      { L3::Intf::statusFactory( ethernet1 ), "intfId Ethernet1\nvrf default\n" },
      { L3::Intf::configDirFactory(), "intfConfig {}\nvrfForwardingCmdShowOldFormat false\n" },
      { L3::configFactory(),
        "protocolAgentModel Value('L3::ProtocolAgentModelType', ** {'value': ribd})\n"
        "protocolAgentModelDefault Value('L3::ProtocolAgentModelType', ** {'value': ribd})\n" },
      { L3::protocolAgentModelStatusFactory(),
        "protocolAgentModel Value('L3::ProtocolAgentModelType', ** {'value': })\n"
        "protocolAgentModelChangeTime 0\n" },
      { L3::updateIpIntfStatusVrfRequestFactory( ethernet1, "red" ),
        "intfId Ethernet1\nvrf red\n" },
   };
   for( auto & [record, expected] : rows ) {
      EXPECT_EQ( shown( *record ), expected ) << record->fwkType()->fullName;
   }
   EXPECT_TRUE( !L3::protocolAgentModelStatusFactory()->protocolAgentModel() );
   EXPECT_EQ( L3::configFactory()->protocolAgentModel(), L3::Config::protocolAgentModelDefault() );
   EXPECT_EQ( L3::ProtocolAgentModelType::ribd().value(), "ribd" );
   EXPECT_EQ( L3::ProtocolAgentModelType::multiAgent().value(), "multi-agent" );
}

TEST( L3UpdateIpIntfStatusRequests, AnswerWithTheEmptyVrfForAnInterfaceWithoutOne ) {
   auto requests = L3::updateIpIntfStatusRequestsFactory( "requests" );
   Story story( *requests );
   requests->requestIs( { ethernet1, "red" } );
   requests->requestIs( { ethernet1, "red" } );
   requests->requestIs( { ethernet1, "blue" } );
   EXPECT_EQ( story.told(), "request[Ethernet1] Value('L3::UpdateIpIntfStatusRequest', ** "
                            "{'intfId': Ethernet1, 'vrf': red})\n"
                            "request[Ethernet1] Value('L3::UpdateIpIntfStatusRequest', ** "
                            "{'intfId': Ethernet1, 'vrf': blue})\n" );
   const auto absent = requests->request( IntfId( "Ethernet2" ) );
   EXPECT_EQ( absent.intfId(), IntfId() );
   EXPECT_EQ( absent.vrf(), VrfName() );
   EXPECT_EQ( requests->requestDel( ethernet1 ).vrf(), VrfName( "blue" ) );
}

TEST( L3UpdateIpIntfStatusVrfRequests, CompareWithThePresentVrf ) {
   auto requests = L3::updateIpIntfStatusVrfRequestsFactory( "requests" );
   auto request = requests->requestIs( ethernet1, "red" );
   request->vrfIs( "blue" );
   EXPECT_EQ( requests->requestIs( ethernet1, "blue" ), request );
   EXPECT_EQ(
      refusal< Zek::NameInUseException >( [&] { requests->requestIs( ethernet1, "red" ); } ),
      "Reinstantiating the entity with fullName requests/request[Ethernet1] where "
      "constructor parameter attribute 'vrf' has a different value of red than the current "
      "value of blue not allowed" );
   EXPECT_EQ( requests->requestCount(), 1u );
}

TEST( L3InputStatusDir, RefersToItsInputsByName ) {
   auto dir = L3::Intf::inputStatusDirFactory( "dir" );
   auto kernel = L3::Intf::Input::statusDirFactory( "kernel" );
   Story story( *dir );
   dir->inputStatusIs( kernel );
   EXPECT_EQ( story.told(), "inputStatus[kernel]\n" );
   EXPECT_EQ( dir->inputStatus( "kernel" ), kernel );
   EXPECT_EQ( dir->inputStatusDel( "kernel" ), kernel );
   EXPECT_EQ( kernel->parent(), nullptr );
}

} // namespace
