// What it costs that one view and one registry serve both families.
//
//    Generic                       figures, each with its goal; nothing fails on them
//    Generic count <what> [<n>]    a fixed number of events over n interfaces, for the instruction
//                                  count of measured(); Generic runs itself so under valgrind
//
// The event: an interface's primary address changes, the system's state machine writes the change
// record and bumps two counters, the registry rewrites the registered record, its client is told.
// Peers: `plain` is the same as one function over records that know each other; `signals` has the
// layers of the real thing on boost::signals2 and std::map.

#include "Ip6/Ip6.h"
#include "IpGen/IpGenIntfSm.h"
#include "IpGen/IpGenStatusSm.h"
#include "IpGen/SrcGenIntf.h"

#include <boost/signals2.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <vector>

#include <unistd.h>

#define NOINLINE [[gnu::noinline, gnu::used]]

namespace {

uint64_t allocations = 0;

} // namespace

NOINLINE void *
operator new( size_t bytes ) {
   allocations++;
   if( void * memory = std::malloc( bytes ) ) return memory;
   throw std::bad_alloc();
}
NOINLINE void
operator delete( void * memory ) noexcept {
   std::free( memory );
}
NOINLINE void
operator delete( void * memory, size_t ) noexcept {
   std::free( memory );
}

namespace {

using Velon::IntfId;
using Velon::IpAddr;
using Velon::IpAddrWithMask;
using Velon::IpGenAddr;
using Velon::IpGenAddrWithMask;

IntfId
nameOf( size_t i ) {
   return IntfId( "Ethernet" + std::to_string( i ) );
}
IpAddrWithMask
addrOf( size_t i ) {
   return { IpAddr( static_cast< uint32_t >( 0x0a000000 + i ) ), 24 };
}

// ---- the peers: n interfaces, all registered, each with one client --------------------------

/// One call: what the event comes to when all is known.
class Plain {
 public:
   explicit Plain( size_t n ) {
      for( size_t i = 0; i < n; ++i )
         records_.push_back( { nameOf( i ), {}, {}, clients_[i % 2] } );
   }
   NOINLINE void addrIs( size_t i, IpAddrWithMask addr ) {
      Record & r = records_[i];
      if( r.active == addr ) return;
      r.active = addr;
      view_.changedIntf = r.id;
      view_.changedAddr = addr;
      view_.addrChanged++;
      view_.activeAddrChanged++;
      const IpGenAddr source = view_.changedAddr.addr();
      if( !( r.source == source ) ) {
         r.source = source;
         r.client->onIpAddr();
      }
      view_.changedIntf = {};
      view_.changedAddr = {};
   }

 private:
   struct Client {
      virtual ~Client() = default;
      virtual void onIpAddr() = 0;
   };
   // Two kinds, lest the one that there is be called directly.
   template< int kind >
   struct Counting final : Client {
      void onIpAddr() override { calls += kind; }
      int calls = 0;
   };
   struct Record {
      IntfId id;
      IpAddrWithMask active;
      IpGenAddr source;
      Client * client;
   };
   struct View {
      IntfId changedIntf;
      IpGenAddrWithMask changedAddr;
      uint32_t addrChanged = 0, activeAddrChanged = 0;
   };
   Counting< 1 > one_;
   Counting< 2 > two_;
   Client * clients_[2] = { &one_, &two_ };
   std::vector< Record > records_;
   View view_;
};

/// The layers as separate parts: a signal per attribute, a map per collection.
class Signals {
 public:
   explicit Signals( size_t n ) {
      view_.addrChanged.connect( [] {} ); // as somebody who follows the view
      view_.activeAddrChanged.connect( [this] { follow(); } );
      for( size_t i = 0; i < n; ++i ) {
         auto record = std::make_shared< Record >();
         record->id = nameOf( i );
         record->activeChanged.connect( [this, r = record.get()] { handle( *r ); } );
         status_[record->id] = record;
         byNumber_.push_back( record.get() );
         auto source = std::make_shared< Source >();
         source->changed.connect( [this] { calls_++; } );
         dir_[record->id] = source;
      }
   }
   NOINLINE void addrIs( size_t i, IpAddrWithMask addr ) {
      Record & r = *byNumber_[i];
      if( r.active == addr ) return;
      r.active = addr;
      r.activeChanged();
   }

 private:
   using Signal = boost::signals2::signal< void() >;
   struct Record {
      IntfId id;
      IpAddrWithMask active;
      Signal activeChanged;
   };
   struct Source {
      IpGenAddr addr;
      Signal changed;
   };
   struct View {
      IntfId changedIntf;
      IpGenAddrWithMask changedAddr;
      uint32_t addrCount = 0, activeCount = 0;
      Signal addrChanged, activeAddrChanged;
   };
   // By identity: no text is compared.
   struct Less {
      bool operator()( IntfId a, IntfId b ) const { return a.charPtr() < b.charPtr(); }
   };

