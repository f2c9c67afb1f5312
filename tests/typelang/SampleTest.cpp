// What the code generated for Sample/Sample.zek does, kind of line by kind of line, and the bodies
// that the schema leaves to be written by hand.

#include "tests/typelang/Sample/Sample.h"

#include "framework/Assert.h"
#include "framework/Exception.h"

#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <utility>

// -- Bodies -----------------------------------------------------------------------------------

namespace Sample {

rank
rankOf( Colour colour ) {
   return colour == Colour::red ? low : high;
}

Pair
Pair::swollen( uint32_t by ) const {
   return Pair( left_ + by, right_ );
}

void
Group::grow() {
   ++size_;
}

Group &
Group::operator+=( uint8_t n ) {
   size_ = static_cast< uint8_t >( size_ + n );
   return *this;
}

uint32_t
Plain::twice() const {
   return 2 * id();
}

void
Plain::reset() {
   reset( 0, Colour::blue );
}

void
Plain::reset( uint32_t to, Colour colour ) {
   ticksIs( to );
   colourIs( colour );
}

uint32_t
Plain::one() {
   return 1;
}

void
Plain::prime() {
   ticks_ = 100;
}

uint32_t
OwnerCounts::count() const {
   return static_cast< uint32_t >( owner()->plainCount() );
}

void
OwnerCounts::forget( uint32_t id ) {
   owner()->plainDel( id );
   changedInc();
}

void
Follower::say( const Zek::String & text ) {
   logIs( Zek::String( std::string( log().view() ) + std::string( text.view() ) + ";" ) );
}

void
Follower::handlePlain( uint32_t id ) {
   say( "plain " + std::to_string( id ) );
}

void
Follower::handleStart( uint32_t id ) {
   say( "start " + std::to_string( id ) );
}

void
Follower::handleColour( uint32_t id ) {
   say( "colour " + std::to_string( id ) );
}

void
Follower::handleTag( const Zek::Name & name, const Tag & tag ) {
   say( std::string( name.view() ) + "/" + tag.toString() );
}

void
Follower::handlePair( const Pair & pair ) {
   say( "pair " + std::to_string( pair.left() ) );
}

void
Follower::ZekOwner::handleFloor() {
   owner()->say( "floor " + std::to_string( notifier()->floor() ) );
}

void
Follower::ZekPlain::handleTicks() {
   owner()->say( "ticks " + std::to_string( notifier()->ticks() ) );
}

void
Follower::ZekPlain::handleGone() {
   owner()->say( "gone " + std::to_string( fwkKey() ) );
}

} // namespace Sample

// -- Tests ------------------------------------------------------------------------------------

namespace {

using namespace Sample;

std::string
textOf( const std::function< void() > & act ) {
   try {
      act();
   } catch( const Zek::Exception & e ) {
      return e.what();
   }
   return "";
}

template< class V >
std::string
printed( const V & value ) {
   std::ostringstream out;
   out << value;
   return out.str();
}

// Writes the callbacks of a Plain, or of an Owner, one word each.
class PlainWatch final : public Plain::NotifieeConst {
 public:
   explicit PlainWatch( const Plain::PtrConst & plain ) {
      notifierIs( plain );
      isRegisteredNotifieeIs( true );
   }
   void onColour() override { told += "colour "; }
   void onTestedAfter() override { told += "after "; }
   void onTestedFirst() override { told += "first "; }
   void onTicks() override { told += "ticks "; }
   void onDrops() override { told += "drops "; }
   void onGiven() override { told += "given "; }
   std::string seen() { return std::exchange( told, {} ); }
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return info; }
   static inline Zek::AllocTrackTypeInfo info{ "PlainWatch", 0 };

 private:
   std::string told;
};

