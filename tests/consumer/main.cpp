#include "L3/L3.h"
#include "Router/Router.h"
#include "framework/Type.h"
#include "framework/Version.h"

#include <cstdio>

int
main() {
   Velon::IntfId ethernet1( "Ethernet1" );
   auto neighbor = Zek::allocate< Router::Neighbor >( ethernet1 );
   neighbor->l3ConfigIs( Zek::allocate< L3::Intf::Config >( ethernet1 ) );
   neighbor->portIs( Zek::allocate< Hardware::Port >( ethernet1 ) );
   neighbor->costIs( neighbor->cost() + neighbor->port()->lanes() );
   std::printf( "%s %u, ipstate %s, %s\n", neighbor->intfId().toString().c_str(), neighbor->cost(),
                Zek::version(), Zek::typeNode( "Hardware::Fan" ) ? "a fan" : "no fan" );
}
