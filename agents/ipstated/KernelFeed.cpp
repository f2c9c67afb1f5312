#include "agents/ipstated/KernelFeed.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace Ipstated {

namespace {

// Work done in one call of onReadable(), so that the owner's loop stays alive.
constexpr int eventsAtOnce = 512;
constexpr int repliesAtOnce = 64;

// Datagrams thrown away in a row before the socket counts as read empty: a writer faster than us
// must not hold us here for ever.
constexpr int discardsAtOnce = 1000000;

} // namespace

// ---- applying messages ----

/// Applies decoded messages to a model; tells the differences when it is the live one.
class KernelFeed::Applier : public MessageHandler {
 public:
   Applier( KernelFeed & feed, KernelState & state, bool live )
      : feed_( feed ),
        state_( state ),
        live_( live ) {}

   void onLink( const LinkMessage & link ) override {
      if( link.ip6Only ) {
         if( Interface * interface = state_.find( link.index ) ) {
            takeConfig6( *interface, link.config6 );
            refresh( *interface );
         }
         return;
      }
      if( link.gone ) {
         removeLink( link.index );
         return;
      }
      const Interface * holder = state_.findByName( link.name );
      if( holder && holder->index != link.index ) {
         // The kernel has no two of one name: the holder's end was missed.
         if( live_ ) {
            feed_.problem( "interface name " + link.name + " of index " +
                           std::to_string( holder->index ) + " is told for index " +
                           std::to_string( link.index ) );
            feed_.fullWanted_ = true;
            return;
         }
         // An event older than the dump: the holder's own newer one is still to come.
         state_.unname( *state_.find( holder->index ) );
      }
      Interface & interface = state_.at( link.index );
      bool fresh = !interface.present || interface.name != link.name;
      const bool renamed = fresh && interface.present && live_;
      if( renamed ) {
         feed_.observer_.onRename( interface, link.name );
         feed_.observer_.onInterfaceGone( interface );
      }
      bool vrfChanged = interface.isVrf != link.isVrf || ( fresh && link.isVrf );
      uint32_t flagsBefore = interface.flags;
      const LinkFacts factsBefore = std::exchange( interface.link, link.facts );
      state_.nameIs( interface, link.name );
      interface.flags = link.flags;
      interface.isVrf = link.isVrf;
      interface.table = link.table;
      interface.master = link.master;
      takeConfig6( interface, link.config6 );
      if( fresh ) {
         state_.refresh( interface );
         if( live_ ) {
            feed_.observer_.onInterface( interface );
         }
         if( renamed ) {
            feed_.observer_.onRenamed( interface );
         }
      } else {
         refresh( interface );
         if( live_ ) {
            tellFlags( interface, flagsBefore );
            if( !( factsBefore == interface.link ) ) {
               feed_.observer_.onLink( interface, factsBefore );
            }
         }
      }
      if( vrfChanged ) {
         refreshSlaves( link.index );
      }
   }

   void onAddress4( const AddressMessage< Ip4Address > & told ) override {
      Interface * interface = told.gone ? state_.find( told.index ) : &state_.at( told.index );
      if( !interface ) {
         return;
      }
      const Ip4Address * primary = interface->primary4();
      const bool had = primary;
      const Ip4Address before = had ? *primary : Ip4Address{};
      bool promoted = false;
      Difference difference = told.gone ? removeAddress( *interface, told.address )
                                        : addAddress( *interface, told.address, &promoted );
      if( promoted ) {
         feed_.lookAgain_ = true; // for its place
      }
      if( difference == Difference::none || !live_ || !interface->present ) {
         return;
      }
      feed_.observer_.onAddress4( *interface, told.address, difference );
      primary = interface->primary4();
      if( had != bool( primary ) || ( primary && !primary->sameObject( before ) ) ) {
         feed_.observer_.onPrimary4( *interface );
      }
   }

   void onAddress6( const AddressMessage< Ip6Address > & told ) override {
      Interface * interface = told.gone ? state_.find( told.index ) : &state_.at( told.index );
      if( !interface ) {
         return;
      }
      const bool gone = told.gone || !state_.isInUse( *interface, told.address );
      Difference difference =
         gone ? removeAddress( *interface, told.address ) : addAddress( *interface, told.address );
      if( difference != Difference::none && live_ && interface->present ) {
         feed_.observer_.onAddress6( *interface, told.address, difference );
      }
   }

