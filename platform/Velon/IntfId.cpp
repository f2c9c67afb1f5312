#include "platform/Velon/IntfId.h"

#include <algorithm>
#include <ostream>

namespace Velon {

namespace {

constexpr bool
isDigit( char c ) {
   return c >= '0' && c <= '9';
}

// Takes the run of digits at the front of `text` away and returns it without leading zeros.
std::string_view
takeNumber( std::string_view & text ) {
   size_t end = 0;
   while( end < text.size() && isDigit( text[end] ) ) ++end;
   std::string_view number = text.substr( 0, end );
   text.remove_prefix( end );
   number.remove_prefix( std::min( number.find_first_not_of( '0' ), number.size() ) );
   return number;
}

} // namespace

std::strong_ordering
IntfId::naturalOrder( std::string_view a, std::string_view b ) {
   std::string_view restA = a;
   std::string_view restB = b;
   while( !restA.empty() && !restB.empty() ) {
      if( isDigit( restA.front() ) && isDigit( restB.front() ) ) {
         std::string_view numberA = takeNumber( restA );
         std::string_view numberB = takeNumber( restB );
         if( auto order = numberA.size() <=> numberB.size(); order != 0 ) return order;
         if( auto order = numberA <=> numberB; order != 0 ) return order;
      } else {
         auto byteA = static_cast< unsigned char >( restA.front() );
         auto byteB = static_cast< unsigned char >( restB.front() );
         if( auto order = byteA <=> byteB; order != 0 ) return order;
         restA.remove_prefix( 1 );
         restB.remove_prefix( 1 );
      }
   }
   if( auto order = restA.size() <=> restB.size(); order != 0 ) return order;
   return a <=> b;
}

bool
LoopbackIntfId::isLoopbackIntfId( IntfId intfId ) {
   constexpr std::string_view stem = "Loopback";
   std::string_view name = intfId.view();
   if( name == "lo" ) return true;
   if( name.size() <= stem.size() || name.substr( 0, stem.size() ) != stem ) return false;
   name.remove_prefix( stem.size() );
   return std::all_of( name.begin(), name.end(), isDigit );
}

std::ostream &
operator<<( std::ostream & out, IntfId intfId ) {
   return out << intfId.view();
}

} // namespace Velon
