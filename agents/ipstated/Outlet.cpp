#include "agents/ipstated/Outlet.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Ipstated {

Outlet::Outlet( int fd ) : fd_( fd ) {
   struct stat what {};
   fstat( fd, &what );
   if( S_ISSOCK( what.st_mode ) ) {
      kind_ = Kind::socket;
   } else if( S_ISFIFO( what.st_mode ) || S_ISCHR( what.st_mode ) ) {
      const std::string path = "/proc/self/fd/" + std::to_string( fd );
      const int again = open( path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC );
      opened_ = again >= 0;
      if( opened_ ) {
         fd_ = again;
      } else {
         kind_ = Kind::pollFirst;
         most_ = S_ISFIFO( what.st_mode ) ? PIPE_BUF : 64;
      }
   } // else a file, which takes what it is given
}

Outlet::~Outlet() {
   if( opened_ ) close( fd_ );
}

ssize_t
Outlet::write( std::string_view bytes ) {
   ssize_t taken = -1;
   if( kind_ == Kind::socket ) {
      taken = send( fd_, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL );
   } else if( kind_ == Kind::nonBlocking ) {
      taken = ::write( fd_, bytes.data(), bytes.size() );
   } else {
      pollfd ready{ fd_, POLLOUT, 0 };
      if( poll( &ready, 1, 0 ) <= 0 ) return 0;
      taken = ::write( fd_, bytes.data(), std::min( bytes.size(), most_ ) );
   }
   const bool later = taken < 0 && ( errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR );
   return later ? 0 : taken;
}

} // namespace Ipstated
