#include "typelang/Format.h"

#include <algorithm>
#include <vector>

namespace Zek::TypeLang {

namespace {

// A line without its indentation: what is code, with single blanks between words, and the comment
// behind it.
struct Line {
   std::string code;
   std::string comment;
   int depth = 0;            // of the braces around it
   bool isContinued = false; // inside parentheses that an earlier line opened
   size_t continuation = 0;  // columns by which it stood further right than that line
   size_t body = 0;          // which braces it stands directly in
   bool isEmpty() const { return code.empty() && comment.empty(); }
};

bool
isBlank( char c ) {
   return c == ' ' || c == '\t' || c == '\r';
}

size_t
columnsBefore( std::string_view text ) {
   size_t columns = 0;
   for( char c : text ) {
      if( !isBlank( c ) ) break;
      columns += c == '\t' ? 8 - columns % 8 : c == ' ';
   }
   return columns;
}

// Parts code from comment; strings stay as they are.
Line
split( std::string_view text ) {
   Line line;
   bool inString = false, blank = false;
   for( size_t i = 0; i < text.size(); ++i ) {
      const char c = text[i];
      if( !inString && text.substr( i, 2 ) == "//" ) {
         line.comment = text.substr( i );
         break;
      }
      if( !inString && isBlank( c ) ) {
         blank = true;
         continue;
      }
      if( blank && !line.code.empty() ) line.code += ' ';
      blank = false;
      line.code += c;
      if( inString && c == '\\' && i + 1 < text.size() ) {
         line.code += text[++i];
      } else if( c == '"' ) {
         inString = !inString;
      }
   }
   for( std::string * part : { &line.code, &line.comment } ) {
      while( !part->empty() && isBlank( part->back() ) ) part->pop_back();
   }
   return line;
}

// How far the code opens braces or parentheses, or closes them where that is negative; outside of
// strings.
int
opened( const std::string & code, char open, char close ) {
   int depth = 0;
   bool inString = false;
   for( size_t i = 0; i < code.size(); ++i ) {
      if( inString && code[i] == '\\' ) {
         ++i;
      } else if( code[i] == '"' ) {
         inString = !inString;
      } else if( !inString ) {
         depth += ( code[i] == open ) - ( code[i] == close );
      }
   }
   return depth;
}

bool
isOneOf( std::string_view word, std::initializer_list< std::string_view > words ) {
   return std::find( words.begin(), words.end(), word ) != words.end();
}

std::string_view
firstWord( std::string_view code ) {
   return code.substr( 0, code.find( ' ' ) );
}

// Lines of a type whose first word has a column of its own, and those whose name has one, too.
bool
hasWord( const Line & line ) {
   const std::string_view word = firstWord( line.code );
   return word.size() < line.code.size() && !line.isContinued && line.depth > 0 &&
          ( isOneOf( word, { "call", "ask", "named", "one", "each" } ) ||
            isOneOf( word, { "key", "param", "attr", "field", "const", "derived", "counter",
                             "ordered", "hashed", "set", "owns", "refs" } ) );
}

bool
hasName( const Line & line ) {
   return hasWord( line ) &&
          !isOneOf( firstWord( line.code ), { "call", "ask", "named", "one", "each" } );
}

// A reaction: what happens, and behind the arrow what is done then.
size_t
arrowOf( const Line & line ) {
   const bool reacts =
      line.depth > 1 && isOneOf( firstWord( line.code ), { "on", "start", "retarget", "gone" } );
   return reacts ? line.code.find( " -> " ) : std::string::npos;
}

void
pad( std::string & code, size_t at, size_t width ) {
   if( at < width ) code.insert( at, width - at, ' ' );
}

// Puts the columns of the lines that stand directly in the same braces below each other.
void
align( std::vector< Line > & lines, size_t body ) {
   size_t words = 0, names = 0, arrows = 0;
   auto each = [&]( auto work ) {
      for( Line & line : lines ) {
         if( line.body == body ) work( line );
      }
   };
   auto nameAt = []( const Line & line ) { return firstWord( line.code ).size() + 1; };
   each( [&]( const Line & line ) {
      if( hasWord( line ) ) words = std::max( words, nameAt( line ) );
      if( hasName( line ) ) {
         const size_t end = line.code.find( ' ', nameAt( line ) );
         if( end != std::string::npos ) names = std::max( names, end - nameAt( line ) + 1 );
      }
      if( arrowOf( line ) != std::string::npos ) arrows = std::max( arrows, arrowOf( line ) + 1 );
   } );
   each( [&]( Line & line ) {
      if( hasWord( line ) ) {
         const size_t at = nameAt( line );
         const size_t end = hasName( line ) ? line.code.find( ' ', at ) : std::string::npos;
         if( end != std::string::npos ) pad( line.code, end + 1, at + names );
         pad( line.code, at, words );
      } else if( arrowOf( line ) != std::string::npos ) {
         pad( line.code, arrowOf( line ) + 1, arrows );
      }
   } );
}

} // namespace

std::string
formatted( std::string_view text ) {
   std::vector< Line > lines;
   std::vector< size_t > bodies{ 0 };
   size_t lastBody = 0, statement = 0;
   int parentheses = 0;
   while( !text.empty() ) {
      const size_t end = std::min( text.find( '\n' ), text.size() );
      const std::string_view whole = text.substr( 0, end );
      text.remove_prefix( std::min( end + 1, text.size() ) );
      Line line = split( whole );
      line.isContinued = parentheses > 0;
      if( line.isContinued ) {
         const size_t column = columnsBefore( whole );
         line.continuation = column > statement ? column - statement : 0;
      } else {
         statement = columnsBefore( whole );
      }
      const bool closes = line.code.starts_with( '}' );
      line.depth = std::max( static_cast< int >( bodies.size() ) - 1 - closes, 0 );
      line.body = closes ? 0 : bodies.back();
      parentheses = std::max( parentheses + opened( line.code, '(', ')' ), 0 );
      for( int braces = opened( line.code, '{', '}' ); braces != 0; ) {
         if( braces > 0 ) {
            bodies.push_back( ++lastBody );
            --braces;
         } else {
            if( bodies.size() > 1 ) bodies.pop_back();
            ++braces;
         }
      }
      // No empty line at either end of a body or of the file, never two.
      const bool follows =
         !lines.empty() && !lines.back().isEmpty() && !lines.back().code.ends_with( '{' );
      if( line.isEmpty() && !follows ) continue;
      if( closes && !lines.empty() && lines.back().isEmpty() ) lines.pop_back();
      lines.push_back( std::move( line ) );
   }
   while( !lines.empty() && lines.back().isEmpty() ) lines.pop_back();

   for( size_t body = 1; body <= lastBody; ++body ) align( lines, body );
   std::string out;
   for( const Line & line : lines ) {
      if( !line.isEmpty() ) {
         out.append( 3 * static_cast< size_t >( line.depth ) + line.continuation, ' ' );
      }
      out += line.code;
      if( !line.code.empty() && !line.comment.empty() ) out += ' ';
      out += line.comment + "\n";
   }
   return out;
}

} // namespace Zek::TypeLang
