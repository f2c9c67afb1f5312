#include "agents/ipstated/KernelTrace.h"

#include "platform/Velon/Ip6Addr.h"
#include "platform/Velon/IpAddr.h"
#include "platform/Vistrel/Trace.h"

namespace Ipstated {

namespace {

constinit Vistrel::TraceHandle traceHandle( "KernelFeed" );
constexpr unsigned problemLevel = 1;
constexpr unsigned dumpLevel = 3;
constexpr unsigned changeLevel = 5;

const char *
mark( Difference difference ) {
   return difference == Difference::added     ? " has "
          : difference == Difference::removed ? " lost "
                                              : " changed ";
}

template< class... Parts >
void
tell( const char * function, const Interface & interface, const Parts &... parts ) {
   Vistrel::trace( traceHandle, changeLevel, function, interface.name, parts... );
}

} // namespace

void
KernelTrace::onInterface( const Interface & interface ) {
   tell( "onInterface", interface, " of index ", interface.index, " is there, in VRF ",
         interface.vrf );
}

void
KernelTrace::onInterfaceGone( const Interface & interface ) {
   tell( "onInterfaceGone", interface, " of index ", interface.index, " is gone" );
}

void
KernelTrace::onVrf( const Interface & interface, const std::string & before ) {
   tell( "onVrf", interface, " goes from VRF ", before, " to ", interface.vrf );
}

void
KernelTrace::onFlags( const Interface & interface ) {
   tell( "onFlags", interface, interface.up() ? " is up" : " is down" );
}

void
KernelTrace::onLink( const Interface & interface, const LinkFacts & ) {
   tell( "onLink", interface, " is ", interface.link.stateText(), ", MTU ", interface.link.mtu );
}

void
KernelTrace::onConfig4( const Interface & interface ) {
   tell( "onConfig4", interface, " forwards IPv4: ", interface.config4.forwarding );
}

void
KernelTrace::onConfig6( const Interface & interface ) {
   tell( "onConfig6", interface, " forwards IPv6: ", interface.config6.forwarding );
}

void
KernelTrace::onAddress4( const Interface & interface, const Ip4Address & address,
                         Difference difference ) {
   tell( "onAddress4", interface, mark( difference ), Velon::IpAddr( address.local ), "/",
         unsigned( address.prefixLength ), " by ", unsigned( address.proto ) );
}

void
KernelTrace::onAddress6( const Interface & interface, const Ip6Address & address,
                         Difference difference ) {
   tell( "onAddress6", interface, mark( difference ), Velon::Ip6Addr( address.address ), "/",
         unsigned( address.prefixLength ), " by ", unsigned( address.proto ) );
}

void
KernelTrace::onPrimary4( const Interface & interface ) {
   const Ip4Address * primary = interface.primary4();
   tell( "onPrimary4", interface, " has the primary ",
         primary ? Velon::IpAddr( primary->local ).toString() : std::string( "none" ) );
}

void
KernelTrace::onGroup4( const Interface & interface, RawIp4 group, Difference difference ) {
   tell( "onGroup4", interface, mark( difference ), Velon::IpAddr( group ) );
}

void
KernelTrace::onGroup6( const Interface & interface, const RawIp6 & group, Difference difference ) {
   tell( "onGroup6", interface, mark( difference ), Velon::Ip6Addr( group ) );
}

void
KernelTrace::onSynchronized() {
   Vistrel::trace( traceHandle, dumpLevel, "onSynchronized", "a full dump is told" );
}

void
KernelTrace::onProblem( const std::string & text ) {
   Vistrel::trace( traceHandle, problemLevel, "onProblem", text );
}

} // namespace Ipstated
