// Addresses of either family as bytes in streams: the family in one byte, then the address as it
// stands in packets.

#include "framework/Wire.h"

#include "platform/Velon/IpGenAddr.h"

namespace Velon {

using Zek::Wire::Decoder;
using Zek::Wire::Encoder;

namespace {

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

} // namespace Velon