   void handle( const Record & r ) {
      view_.changedIntf = r.id;
      view_.changedAddr = r.active;
      view_.addrCount++;
      view_.addrChanged();
      view_.activeCount++;
      view_.activeAddrChanged();
      view_.changedIntf = {};
      view_.changedAddr = {};
   }
   void follow() {
      const auto source = dir_.find( view_.changedIntf );
      const auto record = status_.find( view_.changedIntf );
      if( source == dir_.end() || record == status_.end() ) return;
      const IpGenAddr addr = IpGenAddrWithMask( record->second->active ).addr();
      if( source->second->addr == addr ) return;
      source->second->addr = addr;
      source->second->changed();
   }

   View view_;
   std::map< IntfId, std::shared_ptr< Record >, Less > status_;
   std::map< IntfId, std::shared_ptr< Source >, Less > dir_;
   std::vector< Record * > byNumber_;
   int calls_ = 0;
};

/// The real thing.
class Generic {
 public:
   explicit Generic( size_t n ) {
      for( size_t i = 0; i < n; ++i ) {
         auto record = Ip::ipIntfStatusFactory( nameOf( i ), nullptr );
         status_->ipIntfStatusIs( record );
         records_.push_back( record );
         clients_.push_back( Zek::allocate< Client >() );
         clients_[i]->notifierIs( registry_->registerSourceIntf( record->intfId() ) );
         clients_[i]->isRegisteredNotifieeIs( true );
      }
   }
   NOINLINE void addrIs( size_t i, IpAddrWithMask addr ) {
      records_[i]->activeAddrWithMaskIs( addr );
   }

 private:
   struct Client final : IpGen::SourceIntf::SourceIntf::NotifieeConst {
      void onIpAddr() override { calls++; }
      int calls = 0;
      Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override {
         return allocTrackTypeInfo_;
      }
      static inline Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "Client", 0 };
   };
   Ip::Status::Ptr status_ = Ip::statusFactory();
   IpGen::Status::Ptr view_ = IpGen::ipv4StatusFactory( status_ );
   IpGen::StatusSm::Ptr machine_ = IpGen::statusSmFactory( view_ );
   IpGen::SourceIntf::SourceIntfDir::Ptr dir_ = IpGen::SourceIntf::sourceIntfDirFactory();
   IpGen::SourceIntf::SourceIntfSm::Ptr registry_ =
      IpGen::SourceIntf::sourceIntfSmFactory( dir_, view_ );
   std::vector< Zek::Ptr< Ip::IpIntfStatus > > records_;
   std::vector< Zek::Ptr< Client > > clients_;
};

// ---- source addresses -----------------------------------------------------------------------

struct Choice {
   Velon::Ip6Addr sa, sb, d;
};

/// The rules in as few branches as they can have: rules 1, 2 and 6 meet seldom, rule 8 decides.
NOINLINE unsigned
chosenByHand( Velon::Ip6Addr sa, Velon::Ip6Addr sb, Velon::Ip6Addr d ) {
   const uint64_t a = sa.high(), b = sb.high(), t = d.high();
   if( sa == d ) return Ip6::PREFER_SA;
   if( sb == d ) return Ip6::PREFER_SB;
   auto scope = []( uint64_t high ) -> unsigned {
      const unsigned top = static_cast< unsigned >( high >> 54 ); // the first ten bits
      if( top < 0xfc00 >> 6 ) return 2;
      if( top == 0xfe80 >> 6 ) return 0;
      const unsigned byte = top >> 2;
      return byte == 0xfe && top < 0xfe80 >> 6 ? 2 : 1;
   };
   const unsigned x = scope( a ), y = scope( b );
   if( x != y ) {
      const unsigned z = scope( t );
      return ( x < y ? x < z : y >= z ) ? Ip6::PREFER_SB : Ip6::PREFER_SA;
   }
   if( ( a == 0 || b == 0 ) && sa.isLoopback() != sb.isLoopback() ) {
      return d.isLoopback() == sa.isLoopback() ? Ip6::PREFER_SA : Ip6::PREFER_SB;
   }
   return sa.longestCommonPrefix( d ) < sb.longestCommonPrefix( d ) ? Ip6::PREFER_SB
                                                                    : Ip6::PREFER_SA;
}

