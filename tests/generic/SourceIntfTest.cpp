// The source-interface registries: over IPv4 records and over the views of either family, of the
// system and of one VRF.

#include "tests/generic/World.h"

#include "Ip/SrcIntf.h"
#include "IpGen/SrcGenIntf.h"

#include <stdexcept>

namespace Generic {
namespace {

const Intf e1( "Ethernet1" ), e2( "Ethernet2" );

/// Tells of a directory's members and of the addresses of one record.
template< class Dir, class Record >
class Watcher final : public Dir::NotifieeConst {
 public:
   class OfRecord final : public Record::NotifieeConst {
    public:
      OfRecord( const Zek::Ptr< Record > & record, Tale & tale ) : tale_( tale ) {
         this->notifierIs( record );
         this->isRegisteredNotifieeIs( true );
      }
      std::function< void() > then;
      void onIpAddr() override {
         const auto record = this->notifier();
         tale_.tell( record->intfId().toString() + " " + orDash( record->ipAddr().toString() ) );
         if( then ) then();
      }
      Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override {
         return allocTrackTypeInfo_;
      }
      static inline Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "OfRecord", 0 };

    private:
      Tale & tale_;
   };

   Watcher( const Zek::Ptr< Dir > & dir, Tale & tale ) : tale_( tale ) {
      this->notifierIs( dir );
      this->isRegisteredNotifieeIs( true );
   }
   void onSourceIntf( const Intf & key ) override {
      const auto record = Zek::constCast( this->notifier() )->sourceIntf( key );
      tale_.tell( key.toString() + ( record ? " added" : " removed" ) );
      if( record ) clients[key] = Zek::allocate< OfRecord >( record, tale_ );
   }
   std::map< Intf, Zek::Ptr< OfRecord > > clients;
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "Watcher", 0 };

 private:
   Tale & tale_;
};

void
activeIs( Ip::IpIntfStatus & record, std::string_view addr ) {
   record.activeAddrWithMaskIs( v4( addr ) );
}
void
activeIs( Ip6::IntfStatus & record, std::string_view addr ) {
   record.addrDelAll();
   addrIs( record, addr );
}

// The six kinds of registry. Those over views have the machine that maintains the view.

struct OverIpv4 {
   using Family = V4;
   using Dir = Ip::SourceIntf::SourceIntfDir;
   using Record = Ip::SourceIntf::SourceIntf;
   static constexpr char none[] = "0.0.0.0";
   static constexpr char one[] = "10.0.0.1/24", two[] = "10.0.0.2/24";
   static constexpr char shownOne[] = "10.0.0.1", shownTwo[] = "10.0.0.2";
   explicit OverIpv4( World< V4 > & ) {}
};
struct Ipv4System : OverIpv4 {
   using Machine = Ip::SourceIntf::SourceIntfSm;
   using OverIpv4::OverIpv4;
   static Machine::Ptr made( World< V4 > & w, const Zek::Ptr< Dir > & dir ) {
      return Ip::SourceIntf::sourceIntfSmFactory( dir, w.status );
   }
};
struct Ipv4OfVrf : OverIpv4 {
   using Machine = Ip::SourceIntf::VrfSourceIntfSm;
   using OverIpv4::OverIpv4;
   static Machine::Ptr made( World< V4 > & w, const Zek::Ptr< Dir > & dir ) {
      return Ip::SourceIntf::vrfSourceIntfSmFactory( dir, w.red );
   }
};
template< class F >
struct OverView {
   using Family = F;
   using Dir = IpGen::SourceIntf::SourceIntfDir;
   using Record = IpGen::SourceIntf::SourceIntf;
   static constexpr bool six = std::is_same_v< F, V6 >;
   static constexpr char none[] = "-";
   static constexpr const char * one = six ? "fe80::1/64" : "10.0.0.1/24";
   static constexpr const char * two = six ? "fe80::2/64" : "10.0.0.2/24";
   static constexpr const char * shownOne = six ? "fe80::1" : "10.0.0.1";
   static constexpr const char * shownTwo = six ? "fe80::2" : "10.0.0.2";
};
template< class F >
struct GenericSystem : OverView< F > {
   using Machine = IpGen::SourceIntf::SourceIntfSm;
   IpGen::StatusSm::Ptr maintainer;
   explicit GenericSystem( World< F > & w ) : maintainer( IpGen::statusSmFactory( w.view ) ) {}
   static Machine::Ptr made( World< F > & w,
                             const Zek::Ptr< IpGen::SourceIntf::SourceIntfDir > & dir ) {
      return IpGen::SourceIntf::sourceIntfSmFactory( dir, w.view );
   }
};
template< class F >
struct GenericOfVrf : OverView< F > {
   using Machine = IpGen::SourceIntf::VrfSourceIntfSm;
   IpGen::IntfSm::Ptr maintainer;
   explicit GenericOfVrf( World< F > & w ) : maintainer( IpGen::intfSmFactory( w.redView ) ) {}
   static Machine::Ptr made( World< F > & w,
                             const Zek::Ptr< IpGen::SourceIntf::SourceIntfDir > & dir ) {
      return IpGen::SourceIntf::vrfSourceIntfSmFactory( dir, w.redView );
   }
};

