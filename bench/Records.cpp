// What real records cost: the bytes of one in a directory, and the instructions of a change made
// through the library.
//
//    Records                          both; counts instructions by running itself under valgrind
//    Records count <peer> <n> <what>  1000 calls with n watchers, for an instruction count of
//                                     change(); <what> is new (each a change) or same (none)
//
// Bytes. 100,000 Ip::IpIntfStatus in an Ip::Input::Status, beside the same fields in a plain
// struct in absl::node_hash_map, keyed by the same interface ids. All memory is counted: what
// malloc gave with its own overhead, and what was mapped. The layer-3 records that both point to
// and the interned ids belong to others and exist before. The collections are empty, as most are.
// Two structs, with a plain pointer to the layer-3 record and the same value types:
//
//    by hand   std::map for the ordered collection and absl::flat_hash_map for the hashed one, as
//              one would write without this library. The limit holds for this one.
//    bare      the library's own collections, which are one pointer each: nothing is left out but
//              what makes an entity (count, parent, notifiees, type) and its place.
//
// The same once more in a process that serves another tree to a mount: what nobody mounts has no
// more bytes for that.
//
// Instructions. Loop and call included, each mutator reached as a user reaches it: a generated one
// through the shared library's linkage table, a hand-written one by a direct call. Again, a record
// that nobody mounts is counted in a process that serves another tree, too.

#include "Ip/Ip.h"
#include "L3/L3.h"
#include "bench/stream/InProcess.h"
#include "framework/Name.h"

#include <absl/container/flat_hash_map.h>
#include <absl/container/node_hash_map.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <malloc.h>
#include <map>
#include <memory>
#include <string>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

// Not inlined, nor known to its callers in any other way, like a function of another library.
#ifdef __clang__
#define NOINLINE [[gnu::noinline, gnu::used]]
#else
#define NOINLINE [[gnu::noipa, gnu::used]]
#endif

// ---- all memory ---------------------------------------------------------------------------------

namespace {

size_t mapped = 0;

} // namespace

// Large tables are mapped rather than allocated. These stand before the C library's own for every
// caller but malloc, whose maps mallinfo2() counts.
extern "C" [[gnu::visibility( "default" )]] void *
mmap( void * at, size_t bytes, int protection, int flags, int fd, off_t offset ) noexcept {
   mapped += bytes;
   return reinterpret_cast< void * >(
      syscall( SYS_mmap, at, bytes, protection, flags, fd, offset ) );
}
extern "C" [[gnu::visibility( "default" )]] int
munmap( void * at, size_t bytes ) noexcept {
   mapped -= bytes;
   return static_cast< int >( syscall( SYS_munmap, at, bytes ) );
}

namespace {

/// Bytes in use now, the allocator's headers and padding included.
size_t
bytesInUse() {
   struct mallinfo2 heap = mallinfo2();
   return heap.uordblks + heap.hblkhd + mapped;
}

// ---- the records and their peers ----------------------------------------------------------------

struct IntfIdHash {
   size_t operator()( Velon::IntfId id ) const { return id.hash() * size_t{ 0x9e3779b97f4a7c15 }; }
};

/// The fields of an Ip::IpIntfStatus in the same types, its key standing in the map.
struct Bare {
   Velon::IpAddrWithMask activeAddrWithMask;
   Zek::RbTreeMap< Ip::IpIntfStatus::ZekActiveSecondaryWithMask, Velon::IpAddrWithMask, bool >
      activeSecondaryWithMask;
   Zek::HashMap< Ip::IpIntfStatus::ZekMcaddr, Velon::IpAddr > mcaddr;
   Urpf::UrpfStatus urpf;
   L3::Intf::Status * l3Status = nullptr;
   Zek::String configSource;
   Velon::IntfId unnumberedIntfId;
   uint16_t maxMssEgress = 0;
   uint16_t maxMssIngress = 0;
   bool useVirtualAddr = false;
   bool dpRoutingEnabled = false;
   Ip::TristateBool noArp = Ip::TristateBool::isInvalid;
   Ip::TristateBool addresslessForwarding = Ip::TristateBool::isInvalid;
   bool directedBroadcastEnabled = false;
   bool attachedRoutes = true;
};

/// The same with the collections that one would take without this library.
struct ByHand {
   Velon::IpAddrWithMask activeAddrWithMask;
   std::map< Velon::IpAddrWithMask, bool > activeSecondaryWithMask;
   absl::flat_hash_map< uint32_t, Ip::MulticastGroupInfo > mcaddr;
   Urpf::UrpfStatus urpf;
   L3::Intf::Status * l3Status = nullptr;
   Zek::String configSource;
   Velon::IntfId unnumberedIntfId;
   uint16_t maxMssEgress = 0;
   uint16_t maxMssIngress = 0;
   bool useVirtualAddr = false;
   bool dpRoutingEnabled = false;
   Ip::TristateBool noArp = Ip::TristateBool::isInvalid;
   Ip::TristateBool addresslessForwarding = Ip::TristateBool::isInvalid;
   bool directedBroadcastEnabled = false;
   bool attachedRoutes = true;
};

/// Another tree with a record, mounted by a peer that follows it.
class Served {
 public:
   Served() {
      auto status = Zek::allocate< Ip::Input::Status >( "status" );
      ends_.source->entityIs( status );
      record_ = status->ipIntfStatusIs( Velon::IntfId( "Ethernet1" ), L3::Intf::Status::Ptr() );
      ends_.mount(
         Kelmo::Mount( "status", "Ip::Input::Status", "r", Kelmo::MountFilter( false ) ) );
      if( !ends_.reader.isSynchronised() || !ends_.writer.adapter().adaptorOf( *record_ ) ) {
         std::abort();
      }
   }

