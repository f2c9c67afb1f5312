#include "framework/ValueSet.h"

#include <cstdio>

namespace Zek {

void
reportDefaultKeyUnsupported() {
   std::fputs( "Default key not supported in collection inside nominal\n", stderr );
}

} // namespace Zek
