// The notifiee list against a model: every schedule of up to four notifiees whose callbacks do
// something to the list while it is being visited. Then the promises one by one, as stories.

#include "framework/Notifiee.h"
#include "framework/Notifier.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

// ---- a record as generated code looks, one derived from it, and its watchers ----------------

class Record : public Zek::Notifier {
 public:
   class NotifieeConst : public Zek::PtrInterface::NotifieeConst {
    public:
      virtual void onX() {}
      virtual void onMember( const int & ) {}
      virtual void onMemberzekImmediate() {}
      virtual void onMember() {}
      void notifierIs( Zek::Ptr< const Zek::PtrInterface > p ) override {
         notifierAssign( dynamic_cast< const Record * >( p.ptr() ) );
      }
      Zek::Ptr< const Record > notifier() const { return notifierAs< Record >(); }
   };
   explicit Record( bool * alive = nullptr ) : alive_( alive ) {
      if( alive_ ) *alive_ = true;
   }
   ~Record() override {
      if( alive_ ) *alive_ = false;
   }
   int x() const { return x_; }
   void xIs( int x ) {
      if( x_ == x ) return;
      x_ = x;
      announce( &NotifieeConst::onX );
   }
   void memberNotify( int key ) {
      x_++;
      announce( &NotifieeConst::onMember, key );
   }
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "Record", sizeof( void * ) };

 private:
   int x_ = 0;
   bool * alive_;
};

class DerivedRecord : public Record {
 public:
   class NotifieeConst : public Record::NotifieeConst {
    public:
      virtual void onY() {}
   };
   void yIs( int ) { announce( &NotifieeConst::onY ); }
};

class OtherRecord : public Zek::Notifier {
 public:
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "OtherRecord", sizeof( void * ) };
};

class Watcher : public Record::NotifieeConst {
 public:
   std::function< void() > then;
   std::function< void() > farewell;
   bool swallows = false;
   int calls = 0;

   ~Watcher() override {
      if( farewell ) farewell();
   }
   void onX() override {
      calls++;
      if( then ) then();
   }
   void onMember( const int & ) override { onX(); }
   void onNotificationException() override {
      if( !swallows ) throw;
   }
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "Watcher", sizeof( void * ) };
};

Zek::Ptr< Watcher >
watcherOf( const Zek::Ptr< Record > & record, std::function< void() > then = {},
           bool weak = false ) {
   auto w = Zek::allocate< Watcher >();
   w->then = std::move( then );
   w->isWeakNotifieeIs( weak );
   w->notifierIs( record );
   w->isRegisteredNotifieeIs( true );
   return w;
}

uint64_t
liveObjects() {
   return Record::allocTrackTypeInfo_.liveObjects() + Watcher::allocTrackTypeInfo_.liveObjects();
}

// ---- schedules ----------------------------------------------------------------------------

// What a notifiee does when it is called for the first time; those after `untargeted` do it to
// the notifiee `target`, which may be itself.
enum Deed {
   nothing,
   attachNew,
   reenter,
   dropSubject,
   throwIt,
   throwAndSwallow,
   untargeted,
   unregister = untargeted,
   reregister,
   detach,
   repoint,
   destroy,
   suspend,
   deeds
};
const char * const deedNames[] = { "nothing", "attach a new one",  "re-enter",   "drop the subject",
                                   "throw",   "throw and swallow", "unregister", "re-register",
                                   "detach",  "re-point",          "destroy",    "suspend" };
struct Action {
   Deed deed;
   size_t target;
};
enum Kind { strong, weak, adaptor, kinds };
struct Schedule {
   std::vector< Action > actions;
   std::vector< Kind > kind;
   bool keyed;

   std::string text() const {
      std::string out;
      for( size_t i = 0; i < actions.size(); i++ ) {
         out += std::to_string( i ) + ( kind[i] == weak ? " (weak)" : "" ) +
                ( kind[i] == adaptor ? " (adaptor)" : "" ) + ": " + deedNames[actions[i].deed] +
                ( actions[i].deed < untargeted ? "" : " " + std::to_string( actions[i].target ) ) +
                "\n";
      }
      return out;
   }
};
// Who was called by whom at which value; who threw; what the end looks like. Packed to ints.
using Trace = std::vector< int >;
constexpr int deadMark = -1;
constexpr int
called( size_t id, size_t notifier, int value ) {
   return static_cast< int >( id * 10000 + notifier * 1000 ) + value;
}
constexpr int
threw( int id ) {
   return -100 - id;
}

