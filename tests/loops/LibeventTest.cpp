#include "loops/Libevent.h"
#include "tests/loops/Scenario.h"

namespace {

using Scenario = LoopTests::Scenario< event_base * >;

TEST( Loops, Libevent ) {
   event_base * base = event_base_new();
   {
      Scenario scenario( base );
      struct Tick {
         Scenario & scenario;
         event_base * base;
      } tick{ scenario, base };
      event * ticks = event_new(
         base, -1, EV_PERSIST,
         []( evutil_socket_t, short, void * data ) {
            auto & tick = *static_cast< Tick * >( data );
            if( tick.scenario.tick() ) event_base_loopbreak( tick.base );
         },
         &tick );
      const timeval pause{ 0, Scenario::pause * 1000 };
      event_add( ticks, &pause );
      Kelmo::run( base );
      event_free( ticks );
   }
   event_base_free( base );
}

} // namespace
