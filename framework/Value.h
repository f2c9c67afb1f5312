// What generated value types share: text forms from their rows, and bounded strings.

#pragma once

#include "framework/Exception.h"
#include "framework/String.h"
#include "framework/Text.h"
#include "framework/Type.h"
#include "framework/ValueSet.h"

#include <compare>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Zek {

/// The value's text form as a string.
template< class V >
String
valueText( const V & value ) {
   std::string out;
   value.appendTo( out );
   return String( out );
}

/// Reads a value's text form, the whole of it; throws RangeException saying what was expected at
/// which offset, and leaves `value` unchanged then.
IPSTATE_EXPORT void readValueOrThrow( const TypeDescriptor & type, std::string_view text,
                                      void * value );

/// A value holding one string of at most Derived::maxBytes bytes. Longer ones are refused where
/// the value is made, with the RangeException text Derived::lengthError; so no record ever holds
/// one. Hashes, compares and prints as its string.
template< class Derived >
class BoundedString {
 public:
   const Zek::String & string() const { return text_; }
   std::string_view view() const { return text_.view(); }
   const char * charPtr() const { return text_.charPtr(); }
   size_t size() const { return text_.size(); }
   bool empty() const { return text_.empty(); }
   bool operator!() const { return text_.empty(); }
   uint32_t hash() const { return text_.hash(); }

   friend bool operator==( const BoundedString & a, const BoundedString & b ) {
      return a.text_ == b.text_;
   }
   friend std::strong_ordering operator<=>( const BoundedString & a, const BoundedString & b ) {
      return a.text_ <=> b.text_;
   }

   std::string toString() const { return std::string( text_.view() ); }
   void appendTo( std::string & out ) const { appendText( text_, out ); }
   /// Deliberate: a text that is one, but too long, gets the length error like everywhere else.
   static bool fromText( std::string_view text, Derived & out ) {
      Zek::String string;
      if( !readText( text, string ) ) return false;
      out = Derived( string );
      return true;
   }
   static constexpr uint8_t wireSize = Wire::countsItself;
   template< class Out >
   void encodeTo( Out & out ) const {
      out.text( text_.view() );
   }
   /// Throws the length error for a text that is too long.
   static bool decodeFrom( Wire::Decoder & in, Derived & out ) {
      std::string_view text;
      if( !in.text( text ) ) return false;
      if( out.view() != text ) out = Derived( Zek::String( text ) );
      return true;
   }

 protected:
   BoundedString() = default;
   explicit BoundedString( const Zek::String & text ) : text_( text ) {
      if( text_.size() > Derived::maxBytes ) throwRangeException( Derived::lengthError );
   }

 private:
   Zek::String text_;
};

} // namespace Zek
