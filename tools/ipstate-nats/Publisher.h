// Keeps the keys of one device in a bucket equal to the records of a tree.
//
// Each record is watched; a change marks its key dirty, and what is dirty is written with the
// value that it has then. So a slow or cut link costs what differs, never what happened. A key is
// clean when the bucket has acknowledged its value; of that value a hash is kept.
//
// Beside the records stands the device's lease, "<device>._lease", refreshed as long as the
// tree is fed: where it is not refreshed any more, readers take the device for stale.

#pragma once

#include "tools/ipstate-nats/Bucket.h"
#include "tools/ipstate-nats/Record.h"

#include "framework/Entity.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace IpstateNats {

/// The token of a device's lease, and of members that stand apart from their record.
constexpr char leaseToken[] = "_lease";
constexpr char memberToken[] = "_m";

struct PublisherOptions {
   std::string device;
   std::chrono::milliseconds lease{ 10000 }; // how often it is refreshed
   size_t underWay = 512;                    // orders without acknowledgement at a time
   size_t inRecord = 64;                     // members of a collection within their record
};

class Publisher {
 public:
   using Clock = std::chrono::steady_clock;

   /// Of the tree at `root`. `bucket` must read the device's keys alone (filterOf()), and not
   /// follow them. Both outlive the publisher.
   Publisher( const Zek::Entity::Ptr & root, Bucket & bucket, PublisherOptions options );
   ~Publisher();
   Publisher( const Publisher & ) = delete;
   Publisher & operator=( const Publisher & ) = delete;

   static std::string filterOf( const std::string & device );

   /// Whether the tree is whole and fed. Before it first is nothing is written: what is missing
   /// from an unfinished tree is not gone. While it is not, the lease runs out.
   void isFedIs( bool fed );
   /// Takes what the bucket says.
   void onReadable();
   /// Writes what is dirty, as far as acknowledgements keep up. Call it before waiting.
   void flush();
   /// Refreshes the lease. Returns when it wants to be called again.
   Clock::time_point timePassed( Clock::time_point now );

   /// The bucket has acknowledged all that there is.
   bool isAtRest() const;
   size_t dirty() const { return queue_.size() + underWay_.size(); }
   uint64_t written() const { return written_; }
   uint64_t refused() const { return refused_; }
   const std::string & lastRefusal() const { return lastRefusal_; }
   bool isOnline() const { return online_; }
   /// Why it is not; of the last loss.
   const std::string & fault() const { return fault_; }

 private:
   class Tracker;
   /// One key: what the bucket has of it, and where its value comes from.
   struct Item {
      std::string key;                                // without the device
      Tracker * record = nullptr;                     // null: the key is to go
      const Zek::AttributeRow * collection = nullptr; // of a member that stands apart
      Zek::GenericValue member;                       // its key
      uint64_t held = 0;                              // hash of the value that the bucket has
      uint64_t heldIdentity = 0;
      bool isHeld = false;                 // the bucket has a value, if only perhaps
      bool mustRewrite = false;            // whatever it has: readers may have lost it
      std::vector< std::string > inRecord; // members that the value may list, as <collection>.<key>
      bool isQueued = false;
      uint64_t ticket = 0; // under way
      uint32_t instance = 0;
      bool hadRecord = false;
   };
   struct Order {
      Item * item;
      bool removes;
      uint64_t hash;
      uint64_t identity;
      std::vector< std::string > inRecord;
   };

   Item & item( const std::string & key );
   void markDirty( Item & item );
   void release( Item & item );
   bool write( Item & item );
   bool waitsForRecord( const Item & item ) const;
   void leaveRecord( Item & item, const std::vector< std::string > & before );
   std::string referenceTo( const Zek::PtrInterface & object ) const;
   void found( const std::string & key, const BucketEvent & event );
   void ended( const BucketEvent & event );

   const Zek::Entity::Ptr root_;
   Bucket & bucket_;
   const PublisherOptions options_;
   const std::string device_; // its token
   Referrer referrer_;
   std::unordered_map< std::string, std::unique_ptr< Item > > items_;
   std::deque< Item * > queue_;
   std::unordered_map< uint64_t, Order > underWay_;
   std::unique_ptr< Tracker > top_;
   bool online_ = false;
   bool isLoaded_ = false; // what the bucket has is known
   bool isFed_ = false;
   bool wasFed_ = false;
   uint64_t leaseTicket_ = 0;
   std::optional< Clock::time_point > leaseAt_;
   uint64_t written_ = 0;
   uint64_t refused_ = 0;
   std::string lastRefusal_;
   std::string fault_;
   std::string run_; // tells one run of the publisher from another
};

} // namespace IpstateNats
