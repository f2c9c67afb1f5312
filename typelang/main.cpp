// zekc: compiles one schema file to a C++ header and source.
//
//    zekc --include-root DIR... --out-dir DIR [--depfile FILE] [--check] SCHEMA
//
// SCHEMA and what it imports are paths below an include root. Files are written only when their
// contents change, so that nothing depends on them is built again for nothing. Exit status: 0,
// 1 when the schema has errors, 2 for a wrong command line or a file that cannot be written.

#include "typelang/Checker.h"
#include "typelang/Emitter.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

using namespace Zek::TypeLang;

struct Options {
   std::vector< std::string > roots;
   std::string outDir;
   std::string depfile;
   std::string schema;
   bool check = false;
};

constexpr char usage[] =
   "usage: zekc --include-root DIR... --out-dir DIR [--depfile FILE] [--check] SCHEMA\n";

bool
parseOptions( int argc, char ** argv, Options & options ) {
   for( int i = 1; i < argc; ++i ) {
      std::string word = argv[i];
      if( word == "--check" ) {
         options.check = true;
      } else if( word == "--include-root" || word == "--out-dir" || word == "--depfile" ) {
         if( ++i == argc ) return false;
         if( word == "--include-root" ) options.roots.push_back( argv[i] );
         if( word == "--out-dir" ) options.outDir = argv[i];
         if( word == "--depfile" ) options.depfile = argv[i];
      } else if( word[0] == '-' || !options.schema.empty() ||
                 std::filesystem::path( word ).extension() != ".zek" ) {
         return false;
      } else {
         // As imports spell it: one schema has one path.
         options.schema = std::filesystem::path( word ).lexically_normal().string();
      }
   }
   if( options.roots.empty() ) options.roots.push_back( "." );
   return !options.schema.empty() && ( options.check || !options.outDir.empty() );
}

std::optional< std::string >
readFile( const std::string & path ) {
   std::ifstream in( path, std::ios::binary );
   if( !in ) return std::nullopt;
   std::ostringstream text;
   text << in.rdbuf();
   return text.str();
}

bool
writeFile( const std::string & path, const std::string & text ) {
   if( readFile( path ) == text ) return true;
   std::error_code ignored;
   std::filesystem::create_directories( std::filesystem::path( path ).parent_path(), ignored );
   std::ofstream out( path, std::ios::binary );
   out << text;
   out.close();
   if( !out ) std::fprintf( stderr, "zekc: cannot write '%s'\n", path.c_str() );
   return static_cast< bool >( out );
}

} // namespace

int
main( int argc, char ** argv ) {
   Options options;
   if( !parseOptions( argc, argv, options ) ) {
      std::fputs( usage, stderr );
      return 2;
   }
   std::vector< std::string > read;
   Compilation compilation;
   compile(
      options.schema,
      [&]( const std::string & path ) -> std::optional< std::string > {
         for( const std::string & root : options.roots ) {
            if( auto text = readFile( root + "/" + path ) ) {
               read.push_back( root + "/" + path );
               return text;
            }
         }
         return std::nullopt;
      },
      compilation );
   if( !compilation.errors.empty() ) {
      std::fputs( compilation.errors.text().c_str(), stderr );
      std::fprintf( stderr, "zekc: %zu error%s in '%s'\n", compilation.errors.count(),
                    compilation.errors.count() == 1 ? "" : "s", options.schema.c_str() );
      return 1;
   }
   if( options.check ) return 0;
   std::string targets;
   for( const Output & output : emitSchema( compilation.program ) ) {
      std::string path = options.outDir + "/" + output.path;
      if( !writeFile( path, output.text ) ) return 2;
      targets += path + " ";
   }
   if( !options.depfile.empty() ) {
      std::string rule = targets + ":";
      for( const std::string & path : read ) rule += " " + path;
      if( !writeFile( options.depfile, rule + "\n" ) ) return 2;
   }
   return 0;
}
