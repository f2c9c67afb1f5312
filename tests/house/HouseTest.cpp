// The tree tests itself: the order of the rooms, what a room may depend on, line lengths, and that
// no source is left out of the build.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace fs = std::filesystem;

namespace {

// -- The order of the rooms -------------------------------------------------------------------

/// A room is all files whose path begins so; the longest match wins.
struct Room {
   std::string_view prefix;
   int row;
};

constexpr int libraryEnd = 13;
constexpr int programsEnd = 15;

// A room may use itself and the rooms of smaller rows, never a neighbour on its own row.
constexpr Room rooms[] = {
   { "typelang/", 0 }, // uses nothing, used by tests only
   { "platform/Vistrel/", 1 },
   { "framework/", 2 },
   { "framework/attrlog/", 3 },
   { "framework/inspect/", 4 },
   { "platform/Velon/", 5 },
   { "L3/", 6 },
   { "Urpf/", 6 },
   { "Ip/", 7 },
   { "Ip6/", 7 },
   { "IpGen/", 8 },
   { "Ip/SrcIntf", 9 },
   { "IpGen/SrcGenIntf", 9 },
   { "VirtualIp/", 10 },
   { "VrfTypes/", 10 },
   { "platform/Kelmo/", 11 },
   { "platform/Cell/", 11 },
   { "Ira/", 12 },
   { "tools/print/", libraryEnd },
   { "loops/", libraryEnd }, // headers for others' loops, each needing one's library
   { "agents/ipstated/", libraryEnd + 1 },
   { "tools/ipstatectl/", libraryEnd + 1 },
   { "tools/ipstate-nats/", libraryEnd + 1 },
   { "examples/", libraryEnd + 1 },
   { "tests/", programsEnd },
   { "bench/", programsEnd + 1 }, // may borrow the scripted inputs of the tests
   { "fuzz/", programsEnd + 1 },
};

const Room *
roomOf( std::string_view path ) {
   const Room * best = nullptr;
   for( const Room & room : rooms ) {
      if( path.starts_with( room.prefix ) &&
          ( !best || room.prefix.size() > best->prefix.size() ) ) {
         best = &room;
      }
   }
   return best;
}

bool
mayUse( const Room & user, const Room & used ) {
   if( &user == &used ) return true;
   if( user.prefix == "typelang/" ) return false;
   if( used.prefix == "typelang/" ) return user.row >= programsEnd;
   return used.row < user.row;
}

// The compiler of the type language depends on the C++ standard library alone, the library also
// on what the C library and the kernel declare.
bool
mayUseSystemHeader( const Room & user, std::string_view header ) {
   if( user.row >= libraryEnd ) return true;
   if( user.prefix == "typelang/" ) return header.find_first_of( "./" ) == header.npos;
   if( header.find( '/' ) == header.npos ) return true;
   constexpr std::string_view system[] = { "linux/", "sys/", "net/", "netinet/", "arpa/" };
   return std::ranges::any_of( system,
                               [&]( auto prefix ) { return header.starts_with( prefix ); } );
}

// -- Reading sources --------------------------------------------------------------------------

/// What a line of a source or schema asks for, by path from the root, or <header>.
std::vector< std::string >
usesOf( std::string_view path, std::string_view line ) {
   std::vector< std::string > uses;
   auto between = [&]( std::string_view start, char end ) {
      if( !line.starts_with( start ) ) return;
      size_t from = start.size(), to = line.find( end, from );
      if( to == line.npos ) return;
      std::string used( line.substr( from, to - from ) );
      uses.push_back( end == '>' ? "<" + used : used );
   };
   if( !path.ends_with( ".zek" ) ) {
      between( "#include \"", '"' );
      between( "#include <", '>' );
      return uses;
   }
   between( "include \"", '"' );
   if( line.starts_with( "import " ) ) {
      std::istringstream names{ std::string( line.substr( 7, line.find( "//" ) - 7 ) ) };
      for( std::string name; std::getline( names, name, ',' ); ) {
         size_t from = name.find_first_not_of( ' ' ), to = name.find_last_not_of( ' ' );
         if( from == name.npos ) continue;
         uses.push_back( name.substr( from, to - from + 1 ) + ".zek" );
      }
   }
   return uses;
}

// Steps over raw string literals, in which an emitter holds lines of the sources that it writes.
class RawStrings {
 public:
   /// Whether the line begins inside a raw string.
   bool isInside( std::string_view line ) {
      bool inside = !end_.empty();
      for( size_t at = 0;; ) {
         if( end_.empty() ) {
            size_t start = line.find( "R\"", at );
            size_t open = start == line.npos ? start : line.find( '(', start );
            if( open == line.npos ) return inside;
            end_ = ")" + std::string( line.substr( start + 2, open - start - 2 ) ) + "\"";
            at = open + 1;
         } else {
            size_t close = line.find( end_, at );
            if( close == line.npos ) return inside;
            at = close + end_.size();
            end_.clear();
         }
      }
   }

