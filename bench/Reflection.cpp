// What it costs to reach an attribute by its number instead of by its accessor.
//
// Each figure is the time of one operation over the records of a directory of 1000, which all fit
// into the second-level cache: the typed one, and the generic one through the type's companion,
// wrapping and unwrapping included. The best of many rounds that alternate between the two.
//
// Either is a call: a typed write of the mutator in the shared library, a typed read of a function
// that does nothing but call the accessor. What the same read takes where the compiler sees the
// accessor, which is a load then, is printed behind.

#include "Ip/Ip.h"
#include "framework/Generic.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using Zek::GenericOperation;
using Zek::GenericValue;
using Zek::Ptr;
using Records = std::vector< Ptr< Ip::IpIntfConfig > >;

constexpr size_t recordCount = 1000;
constexpr int rounds = 2000;

// Not inlined, nor known to its callers in any other way, like a function of another library.
#ifdef __clang__
#define NOINLINE [[gnu::noinline, gnu::used]]
#else
#define NOINLINE [[gnu::noipa, gnu::used]]
#endif

template< class T >
void
keep( const T & value ) {
   asm volatile( "" : : "r"( &value ) : "memory" );
}

/// Nanoseconds of `action( record )`, on the average of one walk over the records.
template< class Action >
double
walk( const Records & records, Action action ) {
   const auto start = std::chrono::steady_clock::now();
   for( const auto & record : records ) action( *record );
   const std::chrono::duration< double, std::nano > spent =
      std::chrono::steady_clock::now() - start;
   return spent.count() / double( records.size() );
}

bool fine = true;

/// Prints one line.
template< class Typed, class Generic >
void
compare( const char * what, const Records & records, double limit, Typed typed, Generic generic ) {
   double best[2] = { 1e9, 1e9 };
   for( int round = 0; round < rounds; ++round ) {
      best[0] = std::min( best[0], walk( records, [&]( auto & r ) { typed( r, round ); } ) );
      best[1] = std::min( best[1], walk( records, [&]( auto & r ) { generic( r, round ); } ) );
   }
   const double ratio = best[1] / best[0];
   fine = fine && ratio <= limit;
   std::printf( "%-28s typed %5.2f ns  generic %5.2f ns  %5.2f x  limit %.0f  %s\n", what, best[0],
                best[1], ratio, limit, ratio <= limit ? "ok" : "EXCEEDED" );
}

template< auto Accessor >
NOINLINE auto
called( const Ip::IpIntfConfig & record ) {
   return std::decay_t< decltype( ( record.*Accessor )() ) >( ( record.*Accessor )() );
}

/// Reads and writes of one attribute. `values` are two that are written in turn.
template< auto Accessor, auto Mutator, class T >
void
attribute( const char * name, const Records & records, const T ( &values )[2] ) {
   const Zek::GenericIf & type = *Ip::IpIntfConfig::zekTypeDescriptor_.genericIf;
   const uint16_t id = type.attribute( name ).id;
   const GenericValue wrapped[2] = { values[0], values[1] };
   compare( ( std::string( "write " ) + name ).c_str(), records, 5,
            [&]( Ip::IpIntfConfig & r, int round ) { ( r.*Mutator )( values[round % 2] ); },
            [&]( Ip::IpIntfConfig & r, int round ) {
               type.genericIfAttributeOp( r, GenericOperation::write, id,
                                          std::span( &wrapped[round % 2], 1 ) );
            } );
   compare( ( std::string( "read " ) + name ).c_str(), records, 4,
            [&]( Ip::IpIntfConfig & r, int ) {
               const T value = called< Accessor >( r );
               keep( value );
            },
            [&]( Ip::IpIntfConfig & r, int ) {
               const GenericValue value =
                  type.genericIfAttributeOp( r, GenericOperation::read, id );
               keep( value );
            } );
}

} // namespace

int
main() {
   auto directory = Ip::configFactory();
   Records records;
   for( size_t i = 0; i < recordCount; ++i ) {
      records.push_back(
         directory->ipIntfConfigIs( Velon::IntfId( "Ethernet" + std::to_string( i ) ) ) );
   }
   using C = Ip::IpIntfConfig;
   using Velon::IpAddr;
   using Velon::IpAddrWithMask;
   attribute< &C::maxMssEgress, &C::maxMssEgressIs, uint16_t >( "maxMssEgress", records,
                                                                { 1400, 1300 } );
   attribute< &C::addrWithMask, &C::addrWithMaskIs, IpAddrWithMask >(
      "addrWithMask", records,
      { IpAddrWithMask( IpAddr( 0x0a000001 ), 24 ), IpAddrWithMask( IpAddr( 0x0a000002 ), 24 ) } );
   attribute< &C::configSource, &C::configSourceIs, Zek::String >(
      "configSource", records, { Zek::String( "cli" ), Zek::String( "startup" ) } );
   double seen = 1e9;
   for( int round = 0; round < rounds; ++round ) {
      seen = std::min( seen, walk( records, []( C & r ) { keep( r.maxMssEgress() ); } ) );
   }
   std::printf( "read maxMssEgress, inlined    %5.2f ns\n", seen );
   return fine ? 0 : 1;
}
