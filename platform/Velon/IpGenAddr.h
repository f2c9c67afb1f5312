// Addresses of either family, alone and with a prefix length.
//
// The family is a part of the value: the empty address, 0.0.0.0 and :: are three different
// values. Orders by family (none, IPv4, IPv6), then as the family orders. Text is the family's
// own, the empty value's is the empty text.

#pragma once

#include "framework/Export.h"
#include "framework/Wire.h"
#include "platform/Velon/AddressFamily.h"
#include "platform/Velon/Ip6Addr.h"
#include "platform/Velon/IpAddr.h"
#include "platform/Velon/Mix.h"

#include <compare>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>

namespace Velon {

class IPSTATE_EXPORT IpGenAddr {
 public:
   /// The empty address, of family none.
   constexpr IpGenAddr() = default;
   constexpr IpGenAddr( IpAddr addr ) : af_( AddressFamily::ipv4 ), addr_( 0, addr.value() ) {}
   constexpr IpGenAddr( const Ip6Addr & addr ) : af_( AddressFamily::ipv6 ), addr_( addr ) {}
   explicit IpGenAddr( std::string_view text );

   constexpr AddressFamily af() const { return af_; }
   /// 0.0.0.0 unless the family is IPv4.
   constexpr IpAddr v4Addr() const {
      return af_ == AddressFamily::ipv4 ? IpAddr( static_cast< uint32_t >( addr_.low() ) )
                                        : IpAddr();
   }
   /// :: unless the family is IPv6.
   constexpr Ip6Addr v6Addr() const { return af_ == AddressFamily::ipv6 ? addr_ : Ip6Addr(); }
   constexpr bool empty() const { return af_ == AddressFamily::none; }
   /// False for the empty address only; 0.0.0.0 and :: are true.
   constexpr explicit operator bool() const { return !empty(); }
   constexpr bool isLinkLocal() const { return v4Addr().isLinkLocal() || v6Addr().isLinkLocal(); }
   constexpr bool isMulticast() const { return v4Addr().isMulticast() || v6Addr().isMulticast(); }

   constexpr uint32_t hash() const {
      return static_cast< uint32_t >( mix64( addr_.scattered() + static_cast< unsigned >( af_ ) ) );
   }
   friend constexpr bool operator==( const IpGenAddr &, const IpGenAddr & ) = default;
   friend constexpr std::strong_ordering operator<=>( const IpGenAddr &,
                                                      const IpGenAddr & ) = default;

   void appendTo( std::string & out ) const;
   std::string toString() const;
   static bool fromText( std::string_view text, IpGenAddr & out );
   /// As in streams.
   void encodeTo( Zek::Wire::Encoder & out ) const;
   static bool decodeFrom( Zek::Wire::Decoder & in, IpGenAddr & out );

 private:
   AddressFamily af_ = AddressFamily::none;
   // An IPv4 address as its number.
   Ip6Addr addr_;
};

class IPSTATE_EXPORT IpGenAddrWithMask {
 public:
   /// The empty value, of family none.
   constexpr IpGenAddrWithMask() = default;
   constexpr IpGenAddrWithMask( IpAddrWithMask addr )
      : IpGenAddrWithMask( AddressFamily::ipv4, Ip6Addr( 0, addr.addr().value() ), addr.len() ) {}
   constexpr IpGenAddrWithMask( const Ip6AddrWithMask & addr )
      : IpGenAddrWithMask( AddressFamily::ipv6, addr.addr(), addr.len() ) {}
   /// Throws Zek::RangeException for a length above the family's; the empty address takes 0.
   IpGenAddrWithMask( const IpGenAddr & addr, unsigned len );
   explicit IpGenAddrWithMask( std::string_view text );

   constexpr AddressFamily af() const { return af_; }
   constexpr unsigned len() const { return len_; }
   /// The address part, of the same family.
   constexpr IpGenAddr addr() const {
      if( af_ == AddressFamily::none ) return {};
      return af_ == AddressFamily::ipv4 ? IpGenAddr( v4AddrWithMask().addr() ) : IpGenAddr( addr_ );
   }
   /// 0.0.0.0/0 unless the family is IPv4.
   constexpr IpAddrWithMask v4AddrWithMask() const {
      if( af_ != AddressFamily::ipv4 ) return {};
      return { IpAddr( static_cast< uint32_t >( addr_.low() ) ), len_ };
   }
   /// ::/0 unless the family is IPv6.
   constexpr Ip6AddrWithMask v6AddrWithMask() const {
      if( af_ != AddressFamily::ipv6 ) return {};
      return { addr_, len_ };
   }
   constexpr IpAddr v4Addr() const { return v4AddrWithMask().addr(); }
   constexpr Ip6Addr v6Addr() const { return v6AddrWithMask().addr(); }
   constexpr bool empty() const { return af_ == AddressFamily::none; }
   /// False for the empty value only; 0.0.0.0/0 and ::/0 are true.
   constexpr explicit operator bool() const { return !empty(); }

   constexpr uint32_t hash() const {
      return static_cast< uint32_t >(
         mix64( addr_.scattered() + ( static_cast< unsigned >( af_ ) << 8 | len_ ) ) );
   }
   friend constexpr bool operator==( const IpGenAddrWithMask &,
                                     const IpGenAddrWithMask & ) = default;
   friend constexpr std::strong_ordering operator<=>( const IpGenAddrWithMask & a,
                                                      const IpGenAddrWithMask & b ) {
      if( a.af_ != b.af_ ) return a.af_ <=> b.af_;
      if( auto order = a.addr_ <=> b.addr_; order != 0 ) return order;
      return a.len_ <=> b.len_;
   }

   void appendTo( std::string & out ) const;
   std::string toString() const;
   static bool fromText( std::string_view text, IpGenAddrWithMask & out );
   /// As in streams.
   void encodeTo( Zek::Wire::Encoder & out ) const;
   static bool decodeFrom( Zek::Wire::Decoder & in, IpGenAddrWithMask & out );

 private:
   constexpr IpGenAddrWithMask( AddressFamily af, const Ip6Addr & addr, unsigned len )
      : af_( af ),
        len_( static_cast< uint8_t >( len ) ),
        addr_( addr ) {}
   AddressFamily af_ = AddressFamily::none;
   uint8_t len_ = 0;
   // An IPv4 address as its number.
   Ip6Addr addr_;
};

static_assert( sizeof( IpGenAddr ) == 20 && std::is_trivially_copyable_v< IpGenAddr > );
static_assert( sizeof( IpGenAddrWithMask ) == 20 &&
               std::is_trivially_copyable_v< IpGenAddrWithMask > );

/// The text decides the family: with a colon it is IPv6, without any bytes it is the empty value.
IPSTATE_EXPORT bool scan( Scanner & scanner, IpGenAddr & out );
IPSTATE_EXPORT bool scan( Scanner & scanner, IpGenAddrWithMask & out );
IPSTATE_EXPORT std::ostream & operator<<( std::ostream & out, const IpGenAddr & addr );
IPSTATE_EXPORT std::ostream & operator<<( std::ostream & out, const IpGenAddrWithMask & addr );

} // namespace Velon
