// What is particular to the IPv4 records.

#include "Ip/Ip.h"
#include "tests/records/Records.h"

#include <cinttypes>
#include <cstring>

using namespace Records;
using Velon::IntfId;
using Velon::IpAddr;
using Velon::IpAddrWithMask;

namespace {

const IntfId ethernet1( "Ethernet1" );

IpAddrWithMask
net( const char * text ) {
   return IpAddrWithMask( std::string_view( text ) );
}

IpAddr
addr( const char * text ) {
   return IpAddr( std::string_view( text ) );
}

Ip::MulticastGroupInfo
group( const char * address, std::initializer_list< const char * > applications ) {
   Ip::MulticastGroupInfo info( addr( address ) );
   for( const char * application : applications ) info.applicationIs( application );
   return info;
}

Ip::IpIntfStatus::Ptr
statusOf( IntfId intfId ) {
   return Ip::ipIntfStatusFactory( intfId, L3::Intf::statusFactory( intfId ) );
}

std::string
pointerText( const void * object ) {
   char text[32];
   std::snprintf( text, sizeof text, "0x%" PRIxPTR, reinterpret_cast< uintptr_t >( object ) );
   return text;
}

// -- Configuration ----------------------------------------------------------------------------

TEST( IpIntfConfig, StartsWithItsDefaults ) {
   EXPECT_EQ( shown( *Ip::ipIntfConfigFactory( ethernet1 ) ),
              "intfId Ethernet1\n"
              "addrWithMask 0.0.0.0/0\n"
              "secondaryWithMask {}\n"
              "virtualAddrWithMask 0.0.0.0/0\n"
              "virtualSecondaryWithMask {}\n"
              "addrSource manual\n"
              "defaultRouteSource manual\n"
              "proxyArpEnabled false\n"
              "localProxyArpEnabled false\n"
              "gratuitousArpAccepted false\n"
              "forwarding true\n"
              "proxyArpEnabledDefault false\n"
              "localProxyArpEnabledDefault false\n"
              "gratuitousArpAcceptedDefault false\n"
              "scope universe\n"
              "urpf Value('Urpf::UrpfConfig', ** {'mode': disable, 'acl': })\n"
              "l3Config null\n"
              "vrf \n"
              "forceDpRoutingEnabled false\n"
              "noArp isInvalid\n"
              "tcpMssMin 64\n"
              "tcpMssMax 65515\n"
              "maxMssEgress 0\n"
              "maxMssIngress 0\n"
              "configSource 00cli\n"
              "directedBroadcastEnabled false\n"
              "attachedRoutesDefault true\n"
              "attachedRoutes true\n"
              "unnumberedIntfId \n" );
   EXPECT_EQ( Ip::ipIntfConfigFactory( ethernet1 )->name(), "" );
}

// Constants are known to the compiler, without an object.
static_assert( Ip::IpIntfConfig::tcpMssMin() == 64 && Ip::IpIntfConfig::tcpMssMax() == 65515 );
static_assert( !Ip::IpIntfConfig::proxyArpEnabledDefault() &&
               !Ip::IpIntfConfig::localProxyArpEnabledDefault() &&
               !Ip::IpIntfConfig::gratuitousArpAcceptedDefault() &&
               Ip::IpIntfConfig::attachedRoutesDefault() &&
               Ip::IpIntfStatus::attachedRoutesDefault() );
// isFalse must never pass for true.
static_assert( !std::is_convertible_v< Ip::TristateBool, bool > );

TEST( IpIntfConfig, StoresAnMssTooLargeBeforeItRefusesIt ) {
   struct {
      void ( Ip::IpIntfConfig::*set )( uint16_t );
      uint16_t ( Ip::IpIntfConfig::*get )() const;
      std::string name;
   } const rows[] = {
      { &Ip::IpIntfConfig::maxMssEgressIs, &Ip::IpIntfConfig::maxMssEgress, "maxMssEgress" },
      { &Ip::IpIntfConfig::maxMssIngressIs, &Ip::IpIntfConfig::maxMssIngress, "maxMssIngress" },
   };
   for( auto & [set, get, name] : rows ) {
      auto config = Ip::ipIntfConfigFactory( ethernet1 );
      Story story( *config );
      const std::string refused =
         "IpIntfConfig::" + name + " < 0 or > IpIntfConfig::tcpMssMax not allowed";
      auto trying = [&, set = set]( uint16_t mss ) {
         return refusal< Zek::RangeException >( [&] { ( config.ptr()->*set )( mss ); } );
      };
      EXPECT_EQ( trying( 1 ), "nothing thrown" ) << "the published minimum is not enforced";
      EXPECT_EQ( trying( 65515 ), "nothing thrown" );
      EXPECT_EQ( story.told(), name + " 1\n" + name + " 65515\n" );
      EXPECT_EQ( trying( 65516 ), refused );
      EXPECT_EQ( ( config.ptr()->*get )(), 65516 );
      EXPECT_EQ( trying( 65516 ), "nothing thrown" ) << "it is the stored value already";
      EXPECT_EQ( trying( 65535 ), refused );
      EXPECT_EQ( ( config.ptr()->*get )(), 65535 );
      EXPECT_EQ( story.told(), "" );
      EXPECT_EQ( trying( 65515 ), "nothing thrown" );
      EXPECT_EQ( story.told(), name + " 65515\n" );
      // The untyped door is the same door.
      const uint16_t tooLarge = 65517;
      auto row = config->fwkType()->attribute( name );
      EXPECT_EQ( refusal< Zek::RangeException >( [&] { row->write( config.ptr(), &tooLarge ); } ),
                 refused );
      EXPECT_EQ( ( config.ptr()->*get )(), tooLarge );
      EXPECT_EQ( story.told(), "" );
   }
}

TEST( IpIntfConfig, HandsItsVrfToTheLayer3Configuration ) {
   auto config = Ip::ipIntfConfigFactory( ethernet1 );
   auto l3Config = L3::Intf::configFactory( ethernet1 );
   Story story( *config ), l3Story( *l3Config );
   EXPECT_EQ( config->vrf(), L3::VrfName() );
   config->l3ConfigIs( l3Config );
   EXPECT_EQ( config->vrf(), L3::VrfName( "default" ) );
   config->vrfIs( "red" );
   EXPECT_EQ( l3Config->vrf(), L3::VrfName( "red" ) );
   EXPECT_EQ( config->vrf(), L3::VrfName( "red" ) );
   EXPECT_EQ( l3Story.told(), "vrf red\n" );
   // An equal object is another object.
   auto twin = L3::Intf::configFactory( ethernet1 );
   twin->vrfIs( "red" );
   config->l3ConfigIs( twin );
   EXPECT_EQ( story.told(), "l3Config\nl3Config\n" );
}

TEST( IpIntfConfig, KeepsSecondaryAddressesInNumericOrder ) {
   auto config = Ip::ipIntfConfigFactory( ethernet1 );
   for( const char * text : { "10.0.0.2/24", "9.255.255.255/32", "10.0.0.1/32", "200.0.0.1/8",
                              "10.0.0.1/8", "2.0.0.10/24", "10.0.0.1/24" } ) {
      config->secondaryWithMaskIs( net( text ), true );
      config->virtualSecondaryWithMaskIs( net( text ), false );
   }
   std::string order;
   for( auto i = config->secondaryWithMaskIteratorConst(); i; ++i ) {
      order += i.key().toString() + ( i.value() ? " " : "? " );
   }
   EXPECT_EQ( order, "2.0.0.10/24 9.255.255.255/32 10.0.0.1/8 10.0.0.1/24 10.0.0.1/32 10.0.0.2/24 "
                     "200.0.0.1/8 " );
   Story story( *config );
   config->secondaryWithMaskIs( net( "10.0.0.1/8" ), true );
   EXPECT_EQ( story.told(), "" );
   config->secondaryWithMaskIs( net( "10.0.0.1/8" ), false );
   config->virtualSecondaryWithMaskIs( net( "10.0.0.1/8" ), true );
   EXPECT_EQ( story.told(), "secondaryWithMask[10.0.0.1/8] false\n"
                            "virtualSecondaryWithMask[10.0.0.1/8] true\n" );
   EXPECT_TRUE( config->secondaryWithMask( net( "10.0.0.2/24" ) ) );
   EXPECT_FALSE( config->secondaryWithMask( net( "10.0.0.2/25" ) ) ) << "the default";
   EXPECT_FALSE( config->secondaryWithMaskHas( net( "10.0.0.2/25" ) ) );
}

// The callbacks of a notifiee stand in its table of virtual functions in this order. A pointer to
// a virtual member function begins with its place there.
template< class Callback >
ptrdiff_t
slotOf( Callback callback ) {
   ptrdiff_t slot;
   std::memcpy( &slot, &callback, sizeof slot );
   return slot;
}

template< class N >
concept ToldOfVrf = requires( N & notifiee ) {
   notifiee.onVrf();
};
template< class N >
concept ToldOfConstants = requires( N & notifiee ) {
   notifiee.onTcpMssMax();
};
template< class N >
concept ToldOfParameters = requires( N & notifiee ) {
   notifiee.onIntfId();
};

TEST( IpIntfConfig, DeclaresItsCallbacksInOrder ) {
   using N = Ip::IpIntfConfig::NotifieeConst;
   using Keyed = void ( N::* )( const IpAddrWithMask & );
   using Plain = void ( N::* )();
   static_assert( std::is_base_of_v< Zek::Entity::NotifieeConst, N > );
   static_assert( std::is_base_of_v< Zek::PtrInterface::NotifieeConst, N > );
   static_assert( std::is_base_of_v< N, Ip::IpIntfConfig::Notifiee > );
   static_assert( !ToldOfVrf< N > && !ToldOfConstants< N > && !ToldOfParameters< N > );
   static_assert( ToldOfVrf< L3::Intf::Config::NotifieeConst > );
   const ptrdiff_t slots[] = {
      slotOf( &N::onAddrWithMask ),
      slotOf< Keyed >( &N::onSecondaryWithMask ),
      slotOf( &N::onSecondaryWithMaskzekImmediate ),
      slotOf< Plain >( &N::onSecondaryWithMask ),
      slotOf( &N::onVirtualAddrWithMask ),
      slotOf< Keyed >( &N::onVirtualSecondaryWithMask ),
      slotOf( &N::onVirtualSecondaryWithMaskzekImmediate ),
      slotOf< Plain >( &N::onVirtualSecondaryWithMask ),
      slotOf( &N::onAddrSource ),
      slotOf( &N::onDefaultRouteSource ),
      slotOf( &N::onProxyArpEnabled ),
      slotOf( &N::onLocalProxyArpEnabled ),
      slotOf( &N::onGratuitousArpAccepted ),
      slotOf( &N::onForwarding ),
      slotOf( &N::onScope ),
      slotOf( &N::onUrpf ),
      slotOf( &N::onL3Config ),
      slotOf( &N::onForceDpRoutingEnabled ),
      slotOf( &N::onNoArp ),
      slotOf( &N::onMaxMssEgress ),
      slotOf( &N::onMaxMssIngress ),
      slotOf( &N::onConfigSource ),
      slotOf( &N::onDirectedBroadcastEnabled ),
      slotOf( &N::onAttachedRoutes ),
      slotOf( &N::onUnnumberedIntfId ),
   };
   for( size_t i = 1; i < std::size( slots ); ++i ) {
      EXPECT_EQ( slots[i], slots[i - 1] + ptrdiff_t( sizeof( void * ) ) ) << i;
   }
}

// -- Status -----------------------------------------------------------------------------------

TEST( IpIntfStatus, StartsWithItsDefaults ) {
   EXPECT_EQ( shown( *statusOf( ethernet1 ) ),
              "intfId Ethernet1\n"
              "activeAddrWithMask 0.0.0.0/0\n"
              "activeSecondaryWithMask {}\n"
              "useVirtualAddr false\n"
              "activeVirtualAddrWithMask 0.0.0.0/0\n"
              "mcaddr {}\n"
              "urpf Value('Urpf::UrpfStatus', ** {'mode': disable, 'acl': })\n"
              "l3Status L3::Intf::Status\n"
              "vrf default\n"
              "dpRoutingEnabled false\n"
              "noArp isInvalid\n"
              "maxMssEgress 0\n"
              "maxMssIngress 0\n"
              "configSource \n"
              "addresslessForwarding isInvalid\n"
              "directedBroadcastEnabled false\n"
              "attachedRoutesDefault true\n"
              "attachedRoutes true\n"
              "unnumberedIntfId \n" );
}

TEST( IpIntfStatus, BoundsNoMssAndPassesItsVrfOn ) {
   auto status = statusOf( ethernet1 );
   Story story( *status );
   status->maxMssEgressIs( 65535 );
   status->maxMssIngressIs( 65535 );
   status->vrfIs( "red" );
   EXPECT_EQ( story.told(), "maxMssEgress 65535\nmaxMssIngress 65535\n" );
   EXPECT_EQ( status->l3Status()->vrf(), L3::VrfName( "red" ) );
   EXPECT_EQ( Ip::ipIntfStatusFactory( ethernet1, nullptr )->vrf(), L3::VrfName() );
}

TEST( IpIntfStatus, ShowsItsActiveAddressAsVirtualOnlyWhileThatIsUsed ) {
   auto status = statusOf( ethernet1 );
   Story story( *status );
   status->activeAddrWithMaskIs( net( "10.0.0.1/24" ) );
   EXPECT_EQ( status->activeVirtualAddrWithMask(), IpAddrWithMask() );
   status->useVirtualAddrIs( true );
   EXPECT_EQ( status->activeVirtualAddrWithMask(), net( "10.0.0.1/24" ) );
   status->activeAddrWithMaskIs( net( "10.0.0.2/24" ) );
   EXPECT_EQ( status->activeVirtualAddrWithMask(), net( "10.0.0.2/24" ) );
   status->useVirtualAddrIs( false );
   EXPECT_EQ( status->activeVirtualAddrWithMask(), IpAddrWithMask() );
   EXPECT_EQ( story.told(), "activeAddrWithMask 10.0.0.1/24\nuseVirtualAddr true\n"
                            "activeAddrWithMask 10.0.0.2/24\nuseVirtualAddr false\n" );
}

TEST( IpIntfStatus, TellsGroupsApartByTheirApplications ) {
   auto status = statusOf( ethernet1 );
   Story story( *status );
   status->mcaddrIs( group( "224.0.0.5", { "ospf" } ) );
   status->mcaddrIs( group( "224.0.0.5", { "ospf" } ) );
   status->mcaddrIs( group( "224.0.0.5", { "ospf", "bfd" } ) );
   status->mcaddrIs( group( "224.0.0.5", { "bfd", "ospf", "bfd" } ) );
   EXPECT_EQ( story.told(),
              "mcaddr[224.0.0.5] Value('Ip::MulticastGroupInfo', ** {'address': 224.0.0.5, "
              "'application': [ospf]})\n"
              "mcaddr[224.0.0.5] Value('Ip::MulticastGroupInfo', ** {'address': 224.0.0.5, "
              "'application': [bfd, ospf]})\n" );
   EXPECT_EQ( status->mcaddrCount(), 1u );
   // A copy: changing it changes nothing.
   auto copy = status->mcaddr( addr( "224.0.0.5" ) );
   copy.applicationDelAll();
   EXPECT_EQ( status->mcaddr( addr( "224.0.0.5" ) ).applicationCount(), 2u );
   // Deliberate: the answer for an absent group has no address.
   EXPECT_EQ( status->mcaddr( addr( "224.0.0.6" ) ), Ip::MulticastGroupInfo() );
   EXPECT_EQ( status->mcaddr( addr( "224.0.0.6" ) ).address(), IpAddr() );
   EXPECT_FALSE( status->mcaddr( addr( "224.0.0.6" ) ).isValid() );
   EXPECT_EQ( status->mcaddrDel( addr( "224.0.0.6" ) ), Ip::MulticastGroupInfo() );
   EXPECT_EQ( status->mcaddrDel( addr( "224.0.0.5" ) ), group( "224.0.0.5", { "ospf", "bfd" } ) );
   EXPECT_EQ( story.told(), "mcaddr[224.0.0.5] gone\n" );
}

TEST( IpMulticastGroupInfo, IsValidForMulticastAddressesOnly ) {
   for( const char * valid : { "224.0.0.0", "224.0.0.1", "239.255.255.255" } ) {
      EXPECT_TRUE( Ip::MulticastGroupInfo( addr( valid ) ).isValid() ) << valid;
   }
   for( const char * other :
        { "0.0.0.0", "10.0.0.1", "223.255.255.255", "240.0.0.0", "224.0.0" } ) {
      IpAddr address;
      IpAddr::fromText( other, address );
      EXPECT_FALSE( Ip::MulticastGroupInfo( address ).isValid() ) << other;
   }
}

TEST( IpMulticastGroupInfo, KeepsEachApplicationOnce ) {
   auto info = group( "224.0.0.5", { "b", "a", "b" } );
   EXPECT_EQ( info.applicationCount(), 2u );
   EXPECT_TRUE( info.applicationHas( "a" ) );
   EXPECT_EQ( info, group( "224.0.0.5", { "a", "b" } ) );
   EXPECT_EQ( info.hash(), group( "224.0.0.5", { "a", "b" } ).hash() );
   info.applicationDel( "c" );
   info.applicationDel( "b" );
   EXPECT_EQ( info, group( "224.0.0.5", { "a" } ) );
   info.applicationDelAll();
   EXPECT_EQ( info, Ip::MulticastGroupInfo( addr( "224.0.0.5" ) ) );
}

// -- Directories ------------------------------------------------------------------------------

TEST( IpInputStatus, RefusesAnotherLayer3StatusForAnInterfaceThatItHas ) {
   auto root = Zek::dirFactory();
   auto input = Ip::Input::statusFactory( "kernel" );
   root->dirIs( "ip/input/status" )->entityIs( input );
   Story story( *input );
   auto l3Status = L3::Intf::statusFactory( ethernet1 );
   auto other = L3::Intf::statusFactory( ethernet1 );
   auto record = input->ipIntfStatusIs( ethernet1, l3Status );
   EXPECT_EQ( input->ipIntfStatusIs( ethernet1, l3Status ), record );
   EXPECT_EQ( record->fullName(), "ip/input/status/kernel/ipIntfStatus[Ethernet1]" );
   for( const L3::Intf::Status::Ptr & refused : { other, L3::Intf::Status::Ptr() } ) {
      EXPECT_EQ(
         refusal< Zek::NameInUseException >( [&] { input->ipIntfStatusIs( ethernet1, refused ); } ),
         "Reinstantiating the entity with fullName "
         "ip/input/status/kernel/ipIntfStatus[Ethernet1] where constructor parameter "
         "attribute 'l3Status' has a different value of " +
            ( refused ? pointerText( refused.ptr() ) : "null" ) + " than the current value of " +
            pointerText( l3Status.ptr() ) + " not allowed" );
   }
   EXPECT_EQ( input->ipIntfStatus( ethernet1 ), record );
   EXPECT_EQ( record->l3Status(), l3Status );
   EXPECT_EQ( story.told(), "ipIntfStatus[Ethernet1]\n" );
}

TEST( IpStatus, RefersToRecordsByTheirInterface ) {
   auto status = Ip::statusFactory();
   EXPECT_EQ( status->name(), "" );
   Story story( *status );
   auto first = statusOf( ethernet1 ), second = statusOf( ethernet1 );
   status->ipIntfStatusIs( first );
   status->ipIntfStatusIs( first );
   status->ipIntfStatusIs( second );
   EXPECT_EQ( story.told(), "ipIntfStatus[Ethernet1]\nipIntfStatus[Ethernet1]\n" );
   EXPECT_EQ( status->ipIntfStatus( ethernet1 ), second );
   EXPECT_EQ( first->references(), 1u );
   auto vrf = status->vrfIpIntfStatusIs( "red" );
   EXPECT_EQ( status->vrfIpIntfStatusIs( "red" ), vrf );
   EXPECT_EQ( vrf->vrfName(), L3::VrfName( "red" ) );
   EXPECT_EQ( vrf->fullName(), "vrfIpIntfStatus[red]" ) << "a nameless root adds no step";
}

TEST( IpRecords, RefuseNullReferencesInTheseWords ) {
   // Deliberate: the quote at the end is part of the text.
   EXPECT_EQ(
      refusal< Zek::RangeException >( [] { Ip::statusFactory()->ipIntfStatusIs( nullptr ); } ),
      "null _ipIntfStatus parameter to mutator for Ip::Status::ipIntfStatus not allowed\"" );
   EXPECT_EQ( refusal< Zek::RangeException >(
                 [] { Ip::vrfIpIntfStatusFactory( "red" )->ipIntfStatusIs( nullptr ); } ),
              "null _ipIntfStatus parameter to mutator for Ip::VrfIpIntfStatus::ipIntfStatus not "
              "allowed\"" );
   EXPECT_EQ( refusal< Zek::RangeException >(
                 [] { Ip::ipInputStatusDirFactory()->inputStatusIs( nullptr ); } ),
              "null _inputStatus parameter to mutator for Ip::IpInputStatusDir::inputStatus not "
              "allowed\"" );
}

TEST( IpRecordsDeathTest, AssertTheirPreconditions ) {
   EXPECT_DEATH( Ip::ipIntfConfigFactory( ethernet1 )->vrfIs( "red" ),
                 "assertion 'l3Config' failed \\(source Ip\\)" );
   EXPECT_DEATH( Ip::ipIntfStatusFactory( ethernet1, nullptr )->vrfIs( "red" ),
                 "assertion 'l3Status' failed \\(source Ip\\)" );
   const Zek::String text = stringValue( group( "224.0.0.5", {} ) );
   EXPECT_DEATH( Ip::MulticastGroupInfo( text.begin(), text.end() ),
                 "assertion 'No String constructor for MulticastGroupInfo - has collection' failed "
                 "\\(source Ip\\)" );
}

} // namespace
