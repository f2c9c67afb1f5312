#include "agents/ipstated/Dump.h"

#include "agents/ipstated/Reflect.h"

#include "framework/Generic.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <set>
#include <stdexcept>
#include <utility>
#include <vector>

namespace Ipstated {

namespace {

// -- What is shown ----------------------------------------------------------------------------

bool
isShown( const Zek::AttributeRow & row ) {
   switch( row.kind ) {
   case Zek::AttributeKind::constant:
   case Zek::AttributeKind::callable:
      return false;
   case Zek::AttributeKind::collection:
      return true;
   default:
      // Of what every entity has, the path and the type say all but the children.
      return !row.has( Zek::abortsOnRead ) && row.id > Zek::entityAttr;
   }
}

Zek::GenericValue
read( const Zek::GenericTarget & object, const Zek::AttributeRow & row ) {
   return object.type()->genericIf->genericIfAttributeOp( object, Zek::GenericOperation::read,
                                                          row.id );
}

/// How what is not owned is shown: its path, or its type when it stands in no tree.
std::string
reference( const Zek::PtrInterface & object ) {
   const auto entity = dynamic_cast< const Zek::Entity * >( &object );
   const std::string path = entity ? entity->fullName().toString() : std::string();
   const Zek::TypeDescriptor * type = object.fwkType();
   return !path.empty() ? path : "(" + std::string( type ? type->fullName : "object" ) + ")";
}

struct Member {
   const Zek::PtrInterface * object;
   std::string key; ///< its text form
   std::string name;
};

/// The members in the order of their keys.
std::vector< Member >
membersOf( const Zek::Entity & record, const Zek::AttributeRow & row ) {
   std::vector< Member > members;
   forEachMember( record, row, [&]( const Zek::PtrInterface & member, const void * key ) {
      std::string text;
      row.keyType->values->append( key, text );
      const bool isChild = row.id == Zek::entityAttr;
      members.push_back( { &member, text, isChild ? text : row.name + ( "[" + text + "]" ) } );
   } );
   if( !row.has( Zek::isOrdered ) ) {
      std::sort( members.begin(), members.end(),
                 []( const Member & a, const Member & b ) { return a.key < b.key; } );
   }
   return members;
}

// -- Text -------------------------------------------------------------------------------------

void
appendRecord( const Zek::Entity & record, const std::string & name, int columns,
              std::string & out ) {
   auto line = [&]( int indent, const std::string & text ) {
      out.append( size_t( indent ), ' ' ).append( printable( text ) ) += '\n';
   };
   const Zek::TypeDescriptor & type = *record.fwkType();
   line( columns, name.empty() ? type.fullName : name + "  " + type.fullName );
   columns += 3;
   for( const Zek::AttributeRow * row : rowsOf( type ) ) {
      if( !isShown( *row ) ) {
         continue;
      }
      if( !row->collection ) {
         const Zek::GenericValue value = read( record, *row );
         const std::string text = !value.isPointer() ? value.text()
                                  : value.object()   ? reference( *value.object() )
                                                     : "null";
         line( columns, std::string( row->name ) + " = " + text );
         continue;
      }
      for( const Member & member : membersOf( record, *row ) ) {
         const void * value = valueOf( *row, *member.object );
         if( row->has( Zek::ownsMembers ) ) {
            appendRecord( dynamic_cast< const Zek::Entity & >( *member.object ), member.name,
                          columns, out );
         } else if( row->has( Zek::refersToMembers ) ) {
            line( columns, member.name + " = " + reference( *member.object ) );
         } else if( value ) {
            std::string text;
            row->type->values->append( value, text );
            line( columns, member.name + " = " + text );
         } else {
            line( columns, member.name );
         }
      }
   }
}

// -- JSON -------------------------------------------------------------------------------------

/// JSON as text, two columns a level, members in the order in which they come.
class JsonText {
 public:
   void open( char bracket ) {
      begin();
      out_ += bracket;
      first_ = true;
      ++depth_;
   }
   void close( char bracket ) {
      --depth_;
      if( !first_ ) newLine();
      first_ = false;
      out_ += bracket;
   }
   void key( std::string_view name ) {
      begin();
      appendQuoted( name );
      out_ += ": ";
      named_ = true;
   }
   /// Of something else than UTF-8, the odd bytes are escaped.
   void string( std::string_view text ) {
      begin();
      appendQuoted( text );
   }
   /// What is written in JSON as it is.
   void plain( std::string_view text ) {
      begin();
      out_ += text;
   }
   std::string take() { return std::move( out_ ); }