class OwnerWatch final : public Owner::NotifieeConst {
 public:
   explicit OwnerWatch( const Owner::PtrConst & owner ) {
      notifierIs( owner );
      isRegisteredNotifieeIs( true );
   }
   void onByTag( const Tag & key ) override { told += "byTag[" + key.toString() + "] "; }
   void onByPair( const Pair & ) override { told += "byPair "; }
   void onPair( const uint32_t & key ) override { told += "pair[" + std::to_string( key ) + "] "; }
   void onGroup( const uint32_t & key ) override {
      told += "group[" + std::to_string( key ) + "] ";
   }
   void onColour( const Colour & key ) override { told += "colour[" + printed( key ) + "] "; }
   void onPlain( const uint32_t & key ) override {
      told += "plain[" + std::to_string( key ) + "] ";
   }
   void onSeen( const uint32_t & key ) override { told += "seen[" + std::to_string( key ) + "] "; }
   std::string seen() { return std::exchange( told, {} ); }
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return info; }
   static inline Zek::AllocTrackTypeInfo info{ "OwnerWatch", 0 };

 private:
   std::string told;
};

class SampleTest : public testing::Test {
 protected:
   Owner::Ptr owner = ownerFactory( "owner" );
   Plain::Ptr plain = owner->plainIs( 1, Celsius( 20 ), Tag( "one" ) );
   PlainWatch watch{ plain };
   OwnerWatch ownerWatch{ owner };
};

TEST( SampleValues, enumerationsGoOnFromTheLastNumber ) {
   EXPECT_EQ( static_cast< int >( blue ), 6 );
   EXPECT_EQ( ColourInstance( 5 ), green );
   EXPECT_EQ( ColourInstance( "red" ), red );
   EXPECT_THROW( ColourInstance( 1 ), Zek::RangeException );
   EXPECT_EQ( printed( Plain::Phase::busy ), "busy" );
   EXPECT_EQ( static_cast< int >( Plain::busy ), 300 );
   EXPECT_EQ( rankOf( green ), high );
   EXPECT_EQ( greeting(), "hello" );
   EXPECT_EQ( high, -1 );
}

TEST( SampleValues, stringsAreBounded ) {
   EXPECT_EQ( Tag::maxLength, 8u );
   EXPECT_EQ( textOf( [] { Tag( "ninebytes" ); } ), "Tag::bytes > Tag::maxLength not allowed" );
}

TEST( SampleValues, valuesCompareOrderAndReadBack ) {
   EXPECT_EQ( Pair(), Pair( 7, "" ) );
   EXPECT_TRUE( !Pair() );
   EXPECT_TRUE( Pair::none() < Pair::both() );
   EXPECT_TRUE( Pair( 2, "a" ) < Pair::both() );
   EXPECT_EQ( Pair::both().swollen( 3 ), Pair( 5, "both" ) );
   Pair read;
   EXPECT_TRUE( Pair::fromText( Pair::both().toString().view(), read ) );
   EXPECT_EQ( read, Pair::both() );
}

TEST( SampleValues, aKeyMakesTheValueAndTheRestFollows ) {
   Group group( 4 );
   EXPECT_EQ( group.size(), 1 ); // grown at construction
   EXPECT_EQ( ( group += 2 ).size(), 3 );
   group.memberIs( blue );
   group.memberIs( red );
   EXPECT_TRUE( group.member( red ) );
   EXPECT_EQ( group.memberCount(), 2u );
   Group same( 4 );
   EXPECT_FALSE( same == group );
}

TEST( SampleValues, oneFieldMayStandForAllInComparisons ) {
   Cursor a( nullptr, "x" );
   Cursor b( plainFactory( Celsius( 1 ), 1, "" ), "x" );
   EXPECT_TRUE( a == b );
   EXPECT_EQ( a.hash(), b.hash() );
}

TEST_F( SampleTest, constructorTakesItsParametersInTheirOrder ) {
   EXPECT_EQ( plain->origin(), Celsius( 20 ) );
   EXPECT_EQ( plain->id(), 1u );
   EXPECT_EQ( plain->given(), Tag( "one" ) );
   EXPECT_EQ( plain->ticks(), 100u ); // primed at construction
   EXPECT_EQ( plain->parent(), owner.ptr() );
}

