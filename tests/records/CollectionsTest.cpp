// Collections of records while they change: parents, removals, iterators, callbacks that interfere.

#include "Ip/Ip.h"
#include "IpGen/IpGenStatusSm.h"
#include "framework/EntityUriPath.h"
#include "tests/records/Records.h"

using namespace Records;
using Velon::IntfId;
using Velon::IpAddrWithMask;

namespace {

const IntfId ethernet1( "Ethernet1" ), ethernet2( "Ethernet2" ), ethernet3( "Ethernet3" );

IpAddrWithMask
net( unsigned host ) {
   return IpAddrWithMask( Velon::IpAddr( 10, 0, 0, static_cast< uint8_t >( host ) ), 24 );
}

// -- Parents ----------------------------------------------------------------------------------

TEST( Parents, HoldTheirMembersAndAreForgottenByThoseThatLeave ) {
   auto config = Ip::configFactory( "config" );
   const uint64_t live = Ip::IpIntfConfig::allocTrackTypeInfo_.liveObjects();
   Ip::IpIntfConfig * record = config->ipIntfConfigIs( ethernet1 ).ptr();
   EXPECT_EQ( Ip::IpIntfConfig::allocTrackTypeInfo_.liveObjects(), live + 1 );
   EXPECT_EQ( record->parent(), config.ptr() );
   EXPECT_EQ( record->parentAttrName(), "ipIntfConfig" );
   EXPECT_EQ( config->references(), 1u ) << "members do not hold their parent";
   Story story( *config );
   std::string seen;
   story.reaction = [&] {
      seen = record->parent() ? "still there" : "gone, ";
      seen += record->parentAttrName().view();
   };
   Ip::IpIntfConfig::Ptr removed = config->ipIntfConfigDel( ethernet1 );
   EXPECT_EQ( removed.ptr(), record );
   EXPECT_EQ( seen, "gone, " ) << "before anybody is told";
   EXPECT_EQ( removed->fullName(), "" );
   EXPECT_EQ( removed->parentAttrId(), 0u );
   EXPECT_EQ( config->ipIntfConfigDel( ethernet1 ), nullptr );
}

TEST( Parents, ThatDieAreForgottenByMembersThatLiveOn ) {
   auto input = Ip::Input::statusFactory( "kernel" );
   auto status = Ip::statusFactory( "status" );
   Zek::Ptr< const Ip::IpIntfStatus > record =
      input->ipIntfStatusIs( ethernet1, L3::Intf::statusFactory( ethernet1 ) );
   status->ipIntfStatusIs( record );
   EXPECT_EQ( record->parent(), input.ptr() ) << "references leave the parent alone";
   EXPECT_EQ( record->parentAttrName(), "ipIntfStatus" );
   EXPECT_EQ( status->ipIntfStatusDel( ethernet1 ), record );
   status->ipIntfStatusIs( record );
   status = nullptr;
   EXPECT_EQ( record->parent(), input.ptr() );
   input = nullptr;
   EXPECT_EQ( record->parent(), nullptr );
   EXPECT_EQ( record->parentAttrName(), "" );
   EXPECT_EQ( record->references(), 1u );
}

TEST( Parents, AreOneForEachChildAndNeverItsOwn ) {
   auto root = Zek::dirFactory();
   auto a = root->dirIs( "a" ), b = root->dirIs( "b" ), below = root->dirIs( "a/below" );
   auto config = Ip::configFactory( "config" );
   auto record = config->ipIntfConfigIs( ethernet1 );
   a->entityIs( config );
   Story story( *b ), ownStory( *below );
   auto refusalOf = [&]( const Zek::Ptr< Zek::Entity > & parent,
                         const Zek::Ptr< Zek::Entity > & child ) {
      return refusal< Zek::RangeException >( [&] { parent->entityIs( child ); } );
   };
   EXPECT_EQ( refusalOf( b, below ),
              "'a/below' has a parent already and cannot be a child of 'b' too" );
   EXPECT_EQ( refusalOf( record, config ),
              "'a/config' has a parent already and cannot be a child of "
              "'a/config/ipIntfConfig[Ethernet1]' too" );
   root->entityDel( "a" );
   EXPECT_EQ( refusalOf( a, a ), "'a' cannot be a child of itself" );
   EXPECT_EQ( refusalOf( below, a ), "'a' cannot be a child of 'a/below', which is below it" );
   EXPECT_EQ( refusalOf( record, a ),
              "'a' cannot be a child of 'a/config/ipIntfConfig[Ethernet1]', which is below it" );
   EXPECT_EQ( story.told() + ownStory.told(), "" );
   EXPECT_EQ( below->entityCount() + b->entityCount() + record->entityCount(), 0u );
   EXPECT_EQ( below->fullName(), "a/below" );
   b->entityIs( a );
   EXPECT_EQ( below->fullName(), "b/a/below" );
   record->parentIs( Ip::Config::Ptr( config ) );
}

// -- Names and keys ---------------------------------------------------------------------------

TEST( RenamedMembers, KeepTheirKeyUntilNoCollectionHoldsThem ) {
   auto root = Zek::dirFactory();
   auto dir = Ip::ipInputStatusDirFactory( "inputs" );
   auto input = Ip::Input::statusFactory( "first" );
   input->nameIsFromBackup( "kernel" );
   EXPECT_EQ( input->fwkKey(), "kernel" );
   root->entityIs( input );
   input->nameIsFromBackup( "restored" );
   dir->inputStatusIs( input );
   EXPECT_EQ( dir->inputStatus( "kernel" ), input ) << "one key at a time";
   Zek::Wire::Buffer bytes;
   Zek::Wire::Encoder out( bytes );
   Zek::EntityUriPath( *input ).encodeTo( out );
   Zek::Wire::Decoder in( bytes.data(), bytes.size() );
   EXPECT_EQ( Zek::EntityUriPath::resolve( *root, in ), input.ptr() );
   EXPECT_EQ( root->entityDel( "kernel" ), input );
   EXPECT_EQ( input->fwkKey(), "kernel" );
   dir = nullptr;
   root->entityIs( input );
   EXPECT_EQ( root->entity( "restored" ), input );
   root->entityDelAll();
   input->nameIsFromBackup( "again" );
   dir = Ip::ipInputStatusDirFactory( "inputs" );
   dir->inputStatusIs( input );
   dir->inputStatusIs( input );
   EXPECT_EQ( dir->inputStatusDel( "again" ), input );
}

// -- Removals ---------------------------------------------------------------------------------

TEST( Removals, AtTheEndOfAWalkDoNothing ) {
   auto intf = Ip::ipIntfConfigFactory( ethernet1 );
   intf->secondaryWithMaskDel( intf->secondaryWithMaskIterator() );
   auto status = Ip::ipIntfStatusFactory( ethernet1, nullptr );
   EXPECT_EQ( status->mcaddrDel( status->mcaddrIterator() ), Ip::MulticastGroupInfo() );
   auto groups = Ip::multicastGroupsForApplicationsFactory();
   groups->mcaddrDel( groups->mcaddrIterator() );
   auto errors = Ip::ipConfigErrorFactory();
   EXPECT_EQ( errors->ipIntfConfigErrorDel( errors->ipIntfConfigErrorIterator() ), "" );
   auto config = Ip::configFactory();
   EXPECT_EQ( config->ipIntfConfigDel( config->ipIntfConfigIterator( ethernet1 ) ), nullptr );
   auto all = Ip::statusFactory();
   EXPECT_EQ( all->ipIntfStatusDel( all->ipIntfStatusIterator() ), nullptr );
   auto machine = IpGen::statusSmFactory( IpGen::ipv4StatusFactory( all ) );
   machine->vrfIpv4StatusDel( machine->vrfIpv4StatusIterator() );
   auto root = Zek::dirFactory();
   EXPECT_EQ( root->entityDel( root->entityIterator() ), nullptr );
   auto a = root->dirIs( "a" );
   root->dirIs( "b" );
   EXPECT_EQ( root->entityDel( root->entityIterator( "c" ) ), nullptr );
   root->entityIterator( "a" ).ptr()->entityIs( Zek::dirFactory( "below" ) );
   EXPECT_EQ( root->entityDel( root->entityIteratorConst( "a" ) ), a );
   EXPECT_EQ( root->entityCount(), 1u );
}

TEST( Removals, ReturnWhatWasRemovedOrTheDefault ) {
   auto config = Ip::ipIntfConfigFactory( ethernet1 );
   config->secondaryWithMaskIs( net( 1 ), true );
   EXPECT_TRUE( config->secondaryWithMaskDel( net( 1 ) ) );
   EXPECT_FALSE( config->secondaryWithMaskDel( net( 1 ) ) );
   auto errors = Ip::ipConfigErrorFactory();
   errors->ipIntfConfigErrorIs( ethernet1, "overlaps" );
   EXPECT_EQ( errors->ipIntfConfigError( ethernet1 ), "overlaps" );
   EXPECT_EQ( errors->ipIntfConfigErrorDel( errors->ipIntfConfigErrorIteratorConst( ethernet1 ) ),
              "overlaps" );
   EXPECT_EQ( errors->ipIntfConfigErrorDel( ethernet1 ), "" );
   auto status = Ip::statusFactory();
   auto vrf = status->vrfIpIntfStatusIs( "red" );
   EXPECT_EQ( status->vrfIpIntfStatusDel( status->vrfIpIntfStatusIteratorConst( "red" ) ), vrf );
   auto groups = Ip::multicastGroupsForApplicationsFactory();
   static_assert( std::is_void_v< decltype( groups->mcaddrDel( Ip::IntfAddrInfo() ) ) > );
}

TEST( Removals, OfAllEndWhereACallbackInsertsAgain ) {
   auto config = Ip::ipIntfConfigFactory( ethernet1 );
   auto errors = Ip::ipConfigErrorFactory();
   for( unsigned host = 1; host <= 3; ++host ) config->secondaryWithMaskIs( net( host ), true );
   for( IntfId id : { ethernet1, ethernet2, ethernet3 } ) errors->ipIntfConfigErrorIs( id, "bad" );
   Story story( *config ), errorStory( *errors );
   story.reaction = [&] {
      if( !config->secondaryWithMaskHas( net( 2 ) ) )
         config->secondaryWithMaskIs( net( 2 ), false );
   };
   config->secondaryWithMaskDelAll();
   EXPECT_EQ( story.told(), "secondaryWithMask[10.0.0.1/24] gone\n"
                            "secondaryWithMask[10.0.0.2/24] gone\n"
                            "secondaryWithMask[10.0.0.2/24] false\n"
                            "secondaryWithMask[10.0.0.3/24] gone\n" );
   EXPECT_EQ( config->secondaryWithMaskCount(), 1u );
   errorStory.reaction = [&] { errors->ipIntfConfigErrorIs( ethernet2, "again" ); };
   errors->ipIntfConfigErrorDelAll();
   EXPECT_EQ( errors->ipIntfConfigErrorCount(), 1u );
   EXPECT_EQ( errors->ipIntfConfigError( ethernet2 ), "again" );
}

TEST( Removals, OfAllSurviveTheLossOfTheRecord ) {
   // A callback drops the last reference that anybody has.
   auto config = Ip::ipIntfConfigFactory( ethernet1 );
   config->secondaryWithMaskIs( net( 1 ), true );
   config->secondaryWithMaskIs( net( 2 ), true );
   auto dir = Ip::configFactory( "config" );
   for( IntfId id : { ethernet1, ethernet2 } ) dir->ipIntfConfigIs( id );
   auto root = Zek::dirFactory();
   root->dirIs( "a" );
   root->dirIs( "b" );
   struct Dropping : Zek::AttributeSink {
      std::function< void() > drop;
      Zek::Ptr< Zek::PtrInterface > relay;
      void onAttribute( const Zek::AttributeRow & ) override {}
      void onMember( const Zek::AttributeRow &, const void * ) override { drop(); }
   } droppingConfig, droppingDir, droppingRoot;
   auto watchWeakly = []( Dropping & dropping, const Zek::PtrInterface & record ) {
      dropping.relay = Zek::relayOf( record, dropping );
      Zek::ptrCast< Zek::PtrInterface::NotifieeConst >( dropping.relay )->isWeakNotifieeIs( true );
   };
   watchWeakly( droppingConfig, *config );
   watchWeakly( droppingDir, *dir );
   droppingConfig.drop = [&] { config = nullptr; };
   droppingDir.drop = [&] { dir = nullptr; };
   watchWeakly( droppingRoot, *root );
   droppingRoot.drop = [&] { root = nullptr; };
   config.ptr()->secondaryWithMaskDelAll();
   dir.ptr()->ipIntfConfigDelAll();
   root.ptr()->entityDelAll();
   EXPECT_EQ( config, nullptr );
   EXPECT_EQ( dir, nullptr );
   EXPECT_EQ( root, nullptr );
}

TEST( Removals, TakeTheirKeyFromTheMemberItself ) {
   auto config = Ip::configFactory( "config" );
   config->ipIntfConfigIs( ethernet1 );
   // The key lives in the record that goes.
   config->ipIntfConfigDel( config->ipIntfConfig( ethernet1 )->fwkKey() );
   EXPECT_EQ( config->ipIntfConfigCount(), 0u );
   auto status = Ip::ipIntfStatusFactory( ethernet1, nullptr );
   status->mcaddrIs( Ip::MulticastGroupInfo( Velon::IpAddr( 224, 0, 0, 5 ) ) );
   Story story( *status );
   status->mcaddrDel( status->mcaddrIterator().value().address() );
   EXPECT_EQ( story.told(), "mcaddr[224.0.0.5] gone\n" );
}

// -- Iterators --------------------------------------------------------------------------------

TEST( Iterators, WalkWhatIsThereWhenTheyGetThere ) {
   auto config = Ip::ipIntfConfigFactory( ethernet1 );
   for( unsigned host : { 10, 20, 30, 40 } ) config->secondaryWithMaskIs( net( host ), true );
   EXPECT_FALSE( config->secondaryWithMaskIteratorConst( net( 15 ) ) )
      << "an absent key is the end";
   auto at = config->secondaryWithMaskIterator( net( 20 ) );
   config->secondaryWithMaskDel( at );
   EXPECT_EQ( at.key(), net( 20 ) ) << "a removed member still answers";
   EXPECT_TRUE( at.value() );
   config->secondaryWithMaskDel( net( 30 ) );
   config->secondaryWithMaskIs( net( 5 ), true );  // behind: not seen
   config->secondaryWithMaskIs( net( 35 ), true ); // ahead: seen
   std::string rest;
   for( ++at; at; ++at ) rest += at.key().addr().toString() + " ";
   EXPECT_EQ( rest, "10.0.0.35 10.0.0.40 " );
}

TEST( Iterators, OfHashedCollectionsVisitEachMemberOnceWhileAllGo ) {
   auto config = Ip::configFactory( "config" );
   for( int i = 0; i < 100; ++i )
      config->ipIntfConfigIs( IntfId( "Ethernet" + std::to_string( i ) ) );
   std::map< std::string, int > visits;
   for( auto at = config->ipIntfConfigIterator(); at; ++at ) {
      ++visits[at.key().toString()];
      at.ptr()->forwardingIs( false );
      EXPECT_EQ( config->ipIntfConfigDel( at ).ptr(), at.ptr() );
   }
   EXPECT_EQ( visits.size(), 100u );
   EXPECT_EQ( config->ipIntfConfigCount(), 0u );
}

} // namespace
