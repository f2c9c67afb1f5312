// Both state machines and both registries, over both families, beside a plain model.
//
// Random operations with re-entrant clients go to the real thing and to the model: at some
// announcement of an operation the clients make another change, or throw. After each operation the
// counters of every view are equal, and the registered records of the interfaces that it could
// touch; now and then everything is compared.
//
// The model knows nothing of notifiees: it is the rules as nested function calls, over lists of who
// watches what. It shares with the real thing the order of hashed collections.
//
//    IPSTATE_SHADOW_STEPS, IPSTATE_SHADOW_SEED     100000 and 1 unless given

#include "tests/generic/World.h"

#include "Ip/SrcIntf.h"
#include "IpGen/SrcGenIntf.h"
#include "framework/Hash.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <optional>
#include <random>
#include <vector>

namespace Generic {
namespace {

constexpr unsigned vrfCount = 10, intfCount = 1000;
constexpr unsigned secondaries = 3;

// The world's names and values.
Intf
intfOf( unsigned i ) {
   static const std::vector< Intf > ids = [] {
      std::vector< Intf > out;
      for( unsigned n = 0; n < intfCount; ++n )
         out.emplace_back( "Ethernet" + std::to_string( n ) );
      return out;
   }();
   return ids[i];
}
unsigned
homeOf( unsigned i ) {
   return i % vrfCount;
}
Vrf
vrfOf( unsigned v ) {
   return Vrf( "vrf" + std::to_string( v ) );
}
Velon::IpAddrWithMask
primary( unsigned n ) {
   static const Velon::IpAddrWithMask all[] = {
      {}, v4( "10.0.0.1/24" ), v4( "10.0.0.1/16" ), v4( "10.0.0.2/24" )
   };
   return all[n % 4];
}
Velon::IpAddrWithMask
secondary( unsigned n ) {
   static const Velon::IpAddrWithMask all[] = { v4( "10.0.1.1/24" ), v4( "10.0.2.1/24" ),
                                                v4( "10.0.3.1/24" ) };
   return all[n % secondaries];
}
Velon::Ip6AddrWithMask
addr6( unsigned n ) {
   static const Velon::Ip6AddrWithMask all[] = { v6( "fe80::1/64" ), v6( "2001:db8::1/64" ),
                                                 v6( "fe80::2/64" ), v6( "2001:db8::2/64" ) };
   return all[n % 4];
}

/// One operation; `then` happens at the `at`-th announcement to a client.
struct Op {
   enum Kind {
      inOrOutOfSystem,
      inOrOutOfVrf,
      replace,
      address,
      moreAddresses,
      forwarding,
      registered,
      unregistered,
      wrapped,
      vrfAgain,
      machinesAgain,
      thrown
   };
   Kind kind;
   bool six;
   unsigned intf, n;
   unsigned at = 0;
   std::shared_ptr< Op > then;
};

struct Boom {};

/// What the clients of one side do.
template< class Side >
class Script {
 public:
   explicit Script( Side & side ) : side_( side ) {}
   void is( const Op & op ) {
      left_ = op.at;
      then_ = op.then;
   }
   void announced() {
      if( left_ == 0 || --left_ > 0 ) return;
      fired_ = true;
      const auto op = then_;
      if( op->kind == Op::thrown ) throw Boom();
      apply( side_, *op );
   }
   bool fired() { return std::exchange( fired_, false ); }

 private:
   Side & side_;
   unsigned left_ = 0;
   bool fired_ = false;
   std::shared_ptr< Op > then_;
};

/// Carries an operation out; true when an interface or a VRF was removed or made again.
template< class Side >
bool
apply( Side & s, const Op & op ) {
   switch( op.kind ) {
   case Op::inOrOutOfSystem:
      s.inSystem( op.six, op.intf ) ? s.leaveSystem( op.six, op.intf )
                                    : s.joinSystem( op.six, op.intf, op.n % 4 == 0, op.n );
      return true;
   case Op::inOrOutOfVrf:
      s.inVrf( op.six, op.intf ) ? s.leaveVrf( op.six, op.intf )
                                 : s.joinVrf( op.six, op.intf, op.n % 4 == 0, op.n );
      return true;
   case Op::replace:
      s.joinSystem( op.six, op.intf, true, op.n );
      s.joinVrf( op.six, op.intf, false, op.n );
      return true;
   case Op::address:
      s.addressIs( op.six, op.intf, op.n );
      break;
   case Op::moreAddresses:
      s.moreAddresses( op.six, op.intf, op.n );
      break;
   case Op::forwarding:
      s.forwarding( op.six, op.intf );
      break;
   case Op::registered:
      s.registered( op.n % 4, op.six, op.intf );
      break;
   case Op::unregistered:
      s.unregistered( op.n % 4, op.six, op.intf );
      break;
   case Op::wrapped:
      s.wrapped( op.n % 4, op.six, op.intf );
      break;
   case Op::vrfAgain:
      s.vrfAgain( op.six, homeOf( op.intf ) );
      return true;
   case Op::machinesAgain:
      s.machinesAgain( op.six, homeOf( op.intf ) );
      break;
   case Op::thrown:
      break;
   }
   return false;
}

/// A registered record as both sides show it.
struct Shown {
   uint32_t refCnt;
   Velon::IpGenAddr addr;
   bool operator==( const Shown & ) const = default;
};
/// A view: its counters in declaration order, and the interface it names.
struct Counters {
   std::array< uint32_t, 4 > count{};
   Intf changedIntf;
   bool operator==( const Counters & ) const = default;
};
std::ostream &
operator<<( std::ostream & out, const Counters & c ) {
   for( uint32_t n : c.count ) out << n << " ";
   return out << orDash( c.changedIntf.view() );
}

// The registries of an interface: over IPv4 records, of the system and of its VRF, and over the
// views of one family.
enum Registry { v4System, v4OfVrf, genericSystem, genericOfVrf };

// ---- the real thing -------------------------------------------------------------------------

using Told = std::function< void() >;

/// A client of a view or a registered record; what it is told is its type's to say.
template< class Base >
class Client : public Base {
 public:
   Client( const Zek::Ptr< const Zek::PtrInterface > & of, Told t ) : told( std::move( t ) ) {
      this->notifierIs( of );
      this->isRegisteredNotifieeIs( true );
   }
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "Client", 0 };