   void onConfig4( const ConfigMessage & config ) override {
      Ip4Config * target = configTarget( config, state_.all4, &Interface::own4 );
      if( !target ) {
         return;
      }
      target->forwarding = config.forwarding.value_or( target->forwarding );
      target->rpFilter = config.rpFilter.value_or( target->rpFilter );
      target->bcForwarding = config.bcForwarding.value_or( target->bcForwarding );
      refreshAfterConfig( config );
   }

   void onConfig6( const ConfigMessage & config ) override {
      Ip6Config * target = configTarget( config, state_.all6, &Interface::own6 );
      if( !target ) {
         return;
      }
      target->forwarding = config.forwarding.value_or( target->forwarding );
      refreshAfterConfig( config );
   }

   void onGroup4( const GroupMessage< RawIp4 > & told ) override {
      group( told, &KernelObserver::onGroup4 );
   }

   void onGroup6( const GroupMessage< RawIp6 > & told ) override {
      group( told, &KernelObserver::onGroup6 );
   }

   void onOverrun() override { feed_.eventsLost( "the kernel tells of an overrun" ); }

   void onMalformed( const std::string & what ) override {
      ++feed_.statistics_.malformed;
      feed_.problem( what );
   }

   static void takeConfig6( Interface & interface, const Ip6LinkConfig & config ) {
      Ip6Config & own = interface.own6;
      own.acceptDad = config.acceptDad.value_or( own.acceptDad );
      interface.acceptDadTold = interface.acceptDadTold || config.acceptDad;
      own.enhancedDad = config.enhancedDad.value_or( own.enhancedDad );
      own.retransTime = config.retransTime.value_or( own.retransTime );
   }

   void refresh( Interface & interface ) {
      if( live_ ) {
         feed_.refreshAndTell( interface );
      }
   }

 private:
   template< class Group, class Tell >
   void group( const GroupMessage< Group > & told, Tell tell ) {
      Interface * interface = told.gone ? state_.find( told.index ) : &state_.at( told.index );
      if( !interface ) {
         return;
      }
      Difference difference =
         told.gone ? removeGroup( *interface, told.group ) : addGroup( *interface, told.group );
      if( difference != Difference::none && live_ && interface->present ) {
         ( feed_.observer_.*tell )( *interface, told.group, difference );
      }
   }

   void removeLink( int index ) {
      Interface * interface = state_.find( index );
      if( !interface ) {
         return;
      }
      bool wasVrf = interface->present && interface->isVrf;
      if( live_ && interface->present ) {
         feed_.observer_.onInterfaceGone( *interface );
      }
      state_.remove( index );
      if( wasVrf ) {
         refreshSlaves( index );
      }
   }

   void refreshSlaves( int master ) {
      if( live_ ) {
         state_.forEach( [&]( Interface & interface ) {
            if( interface.master == master ) {
               feed_.refreshAndTell( interface );
            }
         } );
      }
   }

   void tellFlags( const Interface & interface, uint32_t before ) {
      Interface old;
      old.flags = before;
      if( old.up() != interface.up() || old.noArp() != interface.noArp() ) {
         feed_.observer_.onFlags( interface );
      }
   }

   /// Where the values go, null for those that concern nothing here.
   template< class Config >
   Config * configTarget( const ConfigMessage & config, Config & all, Config Interface::*own ) {
      // A deletion comes with the end of the interface, or before a rename repeats all values.
      if( config.gone ) {
         return nullptr;
      }
      if( config.index == ConfigMessage::forAll ) {
         return &all;
      }
      // The values of an interface are told before the interface itself is.
      return config.index > 0 ? &( state_.at( config.index ).*own ) : nullptr;
   }

   void refreshAfterConfig( const ConfigMessage & config ) {
      if( !live_ ) {
         return;
      }
      if( config.index == ConfigMessage::forAll ) {
         feed_.refreshAllAndTell();
      } else {
         feed_.refreshAndTell( *state_.find( config.index ) );
      }
   }

