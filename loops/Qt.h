// Servers and mount groups in the event loop of a thread of Qt's (5 or 6), QtCore alone.
//
// Members of ours are called slots and emit, for which Qt has macros: compile with QT_NO_KEYWORDS
// (CMake: target_compile_definitions; qmake: CONFIG += no_keywords), or include our headers first.

#pragma once

#include "loops/Served.h"

#include <QAbstractEventDispatcher>
#include <QObject>
#include <QSocketNotifier>
#include <QTimer>
#include <memory>
#include <stdexcept>

namespace Kelmo {

/// Held as long as the loop serves an end.
class QtAttachment {
 public:
   /// In the loop of the calling thread, which must have one by now. Throws std::logic_error if it
   /// has none.
   explicit QtAttachment( Served served ) : state_( new State( served ) ) {}

 private:
   struct State {
      explicit State( Served end ) : served( end ), notifier( end.fd(), QSocketNotifier::Read ) {
         QAbstractEventDispatcher * const loop = QAbstractEventDispatcher::instance();
         if( !loop ) {
            throw std::logic_error( "no event loop in this thread: make a QCoreApplication first" );
         }
         timer.setSingleShot( true );
         timer.setTimerType( Qt::PreciseTimer );
         QObject::connect( &notifier, &QSocketNotifier::activated, &timer,
                           [this] { served.onReadable(); } );
         QObject::connect( &timer, &QTimer::timeout, &timer, [this] { beforeWaiting(); } );
         QObject::connect( loop, &QAbstractEventDispatcher::aboutToBlock, &timer,
                           [this] { beforeWaiting(); } );
         beforeWaiting();
      }
      void beforeWaiting() {
         const auto again = served.beforeWaiting();
         if( !again ) {
            timer.stop();
         } else if( !timer.isActive() || again != wanted ) {
            timer.start( Served::left< std::chrono::milliseconds >( *again ) );
         }
         wanted = again;
      }

      Served served;
      QSocketNotifier notifier;
      QTimer timer;
      std::optional< Served::Clock::time_point > wanted;
   };

   std::unique_ptr< State > state_;
};

/// In the loop of the thread that `context` lives in, which is the calling one.
template< LoopEnd End >
[[nodiscard]] QtAttachment
attach( QObject &, End & end ) {
   return QtAttachment( Served( end ) );
}

} // namespace Kelmo