 private:
   bench::InProcess ends_;
   Ip::IpIntfStatus::Ptr record_;
};

using Ids = std::vector< Velon::IntfId >;
using L3Records = std::vector< L3::Intf::Status::Ptr >;

/// Bytes per record of what `fill` builds and returns.
template< class Fill >
double
bytesEach( size_t records, Fill fill ) {
   malloc_trim( 0 );
   const size_t before = bytesInUse();
   auto built = fill();
   return static_cast< double >( bytesInUse() - before ) / static_cast< double >( records );
}

template< class Record >
auto
nodeMapOf( const Ids & ids ) {
   absl::node_hash_map< Velon::IntfId, Record, IntfIdHash > map;
   for( Velon::IntfId id : ids ) map.try_emplace( id );
   return map;
}

bool
verdict( const char * what, double ratio, double limit ) {
   const bool holds = ratio <= limit;
   std::printf( "%-44s %6.2f  limit %5.2f  %s\n", what, ratio, limit, holds ? "ok" : "EXCEEDED" );
   return holds;
}

bool
measureBytes( size_t records ) {
   Ids ids;
   L3Records l3;
   for( size_t i = 0; i < records; i++ ) {
      ids.emplace_back( "Ethernet" + std::to_string( i ) );
      l3.push_back( Zek::allocate< L3::Intf::Status >( ids.back() ) );
   }
   auto filled = [&] {
      auto directory = Zek::allocate< Ip::Input::Status >( "status" );
      for( size_t i = 0; i < records; i++ ) directory->ipIntfStatusIs( ids[i], l3[i] );
      return directory;
   };
   const double entity = bytesEach( records, filled );
   const Served served;
   const double unmounted = bytesEach( records, filled );
   const double bare = bytesEach( records, [&] { return nodeMapOf< Bare >( ids ); } );
   const double byHand = bytesEach( records, [&] { return nodeMapOf< ByHand >( ids ); } );
   std::printf( "bytes of one of %zu records          object  with its place\n", records );
   std::printf( "   Ip::IpIntfStatus in a directory       %6zu %15.1f\n",
                sizeof( Ip::IpIntfStatus ), entity );
   std::printf( "   bare struct in absl::node_hash_map    %6zu %15.1f\n",
                sizeof( std::pair< const Velon::IntfId, Bare > ), bare );
   std::printf( "   struct by hand in the same            %6zu %15.1f\n",
                sizeof( std::pair< const Velon::IntfId, ByHand > ), byHand );
   bool holds = verdict( "bytes, x struct by hand", entity / byHand, 1.45 );
   std::printf( "%-44s %6.2f\n", "bytes, x bare struct", entity / bare );
   return verdict( "bytes where another tree is served", unmounted / entity, 1.005 ) && holds;
}

// ---- mutators -----------------------------------------------------------------------------------

constexpr int countedCalls = 1000;

struct Attribute {
   bool dpRoutingEnabled = false;
   uint16_t maxMssEgress = 0;
   Velon::IpAddrWithMask activeAddrWithMask;
};

/// Stores, and tells nobody.
struct Plain : Attribute {
   NOINLINE void dpRoutingEnabledIs( bool v ) {
      if( dpRoutingEnabled == v ) return;
      dpRoutingEnabled = v;
   }
   NOINLINE void maxMssEgressIs( uint16_t v ) {
      if( maxMssEgress == v ) return;
      maxMssEgress = v;
   }
   NOINLINE void activeAddrWithMaskIs( const Velon::IpAddrWithMask & v ) {
      if( activeAddrWithMask == v ) return;
      activeAddrWithMask = v;
   }
};

/// Tells a list of watchers that must not change while it does.
struct Intrusive : Attribute {
   struct Watcher {
      virtual ~Watcher() = default;
      virtual void onDpRoutingEnabled() {}
      virtual void onMaxMssEgress() {}
      virtual void onActiveAddrWithMask() {}
      Watcher * next = nullptr;
   };
   // Two kinds, lest the one that there is be called directly.
   template< int kind >
   struct Counting final : Watcher {
      void onDpRoutingEnabled() override { calls += kind; }
      void onMaxMssEgress() override { calls += kind; }
      void onActiveAddrWithMask() override { calls += kind; }
      int calls = 0;
   };
   NOINLINE void dpRoutingEnabledIs( bool v ) {
      if( dpRoutingEnabled == v ) return;
      dpRoutingEnabled = v;
      for( Watcher * w = first; w; w = w->next ) w->onDpRoutingEnabled();
   }
   NOINLINE void maxMssEgressIs( uint16_t v ) {
      if( maxMssEgress == v ) return;
      maxMssEgress = v;
      for( Watcher * w = first; w; w = w->next ) w->onMaxMssEgress();
   }
   NOINLINE void activeAddrWithMaskIs( const Velon::IpAddrWithMask & v ) {
      if( activeAddrWithMask == v ) return;
      activeAddrWithMask = v;
      for( Watcher * w = first; w; w = w->next ) w->onActiveAddrWithMask();
   }
   void watch( size_t n ) {
      for( size_t i = 0; i < n; i++ ) {
         if( n == 1000 ) {
            watchers.push_back( std::make_unique< Counting< 2 > >() );
         } else {
            watchers.push_back( std::make_unique< Counting< 1 > >() );
         }
         watchers.back()->next = std::exchange( first, watchers.back().get() );
      }
   }
   Watcher * first = nullptr;
   std::vector< std::unique_ptr< Watcher > > watchers;
};

struct Watcher final : Ip::IpIntfStatus::NotifieeConst {
   void onDpRoutingEnabled() override { calls++; }
   void onMaxMssEgress() override { calls++; }
   void onActiveAddrWithMask() override { calls++; }
   int calls = 0;
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "Watcher", 0 };
};

