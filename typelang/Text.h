// Building generated text: templates with named holes, and C++ spellings of schema things.

#pragma once

#include "typelang/Ast.h"

#include <map>
#include <string>
#include <string_view>

namespace Zek::TypeLang {

using Holes = std::map< std::string, std::string >;

/// `text` with every $hole$ replaced. A line that holds nothing but one hole whose value is
/// empty disappears. An unknown hole is an internal error and aborts.
std::string fill( std::string_view text, const Holes & holes );

/// Indents every non-empty line.
std::string indented( std::string_view text, int columns );

/// "onX" from "x".
std::string capitalised( std::string_view name );
std::string uncapitalised( std::string_view name );

/// `///` comment lines at the given indentation, empty without text.
std::string docComment( const std::string & doc, int columns );

/// Comment lines that begin with those marks.
std::string comment( const std::string & text, const std::string & marks, int columns );

/// "a, b, c"
std::string joined( const std::vector< std::string > & parts, std::string_view separator );

/// Breaks `head( a, b ) tail` after commas where it would pass column 100: arguments then stand
/// below one another, indented by `columns + 3`.
std::string call( const std::string & head, const std::vector< std::string > & arguments,
                  const std::string & tail, int columns );

/// C++ spelling of the type itself, fully qualified.
std::string cppName( const Type & type );
/// Spelling of a stored value: counted types by Zek::Ptr.
std::string cppStored( const TypeRef & type );
/// Spelling of a parameter: small types by value, others by constant reference.
std::string cppParameter( const TypeRef & type );
/// True when passed and returned by value.
bool passedByValue( const TypeRef & type );

/// A C++ string literal.
std::string quoted( std::string_view text );

/// `{}`, or `{ expression }`.
std::string braced( const std::string & expression );

/// Breaks what is still longer than 100 columns: comments between words, aliases after "=",
/// classes before their base, lists after commas, else declarations after their type.
std::string wrapped( const std::string & text );

/// A literal or name as a C++ expression of `type`; `within` resolves names of constants.
std::string cppExpression( const Expr & expr, const TypeRef & type, const Type * within );

} // namespace Zek::TypeLang
