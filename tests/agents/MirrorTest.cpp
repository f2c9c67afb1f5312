// From a scripted kernel to records, lines and the table.

#include "agents/ipstated/Table.h"
#include "agents/ipstated/Watch.h"
#include "tests/agents/MirroredKernel.h"

#include <gtest/gtest.h>

#include <memory>

namespace Ipstated::Scripted {
namespace {

class MirrorTest : public MirroredKernel {
 protected:
   void begin() {
      MirroredKernel::begin();
      watch = std::make_unique< Watch >( *mirror.root(), sink() );
   }

   Lines secondaries( const char * name ) {
      Lines result;
      for( auto i = ip( name )->activeSecondaryWithMaskIteratorConst(); i; ++i ) {
         result.push_back( i.key().toString() );
      }
      return result;
   }

   bool inVrf( const char * vrf, const char * name ) {
      auto directory = mirror.ipStatus().vrfIpIntfStatus( L3::VrfName( vrf ) );
      auto directory6 = mirror.ip6Status().vrfIp6IntfStatus( L3::VrfName( vrf ) );
      EXPECT_EQ( bool( directory ), bool( directory6 ) );
      bool in = directory && directory->ipIntfStatusHas( Velon::IntfId( name ) );
      bool in6 = directory6 && directory6->ip6IntfStatusHas( Velon::IntfId( name ) );
      EXPECT_EQ( in, in6 );
      return in;
   }

