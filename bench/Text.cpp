// What it costs to write the text form of a value, beside snprintf() of the same fields.
//
//    Text        nanoseconds of one text and the ratio for each value; status 1 above the limit
//
// Ours appends to a string that is reused, from the type's rows alone; the peer knows the format
// and writes into an array. Numbers of addresses are fields of the peer's format; names and
// enumerators are at hand as C strings. IPv6 is left out: nothing in the C library's formats
// shortens an address.

#include "Ip/Ip.h"
#include "VirtualIp/VirtualIp.h"
#include "VrfTypes/VrfTypes.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

namespace {

using Velon::IntfId;
using Velon::IpAddr;

constexpr size_t values = 256;
constexpr double limit = 1.0;

/// Nanoseconds of one call of `write( i )`, i below `values`: the least of many rounds.
template< class Write >
double
nanoseconds( Write write ) {
   double least = 1e9;
   for( int round = 0; round < 400; ++round ) {
      const auto begin = std::chrono::steady_clock::now();
      for( size_t i = 0; i < values; ++i ) write( i );
      const std::chrono::duration< double, std::nano > time =
         std::chrono::steady_clock::now() - begin;
      least = std::min( least, time.count() / values );
   }
   return least;
}

/// Compares the text of each value with what `print( value, buffer, size )` writes. False above
/// the limit, or when the texts differ.
template< class V, class Print >
bool
compare( const char * name, const std::vector< V > & of, Print print ) {
   std::string text;
   char buffer[512];
   for( const V & value : of ) {
      text.clear();
      value.appendTo( text );
      print( value, buffer, sizeof buffer );
      if( text != buffer ) {
         std::printf( "the peer writes %s\ninstead of      %s\n", buffer, text.c_str() );
         return false;
      }
   }
   double own = 1e9, peer = 1e9;
   for( int turn = 0; turn < 3; ++turn ) { // by turns, so that a slow moment meets both
      own = std::min( own, nanoseconds( [&]( size_t i ) {
                         text.clear();
                         of[i].appendTo( text );
                         asm volatile( "" : : "r"( text.data() ) : "memory" );
                      } ) );
      peer = std::min( peer, nanoseconds( [&]( size_t i ) {
                          print( of[i], buffer, sizeof buffer );
                          asm volatile( "" : : "r"( buffer ) : "memory" );
                       } ) );
   }
   const double ratio = own / peer;
   std::printf( "%-32s %7.1f ns  snprintf %7.1f ns  ratio %5.2f  limit %4.2f  %s\n", name, own,
                peer, ratio, limit, ratio <= limit ? "ok" : "EXCEEDED" );
   return ratio <= limit;
}

template< class V, class Make >
std::vector< V >
some( Make make ) {
   std::vector< V > out;
   for( uint32_t i = 0; i < values; ++i ) out.push_back( make( i ) );
   return out;
}

} // namespace

int
main() {
   // Addresses whose bytes have one to three digits.
   auto addr = []( uint32_t i ) { return IpAddr( 0x0a000000 + i * 0x010305 ); };
   auto id = []( uint32_t i ) { return IntfId( "Ethernet" + std::to_string( i ) ); };
   auto name = []( const char * stem, uint32_t i ) { return stem + std::to_string( i ); };
   bool holds = true;
   holds &=
      compare( "Ip::IntfAddrInfo", some< Ip::IntfAddrInfo >( [&]( uint32_t i ) {
                  return Ip::IntfAddrInfo( id( i ), addr( i ) );
               } ),
               []( const Ip::IntfAddrInfo & v, char * at, size_t size ) {
                  const auto b = v.addr().bytes();
                  std::snprintf(
                     at, size, "Value('Ip::IntfAddrInfo', ** {'intfId': %s, 'addr': %u.%u.%u.%u})",
                     v.intfId().charPtr(), b[0], b[1], b[2], b[3] );
               } );
   static const char * const modes[] = { "disable", "loose", "strict", "strictDefault" };
   holds &=
      compare( "Urpf::UrpfConfig", some< Urpf::UrpfConfig >( [&]( uint32_t i ) {
                  return Urpf::UrpfConfig( Urpf::UrpfModeInstance( i % 4 ), name( "acl", i ) );
               } ),
               []( const Urpf::UrpfConfig & v, char * at, size_t size ) {
                  std::snprintf( at, size, "Value('Urpf::UrpfConfig', ** {'mode': %s, 'acl': %s})",
                                 modes[static_cast< size_t >( v.mode() )], v.acl().charPtr() );
               } );
   holds &= compare(
      "VirtualIp::VrfIpWithMaskPair", some< VirtualIp::VrfIpWithMaskPair >( [&]( uint32_t i ) {
         return VirtualIp::VrfIpWithMaskPair(
            L3::VrfName( name( "vrf", i ) ),
            Velon::IpGenAddrWithMask( Velon::IpAddrWithMask( addr( i ), i % 33 ) ) );
      } ),
      []( const VirtualIp::VrfIpWithMaskPair & v, char * at, size_t size ) {
         const auto ip = v.ipWithMask().v4AddrWithMask();
         const auto b = ip.addr().bytes();
         std::snprintf( at, size,
                        "Value('VirtualIp::VrfIpWithMaskPair', ** {'vrfName': %s, 'ipWithMask': "
                        "%u.%u.%u.%u/%u})",
                        v.vrfName().charPtr(), b[0], b[1], b[2], b[3], ip.len() );
      } );
   holds &=
      compare( "VrfTypes::VrfCleanupEntry", some< VrfTypes::VrfCleanupEntry >( [&]( uint32_t i ) {
                  return VrfTypes::VrfCleanupEntry( Zek::String( name( "plugin", i ) ), i % 2 );
               } ),
               []( const VrfTypes::VrfCleanupEntry & v, char * at, size_t size ) {
                  std::snprintf(
                     at, size,
                     "Value('VrfTypes::VrfCleanupEntry', ** {'pluginName': %s, 'cleanupDone': %s})",
                     v.pluginName().charPtr(), v.cleanupDone() ? "true" : "false" );
               } );
   return holds ? 0 : 1;
}
