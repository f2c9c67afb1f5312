#include "framework/Notifier.h"

#include <cstddef>

namespace Zek {

Notifier::~Notifier() = default;

const std::type_info &
Notifier::zekCallbackType() const {
   return typeid( *this );
}

// A list is a notifier's, at the same place in each: the compilers that this is for know it of
// classes like this one too.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"

const Notifier &
Notifier::of( const NotifieeList & list ) {
   return *reinterpret_cast< const Notifier * >( reinterpret_cast< const char * >( &list ) -
                                                 offsetof( Notifier, notifieeList_ ) );
}

#pragma GCC diagnostic pop

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
