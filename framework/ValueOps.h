// The operations of a C++ type as a value, for its descriptor.

#pragma once

#include "framework/Hash.h"
#include "framework/Text.h"
#include "framework/Type.h"
#include "framework/Wire.h"

#include <bit>
#include <concepts>
#include <cstdint>
#include <new>
#include <string>
#include <string_view>
#include <type_traits>

namespace Zek {

template< class T >
concept Ordered = requires( const T & a ) {
   { a < a } -> std::convertible_to< bool >;
};

template< class T >
concept Hashed = std::is_arithmetic_v< T > || std::is_enum_v< T > || requires( const T & a ) {
   { a.hash() } -> std::convertible_to< uint32_t >;
};

/// A type written by hand that is a text, whatever its bytes are.
template< class T >
concept HasBareText = requires {
   typename T::BareText;
};

/// Travels as one number.
template< class T >
concept WireNumber = std::is_enum_v< T > || std::is_arithmetic_v< T >;

/// Travels as a text.
template< class T >
concept WireText = std::is_same_v< T, String > || std::is_same_v< T, Name > || HasBareText< T >;

/// Has more to be read than stands in the value itself.
template< class T >
concept Prefetched = requires( const T & value ) {
   value.prefetch();
};

template< WireNumber T >
constexpr auto
wireNumber( T value ) {
   if constexpr( std::is_enum_v< T > ) {
      return static_cast< uint32_t >( value );
   } else if constexpr( std::is_same_v< T, bool > ) {
      return static_cast< uint8_t >( value );
   } else if constexpr( std::is_same_v< T, double > ) {
      return std::bit_cast< uint64_t >( value );
   } else {
      return static_cast< std::make_unsigned_t< T > >( value );
   }
}

/// Bytes of all values in streams, else Wire::varies or Wire::countsItself.
template< class T >
constexpr uint8_t
wireSize() {
   if constexpr( WireNumber< T > ) {
      return sizeof( wireNumber( T() ) );
   } else if constexpr( WireText< T > ) {
      return Wire::countsItself;
   } else if constexpr( requires { T::wireSize; } ) {
      return T::wireSize;
   } else if constexpr( requires { typename T::ZekFields; } ) {
      return T::ZekFields::wireSize();
   }
   return Wire::varies;
}

/// A pointer within a value, and a type by hand that does not say how, have no bytes: they stay as
/// they are at the other end. To an Encoder, or to one that does the same where it knows how many
/// bytes will come, and else has an Encoder do it.
template< class T, class Out >
void
encodeField( const T & value, Out & out ) {
   if constexpr( WireNumber< T > ) {
      out.number( wireNumber( value ) );
   } else if constexpr( WireText< T > ) {
      out.text( value.view() );
   } else if constexpr( requires { typename T::ZekFields; } ) {
      T::ZekFields::encode( value, out );
   } else if constexpr( std::is_same_v< Out, Wire::Encoder > || wireSize< T >() != Wire::varies ) {
      if constexpr( requires { value.encodeTo( out ); } ) value.encodeTo( out );
   } else {
      out.byEncoder( [&]( Wire::Encoder & encoder ) { encodeField( value, encoder ); } );
   }
}

/// True for an enumerator's number.
template< class T >
bool
isEnumerator( int32_t number ) {
   // Mostly they count from zero.
   const auto rows = TypeOf< T >::descriptor.enumerators;
   const auto index = static_cast< size_t >( number );
   return ( index < rows.size() && rows[index].value == number ) ||
          Wire::isEnumerator( TypeOf< T >::descriptor, number );
}

/// From a Decoder or a FixedReader.
template< class T, class In >
bool
decodeField( In & in, T & value ) {
   if constexpr( std::is_enum_v< T > ) {
      uint32_t number = 0;
      if( !in.u32( number ) ) return false;
      auto signedNumber = static_cast< int32_t >( number );
      if( !isEnumerator< T >( signedNumber ) ) {
         return in.fail( "an enumerator's number" );
      }
      value = static_cast< T >( signedNumber );
      return true;
   } else if constexpr( std::is_same_v< T, bool > ) {
      uint8_t byte = 0;
      if( !in.u8( byte ) ) return false;
      if( byte > 1 ) return in.fail( "0 or 1" );
      value = byte != 0;
      return true;
   } else if constexpr( std::is_same_v< T, double > ) {
      uint64_t bits = 0;
      if( !in.u64( bits ) ) return false;
      value = std::bit_cast< double >( bits );
      return true;
   } else if constexpr( std::is_integral_v< T > ) {
      std::make_unsigned_t< T > number = 0;
      if( !in.number( number, "a number" ) ) return false;
      value = static_cast< T >( number );
      return true;
   } else if constexpr( WireText< T > ) {
      std::string_view text;
      if( !in.text( text ) ) return false;
      if( value.view() != text ) value = T( text );
      return true;
   } else if constexpr( requires { T::decodeFrom( in, value ); } ) {
      return T::decodeFrom( in, value );
   } else if constexpr( requires { typename T::ZekFields; } ) {
      return T::ZekFields::decode( in, value );
   } else {
      return true;
   }
}

/// Whether this value is read next; where that takes no more than to compare numbers and texts.
template< class T >
bool
saysField( Wire::Decoder & in, const T & value ) {
   if constexpr( WireNumber< T > ) {
      decltype( wireNumber( value ) ) number = 0;
      return in.number( number, "a number" ) && number == wireNumber( value );
   } else if constexpr( WireText< T > ) {
      std::string_view text;
      return in.text( text ) && text == value.view();
   } else if constexpr( requires { typename T::ZekFields; } ) {
      return T::ZekFields::says( in, value );
   }
   return false;
}

/// The fields of a generated value type, by their member pointers.
template< auto... Field >
struct Fields {
   static constexpr uint8_t wireSize() { return sizeOf( Field... ); }
   template< class Value, class Out >
   static void encode( const Value & value, Out & out ) {
      ( encodeField( value.*Field, out ), ... );
   }
   /// Assigns all fields or, when false, some.
   template< class In, class Value >
   static bool decode( In & in, Value & value ) {
      return ( decodeField( in, value.*Field ) && ... );
   }
   template< class Value >
   static bool says( Wire::Decoder & in, const Value & value ) {
      return ( saysField( in, value.*Field ) && ... );
   }

