#include "platform/Cell/Cell.h"
#include "platform/Velon/Ip6Addr.h"
#include "platform/Velon/IpGenAddr.h"
#include "platform/Vistrel/Trace.h"

#include "framework/Exception.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

using Vistrel::TraceHandle;

constinit TraceHandle ip6( "Ip6" );
constinit TraceHandle iraIntfSm( "Ira::IpGenIntfSm", "IpGenIntfSm" );
constinit TraceHandle iraIp( "Ira::IpGen", "IpGen" );
constinit TraceHandle fresh( "Fresh" );

// Collects what the sink is given, as "handle/level source:function text" lines.
struct Captured {
   Captured() : before( Vistrel::sinkIs( &sink ) ) {}
   ~Captured() {
      Vistrel::sinkIs( before );
      Vistrel::settingIs( "" );
   }
   static void write( void * context, const Vistrel::Message & m ) {
      std::string & lines = static_cast< Captured * >( context )->lines;
      lines.append( m.handle ).append( "/" ).append( std::to_string( m.level ) ).append( " " );
      lines.append( m.source ).append( ":" ).append( m.function ).append( " " );
      lines.append( m.text ).append( "\n" );
   }
   std::string lines;
   Vistrel::Sink sink{ &Captured::write, this };
   const Vistrel::Sink * before;
};

std::vector< unsigned >
levelsOf( TraceHandle & handle ) {
   std::vector< unsigned > levels;
   for( unsigned level = 0; level < TraceHandle::levelCount; ++level ) {
      if( handle.enabled( level ) ) levels.push_back( level );
   }
   return levels;
}

TEST( Trace, IsOffUntilAskedForAndBuildsNoTextThen ) {
   Captured captured;
   int built = 0;
   auto part = [&] {
      ++built;
      return "built";
   };
   Vistrel::trace( ip6, 8, "f", part );
   EXPECT_EQ( built, 0 );
   EXPECT_TRUE( levelsOf( ip6 ).empty() );
   ip6.levelIs( 8, true );
   Vistrel::trace( ip6, 8, "f", part );
   Vistrel::trace( ip6, 7, "f", part );
   EXPECT_EQ( built, 1 );
   EXPECT_EQ( captured.lines, "Ip6/8 Ip6:f built\n" );
}

TEST( Trace, WritesEachKindOfPartInItsOwnForm ) {
   Captured captured;
   iraIp.levelsAre( 1u << 8 );
   std::string owned( "owned" );
   Vistrel::trace( iraIp, 8, "f", "lit ", owned, ' ', true, false, ' ', -5, ' ', uint64_t( 7 ), ' ',
                   Velon::Ip6Addr( "fe80::1" ), ' ', Velon::ipv6, ' ',
                   Velon::IpGenAddr( Velon::IpAddr( 10, 0, 0, 1 ) ), ' ', 1.5 );
   EXPECT_EQ( captured.lines,
              "Ira::IpGen/8 IpGen:f lit owned truefalse -5 7 fe80::1 ipv6 10.0.0.1 1.5\n" );
}

TEST( Trace, TakesItsLevelsFromTheEntriesThatMatchItsName ) {
   Captured restores;
   using Levels = std::vector< unsigned >;
   const Levels all = { 0, 1, 2, 3, 4, 5, 6, 7, 8, 9 };
   struct {
      const char * setting;
      Levels ip6, intfSm;
   } rows[] = {
      { "", {}, {} },
      { "Ip6/8", { 8 }, {} },
      { "Ip6", all, {} },
      { "*/*", all, all },
      { "Ip6/0-2+8,Ira*/9", { 0, 1, 2, 8 }, { 9 } },
      { "Ip6/1,I*6/3,*/5-5", { 1, 3, 5 }, { 5 } },
      { "*Sm/0-9,Ira::IpGen/1", {}, all },
      { "Ip/8,Ip66/8,p6/8,*I*r*a*I*/2", {}, { 2 } },
   };
   for( const auto & row : rows ) {
      ASSERT_TRUE( Vistrel::settingIs( row.setting ) ) << row.setting;
      EXPECT_EQ( levelsOf( ip6 ), row.ip6 ) << row.setting;
      EXPECT_EQ( levelsOf( iraIntfSm ), row.intfSm ) << row.setting;
      EXPECT_EQ( Vistrel::setting(), row.setting );
   }
   // A handle that nobody has used yet takes the setting of now, not of then.
   Vistrel::settingIs( "Fresh/3" );
   EXPECT_EQ( TraceHandle::find( "Fresh" ), nullptr );
   EXPECT_EQ( levelsOf( fresh ), Levels{ 3 } );
   EXPECT_EQ( TraceHandle::find( "Fresh" ), &fresh );
}

TEST( Trace, SaysWhatIsWrongWithASettingAndChangesNothing ) {
   Captured restores;
   ASSERT_TRUE( Vistrel::settingIs( "Ip6/4" ) );
   struct {
      const char *text, *error;
   } rows[] = {
      { ",", "handle pattern expected at offset 0 of ','" },
      { "Ip6/8,", "handle pattern expected at offset 6 of 'Ip6/8,'" },
      { "Ip6/", "level expected at offset 4 of 'Ip6/'" },
      { "Ip6/3-1", "level expected at offset 6 of 'Ip6/3-1'" },
      { "Ip6/3-", "level expected at offset 6 of 'Ip6/3-'" },
      { "Ip6/3+", "level expected at offset 6 of 'Ip6/3+'" },
      { "Ip6/12", "',' expected at offset 5 of 'Ip6/12'" },
      { "Ip6/8 ", "',' expected at offset 5 of 'Ip6/8 '" },
   };
   for( const auto & row : rows ) {
      std::string error;
      EXPECT_FALSE( Vistrel::settingIs( row.text, &error ) );
      EXPECT_EQ( error, row.error );
      EXPECT_EQ( levelsOf( ip6 ), std::vector< unsigned >{ 4 } );
   }
}

