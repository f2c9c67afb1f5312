// Tokens of the type language.
//
// A declaration ends with its line, so every token knows whether it is the first of one. Doc
// comments are collected and handed to the token that follows them.

#pragma once

#include "typelang/Source.h"

#include <string>
#include <vector>

namespace Zek::TypeLang {

enum class TokenKind {
   name,   // dotted names are one token: Velon.IntfId
   number, // with sign and fraction
   string, // text holds the contents
   symbol, // text holds it: { } ( ) = , : & / -> +=
   end,
};

struct Token {
   TokenKind kind;
   std::string text;
   Span span;
   bool startsLine;
   std::string doc; // the `///` lines before it
};

/// Splits a file; the last token is `end`. Characters that belong to nothing are reported.
std::vector< Token > lex( const SourceFile & file, Errors & errors );

} // namespace Zek::TypeLang
