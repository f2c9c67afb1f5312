// What is particular to the virtual addresses, for both families alike.

#include "VirtualIp/VirtualIp.h"
#include "tests/records/Records.h"

using namespace Records;
using Velon::IntfId;
using VirtualIp::AcceptMode;
using VirtualIp::VrfIpPair;
using VirtualIp::VrfIpWithMaskPair;

namespace {

struct Ipv4 {
   static auto status() { return VirtualIp::virtualIpStatusFactory( "status" ); }
   static VrfIpWithMaskPair key( const char * vrf, unsigned host ) {
      return { vrf,
               valueOf< Velon::IpGenAddrWithMask >( "10.0.0." + std::to_string( host ) + "/24" ) };
   }
};
struct Ipv6 {
   static auto status() { return VirtualIp::virtualIp6StatusFactory( "status" ); }
   static VrfIpPair key( const char * vrf, unsigned host ) {
      return { vrf, valueOf< Velon::IpGenAddr >( "2001:db8::" + std::to_string( host ) ) };
   }
};

template< class Family >
class VirtualIpStatus : public testing::Test {};
using Families = testing::Types< Ipv4, Ipv6 >;
TYPED_TEST_SUITE( VirtualIpStatus, Families );

TYPED_TEST( VirtualIpStatus, RefusesToMoveAnAddressToAnotherNamespace ) {
   auto status = TypeParam::status();
   Story story( *status );
   const auto key = TypeParam::key( "red", 1 );
   auto member = status->virtualIpIs( key, "ns-red" );
   EXPECT_EQ( status->virtualIpIs( key, "ns-red" ), member );
   EXPECT_EQ( member->name(), "" );
   member->intfIdSetIs( IntfId( "Vlan1" ), AcceptMode::enabled );
   EXPECT_EQ( refusal< Zek::NameInUseException >( [&] { status->virtualIpIs( key, "ns-blue" ); } ),
              "Reinstantiating the entity with fullName status/virtualIp[" +
                 std::string( stringValue( key ).view() ) +
                 "] where constructor parameter attribute 'netNs' has a different value of ns-blue "
                 "than the current value of ns-red not allowed" );
   EXPECT_EQ( status->virtualIp( key ), member );
   EXPECT_EQ( member->netNs(), Velon::NamespaceName( "ns-red" ) );
   EXPECT_EQ( member->intfIdSetCount(), 1u );
   const std::string keyed = "virtualIp[" + std::string( stringValue( key ).view() ) + "]";
   EXPECT_EQ( story.told(), keyed + "\n" );
   // Deleted, it may be made anew.
   EXPECT_EQ( status->virtualIpDel( key ), member );
   EXPECT_EQ( member->parent(), nullptr );
   EXPECT_EQ( status->virtualIpDel( key ), nullptr );
   EXPECT_EQ( story.told(), keyed + " gone\n" );
   EXPECT_EQ( status->virtualIpIs( key, "ns-blue" )->netNs(), Velon::NamespaceName( "ns-blue" ) );
   EXPECT_EQ( member->netNs(), Velon::NamespaceName( "ns-red" ) );
}

TYPED_TEST( VirtualIpStatus, ForgetsAllWhileACallbackRemovesThem ) {
   auto status = TypeParam::status();
   for( unsigned host = 1; host <= 20; ++host ) {
      status->virtualIpIs( TypeParam::key( "red", host ), "ns-red" );
   }
   Story story( *status );
   unsigned host = 0;
   story.reaction = [&] {
      if( host < 20 ) status->virtualIpDel( TypeParam::key( "red", ++host ) );
   };
   status->virtualIpDelAll();
   EXPECT_EQ( status->virtualIpCount(), 0u );
   const std::string told = story.told();
   EXPECT_EQ( std::count( told.begin(), told.end(), '\n' ), 20 ) << told;
}

TYPED_TEST( VirtualIpStatus, KeepsTheAcceptModeOfEachInterface ) {
   auto status = TypeParam::status();
   auto member = status->virtualIpIs( TypeParam::key( "red", 1 ), "ns-red" );
   const IntfId vlan1( "Vlan1" );
   Story story( *member );
   EXPECT_EQ( member->intfIdSetDel( vlan1 ), AcceptMode::disabled );
   member->intfIdSetIs( vlan1, AcceptMode::enabled );
   member->intfIdSetIs( vlan1, AcceptMode::enabled );
   EXPECT_EQ( member->intfIdSetDel( vlan1 ), AcceptMode::enabled );
   member->intfIdSetIs( vlan1, AcceptMode::disabled );
   EXPECT_EQ( story.told(), "intfIdSet[Vlan1] enabled\nintfIdSet[Vlan1] gone\n"
                            "intfIdSet[Vlan1] disabled\n" );
}

TEST( VrfIpWithMaskPair, TellsPrefixLengthsApartThatItsAddressDoesNot ) {
   const VrfIpWithMaskPair narrow( "red", valueOf< Velon::IpGenAddrWithMask >( "10.0.0.1/32" ) );
   const VrfIpWithMaskPair wide( "red", valueOf< Velon::IpGenAddrWithMask >( "10.0.0.1/24" ) );
   EXPECT_NE( narrow, wide );
   EXPECT_EQ( narrow.vrfIp(), wide.vrfIp() );
   EXPECT_EQ( narrow.vrfIp(), VrfIpPair( "red", valueOf< Velon::IpGenAddr >( "10.0.0.1" ) ) );
   auto status = Ipv4::status();
   EXPECT_NE( status->virtualIpIs( narrow, "" ), status->virtualIpIs( wide, "" ) );
}

TEST( VrfIpPair, IsOrderedByVrfFirstAndUnsetByDefaultOnly ) {
   EXPECT_LT( Ipv6::key( "blue", 2 ), Ipv6::key( "red", 1 ) );
   EXPECT_LT( Ipv6::key( "red", 1 ), Ipv6::key( "red", 2 ) );
   EXPECT_TRUE( !VrfIpPair() && !VrfIpWithMaskPair() );
   EXPECT_FALSE( !VrfIpPair( "red", {} ) || !VrfIpWithMaskPair( "red", {} ) );
   EXPECT_FALSE( !Ipv6::key( "", 1 ) || !Ipv4::key( "", 1 ) );
}

} // namespace
