// Standard output as a consumer like any other: who reads it slowly, or not at all, delays nobody.
//
// Text goes out in its order. While the reader lags behind, changes of the same thing join: one
// line tells what it was when the reader fell behind and what it is in the end, and what is again
// as it was is not told. So what waits is bounded by the state, not by time. When the reader has
// caught up, a line says how many changes were merged.

#pragma once

#include "agents/ipstated/Change.h"
#include "agents/ipstated/Outlet.h"

#include <cstdint>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>

namespace Ipstated {

class Output {
 public:
   /// Bytes that wait in their order before changes are merged.
   static constexpr size_t mostBytes = 1 << 20;

   explicit Output( int fd );

   /// Text that is written whatever its length.
   void write( std::string_view text );
   /// A line for a change, now or merged with later ones.
   void change( const Change & change );

   /// Writes what is taken without waiting.
   void flush();
   /// Something waits for fd() to become writable.
   bool isWaiting() const { return open_ && ( !bytes_.empty() || !waiting_.empty() ); }
   int fd() const { return outlet_.fd(); }

   /// Whether it goes on: nobody closed it, and somebody reads.
   bool open() const { return open_; }
   void close() { open_ = false; }
   /// Throws std::system_error if something could not be written, for another reason than that
   /// nobody reads.
   void check() const;

   /// Changes that were told by the line of another.
   uint64_t merged() const { return merged_; }
   /// Things whose change is still to be told.
   size_t waiting() const { return waiting_.size(); }

 private:
   void refill();

   Outlet outlet_;
   std::string bytes_;
   size_t written_ = 0; ///< of them
   std::list< Change > waiting_;
   std::unordered_map< std::string, std::list< Change >::iterator > byWhat_;
   uint64_t merged_ = 0;
   uint64_t mergedTold_ = 0;
   bool open_ = true;
   int error_ = 0;
};

} // namespace Ipstated
