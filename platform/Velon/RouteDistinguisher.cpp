#include "platform/Velon/RouteDistinguisher.h"

#include "platform/Velon/Scan.h"
#include "platform/Velon/Text.h"

#include <cinttypes>
#include <cstdio>
#include <ostream>

namespace Velon {

RouteDistinguisher::RouteDistinguisher( std::string_view text )
   : RouteDistinguisher(
        readWholeOrThrow< RouteDistinguisher >( "Velon::RouteDistinguisher", text ) ) {}

bool
scan( Scanner & scanner, RouteDistinguisher & out ) {
   size_t begin = scanner.offset();
   uint64_t administrator;
   uint64_t number;
   if( scanner.skip( "0x" ) ) {
      uint64_t value;
      size_t digits = scanner.offset();
      if( !scanner.hex( 16, value ) ) return false;
      // Types with a text of their own have only that one.
      if( scanner.offset() - digits != 16 || value >> 48 <= 2 ) {
         scanner.offsetIs( digits );
         return false;
      }
      out = RouteDistinguisher( value );
      return true;
   }
   if( !scanner.decimal( UINT32_MAX, administrator ) ) return false;
   if( scanner.peek() == '.' ) {
      IpAddr addr;
      scanner.offsetIs( begin );
      if( !scan( scanner, addr ) || !scanner.skip( ':' ) ||
          !scanner.decimal( UINT16_MAX, number ) ) {
         return false;
      }
      out = RouteDistinguisher::fromIpAddr( addr, static_cast< uint16_t >( number ) );
   } else if( scanner.skip( 'L' ) ) {
      if( !scanner.skip( ':' ) || !scanner.decimal( UINT16_MAX, number ) ) return false;
      out = RouteDistinguisher::fromAs4( static_cast< uint32_t >( administrator ),
                                         static_cast< uint16_t >( number ) );
   } else {
      if( administrator > UINT16_MAX || !scanner.skip( ':' ) ||
          !scanner.decimal( UINT32_MAX, number ) ) {
         return false;
      }
      out = RouteDistinguisher::fromAs2( static_cast< uint16_t >( administrator ),
                                         static_cast< uint32_t >( number ) );
   }
   return true;
}

bool
RouteDistinguisher::fromText( std::string_view text, RouteDistinguisher & out ) {
   return readWhole( text, out );
}

void
RouteDistinguisher::appendTo( std::string & out ) const {
   auto middle = static_cast< uint32_t >( value_ >> 16 );
   auto tail = std::to_string( value_ & UINT16_MAX );
   if( type() == 0 ) {
      out.append( std::to_string( value_ >> 32 ) ).append( ":" );
      out.append( std::to_string( value_ & UINT32_MAX ) );
   } else if( type() == 1 ) {
      IpAddr( middle ).appendTo( out );
      out.append( ":" ).append( tail );
   } else if( type() == 2 ) {
      out.append( std::to_string( middle ) ).append( "L:" ).append( tail );
   } else {
      char text[19];
      std::snprintf( text, sizeof text, "0x%016" PRIx64, value_ );
      out.append( text );
   }
}

std::string
RouteDistinguisher::toString() const {
   return Text::of( *this );
}

std::ostream &
operator<<( std::ostream & out, RouteDistinguisher rd ) {
   return out << rd.toString();
}

} // namespace Velon
