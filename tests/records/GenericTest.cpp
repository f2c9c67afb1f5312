// Records by name: what the sweep over all types does not reach.

#include "framework/Generic.h"
#include "Ip/Ip.h"
#include "Ip6/Ip6.h"
#include "IpGen/IpGenStatusSm.h"
#include "tests/records/Records.h"

#include <array>

using namespace Records;
using Zek::GenericOperation;
using Zek::GenericValue;

namespace {

using Velon::IntfId;

const Zek::GenericIf &
companion( const char * name ) {
   return *Zek::typeNode( name )->genericIf;
}

template< class Action >
std::string
rejection( Action action ) {
   return refusal< Zek::RejectedException >( action );
}

class GenericConfig : public testing::Test {
 protected:
   const Zek::GenericIf & type = companion( "Ip::IpIntfConfig" );
   const Zek::Ptr< Ip::IpIntfConfig > config = Ip::ipIntfConfigFactory( IntfId( "Ethernet1" ) );

   GenericValue op( GenericOperation operation, const char * name,
                    Zek::GenericIf::ArgumentList arguments = {} ) {
      return type.genericIfAttributeOp( config, operation, name, arguments );
   }
};

TEST_F( GenericConfig, IsMadeWrittenAndReadByName ) {
   GenericValue made = type.genericIfFromCtorArgs( { IntfId( "Ethernet2" ) } );
   auto typed = made.as< Zek::Ptr< Ip::IpIntfConfig > >();
   EXPECT_EQ( typed->intfId(), IntfId( "Ethernet2" ) );
   type.genericIfAttributeOp( made, GenericOperation::write, "maxMssEgress", { uint16_t( 1400 ) } );
   EXPECT_EQ( typed->maxMssEgress(), 1400 );
   EXPECT_EQ( type.genericIfAttributeOp( made, GenericOperation::read, "tcpMssMax" ),
              GenericValue( Ip::IpIntfConfig::tcpMssMax() ) );
   EXPECT_EQ( type.genericIfAttributeOp( made, GenericOperation::read, "parent" ).text(), "null" );
}

TEST_F( GenericConfig, FollowsTheTypedBoundOfASegmentSize ) {
   Story story( *config );
   EXPECT_NE( refusal< Zek::RangeException >(
                 [&] { op( GenericOperation::write, "maxMssEgress", { uint16_t( 65516 ) } ); } ),
              "nothing thrown" );
   EXPECT_EQ( config->maxMssEgress(), 65516 );
   EXPECT_EQ( story.told(), "" );
}

TEST_F( GenericConfig, NamesTypeAttributeAndReasonOfARejection ) {
   const std::string before = shown( *config );
   const Zek::PtrInterface & readOnly = *config;
   auto written = [&]( const char * name, const GenericValue & value ) {
      return rejection( [&] { op( GenericOperation::write, name, { value } ); } );
   };
   EXPECT_EQ( written( "tcpMssMax", uint16_t( 1 ) ),
              "Ip::IpIntfConfig::tcpMssMax cannot be written: it is a constant" );
   EXPECT_EQ( written( "intfId", IntfId( "Ethernet2" ) ),
              "Ip::IpIntfConfig::intfId cannot be written: it is a constructor parameter" );
   EXPECT_EQ( written( "vrf", L3::VrfName( "red" ) ),
              "Ip::IpIntfConfig::vrf cannot be written: it is derived" );
   EXPECT_EQ( written( "maxMssEgress", uint32_t( 1400 ) ),
              "Ip::IpIntfConfig::maxMssEgress cannot be written: it is a value of type U16, not a "
              "value of type U32" );
   EXPECT_EQ( written( "l3Config", Zek::Ptr< const Ip::IpIntfConfig >( config ) ),
              "Ip::IpIntfConfig::l3Config cannot be written: it is a pointer to L3::Intf::Config, "
              "not a const pointer to Ip::IpIntfConfig" );
   EXPECT_EQ( written( "speed", true ), "Ip::IpIntfConfig has no attribute 'speed'" );
   EXPECT_EQ( rejection( [&] { op( GenericOperation::write, "maxMssEgress" ); } ),
              "Ip::IpIntfConfig::maxMssEgress cannot be written: it takes 1 argument, not 0" );
   EXPECT_EQ( rejection( [&] { op( GenericOperation::count, "maxMssEgress" ); } ),
              "Ip::IpIntfConfig::maxMssEgress cannot be counted: it is a plain attribute" );
   EXPECT_EQ( rejection( [&] { op( GenericOperation::read, "secondaryWithMask" ); } ),
              "Ip::IpIntfConfig::secondaryWithMask cannot be read: it is a collection" );
   EXPECT_EQ( rejection( [&] {
                 type.genericIfAttributeOp( readOnly, GenericOperation::write, "maxMssEgress",
                                            { uint16_t( 1 ) } );
              } ),
              "Ip::IpIntfConfig::maxMssEgress cannot be written: the object is held by a const "
              "pointer" );
   EXPECT_EQ( rejection( [&] { type.genericIfFromCtorArgs( {} ); } ),
              "Ip::IpIntfConfig takes 1 argument, not 0" );
   EXPECT_EQ( rejection( [&] { companion( "Ip::Config" ).genericIfIterator( config, 258 ); } ),
              "an object of type Ip::IpIntfConfig is not of type Ip::Config" );
   EXPECT_EQ( rejection( [] { GenericValue( true ).as< uint16_t >(); } ),
              "a value of type bool is not a value of type U16" );
   EXPECT_THROW( GenericValue::fromText( Zek::TypeOf< uint16_t >::descriptor, "70000" ),
                 Zek::RangeException );
   EXPECT_EQ( shown( *config ), before );
}

TEST( Generic, CallsOperationsByName ) {
   auto config = Ip6::intfConfigFactory( IntfId( "Ethernet1" ) );
   const auto & type = companion( "Ip6::IntfConfig" );
   const Velon::Ip6Addr destination( "2001:db8::1" );
   const Zek::PtrInterface & readOnly = *config;
   EXPECT_EQ( type.genericIfAttributeOp( readOnly, GenericOperation::call,
                                         "sourceAddressForDestination", { destination } ),
              GenericValue( config->sourceAddressForDestination( destination ) ) );
   EXPECT_EQ(
      rejection( [&] {
         type.genericIfAttributeOp( config, GenericOperation::call, "sourceAddressForDestination",
                                    { true } );
      } ),
      "argument 'destination' of Ip6::IntfConfig::sourceAddressForDestination is a value of "
      "type Velon::Ip6Addr, not a value of type bool" );
}

TEST( Generic, WarnsOfTheDefaultKeyThatASetInAValueLacks ) {
   const auto & type = companion( "Ip::MulticastGroupInfo" );
   GenericValue group = type.genericIfFromCtorArgs( { Velon::IpAddr( "224.0.0.1" ) } );
   const char * warning = "Default key not supported in collection inside nominal\n";
   testing::internal::CaptureStderr();
   EXPECT_EQ( type.genericIfAttributeOp( group, GenericOperation::lookUp, "application" ),
              GenericValue( false ) );
   EXPECT_EQ( testing::internal::GetCapturedStderr(), warning );
   testing::internal::CaptureStderr();
   EXPECT_FALSE( type.genericIfIteratorKey( group, type.attribute( "application" ).id ) );
   EXPECT_EQ( testing::internal::GetCapturedStderr(), warning );
}

TEST( Generic, PutsRootsIntoDirectoriesByTheirTypes ) {
   auto root = Zek::dirFactory( Zek::Name( "ar" ) );
   const auto & dir = companion( "Zek::Dir" );
   auto add = [&]( const char * name, const char * type ) {
      return dir.genericIfAttributeOp( root, GenericOperation::add, "entity",
                                       { Zek::String( name ), Zek::String( type ) } );
   };
   GenericValue child = add( "ip", "Ip::Config" );
   EXPECT_EQ( child.object(), root->entity( "ip" ).ptr() );
   EXPECT_EQ( add( "ip", "Ip::Config" ), child );
   EXPECT_THROW( add( "ip", "Ip6::Config" ), Zek::NameInUseException );
   EXPECT_THROW( add( "x", "Ip::IpIntfConfig" ), Zek::RejectedException );
   EXPECT_THROW( add( "x", "Ip::Confi" ), Zek::RejectedException );
   EXPECT_EQ( root->entityCount(), 1u );
}

TEST( Generic, MakesEntitiesThatAStreamAnnounces ) {
   using Argument = std::array< GenericValue, 1 >;
   const auto &config = companion( "Ip::Config" ), &member = companion( "Ip::IpIntfConfig" );
   const Argument ip{ Zek::Name( "ip" ) }, ethernet1{ IntfId( "Ethernet1" ) };
   const auto fresh = config.newEntityForAttrLog( ip );
   EXPECT_EQ( fresh->fullName(), "ip" );
   EXPECT_EQ( fresh->parent(), nullptr );
   EXPECT_EQ( fresh->references(), 1u );

   auto root = Zek::dirFactory( "ar" );
   Story story( *root );
   auto child = config.newEntityForAttrLog( *root, Zek::entityAttr, ip );
   EXPECT_EQ( root->entity( "ip" ), child );
   auto made = member.newEntityForAttrLog( *child, 258, ethernet1 );
   EXPECT_EQ( made->fullName(), "ar/ip/ipIntfConfig[Ethernet1]" );
   EXPECT_EQ( member.newEntityForAttrLog( *child, 258, ethernet1 ), made );
   EXPECT_NE( config.newEntityForAttrLog( *root, Zek::entityAttr, ip ), child );
   EXPECT_EQ( story.told(), "entity[ip]\nentity[ip]\n" );

   EXPECT_EQ( rejection( [&] { companion( "Ira::IntfDir" ).newEntityForAttrLog( {} ); } ),
              "objects of type Ira::IntfDir are not logged" );
   EXPECT_EQ( rejection( [&] { config.newEntityForAttrLog( ethernet1 ); } ),
              "argument 'name' of Ip::Config is a value of type Zek::Name, not a value of type "
              "Velon::IntfId" );
   EXPECT_EQ( rejection( [&] { config.newEntityForAttrLog( *child, 258, ip ); } ),
              "Ip::Config::ipIntfConfig cannot be added to: its members are of type "
              "Ip::IpIntfConfig, not Ip::Config" );
}

TEST( Generic, ReadsTheInputsOfMachines ) {
   const IntfId ethernet1( "Ethernet1" );
   const auto status = Ip::statusFactory();
   const auto record = Ip::ipIntfStatusFactory( ethernet1, L3::Intf::statusFactory( ethernet1 ) );
   status->ipIntfStatusIs( record );
   const auto & type = companion( "IpGen::StatusSm" );
   GenericValue view = companion( "IpGen::Ipv4Status" )
                          .genericIfFromCtorArgs( { Zek::Ptr< const Ip::Status >( status ) } );
   GenericValue machine = type.genericIfFromCtorArgs( { view } );
   auto read = [&]( const char * name ) {
      return type.genericIfAttributeOp( machine, GenericOperation::read, name );
   };
   EXPECT_EQ( read( "status" ), view );
   EXPECT_EQ( read( "initialized" ), GenericValue( true ) );
   EXPECT_EQ( read( "ipv4Status" ).object(), status.ptr() );
   EXPECT_EQ( read( "ipv6Status" ).shape(), "a null pointer" );
   // What is held by a pointer to const stays out of reach.
   const auto held = companion( "IpGen::Ipv4Status" )
                        .genericIfAttributeOp( view, GenericOperation::read, "ipStatus" );
   for( const GenericValue & value : { read( "ipv4Status" ), held } ) {
      EXPECT_EQ( rejection( [&] {
                    companion( "Ip::Status" )
                       .genericIfAttributeOp( value, GenericOperation::remove, "ipIntfStatus",
                                              { ethernet1 } );
                 } ),
                 "Ip::Status::ipIntfStatus cannot be removed from: the object is held by a const "
                 "pointer" );
   }
   auto inputs = type.genericIfIterator( machine, type.attribute( "ipv4IntfStatus" ).id );
   ASSERT_TRUE( inputs );
   EXPECT_EQ( inputs.key(), GenericValue( ethernet1 ) );
   EXPECT_EQ( inputs.value().object(), record.ptr() );
   EXPECT_TRUE( inputs.value().isConst() );
   EXPECT_FALSE( ++inputs );
   EXPECT_EQ( type.genericIfAttributeOp( machine, GenericOperation::count, "ipv6IntfStatus" ),
              GenericValue( uint64_t( 0 ) ) );
   type.genericIfAttributeOp( machine, GenericOperation::call, "handleInitialized" );
   EXPECT_DEATH( type.genericIfFromCtorArgs( { IpGen::statusFactory() } ),
                 "assertion 'Unsupported Address Family' failed" );
}

} // namespace