/// Makes the compiler forget what it knows of the object: whose callbacks it calls above all.
template< class T >
void
obscure( T & object ) {
   asm volatile( "" : : "r"( &object ) : "memory" );
}

// One loop for each attribute, the same for every peer. `step` is 0 for calls that change nothing.
template< class Peer >
NOINLINE void
changeFlag( Peer & peer, int, unsigned step ) {
   unsigned v = 1;
   for( int i = 0; i < countedCalls; i++, v ^= step ) peer.dpRoutingEnabledIs( v );
}
template< class Peer >
NOINLINE void
changeNumber( Peer & peer, int, unsigned step ) {
   uint16_t v = 1;
   for( int i = 0; i < countedCalls; i++, v = uint16_t( v + step ) ) peer.maxMssEgressIs( v );
}
template< class Peer >
NOINLINE void
changeAddress( Peer & peer, const Velon::IpAddrWithMask * addresses, unsigned step ) {
   for( int i = 0; i < countedCalls; i++, addresses += step )
      peer.activeAddrWithMaskIs( *addresses );
}

template< class Peer >
void
run( Peer & peer, const std::string & attribute, unsigned step ) {
   // The first value is in place before, so that with step 0 no call changes anything; with step 1
   // the first of the thousand does not.
   obscure( peer );
   if( attribute == "flag" ) {
      peer.dpRoutingEnabledIs( true );
      changeFlag( peer, 0, step );
   } else if( attribute == "number" ) {
      peer.maxMssEgressIs( 1 );
      changeNumber( peer, 0, step );
   } else {
      std::vector< Velon::IpAddrWithMask > addresses;
      for( uint32_t i = 0; i < countedCalls; i++ ) {
         addresses.emplace_back( Velon::IpAddr( 0x0a000001 + i ), 24 );
      }
      peer.activeAddrWithMaskIs( addresses[0] );
      changeAddress( peer, addresses.data(), step );
   }
   obscure( peer );
}

