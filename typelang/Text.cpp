#include "typelang/Text.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>

namespace Zek::TypeLang {

std::string
fill( std::string_view text, const Holes & holes ) {
   std::string out;
   size_t at = 0;
   while( at < text.size() ) {
      size_t open = text.find( '$', at );
      if( open == std::string_view::npos ) {
         out += text.substr( at );
         break;
      }
      size_t close = text.find( '$', open + 1 );
      auto hole = close == std::string_view::npos
                     ? holes.end()
                     : holes.find( std::string( text.substr( open + 1, close - open - 1 ) ) );
      if( hole == holes.end() ) {
         std::fprintf( stderr, "zekc: internal error: no value for the hole at '%.40s'\n",
                       std::string( text.substr( open ) ).c_str() );
         std::abort();
      }
      out += text.substr( at, open - at );
      out += hole->second;
      at = close + 1;
      bool alone = ( open == 0 || text[open - 1] == '\n' ) && at < text.size() && text[at] == '\n';
      if( alone && ( hole->second.empty() || hole->second.back() == '\n' ) ) ++at;
   }
   return out;
}

std::string
indented( std::string_view text, int columns ) {
   std::string out;
   size_t at = 0;
   while( at < text.size() ) {
      size_t end = text.find( '\n', at );
      if( end == std::string_view::npos ) end = text.size();
      if( end > at && text[at] != '#' ) out.append( static_cast< size_t >( columns ), ' ' );
      out += text.substr( at, end - at );
      out += '\n';
      at = end + 1;
   }
   return out;
}

std::string
capitalised( std::string_view name ) {
   std::string out( name );
   if( !out.empty() ) out[0] = static_cast< char >( std::toupper( out[0] ) );
   return out;
}

std::string
uncapitalised( std::string_view name ) {
   std::string out( name );
   if( !out.empty() ) out[0] = static_cast< char >( std::tolower( out[0] ) );
   return out;
}

std::string
docComment( const std::string & doc, int columns ) {
   return comment( doc, "///", columns );
}

std::string
comment( const std::string & text, const std::string & marks, int columns ) {
   std::string out;
   size_t at = 0;
   while( at < text.size() ) {
      size_t end = text.find( '\n', at );
      if( end == std::string::npos ) end = text.size();
      out.append( static_cast< size_t >( columns ), ' ' );
      out += marks;
      if( end > at ) out += " " + text.substr( at, end - at );
      out += '\n';
      at = end + 1;
   }
   return out;
}

std::string
joined( const std::vector< std::string > & parts, std::string_view separator ) {
   std::string out;
   for( const std::string & part : parts ) {
      if( !out.empty() ) out += separator;
      out += part;
   }
   return out;
}

std::string
call( const std::string & head, const std::vector< std::string > & arguments,
      const std::string & tail, int columns ) {
   if( arguments.empty() ) return head + "()" + tail;
   std::string line = head + "( " + joined( arguments, ", " ) + " )" + tail;
   size_t firstEnd = line.find( '\n' );
   size_t width = firstEnd == std::string::npos ? line.size() : firstEnd;
   if( width + static_cast< size_t >( columns ) <= 100 ) return line;
   std::string pad( static_cast< size_t >( columns ) + 3, ' ' );
   return head + "(\n" + pad + joined( arguments, ",\n" + pad ) + " )" + tail;
}

std::string
braced( const std::string & expression ) {
   return expression.empty() ? "{}" : "{ " + expression + " }";
}

namespace {

constexpr size_t widest = 100;

// Where a line may be broken, never inside quotes; 0 when nowhere. `from` is where its text starts.
size_t
breakPoint( const std::string & line, size_t from ) {
   size_t alias = line.find( " = ", from );
   if( line.compare( from, 6, "using " ) == 0 && alias < widest ) return alias + 2;
   size_t base = line.find( " : public " );
   if( line.compare( from, 6, "class " ) == 0 && base < widest ) return base;
   size_t list = 0; // after ( , = {
   size_t word = 0; // outside all brackets
   int depth = 0;
   bool quoted = false;
   for( size_t i = 0; i + 1 < line.size() && i < widest; ++i ) {
      char c = line[i];
      if( c == '"' ) quoted = !quoted;
      if( quoted || i <= from ) continue;
      depth += ( c == '(' || c == '<' ) - ( c == ')' || c == '>' );
      if( line[i + 1] != ' ' ) continue;
      bool after = c == ',' || c == '(' || c == '=' || c == '{' || ( c == '<' && list == 0 );
      if( after ) list = i + 1;
      if( depth == 0 && c != ' ' ) word = i + 1;
   }
   return list ? list : word;
}

// A comment's lines, each with its marks.
std::string
wrappedComment( std::string line, size_t indent ) {
   std::string out;
   std::string marks = line.substr( 0, line.find_first_not_of( '/', indent ) ) + " ";
   while( line.size() > widest ) {
      size_t cut = line.rfind( ' ', widest );
      if( cut == std::string::npos || cut < marks.size() ) break;
      out += line.substr( 0, cut ) + "\n";
      line = marks + line.substr( cut + 1 );
   }
   return out + line + "\n";
}

} // namespace

std::string
wrapped( const std::string & text ) {
   std::string out;
   size_t at = 0;
   while( at < text.size() ) {
      size_t end = text.find( '\n', at );
      if( end == std::string::npos ) end = text.size();
      std::string line = text.substr( at, end - at );
      at = end + 1;
      size_t indent = line.find_first_not_of( ' ' );
      if( indent == std::string::npos ) indent = 0;
      if( line.compare( indent, 2, "//" ) == 0 ) {
         out += wrappedComment( std::move( line ), indent );
         continue;
      }
      std::string pad( indent + 3, ' ' );
      size_t from = indent;
      while( line.size() > widest ) {
         size_t cut = breakPoint( line, from );
         if( cut == 0 ) break;
         out += line.substr( 0, cut ) + "\n";
         line = pad + line.substr( cut + 1 );
         from = pad.size();
      }
      out += line + "\n";
   }
   return out;
}

std::string
cppName( const Type & type ) {
   return type.cppName.empty() ? type.fullName() : type.cppName;
}

std::string
cppStored( const TypeRef & type ) {
   std::string name = cppName( *type.type );
   if( !type.type->isCounted() ) return name;
   return "Zek::Ptr< " + std::string( type.isConst ? "const " : "" ) + name + " >";
}

bool
passedByValue( const TypeRef & type ) {
   const Type & t = *type.type;
   return t.isEnum() || t.byValue;
}

std::string
cppParameter( const TypeRef & type ) {
   return passedByValue( type ) ? cppStored( type ) : "const " + cppStored( type ) + " &";
}

std::string
quoted( std::string_view text ) {
   std::string out = "\"";
   for( char c : text ) {
      if( c == '"' || c == '\\' ) out += '\\';
      if( c == '\n' ) {
         out += "\\n";
      } else {
         out += c;
      }
   }
   return out + "\"";
}

std::string
cppExpression( const Expr & expr, const TypeRef & type, const Type * within ) {
   const Type & t = *type.type;
   std::string name = cppName( t );
   switch( expr.kind ) {
   case Expr::Kind::none:
      return "";
   case Expr::Kind::boolean:
   case Expr::Kind::real:
      return expr.text;
   case Expr::Kind::number:
      // The least of all has no literal in C++.
      return expr.number == INT64_MIN ? "INT64_MIN" : expr.text;
   case Expr::Kind::string:
      return t.name == "String" && t.schema == nullptr ? quoted( expr.text )
                                                       : name + "( " + quoted( expr.text ) + " )";
   case Expr::Kind::name: {
      if( within ) {
         const Member * constant = within->find( expr.text );
         if( constant && constant->kind == MemberKind::constant ) return expr.text + "()";
      }
      if( t.isEnum() ) return name + "::" + expr.text;
      const Member * named = t.find( expr.text );
      if( named && named->kind == MemberKind::named ) return name + "::" + expr.text + "()";
      return expr.text;
   }
   case Expr::Kind::list: {
      std::vector< std::string > items;
      size_t i = 0;
      for( const Member & field : t.members ) {
         if( field.kind != MemberKind::attr && field.kind != MemberKind::key ) continue;
         if( i == expr.items.size() ) break;
         items.push_back( cppExpression( expr.items[i++], field.type, &t ) );
      }
      return name + "( " + joined( items, ", " ) + " )";
   }
   }
   return "";
}

} // namespace Zek::TypeLang
