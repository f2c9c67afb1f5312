// The system-wide state machine: its announcements as stories, with the change record as it was at
// each increment.

#include "tests/generic/World.h"

#include <algorithm>
#include <stdexcept>

namespace Generic {
namespace {

// The machine over a world, with its recorder; made when the test says so.
template< class F >
struct StatusWorld : World< F > {
   Zek::Ptr< StatusRecorder > recorder = Zek::allocate< StatusRecorder >( this->view, this->tale );
   IpGen::StatusSm::Ptr machine;

   void start() { machine = IpGen::statusSmFactory( this->view ); }
   std::string record() const { return StatusRecorder::record( *this->view ); }
};

TEST( StatusSm, ReportsAddressesAtTheStartAndForgetsThem ) {
   StatusWorld< V4 > w;
   auto record = w.intfIs( "Ethernet1" );
   record->activeAddrWithMaskIs( v4( "10.0.0.1/24" ) );
   record->activeSecondaryWithMaskIs( v4( "10.0.2.1/24" ), false );
   record->activeSecondaryWithMaskIs( v4( "10.0.1.1/24" ), true );
   w.start();
   // Neither the VRF nor the interfaces in it are told of.
   EXPECT_EQ( w.seen(), "addrChanged 1: - Ethernet1 10.0.0.1/24\n"
                        "activeAddrChanged 1: - Ethernet1 10.0.0.1/24\n"
                        "addrChanged 2: - Ethernet1 10.0.1.1/24\n"
                        "addrChanged 3: - Ethernet1 10.0.2.1/24\n" );
   EXPECT_EQ( w.record(), " - - -" ); // Deliberate: valid only during the announcements
   EXPECT_TRUE( w.machine->initialized() );
   w.machine->handleInitialized(); // keeps its inputs
   EXPECT_EQ( w.seen(), "" );
   EXPECT_EQ( w.machine->ipv4IntfStatusCount(), 1u );
   EXPECT_EQ( w.machine->vrfIpv4StatusCount(), 1u );
   EXPECT_FALSE( w.machine->ipv6Status() );
}

TEST( StatusSm, FollowsIpv4Interfaces ) {
   StatusWorld< V4 > w;
   w.start();
   w.recorder->also = [&] {
      return w.machine->ipv4IntfStatusHas( Intf( "Ethernet1" ) ) ? " watched" : "";
   };
   auto record = V4::recordMade( Intf( "Ethernet1" ) );
   V4::is( *w.red, record );
   EXPECT_EQ( w.seen(), "intfInVrfChanged 1: red Ethernet1 -\n" );
   V4::is( *w.status, record ); // 0.0.0.0/0 is reported like any other
   EXPECT_EQ( w.seen(), "addrChanged 1: - Ethernet1 0.0.0.0/0 watched\n"
                        "activeAddrChanged 1: - Ethernet1 0.0.0.0/0 watched\n" );
   record->activeAddrWithMaskIs( v4( "10.0.0.1/24" ) );
   record->activeAddrWithMaskIs( v4( "10.0.0.1/24" ) );
   record->useVirtualAddrIs( true );
   record->dpRoutingEnabledIs( true );
   record->l3Status()->vrfIs( Vrf( "red" ) );
   EXPECT_EQ( w.seen(), "addrChanged 2: - Ethernet1 10.0.0.1/24 watched\n"
                        "activeAddrChanged 2: - Ethernet1 10.0.0.1/24 watched\n" );
   record->activeSecondaryWithMaskIs( v4( "10.0.1.1/24" ), true );
   record->activeSecondaryWithMaskIs( v4( "10.0.1.1/24" ), false );
   record->activeSecondaryWithMaskDel( v4( "10.0.1.1/24" ) );
   EXPECT_EQ( w.seen(), "addrChanged 3: - Ethernet1 10.0.1.1/24 watched\n"
                        "addrChanged 4: - Ethernet1 10.0.1.1/24 watched\n"
                        "addrChanged 5: - Ethernet1 10.0.1.1/24 watched\n" );
   V4::del( *w.status, Intf( "Ethernet1" ) ); // no report
   EXPECT_EQ( w.seen(), "" );
   V4::del( *w.red, Intf( "Ethernet1" ) );
   EXPECT_EQ( w.seen(), "intfInVrfChanged 2: red Ethernet1 -\n" );
   record->activeAddrWithMaskIs( v4( "10.0.0.2/24" ) );
   EXPECT_EQ( w.seen(), "" );
   EXPECT_EQ( w.record(), " - - -" );
}

TEST( StatusSm, FollowsIpv6AddressesAndTakesTheLinkLocalOneForActive ) {
   StatusWorld< V6 > w;
   auto present = w.intfIs( "Ethernet1" );
   addrIs( *present, "fe80::1/64" );
   w.start();
   EXPECT_EQ( w.seen(), "addrChanged 1: - Ethernet1 fe80::1/64\n"
                        "activeAddrChanged 1: - Ethernet1 fe80::1/64\n" );
   addrIs( *present, "2001:db8::1/64" );
   present->addrDel( v6( "fe80::1/64" ) );
   present->addrDel( v6( "2001:db8::1/64" ) );
   present->dpRoutingEnabledIs( true );
   EXPECT_EQ( w.seen(), "addrChanged 2: - Ethernet1 2001:db8::1/64\n"
                        "addrChanged 3: - Ethernet1 fe80::1/64\n"
                        "activeAddrChanged 2: - Ethernet1 fe80::1/64\n"
                        "addrChanged 4: - Ethernet1 2001:db8::1/64\n" );
   w.intfIs( "Ethernet1" ); // replaced: IPv6 reports nothing but the VRF's collection
   EXPECT_EQ( w.seen(), "intfInVrfChanged 1: red Ethernet1 -\n" );
   addrIs( *present, "fe80::2/64" ); // the old one is not watched any more
   w.intfDel( "Ethernet1" );
   EXPECT_EQ( w.seen(), "intfInVrfChanged 2: red Ethernet1 -\n" );
}

template< class F, class Count >
void
followsVrfs( Count count ) {
   StatusWorld< F > w;
   w.start();
   const Intf e1( "Ethernet1" );
   w.recorder->also = [&] { return ", VRFs watched: " + std::to_string( count( *w.machine ) ); };
   // The counter first, then the reactor: what joins in between is not reported.
   w.recorder->then = [&]( const std::string & what ) {
      if( what != "vrfCollectionChanged 1" ) return;
      F::is( *F::vrfIs( *w.status, Vrf( "blue" ) ), F::recordMade( e1 ) );
   };
   auto blue = F::vrfIs( *w.status, Vrf( "blue" ) );
   F::del( *blue, e1 );
   F::vrfDel( *w.status, Vrf( "blue" ) );
   F::is( *blue, F::recordMade( e1 ) ); // out of sight
   auto again = F::vrfIs( *w.status, Vrf( "blue" ) );
   F::is( *again, F::recordMade( e1 ) );
   EXPECT_EQ( w.seen(), "vrfCollectionChanged 1: blue - -, VRFs watched: 1\n"
                        "intfInVrfChanged 1: blue Ethernet1 -, VRFs watched: 2\n"
                        "vrfCollectionChanged 2: blue - -, VRFs watched: 2\n"
                        "vrfCollectionChanged 3: blue - -, VRFs watched: 1\n"
                        "intfInVrfChanged 2: blue Ethernet1 -, VRFs watched: 2\n" );
   EXPECT_EQ( w.record(), " - - -" );
}

TEST( StatusSm, FollowsVrfsOfBothFamilies ) {
   followsVrfs< V4 >( []( IpGen::StatusSm & m ) { return m.vrfIpv4StatusCount(); } );
   followsVrfs< V6 >( []( IpGen::StatusSm & m ) { return m.vrfIpv6StatusCount(); } );
}

TEST( StatusSm, TakesARecordReplacedUnderItsId ) {
   StatusWorld< V4 > w;
   auto old = w.intfIs( "Ethernet1" );
   w.start();
   w.seen();
   auto fresh = V4::recordMade( Intf( "Ethernet1" ) );
   fresh->activeAddrWithMaskIs( v4( "10.0.0.2/24" ) );
   fresh->activeSecondaryWithMaskIs( v4( "10.0.1.2/24" ), true );
   V4::is( *w.status, fresh ); // Deliberate: the primary address alone
   old->activeAddrWithMaskIs( v4( "10.0.0.9/24" ) );
   fresh->activeAddrWithMaskIs( v4( "10.0.0.3/24" ) );
   EXPECT_EQ( w.seen(), "addrChanged 2: - Ethernet1 10.0.0.2/24\n"
                        "activeAddrChanged 2: - Ethernet1 10.0.0.2/24\n"
                        "addrChanged 3: - Ethernet1 10.0.0.3/24\n"
                        "activeAddrChanged 3: - Ethernet1 10.0.0.3/24\n" );
   EXPECT_EQ( w.machine->ipv4IntfStatusCount(), 1u );
}

TEST( StatusSm, SleepsAsZombieAndResynchronisesOnDemand ) {
   StatusWorld< V4 > w;
   auto e1 = w.intfIs( "Ethernet1" );
   auto e2 = w.intfIs( "Ethernet2" );
   w.start();
   w.seen();
   w.machine->zekDoZombieReactors( true );
   e1->activeAddrWithMaskIs( v4( "10.0.0.1/24" ) );
   w.intfDel( "Ethernet2" );
   w.intfIs( "Ethernet3" );
   V4::vrfIs( *w.status, Vrf( "blue" ) );
   EXPECT_EQ( w.seen(), "" );
   w.machine->zekDoZombieReactors( false ); // nothing is made up for
   EXPECT_EQ( w.seen(), "" );
   e1->activeAddrWithMaskIs( v4( "10.0.0.2/24" ) );
   EXPECT_EQ( w.seen(), "addrChanged 3: - Ethernet1 10.0.0.2/24\n"
                        "activeAddrChanged 3: - Ethernet1 10.0.0.2/24\n" );
   EXPECT_TRUE( w.machine->ipv4IntfStatusHas( Intf( "Ethernet2" ) ) );
   w.machine->ipv4StatusReactor()->onIpIntfStatuszekImmediate();
   w.machine->ipv4StatusReactor()->onVrfIpIntfStatuszekImmediate();
   EXPECT_EQ( w.seen(), "addrChanged 4: - Ethernet3 0.0.0.0/0\n"
                        "activeAddrChanged 4: - Ethernet3 0.0.0.0/0\n" );
   EXPECT_FALSE( w.machine->ipv4IntfStatusHas( Intf( "Ethernet2" ) ) );
   EXPECT_EQ( w.machine->vrfIpv4StatusCount(), 2u );
   e2->activeAddrWithMaskIs( v4( "10.0.0.3/24" ) );
   EXPECT_EQ( w.seen(), "" );
}

TEST( StatusSm, BumpsNothingWhenItGoes ) {
   StatusWorld< V4 > w;
   auto record = w.intfIs( "Ethernet1" );
   w.start();
   w.seen();
   const auto reactor = w.machine->ipv4IntfStatus( Intf( "Ethernet1" ) );
   w.machine = nullptr;
   record->activeAddrWithMaskIs( v4( "10.0.0.1/24" ) );
   V4::vrfIs( *w.status, Vrf( "blue" ) );
   w.intfDel( "Ethernet1" );
   EXPECT_EQ( w.seen(), "" );
   EXPECT_FALSE( reactor->live() );
   EXPECT_FALSE( reactor->isRegisteredNotifiee() );
}

TEST( StatusSm, SurvivesANestedAddressChange ) {
   StatusWorld< V4 > w;
   auto record = w.intfIs( "Ethernet1" );
   w.start();
   w.seen();
   w.recorder->then = [&]( const std::string & what ) {
      if( what == "addrChanged 2" ) record->activeAddrWithMaskIs( v4( "10.0.0.2/24" ) );
   };
   record->activeAddrWithMaskIs( v4( "10.0.0.1/24" ) );
   // Deliberate: the nested handler leaves an empty record to the outer one.
   EXPECT_EQ( w.seen(), "addrChanged 2: - Ethernet1 10.0.0.1/24\n"
                        "addrChanged 3: - Ethernet1 10.0.0.2/24\n"
                        "activeAddrChanged 2: - Ethernet1 10.0.0.2/24\n"
                        "activeAddrChanged 3: - - -\n" );
   EXPECT_EQ( w.record(), " - - -" );
}

TEST( StatusSm, SurvivesRemovalAndReplacementInsideItsReports ) {
   StatusWorld< V4 > w;
   w.start();
   const Intf e1( "Ethernet1" );
   auto made = [&] {
      auto record = V4::recordMade( e1 );
      record->activeSecondaryWithMaskIs( v4( "10.0.1.1/24" ), true );
      record->activeSecondaryWithMaskIs( v4( "10.0.2.1/24" ), true );
      return record;
   };
   // Removed during its own start: the handler ends its steps, the rest is not told.
   w.recorder->then = [&]( const std::string & what ) {
      if( what == "addrChanged 2" ) V4::del( *w.status, e1 );
      // Replaced while its secondaries are told; nobody else holds the record then.
      if( what == "addrChanged 4" ) V4::is( *w.status, V4::recordMade( e1 ) );
   };
   V4::is( *w.status, made() );
   EXPECT_FALSE( w.machine->ipv4IntfStatusHas( e1 ) );
   V4::is( *w.status, made() );
   EXPECT_EQ( w.seen(), "addrChanged 1: - Ethernet1 0.0.0.0/0\n"
                        "activeAddrChanged 1: - Ethernet1 0.0.0.0/0\n"
                        "addrChanged 2: - Ethernet1 10.0.1.1/24\n"
                        "addrChanged 3: - Ethernet1 0.0.0.0/0\n"
                        "activeAddrChanged 2: - Ethernet1 0.0.0.0/0\n"
                        "addrChanged 4: - Ethernet1 10.0.1.1/24\n"
                        "addrChanged 5: - Ethernet1 0.0.0.0/0\n"
                        "activeAddrChanged 3: - Ethernet1 0.0.0.0/0\n"
                        "addrChanged 6: - Ethernet1 10.0.2.1/24\n" );
   EXPECT_EQ( w.machine->ipv4IntfStatus( e1 )->notifier(), w.status->ipIntfStatus( e1 ) );
   // The machine goes inside a report.
   w.recorder->then = [&]( const std::string & what ) {
      if( what == "addrChanged 7" ) w.machine = nullptr;
   };
   Zek::constCast( w.status->ipIntfStatus( e1 ) )->activeAddrWithMaskIs( v4( "10.0.0.1/24" ) );
   EXPECT_EQ( w.seen(), "addrChanged 7: - Ethernet1 10.0.0.1/24\n"
                        "activeAddrChanged 4: - Ethernet1 10.0.0.1/24\n" );
}

TEST( StatusSm, LetsExceptionsThroughAndGoesOn ) {
   StatusWorld< V4 > w;
   auto record = w.intfIs( "Ethernet1" );
   w.start();
   w.seen();
   w.recorder->then = [&]( const std::string & what ) {
      if( what == "addrChanged 2" || what == "addrChanged 4" ) throw std::runtime_error( what );
   };
   EXPECT_THROW( record->activeAddrWithMaskIs( v4( "10.0.0.1/24" ) ), std::runtime_error );
   EXPECT_EQ( record->activeAddrWithMask(), v4( "10.0.0.1/24" ) ); // stored all the same
   record->activeAddrWithMaskIs( v4( "10.0.0.2/24" ) );
   EXPECT_EQ( w.seen(), "addrChanged 2: - Ethernet1 10.0.0.1/24\n"
                        "addrChanged 3: - Ethernet1 10.0.0.2/24\n"
                        "activeAddrChanged 2: - Ethernet1 10.0.0.2/24\n" );
   // A start that throws ends its reports; the machine goes on watching.
   EXPECT_THROW( w.intfIs( "Ethernet2" ), std::runtime_error );
   Zek::constCast( w.status->ipIntfStatus( Intf( "Ethernet2" ) ) )
      ->activeAddrWithMaskIs( v4( "10.0.0.3/24" ) );
   EXPECT_EQ( w.seen(), "addrChanged 4: - Ethernet2 0.0.0.0/0\n"
                        "addrChanged 5: - Ethernet2 10.0.0.3/24\n"
                        "activeAddrChanged 3: - Ethernet2 10.0.0.3/24\n" );
}

// What a client throws in answer to an announcement leaves the mutator, after the machine has done
// what it must do itself.
template< class F, class Vrfs, class Intfs, class Resync >
void
followsAlsoWhenAClientThrows( Vrfs vrfs, Intfs intfs, Resync resync ) {
   StatusWorld< F > w;
   w.start();
   w.recorder->then = [&]( const std::string & what ) { throw std::runtime_error( what ); };
   EXPECT_THROW( F::vrfIs( *w.status, Vrf( "blue" ) ), std::runtime_error );
   EXPECT_EQ( vrfs( *w.machine ), 2u );
   EXPECT_THROW( F::vrfDel( *w.status, Vrf( "blue" ) ), std::runtime_error );
   EXPECT_EQ( vrfs( *w.machine ), 1u );
   // Many at once: the first exception leaves when all have their reactors.
   w.machine->zekDoZombieReactors( true );
   for( const char * name : { "Ethernet1", "Ethernet2", "Ethernet3" } ) {
      auto record = F::recordMade( Intf( name ) );
      if constexpr( std::is_same_v< F, V6 > ) addrIs( *record, "2001:db8::1/64" );
      F::is( *w.status, record );
   }
   w.machine->zekDoZombieReactors( false );
   w.seen();
   EXPECT_THROW( resync( *w.machine ), std::runtime_error );
   EXPECT_EQ( intfs( *w.machine ), 3u );
   const std::string told = w.seen();
   EXPECT_EQ( std::count( told.begin(), told.end(), '\n' ), 3 ) << told;
}

TEST( StatusSm, FollowsAlsoWhenAClientThrows ) {
   using Sm = IpGen::StatusSm;
   followsAlsoWhenAClientThrows< V4 >(
      []( Sm & m ) { return m.vrfIpv4StatusCount(); },
      []( Sm & m ) { return m.ipv4IntfStatusCount(); },
      []( Sm & m ) { m.ipv4StatusReactor()->onIpIntfStatuszekImmediate(); } );
   followsAlsoWhenAClientThrows< V6 >(
      []( Sm & m ) { return m.vrfIpv6StatusCount(); },
      []( Sm & m ) { return m.ipv6IntfStatusCount(); },
      []( Sm & m ) { m.ipv6StatusReactor()->onIntfzekImmediate(); } );
}

TEST( StatusSm, EndsAReactionWhoseReactorGoes ) {
   StatusWorld< V4 > w;
   w.start();
   w.recorder->then = [&]( const std::string & ) { w.machine->ipv4StatusDel(); };
   V4::vrfIs( *w.status, Vrf( "blue" ) );
   EXPECT_FALSE( w.machine->vrfIpv4StatusHas( Vrf( "blue" ) ) );
}

TEST( StatusSm, TracesEachHandler ) {
   Traces traces( "Ira::IpGenStatusSm/8" );
   constexpr char source[] = "Ira::IpGenStatusSm/8 IpGenStatusSm: ";
   auto lines = [&]( std::initializer_list< const char * > texts ) {
      std::string out;
      for( const char * text : texts ) out += source + std::string( text ) + "\n";
      return out;
   };
   StatusWorld< V4 > w;
   auto record = w.intfIs( "Ethernet1" );
   record->activeSecondaryWithMaskIs( v4( "10.0.1.1/24" ), true );
   w.start();
   V4::vrfIs( *w.status, Vrf( "blue" ) );
   V4::del( *w.red, Intf( "Ethernet1" ) );
   EXPECT_EQ( traces.seen(),
              lines( { "handleInitialized", "handleInitialized(IPv4)", "handlePrimaryAddr()",
                       "handleSecondaryAddr()", "handleSecondaryAddr(10.0.1.1/24)",
                       "handleVrf(blue)", "handleIntf(red, Ethernet1)" } ) );
   StatusWorld< V6 > six;
   addrIs( *six.intfIs( "Ethernet1" ), "fe80::1/64" );
   six.start();
   EXPECT_EQ( traces.seen(), lines( { "handleInitialized", "handleInitialized(IPv6)",
                                      "handleAddr()", "handleAddr(fe80::1/64)" } ) );
}

TEST( StatusSm, RefusesNullInputsByText ) {
   StatusWorld< V4 > w;
   w.start();
   const std::pair< const char *, std::function< void() > > rows[] = {
      { "vrfIpv4Status", [&] { w.machine->vrfIpv4StatusIs( nullptr ); } },
      { "vrfIpv6Status", [&] { w.machine->vrfIpv6StatusIs( nullptr ); } },
      { "ipv4IntfStatus", [&] { w.machine->ipv4IntfStatusIs( nullptr ); } },
      { "ipv6IntfStatus", [&] { w.machine->ipv6IntfStatusIs( nullptr ); } },
   };
   for( const auto & [name, mutator] : rows ) {
      try {
         mutator();
         ADD_FAILURE() << name;
      } catch( const Zek::RangeException & e ) {
         EXPECT_EQ( std::string( e.what() ),
                    "null _" + std::string( name ) +
                       " parameter to mutator for IpGen::StatusSm::" + name + " not allowed\"" );
      }
   }
   w.machine->ipv4StatusIs( nullptr ); // the single reactors: as Del
   EXPECT_FALSE( w.machine->ipv4StatusReactor() );
}

TEST( StatusSmDeathTest, MaintainsNoBareView ) {
   EXPECT_DEATH( IpGen::statusSmFactory( IpGen::statusFactory() ),
                 "^assertion 'Unsupported Address Family' failed .source IpGenStatusSm.\n$" );
}

} // namespace
} // namespace Generic
