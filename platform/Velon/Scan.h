// Strict reading of the text forms of value types.
//
// A Scanner stands at an offset of a text. For each value type T there is a function
// `bool scan( Scanner &, T & )`: it takes the longest text of a T from there and steps behind it,
// or returns false, leaves the value untouched and stands at the byte that does not fit. Texts
// are read as bytes; nothing depends on the locale.

#pragma once

#include "framework/Export.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Velon {

class IPSTATE_EXPORT Scanner {
 public:
   explicit Scanner( std::string_view text ) : text_( text ) {}

   size_t offset() const { return offset_; }
   void offsetIs( size_t offset ) { offset_ = offset; }
   bool atEnd() const { return offset_ == text_.size(); }
   /// The byte stood on, 0 at the end.
   char peek() const { return atEnd() ? '\0' : text_[offset_]; }
   std::string_view rest() const { return text_.substr( offset_ ); }

   /// Steps over `word` if it stands here.
   bool skip( std::string_view word );
   bool skip( char c ) { return skip( std::string_view( &c, 1 ) ); }
   /// A decimal number up to `max`, without sign, blanks or leading zeros.
   bool decimal( uint64_t max, uint64_t & out );
   /// One to `maxDigits` hexadecimal digits of either case; leading zeros count as digits.
   bool hex( unsigned maxDigits, uint64_t & out );

 private:
   std::string_view text_;
   size_t offset_ = 0;
};

/// Throws Zek::RangeException "<type> expected at offset <n> of '<text>'"; a text of more than
/// 100 bytes is cut and ends in "...".
[[noreturn]] IPSTATE_EXPORT void throwNotRead( std::string_view type, size_t offset,
                                               std::string_view text );

/// The body of every fromText(): true with the value if `text` is one T and nothing else.
template< class T >
bool
readWhole( std::string_view text, T & out ) {
   Scanner scanner( text );
   T value;
   if( !scan( scanner, value ) || !scanner.atEnd() ) return false;
   out = value;
   return true;
}

/// The body of every constructor from text: the value, or throwNotRead().
template< class T >
T
readWholeOrThrow( std::string_view type, std::string_view text ) {
   Scanner scanner( text );
   T value;
   if( !scan( scanner, value ) || !scanner.atEnd() ) {
      throwNotRead( type, scanner.offset(), text );
   }
   return value;
}

/// "/", then a prefix length up to `max`.
IPSTATE_EXPORT bool scanPrefixLength( Scanner & scanner, unsigned max, unsigned & out );

} // namespace Velon
