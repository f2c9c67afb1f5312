// Keeps a model of the kernel's interfaces true and tells what becomes different, and only that.
//
// How it stays true. The listening socket joins the kernel's event groups before anything is
// asked, then every kind of object is dumped. Events that arrive meanwhile are kept as bytes and
// applied over the dump in their order: the last event of an object is its newest state, and an
// object without events did not change, so any sighting of it is right. The result replaces the
// model as a whole and only the differences between the two are told. That one procedure is the
// first dump and also the answer to everything that can go wrong:
//
// - Overrun. When its buffer is full the kernel drops events and goes on dropping until the
//   socket has been read empty; so it is read empty first, its content thrown away (older than the
//   loss, it must not be applied over a newer dump), and then everything is dumped again.
// - Interrupted dump. While something changes the kernel walks a moving list: it marks the dump,
//   which may lack entries or tell some twice. Under churn every dump is marked. It is repeated a
//   few times, the sightings of all tries are taken together, and the next full dump is planned
//   for a quieter time.
// - What cannot be read, for want of descriptors, of memory or of an answer. It is not told: the
//   last known stays, and the full dump is repeated later. Without the links, or the values for
//   all interfaces before they were ever known, the whole dump counts as not made.
//
// Differences are told by interface name, for that is how others know an interface: one that was
// deleted and made again unseen, under the same name but another index, is told as the few values
// in which it differs. A rename seen is one interface gone and another one there.
//
// Some values change without an event (broadcast forwarding, duplicate address detection, groups
// on older kernels): a slow poll reads these.
//
// There is no thread and no blocking call. Whoever owns the feed waits for fd() to become readable
// or for deadline(), and passes the time in.

#pragma once

#include "agents/ipstated/KernelState.h"
#include "agents/ipstated/Netlink.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Ipstated {

/// Hears of true differences. The interface passed holds the new state; it is valid during the
/// call. A callback must not call the feed and must not throw: the model is already ahead of what
/// has been told.
class KernelObserver {
 public:
   virtual ~KernelObserver() = default;

   /// A name that was unknown; the interface is told as a whole, nothing follows for its parts.
   virtual void onInterface( const Interface & ) {}

   /// The interface as it was last known. Nothing is told for its parts.
   virtual void onInterfaceGone( const Interface & ) {}

   virtual void onVrf( const Interface &, const std::string & /*before*/ ) {}

   /// Up or down, or the ARP flag.
   virtual void onFlags( const Interface & ) {}

   /// What is shown of the link: its state, MTU, hardware address or kind.
   virtual void onLink( const Interface &, const LinkFacts & /*before*/ ) {}

   /// A rename that was seen: the one name is told as gone and the other as there between these.
   virtual void onRename( const Interface & /*before*/, const std::string & /*now*/ ) {}
   virtual void onRenamed( const Interface & ) {}

   virtual void onConfig4( const Interface & ) {}
   virtual void onConfig6( const Interface & ) {}

   virtual void onAddress4( const Interface &, const Ip4Address &, Difference ) {}
   virtual void onAddress6( const Interface &, const Ip6Address &, Difference ) {}

   /// The first primary address in the kernel's order has become another one, or none. Told after
   /// the differences that led to it.
   virtual void onPrimary4( const Interface & ) {}

   virtual void onGroup4( const Interface &, RawIp4, Difference ) {}
   virtual void onGroup6( const Interface &, const RawIp6 &, Difference ) {}

   /// A full dump has been told, or there was nothing to tell in it.
   virtual void onSynchronized() {}

   /// Something was not believed, lost or refused; the feed goes on.
   virtual void onProblem( const std::string & ) {}
};

class KernelFeed {
 public:
   using Time = std::chrono::steady_clock::time_point;
   using Duration = std::chrono::steady_clock::duration;

   struct Options {
      /// Between reading the values that have no event.
      Duration pollInterval = std::chrono::seconds( 5 );
      /// Tries of one dump that comes back interrupted.
      int maxTries = 4;
      /// Full dumps begun anew because events were lost during them; then the last one counts.
      int maxRestarts = 4;
      /// Wait before doing again what did not come out clean; doubles up to the longest.
      Duration retryDelay = std::chrono::milliseconds( 500 );
      Duration longestRetryDelay = std::chrono::seconds( 30 );
      /// A dump without any reply for that long is requested anew.
      Duration replyTimeout = std::chrono::seconds( 5 );
      /// Events kept during a full dump; more counts as lost.
      size_t maxKeptBytes = 64 * 1024 * 1024;
   };

