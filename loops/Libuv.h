// Servers and mount groups in a loop of libuv.

#pragma once

#include "loops/Served.h"

#include <memory>
#include <system_error>
#include <uv.h>

namespace Kelmo {

/// Held as long as the loop serves an end; the loop runs as long as something is attached. What
/// libuv holds of it is freed in the loop's next turn.
class LibuvAttachment {
 public:
   /// Throws std::system_error when libuv refuses.
   LibuvAttachment( uv_loop_t * loop, Served served ) : handles_( new Handles{ served } ) {
      Handles & handles = *handles_;
      handles.poll.data = handles.prepare.data = handles.timer.data = &handles;
      if( const int error = uv_poll_init( loop, &handles.poll, served.fd() ) ) {
         handles_.reset();
         throw std::system_error( -error, std::generic_category(), "uv_poll_init" );
      }
      uv_prepare_init( loop, &handles.prepare );
      uv_timer_init( loop, &handles.timer );
      uv_poll_start( &handles.poll, UV_READABLE, []( uv_poll_t * poll, int, int ) {
         static_cast< Handles * >( poll->data )->served.onReadable();
      } );
      uv_prepare_start( &handles.prepare, []( uv_prepare_t * prepare ) {
         beforeWaiting( *static_cast< Handles * >( prepare->data ) );
      } );
      // These alone do not keep the loop running.
      uv_unref( reinterpret_cast< uv_handle_t * >( &handles.prepare ) );
      uv_unref( reinterpret_cast< uv_handle_t * >( &handles.timer ) );
   }
   LibuvAttachment( LibuvAttachment && ) = default;
   ~LibuvAttachment() {
      Handles * const handles = handles_.release();
      if( !handles ) return;
      auto close = []( auto & handle ) {
         uv_close( reinterpret_cast< uv_handle_t * >( &handle ), []( uv_handle_t * closed ) {
            auto * handles = static_cast< Handles * >( closed->data );
            if( --handles->open == 0 ) delete handles;
         } );
      };
      close( handles->poll );
      close( handles->prepare );
      close( handles->timer );
   }

 private:
   struct Handles {
      Served served;
      uv_poll_t poll{};
      uv_prepare_t prepare{};
      uv_timer_t timer{};
      int open = 3;
   };

   static void beforeWaiting( Handles & handles ) {
      if( const auto again = handles.served.beforeWaiting() ) {
         uv_update_time( handles.timer.loop );
         const auto left = Served::left< std::chrono::milliseconds >( *again ).count();
         uv_timer_start(
            &handles.timer, []( uv_timer_t * ) {}, uint64_t( left ), 0 );
      } else {
         uv_timer_stop( &handles.timer );
      }
   }

   std::unique_ptr< Handles > handles_;
};

template< LoopEnd End >
[[nodiscard]] LibuvAttachment
attach( uv_loop_t * loop, End & end ) {
   return LibuvAttachment( loop, Served( end ) );
}

} // namespace Kelmo