/// What hosts choose between: mostly a link-local and some global addresses.
std::vector< Choice >
choices() {
   std::mt19937_64 random( 1 );
   auto drawn = [&] {
      static constexpr uint64_t networks[] = { 0xfe80000000000000,
                                               0x20010db800000000,
                                               0x20010db800010000,
                                               0xfd00000000000000,
                                               0x2a00000000000000,
                                               0xff02000000000000,
                                               0 };
      const uint64_t n = networks[random() % 7];
      return n ? Velon::Ip6Addr( n, random() % 16 ) : Velon::Ip6Addr( 0, 1 );
   };
   std::vector< Choice > out;
   for( int i = 0; i < 1000; ++i ) out.push_back( { drawn(), drawn(), drawn() } );
   return out;
}

struct ByHand {
   static unsigned chosen( const Choice & c ) { return chosenByHand( c.sa, c.sb, c.d ); }
};
struct ByRules {
   static unsigned chosen( const Choice & c ) {
      return Ip6::chooseSourceAddress( c.sa, c.sb, c.d );
   }
};

// ---- measuring ------------------------------------------------------------------------------

constexpr size_t countedEvents = 1000;

template< class T >
void
obscure( T & object ) {
   asm volatile( "" : : "r"( &object ) : "memory" );
}

/// `events` events over the interfaces in turn, from 1 on: each value is new.
template< class Peer >
NOINLINE void
measured( Peer & peer, size_t n, size_t from, size_t events ) {
   size_t i = 0;
   for( size_t e = 0; e < events; ++e ) {
      peer.addrIs( i, addrOf( from + e ) );
      if( ++i == n ) i = 0;
   }
}
template< class Form >
NOINLINE unsigned
measured( const std::vector< Choice > & from ) {
   unsigned sum = 0;
   for( const Choice & c : from ) sum += Form::chosen( c );
   return sum;
}

/// The records of n interfaces with an address each, in the system and in one VRF.
struct Interfaces {
   explicit Interfaces( size_t n ) {
      for( size_t i = 0; i < n; ++i ) {
         const auto record = Ip::ipIntfStatusFactory( nameOf( i ), nullptr );
         record->activeAddrWithMaskIs( addrOf( i ) );
         status->ipIntfStatusIs( record );
         vrf->ipIntfStatusIs( record );
      }
   }
   Ip::Status::Ptr status = Ip::statusFactory();
   Ip::VrfIpIntfStatus::Ptr vrf = status->vrfIpIntfStatusIs( L3::VrfName( "red" ) );
   IpGen::Status::Ptr view = IpGen::ipv4StatusFactory( status );
   IpGen::IntfStatus::Ptr intfView = IpGen::ipv4IntfStatusFactory( vrf );
};

struct Machines {
   IpGen::StatusSm::Ptr system;
   IpGen::IntfSm::Ptr ofVrf;
};

/// Both machines over them.
template< class Made >
NOINLINE Made
measured( const Interfaces & interfaces ) {
   return { IpGen::statusSmFactory( interfaces.view ),
            IpGen::intfSmFactory( interfaces.intfView ) };
}

template< class Peer >
int
countEvents( size_t n ) {
   Peer peer( n );
   obscure( peer );
   measured( peer, n, 1, countedEvents );
   obscure( peer );
   return 0;
}
template< class Form >
int
countChoices() {
   auto from = choices();
   obscure( from );
   return measured< Form >( from ) ? 0 : 1;
}

int
countStart( size_t n ) {
   const Interfaces interfaces( n );
   return measured< Machines >( interfaces ).system ? 0 : 1;
}

using Clock = std::chrono::steady_clock;

double
nanosecondsSince( Clock::time_point begin ) {
   return std::chrono::duration< double, std::nano >( Clock::now() - begin ).count();
}

/// The best of some rounds, in nanoseconds an event.
template< class Peer >
class Timed {
 public:
   explicit Timed( size_t n ) : n_( n ), peer_( n ) {
      obscure( peer_ );
      measured( peer_, n_, 1, std::max( n_, events ) );
   }
   void round() {
      next_ += 100000;
      const uint64_t before = allocations;
      const auto begin = Clock::now();
      measured( peer_, n_, next_, events );
      best_ = std::min( best_, nanosecondsSince( begin ) / events );
      allocated_ += allocations - before;
   }
   double nanoseconds() const { return best_; }
   uint64_t allocated() const { return allocated_; }

 private:
   static constexpr size_t events = 20000;
   size_t n_, next_ = 1;
   Peer peer_;
   double best_ = 1e9;
   uint64_t allocated_ = 0;
};

/// Instructions of one event in another run of this program, or 0 without valgrind.
double
instructions( const std::string & what ) {
   const std::string command =
      "LD_BIND_NOW=1 valgrind --tool=callgrind --callgrind-out-file=/dev/stdout "
      "--toggle-collect='*measured<*' /proc/" +
      std::to_string( getpid() ) + "/exe count " + what +
      " 2>/dev/null | awk '/^(summary|totals):/ { print $2; exit }'";
   std::FILE * pipe = popen( command.c_str(), "r" );
   double total = 0;
   if( !pipe || std::fscanf( pipe, "%lf", &total ) != 1 ) total = 0;
   if( pipe ) pclose( pipe );
   return total / countedEvents;
}