   KernelFeed & feed_;
   KernelState & state_;
   const bool live_;
};

/// Takes the replies of the dump under way.
class KernelFeed::ReplyHandler : public MessageHandler {
 public:
   explicit ReplyHandler( KernelFeed & feed )
      : feed_( feed ),
        dump_( feed.phases_[feed.phase_] ),
        full_( feed.work_ == Work::full ),
        applier_( feed, full_ ? feed.staged_ : feed.state_, !full_ ) {}

   /// Whether the dump's last message was among them, and with which error.
   std::optional< int > done() const { return done_; }

   bool onHeader( const MessageHeader & header ) override {
      if( header.sequence != feed_.sequence_ || done_ ) {
         return false; // of a dump that was given up
      }
      feed_.interrupted_ = feed_.interrupted_ || header.interrupted();
      return true;
   }

   void onLink( const LinkMessage & link ) override {
      if( dump_ != Dump::links || link.gone ) {
         return;
      }
      if( full_ ) {
         applier_.onLink( link );
      } else if( Interface * interface = feed_.state_.find( link.index ) ) {
         // A poll is for what has no event; everything else must keep the order of the events.
         Applier::takeConfig6( *interface, link.config6 );
         applier_.refresh( *interface );
      }
   }

   void onAddress4( const AddressMessage< Ip4Address > & told ) override {
      if( dump_ == Dump::addresses4 ) {
         feed_.collected4_[told.index].push_back( told.address );
      }
   }

   void onAddress6( const AddressMessage< Ip6Address > & told ) override {
      if( dump_ == Dump::addresses6 ) {
         applier_.onAddress6( told );
      }
   }

   void onConfig4( const ConfigMessage & config ) override {
      if( dump_ != Dump::config4 ) {
         return;
      }
      if( full_ ) {
         applier_.onConfig4( config );
      } else if( config.index == ConfigMessage::forAll || feed_.state_.find( config.index ) ) {
         // The other values have events, which may already be newer than this reply.
         ConfigMessage polled;
         polled.index = config.index;
         polled.bcForwarding = config.bcForwarding;
         applier_.onConfig4( polled );
      }
   }

   void onConfig6( const ConfigMessage & config ) override {
      if( dump_ == Dump::config6 && full_ ) {
         applier_.onConfig6( config );
      }
   }

   void onGroup4( const GroupMessage< RawIp4 > & told ) override {
      if( dump_ == Dump::groups4 ) {
         feed_.collectedGroups4_[told.index].push_back( told.group );
      }
   }

   void onGroup6( const GroupMessage< RawIp6 > & told ) override {
      if( dump_ == Dump::groups6 ) {
         feed_.collectedGroups6_[told.index].push_back( told.group );
      }
   }

   void onDone( int error ) override { done_ = error; }

   void onError( int error, const std::string & text ) override {
      if( error && !text.empty() ) {
         feed_.problem( std::string( "dump of " ) + dumpName( dump_ ) + ": " + text );
      }
      done_ = error;
   }

   void onMalformed( const std::string & what ) override { applier_.onMalformed( what ); }

 private:
   KernelFeed & feed_;
   const Dump dump_;
   const bool full_;
   Applier applier_;
   std::optional< int > done_;
};

// ---- life ----

KernelFeed::KernelFeed( MessageSource & source, KernelObserver & observer )
   : KernelFeed( source, observer, Options{} ) {}

KernelFeed::KernelFeed( MessageSource & source, KernelObserver & observer, const Options & options )
   : source_( source ),
     observer_( observer ),
     options_( options ),
     retryDelay_( options.retryDelay ) {}

KernelFeed::~KernelFeed() = default;

void
KernelFeed::start( Time now ) {
   fullWanted_ = true;
   requestNext( now );
}

bool
KernelFeed::synchronized() const {
   return everSynchronized_ && work_ != Work::full && !fullWanted_ && nextFull_ == Time::max();
}

void
KernelFeed::problem( const std::string & text ) {
   observer_.onProblem( text );
}

