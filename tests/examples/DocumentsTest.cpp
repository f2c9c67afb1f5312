// The documents keep step with the tree: the programs of the README are those in examples/ and
// print what the README says, and links and folders that documents name exist.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

namespace {

const fs::path sourceDir = IPSTATE_SOURCE_DIR;
const fs::path binaryDir = IPSTATE_BINARY_DIR;

std::string
contents( const fs::path & path ) {
   std::ifstream in( path, std::ios::binary );
   std::ostringstream out;
   out << in.rdbuf();
   return out.str();
}

/// What the command writes to standard output; a status other than 0 is added.
std::string
outputOf( const std::string & command ) {
   FILE * pipe = popen( command.c_str(), "r" );
   if( !pipe ) return "cannot run " + command;
   std::string out;
   std::array< char, 4096 > part;
   for( size_t n; ( n = fread( part.data(), 1, part.size(), pipe ) ) > 0; ) {
      out.append( part.data(), n );
   }
   if( int status = pclose( pipe ) ) out += "status " + std::to_string( status ) + "\n";
   return out;
}

/// The text of the document's first fenced block behind `name` that is marked so.
std::string
block( const std::string & document, const std::string & name, const std::string & mark ) {
   const std::string open = "```" + mark + "\n";
   size_t from = document.find( open, document.find( name ) );
   if( from == document.npos ) return "no block " + mark;
   from += open.size();
   return document.substr( from, document.find( "```\n", from ) - from );
}

/// All fenced blocks of the document that are marked so.
std::vector< std::string >
blocks( const std::string & document, const std::string & mark ) {
   std::vector< std::string > found;
   const std::string open = "```" + mark + "\n";
   for( size_t from = 0; ( from = document.find( open, from ) ) != std::string::npos; ) {
      from += open.size();
      found.push_back( document.substr( from, document.find( "```\n", from ) - from ) );
   }
   return found;
}

/// The documents, by path from the root.
std::vector< std::string >
documents() {
   std::vector< std::string > found{ "README.md", "HACKING.md", "CHANGELOG.md", "SECURITY.md",
                                     "bench/README.md" };
   for( const auto & entry : fs::recursive_directory_iterator( sourceDir / "docs" ) ) {
      if( entry.path().extension() == ".md" ) {
         found.push_back( entry.path().lexically_relative( sourceDir ) );
      }
   }
   return found;
}

class Example : public ::testing::TestWithParam< const char * > {};

TEST_P( Example, StandsInTheReadmeAndPrintsWhatThatSays ) {
   const std::string readme = contents( sourceDir / "README.md" );
   const std::string name = std::string( "examples/" ) + GetParam();
   EXPECT_EQ( block( readme, name + ".cpp", "cpp" ), contents( sourceDir / ( name + ".cpp" ) ) );
   EXPECT_EQ( block( readme, name + ".cpp", "text" ),
              outputOf( "'" + ( binaryDir / name ).string() + "'" ) );
}

INSTANTIATE_TEST_SUITE_P( All, Example, ::testing::Values( "follow-address", "by-name" ),
                          []( const auto & info ) {
                             std::string name = info.param;
                             std::erase( name, '-' );
                             return name;
                          } );

TEST( Documents, TheGuideShowsWhatIsBuilt ) {
   const std::string guide = contents( sourceDir / "docs/guide.md" );
   const std::pair< const char *, std::vector< const char * > > sources[] = {
      { "cmake", { "CMakeLists.txt" } },
      { "zek", { "Chassis/Chassis.zek" } },
      { "cpp", { "Chassis/Chassis.cpp", "fan-agent.cpp", "fan-watch.cpp" } },
   };
   size_t shown = 0;
   for( const auto & [mark, files] : sources ) {
      for( const std::string & block : blocks( guide, mark ) ) {
         ++shown;
         EXPECT_TRUE( std::ranges::any_of(
            files,
            [&]( const char * file ) {
               return contents( sourceDir / "examples/fans" / file ).find( block ) !=
                      std::string::npos;
            } ) )
            << "stands nowhere in examples/fans:\n"
            << block;
      }
   }
   EXPECT_GT( shown, 10u );
}

TEST( Documents, TheProgramsOfTheGuideDoWhatItSays ) {
   const std::string said = outputOf( "'" + ( sourceDir / "tests/examples/try-fans" ).string() +
                                      "' '" + ( binaryDir / "examples" ).string() + "'" );
   // The socket is elsewhere.
   const std::string expected = blocks( contents( sourceDir / "docs/guide.md" ), "text" ).at( 0 );
   const std::string last = "lost: the server at '";
   ASSERT_NE( said.find( last ), std::string::npos ) << said;
   EXPECT_EQ( said.substr( 0, said.find( last ) ), expected.substr( 0, expected.find( last ) ) );
}

TEST( Documents, TheServerAndItsClientRunUnderAnEventLibrary ) {
   EXPECT_EQ( outputOf( "'" + ( binaryDir / "examples/watch-libevent" ).string() + "'" ),
              "synchronised\nEthernet1 1000\nEthernet1 2000\nEthernet1 3000\n" );
}

TEST( Documents, LinksLeadSomewhere ) {
   std::string dead;
   for( const std::string & path : documents() ) {
      const std::string text = contents( sourceDir / path );
      const fs::path folder = ( sourceDir / path ).parent_path();
      for( size_t at = 0; ( at = text.find( "](", at ) ) != text.npos; ) {
         at += 2;
         const std::string link = text.substr( at, text.find_first_of( ")#", at ) - at );
         // What has blanks is the head of a function in a program.
         if( link.find( "://" ) == link.npos && link.find( ' ' ) == link.npos &&
             !fs::exists( folder / link ) ) {
            dead += path + ": " + link + "\n";
         }
      }
   }
   EXPECT_EQ( dead, "" );
}

TEST( Documents, TheReadmeNamesEveryFolder ) {
   const std::string readme = contents( sourceDir / "README.md" );
   std::string unnamed;
   for( const auto & entry : fs::directory_iterator( sourceDir ) ) {
      const std::string name = entry.path().filename();
      if( !entry.is_directory() || name.starts_with( '.' ) || name.starts_with( "build" ) )
         continue;
      if( readme.find( "`" + name + "/" ) == readme.npos ) unnamed += name + "\n";
   }
   EXPECT_EQ( unnamed, "" );
}

} // namespace
