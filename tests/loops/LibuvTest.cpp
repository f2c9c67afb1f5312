#include "loops/Libuv.h"
#include "tests/loops/Scenario.h"

namespace {

using Scenario = LoopTests::Scenario< uv_loop_t * >;

TEST( Loops, Libuv ) {
   uv_loop_t loop;
   uv_loop_t * at = &loop;
   ASSERT_EQ( uv_loop_init( at ), 0 );
   {
      Scenario scenario( at );
      uv_timer_t ticks;
      uv_timer_init( at, &ticks );
      ticks.data = &scenario;
      uv_timer_start(
         &ticks,
         []( uv_timer_t * ticks ) {
            if( static_cast< Scenario * >( ticks->data )->tick() ) uv_stop( ticks->loop );
         },
         Scenario::pause, Scenario::pause );
      uv_run( at, UV_RUN_DEFAULT );
      uv_close( reinterpret_cast< uv_handle_t * >( &ticks ), nullptr );
      uv_run( at, UV_RUN_NOWAIT );
   }
   // What the attachments left for the loop to free.
   uv_run( at, UV_RUN_DEFAULT );
   EXPECT_EQ( uv_loop_close( at ), 0 );
}

} // namespace