void
KernelFeed::onReadable( Time now ) {
   serve( now );
   if( lookAgain_ && work_ != Work::full && nextFull_ == Time::max() ) {
      lookAgain_ = false;
      nextFull_ = now + retryDelay_;
   }
}

void
KernelFeed::serve( Time now ) {
   for( int i = 0; i < repliesAtOnce; ++i ) {
      // Events first: a dump can wait in the kernel, the listening socket fills up.
      Drained drained = readEvents( eventsAtOnce );
      if( work_ == Work::none ) {
         if( fullWanted_ ) {
            requestNext( now );
         }
         if( work_ == Work::none ) {
            return;
         }
      }
      Received reply = source_.receiveReply();
      if( reply.status == Received::Status::none ) {
         if( drained == Drained::empty ) {
            return;
         }
         continue;
      }
      onReply( reply, now );
   }
}

std::optional< KernelFeed::Time >
KernelFeed::deadline() const {
   Time first =
      work_ == Work::none ? std::min( nextPoll_, nextFull_ ) : lastReply_ + options_.replyTimeout;
   if( first == Time::max() ) {
      return std::nullopt;
   }
   return first;
}

void
KernelFeed::onDeadline( Time now ) {
   if( work_ != Work::none ) {
      if( now >= lastReply_ + options_.replyTimeout ) {
         problem( std::string( "dump of " ) + dumpName( phases_[phase_] ) + ": no reply" );
         onReply( { Received::Status::failed, nullptr, 0, ETIMEDOUT }, now );
      }
      return;
   }
   if( now >= nextFull_ ) {
      fullWanted_ = true;
   }
   if( fullWanted_ ) {
      requestNext( now );
   } else if( now >= nextPoll_ ) {
      beginPoll( now );
   }
}

// ---- events ----

KernelFeed::Drained
KernelFeed::readEvents( int most ) {
   for( int i = 0; i < most; ++i ) {
      Received event = source_.receiveEvent();
      switch( event.status ) {
      case Received::Status::none:
         return Drained::empty;
      case Received::Status::data:
         onEvent( event );
         break;
      case Received::Status::overrun:
         eventsLost( event.error == EMSGSIZE ? "an event was larger than the buffer"
                                             : "the kernel dropped events" );
         discardEvents();
         return Drained::empty;
      case Received::Status::failed:
         eventsLost( std::string( "reading events: " ) + strerror( event.error ) );
         return Drained::empty;
      }
   }
   return Drained::more;
}

void
KernelFeed::discardEvents() {
   for( int i = 0; i < discardsAtOnce; ++i ) {
      Received event = source_.receiveEvent();
      if( event.status == Received::Status::none || event.status == Received::Status::failed ) {
         return;
      }
      ++statistics_.events;
   }
}

void
KernelFeed::onEvent( const Received & event ) {
   ++statistics_.events;
   if( work_ == Work::full ) {
      if( keptBytes_ + event.length > options_.maxKeptBytes ) {
         eventsLost( "more events during a dump than are kept" );
         return;
      }
      const char * bytes = static_cast< const char * >( event.bytes );
      kept_.emplace_back( bytes, bytes + event.length );
      keptBytes_ += event.length;
      return;
   }
   if( fullWanted_ || !everSynchronized_ ) {
      return; // a full dump is owed and will tell all of it
   }
   Applier applier( *this, state_, true );
   decode( event.bytes, event.length, applier );
}

void
KernelFeed::eventsLost( const std::string & why ) {
   ++statistics_.overruns;
   problem( "events lost: " + why );
   kept_.clear();
   keptBytes_ = 0;
   if( work_ == Work::full ) {
      lost_ = true;
   } else {
      fullWanted_ = true;
   }
}

// ---- dumps ----

void
KernelFeed::requestNext( Time now ) {
   if( work_ != Work::none ) {
      return; // what is under way ends first, then looks here again
   }
   if( fullWanted_ ) {
      beginFull( now );
   }
}

void
KernelFeed::beginFull( Time now ) {
   fullWanted_ = false;
   nextFull_ = Time::max();
   work_ = Work::full;
   restarts_ = 0;
   beginTry( now );
}

