#include "framework/inspect/Reflect.h"

#include <algorithm>

namespace Zek::Inspect {

std::string
printable( std::string_view text ) {
   static const char digits[] = "0123456789abcdef";
   std::string result;
   result.reserve( text.size() );
   for( char each : text ) {
      if( each >= 0x20 && each < 0x7f ) {
         result += each;
      } else {
         result += "\\x";
         result += digits[uint8_t( each ) >> 4];
         result += digits[uint8_t( each ) & 15];
      }
   }
   return result;
}

std::vector< const AttributeRow * >
rowsOf( const TypeDescriptor & type ) {
   std::vector< const AttributeRow * > rows;
   if( type.base ) rows = rowsOf( *type.base );
   for( const AttributeRow & row : type.attributes ) rows.push_back( &row );
   return rows;
}

bool
isShown( const AttributeRow & row ) {
   switch( row.kind ) {
   case AttributeKind::constant:
   case AttributeKind::callable:
      return false;
   case AttributeKind::collection:
      return true;
   default:
      // Of what every entity has, the path and the type say all but the children.
      return !row.has( abortsOnRead ) && row.id > entityAttr;
   }
}

GenericValue
read( GenericTarget object, const AttributeRow & row ) {
   return object.type()->genericIf->genericIfAttributeOp( object, GenericOperation::read, row.id );
}

bool
comesBefore( std::string_view a, std::string_view b ) {
   auto isDigit = []( char c ) { return c >= '0' && c <= '9'; };
   size_t i = 0, j = 0;
   while( i < a.size() && j < b.size() ) {
      if( !isDigit( a[i] ) || !isDigit( b[j] ) ) {
         if( a[i] != b[j] ) return uint8_t( a[i] ) < uint8_t( b[j] );
         ++i, ++j;
         continue;
      }
      auto number = [&]( std::string_view text, size_t & at ) {
         while( at < text.size() && text[at] == '0' ) ++at;
         const size_t begin = at;
         while( at < text.size() && isDigit( text[at] ) ) ++at;
         return text.substr( begin, at - begin );
      };
      const std::string_view left = number( a, i ), right = number( b, j );
      if( left.size() != right.size() ) return left.size() < right.size();
      if( left != right ) return left < right;
   }
   if( ( i < a.size() ) != ( j < b.size() ) ) return j < b.size();
   return a < b; // they differ in leading zeros at most
}

std::vector< Member >
membersOf( const PtrInterface & record, const AttributeRow & row ) {
   std::vector< Member > members;
   forEachMember( record, row, [&]( const PtrInterface & member, const void * key ) {
      members.push_back( { Ptr< const PtrInterface >( &member ), {} } );
      row.keyType->values->append( key, members.back().key );
   } );
   if( !row.has( isOrdered ) ) {
      std::sort( members.begin(), members.end(),
                 []( const Member & a, const Member & b ) { return comesBefore( a.key, b.key ); } );
   }
   return members;
}

} // namespace Zek::Inspect
