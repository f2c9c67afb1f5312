// What makes a type reachable by name: its companion, and the rows of its operations.

#include "typelang/Emission.h"
#include "typelang/Text.h"

#include <algorithm>

namespace Zek::TypeLang {

std::string
genericId( const Type & type ) {
   return joined( type.scope, "_" ) + "_" + type.name;
}

std::string
companion( const Type & type, const std::string & descriptor ) {
   return "namespace {\n\nconstexpr Zek::GenericIf " + genericId( type ) + "_GenericIf( " +
          descriptor + " );\n\n} // namespace\n\n";
}

// A view's question changes nothing; what returns nothing is a request to change.
bool
isConstOperation( const Member & m ) {
   return m.kind == MemberKind::ask ? !m.isVoid : m.isConst;
}

CallableRow
callableRow( const Type & type, const Member & m ) {
   CallableRow out;
   std::string list = "{}";
   std::vector< std::string > taken;
   std::string rows;
   for( const Argument & a : m.arguments ) {
      rows += "   Zek::Rows::argument< " + cppStored( a.type ) + " >( \"" + a.name + "\" ),\n";
      taken.push_back( cppParameter( a.type ) );
   }
   if( !rows.empty() ) {
      list = "zekParameters_" + type.name + "_" + std::to_string( m.number ); // overloads
      out.table = "static constexpr Zek::ParameterRow " + list + "[] = {\n" + rows + "};\n\n";
   }
   std::string function = "&" + type.name + "::" + m.name;
   const bool overloaded =
      std::count_if( type.members.begin(), type.members.end(),
                     [&]( const Member & other ) { return other.name == m.name; } ) > 1;
   if( overloaded ) {
      std::string result = m.isVoid        ? "void"
                           : m.returnsSelf ? type.name + " &"
                                           : cppStored( m.type );
      std::string pointer = m.isStatic ? "*" : type.name + "::*";
      function = "static_cast< " + result + " ( " + pointer + " )( " + joined( taken, ", " ) +
                 ( isConstOperation( m ) ? " ) const >( " : " ) >( " ) + function + " )";
   }
   out.row = "   Zek::Rows::callable< " + function + " >( \"" + m.name + "\", " +
             std::to_string( m.number ) + ", " + list + " ),\n";
   return out;
}

} // namespace Zek::TypeLang