// Both worlds understand: mutate( 0 or 1 ), resumeAll(), finish(). Notifier 0 is the subject.

// The reference: vectors of registrations, each with a stamp of its own.
class Model {
 public:
   explicit Model( const Schedule & s ) : s_( s ) {
      for( size_t i = 0; i < s.actions.size(); i++ ) add( 0, s.kind[i] );
   }
   void mutate( size_t n ) {
      if( !notifiers_[n].alive ) return;
      if( auto id = visit( n ) ) trace.push_back( threw( *id ) );
   }
   void resumeAll() {
      for( auto & m : members_ ) m.active = true;
   }
   void finish() {
      for( auto & m : members_ ) trace.push_back( m.alive ? m.at : deadMark );
      for( auto & n : notifiers_ ) trace.push_back( n.alive );
   }
   Trace trace;

 private:
   struct Member {
      Kind kind;
      int at = -1;   // notifier
      int stamp = 0; // 0: unregistered
      bool active = true, alive = true, acted = false;
   };
   struct Notifier {
      std::vector< int > order{}; // stamps
      int value = 0, visits = 0;
      bool outside = true, alive = true;
   };
   void add( size_t n, Kind kind ) {
      members_.push_back( { kind, static_cast< int >( n ) } );
      registeredIs( members_.back(), true );
   }
   void registeredIs( Member & m, bool on ) {
      for( auto & n : notifiers_ ) std::erase( n.order, m.stamp );
      m.stamp = on ? ++stamps_ : 0;
      if( on && m.at >= 0 ) notifiers_[static_cast< size_t >( m.at )].order.push_back( m.stamp );
   }
   void pointTo( Member & m, int at ) {
      if( m.at == at ) return;
      m.at = at;
      registeredIs( m, m.stamp != 0 );
   }
   void buryDead() {
      for( int i = 0; i < 2; i++ ) {
         auto & n = notifiers_[static_cast< size_t >( i )];
         bool held = n.outside || n.visits ||
                     std::any_of( members_.begin(), members_.end(),
                                  [&]( auto & m ) { return m.at == i && m.kind != weak; } );
         if( held ) continue;
         n.alive = false;
         for( auto & m : members_ )
            if( m.at == i ) m.at = -1;
      }
   }
   std::optional< int > visit( size_t n ) {
      notifiers_[n].value++;
      notifiers_[n].visits++;
      std::optional< int > thrown;
      for( int stamp : std::vector( notifiers_[n].order ) ) {
         auto & order = notifiers_[n].order;
         if( std::find( order.begin(), order.end(), stamp ) == order.end() ) continue;
         size_t id = 0;
         while( members_[id].stamp != stamp ) id++;
         if( !members_[id].active || ( thrown && members_[id].kind != adaptor ) ) continue;
         trace.push_back( called( id, n, notifiers_[n].value ) );
         auto result = act( id, n );
         if( !thrown ) thrown = result;
      }
      notifiers_[n].visits--;
      buryDead();
      return thrown;
   }
   std::optional< int > act( size_t id, size_t n ) {
      if( id >= s_.actions.size() || std::exchange( members_[id].acted, true ) ) return {};
      Action a = s_.actions[id];
      if( a.deed == attachNew ) add( n, strong );
      if( a.deed == reenter ) return visit( n );
      if( a.deed == dropSubject ) notifiers_[0].outside = false;
      if( a.deed == throwIt ) return static_cast< int >( id );
      Member & m = members_[a.target];
      if( a.deed >= untargeted && m.alive ) {
         if( a.deed == unregister ) registeredIs( m, false );
         if( a.deed == reregister ) registeredIs( m, true );
         if( a.deed == detach ) pointTo( m, -1 );
         if( a.deed == repoint ) pointTo( m, 1 );
         if( a.deed == suspend ) m.active = false;
         if( a.deed == destroy ) {
            registeredIs( m, false );
            m.at = -1;
            m.alive = false;
         }
      }
      buryDead();
      return {};
   }

   const Schedule & s_;
   std::vector< Member > members_;
   Notifier notifiers_[2];
   int stamps_ = 0;
};

