#include "platform/Velon/IpGenAddr.h"

#include "framework/Exception.h"
#include "platform/Velon/Scan.h"
#include "platform/Velon/Text.h"

#include <ostream>

namespace Velon {

namespace {

// Reads a V4 or a V6, whichever stands here. A text that has nothing of an address is the empty
// value and takes no bytes: what stands there instead is for the caller to judge.
template< class V4, class V6, class Gen >
bool
scanEither( Scanner & scanner, Gen & out ) {
   size_t stop = scanner.rest().find_first_not_of( "0123456789abcdefABCDEF" );
   char after = stop == std::string_view::npos ? '\0' : scanner.rest()[stop];
   if( after == ':' ) {
      V6 addr;
      if( !scan( scanner, addr ) ) return false;
      out = addr;
   } else if( stop != 0 && !scanner.atEnd() ) {
      V4 addr;
      if( !scan( scanner, addr ) ) return false;
      out = addr;
   } else {
      out = Gen();
   }
   return true;
}

} // namespace

// IpGenAddr

IpGenAddr::IpGenAddr( std::string_view text )
   : IpGenAddr( readWholeOrThrow< IpGenAddr >( "Velon::IpGenAddr", text ) ) {}

bool
scan( Scanner & scanner, IpGenAddr & out ) {
   return scanEither< IpAddr, Ip6Addr >( scanner, out );
}

bool
IpGenAddr::fromText( std::string_view text, IpGenAddr & out ) {
   return readWhole( text, out );
}

void
IpGenAddr::appendTo( std::string & out ) const {
   if( af_ == AddressFamily::ipv4 ) v4Addr().appendTo( out );
   if( af_ == AddressFamily::ipv6 ) addr_.appendTo( out );
}

std::string
IpGenAddr::toString() const {
   return Text::of( *this );
}

std::ostream &
operator<<( std::ostream & out, const IpGenAddr & addr ) {
   return out << addr.toString();
}

// IpGenAddrWithMask

IpGenAddrWithMask::IpGenAddrWithMask( const IpGenAddr & addr, unsigned len ) {
   if( addr.af() == AddressFamily::ipv4 ) {
      *this = IpAddrWithMask( addr.v4Addr(), len );
   } else if( addr.af() == AddressFamily::ipv6 ) {
      *this = Ip6AddrWithMask( addr.v6Addr(), len );
   } else if( len != 0 ) {
      Zek::throwRangeException( "IpGenAddrWithMask::len > 0 of an empty address not allowed" );
   }
}

IpGenAddrWithMask::IpGenAddrWithMask( std::string_view text )
   : IpGenAddrWithMask(
        readWholeOrThrow< IpGenAddrWithMask >( "Velon::IpGenAddrWithMask", text ) ) {}

bool
scan( Scanner & scanner, IpGenAddrWithMask & out ) {
   return scanEither< IpAddrWithMask, Ip6AddrWithMask >( scanner, out );
}

bool
IpGenAddrWithMask::fromText( std::string_view text, IpGenAddrWithMask & out ) {
   return readWhole( text, out );
}

void
IpGenAddrWithMask::appendTo( std::string & out ) const {
   if( af_ == AddressFamily::ipv4 ) v4AddrWithMask().appendTo( out );
   if( af_ == AddressFamily::ipv6 ) v6AddrWithMask().appendTo( out );
}

std::string
IpGenAddrWithMask::toString() const {
   return Text::of( *this );
}

std::ostream &
operator<<( std::ostream & out, const IpGenAddrWithMask & addr ) {
   return out << addr.toString();
}

} // namespace Velon
