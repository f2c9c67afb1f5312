// Servers and mount groups in a loop of systemd's sd-event.

#pragma once

#include "loops/Served.h"

#include <memory>
#include <sys/epoll.h>
#include <system_error>
#include <systemd/sd-event.h>
#include <time.h>

namespace Kelmo {

/// Held as long as the loop serves an end.
class SdEventAttachment {
 public:
   /// Throws std::system_error when sd-event refuses.
   SdEventAttachment( sd_event * loop, Served served ) : state_( new State{ served } ) {
      check(
         sd_event_add_io( loop, &state_->readable, served.fd(), EPOLLIN, onReadable, state_.get() ),
         "sd_event_add_io" );
      check( sd_event_add_time( loop, &state_->timer, CLOCK_MONOTONIC, 0, 0, onTime, nullptr ),
             "sd_event_add_time" );
      check( sd_event_source_set_enabled( state_->timer, SD_EVENT_OFF ), "sd_event_add_time" );
      // Called in every turn, before the loop waits.
      check( sd_event_source_set_prepare( state_->readable, beforeWaiting ),
             "sd_event_source_set_prepare" );
   }

 private:
   struct State {
      Served served;
      sd_event_source * readable = nullptr;
      sd_event_source * timer = nullptr;
      ~State() {
         sd_event_source_disable_unref( readable );
         sd_event_source_disable_unref( timer );
      }
   };

   static void check( int result, const char * what ) {
      if( result < 0 ) throw std::system_error( -result, std::generic_category(), what );
   }
   static int onReadable( sd_event_source *, int, uint32_t, void * state ) {
      static_cast< State * >( state )->served.onReadable();
      return 0;
   }
   static int onTime( sd_event_source *, uint64_t, void * ) { return 0; }
   static int beforeWaiting( sd_event_source *, void * data ) {
      State & state = *static_cast< State * >( data );
      const auto again = state.served.beforeWaiting();
      if( again ) {
         // Clock and CLOCK_MONOTONIC are one.
         using std::chrono::ceil, std::chrono::microseconds;
         const auto at = ceil< microseconds >( again->time_since_epoch() ).count();
         sd_event_source_set_time( state.timer, uint64_t( at ) );
      }
      sd_event_source_set_enabled( state.timer, again ? SD_EVENT_ONESHOT : SD_EVENT_OFF );
      return 0;
   }

   std::unique_ptr< State > state_;
};

template< LoopEnd End >
[[nodiscard]] SdEventAttachment
attach( sd_event * loop, End & end ) {
   return SdEventAttachment( loop, Served( end ) );
}

} // namespace Kelmo
