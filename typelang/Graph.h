// The types of a program and what holds what, drawn.

#pragma once

#include "typelang/Ast.h"

#include <string>

namespace Zek::TypeLang {

/// A Graphviz digraph: a cluster per model, a node per counted type and per value that holds a
/// pointer. Edges, labelled with the attribute: ownership bold with a diamond, references and
/// pointers dashed, a machine's inputs blue, derived types and bindings to their base with an
/// empty arrowhead.
std::string graphText( const Program & program );

} // namespace Zek::TypeLang
