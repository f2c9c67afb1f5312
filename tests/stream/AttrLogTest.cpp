#include "Ip/IpAttrLog.h"
#include "Ira/IraTypes.h"
#include "L3/L3.h"
#include "framework/attrlog/StreamAdapter.h"
#include "platform/Kelmo/Session.h"
#include "tests/schemas/Shapes.h"
#include "tests/stream/Memory.h"
#include "tests/stream/Trees.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace ipstate::test {

namespace {

using Zek::NboAttrLog::FrameHeader;
using Zek::NboAttrLog::Kind;
using ConfigSa = Ip::IpIntfConfig::ZekNboAttrLogSa;

/// Two sessions whose bytes go across when told.
struct Joined : Kelmo::SessionOwner {
   Zek::Dir::Ptr source = Zek::dirFactory();
   Zek::Dir::Ptr copy = Zek::dirFactory();
   Kelmo::Session server{ source, *this };
   Kelmo::Session client{ copy, *this };
   std::vector< std::string > refusals;

   void onMountRefused( const Kelmo::Mount & mount, const std::string & reason ) override {
      refusals.push_back( mount.path().toString() + ": " + reason );
   }
   void mount( const char * path, const char * type, const char * mode = "r" ) {
      client.mount( Kelmo::Mount( path, type, mode, Kelmo::MountFilter( false ) ) );
   }
   void connect() {
      server.connected();
      client.connected();
      settle();
   }
   /// Carries bytes until neither end has any.
   void settle() {
      auto carry = []( Kelmo::Session & from, Kelmo::Session & to ) {
         std::string bytes( from.output().view() );
         from.carried( bytes.size() );
         to.receive( bytes.data(), bytes.size() );
      };
      do {
         carry( server, client );
         carry( client, server );
         server.drain();
         client.drain();
      } while( !server.output().empty() || !client.output().empty() );
   }
   Zek::NboAttrLog::Out & out() { return server.adapter().nboAttrLogOut(); }
};

struct Frame {
   FrameHeader header;
   std::string body; // with its tokens
};

std::vector< Frame >
framesOf( std::string_view bytes ) {
   std::vector< Frame > frames;
   while( !bytes.empty() ) {
      Frame frame;
      frame.header = FrameHeader::of( bytes.data() );
      frame.body = bytes.substr( FrameHeader::size, frame.header.length - FrameHeader::size );
      bytes.remove_prefix( frame.header.length );
      frames.push_back( frame );
   }
   return frames;
}

/// An interface's configuration that is mounted.
struct OneInterface : Joined {
   Ip::Config::Ptr config = Ip::configFactory( "config" );
   Ip::IpIntfConfig::Ptr intf;

   OneInterface( const char * mode = "r" ) {
      source->dirIs( "ip" )->entityIs( config );
      intf = config->ipIntfConfigIs( Velon::IntfId( "Ethernet1" ) );
      mount( "ip/config", "Ip::Config", mode );
      connect();
   }
   Ip::IpIntfConfig::Ptr replica() {
      auto top = Zek::ptrCast< Ip::Config >( copy->entityAt( "ip/config" ) );
      return top ? top->ipIntfConfig( Velon::IntfId( "Ethernet1" ) ) : nullptr;
   }
   ConfigSa * sa() { return static_cast< ConfigSa * >( server.adapter().adaptorOf( *intf ) ); }
};

struct Reaction : Ip::IpIntfConfig::NotifieeConst {
   static inline constinit Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "Reaction", 64 };
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   void onForwarding() override {
      auto & intf = *Zek::constCast( notifier() );
      intf.noArpIs( Ip::TristateBool::isTrue );
      if( !intf.forwarding() ) intf.forwardingIs( true );
   }
};

struct Throwing : Ip::IpIntfConfig::NotifieeConst {
   static inline constinit Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "Throwing", 64 };
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   void onForwarding() override { throw std::runtime_error( "no" ); }
};

struct SeenWatch : Shapes::Wide::NotifieeConst {
   static inline constinit Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "SeenWatch", 64 };
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   void onSeen( const uint32_t & key ) override { told += notifier()->seenHas( key ) ? "+" : "-"; }
   std::string told;
};

struct Ender : Ip::IpIntfConfig::NotifieeConst {
   static inline constinit Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "Ender", 64 };
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   void onL3Config() override { end(); }
   std::function< void() > end;
};

