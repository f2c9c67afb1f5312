// Qt first, whose macros stand in the way of names in headers behind them.
#define QT_NO_KEYWORDS
#include <QCoreApplication>

#include "loops/Qt.h"
#include "platform/Vistrel/Trace.h"
#include "tests/loops/Scenario.h"

namespace {

TEST( Loops, Qt ) {
   int argc = 1;
   char name[] = "loops_test";
   char * argv[] = { name, nullptr };
   QCoreApplication application( argc, argv );
   LoopTests::Scenario< QObject > scenario( application );
   QTimer ticks;
   QObject::connect( &ticks, &QTimer::timeout, &ticks, [&] {
      if( scenario.tick() ) application.quit();
   } );
   ticks.start( scenario.pause );
   application.exec();
}

} // namespace