/// A world with one registry over it.
template< class Kind >
struct Registered : World< typename Kind::Family > {
   using F = typename Kind::Family;
   using W = Watcher< typename Kind::Dir, typename Kind::Record >;
   Kind kind{ *this };
   Zek::Ptr< typename Kind::Dir > dir =
      Zek::allocate< typename Kind::Dir >( Zek::Name( "sources" ) );
   Zek::Ptr< W > watcher = Zek::allocate< W >( dir, this->tale );
   typename Kind::Machine::Ptr machine = Kind::made( *this, dir );

   /// Appears complete with its active address.
   auto intfWithAddr( Intf id, const char * addr ) {
      auto record = F::recordMade( id );
      activeIs( *record, addr );
      F::is( *this->status, record );
      F::is( *this->red, record );
      return record;
   }
   auto & client( Intf id ) { return *watcher->clients.at( id ); }
};

template< class Kind >
class Registries : public testing::Test {};
using Kinds = testing::Types< Ipv4System, Ipv4OfVrf, GenericSystem< V4 >, GenericSystem< V6 >,
                              GenericOfVrf< V4 >, GenericOfVrf< V6 > >;
TYPED_TEST_SUITE( Registries, Kinds );

TYPED_TEST( Registries, FollowAnInterfaceThatComesChangesAndGoes ) {
   using K = TypeParam;
   Registered< K > w;
   EXPECT_TRUE( w.machine->initialized() );
   w.machine->initializedIs( false );
   w.machine->handleInitialized();
   EXPECT_TRUE( w.machine->initialized() );
   const std::string one = K::shownOne, two = K::shownTwo;
   const auto sip = w.machine->registerSourceIntf( e1 );
   EXPECT_EQ( orDash( sip->ipAddr().toString() ), K::none );
   w.intfWithAddr( e1, K::one );
   w.intfWithAddr( e2, K::two ); // not registered
   EXPECT_EQ( w.machine->registerSourceIntf( e1 ), sip );
   EXPECT_EQ( sip->refCnt(), 2u );
   w.machine->unregisterSourceIntf( sip );
   EXPECT_EQ( sip->refCnt(), 1u );
   w.intfDel( "Ethernet1" );
   EXPECT_EQ( w.seen(), "Ethernet1 added\n"
                        "Ethernet1 " +
                           one +
                           "\n"
                           "Ethernet1 0.0.0.0\n" ); // Deliberate: in every family
   EXPECT_EQ( w.dir->sourceIntf( e1 ), sip );
   w.intfWithAddr( e1, K::two );
   w.machine->registerSourceIntf( e2 );
   w.machine->unregisterSourceIntf( sip );
   EXPECT_EQ( w.seen(), "Ethernet1 " + two + "\nEthernet2 added\nEthernet2 " + two +
                           "\nEthernet1 removed\n" );
   EXPECT_EQ( w.dir->sourceIntfCount(), 1u );
   w.machine = nullptr; // clears nothing
   w.intfDel( "Ethernet2" );
   EXPECT_EQ( w.seen(), "" );
   EXPECT_EQ( w.dir->sourceIntf( e2 )->ipAddr().toString(), two );
}

