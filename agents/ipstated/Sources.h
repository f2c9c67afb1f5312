// Which address packets from a named interface carry at this moment.
//
// Runs the state machines and the registries of source interfaces over the mirrored records: over
// the whole system, and over every VRF as long as it has a record. Three registries each: that of
// IPv4, and that of the generic views in either family. An interface is registered in all of them
// and need not exist. A line tells each address that a registry holds, first at the registration
// and then whenever it changes:
//
//    source  vrf red  generic IPv6  eth0  fe80::1 -> fe80::2
//
// that is: scope, registry, interface, old and new address. "-" stands for not registered, "none"
// for the empty address that a generic registry starts with. Everything else is what the registry
// holds, also where that is odd: 0.0.0.0 is a lost address in all three.

#pragma once

#include "agents/ipstated/Change.h"

#include "Ip/Ip.h"
#include "Ip6/Ip6.h"
#include "framework/Ptr.h"
#include "platform/Velon/IntfId.h"

#include <string>
#include <vector>

namespace Ipstated {

class Sources {
 public:
   /// Follows the two merged statuses until destroyed. `sink` gets each line, without its end.
   Sources( const Ip::Status & ip, const Ip6::Status & ip6, ChangeSink sink );
   /// Lets everything go and tells nothing of it.
   ~Sources();
   Sources( const Sources & ) = delete;
   Sources & operator=( const Sources & ) = delete;

   /// Registers the interface in every registry there is and will be. One that is registered
   /// already changes nothing.
   void sourceIntfIs( Velon::IntfId intf );

   class Family;

 private:
   ChangeSink sink_;
   std::vector< Velon::IntfId > registered_;
   std::vector< Zek::Ptr< Family > > families_;
};

} // namespace Ipstated
