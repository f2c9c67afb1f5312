#include "tools/ipstate-nats/Mirror.h"
#include "tools/ipstate-nats/Publisher.h"

#include "Ip/Ip.h"
#include "L3/L3.h"
#include "platform/Kelmo/Server.h"
#include "platform/Kelmo/SocketMountGroup.h"
#include "tests/agents/Program.h"
#include "tests/fleet/NatsServers.h"
#include "tests/stream/RandomValues.h"
#include "tests/stream/Trees.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <poll.h>

using namespace IpstateNats;
using ipstate::test::NatsServers;
using ipstate::test::Random;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

namespace {

constexpr seconds patience{ 90 };

/// A device: a tree, and who publishes it. The tree outlives runs of its publisher.
struct Device {
   Device( std::string itsName, const BucketOptions & options )
      : name( std::move( itsName ) ),
        bucketOptions( options ) {
      bucketOptions.filter = Publisher::filterOf( name );
      bucketOptions.follows = false;
   }
   void start() {
      bucket = std::make_unique< Bucket >( bucketOptions );
      publisher = std::make_unique< Publisher >( root, *bucket, options() );
      publisher->isFedIs( true );
   }
   void stop() {
      publisher.reset();
      bucket.reset();
   }
   PublisherOptions options() const {
      PublisherOptions o;
      o.device = name;
      o.lease = milliseconds( 200 );
      o.inRecord = 4; // so that members come to stand apart
      o.underWay = 32;
      return o;
   }

   std::string name;
   BucketOptions bucketOptions;
   Zek::Dir::Ptr root = Zek::dirFactory();
   std::unique_ptr< Bucket > bucket;
   std::unique_ptr< Publisher > publisher;
};

/// A process that has the fleet.
struct Reader {
   Reader( const BucketOptions & options, MirrorOptions mirrorOptions = {} )
      : bucket( options ),
        mirror( root, bucket, std::move( mirrorOptions ) ) {}
   Zek::Entity::Ptr device( const std::string & name ) const {
      return root->entityAt( "fleet/" + name );
   }
   Zek::Dir::Ptr root = Zek::dirFactory();
   Bucket bucket;
   Mirror mirror;
};

struct World {
   explicit World( const BucketOptions & options ) : bucketOptions( options ) {}

   Device & device( const std::string & name ) {
      devices.push_back( std::make_unique< Device >( name, bucketOptions ) );
      devices.back()->start();
      return *devices.back();
   }

   void turn( milliseconds wait ) {
      std::vector< pollfd > waits;
      for( auto & each : devices ) {
         if( !each->publisher ) continue;
         each->publisher->timePassed( Clock::now() );
         each->publisher->flush();
         waits.push_back( { each->bucket->fd(), POLLIN, 0 } );
      }
      if( reader ) {
         reader->mirror.timePassed( Clock::now() );
         waits.push_back( { reader->bucket.fd(), POLLIN, 0 } );
      }
      poll( waits.data(), waits.size(), static_cast< int >( wait.count() ) );
      for( auto & each : devices ) {
         if( each->publisher ) each->publisher->onReadable();
      }
      if( reader ) reader->mirror.onReadable();
   }
   bool until( const std::function< bool() > & holds, seconds within = patience ) {
      const Clock::time_point end = Clock::now() + within;
      while( !holds() ) {
         if( Clock::now() > end ) return false;
         turn( milliseconds( 20 ) );
      }
      return true;
   }
   void run( milliseconds time ) {
      const Clock::time_point end = Clock::now() + time;
      while( Clock::now() < end ) turn( milliseconds( 5 ) );
   }

   /// Where the mirror differs from the devices that live; empty when nowhere.
   std::string difference() {
      if( !reader || !reader->mirror.isSynchronised() )
         return "not synchronised: " + reader->mirror.fault();
      for( auto & each : devices ) {
         if( each->publisher && !each->publisher->isAtRest() ) {
            return each->name + " is not at rest: " + std::to_string( each->publisher->dirty() ) +
                   " dirty, " + each->publisher->lastRefusal() + " " + each->publisher->fault();
         }
         const Zek::Entity::Ptr copy = reader->device( each->name );
         for( auto & d : ipstate::test::differences( each->root.ptr(), copy.ptr(),
                                                     ipstate::test::Depth::all ) ) {
            if( !d.waits ) return each->name + ": " + d.place + ": " + d.what;
         }
      }
      return "";
   }
   testing::AssertionResult converges() {
      std::string last;
      Clock::time_point looked{};
      const bool does = until( [&] {
         if( Clock::now() < looked + milliseconds( 100 ) ) return false;
         looked = Clock::now();
         return ( last = difference() ).empty();
      } );
      if( does ) return testing::AssertionSuccess();
      const std::string refusal = reader->mirror.devices().lastRefusal().toString();
      // Whose fault it is: the bucket's content, or the mirror's.
      reader = std::make_unique< Reader >( bucketOptions );
      until( [&] { return reader->mirror.isSynchronised(); }, seconds( 10 ) );
      return testing::AssertionFailure()
             << last << "; last refusal: " << refusal << "; a fresh mirror: " << difference();
   }

