#include "framework/Value.h"

namespace Zek {

void
readValueOrThrow( const TypeDescriptor & type, std::string_view text, void * value ) {
   std::string problem;
   if( !readValueText( type, text, value, &problem ) ) throwRangeException( problem );
}

} // namespace Zek
