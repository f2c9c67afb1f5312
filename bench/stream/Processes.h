// What the two processes of a measurement share: a clock, a page of memory, and who waits for whom.

#pragma once

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <new>
#include <sched.h>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace bench {

/// Nanoseconds of the clock that all processes have in common.
inline uint64_t
now() {
   timespec time;
   clock_gettime( CLOCK_MONOTONIC, &time );
   return uint64_t( time.tv_sec ) * 1'000'000'000 + uint64_t( time.tv_nsec );
}

[[noreturn]] inline void
die( const std::string & what ) {
   std::perror( what.c_str() );
   _exit( 2 );
}

/// In memory that the children have, too.
struct Shared {
   std::atomic< uint64_t > go{ 0 };       // the writer has all records
   std::atomic< uint64_t > synced{ 0 };   // nanoseconds of the first synchronisation
   std::atomic< uint64_t > arrived{ 0 };  // when the last update that was waited for arrived
   std::atomic< uint64_t > received{ 0 }; // records or messages that the reader has got
   double result = 0;

   static Shared * make() {
      void * at = mmap( nullptr, sizeof( Shared ), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0 );
      if( at == MAP_FAILED ) die( "mmap" );
      return new( at ) Shared;
   }
};

inline void
waitFor( const std::atomic< uint64_t > & value ) {
   while( !value.load( std::memory_order_acquire ) ) usleep( 100 );
}

/// Where a process runs: on one processor, so that a writer that spins and its reader never wait
/// for each other's, or on any.
enum class Place { writer, reader, any };

inline void
runAt( Place place ) {
   cpu_set_t set;
   CPU_ZERO( &set );
   for( int cpu = 0; cpu < CPU_SETSIZE; ++cpu ) {
      if( place == Place::any || cpu == static_cast< int >( place ) ) CPU_SET( cpu, &set );
   }
   sched_setaffinity( 0, sizeof set, &set ); // fails where there is one: then it is that
}

/// A process that ends with its parent, or when told.
class Child {
 public:
   template< class Work >
   explicit Child( Work work, Place place = Place::reader ) {
      std::fflush( stdout );
      pid_ = fork();
      if( pid_ < 0 ) die( "fork" );
      if( pid_ == 0 ) {
         prctl( PR_SET_PDEATHSIG, SIGKILL );
         runAt( place );
         work();
         _exit( 0 );
      }
   }
   Child( const Child & ) = delete;
   Child & operator=( const Child & ) = delete;
   ~Child() {
      if( pid_ > 0 ) kill( pid_, SIGKILL );
      wait();
   }
   /// Its status.
   int wait() {
      int status = 0;
      if( pid_ > 0 ) waitpid( std::exchange( pid_, -1 ), &status, 0 );
      return status;
   }

 private:
   pid_t pid_;
};

/// What `measure` returns in a process of its own, so that nothing is there from the last time;
/// negative if it fails.
inline double
isolated( const std::function< double() > & measure ) {
   Shared * shared = Shared::make();
   shared->result = -1;
   Child child( [&] { shared->result = measure(); }, Place::writer );
   child.wait();
   double result = shared->result;
   munmap( shared, sizeof *shared );
   return result;
}

/// A directory that goes with everything in it.
class Directory {
 public:
   Directory() {
      std::string name = ( access( "/dev/shm", W_OK ) == 0 ? "/dev/shm" : "/tmp" );
      name += "/ipstate-bench-XXXXXX";
      if( !mkdtemp( name.data() ) ) die( "mkdtemp" );
      path_ = name;
   }
   ~Directory() {
      if( std::system( ( "rm -r '" + path_ + "'" ).c_str() ) != 0 ) std::perror( "rm" );
   }
   std::string operator/( const char * name ) const { return path_ + "/" + name; }

 private:
   std::string path_;
};

/// A server program; true once `path` is there.
inline bool
appears( const std::string & path ) {
   for( int tries = 0; tries < 500; ++tries ) {
      if( access( path.c_str(), F_OK ) == 0 ) return true;
      usleep( 10'000 );
   }
   return false;
}

inline int
connectTo( const std::string & path ) {
   sockaddr_un address{};
   address.sun_family = AF_UNIX;
   path.copy( address.sun_path, sizeof address.sun_path - 1 );
   int fd = socket( AF_UNIX, SOCK_STREAM, 0 );
   if( fd < 0 ) die( "socket" );
   for( int tries = 0;
        connect( fd, reinterpret_cast< const sockaddr * >( &address ), sizeof address ) != 0; ) {
      if( ++tries == 200 ) die( "connect " + path );
      usleep( 10'000 );
   }
   return fd;
}

inline void
writeAll( int fd, const void * bytes, size_t count ) {
   auto * at = static_cast< const char * >( bytes );
   while( count ) {
      ssize_t n = write( fd, at, count );
      if( n < 0 && errno != EINTR ) die( "write" );
      if( n > 0 ) {
         at += n;
         count -= size_t( n );
      }
   }
}

/// Long enough for a reader to be back where it waits.
inline void
pause20us() {
   for( uint64_t end = now() + 20'000; now() < end; ) {}
}

/// The writer's half of one hop: nanoseconds from before `change` to the reader's callback.
template< class Change >
double
hopOf( Shared & shared, Change change ) {
   pause20us();
   shared.arrived.store( 0, std::memory_order_release );
   const uint64_t start = now();
   change();
   uint64_t end;
   while( !( end = shared.arrived.load( std::memory_order_acquire ) ) ) {}
   return double( end - start );
}

/// Updates that go out together.
constexpr size_t updatesATurn = 1000;

inline std::string
intfName( size_t i ) {
   return "Ethernet" + std::to_string( i );
}

} // namespace bench
