// The compiler of the type language: what it says of faulty schemas, that nothing makes it crash,
// what it writes for the sample, and its command line.
//
// Expected texts stand in faulty/*.expected and goldens/*; ZEKC_GOLDENS=write rewrites them.

#include "typelang/Checker.h"
#include "typelang/Emitter.h"
#include "typelang/Explain.h"
#include "typelang/Graph.h"
#include "typelang/Lexer.h"
#include "typelang/Reference.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>

namespace {

using namespace Zek::TypeLang;
namespace fs = std::filesystem;

const std::string tree = IPSTATE_SOURCE_DIR;
const std::string here = tree + "/tests/typelang";
constexpr char samplePath[] = "tests/typelang/Sample/Sample.zek";

std::optional< std::string >
contents( const std::string & path ) {
   std::ifstream in( path, std::ios::binary );
   if( !in ) return std::nullopt;
   std::ostringstream text;
   text << in.rdbuf();
   return text.str();
}

void
expectGolden( const std::string & path, const std::string & actual ) {
   const char * mode = std::getenv( "ZEKC_GOLDENS" );
   if( mode && std::string( mode ) == "write" ) {
      std::ofstream( path, std::ios::binary ) << actual;
   } else {
      EXPECT_EQ( contents( path ).value_or( "" ), actual )
         << path << " differs; if that is meant, run with ZEKC_GOLDENS=write";
   }
}

/// Schemas below a folder, each read once; `changed` stands in for files of the same path.
class Schemas {
 public:
   explicit Schemas( std::string root ) : root_( std::move( root ) ) {}

   std::map< std::string, std::string > changed;

   std::optional< std::string > read( const std::string & path ) {
      if( auto at = changed.find( path ); at != changed.end() ) return at->second;
      auto [at, fresh] = read_.emplace( path, std::nullopt );
      if( fresh ) at->second = contents( root_ + "/" + path );
      return at->second;
   }
   void compileInto( Compilation & out, const std::string & path ) {
      compile(
         { path }, [this]( const std::string & p ) { return read( p ); }, out );
   }
   std::string errorsOf( const std::string & path ) {
      Compilation compilation;
      compileInto( compilation, path );
      return compilation.errors.text();
   }
   /// Compiles; emits, explains and draws what was accepted. True when it was.
   bool accepts( const std::string & path ) {
      Compilation compilation;
      compileInto( compilation, path );
      EXPECT_EQ( compilation.errors.empty(), compilation.errors.text().empty() );
      if( !compilation.errors.empty() ) return false;
      EXPECT_EQ( emitSchema( compilation.program ).size(), 3u );
      EXPECT_EQ( referencePages( compilation.program ).size(),
                 declaredTypes( compilation.program ).size() + 1 );
      EXPECT_NE( graphText( compilation.program ), "" );
      return true;
   }