// The real thing.
class World {
 public:
   explicit World( const Schedule & s ) : s_( s ) {
      for( size_t i = 0; i < 2; i++ ) {
         outside_[i] = Zek::allocate< Record >( &alive_[i] );
         record_[i] = outside_[i].ptr();
      }
      for( size_t i = 0; i < s.actions.size(); i++ ) {
         add( 0, s.kind[i] );
         members_[i]->swallows = s.actions[i].deed == throwAndSwallow;
      }
   }
   void mutate( size_t n ) {
      if( !alive_[n] ) return;
      try {
         change( n );
      } catch( int id ) {
         trace.push_back( threw( id ) );
      }
   }
   void resumeAll() {
      for( auto & m : members_ )
         if( m ) m->hasNotificationActiveIs( true );
   }
   void finish() {
      for( auto & m : members_ ) trace.push_back( m ? at( *m ) : deadMark );
      for( bool alive : alive_ ) trace.push_back( alive );
   }
   Trace trace;

 private:
   int at( Watcher & w ) {
      auto record = w.notifier().ptr();
      return record ? record == record_[1] : -1;
   }
   void add( size_t n, Kind kind ) {
      size_t id = members_.size();
      members_.push_back( watcherOf( record_[n], {}, kind == weak ) );
      Watcher * w = members_.back().ptr();
      w->then = [this, id, w] { act( id, w->notifier().ptr() == record_[1] ); };
      w->zekIsLogAdaptorIs( kind == adaptor );
      acted_.push_back( false );
   }
   void change( size_t n ) {
      if( s_.keyed ) {
         record_[n]->memberNotify( 7 );
      } else {
         record_[n]->xIs( record_[n]->x() + 1 );
      }
   }
   void act( size_t id, size_t n ) {
      trace.push_back( called( id, n, record_[n]->x() ) );
      if( id >= s_.actions.size() || acted_[id] ) return;
      acted_[id] = true;
      Action a = s_.actions[id];
      if( a.deed == attachNew ) add( n, strong );
      if( a.deed == reenter ) change( n );
      if( a.deed == dropSubject ) outside_[0] = nullptr;
      if( a.deed == throwIt || a.deed == throwAndSwallow ) throw static_cast< int >( id );
      if( a.deed < untargeted || !members_[a.target] ) return;
      Watcher & m = *members_[a.target];
      if( a.deed == unregister || a.deed == reregister ) m.isRegisteredNotifieeIs( false );
      if( a.deed == reregister ) m.isRegisteredNotifieeIs( true );
      if( a.deed == detach ) m.notifierIs( nullptr );
      if( a.deed == repoint ) m.notifierIs( record_[1] );
      if( a.deed == suspend ) m.hasNotificationActiveIs( false );
      if( a.deed == destroy ) members_[a.target] = nullptr;
   }

   const Schedule & s_;
   bool alive_[2];
   Record * record_[2];
   std::vector< Zek::Ptr< Watcher > > members_;
   std::vector< bool > acted_;
   // Last, and so dropped before the members: weak ones outlive their notifier.
   Zek::Ptr< Record > outside_[2];
};

template< class Side >
Trace
play( const Schedule & s ) {
   Side side( s );
   for( size_t notifier : { 0, 0, 1 } ) side.mutate( notifier );
   side.resumeAll();
   for( size_t notifier : { 0, 1 } ) side.mutate( notifier );
   side.finish();
   return side.trace;
}

void
playAll( size_t notifiees, const std::vector< Deed > & allowed, bool everyKind ) {
   std::vector< Action > choice;
   for( Deed deed : allowed ) {
      for( size_t i = 0; i < ( deed < untargeted ? 1 : notifiees ); i++ )
         choice.push_back( { deed, i } );
   }
   size_t actionSets = 1, kindSets = 1;
   for( size_t i = 0; i < notifiees; i++ ) {
      actionSets *= choice.size();
      kindSets *= kinds;
   }
   uint32_t drawn = 1;
   for( size_t actions = 0; actions < actionSets; actions++ ) {
      for( size_t k = 0; k < ( everyKind ? kindSets : 1 ); k++ ) {
         drawn = drawn * 1664525 + 1013904223;
         size_t kindSet = everyKind ? k : ( drawn >> 8 ) % kindSets;
         Schedule s{ {}, {}, ( drawn >> 30 & 1 ) != 0 };
         for( size_t i = 0, rest = actions; i < notifiees; i++, rest /= choice.size() ) {
            s.actions.push_back( choice[rest % choice.size()] );
            s.kind.push_back( static_cast< Kind >( kindSet % kinds ) );
            kindSet /= kinds;
         }
         Trace expected = play< Model >( s ), seen = play< World >( s );
         if( expected != seen || liveObjects() != 0 ) {
            ASSERT_EQ( expected, seen ) << s.text();
            ASSERT_EQ( 0u, liveObjects() ) << "objects leaked by\n" << s.text();
         }
      }
   }
}

