// The source-interface registries over generic views. The system-wide and the per-VRF machine
// differ in the view that they ask and in the signatures that they trace.

#include "IpGen/SrcGenIntf.h"

#include "Ip/Registry.h"

namespace IpGen::SourceIntf {

namespace {

using Ip::SourceIntf::Operation;
using Ip::SourceIntf::registerUser;
using Ip::SourceIntf::unregisterUser;

constinit Vistrel::TraceHandle traceHandle( "SrcGenIntf" );

template< class View >
void
updateAddr( const Operation & operation, const SourceIntfDir & dir, const View * view,
            Velon::IntfId intf ) {
   operation.trace( ":", intf );
   const auto sip = dir.sourceIntf( intf );
   if( !sip || !view || !view->intf( intf ) ) return;
   const Velon::IpGenAddrWithMask address = view->activeAddr( intf );
   operation.trace( " inserting IP address ", address );
   sip->ipAddrIs( address.addr() );
}

template< class View >
void
checkIntf( const Operation & operation, const SourceIntfDir & dir, const View * view,
           Velon::IntfId intf ) {
   operation.trace( ":", intf );
   if( view && view->intf( intf ) ) return;
   const auto sip = dir.sourceIntf( intf );
   if( !sip ) return;
   operation.trace( " clearing IP address ",
                    view ? view->activeAddr( intf ) : Velon::IpGenAddrWithMask() );
   sip->ipAddrIs( Velon::IpAddr() );
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
                          "IpGen::SourceIntf::SourceIntf::Ptr "
                          "IpGen::SourceIntf::SourceIntfSm::registerSourceIntf(Velon::IntfId)" },
                        *sourceIntfDir(), intf, [&] { handleActiveAddrWithMask( intf ); } );
}

void
SourceIntfSm::unregisterSourceIntf( const SourceIntf::Ptr & sip ) {
   unregisterUser( { traceHandle, "unregisterSourceIntf",
                     "void IpGen::SourceIntf::SourceIntfSm::unregisterSourceIntf(const Ptr&)" },
                   *sourceIntfDir(), sip );
}

void
SourceIntfSm::handleActiveAddrWithMask( Velon::IntfId intf ) {
   updateAddr( { traceHandle, "handleActiveAddrWithMask",
                 "void IpGen::SourceIntf::SourceIntfSm::handleActiveAddrWithMask(Velon::IntfId)" },
               *sourceIntfDir(), ipStatus_ ? ipStatus_->watched() : nullptr, intf );
}

void
SourceIntfSm::handleIntf( Velon::IntfId intf ) {
   checkIntf( { traceHandle, "handleIntf",
                "void IpGen::SourceIntf::SourceIntfSm::handleIntf(Velon::IntfId)" },
              *sourceIntfDir(), ipStatus_ ? ipStatus_->watched() : nullptr, intf );
}

void
SourceIntfSm::ZekIpStatus::handleActiveAddrChanged() {
   owner()->handleActiveAddrWithMask( watched()->changedIntf() );
}

void
SourceIntfSm::ZekIpStatus::handleIntfInVrfChanged() {
   owner()->handleIntf( watched()->changedIntf() );
}

// -- VrfSourceIntfSm --------------------------------------------------------------------------

void
VrfSourceIntfSm::handleInitialized() {
   initializedIs( true );
}

SourceIntf::Ptr
VrfSourceIntfSm::registerSourceIntf( Velon::IntfId intf ) {
   return registerUser( { traceHandle, "registerSourceIntf",
                          "IpGen::SourceIntf::SourceIntf::Ptr "
                          "IpGen::SourceIntf::VrfSourceIntfSm::registerSourceIntf(Velon::IntfId)" },
                        *sourceIntfDir(), intf, [&] { handleActiveAddrWithMask( intf ); } );
}

void
VrfSourceIntfSm::unregisterSourceIntf( const SourceIntf::Ptr & sip ) {
   unregisterUser( { traceHandle, "unregisterSourceIntf",
                     "void IpGen::SourceIntf::VrfSourceIntfSm::unregisterSourceIntf(const Ptr&)" },
                   *sourceIntfDir(), sip );
}

void
VrfSourceIntfSm::handleActiveAddrWithMask( Velon::IntfId intf ) {
   updateAddr(
      { traceHandle, "handleActiveAddrWithMask",
        "void IpGen::SourceIntf::VrfSourceIntfSm::handleActiveAddrWithMask(Velon::IntfId)" },
      *sourceIntfDir(), intfStatus_ ? intfStatus_->watched() : nullptr, intf );
}

void
VrfSourceIntfSm::handleIntf( Velon::IntfId intf ) {
   checkIntf( { traceHandle, "handleIntf",
                "void IpGen::SourceIntf::VrfSourceIntfSm::handleIntf(Velon::IntfId)" },
              *sourceIntfDir(), intfStatus_ ? intfStatus_->watched() : nullptr, intf );
}

void
VrfSourceIntfSm::ZekIntfStatus::handleActiveAddrChanged() {
   owner()->handleActiveAddrWithMask( watched()->changedIntf() );
}

void
VrfSourceIntfSm::ZekIntfStatus::handleIntfStatusChanged() {
   owner()->handleIntf( watched()->changedIntf() );
}

} // namespace IpGen::SourceIntf