const Velon::IpAddrWithMask a1( "10.0.0.1/24" ), a2( "10.0.0.2/24" );

} // namespace

TEST( AttrLog, aChangeIsOneRecordBetweenTokens ) {
   OneInterface world;
   world.intf->forwardingIs( false );
   world.intf->secondaryWithMaskIs( a1, true );
   world.intf->secondaryWithMaskDel( a1 );
   auto frames = framesOf( world.out().buffer().view() );
   ASSERT_EQ( frames.size(), 3u );
   EXPECT_EQ( frames[0].header.attribute, 268 );
   EXPECT_EQ( frames[0].body, std::string( "\0\0\2", 3 ) );
   EXPECT_EQ( frames[1].header.attribute, 260 );
   const std::string key( "\x0a\0\0\1\x18", 5 );
   EXPECT_EQ( frames[1].body, std::string( 1, '\0' ) + key + "\1\2" );
   EXPECT_EQ( frames[2].header.kind, Kind::removal );
   EXPECT_EQ( frames[2].body, std::string( 1, '\0' ) + key + "\2" );
   EXPECT_EQ( frames[1].header.flow, frames[0].header.flow );
   world.settle();
   EXPECT_FALSE( world.replica()->forwarding() );
   EXPECT_EQ( world.replica()->secondaryWithMaskCount(), 0u );
}

TEST( AttrLog, aFullStreamKeepsTheLastValueAlone ) {
   OneInterface world;
   world.out().capacityIs( 0 );
   world.intf->maxMssEgressIs( 100 );
   world.intf->maxMssEgressIs( 200 );
   world.intf->maxMssEgressIs( 300 );
   world.intf->secondaryWithMaskIs( a1, true );
   world.intf->secondaryWithMaskDel( a1 );
   world.intf->secondaryWithMaskIs( a2, true );
   const auto * flow = world.sa()->flowOut();
   ASSERT_TRUE( flow );
   EXPECT_TRUE( flow->hasDirtyCollKeys() );
   EXPECT_TRUE( flow->zekIsSecondaryWithMaskDirty().has( a1 ) );
   EXPECT_EQ( flow->zekIsSecondaryWithMaskDirty().size(), 2u );
   EXPECT_TRUE( world.out().buffer().empty() );
   world.out().capacityIs( 4096 );
   EXPECT_TRUE( world.out().drain() );
   auto frames = framesOf( world.out().buffer().view() );
   ASSERT_EQ( frames.size(), 3u );
   EXPECT_EQ( frames[0].body, std::string( "\0\x01\x2c\2", 4 ) );
   EXPECT_EQ( frames[1].header.kind, Kind::removal );
   EXPECT_EQ( frames[2].header.kind, Kind::value );
   EXPECT_FALSE( flow->hasDirtyCollKeys() );
   EXPECT_TRUE( world.sa()->zekHandleSecondaryWithMaskSerializeColl() );
}

TEST( AttrLog, anyNumberOfAttributesIsDirtyEachForItself ) {
   for( bool full : { true, false } ) {
      Joined world;
      auto wide = Shapes::wideFactory( "wide" );
      world.source->entityIs( wide );
      world.mount( "wide", "Shapes::Wide" );
      world.connect();
      if( full ) world.out().capacityIs( 0 );
      const auto & plan = world.server.adapter().adaptorOf( *wide )->plan();
      ASSERT_GT( plan.plain.size(), 64u );
      // Each alone, the others being clean again.
      for( uint32_t pass = 1; pass < 3; ++pass ) {
         for( const Zek::AttributeRow * row : plan.plain ) {
            if( row->type->kind != Zek::TypeKind::scalar ) continue;
            const uint32_t value = pass << 24 | pass; // by its lowest byte for smaller ones
            row->bring( wide.ptr(), &value );
            for( auto * other : plan.plain ) {
               EXPECT_EQ(
                  world.server.adapter().adaptorOf( *wide )->flowOut()->zekIsDirty( other->id ),
                  full && other == row );
            }
            world.out().capacityIs( 4096 );
            world.settle();
            if( full ) world.out().capacityIs( 0 );
         }
      }
      wide->upsInc( 7 ); // counters that go one way alone
      wide->downsDec( 3 );
      wide->tagIs( "a" );
      world.out().capacityIs( 4096 );
      world.settle();
      EXPECT_EQ( differences( wide.ptr(), world.copy->entity( "wide" ).ptr(), Depth::all ).size(),
                 0u );
      auto copy = Zek::ptrCast< Shapes::Wide >( world.copy->entity( "wide" ) );
      EXPECT_EQ( copy->ups(), ( 2u << 24 | 2 ) + 7 );
      EXPECT_EQ( copy->downs(), static_cast< uint8_t >( 2 - 3 ) );
   }
}

