// Velon::RouteDistinguisher: the 64-bit value that keeps the routes of VRFs apart in BGP.
//
// As RFC 4364 lays it out: a 16-bit type and a value. Texts, one for each type, so that every
// value reads back as itself:
//    type 0, two-byte AS and four-byte number      65000:100000
//    type 1, IPv4 address and two-byte number      10.0.0.1:100
//    type 2, four-byte AS and two-byte number      65536L:100  (the L also below 65536)
//    any other                                     0x0003000000000001, 16 digits

#pragma once

#include "framework/Export.h"
#include "framework/Wire.h"
#include "platform/Velon/IpAddr.h"
#include "platform/Velon/Mix.h"

#include <compare>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>

namespace Velon {

class IPSTATE_EXPORT RouteDistinguisher {
 public:
   /// 0:0, none assigned.
   constexpr RouteDistinguisher() = default;
   /// From the number of its eight bytes in network order.
   constexpr explicit RouteDistinguisher( uint64_t value ) : value_( value ) {}
   explicit RouteDistinguisher( std::string_view text );
   static constexpr RouteDistinguisher fromAs2( uint16_t as, uint32_t number ) {
      return RouteDistinguisher( uint64_t( as ) << 32 | number );
   }
   static constexpr RouteDistinguisher fromIpAddr( IpAddr addr, uint16_t number ) {
      return RouteDistinguisher( uint64_t( 1 ) << 48 | uint64_t( addr.value() ) << 16 | number );
   }
   static constexpr RouteDistinguisher fromAs4( uint32_t as, uint16_t number ) {
      return RouteDistinguisher( uint64_t( 2 ) << 48 | uint64_t( as ) << 16 | number );
   }

   constexpr uint64_t value() const { return value_; }
   constexpr uint16_t type() const { return static_cast< uint16_t >( value_ >> 48 ); }
   /// False for 0:0 only.
   constexpr explicit operator bool() const { return value_ != 0; }

   constexpr uint32_t hash() const { return static_cast< uint32_t >( mix64( value_ ) ); }
   friend constexpr bool operator==( RouteDistinguisher, RouteDistinguisher ) = default;
   friend constexpr std::strong_ordering operator<=>( RouteDistinguisher,
                                                      RouteDistinguisher ) = default;

   void appendTo( std::string & out ) const;
   std::string toString() const;
   static bool fromText( std::string_view text, RouteDistinguisher & out );
   /// As in streams.
   static constexpr uint8_t wireSize = 8;
   template< class Out >
   void encodeTo( Out & out ) const {
      out.u64( value_ );
   }
   template< class In >
   static bool decodeFrom( In & in, RouteDistinguisher & out ) {
      return in.u64( out.value_, "a route distinguisher" );
   }

 private:
   uint64_t value_ = 0;
};

static_assert( sizeof( RouteDistinguisher ) == 8 &&
               std::is_trivially_copyable_v< RouteDistinguisher > );

IPSTATE_EXPORT bool scan( Scanner & scanner, RouteDistinguisher & out );
IPSTATE_EXPORT std::ostream & operator<<( std::ostream & out, RouteDistinguisher rd );

} // namespace Velon