void
figure( const char * what, double value, const char * goal ) {
   std::printf( "%-62s %9.2f   %s\n", what, value, goal );
}

void
events() {
   Timed< Plain > plain( 100 );
   Timed< Signals > signals( 100 );
   Timed< Generic > generic( 100 );
   for( int round = 0; round < 30; ++round ) {
      plain.round();
      signals.round();
      generic.round();
   }
   std::printf( "one event of 100 interfaces: generic %.1f ns, plain calls %.1f, signals2 %.1f\n",
                generic.nanoseconds(), plain.nanoseconds(), signals.nanoseconds() );
   figure( "signals2 and std::map, times as slow", signals.nanoseconds() / generic.nanoseconds(),
           "at least 12" );
   figure( "allocations", static_cast< double >( generic.allocated() ), "0" );
   const double own = instructions( "generic 100" );
   if( own > 0 ) {
      const double byPlain = instructions( "plain 100" ), bySignals = instructions( "signals 100" );
      std::printf( "instructions: generic %.0f, plain calls %.0f, signals2 %.0f\n", own, byPlain,
                   bySignals );
      figure( "times the instructions of plain calls", own / byPlain, "at most 5" );
      figure( "signals2, times the instructions", bySignals / own, "at least 12" );
      figure( "instructions at 10,000 interfaces, times those at 10",
              instructions( "generic 10000" ) / instructions( "generic 10" ), "at most 1.3" );
   } else {
      std::printf( "instructions: no valgrind\n" );
   }
}

/// Nanoseconds an interface.
double
start( size_t n ) {
   const Interfaces interfaces( n );
   double best = 1e18;
   for( int round = 0; round < 7; ++round ) {
      const auto begin = Clock::now();
      const Machines machines = measured< Machines >( interfaces );
      best = std::min( best, nanosecondsSince( begin ) );
   }
   return best / static_cast< double >( n );
}

void
starts() {
   std::printf( "start of both machines, ns an interface: 1,250 %.0f, 2,500 %.0f, 5,000 %.0f, "
                "10,000 %.0f\n",
                start( 1250 ), start( 2500 ), start( 5000 ), start( 10000 ) );
   const double few = instructions( "start 1250" ) / 1250;
   if( few > 0 ) {
      figure( "instructions an interface of 10,000, times those of 1,250",
              instructions( "start 10000" ) / 10000 / few, "linear: about 1" );
   }
}

template< class Form >
double
timeOf( const std::vector< Choice > & from ) {
   double best = 1e9;
   for( int round = 0; round < 200; ++round ) {
      const auto begin = Clock::now();
      unsigned sum = measured< Form >( from );
      best = std::min( best, nanosecondsSince( begin ) / static_cast< double >( from.size() ) );
      obscure( sum );
   }
   return best;
}

void
sources() {
   auto from = choices();
   obscure( from );
   for( const Choice & c : from ) {
      if( ByHand::chosen( c ) != ByRules::chosen( c ) ) std::printf( "the forms differ\n" );
   }
   const double own = timeOf< ByRules >( from ), byHand = timeOf< ByHand >( from );
   std::printf( "chooseSourceAddress %.1f ns, by hand %.1f\n", own, byHand );
   figure( "times the time of the hand-written form", own / byHand, "at most 1.3" );
   const double counted = instructions( "rules" );
   if( counted > 0 ) {
      const double countedByHand = instructions( "hand" );
      std::printf( "instructions: %.0f, by hand %.0f\n", counted, countedByHand );
      figure( "times its instructions", counted / countedByHand, "at most 1.3" );
   }
}

} // namespace

int
main( int argc, char ** argv ) {
   if( argc >= 3 && !std::strcmp( argv[1], "count" ) ) {
      const std::string what = argv[2];
      const size_t n = argc > 3 ? std::strtoul( argv[3], nullptr, 10 ) : 0;
      if( n && what == "plain" ) return countEvents< Plain >( n );
      if( n && what == "signals" ) return countEvents< Signals >( n );
      if( n && what == "generic" ) return countEvents< Generic >( n );
      if( n && what == "start" ) return countStart( n );
      if( what == "hand" ) return countChoices< ByHand >();
      if( what == "rules" ) return countChoices< ByRules >();
   }
   if( argc > 1 ) {
      std::fprintf( stderr,
                    "usage: %s [count plain|signals|generic|start <n> | count hand|rules]\n",
                    argv[0] );
      return 2;
   }
   events();
   starts();
   sources();
   return 0;
}
