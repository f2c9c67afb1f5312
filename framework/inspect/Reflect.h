// Walking records of any type by their descriptors.

#pragma once

#include "framework/EntityUriPath.h"
#include "framework/Generic.h"

#include <string>
#include <string_view>
#include <vector>

namespace Zek::Inspect {

/// `text` with everything that is not printable ASCII written as `\\xNN`: names come from whoever
/// may make records, and a terminal obeys some bytes.
IPSTATE_EXPORT std::string printable( std::string_view text );

/// The attributes of a type, those of its bases first.
IPSTATE_EXPORT std::vector< const AttributeRow * > rowsOf( const TypeDescriptor & type );

/// Whether it is part of what a record says: no constant, operation or framework attribute but
/// the children, and nothing whose reading asserts.
IPSTATE_EXPORT bool isShown( const AttributeRow & row );
/// A collection whose members are records.
inline bool
holdsRecords( const AttributeRow & row ) {
   return row.kind == AttributeKind::collection &&
          ( row.has( ownsMembers ) || row.has( refersToMembers ) );
}

/// The attribute as it is; of a pointer the pointer. `row` is no collection and no operation.
IPSTATE_EXPORT GenericValue read( GenericTarget object, const AttributeRow & row );

/// The value that a member of a collection holds beside its key, or null.
inline const void *
valueOf( const AttributeRow & row, const PtrInterface & member ) {
   return row.collection->hasMemberValue() ? row.collection->memberValue( &member ) : nullptr;
}

/// Calls `visit( member, key )` with each member of the collection, in its order.
template< class Visit >
void
forEachMember( const PtrInterface & record, const AttributeRow & row, Visit visit ) {
   Ptr< const PtrInterface > member( row.collection->first( &record ) );
   while( member ) {
      withMemberKey( row, member.ptr(), [&]( const void * key ) {
         visit( *member, key );
         member = Ptr< const PtrInterface >( row.collection->after( &record, key ) );
      } );
   }
}

/// A member of a collection and its key, as text.
struct Member {
   Ptr< const PtrInterface > object;
   std::string key;
};
/// The members in the order of their keys; of a hashed collection in that of the keys' texts,
/// numbers in them by their size.
IPSTATE_EXPORT std::vector< Member > membersOf( const PtrInterface & record,
                                                const AttributeRow & row );

/// Whether `a` comes before `b` where runs of digits count as numbers: eth9 before eth10.
IPSTATE_EXPORT bool comesBefore( std::string_view a, std::string_view b );

} // namespace Zek::Inspect
