// Prefixes: the set of all addresses that begin with the same bits.
//
// A prefix has no host bits: the constructor clears them, so that prefixes are equal exactly when
// they hold the same addresses. The reader refuses a text with host bits instead of changing it.
// Orders by address, then length. Text: "10.0.0.0/8", "2001:db8::/32".

#pragma once

#include "framework/Export.h"
#include "framework/Wire.h"
#include "platform/Velon/Ip6Addr.h"
#include "platform/Velon/IpAddr.h"

#include <compare>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>

namespace Velon {

/// `WithMask` is the address with a length that keeps its host bits.
template< class Addr, class WithMask >
class IPSTATE_EXPORT PrefixOf {
 public:
   /// 0.0.0.0/0, ::/0: every address.
   constexpr PrefixOf() = default;
   /// The first `len` bits of `addr`. Throws Zek::RangeException for a length above the
   /// address's.
   constexpr PrefixOf( const Addr & addr, unsigned len )
      : prefix_( WithMask( addr, len ).addr().masked( len ), len ) {}
   /// The subnet of an address.
   constexpr explicit PrefixOf( const WithMask & addr ) : PrefixOf( addr.addr(), addr.len() ) {}
   explicit PrefixOf( std::string_view text );

   constexpr Addr addr() const { return prefix_.addr(); }
   constexpr unsigned len() const { return prefix_.len(); }
   constexpr Addr mask() const { return prefix_.mask(); }
   constexpr WithMask addrWithMask() const { return prefix_; }
   constexpr bool contains( const Addr & addr ) const { return prefix_.contains( addr ); }
   /// True if every address of `other` lies in this one; a prefix contains itself.
   constexpr bool contains( const PrefixOf & other ) const {
      return len() <= other.len() && contains( other.addr() );
   }
   /// False for the prefix of every address only.
   constexpr explicit operator bool() const { return static_cast< bool >( prefix_ ); }

   constexpr uint32_t hash() const { return prefix_.hash(); }
   friend constexpr bool operator==( const PrefixOf &, const PrefixOf & ) = default;
   friend constexpr std::strong_ordering operator<=>( const PrefixOf &,
                                                      const PrefixOf & ) = default;

   void appendTo( std::string & out ) const { prefix_.appendTo( out ); }
   std::string toString() const { return prefix_.toString(); }
   static bool fromText( std::string_view text, PrefixOf & out );
   /// As in streams.
   static constexpr uint8_t wireSize = WithMask::wireSize;
   template< class Out >
   void encodeTo( Out & out ) const {
      prefix_.encodeTo( out );
   }
   template< class In >
   static bool decodeFrom( In & in, PrefixOf & out ) {
      WithMask addr;
      if( !WithMask::decodeFrom( in, addr ) ) return false;
      out = PrefixOf( addr );
      return true;
   }

 private:
   WithMask prefix_;
};

using Prefix = PrefixOf< IpAddr, IpAddrWithMask >;
using Ip6Prefix = PrefixOf< Ip6Addr, Ip6AddrWithMask >;

static_assert( sizeof( Prefix ) == 8 && std::is_trivially_copyable_v< Prefix > );
static_assert( sizeof( Ip6Prefix ) == 20 && std::is_trivially_copyable_v< Ip6Prefix > );

extern template class PrefixOf< IpAddr, IpAddrWithMask >;
extern template class PrefixOf< Ip6Addr, Ip6AddrWithMask >;

IPSTATE_EXPORT bool scan( Scanner & scanner, Prefix & out );
IPSTATE_EXPORT bool scan( Scanner & scanner, Ip6Prefix & out );
IPSTATE_EXPORT std::ostream & operator<<( std::ostream & out, const Prefix & prefix );
IPSTATE_EXPORT std::ostream & operator<<( std::ostream & out, const Ip6Prefix & prefix );

} // namespace Velon
