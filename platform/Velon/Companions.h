// What stands beside every value type: its text as a string, and the value from a range of text.
// Here for the types of this folder by what they all have; generated types have their own.

#pragma once

#include "framework/String.h"

#include <concepts>
#include <string>
#include <string_view>

namespace Velon {

template< class T >
concept HasText = std::constructible_from< T, std::string_view > && requires( const T & value ) {
   { value.toString() } -> std::same_as< std::string >;
};

template< HasText T >
Zek::String
stringValue( const T & value ) {
   return Zek::String( value.toString() );
}

/// As in the text of a value, which for these types is the same.
template< HasText T >
Zek::String
valueToStrep( const T & value ) {
   return stringValue( value );
}

/// Reads the whole of [begin, end); throws Zek::RangeException, and leaves `value` alone, when it
/// is no such text.
template< HasText T >
void
sequenceToValue( Zek::String::IteratorConst begin, Zek::String::IteratorConst end, T & value ) {
   value = T( Zek::String::IteratorConst::view( begin, end ) );
}

} // namespace Velon
