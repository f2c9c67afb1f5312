// IPv6 addresses, alone and with a prefix length.
//
// Plain values of 16 bytes in network order, compared as two 64-bit numbers. Written as RFC 5952
// asks: lower case, the longest run of zero groups (of two or more, the first of equals) as "::",
// IPv4-mapped addresses with a dotted tail. Read strictly as RFC 4291 defines: groups of one to
// four digits of either case, "::" at most once and for at least one group, a dotted tail
// allowed; no zone, lengths 0 to 128.

#pragma once

#include "framework/Export.h"
#include "framework/Wire.h"
#include "platform/Velon/IpAddr.h"
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

class IPSTATE_EXPORT Ip6Addr {
 public:
   static constexpr unsigned bits = 128;

   /// ::
   constexpr Ip6Addr() = default;
   /// From the upper and lower 64 bits as numbers: ( 0xfe80 << 48, 1 ) is fe80::1.
   constexpr Ip6Addr( uint64_t high, uint64_t low )
      : bytes_( std::bit_cast< Bytes >( Words{ swapped( high ), swapped( low ) } ) ) {}
   /// From bytes in network order.
   constexpr explicit Ip6Addr( const std::array< uint8_t, 16 > & bytes ) : bytes_( bytes ) {}
   /// Throws Zek::RangeException unless the whole text is an address.
   explicit Ip6Addr( std::string_view text );
   /// From 16 bytes in network order, as in struct in6_addr.
   static Ip6Addr fromBytes( const void * bytes ) {
      Ip6Addr addr;
      std::memcpy( addr.bytes_.data(), bytes, sizeof addr.bytes_ );
      return addr;
   }
   /// ffff:ffff:: for 32; `len` up to 128.
   static constexpr Ip6Addr mask( unsigned len ) {
      return Ip6Addr( wordMask( len ), len <= 64 ? 0 : wordMask( len - 64 ) );
   }

   /// In network order.
   constexpr const std::array< uint8_t, 16 > & bytes() const { return bytes_; }
   constexpr uint64_t high() const { return swapped( words()[0] ); }
   constexpr uint64_t low() const { return swapped( words()[1] ); }

   constexpr bool isUnspecified() const { return ( words()[0] | words()[1] ) == 0; }
   constexpr bool isLoopback() const { return high() == 0 && low() == 1; }
   /// fe80::/10
   constexpr bool isLinkLocal() const { return bytes_[0] == 0xfe && ( bytes_[1] & 0xc0 ) == 0x80; }
   /// fec0::/10
   constexpr bool isSiteLocal() const { return bytes_[0] == 0xfe && ( bytes_[1] & 0xc0 ) == 0xc0; }
   /// fc00::/7
   constexpr bool isUniqueLocal() const { return ( bytes_[0] & 0xfe ) == 0xfc; }
   /// ff00::/8
   constexpr bool isMulticast() const { return bytes_[0] == 0xff; }
   /// ::ffff:0:0/96
   constexpr bool isV4Mapped() const { return high() == 0 && low() >> 32 == 0xffff; }
   /// False for :: only.
   constexpr explicit operator bool() const { return !isUnspecified(); }

   /// The first `len` (up to 128) bits, zeros behind.
   constexpr Ip6Addr masked( unsigned len ) const {
      Ip6Addr kept = mask( len );
      return Ip6Addr( high() & kept.high(), low() & kept.low() );
   }
   /// Leading bits in common, 0 to 128.
   constexpr unsigned longestCommonPrefix( const Ip6Addr & other ) const {
      uint64_t differs = high() ^ other.high();
      if( differs ) return static_cast< unsigned >( std::countl_zero( differs ) );
      return 64 + static_cast< unsigned >( std::countl_zero( low() ^ other.low() ) );
   }

   constexpr uint32_t hash() const { return static_cast< uint32_t >( scattered() ); }
   /// The 64-bit hash that hashes of larger values go on from.
   constexpr uint64_t scattered() const {
      return mix64( low() ^ mix64( high() + 0x9e3779b97f4a7c15u ) );
   }
   friend constexpr bool operator==( const Ip6Addr & a, const Ip6Addr & b ) {
      Words x = a.words();
      Words y = b.words();
      return ( ( x[0] ^ y[0] ) | ( x[1] ^ y[1] ) ) == 0;
   }
   friend constexpr std::strong_ordering operator<=>( const Ip6Addr & a, const Ip6Addr & b ) {
      uint64_t highA = a.high();
      uint64_t highB = b.high();
      return highA != highB ? highA <=> highB : a.low() <=> b.low();
   }