   BucketOptions bucketOptions;
   std::vector< std::unique_ptr< Device > > devices;
   std::unique_ptr< Reader > reader;
};

BucketOptions
bucketAt( const NatsServers & servers ) {
   BucketOptions options;
   options.nats.servers = servers.urls();
   options.replicas = static_cast< int >( servers.size() );
   options.check = milliseconds( 300 );
   options.patience = milliseconds( 2000 );
   return options;
}

bool
deleteBucket( const NatsServers & servers ) {
   // By the protocol: the library that the programs use has no part in it.
   const std::string port = servers.url( 0 ).substr( servers.url( 0 ).rfind( ':' ) + 1 );
   const std::string command =
      "bash -c 'exec 3<>/dev/tcp/127.0.0.1/" + port +
      "; printf \"CONNECT {\\\"verbose\\\":false}\\r\\n"
      "SUB I 1\\r\\nPUB \\$JS.API.STREAM.DELETE.KV_ipstate I 0\\r\\n\\r\\n\""
      " >&3; timeout 3 grep -m1 -a success <&3' >/dev/null";
   return std::system( command.c_str() ) == 0;
}

#define NEEDS_NATS()                                                                               \
   if( !NatsServers::missing().empty() ) GTEST_SKIP() << "SKIPPED: " << NatsServers::missing()

} // namespace

TEST( Fleet, anyNameIsAToken ) {
   for( const std::string name : { "eth0", "", "_m", "_", "a.b", "a b", "a=b", "*", ">", "=",
                                   "\xff\x00z", "Ärger", "a_b-c", "10.0.0.1/24" } ) {
      const std::string token = tokenOf( name );
      std::string back;
      EXPECT_TRUE( nameOf( token, back ) ) << token;
      EXPECT_EQ( back, name );
      EXPECT_EQ( token.find_first_of( ". *>" ), std::string::npos ) << token;
      EXPECT_NE( token[0], '_' );
   }
   std::string name;
   for( const char * token : { "", "_m", "a b", "=4", "=GG", "a.b", "a=" } ) {
      EXPECT_FALSE( nameOf( token, name ) ) << token;
   }
}

TEST( Fleet, aChildNamedAsACollectionIsNotTakenForOne ) {
   Zek::Dir::Ptr root = Zek::dirFactory();
   auto status = Ip::Input::statusFactory( Zek::Name( "status" ) );
   root->entityIs( status );
   status->entityIs( "Zek::Dir", Zek::Name( "ipIntfStatus" ) );
   const Velon::IntfId eth0( "eth0" );
   auto record = status->ipIntfStatusIs( eth0, L3::Intf::statusFactory( eth0 ) );
   for( const Zek::Entity * entity :
        { static_cast< const Zek::Entity * >( record.ptr() ),
          static_cast< const Zek::Entity * >( status->entity( "ipIntfStatus" ).ptr() ) } ) {
      EXPECT_EQ( placeOf( *root, keyOf( *entity, *root ) ).record(), entity )
         << keyOf( *entity, *root );
   }
   EXPECT_EQ( keyOf( *record, *root ), "status.ipIntfStatus.eth0" );
}

