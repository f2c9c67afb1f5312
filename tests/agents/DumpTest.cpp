// Records whose strings look like something else, as text and as JSON.

#include "Ip/Ip.h"
#include "VrfTypes/VrfTypes.h"
#include "tools/print/Tree.h"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <string>

namespace Print {
namespace {

/// Texts, and what stands for them in JSON: of what is no UTF-8 the odd bytes are escaped.
std::map< std::string, std::string >
awkwardTexts() {
   std::map< std::string, std::string > texts{ { "\xff", "\\xff" },
                                               { "\xc3", "\\xc3" },
                                               { "\xed\xa0\x80", "\\xed\\xa0\\x80" },
                                               { "\xc3\xbc\xff", "\\xc3\\xbc\\xff" } };
   for( const char * text : { "", " ", "a b ", "\"", "\\", "\n\t\x1b[1m", "{\"a\": 1}", "']})",
                              "a, b", "a/b", "\x7f", "\xc3\xbc\n'", "null", "\\u0000", "'" } ) {
      texts[text] = text;
   }
   const std::string zero( 1, '\0' );
   texts[zero] = zero;
   return texts;
}

TEST( Dump, WritesAwkwardStringsAsTheyAre ) {
   auto root = Zek::dirFactory();
   auto config = Ip::configFactory( "con\"fig" );
   auto protocols = VrfTypes::multiAgentVrfProtoConfigFactory( "\x01\xff" );
   root->entityIs( config );
   root->entityIs( protocols );
   const auto awkward = awkwardTexts();
   for( const auto & [text, inJson] : awkward ) {
      auto record = config->ipIntfConfigIs( Velon::IntfId( text ) );
      record->configSourceIs( text );
      record->urpfIs( Urpf::UrpfConfig( Urpf::loose, text ) );
      protocols->vrfConfigIs( Zek::Name( text ) )->agentIs( Zek::Name( text ), text, text );
   }
   const auto json = nlohmann::json::parse( jsonOf( *root ) );
   const auto & records = json["con\"fig"]["ipIntfConfig"];
   const auto & entries = json["\\x01\\xff"]["vrfConfig"];
   EXPECT_EQ( records.size(), awkward.size() );
   EXPECT_EQ( entries.size(), awkward.size() );
   for( const auto & [bytes, text] : awkward ) {
      ASSERT_TRUE( records.contains( text ) && entries.contains( text ) ) << text;
      EXPECT_EQ( records[text]["intfId"], text );
      EXPECT_EQ( records[text]["configSource"], text );
      EXPECT_EQ( records[text]["urpf"]["acl"], text );
      EXPECT_EQ( entries[text]["agent"][text]["launchDir"], text );
   }

   // A line an attribute, of printable characters alone.
   const std::string lines = dumpText( *root );
   EXPECT_TRUE( std::all_of( lines.begin(), lines.end(),
                             []( char c ) { return c == '\n' || ( c >= ' ' && c < '\x7f' ); } ) );
   const std::string one = dumpText( *config->ipIntfConfig( Velon::IntfId( "\xff" ) ) );
   for( const auto & [text, inJson] : awkward ) {
      const std::string other = dumpText( *config->ipIntfConfig( Velon::IntfId( text ) ) );
      EXPECT_EQ( std::count( other.begin(), other.end(), '\n' ),
                 std::count( one.begin(), one.end(), '\n' ) );
   }
}

TEST( Dump, WritesNumbersThatJsonLacksAsTexts ) {
   auto status = VrfTypes::vrfProtocolLaunchStatusFactory( "launch" );
   status->startTimeIs( 1.5 );
   const auto json = nlohmann::json::parse( jsonOf( *status ) );
   EXPECT_EQ( json["startTime"], 1.5 );
   EXPECT_EQ( json["loadPluginsTime"], "-inf" );
}

TEST( Dump, TakesTimeInProportionToTheMembers ) {
   auto status = Ip::Input::statusFactory( "status" );
   auto record = status->ipIntfStatusIs( Velon::IntfId( "eth0" ), {} );
   uint32_t address = 0x0a000000;
   // The shortest of three: other work on the machine only adds.
   auto timeWith = [&]( uint32_t members ) {
      while( address < 0x0a000000 + members ) {
         record->activeSecondaryWithMaskIs( { Velon::IpAddr( ++address ), 24 }, true );
      }
      auto shortest = std::chrono::steady_clock::duration::max();
      for( int i = 0; i < 3; ++i ) {
         const auto begin = std::chrono::steady_clock::now();
         EXPECT_GT( jsonOf( *status ).size(), 20 * members );
         shortest = std::min( shortest, std::chrono::steady_clock::now() - begin );
      }
      return shortest;
   };
   const auto few = timeWith( 2000 );
   EXPECT_LT( timeWith( 32000 ), 64 * few ); // 16 times as many; by the square 256 times as long
}

} // namespace
} // namespace Print
