#include "tools/ipstate-nats/Bucket.h"

#include <nats/nats.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string_view>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>

namespace IpstateNats {

namespace {

using Clock = std::chrono::steady_clock;
using Kind = BucketEvent::Kind;
using std::chrono::milliseconds;

// Events that wait for the reader before the connection's reading stops.
constexpr size_t mostEvents = 16384;
constexpr milliseconds longestPause{ 5000 };
constexpr milliseconds firstPause{ 50 };

/// The key, outside all devices, under which the tidier says up to which number of the log
/// removals may be missing.
constexpr char horizonKey[] = "_horizon";

template< auto destroy >
struct Destroys {
   template< class T >
   void operator()( T * object ) const {
      destroy( object );
   }
};
using Options = std::unique_ptr< natsOptions, Destroys< natsOptions_Destroy > >;
using Link = std::unique_ptr< natsConnection, Destroys< natsConnection_Destroy > >;
using JetStream = std::unique_ptr< jsCtx, Destroys< jsCtx_Destroy > >;
using Subscription = std::unique_ptr< natsSubscription, Destroys< natsSubscription_Destroy > >;
using Message = std::unique_ptr< natsMsg, Destroys< natsMsg_Destroy > >;
using StreamInfo = std::unique_ptr< jsStreamInfo, Destroys< jsStreamInfo_Destroy > >;

class Failure : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

void
check( natsStatus status, const std::string & what ) {
   if( status == NATS_OK ) return;
   natsStatus last = NATS_OK;
   const char * detail = nats_GetLastError( &last );
   std::string text = what + ": " + natsStatus_GetText( status );
   if( detail && *detail && last == status ) text += std::string( " (" ) + detail + ")";
   throw Failure( text );
}

} // namespace

class Bucket::Connection {
 public:
   explicit Connection( BucketOptions options )
      : options_( std::move( options ) ),
        stream_( "KV_" + options_.bucket ),
        prefix_( "$KV." + options_.bucket + "." ),
        wake_( eventfd( 0, EFD_NONBLOCK | EFD_CLOEXEC ) ) {
      if( wake_ < 0 ) throw std::runtime_error( "no descriptor left for the bucket's events" );
      thread_ = std::thread( [this] { run(); } );
   }

   ~Connection() {
      {
         std::lock_guard lock( mutex_ );
         ending_ = true;
         changed_.notify_all();
         roomMade_.notify_all();
      }
      thread_.join();
      close( wake_ );
   }

   int fd() const { return wake_; }

   std::vector< BucketEvent > take( size_t most ) {
      std::lock_guard lock( mutex_ );
      const size_t count = std::min( most, events_.size() );
      const auto end = events_.begin() + static_cast< ptrdiff_t >( count );
      std::vector< BucketEvent > taken( std::make_move_iterator( events_.begin() ),
                                        std::make_move_iterator( end ) );
      events_.erase( events_.begin(), end );
      if( events_.empty() ) {
         uint64_t count8;
         (void)!read( wake_, &count8, sizeof count8 );
      }
      roomMade_.notify_all();
      return taken;
   }

   uint64_t order( const std::string & key, std::string value, bool removes ) {
      std::lock_guard lock( mutex_ );
      const uint64_t ticket = ++lastTicket_;
      orders_.push_back( { ticket, key, std::move( value ), removes } );
      changed_.notify_all();
      return ticket;
   }

   void tidy( std::chrono::seconds age, std::vector< std::string > devices ) {
      std::lock_guard lock( mutex_ );
      tidyAge_ = age;
      tidyDevices_ = std::move( devices );
      tidies_ = true;
      changed_.notify_all();
   }

 private:
   struct Order {
      uint64_t ticket;
      std::string key;
      std::string value;
      bool removes;
   };

   // -- The reader's side of the events -------------------------------------------------------