 private:
   std::string root_;
   std::map< std::string, std::optional< std::string > > read_;
};

/// Texts given by name.
std::string
errorsIn( const std::map< std::string, std::string > & files ) {
   Schemas schemas( "/nowhere" );
   schemas.changed = files;
   return schemas.errorsOf( files.begin()->first );
}

// -- Errors -----------------------------------------------------------------------------------

class FaultySchema : public testing::TestWithParam< const char * > {};

TEST_P( FaultySchema, givesExactlyTheseErrors ) {
   const std::string folder = here + "/faulty/";
   Schemas schemas( folder );
   expectGolden( folder + GetParam() + ".expected",
                 schemas.errorsOf( std::string( GetParam() ) + ".zek" ) );
}

INSTANTIATE_TEST_SUITE_P( Zekc, FaultySchema,
                          testing::Values( "tokens", "lines", "imports", "unimported", "types",
                                           "names", "circles", "lonely", "values", "records",
                                           "machines" ),
                          []( const auto & info ) { return std::string( info.param ); } );

TEST( ZekcErrors, theCaretStandsUnderTabsAndAtTheEndOfTheFile ) {
   EXPECT_EQ( errorsIn( { { "A.zek", "model A\nvalue V {\n\tfield a\tNone\n}\n" } } ),
              "A.zek:3:10: error: unknown type 'None'\n   \tfield a\tNone\n   \t       \t^~~~\n" );
   EXPECT_EQ( errorsIn( { { "A.zek", "model A\nentity" } } ),
              "A.zek:2:7: error: the type's name expected, not the end of the file\n"
              "   entity\n         ^\n" );
   EXPECT_EQ( errorsIn( { { "A.zek", "" } } ),
              "A.zek:1:1: error: a schema file starts with 'model' and the model's name\n"
              "   \n   ^\n" );
}

TEST( ZekcErrors, aSchemaIsText ) {
   EXPECT_EQ( errorsIn( { { "A.zek", std::string( "model A\nvalue\0 V", 16 ) } } ).substr( 0, 70 ),
              "A.zek:2:6: error: a schema is text, without control characters\n   valu" );
   EXPECT_EQ( errorsIn( { { "A.zek", "model A\r\n/// Doc.\r\nentity E {\r\n}\r\n" } } ), "" );
}

TEST( ZekcErrors, twoFilesOfOneModelShareItsNames ) {
   EXPECT_EQ(
      errorsIn( { { "A.zek", "model M\nimport B\nentity Record { key id U32 }\n" },
                  { "B.zek", "model M\nenum Kind { recordFactory }\n" } } ),
      "A.zek:3:8: error: 'Record' needs the name 'recordFactory', which is an enumerator of "
      "'Kind' in the same scope\n   entity Record { key id U32 }\n          ^~~~~~\n" );
}

TEST( ZekcErrors, depthIsBounded ) {
   std::string deep = "model A\nentity E {\n attr a U32 = ";
   EXPECT_NE( errorsIn( { { "A.zek", deep + std::string( 200000, '(' ) } } ).find( "too deeply" ),
              std::string::npos );
   std::string scopes = "model A\n";
   for( int i = 0; i < 100000; ++i ) scopes += "scope S { ";
   EXPECT_NE( errorsIn( { { "A.zek", scopes } } ).find( "too deeply" ), std::string::npos );
}

// -- Any input --------------------------------------------------------------------------------

TEST( ZekcAnyInput, everyPrefixIsAcceptedOrRefused ) {
   Schemas schemas( tree );
   const std::string path = "Ip/Ip.zek";
   const std::string whole = *schemas.read( path );
   int accepted = 0;
   for( size_t length = 0; length <= whole.size(); ++length ) {
      schemas.changed[path] = whole.substr( 0, length );
      // Where it ends inside a comment makes no difference.
      if( whole.find( "//", whole.rfind( '\n', length ) ) < length ) continue;
      accepted += schemas.accepts( path );
   }
   EXPECT_GT( accepted, 10 );
}

// Tokens dropped, doubled, swapped, or replaced by others of the file or by words of the language.
TEST( ZekcAnyInput, mutatedTokensAreAcceptedOrRefused ) {
   const char * const words[] = { "attr",  "key",   "param", "const", "one",  "each",  "owns",
                                  "refs",  "set",   "call",  "ask",   "{",    "}",     "(",
                                  ")",     "->",    "=",     "\n",    "enum", "value", "entity",
                                  "named", "fixes", "view",  "feed",  ":",    "99",    "\"text\"" };
   for( const char * path : { "IpGen/IpGenStatusSm.zek", "IpGen/IpGen.zek", samplePath } ) {
      SCOPED_TRACE( path );
      Schemas schemas( tree );
      SourceFile file{ path, *schemas.read( path ) };
      Errors none;
      std::vector< std::string > tokens;
      for( const Token & token : lex( file, none ) ) {
         std::string text( file.text, token.span.begin, token.span.end - token.span.begin );
         tokens.push_back( ( token.startsLine ? "\n" : "" ) + text );
      }
      int accepted = 0;
      for( unsigned seed = 0; seed < 1500; ++seed ) {
         std::minstd_rand random( seed * 7919 + 1 );
         auto below = [&]( size_t n ) { return random() % n; };
         std::vector< std::string > mutant = tokens;
         for( size_t changes = below( 3 ) + 1; changes > 0; --changes ) {
            size_t at = below( mutant.size() );
            auto position = mutant.begin() + static_cast< std::ptrdiff_t >( at );
            switch( below( 5 ) ) {
            case 0:
               mutant.erase( position );
               break;
            case 1:
               mutant.insert( position, mutant[below( mutant.size() )] );
               break;
            case 2:
               std::swap( mutant[at], mutant[below( mutant.size() )] );
               break;
            case 3:
               mutant[at] = words[below( std::size( words ) )];
               break;
            default:
               mutant[at] = tokens[below( tokens.size() )];
            }
         }
         std::string text;
         for( const std::string & token : mutant ) text += token + " ";
         schemas.changed[path] = text;
         accepted += schemas.accepts( path );
      }
      EXPECT_GT( accepted, 10 );
   }
}

// -- What is written --------------------------------------------------------------------------

TEST( ZekcOutput, theSampleGivesTheGoldens ) {
   Schemas schemas( tree );
   Compilation sample;
   schemas.compileInto( sample, samplePath );
   ASSERT_EQ( sample.errors.text(), "" );
   // The header is what people read; the source is proved by what the compiled sample does.
   const std::vector< Output > outputs = emitSchema( sample.program );
   ASSERT_EQ( outputs.front().path, "tests/typelang/Sample/Sample.h" );
   expectGolden( here + "/goldens/Sample.h", outputs.front().text );
   std::string numbers;
   for( const Type & type : sample.program.main->types ) {
      for( const Member & m : type.members ) {
         numbers += type.dottedName() + " " + ( m.number ? std::to_string( m.number ) : "-" ) +
                    " " + m.keyword + " " + m.name + "\n";
      }
   }
   expectGolden( here + "/goldens/Sample.numbers", numbers );
}

TEST( ZekcOutput, theSampleIsExplainedAndDrawn ) {
   Schemas schemas( tree );
   Compilation sample;
   schemas.compileInto( sample, samplePath );
   std::string explained;
   for( const Type * type : declaredTypes( sample.program ) ) {
      explained +=
         ( explained.empty() ? "" : "\n\n" ) + explanationText( explain( sample.program, *type ) );
   }
   expectGolden( here + "/goldens/Sample.explained", explained );
   expectGolden( here + "/goldens/Sample.dot", graphText( sample.program ) );
   EXPECT_EQ( std::system( ( "dot -Tsvg -o /dev/null " + here + "/goldens/Sample.dot" ).c_str() ),
              0 );
}

TEST( ZekcOutput, drawsAllSchemasTogether ) {
   const std::string drawing = testing::TempDir() + "/zekc-" + std::to_string( getpid() ) + ".dot";
   EXPECT_EQ( std::system( ( "cd " + tree +
                             " && " IPSTATE_BINARY_DIR "/zekc --graph */*.zek platform/*/*.zek > " +
                             drawing + " && dot -Tcanon -o /dev/null " + drawing )
                              .c_str() ),
              0 );
   const std::string text = *contents( drawing );
   for( const char * type : { "Ip::IpIntfStatus", "IpGen::StatusSm", "VrfTypes::VrfAgentInfo" } ) {
      EXPECT_NE( text.find( type ), std::string::npos ) << type;
   }
   fs::remove( drawing );
}

TEST( ZekcOutput, generatedCodeReadsLikeWrittenCode ) {
   int files = 0;
   for( const auto & entry : fs::recursive_directory_iterator( tree ) ) {
      const std::string path = fs::relative( entry.path(), tree ).string();
      if( entry.path().extension() != ".zek" || path.rfind( "tests/", 0 ) == 0 ) continue;
      Schemas schemas( tree );
      Compilation compilation;
      schemas.compileInto( compilation, path );
      ASSERT_EQ( compilation.errors.text(), "" );
      for( const Output & output : emitSchema( compilation.program ) ) {
         ++files;
         std::istringstream lines( output.text );
         int number = 0;
         for( std::string line, before; std::getline( lines, line ); before = line ) {
            ++number;
            EXPECT_LE( line.size(), 100u ) << output.path << ":" << number;
            bool stray = line.empty() && ( before.empty() || before.back() == '{' );
            bool ofScope = before.rfind( "namespace", 0 ) == 0;
            EXPECT_FALSE( stray && !ofScope ) << output.path << ":" << number;
            EXPECT_FALSE( !line.empty() && line.back() == ' ' ) << output.path << ":" << number;
         }
      }
   }
   EXPECT_GT( files, 20 );
}

// -- The command line -------------------------------------------------------------------------

class ZekcCommand : public testing::Test {
 protected:
   void SetUp() override {
      char name[] = "/tmp/zekc-XXXXXX";
      ASSERT_NE( mkdtemp( name ), nullptr );
      folder = name;
      write( "a/Room/Main.zek", "model Room\nimport Far/Far\nentity E { key id U32 }\n" );
      write( "b/Far/Far.zek", "model Far\nentity F { key id U32 }\n" );
   }
   void TearDown() override { fs::remove_all( folder ); }

