// The feed over a scripted kernel: what is told after dumps, events, losses and disorder, and that
// broken messages are reported and skipped.

#include "tests/agents/ScriptedKernel.h"

#include <gtest/gtest.h>

#include <random>

namespace Ipstated::Scripted {
namespace {

using Lines = std::vector< std::string >;

class KernelFeedTest : public ::testing::Test {
 protected:
   /// Lets the feed work until it has nothing to do at this moment.
   void settle() {
      for( int i = 0; i < 100; ++i ) {
         feed.onReadable( now );
      }
   }

   void begin() {
      feed.start( now );
      settle();
   }

   void pass( KernelFeed::Duration time ) {
      now += time;
      feed.onDeadline( now );
      settle();
   }

   void dumpIs( Dump dump, const std::vector< Message > & messages ) {
      source.dumps[dump] = { Reply{ messages, false, 0 } };
   }

   /// The first interface with one address, already told.
   void beginWithEth0() {
      dumpIs( Dump::links, { newLink( { 2, "eth0" } ) } );
      dumpIs( Dump::addresses4, { newAddress( 2, "10.0.0.1/24" ) } );
      begin();
      listener.heard();
   }

   Lines after( const std::vector< Message > & events ) {
      for( const Message & event : events ) {
         source.event( event );
      }
      settle();
      return listener.heard();
   }

   /// What a loss of events brings to light.
   Lines afterOverrun() {
      source.overrun();
      settle();
      return listener.heard();
   }

   std::vector< std::string > addressesOf( int index ) {
      std::vector< std::string > result;
      for( const Ip4Address & address : feed.state().find( index )->addresses4 ) {
         result.push_back( text( address ) );
      }
      return result;
   }

