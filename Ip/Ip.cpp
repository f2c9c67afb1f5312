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

} // namespace Ip
