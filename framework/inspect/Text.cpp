#include "framework/inspect/Text.h"

#include "framework/inspect/Place.h"

namespace Zek::Inspect {

namespace {

bool
hasFields( const TypeDescriptor & type ) {
   return type.kind == TypeKind::value && type.genericIf && !type.attributes.empty() &&
          !( type.values && type.values->isBare );
}

bool
isField( const AttributeRow & row ) {
   return row.isStored() &&
          ( row.kind == AttributeKind::constructorParameter || row.kind == AttributeKind::plain ||
            row.kind == AttributeKind::pointer || row.kind == AttributeKind::collection );
}

/// A text that stands among others: in quotes where it would not end where it should.
void
appendPart( std::string_view text, bool first, std::string & out ) {
   const bool bare = !text.empty() && text.find_first_of( " ,{}\"\\" ) == text.npos &&
                     ( !first || text.find( '=' ) == text.npos );
   if( bare ) {
      out += text;
      return;
   }
   out += '"';
   for( char c : text ) {
      if( c == '"' || c == '\\' ) out += '\\';
      out += c;
   }
   out += '"';
}

/// Reads such a text up to one of `ends`.
bool
readPart( std::string_view & text, std::string_view ends, std::string & part ) {
   part.clear();
   if( !text.starts_with( '"' ) ) {
      const size_t end = std::min( text.find_first_of( ends ), text.size() );
      part = text.substr( 0, end );
      text.remove_prefix( end );
      return true;
   }
   for( size_t i = 1; i < text.size(); ++i ) {
      if( text[i] == '"' ) {
         text.remove_prefix( i + 1 );
         return true;
      }
      if( text[i] == '\\' && ++i == text.size() ) break;
      part += text[i];
   }
   return false;
}

std::string
plainText( const GenericValue & value ) {
   if( value.is< String >() ) return value.as< String >().toString();
   return value.text();
}

std::string
fieldText( const GenericValue & value, const AttributeRow & field ) {
   return field.kind == AttributeKind::collection ? textOfSet( value, field )
                                                  : textOf( read( value, field ) );
}

/// The keys of a set, "{a,b}", into the value.
bool
readSet( std::string_view text, const AttributeRow & set, GenericValue & value ) {
   if( text.size() < 2 || text.front() != '{' || text.back() != '}' ) return false;
   text = text.substr( 1, text.size() - 2 );
   std::string part;
   while( !text.empty() ) {
      if( !readPart( text, ",", part ) ) return false;
      value.type()->genericIf->genericIfAttributeOp( value, GenericOperation::add, set.id,
                                                     { keyFromText( *set.keyType, part ) } );
      if( text.empty() ) break;
      if( text.front() != ',' ) return false;
      text.remove_prefix( 1 );
   }
   return true;
}

/// Takes "{...}" from the front, up to the brace that closes it.
bool
takeSet( std::string_view & text, std::string & part ) {
   bool quoted = false;
   for( size_t end = 0; end < text.size(); ++end ) {
      if( quoted && text[end] == '\\' ) {
         ++end;
      } else if( text[end] == '"' ) {
         quoted = !quoted;
      } else if( !quoted && text[end] == '}' ) {
         part = text.substr( 0, end + 1 );
         text.remove_prefix( end + 1 );
         return true;
      }
   }
   return false;
}

/// A value of such fields. They have no mutators that a type's rows know: it is made by its
/// constructor where that takes them, else read from the type's own form, in which sets stand not.
GenericValue
valueOfFields( const TypeDescriptor & type,
               const std::vector< std::pair< const AttributeRow *, GenericValue > > & fields ) {
   std::vector< GenericValue > arguments;
   for( const ParameterRow & parameter : type.constructorParameters ) {
      for( const auto & [field, value] : fields ) {
         if( std::string_view( field->name ) == parameter.name ) arguments.push_back( value );
      }
   }
   if( arguments.size() == fields.size() ) {
      return type.genericIf->genericIfFromCtorArgs( arguments );
   }
   std::string whole;
   for( const auto & [field, value] : fields ) {
      whole += ( whole.empty() ? "'" : ", '" ) + std::string( field->name ) + "': " + value.text();
   }
   return GenericValue::fromText( type, "Value('" + std::string( type.fullName ) + "', ** {" +
                                           whole + "})" );
}

/// "first name=value name={a,b}" into `value`, which is its type's zero.
bool
readFields( std::string_view text, const Entity & root, GenericValue & value ) {
   const TypeDescriptor & type = *value.type();
   std::vector< std::pair< const AttributeRow *, GenericValue > > fields;
   std::vector< std::pair< const AttributeRow *, std::string > > sets;
   bool first = true;
   std::string part;
   for( const AttributeRow * field : rowsOf( type ) ) {
      if( !isField( *field ) ) continue;
      const std::string start = first ? "" : " " + std::string( field->name ) + "=";
      first = false;
      const bool given = text.starts_with( start );
      if( given ) text.remove_prefix( start.size() );
      if( field->kind == AttributeKind::collection ) {
         if( given && !takeSet( text, part ) ) return false;
         if( given ) sets.emplace_back( field, part );
      } else if( given ) {
         if( !readPart( text, " ", part ) ) return false;
         fields.emplace_back( field,
                              valueFromText( *field->type, part, field->type->isCounted(), root ) );
      } else {
         fields.emplace_back( field, read( std::as_const( value ), *field ) );
      }
   }
   if( !text.empty() ) return false;
   value = valueOfFields( type, fields );
   for( const auto & [set, keys] : sets ) {
      if( !readSet( keys, *set, value ) ) return false;
   }
   return true;
}

} // namespace

std::string
textOfSet( const GenericValue & value, const AttributeRow & set ) {
   std::string out = "{";
   for( auto i = value.type()->genericIf->genericIfIterator( value, set.id ); i; ++i ) {
      if( out.size() > 1 ) out += ',';
      appendPart( plainText( i.key() ), false, out );
   }
   return out + "}";
}

std::string
textOf( const GenericValue & value ) {
   if( value.isNothing() ) return {};
   if( value.isPointer() ) return value.object() ? pathOf( *value.object() ) : "null";
   const TypeDescriptor & type = *value.type();
   if( !hasFields( type ) ) return plainText( value );
   std::string out;
   const GenericValue zero = GenericValue::zero( type );
   bool first = true;
   for( const AttributeRow * field : rowsOf( type ) ) {
      if( !isField( *field ) ) continue;
      const std::string text = fieldText( value, *field );
      if( first ) {
         appendPart( text, true, out );
         first = false;
      } else if( text != fieldText( zero, *field ) ) {
         out += " " + std::string( field->name ) + "=";
         if( field->kind == AttributeKind::collection ) {
            out += text;
         } else {
            appendPart( text, false, out );
         }
      }
   }
   return out;
}

std::string
textOf( const TypeDescriptor & type, const void * value ) {
   if( !hasFields( type ) && &type != &TypeOf< String >::descriptor ) {
      std::string out;
      type.values->append( value, out );
      return out;
   }
   return textOf( GenericValue( type, value ) );
}

GenericValue
valueFromText( const TypeDescriptor & type, std::string_view text, bool asPointer,
               const Entity & root ) {
   if( asPointer ) {
      if( text == "null" ) return GenericValue( static_cast< PtrInterface * >( nullptr ), &type );
      const Place place = followed( placeAt( root, text ) );
      if( place.kind != Place::Kind::record ) {
         throwRangeException( "'" + printable( text ) + "' is no record: expected the path of a " +
                              type.fullName );
      }
      // Whoever may write may also be pointed to.
      return GenericValue( const_cast< PtrInterface * >( place.object.ptr() ), &type );
   }
   if( &type == &TypeOf< String >::descriptor ) return GenericValue( String( text ) );
   if( hasFields( type ) ) {
      GenericValue value = GenericValue::zero( type );
      if( !text.starts_with( "Value(" ) && readFields( text, root, value ) ) return value;
   }
   return GenericValue::fromText( type, text );
}

} // namespace Zek::Inspect
