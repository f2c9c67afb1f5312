// What streams, tools and users rely on, against the file checked in: names, numbers, kinds, types,
// defaults, callbacks, texts.
//
// A line of tests/contract/library.txt that moves is a break of that contract, a new line is an
// addition. IPSTATE_UPDATE_CONTRACT=1 in the environment writes the file anew.

#include "tests/records/Records.h"

#include "L3/L3.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

using namespace Records;
using Zek::AttributeKind;
using Zek::AttributeRow;
using Zek::TypeDescriptor;
using Zek::TypeKind;

namespace {

std::string
kindText( const AttributeRow & row ) {
   static const char * const names[] = { "parameter", "plain",   "pointer", "collection",
                                         "constant",  "derived", "callable" };
   std::string text = names[static_cast< size_t >( row.kind )];
   static const std::pair< Zek::AttributeFlag, const char * > flags[] = {
      { Zek::isKey, "key" },
      { Zek::isCounter, "counter" },
      { Zek::abortsOnRead, "aborts" },
      { Zek::isOrdered, "ordered" },
      { Zek::isSet, "set" },
      { Zek::ownsMembers, "owns" },
      { Zek::refersToMembers, "refers" },
      { Zek::isTestedFirst, "tested-first" },
      { Zek::pointsToConst, "const" },
      { Zek::keyIsField, "by-field" },
      { Zek::isStaticCall, "static" },
   };
   for( auto & [flag, name] : flags ) {
      if( row.has( flag ) ) text += std::string( "," ) + name;
   }
   return text;
}

std::string
parametersText( std::span< const Zek::ParameterRow > parameters ) {
   std::string text = "(";
   for( const Zek::ParameterRow & row : parameters ) {
      text += std::string( text == "(" ? " " : ", " ) + row.name + " " + row.type->fullName;
   }
   return text + " )";
}

/// What the attribute holds at first; nothing for the empty value.
std::string
defaultText( const AttributeRow & row, const void * object ) {
   std::string text;
   if( !object || row.has( Zek::abortsOnRead ) || row.kind == AttributeKind::callable ||
       row.kind == AttributeKind::constructorParameter ) {
      return text;
   }
   if( row.collection ) {
      if( row.collection->count( object ) != 0 ) text = members( row, object );
   } else if( row.isStored() || row.isComputed() ) {
      const AnyValue value( row, object );
      text = value.text();
      if( row.type->isCounted() && text != "null" ) text = row.type->fullName;
      // The only great double that a record starts with is the present time.
      double number = 0;
      if( row.type == &Zek::TypeOf< double >::descriptor )
         std::sscanf( text.c_str(), "%lf", &number );
      if( std::isfinite( number ) && number > 1 ) text = "now";
   }
   return text.empty() ? text : " = " + text;
}

/// A text without the addresses of this run.
std::string
withoutAddresses( const std::string & text ) {
   static const std::regex address( "0x[0-9a-f]+" );
   return std::regex_replace( text, address, "0x..." );
}

/// The text of what `action` throws; empty when it throws nothing.
template< class Action >
std::string
thrown( Action action ) {
   try {
      action();
   } catch( const std::exception & error ) {
      return withoutAddresses( error.what() );
   }
   return {};
}

/// What the mutators of an attribute say to the greatest number, to null, and to a member made with
/// other arguments.
std::vector< std::string >
refusals( const AttributeRow & row, void * object ) {
   std::vector< std::string > texts;
   if( row.isWritable() && row.stored->size <= sizeof( uint64_t ) &&
       row.type->kind == TypeKind::scalar && row.type != &Zek::TypeOf< bool >::descriptor ) {
      AnyValue greatest( *row.stored );
      std::memset( greatest.at(), 0xff, row.stored->size );
      texts.push_back( thrown( [&] { row.write( object, greatest.at() ); } ) );
   }
   if( row.has( Zek::refersToMembers ) ) {
      Zek::Ptr< Zek::PtrInterface > null;
      texts.push_back( thrown( [&] { row.collection->is( object, &null, nullptr ); } ) );
   }
   const auto parameters =
      row.type ? row.type->constructorParameters : std::span< const Zek::ParameterRow >();
   for( size_t other = 1; row.has( Zek::ownsMembers ) && other < parameters.size(); ++other ) {
      const AnyValue key = specimen( *row.keyType, 1 );
      for( unsigned with : { 1u, 2u } ) {
         std::vector< AnyValue > values;
         std::vector< const void * > arguments;
         for( size_t i = 1; i < parameters.size(); ++i ) {
            values.push_back( specimen( *parameters[i].type, i == other ? with : 1 ) );
         }
         for( const AnyValue & value : values ) arguments.push_back( value.at() );
         texts.push_back(
            thrown( [&] { row.collection->is( object, key.at(), arguments.data() ); } ) );
      }
      row.collection->delAll( object );
   }
   std::erase( texts, "" );
   return texts;
}

/// The callbacks of each notifier in the order of their declaration, which is that of the virtual
/// tables, by full name of the type; read from the headers that the library is built with.
std::map< std::string, std::string >
callbacks() {
   std::map< std::string, std::string > found;
   static const std::regex space( R"(^namespace ([\w:]+) \{$)" ),
      spaceEnd( R"(^\} // namespace.*)" ), type( R"(^class IPSTATE_EXPORT (\w+) : .*)" ),
      callback( R"(^ +virtual void (on\w+)\( ?(?:const )?([^&)]*?)(?: ?&)? ?\).*)" );
   for( const auto & file :
        std::filesystem::recursive_directory_iterator( IPSTATE_BINARY_DIR "/generated" ) ) {
      if( file.path().extension() != ".h" ) continue;
      std::ifstream header( file.path() );
      std::vector< std::string > spaces;
      std::string self;
      std::smatch match;
      for( std::string line; std::getline( header, line ); ) {
         if( std::regex_match( line, match, space ) ) {
            spaces.push_back( match[1] );
         } else if( std::regex_match( line, spaceEnd ) ) {
            if( !spaces.empty() ) spaces.pop_back();
         } else if( std::regex_match( line, match, type ) ) {
            self.clear();
            for( const std::string & outer : spaces ) self += outer + "::";
            self += match[1];
         } else if( std::regex_match( line, match, callback ) ) {
            std::string & list = found[self];
            list += ( list.empty() ? " " : ", " ) + match[1].str() + '(' + match[2].str() + ')';
         }
      }
   }
   return found;
}

const char * const kinds[] = { "scalar", "text",   "opaque", "enumeration",
                               "value",  "entity", "object", "machine" };

void
appendType( const TypeDescriptor & type, const std::string & callbacks, std::ostream & out ) {
   const std::string name = type.fullName;
   out << name << ' ' << kinds[static_cast< size_t >( type.kind )];
   if( type.isCounted() ) {
      out << parametersText( type.constructorParameters )
          << ( type.base ? std::string( " : " ) + type.base->fullName : "" )
          << ( type.isMade() ? "" : ", not made" ) << ( type.isNamed ? ", named" : "" )
          << ( type.hasNotifier ? ", told" : "" ) << ( type.hasAttrLog ? ", logged" : "" );
   }
   out << '\n';
   if( !callbacks.empty() ) out << name << " calls" << callbacks << '\n';
   const bool changes =
      std::any_of( type.attributes.begin(), type.attributes.end(), []( auto & row ) {
         return row.kind == AttributeKind::plain || row.kind == AttributeKind::pointer ||
                row.kind == AttributeKind::collection;
      } );
   EXPECT_EQ( type.relay && changes, !callbacks.empty() ) << name;
   for( const Zek::EnumeratorRow & row : type.enumerators ) {
      out << name << ' ' << row.value << ' ' << row.name << '\n';
   }

   // Its first object or value; a view of nothing is none, and machines need records that stand.
   Zek::Ptr< Zek::PtrInterface > made_;
   std::unique_ptr< AnyValue > zero;
   void * first = nullptr;
   if( type.values ) {
      zero = std::make_unique< AnyValue >( *type.values );
      if( type.kind == TypeKind::value ) first = zero->at();
      const std::string text = zero->text();
      out << name << " text" << ( text.empty() ? "" : " " ) << text;
      if( type.kind == TypeKind::value )
         out << " and " << withoutAddresses( specimen( type, 1 ).text() );
      out << '\n';
   } else if( type.isMade() && type.kind != TypeKind::stateMachine ) {
      made_ = made( type );
      if( !made_ ) made_ = made( type, 1 );
      first = made_.ptr();
   }
   for( const AttributeRow & row : type.attributes ) {
      out << name << ' ' << row.id << ' ' << row.name;
      if( row.kind == AttributeKind::callable ) out << parametersText( row.parameters );
      out << ' ' << kindText( row );
      if( row.keyType ) out << ' ' << row.keyType->fullName << " ->";
      if( row.type ) out << ' ' << row.type->fullName;
      out << defaultText( row, first ) << '\n';
   }
   if( !made_ ) return;
   for( const AttributeRow & row : type.attributes ) {
      for( const std::string & text : refusals( row, first ) ) {
         out << name << ' ' << row.id << " refuses: " << text << '\n';
      }
   }
}

/// One line a fact; types by name, records last, the rest in declared order.
std::string
contractOfTheLibrary() {
   std::ostringstream out;
   const auto called = callbacks();
   auto callsOf = [&]( const std::string & name ) {
      auto at = called.find( name );
      return at == called.end() ? std::string() : at->second;
   };
   std::map< std::string, const TypeDescriptor * > others;
   Zek::forEachType(
      []( const TypeDescriptor & type, void * context ) {
         if( type.isRecord || type.isCounted() ) return;
         ( *static_cast< decltype( others ) * >( context ) )[type.fullName] = &type;
      },
      &others );
   for( auto & [name, type] : others ) {
      if( name.find( "Test" ) == std::string::npos ) appendType( *type, "", out );
   }
   out << "L3::VrfName refuses: " << thrown( [] { L3::VrfName( std::string( 101, 'v' ) ); } )
       << "\nVelon::NamespaceName refuses: "
       << thrown( [] { Velon::NamespaceName( std::string( 151, 'v' ) ); } ) << '\n';
   for( auto & [name, type] : recordTypes() ) appendType( *type, callsOf( name ), out );
   return out.str();
}

std::vector< std::string >
linesOf( std::istream && text ) {
   std::vector< std::string > lines;
   for( std::string line; std::getline( text, line ); ) lines.push_back( line );
   return lines;
}

TEST( Contract, StandsAsItIsCheckedIn ) {
   const std::string path = IPSTATE_SOURCE_DIR "/tests/contract/library.txt";
   const std::string present = contractOfTheLibrary();
   if( const char * update = std::getenv( "IPSTATE_UPDATE_CONTRACT" ); update && *update == '1' ) {
      std::ofstream( path ) << present;
   }
   const auto before = linesOf( std::ifstream( path ) ),
              after = linesOf( std::istringstream( present ) );
   ASSERT_FALSE( before.empty() ) << path;
   auto [was, is] = std::mismatch( before.begin(), before.end(), after.begin(), after.end() );
   if( was == before.end() && is == after.end() ) return;
   // Lines that are on one side only; none when lines changed places.
   std::string moved;
   auto list = [&]( const char * mark, auto from, auto end, auto other, auto otherEnd ) {
      const std::multiset< std::string > there( other, otherEnd );
      for( ; from != end; ++from ) {
         if( !there.count( *from ) ) moved += mark + *from + '\n';
      }
   };
   list( "before: ", was, before.end(), is, after.end() );
   list( "after:  ", is, after.end(), was, before.end() );
   FAIL() << path << ":" << was - before.begin() + 1 << " is the first line that moved\n"
          << "before: " << ( was == before.end() ? "the end" : *was )
          << "\nafter:  " << ( is == after.end() ? "the end" : *is )
          << "\n\nAll that stand on one side only:\n"
          << moved;
}

TEST( Contract, ReferenceShowsWhatConstructionLeaves ) {
   const std::regex attribute( R"(([\w:]+) (\d+) (\w+) plain [\w:]+ = (.*))" );
   size_t compared = 0;
   for( const std::string & line :
        linesOf( std::ifstream( IPSTATE_SOURCE_DIR "/tests/contract/library.txt" ) ) ) {
      std::smatch match;
      if( !std::regex_match( line, match, attribute ) ) continue;
      const std::string full = match[1];
      const size_t name = full.rfind( "::" );
      std::string page;
      for( const std::string & each :
           linesOf( std::ifstream( IPSTATE_SOURCE_DIR "/docs/reference/" + full.substr( 0, name ) +
                                   "/" + full.substr( name + 2 ) + ".md" ) ) ) {
         page += each + "\n";
      }
      if( page.find( "attribute |" ) == std::string::npos ||
          page.find( "run at construction" ) == std::string::npos ) {
         continue;
      }
      const size_t row = page.find( "| " + match[2].str() + " | " + match[3].str() + " |" );
      ASSERT_NE( row, std::string::npos ) << line;
      const std::string shown = page.substr( row, page.find( '\n', row ) - row );
      EXPECT_NE( shown.find( " | " + match[4].str() + " | " ), std::string::npos ) << shown;
      ++compared;
   }
   EXPECT_EQ( compared, 4u );
}

} // namespace