   // REQUIRES: mutex_ is held.
   void tellLocked( BucketEvent event ) {
      if( events_.empty() ) {
         const uint64_t one = 1;
         (void)!write( wake_, &one, sizeof one );
      }
      events_.push_back( std::move( event ) );
   }
   void tell( BucketEvent event ) {
      std::lock_guard lock( mutex_ );
      tellLocked( std::move( event ) );
   }

   // -- The thread ----------------------------------------------------------------------------

   void run() {
      milliseconds pause = firstPause;
      std::minstd_rand random( std::random_device{}() );
      while( !isEnding() ) {
         try {
            serve( pause );
         } catch( const Failure & failure ) {
            lost( failure.what() );
         }
         closeAll();
         // Many that lost one server do not come back to it in one moment.
         const milliseconds wait = pause / 2 + milliseconds( random() % pause.count() );
         pause = std::min( pause * 2, longestPause );
         std::unique_lock lock( mutex_ );
         changed_.wait_for( lock, wait, [this] { return ending_; } );
      }
      closeAll();
      nats_ReleaseThreadMemory();
   }

   bool isEnding() {
      std::lock_guard lock( mutex_ );
      return ending_;
   }

   void connect() {
      natsOptions * made = nullptr;
      check( natsOptions_Create( &made ), "options" );
      Options options( made );
      const NatsOptions & wanted = options_.nats;
      std::vector< std::string > urls;
      for( std::string_view rest = wanted.servers; !rest.empty(); ) {
         const size_t comma = std::min( rest.find( ',' ), rest.size() );
         urls.emplace_back( rest.substr( 0, comma ) );
         rest.remove_prefix( std::min( comma + 1, rest.size() ) );
      }
      std::vector< const char * > texts;
      for( const std::string & url : urls ) texts.push_back( url.c_str() );
      check( natsOptions_SetServers( made, texts.data(), static_cast< int >( texts.size() ) ),
             "servers " + wanted.servers );
      check( natsOptions_SetName( made, wanted.name.c_str() ), "name" );
      // Each loss is ours to see: what was under way has failed then.
      check( natsOptions_SetAllowReconnect( made, false ), "options" );
      check( natsOptions_SetTimeout( made, 2000 ), "options" );
      check( natsOptions_SetPingInterval( made, 2000 ), "options" );
      check( natsOptions_SetMaxPingsOut( made, 2 ), "options" );
      check( natsOptions_SetErrorHandler(
                made, []( natsConnection *, natsSubscription *, natsStatus, void * ) {}, nullptr ),
             "options" );
      if( !wanted.credentials.empty() ) {
         check(
            natsOptions_SetUserCredentialsFromFiles( made, wanted.credentials.c_str(), nullptr ),
            "credentials " + wanted.credentials );
      }
      if( !wanted.user.empty() ) {
         check( natsOptions_SetUserInfo( made, wanted.user.c_str(), wanted.password.c_str() ),
                "user" );
      }
      if( wanted.tls || !wanted.trusted.empty() || !wanted.certificate.empty() ) {
         check( natsOptions_SetSecure( made, true ), "TLS" );
         if( !wanted.trusted.empty() ) {
            check( natsOptions_LoadCATrustedCertificates( made, wanted.trusted.c_str() ),
                   "certificates " + wanted.trusted );
         }
         if( !wanted.certificate.empty() ) {
            check( natsOptions_LoadCertificatesChain( made, wanted.certificate.c_str(),
                                                      wanted.key.c_str() ),
                   "certificate " + wanted.certificate );
         }
      }
      natsConnection * link = nullptr;
      check( natsConnection_Connect( &link, made ), "connecting to " + wanted.servers );
      link_.reset( link );
      jsCtx * js = nullptr;
      jsOptions jsOptions;
      jsOptions_Init( &jsOptions );
      jsOptions.Wait = 3000;
      check( natsConnection_JetStream( &js, link, &jsOptions ), "JetStream" );
      js_.reset( js );
   }

