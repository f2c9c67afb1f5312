// How objects end, how many may watch one, and what holds when memory runs out.

#include "framework/HashMap.h"
#include "framework/Node.h"
#include "framework/Notifier.h"
#include "framework/RbTreeMap.h"
#include "tests/framework/CollectionModel.h"
#define OUT_OF_MEMORY_HERE
#include "tests/framework/OutOfMemory.h"

#include <algorithm>
#include <ctime>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

using CollectionTest::Clash;
using CollectionTest::Id;

class Record : public Zek::Notifier {
 public:
   class NotifieeConst : public Zek::PtrInterface::NotifieeConst {
    public:
      virtual void onX() {}
      void notifierIs( Zek::Ptr< const Zek::PtrInterface > p ) override {
         notifierAssign( dynamic_cast< const Record * >( p.ptr() ) );
      }
   };
   void changed() { announce( &NotifieeConst::onX ); }

   Zek::Ptr< Zek::PtrInterface > held;
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "LifetimeTest::Record", 0 };
};

class Watcher final : public Record::NotifieeConst {
 public:
   using Ptr = Zek::Ptr< Watcher >;
   explicit Watcher( bool weak = false ) { isWeakNotifieeIs( weak ); }
   void onX() override {
      ++calls;
      if( then ) then();
   }
   int calls = 0;
   std::function< void() > then;
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "LifetimeTest::Watcher", 0 };
};

Watcher::Ptr
watcherOf( const Zek::Ptr< Record > & record, bool registered = true, bool weak = false ) {
   auto watcher = Zek::allocate< Watcher >( weak );
   watcher->notifierIs( record );
   watcher->isRegisteredNotifieeIs( registered );
   return watcher;
}

// -- Ends of long chains ----------------------------------------------------------------------

using Held = Zek::Ptr< Zek::PtrInterface >;
using HeldById = CollectionTest::Node< Zek::KeyValueNode< Id, Held > >;
using HeldInOrder = CollectionTest::Node< Zek::RbKeyValueNode< Id, Held > >;

class Box final : public Zek::PtrInterface {
 public:
   const Id & fwkKey() const { return key; }
   Id key{ 0 };
   Zek::HashMap< Box, Id > members;
   Zek::HashMap< HeldById, Id > values;
   Zek::RbTreeMap< HeldInOrder, Id > ordered;
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "LifetimeTest::Box", 0 };
};

// Each link holds the one before it in its own way; the last one is let go.
TEST( Destruction, NeedsNoMoreStackForAChainOfAnyShape ) {
   const uint64_t live = OutOfMemory::liveObjects();
   for( int shape = 0; shape < 6; ++shape ) {
      Held last;
      for( uint32_t n = 0; n < ( shape == 5 ? 1000000u : 200000u ); ++n ) {
         const int kind = shape == 5 ? static_cast< int >( n % 5 ) : shape;
         if( kind == 0 || kind == 1 ) {
            auto record = Zek::allocate< Record >();
            record->held = last;
            last = record;
            if( kind == 1 ) last = watcherOf( record, n % 2 );
            continue;
         }
         auto box = Zek::allocate< Box >();
         if( kind == 2 && last ) {
            // Two ways, of which the second one is the last.
            auto member = Zek::ptrCast< Box >( last );
            if( !member ) member = Zek::allocate< Box >(), member->values.valueIs( Id( 1 ), last );
            box->members.insert( member.ptr() );
         } else if( kind == 3 ) {
            box->values.valueIs( Id( 1 ), last );
            box->values.valueIs( Id( 2 ), last );
         } else {
            box->ordered.valueIs( Id( 1 ), last );
         }
         last = box;
      }
      last = nullptr;
      ASSERT_EQ( OutOfMemory::liveObjects(), live ) << "shape " << shape;
   }
}

TEST( Destruction, OfManyBelowALongChainEndsAllBeforeItReturns ) {
   const uint64_t live = OutOfMemory::liveObjects();
   Held last;
   for( uint32_t n = 0; n < 300; ++n ) {
      auto box = Zek::allocate< Box >();
      box->values.valueIs( Id( 0 ), last );
      for( uint32_t i = 1; i < 300; ++i ) {
         box->values.valueIs( Id( i ), Zek::allocate< Record >() );
      }
      last = box;
   }
   last = nullptr;
   EXPECT_EQ( OutOfMemory::liveObjects(), live );
}

// -- Many watchers ----------------------------------------------------------------------------