TEST_F( SampleTest, defaultsAreThoseOfTheSchema ) {
   EXPECT_EQ( plain->colour(), blue );
   EXPECT_EQ( plain->parity(), Parity::odd );
   EXPECT_EQ( plain->pair(), Pair::both() );
   EXPECT_EQ( plain->note(), "say \"x\"" );
   EXPECT_EQ( plain->ratio(), -1.5 );
   EXPECT_EQ( plain->owner(), nullptr );
   EXPECT_EQ( plain->phase(), Plain::busy );
   EXPECT_EQ( plain->testedAfter(), 16 );
   EXPECT_EQ( owner->floor(), INT64_MIN );
   static_assert( Plain::alsoMost() == 16 );
   EXPECT_EQ( Plain::one(), 1u );
}

TEST_F( SampleTest, plainAttributesTellOfChangesOnly ) {
   plain->colourIs( blue );
   EXPECT_EQ( watch.seen(), "" );
   plain->colourIs( red );
   plain->givenIs( "two" );
   EXPECT_EQ( watch.seen(), "colour given " );
}

TEST_F( SampleTest, boundsAreTestedAfterOrBeforeStoring ) {
   EXPECT_EQ( textOf( [&] { plain->testedAfterIs( 17 ); } ),
              "Plain::testedAfter < 0 or > Plain::most not allowed" );
   EXPECT_EQ( plain->testedAfter(), 17 );
   EXPECT_EQ( textOf( [&] { plain->testedAfterIs( 17 ); } ), "" );
   EXPECT_THROW( plain->testedFirstIs( 17 ), Zek::RangeException );
   EXPECT_EQ( plain->testedFirst(), 3 );
   EXPECT_EQ( watch.seen(), "" );
   plain->testedAfterIs( 16 );
   plain->testedFirstIs( 16 );
   EXPECT_EQ( watch.seen(), "after first " );
}

TEST_F( SampleTest, countersCountAndWrap ) {
   EXPECT_EQ( plain->ticksInc( 2 ), 102u );
   EXPECT_EQ( plain->ticksDec( 103 ), UINT32_MAX );
   plain->ticksIs( UINT32_MAX );
   EXPECT_EQ( plain->dropsInc( 255 ), 255 );
   EXPECT_EQ( plain->dropsInc(), 0 );
   EXPECT_EQ( watch.seen(), "ticks ticks drops drops " );
   plain->reset();
   EXPECT_EQ( watch.seen(), "ticks " );
}

TEST_F( SampleTest, derivedAttributesAreComputedOrReachedThroughAPointer ) {
   EXPECT_EQ( plain->twice(), 2u );
   EXPECT_EQ( plain->floor(), 0 );
   EXPECT_DEATH( plain->floorIs( 1 ), "owner" );
   plain->ownerIs( owner );
   plain->floorIs( 5 );
   EXPECT_EQ( owner->floor(), 5 );
   EXPECT_DEATH( plain->sealed(), "sealed \"for good\"" );
   plain->ownerIs( nullptr ); // else a circle of references
}

TEST_F( SampleTest, valueCollectionsKeepTheirOrder ) {
   owner->byTagIs( "b", red );
   owner->byTagIs( "a", green );
   owner->byTagIs( "a", green );
   EXPECT_EQ( ownerWatch.seen(), "byTag[b] byTag[a] " );
   std::string order;
   for( auto i = owner->byTagIteratorConst(); i; ++i ) order += i.key().toString();
   EXPECT_EQ( order, "ab" );
   EXPECT_EQ( owner->byTag( "none" ), red );
   EXPECT_EQ( owner->byTagDel( "a" ), green );
   owner->byTagDelAll();
   EXPECT_EQ( owner->byTagCount(), 0u );
   owner->byPairIs( Pair::both(), 0.5 );
   EXPECT_EQ( owner->byPair( Pair::both() ), 0.5 );
   EXPECT_EQ( ownerWatch.seen(), "byTag[a] byTag[b] byPair " );
}

TEST_F( SampleTest, valuesKeyedByAFieldReplaceOneAnother ) {
   owner->pairIs( Pair( 3, "x" ) );
   owner->pairIs( Pair( 3, "y" ) );
   EXPECT_EQ( owner->pair( 3 ).right(), Tag( "y" ) );
   EXPECT_EQ( owner->pairCount(), 1u );
   owner->groupIs( Group( 9 ) );
   owner->groupIs( Group( 8 ) );
   EXPECT_EQ( owner->groupIteratorConst().key(), 8u );
   EXPECT_EQ( ownerWatch.seen(), "pair[3] pair[3] group[9] group[8] " );
}

