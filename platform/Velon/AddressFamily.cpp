#include "platform/Velon/AddressFamily.h"

#include "framework/Exception.h"
#include "platform/Velon/Scan.h"

#include <ostream>

namespace Velon {

namespace {

// By number.
constexpr std::string_view names[] = { "none", "ipv4", "ipv6" };

} // namespace

AddressFamily
AddressFamilyInstance( uint32_t number ) {
   if( number >= std::size( names ) ) {
      Zek::throwRangeException( "Velon::AddressFamily of number " + std::to_string( number ) +
                                " not allowed" );
   }
   return static_cast< AddressFamily >( number );
}

AddressFamily
AddressFamilyInstance( std::string_view name ) {
   AddressFamily af;
   if( !fromText( name, af ) ) throwNotRead( "Velon::AddressFamily", 0, name );
   return af;
}

void
appendTo( AddressFamily af, std::string & out ) {
   auto number = static_cast< size_t >( af );
   if( number < std::size( names ) ) {
      out.append( names[number] );
   } else {
      out.append( "AddressFamily(" ).append( std::to_string( number ) ).append( ")" );
   }
}

std::string
toString( AddressFamily af ) {
   std::string text;
   appendTo( af, text );
   return text;
}

std::ostream &
operator<<( std::ostream & out, AddressFamily af ) {
   return out << toString( af );
}

Zek::String
stringValue( AddressFamily af ) {
   return Zek::String( toString( af ) );
}

Zek::String
valueToStrep( AddressFamily af ) {
   return stringValue( af );
}

void
sequenceToValue( Zek::String::IteratorConst begin, Zek::String::IteratorConst end,
                 AddressFamily & value ) {
   value = AddressFamilyInstance( Zek::String::IteratorConst::view( begin, end ) );
}

bool
fromText( std::string_view text, AddressFamily & out ) {
   for( size_t number = 0; number < std::size( names ); ++number ) {
      if( text == names[number] ) {
         out = static_cast< AddressFamily >( number );
         return true;
      }
   }
   return false;
}

} // namespace Velon