// In whatever order they leave: each costs about the same as one of a hundred.
TEST( ManyNotifiees, LeaveInAnyOrderInTimeLinearInTheirNumber ) {
   static_assert( sizeof( Zek::NotifieeList ) == sizeof( void * ) );
   const size_t many = 70000;
   std::mt19937 random( 1 );
   for( const char * way : { "registered", "weak", "weak and registered", "re-pointed" } ) {
      const bool registered = way != std::string( "weak" );
      const bool weak = std::string( way ).starts_with( "weak" );
      for( int order = 0; order < 3; ++order ) {
         auto record = Zek::allocate< Record >(), other = Zek::allocate< Record >();
         std::vector< Watcher::Ptr > watchers;
         for( size_t i = 0; i < many; ++i ) {
            watchers.push_back( watcherOf( record, false, weak ) );
         }
         for( auto & watcher : watchers ) watcher->isRegisteredNotifieeIs( registered );
         if( order == 1 ) std::reverse( watchers.begin(), watchers.end() );
         if( order == 2 ) std::shuffle( watchers.begin(), watchers.end(), random );
         const std::clock_t start = std::clock(); // of this process alone, whatever else runs
         for( size_t i = 0; i < many; ++i ) {
            if( way == std::string( "re-pointed" ) ) watchers[i]->notifierIs( other );
            watchers[i] = nullptr;
         }
         const auto seconds = double( std::clock() - start ) / CLOCKS_PER_SEC;
         EXPECT_LT( seconds, 1 ) << way << ", order " << order;
         EXPECT_TRUE( record->notifieeList().idle() && other->notifieeList().idle() );
      }
   }
}

// The model of small lists (NotifieeListTest) cannot see what long ones do: leave holes.
TEST( ManyNotifiees, AreCalledInOrderWhoeverComesAndGoes ) {
   std::mt19937 random( 7 );
   auto any = [&]( size_t below ) { return static_cast< size_t >( random() % below ); };
   auto record = Zek::allocate< Record >();
   std::vector< Watcher::Ptr > model; // in order of registration
   std::vector< Watcher::Ptr > passive;
   std::vector< Watcher * > called;
   auto add = [&] {
      model.push_back( watcherOf( record, true, any( 2 ) ) );
      model.back()->then = [&called, self = model.back().ptr()] { called.push_back( self ); };
   };
   auto erase = [&]( size_t at ) {
      Watcher::Ptr gone = model[at];
      model.erase( model.begin() + static_cast< ptrdiff_t >( at ) );
      if( any( 2 ) ) {
         gone->isRegisteredNotifieeIs( false );
         passive.push_back( gone );
      }
   };
   for( int round = 0; round < 300; ++round ) {
      const bool grows = round / 30 % 2 == 0;
      for( int i = 0; i < 20; ++i ) {
         if( any( 10 ) < ( grows ? 8u : 2u ) ) {
            add();
         } else if( !model.empty() ) {
            erase( any( model.size() ) );
         }
      }
      if( any( 3 ) == 0 && !passive.empty() ) {
         const size_t at = any( passive.size() );
         passive[at]->isRegisteredNotifieeIs( true );
         model.push_back( passive[at] );
         passive.erase( passive.begin() + static_cast< ptrdiff_t >( at ) );
      }
      ASSERT_EQ( record->notifieeList().count(), model.size() );
      if( any( 2 ) ) continue;
      // Somebody removes others during the visit: before and behind, and itself.
      std::vector< Watcher * > expected;
      for( const auto & watcher : model ) expected.push_back( watcher.ptr() );
      if( model.size() > 3 ) {
         const size_t at = any( model.size() );
         const Watcher::Ptr acting = model[at];
         const auto usual = acting->then;
         acting->then = [&, usual] {
            usual();
            for( size_t n = any( 40 ) + 1; n && model.size() > 1; --n ) {
               const size_t victim = any( model.size() );
               auto later = std::find( expected.begin(), expected.end(), model[victim].ptr() );
               if( later - expected.begin() > static_cast< ptrdiff_t >( called.size() ) - 1 ) {
                  expected.erase( later );
               }
               model[victim]->isRegisteredNotifieeIs( false );
               model.erase( model.begin() + static_cast< ptrdiff_t >( victim ) );
            }
         };
         record->changed();
         acting->then = usual;
      } else {
         record->changed();
      }
      ASSERT_EQ( called, expected );
      called.clear();
   }
}

// -- Without memory ---------------------------------------------------------------------------

enum Deed { registers, isRepointed, isSuspended, leaves, loosens, deeds };