 protected:
   Told told;
};
struct StatusClient final : Client< IpGen::Status::NotifieeConst > {
   using Client::Client;
   void onVrfCollectionChanged() override { told(); }
   void onIntfInVrfChanged() override { told(); }
   void onAddrChanged() override { told(); }
   void onActiveAddrChanged() override { told(); }
};
struct IntfClient final : Client< IpGen::IntfStatus::NotifieeConst > {
   using Client::Client;
   void onIntfStatusChanged() override { told(); }
   void onDpRoutingChanged() override { told(); }
   void onAddrChanged() override { told(); }
   void onActiveAddrChanged() override { told(); }
};
template< class Record >
struct RecordClient final : Client< typename Record::NotifieeConst > {
   using Client< typename Record::NotifieeConst >::Client;
   void onIpAddr() override { this->told(); }
};

/// A directory whose records each have a client for as long as they are in it.
template< class Dir, class Record >
class Directory {
 public:
   explicit Directory( std::function< void() > told )
      : watcher_( Zek::allocate< Watcher >( dir, std::move( told ) ) ) {}
   Zek::Ptr< Dir > dir = Zek::allocate< Dir >( Zek::Name( "dir" ) );
   std::optional< Shown > shown( Intf i ) const {
      const auto sip = dir->sourceIntf( i );
      if( !sip ) return std::nullopt;
      return Shown{ sip->refCnt(), sip->ipAddr() };
   }

 private:
   struct Watcher final : Dir::NotifieeConst {
      Watcher( const Zek::Ptr< Dir > & dir, std::function< void() > t ) : told( std::move( t ) ) {
         this->notifierIs( dir );
         this->isRegisteredNotifieeIs( true );
      }
      void onSourceIntf( const Intf & key ) override {
         clients.erase( key );
         if( const auto sip = this->notifier()->sourceIntf( key ) ) {
            clients.emplace( key, Zek::allocate< OfRecord >( sip, told ) );
         }
      }
      Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override {
         return allocTrackTypeInfo_;
      }
      static inline Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "Watcher", 0 };
      using OfRecord = RecordClient< Record >;
      std::function< void() > told;
      std::map< Intf, Zek::Ptr< OfRecord > > clients;
   };
   Zek::Ptr< Watcher > watcher_;
};
using Ipv4Directory = Directory< Ip::SourceIntf::SourceIntfDir, Ip::SourceIntf::SourceIntf >;
using GenericDirectory =
   Directory< IpGen::SourceIntf::SourceIntfDir, IpGen::SourceIntf::SourceIntf >;

template< class F >
struct RealVrf {
   explicit RealVrf( const Told & t ) : told( t ), dir( t ), v4Dir( t ) {}
   Told told;
   Zek::Ptr< typename F::VrfStatus > status;
   IpGen::IntfStatus::Ptr view;
   Zek::Ptr< IntfClient > client;
   IpGen::IntfSm::Ptr sm;
   GenericDirectory dir;
   IpGen::SourceIntf::VrfSourceIntfSm::Ptr registry;
   Ipv4Directory v4Dir; // of IPv4 only
   Ip::SourceIntf::VrfSourceIntfSm::Ptr v4Registry;

   void start( bool clientFirst ) {
      view = F::viewOf( status );
      auto makeClient = [&] { client = Zek::allocate< IntfClient >( view, told ); };
      if( clientFirst ) makeClient();
      machines();
      if( !clientFirst ) makeClient();
   }
   void machines() {
      sm = nullptr;
      sm = IpGen::intfSmFactory( view );
      if constexpr( std::is_same_v< F, V4 > ) {
         v4Registry = nullptr;
         v4Registry = Ip::SourceIntf::vrfSourceIntfSmFactory( v4Dir.dir, status );
      }
      registry = nullptr;
      registry = IpGen::SourceIntf::vrfSourceIntfSmFactory( dir.dir, view );
   }
};

