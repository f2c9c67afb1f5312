// Walking records of any type by their descriptors: what Watch and Dump share.

#pragma once

#include "framework/Entity.h"
#include "framework/Type.h"

#include <string>
#include <string_view>
#include <vector>

namespace Ipstated {

/// `text` with everything that is not printable ASCII written as \xNN: names come from whoever
/// may make interfaces, and a terminal obeys some bytes.
std::string printable( std::string_view text );

/// The attributes of a type, those of its bases first.
std::vector< const Zek::AttributeRow * > rowsOf( const Zek::TypeDescriptor & type );

/// Calls `use` with the address of the member's key.
template< class Use >
void
withKey( const Zek::AttributeRow & row, const Zek::PtrInterface & member, Use use ) {
   if( row.collection->memberKey ) {
      use( row.collection->memberKey( &member ) );
   } else {
      // A child of a directory, whose key is its name.
      const Zek::String name( dynamic_cast< const Zek::Entity & >( member ).name().view() );
      use( &name );
   }
}

/// "ipIntfStatus[eth0]"
std::string memberName( const Zek::AttributeRow & row, const void * key );

/// The value that a member of a collection holds beside its key, or null.
const void * valueOf( const Zek::AttributeRow & row, const Zek::PtrInterface & member );

/// Calls `visit` with each member of the collection, in its order.
template< class Visit >
void
forEachMember( const Zek::PtrInterface & record, const Zek::AttributeRow & row, Visit visit ) {
   const Zek::PtrInterface * member = row.collection->first( &record );
   while( member ) {
      withKey( row, *member, [&]( const void * key ) {
         visit( *member, key );
         member = row.collection->after( &record, key );
      } );
   }
}

} // namespace Ipstated
