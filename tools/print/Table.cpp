#include "tools/print/Table.h"

#include "framework/inspect/Text.h"
#include "tools/print/Tree.h"

#include <algorithm>
#include <map>
#include <set>

namespace Print {

using namespace Zek::Inspect;

namespace {

/// What a record of the type says before anything is written to it; empty where none can be made.
std::string
freshCell( const Zek::TypeDescriptor & type, const Zek::AttributeRow & row ) {
   if( row.kind == Zek::AttributeKind::collection ) return "";
   if( row.type->isCounted() ) return "null";
   if( !row.type->values ) return "";
   std::vector< Zek::GenericValue > arguments;
   for( const Zek::ParameterRow & each : type.constructorParameters ) {
      if( each.isPointer ) {
         arguments.emplace_back( static_cast< Zek::PtrInterface * >( nullptr ), each.type );
      } else {
         arguments.push_back( Zek::GenericValue::zero( *each.type ) );
      }
   }
   try {
      const Zek::GenericValue fresh = type.genericIf->genericIfFromCtorArgs( arguments );
      return cellOf( *fresh.object(), row );
   } catch( const Zek::Exception & ) {
      return "";
   }
}

std::string
lastStep( const Place & place ) {
   const std::vector< Step > steps = Path( place.path ).steps();
   if( steps.empty() ) return "";
   const Step & last = steps.back();
   if( last.pick == Step::Pick::one ) return last.key;
   // A name with dots is read as several steps.
   const auto entity = place.entity();
   return entity && !entity->name().empty() ? std::string( entity->name().view() ) : last.name;
}

} // namespace

void
Table::add( Row cells ) {
   for( std::string & cell : cells ) cell = lineValue( cell );
   rows_.push_back( std::move( cells ) );
}

std::string
Table::text( const Style & style ) const {
   std::vector< size_t > widths;
   for( const std::string & heading : headings_ ) widths.push_back( heading.size() );
   for( const Row & row : rows_ ) {
      for( size_t i = 0; i < row.size(); ++i ) widths[i] = std::max( widths[i], row[i].size() );
   }
   std::string out;
   auto line = [&]( const Row & cells, bool isHeading ) {
      size_t last = cells.size();
      while( last > 1 && cells[last - 1].empty() ) --last;
      for( size_t i = 0; i < last; ++i ) {
         out += isHeading ? style.heading( cells[i] ) : i ? cells[i] : style.name( cells[i] );
         if( i + 1 < last ) out.append( widths[i] - cells[i].size() + 2, ' ' );
      }
      out += '\n';
   };
   line( headings_, true );
   for( const Row & row : rows_ ) line( row, false );
   return out;
}

std::string
cellOf( const Zek::PtrInterface & record, const Zek::AttributeRow & row ) {
   if( row.kind != Zek::AttributeKind::collection ) return textOf( read( record, row ) );
   std::string cell;
   for( const Member & member : membersOf( record, row ) ) {
      if( !cell.empty() ) cell += ", ";
      const void * value = valueOf( row, *member.object );
      if( !value || row.has( Zek::keyIsField ) || holdsRecords( row ) ) {
         cell += value && row.has( Zek::keyIsField ) ? textOf( *row.type, value ) : member.key;
         continue;
      }
      const std::string text = textOf( *row.type, value );
      cell += member.key + ( text == "true" ? "" : "=" + text );
   }
   return cell;
}

std::string
cellOf( const Place & place ) {
   if( place.kind == Place::Kind::collection ) return cellOf( *place.object, *place.row );
   const Zek::AttributeRow * set = nullptr;
   const Zek::GenericValue value = valueAt( place, &set );
   return set ? textOfSet( value, *set ) : textOf( value );
}

Table
tableOf( const std::vector< Place > & records, const Extent & extent ) {
   // Members may be of several types; a column is an attribute's name.
   std::vector< std::string > names;
   std::set< std::string > wanted;
   std::map< const Zek::TypeDescriptor *,
             std::vector< std::pair< const Zek::AttributeRow *, std::string > > >
      types;
   for( const Place & place : records ) {
      auto [at, isNew] = types.try_emplace( &place.type() );
      if( !isNew ) continue;
      for( const Zek::AttributeRow * row : shownRows( place.type(), extent ) ) {
         at->second.emplace_back( row, freshCell( place.type(), *row ) );
         if( std::find( names.begin(), names.end(), row->name ) == names.end() ) {
            names.push_back( row->name );
         }
         if( !extent.attributes.empty() ) wanted.insert( row->name );
      }
   }
   std::vector< std::map< std::string, std::string > > cells;
   for( const Place & place : records ) {
      std::map< std::string, std::string > & row = cells.emplace_back();
      for( const auto & [attribute, fresh] : types[&place.type()] ) {
         std::string cell = cellOf( *place.object, *attribute );
         // What the record is found under stands in the first column anyway.
         const bool isKey = attribute->has( Zek::isKey );
         if( cell != fresh && ( !isKey || !extent.attributes.empty() ) ) {
            wanted.insert( attribute->name );
         }
         row[attribute->name] = std::move( cell );
      }
   }
   std::erase_if( names, [&]( const std::string & name ) { return !wanted.contains( name ); } );
   Table::Row headings{ "NAME" };
   headings.insert( headings.end(), names.begin(), names.end() );
   Table table( headings );
   for( size_t i = 0; i < records.size(); ++i ) {
      Table::Row row{ lastStep( records[i] ) };
      for( const std::string & name : names ) {
         const auto found = cells[i].find( name );
         row.push_back( found == cells[i].end() ? "" : found->second );
      }
      table.add( std::move( row ) );
   }
   return table;
}

} // namespace Print