TEST( Trace, KeepsTheLastMessagesInItsRing ) {
   static constinit TraceHandle handle( "Ring" );
   Vistrel::sinkIs( nullptr );
   EXPECT_TRUE( handle.records().empty() );
   for( int i = 0; i < 100; ++i ) handle.emit( i % 10, "f", "message " + std::to_string( i ) );
   handle.emit( 1, "g", std::string( 1000, 'x' ) );
   Vistrel::sinkIs( &Vistrel::standardErrorSink );
   std::vector< Vistrel::Record > records = handle.records();
   ASSERT_EQ( records.size(), TraceHandle::ringRecords );
   for( size_t i = 0; i + 1 < records.size(); ++i ) {
      EXPECT_EQ( records[i].number, 37 + i );
      EXPECT_EQ( records[i].text, "message " + std::to_string( 37 + i ) );
      EXPECT_EQ( records[i].level, ( 37 + i ) % 10 );
      EXPECT_LE( records[i].time, records[i + 1].time );
   }
   EXPECT_EQ( records.back().text, std::string( TraceHandle::ringTextBytes, 'x' ) );
   EXPECT_STREQ( records.back().function, "g" );
}

TEST( Trace, IsUsedByManyThreadsWhileLevelsAndSettingsChange ) {
   static constinit TraceHandle handle( "Threads" );
   static std::atomic< uint64_t > written;
   static std::atomic< bool > stop;
   Vistrel::Sink counting{ []( void *, const Vistrel::Message & ) { ++written; }, nullptr };
   const Vistrel::Sink * before = Vistrel::sinkIs( &counting );
   Vistrel::settingIs( "Threads/5" );
   // Each text consists of one letter, another one than that of the message before in its slot: a
   // torn record would mix them.
   std::vector< std::thread > writers;
   for( int t = 0; t < 2; ++t ) {
      writers.emplace_back( [] {
         for( unsigned i = 0; !stop; ++i ) {
            std::string text( 200 + i % 100, static_cast< char >( 'a' + i % 26 ) );
            Vistrel::trace( handle, 5, "f", text );
         }
      } );
   }
   int torn = 0;
   for( int i = 0; written < 200000; ++i ) {
      if( i % 100 == 0 ) Vistrel::settingIs( i % 300 ? "Threads/5" : "" );
      handle.levelIs( 5, i % 10 );
      for( const Vistrel::Record & record : handle.records() ) {
         torn += record.text != std::string( record.text.size(), record.text[0] );
      }
   }
   stop = true;
   for( std::thread & writer : writers ) writer.join();
   EXPECT_EQ( torn, 0 );
   handle.emit( 0, "f", "last" );
   EXPECT_EQ( handle.records().back().number + 1, written );
   Vistrel::sinkIs( before );
   Vistrel::settingIs( "" );
}

// In a process of its own: the variable is read once, by the first trace.
TEST( TraceDeathTest, FollowsTheEnvironmentAndWritesLinesToStandardError ) {
   GTEST_FLAG_SET( death_test_style, "threadsafe" );
   auto traceWith = []( const char * setting ) {
      setenv( "IPSTATE_TRACE", setting, 1 );
      Vistrel::trace( ip6, 8, "sasRule1", "sasRule1: EQUAL" );
      Vistrel::trace( iraIp, 8, "f", "not asked for" );
      std::exit( 0 );
   };
   EXPECT_EXIT( traceWith( "Ip6/8" ), testing::ExitedWithCode( 0 ),
                "^[0-9]+:[0-9]+:[0-9]+\\.[0-9]+ Ip6/8 Ip6:sasRule1 sasRule1: EQUAL\n$" );
   EXPECT_EXIT( traceWith( "Ip6/8,Ira*/x" ), testing::ExitedWithCode( 0 ),
                "^IPSTATE_TRACE ignored: level expected at offset 11 of 'Ip6/8,Ira\\*/x'\n$" );
}

TEST( Cell, IsTheNumberInTheEnvironmentOrOne ) {
   unsetenv( "IPSTATE_CELL" );
   EXPECT_EQ( Cell::cellId(), 1u );
   for( auto [text, id] : { std::pair( "2", 2u ), { "0", 0u }, { "4294967295", ~0u } } ) {
      setenv( "IPSTATE_CELL", text, 1 );
      EXPECT_EQ( Cell::cellId(), id );
   }
   for( const char * text : { "", "-1", "+1", " 1", "1 ", "01", "0x1", "4294967296", "one" } ) {
      setenv( "IPSTATE_CELL", text, 1 );
      EXPECT_THROW( Cell::cellId(), Zek::RangeException ) << text;
   }
   setenv( "IPSTATE_CELL", "1x", 1 );
   try {
      Cell::cellId();
   } catch( const Zek::RangeException & e ) {
      EXPECT_STREQ( e.what(), "cell number in IPSTATE_CELL expected at offset 1 of '1x'" );
   }
   unsetenv( "IPSTATE_CELL" );
}

} // namespace