TYPED_TEST( Registries, RemoveARecordAtTheExactCountZeroOnly ) {
   Registered< TypeParam > w;
   const auto sip = w.machine->registerSourceIntf( e1 );
   sip->refCntIs( 0 );
   w.machine->unregisterSourceIntf( sip ); // Deliberate: wraps, and stays
   EXPECT_EQ( sip->refCnt(), 0xffffffffu );
   w.machine->registerSourceIntf( e1 ); // back to 0 from below: stays too
   EXPECT_EQ( sip->refCnt(), 0u );
   EXPECT_EQ( w.dir->sourceIntf( e1 ), sip );
   sip->refCntIs( 1 );
   w.machine->unregisterSourceIntf( sip );
   w.machine->unregisterSourceIntf( sip ); // once too often, on the record that left
   EXPECT_EQ( sip->refCnt(), 0xffffffffu );
   EXPECT_EQ( w.seen(), "Ethernet1 added\nEthernet1 removed\n" );
}

TYPED_TEST( Registries, LetClientsRegisterAndUnregisterInsideANotification ) {
   using K = TypeParam;
   Registered< K > w;
   const std::string one = K::shownOne;
   auto sip = w.machine->registerSourceIntf( e1 );
   w.client( e1 ).then = [&] {
      if( !sip ) return;
      w.machine->registerSourceIntf( e2 );
      const auto mine = std::exchange( sip, nullptr );
      w.machine->unregisterSourceIntf( mine );
   };
   w.intfWithAddr( e1, K::one );
   EXPECT_EQ( w.seen(), "Ethernet1 added\n"
                        "Ethernet1 " +
                           one +
                           "\n"
                           "Ethernet2 added\n"
                           "Ethernet1 removed\n" );
   EXPECT_FALSE( w.dir->sourceIntf( e1 ) );
   w.intfDel( "Ethernet1" );
   // Registered while the address is being filled in: one record, two users.
   w.intfWithAddr( e1, K::one );
   w.seen();
   bool again = true;
   auto found = w.machine->registerSourceIntf( e1 );
   EXPECT_EQ( found->refCnt(), 1u );
   w.client( e1 ).then = [&] {
      if( std::exchange( again, false ) ) w.machine->registerSourceIntf( e1 );
   };
   w.intfDel( "Ethernet1" );
   EXPECT_EQ( found->refCnt(), 2u );
   EXPECT_EQ( w.seen(), "Ethernet1 added\nEthernet1 " + one + "\nEthernet1 0.0.0.0\n" );
}

TYPED_TEST( Registries, PassAnExceptionOfAClientOn ) {
   using K = TypeParam;
   Registered< K > w;
   auto sip = w.machine->registerSourceIntf( e1 );
   auto record = w.intfWithAddr( e1, K::one );
   w.client( e1 ).then = [] { throw std::runtime_error( "client" ); };
   EXPECT_THROW( activeIs( *record, K::two ), std::runtime_error );
   EXPECT_THROW( w.intfDel( "Ethernet1" ), std::runtime_error );
   w.client( e1 ).then = nullptr;
   w.intfDel( "Ethernet1" ); // the half that was not reached
   // What was stored stays stored, and the next changes are followed.
   EXPECT_EQ( sip->ipAddr().toString(), "0.0.0.0" );
   activeIs( *w.intfWithAddr( e1, K::one ), K::two );
   EXPECT_EQ( sip->ipAddr().toString(), K::shownTwo );
}

// -- What differs between the kinds -----------------------------------------------------------

TEST( Ipv4Registries, TellNothingOfAChangedMask ) {
   Registered< Ipv4System > w;
   w.machine->registerSourceIntf( e1 );
   auto record = w.intfWithAddr( e1, "10.0.0.1/24" );
   w.seen();
   record->activeAddrWithMaskIs( v4( "10.0.0.1/16" ) );
   record->useVirtualAddrIs( true );
   EXPECT_EQ( w.seen(), "" );
}

