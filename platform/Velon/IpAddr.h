// IPv4 addresses, alone and with a prefix length.
//
// Plain values. An address is held as a number, so that order is numeric; networkOrder() and
// bytes() give the form of packets and kernel messages. Texts are dotted decimal, strict: four
// octets without leading zeros, lengths 0 to 32 without sign, blanks or leading zeros.

#pragma once

#include "framework/Export.h"
#include "framework/Wire.h"
#include "platform/Velon/Companions.h"
#include "platform/Velon/Mix.h"

#include <array>
#include <bit>
#include <compare>
#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>

namespace Velon {

class IPSTATE_EXPORT IpAddr {
 public:
   static constexpr unsigned bits = 32;

   /// 0.0.0.0
   constexpr IpAddr() = default;
   /// From the number: 0x0a000001 is 10.0.0.1.
   constexpr explicit IpAddr( uint32_t value ) : value_( value ) {}
   constexpr IpAddr( uint8_t a, uint8_t b, uint8_t c, uint8_t d )
      : value_( uint32_t( a ) << 24 | uint32_t( b ) << 16 | uint32_t( c ) << 8 | d ) {}
   /// Throws Zek::RangeException unless the whole text is an address.
   explicit IpAddr( std::string_view text );
   /// From a word as it stands in packets and in struct in_addr.
   static constexpr IpAddr fromNetworkOrder( uint32_t word ) { return IpAddr( swapped( word ) ); }
   /// From four bytes in network order.
   static IpAddr fromBytes( const void * bytes ) {
      uint32_t word;
      std::memcpy( &word, bytes, sizeof word );
      return fromNetworkOrder( word );
   }
   /// 255.255.255.0 for 24; `len` up to 32.
   static constexpr IpAddr mask( unsigned len ) {
      return IpAddr( len == 0 ? 0 : ~uint32_t( 0 ) << ( bits - len ) );
   }

   constexpr uint32_t value() const { return value_; }
   constexpr uint32_t networkOrder() const { return swapped( value_ ); }
   constexpr std::array< uint8_t, 4 > bytes() const {
      return { uint8_t( value_ >> 24 ), uint8_t( value_ >> 16 ), uint8_t( value_ >> 8 ),
               uint8_t( value_ ) };
   }

   constexpr bool isUnspecified() const { return value_ == 0; }
   constexpr bool isLoopback() const { return value_ >> 24 == 127; }
   constexpr bool isLinkLocal() const { return value_ >> 16 == 0xa9fe; }
   constexpr bool isMulticast() const { return value_ >> 28 == 0xe; }
   constexpr bool isBroadcast() const { return value_ == ~uint32_t( 0 ); }
   /// False for 0.0.0.0 only.
   constexpr explicit operator bool() const { return value_ != 0; }

   /// The first `len` (up to 32) bits, zeros behind.
   constexpr IpAddr masked( unsigned len ) const { return IpAddr( value_ & mask( len ).value_ ); }
   /// Leading bits in common, 0 to 32.
   constexpr unsigned longestCommonPrefix( IpAddr other ) const {
      return static_cast< unsigned >( std::countl_zero( value_ ^ other.value_ ) );
   }

   constexpr uint32_t hash() const { return mix32( value_ ); }
   friend constexpr bool operator==( IpAddr, IpAddr ) = default;
   friend constexpr std::strong_ordering operator<=>( IpAddr, IpAddr ) = default;

   void appendTo( std::string & out ) const;
   std::string toString() const;
   static bool fromText( std::string_view text, IpAddr & out );
   /// As in streams.
   static constexpr uint8_t wireSize = 4;
   template< class Out >
   void encodeTo( Out & out ) const {
      out.u32( value_ );
   }
   template< class In >
   static bool decodeFrom( In & in, IpAddr & out ) {
      return in.u32( out.value_, "an IPv4 address" );
   }

 private:
   static constexpr uint32_t swapped( uint32_t word ) {
      return std::endian::native == std::endian::little ? __builtin_bswap32( word ) : word;
   }
   uint32_t value_ = 0;
};

/// Reads an address of either family and its prefix length.
template< class Addr, class In, class WithMask >
bool
decodeWithMask( In & in, WithMask & out ) {
   Addr addr;
   uint8_t len;
   if( !Addr::decodeFrom( in, addr ) || !in.u8( len, "a prefix length" ) ) return false;
   if( len > Addr::bits ) return in.fail( "a prefix length of the family" );
   out = WithMask( addr, len );
   return true;
}

/// An address and a prefix length; the address keeps its host bits. Orders by address, then
/// length. Text: "10.0.0.1/24".
class IPSTATE_EXPORT IpAddrWithMask {
 public:
   /// 0.0.0.0/0
   constexpr IpAddrWithMask() = default;
   /// Throws Zek::RangeException for a length above 32.
   constexpr IpAddrWithMask( IpAddr addr, unsigned len )
      : addr_( addr ),
        len_( static_cast< uint8_t >( len ) ) {
      if( len > IpAddr::bits ) throwBadLength();
   }
   explicit IpAddrWithMask( std::string_view text );

   constexpr IpAddr addr() const { return addr_; }
   constexpr unsigned len() const { return len_; }
   /// The length as an address: 255.255.255.0.
   constexpr IpAddr mask() const { return IpAddr::mask( len_ ); }
   /// All bits behind the length set; what the subnet's directed broadcast goes to.
   constexpr IpAddr broadcast() const { return IpAddr( addr_.value() | ~mask().value() ); }
   /// True if `addr` lies in the subnet.
   constexpr bool contains( IpAddr addr ) const {
      return addr.masked( len_ ) == addr_.masked( len_ );
   }
   /// False for 0.0.0.0/0 only.
   constexpr explicit operator bool() const { return addr_ || len_; }

   constexpr uint32_t hash() const {
      return static_cast< uint32_t >( mix64( uint64_t( addr_.value() ) << 8 | len_ ) );
   }
   friend constexpr bool operator==( IpAddrWithMask, IpAddrWithMask ) = default;
   friend constexpr std::strong_ordering operator<=>( IpAddrWithMask, IpAddrWithMask ) = default;

   void appendTo( std::string & out ) const;
   std::string toString() const;
   static bool fromText( std::string_view text, IpAddrWithMask & out );
   /// As in streams.
   static constexpr uint8_t wireSize = IpAddr::wireSize + 1;
   template< class Out >
   void encodeTo( Out & out ) const {
      addr_.encodeTo( out );
      out.u8( len_ );
   }
   template< class In >
   static bool decodeFrom( In & in, IpAddrWithMask & out ) {
      return decodeWithMask< IpAddr >( in, out );
   }

 private:
   [[noreturn]] static void throwBadLength();
   IpAddr addr_;
   uint8_t len_ = 0;
};

static_assert( sizeof( IpAddr ) == 4 && std::is_trivially_copyable_v< IpAddr > );
static_assert( sizeof( IpAddrWithMask ) == 8 && std::is_trivially_copyable_v< IpAddrWithMask > );

class Scanner;
IPSTATE_EXPORT bool scan( Scanner & scanner, IpAddr & out );
IPSTATE_EXPORT bool scan( Scanner & scanner, IpAddrWithMask & out );
IPSTATE_EXPORT std::ostream & operator<<( std::ostream & out, IpAddr addr );
IPSTATE_EXPORT std::ostream & operator<<( std::ostream & out, IpAddrWithMask addr );

} // namespace Velon
