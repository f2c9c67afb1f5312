// What Ip.zek declares and cannot say: derived values of the IPv4 records.

#include "Ip/Ip.h"

namespace Ip {

// -- MulticastGroupInfo -----------------------------------------------------------------------

bool
MulticastGroupInfo::isValid() const {
   return address().isMulticast();
}

// -- IpIntfStatus -----------------------------------------------------------------------------

Velon::IpAddrWithMask
IpIntfStatus::activeVirtualAddrWithMask() const {
   return useVirtualAddr() ? activeAddrWithMask() : Velon::IpAddrWithMask();
}

// -- VrfCapability ----------------------------------------------------------------------------

bool
VrfCapability::afEnabledDefault( Velon::AddressFamily af ) const {
   switch( af ) {
   case Velon::AddressFamily::ipv4:
      return ipv4EnabledDefault();
   case Velon::AddressFamily::ipv6:
      return ipv6EnabledDefault();
   default:
      Zek::assertionFailed( "false", "Ip" );
   }
}

} // namespace Ip
