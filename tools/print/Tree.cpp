#include "tools/print/Tree.h"

#include "framework/inspect/Text.h"

#include <algorithm>
#include <memory>

namespace Print {

using namespace Zek::Inspect;

namespace {

/// A line of the tree, and what is below it.
struct Line {
   std::string name;
   std::string type;  // of a record
   std::string value; // of an attribute or member, behind " = "
   bool hasValue = false;
   std::vector< Line > below{};
};

Line
lineOf( std::string name, std::string value ) {
   return { std::move( name ), {}, lineValue( value ), true };
}

std::string
nameOf( const Zek::AttributeRow & row, const Zek::PtrInterface & member, const std::string & key ) {
   const std::string path = memberPath( "", row, &member, key );
   return path;
}

Line
recordLine( const Zek::PtrInterface & record, std::string name, const Extent & extent ) {
   const Zek::TypeDescriptor & type = *record.fwkType();
   Line line{ std::move( name ), type.fullName, {}, false };
   Extent below = extent;
   --below.depth;
   below.attributes.clear();
   for( const Zek::AttributeRow * row : shownRows( type, extent ) ) {
      if( row->kind != Zek::AttributeKind::collection ) {
         line.below.push_back( lineOf( row->name, textOf( read( record, *row ) ) ) );
         continue;
      }
      for( const Member & member : membersOf( record, *row ) ) {
         const std::string step = nameOf( *row, *member.object, member.key );
         const void * value = valueOf( *row, *member.object );
         if( row->has( Zek::ownsMembers ) ) {
            if( extent.depth > 0 ) {
               line.below.push_back( recordLine( *member.object, step, below ) );
            } else {
               line.below.push_back( { step, member.object->fwkType()->fullName, {}, false } );
            }
         } else if( row->has( Zek::refersToMembers ) ) {
            line.below.push_back( lineOf( step, pathOf( *member.object ) ) );
         } else if( value ) {
            line.below.push_back( lineOf( step, textOf( *row->type, value ) ) );
         } else {
            line.below.push_back( { step, {}, {}, false } );
         }
      }
   }
   return line;
}

/// The line itself; nothing of it may be obeyed by a terminal.
std::string
textOfLine( const Line & line, const Style & style ) {
   std::string out = style.name( printable( line.name ) );
   if( !line.type.empty() ) out += ( out.empty() ? "" : "  " ) + style.type( line.type );
   if( line.hasValue ) out += " = " + style.value( line.value );
   return out;
}

void
appendIndented( const Line & line, size_t columns, std::string & out ) {
   out.append( columns, ' ' ).append( textOfLine( line, Style() ) ) += '\n';
   for( const Line & below : line.below ) appendIndented( below, columns + 3, out );
}

void
appendJoined( const Line & line, const std::string & before, const Style & style,
              std::string & out ) {
   out += textOfLine( line, style ) + "\n";
   for( const Line & below : line.below ) {
      const bool isLast = &below == &line.below.back();
      out += before + style.frame( isLast ? "└─ " : "├─ " );
      appendJoined( below, before + style.frame( isLast ? "   " : "│  " ), style, out );
   }
}

std::string
titleOf( const Zek::PtrInterface & record ) {
   const auto entity = dynamic_cast< const Zek::Entity * >( &record );
   return entity ? pathOf( *entity ) : std::string();
}

} // namespace

std::string
lineValue( const std::string & text ) {
   const bool bare =
      std::all_of( text.begin(), text.end(), []( char c ) { return c >= 0x20 && c < 0x7f; } ) &&
      !text.starts_with( '"' ) && !text.starts_with( ' ' ) && !text.ends_with( ' ' );
   if( bare ) return text;
   std::string out = "\"";
   for( char c : text ) {
      if( c == '"' || c == '\\' ) out += '\\';
      out += c;
   }
   return printable( out + "\"" );
}

std::string
dumpText( const Zek::PtrInterface & record, const Extent & extent ) {
   std::string out;
   appendIndented( recordLine( record, titleOf( record ), extent ), 0, out );
   return out;
}

std::string
treeText( const Zek::PtrInterface & record, const Extent & extent, const Style & style ) {
   std::string out;
   appendJoined( recordLine( record, titleOf( record ), extent ), "", style, out );
   return out;
}

} // namespace Print
