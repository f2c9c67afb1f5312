// A loop for agents that have none: poll(2), callbacks for descriptors, and what is attached.

#pragma once

#include "loops/Served.h"

#include <cerrno>
#include <functional>
#include <memory>
#include <poll.h>
#include <system_error>
#include <utility>
#include <vector>

namespace Kelmo {

class PollLoop {
 public:
   using Clock = Served::Clock;

   PollLoop() = default;
   PollLoop( const PollLoop & ) = delete;
   PollLoop & operator=( const PollLoop & ) = delete;

   /// What is held of a callback; it is called no more when this goes. The loop outlives it.
   class Watch {
    public:
      Watch( Watch && ) = default;
      Watch & operator=( Watch && other ) {
         std::swap( entry_, other.entry_ );
         return *this;
      }
      ~Watch() {
         if( entry_ ) entry_->isOver = true;
      }

    private:
      friend class PollLoop;
      struct Entry {
         int fd;
         std::function< void() > onReadable;
         std::function< std::optional< Clock::time_point >() > beforeWaiting; // may be empty
         bool isOver = false;
      };
      explicit Watch( std::shared_ptr< Entry > entry ) : entry_( std::move( entry ) ) {}
      std::shared_ptr< Entry > entry_;
   };

   /// Calls when there is something to read, or the other end is gone.
   [[nodiscard]] Watch watch( int fd, std::function< void() > onReadable ) {
      return add( { fd, std::move( onReadable ), {} } );
   }
   [[nodiscard]] Watch serve( Served served ) {
      return add( { served.fd(), [served] { served.onReadable(); },
                    [served] { return served.beforeWaiting(); } } );
   }

   /// Waits for something to do, until `latest` if one is given, and does it. Throws
   /// std::system_error when it cannot wait.
   void turn( std::optional< Clock::time_point > latest = {} ) {
      std::erase_if( entries_, []( const auto & entry ) { return entry->isOver; } );
      const auto entries = entries_; // callbacks may add some, and let some go
      for( const auto & entry : entries ) {
         if( entry->isOver || !entry->beforeWaiting ) continue;
         if( const auto again = entry->beforeWaiting() )
            latest = std::min( latest.value_or( *again ), *again );
      }
      std::vector< pollfd > waits;
      for( const auto & entry : entries )
         waits.push_back( { entry->isOver ? -1 : entry->fd, POLLIN, 0 } );
      int timeout = -1;
      if( latest ) {
         using Milliseconds = std::chrono::milliseconds;
         timeout = int(
            std::min( Served::left< Milliseconds >( *latest ), Milliseconds( 3600000 ) ).count() );
      }
      if( poll( waits.data(), nfds_t( waits.size() ), timeout ) < 0 && errno != EINTR ) {
         throw std::system_error( errno, std::generic_category(), "poll" );
      }
      for( size_t i = 0; i < entries.size(); ++i ) {
         if( waits[i].revents && !entries[i]->isOver ) entries[i]->onReadable();
      }
   }
   /// Turns until stop() is called.
   void run() {
      for( stopped_ = false; !stopped_; ) turn();
   }
   void stop() { stopped_ = true; }

 private:
   Watch add( Watch::Entry entry ) {
      entries_.push_back( std::make_shared< Watch::Entry >( std::move( entry ) ) );
      return Watch( entries_.back() );
   }

   std::vector< std::shared_ptr< Watch::Entry > > entries_;
   bool stopped_ = false;
};

template< LoopEnd End >
[[nodiscard]] PollLoop::Watch
attach( PollLoop & loop, End & end ) {
   return loop.serve( Served( end ) );
}

} // namespace Kelmo
