// Lets other processes mount parts of a tree over a Unix-domain stream socket.
//
// There is no thread, no loop and no call that waits. The agent's own loop, whatever it is made
// of, waits for one descriptor, and says when it is at the end of a turn:
//
//    Kelmo::Server server( root, "/run/agent.socket" );
//    for( ;; ) {
//       server.flush();                                // what this turn changed goes out together
//       pollfd wait{ server.fd(), POLLIN, 0 };         // or epoll, or an event library
//       poll( &wait, 1, -1 );
//       if( wait.revents ) server.onReadable();
//    }
//
// The descriptor is that of an epoll set which holds the listening socket and all connections; it
// is readable when any of them has something to do, be it to send on to a client that was slow.
// docs/decisions/one-descriptor.md says why.

#pragma once

#include "framework/Export.h"
#include "platform/Kelmo/Socket.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace Kelmo {

/// What members of a group may do: connect, and mount paths, each with all below it; "" is all that
/// is exported. What may be written may be read.
struct Role {
   gid_t group;
   std::vector< std::string > readable{};
   std::vector< std::string > writable{};

   bool operator==( const Role & ) const = default;
};

struct ServerOptions {
   /// Who may connect beside root and the server's own user, who may mount all that is exported.
   /// The socket file has mode 0600; with one role it is given to its group, if this process may,
   /// with 0660; with several it has 0666, and credentials alone decide.
   std::vector< Role > roles{};
   /// Paths that may be mounted, each with all below it; empty: all.
   std::vector< std::string > exported{};
   /// Those that may be mounted with mode "w", likewise; empty: none.
   std::vector< std::string > writable{};
   /// Says why a mount that is allowed otherwise is not; empty when it is, or may be.
   std::function< std::string( const Mount & ) > refuses{};
   /// Told of the paths that a client has mounted by now, whenever it has mounted more.
   std::function< void( const std::string & client, const std::vector< std::string > & paths ) >
      mounted{};
   /// Clients at a time; one more is turned away. Of 16, the last one is kept for root and the
   /// server's own user, and of 32 the last one for root alone.
   size_t clients = 256;
   /// Mounts of a client.
   size_t mounts = 64;
   /// Within which a client must have greeted.
   std::chrono::milliseconds greeting{ 5000 };
   /// A socket that listens already, as a service manager hands it over; -1: the server makes one.
   /// It becomes the server's, its file does not.
   int listener = -1;
   /// Called with the text of every problem; may be empty. Must not destroy the server.
   std::function< void( const std::string & ) > problem{};
};

class IPSTATE_EXPORT Server {
 public:
   /// Listens at `path`; a socket file that nobody answers on is replaced. Throws RangeException
   /// for a path that cannot be one, std::system_error for what the system refuses, both with the
   /// path and what was expected. The tree at `root` lives as long as the server.
   Server( const Zek::Entity::Ptr & root, const std::string & path, ServerOptions options = {} );
   /// Disconnects all clients and removes the socket file, unless another has taken its place.
   ~Server();
   Server( const Server & ) = delete;
   Server & operator=( const Server & ) = delete;

   /// Stays the same as long as the server lives. Wait for it to be readable, then call
   /// onReadable().
   int fd() const { return epoll_.fd(); }
   /// Does a bounded part of the work; what clients say is applied to the tree. Not to be called
   /// from callbacks of the tree.
   void onReadable();
   /// Sends what has changed, as far as the clients take it. Call it before waiting.
   void flush();

   /// From now on. Who is connected by membership of a group is disconnected when it is another
   /// list, and may connect again by the new one.
   void rolesIs( std::vector< Role > roles );

   const std::string & path() const { return path_; }
   /// Clients connected now.
   size_t clients() const { return clients_.size(); }
   /// Bytes that wait to be sent, to all of them.
   size_t waiting() const;
   /// Clients turned away, or disconnected for what they sent; and the reason for the last.
   uint64_t faults() const { return faults_; }
   const std::string & lastFault() const { return lastFault_; }

 private:
   class Client;

   void listen();
   void accessIs();
   void removeStale();
   void accept();
   bool turnAway();
   void admit( Descriptor socket );
   void awaitGreetings();
   size_t mostClients( const Peer & peer ) const;
   void fault( const std::string & text );

   Zek::Entity::Ptr root_;
   std::string path_;
   ServerOptions options_;
   Descriptor epoll_;
   Descriptor listener_;
   Descriptor timer_;    // for who has not greeted in time
   Descriptor spare_;    // given up to accept and turn away a client when there is no other
   uint64_t device_ = 0; // of our socket file
   uint64_t inode_ = 0;
   std::vector< std::unique_ptr< Client > > clients_;
   bool busy_ = false;
   uint64_t faults_ = 0;
   std::string lastFault_;
};

} // namespace Kelmo
