// A descriptor that the process was given, as standard output, written to without ever waiting.
//
// Such a descriptor is shared with other processes: to make it non-blocking would make it so for
// them too. A pipe or terminal is therefore opened once more, a socket asked with each send. Where
// that is not possible (a terminal of another user), no more is written than what surely fits.

#pragma once

#include <string_view>
#include <sys/types.h>

namespace Ipstated {

class Outlet {
 public:
   /// `fd` stays the caller's.
   explicit Outlet( int fd );
   ~Outlet();
   Outlet( const Outlet & ) = delete;
   Outlet & operator=( const Outlet & ) = delete;

   /// To wait for until it can be written to.
   int fd() const { return fd_; }

   /// How many bytes were taken; 0 when none can be at this moment, -1 with errno when none can be
   /// any more.
   ssize_t write( std::string_view bytes );

 private:
   enum class Kind { nonBlocking, socket, pollFirst };

   int fd_;
   Kind kind_ = Kind::nonBlocking;
   bool opened_ = false;
   size_t most_ = 0; ///< that surely fits when the descriptor is ready
};

} // namespace Ipstated
