#include "framework/Declaration.h"

#include "framework/DynamicParts.h"
#include "framework/DynamicTypes.h"
#include "framework/GenericValue.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstring>
#include <set>
#include <unordered_set>
#include <utility>

namespace Zek {

const Declaration::Attribute *
Declaration::attribute( std::string_view name ) const {
   for( const Attribute & a : attributes ) {
      if( a.name == name ) return &a;
   }
   return nullptr;
}

bool
isFrameworkType( std::string_view fullName ) {
   const TypeDescriptor * type = typeNode( fullName );
   return type && ( type->kind == TypeKind::scalar || type->kind == TypeKind::text ||
                    fullName == "Zek::Entity" || fullName == "Zek::Dir" );
}

// -- From descriptors -------------------------------------------------------------------------

namespace {

/// Calls `visit( word, text )` for each text of the notes.
template< class Visit >
void
forEachNote( const char * notes, Visit visit ) {
   while( notes && *notes ) {
      const std::string_view line( notes );
      const size_t blank = std::min( line.find( ' ' ), line.size() );
      visit( line.substr( 0, blank ), line.substr( std::min( blank + 1, line.size() ) ) );
      notes += line.size() + 1;
   }
}

uint32_t
numberOf( std::string_view digits ) {
   uint32_t number = 0;
   std::from_chars( digits.data(), digits.data() + digits.size(), number );
   return number;
}

/// What is said of the type, an attribute or an enumerator.
class NotesReader {
 public:
   explicit NotesReader( Declaration & out ) : out_( out ) {}

   void operator()( std::string_view word, std::string_view text ) {
      if( word == "attr" || word == "enumerator" ) {
         findSubject( word, text );
      } else if( attribute_ ) {
         ofAttribute( word, text );
      } else if( enumerator_ ) {
         if( word == "doc" ) enumerator_->comment = text;
      } else if( !isOther_ ) {
         ofType( word, text );
      }
   }

 private:
   void findSubject( std::string_view word, std::string_view text ) {
      attribute_ = nullptr;
      enumerator_ = nullptr;
      isOther_ = true;
      if( word == "attr" ) {
         for( auto & a : out_.attributes ) {
            if( a.id == numberOf( text ) ) attribute_ = &a;
         }
      } else {
         for( auto & e : out_.enumerators ) {
            if( e.name == text ) enumerator_ = &e;
         }
      }
   }
   void ofAttribute( std::string_view word, std::string_view text ) {
      Declaration::Attribute & a = *attribute_;
      const std::pair< const char *, std::string * > texts[] = {
         { "doc", &a.comment },     { "default", &a.initial }, { "max", &a.max },
         { "refused", &a.refusal }, { "through", &a.through }, { "becomes", &a.becomes },
      };
      for( auto & [known, at] : texts ) {
         if( word == known ) *at = text;
      }
      if( word == "name" ) a.isName = true;
   }
   void ofType( std::string_view word, std::string_view text ) {
      if( word == "doc" ) out_.comment = text;
      if( word == "hash" ) out_.hashIsSum = text == "sum";
      if( word == "compares" ) out_.comparedBy = text;
      if( word == "max" ) out_.maxBytes = numberOf( text );
      if( word == "refused" ) out_.refusal = text;
      const size_t blank = text.find( ' ' );
      if( word == "fixes" && blank != text.npos ) {
         out_.fixed.push_back(
            { std::string( text.substr( 0, blank ) ), std::string( text.substr( blank + 1 ) ) } );
      }
   }