/// Whatever allocation fails, the writer notices nothing, and the reader has all after another
/// connection.
TEST( AttrLog, memoryForOnePeerConcernsThatPeerAlone ) {
   for( bool lasting : { false, true } ) {
      bool met = true;
      for( uint64_t after = 0; met; ++after ) {
         OneInterface world( "w" );
         const Velon::IntfId another( "Ethernet2" );
         world.intf->secondaryWithMaskIs( a1, true );
         world.config->ipIntfConfigIs( another );
         world.settle();
         const bool full = after % 2;
         if( full ) world.out().capacityIs( 0 );
         {
            // Nothing here needs memory for itself.
            NoMemory none( after, lasting );
            EXPECT_NO_THROW( world.intf->maxMssEgressIs( 700 ) );
            EXPECT_NO_THROW( world.intf->secondaryWithMaskDel( a1 ) );
            EXPECT_NO_THROW( world.config->ipIntfConfigDel( another ) );
            met = none.met();
            if( world.server.isBroken() ) {
               EXPECT_THROW( world.server.drain(), std::exception );
               EXPECT_TRUE( world.server.output().empty() );
            }
            EXPECT_NO_THROW( world.server.disconnected() );
            EXPECT_NO_THROW( world.client.disconnected() );
         }
         if( full ) world.out().capacityIs( 4096 );
         world.connect();
         ASSERT_TRUE( world.replica() );
         EXPECT_EQ( world.replica()->maxMssEgress(), 700 );
         EXPECT_EQ( world.replica()->secondaryWithMaskCount(), 0u );
      }
   }
}

TEST( AttrLog, aBarrierLetsWhatIsDirtyGoFirst ) {
   for( bool barrier : { false, true } ) {
      OneInterface world;
      world.out().capacityIs( 0 );
      world.intf->maxMssEgressIs( 300 );
      world.out().capacityIs( 4096 );
      world.out().barrierIs( barrier );
      world.intf->forwardingIs( false ); // 268
      auto frames = framesOf( world.out().buffer().view() );
      ASSERT_EQ( frames.size(), barrier ? 2u : 1u );
      EXPECT_EQ( frames.back().header.attribute, 268 );
      // It held for one notification.
      world.out().capacityIs( 0 );
      world.intf->maxMssEgressIs( 400 );
      world.out().capacityIs( 4096 );
      world.intf->forwardingIs( true );
      frames = framesOf( world.out().buffer().view() );
      EXPECT_EQ( frames.size(), barrier ? 3u : 2u );
   }
}

TEST( AttrLog, aStalledReaderCostsWhatIsDirtyAndNoHistory ) {
   OneInterface world;
   world.out().capacityIs( 0 );
   for( uint32_t i = 0; i < 10000; ++i ) {
      Velon::IpAddrWithMask key( Velon::IpAddr( i ), 32 );
      world.intf->secondaryWithMaskIs( key, true );
      world.intf->secondaryWithMaskDel( key );
   }
   EXPECT_LE( world.sa()->flowOut()->zekIsSecondaryWithMaskDirty().size(), 17u );
   world.intf->secondaryWithMaskIs( a1, true );
   world.out().capacityIs( 4096 );
   world.settle();
   EXPECT_EQ( world.replica()->secondaryWithMaskCount(), 1u );
}

TEST( AttrLog, aReadOnlyCopyRefusesLocalChangesAfterStoringThem ) {
   OneInterface world;
   auto replica = world.replica();
   try {
      replica->forwardingIs( false );
      FAIL() << "no error";
   } catch( const Zek::ReadOnlyException & e ) {
      EXPECT_STREQ( e.what(), "Ip::IpIntfConfig::forwarding of "
                              "'ip/config/ipIntfConfig[Ethernet1]' is read-only" );
   }
   EXPECT_FALSE( replica->forwarding() ); // deliberate: no rollback
   EXPECT_TRUE( world.client.output().empty() );
   world.intf->forwardingIs( false );
   world.intf->forwardingIs( true );
   world.settle();
   EXPECT_TRUE( replica->forwarding() ); // the next change overrides
   EXPECT_THROW( replica->secondaryWithMaskIs( a1, true ), Zek::ReadOnlyException );
}

