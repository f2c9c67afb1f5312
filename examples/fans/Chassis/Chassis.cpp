#include "Chassis/Chassis.h"

namespace Chassis {

void
FanSm::handleFan( uint8_t slot ) {
   const auto fan = fans()->fan( slot );
   const bool stands = fan && fan->target() > 0 && fan->rpm() == 0;
   if( stands == alarms()->standing( slot ) ) return;
   if( stands ) {
      alarms()->standingIs( slot );
      alarms()->raisedInc();
   } else {
      alarms()->standingDel( slot );
   }
}

} // namespace Chassis
