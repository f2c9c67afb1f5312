// The value types as bytes in streams: addresses as they stand in packets, prefix lengths and
// families in one byte.

#include "framework/Wire.h"

#include "platform/Velon/Ip6Addr.h"
#include "platform/Velon/IpAddr.h"
#include "platform/Velon/IpGenAddr.h"
#include "platform/Velon/Prefix.h"
#include "platform/Velon/RouteDistinguisher.h"

namespace Velon {

using Zek::Wire::Decoder;
using Zek::Wire::Encoder;

namespace {

template< class Addr, class WithMask >
void
encodeWithMask( const WithMask & value, Encoder & out ) {
   value.addr().encodeTo( out );
   out.u8( static_cast< uint8_t >( value.len() ) );
}

template< class Addr, class WithMask >
bool
decodeWithMask( Decoder & in, WithMask & out ) {
   Addr addr;
   uint8_t len;
   if( !Addr::decodeFrom( in, addr ) || !in.u8( len, "a prefix length" ) ) return false;
   if( len > Addr::bits ) return in.fail( "a prefix length of the family" );
   out = WithMask( addr, len );
   return true;
}

template< class V4, class V6, class Gen >
void
encodeGeneric( const Gen & value, const V4 & v4, const V6 & v6, Encoder & out ) {
   out.u8( static_cast< uint8_t >( value.af() ) );
   if( value.af() == AddressFamily::ipv4 ) v4.encodeTo( out );
   if( value.af() == AddressFamily::ipv6 ) v6.encodeTo( out );
}

template< class V4, class V6, class Gen >
bool
decodeGeneric( Decoder & in, Gen & out ) {
   uint8_t family;
   if( !in.u8( family, "an address family" ) ) return false;
   switch( static_cast< AddressFamily >( family ) ) {
   case AddressFamily::none:
      out = Gen();
      return true;
   case AddressFamily::ipv4: {
      V4 v4;
      if( !V4::decodeFrom( in, v4 ) ) return false;
      out = Gen( v4 );
      return true;
   }
   case AddressFamily::ipv6: {
      V6 v6;
      if( !V6::decodeFrom( in, v6 ) ) return false;
      out = Gen( v6 );
      return true;
   }
   }
   return in.fail( "an address family of 0, 1 or 2" );
}

} // namespace

void
IpAddr::encodeTo( Encoder & out ) const {
   out.u32( value_ );
}

bool
IpAddr::decodeFrom( Decoder & in, IpAddr & out ) {
   return in.u32( out.value_, "an IPv4 address" );
}

void
Ip6Addr::encodeTo( Encoder & out ) const {
   out.u64( high() );
   out.u64( low() );
}

bool
Ip6Addr::decodeFrom( Decoder & in, Ip6Addr & out ) {
   uint64_t high, low;
   if( !in.u64( high, "an IPv6 address" ) || !in.u64( low, "an IPv6 address" ) ) return false;
   out = Ip6Addr( high, low );
   return true;
}

void
IpAddrWithMask::encodeTo( Encoder & out ) const {
   encodeWithMask< IpAddr >( *this, out );
}

bool
IpAddrWithMask::decodeFrom( Decoder & in, IpAddrWithMask & out ) {
   return decodeWithMask< IpAddr >( in, out );
}

void
Ip6AddrWithMask::encodeTo( Encoder & out ) const {
   encodeWithMask< Ip6Addr >( *this, out );
}

bool
Ip6AddrWithMask::decodeFrom( Decoder & in, Ip6AddrWithMask & out ) {
   return decodeWithMask< Ip6Addr >( in, out );
}

void
IpGenAddr::encodeTo( Encoder & out ) const {
   encodeGeneric( *this, v4Addr(), v6Addr(), out );
}

bool
IpGenAddr::decodeFrom( Decoder & in, IpGenAddr & out ) {
   return decodeGeneric< IpAddr, Ip6Addr >( in, out );
}

void
IpGenAddrWithMask::encodeTo( Encoder & out ) const {
   encodeGeneric( *this, v4AddrWithMask(), v6AddrWithMask(), out );
}

bool
IpGenAddrWithMask::decodeFrom( Decoder & in, IpGenAddrWithMask & out ) {
   return decodeGeneric< IpAddrWithMask, Ip6AddrWithMask >( in, out );
}

template< class Addr, class WithMask >
void
PrefixOf< Addr, WithMask >::encodeTo( Encoder & out ) const {
   prefix_.encodeTo( out );
}

template< class Addr, class WithMask >
bool
PrefixOf< Addr, WithMask >::decodeFrom( Decoder & in, PrefixOf & out ) {
   WithMask addr;
   if( !WithMask::decodeFrom( in, addr ) ) return false;
   out = PrefixOf( addr );
   return true;
}

template void PrefixOf< IpAddr, IpAddrWithMask >::encodeTo( Encoder & out ) const;
template bool PrefixOf< IpAddr, IpAddrWithMask >::decodeFrom( Decoder & in, Prefix & out );
template void PrefixOf< Ip6Addr, Ip6AddrWithMask >::encodeTo( Encoder & out ) const;
template bool PrefixOf< Ip6Addr, Ip6AddrWithMask >::decodeFrom( Decoder & in, Ip6Prefix & out );

void
RouteDistinguisher::encodeTo( Encoder & out ) const {
   out.u64( value_ );
}

bool
RouteDistinguisher::decodeFrom( Decoder & in, RouteDistinguisher & out ) {
   return in.u64( out.value_, "a route distinguisher" );
}

} // namespace Velon
