// Support of generated enumerations: numbers and names, served from the descriptor's rows.

#pragma once

#include "framework/String.h"
#include "framework/Text.h"
#include "framework/Type.h"

namespace Zek {

template< class E >
struct EnumType {
   /// The enumerator of that number; throws RangeException when there is none.
   static E instance( int64_t number ) {
      return static_cast< E >( enumeratorValue( TypeOf< E >::descriptor, number ) );
   }
   /// The enumerator of that name; throws RangeException when there is none.
   static E instance( std::string_view name ) {
      return static_cast< E >( enumeratorValue( TypeOf< E >::descriptor, name ) );
   }
   /// Reads an enumerator's name, the whole of `text`; RangeException when it is none.
   static E fromText( std::string_view text ) {
      E value{};
      if( !readField( text, value ) ) throwNotRead( TypeOf< E >::descriptor, text );
      return value;
   }
   /// Its name; for a number that is no enumerator, the number.
   static String stringValue( E value ) {
      std::string text;
      appendField( value, text );
      return String( text );
   }
};

} // namespace Zek