void
KernelFeed::beginTry( Time now ) {
   // What is still queued is older than the dump; read empty, the socket takes events again after
   // a loss.
   discardEvents();
   kept_.clear();
   keptBytes_ = 0;
   lost_ = false;
   unclean_ = false;
   lookAgain_ = false;
   staged_ = KernelState();
   staged_.all4 = state_.all4;
   staged_.all6 = state_.all6;
   if( const int error = readAllConfig( staged_ ) ) {
      problem( std::string( "reading what holds for all interfaces: " ) + strerror( error ) );
      unclean_ = true;
      if( !everSynchronized_ ) {
         abandonFull( now );
         return;
      }
   }
   phases_ = { Dump::links,      Dump::config4, Dump::config6, Dump::addresses4,
               Dump::addresses6, Dump::groups4, Dump::groups6 };
   phase_ = 0;
   tries_ = 0;
   requestPhase( now );
}

void
KernelFeed::beginPoll( Time now ) {
   work_ = Work::poll;
   unclean_ = false;
   nextPoll_ = Time::max();
   Ip6Config all6 = state_.all6;
   (void)readAllConfig( state_ ); // what cannot be read stays until the next poll
   if( !( all6 == state_.all6 ) ) {
      refreshAllAndTell();
   }
   phases_ = { Dump::config4, Dump::links };
   for( Dump dump : { Dump::groups4, Dump::groups6 } ) {
      if( !source_.hasGroupEvents( dump ) ) {
         phases_.push_back( dump );
      }
   }
   phase_ = 0;
   tries_ = 0;
   requestPhase( now );
}

/// 0, or the errno of what was not read and stays as it was.
int
KernelFeed::readAllConfig( KernelState & state ) {
   int failed = 0;
   auto number = [&]( KernelText which, int & value ) {
      std::string text;
      const int error = source_.readText( which, text );
      if( error && error != ENOENT ) {
         failed = error;
      } else if( !error ) {
         char * end = nullptr;
         long read = strtol( text.c_str(), &end, 10 );
         if( end != text.c_str() && read >= INT32_MIN && read <= INT32_MAX ) {
            value = int( read );
         }
      }
   };
   int enhanced = state.all6.enhancedDad;
   number( KernelText::allAcceptDad, state.all6.acceptDad );
   number( KernelText::allEnhancedDad, enhanced );
   state.all6.enhancedDad = enhanced != 0;
   return failed;
}

/// Puts what was known before in the place of what this phase of a full dump did not bring. False
/// when there is no such thing.
bool
KernelFeed::keepKnown( Dump dump ) {
   if( work_ != Work::full ) {
      return true; // a poll puts nothing aside
   }
   unclean_ = true;
   if( dump == Dump::links ) {
      return false;
   }
   for( const auto & [index, known] : state_.interfaces() ) {
      Interface * now = staged_.find( index );
      if( !now || now->name != known.name ) {
         continue; // of another interface of that index nothing is known
      }
      switch( dump ) {
      case Dump::config4:
         now->own4 = known.own4;
         break;
      case Dump::config6:
         now->own6.forwarding = known.own6.forwarding;
         break;
      case Dump::addresses4:
         now->addresses4 = known.addresses4;
         break;
      case Dump::addresses6:
         now->addresses6 = known.addresses6;
         break;
      case Dump::groups4:
         now->groups4 = known.groups4;
         break;
      case Dump::groups6:
         now->groups6 = known.groups6;
         break;
      case Dump::links:
         break;
      }
   }
   return true;
}

/// The dump under way tells nothing; the events that it held back do.
void
KernelFeed::abandonFull( Time now ) {
   work_ = Work::none;
   staged_ = KernelState();
   if( everSynchronized_ && !lost_ ) {
      applyKept( state_, true );
   }
   kept_.clear();
   keptBytes_ = 0;
   lost_ = false;
   retryLater( now );
}

void
KernelFeed::applyKept( KernelState & state, bool live ) {
   Applier applier( *this, state, live );
   for( const std::vector< char > & event : kept_ ) {
      decode( event.data(), event.size(), applier );
   }
}

