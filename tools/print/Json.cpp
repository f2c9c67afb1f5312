#include "tools/print/Json.h"

#include "framework/inspect/Text.h"

#include <nlohmann/json.hpp>

#include <cmath>

namespace Print {

using namespace Zek::Inspect;

namespace {

/// The bytes that a text form stands for: some are quoted.
void
writeText( JsonText & json, const std::string & text, bool isKey = false ) {
   Zek::String bytes;
   const std::string_view view = Zek::readText( text, bytes ) ? bytes.view() : text;
   isKey ? json.key( view ) : json.string( view );
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
writeSet( JsonText & json, const Zek::GenericValue & value, const Zek::AttributeRow & set ) {
   json.open( '[' );
   for( auto i = value.type()->genericIf->genericIfIterator( value, set.id ); i; ++i ) {
      writeJson( json, i.key() );
   }
   json.close( ']' );
}

void
writeMember( JsonText & json, const Zek::AttributeRow & row, const Member & member,
             const Extent & extent ) {
   const void * value = valueOf( row, *member.object );
   if( row.has( Zek::isSet ) ) {
      writeText( json, member.key );
      return;
   }
   writeText( json, member.key, true );
   if( value ) {
      writeJson( json, Zek::GenericValue( *row.type, value ) );
   } else if( row.has( Zek::ownsMembers ) && extent.depth > 0 ) {
      Extent below;
      below.depth = extent.depth - 1;
      writeJson( json, *member.object, below );
   } else {
      json.string( pathOf( *member.object ) );
   }
}

void
writeCollection( JsonText & json, const Zek::PtrInterface & record, const Zek::AttributeRow & row,
                 const Extent & extent ) {
   json.open( row.has( Zek::isSet ) ? '[' : '{' );
   for( const Member & member : membersOf( record, row ) ) {
      writeMember( json, row, member, extent );
   }
   json.close( row.has( Zek::isSet ) ? ']' : '}' );
}

/// Children stand among the attributes, by their names.
void
writeChildren( JsonText & json, const Zek::PtrInterface & record, const Zek::AttributeRow & row,
               const Extent & extent ) {
   for( Member & child : membersOf( record, row ) ) {
      Zek::String name;
      if( !Zek::readText( child.key, name ) ) name = Zek::String( child.key );
      if( record.fwkType()->attribute( name.view() ) || name.view() == "fwkType" ) {
         child.key = "entity[" + name.toString() + "]";
      }
      writeMember( json, row, child, extent );
   }
}

} // namespace

std::vector< const Zek::AttributeRow * >
shownRows( const Zek::TypeDescriptor & type, const Extent & extent ) {
   std::vector< const Zek::AttributeRow * > rows;
   if( extent.attributes.empty() ) {
      for( const Zek::AttributeRow * row : rowsOf( type ) ) {
         if( isShown( *row ) ) rows.push_back( row );
      }
      return rows;
   }
   for( const std::string & name : extent.attributes ) {
      const Zek::AttributeRow * row = type.attribute( name );
      if( !row || row->kind == Zek::AttributeKind::callable || row->has( Zek::abortsOnRead ) ) {
         std::vector< std::string > names;
         for( const Zek::AttributeRow * each : rowsOf( type ) ) names.push_back( each->name );
         const std::string near = nearest( name, names );
         throw NotFoundException( "no attribute '" + printable( name ) + "' in " + type.fullName +
                                  ( near.empty() ? "" : "; the nearest is '" + near + "'" ) );
      }
      rows.push_back( row );
   }
   return rows;
}

void
writeJson( JsonText & json, const Zek::GenericValue & value ) {
   if( value.isNothing() || ( value.isPointer() && !value.object() ) ) {
      json.plain( "null" );
      return;
   }
   if( value.isPointer() ) {
      json.string( pathOf( *value.object() ) );
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
      if( !field->isStored() ) continue;
      json.key( field->name );
      if( field->kind == Zek::AttributeKind::collection ) {
         writeSet( json, value, *field );
      } else {
         writeJson( json, read( value, *field ) );
      }
   }
   json.close( '}' );
}

void
writeJson( JsonText & json, const Zek::PtrInterface & record, const Extent & extent ) {
   const auto entity = dynamic_cast< const Zek::Entity * >( &record );
   json.open( '{' );
   json.member( "fullName", entity ? pathOf( *entity ) : "" );
   json.member( "fwkType", record.fwkType()->fullName );
   for( const Zek::AttributeRow * row : shownRows( *record.fwkType(), extent ) ) {
      if( row->kind != Zek::AttributeKind::collection ) {
         json.key( row->name );
         writeJson( json, read( record, *row ) );
      } else if( row->id == Zek::entityAttr ) {
         writeChildren( json, record, *row, extent );
      } else {
         json.key( row->name );
         writeCollection( json, record, *row, extent );
      }
   }
   json.close( '}' );
}

void
writeJson( JsonText & json, const Place & place, const Extent & extent ) {
   if( place.kind == Place::Kind::record ) {
      writeJson( json, *place.object, extent );
   } else if( place.kind == Place::Kind::collection ) {
      writeCollection( json, *place.object, *place.row, extent );
   } else {
      const Zek::AttributeRow * set = nullptr;
      const Zek::GenericValue value = valueAt( place, &set );
      set ? writeSet( json, value, *set ) : writeJson( json, value );
   }
}

std::string
jsonOf( const Zek::PtrInterface & record ) {
   JsonText json( false );
   writeJson( json, record );
   return json.take() + "\n";
}

} // namespace Print
