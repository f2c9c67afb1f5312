#include "Ira/IpStatusMounter.h"

#include "framework/Exception.h"
#include "framework/System.h"
#include "platform/Cell/Cell.h"
#include "platform/Kelmo/MountGroup.h"
#include "platform/Vistrel/Trace.h"

namespace Ira {

namespace {

constinit Vistrel::TraceHandle traceHandle( "IraIpStatusMounter", "IpStatusMounter" );
constexpr unsigned traceLevel = 8;

} // namespace

void
IraIpStatusMounter::doMountEntities( const Zek::Ptr< Kelmo::MountGroup > & mg, bool mountV4,
                                     bool mountV6 ) {
   Vistrel::trace( traceHandle, traceLevel, "doMountEntities",
                   "static void Ira::IraIpStatusMounter::doMountEntities(const Ptr&, bool, bool)",
                   " mountV4 ", mountV4, " mountV6 ", mountV6 );
   Zek::assertThat( mountV4 || mountV6, "mountV4 || mountV6", "IpStatusMounter" );
   if( !mg ) {
      Zek::throwRangeException(
         "null mount group for Ira::IraIpStatusMounter::doMountEntities not allowed" );
   }
   const unsigned cell = Cell::cellId();
   const auto mount = [&mg]( const Zek::String & path, const char * type, const char * mode ) {
      mg->doMount( Kelmo::Mount( path, type, mode, Kelmo::MountFilter( false ) ) );
   };

   mount( "l3/intf/input/status/system", "L3::Intf::Input::StatusDir", "r" );
   mount( Zek::format( "cell/%u/l3/intf/input/status-%u", cell, cell ),
          "L3::Intf::Input::StatusDir", "r" );
   if( mountV4 ) {
      mount( "ip/input/status", "Zek::Dir", "ri" );
      mount( Zek::format( "cell/%u/ip/input/status-%u", cell, cell ), "Ip::Input::Status", "r" );
      mount( "ip/status", "Ip::Status", "r" );
   }
   if( mountV6 ) {
      mount( "ip6/input/status", "Zek::Dir", "ri" );
      mount( Zek::format( "cell/%u/ip6/input/status-%u", cell, cell ), "Ip6::Input::Status", "r" );
      mount( "ip6/status", "Ip6::Status", "r" );
   }
}

} // namespace Ira
