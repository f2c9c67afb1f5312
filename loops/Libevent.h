// Servers and mount groups in a loop of libevent (2.0 or later).
//
// libevent tells nobody that it is about to wait. So run() stands in for event_base_dispatch(): it
// has what is attached send what each turn has changed. Under event_base_dispatch() itself that
// would go out with the next thing that comes in.

#pragma once

#include "loops/Served.h"

#include <event2/event.h>
#include <map>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

namespace Kelmo {

/// Held as long as the loop serves an end. Let go before the event_base is freed.
class LibeventAttachment {
 public:
   /// Throws std::runtime_error when libevent refuses.
   LibeventAttachment( event_base * base, Served served )
      : state_( std::make_shared< State >( State{ base, served } ) ) {
      State & state = *state_;
      auto onReadable = []( evutil_socket_t, short, void * state ) {
         static_cast< State * >( state )->served.onReadable();
      };
      state.readable.reset(
         event_new( base, served.fd(), EV_READ | EV_PERSIST, onReadable, &state ) );
      state.timer.reset( event_new(
         base, -1, 0,
         []( evutil_socket_t, short, void * state ) {
            static_cast< State * >( state )->beforeWaiting();
         },
         &state ) );
      if( !state.readable || !state.timer || event_add( state.readable.get(), nullptr ) != 0 ) {
         throw std::runtime_error( "libevent does not wait for a descriptor" );
      }
      attached()[base].push_back( state_ );
      state.beforeWaiting();
   }
   LibeventAttachment( LibeventAttachment && ) = default;
   ~LibeventAttachment() {
      if( !state_ ) return;
      auto at = attached().find( state_->base );
      std::erase_if( at->second, [&]( const auto & other ) { return other == state_; } );
      if( at->second.empty() ) attached().erase( at );
      state_->readable.reset();
      state_->timer.reset();
   }

   /// As event_base_dispatch() does: until event_base_loopexit() or event_base_loopbreak() is
   /// called or nothing is left to wait for.
   static void run( event_base * base ) {
      do {
         if( const auto at = attached().find( base ); at != attached().end() ) {
            for( const auto & state : std::vector( at->second ) ) state->beforeWaiting();
         }
      } while( event_base_loop( base, EVLOOP_ONCE ) == 0 && !event_base_got_exit( base ) &&
               !event_base_got_break( base ) );
   }

 private:
   struct Free {
      void operator()( event * made ) const { event_free( made ); }
   };
   struct State {
      event_base * base;
      Served served;
      std::unique_ptr< event, Free > readable{};
      std::unique_ptr< event, Free > timer{};

      void beforeWaiting() {
         if( !timer ) return; // let go meanwhile
         if( const auto again = served.beforeWaiting() ) {
            const auto left = Served::left< std::chrono::microseconds >( *again ).count();
            const timeval pause{ left / 1000000, left % 1000000 };
            event_add( timer.get(), &pause );
         } else {
            event_del( timer.get() );
         }
      }
   };
   /// A loop belongs to a thread.
   static std::map< event_base *, std::vector< std::shared_ptr< State > > > & attached() {
      static thread_local std::map< event_base *, std::vector< std::shared_ptr< State > > > all;
      return all;
   }

   std::shared_ptr< State > state_;
};

template< LoopEnd End >
[[nodiscard]] LibeventAttachment
attach( event_base * loop, End & end ) {
   return LibeventAttachment( loop, Served( end ) );
}

inline void
run( event_base * loop ) {
   LibeventAttachment::run( loop );
}

} // namespace Kelmo