   Declaration & out_;
   Declaration::Attribute * attribute_ = nullptr;
   Declaration::Enumerator * enumerator_ = nullptr;
   bool isOther_ = false; // of something that is not here
};

std::vector< Declaration::Parameter >
parametersOf( std::span< const ParameterRow > rows ) {
   std::vector< Declaration::Parameter > out;
   for( const ParameterRow & row : rows ) {
      out.push_back( { row.name, row.type->fullName, row.isPointer, row.isConst } );
   }
   return out;
}

/// The field of the values of a collection by which it is keyed.
std::string
keyFieldOf( const AttributeRow & row ) {
   if( !row.collection || !row.collection->hasValueKey() ) return {};
   const GenericValue value = GenericValue::zero( *row.type );
   const void * key = row.collection->valueKey( value.address() );
   for( const AttributeRow & field : row.type->attributes ) {
      if( field.isStored() && field.address( value.address() ) == key ) return field.name;
   }
   return {};
}

std::string
constantOf( const AttributeRow & row ) {
   GenericValue value = GenericValue::zero( *row.type );
   row.stored->destroy( value.address() );
   row.read( nullptr, value.address() );
   return value.text();
}

Declaration::Attribute
attributeOf( const AttributeRow & row ) {
   Declaration::Attribute out;
   out.name = row.name;
   out.id = row.id;
   out.kind = row.kind;
   out.flags = row.flags;
   if( row.type ) out.type = row.type->fullName;
   if( row.keyType ) out.keyType = row.keyType->fullName;
   out.keyField = keyFieldOf( row );
   if( row.kind == AttributeKind::constant ) out.value = constantOf( row );
   out.isStored = row.isStored();
   out.isWritable = row.isWritable();
   out.increments = row.counter && row.counter->hasIncrement();
   out.decrements = row.counter && row.counter->hasDecrement();
   out.parameters = parametersOf( row.parameters );
   return out;
}

} // namespace

Declaration
declarationOf( const TypeDescriptor & type ) {
   // Also of what could not be made here.
   if( isDynamic( type ) ) return static_cast< const DynamicType & >( type ).declared;
   Declaration out;
   out.fullName = type.fullName;
   out.kind = type.kind;
   out.isNamed = type.isNamed;
   out.hasNotifier = type.hasNotifier;
   out.hasAttrLog = type.hasAttrLog;
   out.isMade = type.isMade();
   if( type.base ) out.base = type.base->fullName;
   if( type.values ) {
      out.isOrdered = type.values->isOrdered();
      if( type.kind == TypeKind::opaque ) {
         out.isBare = type.values->isBare;
         out.wireSize = type.values->wireSize;
      }
   }
   for( const AttributeRow & row : type.attributes ) out.attributes.push_back( attributeOf( row ) );
   for( const EnumeratorRow & row : type.enumerators ) {
      out.enumerators.push_back( { row.name, row.value, {} } );
   }
   out.constructorParameters = parametersOf( type.constructorParameters );
   forEachNote( type.notes, NotesReader( out ) );
   return out;
}

Declarations
declarationsOf( const TypeDescriptor & type ) {
   std::vector< const TypeDescriptor * > found;
   std::unordered_set< const TypeDescriptor * > seen;
   auto wanted = [&]( const TypeDescriptor * named ) {
      if( named && seen.insert( named ).second && !isFrameworkType( named->fullName ) ) {
         found.push_back( named );
      }
   };
   wanted( &type );
   for( size_t i = 0; i < found.size(); ++i ) {
      const TypeDescriptor & at = *found[i];
      wanted( at.base );
      for( const ParameterRow & parameter : at.constructorParameters ) wanted( parameter.type );
      for( const AttributeRow & row : at.attributes ) {
         wanted( row.type );
         wanted( row.keyType );
         for( const ParameterRow & parameter : row.parameters ) wanted( parameter.type );
      }
   }
   Declarations out;
   for( const TypeDescriptor * at : found ) out.push_back( declarationOf( *at ) );
   return out;
}

// -- As bytes ---------------------------------------------------------------------------------

namespace {

/// One description of the form for both directions: `Io` is a Writer or a Reader.
template< class Io, class P >
bool
parameters( Io & io, P & list ) {
   return io.list( list, 11, io.limits.attributes, [&]( auto & p ) {
      return io.name( p.name ) && io.name( p.type ) && io.flags( { &p.isPointer, &p.isConst } );
   } );
}

template< class Io, class A >
bool
attribute( Io & io, A & a ) {
   return io.name( a.name ) && io.number( a.id ) && io.number( a.kind ) && io.number( a.flags ) &&
          io.text( a.type ) && io.text( a.keyType ) && io.text( a.keyField ) &&
          io.text( a.value ) && io.text( a.initial ) && io.text( a.max ) && io.text( a.refusal ) &&
          io.text( a.through ) && io.text( a.becomes ) && io.text( a.comment ) &&
          io.flags( { &a.isStored, &a.isWritable, &a.increments, &a.decrements, &a.isName } ) &&
          parameters( io, a.parameters );
}

template< class Io, class D >
bool
declaration( Io & io, D & d ) {
   return io.name( d.fullName ) && io.number( d.kind ) &&
          io.flags( { &d.isNamed, &d.hasNotifier, &d.hasAttrLog, &d.isMade, &d.isOrdered,
                      &d.hashIsSum, &d.isBare } ) &&
          io.number( d.wireSize ) && io.number( d.maxBytes ) && io.text( d.refusal ) &&
          io.text( d.base ) && io.text( d.comparedBy ) && io.text( d.comment ) &&
          io.list( d.fixed, 9, io.limits.attributes,
                   [&]( auto & f ) { return io.name( f.parameter ) && io.text( f.value ); } ) &&
          io.list( d.attributes, 55, io.limits.attributes,
                   [&]( auto & a ) { return attribute( io, a ); } ) &&
          io.list( d.enumerators, 17, io.limits.enumerators,
                   [&]( auto & e ) {
                      return io.name( e.name ) && io.number( e.value ) && io.text( e.comment );
                   } ) &&
          parameters( io, d.constructorParameters );
}

struct Writer {
   Wire::Encoder & out;
   DeclarationLimits limits = {};

