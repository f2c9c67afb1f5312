// Internal consistency assertions.
//
// They are checked in every build type, print the asserted text and the name of the source file
// to standard error, and abort the process. Bad arguments are not asserted: they are exceptions
// (framework/Exception.h).

#pragma once

#include "framework/Export.h"

namespace Zek {

/// Prints "assertion '<text>' failed (source <source>)" to standard error and aborts.
[[noreturn]] IPSTATE_EXPORT void assertionFailed( const char * text, const char * source );

/// Aborts through assertionFailed() unless `holds`. `source` is the name of the source file
/// without directory and extension, as in "Ip6".
inline void
assertThat( bool holds, const char * text, const char * source ) {
   if( !holds ) [[unlikely]] {
      assertionFailed( text, source );
   }
}

} // namespace Zek
