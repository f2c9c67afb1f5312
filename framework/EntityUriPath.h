// Where an entity stands in its tree, as steps from the root: for names of flows, and for
// references that go to another process.

#pragma once

#include "framework/Entity.h"
#include "framework/Wire.h"

#include <string>

namespace Zek {

/// The path of one entity; computed when asked, so that making one costs nothing. The entity must
/// outlive it.
class IPSTATE_EXPORT EntityUriPath {
 public:
   explicit EntityUriPath( const Entity & entity ) : entity_( entity ) {}

   const Entity & entity() const { return entity_; }
   /// The names from the root down, for messages: the entity's fullName, but control characters,
   /// which names may have, as "\x0a", and no more than some hundred bytes.
   std::string text() const;
   /// The topmost entity above it, or itself.
   const Entity & root() const;
   /// A 16-bit count, then one step for each entity below the root: the 16-bit number of the
   /// collection, the count of the key's bytes in 32 bits, and the key.
   void encodeTo( Wire::Encoder & out ) const;
   /// Follows such steps from `root`. Null when they lead nowhere, as they may where other types
   /// stand on the way; or are malformed: the decoder has failed then.
   static Entity * resolve( const Entity & root, Wire::Decoder & in );

 private:
   const Entity & entity_;
};

/// The key under which `member` stands in the collection `row` of its parent, as `keyType` has
/// it. Calls `use( const void * key )`, whose argument is valid during the call.
template< class Use >
auto
withMemberKey( const AttributeRow & row, const PtrInterface * member, Use use ) {
   if( row.collection->hasMemberKey() ) return use( row.collection->memberKey( member ) );
   const String key( static_cast< const Entity * >( member )->childKey().view() );
   return use( static_cast< const void * >( &key ) );
}

} // namespace Zek
