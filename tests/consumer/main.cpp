#include "L3/L3.h"
#include "Router/Router.h"

#include <cstdio>

int
main() {
   Velon::IntfId ethernet1( "Ethernet1" );
   auto neighbor = Zek::allocate< Router::Neighbor >( ethernet1 );
   neighbor->l3ConfigIs( Zek::allocate< L3::Intf::Config >( ethernet1 ) );
   neighbor->costIs( neighbor->cost() + 5 );
   std::printf( "%s %u\n", neighbor->intfId().toString().c_str(), neighbor->cost() );
}