// A record with so many watchers, and one watcher more that does something.
class Watched {
 public:
   Watched( Deed deed, int present, bool weak ) : deed_( deed ) {
      for( int i = 0; i < present; ++i ) others_.push_back( watcherOf( record_ ) );
      watcher_->isWeakNotifieeIs( weak );
      watcher_->notifierIs( deed == isRepointed ? before_ : record_ );
      watcher_->isRegisteredNotifieeIs( deed == isSuspended || deed == leaves ||
                                        ( deed == isRepointed && present % 2 ) );
   }
   // Who hears of a change.
   std::string state() {
      std::string out = watcher_->notifier() == record_ ? "attached" : "elsewhere";
      for( auto & changed : { record_, before_ } ) {
         changed->changed();
         out += " " + std::to_string( std::exchange( watcher_->calls, 0 ) ) + " " +
                std::to_string( changed->notifieeList().count() );
         for( auto & other : others_ ) out += std::to_string( std::exchange( other->calls, 0 ) );
      }
      return out + ( watcher_->isRegisteredNotifiee() ? " registered" : "" ) +
             ( watcher_->hasNotificationActive() ? " active" : "" ) +
             ( watcher_->isWeakNotifiee() ? " weak" : "" );
   }
   void change() {
      if( deed_ == registers ) watcher_->isRegisteredNotifieeIs( true );
      if( deed_ == isRepointed ) watcher_->notifierIs( record_ );
      if( deed_ == isSuspended ) watcher_->hasNotificationActiveIs( false );
      if( deed_ == leaves ) watcher_->isRegisteredNotifieeIs( false );
      if( deed_ == loosens ) watcher_->isWeakNotifieeIs( true );
   }

 private:
   const Deed deed_;
   const Zek::Ptr< Record > record_ = Zek::allocate< Record >();
   const Zek::Ptr< Record > before_ = Zek::allocate< Record >();
   std::vector< Watcher::Ptr > others_;
   const Watcher::Ptr watcher_ = Zek::allocate< Watcher >();
};

TEST( WithoutMemory, ANotifieesPlaceChangesWhollyOrNotAtAll ) {
   for( int deed = 0; deed < deeds; ++deed ) {
      for( int present : { 0, 1, 2, 3, 9, 10, 25, 26, 27 } ) {
         for( bool weak : { false, true } ) {
            SCOPED_TRACE( std::to_string( deed ) + ", " + std::to_string( present ) + " present" +
                          ( weak ? ", weak" : "" ) );
            OutOfMemory::expectAllOrNothing< Watched >( static_cast< Deed >( deed ), present,
                                                        weak );
         }
      }
   }
}

// One that leaves during its own call, and what else a callback lets go then.
TEST( WithoutMemory, WhoeverIsCalledMayLeave ) {
   for( int deed = 0; deed < 5; ++deed ) {
      for( int others : { 0, 2 } ) {
         auto record = Zek::allocate< Record >();
         std::vector< Watcher::Ptr > present;
         auto watcher = watcherOf( record, true, deed % 2 );
         for( int i = 0; i < others; ++i ) present.push_back( watcherOf( record ) );
         Record * const at = record.ptr();
         watcher->then = [&] {
            OutOfMemory::From now( 0 );
            if( deed < 2 ) watcher = nullptr;
            if( deed == 2 ) watcher->isRegisteredNotifieeIs( false );
            if( deed == 3 ) record = nullptr;
            if( deed == 4 ) watcher->notifierIs( nullptr ), record = nullptr, present.clear();
            if( record ) at->changed();
         };
         at->changed();
         if( record ) {
            record->changed();
            EXPECT_EQ( record->notifieeList().count(), static_cast< uint32_t >( others ) );
         }
      }
   }
   EXPECT_EQ( Record::allocTrackTypeInfo_.liveObjects(), 0u );
   EXPECT_EQ( Watcher::allocTrackTypeInfo_.liveObjects(), 0u );
}

template< class Map, class Key >
class Inserting {
 public:
   explicit Inserting( uint32_t members ) : members_( members ) {
      for( uint32_t n = 0; n < members; ++n ) map_.valueIs( Key( n ), 0 );
   }
   std::string state() {
      std::string out = std::to_string( map_.count() );
      for( typename Map::IteratorConst i( map_ ); i; ++i ) {
         out += " " + std::to_string( i.key().number );
         EXPECT_EQ( map_.find( i.key() ), i.ptr() );
      }
      return out;
   }
   void change() { map_.valueIs( Key( members_ ), 0 ); }

 private:
   const uint32_t members_;
   Map map_;
};

template< class Key >
using Hashed = Zek::HashMap< CollectionTest::Node< Zek::KeyValueNode< Key, int > >, Key >;
using Ordered = Zek::RbTreeMap< CollectionTest::Node< Zek::RbKeyValueNode< Id, int > >, Id >;

TEST( WithoutMemory, AMemberIsAddedOrNothingIs ) {
   for( uint32_t members = 0; members < 60; ++members ) {
      OutOfMemory::expectAllOrNothing< Inserting< Hashed< Id >, Id > >( members );
      OutOfMemory::expectAllOrNothing< Inserting< Hashed< Clash >, Clash > >( members );
   }
   OutOfMemory::expectAllOrNothing< Inserting< Ordered, Id > >( 3u );
}

} // namespace