// Random changes of trees of all types, while servers of a cluster are killed and paused, the
// bucket is deleted, and publishers and the mirror begin again.
TEST( Fleet, convergesWhateverHappensOnTheWay ) {
   NEEDS_NATS();
   const char * chosen = getenv( "FLEET_SEED" );
   const char * steps = getenv( "FLEET_STEPS" );
   const uint32_t seed = chosen ? static_cast< uint32_t >( atoi( chosen ) ) : 1;
   Random random( seed );
   NatsServers servers( 3 );
   World world( bucketAt( servers ) );
   for( const char * name : { "leaf1", "leaf 2", "spine.1" } ) world.device( name );
   world.reader = std::make_unique< Reader >( world.bucketOptions );
   std::string story;
   for( int step = 0; step < ( steps ? atoi( steps ) : 40 ); ++step ) {
      for( uint32_t changes = random.below( 40 ); changes; --changes ) {
         Device & device = *world.devices[random.below( 3 )];
         ipstate::test::mutate( random, *device.root, false );
      }
      const uint32_t what = random.below( 24 );
      Device & device = *world.devices[random.below( 3 )];
      const size_t server = random.below( 3 );
      switch( what ) {
      case 0:
      case 1:
         story += " kill" + std::to_string( server );
         servers.kill( server );
         break;
      case 2:
         story += " pause" + std::to_string( server );
         servers.pauseIs( server, true );
         break;
      case 3:
      case 4:
      case 5:
         story += " heal";
         servers.heal();
         break;
      case 6:
         story += " restart " + device.name;
         device.stop();
         device.start();
         break;
      case 7:
         story += " mirror";
         world.reader = std::make_unique< Reader >( world.bucketOptions );
         break;
      case 8:
         servers.heal();
         story += deleteBucket( servers ) ? " delete" : " (delete)";
         break;
      case 9:
         world.run( milliseconds( 400 ) );
         break;
      default:
         world.run( milliseconds( random.below( 60 ) ) );
      }
   }
   servers.heal();
   EXPECT_TRUE( world.converges() ) << "seed " << seed << ":" << story;

   // At rest nothing is written or applied but leases.
   std::vector< uint64_t > written;
   for( auto & each : world.devices ) written.push_back( each->publisher->written() );
   const uint64_t applied = world.reader->mirror.applied();
   world.run( milliseconds( 500 ) );
   for( size_t i = 0; i < written.size(); ++i ) {
      EXPECT_EQ( world.devices[i]->publisher->written(), written[i] );
   }
   EXPECT_EQ( world.reader->mirror.applied(), applied );
}

TEST( Fleet, aRestartCostsWhatChanged ) {
   NEEDS_NATS();
   NatsServers servers( 1 );
   World world( bucketAt( servers ) );
   Device & leaf = world.device( "leaf1" );
   auto status = Ip::Input::statusFactory( Zek::Name( "status" ) );
   leaf.root->entityIs( status );
   for( int i = 0; i < 200; ++i ) {
      const Velon::IntfId id( "eth" + std::to_string( i ) );
      status->ipIntfStatusIs( id, L3::Intf::statusFactory( id ) );
   }
   world.reader = std::make_unique< Reader >( world.bucketOptions );
   ASSERT_TRUE( world.converges() );
   EXPECT_GE( leaf.publisher->written(), 201u );

   // The publisher: what differs from what the bucket has.
   leaf.stop();
   auto record = status->ipIntfStatus( Velon::IntfId( "eth7" ) );
   record->activeAddrWithMaskIs( Velon::IpAddrWithMask( "10.0.0.7/24" ) );
   status->ipIntfStatusDel( Velon::IntfId( "eth8" ) );
   leaf.start();
   ASSERT_TRUE( world.converges() );
   EXPECT_EQ( leaf.publisher->written(), 2u );

   // The server: nothing, as all was acknowledged; the mirror reads on from where it was.
   const uint64_t applied = world.reader->mirror.applied();
   servers.kill( 0 );
   world.run( milliseconds( 200 ) );
   record->activeAddrWithMaskIs( Velon::IpAddrWithMask( "10.0.0.9/24" ) );
   servers.start( 0 );
   ASSERT_TRUE( world.until( [&] { return !world.reader->mirror.isSynchronised(); } ) ||
                world.reader->mirror.isSynchronised() );
   ASSERT_TRUE( world.converges() );
   EXPECT_LE( leaf.publisher->written(), 4u ); // one may have gone out twice
   EXPECT_LE( world.reader->mirror.applied() - applied, 2u );
}