template< class F >
struct RealFamily {
   explicit RealFamily( const Told & told ) : dir( told ) {
      client = Zek::allocate< StatusClient >( view, told );
      for( unsigned v = 0; v < vrfCount; ++v ) {
         vrf.emplace_back( told );
         vrf[v].status = F::vrfIs( *status, vrfOf( v ) );
         vrf[v].start( v % 2 );
      }
      registry = IpGen::SourceIntf::sourceIntfSmFactory( dir.dir, view );
   }
   Zek::Ptr< typename F::Status > status = F::statusMade();
   IpGen::Status::Ptr view = F::viewOf( status );
   Zek::Ptr< StatusClient > client;
   IpGen::StatusSm::Ptr sm = IpGen::statusSmFactory( view );
   GenericDirectory dir;
   IpGen::SourceIntf::SourceIntfSm::Ptr registry;
   std::vector< RealVrf< F > > vrf;
   std::array< Zek::Ptr< typename F::Record >, intfCount > record;
};

void
fill( Ip::IpIntfStatus & record, unsigned n ) {
   record.activeAddrWithMaskIs( primary( n ) );
   for( unsigned i = 0; i < n % secondaries; ++i ) {
      record.activeSecondaryWithMaskIs( secondary( i ), true );
   }
}
void
fill( Ip6::IntfStatus & record, unsigned n ) {
   for( unsigned i = 0; i < 4; ++i ) {
      if( n >> i & 1 ) record.addrIs( Ip6::AddressInfo( addr6( i ) ) );
   }
}
void
change( Ip::IpIntfStatus & record, unsigned n ) {
   record.activeAddrWithMaskIs( primary( n ) );
}
void
changeMore( Ip::IpIntfStatus & record, unsigned n ) {
   if( record.activeSecondaryWithMaskHas( secondary( n ) ) ) {
      record.activeSecondaryWithMaskDel( secondary( n ) );
   } else {
      record.activeSecondaryWithMaskIs( secondary( n ), n % 2 );
   }
}
void
change( Ip6::IntfStatus & record, unsigned n ) {
   if( record.addrHas( addr6( n ) ) ) {
      record.addrDel( addr6( n ) );
   } else {
      record.addrIs( Ip6::AddressInfo( addr6( n ) ) );
   }
}
void
changeMore( Ip6::IntfStatus & record, unsigned n ) {
   change( record, n / 3 );
}

class Real {
 public:
   Script< Real > script{ *this };

   bool inSystem( bool six, unsigned i ) {
      return ( six ? six_.view : four_.view )->intf( intfOf( i ) );
   }
   bool inVrf( bool six, unsigned i ) { return view( six, homeOf( i ) ).intf( intfOf( i ) ); }
   void joinSystem( bool six, unsigned i, bool fresh, unsigned n ) {
      in( six, [&]( auto & f ) {
         using F = Family< decltype( f ) >;
         F::is( *f.status, recordOf( f, i, fresh, n ) );
      } );
   }
   void leaveSystem( bool six, unsigned i ) {
      in( six, [&]( auto & f ) { Family< decltype( f ) >::del( *f.status, intfOf( i ) ); } );
   }
   void joinVrf( bool six, unsigned i, bool fresh, unsigned n ) {
      in( six, [&]( auto & f ) {
         using F = Family< decltype( f ) >;
         F::is( *f.vrf[homeOf( i )].status, recordOf( f, i, fresh, n ) );
      } );
   }
   void leaveVrf( bool six, unsigned i ) {
      in( six, [&]( auto & f ) {
         Family< decltype( f ) >::del( *f.vrf[homeOf( i )].status, intfOf( i ) );
      } );
   }
   void addressIs( bool six, unsigned i, unsigned n ) {
      in( six, [&]( auto & f ) {
         if( const auto record = f.record[i] ) change( *record, n );
      } );
   }
   void moreAddresses( bool six, unsigned i, unsigned n ) {
      in( six, [&]( auto & f ) {
         if( const auto record = f.record[i] ) changeMore( *record, n );
      } );
   }
   void forwarding( bool six, unsigned i ) {
      in( six, [&]( auto & f ) {
         if( const auto record = f.record[i] ) {
            record->dpRoutingEnabledIs( !record->dpRoutingEnabled() );
         }
      } );
   }
   void registered( unsigned which, bool six, unsigned i ) {
      on( which, six, i, [&]( auto & machine ) { machine.registerSourceIntf( intfOf( i ) ); } );
   }
   void unregistered( unsigned which, bool six, unsigned i ) {
      on( which, six, i, [&]( auto & machine ) {
         const auto sip = machine.sourceIntfDir()->sourceIntf( intfOf( i ) );
         if( sip ) machine.unregisterSourceIntf( sip );
      } );
   }
   void wrapped( unsigned which, bool six, unsigned i ) {
      on( which, six, i, [&]( auto & machine ) {
         if( const auto sip = machine.sourceIntfDir()->sourceIntf( intfOf( i ) ) ) {
            sip->refCntIs( 0 );
         }
      } );
   }
   void vrfAgain( bool six, unsigned v ) {
      in( six, [&]( auto & f ) {
         using F = Family< decltype( f ) >;
         F::vrfDel( *f.status, vrfOf( v ) );
         f.vrf[v].status = F::vrfIs( *f.status, vrfOf( v ) );
         f.vrf[v].start( v % 2 );
      } );
   }
   void machinesAgain( bool six, unsigned v ) {
      in( six, [&]( auto & f ) { f.vrf[v].machines(); } );
   }

