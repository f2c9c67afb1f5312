// What is particular to the IPv6 records.

#include "Ip6/Ip6.h"
#include "Ip/Ip.h"
#include "tests/records/Records.h"

using namespace Records;
using Velon::IntfId;
using Velon::Ip6Addr;
using Velon::Ip6AddrWithMask;

namespace {

const IntfId ethernet1( "Ethernet1" );

Ip6AddrWithMask
net( const char * text ) {
   return Ip6AddrWithMask( std::string_view( text ) );
}

Ip6Addr
addr( const char * text ) {
   return Ip6Addr( std::string_view( text ) );
}

Ip6::IntfStatus::Ptr
statusOf( IntfId intfId ) {
   return Ip6::intfStatusFactory( intfId, L3::Intf::statusFactory( intfId ) );
}

// -- Configuration ----------------------------------------------------------------------------

TEST( Ip6IntfConfig, StartsWithItsDefaults ) {
   EXPECT_EQ( shown( *Ip6::intfConfigFactory( ethernet1 ) ),
              "intfId Ethernet1\n"
              "addr {}\n"
              "linkLocalAddrWithMask ::/0\n"
              "addrSource manual\n"
              "acceptRaDefRtr false\n"
              "enable false\n"
              "nsRetransmitInterval 1000\n"
              "acceptDad dadGlobal\n"
              "nsSourceAddr ::\n"
              "useNsSourceAddr false\n"
              "urpf Value('Urpf::UrpfConfig', ** {'mode': disable, 'acl': })\n"
              "l3Config null\n"
              "forceDpRoutingEnabled false\n"
              "noArp isInvalid\n"
              "maxMssEgress 0\n"
              "maxMssIngress 0\n"
              "configSource 00cli\n"
              "attachedRoutes true\n"
              "enableDefault false\n"
              "nsRetransmitIntervalDefault 1000\n"
              "acceptDadDefault dadGlobal\n"
              "useNsSourceAddrDefault false\n"
              "tcpMssMax 65495\n"
              "ipv6Configured false\n"
              "vrf \n"
              "sourceAddressForDestination()\n" );
   EXPECT_EQ( shown( *Ip6::configFactory( "config" ) ),
              "intf {}\nrestoreOnReboot false\nenhancedDad true\nenhancedDadDefault true\n" );
}

static_assert( !std::is_same_v< Ip6::TristateBool, Ip::TristateBool > &&
               !std::is_convertible_v< Ip6::TristateBool, Ip::TristateBool > );
static_assert( std::is_same_v< decltype( statusOf( ethernet1 )->acceptDad() ), int32_t > );

TEST( Ip6IntfConfig, IsNamedByItsInterface ) {
   auto root = Zek::dirFactory();
   auto config = Ip6::configFactory( "config" );
   root->dirIs( "ip6" )->entityIs( config );
   auto record = config->intfIs( ethernet1 );
   EXPECT_EQ( record->name(), "Ethernet1" );
   EXPECT_EQ( record->fullName(), "ip6/config/Ethernet1" );
}

TEST( Ip6IntfConfig, RefusesAnMssTooLargeBeforeItStoresIt ) {
   struct {
      void ( Ip6::IntfConfig::*set )( uint16_t );
      uint16_t ( Ip6::IntfConfig::*get )() const;
      std::string name;
   } const rows[] = {
      { &Ip6::IntfConfig::maxMssEgressIs, &Ip6::IntfConfig::maxMssEgress, "maxMssEgress" },
      { &Ip6::IntfConfig::maxMssIngressIs, &Ip6::IntfConfig::maxMssIngress, "maxMssIngress" },
   };
   for( auto & [set, get, name] : rows ) {
      auto config = Ip6::intfConfigFactory( ethernet1 );
      Story story( *config );
      ( config.ptr()->*set )( 65495 );
      for( uint16_t mss : { 65496, 65496, 65535 } ) {
         EXPECT_EQ(
            refusal< Zek::RangeException >( [&, set = set] { ( config.ptr()->*set )( mss ); } ),
            "IntfConfig::" + name + " < 0 or > IntfConfig::tcpMssMax not allowed" )
            << "again and again";
         EXPECT_EQ( ( config.ptr()->*get )(), 65495 );
      }
      EXPECT_EQ( story.told(), name + " 65495\n" );
   }
}

TEST( Ip6IntfConfig, KnowsWhetherIpv6IsConfigured ) {
   EXPECT_FALSE( Ip6::intfConfigGlobalAddrConfigured( nullptr ) );
   EXPECT_FALSE( Ip6::intfLinkLocalAddrConfigured( nullptr ) );
   const struct {
      const char * intf;
      bool enable;
      const char * linkLocal;
      std::vector< const char * > addrs;
      bool configured;
   } rows[] = {
      { "Ethernet1", false, "::/0", {}, false },
      { "Ethernet1", true, "::/0", {}, true },
      { "Ethernet1", false, "fe80::1/64", {}, true },
      // Link-local addresses count only as the explicit one ...
      { "Ethernet1", false, "::/0", { "fe80::1/64" }, false },
      { "Ethernet1", false, "fe80::1/64", { "fe80::1/64" }, true },
      // ... and any other counts, also one behind a link-local in key order.
      { "Ethernet1", false, "::/0", { "2001:db8::1/64" }, true },
      { "Ethernet1", false, "::/0", { "fe80::1/64", "ff02::1/128" }, true },
      { "Ethernet1", false, "::/0", { "febf:ffff::1/10" }, false },
      { "Ethernet1", false, "::/0", { "fec0::1/10" }, true },
      // Of ::/0 any difference counts.
      { "Ethernet1", false, "::/1", {}, true },
      // Loopbacks look at their addresses alone.
      { "Loopback0", true, "fe80::1/64", {}, false },
      { "Loopback0", true, "fe80::1/64", { "fe80::1/64" }, false },
      { "Loopback0", false, "::/0", { "2001:db8::1/64" }, true },
      { "lo", true, "::/0", {}, false },
      { "Loopback", true, "::/0", {}, true }, // no number: no loopback interface
   };
   for( auto & [intf, enable, linkLocal, addrs, configured] : rows ) {
      auto config = Ip6::intfConfigFactory( IntfId( intf ) );
      config->enableIs( enable );
      config->linkLocalAddrWithMaskIs( net( linkLocal ) );
      for( const char * text : addrs ) config->addrIs( net( text ) );
      EXPECT_EQ( config->ipv6Configured(), configured ) << shown( *config );
      EXPECT_EQ( Ip6::intfLinkLocalAddrConfigured( config ), linkLocal != std::string( "::/0" ) );
   }
}

TEST( Ip6IntfConfig, KeepsAddressesInNumericOrder ) {
   auto config = Ip6::intfConfigFactory( ethernet1 );
   Story story( *config );
   for( const char * text :
        { "fe80::1/64", "2001:db8::2/64", "2001:db8::1/128", "2001:db8::1/64" } ) {
      config->addrIs( net( text ) ); // converts from its key
      config->addrIs( Ip6::AddressInfo( net( text ) ) );
   }
   EXPECT_EQ( config->addrCount(), 4u );
   std::string order;
   for( auto i = config->addrIteratorConst(); i; ++i ) order += i.key().toString() + " ";
   EXPECT_EQ( order, "2001:db8::1/64 2001:db8::1/128 2001:db8::2/64 fe80::1/64 " );
   EXPECT_EQ( story.told(),
              "addr[fe80::1/64] Value('Ip6::AddressInfo', ** {'key': fe80::1/64})\n"
              "addr[2001:db8::2/64] Value('Ip6::AddressInfo', ** {'key': 2001:db8::2/64})\n"
              "addr[2001:db8::1/128] Value('Ip6::AddressInfo', ** {'key': 2001:db8::1/128})\n"
              "addr[2001:db8::1/64] Value('Ip6::AddressInfo', ** {'key': 2001:db8::1/64})\n" );
}

// -- Status -----------------------------------------------------------------------------------

TEST( Ip6IntfStatus, StartsWithItsDefaults ) {
   EXPECT_EQ( shown( *statusOf( ethernet1 ) ),
              "intfId Ethernet1\n"
              "l3Status L3::Intf::Status\n"
              "addr {}\n"
              "dadfailed {}\n"
              "mcaddr {}\n"
              "nsRetransmitInterval 0\n"
              "acceptDad 0\n"
              "enhancedDad false\n"
              "urpf Value('Urpf::UrpfStatus', ** {'mode': disable, 'acl': })\n"
              "dpRoutingEnabled false\n"
              "noArp isInvalid\n"
              "maxMssEgress 0\n"
              "maxMssIngress 0\n"
              "configSource \n"
              "attachedRoutes true\n"
              "linkLocalAddrWithMask ::/0\n"
              "activeAddrWithMask aborts\n"
              "vrf default\n"
              "sourceAddressForDestination()\n" );
}

TEST( Ip6IntfStatus, BoundsNothing ) {
   auto status = statusOf( ethernet1 );
   Story story( *status );
   status->maxMssEgressIs( 65535 );
   status->maxMssIngressIs( 65535 );
   status->acceptDadIs( -1 );
   status->vrfIs( "red" );
   EXPECT_EQ( story.told(), "maxMssEgress 65535\nmaxMssIngress 65535\nacceptDad -1\n" );
   EXPECT_EQ( status->vrf(), L3::VrfName( "red" ) );
   EXPECT_EQ( Ip6::intfStatusFactory( ethernet1, nullptr )->vrf(), L3::VrfName() );
}

TEST( Ip6IntfStatus, ShowsTheLinkLocalAddressThatItsOrderVisitsFirst ) {
   auto status = statusOf( ethernet1 );
   status->addrIs( net( "2001:db8::1/64" ) );
   EXPECT_EQ( status->linkLocalAddrWithMask(), Ip6AddrWithMask() );
   for( const char * text : { "fe80::3/64", "fe80::1/64", "fe80::2/64", "fe80::1/10" } ) {
      status->addrIs( net( text ) );
   }
   auto first = status->addrIteratorConst();
   while( !first.key().addr().isLinkLocal() ) ++first;
   EXPECT_EQ( status->linkLocalAddrWithMask(), first.key() );
}

TEST( Ip6IntfStatus, TellsGroupsApartByTheirApplications ) {
   auto status = statusOf( ethernet1 );
   Story story( *status );
   Ip6::MulticastGroupInfo group( addr( "ff02::5" ) );
   status->mcaddrIs( group );
   status->mcaddrIs( group );
   group.applicationIs( "ospf" );
   status->mcaddrIs( group );
   EXPECT_EQ( story.told(), "mcaddr[ff02::5] Value('Ip6::MulticastGroupInfo', ** {'address': "
                            "ff02::5, 'application': []})\n"
                            "mcaddr[ff02::5] Value('Ip6::MulticastGroupInfo', ** {'address': "
                            "ff02::5, 'application': [ospf]})\n" );
   EXPECT_EQ( status->mcaddr( addr( "ff02::6" ) ), Ip6::MulticastGroupInfo() );
   // Any address but :: makes a valid group, unlike in IPv4.
   EXPECT_FALSE( Ip6::MulticastGroupInfo().isValid() );
   EXPECT_TRUE( Ip6::MulticastGroupInfo( addr( "2001:db8::1" ) ).isValid() );
   EXPECT_TRUE( Ip6::MulticastGroupInfo( addr( "::1" ) ).isValid() );
}

TEST( Ip6IntfStatus, RemembersFailedAddresses ) {
   auto status = statusOf( ethernet1 );
   status->dadfailedIs( net( "fe80::1/64" ) );
   EXPECT_TRUE( status->dadfailedHas( net( "fe80::1/64" ) ) );
   EXPECT_FALSE( status->dadfailedHas( net( "fe80::1/65" ) ) );
}

TEST( Ip6IntfAddrInfo, HashesToTheSumOfItsParts ) {
   const Ip6::IntfAddrInfo info( ethernet1, addr( "2001:db8::1" ) );
   EXPECT_EQ( info.hash(), ethernet1.hash() + addr( "2001:db8::1" ).hash() );
   EXPECT_TRUE( info < Ip6::IntfAddrInfo( IntfId( "Ethernet10" ), Ip6Addr() ) );
   EXPECT_TRUE( info < Ip6::IntfAddrInfo( ethernet1, addr( "2001:db8::2" ) ) );
   EXPECT_FALSE( info < info );
}

TEST( Ip6Status, AnswersWithTheRecordOrNull ) {
   auto status = Ip6::statusFactory( "status" );
   auto record = statusOf( ethernet1 );
   EXPECT_EQ( status->ipIntfStatus( ethernet1 ), nullptr );
   status->intfIs( record );
   EXPECT_EQ( status->ipIntfStatus( ethernet1 ), record );
   EXPECT_EQ( refusal< Zek::RangeException >( [&] { status->intfIs( nullptr ); } ),
              "null _intf parameter to mutator for Ip6::Status::intf not allowed\"" );
   EXPECT_EQ(
      refusal< Zek::RangeException >(
         [] { Ip6::vrfIp6IntfStatusFactory( "red" )->ip6IntfStatusIs( nullptr ); } ),
      "null _ip6IntfStatus parameter to mutator for Ip6::VrfIp6IntfStatus::ip6IntfStatus not "
      "allowed\"" );
}

TEST( Ip6RecordsDeathTest, AssertTheirPreconditions ) {
   auto status = Ip6::intfStatusFactory( ethernet1, nullptr );
   EXPECT_DEATH( Ip6::intfConfigFactory( ethernet1 )->vrfIs( "red" ),
                 "assertion 'l3Config' failed \\(source Ip6\\)" );
   EXPECT_DEATH( status->vrfIs( "red" ), "assertion 'l3Status' failed \\(source Ip6\\)" );
   EXPECT_DEATH( status->activeAddrWithMask(), "assertion '0' failed \\(source Ip6\\)" );
   EXPECT_DEATH( AnyValue( *status->fwkType()->attribute( "activeAddrWithMask" ), status.ptr() ),
                 "assertion '0' failed \\(source Ip6\\)" );
   const Zek::String text = stringValue( Ip6::MulticastGroupInfo() );
   EXPECT_DEATH( Ip6::MulticastGroupInfo( text.begin(), text.end() ),
                 "assertion 'No String constructor for MulticastGroupInfo - has collection' failed "
                 "\\(source Ip6\\)" );
}

} // namespace