   /// One connection, until it is lost.
   void serve( milliseconds & pause ) {
      connect();
      listenForAcknowledgements();
      openBucket();
      pause = firstPause;
      Clock::time_point checkAt = Clock::now() + options_.check;
      std::unique_lock lock( mutex_ );
      while( !ending_ ) {
         if( natsConnection_IsClosed( link_.get() ) ) throw Failure( "the connection is lost" );
         if( !orders_.empty() ) {
            Order order = std::move( orders_.front() );
            orders_.pop_front();
            lock.unlock();
            publish( order );
            lock.lock();
            continue;
         }
         if( reading_ && !options_.follows && isWhole_ ) {
            lock.unlock();
            stopReading();
            lock.lock();
            continue;
         }
         if( tidies_ ) {
            tidies_ = false;
            const auto age = tidyAge_;
            const auto devices = tidyDevices_;
            lock.unlock();
            tidyNow( age, devices );
            lock.lock();
            continue;
         }
         const Clock::time_point now = Clock::now();
         if( now >= checkAt || suspicious_ ) {
            const bool wasSuspicious = suspicious_.exchange( false );
            lock.unlock();
            checkBucket();
            failOverdue();
            lock.lock();
            // One that refuses all orders is not asked without pause.
            checkAt = Clock::now() + options_.check;
            if( wasSuspicious ) changed_.wait_for( lock, firstPause, [this] { return ending_; } );
            continue;
         }
         // The library's own word of a loss may come when this is gone already: so it is asked.
         changed_.wait_until( lock, std::min( checkAt, now + milliseconds( 250 ) ), [this] {
            return ending_ || suspicious_ || tidies_ || !orders_.empty();
         } );
      }
   }

   void lost( const std::string & why ) {
      std::lock_guard lock( mutex_ );
      for( const auto & [ticket, order] : underWay_ ) {
         tellLocked( { Kind::refused, ticket, {}, "the connection is lost" } );
      }
      underWay_.clear();
      for( const Order & order : orders_ ) {
         tellLocked( { Kind::refused, order.ticket, {}, "there is no connection" } );
      }
      orders_.clear();
      // A dump that was cut off says nothing of what is not there.
      isDumping_ = false;
      if( online_ || why != lastProblem_ ) tellLocked( { Kind::offline, 0, {}, why } );
      online_ = false;
      lastProblem_ = why;
   }

   void closeAll() {
      stopReading();
      acknowledgements_.reset();
      js_.reset();
      if( link_ ) natsConnection_Close( link_.get() );
      link_.reset();
      // Callbacks may be running still.
      std::unique_lock lock( mutex_ );
      quiet_.wait( lock, [this] { return ties_ == 0; } );
   }

   // -- What subscriptions of the library call ------------------------------------------------

   /// What one subscription knows of its connection. Ends when no callback comes any more.
   struct Tie {
      Connection & self;
      uint64_t generation;
   };

   Tie * tie() {
      std::lock_guard lock( mutex_ );
      ++ties_;
      return new Tie{ *this, ++generation_ };
   }
   static void untie( void * closure ) {
      const std::unique_ptr< Tie > tie( static_cast< Tie * >( closure ) );
      std::lock_guard lock( tie->self.mutex_ );
      --tie->self.ties_;
      tie->self.quiet_.notify_all();
   }
   /// Takes over the subscription that was just made, or the error of making it.
   static Subscription tied( natsStatus status, natsSubscription * subscription, Tie * tie,
                             const std::string & what ) {
      if( status != NATS_OK ) untie( tie );
      check( status, what );
      Subscription owner( subscription );
      natsSubscription_SetPendingLimits( subscription, -1, -1 );
      natsSubscription_SetOnCompleteCB( subscription, &Connection::untie, tie );
      return owner;
   }

   // -- What the bucket is --------------------------------------------------------------------

   StreamInfo lookUpStream( bool & isAbsent ) {
      jsStreamInfo * info = nullptr;
      jsErrCode error{};
      const natsStatus status =
         js_GetStreamInfo( &info, js_.get(), stream_.c_str(), nullptr, &error );
      isAbsent = status == NATS_NOT_FOUND || error == JSStreamNotFoundErr;
      if( !isAbsent ) check( status, "bucket " + options_.bucket );
      return StreamInfo( isAbsent ? nullptr : info );
   }