   template< class T >
   bool number( T value ) {
      if constexpr( std::is_enum_v< T > ) {
         out.u8( static_cast< uint8_t >( value ) );
      } else {
         out.number( static_cast< std::make_unsigned_t< T > >( value ) );
      }
      return true;
   }
   bool text( const std::string & value ) {
      out.text( value );
      return true;
   }
   bool name( const std::string & value ) { return text( value ); }
   bool flags( std::initializer_list< const bool * > bits ) {
      uint8_t byte = 0, bit = 1;
      for( const bool * set : bits ) {
         if( *set ) byte |= bit;
         bit = static_cast< uint8_t >( bit << 1 );
      }
      out.u8( byte );
      return true;
   }
   template< class List, class Each >
   bool list( const List & values, size_t, uint32_t, Each each ) {
      out.u32( static_cast< uint32_t >( values.size() ) );
      for( auto & value : values ) each( value );
      return true;
   }
};

struct Reader {
   Wire::Decoder & in;
   const DeclarationLimits & limits;

   template< class T >
   bool number( T & value ) {
      if constexpr( std::is_same_v< T, AttributeKind > ) {
         return kind( value, AttributeKind::callable );
      } else if constexpr( std::is_same_v< T, TypeKind > ) {
         return kind( value, TypeKind::stateMachine );
      } else {
         std::make_unsigned_t< T > read = 0;
         if( !in.number( read, "a number" ) ) return false;
         value = static_cast< T >( read );
         return true;
      }
   }
   template< class E >
   bool kind( E & value, E last ) {
      uint8_t byte = 0;
      if( !in.u8( byte ) ) return false;
      if( byte > static_cast< uint8_t >( last ) ) return in.fail( "a kind" );
      value = static_cast< E >( byte );
      return true;
   }
   bool text( std::string & value ) {
      std::string_view read;
      if( !in.text( read ) ) return false;
      // Names end there for those who take them as C strings.
      if( read.find( '\0' ) != read.npos ) return in.fail( "a text without zero bytes" );
      value = read;
      return true;
   }
   /// One that can be written in a schema, so that it can be shown anywhere.
   bool name( std::string & value ) {
      if( !text( value ) ) return false;
      const auto good = []( unsigned char c ) {
         return std::isalnum( c ) || c == '_' || c == ':' || c == '=' || c == '+' || c == '-';
      };
      if( value.empty() || value.size() > limits.nameBytes ||
          !std::all_of( value.begin(), value.end(), good ) ) {
         return in.fail( "a name" );
      }
      return true;
   }
   bool flags( std::initializer_list< bool * > bits ) {
      uint8_t byte = 0;
      if( !in.u8( byte ) ) return false;
      if( byte >> bits.size() ) return in.fail( "known flags" );
      for( bool * set : bits ) {
         *set = byte & 1;
         byte >>= 1;
      }
      return true;
   }
   /// `least`: bytes that each takes, so that a count alone makes no room.
   template< class List, class Each >
   bool list( List & values, size_t least, uint32_t most, Each each ) {
      uint32_t count = 0;
      if( !in.u32( count, "a count" ) ) return false;
      if( count > most || count > in.left() / least ) {
         return in.fail( "a count within its bounds" );
      }
      values.resize( count );
      for( auto & value : values ) {
         if( !each( value ) ) return false;
      }
      return true;
   }
};

/// What any declaration keeps to, whoever wrote it.
const char *
problemOf( const Declaration & d ) {
   std::set< std::string_view > names;
   uint32_t next = d.attributes.empty() ? 0 : d.attributes.front().id;
   for( const auto & a : d.attributes ) {
      if( a.id != next++ || a.id <= entityAttr || a.id == UINT16_MAX ) {
         return "attributes numbered without a gap";
      }
      // Operations may be overloaded.
      if( a.kind != AttributeKind::callable && !names.insert( a.name ).second ) {
         return "attributes of different names";
      }
      if( a.type.empty() && a.kind != AttributeKind::callable ) return "an attribute's type";
      if( a.keyType.empty() == ( a.kind == AttributeKind::collection ) ) {
         return "a key's type, of collections alone";
      }
      if( !a.parameters.empty() && a.kind != AttributeKind::callable ) {
         return "parameters of operations alone";
      }
   }
   std::set< std::string_view > enumerators;
   std::set< int64_t > numbers;
   for( const auto & e : d.enumerators ) {
      if( !enumerators.insert( e.name ).second ) return "enumerators of different names";
      if( !numbers.insert( e.value ).second ) return "enumerators of different numbers";
      if( e.value != static_cast< int32_t >( e.value ) ) return "enumerators of 32 bits";
   }
   std::set< std::string_view > parameters;
   for( const auto & p : d.constructorParameters ) {
      if( !parameters.insert( p.name ).second ) return "parameters of different names";
   }
   if( !d.enumerators.empty() && d.kind != TypeKind::enumeration ) {
      return "enumerators of enumerations alone";
   }
   if( d.kind == TypeKind::scalar || d.kind == TypeKind::text ) return "a type of one's own";
   return nullptr;
}

} // namespace

void
encode( const Declarations & declarations, Wire::Encoder & out ) {
   Writer io{ out };
   io.list( declarations, 0, 0, [&]( auto & d ) { return declaration( io, d ); } );
}

bool
decode( Wire::Decoder & in, Declarations & declarations, const DeclarationLimits & limits ) {
   Reader io{ in, limits };
   std::set< std::string > names;
   const bool read = io.list( declarations, 44, limits.types, [&]( Declaration & d ) {
      if( !declaration( io, d ) ) return false;
      if( const char * problem = problemOf( d ) ) return in.fail( problem );
      return names.insert( d.fullName ).second || in.fail( "types of different names" );
   } );
   if( !read ) declarations.clear();
   return read;
}

} // namespace Zek
