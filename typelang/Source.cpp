#include "typelang/Source.h"

#include <algorithm>

namespace Zek::TypeLang {

SourceFile::Position
SourceFile::position( uint32_t offset ) const {
   std::string_view before = std::string_view( text ).substr( 0, offset );
   size_t start = before.rfind( '\n' );
   start = start == std::string_view::npos ? 0 : start + 1;
   return { static_cast< uint32_t >( std::count( before.begin(), before.end(), '\n' ) + 1 ),
            static_cast< uint32_t >( offset - start + 1 ) };
}

std::string_view
SourceFile::lineAt( uint32_t offset ) const {
   std::string_view all( text );
   offset = std::min( offset, static_cast< uint32_t >( all.size() ) );
   size_t start = offset == 0 ? std::string_view::npos : all.rfind( '\n', offset - 1 );
   start = start == std::string_view::npos ? 0 : start + 1;
   return all.substr( start, all.find( '\n', start ) - start );
}

void
Errors::error( const Span & where, const std::string & message ) {
   ++count_;
   if( !where.file ) {
      text_ += "zekc: error: " + message + "\n";
      return;
   }
   SourceFile::Position at = where.file->position( where.begin );
   text_ += where.file->path + ":" + std::to_string( at.line ) + ":" + std::to_string( at.column ) +
            ": error: " + message + "\n";
   std::string line( where.file->lineAt( where.begin ) );
   std::string marks;
   for( uint32_t i = 1; i < at.column; ++i )
      marks += i <= line.size() && line[i - 1] == '\t' ? '\t' : ' ';
   size_t width = where.end > where.begin ? where.end - where.begin : 1;
   width = std::min( width, line.size() + 2 - std::min< size_t >( line.size() + 1, at.column ) );
   marks += '^';
   if( width > 1 ) marks.append( width - 1, '~' );
   text_ += "   " + line + "\n   " + marks + "\n";
}

} // namespace Zek::TypeLang
