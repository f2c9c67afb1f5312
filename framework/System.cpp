#include "framework/System.h"

#include "framework/Exception.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <string>

namespace Zek {

String
format( const char * pattern, ... ) {
   va_list arguments;
   va_start( arguments, pattern );
   va_list again;
   va_copy( again, arguments );
   const int size = std::vsnprintf( nullptr, 0, pattern, arguments );
   va_end( arguments );
   std::string text;
   if( size >= 0 ) {
      text.resize( static_cast< size_t >( size ) + 1 );
      std::vsnprintf( text.data(), text.size(), pattern, again );
      text.pop_back();
   }
   va_end( again );
   if( size < 0 ) throwRangeException( std::string( "'" ) + pattern + "' is no pattern to format" );
   return String( text );
}

double
System::currentTime() {
   using Seconds = std::chrono::duration< double >;
   return Seconds( std::chrono::system_clock::now().time_since_epoch() ).count();
}

} // namespace Zek
