#include "loops/Asio.h"
#include "tests/loops/Scenario.h"

namespace {

TEST( Loops, Asio ) {
   asio::io_context context;
   LoopTests::Scenario scenario( context );
   asio::steady_timer ticks( context );
   std::function< void() > next = [&] {
      ticks.expires_after( std::chrono::milliseconds( scenario.pause ) );
      ticks.async_wait( [&]( const asio::error_code & ) {
         if( scenario.tick() ) {
            context.stop();
         } else {
            next();
         }
      } );
   };
   next();
   Kelmo::run( context );
}

} // namespace
