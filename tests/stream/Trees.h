// Trees of every type that can be streamed: changed at random, and compared.

#pragma once

#include "framework/Entity.h"
#include "framework/StreamAdapter.h"
#include "tests/stream/RandomValues.h"

#include <string>
#include <vector>

namespace ipstate::test {

/// A tree with a directory "all" in which random entities of every type come and go.
Zek::Dir::Ptr makeTree();

/// One random change of the tree below `top`: an attribute, a member, a child. Says what it did.
/// What a mutator throws is passed over.
std::string mutate( Random & random, Zek::Entity & top );

/// Where two trees differ, a line each; empty when they are the same. What no reader can be told
/// of is left out: pointers to entities that stand in no tree.
std::string difference( const Zek::Entity & source, const Zek::Entity & copy );

/// Visits the entity and all below it.
template< class Visit >
void
walk( const Zek::Entity & entity, Visit visit ) {
   visit( entity );
   for( auto * type = entity.fwkType(); type; type = type->base ) {
      for( const Zek::AttributeRow & row : type->attributes ) {
         if( !row.collection || !row.has( Zek::ownsMembers ) ) continue;
         const Zek::PtrInterface * member = row.collection->first( &entity );
         while( member ) {
            walk( *static_cast< const Zek::Entity * >( member ), visit );
            member = Zek::withMemberKey( row, member, [&]( const void * key ) {
               return row.collection->after( &entity, key );
            } );
         }
      }
   }
}

} // namespace ipstate::test
