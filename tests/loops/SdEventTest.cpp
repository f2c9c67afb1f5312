#include "loops/SdEvent.h"
#include "tests/loops/Scenario.h"

namespace {

using Scenario = LoopTests::Scenario< sd_event * >;

TEST( Loops, SdEvent ) {
   sd_event * loop = nullptr;
   ASSERT_GE( sd_event_new( &loop ), 0 );
   {
      Scenario scenario( loop );
      auto tick = []( sd_event_source * timer, uint64_t, void * data ) {
         if( static_cast< Scenario * >( data )->tick() ) {
            return sd_event_exit( sd_event_source_get_event( timer ), 0 );
         }
         return sd_event_source_set_time_relative( timer, Scenario::pause * 1000 );
      };
      sd_event_source * ticks = nullptr;
      ASSERT_GE( sd_event_add_time( loop, &ticks, CLOCK_MONOTONIC, 0, 0, tick, &scenario ), 0 );
      sd_event_source_set_enabled( ticks, SD_EVENT_ON );
      EXPECT_EQ( sd_event_loop( loop ), 0 );
      sd_event_source_unref( ticks );
   }
   sd_event_unref( loop );
}

} // namespace
