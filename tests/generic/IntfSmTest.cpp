// The state machine of one VRF: its announcements as stories, with the change record as it was at
// each increment.

#include "tests/generic/World.h"

#include <stdexcept>

namespace Generic {
namespace {

template< class F >
struct IntfWorld : World< F > {
   Zek::Ptr< IntfRecorder > recorder = Zek::allocate< IntfRecorder >( this->redView, this->tale );
   IpGen::IntfSm::Ptr machine;

   void start() { machine = IpGen::intfSmFactory( this->redView ); }
   std::string record() const { return IntfRecorder::record( *this->redView ); }
};

TEST( IntfSm, FollowsIpv4InterfacesAndKeepsTheChangeRecord ) {
   IntfWorld< V4 > w;
   w.intfIs( "Ethernet9" )->activeAddrWithMaskIs( v4( "10.0.9.1/24" ) );
   w.start();
   // Interfaces found at the start report addresses alone: no presence, no forwarding.
   EXPECT_EQ( w.seen(), "addrChanged 1: Ethernet9 10.0.9.1/24\n"
                        "activeAddrChanged 1: Ethernet9 10.0.9.1/24\n" );
   EXPECT_EQ( w.record(), " Ethernet9 10.0.9.1/24" ); // Deliberate: kept until the next change
   w.machine->handleInitialized();
   EXPECT_EQ( w.seen(), "" );
   w.recorder->also = [&] {
      return w.machine->ipv4IntfStatusHas( Intf( "Ethernet1" ) ) ? " watched" : "";
   };
   auto record = V4::recordMade( Intf( "Ethernet1" ) );
   record->activeSecondaryWithMaskIs( v4( "10.0.1.1/24" ), false );
   record->dpRoutingEnabledIs( true );
   V4::is( *w.red, record );
   EXPECT_EQ( w.seen(), "intfStatusChanged 1: Ethernet1 -\n"
                        "addrChanged 2: Ethernet1 0.0.0.0/0 watched\n"
                        "activeAddrChanged 2: Ethernet1 0.0.0.0/0 watched\n"
                        "addrChanged 3: Ethernet1 10.0.1.1/24 watched\n" );
   record->activeAddrWithMaskIs( v4( "10.0.0.1/24" ) );
   record->dpRoutingEnabledIs( false );
   EXPECT_EQ( w.record(), " Ethernet1 -" ); // forwarding names no address
   record->dpRoutingEnabledIs( true );
   record->activeSecondaryWithMaskDel( v4( "10.0.1.1/24" ) );
   EXPECT_EQ( w.record(), " Ethernet1 10.0.1.1/24" );
   V4::del( *w.red, Intf( "Ethernet1" ) );
   record->activeAddrWithMaskIs( v4( "10.0.0.2/24" ) );
   EXPECT_EQ( w.seen(), "addrChanged 4: Ethernet1 10.0.0.1/24 watched\n"
                        "activeAddrChanged 3: Ethernet1 10.0.0.1/24 watched\n"
                        "dpRoutingChanged 1: Ethernet1 - watched\n"
                        "dpRoutingChanged 2: Ethernet1 - watched\n"
                        "addrChanged 5: Ethernet1 10.0.1.1/24 watched\n"
                        "intfStatusChanged 2: Ethernet1 - watched\n" );
   EXPECT_EQ( w.record(), " Ethernet1 -" );
}

TEST( IntfSm, FollowsIpv6Interfaces ) {
   IntfWorld< V6 > w;
   w.start();
   auto record = w.intfIs( "Ethernet1" ); // joins without an address: nothing but its presence
   addrIs( *record, "fe80::1/64" );
   addrIs( *record, "2001:db8::1/64" );
   record->dpRoutingEnabledIs( true );
   record->addrDel( v6( "fe80::1/64" ) );
   EXPECT_EQ( w.seen(), "intfStatusChanged 1: Ethernet1 -\n"
                        "addrChanged 1: Ethernet1 fe80::1/64\n"
                        "activeAddrChanged 1: Ethernet1 fe80::1/64\n"
                        "addrChanged 2: Ethernet1 2001:db8::1/64\n"
                        "dpRoutingChanged 1: Ethernet1 -\n"
                        "addrChanged 3: Ethernet1 fe80::1/64\n"
                        "activeAddrChanged 2: Ethernet1 fe80::1/64\n" );
   auto fresh = V6::recordMade( Intf( "Ethernet1" ) );
   addrIs( *fresh, "fe80::2/64" );
   V6::is( *w.red, fresh ); // Deliberate: replaced, its forwarding alone is told again
   addrIs( *record, "fe80::3/64" );
   w.intfDel( "Ethernet1" );
   EXPECT_EQ( w.seen(), "intfStatusChanged 2: Ethernet1 -\n"
                        "dpRoutingChanged 2: Ethernet1 -\n"
                        "intfStatusChanged 3: Ethernet1 -\n" );
   EXPECT_EQ( w.record(), " Ethernet1 -" );
}

TEST( IntfSm, TakesARecordReplacedUnderItsId ) {
   IntfWorld< V4 > w;
   auto old = w.intfIs( "Ethernet1" );
   w.start();
   w.seen();
   auto fresh = V4::recordMade( Intf( "Ethernet1" ) );
   fresh->activeAddrWithMaskIs( v4( "10.0.0.2/24" ) );
   fresh->activeSecondaryWithMaskIs( v4( "10.0.1.2/24" ), true );
   V4::is( *w.red, fresh );
   old->dpRoutingEnabledIs( true );
   fresh->dpRoutingEnabledIs( true );
   EXPECT_EQ( w.seen(), "intfStatusChanged 1: Ethernet1 -\n"
                        "dpRoutingChanged 1: Ethernet1 -\n"
                        "addrChanged 2: Ethernet1 10.0.0.2/24\n"
                        "activeAddrChanged 2: Ethernet1 10.0.0.2/24\n"
                        "dpRoutingChanged 2: Ethernet1 -\n" );
}

TEST( IntfSm, MovesToAnotherViewOfEitherFamily ) {
   IntfWorld< V4 > w;
   auto e1 = w.intfIs( "Ethernet1" );
   auto blue = V4::vrfIs( *w.status, Vrf( "blue" ) );
   auto e2 = V4::recordMade( Intf( "Ethernet2" ) );
   V4::is( *blue, e2 );
   w.start();
   w.machine->IntfSmIs( w.redView ); // the same: nothing
   w.seen();
   const auto blueView = V4::viewOf( blue );
   const auto blueRecorder = Zek::allocate< IntfRecorder >( blueView, w.tale );
   w.machine->IntfSmIs( blueView );
   e1->activeAddrWithMaskIs( v4( "10.0.0.1/24" ) );
   V4::del( *w.red, Intf( "Ethernet1" ) );
   e2->activeAddrWithMaskIs( v4( "10.0.0.2/24" ) );
   EXPECT_EQ( w.seen(), "addrChanged 1: Ethernet2 0.0.0.0/0\n"
                        "activeAddrChanged 1: Ethernet2 0.0.0.0/0\n"
                        "addrChanged 2: Ethernet2 10.0.0.2/24\n"
                        "activeAddrChanged 2: Ethernet2 10.0.0.2/24\n" );
   EXPECT_EQ( w.machine->ipv4IntfStatusCount(), 1u );
   World< V6 > six;
   auto e3 = six.intfIs( "Ethernet3" );
   const auto sixRecorder = Zek::allocate< IntfRecorder >( six.redView, w.tale );
   w.machine->IntfSmIs( six.redView );
   e2->activeAddrWithMaskIs( v4( "10.0.0.3/24" ) );
   addrIs( *e3, "fe80::1/64" );
   EXPECT_EQ( w.seen(), "addrChanged 1: Ethernet3 fe80::1/64\n"
                        "activeAddrChanged 1: Ethernet3 fe80::1/64\n" );
   EXPECT_FALSE( w.machine->ipv4Status() );
   EXPECT_EQ( w.machine->ipv4IntfStatusCount(), 0u );
}

TEST( IntfSm, MovesInsideAReport ) {
   IntfWorld< V4 > w;
   auto e1 = w.intfIs( "Ethernet1" );
   w.start();
   w.seen();
   const auto blueView = V4::viewOf( V4::vrfIs( *w.status, Vrf( "blue" ) ) );
   w.recorder->then = [&]( const std::string & what ) {
      if( what == "addrChanged 2" ) w.machine->IntfSmIs( blueView );
   };
   e1->activeAddrWithMaskIs( v4( "10.0.0.1/24" ) ); // the handler ends on the old view
   e1->activeAddrWithMaskIs( v4( "10.0.0.2/24" ) );
   EXPECT_EQ( w.seen(), "addrChanged 2: Ethernet1 10.0.0.1/24\n"
                        "activeAddrChanged 2: Ethernet1 10.0.0.1/24\n" );
   EXPECT_EQ( w.machine->intfStatus(), blueView );
}

TEST( IntfSm, SleepsAsZombieAndBumpsNothingWhenItGoes ) {
   IntfWorld< V6 > w;
   auto e1 = w.intfIs( "Ethernet1" );
   w.start();
   w.machine->zekDoZombieReactors( true );
   addrIs( *e1, "fe80::1/64" );
   w.intfIs( "Ethernet2" );
   w.machine->zekDoZombieReactors( false );
   EXPECT_EQ( w.seen(), "" );
   e1->dpRoutingEnabledIs( true );
   w.machine->ipv6StatusReactor()->onIp6IntfStatuszekImmediate();
   EXPECT_EQ( w.seen(), "dpRoutingChanged 1: Ethernet1 -\n" );
   EXPECT_EQ( w.machine->ipv6IntfStatusCount(), 2u );
   // One reactor alone may sleep, also while its record is replaced.
   w.machine->ipv6IntfStatus( Intf( "Ethernet1" ) )->zekDoZombieReactors( true );
   auto fresh = w.intfIs( "Ethernet1" );
   addrIs( *fresh, "fe80::2/64" );
   EXPECT_EQ( w.seen(), "intfStatusChanged 1: Ethernet1 -\n" );
   w.machine->ipv6IntfStatus( Intf( "Ethernet1" ) )->zekDoZombieReactors( false );
   addrIs( *fresh, "2001:db8::1/64" );
   EXPECT_EQ( w.seen(), "addrChanged 1: Ethernet1 2001:db8::1/64\n" );
   w.machine = nullptr;
   fresh->dpRoutingEnabledIs( true );
   w.intfDel( "Ethernet1" );
   EXPECT_EQ( w.seen(), "" );
   EXPECT_EQ( w.record(), " Ethernet1 2001:db8::1/64" );
}

TEST( IntfSm, SurvivesNestedChangesAndExceptions ) {
   IntfWorld< V4 > w;
   w.start();
   const Intf e1( "Ethernet1" );
   auto record = V4::recordMade( e1 );
   w.recorder->then = [&]( const std::string & what ) {
      if( what == "intfStatusChanged 1" ) V4::del( *w.red, e1 ); // gone before it has a reactor
      if( what == "addrChanged 2" ) record->activeAddrWithMaskIs( v4( "10.0.0.2/24" ) );
      if( what == "addrChanged 4" ) throw std::runtime_error( what );
   };
   V4::is( *w.red, record );
   EXPECT_EQ( w.machine->ipv4IntfStatusCount(), 0u );
   V4::is( *w.red, record );
   record->activeAddrWithMaskIs( v4( "10.0.0.1/24" ) );
   // Deliberate: the outer handler goes on with what the nested one left.
   EXPECT_EQ( w.seen(), "intfStatusChanged 1: Ethernet1 -\n"
                        "intfStatusChanged 2: Ethernet1 -\n"
                        "intfStatusChanged 3: Ethernet1 -\n"
                        "addrChanged 1: Ethernet1 0.0.0.0/0\n"
                        "activeAddrChanged 1: Ethernet1 0.0.0.0/0\n"
                        "addrChanged 2: Ethernet1 10.0.0.1/24\n"
                        "addrChanged 3: Ethernet1 10.0.0.2/24\n"
                        "activeAddrChanged 2: Ethernet1 10.0.0.2/24\n"
                        "activeAddrChanged 3: Ethernet1 10.0.0.2/24\n" );
   EXPECT_THROW( record->activeAddrWithMaskIs( v4( "10.0.0.3/24" ) ), std::runtime_error );
   record->activeAddrWithMaskIs( v4( "10.0.0.4/24" ) );
   EXPECT_EQ( w.seen(), "addrChanged 4: Ethernet1 10.0.0.3/24\n"
                        "addrChanged 5: Ethernet1 10.0.0.4/24\n"
                        "activeAddrChanged 4: Ethernet1 10.0.0.4/24\n" );
}

// What a client throws in answer to an announcement leaves the mutator, after the machine has done
// what it must do itself.
TEST( IntfSm, FollowsAlsoWhenAClientThrows ) {
   IntfWorld< V4 > four;
   IntfWorld< V6 > six;
   four.start();
   six.start();
   four.recorder->then = six.recorder->then = []( const std::string & what ) {
      if( what.starts_with( "intfStatusChanged" ) ) throw std::runtime_error( what );
   };
   const Intf e1( "Ethernet1" );
   EXPECT_THROW( V4::is( *four.red, V4::recordMade( e1 ) ), std::runtime_error );
   EXPECT_THROW( V6::is( *six.red, V6::recordMade( e1 ) ), std::runtime_error );
   EXPECT_TRUE( four.machine->ipv4IntfStatusHas( e1 ) );
   EXPECT_TRUE( six.machine->ipv6IntfStatusHas( e1 ) );
   EXPECT_THROW( V4::del( *four.red, e1 ), std::runtime_error );
   EXPECT_THROW( V6::del( *six.red, e1 ), std::runtime_error );
   EXPECT_FALSE( four.machine->ipv4IntfStatusHas( e1 ) );
   EXPECT_FALSE( six.machine->ipv6IntfStatusHas( e1 ) );
}

TEST( IntfSm, EndsAReactionWhoseReactorGoes ) {
   IntfWorld< V4 > w;
   const Intf e1( "Ethernet1" );
   w.intfIs( "Ethernet1" );
   w.start();
   w.seen();
   const auto reactor = w.machine->ipv4IntfStatus( e1 );
   w.recorder->then = [&]( const std::string & what ) {
      if( what == "dpRoutingChanged 1" ) w.machine->ipv4IntfStatusDel( e1 );
   };
   reactor->notifierIs( V4::recordMade( e1 ) ); // forwarding first, then the primary address
   EXPECT_EQ( w.seen(), "dpRoutingChanged 1: Ethernet1 -\n" );
   EXPECT_FALSE( reactor->isRegisteredNotifiee() );
}

TEST( IntfSm, TracesEachHandler ) {
   Traces traces( "Ira::IpGenIntfSm/8" );
   auto lines = [&]( std::initializer_list< const char * > texts ) {
      std::string out;
      for( const char * t : texts )
         out += std::string( "Ira::IpGenIntfSm/8 IpGenIntfSm: " ) + t + "\n";
      return out;
   };
   IntfWorld< V4 > w;
   w.start();
   auto record = V4::recordMade( Intf( "Ethernet1" ) );
   record->activeSecondaryWithMaskIs( v4( "10.0.1.1/24" ), true );
   V4::is( *w.red, record );
   record->dpRoutingEnabledIs( true );
   EXPECT_EQ( traces.seen(), lines( { "handleInitialized", "handleInitialized(IPv4)",
                                      "handleIntfStatus(Ethernet1)", "handlePrimaryAddr()",
                                      "handleSecondaryAddr()", "handleSecondaryAddr(10.0.1.1/24)",
                                      "handleDpRouting(Ethernet1)" } ) );
   IntfWorld< V6 > six;
   addrIs( *six.intfIs( "Ethernet1" ), "fe80::1/64" );
   six.start();
   EXPECT_EQ( traces.seen(), lines( { "handleInitialized", "handleInitialized(IPv6)",
                                      "handleAddr()", "handleAddr(fe80::1/64)" } ) );
}

TEST( IntfSm, RefusesNullInputsByText ) {
   IntfWorld< V4 > w;
   w.start();
   const std::pair< std::string, std::function< void() > > rows[] = {
      { "ipv4IntfStatus", [&] { w.machine->ipv4IntfStatusIs( nullptr ); } },
      { "ipv6IntfStatus", [&] { w.machine->ipv6IntfStatusIs( nullptr ); } },
   };
   for( const auto & [name, mutator] : rows ) {
      try {
         mutator();
         ADD_FAILURE() << name;
      } catch( const Zek::RangeException & e ) {
         EXPECT_EQ( e.what(), "null _" + name + " parameter to mutator for IpGen::IntfSm::" + name +
                                 " not allowed\"" );
      }
   }
}

TEST( IntfSmDeathTest, MaintainsNoBareView ) {
   EXPECT_DEATH( IpGen::intfSmFactory( IpGen::intfStatusFactory() ),
                 "^assertion 'A derived type of IntfStatus must be supplied as a constructor arg' "
                 "failed .source IpGenIntfSm.\n$" );
}

} // namespace
} // namespace Generic
