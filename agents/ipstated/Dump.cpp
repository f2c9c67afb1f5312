#include "agents/ipstated/Dump.h"

#include "agents/ipstated/Reflect.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstring>
#include <memory>
#include <set>
#include <stdexcept>
#include <type_traits>
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

/// Calls `use` with the address of the attribute's value, stored or computed.
template< class Use >
void
withValue( const void * object, const Zek::AttributeRow & row, Use use ) {
   if( row.address ) {
      use( row.address( object ) );
      return;
   }
   struct Free {
      const Zek::ValueOps & ops;
      void operator()( void * at ) const {
         ops.destroy( at );
         ::operator delete( at, std::align_val_t( ops.alignment ) );
      }
   };
   const Zek::ValueOps & ops = *row.stored;
   void * place = ::operator new( ops.size, std::align_val_t( ops.alignment ) );
   row.read( object, place );
   use( std::unique_ptr< void, Free >( place, Free{ ops } ).get() );
}

/// What the counted pointer at that address points to: every one is a pointer inside, to an object
/// that begins with its PtrInterface.
const Zek::PtrInterface *
pointeeOf( const void * pointer ) {
   const Zek::PtrInterface * object;
   std::memcpy( &object, pointer, sizeof object );
   return object;
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
         withValue( &record, *row, [&]( const void * value ) {
            std::string text;
            if( row->type->isCounted() ) {
               const Zek::PtrInterface * object = pointeeOf( value );
               text = object ? reference( *object ) : "null";
            } else {
               row->stored->append( value, text );
            }
            line( columns, std::string( row->name ) + " = " + text );
         } );
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
readNumber( const Zek::TypeDescriptor & type, const void * value, Json & out ) {
   return ( ( &type == &Zek::TypeOf< Numbers >::descriptor &&
              ( out = *static_cast< const Numbers * >( value ), true ) ) ||
            ... );
}

Json jsonOfRow( const void * object, const Zek::AttributeRow & row );

Json
jsonOf( const Zek::TypeDescriptor & type, const void * value ) {
   Json json;
   if( readNumber< bool, uint8_t, uint16_t, uint32_t, uint64_t, int8_t, int16_t, int32_t, int64_t,
                   double >( type, value, json ) ) {
      return json;
   }
   if( type.kind != Zek::TypeKind::value || type.attributes.empty() ) {
      std::string text;
      type.values->append( value, text );
      return unquoted( text );
   }
   for( const Zek::AttributeRow * field : rowsOf( type ) ) {
      if( field->address ) {
         json[field->name] = jsonOfRow( value, *field );
      }
   }
   return json;
}

/// Of an attribute or field that is no collection of a record.
Json
jsonOfRow( const void * object, const Zek::AttributeRow & row ) {
   Json json;
   withValue( object, row, [&]( const void * value ) {
      if( row.kind == Zek::AttributeKind::collection ) {
         std::string text; // a set inside a value
         row.stored->append( value, text );
         json = utf8( text );
      } else if( !row.type->isCounted() ) {
         json = jsonOf( *row.type, value );
      } else if( const Zek::PtrInterface * target = pointeeOf( value ) ) {
         json = utf8( reference( *target ) );
      }
   } );
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
         json[row->name] = jsonOfRow( &record, *row );
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
            members[key] = jsonOf( *row->type, value );
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
