// Where the requests of one agent for other processes' state are put.

#pragma once

#include "framework/Export.h"
#include "framework/Ptr.h"
#include "platform/Kelmo/Mount.h"

namespace Kelmo {

class IPSTATE_EXPORT MountGroup : public Zek::PtrInterface {
 public:
   using Ptr = Zek::Ptr< MountGroup >;
   using PtrConst = Zek::Ptr< const MountGroup >;

   /// Adds a request; does not wait for the mount. What it throws is the group's own matter:
   /// callers hand it on, and the requests made before it stand.
   virtual void doMount( const Mount & mount ) = 0;

   const Zek::TypeDescriptor * fwkType() const override;

 protected:
   MountGroup() = default;
   ~MountGroup() override;
};

} // namespace Kelmo
