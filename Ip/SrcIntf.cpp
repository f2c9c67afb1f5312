// The IPv4 source-interface registries, system-wide and per VRF.

#include "Ip/SrcIntf.h"

#include "Ip/Registry.h"

namespace Ip::SourceIntf {

namespace {

constinit Vistrel::TraceHandle traceHandle( "SrcIntf" );

// The interface's address enters its registered record, without the mask.
void
insertAddr( const Operation & operation, SourceIntf & sip, const Ip::IpIntfStatus & intfStatus ) {
   operation.trace( " inserting IP address ", intfStatus.activeAddrWithMask() );
   sip.ipAddrIs( intfStatus.activeAddrWithMask().addr() );
}

// The registered record of a vanished interface, if there is one, forgets the address.
void
clearAddr( const Operation & operation, const SourceIntfDir & dir, Velon::IntfId intf,
           const Ip::IpIntfStatus & intfStatus ) {
   operation.trace( ":", intf );
   if( const auto sip = dir.sourceIntf( intf ) ) {
      operation.trace( " clearing IP address ", intfStatus.activeAddrWithMask() );
      sip->ipAddrIs( Velon::IpAddr() );
   }
}

} // namespace

// -- SourceIntfSm -----------------------------------------------------------------------------

void
SourceIntfSm::handleInitialized() {
   initializedIs( true );
}

SourceIntf::Ptr
SourceIntfSm::registerSourceIntf( Velon::IntfId intf ) {
   return registerUser( { traceHandle, "registerSourceIntf",
                          "Ip::SourceIntf::SourceIntf::Ptr "
                          "Ip::SourceIntf::SourceIntfSm::registerSourceIntf(Velon::IntfId)" },
                        *sourceIntfDir(), intf, [&] { handleActiveAddrWithMask( intf ); } );
}

void
SourceIntfSm::unregisterSourceIntf( const SourceIntf::Ptr & sip ) {
   unregisterUser( { traceHandle, "unregisterSourceIntf",
                     "void Ip::SourceIntf::SourceIntfSm::unregisterSourceIntf(const Ptr&)" },
                   *sourceIntfDir(), sip );
}

void
SourceIntfSm::handleActiveAddrWithMask( Velon::IntfId intf ) {
   const Operation operation{
      traceHandle, "handleActiveAddrWithMask",
      "void Ip::SourceIntf::SourceIntfSm::handleActiveAddrWithMask(Velon::IntfId)"
   };
   operation.trace( ":", intf );
   const auto sip = sourceIntfDir()->sourceIntf( intf );
   const auto watched = ipStatus();
   const auto intfStatus = watched ? watched->ipIntfStatus( intf ) : nullptr;
   if( !sip || !intfStatus ) return;
   insertAddr( operation, *sip, *intfStatus );
}

void
SourceIntfSm::ZekIpIntfStatus::handleDel() {
   clearAddr( { traceHandle, "handleDel",
                "void Ip::SourceIntf::SourceIntfSm::ZekIpIntfStatus::handleDel()" },
              *owner()->sourceIntfDir(), fwkKey(), *notifier() );
}

// -- VrfSourceIntfSm --------------------------------------------------------------------------

void
VrfSourceIntfSm::handleInitialized() {
   initializedIs( true );
}

SourceIntf::Ptr
VrfSourceIntfSm::registerSourceIntf( Velon::IntfId intf ) {
   return registerUser( { traceHandle, "registerSourceIntf",
                          "Ip::SourceIntf::SourceIntf::Ptr "
                          "Ip::SourceIntf::VrfSourceIntfSm::registerSourceIntf(Velon::IntfId)" },
                        *sourceIntfDir(), intf, [&] {
                           if( const auto reactor = ipIntfStatus( intf ) )
                              reactor->handleActiveAddrWithMask();
                        } );
}

void
VrfSourceIntfSm::unregisterSourceIntf( const SourceIntf::Ptr & sip ) {
   unregisterUser( { traceHandle, "unregisterSourceIntf",
                     "void Ip::SourceIntf::VrfSourceIntfSm::unregisterSourceIntf(const Ptr&)" },
                   *sourceIntfDir(), sip );
}

void
VrfSourceIntfSm::ZekIpIntfStatus::handleActiveAddrWithMask() {
   const Operation operation{
      traceHandle, "handleActiveAddrWithMask",
      "void Ip::SourceIntf::VrfSourceIntfSm::ZekIpIntfStatus::handleActiveAddrWithMask()"
   };
   operation.trace( ":", fwkKey() );
   if( const auto sip = owner()->sourceIntfDir()->sourceIntf( fwkKey() ) ) {
      insertAddr( operation, *sip, *notifier() );
   }
}

void
VrfSourceIntfSm::ZekIpIntfStatus::handleDel() {
   clearAddr( { traceHandle, "handleDel",
                "void Ip::SourceIntf::VrfSourceIntfSm::ZekIpIntfStatus::handleDel()" },
              *owner()->sourceIntfDir(), fwkKey(), *notifier() );
}

} // namespace Ip::SourceIntf
