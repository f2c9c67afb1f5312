#include "agents/ipstated/Reflect.h"

namespace Ipstated {

std::string
printable( std::string_view text ) {
   static const char digits[] = "0123456789abcdef";
   std::string result;
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

std::vector< const Zek::AttributeRow * >
rowsOf( const Zek::TypeDescriptor & type ) {
   std::vector< const Zek::AttributeRow * > rows;
   if( type.base ) {
      rows = rowsOf( *type.base );
   }
   for( const Zek::AttributeRow & row : type.attributes ) {
      rows.push_back( &row );
   }
   return rows;
}

std::string
memberName( const Zek::AttributeRow & row, const void * key ) {
   std::string name = row.name;
   name += '[';
   row.keyType->values->append( key, name );
   name += ']';
   return name;
}

const void *
valueOf( const Zek::AttributeRow & row, const Zek::PtrInterface & member ) {
   return row.collection->memberValue ? row.collection->memberValue( &member ) : nullptr;
}

} // namespace Ipstated
