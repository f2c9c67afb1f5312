// Mounts parts of another process's tree over a Unix-domain stream socket.
//
// The requests of one agent to one server. As with Kelmo::Server, the agent's own loop waits for
// one descriptor, and tells the group what time it is; the group connects, and after a loss
// connects again, the pauses growing from a tenth of a second to half a minute:
//
//    for( ;; ) {
//       auto wakeUp = group->timePassed( Clock::now() ); // connects when it is time to
//       group->flush();
//       ... wait until `wakeUp`, or group->fd() is readable ...
//       if( readable ) group->onReadable();
//    }
//
// Across a loss the replicas stay as they were; the next first synchronisation announces only
// what differs.

#pragma once

#include "framework/Export.h"
#include "platform/Kelmo/MountGroup.h"
#include "platform/Kelmo/Socket.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>

namespace Kelmo {

/// What a mount group tells the agent, from within onReadable(), flush() and timePassed(). It must
/// not throw; it may drop the group.
class IPSTATE_EXPORT MountGroupOwner {
 public:
   virtual ~MountGroupOwner();
   /// The first state of all mounts is there; again after each reconnect, and after mounts that
   /// were added.
   virtual void onSynchronised();
   /// A mount cannot be, the others go on; asked for again at each reconnect.
   virtual void onRefused( const Mount & mount, const std::string & reason );
   /// The connection is lost, or cannot be made; told once until it is synchronised or another
   /// reason comes up.
   virtual void onLost( const std::string & reason );
};

class IPSTATE_EXPORT SocketMountGroup final : public MountGroup, private SessionOwner {
 public:
   using Ptr = Zek::Ptr< SocketMountGroup >;
   using Clock = std::chrono::steady_clock;

   static constexpr std::chrono::milliseconds firstPause{ 100 };
   static constexpr std::chrono::milliseconds longestPause{ 30000 };

   /// Puts what is mounted into the tree at `root`. Throws RangeException for a path that cannot
   /// be a socket's. The server must run as root, as this process's user, or in `group`. The
   /// owner must outlive the group.
   SocketMountGroup( const Zek::Entity::Ptr & root, const std::string & path,
                     MountGroupOwner & owner, std::optional< gid_t > group = {} );

   /// At any time, also when connected. Throws RangeException for an empty path, a mode that is
   /// none of "r", "ri", "w", or "ri" for another type than a directory's.
   void doMount( const Mount & mount ) override;

   /// Stays the same as long as the group lives. Wait for it to be readable, then call
   /// onReadable().
   int fd() const { return epoll_.fd(); }
   /// Applies what came. Not to be called from callbacks of the tree.
   void onReadable();
   /// Sends what there is to say: requests, changes of what is mounted with "w". Call it before
   /// waiting.
   void flush();
   /// Connects when it is time to. Returns when it wants to be called again at the latest; none
   /// while it is connected.
   std::optional< Clock::time_point > timePassed( Clock::time_point now );

   bool isConnected() const { return connection_ != nullptr; }
   /// Connected, and the first state of all mounts is there.
   bool isSynchronised() const { return isConnected() && session_.isSynchronised(); }
   /// Why there is no connection; empty when there is.
   const std::string & fault() const { return fault_; }
   const Session & session() const { return session_; }

   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static Zek::AllocTrackTypeInfo allocTrackTypeInfo_;

 protected:
   /// What is mounted stays in the tree, an ordinary part of it from now on.
   ~SocketMountGroup() override;

 private:
   void connect();
   void lost( const std::string & reason );
   template< class Work >
   void guarded( Work work );
   void onMountRefused( const Mount & mount, const std::string & reason ) override;
   void onSynchronised() override;
   bool allows( const Mount & mount, std::string & reason ) override;

   std::string path_;
   MountGroupOwner & owner_;
   std::optional< gid_t > group_;
   Descriptor epoll_;
   Session session_;
   std::unique_ptr< Connection > connection_;
   bool busy_ = false;
   std::chrono::milliseconds pause_{ 0 };
   std::optional< Clock::time_point > connectAt_;
   std::string fault_;
};

} // namespace Kelmo
