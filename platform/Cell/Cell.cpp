#include "platform/Cell/Cell.h"

#include "platform/Velon/Scan.h"

#include <cstdlib>

namespace Cell {

uint32_t
cellId() {
   const char * text = std::getenv( "IPSTATE_CELL" );
   if( !text ) return 1;
   Velon::Scanner scanner( text );
   uint64_t id;
   if( !scanner.decimal( UINT32_MAX, id ) || !scanner.atEnd() ) {
      Velon::throwNotRead( "cell number in IPSTATE_CELL", scanner.offset(), text );
   }
   return static_cast< uint32_t >( id );
}

} // namespace Cell
