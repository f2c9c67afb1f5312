// From a scripted kernel to the addresses of source interfaces, and to the reasons of a choice.

#include "agents/ipstated/Sources.h"
#include "agents/ipstated/Explain.h"
#include "tests/agents/MirroredKernel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>

namespace Ipstated::Scripted {
namespace {

class SourcesTest : public MirroredKernel {
 protected:
   /// Registers before or after the kernel has told of its interfaces.
   Lines registering( const std::vector< const char * > & names ) {
      sources = std::make_unique< Sources >( mirror.ipStatus(), mirror.ip6Status(), sink() );
      for( const char * name : names ) {
         sources->sourceIntfIs( Velon::IntfId( name ) );
      }
      return heard();
   }

   std::unique_ptr< Sources > sources;
};

TEST_F( SourcesTest, EveryRegistryFollowsTheAddressOfItsFamily ) {
   dumpIs( Dump::links, { newLink( { 2, "eth0" } ), newLink( { 3, "eth1" } ) } );
   dumpIs( Dump::addresses4, { newAddress( 2, "10.0.0.1/24" ), newAddress( 3, "10.0.3.1/24" ) } );
   dumpIs( Dump::addresses6, { address6( RTM_NEWADDR, 2, "2001:db8::1/64" ),
                               address6( RTM_NEWADDR, 2, "fe80::1/64" ) } );
   begin();
   EXPECT_EQ( registering( { "eth0", "eth0" } ),
              ( Lines{ "source  system  IPv4  eth0  - -> 10.0.0.1",
                       "source  system  generic IPv4  eth0  - -> 10.0.0.1",
                       "source  vrf default  IPv4  eth0  - -> 10.0.0.1",
                       "source  vrf default  generic IPv4  eth0  - -> 10.0.0.1",
                       "source  system  generic IPv6  eth0  - -> fe80::1",
                       "source  vrf default  generic IPv6  eth0  - -> fe80::1" } ) );
   Lines told = after( { newAddress( 2, "10.9.0.1/24", 0, RT_SCOPE_LINK ) } );
   std::sort( told.begin(), told.end() );
   EXPECT_EQ( told, ( Lines{ "source  system  IPv4  eth0  10.0.0.1 -> 10.9.0.1",
                             "source  system  generic IPv4  eth0  10.0.0.1 -> 10.9.0.1",
                             "source  vrf default  IPv4  eth0  10.0.0.1 -> 10.9.0.1",
                             "source  vrf default  generic IPv4  eth0  10.0.0.1 -> 10.9.0.1" } ) );
   EXPECT_EQ( after( { delAddress( 3, "10.0.3.1/24" ), delAddress( 2, "10.0.0.1/24" ),
                       address6( RTM_DELADDR, 2, "2001:db8::1/64" ),
                       newLink( { 2, "eth0", IFF_UP | IFF_NOARP } ) } ),
              Lines{} );
   EXPECT_EQ( after( { address6( RTM_DELADDR, 2, "fe80::1/64" ) } ),
              ( Lines{ "source  system  generic IPv6  eth0  fe80::1 -> ::",
                       "source  vrf default  generic IPv6  eth0  fe80::1 -> ::" } ) );
   sources.reset();
   EXPECT_EQ( heard(), Lines{} );
   EXPECT_EQ( after( { delLink( 2, "eth0" ) } ), Lines{} );
}

TEST_F( SourcesTest, InterfaceMayComeAndGo ) {
   EXPECT_EQ( registering( { "eth0" } ),
              ( Lines{ "source  system  IPv4  eth0  - -> 0.0.0.0",
                       "source  system  generic IPv4  eth0  - -> none",
                       "source  vrf default  IPv4  eth0  - -> 0.0.0.0",
                       "source  vrf default  generic IPv4  eth0  - -> none",
                       "source  system  generic IPv6  eth0  - -> none",
                       "source  vrf default  generic IPv6  eth0  - -> none" } ) );
   dumpIs( Dump::links, { newLink( { 2, "eth0" } ) } );
   dumpIs( Dump::addresses4, { newAddress( 2, "10.0.0.1/24" ) } );
   dumpIs( Dump::addresses6, { address6( RTM_NEWADDR, 2, "fe80::1/64" ) } );
   auto holds = [&]( const char * address4, const char * address6 ) {
      std::map< std::string, std::string > last;
      for( const std::string & line : heard() ) {
         const size_t arrow = line.find( " -> " );
         const size_t name = line.find( "eth0  " );
         last[line.substr( 0, name )] = line.substr( arrow + 4 );
      }
      EXPECT_EQ( last.size(), 6u );
      for( const auto & [registry, address] : last ) {
         const bool six = registry.find( "IPv6" ) != std::string::npos;
         EXPECT_EQ( address, six ? address6 : address4 ) << registry;
      }
   };
   begin();
   holds( "10.0.0.1", "fe80::1" );
   source.event( delLink( 2, "eth0" ) );
   settle();
   holds( "0.0.0.0", "0.0.0.0" );
   source.event( newLink( { 7, "eth0" } ) );
   source.event( newAddress( 7, "10.0.0.2/24" ) );
   source.event( address6( RTM_NEWADDR, 7, "fe80::2/64" ) );
   settle();
   holds( "10.0.0.2", "fe80::2" );
}

TEST_F( SourcesTest, VrfsRegisterWhenTheyComeAndLetGoWhenTheyEnd ) {
   dumpIs( Dump::links, { newLink( { 2, "eth0" } ) } );
   dumpIs( Dump::addresses4, { newAddress( 2, "10.0.0.1/24" ) } );
   begin();
   registering( { "eth0" } );
   EXPECT_EQ( after( { newLink( { 9, "red", IFF_UP, 0, 10 } ) } ),
              ( Lines{ "source  vrf red  IPv4  eth0  - -> 0.0.0.0",
                       "source  vrf red  generic IPv4  eth0  - -> none",
                       "source  vrf red  generic IPv6  eth0  - -> none" } ) );
   Lines told = after( { newLink( { 2, "eth0", IFF_UP, 9 } ) } );
   std::sort( told.begin(), told.end() );
   // The interface never left the system; its VRFs tell each their part.
   EXPECT_EQ( told, ( Lines{ "source  vrf default  IPv4  eth0  10.0.0.1 -> 0.0.0.0",
                             "source  vrf default  generic IPv4  eth0  10.0.0.1 -> 0.0.0.0",
                             "source  vrf default  generic IPv6  eth0  :: -> 0.0.0.0",
                             "source  vrf red  IPv4  eth0  0.0.0.0 -> 10.0.0.1",
                             "source  vrf red  generic IPv4  eth0  none -> 10.0.0.1" } ) );
   EXPECT_EQ( after( { delLink( 2, "eth0" ) } ).size(), 6u );
   EXPECT_EQ( after( { delLink( 9, "red" ) } ),
              ( Lines{ "source  vrf red  IPv4  eth0  0.0.0.0 -> -",
                       "source  vrf red  generic IPv4  eth0  0.0.0.0 -> -",
                       "source  vrf red  generic IPv6  eth0  0.0.0.0 -> -" } ) );
   // Nothing of the old one is left when the name comes back.
   EXPECT_EQ( after( { newLink( { 11, "red", IFF_UP, 0, 10 } ) } ).size(), 3u );
   told = after( { newLink( { 12, "eth0", IFF_UP, 11 } ), newAddress( 12, "10.0.0.9/24" ) } );
   EXPECT_EQ(
      std::count( told.begin(), told.end(), "source  vrf red  IPv4  eth0  0.0.0.0 -> 10.0.0.9" ),
      1 );
}

TEST_F( SourcesTest, ExplanationNamesTheDecidingRuleAndItsReason ) {
   const struct {
      std::vector< const char * > addresses; ///< of eth0
      const char * destination;
      const char * source;
      std::vector< const char * > reasons; ///< of the decisions, in order
   } cases[] = {
      { { "2001:db8::1/64", "fe80::1/64" },
        "2001:db8::1",
        "2001:db8::1",
        { "rule 1, same address:      2001:db8::1/64, it is the destination" } },
      { { "2001:db8::1/64", "fe80::1/64" },
        "2001:db8::99",
        "2001:db8::1",
        { "rule 2, appropriate scope: 2001:db8::1/64, the other's scope 0 (link-local) does not "
          "reach the destination's scope 2 (global)" } },
      { { "2001:db8::1/64", "fe80::1/64" },
        "fe80::2",
        "fe80::1",
        { "rule 2, appropriate scope: fe80::1/64, its scope 0 (link-local) is the narrower and "
          "reaches the destination's scope 0 (link-local)" } },
      { { "fd00::1/64", "2001:db8::1/64" },
        "ff0e::1",
        "fd00::1",
        { "rule 2, appropriate scope: fd00::1/64, its scope 1 (site or multicast) is the narrower "
          "and reaches the destination's scope 1 (site or multicast)" } },
      { { "::1/128", "2001:db8::1/64" },
        "2001:db8::2",
        "2001:db8::1",
        { "rule 6, matching label:    2001:db8::1/64, it has the destination's label 1, the other "
          "has label 0" } },
      { { "2002:c000:201::1/64", "2001:db8::1/64" },
        "2002:c000:201::9",
        "2002:c000:201::1",
        { "rule 8, longest prefix:    2002:c000:201::1/64, it shares 124 leading bits with the "
          "destination, the other 14" } },
   };
   for( const auto & each : cases ) {
      SCOPED_TRACE( each.destination );
      std::vector< Message > messages;
      for( const char * address : each.addresses ) {
         messages.push_back( address6( RTM_NEWADDR, 2, address ) );
      }
      dumpIs( Dump::links, { newLink( { 2, "eth0" } ) } );
      dumpIs( Dump::addresses6, messages );
      begin();
      const std::string text =
         explainSource( mirror.ip6Status(), Velon::Ip6Addr( each.destination ) );
      EXPECT_NE( text.find( std::string( "\neth0 sends from " ) + each.source + "\n" ),
                 std::string::npos )
         << text;
      for( const char * reason : each.reasons ) {
         EXPECT_NE( text.find( std::string( "      " ) + reason + "\n" ), std::string::npos )
            << text;
      }
   }
}

TEST_F( SourcesTest, ExplanationComparesTheBestSoFarWithEachFurtherCandidate ) {
   dumpIs( Dump::links,
           { newLink( { 2, "eth10" } ), newLink( { 3, "eth2" } ), newLink( { 4, "e\x1b[2J" } ) } );
   dumpIs( Dump::addresses6,
           { address6( RTM_NEWADDR, 2, "2001:db8::1/64" ),
             address6( RTM_NEWADDR, 2, "2001:db8::2/64" ), address6( RTM_NEWADDR, 4, "fe80::4/64" ),
             address6( RTM_NEWADDR, 4, "fe80::5/64", IFA_F_DADFAILED ) } );
   begin();
   auto addresses = ip6( "eth10" )->addrIteratorConst();
   const std::string first = addresses.key().addr().toString();
   const std::string second = ( ++addresses ).key().addr().toString();
   EXPECT_EQ( explainSource( mirror.ip6Status(), Velon::Ip6Addr( "3000::1" ) ),
              "Source addresses for 3000::1, scope 2 (global), label 1\n"
              "\n"
              "e\\x1b[2J sends from fe80::4\n"
              "   fe80::4/64 is the only candidate\n"
              "\n"
              "eth2 has no IPv6 address to send from\n"
              "\n"
              "eth10 sends from " +
                 first + "\n   " + first + "/64 or " + second +
                 "/64?\n"
                 "      rule 1, same address:      undecided, neither is the destination\n"
                 "      rule 2, appropriate scope: undecided, both have scope 2 (global)\n"
                 "      rule 6, matching label:    undecided, both have the destination's label 1\n"
                 "      rule 8, longest prefix:    " +
                 first +
                 "/64, both share 3 leading bits with the destination; the first one stays\n" );
}

} // namespace
} // namespace Ipstated::Scripted
