#include "framework/Exception.h"

#include "framework/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Zek {

Exception::~Exception() = default;
RangeException::~RangeException() = default;
NameInUseException::~NameInUseException() = default;
ReadOnlyException::~ReadOnlyException() = default;
RejectedException::~RejectedException() = default;

void
throwRangeException( std::string_view text ) {
   throw RangeException( std::string( text ) );
}

void
throwNameInUseException( std::string_view text ) {
   throw NameInUseException( std::string( text ) );
}

void
throwNullParameterException( std::string_view type, std::string_view attribute ) {
   std::string text( "null _" );
   text.append( attribute ).append( " parameter to mutator for " );
   text.append( type ).append( "::" ).append( attribute ).append( " not allowed\"" );
   throw RangeException( text );
}

void
assertionFailed( const char * text, const char * source ) {
   std::fprintf( stderr, "assertion '%s' failed (source %s)\n", text, source );
   std::abort();
}

} // namespace Zek
