// What there is to know of a type, for people: the facts that the command line prints as text and
// the reference shows as pages.

#pragma once

#include "typelang/Ast.h"

#include <string>
#include <utility>
#include <vector>

namespace Zek::TypeLang {

/// Text in which some words name types, for renderings that have links.
struct Phrase {
   struct Piece {
      std::string text;
      const Type * type = nullptr; // what it names, or null
   };
   std::vector< Piece > pieces;

   Phrase() = default;
   Phrase( std::string text ) { *this += std::move( text ); }
   Phrase & operator+=( std::string text );
   Phrase & operator+=( const Phrase & more );
   bool empty() const { return pieces.empty(); }
   /// Without links.
   std::string text() const;
};

/// The full name of a type, as a link to it.
Phrase nameOf( const Type & type );

/// One line of a type's body, or one enumerator.
struct ExplainedLine {
   std::string number; // empty for a line that takes none
   std::string name;
   std::string kind; // "owning collection"
   Phrase type;      // of a collection: key -> member; of an operation: its signature
   std::string init; // what construction leaves, value of a constant
   std::string bound;
   std::string callbacks;            // of the type's notifiees
   std::string comment;              // as in the schema, lines joined by newlines
   std::vector< std::string > notes; // a reactor's reactions and handlers
   const Type * inheritedFrom = nullptr;
};

struct Explanation {
   const Type * type = nullptr;
   std::string what; // "Entity, named, without attribute log"
   std::string comment;
   /// How it is made, what it derives from; who owns it, points to it, watches it, uses it.
   std::vector< std::pair< std::string, Phrase > > facts;
   std::vector< ExplainedLine > lines;
};

/// `program` is where its relations are looked for.
Explanation explain( const Program & program, const Type & type );

/// The type of that full name, with "::" or ".", or null. Builtins are none.
const Type * findType( const Program & program, const std::string & name );

/// Every type that the schemas declare, in their order, enumerations inside entities too.
std::vector< const Type * > declaredTypes( const Program & program );

/// "( destination Velon::Ip6Addr ) U32", or of a constant its type and value.
Phrase signatureOf( const Function & function );

/// For a terminal, in at most 100 columns where words allow.
std::string explanationText( const Explanation & explanation );

} // namespace Zek::TypeLang