 private:
   void newLine() { out_.append( 1, '\n' ).append( 2 * depth_, ' ' ); }
   /// What comes before a value: of a member its name has come already.
   void begin() {
      if( std::exchange( named_, false ) || depth_ == 0 ) return;
      if( !std::exchange( first_, false ) ) out_ += ',';
      newLine();
   }
   void appendQuoted( std::string_view text ) {
      const bool simple = std::all_of( text.begin(), text.end(), []( char each ) {
         return each >= 0x20 && each < 0x7f && each != '"' && each != '\\';
      } );
      if( simple ) {
         out_.append( 1, '"' ).append( text ).append( 1, '"' );
         return;
      }
      try {
         out_ += nlohmann::json( text ).dump();
      } catch( const nlohmann::json::type_error & ) {
         out_ += nlohmann::json( printable( text ) ).dump();
      }
   }

   std::string out_;
   size_t depth_ = 0;
   bool first_ = true;
   bool named_ = false;
};

/// The bytes that a text form stands for: some are quoted.
void
writeText( JsonText & json, const std::string & text ) {
   Zek::String bytes;
   json.string( Zek::readText( text, bytes ) ? bytes.view() : std::string_view( text ) );
}

void
writeKey( JsonText & json, const std::string & text ) {
   Zek::String bytes;
   json.key( Zek::readText( text, bytes ) ? bytes.view() : std::string_view( text ) );
}

bool
isNumber( const Zek::GenericValue & value ) {
   if( value.is< double >() ) {
      return std::isfinite( value.as< double >() ); // else no number of JSON's
   }
   return value.is< bool >() || value.is< uint8_t >() || value.is< uint16_t >() ||
          value.is< uint32_t >() || value.is< uint64_t >() || value.is< int8_t >() ||
          value.is< int16_t >() || value.is< int32_t >() || value.is< int64_t >();
}

void
writeValue( JsonText & json, const Zek::GenericValue & value ) {
   if( value.isPointer() ) {
      value.object() ? json.string( reference( *value.object() ) ) : json.plain( "null" );
      return;
   }
   if( isNumber( value ) ) {
      json.plain( value.is< double >() ? nlohmann::json( value.as< double >() ).dump()
                                       : value.text() );
      return;
   }
   const Zek::TypeDescriptor & type = *value.type();
   if( type.kind != Zek::TypeKind::value || type.attributes.empty() ) {
      writeText( json, value.text() );
      return;
   }
   json.open( '{' );
   for( const Zek::AttributeRow * field : rowsOf( type ) ) {
      if( !field->address ) {
         continue;
      }
      json.key( field->name );
      if( field->kind == Zek::AttributeKind::collection ) {
         json.open( '[' );
         for( auto i = type.genericIf->genericIfIterator( value, field->id ); i; ++i ) {
            writeValue( json, i.key() );
         }
         json.close( ']' );
      } else {
         writeValue( json, read( value, *field ) );
      }
   }
   json.close( '}' );
}

void writeRecord( JsonText & json, const Zek::Entity & record );

void
writeMember( JsonText & json, const Zek::AttributeRow & row, const Member & member ) {
   const void * value = valueOf( row, *member.object );
   if( row.has( Zek::ownsMembers ) ) {
      writeKey( json, member.key );
      writeRecord( json, dynamic_cast< const Zek::Entity & >( *member.object ) );
   } else if( row.has( Zek::refersToMembers ) ) {
      writeKey( json, member.key );
      json.string( reference( *member.object ) );
   } else if( value ) {
      writeKey( json, member.key );
      writeValue( json, Zek::GenericValue( *row.type, value ) );
   } else {
      writeText( json, member.key );
   }
}

void
writeRecord( JsonText & json, const Zek::Entity & record ) {
   const Zek::TypeDescriptor & type = *record.fwkType();
   json.open( '{' );
   json.key( "fullName" );
   json.string( record.fullName().toString() );
   json.key( "fwkType" );
   json.string( type.fullName );
   for( const Zek::AttributeRow * row : rowsOf( type ) ) {
      if( !isShown( *row ) ) {
         continue;
      }
      if( !row->collection ) {
         json.key( row->name );
         writeValue( json, read( record, *row ) );
         continue;
      }
      const std::vector< Member > members = membersOf( record, *row );
      if( row->id == Zek::entityAttr && members.empty() ) {
         continue; // most records have no children of the framework's own
      }
      json.key( row->name );
      json.open( row->has( Zek::isSet ) ? '[' : '{' );
      for( const Member & member : members ) {
         writeMember( json, *row, member );
      }
      json.close( row->has( Zek::isSet ) ? ']' : '}' );
   }
   json.close( '}' );
}

// -- Paths ------------------------------------------------------------------------------------

/// The record at `path` below `at`, or null; `nearest` becomes the last one found on the way.
const Zek::Entity *
follow( const Zek::Entity & at, std::string_view path, const Zek::Entity *& nearest ) {
   nearest = &at;
   if( path.empty() ) {
      return &at;
   }
   const Zek::Entity * found = nullptr;
   for( const Zek::AttributeRow * row : rowsOf( *at.fwkType() ) ) {
      if( !row->collection || !row->has( Zek::ownsMembers ) ) {
         continue;
      }
      forEachMember( at, *row, [&]( const Zek::PtrInterface & object, const void * key ) {
         const auto & member = dynamic_cast< const Zek::Entity & >( object );
         const Zek::Name name = member.name();
         const std::string step =
            name.view().empty() ? memberName( *row, key ) : std::string( name.view() );
         // A name may contain a slash.
         if( !found && path.starts_with( step ) &&
             ( path.size() == step.size() || path[step.size()] == '/' ) ) {
            found =
               follow( member, path.substr( std::min( path.size(), step.size() + 1 ) ), nearest );
         }
      } );
   }
   return found;
}

} // namespace

std::string
dumpText( const Zek::Entity & record ) {
   std::string out;
   appendRecord( record, record.fullName().toString(), 0, out );
   return out;
}

std::string
dumpJson( const Zek::Entity & record ) {
   JsonText json;
   writeRecord( json, record );
   return json.take() + "\n";
}

Zek::Entity::PtrConst
recordAt( const Zek::Entity & root, std::string_view path ) {
   const Zek::Entity * nearest = &root;
   if( const Zek::Entity * found = follow( root, path, nearest ) ) {
      return Zek::Entity::PtrConst( found );
   }
   const std::string above = nearest->fullName().toString();
   throw std::runtime_error( "no record '" + printable( path ) + "'; the nearest above it is " +
                             ( above.empty() ? "the root" : "'" + printable( above ) + "'" ) );
}

std::string
typeNames() {
   std::set< std::string > names;
   Zek::forEachType(
      []( const Zek::TypeDescriptor & type, void * context ) {
         if( type.isRecord ) {
            static_cast< std::set< std::string > * >( context )->insert( type.fullName );
         }
      },
      &names );
   std::string out;
   for( const std::string & name : names ) {
      out += name + "\n";
   }
   return out;
}

} // namespace Ipstated
