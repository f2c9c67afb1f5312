// What VirtualIp.zek declares and cannot say.

#include "VirtualIp/VirtualIp.h"

namespace VirtualIp {

// -- VrfIpWithMaskPair ------------------------------------------------------------------------

VrfIpPair
VrfIpWithMaskPair::vrfIp() const {
   return { vrfName(), ipWithMask().addr() };
}

} // namespace VirtualIp