template< class Kind >
void
takesARecordReplaced() {
   Registered< Kind > w;
   auto sip = w.machine->registerSourceIntf( e1 );
   w.intfWithAddr( e1, "10.0.0.1/24" );
   w.intfWithAddr( e1, "10.0.0.2/24" ); // no clearing in between
   EXPECT_EQ( w.seen(), "Ethernet1 added\nEthernet1 10.0.0.1\nEthernet1 10.0.0.2\n" );
   // A machine made over records that are there fills what is registered.
   w.intfWithAddr( e2, "10.0.0.3/24" );
   w.machine = nullptr;
   w.dir->sourceIntfIs( e2 );
   w.machine = Kind::made( w, w.dir );
   EXPECT_EQ( w.seen(), "Ethernet2 added\nEthernet2 10.0.0.3\n" );
   // Dropping all reactors is as if all interfaces were gone.
   w.machine->ipIntfStatusDelAll();
   EXPECT_EQ( sip->ipAddr().toString(), "0.0.0.0" );
   EXPECT_EQ( w.machine->ipIntfStatusCount(), 0u );
}

TEST( Ipv4Registries, TakeARecordReplacedAndFillAtTheStart ) {
   takesARecordReplaced< Ipv4System >();
   takesARecordReplaced< Ipv4OfVrf >();
}

TEST( Ipv4Registries, LetAReactorGoAlsoWhenTheClientThrows ) {
   Registered< Ipv4System > w;
   w.machine->registerSourceIntf( e1 );
   w.intfWithAddr( e1, "10.0.0.1/24" );
   const auto reactor = w.machine->ipIntfStatus( e1 );
   w.client( e1 ).then = [] { throw std::runtime_error( "client" ); };
   EXPECT_THROW( w.machine->ipIntfStatusDel( e1 ), std::runtime_error );
   EXPECT_FALSE( reactor->live() );
   EXPECT_FALSE( w.machine->ipIntfStatusHas( e1 ) );
}

TEST( Ipv4Registries, RefuseNullInputsByText ) {
   Registered< Ipv4System > system;
   Registered< Ipv4OfVrf > vrf;
   auto refused = []( auto & machine ) -> std::string {
      try {
         machine.ipIntfStatusIs( nullptr );
      } catch( const Zek::RangeException & e ) {
         return e.what();
      }
      return "";
   };
   EXPECT_EQ( refused( *system.machine ), "null _ipIntfStatus parameter to mutator for "
                                          "Ip::SourceIntf::SourceIntfSm::ipIntfStatus not "
                                          "allowed\"" );
   EXPECT_EQ( refused( *vrf.machine ), "null _ipIntfStatus parameter to mutator for "
                                       "Ip::SourceIntf::VrfSourceIntfSm::ipIntfStatus not "
                                       "allowed\"" );
}

TEST( GenericRegistries, KeepTheAddressOfAnInterfaceThatLeavesItsVrfFirst ) {
   // Deliberate: nothing announces the second step.
   Registered< GenericSystem< V6 > > w;
   auto sip = w.machine->registerSourceIntf( e1 );
   w.intfWithAddr( e1, "fe80::1/64" );
   V6::del( *w.red, e1 );
   V6::del( *w.status, e1 );
   EXPECT_EQ( sip->ipAddr().toString(), "fe80::1" );
}

TEST( GenericRegistries, ClearToTheIpv4ZeroWhichIsNotTheEmptyAddress ) {
   Registered< GenericSystem< V6 > > w;
   auto sip = w.machine->registerSourceIntf( e1 );
   EXPECT_TRUE( sip->ipAddr().empty() );
   w.machine->handleIntf( e1 );
   EXPECT_EQ( sip->ipAddr(), Velon::IpGenAddr( Velon::IpAddr() ) );
   EXPECT_FALSE( sip->ipAddr() == Velon::IpGenAddr() );
}

TEST( GenericRegistries, RefreshAtTheStartTheOneInterfaceThatTheViewNames ) {
   Registered< GenericOfVrf< V4 > > w;
   auto one = w.machine->registerSourceIntf( e1 ), two = w.machine->registerSourceIntf( e2 );
   w.machine = nullptr;
   auto record = w.intfWithAddr( e1, "10.0.0.1/24" );
   w.intfWithAddr( e2, "10.0.0.2/24" );
   w.machine = IpGen::SourceIntf::vrfSourceIntfSmFactory( w.dir, w.redView );
   EXPECT_TRUE( one->ipAddr().empty() );
   EXPECT_EQ( two->ipAddr().toString(), "10.0.0.2" );
   record->activeAddrWithMaskIs( v4( "10.0.0.3/24" ) );
   EXPECT_EQ( one->ipAddr().toString(), "10.0.0.3" );
}

