// Text forms: of scalars, strings, enumerators, pointers and values, written and read back.
//
// Writers append to a string. Readers take the whole of a text and leave the value alone when it
// is not exactly one.

#pragma once

#include "framework/Export.h"
#include "framework/Name.h"
#include "framework/Ptr.h"
#include "framework/String.h"
#include "framework/Type.h"

#include <concepts>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>

namespace Zek {

IPSTATE_EXPORT void appendText( bool value, std::string & out );
IPSTATE_EXPORT void appendText( uint64_t value, std::string & out );
IPSTATE_EXPORT void appendText( int64_t value, std::string & out );
IPSTATE_EXPORT void appendText( double value, std::string & out );
IPSTATE_EXPORT void appendText( const String & value, std::string & out ); // quoted where needed
IPSTATE_EXPORT void appendText( const Name & value, std::string & out );
IPSTATE_EXPORT bool readText( std::string_view text, bool & value );
IPSTATE_EXPORT bool readUnsigned( std::string_view text, uint64_t most, uint64_t & value );
IPSTATE_EXPORT bool readSigned( std::string_view text, int64_t least, int64_t most,
                                int64_t & value );
IPSTATE_EXPORT bool readText( std::string_view text, double & value );
IPSTATE_EXPORT bool readText( std::string_view text, String & value );
IPSTATE_EXPORT bool readText( std::string_view text, Name & value );

/// "Value('Ip::IntfAddrInfo', ** {'intfId': Ethernet1, 'addr': 10.0.0.1})" of the object at
/// `value`, from the type's rows.
IPSTATE_EXPORT void appendValueText( const TypeDescriptor & type, const void * value,
                                     std::string & out );
/// Reads that form back into the value at `value`, field by field; exactly that form. On failure
/// the value is unchanged and `problem` (when not null) says what was expected at which offset.
IPSTATE_EXPORT bool readValueText( const TypeDescriptor & type, std::string_view text, void * value,
                                   std::string * problem );

/// Enumerator names; null when `value` is none of them.
IPSTATE_EXPORT const char * enumeratorName( const TypeDescriptor & type, int64_t value );
/// The enumerator's number; throws RangeException naming type and text or number when unknown.
IPSTATE_EXPORT int64_t enumeratorValue( const TypeDescriptor & type, std::string_view name );
IPSTATE_EXPORT int64_t enumeratorValue( const TypeDescriptor & type, int64_t number );

/// A counted object as text: its address as 0x and hex digits, null as "null".
IPSTATE_EXPORT void appendPointerText( const PtrInterface * object, std::string & out );

template< class T >
inline constexpr bool isPtr = false;
template< class T >
inline constexpr bool isPtr< Ptr< T > > = true;

template< class T >
void
appendField( const T & value, std::string & out ) {
   if constexpr( isPtr< T > ) {
      appendPointerText( value.ptr(), out );
   } else if constexpr( std::is_enum_v< T > ) {
      const char * name =
         enumeratorName( TypeOf< T >::descriptor, static_cast< int64_t >( value ) );
      if( name ) {
         out += name;
      } else {
         appendText( static_cast< int64_t >( value ), out );
      }
   } else if constexpr( std::is_same_v< T, bool > || std::is_same_v< T, double > ||
                        std::is_same_v< T, String > || std::is_same_v< T, Name > ) {
      appendText( value, out );
   } else if constexpr( std::is_unsigned_v< T > ) {
      appendText( static_cast< uint64_t >( value ), out );
   } else if constexpr( std::is_signed_v< T > ) {
      appendText( static_cast< int64_t >( value ), out );
   } else {
      value.appendTo( out );
   }
}

/// The text of a value standing alone, as in a message: strings as they are.
template< class T >
void
appendPlain( const T & value, std::string & out ) {
   if constexpr( requires { value.view(); } ) {
      out += value.view();
   } else {
      appendField( value, out );
   }
}

template< class T >
bool
readField( std::string_view text, T & value ) {
   if constexpr( isPtr< T > ) {
      return false;
   } else if constexpr( std::is_enum_v< T > ) {
      for( const EnumeratorRow & row : TypeOf< T >::descriptor.enumerators ) {
         if( text == row.name ) {
            value = static_cast< T >( row.value );
            return true;
         }
      }
      return false;
   } else if constexpr( std::is_same_v< T, bool > || std::is_same_v< T, double > ||
                        std::is_same_v< T, String > || std::is_same_v< T, Name > ) {
      return readText( text, value );
   } else if constexpr( std::is_unsigned_v< T > ) {
      uint64_t wide;
      if( !readUnsigned( text, std::numeric_limits< T >::max(), wide ) ) return false;
      value = static_cast< T >( wide );
      return true;
   } else if constexpr( std::is_signed_v< T > ) {
      int64_t wide;
      if( !readSigned( text, std::numeric_limits< T >::min(), std::numeric_limits< T >::max(),
                       wide ) ) {
         return false;
      }
      value = static_cast< T >( wide );
      return true;
   } else {
      return T::fromText( text, value );
   }
}

/// Throws RangeException "TYPE expected at offset 0 of "TEXT"", with the type and the text.
[[noreturn]] IPSTATE_EXPORT void throwNotRead( const TypeDescriptor & type, std::string_view text );

// -- Companions -------------------------------------------------------------------------------
//
// Every value type and enumeration has these beside it; here they are for the builtin types.

template< class T >
concept Builtin = std::is_arithmetic_v< T > || std::same_as< T, String > || std::same_as< T, Name >;

/// The value's text alone: strings and names as they are.
template< Builtin T >
String
stringValue( const T & value ) {
   std::string out;
   appendPlain( value, out );
   return String( out );
}

/// The value's text as in the text of a value: strings in quotes where they could not stand bare.
template< Builtin T >
String
valueToStrep( const T & value ) {
   std::string out;
   appendField( value, out );
   return String( out );
}

/// The text of a pointer: the object's address as 0x and hex digits, null as "null".
IPSTATE_EXPORT String valueToStrepOfRawPtr( const PtrInterface * object );

/// Reads that form; RangeException, and `value` unchanged, when [begin, end) is not exactly one.
template< Builtin T >
void
sequenceToValue( String::IteratorConst begin, String::IteratorConst end, T & value ) {
   std::string_view text = String::IteratorConst::view( begin, end );
   if( !readField( text, value ) ) throwNotRead( TypeOf< T >::descriptor, text );
}

} // namespace Zek