   Counters counters( bool six ) {
      const IpGen::Status & s = six ? *six_.view : *four_.view;
      return { { s.vrfCollectionChanged(), s.intfInVrfChanged(), s.addrChanged(),
                 s.activeAddrChanged() },
               s.changedIntf() };
   }
   Counters counters( bool six, unsigned v ) {
      const IpGen::IntfStatus & s = view( six, v );
      return { { s.intfStatusChanged(), s.dpRoutingChanged(), s.addrChanged(),
                 s.activeAddrChanged() },
               s.changedIntf() };
   }
   std::optional< Shown > shown( unsigned which, bool six, unsigned i ) {
      const unsigned v = homeOf( i );
      switch( which ) {
      case v4System:
         return v4Dir_.shown( intfOf( i ) );
      case v4OfVrf:
         return four_.vrf[v].v4Dir.shown( intfOf( i ) );
      case genericSystem:
         return ( six ? six_.dir : four_.dir ).shown( intfOf( i ) );
      default:
         return ( six ? six_.vrf[v].dir : four_.vrf[v].dir ).shown( intfOf( i ) );
      }
   }

 private:
   template< class Reference >
   struct FamilyOf;
   template< class F >
   struct FamilyOf< RealFamily< F > & > {
      using Type = F;
   };
   template< class Reference >
   using Family = typename FamilyOf< Reference >::Type;

   template< class Do >
   void in( bool six, const Do & action ) {
      six ? action( six_ ) : action( four_ );
   }
   template< class Do >
   void on( unsigned which, bool six, unsigned i, const Do & action ) {
      switch( which ) {
      case v4System:
         action( *v4Registry_ );
         break;
      case v4OfVrf:
         action( *four_.vrf[homeOf( i )].v4Registry );
         break;
      case genericSystem:
         action( *( six ? six_.registry : four_.registry ) );
         break;
      default:
         action( *( six ? six_.vrf[homeOf( i )].registry : four_.vrf[homeOf( i )].registry ) );
      }
   }
   IpGen::IntfStatus & view( bool six, unsigned v ) {
      return *( six ? six_.vrf[v].view : four_.vrf[v].view );
   }
   template< class F >
   Zek::Ptr< typename F::Record > recordOf( RealFamily< F > & f, unsigned i, bool fresh,
                                            unsigned n ) {
      if( fresh || !f.record[i] ) {
         f.record[i] = F::recordMade( intfOf( i ) );
         fill( *f.record[i], n );
      }
      return f.record[i];
   }

   Told told_ = [this] { script.announced(); };
   RealFamily< V4 > four_{ told_ };
   RealFamily< V6 > six_{ told_ };
   Ipv4Directory v4Dir_{ told_ };
   Ip::SourceIntf::SourceIntfSm::Ptr v4Registry_ =
      Ip::SourceIntf::sourceIntfSmFactory( v4Dir_.dir, four_.status );
};

// ---- the model ------------------------------------------------------------------------------

/// The order of hashed collections.
struct Hashed {
   template< class K >
   bool operator()( const K & a, const K & b ) const {
      const uint32_t x = Zek::reversedHashOf( a ), y = Zek::reversedHashOf( b );
      return x != y ? x < y : a < b;
   }
};

struct Watch;
using WatchPtr = std::shared_ptr< Watch >;

struct MRecord {
   bool six;
   bool forwarding = false;
   Velon::IpAddrWithMask primary;
   std::map< Velon::IpAddrWithMask, bool > secondary;
   std::map< Velon::Ip6AddrWithMask, bool, Hashed > addr;
   std::vector< WatchPtr > watches;

   Velon::IpGenAddr active() const {
      if( !six ) return primary.addr();
      for( const auto & [a, unused] : addr ) {
         if( a.addr().isLinkLocal() ) return a.addr();
      }
      return Velon::Ip6Addr();
   }
};
using RecordPtr = std::shared_ptr< MRecord >;
using Members = std::map< Intf, RecordPtr, Hashed >;

struct MSource {
   uint32_t refCnt = 0;
   Velon::IpGenAddr addr;
   bool watched = true; // by a client, for as long as it is in its directory
};

/// One directory and what its machine asks.
struct MDir {
   explicit MDir( bool over4 ) : overIpv4( over4 ) {}
   bool overIpv4;
   const Members * members = nullptr;    // what the machine sees of the interfaces
   struct MMachine * reactors = nullptr; // of the per-VRF one over IPv4 records
   std::map< Intf, std::shared_ptr< MSource > > sources;
};

struct MView {
   Counters counters;
   MDir * dir = nullptr; // of the generic registry that watches
   bool clientFirst = true;
   bool ofVrf = true;
};

/// What watches records: the generic machines, and the registries over IPv4 records.
struct MMachine {
   enum Kind { status, intf, registry, vrfRegistry } kind;
   MView * view = nullptr;
   MDir * dir = nullptr;
   std::map< Intf, WatchPtr, Hashed > reactors;
};

