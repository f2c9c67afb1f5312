// The handlers of StatusSm. Deliberate: the reset comes last in each, after all increments, so that
// the change record is empty again when a handler returns (IpGenIntfSm.cpp resets first).

#include "IpGen/IpGenStatusSm.h"

#include "platform/Vistrel/Trace.h"

namespace IpGen {

namespace {

constinit Vistrel::TraceHandle traceHandle( "Ira::IpGenStatusSm", "IpGenStatusSm" );
constexpr unsigned traceLevel = 8;

} // namespace

// -- StatusSm ---------------------------------------------------------------------------------

void
StatusSm::handleInitialized() {
   Vistrel::trace( traceHandle, traceLevel, "handleInitialized", "handleInitialized" );
   initializedIs( true );
   if( const auto ipv4 = Zek::ptrCast< const Ipv4Status >( status() ) ) {
      Vistrel::trace( traceHandle, traceLevel, "handleInitialized", "handleInitialized(IPv4)" );
      ipv4StatusIs( ipv4->ipStatus() );
   } else if( const auto ipv6 = Zek::ptrCast< const Ipv6Status >( status() ) ) {
      Vistrel::trace( traceHandle, traceLevel, "handleInitialized", "handleInitialized(IPv6)" );
      ipv6StatusIs( ipv6->ip6Status() );
   } else {
      Zek::assertionFailed( "Unsupported Address Family", "IpGenStatusSm" );
   }
}

void
StatusSm::handleVrf( const L3::VrfName & vrf ) {
   Vistrel::trace( traceHandle, traceLevel, "handleVrf", "handleVrf(", vrf.view(), ")" );
   status()->changedVrfIs( vrf );
   status()->vrfCollectionChangedInc( 1 );
   status()->reset();
}

void
StatusSm::handleIntf( const L3::VrfName & vrf, Velon::IntfId intf ) {
   Vistrel::trace( traceHandle, traceLevel, "handleIntf", "handleIntf(", vrf.view(), ", ", intf,
                   ")" );
   status()->changedVrfIs( vrf );
   status()->changedIntfIs( intf );
   status()->intfInVrfChangedInc( 1 );
   status()->reset();
}

// -- ZekIpv4IntfStatus ------------------------------------------------------------------------

void
StatusSm::ZekIpv4IntfStatus::handlePrimaryAddr() {
   Vistrel::trace( traceHandle, traceLevel, "handlePrimaryAddr", "handlePrimaryAddr()" );
   const Status::Ptr status = owner()->status();
   status->changedIntfIs( fwkKey() );
   status->changedAddrIs( watched()->activeAddrWithMask() );
   status->addrChangedInc( 1 );
   status->activeAddrChangedInc( 1 );
   status->reset();
}

void
StatusSm::ZekIpv4IntfStatus::handleSecondaryAddr( const Velon::IpAddrWithMask & addr ) {
   Vistrel::trace( traceHandle, traceLevel, "handleSecondaryAddr", "handleSecondaryAddr(", addr,
                   ")" );
   const Status::Ptr status = owner()->status();
   status->changedIntfIs( fwkKey() );
   status->changedAddrIs( addr );
   status->addrChangedInc( 1 );
   status->reset();
}

void
StatusSm::ZekIpv4IntfStatus::handleSecondaryAddr() {
   Vistrel::trace( traceHandle, traceLevel, "handleSecondaryAddr", "handleSecondaryAddr()" );
   // A reaction may replace the record: the walk goes on over the one that it began on.
   const auto record = notifier();
   for( auto i = record->activeSecondaryWithMaskIteratorConst(); i && live(); ++i ) {
      handleSecondaryAddr( i.key() );
   }
}

// -- ZekIpv6IntfStatus ------------------------------------------------------------------------

void
StatusSm::ZekIpv6IntfStatus::handleAddr( const Velon::Ip6AddrWithMask & addr ) {
   Vistrel::trace( traceHandle, traceLevel, "handleAddr", "handleAddr(", addr, ")" );
   const Status::Ptr status = owner()->status();
   status->changedIntfIs( fwkKey() );
   status->changedAddrIs( addr );
   status->addrChangedInc( 1 );
   if( addr.addr().isLinkLocal() ) status->activeAddrChangedInc( 1 );
   status->reset();
}

void
StatusSm::ZekIpv6IntfStatus::handleAddr() {
   Vistrel::trace( traceHandle, traceLevel, "handleAddr", "handleAddr()" );
   const auto record = notifier();
   for( auto i = record->addrIteratorConst(); i && live(); ++i ) handleAddr( i.key() );
}

} // namespace IpGen
