// A JetStream key-value bucket, and one connection to it that comes back by itself.
//
// A thread of its own does what may wait for the network; the tree's thread only leaves orders and
// takes events, and waits for one descriptor. What the bucket is, and how far its log was read, is
// known across connections: after a loss only what came meanwhile is read, unless the bucket is
// another one (made anew, or has lost what it had acknowledged), or has forgotten removals since.
//
//    online ─> begin ─> entry… ─> end ─> entry…          all that is there, then each change
//    online ─> entry…                                    a resume: the changes since
//    offline                                             unacknowledged orders have failed before
//
// The bucket is a stream of the layout that NATS tools use: KV_<bucket>, subjects $KV.<bucket>.>,
// one message a subject.

#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace IpstateNats {

/// Whom to trust and as whom to connect. Files are read at each connection.
struct NatsOptions {
   std::string servers = "nats://127.0.0.1:4222"; // URLs, separated by commas
   std::string credentials;                       // file with JWT and seed
   std::string user, password;
   bool tls = false;
   std::string trusted;          // file with certificates of authorities
   std::string certificate, key; // files: who we are
   std::string name = "ipstate-nats";
};

struct BucketOptions {
   NatsOptions nats;
   std::string bucket = "ipstate";
   /// What is read, as a NATS subject within the bucket: "leaf1.>", or ">" for all.
   std::string filter = ">";
   /// Whether changes are read once all that is there was.
   bool follows = true;
   /// Made so when it is not there; 0: it must be there.
   int replicas = 1;
   /// How often it is looked after, and how long an order waits for its acknowledgement.
   std::chrono::milliseconds check{ 5000 };
   std::chrono::milliseconds patience{ 5000 };
};

struct BucketEvent {
   enum class Kind : uint8_t {
      online,  // connected; acknowledgements come
      offline, // `text`: why
      begin,   // all that is there follows
      entry,   // `key` has the value `text`
      removal, // `key` is gone
      end,     // that was all
      stored,  // order `ticket` is acknowledged
      refused, // order `ticket` failed; `text`: why
   };
   Kind kind;
   uint64_t ticket = 0;
   std::string key = {};
   std::string text = {};
   double time = 0; // of an entry: seconds since 1970, by the server's clock
};

class Bucket {
 public:
   /// Throws std::runtime_error for what can be no bucket's name; begins to connect.
   explicit Bucket( BucketOptions options );
   /// Ends the connection. What is not acknowledged is lost.
   ~Bucket();
   Bucket( const Bucket & ) = delete;
   Bucket & operator=( const Bucket & ) = delete;

   /// Readable when there are events.
   int fd() const;
   /// At most `most` of them, in order. A reader that takes none stops the connection's reading.
   std::vector< BucketEvent > take( size_t most = 1024 );

   /// Orders; each ends as stored or refused, in any order, under the ticket that it is given.
   uint64_t put( const std::string & key, std::string value );
   uint64_t remove( const std::string & key );

   /// Takes out of the bucket's log what says only that something is gone, where that is older
   /// than `age`; and all keys of devices below these tokens. Needs the right to purge.
   void tidy( std::chrono::seconds age, std::vector< std::string > devices );

 private:
   class Connection;
   std::unique_ptr< Connection > connection_;
};

} // namespace IpstateNats