TEST( NotifieeListSchedules, UpToThreeNotifieesOfEveryKindDoAnything ) {
   std::vector< Deed > all;
   for( int deed = nothing; deed < deeds; deed++ ) all.push_back( static_cast< Deed >( deed ) );
   for( size_t notifiees : { 1, 2, 3 } ) playAll( notifiees, all, notifiees < 3 );
}

TEST( NotifieeListSchedules, FourNotifieesDoAnythingThatMovesTheList ) {
   playAll(
      4,
      { nothing, attachNew, reenter, dropSubject, throwIt, unregister, detach, repoint, destroy },
      false );
}

// ---- stories ------------------------------------------------------------------------------

class NotifieeListStory : public ::testing::Test {
 protected:
   ~NotifieeListStory() override {
      watchers.clear();
      record = nullptr;
      EXPECT_EQ( 0u, liveObjects() );
   }
   Watcher * watch( std::function< void() > then = {}, bool weak = false ) {
      watchers.push_back( watcherOf( record, std::move( then ), weak ) );
      return watchers.back().ptr();
   }
   void change() { record->xIs( record->x() + 1 ); }

   Zek::Ptr< Record > record = Zek::allocate< Record >();
   std::vector< Zek::Ptr< Watcher > > watchers;
};

TEST_F( NotifieeListStory, OnlyARegisteredAndActiveNotifieeIsCalledAndNothingIsDeliveredLater ) {
   auto w = Zek::allocate< Watcher >();
   EXPECT_FALSE( w->isRegisteredNotifiee() || w->zekMarkedForDeletion() );
   EXPECT_TRUE( w->hasNotificationActive() );
   change();
   w->notifierIs( record );
   change();
   EXPECT_EQ( 0, w->calls );
   w->isRegisteredNotifieeIs( true );
   EXPECT_EQ( 0, w->calls );
   change();
   EXPECT_EQ( 1, w->calls );
   record->xIs( record->x() );
   EXPECT_EQ( 1, w->calls );
   w->zekDoZombieReactors( true );
   EXPECT_FALSE( w->hasNotificationActive() );
   change();
   w->zekDoZombieReactors( false );
   EXPECT_EQ( 1, w->calls );
   change();
   EXPECT_EQ( 2, w->calls );
}

TEST_F( NotifieeListStory, AZombieWithoutNotifierStaysSwitchedOn ) {
   auto w = Zek::allocate< Watcher >();
   w->zekDoZombieReactors( true );
   EXPECT_TRUE( w->zekMarkedForDeletion() && w->hasNotificationActive() );
}

TEST_F( NotifieeListStory, APointerToAnotherTypeDetaches ) {
   auto w = watch();
   w->notifierIs( Zek::allocate< OtherRecord >() );
   EXPECT_EQ( nullptr, w->notifier() );
   change();
   EXPECT_EQ( 0, w->calls );
}

TEST_F( NotifieeListStory, AWatcherOfABaseTypeIsSparedTheCallbacksThatItLacks ) {
   auto derived = Zek::allocate< DerivedRecord >();
   auto w = watcherOf( derived );
   derived->yIs( 1 );
   EXPECT_EQ( 0, w->calls );
   derived->xIs( 1 );
   derived->memberNotify( 1 );
   EXPECT_EQ( 2, w->calls );
   w->notifierIs( record );
   change();
   EXPECT_EQ( 3, w->calls );
}

TEST_F( NotifieeListStory, AWeakHoldEndsAtTheNotifiersDeathRegisteredOrNot ) {
   auto registered = watch( {}, true ), second = watch( {}, true ), passive = watch( {}, true );
   passive->isRegisteredNotifieeIs( false );
   auto unattached = watch( {}, true );
   unattached->isRegisteredNotifieeIs( false );
   unattached->notifierIs( nullptr );
   EXPECT_EQ( 1u, record->references() );
   EXPECT_EQ( 2u, record->notifieeList().count() );
   record = nullptr;
   for( auto w : { registered, second, passive } ) EXPECT_EQ( nullptr, w->notifier() );
   EXPECT_EQ( 0, registered->calls );
   record = Zek::allocate< Record >();
   registered->notifierIs( record );
   passive->notifierIs( record );
   change();
   EXPECT_EQ( 1, registered->calls );
   EXPECT_EQ( 0, passive->calls );
}