   StreamInfo streamThatIs() {
      bool isAbsent = false;
      StreamInfo info = lookUpStream( isAbsent );
      if( info ) return info;
      if( options_.replicas <= 0 ) throw Failure( "there is no bucket " + options_.bucket );
      jsStreamConfig config;
      jsStreamConfig_Init( &config );
      const std::string subject = prefix_ + ">";
      const char * subjects[] = { subject.c_str() };
      config.Name = stream_.c_str();
      config.Subjects = subjects;
      config.SubjectsLen = 1;
      config.MaxMsgsPerSubject = 1;
      config.Replicas = options_.replicas;
      config.Discard = js_DiscardNew;
      config.AllowRollup = true;
      config.DenyDelete = true;
      config.AllowDirect = true;
      jsErrCode error{};
      const natsStatus status = js_AddStream( nullptr, js_.get(), &config, nullptr, &error );
      // Another may have been faster.
      if( error != JSStreamNameExistErr ) check( status, "making bucket " + options_.bucket );
      info = lookUpStream( isAbsent );
      if( !info ) throw Failure( "bucket " + options_.bucket + " was made and is not there" );
      return info;
   }

   void openBucket() {
      const StreamInfo info = streamThatIs();
      const uint64_t forgotten = horizon();
      bool isSame;
      {
         std::lock_guard lock( mutex_ );
         isSame = info->Created == created_ && info->State.LastSeq >= position_ && isWhole_ &&
                  position_ >= forgotten;
      }
      created_ = info->Created;
      {
         std::lock_guard lock( mutex_ );
         online_ = true;
         lastProblem_.clear();
         tellLocked( { Kind::online } );
      }
      startReading( !isSame );
   }

   /// Whether it still is what it was; else all is read again.
   void checkBucket() {
      bool isAbsent = false;
      StreamInfo info = lookUpStream( isAbsent );
      uint64_t position;
      {
         std::lock_guard lock( mutex_ );
         position = std::max( position_, acknowledged_ );
      }
      if( !info || info->Created != created_ || info->State.LastSeq < position ) {
         stopReading();
         openAgain();
      } else if( isReadingStuck() ) {
         // On from where it is, by another consumer.
         stopReading();
         openBucket();
      }
   }

   /// The library makes its consumer anew where the server has lost it, once: where that failed
   /// too, as it does while a cluster has no leader, nothing comes any more and nobody is told.
   bool isReadingStuck() {
      if( !reading_ ) return false;
      uint64_t position;
      {
         std::lock_guard lock( mutex_ );
         // Whoever does not take what is there is not waiting for the server.
         if( events_.size() >= mostEvents ) return false;
         position = position_;
      }
      jsConsumerInfo * info = nullptr;
      jsErrCode error{};
      const natsStatus status =
         natsSubscription_GetConsumerInfo( &info, reading_.get(), nullptr, &error );
      const bool isFaulty = status != NATS_OK || info->Delivered.Stream > position;
      if( status == NATS_OK ) jsConsumerInfo_Destroy( info );
      // What is under way arrives until the next time.
      const bool isStuck = isFaulty && wasFaulty_ && position == faultyAt_;
      wasFaulty_ = isFaulty && !isStuck;
      faultyAt_ = position;
      return isStuck;
   }

   void openAgain() {
      {
         std::lock_guard lock( mutex_ );
         isWhole_ = false;
         acknowledged_ = 0;
         // They may be in the bucket that is no more.
         for( const auto & [ticket, order] : underWay_ ) {
            tellLocked( { Kind::refused, ticket, {}, "the bucket was made anew" } );
         }
         underWay_.clear();
      }
      openBucket();
   }

