// Servers and mount groups in an io_context of Asio, stand-alone.
//
// An io_context tells nobody that it is about to wait. So run() stands in for its own: it has what
// is attached send what each turn has changed. Under io_context::run() itself that would go out
// with the next thing that comes in.

#pragma once

#include "loops/Served.h"

#include <asio.hpp>
#include <memory>
#include <utility>
#include <vector>

namespace Kelmo {

/// Held as long as the context serves an end. Let go before the context is destroyed.
class AsioAttachment {
 public:
   AsioAttachment( asio::io_context & context, Served served )
      : state_( std::make_shared< State >( context, served ) ) {
      asio::use_service< Attached >( context ).states.push_back( state_ );
      state_->wait();
      state_->beforeWaiting();
   }
   AsioAttachment( AsioAttachment && ) = default;
   ~AsioAttachment() {
      if( !state_ ) return;
      state_->isOver = true;
      std::erase( asio::use_service< Attached >( state_->context ).states, state_ );
      state_->descriptor.release(); // it is the end's
      state_->timer.cancel();
   }

   /// As io_context::run() does: until the context is stopped.
   static void run( asio::io_context & context ) {
      Attached & attached = asio::use_service< Attached >( context );
      do {
         for( const auto & state : std::vector( attached.states ) ) state->beforeWaiting();
      } while( context.run_one() > 0 && ( context.poll(), !context.stopped() ) );
   }

 private:
   struct State : std::enable_shared_from_this< State > {
      State( asio::io_context & of, Served end )
         : context( of ),
           served( end ),
           descriptor( of, end.fd() ),
           timer( of ) {}

      void wait() {
         descriptor.async_wait( asio::posix::descriptor_base::wait_read,
                                [self = shared_from_this()]( const asio::error_code & error ) {
                                   if( error || self->isOver ) return;
                                   self->served.onReadable();
                                   if( !self->isOver ) self->wait();
                                } );
      }
      void beforeWaiting() {
         if( isOver ) return;
         const auto again = served.beforeWaiting();
         if( again == wanted ) return;
         wanted = again;
         timer.cancel();
         if( !again ) return;
         timer.expires_at( *again );
         timer.async_wait( [self = shared_from_this()]( const asio::error_code & error ) {
            if( error ) return;
            self->wanted.reset();
            self->beforeWaiting();
         } );
      }

      asio::io_context & context;
      Served served;
      asio::posix::stream_descriptor descriptor;
      asio::steady_timer timer;
      std::optional< Served::Clock::time_point > wanted;
      bool isOver = false;
   };

   /// What a context serves.
   class Attached : public asio::execution_context::service {
    public:
      inline static asio::execution_context::id id;
      explicit Attached( asio::execution_context & context ) : service( context ) {}
      std::vector< std::shared_ptr< State > > states;

    private:
      void shutdown() override { states.clear(); }
   };

   std::shared_ptr< State > state_;
};

template< LoopEnd End >
[[nodiscard]] AsioAttachment
attach( asio::io_context & loop, End & end ) {
   return AsioAttachment( loop, Served( end ) );
}

inline void
run( asio::io_context & loop ) {
   AsioAttachment::run( loop );
}

} // namespace Kelmo
