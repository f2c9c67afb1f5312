// The reference: a Markdown page for each type, and an index by model.

#pragma once

#include "typelang/Ast.h"
#include "typelang/Emitter.h"

#include <string>
#include <vector>

namespace Zek::TypeLang {

/// How every page begins, so that pages of types that are gone can be told from other files.
extern const std::string referenceMark;

/// The pages, by path below the reference's folder: "README.md", "Ip/IpIntfConfig.md".
std::vector< Output > referencePages( const Program & program );

} // namespace Zek::TypeLang
