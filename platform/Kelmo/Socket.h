// Unix-domain stream sockets: who is at the other end, and the carrying of a session's bytes.

#pragma once

#include "framework/Export.h"
#include "platform/Kelmo/Session.h"

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

struct sockaddr_un;

namespace Kelmo {

/// A file descriptor that closes with its owner.
class IPSTATE_EXPORT Descriptor {
 public:
   explicit Descriptor( int fd = -1 ) : fd_( fd ) {}
   Descriptor( Descriptor && other ) noexcept : fd_( std::exchange( other.fd_, -1 ) ) {}
   Descriptor & operator=( Descriptor && other ) noexcept {
      std::swap( fd_, other.fd_ );
      return *this;
   }
   ~Descriptor();

   int fd() const { return fd_; }
   explicit operator bool() const { return fd_ >= 0; }

 private:
   int fd_;
};

/// The user at the other end of a connected socket, as it was when the connection was made.
struct IPSTATE_EXPORT Peer {
   uid_t uid;
   pid_t pid;
   std::vector< gid_t > groups; // the primary one first

   /// Throws std::system_error for what is no connected Unix-domain socket.
   static Peer of( int fd );
   /// The user of this process, root, or a member of `group`.
   bool isAdmitted( std::optional< gid_t > group ) const;
   /// "pid 7 of uid 1000".
   std::string text() const;
};

/// The address of a socket file. Throws RangeException for a path that cannot be one.
IPSTATE_EXPORT sockaddr_un socketAddress( const std::string & path );
/// Throws std::system_error with `what` and the text of errno.
[[noreturn]] IPSTATE_EXPORT void throwSystemError( const std::string & what );

/// A connected socket and the session it carries, in a set of descriptors that are waited for
/// together. Never waits itself.
class Connection {
 public:
   /// Joins the epoll set; `mark` comes back with its events. The session must outlive it.
   Connection( Session & session, Descriptor socket, int epoll, void * mark );
   Connection( const Connection & ) = delete;
   Connection & operator=( const Connection & ) = delete;

   /// Gives the session what came, a bounded part of it. False at the end of the stream. Throws
   /// StreamException for what is no stream, std::system_error when reading fails.
   bool read();
   /// Sends what the session has, as far as the peer takes it; asks to be waited for if more is
   /// left.
   void write();
   /// While more than this waits to be sent, nothing is read.
   void mostWaitingIs( size_t bytes ) { mostWaiting_ = bytes; }
   bool everRead() const { return everRead_; }

 private:
   void wantedIs( uint32_t events );

   Session & session_;
   Descriptor socket_;
   int epoll_;
   void * mark_;
   uint32_t wanted_ = 0;
   size_t mostWaiting_ = SIZE_MAX;
   bool everRead_ = false;
};

} // namespace Kelmo
