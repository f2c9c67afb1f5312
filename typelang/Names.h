// Names that generated C++ needs: each stands once, and none hides another that is spelled out
// beside it.

#pragma once

#include "typelang/Source.h"

namespace Zek::TypeLang {

/// Reports every name of the schemas that C++ would refuse or take for another: words of C++,
/// names of the framework's own, types beside scopes, functions, enumerators and what is generated
/// for them, and the members of each class. Each schema stands after its imports. REQUIRES resolved
/// bases, free of circles.
void checkNames( const std::vector< Schema * > & schemas, Errors & errors );

/// The function that makes one: "ipIntfConfigFactory".
std::string factoryOf( const Type & type );

} // namespace Zek::TypeLang