TEST( AttrLog, aReactionOfTheCopysOwnIsNoEcho ) {
   OneInterface world( "w" );
   auto reaction = Zek::allocate< Reaction >();
   reaction->notifierIs( world.replica() );
   reaction->isRegisteredNotifieeIs( true );
   world.intf->forwardingIs( false );
   world.settle();
   // The reaction did not arrive from the log: it went back to the owner.
   EXPECT_TRUE( world.replica()->forwarding() );
   EXPECT_TRUE( world.intf->forwarding() );
   EXPECT_EQ( world.intf->noArp(), Ip::TristateBool::isTrue );
}

TEST( AttrLog, aWritableMountWritesThroughTheOwnersChecks ) {
   OneInterface world( "w" );
   auto top = Zek::ptrCast< Ip::Config >( world.copy->entityAt( "ip/config" ) );
   world.replica()->addrWithMaskIs( a1 );
   auto made = top->ipIntfConfigIs( Velon::IntfId( "Vlan7" ) );
   made->addrWithMaskIs( a2 );
   made->secondaryWithMaskIs( a1, true );
   world.settle();
   EXPECT_EQ( world.intf->addrWithMask(), a1 );
   auto theirs = world.config->ipIntfConfig( Velon::IntfId( "Vlan7" ) );
   ASSERT_TRUE( theirs );
   EXPECT_EQ( theirs->addrWithMask(), a2 );
   EXPECT_EQ( theirs->secondaryWithMaskCount(), 1u );
   EXPECT_EQ( made->addrWithMask(), a2 );
   theirs->addrWithMaskIs( a1 ); // and back
   world.settle();
   EXPECT_EQ( made->addrWithMask(), a1 );
   top->ipIntfConfigDel( Velon::IntfId( "Vlan7" ) );
   world.settle();
   EXPECT_EQ( world.config->ipIntfConfigCount(), 1u );
}

TEST( AttrLog, crossingWritesAgree ) {
   OneInterface world( "w" );
   world.replica()->addrWithMaskIs( a1 );
   world.intf->addrWithMaskIs( a2 );
   world.replica()->secondaryWithMaskIs( a1, true );
   world.intf->secondaryWithMaskIs( a1, false );
   world.settle();
   EXPECT_EQ( world.intf->addrWithMask(), world.replica()->addrWithMask() );
   EXPECT_EQ( world.intf->secondaryWithMask( a1 ), world.replica()->secondaryWithMask( a1 ) );
}

TEST( AttrLog, aPeerThatReadsNothingCostsNoMoreThanTheRoom ) {
   OneInterface world( "w" );
   auto up = [&] {
      std::string bytes( world.client.output().view() );
      world.client.carried( bytes.size() );
      world.server.receive( bytes.data(), bytes.size() );
   };
   world.out().capacityIs( 4096 );
   for( uint16_t i = 0; i < 2000; ++i ) {
      world.replica()->maxMssEgressIs( i );
      up();
   }
   EXPECT_EQ( world.intf->maxMssEgress(), 1999 );
   EXPECT_LE( world.out().buffer().size(), 4200u );
   for( int i = 0; i < 1000; ++i ) {
      world.source->entity( "ip" )->entityDel( "config" );
      world.source->entity( "ip" )->entityIs( Ip::configFactory( "config" ) );
   }
   EXPECT_LE( world.out().buffer().size(), 4500u );
   EXPECT_FALSE( world.server.isAtRest() );
   world.settle();
   EXPECT_TRUE( world.server.isAtRest() );
   EXPECT_TRUE( world.copy->entityAt( "ip/config" ) );
   EXPECT_FALSE( world.replica() );
}

TEST( AttrLog, aWritableMountOfThePartMakesThePartWritable ) {
   OneInterface world;
   world.mount( "ip", "Zek::Dir", "w" );
   world.settle();
   world.replica()->addrWithMaskIs( a1 );
   world.settle();
   EXPECT_EQ( world.intf->addrWithMask(), a1 );
}

