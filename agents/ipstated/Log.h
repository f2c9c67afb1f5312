// What the agent has to say of itself, on standard error.
//
// Logging never waits: what a stuck reader does not take is dropped and counted. Problems that
// repeat are counted too: of texts that differ in numbers alone, a few of each minute are written,
// then one that says how many more there were. Under the journal lines carry their priority in its
// form and no time, which it adds; else the time, in UTC, and the level.

#pragma once

#include "agents/ipstated/Outlet.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace Ipstated {

/// With the journal's numbers.
enum class LogLevel { error = 3, warning = 4, notice = 5, info = 6, debug = 7 };

/// "error", "warning", "notice", "info", "debug"; none for other texts.
std::optional< LogLevel > logLevel( std::string_view name );
const char * nameOf( LogLevel level );

class Log {
 public:
   using Time = std::chrono::steady_clock::time_point;
   static constexpr size_t mostBytes = 64 << 10; ///< that wait to be taken
   static constexpr unsigned mostRepeats = 5;    ///< of a kind in a minute
   static constexpr size_t mostKinds = 64;       ///< told apart in a minute
   static constexpr auto period = std::chrono::minutes( 1 );

   /// `fd` stays the caller's. Whether it is the journal's is found out.
   explicit Log( int fd );
   ~Log();
   Log( const Log & ) = delete;
   Log & operator=( const Log & ) = delete;

   void levelIs( LogLevel most ) { most_ = most; }

   /// One line; bytes that no terminal should get are written as \xNN. Throws nothing.
   void write( LogLevel level, std::string_view text,
               Time now = std::chrono::steady_clock::now() ) noexcept;
   void error( std::string_view text ) noexcept { write( LogLevel::error, text ); }
   void warning( std::string_view text ) noexcept { write( LogLevel::warning, text ); }
   void notice( std::string_view text ) noexcept { write( LogLevel::notice, text ); }
   void info( std::string_view text ) noexcept { write( LogLevel::info, text ); }

   /// Takes all traces from now on, whatever the level: who switches them on wants them.
   void tracesAreTaken();

   bool isWaiting() const { return !bytes_.empty(); }
   int fd() const { return outlet_.fd(); }
   /// Writes what is taken without waiting.
   void flush() noexcept;
   /// When serve() wants to be called, to tell what was held back.
   std::optional< Time > deadline() const;
   void serve( Time now );

   /// Lines that a stuck reader never got, and those that were counted instead of written.
   uint64_t dropped() const { return dropped_; }
   uint64_t repeated() const { return repeated_; }

 private:
   struct Kind {
      unsigned written = 0;
      uint64_t more = 0;
      LogLevel level = LogLevel::error;
      std::string last;
   };

   void tellRepeated( Time now );
   void append( LogLevel level, std::string_view text );

   Outlet outlet_;
   bool journal_ = false;
   bool traces_ = false;
   LogLevel most_ = LogLevel::notice;
   std::string bytes_;
   uint64_t dropped_ = 0;
   uint64_t droppedTold_ = 0;
   uint64_t repeated_ = 0;
   Time periodEnd_{};
   std::unordered_map< std::string, Kind > kinds_; ///< of this period
};

} // namespace Ipstated
