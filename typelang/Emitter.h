// Writing C++ for one schema: the last stage of zekc.
//
// Generated code is thin. What does not depend on the type lives in the framework, driven by
// constant attribute rows; a class carries only accessors, mutators, callbacks and fields. The
// output is the same on every run and holds no date, path of the machine or order of memory.

#pragma once

#include "typelang/Ast.h"

#include <string>
#include <vector>

namespace Zek::TypeLang {

struct Output {
   std::string path; // relative to the output directory, "Ip/Ip.h"
   std::string text;
};

/// The header and source of `program.main`, which the checker has accepted.
std::vector< Output > emitSchema( const Program & program );

} // namespace Zek::TypeLang