   struct Statistics {
      uint64_t events = 0;      ///< datagrams of events read
      uint64_t overruns = 0;    ///< times that the kernel lost events
      uint64_t fullDumps = 0;   ///< full dumps completed
      uint64_t interrupted = 0; ///< single dumps marked as interrupted
      uint64_t malformed = 0;   ///< messages skipped
   };

   /// Both must live as long as the feed. Nothing happens before start().
   KernelFeed( MessageSource & source, KernelObserver & observer );
   KernelFeed( MessageSource & source, KernelObserver & observer, const Options & options );
   ~KernelFeed();
   KernelFeed( const KernelFeed & ) = delete;
   KernelFeed & operator=( const KernelFeed & ) = delete;

   /// Begins the first dump; later calls begin another full one.
   void start( Time now );

   int fd() const { return source_.fd(); }

   /// Does a bounded part of the work; call it again as long as fd() is readable.
   void onReadable( Time now );

   /// When onDeadline() wants to be called.
   std::optional< Time > deadline() const;
   void onDeadline( Time now );

   /// A full dump has been told and none is under way or owed.
   bool synchronized() const;

   /// A full dump has been told at least once.
   bool everSynchronized() const { return everSynchronized_; }

   /// What has been told.
   const KernelState & state() const { return state_; }

   const Statistics & statistics() const { return statistics_; }

 private:
   enum class Work { none, full, poll };
   class Applier;
   class ReplyHandler;
   friend class Applier;
   friend class ReplyHandler;

   void serve( Time now );

   // Events.
   enum class Drained { empty, more };
   Drained readEvents( int most );
   void discardEvents();
   void onEvent( const Received & event );
   void eventsLost( const std::string & why );

   // Dumps.
   void beginFull( Time now );
   void beginTry( Time now );
   void beginPoll( Time now );
   void requestNext( Time now );
   void requestPhase( Time now );
   bool keepKnown( Dump dump );
   void abandonFull( Time now );
   void applyKept( KernelState & state, bool live );
   void onReply( const Received & reply, Time now );
   void onPhaseDone( Time now, int error );
   void finishFull( Time now );
   void finishPoll( Time now );
   void retryLater( Time now );
   void problem( const std::string & text );
   void takeCollected( bool repeated );
   int takeGroupText( Dump dump );
   int readAllConfig( KernelState & state );

   // Telling.
   void tellDifferences( const KernelState & before );
   void tellDifferences( const Interface & before, const Interface & after );
   void refreshAndTell( Interface & interface );
   void refreshAllAndTell();

   MessageSource & source_;
   KernelObserver & observer_;
   const Options options_;
   Statistics statistics_;

   KernelState state_;
   KernelState staged_;                      ///< under a full dump: what will be the model
   std::vector< std::vector< char > > kept_; ///< events since the full dump began
   size_t keptBytes_ = 0;

   Work work_ = Work::none;
   std::vector< Dump > phases_; ///< of the work under way; phase_ is the one being read
   size_t phase_ = 0;
   int tries_ = 0; ///< of the phase
   int restarts_ = 0;
   bool interrupted_ = false; ///< a message of the phase said so
   bool cutShort_ = false;    ///< the phase ended before its end
   bool unclean_ = false;     ///< the work's result may lack something
   bool lost_ = false;        ///< events were lost since the full dump began
   bool fullWanted_ = false;
   bool lookAgain_ = false; ///< a secondary was promoted: its place is known from a dump only
   bool everSynchronized_ = false;
   uint32_t sequence_ = 0;
   Time lastReply_{};

   std::map< int, std::vector< Ip4Address > > collected4_;
   std::map< int, std::vector< RawIp4 > > collectedGroups4_;
   std::map< int, std::vector< RawIp6 > > collectedGroups6_;
   bool groupText4_ = false; ///< the kernel does not dump these groups
   bool groupText6_ = false;

   Time nextPoll_ = Time::max();
   Time nextFull_ = Time::max();
   Duration retryDelay_{};
};

} // namespace Ipstated
