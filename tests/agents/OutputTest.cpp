// What the agent writes, to readers who stall: output that merges, and logs that are dropped.

#include "agents/ipstated/Output.h"
#include "agents/ipstated/Log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace Ipstated {
namespace {

/// A reader who reads when he is asked to.
struct Pipe {
   explicit Pipe( bool asSocket = false ) {
      const int made = asSocket ? socketpair( AF_UNIX, SOCK_STREAM, 0, ends ) : pipe( ends );
      EXPECT_EQ( made, 0 );
      fcntl( ends[0], F_SETFL, O_NONBLOCK );
   }
   ~Pipe() {
      close( ends[0] );
      close( ends[1] );
   }
   std::string read() {
      std::string text;
      char part[4096];
      for( ssize_t length; ( length = ::read( ends[0], part, sizeof part ) ) > 0; ) {
         text.append( part, size_t( length ) );
      }
      return text;
   }
   int ends[2];
};

std::vector< std::string >
linesOf( const std::string & text ) {
   std::vector< std::string > lines;
   std::istringstream in( text );
   for( std::string line; std::getline( in, line ); ) lines.push_back( line );
   return lines;
}

/// Any sequence of changes and stalls: a reader who follows the lines knows each thing's state at
/// the end, and each line begins where the one before it of the same thing ended.
TEST( OutputTest, MergesWhatAStalledReaderLacksAndLosesNoState ) {
   for( unsigned seed = 0; seed < 6; ++seed ) {
      SCOPED_TRACE( seed );
      std::mt19937 random( seed );
      Pipe pipe( seed % 2 );
      Output output( pipe.ends[1] );
      std::map< std::string, std::string > state, known;
      std::string text;
      uint64_t changes = 0;
      const std::string padding( 300, 'x' ); // so that a megabyte is soon full
      for( int step = 0; step < 30000; ++step ) {
         const std::string what = padding + std::to_string( random() % 50 );
         std::string & now = state.try_emplace( what, "-" ).first->second;
         const std::string before = now;
         now = random() % 4 ? std::to_string( random() % 5 ) : "-";
         output.change( { what, before, now } );
         ++changes;
         if( random() % 8000 == 0 ) text += pipe.read(), output.flush();
      }
      EXPECT_GT( output.merged(), 0u );
      EXPECT_LE( output.waiting(), 50u );
      while( output.isWaiting() ) output.flush(), text += pipe.read();
      uint64_t merged = 0;
      for( const std::string & line : linesOf( text ) ) {
         unsigned long count = 0;
         if( sscanf( line.c_str(), "merged  %lu changes that came while nobody read this",
                     &count ) == 1 ) {
            merged += count;
            continue;
         }
         const size_t first = line.find( "  " ), arrow = line.find( " -> " );
         ASSERT_NE( arrow, std::string::npos ) << line;
         std::string & told = known.try_emplace( line.substr( 0, first ), "-" ).first->second;
         EXPECT_EQ( told, line.substr( first + 2, arrow - first - 2 ) );
         told = line.substr( arrow + 4 );
      }
      for( const auto & [what, now] : state )
         EXPECT_EQ( known.try_emplace( what, "-" ).first->second, now );
      EXPECT_EQ( merged, output.merged() );
   }
}

TEST( OutputTest, LeavesTheDescriptorOfOthersAsItIs ) {
   for( bool asSocket : { false, true } ) {
      Pipe pipe( asSocket );
      Output output( pipe.ends[1] );
      output.write( std::string( 4 << 20, 'x' ) );
      output.flush(); // comes back
      EXPECT_TRUE( output.isWaiting() );
      EXPECT_EQ( fcntl( pipe.ends[1], F_GETFL ) & O_NONBLOCK, 0 );
   }
}

TEST( OutputTest, ALogCountsWhatRepeatsAndDropsWhatNobodyReads ) {
   Pipe pipe;
   Log log( pipe.ends[1] );
   for( int i = 0; i < 20000; ++i ) log.warning( std::string( 50, char( 'a' + i % 26 ) ) );
   EXPECT_LE( linesOf( pipe.read() ).size(), 26 * Log::mostRepeats );

   // 10,000 of a kind are few lines, and one that counts them.
   const auto begin = std::chrono::steady_clock::now();
   for( int i = 0; i < 10000; ++i ) {
      log.write( LogLevel::warning, "a client, pid " + std::to_string( i ) + ", is turned away",
                 begin );
   }
   EXPECT_EQ( linesOf( pipe.read() ).size(), Log::mostRepeats );
   ASSERT_TRUE( log.deadline() );
   log.serve( *log.deadline() );
   const std::string end = pipe.read();
   EXPECT_NE( end.find( ", pid 9999, is turned away (and 9994 more like it within a minute)\n" ),
              std::string::npos )
      << end;
   EXPECT_EQ( log.deadline(), std::nullopt );

   // Nobody reads, and every line is of another kind.
   std::mt19937 random( 1 );
   auto now = begin;
   for( int i = 0; i < 5000; ++i ) {
      std::string text( 200, ' ' );
      for( char & each : text ) each = char( 'a' + random() % 26 );
      log.write( LogLevel::error, text, now += Log::period );
   }
   EXPECT_GT( log.dropped(), 1000u );
   const uint64_t dropped = log.dropped();
   EXPECT_GT( linesOf( pipe.read() ).size(), 100u );
   log.flush();
   pipe.read();
   log.write( LogLevel::error, "after that", now += Log::period );
   EXPECT_NE( pipe.read().find( std::to_string( dropped ) + " lines were dropped" ),
              std::string::npos );
}

TEST( OutputTest, TheJournalGetsPrioritiesAndOthersTheTime ) {
   Pipe pipe;
   {
      Log log( pipe.ends[1] );
      log.notice( "a\x1b[1m" );
      log.info( "below the level" );
      const std::string line = pipe.read();
      EXPECT_EQ( line.substr( line.find( 'Z' ) ), "Z ipstated: notice: a\\x1b[1m\n" );
   }
   struct stat what;
   fstat( pipe.ends[1], &what );
   const std::string stream = std::to_string( what.st_dev ) + ":" + std::to_string( what.st_ino );
   setenv( "JOURNAL_STREAM", stream.c_str(), 1 );
   Log journal( pipe.ends[1] );
   unsetenv( "JOURNAL_STREAM" );
   journal.error( "b" );
   EXPECT_EQ( pipe.read(), "<3>b\n" );
}

} // namespace
} // namespace Ipstated
