// The numbers and names that streams and tools rely on, against the table checked in.
//
// A line of tests/contract/attributes.txt that moves is a break of that contract, a new line is an
// addition. IPSTATE_UPDATE_CONTRACT=1 in the environment writes the table anew.

#include "tests/records/Records.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

using namespace Records;

namespace {

std::string
kindText( const Zek::AttributeRow & row ) {
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

/// One line a type, attribute and enumerator; types by name, the rest in declared order.
std::string
contractOfTheLibrary() {
   static const char * const kinds[] = { "scalar", "text",   "opaque", "enumeration",
                                         "value",  "entity", "object", "machine" };
   std::ostringstream out;
   for( auto & [name, type] : recordTypes() ) {
      out << name << ' ' << kinds[static_cast< size_t >( type->kind )];
      if( type->isCounted() ) {
         out << parametersText( type->constructorParameters )
             << ( type->base ? std::string( " : " ) + type->base->fullName : "" )
             << ( type->create ? "" : ", not made" ) << ( type->isNamed ? ", named" : "" )
             << ( type->hasNotifier ? ", told" : "" ) << ( type->hasAttrLog ? ", logged" : "" );
      }
      out << '\n';
      for( const Zek::EnumeratorRow & row : type->enumerators ) {
         out << name << ' ' << row.value << ' ' << row.name << '\n';
      }
      for( const Zek::AttributeRow & row : type->attributes ) {
         out << name << ' ' << row.id << ' ' << row.name;
         if( row.kind == Zek::AttributeKind::callable ) out << parametersText( row.parameters );
         out << ' ' << kindText( row );
         if( row.keyType ) out << ' ' << row.keyType->fullName << " ->";
         if( row.type ) out << ' ' << row.type->fullName;
         out << '\n';
      }
   }
   return out.str();
}

TEST( Contract, StandsAsItIsCheckedIn ) {
   const std::string path = IPSTATE_SOURCE_DIR "/tests/contract/attributes.txt";
   const std::string present = contractOfTheLibrary();
   if( const char * update = std::getenv( "IPSTATE_UPDATE_CONTRACT" ); update && *update == '1' ) {
      std::ofstream( path ) << present;
   }
   std::ifstream file( path );
   ASSERT_TRUE( file ) << path;
   std::istringstream library( present );
   std::string expected, actual;
   for( unsigned line = 1;; ++line ) {
      const bool more = static_cast< bool >( std::getline( file, expected ) );
      if( !std::getline( library, actual ) ) actual = more ? "the end" : "";
      if( !more ) expected = actual.empty() ? "" : "the end";
      ASSERT_EQ( actual, expected ) << path << ":" << line << " is the first line that moved";
      if( !more ) return;
   }
}

} // namespace