/// A reactor on one record.
struct Watch : std::enable_shared_from_this< Watch > {
   MMachine * machine; // null once it is let go
   Intf key;
   RecordPtr record;
   bool registered = false;
};

class Model {
 public:
   Script< Model > script{ *this };

   Model() {
      for( MFamily & f : family_ ) {
         f.view.ofVrf = false;
         f.view.dir = &f.dir;
         f.dir.members = &f.members;
         f.sm = { MMachine::status, &f.view, nullptr, {} };
         f.machines = { &f.sm };
         for( unsigned v = 0; v < vrfCount; ++v ) {
            vrfHandled( f );
            started( f, v );
         }
      }
      v4Dir_.members = &family_[0].members;
      v4Registry_ = { MMachine::registry, nullptr, &v4Dir_, {} };
      family_[0].machines.push_back( &v4Registry_ );
   }

   // Records and those who watch them hold each other.
   ~Model() {
      for( MFamily & f : family_ ) {
         for( MMachine * m : f.machines ) released( *m );
         for( MVrf & v : f.vrf ) released( v );
      }
   }

   bool inSystem( bool six, unsigned i ) { return family_[six].members.count( intfOf( i ) ); }
   bool inVrf( bool six, unsigned i ) { return vrf( six, i ).members.count( intfOf( i ) ); }
   void joinSystem( bool six, unsigned i, bool fresh, unsigned n ) {
      MFamily & f = family_[six];
      const RecordPtr record = recordOf( six, i, fresh, n );
      RecordPtr & place = f.members[intfOf( i )];
      if( place == record ) return;
      place = record;
      membersChanged( f.members, f.machines, i );
   }
   void leaveSystem( bool six, unsigned i ) {
      MFamily & f = family_[six];
      if( f.members.erase( intfOf( i ) ) ) membersChanged( f.members, f.machines, i );
   }
   void joinVrf( bool six, unsigned i, bool fresh, unsigned n ) {
      const RecordPtr record = recordOf( six, i, fresh, n );
      RecordPtr & place = vrf( six, i ).members[intfOf( i )];
      if( place == record ) return;
      place = record;
      vrfChanged( six, i );
   }
   void leaveVrf( bool six, unsigned i ) {
      if( vrf( six, i ).members.erase( intfOf( i ) ) ) vrfChanged( six, i );
   }
   void addressIs( bool six, unsigned i, unsigned n ) {
      const RecordPtr record = family_[six].record[i];
      if( !record ) return;
      if( six ) {
         flip( record->addr, addr6( n ) );
         toWatches( record, [&]( Watch & w ) { addrHandled( w, addr6( n ) ); } );
      } else if( !( record->primary == primary( n ) ) ) {
         record->primary = primary( n );
         toWatches( record, [&]( Watch & w ) { primaryHandled( w ); } );
      }
   }
   void moreAddresses( bool six, unsigned i, unsigned n ) {
      const RecordPtr record = family_[six].record[i];
      if( !record ) return;
      if( six ) return addressIs( six, i, n / 3 );
      flip( record->secondary, secondary( n ) );
      toWatches( record, [&]( Watch & w ) { secondaryHandled( w ); } );
   }
   void forwarding( bool six, unsigned i ) {
      const RecordPtr record = family_[six].record[i];
      if( !record ) return;
      record->forwarding = !record->forwarding;
      toWatches( record, [&]( Watch & w ) { forwardingHandled( w ); } );
   }
   void registered( unsigned which, bool six, unsigned i ) {
      MDir & d = dir( which, six, i );
      auto sip = sourceOf( d, intfOf( i ) );
      if( !sip ) {
         sip = std::make_shared< MSource >();
         if( d.overIpv4 ) sip->addr = Velon::IpAddr();
         d.sources[intfOf( i )] = sip;
         if( d.reactors ) {
            const auto w = d.reactors->reactors.find( intfOf( i ) );
            if( w != d.reactors->reactors.end() ) primaryHandled( *WatchPtr( w->second ) );
         } else {
            update( d, intfOf( i ) );
         }
      }
      sip->refCnt++;
   }
   void unregistered( unsigned which, bool six, unsigned i ) {
      MDir & d = dir( which, six, i );
      const auto sip = sourceOf( d, intfOf( i ) );
      if( !sip || --sip->refCnt > 0 ) return;
      sip->watched = false;
      d.sources.erase( intfOf( i ) );
   }
   void wrapped( unsigned which, bool six, unsigned i ) {
      if( const auto sip = sourceOf( dir( which, six, i ), intfOf( i ) ) ) sip->refCnt = 0;
   }
   void vrfAgain( bool six, unsigned v ) {
      MFamily & f = family_[six];
      vrfHandled( f );
      released( f.vrf[v] );
      f.vrf[v].members.clear();
      vrfHandled( f );
      started( f, v );
   }
   void machinesAgain( bool six, unsigned v ) {
      MVrf & r = family_[six].vrf[v];
      released( r );
      attached( family_[six], v );
      r.view.clientFirst = true; // the registry goes to the end
   }