// -- Traces -----------------------------------------------------------------------------------

// Rows of traces: `at` is put before each.
std::string
rows( const std::string & at, std::initializer_list< std::string > texts ) {
   std::string out;
   for( const auto & text : texts ) out += at + text + "\n";
   return out;
}

// Registers an absent interface; it comes, changes its mask, and goes, with a stranger beside it;
// unregisters.
template< class Kind >
std::string
traced( const char * setting, const char * one, const char * wider ) {
   Registered< Kind > w;
   Traces traces( setting );
   auto sip = w.machine->registerSourceIntf( e1 );
   auto record = w.intfWithAddr( e1, one );
   w.machine->registerSourceIntf( e1 );
   activeIs( *record, wider );
   w.intfWithAddr( e2, one );
   w.intfDel( "Ethernet2" );
   w.intfDel( "Ethernet1" );
   w.machine->unregisterSourceIntf( sip );
   w.machine->unregisterSourceIntf( sip );
   return traces.seen();
}

TEST( SourceIntfTraces, OfTheIpv4SystemMachine ) {
   const std::string reg = "Ip::SourceIntf::SourceIntf::Ptr "
                           "Ip::SourceIntf::SourceIntfSm::registerSourceIntf(Velon::IntfId)";
   const std::string unreg = "void Ip::SourceIntf::SourceIntfSm::unregisterSourceIntf(const Ptr&)";
   const std::string update =
      "void Ip::SourceIntf::SourceIntfSm::handleActiveAddrWithMask(Velon::IntfId)";
   const std::string gone = "void Ip::SourceIntf::SourceIntfSm::ZekIpIntfStatus::handleDel()";
   EXPECT_EQ(
      traced< Ipv4System >( "SrcIntf/8", "10.0.0.1/24", "10.0.0.1/16" ),
      rows( "SrcIntf/8 SrcIntf: ",
            { reg + ":Ethernet1", reg + " adding entry Ethernet1", update + ":Ethernet1",
              reg + ":Refcnt: 1", update + ":Ethernet1",
              update + " inserting IP address 10.0.0.1/24", reg + ":Ethernet1", reg + ":Refcnt: 2",
              update + ":Ethernet1", update + " inserting IP address 10.0.0.1/16",
              update + ":Ethernet2", gone + ":Ethernet2", gone + ":Ethernet1",
              gone + " clearing IP address 10.0.0.1/16", unreg + ":Ethernet1", unreg + ":Refcnt: 1",
              unreg + ":Ethernet1", unreg + ":Refcnt: 0",
              // Deliberate: no separator.
              unreg + "deleting Ethernet1 from collection" } ) );
}

TEST( SourceIntfTraces, OfTheIpv4VrfMachine ) {
   const std::string reg = "Ip::SourceIntf::SourceIntf::Ptr "
                           "Ip::SourceIntf::VrfSourceIntfSm::registerSourceIntf(Velon::IntfId)";
   const std::string unreg =
      "void Ip::SourceIntf::VrfSourceIntfSm::unregisterSourceIntf(const Ptr&)";
   const std::string update =
      "void Ip::SourceIntf::VrfSourceIntfSm::ZekIpIntfStatus::handleActiveAddrWithMask()";
   const std::string gone = "void Ip::SourceIntf::VrfSourceIntfSm::ZekIpIntfStatus::handleDel()";
   EXPECT_EQ(
      traced< Ipv4OfVrf >( "SrcIntf/8", "10.0.0.1/24", "10.0.0.1/16" ),
      rows( "SrcIntf/8 SrcIntf: ",
            { reg + ":Ethernet1", reg + " adding entry Ethernet1", reg + ":Refcnt: 1",
              update + ":Ethernet1", update + " inserting IP address 10.0.0.1/24",
              reg + ":Ethernet1", reg + ":Refcnt: 2", update + ":Ethernet1",
              update + " inserting IP address 10.0.0.1/16", update + ":Ethernet2",
              gone + ":Ethernet2", gone + ":Ethernet1", gone + " clearing IP address 10.0.0.1/16",
              unreg + ":Ethernet1", unreg + ":Refcnt: 1", unreg + ":Ethernet1",
              unreg + ":Refcnt: 0", unreg + "deleting Ethernet1 from collection" } ) );
}