   uint64_t horizon() {
      natsMsg * message = nullptr;
      const std::string subject = prefix_ + horizonKey;
      const natsStatus status =
         js_GetLastMsg( &message, js_.get(), stream_.c_str(), subject.c_str(), nullptr, nullptr );
      if( status != NATS_OK ) return 0; // nobody tidies here, or we may not know
      const Message owner( message );
      const std::string text( natsMsg_GetData( message ),
                              static_cast< size_t >( natsMsg_GetDataLength( message ) ) );
      return strtoull( text.c_str(), nullptr, 10 );
   }

   // -- Reading -------------------------------------------------------------------------------

   void startReading( bool all ) {
      if( !all && !options_.follows ) return;
      jsSubOptions subOptions;
      jsSubOptions_Init( &subOptions );
      subOptions.Stream = stream_.c_str();
      subOptions.Ordered = true;
      if( all ) {
         subOptions.Config.DeliverPolicy = js_DeliverLastPerSubject;
         std::lock_guard lock( mutex_ );
         isWhole_ = false;
         isDumping_ = true;
         position_ = 0;
         tellLocked( { Kind::begin } );
      } else {
         subOptions.Config.DeliverPolicy = js_DeliverByStartSequence;
         subOptions.Config.OptStartSeq = position_ + 1;
      }
      const std::string subject = prefix_ + options_.filter;
      natsSubscription * reading = nullptr;
      jsErrCode error{};
      Tie * const ours = tie();
      {
         std::lock_guard lock( mutex_ );
         readingGeneration_ = ours->generation;
      }
      const natsStatus made =
         js_Subscribe( &reading, js_.get(), subject.c_str(), &Connection::onEntry, ours, nullptr,
                       &subOptions, &error );
      reading_ = tied( made, reading, ours, "reading " + subject );
      if( !all ) return;
      // Where nothing matches, no message says that it was the last.
      jsConsumerInfo * info = nullptr;
      const natsStatus status = natsSubscription_GetConsumerInfo( &info, reading, nullptr, &error );
      check( status, "reading " + subject );
      const bool isEmpty = info->NumPending == 0 && info->Delivered.Consumer == 0;
      jsConsumerInfo_Destroy( info );
      std::lock_guard lock( mutex_ );
      if( isEmpty && isDumping_ ) endDump();
   }

   // REQUIRES: mutex_ is held.
   void endDump() {
      isDumping_ = false;
      isWhole_ = true;
      // The reading itself is the thread's to end.
      if( !options_.follows ) changed_.notify_all();
      tellLocked( { Kind::end } );
   }

   void stopReading() {
      {
         std::lock_guard lock( mutex_ );
         readingGeneration_ = 0;
         roomMade_.notify_all();
      }
      if( reading_ ) natsSubscription_Unsubscribe( reading_.get() );
      reading_.reset();
   }

   static void onEntry( natsConnection *, natsSubscription *, natsMsg * message, void * closure ) {
      const Message owner( message );
      const Tie & tie = *static_cast< Tie * >( closure );
      Connection & self = tie.self;
      BucketEvent event{ Kind::entry };
      const std::string_view subject = natsMsg_GetSubject( message );
      if( !subject.starts_with( self.prefix_ ) ) return;
      event.key = subject.substr( self.prefix_.size() );
      const char * operation = nullptr;
      if( natsMsgHeader_Get( message, "KV-Operation", &operation ) == NATS_OK ) {
         event.kind = Kind::removal;
      } else {
         event.text.assign( natsMsg_GetData( message ),
                            static_cast< size_t >( natsMsg_GetDataLength( message ) ) );
      }
      jsMsgMetaData * data = nullptr;
      if( natsMsg_GetMetaData( &data, message ) != NATS_OK ) return;
      const uint64_t sequence = data->Sequence.Stream;
      const bool isLast = data->NumPending == 0;
      event.time = static_cast< double >( data->Timestamp ) / 1e9;
      jsMsgMetaData_Destroy( data );

      std::unique_lock lock( self.mutex_ );
      // Of a reading that has ended, nothing counts any more.
      const auto isOver = [&] { return self.ending_ || tie.generation != self.readingGeneration_; };
      self.roomMade_.wait( lock, [&] { return self.events_.size() < mostEvents || isOver(); } );
      if( isOver() || ( !self.options_.follows && !self.isDumping_ ) ) return;
      self.position_ = std::max( self.position_, sequence );
      if( event.key != horizonKey ) self.tellLocked( std::move( event ) );
      if( isLast && self.isDumping_ ) self.endDump();
   }

