#include "platform/Kelmo/MountGroup.h"

#include "platform/Kelmo/Kelmo.h"

namespace Kelmo {

MountGroup::~MountGroup() = default;

const Zek::TypeDescriptor *
MountGroup::fwkType() const {
   return &Zek::TypeOf< MountGroup >::descriptor;
}

} // namespace Kelmo