   Source source;
   Listener listener;
   KernelFeed feed{ source, listener };
   KernelFeed::Time now{};
};

TEST_F( KernelFeedTest, FirstDumpTellsEachInterfaceOnceAndARepeatedDumpTellsNothing ) {
   dumpIs( Dump::links, { newLink( { 2, "eth0", IFF_UP, 9 } ),
                          newLink( { 9, "red", IFF_UP, 0, 10 } ), newLink( { 3, "eth1" } ) } );
   dumpIs( Dump::addresses4, { newAddress( 2, "10.0.0.1/24" ), newAddress( 2, "10.0.1.1/24" ) } );
   dumpIs( Dump::addresses6, { address6( RTM_NEWADDR, 3, "fe80::1/64" ) } );
   dumpIs( Dump::config4, { config( AF_INET, 2, 1, 1, 0 ) } );
   dumpIs( Dump::groups4, { group4( RTM_GETMULTICAST, 2, "224.0.0.1" ) } );
   begin();
   EXPECT_EQ( listener.heard(), ( Lines{ "+ eth0 vrf red 10.0.0.1/24 10.0.1.1/24",
                                         "+ eth1 vrf default fe80::1/64", "+ red vrf red" } ) );
   EXPECT_EQ( feed.state().find( 9 )->table, 10u );
   EXPECT_TRUE( feed.synchronized() );

   feed.start( now );
   settle();
   EXPECT_EQ( listener.heard(), Lines{} );
   EXPECT_EQ( listener.synchronized, 2 );
   pass( std::chrono::seconds( 5 ) );
   EXPECT_EQ( listener.heard(), Lines{} );
   EXPECT_EQ( listener.problems, Lines{} );
}

TEST_F( KernelFeedTest, EventsThatSayWhatIsKnownTellNothing ) {
   beginWithEth0();
   EXPECT_EQ( after( { newLink( { 2, "eth0" } ), newAddress( 2, "10.0.0.1/24" ),
                       delAddress( 2, "10.0.0.9/24" ), delLink( 7, "eth7" ) } ),
              Lines{} );
}

TEST_F( KernelFeedTest, MovesBetweenVrfsAreToldAsTheVrfAlone ) {
   beginWithEth0();
   EXPECT_EQ(
      after( { newLink( { 10, "red", IFF_UP, 0, 10 } ), newLink( { 11, "blue", IFF_UP, 0, 11 } ),
               newLink( { 2, "eth0", IFF_UP, 10 } ) } ),
      ( Lines{ "+ red vrf red", "+ blue vrf blue", "eth0 vrf default > red" } ) );
   EXPECT_EQ( after( { newLink( { 2, "eth0", IFF_UP, 11 } ) } ), Lines{ "eth0 vrf red > blue" } );
   // The VRF device is renamed below its member, then vanishes before the member is released.
   EXPECT_EQ( after( { newLink( { 11, "green", IFF_UP, 0, 11 } ) } ),
              ( Lines{ "- blue", "+ green vrf green", "eth0 vrf blue > green" } ) );
   EXPECT_EQ( after( { delLink( 11, "green" ) } ),
              ( Lines{ "- green", "eth0 vrf green > default" } ) );
   // A bridge is no VRF, and what the bridge family tells of its ports is no end of them.
   EXPECT_EQ( after( { newLink( { 12, "br0" } ), newLink( { 2, "eth0", IFF_UP, 12 } ) } ),
              Lines{ "+ br0 vrf default" } );
   Message left = delLink( 2, "eth0" );
   reinterpret_cast< ifinfomsg * >( left.bytes().data() + sizeof( nlmsghdr ) )->ifi_family =
      AF_BRIDGE;
   EXPECT_EQ( after( { left } ), Lines{} );
   ifinfomsg info{};
   info.ifi_index = 10;
   EXPECT_EQ(
      after(
         { Message( RTM_NEWLINK, info ).text( IFLA_IFNAME, "red" ).value( IFLA_WIRELESS, 0 ) } ),
      Lines{} );
   EXPECT_EQ( feed.state().find( 10 )->vrf, "red" );
}

TEST_F( KernelFeedTest, RenameIsOneNameGoneAndAnotherThereWithAllItHolds ) {
   beginWithEth0();
   EXPECT_EQ( after( { newLink( { 2, "up0" } ) } ),
              ( Lines{ "- eth0", "+ up0 vrf default 10.0.0.1/24" } ) );
   EXPECT_EQ( after( { newAddress( 2, "10.0.1.1/24" ) } ), Lines{ "up0 +10.0.1.1/24" } );
}

TEST_F( KernelFeedTest, NewNameOfAnInterfaceStillHeldByAnotherIsSettledByADump ) {
   beginWithEth0();
   dumpIs( Dump::links, { newLink( { 3, "eth0" } ) } );
   dumpIs( Dump::addresses4, { newAddress( 3, "10.0.0.1/24" ) } );
   EXPECT_EQ( after( { newLink( { 3, "eth0" } ) } ), Lines{} );
   EXPECT_EQ( feed.state().findByName( "eth0" )->index, 3 );
   EXPECT_EQ( listener.problems.size(), 1u );
}

TEST_F( KernelFeedTest, ReCreationSeenIsTwoEventsAndUnseenIsTheDifference ) {
   beginWithEth0();
   EXPECT_EQ( after( { delLink( 2, "eth0" ), newLink( { 2, "eth0" } ) } ),
              ( Lines{ "- eth0", "+ eth0 vrf default" } ) );
   EXPECT_EQ( after( { newAddress( 2, "10.0.0.1/24" ) } ),
              ( Lines{ "eth0 +10.0.0.1/24", "eth0 primary 10.0.0.1/24" } ) );

   dumpIs( Dump::links, { newLink( { 7, "eth0" } ) } );
   dumpIs( Dump::addresses4, { newAddress( 7, "10.0.0.1/24" ), newAddress( 7, "10.0.5.1/24" ) } );
   EXPECT_EQ( afterOverrun(), Lines{ "eth0 +10.0.5.1/24" } );
   EXPECT_EQ( feed.state().find( 2 ), nullptr );
}

TEST_F( KernelFeedTest, SwappedNamesAreTwoSetsOfDifferences ) {
   dumpIs( Dump::links, { newLink( { 2, "a" } ), newLink( { 3, "b" } ) } );
   dumpIs( Dump::addresses4, { newAddress( 2, "10.0.2.1/24" ), newAddress( 3, "10.0.3.1/24" ) } );
   begin();
   listener.heard();
   dumpIs( Dump::links, { newLink( { 2, "b" } ), newLink( { 3, "a" } ) } );
   EXPECT_EQ( afterOverrun(),
              ( Lines{ "b -10.0.3.1/24", "b +10.0.2.1/24", "b primary 10.0.2.1/24",
                       "a -10.0.2.1/24", "a +10.0.3.1/24", "a primary 10.0.3.1/24" } ) );
}

TEST_F( KernelFeedTest, NamesPassedOnDuringADumpEndWhereTheEventsLeaveThem ) {
   beginWithEth0();
   // The dump sees the end of a chain of renames whose events come behind it.
   dumpIs( Dump::links,
           { newLink( { 2, "eth0" } ), newLink( { 3, "b" } ), newLink( { 4, "c" } ) } );
   dumpIs( Dump::addresses4, { newAddress( 2, "10.0.0.1/24" ), newAddress( 3, "10.0.3.1/24" ) } );
   source.onRequest = [&]( Dump dump ) {
      if( dump == Dump::config4 ) {
         source.event( newLink( { 4, "b" } ) );
         source.event( newLink( { 4, "c" } ) );
         source.event( newLink( { 3, "b" } ) );
      }
   };
   EXPECT_EQ( afterOverrun(), ( Lines{ "+ b vrf default 10.0.3.1/24", "+ c vrf default" } ) );
}

TEST_F( KernelFeedTest, AddressesTakeTheKernelsPlaces ) {
   dumpIs( Dump::links, { newLink( { 2, "eth0" } ) } );
   begin();
   after( { newAddress( 2, "10.0.0.1/24" ), newAddress( 2, "10.0.0.2/24", IFA_F_SECONDARY ),
            newAddress( 2, "10.0.1.1/24" ) } );
   EXPECT_EQ( addressesOf( 2 ), ( Lines{ "10.0.0.1/24", "10.0.1.1/24", "10.0.0.2/24" } ) );
   // One of link scope comes first, and so becomes the primary one.
   EXPECT_EQ( after( { newAddress( 2, "10.9.0.1/24", 0, RT_SCOPE_LINK ) } ),
              ( Lines{ "eth0 +10.9.0.1/24", "eth0 primary 10.9.0.1/24" } ) );
   EXPECT_EQ( after( { delAddress( 2, "10.9.0.1/24" ) } ),
              ( Lines{ "eth0 -10.9.0.1/24", "eth0 primary 10.0.0.1/24" } ) );
}

TEST_F( KernelFeedTest, PromotedSecondaryBecomesTheLastPrimaryAndItsPlaceIsLookedUp ) {
   dumpIs( Dump::links, { newLink( { 2, "eth0" } ) } );
   dumpIs( Dump::addresses4, { newAddress( 2, "10.0.0.1/24" ), newAddress( 2, "10.0.1.1/24" ),
                               newAddress( 2, "10.0.0.2/24", IFA_F_SECONDARY ) } );
   begin();
   listener.heard();
   EXPECT_EQ( after( { delAddress( 2, "10.0.0.1/24" ), newAddress( 2, "10.0.0.2/24" ) } ),
              ( Lines{ "eth0 -10.0.0.1/24", "eth0 primary 10.0.1.1/24", "eth0 ~10.0.0.2/24" } ) );
   EXPECT_EQ( addressesOf( 2 ), ( Lines{ "10.0.1.1/24", "10.0.0.2/24" } ) );
   dumpIs( Dump::addresses4, { newAddress( 2, "10.0.0.2/24" ), newAddress( 2, "10.0.1.1/24" ) } );
   pass( std::chrono::milliseconds( 500 ) );
   EXPECT_EQ( listener.heard(), Lines{ "eth0 primary 10.0.0.2/24" } );
   EXPECT_TRUE( feed.synchronized() );
}

TEST_F( KernelFeedTest, SameAddressToTwoPeersIsTwoAddresses ) {
   beginWithEth0();
   auto toPeer = []( uint16_t type, const std::string & peer ) {
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
              ( Lines{ "eth0 +10.1.0.1/32", "eth0 +10.1.0.1/32", "eth0 -10.1.0.1/32" } ) );
   EXPECT_EQ( addressesOf( 2 ), ( Lines{ "10.0.0.1/24", "10.1.0.1/32" } ) );
}

TEST_F( KernelFeedTest, AddressIsThereOnceDuplicateAddressDetectionHasEnded ) {
   beginWithEth0();
   EXPECT_EQ( after( { address6( RTM_NEWADDR, 2, "2001:db8::1/64", IFA_F_TENTATIVE ),
                       address6( RTM_NEWADDR, 2, "2001:db8::2/64", IFA_F_TENTATIVE ) } ),
              Lines{} );
   EXPECT_EQ(
      after( { address6( RTM_NEWADDR, 2, "2001:db8::1/64", IFA_F_TENTATIVE | IFA_F_DADFAILED ),
               address6( RTM_NEWADDR, 2, "2001:db8::2/64" ),
               address6( RTM_NEWADDR, 2, "2001:db8::3/64", IFA_F_TENTATIVE | IFA_F_OPTIMISTIC ) } ),
      ( Lines{ "eth0 +2001:db8::1/64 dadfailed", "eth0 +2001:db8::2/64",
               "eth0 +2001:db8::3/64" } ) );
   EXPECT_EQ( after( { address6( RTM_DELADDR, 2, "2001:db8::1/64", IFA_F_TENTATIVE ),
                       address6( RTM_NEWADDR, 2, "2001:db8::2/64", IFA_F_DADFAILED ),
                       address6( RTM_NEWADDR, 2, "2001:db8::3/64", IFA_F_TENTATIVE ) } ),
              ( Lines{ "eth0 -2001:db8::1/64", "eth0 ~2001:db8::2/64 dadfailed",
                       "eth0 -2001:db8::3/64" } ) );
}

TEST_F( KernelFeedTest, AddressIsThereAtOnceWhereDuplicatesAreNotDetected ) {
   source.texts[KernelText::allAcceptDad] = "0\n";
   auto withFlags = []( int index, uint32_t flags ) {
      return Link{ index, "eth" + std::to_string( index ), flags, 0, 0, 1 };
   };
   dumpIs( Dump::links,
           { newLink( { 2, "eth2", IFF_UP, 0, 0, 0 } ), newLink( withFlags( 3, IFF_UP ) ),
             newLink( withFlags( 4, IFF_UP | IFF_NOARP ) ) } );
   dumpIs( Dump::addresses6, { address6( RTM_NEWADDR, 2, "2001:db8::1/64", IFA_F_TENTATIVE ),
                               address6( RTM_NEWADDR, 3, "2001:db8::1/64", IFA_F_TENTATIVE ) } );
   begin();
   EXPECT_EQ( feed.state().find( 2 )->addresses6.size(), 1u );
   EXPECT_EQ( feed.state().find( 3 )->addresses6.size(), 0u );
   listener.heard();
   EXPECT_EQ( after( { address6( RTM_NEWADDR, 2, "2001:db8::2/64", IFA_F_TENTATIVE ),
                       address6( RTM_NEWADDR, 3, "2001:db8::2/64", IFA_F_TENTATIVE ),
                       address6( RTM_NEWADDR, 4, "2001:db8::2/64", IFA_F_TENTATIVE ),
                       address6( RTM_NEWADDR, 5, "2001:db8::2/64", IFA_F_TENTATIVE ),
                       newLink( { 5, "eth5", IFF_UP, 0, 0, 0 } ),
                       address6( RTM_DELADDR, 2, "2001:db8::2/64", IFA_F_TENTATIVE ) } ),
              ( Lines{ "eth2 +2001:db8::2/64", "eth4 +2001:db8::2/64", "+ eth5 vrf default",
                       "eth2 -2001:db8::2/64" } ) );
}

TEST_F( KernelFeedTest, EffectiveConfigurationIsToldWhereItChanges ) {
   dumpIs( Dump::links, { newLink( { 2, "eth0" } ), newLink( { 3, "eth1" } ) } );
   dumpIs( Dump::config4, { config( AF_INET, 2, 0, 1, 1 ), config( AF_INET, 3, 0, 2, 0 ) } );
   begin();
   listener.heard();
   // Strict for all changes neither: one is strict already, the other loose, which counts as more.
   EXPECT_EQ( after( { config( AF_INET, ConfigMessage::forAll, -1, 1 ) } ), Lines{} );
   EXPECT_EQ( after( { config( AF_INET, ConfigMessage::forAll, -1, 2 ) } ),
              Lines{ "eth0 config4 0 2 0" } );
   EXPECT_EQ( after( { config( AF_INET, ConfigMessage::forNew, 1, 0 ) } ), Lines{} );
   EXPECT_EQ( after( { config( AF_INET, 3, 1 ), config( AF_INET6, 3, 1 ) } ),
              ( Lines{ "eth1 config4 1 2 0", "eth1 config6 1 1 0" } ) );
   EXPECT_EQ(
      after( { newLink( { 3, "eth1", IFF_UP | IFF_NOARP } ), newLink( { 3, "eth1", 0 } ) } ),
      ( Lines{ "eth1 up noarp", "eth1 down" } ) );
}

TEST_F( KernelFeedTest, ValuesWithoutEventsAreFoundByTheSlowPoll ) {
   source.groupEvents = false;
   source.dumps[Dump::groups4] = { Reply{ {}, false, EOPNOTSUPP } };
   source.texts[KernelText::igmp] =
      "Idx\tDevice    : Count Querier\tGroup    Users Timer\tReporter\n"
      "2\teth0      :     1      V3\n"
      "\t\t\t\t010000E0     1 0:00000000\t\t0\n";
   beginWithEth0();
   EXPECT_EQ( text( feed.state().find( 2 )->groups4.at( 0 ) ), "224.0.0.1" );

   dumpIs( Dump::config4, { config( AF_INET, ConfigMessage::forAll, 0, 0, 1 ),
                            config( AF_INET, 2, 1, 0, 1 ), config( AF_INET, 99, 1, 0, 1 ) } );
   dumpIs( Dump::links, { newLink( { 2, "eth0", IFF_UP, 0, 0, 2 } ), newLink( { 3, "eth1" } ) } );
   source.texts[KernelText::igmp] = "Idx\n2\teth0      :     1      V3\n"
                                    "\t\t\t\t020000E0     1 0:00000000\t\t0\n";
   EXPECT_EQ( feed.deadline(), now + std::chrono::seconds( 5 ) );
   pass( std::chrono::seconds( 5 ) );
   // Forwarding has an event, which may be newer than the poll; so have new interfaces.
   EXPECT_EQ( listener.heard(), ( Lines{ "eth0 config4 0 0 1", "eth0 config6 0 2 0",
                                         "eth0 -group 224.0.0.1", "eth0 +group 224.0.0.2" } ) );
   EXPECT_EQ( feed.state().find( 99 ), nullptr );
}

TEST_F( KernelFeedTest, OverrunThrowsAwayWhatIsQueuedAndTellsTheDifferences ) {
   beginWithEth0();
   // Queued before the loss: an address that the kernel has taken away again since.
   source.event( newAddress( 2, "10.0.7.7/24" ) );
   dumpIs( Dump::addresses4, { newAddress( 2, "10.0.0.1/24" ), newAddress( 2, "10.0.1.1/24" ) } );
   EXPECT_EQ( afterOverrun(), Lines{ "eth0 +10.0.1.1/24" } );
   EXPECT_EQ( feed.statistics().overruns, 1u );
   EXPECT_TRUE( feed.synchronized() );
}

TEST_F( KernelFeedTest, EventsDuringADumpAreAppliedOverIt ) {
   beginWithEth0();
   bool told = false;
   source.onRequest = [&]( Dump dump ) {
      if( dump == Dump::addresses6 && !told ) {
         told = true;
         source.event( delAddress( 2, "10.0.0.1/24" ) );
         source.event( newAddress( 2, "10.0.2.1/24" ) );
         source.event( newAddress( 2, "10.0.3.1/24" ) );
         source.event( delAddress( 2, "10.0.3.1/24" ) );
      }
   };
   EXPECT_EQ( afterOverrun(),
              ( Lines{ "eth0 -10.0.0.1/24", "eth0 +10.0.2.1/24", "eth0 primary 10.0.2.1/24" } ) );
}

TEST_F( KernelFeedTest, LossDuringADumpBeginsItAnewButNotForEver ) {
   beginWithEth0();
   int losses = 0;
   source.onRequest = [&]( Dump dump ) {
      if( dump == Dump::groups6 && losses < 2 ) {
         ++losses;
         source.event( newAddress( 2, "10.0.7.7/24" ) ); // older than the loss
         source.overrun();
      }
   };
   EXPECT_EQ( afterOverrun(), Lines{} );
   EXPECT_TRUE( feed.synchronized() );

   source.onRequest = [&]( Dump dump ) {
      if( dump == Dump::groups6 ) {
         source.overrun();
      }
   };
   dumpIs( Dump::addresses4, { newAddress( 2, "10.0.0.1/24" ), newAddress( 2, "10.0.1.1/24" ) } );
   EXPECT_EQ( afterOverrun(), Lines{ "eth0 +10.0.1.1/24" } );
   EXPECT_FALSE( feed.synchronized() );
   source.onRequest = nullptr;
   pass( std::chrono::milliseconds( 500 ) );
   EXPECT_EQ( listener.heard(), Lines{} );
   EXPECT_TRUE( feed.synchronized() );
}

TEST_F( KernelFeedTest, InterruptedDumpsAreTakenTogether ) {
   beginWithEth0();
   // Each try lacks something that is there all the time; .4 goes away between the tries.
   auto reply = []( const Lines & addresses ) {
      Reply reply;
      for( const std::string & address : addresses ) {
         reply.messages.push_back( newAddress( 2, address ) );
      }
      reply.interrupted = true;
      return reply;
   };
   source.dumps[Dump::addresses4] = { reply( { "10.0.0.1/24", "10.0.4.1/24", "10.0.2.1/24" } ),
                                      reply( { "10.0.3.1/24", "10.0.2.1/24" } ),
                                      reply( { "10.0.0.1/24", "10.0.3.1/24", "10.0.3.1/24" } ),
                                      reply( { "10.0.0.1/24", "10.0.2.1/24" } ) };
   int requests = 0;
   source.onRequest = [&]( Dump dump ) {
      if( dump == Dump::addresses4 && ++requests == 2 ) {
         source.event( delAddress( 2, "10.0.4.1/24" ) );
      }
   };
   EXPECT_EQ( afterOverrun(), ( Lines{ "eth0 +10.0.3.1/24", "eth0 +10.0.2.1/24" } ) );
   EXPECT_EQ( addressesOf( 2 ), ( Lines{ "10.0.0.1/24", "10.0.3.1/24", "10.0.2.1/24" } ) );
   EXPECT_EQ( requests, 4 );
   EXPECT_FALSE( feed.synchronized() ); // a quieter dump is owed
   dumpIs( Dump::addresses4, { newAddress( 2, "10.0.0.1/24" ), newAddress( 2, "10.0.2.1/24" ),
                               newAddress( 2, "10.0.3.1/24" ) } );
   pass( std::chrono::milliseconds( 500 ) );
   EXPECT_EQ( listener.heard(), Lines{} );
   EXPECT_TRUE( feed.synchronized() );
   EXPECT_EQ( addressesOf( 2 ), ( Lines{ "10.0.0.1/24", "10.0.2.1/24", "10.0.3.1/24" } ) );
}

TEST_F( KernelFeedTest, DumpWithoutReplyIsAskedForAgain ) {
   beginWithEth0();
   bool lost = false;
   source.onRequest = [&]( Dump dump ) {
      if( dump == Dump::addresses4 && !lost ) {
         lost = true;
         source.event( newAddress( 2, "10.0.1.1/24" ) );
      }
   };
   dumpIs( Dump::addresses4, { newAddress( 2, "10.0.0.1/24" ), newAddress( 2, "10.0.1.1/24" ) } );
   feed.start( now );
   source.abandonRequest(); // the reply is gone
   settle();
   EXPECT_EQ( listener.heard(), Lines{} );
   pass( std::chrono::seconds( 5 ) );
   EXPECT_EQ( listener.heard(), Lines{ "eth0 +10.0.1.1/24" } );
   EXPECT_EQ( listener.problems.back(), "dump of links: no reply" );
}

TEST_F( KernelFeedTest, WhatCannotBeReadIsNotToldAndReadAgain ) {
   source.texts = { { KernelText::allAcceptDad, "2\n" }, { KernelText::allEnhancedDad, "1\n" } };
   // Without what holds for all, no value of an interface is known: nothing is told at first.
   source.textError = EMFILE;
   dumpIs( Dump::links, { newLink( { 2, "eth0" } ) } );
   begin();
   EXPECT_EQ( listener.heard(), Lines{} );
   EXPECT_FALSE( feed.everSynchronized() );
   source.textError = 0;
   dumpIs( Dump::addresses4, { newAddress( 2, "10.0.0.1/24" ) } );
   dumpIs( Dump::addresses6, { address6( RTM_NEWADDR, 2, "2001:db8::1/64" ) } );
   dumpIs( Dump::config4,
           { config( AF_INET, ConfigMessage::forAll, 0, 1 ), config( AF_INET, 2, 1, 0, 0 ) } );
   dumpIs( Dump::config6, { config( AF_INET6, 2, 1 ) } );
   dumpIs( Dump::groups4, { group4( RTM_GETMULTICAST, 2, "224.0.0.1" ) } );
   pass( std::chrono::milliseconds( 500 ) );
   EXPECT_EQ( listener.heard(), Lines{ "+ eth0 vrf default 10.0.0.1/24 2001:db8::1/64" } );
   EXPECT_EQ( feed.state().find( 2 )->config6.acceptDad, 2 );

   auto good = source.dumps;
   for( Dump failing : { Dump::links, Dump::config4, Dump::config6, Dump::addresses4,
                         Dump::addresses6, Dump::groups4, Dump::groups6 } ) {
      SCOPED_TRACE( dumpName( failing ) );
      source.dumps = good;
      // Some of it comes before the end.
      source.dumps[failing] = { Reply{ {}, false, ENOBUFS } };
      source.textError = EMFILE;
      bool told = false;
      source.onRequest = [&]( Dump ) {
         if( !std::exchange( told, true ) ) source.event( newAddress( 2, "10.0.9.1/24" ) );
      };
      feed.start( now );
      settle();
      EXPECT_EQ( listener.heard(), Lines{ "eth0 +10.0.9.1/24" } );
      EXPECT_FALSE( feed.synchronized() );
      source.onRequest = nullptr;
      source.dumps = good;
      source.textError = 0;
      pass( *feed.deadline() - now );
      EXPECT_EQ( listener.heard(), Lines{ "eth0 -10.0.9.1/24" } );
      EXPECT_TRUE( feed.synchronized() );
   }
}

// ---- reading ----

/// Says what decode() made of some bytes.
class Said : public MessageHandler {
 public:
   std::vector< std::string > lines;
   void onLink( const LinkMessage & link ) override {
      lines.push_back( "link " + std::to_string( link.index ) + " " + link.name );
   }
   void onAddress4( const AddressMessage< Ip4Address > & told ) override {
      lines.push_back( "address " + text( told.address ) );
   }
   void onAddress6( const AddressMessage< Ip6Address > & told ) override {
      lines.push_back( "address " + text( told.address ) );
   }
   void onConfig4( const ConfigMessage & ) override { lines.push_back( "config" ); }
   void onGroup4( const GroupMessage< RawIp4 > & ) override { lines.push_back( "group" ); }
   void onDone( int error ) override { lines.push_back( "done " + std::to_string( error ) ); }
   void onError( int error, const std::string & text ) override {
      lines.push_back( "error " + std::to_string( error ) + " " + text );
   }
   void onMalformed( const std::string & what ) override { lines.push_back( what ); }
};

std::vector< std::string >
said( const Datagram & bytes ) {
   Said handler;
   decode( bytes.data(), bytes.size(), handler );
   return handler.lines;
}

TEST( NetlinkReading, BrokenMessagesAreNamedAndThoseBehindThemRead ) {
   ifaddrmsg info{};
   info.ifa_family = AF_INET;
   info.ifa_prefixlen = 24;
   info.ifa_index = 2;
   ifaddrmsg tooLong = info;
   tooLong.ifa_prefixlen = 33;
   ifaddrmsg noIndex = info;
   noIndex.ifa_index = 0;
   ifinfomsg linkInfo{};
   linkInfo.ifi_index = 2;
   Message inside( RTM_NEWADDR, info );
   inside.value( IFA_LOCAL, ip4( "10.0.0.1" ) );
   inside.bytes()[sizeof( nlmsghdr ) + sizeof info] = 60; // longer than the message
   Message nest = Message::nest();
   nest.attribute( IFLA_INFO_KIND, "vrf", 3 );
   struct Case {
      Message message;
      const char * text;
   } cases[] = {
      { Message( RTM_NEWADDR, info ).attribute( IFA_LOCAL, "abc", 3 ),
        "RTM_NEWADDR message: IFA_LOCAL has 3 bytes where 4 were expected at byte 24; message "
        "skipped" },
      { Message( RTM_NEWADDR, info ).value( IFA_LOCAL, ip6( "::1" ) ),
        "RTM_NEWADDR message: IFA_LOCAL has 16 bytes where 4 were expected at byte 24; message "
        "skipped" },
      { Message( RTM_DELADDR, info ),
        "RTM_DELADDR message: neither IFA_LOCAL nor IFA_ADDRESS at byte 16; message skipped" },
      { Message( RTM_NEWADDR, tooLong ).value( IFA_LOCAL, ip4( "10.0.0.1" ) ),
        "RTM_NEWADDR message: prefix length 33 at byte 16; message skipped" },
      { Message( RTM_NEWADDR, noIndex ).value( IFA_LOCAL, ip4( "10.0.0.1" ) ),
        "RTM_NEWADDR message: interface index 0 at byte 16; message skipped" },
      { inside, "RTM_NEWADDR message: attribute list ends inside an attribute (type 2 of 60 "
                "bytes, 8 bytes left) at byte 24; message skipped" },
      { Message( RTM_NEWADDR, uint16_t( 0 ) ),
        "RTM_NEWADDR message: 4 bytes behind the header where 8 were expected at byte 0; message "
        "skipped" },
      { Message( RTM_NEWLINK, linkInfo ),
        "RTM_NEWLINK message: no IFLA_IFNAME at byte 16; message skipped" },
      { Message( RTM_NEWLINK, linkInfo ).attribute( IFLA_IFNAME, "eth0", 4 ),
        "RTM_NEWLINK message: IFLA_IFNAME is not a text of 1 to 15 bytes with its zero byte at "
        "byte 32; message skipped" },
      { Message( RTM_NEWLINK, linkInfo ).text( IFLA_IFNAME, "a23456789012345z" ),
        "RTM_NEWLINK message: IFLA_IFNAME is not a text of 1 to 15 bytes with its zero byte at "
        "byte 32; message skipped" },
      { Message( RTM_NEWLINK, linkInfo ).text( IFLA_IFNAME, "red" ).nest( IFLA_LINKINFO, nest ),
        "RTM_NEWLINK message: IFLA_INFO_KIND is not a text of 1 to 255 bytes with its zero byte "
        "at byte 44; message skipped" },
      { Message( RTM_NEWNETCONF, netconfmsg{ AF_INET } ),
        "RTM_NEWNETCONF message: no NETCONFA_IFINDEX at byte 16; message skipped" },
      { Message( newMulticast, info ),
        "RTM_NEWMULTICAST message: no IFA_MULTICAST at byte 16; message skipped" },
   };
   for( const Case & each : cases ) {
      EXPECT_EQ( said( datagram( { each.message, newAddress( 2, "10.0.0.1/24" ) } ) ),
                 ( Lines{ each.text, "address 10.0.0.1/24" } ) );
   }
}

TEST( NetlinkReading, DatagramsCutShortGiveWhatIsWholeAndAReport ) {
   Datagram bytes = datagram( { newAddress( 2, "10.0.0.1/24" ), newAddress( 2, "10.0.0.2/24" ) } );
   Datagram cut( bytes.begin(), bytes.end() - 4 );
   EXPECT_EQ( said( cut ),
              ( Lines{ "address 10.0.0.1/24", "netlink datagram: message of 48 bytes where 44 are "
                                              "left at byte 48; the rest skipped" } ) );
   cut.resize( 50 );
   EXPECT_EQ( said( cut ),
              ( Lines{ "address 10.0.0.1/24",
                       "netlink datagram: 2 are left at byte 48; the rest skipped" } ) );
   Datagram shifted( bytes.size() + 1 );
   memcpy( shifted.data() + 1, bytes.data(), bytes.size() );
   Said handler;
   decode( shifted.data() + 1, bytes.size(), handler );
   EXPECT_EQ( handler.lines, ( Lines{ "address 10.0.0.1/24", "address 10.0.0.2/24" } ) );
}

TEST( NetlinkReading, ErrorsCarryTheKernelsExplanation ) {
   nlmsgerr error{};
   error.error = -EBUSY;
   Message message( NLMSG_ERROR, error );
   message.text( NLMSGERR_ATTR_MSG, "dump already in progress" );
   message.flags( NLM_F_CAPPED | NLM_F_ACK_TLVS );
   EXPECT_EQ( said( datagram( { message } ) ),
              Lines{ "error " + std::to_string( EBUSY ) + " dump already in progress" } );
   EXPECT_EQ( said( datagram( { Message( NLMSG_DONE, int32_t( -EMSGSIZE ) ) } ) ),
              Lines{ "done " + std::to_string( EMSGSIZE ) } );
}

// Under the sanitizers every read beyond the bytes is an end of the test.
TEST( NetlinkReading, NoBytesAreReadBeyondTheEnd ) {
   const Datagram whole =
      datagram( { newLink( { 9, "red", IFF_UP, 3, 10 } ), newAddress( 2, "10.0.0.1/24" ),
                  address6( RTM_NEWADDR, 2, "fe80::1/64" ), config( AF_INET, 2, 1, 1, 1 ),
                  group4( newMulticast, 2, "224.0.0.1" ), Message( NLMSG_ERROR, nlmsgerr{} ) } );
   for( size_t length = 0; length <= whole.size(); ++length ) {
      Datagram cut( whole.begin(), whole.begin() + ptrdiff_t( length ) );
      cut.shrink_to_fit();
      Said handler;
      decode( cut.data(), cut.size(), handler );
   }
   std::mt19937 random( 1 );
   for( int i = 0; i < 20000; ++i ) {
      Datagram bent = whole;
      for( unsigned changes = 1 + random() % 4; changes; --changes ) {
         bent[random() % bent.size()] = char( random() );
      }
      Said handler;
      decode( bent.data(), bent.size(), handler );
   }
}

TEST( NetlinkReading, GroupsAreReadFromText ) {
   std::vector< std::pair< int, RawIp4 > > groups4;
   EXPECT_TRUE( readIgmp( "Idx\tDevice    : Count Querier\tGroup    Users Timer\tReporter\n"
                          "1\tlo        :     1      V3\n"
                          "\t\t\t\t010000E0     1 0:00000000\t\t0\n"
                          "12\ta:b.c     :     2      V3\n"
                          "\t\t\t\tFB0000E0     1 0:00000000\t\t0\n"
                          "\t\t\t\t010000E0     1 0:00000000\t\t0\n",
                          groups4 ) );
   ASSERT_EQ( groups4.size(), 3u );
   EXPECT_EQ( groups4[1].first, 12 );
   EXPECT_EQ( text( groups4[1].second ), "224.0.0.251" );
   EXPECT_FALSE( readIgmp( "Idx\n\t\t\t\t010000E0     1\n", groups4 ) );
   EXPECT_FALSE( readIgmp( "Idx\n1\tlo : 1\n\t\t\t\t010000\n", groups4 ) );
   EXPECT_EQ( groups4.size(), 3u );

   std::vector< std::pair< int, RawIp6 > > groups6;
   EXPECT_TRUE( readIgmp6(
      "3    eth0            ff0200000000000000000001ff00000e     1 00000004 0\n", groups6 ) );
   ASSERT_EQ( groups6.size(), 1u );
   EXPECT_EQ( text( groups6[0].second ), "ff02::1:ff00:e" );
   EXPECT_FALSE( readIgmp6( "3 eth0 ff02\nx eth0 ff0200000000000000000001ff00000e\n", groups6 ) );
   EXPECT_EQ( groups6.size(), 1u );
}

// ---- everything at once ----

/// A small kernel that changes at random, tells most of it, and answers dumps truthfully or with
/// the marks and gaps of a dump taken while it changes.
class RandomKernel {
 public:
   explicit RandomKernel( unsigned seed ) : random_( seed ) {
      source.onRequest = [this]( Dump dump ) {
         bool churn = !quiet && random_() % 2;
         Reply reply = answer( dump );
         if( churn ) {
            reply.interrupted = true;
            if( !reply.messages.empty() && random_() % 2 ) {
               reply.messages.erase( reply.messages.begin() +
                                     ptrdiff_t( random_() % reply.messages.size() ) );
            }
         }
         source.dumps[dump] = { reply };
         // The answer is as old as the request; what happens now comes as events.
         for( unsigned steps = random_() % 4; churn && steps; --steps ) {
            step();
         }
      };
   }