TEST( Fleet, whoIsSilentIsStaleAndThenForgotten ) {
   NEEDS_NATS();
   NatsServers servers( 1 );
   World world( bucketAt( servers ) );
   Device & leaf = world.device( "leaf1" );
   world.device( "leaf2" );
   auto status = Ip::statusFactory( Zek::Name( "status" ) );
   leaf.root->entityIs( status );
   MirrorOptions options;
   options.forget = seconds( 1 );
   world.reader = std::make_unique< Reader >( world.bucketOptions, options );
   ASSERT_TRUE( world.converges() );
   const Fleet::Status & devices = world.reader->mirror.devices();
   EXPECT_FALSE( devices.device( "leaf1" )->stale() );
   EXPECT_GT( devices.device( "leaf1" )->lastHeard(), 1.6e9 );

   leaf.stop();
   ASSERT_TRUE( world.until( [&] { return devices.device( "leaf1" )->stale(); } ) );
   EXPECT_GT( devices.device( "leaf1" )->staleSince(), 1.6e9 );
   EXPECT_NE( world.reader->device( "leaf1" ), nullptr );
   EXPECT_FALSE( devices.device( "leaf2" )->stale() );
   // It comes back.
   leaf.start();
   ASSERT_TRUE( world.until( [&] { return !devices.device( "leaf1" )->stale(); } ) );

   leaf.stop();
   ASSERT_TRUE( world.until( [&] { return !world.reader->device( "leaf1" ); } ) );
   EXPECT_EQ( devices.device( "leaf1" ), nullptr );
   // The bucket has its keys still, until it is tidied.
   const auto forgotten = world.reader->mirror.forgotten();
   ASSERT_EQ( forgotten, std::vector< std::string >{ "leaf1" } );
   world.reader->bucket.tidy( seconds( 3600 ), forgotten );
   world.run( milliseconds( 300 ) );
   world.reader = std::make_unique< Reader >( world.bucketOptions, options );
   ASSERT_TRUE( world.until( [&] { return world.reader->mirror.isSynchronised(); } ) );
   EXPECT_EQ( world.reader->device( "leaf1" ), nullptr );
   EXPECT_NE( world.reader->mirror.devices().device( "leaf2" ), nullptr );
}

TEST( Fleet, aMirrorTakesWhatItIsToldTo ) {
   NEEDS_NATS();
   NatsServers servers( 1 );
   World world( bucketAt( servers ) );
   for( const char * name : { "leaf1", "leaf2", "spine1" } ) {
      Device & device = world.device( name );
      auto status = Ip::Input::statusFactory( Zek::Name( "status" ) );
      device.root->entityIs( status );
      const Velon::IntfId id( "eth0" );
      auto record = status->ipIntfStatusIs( id, L3::Intf::statusFactory( id ) );
      record->activeAddrWithMaskIs( Velon::IpAddrWithMask( "10.0.0.1/24" ) );
      record->dpRoutingEnabledIs( true );
      device.root->entityIs( Ip::configFactory( Zek::Name( "config" ) ) );
   }
   MirrorOptions options;
   options.devices = { "leaf*" };
   options.types = { "Ip::IpIntf*" };
   options.attributes = { "active*" };
   world.reader = std::make_unique< Reader >( world.bucketOptions, options );
   const auto recordOf = [&]( const std::string & device ) {
      const auto found = world.reader->device( device + "/status" );
      auto * status = dynamic_cast< Ip::Input::Status * >( found.ptr() );
      return status ? status->ipIntfStatus( Velon::IntfId( "eth0" ) ) : nullptr;
   };
   ASSERT_TRUE( world.until( [&] { return recordOf( "leaf1" ) && recordOf( "leaf2" ); } ) );
   world.run( milliseconds( 200 ) );
   EXPECT_EQ( recordOf( "leaf1" )->activeAddrWithMask(), Velon::IpAddrWithMask( "10.0.0.1/24" ) );
   EXPECT_FALSE( recordOf( "leaf1" )->dpRoutingEnabled() );
   EXPECT_EQ( world.reader->device( "spine1" ), nullptr );
   EXPECT_EQ( world.reader->device( "leaf1/config" ).ptr() != nullptr, true ); // it owns records
}