   void write( const std::string & path, const std::string & text ) {
      fs::create_directories( fs::path( folder + "/" + path ).parent_path() );
      std::ofstream( folder + "/" + path ) << text;
   }
   /// Exit status; its messages are in `said`.
   int zekc( const std::string & arguments ) {
      int status = std::system(
         ( "cd " + folder + " && " IPSTATE_BINARY_DIR "/zekc " + arguments + " > said 2>&1" )
            .c_str() );
      said = *contents( folder + "/said" );
      return WEXITSTATUS( status );
   }

   std::string folder;
   std::string said;
   const std::string roots = "--include-root a --include-root b ";
};

TEST_F( ZekcCommand, writesItsFilesAndARuleOfAllItRead ) {
   ASSERT_EQ( zekc( roots + "--out-dir out --depfile out/Main.d Room/Main.zek" ), 0 ) << said;
   EXPECT_EQ( said, "" );
   EXPECT_EQ( contents( folder + "/out/Main.d" ),
              "out/Room/Main.h out/Room/MainAttrLog.h out/Room/Main.zek.cpp : a/Room/Main.zek "
              "b/Far/Far.zek\n" );
   EXPECT_TRUE( contents( folder + "/out/Room/Main.h" ) );
   EXPECT_TRUE( contents( folder + "/out/Room/Main.zek.cpp" ) );
   EXPECT_FALSE( fs::exists( folder + "/out/Far" ) );
}

TEST_F( ZekcCommand, leavesUnchangedFilesAlone ) {
   const std::string command = roots + "--out-dir out Room/Main.zek";
   const fs::path header = folder + "/out/Room/Main.h";
   ASSERT_EQ( zekc( command ), 0 );
   const auto old = fs::last_write_time( header ) - std::chrono::hours( 1 );
   fs::last_write_time( header, old );
   ASSERT_EQ( zekc( command ), 0 );
   EXPECT_EQ( fs::last_write_time( header ), old );
   write( "a/Room/Main.zek", "model Room\nentity Other { key id U32 }\n" );
   ASSERT_EQ( zekc( command ), 0 );
   EXPECT_NE( fs::last_write_time( header ), old );
}

TEST_F( ZekcCommand, checksWithoutWriting ) {
   EXPECT_EQ( zekc( roots + "--check Room/Main.zek" ), 0 );
   write( "a/Room/Main.zek", "model Room\nentity E { key id U33 }\n" );
   EXPECT_EQ( zekc( roots + "--check Room/Main.zek" ), 1 );
   EXPECT_EQ( said, "Room/Main.zek:2:19: error: unknown type 'U33'\n"
                    "   entity E { key id U33 }\n                     ^~~\n"
                    "zekc: 1 error in 'Room/Main.zek'\n" );
   EXPECT_EQ( zekc( roots + "--out-dir out Room/Main.zek" ), 1 );
   EXPECT_FALSE( fs::exists( folder + "/out" ) );
}

TEST_F( ZekcCommand, explainsATypeByItsFullName ) {
   EXPECT_EQ( zekc( roots + "--explain Far.F Far/Far.zek Room/Main.zek" ), 0 );
   EXPECT_EQ( said, "Far::F  (Far/Far.zek:2)\nEntity.\n\nMade by: Far::fFactory( id U32 )\n\n"
                    " 258  id  U32\n      key\n" );
   EXPECT_EQ( zekc( roots + "--explain F Room/Main.zek" ), 1 );
   EXPECT_EQ( said, "zekc: no type 'F'\n   there is 'Far::F'\n" );
}

TEST_F( ZekcCommand, keepsTheReferenceToWhatTheSchemasSay ) {
   const std::string command = roots + "--reference pages Room/Main.zek";
   ASSERT_EQ( zekc( command ), 0 );
   EXPECT_EQ( zekc( command + " --check" ), 0 ) << said;
   write( "a/Room/Main.zek", "model Room\nimport Far/Far\n/// F's.\nentity G { attr f Far.F }\n" );
   write( "pages/Room/Mine.md", "# Not generated\n" );
   EXPECT_EQ( zekc( command + " --check" ), 1 );
   EXPECT_EQ( said, "zekc: 'pages/README.md' is not what the schemas say\n"
                    "zekc: 'pages/Room/G.md' is not what the schemas say\n"
                    "zekc: 'pages/Far/F.md' is not what the schemas say\n"
                    "zekc: 'pages/Room/E.md' is about a type that is gone\n" );
   EXPECT_EQ( zekc( command ), 0 );
   EXPECT_FALSE( fs::exists( folder + "/pages/Room/E.md" ) );
   EXPECT_TRUE( fs::exists( folder + "/pages/Room/Mine.md" ) );
   EXPECT_NE( contents( folder + "/pages/Far/F.md" )->find( "| Pointed to by | [Room::G]" ),
              std::string::npos );
}

TEST_F( ZekcCommand, tellsFaultsOfTheCallFromFaultsOfTheSchema ) {
   EXPECT_EQ( zekc( roots + "--check Room/None.zek" ), 1 );
   EXPECT_EQ( said,
              "zekc: error: no schema at 'Room/None.zek'\nzekc: 1 error in 'Room/None.zek'\n" );
   for( const char * wrong :
        { "", "Room/Main.zek", "--check", "--check --no-such Room/Main.zek",
          "--check Room/Main.zek Room/Main.zek", "--check Room/Main.zek --depfile",
          "--check Room/Main", "--check x" } ) {
      EXPECT_EQ( zekc( roots + wrong ), 2 ) << wrong;
      EXPECT_EQ( said.rfind( "usage: zekc ", 0 ), 0u ) << said;
   }
   write( "blocked", "" );
   EXPECT_EQ( zekc( roots + "--out-dir blocked Room/Main.zek" ), 2 );
   EXPECT_EQ( said, "zekc: cannot write 'blocked/Room/Main.h'\n" );
}

} // namespace
