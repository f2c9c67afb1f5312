#include "platform/Velon/Ip6Addr.h"

#include "framework/Exception.h"
#include "platform/Velon/Scan.h"
#include "platform/Velon/Text.h"

#include <ostream>

namespace Velon {

// Ip6Addr

Ip6Addr::Ip6Addr( std::string_view text )
   : Ip6Addr( readWholeOrThrow< Ip6Addr >( "Velon::Ip6Addr", text ) ) {}

bool
scan( Scanner & scanner, Ip6Addr & out ) {
   constexpr int none = -1;
   uint16_t groups[8] = {};
   int count = 0;
   // Number of groups in front of "::".
   int gap = none;
   if( scanner.skip( "::" ) ) gap = 0;
   for( bool more = true; more && count < 8; ) {
      size_t begin = scanner.offset();
      uint64_t group;
      if( !scanner.hex( 4, group ) ) {
         // Nothing need follow "::".
         if( count == gap ) break;
         return false;
      }
      if( scanner.peek() == '.' && count <= 6 ) {
         scanner.offsetIs( begin );
         IpAddr tail;
         if( !scan( scanner, tail ) ) return false;
         groups[count++] = static_cast< uint16_t >( tail.value() >> 16 );
         groups[count++] = static_cast< uint16_t >( tail.value() );
         break;
      }
      groups[count++] = static_cast< uint16_t >( group );
      if( gap == none && count < 8 && scanner.skip( "::" ) ) {
         gap = count;
      } else {
         more = count < 8 && scanner.skip( ':' );
      }
   }
   // "::" stands for one group at least.
   if( gap == none ? count != 8 : count > 7 ) return false;

   uint64_t high = 0;
   uint64_t low = 0;
   for( int i = 0, from = 0; i < 8; ++i ) {
      bool inGap = gap != none && i >= gap && i < gap + 8 - count;
      high = high << 16 | low >> 48;
      low = low << 16 | ( inGap ? 0 : groups[from++] );
   }
   out = Ip6Addr( high, low );
   return true;
}

bool
Ip6Addr::fromText( std::string_view text, Ip6Addr & out ) {
   return readWhole( text, out );
}

namespace Text {

namespace {

char *
writeGroup( char * at, unsigned group ) {
   constexpr char digits[] = "0123456789abcdef";
   if( group >= 0x1000 ) *at++ = digits[group >> 12];
   if( group >= 0x100 ) *at++ = digits[group >> 8 & 15];
   if( group >= 0x10 ) *at++ = digits[group >> 4 & 15];
   *at++ = digits[group & 15];
   return at;
}

} // namespace

char *
write( char * at, const Ip6Addr & addr ) {
   const std::array< uint8_t, 16 > & bytes = addr.bytes();
   auto group = [&]( int i ) { return unsigned( bytes[2 * i] ) << 8 | bytes[2 * i + 1]; };

   int gap = 8;
   int gapSize = 1;
   for( int i = 0; i < 8; ++i ) {
      int run = 0;
      while( i + run < 8 && group( i + run ) == 0 ) ++run;
      if( run > gapSize ) {
         gap = i;
         gapSize = run;
      }
      i += run;
   }

   bool mapped = addr.isV4Mapped();
   int end = mapped ? 6 : 8;
   for( int i = 0; i < end; ) {
      if( i == gap ) {
         *at++ = ':';
         *at++ = ':';
         i += gapSize;
         continue;
      }
      if( i > 0 && i != gap + gapSize ) *at++ = ':';
      at = writeGroup( at, group( i++ ) );
   }
   if( mapped ) {
      *at++ = ':';
      at = write( at, IpAddr( static_cast< uint32_t >( addr.low() ) ) );
   }
   return at;
}

} // namespace Text

void
Ip6Addr::appendTo( std::string & out ) const {
   char buffer[Text::ip6AddrMax];
   out.append( buffer, Text::write( buffer, *this ) );
}

std::string
Ip6Addr::toString() const {
   return Text::of( *this );
}

std::ostream &
operator<<( std::ostream & out, const Ip6Addr & addr ) {
   return out << addr.toString();
}

// Ip6AddrWithMask

Ip6AddrWithMask::Ip6AddrWithMask( std::string_view text )
   : Ip6AddrWithMask( readWholeOrThrow< Ip6AddrWithMask >( "Velon::Ip6AddrWithMask", text ) ) {}

void
Ip6AddrWithMask::throwBadLength() {
   Zek::throwRangeException( "Ip6AddrWithMask::len > 128 not allowed" );
}

bool
scan( Scanner & scanner, Ip6AddrWithMask & out ) {
   Ip6Addr addr;
   unsigned len;
   if( !scan( scanner, addr ) || !scanPrefixLength( scanner, Ip6Addr::bits, len ) ) return false;
   out = Ip6AddrWithMask( addr, len );
   return true;
}

bool
Ip6AddrWithMask::fromText( std::string_view text, Ip6AddrWithMask & out ) {
   return readWhole( text, out );
}

void
Ip6AddrWithMask::appendTo( std::string & out ) const {
   char buffer[Text::ip6AddrMax + Text::lengthMax];
   char * end = Text::write( buffer, addr_ );
   out.append( buffer, Text::writeLength( end, len_ ) );
}

std::string
Ip6AddrWithMask::toString() const {
   return Text::of( *this );
}

std::ostream &
operator<<( std::ostream & out, const Ip6AddrWithMask & addr ) {
   return out << addr.toString();
}

} // namespace Velon