TEST( AttrLog, aLargeWritableMountIsTakenUpAgain ) {
   OneInterface world( "w" );
   for( int i = 0; i < 5000; ++i ) {
      world.config->ipIntfConfigIs( Velon::IntfId( ( "e" + std::to_string( i ) ).c_str() ) );
   }
   world.settle();
   world.server.disconnected();
   world.client.disconnected();
   world.replica()->addrWithMaskIs( a1 );
   world.connect();
   EXPECT_EQ( world.intf->addrWithMask(), a1 );
}

TEST( AttrLog, anAdaptorIsOneAndFollowsTheSwitches ) {
   OneInterface world;
   auto * sa = world.sa();
   ASSERT_TRUE( sa );
   EXPECT_EQ( world.intf->zekNboAttrLogSaIs( sa->flags(), 1, world.out() ).ptr(), sa );
   EXPECT_EQ( sa->zekReactor()->zekSink(), static_cast< Zek::AttributeSink * >( sa ) );
   EXPECT_EQ( sa->attrIdsReqSync().front(), Zek::entityAttr );
   sa->hasNotificationActiveIs( false );
   world.intf->addrWithMaskIs( a1 );
   EXPECT_TRUE( world.out().buffer().empty() );
   sa->hasNotificationActiveIs( true ); // everything is dirty
   world.settle();
   EXPECT_EQ( world.replica()->addrWithMask(), a1 );
   world.intf->zekIsLoggedIs( false );
   world.intf->addrWithMaskIs( a2 );
   world.settle();
   EXPECT_EQ( world.replica()->addrWithMask(), a1 );
   world.intf->zekIsLoggedIs( true );
   world.settle();
   EXPECT_EQ( world.replica()->addrWithMask(), a2 );
   // The hold is weak: the entity goes, and the adaptor with it.
   size_t adaptors = world.server.adapter().adaptors();
   world.intf = nullptr;
   world.config->ipIntfConfigDelAll();
   EXPECT_EQ( world.server.adapter().adaptors(), adaptors - 1 );
   world.settle();
   EXPECT_FALSE( world.replica() );
}

TEST( AttrLog, anEarlierNotifieeMayThrow ) {
   Joined world;
   auto config = Ip::configFactory( "config" );
   world.source->entityIs( config );
   auto intf = config->ipIntfConfigIs( Velon::IntfId( "Ethernet1" ) );
   auto throwing = Zek::allocate< Throwing >();
   throwing->notifierIs( intf );
   throwing->isRegisteredNotifieeIs( true );
   world.mount( "config", "Ip::Config" );
   world.connect();
   EXPECT_THROW( intf->forwardingIs( false ), std::runtime_error );
   EXPECT_EQ( framesOf( world.out().buffer().view() ).size(), 1u );
}

TEST( AttrLog, aReferenceAheadOfItsTargetsDumpMeansWhatThatBrings ) {
   Joined world;
   const Velon::IntfId id( "Ethernet1" );
   auto all = world.source->dirIs( "all" );
   auto l3 = L3::Intf::Input::statusDirFactory( "l3" );
   auto input = Ip::Input::statusFactory( "input" );
   auto status = Ip::statusFactory( "status" );
   all->entityIs( l3 );
   all->entityIs( input );
   all->entityIs( status );
   auto up = l3->intfStatusIs( id );
   status->ipIntfStatusIs( input->ipIntfStatusIs( id, nullptr ) );
   // The reader knows the target from before; the dump that replaces it comes last.
   world.mount( "all/status", "Ip::Status" );
   world.mount( "all/input", "Ip::Input::Status" );
   world.mount( "all/l3", "L3::Intf::Input::StatusDir" );
   world.connect();
   world.server.disconnected();
   world.client.disconnected();
   status->ipIntfStatusDel( id );
   input->ipIntfStatusDel( id );
   status->ipIntfStatusIs( input->ipIntfStatusIs( id, up ) );
   world.connect();
   auto copyOf = [&]( const char * path ) { return world.copy->entityAt( path ); };
   auto replica = Zek::ptrCast< Ip::Input::Status >( copyOf( "all/input" ) )->ipIntfStatus( id );
   ASSERT_TRUE( replica && replica->l3Status() );
   EXPECT_EQ( Zek::ptrCast< Ip::Status >( copyOf( "all/status" ) )->ipIntfStatus( id ), replica );
}

