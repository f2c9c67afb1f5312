#include "tests/fleet/NatsServers.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace ipstate::test {

namespace {

sockaddr_in
loopback( int port ) {
   sockaddr_in address{};
   address.sin_family = AF_INET;
   address.sin_port = htons( static_cast< uint16_t >( port ) );
   address.sin_addr.s_addr = htonl( INADDR_LOOPBACK );
   return address;
}

/// Ports that nobody uses: held together, so that all differ.
std::vector< int >
freePorts( size_t count ) {
   std::vector< int > sockets, ports;
   for( size_t i = 0; i < count; ++i ) {
      const int fd = socket( AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0 );
      sockaddr_in address = loopback( 0 );
      socklen_t size = sizeof address;
      if( bind( fd, reinterpret_cast< sockaddr * >( &address ), size ) ||
          getsockname( fd, reinterpret_cast< sockaddr * >( &address ), &size ) ) {
         throw std::runtime_error( "no port on loopback" );
      }
      sockets.push_back( fd );
      ports.push_back( ntohs( address.sin_port ) );
   }
   for( int fd : sockets ) close( fd );
   return ports;
}

bool
answers( int port ) {
   const int fd = socket( AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0 );
   const sockaddr_in address = loopback( port );
   const bool connected =
      connect( fd, reinterpret_cast< const sockaddr * >( &address ), sizeof address ) == 0;
   close( fd );
   return connected;
}

} // namespace

std::string
NatsServers::missing() {
   const char * path = getenv( "PATH" );
   for( std::string folders = std::string( path ? path : "" ) + ":/usr/sbin"; !folders.empty(); ) {
      const size_t colon = folders.find( ':' );
      if( access( ( folders.substr( 0, colon ) + "/nats-server" ).c_str(), X_OK ) == 0 ) return "";
      folders.erase( 0, colon == std::string::npos ? colon : colon + 1 );
   }
   return "no nats-server on this machine";
}

NatsServers::NatsServers( size_t count, const std::string & extra ) : extra_( extra ) {
   char name[] = "/tmp/ipstate-nats-XXXXXX";
   if( !mkdtemp( name ) ) throw std::runtime_error( "no folder in /tmp" );
   folder_ = name;
   servers_.resize( count );
   const std::vector< int > ports = freePorts( 2 * count );
   for( size_t i = 0; i < count; ++i ) {
      servers_[i].port = ports[i];
      servers_[i].clusterPort = ports[count + i];
   }
   for( size_t i = 0; i < count; ++i ) start( i );
}

NatsServers::~NatsServers() {
   for( size_t i = 0; i < size(); ++i ) kill( i );
   std::error_code ignored;
   std::filesystem::remove_all( folder_, ignored );
}

std::string
NatsServers::url( size_t server ) const {
   return "nats://127.0.0.1:" + std::to_string( servers_[server].port );
}

std::string
NatsServers::urls() const {
   std::string all;
   for( size_t i = 0; i < size(); ++i ) all += ( i ? "," : "" ) + url( i );
   return all;
}

void
NatsServers::start( size_t server ) {
   Server & one = servers_[server];
   if( one.pid > 0 ) return;
   const std::string own = folder_ + "/" + std::to_string( server );
   {
      std::ofstream config( own + ".conf" );
      config << "server_name: s" << server << "\nlisten: 127.0.0.1:" << one.port
             << "\njetstream { store_dir: \"" << own
             << "\", max_file_store: 2G, max_memory_store: 64M }\n"
             << extra_ << "\n";
      if( size() > 1 ) {
         config << "cluster { name: test, listen: 127.0.0.1:" << one.clusterPort << ", routes: [";
         for( const Server & each : servers_ ) {
            config << ( &each == servers_.data() ? "" : ", " )
                   << "\"nats-route://127.0.0.1:" << each.clusterPort << "\"";
         }
         config << "] }\n";
      }
   }
   const std::string log = own + ".log";
   const std::string config = own + ".conf";
   const char * const words[] = { "nats-server", "-c", config.c_str(), "-l", log.c_str(), nullptr };
   if( const int error = posix_spawnp( &one.pid, "nats-server", nullptr, nullptr,
                                       const_cast< char * const * >( words ), environ ) ) {
      throw std::runtime_error( std::string( "nats-server: " ) + strerror( error ) );
   }
   one.paused = false;
   for( int i = 0; !answers( one.port ); ++i ) {
      if( i == 500 || waitpid( one.pid, nullptr, WNOHANG ) != 0 ) {
         throw std::runtime_error( "nats-server does not start: see " + log );
      }
      std::this_thread::sleep_for( std::chrono::milliseconds( 20 ) );
   }
}

void
NatsServers::kill( size_t server ) {
   Server & one = servers_[server];
   if( one.pid <= 0 ) return;
   ::kill( one.pid, SIGKILL );
   while( waitpid( one.pid, nullptr, 0 ) < 0 && errno == EINTR ) continue;
   one.pid = 0;
   one.paused = false;
}

void
NatsServers::pauseIs( size_t server, bool paused ) {
   Server & one = servers_[server];
   if( one.pid <= 0 || one.paused == paused ) return;
   ::kill( one.pid, paused ? SIGSTOP : SIGCONT );
   one.paused = paused;
}

void
NatsServers::heal() {
   for( size_t i = 0; i < size(); ++i ) {
      pauseIs( i, false );
      start( i );
   }
}

} // namespace ipstate::test
