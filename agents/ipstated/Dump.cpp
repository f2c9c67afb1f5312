#include "agents/ipstated/Dump.h"

#include "agents/ipstated/Reflect.h"

#include "framework/Generic.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <set>
#include <stdexcept>
#include <vector>

namespace Ipstated {

namespace {

using Json = nlohmann::ordered_json;

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

/// The text if it is UTF-8, else with its odd bytes escaped.
std::string
utf8( const std::string & text ) {
   try {
      (void)Json( text ).dump();
      return text;
   } catch( const Json::type_error & ) {
      return printable( text );
   }
}

/// The bytes that a text form stands for: some are quoted.
std::string
unquoted( const std::string & text ) {
   Zek::String bytes;
   return utf8( Zek::readText( text, bytes ) ? std::string( bytes.view() ) : text );
}

template< class... Numbers >
bool
readNumber( const Zek::GenericValue & value, Json & out ) {
   return ( ( value.is< Numbers >() && ( out = value.as< Numbers >(), true ) ) || ... );
}

Json
jsonOf( const Zek::GenericValue & value ) {
   Json json;
   if( value.isPointer() ) {
      return value.object() ? Json( utf8( reference( *value.object() ) ) ) : json;
   }
   if( value.is< double >() && !std::isfinite( value.as< double >() ) ) {
      return value.text(); // no number of JSON's
   }
   if( readNumber< bool, uint8_t, uint16_t, uint32_t, uint64_t, int8_t, int16_t, int32_t, int64_t,
                   double >( value, json ) ) {
      return json;
   }
   const Zek::TypeDescriptor & type = *value.type();
   if( type.kind != Zek::TypeKind::value || type.attributes.empty() ) {
      return unquoted( value.text() );
   }
   for( const Zek::AttributeRow * field : rowsOf( type ) ) {
      if( !field->address ) {
         continue;
      }
      if( field->kind == Zek::AttributeKind::collection ) {
         Json & members = json[field->name] = Json::array();
         for( auto i = type.genericIf->genericIfIterator( value, field->id ); i; ++i ) {
            members.push_back( jsonOf( i.key() ) );
         }
      } else {
         json[field->name] = jsonOf( read( value, *field ) );
      }
   }
   return json;
}

Json
jsonOf( const Zek::Entity & record ) {
   const Zek::TypeDescriptor & type = *record.fwkType();
   Json json{ { "fullName", utf8( record.fullName().toString() ) }, { "fwkType", type.fullName } };
   for( const Zek::AttributeRow * row : rowsOf( type ) ) {
      if( !isShown( *row ) ) {
         continue;
      }
      if( !row->collection ) {
         json[row->name] = jsonOf( read( record, *row ) );
         continue;
      }
      Json members = row->has( Zek::isSet ) ? Json::array() : Json::object();
      for( const Member & member : membersOf( record, *row ) ) {
         const std::string key = unquoted( member.key );
         const void * value = valueOf( *row, *member.object );
         if( row->has( Zek::ownsMembers ) ) {
            members[key] = jsonOf( dynamic_cast< const Zek::Entity & >( *member.object ) );
         } else if( row->has( Zek::refersToMembers ) ) {
            members[key] = utf8( reference( *member.object ) );
         } else if( value ) {
            members[key] = jsonOf( Zek::GenericValue( *row->type, value ) );
         } else {
            members.push_back( key );
         }
      }
      // Most records have no children of the framework's own.
      if( row->id != Zek::entityAttr || !members.empty() ) {
         json[row->name] = std::move( members );
      }
   }
   return json;
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
   return jsonOf( record ).dump( 2 ) + "\n";
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