   void step() {
      unsigned which = 2 + random_() % 6;
      auto found = links_.find( int( which ) );
      switch( random_() % 8 ) {
      case 0:
      case 1:
         if( found == links_.end() ) {
            Link link{ int( which ), freeName() };
            links_[link.index] = link;
            tell( newLink( link ) );
         } else {
            found->second.name = freeName();
            tell( newLink( found->second ) );
         }
         break;
      case 2:
         if( found != links_.end() ) {
            tell( delLink( found->first, found->second.name ) );
            addresses_.erase( found->first );
            links_.erase( found );
         }
         break;
      default:
         if( found != links_.end() ) {
            std::string address = "10.0." + std::to_string( random_() % 8 ) + ".1/24";
            auto & held = addresses_[found->first];
            auto at = std::find( held.begin(), held.end(), address );
            if( at == held.end() ) {
               held.push_back( address );
               tell( newAddress( found->first, address ) );
            } else {
               held.erase( at );
               tell( delAddress( found->first, address ) );
            }
         }
      }
   }

   bool quiet = false; ///< nothing changes while a dump is taken

   /// Interfaces by name with their addresses in order.
   std::map< std::string, Lines > truth() const {
      std::map< std::string, Lines > result;
      for( const auto & [index, link] : links_ ) {
         auto found = addresses_.find( index );
         result[link.name] = found == addresses_.end() ? Lines{} : found->second;
      }
      return result;
   }

