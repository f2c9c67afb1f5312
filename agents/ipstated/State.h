// A file that survives what happens to the process and the machine.
//
// Each text becomes the whole of the file: it is written to another one, brought to the disk and
// given its name; the one before stays beside it. A crash at any moment leaves the old text or the
// new one. That is done by a thread: a slow or full disk delays nobody. Of texts that come while
// one is being written, the last counts.

#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace Ipstated {

class State {
 public:
   static constexpr const char * fileName = "intent";
   static constexpr const char * lastName = "intent.last"; ///< the one before

   /// Takes the folder for this process: no two may write there. Throws std::system_error saying
   /// what failed, or that another process has it.
   explicit State( const std::string & folder );
   /// Waits a while for what is being written.
   ~State();
   State( const State & ) = delete;
   State & operator=( const State & ) = delete;

   std::string path() const { return folder_ + "/" + fileName; }
   std::string lastPath() const { return folder_ + "/" + lastName; }
   /// What the file holds, none without one. Throws std::system_error.
   std::optional< std::string > read() const;

   /// From the first one on a thread writes.
   void write( std::string text );
   /// No text waits to be on the disk, be it for want of success.
   bool isIdle() const;
   /// Readable when a text is on the disk, or cannot be.
   int fd() const;
   /// Why the last text could not be written; empty when it was. Makes fd() unreadable.
   std::string takeResult();
   /// Lets the last text come to the disk; false when that takes longer.
   bool wait( std::chrono::milliseconds most );

   uint64_t written() const;
   uint64_t failures() const;

 private:
   struct Shared;
   const std::string folder_;
   int lock_ = -1;
   const std::shared_ptr< Shared > shared_;
};

} // namespace Ipstated
