// One connection between two processes, whatever carries its bytes: which paths one end has
// mounted from the other, and the streams that keep them current.
//
// Either end may mount from the other. The end that mounts asks for a path; the other looks it up
// in its tree and exports what stands there, now and whenever something else does. Bytes are taken
// from output() and given to receive(); the owner of the session carries them.

#pragma once

#include "framework/Export.h"
#include "framework/attrlog/StreamAdapter.h"
#include "platform/Kelmo/Mount.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Kelmo {

/// What a session tells its owner. Called from receive(), arrived() and from mutators of the tree.
/// The owner may do anything to the session in any of them: end the connection, make another,
/// destroy the session. So may those who watch what is mounted.
class IPSTATE_EXPORT SessionOwner {
 public:
   virtual ~SessionOwner();
   /// A mount that this end asked for cannot be; the others go on.
   virtual void onMountRefused( const Mount & mount, const std::string & reason );
   /// The first state of all mounts asked for has arrived; again after each reconnect.
   virtual void onSynchronised();
   /// There are bytes to carry.
   virtual void onOutput();
   /// Whether the peer may mount this path in this mode; `reason` says why not.
   virtual bool allows( const Mount & mount, std::string & reason );
};

class IPSTATE_EXPORT Session final : public Zek::StreamOwner {
 public:
   static constexpr uint32_t magic = 0x69707374; // "ipst"
   static constexpr uint16_t version = 2;
   /// Bytes of a mount's path, and of its type's name.
   static constexpr size_t longestText = 4096;

   /// Over the tree at `root`; both must outlive the session.
   Session( const Zek::Entity::Ptr & root, SessionOwner & owner );
   ~Session() override;

   /// Asks the peer for what stands at the mount's path. Throws RangeException for a mode that is
   /// none of "r", "ri", "w", for "ri" of another type than a directory's, or a path that is empty
   /// or too long.
   void mount( const Mount & mount );
   /// A new connection: says who we are and asks for every mount.
   void connected();
   /// Mounts that the peer may ask for.
   void mostMountsIs( size_t mounts ) { mostMounts_ = mounts; }
   bool isGreeted() const { return greeted_; }
   /// The connection is lost. What was mounted stays as it was, read-only as it was.
   void disconnected();

   /// Bytes that came. Throws StreamException when they are no stream: disconnect then.
   void receive( const void * bytes, size_t count );
   /// The same without a copy: where up to `bytes` may be put, and then that so many were.
   uint8_t * room( size_t bytes ) { return adapter_.nboAttrLogIn().room( bytes ); }
   void arrived( size_t count );
   /// Bytes to carry, and what was carried. Taking some away lets more be written.
   const Zek::Wire::Buffer & output() const { return out().buffer(); }
   void carried( size_t bytes );
   /// Writes what changed while there was no room.
   void drain();

   bool isSynchronised() const { return synchronised_; }
   /// There was no memory for what goes to the peer: drain() and what calls it throw a
   /// StreamException from then on. Disconnect.
   bool isBroken() const { return out().isBroken(); }
   /// Nothing is to be sent, and nothing waits for what it refers to.
   bool isAtRest() const;
   /// Records received on this connection.
   uint64_t received() const { return adapter_.nboAttrLogIn().records(); }
   Zek::StreamAdapter & adapter() { return adapter_; }

 private:
   enum Message : uint16_t {
      helloMessage = Zek::NboAttrLog::firstUserControl,
      mountMessage,
      refusedMessage,
   };
   /// Asked for by this end.
   struct Import {
      Mount mount;
      bool refused = false;
      bool complete = false;
   };
   /// Asked for by the peer.
   struct Export;
   class DirectoryWatch;

   const Zek::NboAttrLog::Out & out() const { return adapter_.nboAttrLogOut(); }
   void onControl( uint16_t message, Zek::Wire::Decoder & body ) override;
   bool acceptsRoot( uint32_t exportId, const Zek::TypeDescriptor * type, std::string_view name,
                     uint32_t * flags ) override;
   Zek::Entity::Ptr rootDirectory( uint32_t exportId ) override;
   void onRoot( uint32_t exportId, Zek::Entity * root ) override;
   void onDump( uint32_t exportId, bool complete ) override;
   void onExportGone( uint32_t exportId ) override;

   template< class Work >
   bool callOut( Work work );
   void roleIs();
   void mountAsked( uint32_t id, const Mount & mount );
   void look( Export & wanted );
   void refuse( uint32_t id, const std::string & reason );
   void ask( uint32_t id );
   Import * import( uint32_t exportId );
   void completed();

   Zek::Entity::Ptr root_;
   SessionOwner & owner_;
   /// While bytes are applied it lives on, whatever becomes of the session meanwhile.
   const std::shared_ptr< Zek::StreamAdapter > held_;
   Zek::StreamAdapter & adapter_;
   std::vector< Import > imports_; // the mount's number is its place, from 1
   std::vector< std::unique_ptr< Export > > exports_;
   size_t mostMounts_ = 64;
   bool connected_ = false;
   bool greeted_ = false;
   bool synchronised_ = false;
};

} // namespace Kelmo
