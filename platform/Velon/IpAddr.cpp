#include "platform/Velon/IpAddr.h"

#include "framework/Exception.h"
#include "platform/Velon/Scan.h"
#include "platform/Velon/Text.h"

#include <ostream>

namespace Velon {

// IpAddr

IpAddr::IpAddr( std::string_view text )
   : IpAddr( readWholeOrThrow< IpAddr >( "Velon::IpAddr", text ) ) {}

bool
scan( Scanner & scanner, IpAddr & out ) {
   uint32_t value = 0;
   for( int octet = 0; octet < 4; ++octet ) {
      uint64_t number;
      if( octet > 0 && !scanner.skip( '.' ) ) return false;
      if( !scanner.decimal( 255, number ) ) return false;
      value = value << 8 | static_cast< uint32_t >( number );
   }
   out = IpAddr( value );
   return true;
}

bool
IpAddr::fromText( std::string_view text, IpAddr & out ) {
   return readWhole( text, out );
}

void
IpAddr::appendTo( std::string & out ) const {
   char buffer[Text::ipAddrMax];
   out.append( buffer, Text::write( buffer, *this ) );
}

std::string
IpAddr::toString() const {
   return Text::of( *this );
}

std::ostream &
operator<<( std::ostream & out, IpAddr addr ) {
   return out << addr.toString();
}

// IpAddrWithMask

IpAddrWithMask::IpAddrWithMask( std::string_view text )
   : IpAddrWithMask( readWholeOrThrow< IpAddrWithMask >( "Velon::IpAddrWithMask", text ) ) {}

void
IpAddrWithMask::throwBadLength() {
   Zek::throwRangeException( "IpAddrWithMask::len > 32 not allowed" );
}

bool
scan( Scanner & scanner, IpAddrWithMask & out ) {
   IpAddr addr;
   unsigned len;
   if( !scan( scanner, addr ) || !scanPrefixLength( scanner, IpAddr::bits, len ) ) return false;
   out = IpAddrWithMask( addr, len );
   return true;
}

bool
IpAddrWithMask::fromText( std::string_view text, IpAddrWithMask & out ) {
   return readWhole( text, out );
}

void
IpAddrWithMask::appendTo( std::string & out ) const {
   char buffer[Text::ipAddrMax + Text::lengthMax];
   char * end = Text::write( buffer, addr_ );
   out.append( buffer, Text::writeLength( end, len_ ) );
}

std::string
IpAddrWithMask::toString() const {
   return Text::of( *this );
}

std::ostream &
operator<<( std::ostream & out, IpAddrWithMask addr ) {
   return out << addr.toString();
}

} // namespace Velon