   void appendTo( std::string & out ) const;
   std::string toString() const;
   static bool fromText( std::string_view text, Ip6Addr & out );
   /// As in streams.
   static constexpr uint8_t wireSize = 16;
   template< class Out >
   void encodeTo( Out & out ) const {
      out.u64( high() );
      out.u64( low() );
   }
   template< class In >
   static bool decodeFrom( In & in, Ip6Addr & out ) {
      uint64_t high, low;
      if( !in.u64( high, "an IPv6 address" ) || !in.u64( low, "an IPv6 address" ) ) return false;
      out = Ip6Addr( high, low );
      return true;
   }

 private:
   using Bytes = std::array< uint8_t, 16 >;
   // As they stand in memory, in network order.
   using Words = std::array< uint64_t, 2 >;
   constexpr Words words() const { return std::bit_cast< Words >( bytes_ ); }
   static constexpr uint64_t swapped( uint64_t word ) {
      return std::endian::native == std::endian::little ? __builtin_bswap64( word ) : word;
   }
   // The first `len` bits of a word, all of them for 64 and more.
   static constexpr uint64_t wordMask( unsigned len ) {
      return len == 0 ? 0 : ~uint64_t( 0 ) << ( len >= 64 ? 0 : 64 - len );
   }

   // Aligned for 32-bit loads only: with its length an address takes 20 bytes, not 24.
   alignas( 4 ) Bytes bytes_ = {};
};

/// ::
inline constexpr Ip6Addr ip6AddrZero;
/// ::1
inline constexpr Ip6Addr ip6AddrLoopback( 0, 1 );

/// An address and a prefix length; the address keeps its host bits. Orders by address, then
/// length. Text: "fe80::1/64".
class IPSTATE_EXPORT Ip6AddrWithMask {
 public:
   /// ::/0
   constexpr Ip6AddrWithMask() = default;
   /// Throws Zek::RangeException for a length above 128.
   constexpr Ip6AddrWithMask( const Ip6Addr & addr, unsigned len )
      : addr_( addr ),
        len_( static_cast< uint8_t >( len ) ) {
      if( len > Ip6Addr::bits ) throwBadLength();
   }
   explicit Ip6AddrWithMask( std::string_view text );

   constexpr const Ip6Addr & addr() const { return addr_; }
   constexpr unsigned len() const { return len_; }
   constexpr Ip6Addr mask() const { return Ip6Addr::mask( len_ ); }
   /// True if `addr` lies in the subnet.
   constexpr bool contains( const Ip6Addr & addr ) const {
      return addr_.longestCommonPrefix( addr ) >= len_;
   }
   /// False for ::/0 only.
   constexpr explicit operator bool() const { return addr_ || len_; }

   constexpr uint32_t hash() const {
      return static_cast< uint32_t >( mix64( addr_.scattered() + len_ ) );
   }
   friend constexpr bool operator==( const Ip6AddrWithMask &, const Ip6AddrWithMask & ) = default;
   friend constexpr std::strong_ordering operator<=>( const Ip6AddrWithMask &,
                                                      const Ip6AddrWithMask & ) = default;

   void appendTo( std::string & out ) const;
   std::string toString() const;
   static bool fromText( std::string_view text, Ip6AddrWithMask & out );
   /// As in streams.
   static constexpr uint8_t wireSize = Ip6Addr::wireSize + 1;
   template< class Out >
   void encodeTo( Out & out ) const {
      addr_.encodeTo( out );
      out.u8( len_ );
   }
   template< class In >
   static bool decodeFrom( In & in, Ip6AddrWithMask & out ) {
      return decodeWithMask< Ip6Addr >( in, out );
   }

 private:
   [[noreturn]] static void throwBadLength();
   Ip6Addr addr_;
   uint8_t len_ = 0;
};

static_assert( sizeof( Ip6Addr ) == 16 && std::is_trivially_copyable_v< Ip6Addr > );
static_assert( sizeof( Ip6AddrWithMask ) == 20 && std::is_trivially_copyable_v< Ip6AddrWithMask > );

IPSTATE_EXPORT bool scan( Scanner & scanner, Ip6Addr & out );
IPSTATE_EXPORT bool scan( Scanner & scanner, Ip6AddrWithMask & out );
IPSTATE_EXPORT std::ostream & operator<<( std::ostream & out, const Ip6Addr & addr );
IPSTATE_EXPORT std::ostream & operator<<( std::ostream & out, const Ip6AddrWithMask & addr );

} // namespace Velon