   Source source;

 private:
   void tell( const Message & message ) { source.event( message ); }

   std::string freeName() {
      for( ;; ) {
         std::string name = "eth" + std::to_string( random_() % 9 );
         bool taken = false;
         for( const auto & entry : links_ ) {
            taken = taken || entry.second.name == name;
         }
         if( !taken ) {
            return name;
         }
      }
   }

   Reply answer( Dump dump ) {
      Reply reply;
      if( dump == Dump::links ) {
         for( const auto & entry : links_ ) {
            reply.messages.push_back( newLink( entry.second ) );
         }
      } else if( dump == Dump::addresses4 ) {
         for( const auto & [index, held] : addresses_ ) {
            for( const std::string & address : held ) {
               reply.messages.push_back( newAddress( index, address ) );
            }
         }
      }
      return reply;
   }

   std::mt19937 random_;
   std::map< int, Link > links_;
   std::map< int, Lines > addresses_;
};

/// Keeps a copy by the differences alone.
class Copy : public Listener {
 public:
   std::map< std::string, Lines > held;

   void onInterface( const Interface & interface ) override {
      EXPECT_FALSE( held.count( interface.name ) ) << interface.name;
      Lines & addresses = held[interface.name];
      for( const Ip4Address & address : interface.addresses4 ) {
         addresses.push_back( text( address ) );
      }
   }

