// Records streams as inputs of fuzz_Stream, one file each: of every type that can be a root, as
// seen by one who reads, by one who writes, and by an owner.

#include "tests/stream/FuzzWorld.h"

#include <cstdio>
#include <filesystem>
#include <fstream>

using namespace ipstate::test;

int
main( int count, char ** arguments ) {
   if( count != 2 ) {
      std::fprintf( stderr, "usage: %s <folder>\n", arguments[0] );
      return 2;
   }
   const std::filesystem::path folder = arguments[1];
   std::filesystem::create_directories( folder );
   for( size_t type = 0; type < rootTypes().size(); ++type ) {
      for( int flags :
           { int( Setup::recovers ), Setup::recovers | Setup::filled | Setup::twice | Setup::throws,
             Setup::recovers | Setup::narrow | Setup::twice, Setup::narrow | Setup::filled,
             Setup::writes | Setup::filled | Setup::reacts,
             Setup::writes | Setup::narrow | Setup::twice, Setup::owner | Setup::throws,
             Setup::owner | Setup::reacts, Setup::owner | Setup::narrow } ) {
         Setup setup;
         setup.flags = static_cast< uint8_t >( flags );
         setup.type = static_cast< uint8_t >( type );
         setup.seed = static_cast< uint8_t >( type );
         std::vector< std::string > parts{ setup.bytes() };
         for( std::string & piece : piecesOf( recorded( setup, 8 ) ) ) parts.push_back( piece );
         const std::string name =
            std::string( rootTypes()[type]->fullName ) + "-" + std::to_string( flags );
         std::ofstream( folder / name, std::ios::binary ) << joined( parts );
      }
   }
   return 0;
}