   Counters counters( bool six ) { return family_[six].view.counters; }
   Counters counters( bool six, unsigned v ) { return family_[six].vrf[v].view.counters; }
   std::optional< Shown > shown( unsigned which, bool six, unsigned i ) {
      const auto sip = sourceOf( dir( which, six, i ), intfOf( i ) );
      if( !sip ) return std::nullopt;
      return Shown{ sip->refCnt, sip->addr };
   }

 private:
   struct MVrf {
      Members members;
      MView view;
      MMachine sm{ MMachine::intf, nullptr, nullptr, {} };
      MMachine v4Registry{ MMachine::vrfRegistry, nullptr, nullptr, {} };
      MDir dir{ false }, v4Dir{ true };
      std::vector< MMachine * > machines;
   };
   struct MFamily {
      Members members;
      MView view;
      MDir dir{ false };
      MMachine sm;
      std::vector< MMachine * > machines;
      std::array< MVrf, vrfCount > vrf;
      std::array< RecordPtr, intfCount > record;
   };

   MVrf & vrf( bool six, unsigned i ) { return family_[six].vrf[homeOf( i )]; }
   MDir & dir( unsigned which, bool six, unsigned i ) {
      switch( which ) {
      case v4System:
         return v4Dir_;
      case v4OfVrf:
         return vrf( false, i ).v4Dir;
      case genericSystem:
         return family_[six].dir;
      default:
         return vrf( six, i ).dir;
      }
   }
   static std::shared_ptr< MSource > sourceOf( MDir & d, Intf i ) {
      const auto found = d.sources.find( i );
      return found == d.sources.end() ? nullptr : found->second;
   }
   template< class Map, class Key >
   static void flip( Map & map, const Key & key ) {
      if( !map.erase( key ) ) map[key] = true;
   }
   RecordPtr recordOf( bool six, unsigned i, bool fresh, unsigned n ) {
      RecordPtr & record = family_[six].record[i];
      if( fresh || !record ) {
         record = std::make_shared< MRecord >();
         record->six = six;
         if( six ) {
            for( unsigned a = 0; a < 4; ++a ) {
               if( n >> a & 1 ) record->addr[addr6( a )] = true;
            }
         } else {
            record->primary = primary( n );
            for( unsigned a = 0; a < n % secondaries; ++a )
               record->secondary[secondary( a )] = true;
         }
      }
      return record;
   }

   static void forget( MView & v ) { v.counters.changedIntf = {}; }
   void vrfHandled( MFamily & f ) {
      bump( f.view, 0 );
      forget( f.view );
   }

   // A VRF's machines go and come.
   void started( MFamily & f, unsigned v ) {
      f.vrf[v].view = {};
      f.vrf[v].view.clientFirst = v % 2;
      attached( f, v );
   }
   void attached( MFamily & f, unsigned v ) {
      MVrf & r = f.vrf[v];
      const bool six = &f == &family_[1];
      r.sm.view = &r.view;
      r.machines = { &r.sm };
      for( const auto & [i, record] : Members( r.members ) ) inputIs( r.sm, i, record );
      if( !six ) {
         r.v4Dir.members = &r.members;
         r.v4Dir.reactors = &r.v4Registry;
         r.v4Registry.dir = &r.v4Dir;
         r.machines.push_back( &r.v4Registry );
         for( const auto & [i, record] : Members( r.members ) ) inputIs( r.v4Registry, i, record );
      }
      r.dir.members = &r.members;
      r.view.dir = &r.dir;
      update( r.dir, r.view.counters.changedIntf );
      check( r.dir, r.view.counters.changedIntf );
   }
   static void released( MVrf & r ) {
      released( r.sm );
      released( r.v4Registry );
   }
   static void released( MMachine & m ) {
      for( auto & [i, w] : m.reactors ) release( *w );
      m.reactors.clear();
   }

   // Collections.
   void vrfChanged( bool six, unsigned i ) {
      MView & system = family_[six].view;
      system.counters.changedIntf = intfOf( i );
      bump( system, 1 );
      forget( system );
      membersChanged( vrf( six, i ).members, vrf( six, i ).machines, i );
   }
   void membersChanged( const Members & members, const std::vector< MMachine * > & machines,
                        unsigned i ) {
      for( MMachine * m : std::vector< MMachine * >( machines ) ) {
         bool threw = false;
         if( m->kind == MMachine::intf ) {
            m->view->counters.changedIntf = intfOf( i );
            try {
               bump( *m->view, 0 );
            } catch( const Boom & ) {
               threw = true; // its reactors follow all the same
            }
         }
         const auto found = members.find( intfOf( i ) );
         if( found != members.end() ) {
            inputIs( *m, intfOf( i ), RecordPtr( found->second ) );
         } else {
            inputDel( *m, intfOf( i ) );
         }
         if( threw ) throw Boom();
      }
   }