/// Subtrees are built, attached as a whole, taken out and put back.
TEST( AttrLog, whatStandsInTheTreeIsReferredTo ) {
   for( const size_t room : { 0, 100, 65536 } ) {
      Joined world;
      auto all = world.source->dirIs( "all" );
      world.mount( "all", "Zek::Dir" );
      world.connect();
      auto agree = [&] {
         world.out().capacityIs( 65536 );
         world.settle();
         for( auto & d : differences( all.ptr(), world.copy->entity( "all" ).ptr(), Depth::all ) ) {
            EXPECT_TRUE( d.waits ) << d.place << " " << d.what;
         }
         world.out().capacityIs( room );
      };
      auto inside = Shapes::wideFactory( "inside" ), outside = Shapes::wideFactory( "outside" );
      auto target = outside->linkIs( 1, nullptr );
      all->entityIs( inside );
      inside->linkIs( 2, target );
      inside->linkIs( 3, inside->link( 2 ) );
      inside->seenIs( target );
      auto config = Ip::configFactory( "config" );
      auto l3 = L3::Intf::configDirFactory( "l3" );
      all->entityIs( config );
      const Velon::IntfId ethernet1( "Ethernet1" );
      config->ipIntfConfigIs( ethernet1 )->l3ConfigIs( l3->intfConfigIs( ethernet1 ) );
      agree();
      for( const Zek::Entity::Ptr & child : std::vector< Zek::Entity::Ptr >{ outside, l3 } ) {
         all->entityIs( child );
         agree();
         all->entityDel( child->name().view() );
         agree();
         all->entityIs( child );
         agree();
      }
      auto copy = Zek::ptrCast< Shapes::Wide >( world.copy->entityAt( "all/inside" ) );
      ASSERT_TRUE( copy && copy->link( 2 ) && copy->link( 2 )->before() && copy->seen( 1 ) );
      EXPECT_EQ( copy->link( 3 )->before(), copy->link( 2 ) );
      EXPECT_TRUE( Zek::ptrCast< Ip::Config >( world.copy->entityAt( "all/config" ) )
                      ->ipIntfConfig( ethernet1 )
                      ->l3Config() );
   }
}

/// Machines that follow a collection of references keep nothing of the one that was there.
TEST( AttrLog, anotherInstanceUnderTheKeyComesBehindARemoval ) {
   for( const bool full : { false, true } ) {
      Joined world;
      auto wide = Shapes::wideFactory( "wide" );
      world.source->entityIs( wide );
      wide->seenIs( wide->linkIs( 1, nullptr ) );
      world.mount( "wide", "Shapes::Wide" );
      world.connect();
      auto watch = Zek::allocate< SeenWatch >();
      watch->notifierIs( world.copy->entity( "wide" ) );
      watch->isRegisteredNotifieeIs( true );
      if( full ) world.out().capacityIs( 0 );
      wide->seenDel( 1 );
      wide->linkDel( 1 );
      wide->seenIs( wide->linkIs( 1, nullptr ) );
      world.out().capacityIs( 4096 );
      world.settle();
      EXPECT_EQ( watch->told, "-+" );
   }
}

