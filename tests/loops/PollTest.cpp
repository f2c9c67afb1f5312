#include "loops/Poll.h"
#include "tests/loops/Scenario.h"

namespace {

TEST( Loops, Poll ) {
   Kelmo::PollLoop loop;
   LoopTests::Scenario scenario( loop );
   using Clock = Kelmo::PollLoop::Clock;
   const std::chrono::milliseconds pause( scenario.pause );
   for( auto next = Clock::now() + pause;; ) {
      loop.turn( next );
      if( Clock::now() < next ) continue;
      if( scenario.tick() ) break;
      next += pause;
   }
}

TEST( Loops, PollCallsNobodyWhoIsLetGo ) {
   int ends[2];
   ASSERT_EQ( pipe( ends ), 0 );
   ASSERT_EQ( write( ends[1], "x", 1 ), 1 );
   Kelmo::PollLoop loop;
   int calls = 0;
   std::optional< Kelmo::PollLoop::Watch > first, second;
   auto letBothGo = [&] {
      ++calls;
      first.reset();
      second.reset();
      loop.stop();
   };
   first.emplace( loop.watch( ends[0], letBothGo ) );
   second.emplace( loop.watch( ends[0], letBothGo ) );
   loop.run();
   EXPECT_EQ( calls, 1 );
   loop.turn( Kelmo::PollLoop::Clock::now() );
   EXPECT_EQ( calls, 1 );
   close( ends[0] );
   close( ends[1] );
}

} // namespace
