#include "platform/Velon/Scan.h"

#include "framework/Exception.h"

#include <string>

namespace Velon {

bool
Scanner::skip( std::string_view word ) {
   if( text_.substr( offset_, word.size() ) != word ) return false;
   offset_ += word.size();
   return true;
}

bool
Scanner::decimal( uint64_t max, uint64_t & out ) {
   uint64_t value = 0;
   size_t at = offset_;
   for( ; at < text_.size() && text_[at] >= '0' && text_[at] <= '9'; ++at ) {
      if( at > offset_ && text_[offset_] == '0' ) return false;
      unsigned digit = static_cast< unsigned >( text_[at] - '0' );
      if( value > max / 10 || value * 10 > max - digit ) return false;
      value = value * 10 + digit;
   }
   if( at == offset_ ) return false;
   offset_ = at;
   out = value;
   return true;
}

bool
Scanner::hex( unsigned maxDigits, uint64_t & out ) {
   uint64_t value = 0;
   size_t at = offset_;
   for( ; at < text_.size() && at - offset_ <= maxDigits; ++at ) {
      char c = text_[at];
      unsigned digit;
      if( c >= '0' && c <= '9' ) {
         digit = static_cast< unsigned >( c - '0' );
      } else if( ( c | 0x20 ) >= 'a' && ( c | 0x20 ) <= 'f' ) {
         digit = static_cast< unsigned >( ( c | 0x20 ) - 'a' + 10 );
      } else {
         break;
      }
      value = value << 4 | digit;
   }
   if( at == offset_ || at - offset_ > maxDigits ) return false;
   offset_ = at;
   out = value;
   return true;
}

void
throwNotRead( std::string_view type, size_t offset, std::string_view text ) {
   constexpr size_t shown = 100;
   std::string message( type );
   message.append( " expected at offset " ).append( std::to_string( offset ) ).append( " of '" );
   message.append( text.substr( 0, shown ) ).append( text.size() > shown ? "...'" : "'" );
   Zek::throwRangeException( message );
}

bool
scanPrefixLength( Scanner & scanner, unsigned max, unsigned & out ) {
   uint64_t length;
   if( !scanner.skip( '/' ) || !scanner.decimal( max, length ) ) return false;
   out = static_cast< unsigned >( length );
   return true;
}

} // namespace Velon
