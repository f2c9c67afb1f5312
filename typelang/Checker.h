// Loading a schema with its imports, and proving everything that the emitter relies on: what
// would otherwise surface as an error of the C++ compiler is an error here.

#pragma once

#include "typelang/Source.h"

#include <deque>
#include <functional>
#include <optional>
#include <set>

namespace Zek::TypeLang {

/// Gives the text of the schema at a path relative to an include root; nothing when there is
/// none.
using Reader = std::function< std::optional< std::string >( const std::string & path ) >;

/// A schema and all that it imports, resolved and checked.
struct Compilation {
   std::deque< SourceFile > files; // the main one last; imports before
   Program program;
   Errors errors;
};

/// Compiles the schemas at `paths` as one program, whose main one is the last. It may be emitted
/// when `errors` is empty.
void compile( const std::vector< std::string > & paths, const Reader & read, Compilation & out );

} // namespace Zek::TypeLang