TEST_F( NotifieeListStory, TheHoldMayBeSwitchedWhileAttached ) {
   bool alive;
   record = Zek::allocate< Record >( &alive );
   auto w = watch();
   auto unregistered = watch();
   unregistered->isRegisteredNotifieeIs( false );
   unregistered->isWeakNotifieeIs( true );
   w->isWeakNotifieeIs( true );
   w->isWeakNotifieeIs( false );
   record = nullptr;
   EXPECT_TRUE( alive );
   w->isWeakNotifieeIs( true );
   EXPECT_FALSE( alive );
   EXPECT_EQ( nullptr, w->notifier() );
   EXPECT_EQ( nullptr, unregistered->notifier() );
}

TEST_F( NotifieeListStory, APassiveWeakHoldThatBecameStrongLeavesNothingBehind ) {
   auto w = watch( {}, true );
   w->isRegisteredNotifieeIs( false );
   EXPECT_FALSE( record->notifieeList().idle() );
   w->isWeakNotifieeIs( false );
   EXPECT_TRUE( record->notifieeList().idle() );
   EXPECT_EQ( 2u, record->references() );
}

TEST_F( NotifieeListStory, WeakHoldersForgetTheNotifierBeforeItsDestructorRuns ) {
   struct Observing : Record {
      ~Observing() override { EXPECT_EQ( nullptr, watcher->notifier() ); }
      Watcher * watcher = nullptr;
   };
   auto observing = Zek::allocate< Observing >();
   auto w = watcherOf( observing, {}, true );
   observing->watcher = w.ptr();
   observing = nullptr;
}

TEST_F( NotifieeListStory, ReRegisteringMovesToTheEnd ) {
   std::string order;
   auto a = watch( [&] { order += "a"; } );
   watch( [&] { order += "b"; } );
   a->isRegisteredNotifieeIs( false );
   a->isRegisteredNotifieeIs( true );
   change();
   EXPECT_EQ( "ba", order );
}

TEST_F( NotifieeListStory, ANestedVisitRunsWholeAndLaterNotifieesReadTheNewestValue ) {
   std::string seen;
   watch( [&] {
      seen += "a" + std::to_string( record->x() );
      if( record->x() == 1 ) record->xIs( 5 );
   } );
   watch( [&] { seen += "b" + std::to_string( record->x() ); } );
   record->xIs( 1 );
   EXPECT_EQ( "a1a5b5b5", seen );
}

TEST_F( NotifieeListStory, ANotifieeThatWatchesAloneMaySwallowWhatItsNestedCallThrew ) {
   auto w = watch();
   w->swallows = true;
   w->then = [&] {
      if( record->x() == 2 ) throw 1;
      EXPECT_NO_THROW( record->xIs( 2 ) );
   };
   EXPECT_NO_THROW( record->xIs( 1 ) );
   EXPECT_EQ( 2, w->calls );
}

TEST_F( NotifieeListStory, LogAdaptorsStillLearnAfterAnExceptionAndTheFirstOneLeaves ) {
   watch( [] { throw 1; } );
   auto ordinary = watch();
   auto first = watch( [] { throw 2; } ), suspended = watch(), second = watch();
   for( auto w : { first, suspended, second } ) w->zekIsLogAdaptorIs( true );
   suspended->hasNotificationActiveIs( false );
   try {
      change();
      ADD_FAILURE() << "nothing thrown";
   } catch( int thrown ) {
      EXPECT_EQ( 1, thrown );
   }
   EXPECT_EQ( 0, ordinary->calls + suspended->calls );
   EXPECT_EQ( 2, first->calls + second->calls );
   watchers[0]->then = {};
   first->then = {};
   change();
   EXPECT_EQ( 1, ordinary->calls );
}

TEST_F( NotifieeListStory, ANotifieeDroppedDuringItsCallIsNotCalledAgainAndDiesWhenItReturns ) {
   for( int others : { 0, 3 } ) {
      std::string log;
      Watcher * w = watch( [&] {
         log += "called ";
         watchers.pop_back();
         change();
         log += "returns ";
      } );
      w->farewell = [&] { log += "gone"; };
      for( int i = 0; i < others; i++ ) watchers.insert( watchers.begin(), watcherOf( record ) );
      change();
      EXPECT_EQ( "called returns gone", log );
   }
}

