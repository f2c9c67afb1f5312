// Writers of text forms into caller's buffers, shared by the value types of this folder and not
// installed. Each write() returns the end of what it wrote; nothing is zero-terminated.

#pragma once

#include "platform/Velon/Ip6Addr.h"
#include "platform/Velon/IpAddr.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace Velon::Text {

/// "255.255.255.255"
constexpr size_t ipAddrMax = 15;
/// Eight groups of four digits and seven colons.
constexpr size_t ip6AddrMax = 39;
/// "/128"
constexpr size_t lengthMax = 4;

inline char *
writeByte( char * at, unsigned value ) {
   if( value >= 100 ) *at++ = static_cast< char >( '0' + value / 100 );
   if( value >= 10 ) *at++ = static_cast< char >( '0' + value / 10 % 10 );
   *at++ = static_cast< char >( '0' + value % 10 );
   return at;
}

inline char *
writeLength( char * at, unsigned len ) {
   *at++ = '/';
   return writeByte( at, len );
}

inline char *
write( char * at, IpAddr addr ) {
   uint32_t value = addr.value();
   at = writeByte( at, value >> 24 );
   for( int shift = 16; shift >= 0; shift -= 8 ) {
      *at++ = '.';
      at = writeByte( at, value >> shift & 0xff );
   }
   return at;
}

char * write( char * at, const Ip6Addr & addr );

template< class T >
std::string
of( const T & value ) {
   std::string text;
   value.appendTo( text );
   return text;
}

} // namespace Velon::Text
