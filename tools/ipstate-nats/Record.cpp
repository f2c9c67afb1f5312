#include "tools/ipstate-nats/Record.h"

#include "tools/ipstate-nats/Key.h"

#include "framework/EntityUriPath.h"
#include "framework/Exception.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <memory>
#include <unordered_map>

namespace IpstateNats {

// -- Shapes -----------------------------------------------------------------------------------

namespace {

void
addRows( const Zek::TypeDescriptor & type, Shape & shape ) {
   if( type.base ) addRows( *type.base, shape );
   for( const Zek::AttributeRow & row : type.attributes ) {
      if( row.id == Zek::entityAttr || ownsRecords( row ) ) {
         shape.owning.push_back( &row );
      } else if( row.id < Zek::firstTypedAttr ) {
         continue;
      } else if( row.kind == Zek::AttributeKind::collection ) {
         if( row.collection ) shape.collections.push_back( &row );
      } else if( row.isWritable() && row.isStored() && row.stored ) {
         shape.plain.push_back( &row );
      }
   }
}

bool
isStreamed( const Zek::TypeDescriptor & type ) {
   return type.hasAttrLog && type.genericIf;
}

/// Nobody is told of its changes: what others can know of it is that it is there.
bool
isKeyAlone( const Zek::TypeDescriptor & type ) {
   return type.kind == Zek::TypeKind::entity && !type.hasNotifier && type.genericIf;
}

} // namespace

const Zek::AttributeRow *
Shape::collection( std::string_view name ) const {
   for( const Zek::AttributeRow * row : collections ) {
      if( row->name == name ) return row;
   }
   return nullptr;
}

const Shape *
shapeOf( const Zek::TypeDescriptor & type ) {
   // A thread has its own trees; so are the shapes its own.
   static thread_local std::unordered_map< const Zek::TypeDescriptor *, std::unique_ptr< Shape > >
      shapes;
   const auto [at, isNew] = shapes.try_emplace( &type );
   if( !isNew || !( isStreamed( type ) || isKeyAlone( type ) ) ) return at->second.get();
   auto shape = std::make_unique< Shape >();
   shape->type = &type;
   for( size_t i = 1; i < type.constructorParameters.size(); ++i ) {
      const Zek::AttributeRow * row =
         type.attribute( std::string_view( type.constructorParameters[i].name ) );
      if( !row || !row->isStored() ) return nullptr;
      shape->arguments.push_back( row );
   }
   if( isStreamed( type ) ) addRows( type, *shape );
   at->second = std::move( shape );
   return at->second.get();
}

// -- Writing ----------------------------------------------------------------------------------

namespace {

/// Whether the bytes are UTF-8 (RFC 3629).
bool
isUtf8( std::string_view bytes ) {
   for( size_t i = 0; i < bytes.size(); ) {
      const auto first = static_cast< uint8_t >( bytes[i] );
      const size_t length = first < 0x80                     ? 1
                            : first >= 0xc2 && first < 0xe0  ? 2
                            : ( first & 0xf0 ) == 0xe0       ? 3
                            : first >= 0xf0 && first <= 0xf4 ? 4
                                                             : 0;
      if( !length || i + length > bytes.size() ) return false;
      uint32_t point = length == 1 ? first : first & ( 0xff >> ( length + 1 ) );
      for( size_t j = 1; j < length; ++j ) {
         const auto next = static_cast< uint8_t >( bytes[i + j] );
         if( ( next & 0xc0 ) != 0x80 ) return false;
         point = point << 6 | ( next & 0x3f );
      }
      constexpr uint32_t least[] = { 0, 0, 0x80, 0x800, 0x10000 };
      if( point < least[length] || point > 0x10ffff || ( point >= 0xd800 && point < 0xe000 ) ) {
         return false;
      }
      i += length;
   }
   return true;
}

Json
bytesJson( const std::string & bytes ) {
   if( isUtf8( bytes ) ) return bytes;
   constexpr char digits[] = "0123456789abcdef";
   std::string hex;
   for( char c : bytes ) {
      hex += digits[static_cast< uint8_t >( c ) >> 4];
      hex += digits[static_cast< uint8_t >( c ) & 15];
   }
   return Json{ { "hex", hex } };
}

template< class... Numbers >
bool
numberJson( const Zek::TypeDescriptor & type, const void * value, Json & json ) {
   return ( ( &type == &Zek::TypeOf< Numbers >::descriptor &&
              ( json = *static_cast< const Numbers * >( value ), true ) ) ||
            ... );
}

/// A record of fields, as far as these are known by name.
bool
hasFields( const Zek::TypeDescriptor & type ) {
   return type.kind == Zek::TypeKind::value && !type.attributes.empty() && type.genericIf;
}

/// Fields are those that stand in the value; what is computed from them is no part of it.
template< class Visit >
void
forEachField( const Zek::TypeDescriptor & type, Visit visit ) {
   for( const Zek::AttributeRow & row : type.attributes ) {
      if( row.isStored() && row.stored ) visit( row );
   }
}

Json
valueJson( const Zek::TypeDescriptor & type, const void * value ) {
   Json json;
   if( hasFields( type ) ) {
      forEachField( type, [&]( const Zek::AttributeRow & row ) {
         Json & field = json[row.name];
         if( !row.valueSet ) {
            field = valueJson( *row.type, row.address( value ) );
            return;
         }
         field = Json::array();
         for( const void * key = row.valueSet->first( value ); key;
              key = row.valueSet->after( value, key ) ) {
            field.push_back( valueJson( *row.keyType, key ) );
         }
      } );
      return json;
   }
   if( &type == &Zek::TypeOf< double >::descriptor &&
       !std::isfinite( *static_cast< const double * >( value ) ) ) {
      // No number of JSON's: its text, as below.
   } else if( numberJson< bool, uint8_t, uint16_t, uint32_t, uint64_t, int8_t, int16_t, int32_t,
                          int64_t, double >( type, value, json ) ) {
      return json;
   }
   std::string text;
   type.values->append( value, text );
   return bytesJson( text );
}

Json
referenceJson( const Zek::PtrInterface * object, const Referrer & referrer ) {
   if( !object ) return nullptr;
   std::string text = referrer( *object );
   return text.empty() ? Json::object() : Json( std::move( text ) );
}

const Zek::PtrInterface *
pointerAt( const Zek::AttributeRow & row, const Zek::Entity & record ) {
   const Zek::GenericValue pointer = record.fwkType()->genericIf->genericIfAttributeOp(
      record, Zek::GenericOperation::read, row.id );
   return pointer.object();
}

Json
attributeJson( const Zek::AttributeRow & row, const Zek::Entity & record,
               const Referrer & referrer ) {
   // A pointer's own type is that of a counted object.
   if( row.type->isCounted() ) return referenceJson( pointerAt( row, record ), referrer );
   return valueJson( *row.type, row.address( &record ) );
}

/// What stands under the key of a member in a collection of values, sets or references.
Json
heldJson( const Zek::AttributeRow & row, const Zek::PtrInterface & member,
          const Referrer & referrer ) {
   if( row.has( Zek::refersToMembers ) ) return referenceJson( &member, referrer );
   if( row.has( Zek::isSet ) ) return nullptr;
   return valueJson( *row.type, row.collection->memberValue( &member ) );
}

} // namespace

Json
recordJson( const Zek::Entity & record, const Shape & shape, uint32_t instance,
            const std::vector< uint16_t > & apart, const Referrer & referrer ) {
   Json json{ { "type", shape.type->fullName } };
   if( instance ) json["instance"] = instance;
   if( !shape.arguments.empty() ) {
      Json & arguments = json["args"] = Json::object();
      for( const Zek::AttributeRow * row : shape.arguments ) {
         arguments[row->name] = attributeJson( *row, record, referrer );
      }
   }
   if( !shape.plain.empty() ) {
      Json & attributes = json["attrs"] = Json::object();
      for( const Zek::AttributeRow * row : shape.plain ) {
         attributes[row->name] = attributeJson( *row, record, referrer );
      }
   }
   for( const Zek::AttributeRow * row : shape.collections ) {
      if( std::find( apart.begin(), apart.end(), row->id ) != apart.end() ) {
         json["apart"].push_back( row->name );
         continue;
      }
      const Zek::CollectionOps & ops = *row->collection;
      const Zek::PtrInterface * member = ops.first( &record );
      if( !member ) continue;
      // Keys that are no UTF-8 cannot name a field: pairs stand for the fields of all.
      Json & members = json["members"][row->name] = Json::array();
      while( member ) {
         Zek::withMemberKey( *row, member, [&]( const void * key ) {
            Json pair = Json::array( { valueJson( *row->keyType, key ) } );
            Json held = heldJson( *row, *member, referrer );
            if( !row->has( Zek::isSet ) ) pair.push_back( std::move( held ) );
            members.push_back( std::move( pair ) );
            member = ops.after( &record, key );
         } );
      }
   }
   return json;
}

std::string
identityOf( const Json & record ) {
   Json identity;
   for( const char * part : { "type", "instance", "args" } ) {
      if( record.contains( part ) ) identity[part] = record[part];
   }
   return identity.dump();
}

Json
memberJson( const Zek::AttributeRow & row, const Zek::PtrInterface & member,
            const Referrer & referrer ) {
   Json json;
   Zek::withMemberKey( row, &member,
                       [&]( const void * key ) { json["key"] = valueJson( *row.keyType, key ); } );
   if( !row.has( Zek::isSet ) ) json["value"] = heldJson( row, member, referrer );
   return json;
}

// -- Reading ----------------------------------------------------------------------------------

std::string
textFromJson( const Json & json ) {
   if( json.is_boolean() || json.is_number() ) return json.dump();
   if( json.is_string() ) return json.get< std::string >();
   const auto hex = json.is_object() && json.size() == 1 ? json.find( "hex" ) : json.end();
   if( hex == json.end() || !hex->is_string() ) {
      Zek::throwRangeException( "expected a text, a number or bytes in hexadecimal digits, not " +
                                json.dump().substr( 0, 80 ) );
   }
   const auto & digits = hex->get_ref< const std::string & >();
   std::string bytes;
   for( size_t i = 0; i + 1 < digits.size(); i += 2 ) {
      uint8_t byte = 0;
      const auto [end, error] =
         std::from_chars( digits.data() + i, digits.data() + i + 2, byte, 16 );
      if( error != std::errc() || end != digits.data() + i + 2 ) break;
      bytes += static_cast< char >( byte );
   }
   if( bytes.size() * 2 != digits.size() ) {
      Zek::throwRangeException( "expected pairs of hexadecimal digits, not '" +
                                digits.substr( 0, 80 ) + "'" );
   }
   return bytes;
}

namespace {

const Json &
fieldOf( const Zek::TypeDescriptor & type, const Json & json, const char * name ) {
   const auto at = json.find( name );
   if( at == json.end() ) {
      Zek::throwRangeException( std::string( type.fullName ) + " without " + name );
   }
   return *at;
}

Zek::GenericValue
fieldsFromJson( const Zek::TypeDescriptor & type, const Json & json ) {
   if( !json.is_object() ) {
      Zek::throwRangeException( std::string( "expected the fields of " ) + type.fullName +
                                ", not " + json.dump().substr( 0, 80 ) );
   }
   const Zek::GenericIf & generic = *type.genericIf;
   std::vector< Zek::GenericValue > arguments;
   for( const Zek::ParameterRow & parameter : type.constructorParameters ) {
      arguments.push_back(
         valueFromJson( *parameter.type, fieldOf( type, json, parameter.name ) ) );
   }
   Zek::GenericValue value = generic.genericIfFromCtorArgs( arguments );
   forEachField( type, [&]( const Zek::AttributeRow & row ) {
      if( row.valueSet ) {
         for( const Json & key : fieldOf( type, json, row.name ) ) {
            generic.genericIfAttributeOp( value, Zek::GenericOperation::add, row.id,
                                          { valueFromJson( *row.keyType, key ) } );
         }
      } else if( row.isWritable() ) {
         const Json & field = fieldOf( type, json, row.name );
         generic.genericIfAttributeOp( value, Zek::GenericOperation::write, row.id,
                                       { valueFromJson( *row.type, field ) } );
      }
   } );
   return value;
}

} // namespace

Zek::GenericValue
valueFromJson( const Zek::TypeDescriptor & type, const Json & json ) {
   if( hasFields( type ) ) return fieldsFromJson( type, json );
   return Zek::GenericValue::fromText( type, textFromJson( json ) );
}

Reference
referenceFromText( std::string_view text ) {
   Reference reference;
   const size_t mark = std::min( text.find( '#' ), text.size() );
   reference.key = text.substr( 0, mark );
   if( mark < text.size() ) {
      const char * end = text.data() + text.size();
      const auto [at, error] = std::from_chars( text.data() + mark + 1, end, reference.instance );
      if( error != std::errc() || at != end ) {
         Zek::throwRangeException( "expected an instance's number behind '#' in '" +
                                   std::string( text.substr( 0, 80 ) ) + "'" );
      }
   }
   return reference;
}

Json
parsed( std::string_view value ) {
   if( value.size() > longestValue ) {
      Zek::throwRangeException( "a value of " + std::to_string( value.size() ) +
                                " bytes: expected " + std::to_string( longestValue ) +
                                " or fewer" );
   }
   size_t depth = 0, deepest = 0;
   bool isText = false;
   for( size_t i = 0; i < value.size(); ++i ) {
      const char c = value[i];
      if( isText ) {
         if( c == '\\' ) ++i;
         isText = c != '"';
      } else if( c == '"' ) {
         isText = true;
      } else if( c == '{' || c == '[' ) {
         deepest = std::max( deepest, ++depth );
      } else if( ( c == '}' || c == ']' ) && depth ) {
         --depth;
      }
   }
   if( deepest > deepestValue ) {
      Zek::throwRangeException( "a value nested " + std::to_string( deepest ) + " deep: expected " +
                                std::to_string( deepestValue ) + " or less" );
   }
   Json json = Json::parse( value, nullptr, false );
   if( !json.is_object() ) Zek::throwRangeException( "expected a JSON object" );
   return json;
}

} // namespace IpstateNats
