// Trees of every type that can be streamed: changed at random, and compared.

#pragma once

#include "framework/Entity.h"
#include "framework/attrlog/StreamAdapter.h"
#include "tests/stream/RandomValues.h"

#include <string>
#include <vector>

namespace ipstate::test {

/// What the rows of a type say, looked up once.
struct Shape {
   explicit Shape( const Zek::TypeDescriptor & type );
   Zek::NboAttrLog::Plan plan;
   std::vector< const Zek::AttributeRow * > owning;
   std::vector< const Zek::AttributeRow * > changed; // by mutate()
};
const Shape & shapeOf( const Zek::Entity & entity );

/// One random change, or the attempt.
struct Change {
   Zek::Entity::Ptr entity;
   const Zek::AttributeRow * row = nullptr;
   Zek::AnyKey key;        // of a member
   bool refused = false;   // out of range: what was stored was told to nobody
   bool readOnly = false;  // stored, told to nobody, and there until the next dump
   bool otherwise = false; // a member was made again with other constructor arguments
   std::string text;       // when asked for
};

/// Types of the library that can stand in a directory and are made by name alone.
const std::vector< const Zek::TypeDescriptor * > & rootTypes();
/// Those of the tests' own schemas as well.
const std::vector< const Zek::TypeDescriptor * > & allRootTypes();

/// Entities above what else may be referred to, beside the tree that is changed.
using Tops = std::vector< Zek::Entity::Ptr >;

/// Changes something in the tree below `top`: an attribute, a member, a child. What a mutator
/// throws is passed over.
Change mutate( Random & random, Zek::Entity & top, bool describe, const Tops & others = {} );
/// Changes this attribute, or some attribute of the entity.
Change mutate( Random & random, const Zek::Entity::Ptr & entity, const Zek::AttributeRow * row,
               bool describe, const Tops & others = {} );

/// The entity that stands at the same place in another tree, or null.
Zek::Entity * twinOf( const Zek::Entity & entity, const Zek::Entity & otherRoot );

/// The name of an attribute, or of a member of a collection, in a tree.
std::string placeOf( const Zek::Entity & entity, const Zek::AttributeRow & row, const void * key );

enum class Depth { all, structure, entries };

struct Difference {
   std::string place;
   std::string what;
   bool ofInstance; // of a member that is missing, too many or another
   bool waits;      // as may be at rest: it refers to what the copy does not have, or did
};

/// Where two trees differ. What no reader can be told of is left out: pointers to entities that
/// stand in no tree. Either may be null.
std::vector< Difference > differences( const Zek::Entity * source, const Zek::Entity * copy,
                                       Depth depth );

/// Visits the entity and all below it.
template< class Visit >
void
walk( const Zek::Entity & entity, Visit & visit ) {
   visit( entity );
   for( const Zek::AttributeRow * row : shapeOf( entity ).owning ) {
      const Zek::PtrInterface * member = row->collection->first( &entity );
      while( member ) {
         walk( *static_cast< const Zek::Entity * >( member ), visit );
         member = Zek::withMemberKey( *row, member, [&]( const void * key ) {
            return row->collection->after( &entity, key );
         } );
      }
   }
}

template< class Visit >
void
forEachEntity( const Zek::Entity & top, Visit visit ) {
   walk( top, visit );
}

} // namespace ipstate::test