   // Reactors.
   void inputIs( MMachine & m, Intf i, const RecordPtr & record ) {
      const auto present = m.reactors.find( i );
      if( present != m.reactors.end() ) {
         const WatchPtr w = present->second;
         if( w->record == record ) return;
         leave( *w );
         w->record = record;
         if( w->registered ) record->watches.push_back( w );
         if( m.kind == MMachine::intf ) forwardingHandled( *w );
         if( w->machine && !record->six ) primaryHandled( *w );
         if( w->machine ) join( *w );
         return;
      }
      const WatchPtr w = std::make_shared< Watch >();
      w->machine = &m;
      w->key = i;
      w->record = record;
      m.reactors[i] = w;
      try {
         if( !record->six ) primaryHandled( *w );
         const RecordPtr walked = w->record;
         auto each = [&]( auto & map, const auto & handled ) {
            for( auto at = map.begin(); w->machine && at != map.end(); ) {
               const auto key = at->first;
               handled( key );
               at = map.upper_bound( key );
            }
         };
         if( walked->six ) {
            each( walked->addr, [&]( const auto & a ) { addrHandled( *w, a ); } );
         } else if( m.view ) {
            each( walked->secondary, [&]( const auto & ) { secondaryHandled( *w ); } );
         }
      } catch( const Boom & ) {
         if( w->machine ) join( *w ); // it goes on watching
         throw;
      }
      if( w->machine ) join( *w );
   }
   void inputDel( MMachine & m, Intf i ) {
      const auto found = m.reactors.find( i );
      if( found == m.reactors.end() ) return;
      const WatchPtr w = found->second;
      m.reactors.erase( found );
      struct Release {
         Watch & w;
         ~Release() { release( w ); }
      } last{ *w };
      if( m.dir ) sourceIs( *m.dir, i, Velon::IpAddr() );
   }
   static void leave( Watch & w ) {
      auto & list = w.record->watches;
      list.erase( std::remove_if( list.begin(), list.end(),
                                  [&]( const WatchPtr & p ) { return p.get() == &w; } ),
                  list.end() );
   }
   static void join( Watch & w ) {
      if( std::exchange( w.registered, true ) ) return;
      w.record->watches.push_back( w.shared_from_this() );
   }
   static void release( Watch & w ) {
      w.machine = nullptr;
      leave( w );
   }
   template< class Handled >
   void toWatches( const RecordPtr & record, const Handled & handled ) {
      for( const WatchPtr & w : std::vector< WatchPtr >( record->watches ) ) {
         const auto & now = record->watches;
         if( std::find( now.begin(), now.end(), w ) != now.end() ) handled( *w );
      }
   }

   // Handlers: what a reactor does to the view, or to the directory, of its machine.
   void primaryHandled( Watch & w ) {
      MMachine & m = *w.machine;
      if( m.kind == MMachine::registry ) return update( *m.dir, w.key );
      if( m.kind == MMachine::vrfRegistry ) {
         return sourceIs( *m.dir, w.key, w.record->primary.addr() );
      }
      report( m, w.key, true );
   }
   void secondaryHandled( Watch & w ) {
      if( w.machine->view ) report( *w.machine, w.key, false );
   }
   void addrHandled( Watch & w, const Velon::Ip6AddrWithMask & a ) {
      report( *w.machine, w.key, a.addr().isLinkLocal() );
   }
   void forwardingHandled( Watch & w ) {
      if( w.machine->kind != MMachine::intf ) return;
      w.machine->view->counters.changedIntf = w.key;
      bump( *w.machine->view, 1 );
   }
   void report( MMachine & m, Intf i, bool active ) {
      MView & v = *m.view;
      v.counters.changedIntf = i;
      bump( v, 2 );
      if( active ) bump( v, 3 );
      if( m.kind == MMachine::status ) forget( v );
   }

   // Views and directories.
   void bump( MView & v, unsigned counter ) {
      v.counters.count[counter]++;
      if( v.clientFirst ) script.announced();
      if( v.dir ) {
         if( counter == 3 ) update( *v.dir, v.counters.changedIntf );
         if( counter == ( v.ofVrf ? 0 : 1 ) ) check( *v.dir, v.counters.changedIntf );
      }
      if( !v.clientFirst ) script.announced();
   }
   void update( MDir & d, Intf i ) {
      const auto found = d.members->find( i );
      if( found != d.members->end() ) sourceIs( d, i, found->second->active() );
   }
   void check( MDir & d, Intf i ) {
      if( !d.members->count( i ) ) sourceIs( d, i, Velon::IpAddr() );
   }
   void sourceIs( MDir & d, Intf i, const Velon::IpGenAddr & addr ) {
      const auto sip = sourceOf( d, i );
      if( !sip || sip->addr == addr ) return;
      sip->addr = addr;
      if( sip->watched ) script.announced();
   }

   std::array< MFamily, 2 > family_;
   MDir v4Dir_{ true };
   MMachine v4Registry_;
};

// ---- the comparison -------------------------------------------------------------------------

class Shadow {
 public:
   explicit Shadow( uint32_t seed ) : random_( seed ) {}

