// What the source-interface registries share: counting users, and the trace lines of it.
//
// Used by the four machines of Ip::SourceIntf and IpGen::SourceIntf alone. Every line begins with
// the signature of the operation that it tells of.

#pragma once

#include "framework/Assert.h"
#include "framework/Ptr.h"
#include "platform/Velon/IntfId.h"
#include "platform/Vistrel/Trace.h"

namespace Ip::SourceIntf {

/// Traces of one operation.
struct Operation {
   Vistrel::TraceHandle & handle;
   const char * function;
   const char * signature;

   template< class... Parts >
   void trace( const Parts &... parts ) const {
      Vistrel::trace( handle, 8, function, signature, parts... );
   }
};

/// Registers one more user of `intf`: finds its record, or makes it and has `fill` put in the
/// address; counts, and returns it.
template< class Dir, class Fill >
auto
registerUser( const Operation & operation, Dir & dir, Velon::IntfId intf, const Fill & fill ) {
   operation.trace( ":", intf );
   auto sip = dir.sourceIntf( intf );
   if( !sip ) {
      operation.trace( " adding entry ", intf );
      sip = dir.sourceIntfIs( intf );
      Zek::assertThat( sip != nullptr, "sip", operation.handle.source() );
      fill();
   }
   sip->refCntInc( 1 );
   operation.trace( ":", "Refcnt: ", sip->refCnt() );
   return sip;
}

/// Drops one user of `sip`; at the exact count 0 the record leaves the directory.
template< class Dir, class Record >
void
unregisterUser( const Operation & operation, Dir & dir, const Zek::Ptr< Record > & sip ) {
   Zek::assertThat( sip != nullptr, "sip", operation.handle.source() );
   const Zek::Ptr< Record > record = sip;
   const Velon::IntfId intf = record->intfId();
   operation.trace( ":", intf );
   record->refCntDec( 1 );
   operation.trace( ":", "Refcnt: ", record->refCnt() );
   if( record->refCnt() == 0 ) {
      // Deliberate: nothing separates the signature from this text.
      operation.trace( "deleting ", intf, " from collection" );
      dir.sourceIntfDel( intf );
   }
}

} // namespace Ip::SourceIntf
