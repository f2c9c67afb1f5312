#include "agents/ipstated/Serve.h"

#include "agents/ipstated/Reflect.h"

#include "framework/Exception.h"

#include <cstdio>
#include <grp.h>
#include <utility>

namespace Ipstated {

std::unique_ptr< Kelmo::Server >
serveTree( const Zek::Entity::Ptr & root, const std::string & path, const std::string & group,
           std::vector< std::string > writable ) {
   Kelmo::ServerOptions options;
   options.writable = std::move( writable );
   if( !group.empty() ) {
      const ::group * found = getgrnam( group.c_str() );
      if( !found ) {
         Zek::throwRangeException( "'" + printable( group ) + "' is no group of this system" );
      }
      options.roles = { { found->gr_gid, { "" }, { "" } } };
   }
   options.problem = []( const std::string & text ) {
      fprintf( stderr, "ipstated: %s\n", printable( text ).c_str() );
   };
   return std::make_unique< Kelmo::Server >( root, path, std::move( options ) );
}

} // namespace Ipstated
