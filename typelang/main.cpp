// zekc: compiles one schema file to a C++ header and source, and tells people what schemas declare.
//
//    zekc --out-dir DIR [--depfile FILE] [--check] SCHEMA     C++ of one schema
//    zekc --explain TYPE SCHEMA...                            what a type is, by its full name
//    zekc --graph SCHEMA...                                   types and what holds what, for dot
//    zekc --reference DIR [--check] SCHEMA...                 a Markdown page for each type
//    zekc --format [--check] FILE...                          lays schemas out in columns
//    zekc --version
//
// A SCHEMA and what it imports are paths below an include root: --include-root DIR, as often as
// wanted. Files are written only when their contents change, so that nothing depends on them is
// built again for nothing; with --check not at all. Exit status: 0; 1 when a schema has errors,
// there is no such type, or a checked page is not what the schemas say; 2 for a wrong command line
// or a file that cannot be written.

#include "typelang/Checker.h"
#include "typelang/Emitter.h"
#include "typelang/Explain.h"
#include "typelang/Format.h"
#include "typelang/Graph.h"
#include "typelang/Reference.h"
#include "typelang/Text.h"

#include <algorithm>
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
   std::string explain;   // the type's name
   std::string reference; // the folder
   std::vector< std::string > schemas;
   bool check = false;
   bool graph = false;

   bool emits() const { return explain.empty() && reference.empty() && !graph; }
};

constexpr char usage[] =
   R"(usage: zekc [--include-root DIR]... --out-dir DIR [--depfile FILE] SCHEMA
       zekc [--include-root DIR]... --check SCHEMA
       zekc [--include-root DIR]... --explain TYPE SCHEMA...
       zekc [--include-root DIR]... --graph SCHEMA...
       zekc [--include-root DIR]... --reference DIR [--check] SCHEMA...
       zekc --format [--check] FILE...
       zekc --version
)";