   std::unique_ptr< Watch > watch;
};

TEST_F( MirrorTest, RecordsStandWhereARoutingAgentMountsThem ) {
   const struct {
      const char * path;
      const char * type;
   } mounts[] = {
      { "l3/intf/input/status/system", "L3::Intf::Input::StatusDir" },
      { "cell/3/l3/intf/input/status-3", "L3::Intf::Input::StatusDir" },
      { "ip/input/status", "Zek::Dir" },
      { "cell/3/ip/input/status-3", "Ip::Input::Status" },
      { "ip/status", "Ip::Status" },
      { "ip6/input/status", "Zek::Dir" },
      { "cell/3/ip6/input/status-3", "Ip6::Input::Status" },
      { "ip6/status", "Ip6::Status" },
   };
   for( const auto & mount : mounts ) {
      Zek::Ptr< Zek::Entity > record = mirror.root()->entityAt( mount.path );
      ASSERT_TRUE( record ) << mount.path;
      EXPECT_STREQ( record->fwkType()->fullName, mount.type );
      EXPECT_EQ( record->fullName().view(), mount.path );
   }
}

TEST_F( MirrorTest, WhatTheKernelKnowsIsInTheStatusRecords ) {
   dumpIs( Dump::links, { newLink( { 2, "eth0", IFF_UP | IFF_NOARP, 9 } ),
                          newLink( { 9, "red", IFF_UP, 0, 10 } ) } );
   dumpIs( Dump::addresses4, { newAddress( 2, "10.0.0.1/24" ), newAddress( 2, "10.0.1.1/24" ),
                               newAddress( 2, "10.0.0.2/24", IFA_F_SECONDARY ) } );
   dumpIs( Dump::addresses6,
           { address6( RTM_NEWADDR, 2, "fe80::1/64" ),
             address6( RTM_NEWADDR, 2, "2001:db8::1/64", IFA_F_DADFAILED | IFA_F_TENTATIVE ) } );
   dumpIs( Dump::config4,
           { config( AF_INET, 2, 1, 2, 1 ), config( AF_INET, ConfigMessage::forAll, 0, 0, 1 ) } );
   dumpIs( Dump::config6, { config( AF_INET6, 2, 1 ) } );
   dumpIs( Dump::groups4, { group4( RTM_GETMULTICAST, 2, "224.0.0.1" ) } );
   begin();

   auto eth0 = ip( "eth0" );
   ASSERT_TRUE( eth0 );
   EXPECT_EQ( eth0->activeAddrWithMask().toString(), "10.0.0.1/24" );
   EXPECT_EQ( secondaries( "eth0" ), ( Lines{ "10.0.0.2/24", "10.0.1.1/24" } ) );
   EXPECT_TRUE( eth0->activeSecondaryWithMask( Velon::IpAddrWithMask( "10.0.0.2/24" ) ) );
   EXPECT_TRUE( eth0->mcaddr( Velon::IpAddr( "224.0.0.1" ) ).isValid() );
   EXPECT_EQ( eth0->urpf().mode(), Urpf::UrpfMode::loose );
   EXPECT_TRUE( eth0->dpRoutingEnabled() );
   EXPECT_TRUE( eth0->directedBroadcastEnabled() );
   EXPECT_EQ( eth0->noArp(), Ip::TristateBool::isTrue );
   EXPECT_EQ( eth0->vrf(), L3::VrfName( "red" ) );
   EXPECT_TRUE( mirror.ipStatus().urpfConfiguredOnAnyIntf() );
   auto eth0v6 = ip6( "eth0" );
   EXPECT_TRUE( eth0v6->addrHas( Velon::Ip6AddrWithMask( "fe80::1/64" ) ) );
   EXPECT_EQ( eth0v6->addrCount(), 1u );
   EXPECT_TRUE( eth0v6->dadfailedHas( Velon::Ip6AddrWithMask( "2001:db8::1/64" ) ) );
   EXPECT_TRUE( eth0v6->dpRoutingEnabled() );
   EXPECT_EQ( eth0v6->acceptDad(), 1 );
   EXPECT_EQ( eth0v6->nsRetransmitInterval(), 1000u );
   EXPECT_EQ( eth0v6->noArp(), Ip6::TristateBool::isTrue );
   EXPECT_EQ( eth0->l3Status(), eth0v6->l3Status() );
   EXPECT_TRUE( inVrf( "red", "eth0" ) && inVrf( "red", "red" ) && !inVrf( "default", "eth0" ) );

   EXPECT_EQ( table( mirror.ipStatus(), mirror.ip6Status(), feed.state(), false ),
              "Interface  State    MAC  MTU  Kind  Index  VRF  IPv4                   IPv6"
              "                      Settings            Groups\n"
              "eth0       UNKNOWN  -    0    -     2      red  10.0.0.1/24            fe80::1/64"
              "                routing 4,6         224.0.0.1\n"
              "                                                10.0.0.2/24 secondary  "
              "2001:db8::1/64 duplicate  urpf loose\n"
              "                                                10.0.1.1/24 secondary"
              "                            no arp\n"
              "                                                                          "
              "                       directed broadcast\n"
              "red        UNKNOWN  -    0    vrf   9      red  -                      -"
              "                         -                   -\n" );
}

TEST_F( MirrorTest, PartOfAnAddressChangesWithoutItsLoss ) {
   dumpIs( Dump::links, { newLink( { 2, "eth0" } ) } );
   begin();
   const std::string at = "  cell/3/ip/input/status-3/ipIntfStatus[eth0]  ";
   EXPECT_EQ( after( { newAddress( 2, "10.0.0.1/24" ) } ),
              Lines{ "activeAddrWithMask" + at + "0.0.0.0/0 -> 10.0.0.1/24" } );
   EXPECT_EQ( after( { newAddress( 2, "10.9.0.1/24", 0, RT_SCOPE_LINK ) } ),
              ( Lines{ "activeSecondaryWithMask[10.0.0.1/24]" + at + "- -> true",
                       "activeAddrWithMask" + at + "10.0.0.1/24 -> 10.9.0.1/24" } ) );
   EXPECT_EQ( after( { delAddress( 2, "10.9.0.1/24" ) } ),
              ( Lines{ "activeAddrWithMask" + at + "10.9.0.1/24 -> 10.0.0.1/24",
                       "activeSecondaryWithMask[10.0.0.1/24]" + at + "true -> -" } ) );
   // Deleting the primary leaves a secondary for a moment, which is then promoted.
   after( { newAddress( 2, "10.0.0.2/24", IFA_F_SECONDARY ) } );
   EXPECT_EQ( after( { delAddress( 2, "10.0.0.1/24" ), newAddress( 2, "10.0.0.2/24" ) } ),
              ( Lines{ "activeAddrWithMask" + at + "10.0.0.1/24 -> 0.0.0.0/0",
                       "activeAddrWithMask" + at + "0.0.0.0/0 -> 10.0.0.2/24",
                       "activeSecondaryWithMask[10.0.0.2/24]" + at + "true -> -" } ) );
   // One record member stands for the same address to two other ends.
   auto toPeer = []( uint16_t type, const char * peer ) {
      ifaddrmsg info{};
      info.ifa_family = AF_INET;
      info.ifa_prefixlen = 32;
      info.ifa_index = 2;
      return Message( type, info )
         .value( IFA_ADDRESS, ip4( peer ) )
         .value( IFA_LOCAL, ip4( "10.1.0.1" ) );
   };
   EXPECT_EQ( after( { toPeer( RTM_NEWADDR, "10.2.0.1" ), toPeer( RTM_NEWADDR, "10.2.0.2" ),
                       toPeer( RTM_DELADDR, "10.2.0.1" ) } ),
              Lines{ "activeSecondaryWithMask[10.1.0.1/32]" + at + "- -> true" } );
   EXPECT_EQ( after( { toPeer( RTM_DELADDR, "10.2.0.2" ) } ),
              Lines{ "activeSecondaryWithMask[10.1.0.1/32]" + at + "true -> -" } );
}

TEST_F( MirrorTest, DuplicateAddressMovesToItsCollection ) {
   dumpIs( Dump::links, { newLink( { 2, "eth0" } ) } );
   begin();
   const std::string at = "[2001:db8::1/64]  cell/3/ip6/input/status-3/intf[eth0]  ";
   EXPECT_EQ( after( { address6( RTM_NEWADDR, 2, "2001:db8::1/64" ) } ),
              Lines{ "addr" + at + "- -> +" } );
   EXPECT_EQ( after( { address6( RTM_NEWADDR, 2, "2001:db8::1/64", IFA_F_DADFAILED ) } ),
              ( Lines{ "dadfailed" + at + "- -> +", "addr" + at + "+ -> -" } ) );
   EXPECT_EQ( after( { address6( RTM_DELADDR, 2, "2001:db8::1/64" ) } ),
              Lines{ "dadfailed" + at + "+ -> -" } );
}

TEST_F( MirrorTest, MovesBetweenVrfsAreTheDifferenceAlone ) {
   dumpIs( Dump::links, { newLink( { 2, "eth0" } ), newLink( { 9, "red", IFF_UP, 0, 10 } ) } );
   begin();
   EXPECT_EQ( after( { newLink( { 2, "eth0", IFF_UP, 9 } ) } ),
              ( Lines{ "ipIntfStatus[eth0]  ip/status/vrfIpIntfStatus[default]  + -> -",
                       "ip6IntfStatus[eth0]  ip6/status/vrfIp6IntfStatus[default]  + -> -",
                       "vrf  cell/3/l3/intf/input/status-3/intfStatus[eth0]  default -> red",
                       "ipIntfStatus[eth0]  ip/status/vrfIpIntfStatus[red]  - -> +",
                       "ip6IntfStatus[eth0]  ip6/status/vrfIp6IntfStatus[red]  - -> +" } ) );
   // The directory of a VRF ends with its last member, that of the default VRF never.
   after( { newLink( { 2, "eth0", IFF_UP, 0 } ), delLink( 9, "red" ) } );
   EXPECT_FALSE( mirror.ipStatus().vrfIpIntfStatus( L3::VrfName( "red" ) ) );
   EXPECT_FALSE( mirror.ip6Status().vrfIp6IntfStatus( L3::VrfName( "red" ) ) );
   after( { delLink( 2, "eth0" ) } );
   EXPECT_TRUE( mirror.ipStatus().vrfIpIntfStatus( L3::VrfName( "default" ) ) );
   EXPECT_TRUE( mirror.ip6Status().vrfIp6IntfStatus( L3::VrfName( "default" ) ) );
}

TEST_F( MirrorTest, VanishingInterfaceLeavesTheMergedStatusFirstAndItsInputLast ) {
   dumpIs( Dump::links, { newLink( { 2, "eth0" } ) } );
   dumpIs( Dump::config4, { config( AF_INET, 2, 0, 1, 0 ) } );
   begin();
   EXPECT_EQ( after( { delLink( 2, "eth0" ) } ),
              ( Lines{ "ipIntfStatus[eth0]  ip/status  + -> -", "intf[eth0]  ip6/status  + -> -",
                       "ipIntfStatus[eth0]  ip/status/vrfIpIntfStatus[default]  + -> -",
                       "ip6IntfStatus[eth0]  ip6/status/vrfIp6IntfStatus[default]  + -> -",
                       "urpfConfiguredOnAnyIntf  cell/3/ip/input/status-3  true -> false",
                       "urpfConfiguredOnAnyIntf  ip/status  true -> false",
                       "ipIntfStatus[eth0]  cell/3/ip/input/status-3  + -> -",
                       "intf[eth0]  cell/3/ip6/input/status-3  + -> -",
                       "intfStatus[eth0]  cell/3/l3/intf/input/status-3  + -> -" } ) );
}

TEST_F( MirrorTest, DumpAfterALossNotifiesTheDifferencesAlone ) {
   dumpIs( Dump::links, { newLink( { 2, "eth0" } ), newLink( { 3, "eth1" } ) } );
   dumpIs( Dump::addresses4, { newAddress( 2, "10.0.0.1/24" ), newAddress( 3, "10.0.3.1/24" ) } );
   begin();
   Ip::IpIntfStatus::PtrConst record = ip( "eth0" );
   source.overrun();
   settle();
   EXPECT_EQ( heard(), Lines{} );
   // Unseen: eth0 was made again and got another address, eth1 went.
   dumpIs( Dump::links, { newLink( { 7, "eth0" } ) } );
   dumpIs( Dump::addresses4, { newAddress( 7, "10.0.0.1/24" ), newAddress( 7, "10.0.1.1/24" ) } );
   source.overrun();
   settle();
   Lines told = heard();
   EXPECT_EQ( told.size(), 8u );
   EXPECT_EQ( told.front(), "ipIntfStatus[eth1]  ip/status  + -> -" );
   EXPECT_EQ( told.back(), "activeSecondaryWithMask[10.0.1.1/24]  "
                           "cell/3/ip/input/status-3/ipIntfStatus[eth0]  - -> true" );
   EXPECT_EQ( ip( "eth0" ), record );
}

TEST_F( MirrorTest, NewInterfaceIsInTheMergedStatusOnceAllOfItIsInPlace ) {
   begin();
   Lines told = after( { newAddress( 2, "10.0.0.1/24" ), newLink( { 2, "e\x1b[2J" } ) } );
   ASSERT_GE( told.size(), 5u );
   EXPECT_EQ( told.front(), "intfStatus[e\\x1b[2J]  cell/3/l3/intf/input/status-3  - -> +" );
   EXPECT_EQ( told[told.size() - 2], "ipIntfStatus[e\\x1b[2J]  ip/status  - -> +" );
   EXPECT_EQ( told.back(), "intf[e\\x1b[2J]  ip6/status  - -> +" );
   EXPECT_EQ( table( mirror.ipStatus(), mirror.ip6Status(), feed.state(), false ).find( '\x1b' ),
              std::string::npos );
}

} // namespace
} // namespace Ipstated::Scripted
