// The agent among the services of a system: what a service manager hands over and wants to hear,
// signals, and rights that are given up. Without a manager nothing of it is missed.
//
// The protocols are those of systemd: a datagram to the socket in NOTIFY_SOCKET, descriptors from
// number 3 on as LISTEN_FDS counts them, a sign of life within WATCHDOG_USEC.

#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace Ipstated {

class Service {
 public:
   using Time = std::chrono::steady_clock::time_point;

   /// Takes what the environment says and removes it, lest children believe it theirs. Throws
   /// std::runtime_error for sockets that are handed over and cannot be used.
   Service();

   /// A Unix-domain socket that listens, -1 for none; whose path is listenerPath().
   int listener() const { return listener_; }
   const std::string & listenerPath() const { return listenerPath_; }

   // What the manager is told; nothing when there is none.
   void ready( const std::string & status );
   void reloading();
   void stopping();

   /// When serve() wants to be called, to give a sign of life.
   std::optional< Time > deadline() const;
   void serve( Time now );

 private:
   void notify( const std::string & text ) const;

   std::string socket_;
   int listener_ = -1;
   std::string listenerPath_;
   std::optional< std::chrono::microseconds > period_; ///< between signs of life
   Time next_{};
};

/// SIGINT, SIGTERM and SIGHUP, taken by a thread of their own: a loop that is busy is told as well.
class Signals {
 public:
   enum class Wanted { nothing, reload, end };

   /// Blocks the signals for the calling thread and those that it makes later: make it before any.
   /// SIGHUP asks for a reload, or for the end unless `hangupReloads`. Where the loop does not come
   /// round within `patience` after the end was asked for, the process ends all the same, with
   /// `lastly` called before, on the other thread.
   Signals( bool hangupReloads, std::chrono::milliseconds patience,
            std::function< void() > lastly );
   ~Signals();
   Signals( const Signals & ) = delete;
   Signals & operator=( const Signals & ) = delete;

   /// Readable when something is wanted.
   int fd() const;
   /// What was wanted since the last call; the end stays wanted.
   Wanted take();

 private:
   struct Shared;
   const std::unique_ptr< Shared > shared_;
};

/// Gives up all rights of root but, if asked, the one to configure networks, for ever and for
/// children, too. Does nothing where there is nothing to give up. To be called before threads are
/// made: rights are a thread's.
void dropRights( bool keepsNetworkAdministration );

} // namespace Ipstated