TEST( Fleet, whatIsNoRecordIsCountedAndTheRestGoesOn ) {
   NEEDS_NATS();
   NatsServers servers( 1 );
   World world( bucketAt( servers ) );
   Device & leaf = world.device( "leaf1" );
   leaf.root->entityIs( Ip::configFactory( Zek::Name( "config" ) ) );
   world.reader = std::make_unique< Reader >( world.bucketOptions );
   ASSERT_TRUE( world.converges() );

   BucketOptions options = world.bucketOptions;
   options.filter = "evil.>";
   Bucket evil( options );
   const Fleet::Status & seen = world.reader->mirror.devices();
   uint64_t refused = seen.refused();
   const std::string deep( 100000, '[' );
   for( const std::string & value :
        { std::string( "" ), std::string( "{" ), std::string( "[]" ), deep,
          std::string( R"({"type":7})" ), std::string( R"({"type":"No::Such"})" ),
          std::string( R"({"type":"Zek::Entity"})" ),
          std::string( R"({"type":"Ip::Input::Status","args":{"x":{}},"attrs":[1],"instance":-1,)"
                       R"("members":7,"apart":{"a":1}})" ),
          std::string( R"({"type":"Ip::IpIntfConfig","attrs":{"maxMssEgress":1e99}})" ) } ) {
      evil.put( "evil.x" + std::to_string( value.size() ), value );
   }
   evil.put( "evil.config", R"({"type":"Ip::Config"})" );
   evil.put( "evil.config.ipIntfConfig.eth0", R"({"type":"Ip::Config"})" );
   evil.put( "evil.config.ipIntfConfig.eth1",
             R"({"type":"Ip::IpIntfConfig","attrs":{"maxMssEgress":"seventy","forwarding":[],)"
             R"("l3Config":"config.ipIntfConfig.eth1","addrWithMask":"10.0.0.1/24"}})" );
   auto config = [&] {
      const auto found = world.reader->device( "evil/config" );
      return dynamic_cast< Ip::Config * >( found.ptr() );
   };
   ASSERT_TRUE( world.until(
      [&] { return config() && config()->ipIntfConfig( Velon::IntfId( "eth1" ) ); } ) );
   world.run( milliseconds( 200 ) );
   EXPECT_GT( seen.refused(), refused + 9 );
   EXPECT_EQ( config()->ipIntfConfig( Velon::IntfId( "eth1" ) )->addrWithMask(),
              Velon::IpAddrWithMask( "10.0.0.1/24" ) );
   EXPECT_TRUE( world.converges() ); // leaf1
}

// The configuration that is shipped: a device may write its own keys alone, a mirror none.
TEST( Fleet, aDeviceWritesItsOwnKeysAlone ) {
   NEEDS_NATS();
   std::ifstream shipped( IPSTATE_SOURCE_DIR "/tools/ipstate-nats/fleet-users.conf" );
   const std::string users( std::istreambuf_iterator< char >( shipped ), {} );
   ASSERT_FALSE( users.empty() );
   setenv( "FLEET_ADMIN_PASSWORD", "admin", 1 );
   setenv( "FLEET_MIRROR_PASSWORD", "mirror", 1 );
   setenv( "LEAF1_PASSWORD", "one", 1 );
   setenv( "LEAF2_PASSWORD", "two", 1 );
   NatsServers servers( 1, users );
   BucketOptions options = bucketAt( servers );
   const auto as = [&]( const char * user, const char * password, int replicas ) {
      BucketOptions o = options;
      o.nats.user = user;
      o.nats.password = password;
      o.replicas = replicas;
      return o;
   };
   Reader admin( as( "fleet-admin", "admin", 1 ) ); // makes the bucket
   World world( as( "leaf1", "one", 0 ) );
   Device & leaf = world.device( "leaf1" );
   leaf.root->entityIs( Ip::configFactory( Zek::Name( "config" ) ) );
   world.reader = std::make_unique< Reader >( as( "fleet-mirror", "mirror", 0 ) );
   ASSERT_TRUE( world.converges() );

   // leaf2 with the rights of leaf1.
   Device impostor( "leaf2", as( "leaf1", "one", 0 ) );
   impostor.root->entityIs( Ip::configFactory( Zek::Name( "config" ) ) );
   impostor.start();
   const Clock::time_point end = Clock::now() + seconds( 3 );
   while( Clock::now() < end ) {
      impostor.publisher->timePassed( Clock::now() );
      impostor.publisher->flush();
      impostor.publisher->onReadable();
      world.turn( milliseconds( 20 ) );
   }
   EXPECT_FALSE( impostor.publisher->isAtRest() );
   EXPECT_EQ( world.reader->device( "leaf2" ), nullptr );
   EXPECT_TRUE( world.converges() );
   // And with its own.
   impostor.stop();
   impostor.bucketOptions.nats.user = "leaf2";
   impostor.bucketOptions.nats.password = "two";
   impostor.start();
   ASSERT_TRUE( world.until( [&] {
      impostor.publisher->timePassed( Clock::now() );
      impostor.publisher->flush();
      impostor.publisher->onReadable();
      return world.reader->device( "leaf2/config" ) != nullptr;
   } ) );
}

