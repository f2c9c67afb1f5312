// What it costs to change a watched record, beside what others pay for less.
//
//    Notify                       times, in rounds that take turns; prints ratios
//    Notify count <peer> <n>      a fixed number of changes with n watchers, for an
//                                 instruction count of change() (bench/instructions.sh)
//
// Peers: `plain` stores and announces nothing; `intrusive` is a hand-rolled list of watchers that
// survives no change while it is walked; `functions` a std::vector of std::function; `signals`
// boost::signals2; `zek` this library.

#include "framework/Notifiee.h"
#include "framework/Notifier.h"

#include <boost/signals2.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <vector>

// Not inlined, nor tailored to one caller.
#define NOINLINE [[gnu::noinline, gnu::used]]

namespace {

uint64_t allocations = 0;

} // namespace

void *
operator new( size_t bytes ) {
   allocations++;
   if( void * memory = std::malloc( bytes ) ) return memory;
   throw std::bad_alloc();
}
void
operator delete( void * memory ) noexcept {
   std::free( memory );
}
void
operator delete( void * memory, size_t ) noexcept {
   std::free( memory );
}

namespace {

// ---- the peers: each a record with one attribute and a way to watch it ---------------------

struct Plain {
   NOINLINE void xIs( int x ) {
      if( x_ == x ) return;
      x_ = x;
   }
   void watch( size_t ) {}
   int x_ = 0;
};

struct Intrusive {
   struct Watcher {
      virtual ~Watcher() = default;
      virtual void onX() = 0;
      Watcher * next = nullptr;
   };
   // Two kinds, lest the one that there is be called directly.
   template< int kind >
   struct Counting final : Watcher {
      void onX() override { calls += kind; }
      int calls = 0;
   };
   NOINLINE void xIs( int x ) {
      if( x_ == x ) return;
      x_ = x;
      for( Watcher * w = first_; w; w = w->next ) w->onX();
   }
   void watch( size_t n ) {
      for( size_t i = 0; i < n; i++ ) {
         if( n == 1000 ) {
            watchers_.push_back( std::make_unique< Counting< 2 > >() );
         } else {
            watchers_.push_back( std::make_unique< Counting< 1 > >() );
         }
         watchers_.back()->next = std::exchange( first_, watchers_.back().get() );
      }
   }
   int x_ = 0;
   Watcher * first_ = nullptr;
   std::vector< std::unique_ptr< Watcher > > watchers_;
};

struct Functions {
   NOINLINE void xIs( int x ) {
      if( x_ == x ) return;
      x_ = x;
      for( auto & f : functions_ ) f();
   }
   void watch( size_t n ) {
      calls_ = std::vector< int >( n );
      for( int & calls : calls_ ) functions_.push_back( [&calls] { calls++; } );
   }
   int x_ = 0;
   std::vector< std::function< void() > > functions_;
   std::vector< int > calls_;
};

struct Signals {
   NOINLINE void xIs( int x ) {
      if( x_ == x ) return;
      x_ = x;
      onX_();
   }
   void watch( size_t n ) {
      calls_ = std::vector< int >( n );
      for( int & calls : calls_ ) onX_.connect( [&calls] { calls++; } );
   }
   int x_ = 0;
   boost::signals2::signal< void() > onX_;
   std::vector< int > calls_;
};

class Record final : public Zek::Notifier {
 public:
   class NotifieeConst : public Zek::PtrInterface::NotifieeConst {
    public:
      virtual void onX() {}
      virtual void onMember( const int & ) {}
      void notifierIs( Zek::Ptr< const Zek::PtrInterface > p ) override {
         notifierAssign( dynamic_cast< const Record * >( p.ptr() ) );
      }
   };
   NOINLINE void xIs( int x ) {
      if( x_ == x ) return;
      x_ = x;
      announce( &NotifieeConst::onX );
   }
   NOINLINE void keyedIs( int x ) {
      if( x_ == x ) return;
      x_ = x;
      announce( &NotifieeConst::onMember, x );
   }
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "Record", 0 };

 private:
   int x_ = 0;
};

struct Watcher final : Record::NotifieeConst {
   void onX() override { calls++; }
   void onMember( const int & ) override { calls++; }
   int calls = 0;
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "Watcher", 0 };
};

