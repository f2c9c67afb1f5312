// The questions to the views, answered from either family's records.

#include "tests/generic/World.h"

namespace Generic {
namespace {

using Velon::AddressFamily;
using Velon::IpGenAddrWithMask;

constexpr char mustOverride[] =
   "^assertion 'Must override in derived class' failed .source IpGen.\n$";
const Intf e1( "Ethernet1" ), e2( "Ethernet2" );

IpGenAddrWithMask
gen( std::string_view text ) {
   return IpGenAddrWithMask( text );
}

TEST( Views, AnswerFromIpv4Records ) {
   World< V4 > w;
   auto record = w.intfIs( "Ethernet1" );
   record->activeAddrWithMaskIs( v4( "10.0.0.1/24" ) );
   record->activeSecondaryWithMaskIs( v4( "10.0.1.1/24" ), true );
   record->activeSecondaryWithMaskIs( v4( "10.0.2.1/24" ), false );
   record->activeSecondaryWithMaskIs( v4( "10.0.0.1/24" ), false );
   record->useVirtualAddrIs( true );
   EXPECT_EQ( w.view->af(), AddressFamily::ipv4 );
   EXPECT_EQ( w.redView->af(), AddressFamily::ipv4 );
   for( auto addr : { "10.0.0.1/24", "10.0.1.1/24" } ) { // the primary one is compared first
      EXPECT_TRUE( w.view->addr( e1, gen( addr ) ) && w.redView->addr( e1, gen( addr ) ) ) << addr;
      EXPECT_FALSE( w.view->addr( e2, gen( addr ) ) || w.redView->addr( e2, gen( addr ) ) );
   }
   // Deliberate: a secondary stored with false is none. The length counts; the family decides
   // which part is asked for.
   for( auto addr : { "10.0.2.1/24", "10.0.0.1/16", "10.0.9.1/24", "fe80::1/64" } ) {
      EXPECT_FALSE( w.view->addr( e1, gen( addr ) ) || w.redView->addr( e1, gen( addr ) ) ) << addr;
   }
   EXPECT_EQ( w.view->activeAddr( e1 ), gen( "10.0.0.1/24" ) );
   EXPECT_EQ( w.redView->activeAddr( e1 ), gen( "10.0.0.1/24" ) );
}

TEST( Views, AnswerFromIpv6Records ) {
   World< V6 > w;
   auto record = w.intfIs( "Ethernet1" );
   addrIs( *record, "2001:db8::1/64" );
   EXPECT_EQ( w.view->af(), AddressFamily::ipv6 );
   EXPECT_EQ( w.redView->af(), AddressFamily::ipv6 );
   EXPECT_TRUE( w.view->addr( e1, gen( "2001:db8::1/64" ) ) );
   EXPECT_TRUE( w.redView->addr( e1, gen( "2001:db8::1/64" ) ) );
   for( auto addr : { "2001:db8::1/48", "2001:db8::2/64", "10.0.0.1/24" } ) {
      EXPECT_FALSE( w.view->addr( e1, gen( addr ) ) || w.redView->addr( e1, gen( addr ) ) ) << addr;
   }
   // Deliberate: a global address never stands for the interface.
   EXPECT_EQ( w.view->activeAddr( e1 ), IpGenAddrWithMask( record->linkLocalAddrWithMask() ) );
   EXPECT_TRUE( w.view->activeAddr( e1 ).v6Addr() == Velon::Ip6Addr() );
   addrIs( *record, "fe80::1/64" );
   EXPECT_EQ( w.view->activeAddr( e1 ), gen( "fe80::1/64" ) );
   EXPECT_EQ( w.redView->activeAddr( e1 ), gen( "fe80::1/64" ) );
}

TEST( Views, OfNoRecordKnowOfNothing ) {
   const IpGen::Status::Ptr all[] = { IpGen::ipv4StatusFactory( nullptr ),
                                      IpGen::ipv6StatusFactory( nullptr ) };
   for( const auto & view : all ) {
      EXPECT_FALSE( view->intf( e1 ) || view->vrfIpIntfStatus( Vrf( "red" ) ) );
      EXPECT_FALSE( view->intfInVrf( Vrf( "red" ), e1 ) || view->addr( e1, gen( "fe80::1/64" ) ) );
      EXPECT_EQ( view->vrf( e1 ), L3::VrfName() );
      EXPECT_EQ( view->activeAddr( e1 ), IpGenAddrWithMask() );
   }
   const IpGen::IntfStatus::Ptr ofVrf[] = { IpGen::ipv4IntfStatusFactory( nullptr ),
                                            IpGen::ipv6IntfStatusFactory( nullptr ) };
   for( const auto & view : ofVrf ) {
      EXPECT_FALSE( view->intf( e1 ) || view->dpRouting( e1 ) ||
                    view->addr( e1, gen( "10.0.0.1/24" ) ) );
      EXPECT_EQ( view->activeAddr( e1 ), IpGenAddrWithMask() );
   }
}

template< class F >
void
answersWhatIsThere() {
   World< F > w;
   auto record = w.intfIs( "Ethernet1" );
   F::vrfIs( *w.status, Vrf( "blue" ) );
   EXPECT_TRUE( w.view->intf( e1 ) && w.redView->intf( e1 ) );
   EXPECT_EQ( w.view->vrf( e1 ), Vrf( "default" ) );
   record->l3Status()->vrfIs( Vrf( "red" ) );
   EXPECT_EQ( w.view->vrf( e1 ), Vrf( "red" ) );
   EXPECT_TRUE( w.view->vrfIpIntfStatus( Vrf( "red" ) ) );
   EXPECT_FALSE( w.view->vrfIpIntfStatus( Vrf( "green" ) ) );
   EXPECT_TRUE( w.view->intfInVrf( Vrf( "red" ), e1 ) );
   EXPECT_FALSE( w.view->intfInVrf( Vrf( "blue" ), e1 ) );
   EXPECT_FALSE( w.view->intfInVrf( Vrf( "green" ), e1 ) );
   EXPECT_FALSE( w.redView->dpRouting( e1 ) );
   record->dpRoutingEnabledIs( true );
   EXPECT_TRUE( w.redView->dpRouting( e1 ) );
   // Nothing is known of an interface without a record.
   EXPECT_FALSE( w.view->intf( e2 ) || w.redView->intf( e2 ) || w.redView->dpRouting( e2 ) );
   EXPECT_EQ( w.view->vrf( e2 ), Vrf() );
   EXPECT_EQ( w.view->activeAddr( e2 ), IpGenAddrWithMask() );
   EXPECT_EQ( w.redView->activeAddr( e2 ), IpGenAddrWithMask() );
   EXPECT_FALSE( w.view->addr( e2, IpGenAddrWithMask() ) );
}

TEST( Views, KnowInterfacesAndVrfsOfBothFamilies ) {
   answersWhatIsThere< V4 >();
   answersWhatIsThere< V6 >();
}

TEST( Views, TellOfCountersAndForgetTheRecordOnReset ) {
   Tale tale;
   const auto view = IpGen::statusFactory();
   const auto intfs = IpGen::intfStatusFactory();
   const auto recorder = Zek::allocate< StatusRecorder >( view, tale );
   const auto intfRecorder = Zek::allocate< IntfRecorder >( intfs, tale );
   view->changedVrfIs( Vrf( "red" ) );
   view->changedIntfIs( e1 );
   view->changedAddrIs( gen( "10.0.0.1/24" ) );
   view->vrfCollectionChangedInc( 2 );
   view->intfInVrfChangedIs( 7 );
   view->intfInVrfChangedIs( 7 ); // silent
   view->reset();
   view->activeAddrChangedInc( 1 );
   intfs->changedIntfIs( e1 );
   intfs->changedAddrIs( gen( "10.0.0.1/24" ) );
   intfs->dpRoutingChangedInc( 3 );
   intfs->reset();
   intfs->intfStatusChangedInc( 1 );
   EXPECT_EQ( tale.seen(), "vrfCollectionChanged 2: red Ethernet1 10.0.0.1/24\n"
                           "intfInVrfChanged 7: red Ethernet1 10.0.0.1/24\n"
                           "activeAddrChanged 1: - - -\n"
                           "dpRoutingChanged 3: Ethernet1 10.0.0.1/24\n"
                           "intfStatusChanged 1: - -\n" );
   EXPECT_EQ( view->vrfCollectionChanged(), 2u );
   EXPECT_EQ( intfs->dpRoutingChanged(), 3u );
}

TEST( ViewsDeathTest, ABareViewAnswersNoQuestion ) {
   const auto s = IpGen::statusFactory();
   const auto i = IpGen::intfStatusFactory();
   const IpGenAddrWithMask a;
   EXPECT_DEATH( s->af(), mustOverride );
   EXPECT_DEATH( s->intf( e1 ), mustOverride );
   EXPECT_DEATH( s->vrf( e1 ), mustOverride );
   EXPECT_DEATH( s->vrfIpIntfStatus( Vrf( "red" ) ), mustOverride );
   EXPECT_DEATH( s->intfInVrf( Vrf( "red" ), e1 ), mustOverride );
   EXPECT_DEATH( s->addr( e1, a ), mustOverride );
   EXPECT_DEATH( s->activeAddr( e1 ), mustOverride );
   EXPECT_DEATH( i->af(), mustOverride );
   EXPECT_DEATH( i->intf( e1 ), mustOverride );
   EXPECT_DEATH( i->dpRouting( e1 ), mustOverride );
   EXPECT_DEATH( i->addr( e1, a ), mustOverride );
   EXPECT_DEATH( i->activeAddr( e1 ), mustOverride );
}

TEST( Views, ShowThePairOfInterfaceAndAddress ) {
   const IpGen::IntfAddrInfo pair( e1, Velon::IpGenAddr( "10.0.0.1" ) );
   EXPECT_EQ( pair.pretty().view(), "Ethernet1 10.0.0.1" );
   EXPECT_EQ( pair.toString().view(), "Value('IpGen::IntfAddrInfo', ** {'intfId': Ethernet1, "
                                      "'addr': 10.0.0.1})" );
   EXPECT_TRUE( !IpGen::IntfAddrInfo() );
   EXPECT_FALSE( !pair );
   const IpGen::IntfAddrInfo later( e1, Velon::IpGenAddr( "fe80::1" ) );
   EXPECT_TRUE( pair < later );
   EXPECT_TRUE( later < IpGen::IntfAddrInfo( e2, Velon::IpGenAddr() ) );
   EXPECT_EQ( pair.hash(), IpGen::IntfAddrInfo( e1, Velon::IpGenAddr( "10.0.0.1" ) ).hash() );
   EXPECT_NE( pair.hash(), later.hash() );
}

} // namespace
} // namespace Generic