/// What waited for its target is applied when the target is there, and whoever hears of it may end
/// the connection, or the session.
TEST( AttrLog, aSessionMayEndFromWithinACallback ) {
   for( const bool destroys : { false, true } ) {
      OneInterface world;
      auto l3 = L3::Intf::configDirFactory( "l3" );
      world.source->entityIs( l3 );
      std::vector< Zek::Ptr< Ender > > enders;
      Kelmo::SessionOwner owner;
      auto client = std::make_unique< Kelmo::Session >( world.copy, owner );
      Kelmo::Session server( world.source, owner );
      world.client.disconnected();
      for( const char * name : { "Ethernet1", "Ethernet2", "Ethernet3" } ) {
         const Velon::IntfId id( name );
         world.config->ipIntfConfigIs( id )->l3ConfigIs( l3->intfConfigIs( id ) );
      }
      client->mount( Kelmo::Mount( "ip/config", "Ip::Config", "r", Kelmo::MountFilter( false ) ) );
      client->mount(
         Kelmo::Mount( "l3", "L3::Intf::ConfigDir", "r", Kelmo::MountFilter( false ) ) );
      size_t ended = 0;
      auto end = [&] {
         ++ended;
         destroys ? client.reset() : client->disconnected();
      };
      auto watchAll = [&] {
         auto top = Zek::ptrCast< Ip::Config >( world.copy->entityAt( "ip/config" ) );
         for( auto i = top->ipIntfConfigIteratorConst(); i; ++i ) {
            enders.push_back( Zek::allocate< Ender >() );
            enders.back()->end = end;
            enders.back()->notifierIs( i.ptr() );
            enders.back()->isRegisteredNotifieeIs( true );
         }
      };
      server.connected();
      client->connected();
      server.receive( client->output().data(), client->output().size() );
      // Up to the end of the first dump; the second one brings what is waited for.
      const std::string bytes( server.output().view() );
      auto frames = framesOf( bytes );
      size_t first = 0, at = 0;
      for( auto & frame : frames ) {
         at += frame.header.length;
         if( frame.header.flow == 0 && frame.header.attribute == Zek::NboAttrLog::rootControl ) {
            first = at;
         }
      }
      client->receive( bytes.data(), first );
      watchAll();
      client->receive( bytes.data() + first, bytes.size() - first );
      EXPECT_EQ( ended, 1u );
   }
}

TEST( AttrLog, aPathIsTheSameHoweverManySlashesItHas ) {
   OneInterface world;
   world.source->dirIs( "a" )->dirIs( "b" );
   world.mount( "/a//b/", "Zek::Dir" );
   EXPECT_THROW( world.mount( "//", "Zek::Dir" ), Zek::RangeException );
   EXPECT_NO_THROW( world.settle() );
   EXPECT_TRUE( world.copy->entityAt( "a/b" ) );
   EXPECT_TRUE( world.replica() );
   // Of a peer that leaves them there.
   auto & asking = world.client.adapter().nboAttrLogOut();
   Zek::Wire::Encoder body = asking.control( 65 );
   body.u32( 3 );
   for( const char * text : { "//a/", "Zek::Dir", "r" } ) body.text( text );
   body.u8( 0 );
   asking.controlEnd();
   world.server.receive( asking.buffer().data(), asking.buffer().size() );
   std::vector< uint16_t > answers;
   for( auto & frame : framesOf( world.out().buffer().view() ) ) {
      if( frame.header.flow == 0 ) answers.push_back( frame.header.attribute );
   }
   EXPECT_NE( std::ranges::find( answers, Zek::NboAttrLog::rootControl ), answers.end() );
}

TEST( AttrLog, mountsAreRefusedInWords ) {
   Joined world;
   world.source->dirIs( "ip" );
   world.source->entityIs( Ira::addrSetBogonFactory( "bogon" ) );
   world.mount( "ip", "Ip::Status" );
   world.mount( "absent/path", "Ip::Status" );
   world.connect();
   EXPECT_EQ( world.refusals,
              std::vector< std::string >( { "ip: 'ip' is Zek::Dir, expected Ip::Status" } ) );
   EXPECT_TRUE( world.client.isSynchronised() );
   auto refusal = [&]( const char * mode ) -> std::string {
      try {
         world.mount( "x", "Ip::Status", mode );
      } catch( const Zek::RangeException & e ) {
         return e.what();
      }
      return "";
   };
   EXPECT_EQ( refusal( "rw" ), "mount of 'x' with mode 'rw': expected r, ri or w" );
   EXPECT_EQ( refusal( "ri" ),
              "mount of 'x' with mode 'ri' and type 'Ip::Status': expected type Zek::Dir" );
   // What comes later is there then.
   auto status = Ip::statusFactory( "path" );
   world.source->dirIs( "absent" )->entityIs( status );
   status->urpfConfiguredOnAnyIntfIs( true );
   world.settle();
   auto replica = Zek::ptrCast< Ip::Status >( world.copy->entityAt( "absent/path" ) );
   ASSERT_TRUE( replica );
   EXPECT_TRUE( replica->urpfConfiguredOnAnyIntf() );
   world.source->entityDel( "absent" );
   world.settle();
   EXPECT_FALSE( world.copy->entityAt( "absent/path" ) );
}

} // namespace ipstate::test