struct ZekPeer {
   void xIs( int x ) { record_->xIs( x ); }
   void watch( size_t n ) {
      for( size_t i = 0; i < n; i++ ) {
         watchers_.push_back( Zek::allocate< Watcher >() );
         watchers_.back()->notifierIs( record_ );
         watchers_.back()->isRegisteredNotifieeIs( true );
      }
   }
   Record & record() { return *record_; }
   Zek::Ptr< Record > record_ = Zek::allocate< Record >();
   std::vector< Zek::Ptr< Watcher > > watchers_;
};

struct ZekKeyed : ZekPeer {
   void xIs( int x ) { record_->keyedIs( x ); }
};

// ---- measuring ----------------------------------------------------------------------------

constexpr int countedChanges = 1000;

// Makes the compiler forget what it knows of the object: whose callbacks it calls above all.
template< class T >
void
obscure( T & object ) {
   asm volatile( "" : : "r"( &object ) : "memory" );
}

template< class Peer >
NOINLINE void
change( Peer & peer, int from, int changes ) {
   for( int i = 0; i < changes; i++ ) peer.xIs( from + i );
}

// The record itself, so that the loop reads the same for every peer.
template< class Peer >
auto &
subject( Peer & peer ) {
   if constexpr( std::is_base_of_v< ZekPeer, Peer > && !std::is_same_v< ZekKeyed, Peer > ) {
      return peer.record();
   } else {
      return peer;
   }
}

template< class Peer >
int
countChanges( size_t watchers ) {
   Peer peer;
   peer.watch( watchers );
   obscure( peer );
   change( subject( peer ), 1, countedChanges );
   obscure( peer );
   return 0;
}

template< class Peer >
class Timed {
 public:
   explicit Timed( size_t watchers ) {
      peer_.watch( watchers );
      obscure( peer_ );
   }
   void round() {
      using Clock = std::chrono::steady_clock;
      auto & record = subject( peer_ );
      change( record, next_, 1000 );
      next_ += 1000;
      uint64_t before = allocations;
      auto begin = Clock::now();
      change( record, next_, changes );
      std::chrono::duration< double, std::nano > taken = Clock::now() - begin;
      allocated_ += allocations - before;
      next_ += changes;
      if( next_ > 1000000000 ) next_ = 1;
      best_ = std::min( best_, taken.count() / changes );
   }
   double nanoseconds() const { return best_; }
   double allocated() const { return static_cast< double >( allocated_ ); }

 private:
   static constexpr int changes = std::is_same_v< Peer, Signals > ? 5000 : 50000;
   Peer peer_;
   int next_ = 1;
   double best_ = 1e9;
   uint64_t allocated_ = 0;
};

void
compare( size_t watchers ) {
   Timed< Intrusive > intrusive( watchers );
   Timed< Functions > functions( watchers );
   Timed< Signals > signals( watchers );
   Timed< ZekPeer > zek( watchers );
   Timed< ZekKeyed > keyed( watchers );
   for( int round = 0; round < 30; round++ ) {
      intrusive.round();
      functions.round();
      signals.round();
      zek.round();
      keyed.round();
   }
   double own = zek.nanoseconds();
   std::printf( "%8zu %8.2f %8.2f %13.2f %13.2f %13.2f %12.0f\n", watchers, own,
                keyed.nanoseconds(), own / intrusive.nanoseconds(), own / functions.nanoseconds(),
                signals.nanoseconds() / own, zek.allocated() + keyed.allocated() );
}

} // namespace

int
main( int argc, char ** argv ) {
   if( argc == 4 && !std::strcmp( argv[1], "count" ) ) {
      std::string peer = argv[2];
      size_t watchers = std::strtoul( argv[3], nullptr, 10 );
      if( peer == "plain" ) return countChanges< Plain >( watchers );
      if( peer == "intrusive" ) return countChanges< Intrusive >( watchers );
      if( peer == "functions" ) return countChanges< Functions >( watchers );
      if( peer == "signals" ) return countChanges< Signals >( watchers );
      if( peer == "zek" ) return countChanges< ZekPeer >( watchers );
      if( peer == "keyed" ) return countChanges< ZekKeyed >( watchers );
   }
   if( argc > 1 ) {
      std::fprintf( stderr, "usage: %s [count plain|intrusive|functions|signals|zek|keyed <n>]\n",
                    argv[0] );
      return 2;
   }
   std::printf( "%8s %8s %8s %13s %13s %13s %12s\n", "watchers", "zek ns", "keyed ns",
                "x intrusive", "x functions", "signals2 x", "allocations" );
   for( size_t watchers : { 0, 1, 2, 8, 64 } ) compare( watchers );
   std::printf( "limits: at most 1.00 x functions, signals2 at least 15 x, no allocation\n" );
   return 0;
}
