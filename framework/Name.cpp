#include "framework/Name.h"

#include <ostream>

namespace Zek {

Name
Name::joined( std::string_view left, std::string_view separator, std::string_view right ) {
   if( left.empty() ) return right;
   if( right.empty() ) return left;
   std::string text;
   text.reserve( left.size() + separator.size() + right.size() );
   text.append( left ).append( separator ).append( right );
   return Name( text );
}

std::ostream &
operator<<( std::ostream & out, Name name ) {
   return out << name.view();
}

} // namespace Zek
