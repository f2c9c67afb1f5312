#include "framework/Notifier.h"

namespace Zek {

Notifier::~Notifier() = default;

const std::type_info &
Notifier::zekCallbackType() const {
   return typeid( *this );
}

void
Notifier::handleZeroRef() {
   if( notifieeList_.visitInProgress() ) {
      notifieeList_.keep( this );
   } else if( lastReferenceGone() ) {
      if( !notifieeList_.idle() ) notifieeList_.tellLeaving();
      notifieeList_.detachAll();
      destroy();
   }
}

} // namespace Zek