   /// What `each` says of the fields' types, added up.
   template< class Each >
   static constexpr size_t sum( Each each ) {
      return sumOf( each, Field... );
   }

 private:
   template< class Each, class Value, class... F >
   static constexpr size_t sumOf( Each each, F Value::*... ) {
      return ( each( std::type_identity< F >() ) + ... );
   }
   template< class Value, class... F >
   static constexpr uint8_t sizeOf( F Value::*... ) {
      constexpr size_t sum = ( size_t( Zek::wireSize< F >() ) + ... );
      constexpr bool isFixed = ( Wire::isFixed( Zek::wireSize< F >() ) && ... );
      return isFixed && sum < Wire::countsItself ? uint8_t( sum ) : Wire::varies;
   }
};

template< class T >
struct ValueThunks {
   static const T & at( const void * p ) { return *static_cast< const T * >( p ); }
   static void construct( void * p, const ValueOps & ) { new( p ) T(); }
   static void copy( void * p, const void * from, const ValueOps & ) { new( p ) T( at( from ) ); }
   static void destroy( void * p, const ValueOps & ) { static_cast< T * >( p )->~T(); }
   static bool equal( const void * a, const void * b, const ValueOps & ) {
      return at( a ) == at( b );
   }
   static bool less( const void * a, const void * b, const ValueOps & ) {
      if constexpr( Ordered< T > ) {
         return at( a ) < at( b );
      } else {
         return false;
      }
   }
   static uint32_t hash( const void * p, const ValueOps & ) {
      if constexpr( Hashed< T > ) {
         return hashField( at( p ) );
      } else {
         return 0;
      }
   }
   static void append( const void * p, std::string & out, const ValueOps & ) {
      appendField( at( p ), out );
   }
   static bool read( std::string_view text, void * p, const ValueOps & ) {
      return readField( text, *static_cast< T * >( p ) );
   }
   static void encode( const void * p, Wire::Encoder & out, const ValueOps & ) {
      encodeField( at( p ), out );
   }
   static bool decode( Wire::Decoder & in, void * p, const ValueOps & ) {
      return decodeField( in, *static_cast< T * >( p ) );
   }
   static uint64_t wireBytes( const void * p, const ValueOps & ) {
      if constexpr( WireNumber< T > ) {
         return Wire::byteSwapped( wireNumber( at( p ) ) );
      }
      return 0;
   }
   static void prefetch( const void * p, const ValueOps & ) {
      if constexpr( Prefetched< T > ) at( p ).prefetch();
   }
};

/// The operations of T as a value.
template< class T >
inline constexpr ValueOps valueOps = {
   sizeof( T ),
   alignof( T ),
   std::is_trivially_copyable_v< T > && std::is_trivially_destructible_v< T >,
   &ValueThunks< T >::construct,
   &ValueThunks< T >::copy,
   &ValueThunks< T >::destroy,
   &ValueThunks< T >::equal,
   Ordered< T > ? &ValueThunks< T >::less : nullptr,
   Hashed< T > ? &ValueThunks< T >::hash : nullptr,
   &ValueThunks< T >::append,
   &ValueThunks< T >::read,
   isPtr< T > ? nullptr : &ValueThunks< T >::encode,
   isPtr< T > ? nullptr : &ValueThunks< T >::decode,
   HasBareText< T >,
   wireSize< T >(),
   WireNumber< T > ? &ValueThunks< T >::wireBytes : nullptr,
   Prefetched< T > ? &ValueThunks< T >::prefetch : nullptr,
};

} // namespace Zek
