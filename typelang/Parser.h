// From tokens to declarations. Names are resolved later (Checker.h).

#pragma once

#include "typelang/Source.h"

namespace Zek::TypeLang {

/// What the head of a file imports, found before the rest is parsed.
struct Import {
   std::string path; // "L3/L3.zek"
   Span span;
};

/// Parses `file` into `schema`, of which path, stem and file are set. Goes on with the next
/// declaration after an error.
void parse( const SourceFile & file, Schema & schema, std::vector< Import > & imports,
            Errors & errors );

} // namespace Zek::TypeLang