 private:
   std::string end_; // what closes the raw string that is open, or empty
};

/// The faults of one source, one line each: "Ip/Ip.cpp:3: uses Ira/Ira.h".
std::string
orderFaults( const std::string & path, const std::string & text ) {
   const Room * user = roomOf( path );
   if( !user ) return path + ": its folder has no place in the order of the rooms\n";
   std::string faults;
   std::istringstream lines( text );
   RawStrings rawStrings;
   int number = 0;
   for( std::string line; std::getline( lines, line ); ) {
      ++number;
      if( rawStrings.isInside( line ) ) continue;
      for( const std::string & use : usesOf( path, line ) ) {
         bool allowed;
         if( use.starts_with( '<' ) ) {
            allowed = mayUseSystemHeader( *user, use.substr( 1 ) );
         } else {
            const Room * used = roomOf( use );
            allowed = used && mayUse( *user, *used );
         }
         if( !allowed ) faults += path + ":" + std::to_string( number ) + ": uses " + use + "\n";
      }
   }
   return faults;
}

const fs::path sourceDir = IPSTATE_SOURCE_DIR;
const fs::path binaryDir = IPSTATE_BINARY_DIR;

std::string
contents( const fs::path & path ) {
   std::ifstream in( path, std::ios::binary );
   std::ostringstream out;
   out << in.rdbuf();
   return out.str();
}

/// All C++ sources and schemas, by path from the root, without build trees.
const std::vector< std::string > &
sources() {
   static const std::vector< std::string > all = [] {
      std::vector< std::string > found;
      constexpr std::array< std::string_view, 3 > kinds = { ".h", ".cpp", ".zek" };
      for( auto at = fs::recursive_directory_iterator( sourceDir );
           at != fs::recursive_directory_iterator(); ++at ) {
         std::string name = at->path().filename();
         if( at->is_directory() ) {
            bool skipped = name.starts_with( '.' ) || ( at.depth() == 0 && name == "build" ) ||
                           fs::exists( at->path() / "CMakeCache.txt" );
            if( skipped ) at.disable_recursion_pending();
         } else if( std::ranges::count( kinds, at->path().extension().string() ) ) {
            found.push_back( at->path().lexically_relative( sourceDir ) );
         }
      }
      std::ranges::sort( found );
      return found;
   }();
   return all;
}

// Expected output and faulty input of the compiler, and programs built from outside.
bool
isTestData( std::string_view path ) {
   if( path.starts_with( "examples/fans/" ) ) return true;
   return path.starts_with( "tests/" ) &&
          ( path.find( "/goldens/" ) != path.npos || path.find( "/faulty/" ) != path.npos ||
            path.find( "/consumer/" ) != path.npos );
}

// -- Tests ------------------------------------------------------------------------------------

TEST( House, NoticesWhatGoesAgainstTheOrder ) {
   struct {
      const char * path;
      const char * text;
      const char * faults;
   } cases[] = {
      { "Ip/Ip.cpp", "#include \"Ip/Ip.h\"\n#include \"L3/L3.h\"\n#include <linux/if.h>\n", "" },
      { "Ip/Ip.cpp", "\n#include \"Ip6/Ip6.h\"\n", "Ip/Ip.cpp:2: uses Ip6/Ip6.h\n" },
      { "Ip/SrcIntf.cpp", "#include \"IpGen/IpGen.h\"\n", "" },
      { "IpGen/IpGen.cpp", "#include \"Ip/SrcIntf.h\"\n",
        "IpGen/IpGen.cpp:1: uses Ip/SrcIntf.h\n" },
      { "framework/Ptr.h", "#include \"Missing/X.h\"\n", "framework/Ptr.h:1: uses Missing/X.h\n" },
      { "framework/Ptr.h", "#include <absl/base.h>\n", "framework/Ptr.h:1: uses <absl/base.h\n" },
      { "typelang/Lexer.h", "#include <string>\n#include <unistd.h>\n",
        "typelang/Lexer.h:2: uses <unistd.h\n" },
      { "typelang/Lexer.h", "#include \"framework/Ptr.h\"\n",
        "typelang/Lexer.h:1: uses framework/Ptr.h\n" },
      { "typelang/Emitter.cpp", "out += R\"x(\n#include \"framework/Ptr.h\"\n)x\";\n", "" },
      { "agents/ipstated/Main.cpp", "#include \"typelang/Lexer.h\"\n",
        "agents/ipstated/Main.cpp:1: uses typelang/Lexer.h\n" },
      { "L3/L3.zek", "model L3\nimport platform/Velon/Velon, Urpf/UrpfTypes // both\n",
        "L3/L3.zek:2: uses Urpf/UrpfTypes.zek\n" },
      { "shed/A.cpp", "", "shed/A.cpp: its folder has no place in the order of the rooms\n" },
   };
   for( const auto & c : cases ) EXPECT_EQ( orderFaults( c.path, c.text ), c.faults );
}

TEST( House, NoRoomUsesARoomBelowOrBesideIt ) {
   std::string faults;
   for( const std::string & path : sources() ) {
      if( !isTestData( path ) ) faults += orderFaults( path, contents( sourceDir / path ) );
   }
   EXPECT_GT( sources().size(), 20u );
   EXPECT_EQ( faults, "" );
}

TEST( House, NoLineIsLongerThan100Columns ) {
   std::string faults;
   for( const std::string & path : sources() ) {
      std::istringstream lines( contents( sourceDir / path ) );
      RawStrings rawStrings; // what an emitter writes is filled in and broken elsewhere
      int number = 0;
      for( std::string line; std::getline( lines, line ); ) {
         ++number;
         if( rawStrings.isInside( line ) ) continue;
         auto columns =
            std::ranges::count_if( line, []( char c ) { return ( c & 0xc0 ) != 0x80; } );
         if( columns > 100 ) faults += path + ":" + std::to_string( number ) + "\n";
      }
   }
   EXPECT_EQ( faults, "" );
}

TEST( House, EverySourceIsBuilt ) {
   std::string commands = contents( binaryDir / "compile_commands.json" );
   ASSERT_NE( commands, "" );
   std::string left;
   for( const std::string & path : sources() ) {
      // Configured only where they are wanted.
      bool elsewhere = path.starts_with( "tests/gdb/" ) || path.starts_with( "bench/" ) ||
                       path.starts_with( "fuzz/" );
      if( !path.ends_with( ".cpp" ) || elsewhere || isTestData( path ) ) continue;
      std::string entry = "\"file\": \"" + ( sourceDir / path ).string() + "\"";
      if( commands.find( entry ) == commands.npos ) left += path + "\n";
   }
   EXPECT_EQ( left, "" );
}

TEST( House, TheLibraryNeedsTheStandardLibraryAlone ) {
   std::string command = "LC_ALL=C readelf -d '" + ( binaryDir / "libipstate.so" ).string() + "'";
   FILE * pipe = popen( command.c_str(), "r" );
   ASSERT_TRUE( pipe );
   std::string others;
   bool found = false;
   for( char line[512]; fgets( line, sizeof line, pipe ); ) {
      std::string_view text( line );
      size_t from = text.find( "Shared library: [" );
      if( from == text.npos ) continue;
      found = true;
      std::string_view name = text.substr( from + 17, text.rfind( ']' ) - from - 17 );
      constexpr std::string_view allowed[] = { "libstdc++.so", "libm.so", "libgcc_s.so", "libc.so",
                                               "ld-linux" };
      if( std::ranges::none_of( allowed, [&]( auto a ) { return name.starts_with( a ); } ) )
         others.append( name ).append( "\n" );
   }
   EXPECT_EQ( pclose( pipe ), 0 );
   EXPECT_TRUE( found );
   EXPECT_EQ( others, "" );
}

// Of a build with sanitizers everything is exported, for their runtime's sake.
#if defined( __has_feature )
#if __has_feature( address_sanitizer ) || __has_feature( thread_sanitizer )
#define IPSTATE_EXPORTS_ALL
#endif
#endif

TEST( House, NoNameOfTheStandardLibraryIsExported ) {
#ifdef IPSTATE_EXPORTS_ALL
   GTEST_SKIP() << "SKIPPED: a build with sanitizers";
#endif
   std::string command =
      "LC_ALL=C nm -D -C --defined-only '" + ( binaryDir / "libipstate.so" ).string() + "'";
   FILE * pipe = popen( command.c_str(), "r" );
   ASSERT_TRUE( pipe );
   std::string foreign, unversioned;
   size_t names = 0;
   std::array< char, 16384 > line;
   while( fgets( line.data(), int( line.size() ), pipe ) ) {
      std::string_view text( line.data() );
      text = text.substr( std::min( text.find( ' ' ) + 3, text.size() ) );
      if( text.starts_with( "IPSTATE_" ) ) continue; // the version itself
      ++names;
      for( std::string_view of : { "typeinfo for ", "typeinfo name for ", "vtable for " } ) {
         if( text.starts_with( of ) ) text.remove_prefix( of.size() );
      }
      if( text.starts_with( "std::" ) || text.starts_with( "__gnu_cxx::" ) ) foreign += text;
      if( text.find( "@@IPSTATE_" ) == text.npos ) unversioned += text;
   }
   EXPECT_EQ( pclose( pipe ), 0 );
   EXPECT_GT( names, 1000u );
   EXPECT_EQ( foreign, "" );
   EXPECT_EQ( unversioned, "" );
}

} // namespace
