#include "agents/ipstated/Dump.h"

#include "tools/print/Table.h"
#include "tools/print/Tree.h"

#include <set>

namespace Ipstated {

using namespace Zek::Inspect;

std::string
dump( const Zek::Entity & root, std::string_view path, bool json ) {
   std::string out;
   for( const Place & place : placesAt( root, Path( path ) ) ) {
      if( json ) {
         Print::JsonText text( false );
         Print::writeJson( text, place );
         out += text.take() + "\n";
      } else if( place.kind == Place::Kind::record ) {
         out += Print::dumpText( *place.object );
      } else {
         out += Print::lineValue( Print::cellOf( place ) ) + "\n";
      }
   }
   return out;
}

std::string
typeNames() {
   std::set< std::string > names;
   Zek::forEachType(
      []( const Zek::TypeDescriptor & type, void * context ) {
         if( type.isRecord ) {
            static_cast< std::set< std::string > * >( context )->insert( type.fullName );
         }
      },
      &names );
   std::string out;
   for( const std::string & name : names ) out += name + "\n";
   return out;
}

} // namespace Ipstated
