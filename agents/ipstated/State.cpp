#include "agents/ipstated/State.h"

#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <fcntl.h>
#include <mutex>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

namespace Ipstated {

namespace {

struct File {
   explicit File( int fd ) : fd( fd ) {}
   ~File() {
      if( fd >= 0 ) close( fd );
   }
   File( const File & ) = delete;
   File & operator=( const File & ) = delete;
   const int fd;
};

[[noreturn]] void
throwErrno( const std::string & what ) {
   throw std::system_error( errno, std::generic_category(), what );
}

void
replace( const std::string & folder, const std::string & text ) {
   const std::string path = folder + "/" + State::fileName;
   const std::string fresh = path + ".new", last = folder + "/" + State::lastName;
   {
      const File file( open( fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600 ) );
      if( file.fd < 0 ) throwErrno( "cannot make '" + fresh + "'" );
      for( size_t at = 0; at < text.size(); ) {
         const ssize_t taken = ::write( file.fd, text.data() + at, text.size() - at );
         if( taken < 0 && errno != EINTR ) throwErrno( "cannot write '" + fresh + "'" );
         at += size_t( taken < 0 ? 0 : taken );
      }
      if( fsync( file.fd ) != 0 ) throwErrno( "cannot write '" + fresh + "'" );
   }
   // Each name stands for a whole file at any moment: the one before gets its second name by way
   // of a third.
   const std::string next = last + ".new";
   if( unlink( next.c_str() ) != 0 && errno != ENOENT )
      throwErrno( "cannot remove '" + next + "'" );
   if( link( path.c_str(), next.c_str() ) == 0 ) {
      if( rename( next.c_str(), last.c_str() ) != 0 ) throwErrno( "cannot make '" + last + "'" );
      // Where both named one file already, that leaves the third name.
      unlink( next.c_str() );
   } else if( errno != ENOENT ) {
      throwErrno( "cannot make '" + next + "'" );
   }
   if( rename( fresh.c_str(), path.c_str() ) != 0 ) throwErrno( "cannot replace '" + path + "'" );
   const File directory( open( folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC ) );
   if( directory.fd < 0 || fsync( directory.fd ) != 0 )
      throwErrno( "cannot write '" + folder + "'" );
}

} // namespace

struct State::Shared {
   ~Shared() {
      if( event >= 0 ) close( event );
   }

   void run( const std::string & folder ) {
      std::unique_lock lock( mutex );
      for( ;; ) {
         changed.wait( lock, [&] { return next || over; } );
         if( !next ) return;
         const std::string text = std::move( *next );
         next.reset();
         writing = true;
         lock.unlock();
         std::string failed;
         try {
            replace( folder, text );
         } catch( const std::exception & error ) {
            failed = error.what();
         }
         lock.lock();
         writing = false;
         ++( failed.empty() ? written : failures );
         result = failed;
         eventfd_write( event, 1 );
         changed.notify_all();
      }
   }

   std::mutex mutex;
   std::condition_variable changed;
   std::optional< std::string > next;
   bool writing = false;
   bool over = false;
   bool started = false;
   uint64_t written = 0;
   uint64_t failures = 0;
   std::string result;
   int event = -1;
};

State::State( const std::string & folder )
   : folder_( folder ),
     shared_( std::make_shared< Shared >() ) {
   const std::string path = folder + "/lock";
   lock_ = open( path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600 );
   if( lock_ < 0 ) throwErrno( "cannot open '" + path + "'" );
   if( flock( lock_, LOCK_EX | LOCK_NB ) != 0 ) {
      const int error = errno;
      close( lock_ );
      errno = error;
      throwErrno( error == EWOULDBLOCK ? "'" + folder + "' is in use by another process"
                                       : "cannot lock '" + path + "'" );
   }
   shared_->event = eventfd( 0, EFD_CLOEXEC | EFD_NONBLOCK );
   if( shared_->event < 0 ) throwErrno( "cannot wait for '" + folder + "'" );
}

State::~State() {
   (void)wait( std::chrono::milliseconds( 200 ) );
   {
      const std::lock_guard lock( shared_->mutex );
      shared_->over = true;
      shared_->next.reset();
   }
   shared_->changed.notify_all();
   close( lock_ );
}

std::optional< std::string >
State::read() const {
   const File file( open( path().c_str(), O_RDONLY | O_CLOEXEC ) );
   if( file.fd < 0 && errno == ENOENT ) return {};
   std::string text;
   char part[64 << 10];
   ssize_t length = -1;
   while( file.fd >= 0 && ( length = ::read( file.fd, part, sizeof part ) ) > 0 ) {
      text.append( part, size_t( length ) );
   }
   if( length < 0 ) throwErrno( "cannot read '" + path() + "'" );
   return text;
}

void
State::write( std::string text ) {
   {
      const std::lock_guard lock( shared_->mutex );
      shared_->next = std::move( text );
      if( !std::exchange( shared_->started, true ) ) {
         // Apart from its owner: a disk that hangs must not keep the process from ending.
         std::thread( [shared = shared_, folder = folder_] { shared->run( folder ); } ).detach();
      }
   }
   shared_->changed.notify_all();
}

bool
State::isIdle() const {
   const std::lock_guard lock( shared_->mutex );
   return !shared_->next && !shared_->writing;
}

int
State::fd() const {
   return shared_->event;
}

std::string
State::takeResult() {
   eventfd_t count;
   (void)eventfd_read( shared_->event, &count );
   const std::lock_guard lock( shared_->mutex );
   return shared_->result;
}

bool
State::wait( std::chrono::milliseconds most ) {
   std::unique_lock lock( shared_->mutex );
   return shared_->changed.wait_for( lock, most,
                                     [&] { return !shared_->next && !shared_->writing; } );
}

uint64_t
State::written() const {
   const std::lock_guard lock( shared_->mutex );
   return shared_->written;
}

uint64_t
State::failures() const {
   const std::lock_guard lock( shared_->mutex );
   return shared_->failures;
}

} // namespace Ipstated