TEST_F( SampleTest, setsHoldKeysAlone ) {
   owner->colourIs( green );
   owner->colourIs( green );
   EXPECT_TRUE( owner->colour( green ) );
   owner->colourDel( red );
   owner->colourDel( green );
   EXPECT_EQ( ownerWatch.seen(), "colour[green] colour[green] " );
}

TEST_F( SampleTest, ownersMakeTheirMembersOnce ) {
   EXPECT_EQ( owner->plainIs( 1, Celsius( 20 ), "one" ), plain );
   EXPECT_THROW( owner->plainIs( 1, Celsius( 21 ), "one" ), Zek::NameInUseException );
   EXPECT_EQ( owner->plainDel( 1 ), plain );
   EXPECT_EQ( plain->parent(), nullptr );
   EXPECT_EQ( ownerWatch.seen(), "plain[1] " );
   Child::Ptr child = owner->childIs( "child" );
   EXPECT_EQ( child->phase(), Plain::busy );
   EXPECT_EQ( child->name(), "child" );
   EXPECT_EQ( titledFactory( "title" )->name(), "title" );
}

TEST_F( SampleTest, referencesReplaceThoseOfTheSameKey ) {
   owner->seenIs( plain );
   owner->seenIs( plain );
   Plain::Ptr other = plainFactory( Celsius( 1 ), 1, "other" );
   owner->seenIs( other );
   EXPECT_EQ( owner->seen( 1 ), other );
   EXPECT_THROW( owner->seenIs( nullptr ), Zek::RangeException );
   EXPECT_EQ( other->parent(), nullptr );
   EXPECT_EQ( ownerWatch.seen(), "seen[1] seen[1] " );
}

TEST_F( SampleTest, viewsAskTheirBinding ) {
   Counts::Ptr view = ownerCountsFactory( owner );
   EXPECT_EQ( view->count(), 1u );
   view->forget( 1 );
   EXPECT_EQ( view->count(), 0u );
   EXPECT_EQ( view->changed(), 1u );
   EXPECT_DEATH( countsFactory()->count(), "Must override in derived class" );
}

class SampleMachine : public SampleTest {
 protected:
   std::string said() {
      std::string out( machine->log().view() );
      machine->logIs( "" );
      return out;
   }
   Follower::Ptr machine = followerFactory( countsFactory(), owner );
};

TEST_F( SampleMachine, reactorsStartAreFedAndGo ) {
   EXPECT_EQ( said(), "start 1;" + std::string( "floor " ) + std::to_string( INT64_MIN ) + ";" );
   Plain::Ptr second = owner->plainIs( 2, Celsius( 1 ), "" );
   EXPECT_EQ( said(), "plain 2;start 2;" );
   second->colourIs( red );
   second->ticksInc();
   owner->floorIs( 3 );
   EXPECT_EQ( said(), "colour 2;ticks 101;floor 3;" );
   owner->plainDel( 2 );
   EXPECT_EQ( said(), "plain 2;gone 2;start 2;" );
   second->colourIs( green );
   EXPECT_EQ( said(), "" );
}

TEST_F( SampleMachine, aReplacedRecordIsRetargeted ) {
   said();
   Plain::Ptr other = plainFactory( Celsius( 1 ), 1, "" );
   machine->plainIs( other );
   EXPECT_EQ( said(), "start 1;" );
   plain->colourIs( red );
   other->colourIs( red );
   EXPECT_EQ( said(), "colour 1;" );
}

TEST_F( SampleMachine, ownersHandlersTakeTheReactorsKeyAndTheMembers ) {
   machine->coldIs( owner );
   said();
   owner->byTagIs( "t", blue );
   owner->byPairIs( Pair( 4, "" ), 1 );
   EXPECT_EQ( said(), "owner/t;pair 4;" );
   machine->ownerIs( nullptr );
   machine->coldDelAll();
   owner->byTagDelAll();
   owner->floorIs( 9 );
   EXPECT_EQ( said(), "" );
}

} // namespace
