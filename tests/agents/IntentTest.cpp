// The configuration records as a file: there and back, and whatever happens to the bytes.

#include "agents/ipstated/Intent.h"
#include "Ip/Ip.h"
#include "Ip6/Ip6.h"
#include "agents/ipstated/State.h"
#include "tools/print/Tree.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace Ipstated {
namespace {

namespace fs = std::filesystem;

struct World {
   World() {
      root->dirIs( "ip" )->entityIs( config4 );
      root->dirIs( "ip6" )->entityIs( config6 );
   }
   Zek::Dir::Ptr root = Zek::dirFactory();
   Ip::Config::Ptr config4 = Ip::configFactory( "config" );
   Ip6::Config::Ptr config6 = Ip6::configFactory( "config" );
   Intent intent{ { config4, config6 }, {} };
};

World
filled() {
   World world;
   for( const char * name :
        { "eth0", "a]b[", " ", "\n = x", "\\x41", "\xff\xc3", "\"'", "", "3 7" } ) {
      auto config = world.config4->ipIntfConfigIs( Velon::IntfId( name ) );
      config->configSourceIs( name );
      config->urpfIs( Urpf::UrpfConfig( Urpf::loose, name ) );
      config->scopeIs( Ip::IpAddrScope::link );
      config->maxMssEgressIs( 1400 );
      config->secondaryWithMaskIs( Velon::IpAddrWithMask( "10.0.0.2/24" ), true );
      config->secondaryWithMaskIs( Velon::IpAddrWithMask( "10.0.0.3/24" ), false );
      world.config6->intfIs( Velon::IntfId( name ) )
         ->addrIs( Ip6::AddressInfo( Velon::Ip6AddrWithMask( "2001:db8::1/64" ) ) );
   }
   world.intent.owned = { { "eth0", "10.0.0.1/24" }, { "a b", "::1/64" } };
   return world;
}

TEST( IntentTest, ComesBackAsItWas ) {
   const World before = filled();
   const std::string text = intentText( before.intent );
   World after;
   readIntent( text, after.intent );
   EXPECT_EQ( Print::dumpText( *after.root ), Print::dumpText( *before.root ) );
   EXPECT_EQ( after.intent.owned, before.intent.owned );
   EXPECT_EQ( intentText( after.intent ), text );
   EXPECT_LT( text.size(), 9 * 900u ) << "what is as in a fresh record is not kept\n" << text;
}

TEST( IntentTest, NamesThePlaceOfAnyDamage ) {
   const std::string good = intentText( filled().intent );
   auto faultOf = []( const std::string & text ) {
      World world;
      try {
         readIntent( text, world.intent );
      } catch( const std::runtime_error & damaged ) {
         return std::string( damaged.what() );
      }
      return std::string( "none" );
   };
   EXPECT_EQ( faultOf( good ), "none" );
   for( size_t at = 0; at < good.size(); ++at ) {
      std::string bad = good;
      bad[at] = char( bad[at] ^ ( at % 2 ? 1 : 0x20 ) );
      const auto line = 1 + std::count( good.begin(), good.begin() + ptrdiff_t( at ), '\n' );
      const std::string fault = faultOf( bad );
      ASSERT_EQ( fault.rfind( "damaged at line " + std::to_string( line ) + ", byte ", 0 ), 0u )
         << fault << " byte " << at << ", line " << line;
      ASSERT_NE( faultOf( good.substr( 0, at ) ), "none" ) << "cut at " << at;
   }
   EXPECT_NE( faultOf( good + "\n" ), "none" );
}

/// A process that writes one text after the other is killed at any moment: the file is one of them,
/// not before the last that was told to be on the disk.
TEST( IntentTest, AKillAtAnyMomentLeavesAWholeFile ) {
   char name[] = "/tmp/ipstate-XXXXXX";
   const std::string folder = mkdtemp( name );
   uint64_t least = 0;
   for( unsigned round = 0; round < 12; ++round ) {
      int told[2];
      ASSERT_EQ( pipe( told ), 0 );
      const pid_t child = fork();
      if( child == 0 ) {
         State state( folder );
         for( uint64_t i = least + 1;; ++i ) {
            state.write( std::string( 20000, 'x' ) + std::to_string( i ) );
            state.wait( std::chrono::seconds( 5 ) );
            if( write( told[1], &i, sizeof i ) < 0 ) _exit( 1 );
         }
      }
      close( told[1] );
      uint64_t last = least;
      const unsigned reads = 1 + round * 7 % 5;
      for( unsigned i = 0; i < reads; ++i ) ASSERT_EQ( read( told[0], &last, sizeof last ), 8 );
      usleep( round * 137 % 900 );
      kill( child, SIGKILL );
      waitpid( child, nullptr, 0 );
      close( told[0] );
      const auto text = State( folder ).read();
      ASSERT_TRUE( text );
      const size_t digits = text->find_last_of( 'x' ) + 1;
      EXPECT_EQ( digits, 20000u );
      EXPECT_GE( std::stoull( text->substr( digits ) ), last );
      least = std::stoull( text->substr( digits ) );
   }
   {
      const State state( folder );
      EXPECT_TRUE( fs::exists( state.lastPath() ) );
      EXPECT_EQ( fs::status( folder + "/lock" ).permissions(), fs::perms( 0600 ) );
      try {
         const State second( folder );
         ADD_FAILURE() << "two have it";
      } catch( const std::system_error & refused ) {
         EXPECT_NE( std::string( refused.what() ).find( "is in use by another process" ),
                    std::string::npos );
      }
   }
   fs::remove_all( folder );
}

} // namespace
} // namespace Ipstated
