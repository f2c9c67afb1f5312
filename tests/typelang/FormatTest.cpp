// The layout of schemas: all of the tree have it, and laying out changes nothing else.

#include "typelang/Format.h"
#include "typelang/Lexer.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

using namespace Zek::TypeLang;
namespace fs = std::filesystem;

std::string
contents( const fs::path & path ) {
   std::ifstream in( path, std::ios::binary );
   std::ostringstream out;
   out << in.rdbuf();
   return out.str();
}

/// The schemas of the tree, those with errors too.
std::vector< fs::path >
schemas() {
   std::vector< fs::path > found;
   const fs::path tree = IPSTATE_SOURCE_DIR;
   for( auto at = fs::recursive_directory_iterator( tree );
        at != fs::recursive_directory_iterator(); ++at ) {
      const std::string name = at->path().filename();
      if( at->is_directory() && ( name == "build" || name.starts_with( '.' ) ) ) {
         at.disable_recursion_pending();
      } else if( at->path().extension() == ".zek" ) {
         found.push_back( at->path() );
      }
   }
   return found;
}

/// Its words and what documents them, for comparison.
std::string
words( const std::string & text ) {
   SourceFile file{ "schema", text };
   Errors errors;
   std::string out;
   for( const Token & token : lex( file, errors ) ) {
      out += token.doc + ( token.startsLine ? "\n" : " " ) + token.text;
   }
   return out;
}

TEST( ZekcFormat, everySchemaIsLaidOutSo ) {
   std::string others;
   for( const fs::path & path : schemas() ) {
      const std::string text = contents( path );
      if( path.string().find( "/faulty/" ) != std::string::npos ) {
         EXPECT_EQ( words( formatted( text ) ), words( text ) ) << path;
      } else if( formatted( text ) != text ) {
         others += path.string() + ": zekc --format " + path.string() + "\n";
      }
   }
   EXPECT_EQ( others, "" );
}

TEST( ZekcFormat, columnsStandBelowEachOther ) {
   const std::string text = "\n\nmodel  M   // why\n\n\n"
                            "entity E   named {\n\n"
                            "/// Doc   of it.\n"
                            "attr a   U8=1 // \"one\"\n"
                            "\t ordered  long  U8  -> U32\n"
                            "call f( a U8,\n"
                            "        b  U8 )\n"
                            "const text Zek.String = \"a  //  \\\"  {\"\n\n"
                            "}\n\n";
   const std::string expected = "model M // why\n\n"
                                "entity E named {\n"
                                "   /// Doc   of it.\n"
                                "   attr    a    U8=1 // \"one\"\n"
                                "   ordered long U8 -> U32\n"
                                "   call    f( a U8,\n"
                                "           b U8 )\n"
                                "   const   text Zek.String = \"a  //  \\\"  {\"\n"
                                "}\n";
   EXPECT_EQ( formatted( text ), expected );
   EXPECT_EQ( formatted( expected ), expected );
}

TEST( ZekcFormat, arrowsOfAReactorToo ) {
   EXPECT_EQ( formatted( "machine M {\none r const R {\non a -> self.f\nretarget -> self.g\n}\n}" ),
              "machine M {\n   one r const R {\n      on a     -> self.f\n"
              "      retarget -> self.g\n   }\n}\n" );
}

TEST( ZekcFormat, nothingIsTooOdd ) {
   for( const char * text :
        { "", "\n", "}", "}}{", "\"", "a \"b", "/", "( ( (\n )", "\t", "{ {\n}" } ) {
      const std::string once = formatted( text );
      EXPECT_EQ( formatted( once ), once ) << text;
   }
}

TEST( ZekcSyntax, editorsKnowTheFirstWordOfEachLine ) {
   const fs::path tree = IPSTATE_SOURCE_DIR;
   const std::string grammar = contents( tree / "typelang/zek.tmLanguage.json" );
   SourceFile file{ "Sample", contents( tree / "tests/typelang/Sample/Sample.zek" ) };
   Errors errors;
   size_t lines = 0;
   int inEnum = 0;
   for( const Token & token : lex( file, errors ) ) {
      // Enumerators have no word before them.
      if( token.text == "enum" ) inEnum = 1;
      if( token.text == "}" ) inEnum = 0;
      if( !token.startsLine || token.kind != TokenKind::name || inEnum > 1 ) {
         if( inEnum == 1 && token.text == "{" ) inEnum = 2;
         continue;
      }
      ++lines;
      const bool known = grammar.find( "|" + token.text + "|" ) != std::string::npos ||
                         grammar.find( "(" + token.text + "|" ) != std::string::npos ||
                         grammar.find( "|" + token.text + ")" ) != std::string::npos ||
                         grammar.find( "|" + token.text + "\\\\" ) != std::string::npos ||
                         grammar.find( "(" + token.text + ")" ) != std::string::npos;
      EXPECT_TRUE( known ) << token.text;
   }
   EXPECT_GT( lines, 50u );
}

} // namespace