void
KernelFeed::requestPhase( Time now ) {
   for( ;; ) {
      if( phase_ == phases_.size() ) {
         if( work_ == Work::full ) {
            finishFull( now );
         } else {
            finishPoll( now );
         }
         return;
      }
      Dump dump = phases_[phase_];
      if( !tries_ ) {
         collected4_.clear();
         collectedGroups4_.clear();
         collectedGroups6_.clear();
      }
      bool asText =
         ( dump == Dump::groups4 && groupText4_ ) || ( dump == Dump::groups6 && groupText6_ );
      if( asText ) {
         const int error = takeGroupText( dump );
         if( !error ) {
            takeCollected( false );
         } else if( error != ENOENT ) {
            problem( std::string( "dump of " ) + dumpName( dump ) + ": " + strerror( error ) );
            keepKnown( dump );
         }
         ++phase_;
         continue;
      }
      interrupted_ = false;
      cutShort_ = false;
      lastReply_ = now;
      ++sequence_;
      int error = source_.request( dump, sequence_ );
      if( !error ) {
         return;
      }
      problem( std::string( "dump of " ) + dumpName( dump ) + ": " + strerror( error ) );
      source_.abandonRequest();
      tries_ = 0;
      if( !keepKnown( dump ) ) {
         abandonFull( now );
         return;
      }
      ++phase_;
   }
}

void
KernelFeed::onReply( const Received & reply, Time now ) {
   if( reply.status != Received::Status::data ) {
      // The rest of this dump cannot be had any more.
      source_.abandonRequest();
      interrupted_ = true;
      cutShort_ = true;
      onPhaseDone( now, 0 );
      return;
   }
   lastReply_ = now;
   ReplyHandler handler( *this );
   decode( reply.bytes, reply.length, handler );
   if( handler.done() ) {
      onPhaseDone( now, *handler.done() );
   }
}

void
KernelFeed::onPhaseDone( Time now, int error ) {
   Dump dump = phases_[phase_];
   if( error ) {
      bool groups = dump == Dump::groups4 || dump == Dump::groups6;
      bool unknown = error == EOPNOTSUPP || error == EAFNOSUPPORT || error == EPROTONOSUPPORT;
      if( groups && ( unknown || error == EINVAL ) ) {
         ( dump == Dump::groups4 ? groupText4_ : groupText6_ ) = true;
         requestPhase( now ); // now as text
         return;
      }
      if( !unknown ) {
         problem( std::string( "dump of " ) + dumpName( dump ) + ": " + strerror( error ) );
         interrupted_ = true;
         cutShort_ = true;
      }
   }
   if( interrupted_ ) {
      ++statistics_.interrupted;
   }
   takeCollected( tries_ > 0 || interrupted_ );
   bool again = work_ == Work::full || dump == Dump::groups4 || dump == Dump::groups6;
   if( interrupted_ && again && ++tries_ < options_.maxTries ) {
      requestPhase( now );
      return;
   }
   unclean_ = unclean_ || interrupted_;
   tries_ = 0;
   if( cutShort_ && !keepKnown( dump ) ) {
      abandonFull( now );
      return;
   }
   ++phase_;
   requestPhase( now );
}

/// 0, or the errno.
int
KernelFeed::takeGroupText( Dump dump ) {
   std::string text;
   bool good = true;
   if( dump == Dump::groups4 ) {
      std::vector< std::pair< int, RawIp4 > > groups;
      if( const int error = source_.readText( KernelText::igmp, text ) ) {
         return error;
      }
      good = readIgmp( text, groups );
      for( const auto & [index, group] : groups ) {
         collectedGroups4_[index].push_back( group );
      }
   } else {
      std::vector< std::pair< int, RawIp6 > > groups;
      if( const int error = source_.readText( KernelText::igmp6, text ) ) {
         return error;
      }
      good = readIgmp6( text, groups );
      for( const auto & [index, group] : groups ) {
         collectedGroups6_[index].push_back( group );
      }
   }
   if( !good ) {
      problem( std::string( "the kernel's text of " ) + dumpName( dump ) +
               " has a line of unknown shape" );
   }
   return 0;
}