   // -- Writing -------------------------------------------------------------------------------

   void listenForAcknowledgements() {
      natsInbox * inbox = nullptr;
      check( natsInbox_Create( &inbox ), "inbox" );
      inbox_ = inbox;
      natsInbox_Destroy( inbox );
      natsSubscription * subscription = nullptr;
      Tie * const ours = tie();
      const natsStatus made =
         natsConnection_Subscribe( &subscription, link_.get(), ( inbox_ + ".*" ).c_str(),
                                   &Connection::onAcknowledgement, ours );
      acknowledgements_ = tied( made, subscription, ours, "inbox" );
   }

   void publish( const Order & order ) {
      const std::string subject = prefix_ + order.key;
      const std::string reply = inbox_ + "." + std::to_string( order.ticket );
      natsMsg * message = nullptr;
      check( natsMsg_Create( &message, subject.c_str(), reply.c_str(), order.value.data(),
                             static_cast< int >( order.value.size() ) ),
             "a message" );
      const Message owner( message );
      if( order.removes ) {
         check( natsMsgHeader_Set( message, "KV-Operation", "DEL" ), "a message" );
      }
      {
         std::lock_guard lock( mutex_ );
         underWay_[order.ticket] = Clock::now();
      }
      check( natsConnection_PublishMsg( link_.get(), message ), "publishing " + order.key );
   }

   static void onAcknowledgement( natsConnection *, natsSubscription *, natsMsg * message,
                                  void * closure ) {
      const Message owner( message );
      Connection & self = static_cast< Tie * >( closure )->self;
      const std::string_view subject = natsMsg_GetSubject( message );
      const uint64_t ticket = strtoull( subject.data() + subject.rfind( '.' ) + 1, nullptr, 10 );
      const std::string_view text( natsMsg_GetData( message ),
                                   static_cast< size_t >( natsMsg_GetDataLength( message ) ) );
      std::lock_guard lock( self.mutex_ );
      if( self.underWay_.erase( ticket ) == 0 ) return; // given up already
      const size_t number = text.find( "\"seq\":" );
      if( number != std::string_view::npos && text.find( "\"error\"" ) == std::string_view::npos ) {
         const std::string digits( text.substr( number + 6, 20 ) );
         self.acknowledged_ =
            std::max( self.acknowledged_, uint64_t( strtoull( digits.c_str(), nullptr, 10 ) ) );
         self.tellLocked( { Kind::stored, ticket } );
         return;
      }
      // No answer but the server's that nobody is there: the bucket is gone, or has no leader.
      self.suspicious_ = true;
      self.changed_.notify_all();
      self.tellLocked(
         { Kind::refused,
           ticket,
           {},
           text.empty() ? "nobody keeps the bucket" : std::string( text.substr( 0, 200 ) ) } );
   }

   void failOverdue() {
      std::lock_guard lock( mutex_ );
      const Clock::time_point due = Clock::now() - options_.patience;
      std::erase_if( underWay_, [&]( const auto & each ) {
         if( each.second > due ) return false;
         tellLocked( { Kind::refused, each.first, {}, "not acknowledged in time" } );
         return true;
      } );
   }

   // -- Tidying -------------------------------------------------------------------------------