bool
parseOptions( int argc, char ** argv, Options & options ) {
   const std::pair< const char *, std::string * > texts[] = {
      { "--out-dir", &options.outDir },
      { "--depfile", &options.depfile },
      { "--explain", &options.explain },
      { "--reference", &options.reference },
   };
   for( int i = 1; i < argc; ++i ) {
      std::string word = argv[i];
      auto text = std::find_if( std::begin( texts ), std::end( texts ),
                                [&]( const auto & t ) { return word == t.first; } );
      if( word == "--check" ) {
         options.check = true;
      } else if( word == "--graph" ) {
         options.graph = true;
      } else if( word == "--include-root" || text != std::end( texts ) ) {
         if( ++i == argc || !*argv[i] ) return false;
         if( text == std::end( texts ) ) {
            options.roots.push_back( argv[i] );
         } else {
            *text->second = argv[i];
         }
      } else if( word[0] == '-' || std::filesystem::path( word ).extension() != ".zek" ) {
         return false;
      } else {
         // As imports spell it: one schema has one path.
         options.schemas.push_back( std::filesystem::path( word ).lexically_normal().string() );
      }
   }
   if( options.roots.empty() ) options.roots.push_back( "." );
   if( options.schemas.empty() ) return false;
   if( options.emits() ) {
      return options.schemas.size() == 1 && ( options.check || !options.outDir.empty() );
   }
   const int modes = !options.explain.empty() + !options.reference.empty() + options.graph;
   return modes == 1 && options.outDir.empty() && options.depfile.empty() &&
          ( !options.check || !options.reference.empty() );
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

int
writeCode( const Program & program, const Options & options,
           const std::vector< std::string > & read ) {
   std::string targets;
   for( const Output & output : emitSchema( program ) ) {
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

int
explainType( const Program & program, const std::string & name ) {
   if( const Type * type = findType( program, name ) ) {
      std::fputs( explanationText( explain( program, *type ) ).c_str(), stdout );
      return 0;
   }
   std::fprintf( stderr, "zekc: no type '%s'\n", name.c_str() );
   const std::string last = name.substr( name.find_last_of( ":." ) + 1 );
   for( const Type * type : declaredTypes( program ) ) {
      if( uncapitalised( type->name ) == uncapitalised( last ) ) {
         std::fprintf( stderr, "   there is '%s'\n", type->fullName().c_str() );
      }
   }
   return 1;
}

/// Pages in `folder` that zekc wrote, by path below it.
std::vector< std::string >
pagesIn( const std::string & folder ) {
   std::vector< std::string > out;
   std::error_code error;
   std::filesystem::recursive_directory_iterator at( folder, error );
   for( ; at != std::filesystem::recursive_directory_iterator(); at.increment( error ) ) {
      const std::string path = at->path().string();
      if( readFile( path ).value_or( "" ).rfind( referenceMark, 0 ) == 0 ) {
         out.push_back( at->path().lexically_relative( folder ).generic_string() );
      }
   }
   std::sort( out.begin(), out.end() );
   return out;
}

int
writeReference( const Program & program, const Options & options ) {
   const std::vector< Output > pages = referencePages( program );
   int faults = 0;
   auto differs = [&]( const std::string & path, const char * how ) {
      std::fprintf( stderr, "zekc: '%s' %s\n", path.c_str(), how );
      ++faults;
   };
   for( const Output & page : pages ) {
      const std::string path = options.reference + "/" + page.path;
      if( !options.check ) {
         if( !writeFile( path, page.text ) ) return 2;
      } else if( readFile( path ) != page.text ) {
         differs( path, "is not what the schemas say" );
      }
   }
   for( const std::string & page : pagesIn( options.reference ) ) {
      const std::string path = options.reference + "/" + page;
      bool current = std::any_of( pages.begin(), pages.end(),
                                  [&]( const Output & p ) { return p.path == page; } );
      if( current ) continue;
      if( options.check ) {
         differs( path, "is about a type that is gone" );
      } else if( std::error_code error; !std::filesystem::remove( path, error ) ) {
         std::fprintf( stderr, "zekc: cannot remove '%s'\n", path.c_str() );
         return 2;
      }
   }
   return faults > 0 ? 1 : 0;
}

/// Lays the files out, or says which ones are not.
int
format( const std::vector< std::string > & arguments ) {
   const bool check = !arguments.empty() && arguments[0] == "--check";
   if( arguments.size() == size_t( check ) ) {
      std::fputs( usage, stderr );
      return 2;
   }
   int others = 0;
   for( size_t i = check; i < arguments.size(); ++i ) {
      const std::string & path = arguments[i];
      const std::optional< std::string > text = readFile( path );
      if( !text ) {
         std::fprintf( stderr, "zekc: cannot read '%s'\n", path.c_str() );
         return 2;
      }
      const std::string wanted = formatted( *text );
      if( !check ) {
         if( !writeFile( path, wanted ) ) return 2;
      } else if( wanted != *text ) {
         std::fprintf( stderr, "zekc: '%s' is not laid out as --format does it\n", path.c_str() );
         ++others;
      }
   }
   return others > 0 ? 1 : 0;
}

} // namespace

int
main( int argc, char ** argv ) {
   if( argc == 2 && argv[1] == std::string_view( "--version" ) ) {
      std::puts( "zekc " IPSTATE_VERSION );
      return 0;
   }
   if( argc > 1 && argv[1] == std::string_view( "--format" ) ) {
      return format( { argv + 2, argv + argc } );
   }
   Options options;
   if( !parseOptions( argc, argv, options ) ) {
      std::fputs( usage, stderr );
      return 2;
   }
   std::vector< std::string > read;
   Compilation compilation;
   compile(
      options.schemas,
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
                    compilation.errors.count() == 1 ? "" : "s",
                    joined( options.schemas, "', '" ).c_str() );
      return 1;
   }
   const Program & program = compilation.program;
   if( !options.explain.empty() ) return explainType( program, options.explain );
   if( !options.reference.empty() ) return writeReference( program, options );
   if( options.graph ) {
      std::fputs( graphText( program ).c_str(), stdout );
      return 0;
   }
   return options.check ? 0 : writeCode( program, options, read );
}