namespace {

struct Ip6Hash {
   size_t operator()( const RawIp6 & address ) const {
      uint64_t half[2];
      memcpy( half, address.data(), sizeof half );
      return size_t( ( half[0] ^ half[1] * 0x9e3779b97f4a7c15u ) * 0xff51afd7ed558ccdu >> 16 );
   }
};

struct Ip4AddressHash {
   size_t operator()( const Ip4Address & address ) const {
      uint64_t key = uint64_t( address.local ) << 32 | address.peer;
      return size_t( ( key + address.prefixLength ) * 0x9e3779b97f4a7c15u >> 16 );
   }
};

struct SameObject {
   template< class Address >
   bool operator()( const Address & one, const Address & other ) const {
      return one.sameObject( other );
   }
};

struct Ip6AddressHash {
   size_t operator()( const Ip6Address & address ) const { return Ip6Hash()( address.address ); }
};

/// Calls `tell( member, difference )` for what one list has and the other has not, and for what
/// both have but not alike; gone ones first.
template< class Hash, class Same, class Member, class Tell >
void
compareLists( const std::vector< Member > & before, const std::vector< Member > & after,
              Tell tell ) {
   if( before == after ) {
      return;
   }
   std::unordered_set< Member, Hash, Same > old( before.begin(), before.end() );
   std::unordered_set< Member, Hash, Same > now( after.begin(), after.end() );
   for( const Member & member : before ) {
      if( !now.count( member ) ) {
         tell( member, Difference::removed );
      }
   }
   for( const Member & member : after ) {
      auto found = old.find( member );
      if( found == old.end() ) {
         tell( member, Difference::added );
      } else if( !( *found == member ) ) {
         tell( member, Difference::changed );
      }
   }
}

} // namespace

void
KernelFeed::takeCollected( bool repeated ) {
   Dump dump = phases_[phase_];
   if( dump == Dump::addresses4 ) {
      for( auto & [index, addresses] : collected4_ ) {
         std::vector< Ip4Address > & held = staged_.at( index ).addresses4;
         held = repeated ? mergeDumps( held, addresses ) : std::move( addresses );
      }
      collected4_.clear();
      return;
   }
   if( dump != Dump::groups4 && dump != Dump::groups6 ) {
      return;
   }
   if( work_ == Work::full ) {
      for( const auto & [index, groups] : collectedGroups4_ ) {
         for( RawIp4 group : groups ) {
            addGroup( staged_.at( index ), group );
         }
      }
      for( const auto & [index, groups] : collectedGroups6_ ) {
         for( const RawIp6 & group : groups ) {
            addGroup( staged_.at( index ), group );
         }
      }
   } else if( !interrupted_ || tries_ + 1 >= options_.maxTries ) {
      // There are no events for these: the dump replaces what is held.
      state_.forEach( [&]( Interface & interface ) {
         if( dump == Dump::groups4 ) {
            std::vector< RawIp4 > before = std::move( interface.groups4 );
            interface.groups4.clear();
            for( RawIp4 group : collectedGroups4_[interface.index] ) {
               addGroup( interface, group );
            }
            if( interface.present ) {
               compareLists< std::hash< RawIp4 >, std::equal_to< RawIp4 > >(
                  before, interface.groups4, [&]( RawIp4 group, Difference difference ) {
                     observer_.onGroup4( interface, group, difference );
                  } );
            }
         } else {
            std::vector< RawIp6 > before = std::move( interface.groups6 );
            interface.groups6.clear();
            for( const RawIp6 & group : collectedGroups6_[interface.index] ) {
               addGroup( interface, group );
            }
            if( interface.present ) {
               compareLists< Ip6Hash, std::equal_to< RawIp6 > >(
                  before, interface.groups6, [&]( const RawIp6 & group, Difference difference ) {
                     observer_.onGroup6( interface, group, difference );
                  } );
            }
         }
      } );
   } else {
      return; // what the next tries see is added
   }
   collectedGroups4_.clear();
   collectedGroups6_.clear();
}