// The programs themselves, over TLS with certificates of both sides, beside a server that takes
// no others.
TEST( Fleet, theProgramsCarryATreeOverTls ) {
   NEEDS_NATS();
   if( std::system( "command -v openssl >/dev/null" ) ) GTEST_SKIP() << "SKIPPED: no openssl";
   char name[] = "/tmp/ipstate-tls-XXXXXX";
   ASSERT_NE( mkdtemp( name ), nullptr );
   const std::string folder = name;
   const std::string make =
      "cd " + folder +
      " && openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -days 2 -subj "
      "/CN=ca"
      " && for n in server device; do"
      "  openssl req -newkey rsa:2048 -nodes -keyout $n.key -out $n.csr -subj /CN=$n"
      "  && printf 'subjectAltName=IP:127.0.0.1' > ext"
      "  && openssl x509 -req -in $n.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2"
      "     -extfile ext -out $n.pem; done";
   ASSERT_EQ( std::system( ( "( " + make + " ) >/dev/null 2>&1" ).c_str() ), 0 );
   const std::string f = folder + "/";
   NatsServers servers( 1, "tls { cert_file: \"" + f + "server.pem\", key_file: \"" + f +
                              "server.key\", ca_file: \"" + f + "ca.pem\", verify: true }" );

   Zek::Dir::Ptr root = Zek::dirFactory();
   auto config = Ip::configFactory( Zek::Name( "config" ) );
   root->dirIs( "ip" )->entityIs( config );
   config->ipIntfConfigIs( Velon::IntfId( "eth0" ) )
      ->addrWithMaskIs( Velon::IpAddrWithMask( "10.0.0.1/24" ) );
   Kelmo::Server agent( root, f + "agent.socket" );
   const std::string with = " --server " + servers.urls() + " --ca " + f + "ca.pem --cert " + f +
                            "device.pem --key " + f + "device.key";
   Ipstated::Scripted::Program publish( "publish --agent " + f + "agent.socket --device leaf1" +
                                           " --mount ip --lease 0.2" + with,
                                        "", "ipstate-nats" );
   Ipstated::Scripted::Program mirror( "mirror --serve " + f + "fleet.socket" + with, "",
                                       "ipstate-nats" );

   struct Owner : Kelmo::MountGroupOwner {
   } owner;
   Zek::Dir::Ptr copy = Zek::dirFactory();
   auto group = Zek::allocate< Kelmo::SocketMountGroup >( copy, f + "fleet.socket", owner );
   group->doMount( Kelmo::Mount( "fleet", "Zek::Dir", "r", Kelmo::MountFilter( false ) ) );
   const Clock::time_point end = Clock::now() + patience;
   const auto seen = [&] {
      const auto found = copy->entityAt( "fleet/leaf1/ip/config" );
      const auto * there = dynamic_cast< const Ip::Config * >( found.ptr() );
      const auto record = there ? there->ipIntfConfig( Velon::IntfId( "eth0" ) ) : nullptr;
      return record ? record->addrWithMask() : Velon::IpAddrWithMask();
   };
   const auto until = [&]( const Velon::IpAddrWithMask & wanted ) {
      while( seen() != wanted && Clock::now() < end ) {
         agent.flush();
         group->timePassed( Clock::now() );
         group->flush();
         pollfd waits[] = { { agent.fd(), POLLIN, 0 }, { group->fd(), POLLIN, 0 } };
         poll( waits, 2, 20 );
         if( waits[0].revents ) agent.onReadable();
         if( waits[1].revents ) group->onReadable();
      }
      return seen() == wanted;
   };
   EXPECT_TRUE( until( Velon::IpAddrWithMask( "10.0.0.1/24" ) ) );
   config->ipIntfConfig( Velon::IntfId( "eth0" ) )
      ->addrWithMaskIs( Velon::IpAddrWithMask( "10.0.0.2/24" ) );
   EXPECT_TRUE( until( Velon::IpAddrWithMask( "10.0.0.2/24" ) ) );
   std::error_code ignored;
   std::filesystem::remove_all( folder, ignored );
}