   void onInterfaceGone( const Interface & interface ) override {
      EXPECT_EQ( held.erase( interface.name ), 1u ) << interface.name;
   }

   void onAddress4( const Interface & interface, const Ip4Address & address,
                    Difference difference ) override {
      Lines & addresses = held.at( interface.name );
      auto at = std::find( addresses.begin(), addresses.end(), text( address ) );
      if( difference == Difference::added ) {
         EXPECT_EQ( at, addresses.end() );
         addresses.push_back( text( address ) );
      } else {
         ASSERT_NE( at, addresses.end() );
         ASSERT_EQ( difference, Difference::removed );
         addresses.erase( at );
      }
   }
};

TEST( KernelFeedRandomly, DifferencesAloneKeepACopyEqualToTheKernel ) {
   for( unsigned seed = 1; seed <= 60; ++seed ) {
      SCOPED_TRACE( seed );
      RandomKernel kernel( seed );
      std::mt19937 random( seed * 7919 );
      Copy copy;
      KernelFeed feed( kernel.source, copy );
      KernelFeed::Time now{};
      kernel.source.capacity = 2 + seed % 12;
      feed.start( now );
      for( int round = 0; round < 60; ++round ) {
         for( unsigned steps = random() % 12; steps; --steps ) {
            kernel.step();
         }
         feed.onReadable( now );
         now += std::chrono::milliseconds( 100 );
         feed.onDeadline( now );
      }
      // A quiet time: what is owed comes to an end and the copy is true.
      kernel.quiet = true;
      for( int i = 0; i < 400; ++i ) {
         feed.onReadable( now );
         now += std::chrono::milliseconds( 500 );
         feed.onDeadline( now );
      }
      ASSERT_TRUE( feed.everSynchronized() );
      auto sorted = []( std::map< std::string, Lines > all ) {
         for( auto & entry : all ) {
            std::sort( entry.second.begin(), entry.second.end() );
         }
         return all;
      };
      std::map< std::string, Lines > model;
      for( const auto & [index, interface] : feed.state().interfaces() ) {
         if( interface.present ) {
            for( const Ip4Address & address : interface.addresses4 ) {
               model[interface.name].push_back( text( address ) );
            }
            model[interface.name];
         }
      }
      EXPECT_EQ( sorted( copy.held ), sorted( model ) );
      EXPECT_EQ( sorted( model ), sorted( kernel.truth() ) );
      EXPECT_EQ( model, kernel.truth() ) << "order";
   }
}

} // namespace
} // namespace Ipstated::Scripted
