// What a loop does for a server or a mount group: wait for its descriptor, tell it the time, and
// have it send before the loop waits. The headers beside this one do so for one kind of loop each:
//
//    PollLoop loop;                                       // Poll.h
//    auto served = Kelmo::attach( loop, server );         // as long as this is held
//
// and likewise with an event_base of libevent (Libevent.h), a uv_loop_t (Libuv.h), an
// asio::io_context (Asio.h), an sd_event (SdEvent.h) or a QObject (Qt.h). Each needs its library
// only where it is included. What is attached is let go before it is destroyed, and may be let go
// in any callback but its own.

#pragma once

#include <algorithm>
#include <chrono>
#include <concepts>
#include <optional>

namespace Kelmo {

/// A Server, a SocketMountGroup, or what is served like them.
template< class T >
concept LoopEnd = requires( T & end ) {
   { end.fd() } -> std::convertible_to< int >;
   end.onReadable();
   end.flush();
};

/// One that wants to be called when time has passed.
template< class T >
concept TimedLoopEnd = LoopEnd< T > &&
   requires( T & end, std::chrono::steady_clock::time_point now ) {
   {
      end.timePassed( now )
      } -> std::convertible_to< std::optional< std::chrono::steady_clock::time_point > >;
};

/// An end of whatever type. For the loops' headers.
class Served {
 public:
   using Clock = std::chrono::steady_clock;

   template< LoopEnd End >
   explicit Served( End & end )
      : end_( &end ),
        fd_( end.fd() ),
        onReadable_( []( void * end ) { static_cast< End * >( end )->onReadable(); } ),
        beforeWaiting_(
           []( void * end ) { return beforeWaiting( *static_cast< End * >( end ) ); } ) {}

   int fd() const { return fd_; }
   void onReadable() const { onReadable_( end_ ); }
   /// What time has brought is done, what has changed goes out. When to be called again at the
   /// latest.
   std::optional< Clock::time_point > beforeWaiting() const { return beforeWaiting_( end_ ); }

   /// From now until then, not below zero, and never rounded to before it.
   template< class Unit >
   static Unit left( Clock::time_point then ) {
      return std::max( std::chrono::ceil< Unit >( then - Clock::now() ), Unit( 0 ) );
   }

 private:
   template< class End >
   static std::optional< Clock::time_point > beforeWaiting( End & end ) {
      std::optional< Clock::time_point > again;
      if constexpr( TimedLoopEnd< End > ) again = end.timePassed( Clock::now() );
      end.flush();
      return again;
   }

   void * end_;
   int fd_;
   void ( *onReadable_ )( void * );
   std::optional< Clock::time_point > ( *beforeWaiting_ )( void * );
};

} // namespace Kelmo
