#include "framework/Notifier.h"

namespace Zek {

Notifier::~Notifier() = default;

void
Notifier::handleZeroRef() {
   if( notifieeList_.visitInProgress() ) {
      notifieeList_.keep( this );
   } else if( lastReferenceGone() ) {
      notifieeList_.detachAll();
      destroy();
   }
}

} // namespace Zek