void
KernelFeed::finishFull( Time now ) {
   // Take in what is queued, so that a short-lived thing is not told at all.
   while( readEvents( eventsAtOnce ) == Drained::more && !lost_ ) {}
   if( lost_ ) {
      if( ++restarts_ <= options_.maxRestarts ) {
         beginTry( now );
         return;
      }
      problem( "events are lost faster than they are read" );
      unclean_ = true;
   }
   applyKept( staged_, false );
   kept_.clear();
   keptBytes_ = 0;
   staged_.refreshAll();
   KernelState before = std::move( state_ );
   state_ = std::move( staged_ );
   staged_ = KernelState();
   work_ = Work::none;
   lost_ = false;
   everSynchronized_ = true;
   ++statistics_.fullDumps;
   nextPoll_ = now + options_.pollInterval;
   if( unclean_ ) {
      retryLater( now );
   } else {
      retryDelay_ = options_.retryDelay;
   }
   tellDifferences( before );
   observer_.onSynchronized();
}

void
KernelFeed::retryLater( Time now ) {
   nextFull_ = now + retryDelay_;
   retryDelay_ = std::min( 2 * retryDelay_, options_.longestRetryDelay );
}

void
KernelFeed::finishPoll( Time now ) {
   work_ = Work::none;
   nextPoll_ = now + options_.pollInterval;
   requestNext( now );
}

// ---- telling ----

void
KernelFeed::tellDifferences( const KernelState & before ) {
   for( const auto & [index, interface] : before.interfaces() ) {
      if( interface.present && !state_.findByName( interface.name ) ) {
         observer_.onInterfaceGone( interface );
      }
   }
   for( const auto & [index, interface] : state_.interfaces() ) {
      if( !interface.present ) {
         continue;
      }
      if( const Interface * old = before.findByName( interface.name ) ) {
         tellDifferences( *old, interface );
      } else {
         observer_.onInterface( interface );
      }
   }
}

void
KernelFeed::tellDifferences( const Interface & before, const Interface & after ) {
   if( before.vrf != after.vrf ) {
      observer_.onVrf( after, before.vrf );
   }
   if( before.up() != after.up() || before.noArp() != after.noArp() ) {
      observer_.onFlags( after );
   }
   if( !( before.link == after.link ) ) {
      observer_.onLink( after, before.link );
   }
   if( !( before.config4 == after.config4 ) ) {
      observer_.onConfig4( after );
   }
   if( !( before.config6 == after.config6 ) ) {
      observer_.onConfig6( after );
   }
   compareLists< Ip4AddressHash, SameObject >( before.addresses4, after.addresses4,
                                               [&]( const Ip4Address & address, Difference what ) {
                                                  observer_.onAddress4( after, address, what );
                                               } );
   const Ip4Address * was = before.primary4();
   const Ip4Address * is = after.primary4();
   if( bool( was ) != bool( is ) || ( is && !is->sameObject( *was ) ) ) {
      observer_.onPrimary4( after );
   }
   compareLists< Ip6AddressHash, SameObject >( before.addresses6, after.addresses6,
                                               [&]( const Ip6Address & address, Difference what ) {
                                                  observer_.onAddress6( after, address, what );
                                               } );
   compareLists< std::hash< RawIp4 >, std::equal_to< RawIp4 > >(
      before.groups4, after.groups4,
      [&]( RawIp4 group, Difference what ) { observer_.onGroup4( after, group, what ); } );
   compareLists< Ip6Hash, std::equal_to< RawIp6 > >(
      before.groups6, after.groups6,
      [&]( const RawIp6 & group, Difference what ) { observer_.onGroup6( after, group, what ); } );
}

void
KernelFeed::refreshAndTell( Interface & interface ) {
   std::string vrf = interface.vrf;
   Ip4Config config4 = interface.config4;
   Ip6Config config6 = interface.config6;
   if( !state_.refresh( interface ) || !interface.present ) {
      return;
   }
   if( vrf != interface.vrf ) {
      observer_.onVrf( interface, vrf );
   }
   if( !( config4 == interface.config4 ) ) {
      observer_.onConfig4( interface );
   }
   if( !( config6 == interface.config6 ) ) {
      observer_.onConfig6( interface );
   }
}

void
KernelFeed::refreshAllAndTell() {
   state_.forEach( [&]( Interface & interface ) { refreshAndTell( interface ); } );
}

} // namespace Ipstated
