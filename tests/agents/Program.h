// A program of the build for a test, its output in pipes.

#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace Ipstated::Scripted {

using Clock = std::chrono::steady_clock;
using Lines = std::vector< std::string >;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr auto patience = seconds( 20 );

class Program {
 public:
   static constexpr int smallPipe = 4096; ///< the smallest there is

   explicit Program( const std::string & options, const std::string & redirection = "",
                     const std::string & name = "ipstated", int pipeBytes = 0 ) {
      int outputs[2], errors[2];
      EXPECT_EQ( pipe2( outputs, O_CLOEXEC ), 0 );
      if( pipeBytes ) {
         EXPECT_EQ( fcntl( outputs[0], F_SETPIPE_SZ, pipeBytes ), pipeBytes );
      }
      EXPECT_EQ( pipe2( errors, O_CLOEXEC ), 0 );
      const std::string command =
         "exec " IPSTATE_BINARY_DIR "/" + name + " " + options + " " + redirection;
      posix_spawn_file_actions_t actions;
      posix_spawn_file_actions_init( &actions );
      posix_spawn_file_actions_adddup2( &actions, outputs[1], STDOUT_FILENO );
      posix_spawn_file_actions_adddup2( &actions, errors[1], STDERR_FILENO );
      const char * const words[] = { "sh", "-c", command.c_str(), nullptr };
      EXPECT_EQ( posix_spawn( &pid_, "/bin/sh", &actions, nullptr,
                              const_cast< char * const * >( words ), environ ),
                 0 );
      posix_spawn_file_actions_destroy( &actions );
      close( outputs[1] );
      close( errors[1] );
      output_ = outputs[0];
      errors_ = errors[0];
   }

   ~Program() {
      if( pid_ > 0 ) {
         kill( pid_, SIGKILL );
         waitpid( pid_, nullptr, 0 );
      }
      stopReading();
      close( errors_ );
   }

   /// The next line of output, or none when it ends or says nothing for long.
   std::optional< std::string > line() {
      size_t at;
      while( ( at = text_.find( '\n' ) ) == std::string::npos ) {
         if( !more( output_, text_, Clock::now() + patience ) ) {
            return {};
         }
      }
      std::string line = text_.substr( 0, at );
      text_.erase( 0, at + 1 );
      return line;
   }

   /// The next `count` lines that tell of sources, in alphabetical order: which registry comes
   /// first is nobody's business.
   Lines sources( size_t count ) {
      Lines lines;
      while( lines.size() < count ) {
         const auto next = line();
         if( !next ) {
            break;
         }
         if( next->rfind( "source  ", 0 ) == 0 ) {
            lines.push_back( *next );
         }
      }
      std::sort( lines.begin(), lines.end() );
      return lines;
   }

   std::string allOutput() { return rest( output_ ); }
   std::string allErrors() { return rest( errors_ ); }

   void stopReading() {
      if( output_ >= 0 ) {
         close( std::exchange( output_, -1 ) );
      }
   }

   /// How much of the output is written and not read.
   int unread() const {
      int bytes = 0;
      EXPECT_EQ( ioctl( output_, FIONREAD, &bytes ), 0 );
      return bytes;
   }

   void signal( int number ) { kill( pid_, number ); }
   pid_t pid() const { return pid_; }
   /// False when it has ended; status() then has nothing to wait for.
   bool isRunning() const {
      siginfo_t info{};
      return pid_ > 0 && waitid( P_PID, id_t( pid_ ), &info, WEXITED | WNOHANG | WNOWAIT ) == 0 &&
             info.si_pid == 0;
   }

   /// The status it ends with by itself: below 0 for a signal, and none when it does not end.
   std::optional< int > status() {
      for( auto end = Clock::now() + patience; Clock::now() < end; ) {
         int status;
         if( waitpid( pid_, &status, WNOHANG ) == pid_ ) {
            pid_ = -1;
            return WIFEXITED( status ) ? WEXITSTATUS( status ) : -WTERMSIG( status );
         }
         usleep( 5000 );
      }
      return {};
   }

 private:
   static bool more( int fd, std::string & text, Clock::time_point end ) {
      pollfd wait{ fd, POLLIN, 0 };
      const auto left = std::chrono::ceil< milliseconds >( end - Clock::now() ).count();
      char part[4096];
      const ssize_t length =
         left > 0 && poll( &wait, 1, int( left ) ) > 0 ? read( fd, part, sizeof part ) : 0;
      text.append( part, size_t( std::max< ssize_t >( length, 0 ) ) );
      return length > 0;
   }

   static std::string rest( int fd ) {
      std::string text;
      while( more( fd, text, Clock::now() + patience ) ) {}
      return text;
   }

   pid_t pid_ = -1;
   int output_ = -1;
   int errors_ = -1;
   std::string text_;
};

} // namespace Ipstated::Scripted
