#include "framework/Version.h"

namespace Zek {

const char *
version() noexcept {
   return IPSTATE_VERSION_TEXT;
}

} // namespace Zek
