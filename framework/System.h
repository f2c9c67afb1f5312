// The framework's clock, and text by pattern.

#pragma once

#include "framework/Export.h"
#include "framework/String.h"

namespace Zek {

/// Text by a printf() pattern. Throws RangeException for a pattern that printf() refuses.
IPSTATE_EXPORT String format( const char * pattern, ... )
   __attribute__( ( format( printf, 1, 2 ) ) );

struct IPSTATE_EXPORT System {
   /// Seconds since 1970, UTC.
   static double currentTime();
};

} // namespace Zek