   void step() {
      const Op op = drawn( true );
      real_.script.is( op );
      model_.script.is( op );
      bool renewed = false, realThrew = false, modelThrew = false;
      try {
         renewed = apply( real_, op );
      } catch( const Boom & ) {
         realThrew = renewed = true;
      }
      try {
         renewed = apply( model_, op ) && renewed;
      } catch( const Boom & ) {
         modelThrew = true;
      }
      real_.script.is( {} );
      model_.script.is( {} );
      renewals_ += renewed && op.kind <= Op::replace;
      const bool fired = real_.script.fired();
      ASSERT_EQ( fired, model_.script.fired() ) << shown( op );
      ASSERT_EQ( realThrew, modelThrew ) << shown( op );
      reentered_ += fired;
      thrown_ += realThrew;
      for( bool six : { false, true } ) {
         ASSERT_EQ( real_.counters( six ), model_.counters( six ) ) << shown( op );
         for( unsigned v = 0; v < vrfCount; ++v ) {
            ASSERT_EQ( real_.counters( six, v ), model_.counters( six, v ) )
               << shown( op ) << " VRF " << v;
         }
      }
      sameSources( op.intf, op );
      if( op.then ) sameSources( op.then->intf, op );
      if( op.kind == Op::machinesAgain || ++steps_ % 1000 == 0 ) {
         for( unsigned i = 0; i < intfCount; ++i ) sameSources( i, op );
      }
   }
   double renewals() const { return static_cast< double >( renewals_ ) / steps_; }
   double reentered() const { return static_cast< double >( reentered_ ) / steps_; }
   double thrown() const { return static_cast< double >( thrown_ ) / steps_; }
   uint64_t announced() {
      uint64_t sum = 0;
      for( bool six : { false, true } ) {
         for( uint32_t n : real_.counters( six ).count ) sum += n;
      }
      return sum;
   }

 private:
   unsigned below( unsigned n ) { return random_() % n; }
   Op drawn( bool outer ) {
      // Out of 1000.
      static constexpr std::pair< Op::Kind, unsigned > weights[] = {
         { Op::inOrOutOfSystem, 240 }, { Op::inOrOutOfVrf, 240 }, { Op::replace, 40 },
         { Op::address, 200 },         { Op::moreAddresses, 80 }, { Op::forwarding, 38 },
         { Op::registered, 100 },      { Op::unregistered, 50 },  { Op::wrapped, 10 },
         { Op::vrfAgain, 1 },          { Op::machinesAgain, 1 }
      };
      Op op{};
      unsigned left = below( outer ? 1000 : 998 ); // VRFs and machines come and go by themselves
      for( const auto & [kind, weight] : weights ) {
         op.kind = kind;
         if( left < weight ) break;
         left -= weight;
      }
      op.six = below( 2 );
      op.intf = below( intfCount );
      op.n = below( 48 );
      if( outer && op.kind < Op::vrfAgain && below( 3 ) == 0 ) {
         op.at = 1 + below( 4 );
         op.then = std::make_shared< Op >( drawn( false ) );
         if( below( 8 ) == 0 ) op.then->kind = Op::thrown;
         // Mostly the interface that the announcement is about.
         if( below( 4 ) ) {
            op.then->intf = op.intf;
            op.then->six = op.six;
         }
      }
      return op;
   }
   std::string shown( const Op & op ) const {
      std::string out = "step " + std::to_string( steps_ );
      for( const Op * o = &op; o; o = o->then.get() ) {
         out += "; operation " + std::to_string( o->kind ) + ( o->six ? " IPv6 " : " IPv4 " ) +
                intfOf( o->intf ).toString() + " " + std::to_string( o->n );
         if( o->then ) out += ", at announcement " + std::to_string( o->at );
      }
      return out;
   }
   void sameSources( unsigned i, const Op & op ) {
      for( unsigned which = v4System; which <= genericOfVrf; ++which ) {
         for( bool six : { false, true } ) {
            if( six && which < genericSystem ) continue;
            const auto real = real_.shown( which, six, i ), model = model_.shown( which, six, i );
            ASSERT_TRUE( real == model )
               << shown( op ) << " registry " << which << " " << intfOf( i ) << ": "
               << ( real ? real->addr.toString() + " x" + std::to_string( real->refCnt ) : "none" )
               << ", expected "
               << ( model ? model->addr.toString() + " x" + std::to_string( model->refCnt )
                          : "none" );
         }
      }
   }

   std::mt19937 random_;
   Real real_;
   Model model_;
   unsigned steps_ = 0, renewals_ = 0, reentered_ = 0, thrown_ = 0;
};

unsigned
setting( const char * name, unsigned otherwise ) {
   const char * text = std::getenv( name );
   return text ? static_cast< unsigned >( std::strtoul( text, nullptr, 10 ) ) : otherwise;
}

TEST( Shadow, AgreesWithTheModelAfterEveryStep ) {
   const unsigned steps = setting( "IPSTATE_SHADOW_STEPS", 100000 );
   const unsigned seed = setting( "IPSTATE_SHADOW_SEED", 1 );
   SCOPED_TRACE( "IPSTATE_SHADOW_SEED=" + std::to_string( seed ) );
   Shadow shadow( seed );
   for( unsigned i = 0; i < steps && !HasFailure(); ++i ) shadow.step();
   // The run was worth its time.
   EXPECT_GE( shadow.renewals(), 0.4 );
   EXPECT_GE( shadow.reentered(), 0.1 );
   EXPECT_GE( shadow.thrown(), 0.01 );
   EXPECT_GE( shadow.announced(), steps / 2 );
}

} // namespace
} // namespace Generic