int
countCalls( const std::string & peer, size_t watchers, const std::string & attribute,
            unsigned step ) {
   if( peer == "plain" ) {
      Plain plain;
      run( plain, attribute, step );
   } else if( peer == "intrusive" ) {
      Intrusive intrusive;
      intrusive.watch( watchers );
      run( intrusive, attribute, step );
   } else {
      std::unique_ptr< Served > served;
      if( peer == "unmounted" ) served = std::make_unique< Served >();
      const Velon::IntfId id( "Ethernet1" );
      auto record =
         Zek::allocate< Ip::IpIntfStatus >( id, Zek::allocate< L3::Intf::Status >( id ) );
      std::vector< Zek::Ptr< Watcher > > held;
      for( size_t i = 0; i < watchers; i++ ) {
         held.push_back( Zek::allocate< Watcher >() );
         held.back()->notifierIs( record );
         held.back()->isRegisteredNotifieeIs( true );
      }
      run( *record, attribute, step );
   }
   return 0;
}

/// Instructions per call, by callgrind; negative without valgrind.
int
instructions( const char * peer, int watchers, const char * attribute, const char * what ) {
   char self[4096];
   const ssize_t length = readlink( "/proc/self/exe", self, sizeof self - 1 );
   if( length < 0 ) return -1;
   self[length] = 0;
   char command[8192];
   std::snprintf( command, sizeof command,
                  "f=$(mktemp) && valgrind --tool=callgrind --callgrind-out-file=\"$f\" "
                  "--toggle-collect='*change*' '%s' count %s %d %s %s > /dev/null 2>&1 && "
                  "awk '/^(summary|totals):/ { print int( $2 / %d ); exit }' \"$f\"; rm -f \"$f\"",
                  self, peer, watchers, attribute, what, countedCalls );
   FILE * pipe = popen( command, "r" );
   if( !pipe ) return -1;
   int count = -1;
   if( std::fscanf( pipe, "%d", &count ) != 1 ) count = -1;
   pclose( pipe );
   return count;
}

bool
measureInstructions() {
   if( std::system( "command -v valgrind > /dev/null 2>&1" ) != 0 ) {
      std::printf( "instructions: SKIPPED: no valgrind\n" );
      return true;
   }
   bool holds = true;
   auto row = [&]( const char * what, int own, const char * peer, int other, double limit ) {
      const bool fine = own >= 0 && other >= 0 && own <= limit;
      std::printf( "   %-38s %5d  %-20s %5d  limit %5.1f  %s\n", what, own, peer, other, limit,
                   fine ? "ok" : "EXCEEDED" );
      holds = holds && fine;
   };
   for( const char * attribute : { "flag", "number", "address" } ) {
      std::printf( "instructions of one call, %s\n", attribute );
      const int store = instructions( "plain", 0, attribute, "new" );
      const int compare = instructions( "plain", 0, attribute, "same" );
      const int own = instructions( "record", 0, attribute, "new" );
      row( "nobody watches, a new value", own, "compare and store", store, store + 4 );
      row( "the same where another tree is served",
           instructions( "unmounted", 0, attribute, "new" ), "where none is", own, own );
      row( "nobody watches, the same value", instructions( "record", 0, attribute, "same" ),
           "compare", compare, compare + 1 );
      for( auto [watchers, factor] : { std::pair( 1, 1.5 ), std::pair( 8, 2.5 ) } ) {
         const int list = instructions( "intrusive", watchers, attribute, "new" );
         char what[64];
         std::snprintf( what, sizeof what, "notifiees: %d", watchers );
         row( what, instructions( "record", watchers, attribute, "new" ), "intrusive list", list,
              list * factor );
      }
   }
   return holds;
}

} // namespace

int
main( int argc, char ** argv ) {
   if( argc == 6 && !std::strcmp( argv[1], "count" ) ) {
      return countCalls( argv[2], std::strtoul( argv[3], nullptr, 10 ), argv[4],
                         std::strcmp( argv[5], "same" ) != 0 );
   }
   if( argc > 1 ) {
      std::fprintf( stderr,
                    "usage: %s [count plain|intrusive|record|unmounted <n> flag|number|address "
                    "new|same]\n",
                    argv[0] );
      return 2;
   }
   const bool bytes = measureBytes( 100000 );
   const bool calls = measureInstructions();
   return bytes && calls ? 0 : 1;
}
