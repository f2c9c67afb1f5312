#include "framework/Text.h"

#include "framework/Exception.h"

#include <array>
#include <charconv>
#include <memory>
#include <vector>

namespace Zek {

// -- Scalars and strings ----------------------------------------------------------------------

namespace {

template< class T >
void
appendNumber( T value, std::string & out ) {
   char digits[32];
   auto end = std::to_chars( digits, digits + sizeof( digits ), value ).ptr;
   out.append( digits, end );
}

// The bytes that end or disguise a string which stands bare.
constexpr std::array< bool, 256 > needsQuotes = [] {
   std::array< bool, 256 > table{};
   for( unsigned c = 0; c < 0x20; ++c ) table[c] = true;
   table[0x7f] = true;
   for( unsigned char c : std::string_view( "'\",{}[]()\\" ) ) table[c] = true;
   return table;
}();

// A string may stand bare where a reader is certain of its end.
bool
standsBare( std::string_view text ) {
   if( text.empty() ) return true;
   if( text.front() == ' ' || text.back() == ' ' ) return false;
   for( unsigned char c : text ) {
      if( needsQuotes[c] ) return false;
   }
   return true;
}

void
appendStringField( std::string_view text, std::string & out ) {
   if( standsBare( text ) ) {
      out += text;
      return;
   }
   out += '\'';
   for( char c : text ) {
      switch( c ) {
      case '\'':
         out += "\\'";
         break;
      case '\\':
         out += "\\\\";
         break;
      case '\n':
         out += "\\n";
         break;
      case '\t':
         out += "\\t";
         break;
      case '\r':
         out += "\\r";
         break;
      default:
         if( static_cast< unsigned char >( c ) < 0x20 || c == 0x7f ) {
            static const char hex[] = "0123456789abcdef";
            out += "\\x";
            out += hex[static_cast< unsigned char >( c ) >> 4];
            out += hex[c & 15];
         } else {
            out += c;
         }
      }
   }
   out += '\'';
}

int
hexDigit( char c ) {
   if( c >= '0' && c <= '9' ) return c - '0';
   if( c >= 'a' && c <= 'f' ) return c - 'a' + 10;
   return -1;
}

bool
readStringField( std::string_view text, std::string & value ) {
   if( text.empty() || text.front() != '\'' ) {
      if( !standsBare( text ) ) return false;
      value = text;
      return true;
   }
   if( text.size() < 2 || text.back() != '\'' ) return false;
   value.clear();
   for( size_t i = 1; i + 1 < text.size(); ++i ) {
      char c = text[i];
      if( c == '\'' ) return false;
      if( c != '\\' ) {
         value += c;
         continue;
      }
      if( ++i + 1 >= text.size() ) return false;
      switch( text[i] ) {
      case '\'':
         value += '\'';
         break;
      case '\\':
         value += '\\';
         break;
      case 'n':
         value += '\n';
         break;
      case 't':
         value += '\t';
         break;
      case 'r':
         value += '\r';
         break;
      case 'x': {
         if( i + 3 >= text.size() ) return false;
         int high = hexDigit( text[i + 1] );
         int low = hexDigit( text[i + 2] );
         if( high < 0 || low < 0 ) return false;
         value += static_cast< char >( high << 4 | low );
         i += 2;
         break;
      }
      default:
         return false;
      }
   }
   return true;
}

// Digits alone, no sign, no leading zero.
bool
plainDigits( std::string_view text ) {
   if( text.empty() || ( text.size() > 1 && text.front() == '0' ) ) return false;
   for( char c : text ) {
      if( c < '0' || c > '9' ) return false;
   }
   return true;
}

} // namespace

void
appendText( bool value, std::string & out ) {
   out += value ? "true" : "false";
}

void
appendText( uint64_t value, std::string & out ) {
   appendNumber( value, out );
}

void
appendText( int64_t value, std::string & out ) {
   appendNumber( value, out );
}

void
appendText( double value, std::string & out ) {
   appendNumber( value, out );
}

void
appendText( const String & value, std::string & out ) {
   appendStringField( value.view(), out );
}

void
appendText( const Name & value, std::string & out ) {
   appendStringField( value.view(), out );
}

void
appendPointerText( const PtrInterface * object, std::string & out ) {
   if( !object ) {
      out += "null";
      return;
   }
   char digits[32];
   auto number = reinterpret_cast< uintptr_t >( object );
   auto end = std::to_chars( digits, digits + sizeof( digits ), number, 16 ).ptr;
   out += "0x";
   out.append( digits, end );
}

String
valueToStrepOfRawPtr( const PtrInterface * object ) {
   std::string out;
   appendPointerText( object, out );
   return String( out );
}

void
throwNotRead( const TypeDescriptor & type, std::string_view text ) {
   throwRangeException( std::string( type.fullName ) + " expected at offset 0 of \"" +
                        std::string( text ) + "\"" );
}

bool
readText( std::string_view text, bool & value ) {
   if( text != "true" && text != "false" ) return false;
   value = text == "true";
   return true;
}

bool
readUnsigned( std::string_view text, uint64_t most, uint64_t & value ) {
   if( !plainDigits( text ) ) return false;
   uint64_t number;
   auto [end, error] = std::from_chars( text.data(), text.data() + text.size(), number );
   if( error != std::errc() || number > most ) return false;
   value = number;
   return true;
}

bool
readSigned( std::string_view text, int64_t least, int64_t most, int64_t & value ) {
   std::string_view digits = text;
   if( !digits.empty() && digits.front() == '-' ) digits.remove_prefix( 1 );
   if( !plainDigits( digits ) || text == "-0" ) return false;
   int64_t number;
   auto [end, error] = std::from_chars( text.data(), text.data() + text.size(), number );
   if( error != std::errc() || number < least || number > most ) return false;
   value = number;
   return true;
}

bool
readText( std::string_view text, double & value ) {
   double number;
   auto [end, error] = std::from_chars( text.data(), text.data() + text.size(), number );
   if( error != std::errc() || end != text.data() + text.size() ) return false;
   value = number;
   return true;
}

bool
readText( std::string_view text, String & value ) {
   std::string contents;
   if( !readStringField( text, contents ) ) return false;
   value = String( contents );
   return true;
}

bool
readText( std::string_view text, Name & value ) {
   std::string contents;
   if( !readStringField( text, contents ) ) return false;
   value = Name( contents );
   return true;
}

// -- Values -----------------------------------------------------------------------------------

namespace {

bool
isField( const AttributeRow & row ) {
   return row.isStored();
}

} // namespace

void
appendValueText( const TypeDescriptor & type, const void * value, std::string & out ) {
   out += "Value('";
   out += type.fullName;
   out += "', ** {";
   bool first = true;
   for( const AttributeRow & row : type.attributes ) {
      if( !isField( row ) ) continue;
      if( !first ) out += ", ";
      first = false;
      out += '\'';
      out += row.name;
      out += "': ";
      row.stored->append( row.address( value ), out );
   }
   out += "})";
}

namespace {

// Where the text of a field ends that starts at `from`. `label` follows it.
size_t
fieldEnd( std::string_view text, size_t from, bool isBare, std::string_view label ) {
   // A bare text may hold anything, even what looks like the label. What stands behind the real
   // one does not, so that is the last.
   if( isBare ) {
      size_t end = text.rfind( label );
      if( end != text.npos && end >= from ) return end;
   }
   // At the first of , } ] that stands outside quotes and brackets.
   int depth = 0;
   bool quoted = false;
   for( size_t i = from; i < text.size(); ++i ) {
      char c = text[i];
      if( quoted ) {
         if( c == '\\' ) {
            ++i;
         } else if( c == '\'' ) {
            quoted = false;
         }
         continue;
      }
      switch( c ) {
      case '\'':
         quoted = true;
         break;
      case '(':
      case '{':
      case '[':
         ++depth;
         break;
      case ')':
      case '}':
      case ']':
         if( depth-- == 0 ) return i;
         break;
      case ',':
         if( depth == 0 ) return i;
         break;
      default:
         break;
      }
   }
   return text.size();
}

} // namespace

bool
readValueText( const TypeDescriptor & type, std::string_view text, void * value,
               std::string * problem ) {
   const ValueOps & ops = *type.values;
   std::unique_ptr< std::byte[] > memory( new std::byte[ops.size] );
   struct Scratch {
      const ValueOps & ops;
      void * at;
      ~Scratch() { ops.destroy( at ); }
   } scratch{ ops, memory.get() };
   ops.copy( scratch.at, value );

   size_t at = 0;
   auto fail = [&]( std::string_view expected ) {
      if( problem ) {
         *problem = std::string( expected ) + " expected at offset " + std::to_string( at ) +
                    " of \"" + std::string( text ) + "\"";
      }
      return false;
   };
   auto take = [&]( std::string_view literal ) {
      if( text.substr( at, literal.size() ) != literal ) return false;
      at += literal.size();
      return true;
   };

   const std::string opening = std::string( "Value('" ) + type.fullName + "', ** {";
   if( !take( opening ) ) return fail( '"' + opening + '"' );
   std::vector< const AttributeRow * > fields;
   for( const AttributeRow & row : type.attributes ) {
      if( isField( row ) ) fields.push_back( &row );
   }
   // What stands before a field, and behind the last one.
   auto labelOf = [&]( size_t i ) -> std::string {
      if( i == fields.size() ) return "})";
      return std::string( i ? ", '" : "'" ) + fields[i]->name + "': ";
   };
   std::string label = labelOf( 0 );
   for( size_t i = 0; i < fields.size(); ) {
      if( !take( label ) ) return fail( '"' + label + '"' );
      const AttributeRow & row = *fields[i];
      label = labelOf( ++i );
      size_t end = fieldEnd( text, at, row.stored->isBare, label );
      void * field = const_cast< void * >( row.address( scratch.at ) );
      if( !row.stored->read( text.substr( at, end - at ), field ) ) {
         return fail( row.type->fullName );
      }
      at = end;
   }
   if( !take( label ) ) return fail( '"' + label + '"' );
   if( at != text.size() ) return fail( "end of text" );
   ops.destroy( value );
   ops.copy( value, scratch.at );
   return true;
}

// -- Enumerations -----------------------------------------------------------------------------

const char *
enumeratorName( const TypeDescriptor & type, int64_t value ) {
   for( const EnumeratorRow & row : type.enumerators ) {
      if( row.value == value ) return row.name;
   }
   return nullptr;
}

int64_t
enumeratorValue( const TypeDescriptor & type, std::string_view name ) {
   for( const EnumeratorRow & row : type.enumerators ) {
      if( name == row.name ) return row.value;
   }
   throwRangeException( "'" + std::string( name ) + "' is no enumerator of " + type.fullName );
}

int64_t
enumeratorValue( const TypeDescriptor & type, int64_t number ) {
   if( !enumeratorName( type, number ) ) {
      throwRangeException( std::to_string( number ) + " is no enumerator of " + type.fullName );
   }
   return number;
}

} // namespace Zek
