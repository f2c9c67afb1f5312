// Values, enumerations and strings of types made at run time.

#include "framework/DynamicParts.h"
#include "framework/Exception.h"
#include "framework/Hash.h"
#include "framework/Text.h"
#include "framework/ValueOps.h"

#include <algorithm>
#include <cstring>

namespace Zek {

const void *
dynamicAddress( const void * object, const AttributeRow & row ) {
   return placeOf( object, row );
}

namespace {

const DynamicType &
typeOf( const ValueOps & ops ) {
   return *static_cast< const DynamicValueOps & >( ops ).type;
}

// -- Values -----------------------------------------------------------------------------------

namespace Value {

void
construct( void * at, const ValueOps & ops ) {
   const DynamicType & type = typeOf( ops );
   for( const AttributeRow * field : type.fields ) {
      const GenericValue & initial = field->part->initial;
      if( initial.isNothing() ) {
         field->stored->construct( placeOf( at, *field ) );
      } else {
         field->stored->copy( placeOf( at, *field ), initial.address() );
      }
   }
}

void
copy( void * at, const void * from, const ValueOps & ops ) {
   for( const AttributeRow * field : typeOf( ops ).fields ) {
      field->stored->copy( placeOf( at, *field ), placeOf( from, *field ) );
   }
}

void
destroy( void * at, const ValueOps & ops ) {
   for( const AttributeRow * field : typeOf( ops ).fields ) {
      field->stored->destroy( placeOf( at, *field ) );
   }
}

/// Calls `visit( row )` for the fields that count in comparisons, while it returns true.
template< class Visit >
bool
eachCompared( const ValueOps & ops, Visit visit ) {
   const DynamicType & type = typeOf( ops );
   if( type.compared ) return visit( *type.compared );
   for( const AttributeRow * field : type.fields ) {
      if( !visit( *field ) ) return false;
   }
   return true;
}

bool
equal( const void * a, const void * b, const ValueOps & ops ) {
   return eachCompared( ops, [=]( const AttributeRow & field ) {
      return field.stored->equal( placeOf( a, field ), placeOf( b, field ) );
   } );
}

bool
less( const void * a, const void * b, const ValueOps & ops ) {
   bool isLess = false;
   eachCompared( ops, [&]( const AttributeRow & field ) {
      if( field.stored->equal( placeOf( a, field ), placeOf( b, field ) ) ) return true;
      isLess = field.stored->less( placeOf( a, field ), placeOf( b, field ) );
      return false;
   } );
   return isLess;
}

uint32_t
hash( const void * at, const ValueOps & ops ) {
   const bool sums = typeOf( ops ).declared.hashIsSum;
   bool isFirst = true;
   uint32_t mixed = 0;
   eachCompared( ops, [&]( const AttributeRow & field ) {
      if( !field.stored->isHashed() ) return true;
      const uint32_t next = field.stored->hash( placeOf( at, field ) );
      mixed = isFirst ? next : sums ? mixed + next : hashCombine( mixed, next );
      isFirst = false;
      return true;
   } );
   return mixed;
}

void
append( const void * at, std::string & out, const ValueOps & ops ) {
   appendValueText( typeOf( ops ), at, out );
}

bool
read( std::string_view text, void * at, const ValueOps & ops ) {
   return readValueText( typeOf( ops ), text, at, nullptr );
}

void
encode( const void * at, Wire::Encoder & out, const ValueOps & ops ) {
   for( const AttributeRow * field : typeOf( ops ).fields ) {
      if( field->stored->hasWireForm() ) field->stored->encode( placeOf( at, *field ), out );
   }
}

bool
decode( Wire::Decoder & in, void * at, const ValueOps & ops ) {
   for( const AttributeRow * field : typeOf( ops ).fields ) {
      if( field->stored->hasWireForm() && !field->stored->decode( in, placeOf( at, *field ) ) ) {
         return false;
      }
   }
   return true;
}

void
assemble( void * at, const void * const * arguments, const TypeDescriptor & descriptor ) {
   auto & type = static_cast< const DynamicType & >( descriptor );
   construct( at, type.ops );
   for( size_t i = 0; i < type.parameterAttributes.size(); ++i ) {
      const AttributeRow & field = *type.parameterAttributes[i];
      assign( *field.stored, placeOf( at, field ), arguments[i] );
   }
}

} // namespace Value

// -- Sets in values ---------------------------------------------------------------------------

namespace Set {

/// Ascending.
using Keys = std::vector< AnyKey >;

const ValueOps &
keyOf( const ValueOps & ops ) {
   return *static_cast< const DynamicSetOps & >( ops ).key;
}

Keys &
keysAt( void * at ) {
   return *static_cast< Keys * >( at );
}

const Keys &
keysAt( const void * at ) {
   return *static_cast< const Keys * >( at );
}

Keys::const_iterator
lowerBound( const Keys & keys, const ValueOps & ops, const void * key ) {
   return std::lower_bound( keys.begin(), keys.end(), key, [&]( const AnyKey & a, const void * b ) {
      return ops.less( a.get(), b );
   } );
}

void
construct( void * at, const ValueOps & ) {
   new( at ) Keys();
}

void
copy( void * at, const void * from, const ValueOps & ops ) {
   Keys keys;
   keys.reserve( keysAt( from ).size() );
   for( const AnyKey & key : keysAt( from ) ) keys.emplace_back( keyOf( ops ), key.get() );
   new( at ) Keys( std::move( keys ) );
}

void
destroy( void * at, const ValueOps & ) {
   keysAt( at ).~vector();
}

bool
equal( const void * a, const void * b, const ValueOps & ops ) {
   return std::ranges::equal( keysAt( a ), keysAt( b ), [&]( auto & left, auto & right ) {
      return keyOf( ops ).equal( left.get(), right.get() );
   } );
}

uint32_t
hash( const void * at, const ValueOps & ops ) {
   uint32_t sum = 0;
   for( const AnyKey & key : keysAt( at ) ) sum = sum * 31 + keyOf( ops ).hash( key.get() );
   return sum;
}

void
append( const void * at, std::string & out, const ValueOps & ops ) {
   const char * separator = "[";
   for( const AnyKey & key : keysAt( at ) ) {
      out += separator;
      keyOf( ops ).append( key.get(), out );
      separator = ", ";
   }
   out += keysAt( at ).empty() ? "[]" : "]";
}

/// As with linked types: a value with a collection has no text that reads back.
bool
read( std::string_view, void *, const ValueOps & ) {
   return false;
}

void
encode( const void * at, Wire::Encoder & out, const ValueOps & ops ) {
   out.u32( static_cast< uint32_t >( keysAt( at ).size() ) );
   for( const AnyKey & key : keysAt( at ) ) keyOf( ops ).encode( key.get(), out );
}

bool
decode( Wire::Decoder & in, void * at, const ValueOps & ops ) {
   uint32_t count;
   if( !in.u32( count, "a count of keys" ) ) return false;
   if( count > in.left() ) return in.fail( "as many keys as were counted" );
   Keys keys;
   for( ; count; --count ) {
      AnyKey key = AnyKey::zero( keyOf( ops ) );
      if( !keyOf( ops ).decode( in, key.get() ) ) return false;
      if( !keys.empty() && !keyOf( ops ).less( keys.back().get(), key.get() ) ) {
         return in.fail( "keys in ascending order" );
      }
      keys.push_back( std::move( key ) );
   }
   keysAt( at ) = std::move( keys );
   return true;
}

const DynamicSet &
setOf( const ValueSetOps & ops ) {
   return static_cast< const DynamicSet & >( ops );
}

Keys &
keysIn( void * object, const ValueSetOps & ops ) {
   return keysAt( static_cast< void * >( static_cast< char * >( object ) + setOf( ops ).place ) );
}

const Keys &
keysIn( const void * object, const ValueSetOps & ops ) {
   return keysIn( const_cast< void * >( object ), ops );
}

bool
holds( const Keys & keys, Keys::const_iterator at, const ValueOps & ops, const void * key ) {
   return at != keys.end() && ops.equal( at->get(), key );
}

void
fill( DynamicSet & set ) {
   set.countThunk = []( const void * object, const ValueSetOps & ops ) {
      return keysIn( object, ops ).size();
   };
   set.hasThunk = []( const void * object, const void * key, const ValueSetOps & ops ) {
      const Keys & keys = keysIn( object, ops );
      const ValueOps & keyOps = *setOf( ops ).key;
      return holds( keys, lowerBound( keys, keyOps, key ), keyOps, key );
   };
   set.firstThunk = []( const void * object, const ValueSetOps & ops ) {
      const Keys & keys = keysIn( object, ops );
      return keys.empty() ? nullptr : keys.front().get();
   };
   set.afterThunk = []( const void * object, const void * key, const ValueSetOps & ops ) {
      const Keys & keys = keysIn( object, ops );
      const ValueOps & keyOps = *setOf( ops ).key;
      auto at = lowerBound( keys, keyOps, key );
      if( holds( keys, at, keyOps, key ) ) ++at;
      return at == keys.end() ? nullptr : at->get();
   };
   set.addThunk = []( void * object, const void * key, const ValueSetOps & ops ) {
      Keys & keys = keysIn( object, ops );
      const ValueOps & keyOps = *setOf( ops ).key;
      const auto at = lowerBound( keys, keyOps, key );
      if( !holds( keys, at, keyOps, key ) ) keys.emplace( at, keyOps, key );
   };
   set.removeThunk = []( void * object, const void * key, const ValueSetOps & ops ) {
      Keys & keys = keysIn( object, ops );
      const ValueOps & keyOps = *setOf( ops ).key;
      const auto at = lowerBound( keys, keyOps, key );
      if( holds( keys, at, keyOps, key ) ) keys.erase( at );
   };
   set.removeAllThunk = []( void * object, const ValueSetOps & ops ) {
      keysIn( object, ops ).clear();
   };
}

} // namespace Set

// -- Enumerations -----------------------------------------------------------------------------

namespace Enumeration {

int32_t &
numberAt( void * at ) {
   return *static_cast< int32_t * >( at );
}

int32_t
numberAt( const void * at ) {
   return *static_cast< const int32_t * >( at );
}

void
append( const void * at, std::string & out, const ValueOps & ops ) {
   if( const char * name = enumeratorName( typeOf( ops ), numberAt( at ) ) ) {
      out += name;
   } else {
      appendText( int64_t( numberAt( at ) ), out );
   }
}

bool
read( std::string_view text, void * at, const ValueOps & ops ) {
   for( const EnumeratorRow & row : typeOf( ops ).enumerators ) {
      if( text != row.name ) continue;
      numberAt( at ) = static_cast< int32_t >( row.value );
      return true;
   }
   return false;
}

void
encode( const void * at, Wire::Encoder & out, const ValueOps & ) {
   out.u32( static_cast< uint32_t >( numberAt( at ) ) );
}

bool
decode( Wire::Decoder & in, void * at, const ValueOps & ops ) {
   uint32_t number = 0;
   if( !in.u32( number ) ) return false;
   const auto value = static_cast< int32_t >( number );
   if( !Wire::isEnumerator( typeOf( ops ), value ) ) return in.fail( "an enumerator's number" );
   numberAt( at ) = value;
   return true;
}

uint64_t
wireBytes( const void * at, const ValueOps & ) {
   return Wire::byteSwapped( static_cast< uint32_t >( numberAt( at ) ) );
}

} // namespace Enumeration

// -- Values written by hand elsewhere ---------------------------------------------------------

/// Texts: of bounded length, or those of a foreign type that travels as one.
namespace Text {

void
requireLength( size_t bytes, const DynamicType & type ) {
   const Declaration & declared = type.declared;
   if( declared.maxBytes && bytes > declared.maxBytes ) {
      throwRangeException( declared.refusal.empty() ? std::string( type.fullName ) + " holds " +
                                                         std::to_string( declared.maxBytes ) +
                                                         " bytes, not " + std::to_string( bytes )
                                                    : declared.refusal );
   }
}

bool
read( std::string_view text, void * at, const ValueOps & ops ) {
   String string;
   if( ops.isBare ) {
      string = String( text );
   } else if( !readText( text, string ) ) {
      return false;
   }
   requireLength( string.size(), typeOf( ops ) );
   *static_cast< String * >( at ) = string;
   return true;
}

void
append( const void * at, std::string & out, const ValueOps & ops ) {
   const String & string = *static_cast< const String * >( at );
   if( ops.isBare ) {
      out += string.view();
   } else {
      appendText( string, out );
   }
}

bool
decode( Wire::Decoder & in, void * at, const ValueOps & ops ) {
   std::string_view text;
   if( !in.text( text ) ) return false;
   requireLength( text.size(), typeOf( ops ) );
   *static_cast< String * >( at ) = String( text );
   return true;
}

} // namespace Text

/// So many bytes of which nothing more is known.
namespace Bytes {

constexpr char digits[] = "0123456789abcdef";

void
append( const void * at, std::string & out, const ValueOps & ops ) {
   auto * byte = static_cast< const uint8_t * >( at );
   for( uint32_t i = 0; i < ops.size; ++i ) {
      out += digits[byte[i] >> 4];
      out += digits[byte[i] & 15];
   }
}

bool
read( std::string_view text, void * at, const ValueOps & ops ) {
   if( text.size() != size_t{ ops.size } * 2 ) return false;
   std::vector< uint8_t > bytes;
   for( size_t i = 0; i < text.size(); i += 2 ) {
      const char * high = std::strchr( digits, text[i] );
      const char * low = std::strchr( digits, text[i + 1] );
      if( !high || !low || !*high || !*low ) return false;
      bytes.push_back( static_cast< uint8_t >( ( high - digits ) << 4 | ( low - digits ) ) );
   }
   std::memcpy( at, bytes.data(), bytes.size() );
   return true;
}

void
fill( ValueOps & ops ) {
   ops.constructThunk = []( void * at, const ValueOps & o ) { std::memset( at, 0, o.size ); };
   ops.copyThunk = []( void * at, const void * from, const ValueOps & o ) {
      std::memcpy( at, from, o.size );
   };
   ops.destroyThunk = []( void *, const ValueOps & ) {};
   ops.equalThunk = []( const void * a, const void * b, const ValueOps & o ) {
      return std::memcmp( a, b, o.size ) == 0;
   };
   ops.lessThunk = []( const void * a, const void * b, const ValueOps & o ) {
      return std::memcmp( a, b, o.size ) < 0;
   };
   ops.hashThunk = []( const void * at, const ValueOps & o ) { return hashBytes( at, o.size ); };
   ops.appendThunk = &append;
   ops.readThunk = &read;
   ops.encodeThunk = []( const void * at, Wire::Encoder & out, const ValueOps & o ) {
      out.bytes( at, o.size );
   };
   ops.decodeThunk = []( Wire::Decoder & in, void * at, const ValueOps & o ) {
      const uint8_t * bytes = nullptr;
      if( !in.bytes( bytes, o.size ) ) return false;
      std::memcpy( at, bytes, o.size );
      return true;
   };
}

} // namespace Bytes

} // namespace

// -- Filling in -------------------------------------------------------------------------------

void
fillValueOps( DynamicType & type ) {
   DynamicValueOps & ops = type.ops;
   ops.type = &type;
   ops.size = std::max( type.bytes, 1u );
   ops.alignment = 1;
   ops.isTrivial = true;
   bool isFixed = true;
   size_t sum = 0;
   for( const AttributeRow * field : type.fields ) {
      const ValueOps & stored = *field->stored;
      ops.alignment = std::max( ops.alignment, stored.alignment );
      ops.isTrivial &= stored.isTrivial;
      isFixed &= Wire::isFixed( stored.wireSize );
      sum += stored.wireSize;
   }
   ops.size = ( ops.size + ops.alignment - 1 ) & ~( ops.alignment - 1 );
   ops.constructThunk = &Value::construct;
   ops.copyThunk = &Value::copy;
   ops.destroyThunk = &Value::destroy;
   ops.equalThunk = &Value::equal;
   ops.lessThunk = type.declared.isOrdered ? &Value::less : nullptr;
   ops.hashThunk = &Value::hash;
   ops.appendThunk = &Value::append;
   ops.readThunk = &Value::read;
   ops.encodeThunk = &Value::encode;
   ops.decodeThunk = &Value::decode;
   ops.wireSize =
      isFixed && sum < Wire::countsItself ? static_cast< uint8_t >( sum ) : Wire::varies;
   type.values = &ops;
   type.assembleThunk = &Value::assemble;
}

void
fillSet( DynamicType &, AttributeRow & row, DynamicPart & part ) {
   part.setOps = std::make_unique< DynamicSetOps >();
   DynamicSetOps & ops = *part.setOps;
   ops.key = row.keyType->values;
   ops.size = sizeof( Set::Keys );
   ops.alignment = alignof( Set::Keys );
   ops.isTrivial = false;
   ops.constructThunk = &Set::construct;
   ops.copyThunk = &Set::copy;
   ops.destroyThunk = &Set::destroy;
   ops.equalThunk = &Set::equal;
   ops.hashThunk = &Set::hash;
   ops.appendThunk = &Set::append;
   ops.readThunk = &Set::read;
   ops.encodeThunk = &Set::encode;
   ops.decodeThunk = &Set::decode;
   ops.wireSize = Wire::varies;
   part.set = std::make_unique< DynamicSet >();
   part.set->key = ops.key;
   part.set->place = row.place;
   Set::fill( *part.set );
   row.stored = &ops;
   row.valueSet = part.set.get();
   row.addressThunk = &dynamicAddress;
}

void
fillEnumerationOps( DynamicType & type ) {
   static_cast< ValueOps & >( type.ops ) = valueOps< int32_t >;
   DynamicValueOps & ops = type.ops;
   ops.type = &type;
   ops.appendThunk = &Enumeration::append;
   ops.readThunk = &Enumeration::read;
   ops.encodeThunk = &Enumeration::encode;
   ops.decodeThunk = &Enumeration::decode;
   ops.wireBytesThunk = &Enumeration::wireBytes;
   type.values = &ops;
}

void
fillOpaqueOps( DynamicType & type ) {
   DynamicValueOps & ops = type.ops;
   const uint8_t size = type.declared.wireSize;
   ops.type = &type;
   if( size == Wire::countsItself ) {
      static_cast< ValueOps & >( ops ) = valueOps< String >;
      ops.appendThunk = &Text::append;
      ops.readThunk = &Text::read;
      ops.decodeThunk = &Text::decode;
   } else if( size != Wire::varies ) {
      ops.size = size;
      ops.alignment = 1;
      ops.isTrivial = true;
      Bytes::fill( ops );
   } else {
      return;
   }
   ops.isBare = type.declared.isBare;
   ops.wireSize = size;
   type.values = &ops;
}

} // namespace Zek
