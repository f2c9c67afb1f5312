// What a declaration says beyond its descriptor's rows, for those who ask at run time.
//
// One constant a type, of texts closed by zero bytes: a word, a blank and what it says, as
// framework/Declaration.h describes them. A string costs no relocation when the library is loaded,
// and nobody reads it before it is asked for.

#include "typelang/Emission.h"
#include "typelang/Text.h"

namespace Zek::TypeLang {

namespace {

/// A string as the framework writes it within a value's text (framework/Text.h).
std::string
textOfString( const std::string & text ) {
   bool bare = text.empty() || ( text.front() != ' ' && text.back() != ' ' );
   std::string inQuotes;
   for( unsigned char c : text ) {
      if( c < 0x20 || c == 0x7f ||
          std::string_view( "'\",{}[]()\\" ).find( char( c ) ) != std::string_view::npos ) {
         bare = false;
      }
      if( c == '\'' || c == '\\' ) inQuotes += '\\';
      inQuotes += char( c );
   }
   return bare ? text : "'" + inQuotes + "'";
}

std::string textOf( const Expr & expr, const TypeRef & type, const Type * within );

/// The text of a value of these constructor arguments; empty where they do not say all of it.
std::string
textOfValue( const Type & type, const Expr & arguments ) {
   const std::vector< const Member * > made = constructorFields( type );
   std::string out = "Value('" + type.fullName() + "', ** {";
   size_t i = 0;
   for( const Member & m : type.members ) {
      if( m.kind != MemberKind::attr && m.kind != MemberKind::key &&
          m.kind != MemberKind::collection ) {
         continue;
      }
      if( i == made.size() || made[i] != &m || i == arguments.items.size() ) return {};
      const std::string text = textOf( arguments.items[i], m.type, &type );
      out += ( i++ ? ", '" : "'" ) + m.name + "': " + text;
   }
   return out + "})";
}

/// The text form of a literal or name, as it is read back at run time.
std::string
textOf( const Expr & expr, const TypeRef & type, const Type * within ) {
   switch( expr.kind ) {
   case Expr::Kind::none:
      return {};
   case Expr::Kind::boolean:
   case Expr::Kind::real:
      return expr.text;
   case Expr::Kind::number:
      return std::to_string( expr.number );
   case Expr::Kind::string:
      return textOfString( expr.text );
   case Expr::Kind::list:
      return textOfValue( *type.type, expr );
   case Expr::Kind::name:
      break;
   }
   const Member * constant = within ? within->find( expr.text ) : nullptr;
   if( constant && constant->kind == MemberKind::constant ) {
      return textOf( constant->init, constant->type, within );
   }
   if( type.type->isEnum() ) return expr.text.substr( expr.text.rfind( '.' ) + 1 );
   const Member * named = type.type->find( expr.text );
   return named ? textOfValue( *type.type, named->init ) : std::string();
}

/// Gathers the constant, a line for each text.
class Notes {
 public:
   void say( std::string_view word, std::string_view text ) {
      if( text.empty() ) return;
      lines_ += subject_;
      subject_.clear();
      lines_ += literal( std::string( word ) + " " + std::string( text ) );
   }
   void say( std::string_view word ) { say( word, "yes" ); }
   /// What follows is said of that attribute or enumerator.
   void of( std::string_view word, const std::string & name ) {
      subject_ = literal( std::string( word ) + " " + name );
   }
   const std::string & lines() const { return lines_; }

 private:
   /// Ends in a zero byte; in pieces that fit a line.
   static std::string literal( const std::string & text ) {
      constexpr size_t longest = 80;
      std::string out;
      size_t from = 0;
      while( text.size() - from > longest ) {
         size_t blank = text.rfind( ' ', from + longest );
         if( blank == std::string::npos || blank <= from ) blank = from + longest - 1;
         out += "   " + quoted( text.substr( from, blank + 1 - from ) ) + "\n";
         from = blank + 1;
      }
      std::string last = quoted( text.substr( from ) );
      last.insert( last.size() - 1, "\\0" );
      return out + "   " + last + "\n";
   }

   std::string lines_;
   std::string subject_; // not yet written: perhaps there is nothing to say
};

void
sayMember( Notes & out, const Type & type, const Member & m ) {
   out.of( "attr", std::to_string( m.number ) );
   out.say( "doc", m.doc );
   if( m.kind == MemberKind::attr ) out.say( "default", textOf( m.init, m.type, &type ) );
   if( m.boundConst ) {
      out.say( "max", textOf( m.boundConst->init, m.boundConst->type, &type ) );
      out.say( "refused", type.name + "::" + m.name + " < 0 or > " + type.name + "::" + m.bound +
                             " not allowed" );
   }
   out.say( "through", m.through );
   out.say( "becomes", m.becomes );
   if( m.keyIsName ) out.say( "name" );
}

} // namespace

NotesPieces
notes( const Type & type ) {
   Notes said;
   said.say( "doc", type.doc );
   if( type.hashIsSum ) said.say( "hash", "sum" );
   said.say( "compares", type.compares );
   if( type.kind == TypeKind::boundedString ) {
      said.say( "max", std::to_string( type.maxBytes ) );
      said.say( "refused",
                type.name + "::bytes > " + type.name + "::" + type.maxName + " not allowed" );
   }
   if( type.base.type && !type.fixedParam.empty() ) {
      const Member * fixed = type.base.type->find( type.fixedParam );
      said.say( "fixes",
                type.fixedParam + " " + textOf( type.fixedValue, fixed->type, type.base.type ) );
   }
   for( const Enumerator & e : type.enumerators ) {
      said.of( "enumerator", e.name );
      said.say( "doc", e.doc );
   }
   for( const Member & m : type.members ) {
      if( m.number ) sayMember( said, type, m );
   }
   if( said.lines().empty() ) return {};
   const std::string name = genericId( type ) + "_notes";
   return { "static constexpr char " + name + "[] =\n" +
               said.lines().substr( 0, said.lines().size() - 1 ) + ";\n\n",
            "   .notes = " + name + ",\n" };
}

} // namespace Zek::TypeLang