TEST( SourceIntfTraces, OfTheGenericSystemMachine ) {
   const std::string reg = "IpGen::SourceIntf::SourceIntf::Ptr "
                           "IpGen::SourceIntf::SourceIntfSm::registerSourceIntf(Velon::IntfId)";
   const std::string unreg =
      "void IpGen::SourceIntf::SourceIntfSm::unregisterSourceIntf(const Ptr&)";
   const std::string update =
      "void IpGen::SourceIntf::SourceIntfSm::handleActiveAddrWithMask(Velon::IntfId)";
   const std::string check = "void IpGen::SourceIntf::SourceIntfSm::handleIntf(Velon::IntfId)";
   EXPECT_EQ(
      traced< GenericSystem< V4 > >( "SrcGenIntf/8", "10.0.0.1/24", "10.0.0.1/16" ),
      rows( "SrcGenIntf/8 SrcGenIntf: ", { reg + ":Ethernet1",
                                           reg + " adding entry Ethernet1",
                                           update + ":Ethernet1",
                                           reg + ":Refcnt: 1",
                                           update + ":Ethernet1",
                                           update + " inserting IP address 10.0.0.1/24",
                                           check + ":Ethernet1",
                                           reg + ":Ethernet1",
                                           reg + ":Refcnt: 2",
                                           update + ":Ethernet1",
                                           update + " inserting IP address 10.0.0.1/16",
                                           update + ":Ethernet2",
                                           check + ":Ethernet2",
                                           check + ":Ethernet2",
                                           check + ":Ethernet1",
                                           check + " clearing IP address ",
                                           unreg + ":Ethernet1",
                                           unreg + ":Refcnt: 1",
                                           unreg + ":Ethernet1",
                                           unreg + ":Refcnt: 0",
                                           unreg + "deleting Ethernet1 from collection" } ) );
}

TEST( SourceIntfTraces, OfTheGenericVrfMachine ) {
   const std::string reg = "IpGen::SourceIntf::SourceIntf::Ptr "
                           "IpGen::SourceIntf::VrfSourceIntfSm::registerSourceIntf(Velon::IntfId)";
   const std::string unreg =
      "void IpGen::SourceIntf::VrfSourceIntfSm::unregisterSourceIntf(const Ptr&)";
   const std::string update =
      "void IpGen::SourceIntf::VrfSourceIntfSm::handleActiveAddrWithMask(Velon::IntfId)";
   const std::string check = "void IpGen::SourceIntf::VrfSourceIntfSm::handleIntf(Velon::IntfId)";
   EXPECT_EQ(
      traced< GenericOfVrf< V6 > >( "SrcGenIntf/8", "fe80::1/64", "fe80::1/48" ),
      rows( "SrcGenIntf/8 SrcGenIntf: ", { reg + ":Ethernet1",
                                           reg + " adding entry Ethernet1",
                                           update + ":Ethernet1",
                                           reg + ":Refcnt: 1",
                                           check + ":Ethernet1",
                                           update + ":Ethernet1",
                                           update + " inserting IP address fe80::1/64",
                                           reg + ":Ethernet1",
                                           reg + ":Refcnt: 2",
                                           update + ":Ethernet1",
                                           update + " inserting IP address ::/0",
                                           update + ":Ethernet1",
                                           update + " inserting IP address fe80::1/48",
                                           check + ":Ethernet2",
                                           update + ":Ethernet2",
                                           check + ":Ethernet2",
                                           check + ":Ethernet1",
                                           check + " clearing IP address ",
                                           unreg + ":Ethernet1",
                                           unreg + ":Refcnt: 1",
                                           unreg + ":Ethernet1",
                                           unreg + ":Refcnt: 0",
                                           unreg + "deleting Ethernet1 from collection" } ) );
   Registered< GenericOfVrf< V6 > > w;
   Traces traces( "SrcGenIntf/8" );
   w.machine = IpGen::SourceIntf::vrfSourceIntfSmFactory( w.dir, w.redView );
   // Its two handlers run once, for the empty interface that a fresh view names.
   EXPECT_EQ( traces.seen(), rows( "SrcGenIntf/8 SrcGenIntf: ", { update + ":", check + ":" } ) );
}

} // namespace
} // namespace Generic