   void tidyNow( std::chrono::seconds age, const std::vector< std::string > & devices ) {
      // What is older than `age` was there when this was last done, if that is as long ago.
      bool isAbsent = false;
      const StreamInfo info = lookUpStream( isAbsent );
      if( !info ) return;
      const Clock::time_point now = Clock::now();
      if( tidied_.empty() || tidied_.back().second != info->State.LastSeq ) {
         tidied_.push_back( { now, info->State.LastSeq } );
      }
      uint64_t reached = 0;
      while( !tidied_.empty() && tidied_.front().first + age <= now ) {
         reached = tidied_.front().second;
         tidied_.pop_front();
      }
      if( reached ) {
         // First the word that they may be missing.
         const std::string text = std::to_string( reached );
         check( js_Publish( nullptr, js_.get(), ( prefix_ + horizonKey ).c_str(), text.data(),
                            static_cast< int >( text.size() ), nullptr, nullptr ),
                "the horizon" );
         kvStore * store = nullptr;
         check( js_KeyValue( &store, js_.get(), options_.bucket.c_str() ), "the bucket" );
         kvPurgeOptions purge;
         kvPurgeOptions_Init( &purge );
         purge.DeleteMarkersOlderThan =
            std::chrono::duration_cast< std::chrono::nanoseconds >( age ).count();
         kvStore_PurgeDeletes( store, &purge );
         kvStore_Destroy( store );
      }
      for( const std::string & device : devices ) {
         jsOptions jsOptions;
         jsOptions_Init( &jsOptions );
         const std::string subject = prefix_ + device + ".>";
         jsOptions.Stream.Purge.Subject = subject.c_str();
         js_PurgeStream( js_.get(), stream_.c_str(), &jsOptions, nullptr );
      }
   }

   const BucketOptions options_;
   const std::string stream_;
   const std::string prefix_;
   const int wake_;

   // Of the thread alone.
   Link link_;
   JetStream js_;
   Subscription acknowledgements_;
   Subscription reading_;
   std::string inbox_;
   bool wasFaulty_ = false; // the reading, when it was last looked at
   uint64_t faultyAt_ = 0;
   int64_t created_ = 0; // the bucket's time of birth: its identity
   std::deque< std::pair< Clock::time_point, uint64_t > > tidied_; // when, and how long the log was

   std::mutex mutex_; // guards all that follows
   std::condition_variable changed_;
   std::condition_variable roomMade_;
   std::deque< BucketEvent > events_;
   std::deque< Order > orders_;
   std::map< uint64_t, Clock::time_point > underWay_; // since when
   uint64_t lastTicket_ = 0;
   uint64_t position_ = 0;     // of the log, read up to here
   uint64_t acknowledged_ = 0; // the highest number of ours
   bool isWhole_ = false;      // all was read once
   bool isDumping_ = false;
   std::condition_variable quiet_;
   size_t ties_ = 0;
   uint64_t generation_ = 0;
   uint64_t readingGeneration_ = 0; // 0: nothing is read
   std::atomic< bool > suspicious_ = false;
   bool online_ = false;
   bool ending_ = false;
   bool tidies_ = false;
   std::chrono::seconds tidyAge_{ 0 };
   std::vector< std::string > tidyDevices_;
   std::string lastProblem_;
   std::thread thread_;
};

Bucket::Bucket( BucketOptions options ) {
   const bool isName =
      !options.bucket.empty() &&
      options.bucket.find_first_not_of( "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                        "0123456789_-" ) == std::string::npos;
   if( !isName ) {
      throw std::runtime_error( "'" + options.bucket +
                                "' is no bucket's name: expected letters, digits, _ and -" );
   }
   connection_ = std::make_unique< Connection >( std::move( options ) );
}

Bucket::~Bucket() = default;

int
Bucket::fd() const {
   return connection_->fd();
}

std::vector< BucketEvent >
Bucket::take( size_t most ) {
   return connection_->take( most );
}

uint64_t
Bucket::put( const std::string & key, std::string value ) {
   return connection_->order( key, std::move( value ), false );
}

uint64_t
Bucket::remove( const std::string & key ) {
   return connection_->order( key, {}, true );
}

void
Bucket::tidy( std::chrono::seconds age, std::vector< std::string > devices ) {
   connection_->tidy( age, std::move( devices ) );
}

} // namespace IpstateNats
