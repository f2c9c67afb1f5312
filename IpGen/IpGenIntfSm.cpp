// The handlers of IntfSm. Deliberate: the reset comes first in each, so that the change record
// keeps the latest change after a handler returns (IpGenStatusSm.cpp resets last).

#include "IpGen/IpGenIntfSm.h"

#include "platform/Vistrel/Trace.h"

namespace IpGen {

namespace {

constinit Vistrel::TraceHandle traceHandle( "Ira::IpGenIntfSm", "IpGenIntfSm" );
constexpr unsigned traceLevel = 8;

} // namespace

// -- IntfSm -----------------------------------------------------------------------------------

void
IntfSm::handleInitialized() {
   Vistrel::trace( traceHandle, traceLevel, "handleInitialized", "handleInitialized" );
   initializedIs( true );
   if( const auto ipv4 = Zek::ptrCast< const Ipv4IntfStatus >( intfStatus() ) ) {
      Vistrel::trace( traceHandle, traceLevel, "handleInitialized", "handleInitialized(IPv4)" );
      ipv4StatusIs( ipv4->vrfIpIntfStatus() );
   } else if( const auto ipv6 = Zek::ptrCast< const Ipv6IntfStatus >( intfStatus() ) ) {
      Vistrel::trace( traceHandle, traceLevel, "handleInitialized", "handleInitialized(IPv6)" );
      ipv6StatusIs( ipv6->vrfIp6IntfStatus() );
   } else {
      Zek::assertionFailed( "A derived type of IntfStatus must be supplied as a constructor arg",
                            "IpGenIntfSm" );
   }
}

void
IntfSm::IntfSmIs( const IntfStatus::Ptr & view ) {
   if( intfStatus() == view ) return;
   ipv4StatusDel();
   ipv6StatusDel();
   ipv4IntfStatusDelAll();
   ipv6IntfStatusDelAll();
   intfStatusIs( view );
   handleInitialized();
}

void
IntfSm::handleIntfStatus( Velon::IntfId intf ) {
   Vistrel::trace( traceHandle, traceLevel, "handleIntfStatus", "handleIntfStatus(", intf, ")" );
   const IntfStatus::Ptr status = intfStatus();
   status->reset();
   status->changedIntfIs( intf );
   status->intfStatusChangedInc( 1 );
}

void
IntfSm::handleDpRouting( Velon::IntfId intf ) {
   Vistrel::trace( traceHandle, traceLevel, "handleDpRouting", "handleDpRouting(", intf, ")" );
   const IntfStatus::Ptr status = intfStatus();
   status->reset();
   status->changedIntfIs( intf );
   status->dpRoutingChangedInc( 1 );
}

// -- ZekIpv4IntfStatus ------------------------------------------------------------------------

void
IntfSm::ZekIpv4IntfStatus::handlePrimaryAddr() {
   Vistrel::trace( traceHandle, traceLevel, "handlePrimaryAddr", "handlePrimaryAddr()" );
   const IntfStatus::Ptr status = owner()->intfStatus();
   status->reset();
   status->changedIntfIs( fwkKey() );
   status->changedAddrIs( watched()->activeAddrWithMask() );
   status->addrChangedInc( 1 );
   status->activeAddrChangedInc( 1 );
}

void
IntfSm::ZekIpv4IntfStatus::handleSecondaryAddr( const Velon::IpAddrWithMask & addr ) {
   Vistrel::trace( traceHandle, traceLevel, "handleSecondaryAddr", "handleSecondaryAddr(", addr,
                   ")" );
   const IntfStatus::Ptr status = owner()->intfStatus();
   status->reset();
   status->changedIntfIs( fwkKey() );
   status->changedAddrIs( addr );
   status->addrChangedInc( 1 );
}

void
IntfSm::ZekIpv4IntfStatus::handleSecondaryAddr() {
   Vistrel::trace( traceHandle, traceLevel, "handleSecondaryAddr", "handleSecondaryAddr()" );
   // A reaction may replace the record: the walk goes on over the one that it began on.
   const auto record = notifier();
   for( auto i = record->activeSecondaryWithMaskIteratorConst(); i && live(); ++i ) {
      handleSecondaryAddr( i.key() );
   }
}

// -- ZekIpv6IntfStatus ------------------------------------------------------------------------

void
IntfSm::ZekIpv6IntfStatus::handleAddr( const Velon::Ip6AddrWithMask & addr ) {
   Vistrel::trace( traceHandle, traceLevel, "handleAddr", "handleAddr(", addr, ")" );
   const IntfStatus::Ptr status = owner()->intfStatus();
   status->reset();
   status->changedIntfIs( fwkKey() );
   status->changedAddrIs( addr );
   status->addrChangedInc( 1 );
   if( addr.addr().isLinkLocal() ) status->activeAddrChangedInc( 1 );
}

void
IntfSm::ZekIpv6IntfStatus::handleAddr() {
   Vistrel::trace( traceHandle, traceLevel, "handleAddr", "handleAddr()" );
   const auto record = notifier();
   for( auto i = record->addrIteratorConst(); i && live(); ++i ) handleAddr( i.key() );
}

} // namespace IpGen
