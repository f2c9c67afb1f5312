// A tree of many devices' records, kept equal to a bucket.
//
//    fleet/<device>/…     the device's records, of their types
//    devices              a Fleet::Status: which devices there are, and which are stale
//
// Keys come in any order. What cannot be applied yet waits: a record for its parent, a reference
// for what it names. A whole reading of the bucket marks what it mentions, and what it does not
// mention goes at its end. A device whose lease is not refreshed is marked stale, and removed when
// it has been so for long.

#pragma once

#include "tools/ipstate-nats/Bucket.h"
#include "tools/ipstate-nats/Fleet.h"
#include "tools/ipstate-nats/Key.h"
#include "tools/ipstate-nats/Record.h"

#include "framework/Entity.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace IpstateNats {

struct MirrorOptions {
   // What is taken; patterns as of a shell, none: all. A record that is not taken stands without
   // its attributes where others are below it.
   std::vector< std::string > devices, types, attributes;
   double missedLeases = 3;              // then it is stale
   std::chrono::seconds forget{ 86400 }; // and then it goes
   // Bounds of what a bucket can make this process hold.
   size_t mostDevices = 100000;
   size_t mostWaitingBytes = 256 << 20;
};

class Mirror {
 public:
   using Clock = std::chrono::steady_clock;

   /// Into the tree at `root`. Both outlive the mirror.
   Mirror( const Zek::Entity::Ptr & root, Bucket & bucket, MirrorOptions options );
   ~Mirror();
   Mirror( const Mirror & ) = delete;
   Mirror & operator=( const Mirror & ) = delete;

   /// Applies a bounded part of what the bucket says.
   void onReadable();
   /// Looks after leases. Returns when it wants to be called again.
   Clock::time_point timePassed( Clock::time_point now );
   /// Tokens of the devices that were forgotten since this was last asked.
   std::vector< std::string > forgotten();

   /// All that the bucket has was read once, and changes come.
   bool isSynchronised() const { return online_ && isWhole_; }
   const std::string & fault() const { return fault_; }
   /// Keys applied.
   uint64_t applied() const { return applied_; }
   /// Bytes of what waits.
   size_t waitingBytes() const { return waitingBytes_; }
   const Fleet::Status & devices() const { return *status_; }

 private:
   /// A reference that leads nowhere yet.
   struct Link {
      uint16_t row;
      Reference target;
      Json member; // of a collection: the key
   };
   struct Device {
      std::string token;
      Zek::Entity::Ptr directory;
      Fleet::DeviceStatus::Ptr status;
      Clock::time_point heard;
      std::chrono::duration< double > interval{ 10 };
      std::map< std::string, std::string > waiting;          // by key: values
      std::multimap< std::string, std::string > waitingFor;  // by key of an argument: keys
      std::map< std::string, std::vector< Link > > links;    // by key of who refers
      std::multimap< std::string, std::string > linksTo;     // by what is referred to
      std::unordered_map< std::string, uint32_t > instances; // but for 0
      std::set< std::pair< const Zek::Entity *, uint16_t > > apart;
   };

   Device * deviceOf( std::string_view token, bool make );
   void entry( const BucketEvent & event );
   void lease( Device & device, const BucketEvent & event );
   void record( Device & device, const std::string & key, const std::string & value );
   bool make( Device & device, const Place & place, const std::string & key,
              const Zek::TypeDescriptor & type, const Json & json, const std::string & value );
   bool isSame( Device & device, const std::string & key, Zek::Entity & record, const Shape & shape,
                const Json & json );
   void content( Device & device, const std::string & key, Zek::Entity & record,
                 const Shape & shape, const Json & json );
   void collection( Device & device, const std::string & key, Zek::Entity & record,
                    const Zek::AttributeRow & row, const Json & list );
   void member( Device & device, const std::string & key, size_t mark, const std::string * value );
   void memberIs( Device & device, const std::string & key, Zek::Entity & record,
                  const Zek::AttributeRow & row, const Json & memberKey, const Json * held );
   void pointer( Device & device, const std::string & key, Zek::Entity & record,
                 const Zek::AttributeRow & row, const Json & reference );
   Zek::Entity * target( Device & device, const Reference & reference );
   bool standsOutside( Device & device, const Zek::PtrInterface * object ) const;
   void link( Device & device, const std::string & key, Link link );
   void unlink( Device & device, const std::string & key, const Zek::AttributeRow & row );
   void came( Device & device, const std::string & key );
   void gone( Device & device, const std::string & key );
   void remove( Device & device, const std::string & key, Zek::Entity & record );
   void forgetBelow( Device & device, const std::string & key, const Zek::Entity & record );
   void wait( Device & device, const std::string & key, const std::string & value );
   void stopWaiting( Device & device, const std::string & key );
   void beginWhole();
   void endWhole();
   void sweep( Device & device, Zek::Entity & record, const std::string & key );
   void forget( Device & device );
   void tellWaiting( Device & device );
   bool takes( const Zek::AttributeRow & row ) const;
   bool takes( const Zek::TypeDescriptor & type ) const;
   void refused( const std::string & what, const std::string & why );
   template< class Change >
   void guarded( const std::string & what, Change change );

   const Zek::Entity::Ptr root_;
   Bucket & bucket_;
   const MirrorOptions options_;
   Zek::Entity::Ptr fleet_;
   Fleet::Status::Ptr status_;
   std::map< std::string, std::unique_ptr< Device >, std::less<> > devices_; // by token
   std::unordered_set< uint64_t > mentioned_; // hashes of keys, while all is read
   std::vector< std::string > forgotten_;
   bool online_ = false;
   bool isWhole_ = false;
   bool isReading_ = false; // all of it
   double newest_ = 0;      // time of the server's, in seconds
   uint64_t applied_ = 0;
   size_t waitingBytes_ = 0;
   std::string fault_;
   Clock::time_point checkAt_{};
};

} // namespace IpstateNats