TEST_F( NotifieeListStory, TheNotifierOutlivesTheVisitInWhichItsLastHolderLetGo ) {
   for( size_t holders : { 1, 2 } ) {
      bool alive;
      record = Zek::allocate< Record >( &alive );
      bool aliveInside = false, aliveLater = false;
      watch(
         [&] {
            record = nullptr;
            aliveInside = alive;
         },
         true );
      if( holders == 2 ) watch( [&] { aliveLater = alive; }, true );
      record->xIs( 1 );
      EXPECT_TRUE( aliveInside );
      EXPECT_EQ( holders == 2, aliveLater );
      EXPECT_FALSE( alive );
      EXPECT_EQ( nullptr, watchers.back()->notifier() );
   }
}

TEST_F( NotifieeListStory, AFarewellMayChangeTheListThatIsBeingVisited ) {
   // b drops itself; when it dies after its call, its destructor drops c, which was to be next,
   // and a, which came before.
   std::vector< Zek::Ptr< Watcher > > w( 4 );
   std::string order;
   w[0] = watcherOf( record, [&] { order += "a"; } );
   w[1] = watcherOf( record, [&] {
      order += "b";
      w[1] = nullptr;
   } );
   w[1]->farewell = [&] {
      w[2] = w[0] = nullptr;
      change();
   };
   w[2] = watcherOf( record, [&] { order += "c"; } );
   w[3] = watcherOf( record, [&] { order += "d"; } );
   change();
   EXPECT_EQ( "abdd", order );
}

TEST_F( NotifieeListStory, AFarewellThatDropsTheOneCalledBeforeLeaksNothing ) {
   auto first = watcherOf( record );
   Zek::Ptr< Watcher > last = watcherOf( record, [&] { last = nullptr; } );
   last->farewell = [&] { first = nullptr; };
   change();
   EXPECT_EQ( 1u, liveObjects() );
}

TEST_F( NotifieeListStory, ExtrasLiveAsLongAsTheNotifierWithoutDisturbingTheList ) {
   struct Flag : Zek::NotifieeList::Extras {
      explicit Flag( int & gone ) : gone_( gone ) {}
      ~Flag() override { gone_++; }
      int & gone_;
   };
   int gone = 0;
   auto & list = record->notifieeList();
   EXPECT_EQ( nullptr, list.extras() );
   list.extrasIs( std::make_unique< Flag >( gone ) );
   change();
   auto w = watch(
      [&] { list.extrasIs( record->x() == 2 ? std::make_unique< Flag >( gone ) : nullptr ); } );
   change();
   EXPECT_EQ( 1, gone );
   EXPECT_NE( nullptr, list.extras() );
   change();
   EXPECT_EQ( 2, gone );
   list.extrasIs( std::make_unique< Flag >( gone ) );
   w->isRegisteredNotifieeIs( false );
   EXPECT_FALSE( list.idle() );
   watchers.clear();
   record = nullptr;
   EXPECT_EQ( 3, gone );
}

TEST_F( NotifieeListStory, AListGrowsUnderAVisitAndShrinksBackToItsWord ) {
   watch( [&] {
      for( int i = 0; i < 100; i++ ) watch();
      watchers.front()->then = {};
   } );
   watch();
   change();
   EXPECT_EQ( 102u, record->notifieeList().count() );
   change();
   for( auto & w : watchers ) EXPECT_EQ( w == watchers[0] || w == watchers[1] ? 2 : 1, w->calls );
   watchers.front()->hasNotificationActiveIs( false );
   watchers.back()->then = [&] { watchers.clear(); };
   change();
   EXPECT_TRUE( record->notifieeList().idle() );
}

TEST( NotifieeListConstruction, AnAttachedNotifieeThatFailsToConstructLeavesTheList ) {
   struct Faulty : Watcher {
      explicit Faulty( const Zek::Ptr< Record > & record ) {
         notifierIs( record );
         isRegisteredNotifieeIs( true );
         throw 1;
      }
   };
   auto record = Zek::allocate< Record >();
   EXPECT_THROW( Zek::allocate< Faulty >( record ), int );
   EXPECT_TRUE( record->notifieeList().idle() );
   EXPECT_EQ( 1u, record->references() );
}

} // namespace
