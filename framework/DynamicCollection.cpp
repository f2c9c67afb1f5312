// Collections of entities whose types were made at run time.
//
// They stand on the same untyped tables as those of linked types (framework/HashTable.h,
// framework/RbTree.h), and keep to the same order; keys and values are known by their operations.

#include "framework/DynamicParts.h"
#include "framework/Exception.h"
#include "framework/Hash.h"

#include <algorithm>
#include <new>

namespace Zek {

namespace {

using Form = DynamicCollection::Form;

const DynamicCollection &
collectionOf( const CollectionOps & ops ) {
   return static_cast< const DynamicCollection & >( ops );
}

// -- Members that a collection makes for itself -----------------------------------------------

/// A key, a value, or both, behind the object. Ordered collections link it.
template< class Links >
class DynamicNode final : public Links {
 public:
   DynamicNode( const DynamicCollection & of, const void * key, const void * value ) : of_( of ) {
      if( of.keyAt ) of.keyOps.copy( at( of.keyAt ), key );
      if( !of.valueAt ) return;
      try {
         of.valueOps->copy( at( of.valueAt ), value );
      } catch( ... ) {
         if( of.keyAt ) of.keyOps.destroy( at( of.keyAt ) );
         throw;
      }
   }
   AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override {
      return const_cast< AllocTrackTypeInfo & >( of_.nodes );
   }

 protected:
   ~DynamicNode() override {
      if( of_.valueAt ) of_.valueOps->destroy( at( of_.valueAt ) );
      if( of_.keyAt ) of_.keyOps.destroy( at( of_.keyAt ) );
   }

 private:
   void * at( uint32_t offset ) { return reinterpret_cast< char * >( this ) + offset; }

   const DynamicCollection & of_;
};

static_assert( sizeof( DynamicNode< PtrInterface > ) % alignof( void * ) == 0 );

template< class Links >
PtrInterface *
makeNode( const DynamicCollection & of, const void * key, const void * value ) {
   auto & info = const_cast< AllocTrackTypeInfo & >( of.nodes );
   trackAllocation( info, of.nodeBytes );
   void * memory = nullptr;
   try {
      memory = PtrInterface::zekMemAlloc( of.nodeBytes );
      return new( memory ) DynamicNode< Links >( of, key, value );
   } catch( ... ) {
      trackDeallocation( info, of.nodeBytes );
      if( memory ) PtrInterface::zekMemFree( memory, of.nodeBytes );
      throw;
   }
}

/// With one reference.
Ptr< PtrInterface >
nodeOf( const DynamicCollection & of, const void * key, const void * value ) {
   return Ptr< PtrInterface >::adopt( of.isOrdered ? makeNode< RbNode >( of, key, value )
                                                   : makeNode< PtrInterface >( of, key, value ) );
}

const void *
valueOf( const DynamicCollection & of, const PtrInterface * member ) {
   return reinterpret_cast< const char * >( member ) + of.valueAt;
}

// -- The tables -------------------------------------------------------------------------------

const HashTable &
hashed( const void * object, const DynamicCollection & of ) {
   return *static_cast< const HashTable * >( placeOf( object, of.row ) );
}

HashTable &
hashed( void * object, const DynamicCollection & of ) {
   return *static_cast< HashTable * >( placeOf( object, of.row ) );
}

const RbTree &
ordered( const void * object, const DynamicCollection & of ) {
   return *static_cast< const RbTree * >( placeOf( object, of.row ) );
}

RbTree &
ordered( void * object, const DynamicCollection & of ) {
   return *static_cast< RbTree * >( placeOf( object, of.row ) );
}

uint32_t
reversedHashOfKey( const DynamicCollection & of, const void * key ) {
   return bitReverse( of.keyOps.hash( key ) );
}

HashTable::Slot *
slotOf( const void * object, const DynamicCollection & of, const void * key ) {
   const HashTable & table = hashed( object, of );
   auto same = [&]( const PtrInterface * member ) {
      return of.keyOps.equal( of.keyOf( member ), key );
   };
   return table.isDense() ? table.findDense( same )
                          : table.find( reversedHashOfKey( of, key ), same );
}

/// Where a key is, or where it would be linked.
struct Place {
   RbNode * found;
   RbNode * parent = nullptr;
   bool right = false;
};

Place
placeIn( const void * object, const DynamicCollection & of, const void * key ) {
   Place place{ ordered( object, of ).root() };
   while( place.found ) {
      const void * here = of.keyOf( place.found );
      if( of.keyOps.equal( here, key ) ) break;
      place.right = of.keyOps.less( here, key );
      place.parent = place.found;
      place.found = RbTree::child( place.found, place.right );
   }
   return place;
}

PtrInterface *
memberUnder( const void * object, const DynamicCollection & of, const void * key ) {
   if( of.isOrdered ) return placeIn( object, of, key ).found;
   const HashTable::Slot * slot = slotOf( object, of, key );
   return slot ? slot->member : nullptr;
}

/// Adds a member; none is under its key.
void
insert( void * object, const DynamicCollection & of, PtrInterface * member ) {
   const void * key = of.keyOf( member );
   if( of.isOrdered ) {
      const Place place = placeIn( object, of, key );
      ordered( object, of ).link( place.parent, place.right, static_cast< RbNode * >( member ) );
   } else {
      hashed( object, of ).insert( of.hashing, reversedHashOfKey( of, key ), key, member );
   }
}

/// Removes the member under the key and gives it to the caller; null where there is none.
Ptr< PtrInterface >
take( void * object, const DynamicCollection & of, const void * key ) {
   PtrInterface * member = nullptr;
   if( of.isOrdered ) {
      RbNode * node = placeIn( object, of, key ).found;
      if( node ) ordered( object, of ).unlink( node );
      member = node;
   } else if( HashTable::Slot * slot = slotOf( object, of, key ) ) {
      member = slot->member;
      hashed( object, of ).unlink( slot );
   }
   return Ptr< PtrInterface >::adopt( member );
}

void
announce( const void * object, const DynamicCollection & of, const void * key ) {
   const AnyKey announced( of.keyOps, key ); // a callback may take away what holds it
   static_cast< const DynamicEntity & >( *static_cast< const PtrInterface * >( object ) )
      .changed( of.row, announced.get() );
}

// -- Mutators ---------------------------------------------------------------------------------

void
valueIs( void * object, const DynamicCollection & of, const void * key, const void * value ) {
   if( PtrInterface * member = memberUnder( object, of, key ) ) {
      if( !of.valueOps ) return;
      void * at = const_cast< void * >( valueOf( of, member ) );
      if( of.valueOps->equal( at, value ) ) return;
      assign( *of.valueOps, at, value );
   } else {
      insert( object, of, nodeOf( of, key, value ).ptr() );
   }
   announce( object, of, key );
}

/// A member that exists must have been made with the same constructor arguments.
void
requireSame( const Entity & member, const DynamicCollection & of, const void * const * arguments ) {
   const TypeDescriptor & type = *of.row.type;
   for( size_t i = 0, further = 0; i < type.constructorParameters.size(); ++i ) {
      if( i == of.keyParameter ) continue;
      const char * name = type.constructorParameters[i].name;
      const AttributeRow & row = *type.attribute( name );
      const void * wanted = arguments[further++];
      const void * present = row.address( &member );
      if( row.stored->equal( wanted, present ) ) continue;
      std::string wantedText, presentText;
      row.stored->append( wanted, wantedText );
      row.stored->append( present, presentText );
      throwParameterDiffers( member, name, wantedText, presentText );
   }
}

void
ownedIs( void * object, const DynamicCollection & of, const void * key,
         const void * const * further ) {
   if( PtrInterface * present = memberUnder( object, of, key ) ) {
      return requireSame( static_cast< Entity & >( *present ), of, further );
   }
   const TypeDescriptor & type = *of.row.type;
   std::vector< const void * > arguments;
   for( size_t i = 0; i < type.constructorParameters.size(); ++i ) {
      arguments.push_back( i == of.keyParameter ? key : *further++ );
   }
   const Ptr< PtrInterface > made = type.create( arguments.data() );
   auto & member = static_cast< Entity & >( *made );
   member.parentAttrIdIs( of.row.id );
   insert( object, of, made.ptr() );
   member.parentIs( static_cast< Entity * >( static_cast< PtrInterface * >( object ) ) );
   announce( object, of, of.keyOf( made.ptr() ) );
}

void
referredIs( void * object, const DynamicCollection & of, const void * pointer ) {
   const Ptr< PtrInterface > member = *static_cast< const Ptr< PtrInterface > * >( pointer );
   if( !member ) {
      throwNullParameterException(
         static_cast< const PtrInterface * >( object )->fwkType()->fullName, of.row.name );
   }
   const void * key = of.keyOf( member.ptr() );
   HashTable::Slot * slot = slotOf( object, of, key );
   if( slot && slot->member == member.ptr() ) return;
   if( slot ) {
      PtrInterface * old = slot->member;
      hashed( object, of ).replace( slot, member.ptr() );
      old->referencesDec();
   } else {
      insert( object, of, member.ptr() );
   }
   announce( object, of, key );
}

void
memberIs( void * object, const void * keyOrMember, const void * const * arguments,
          const CollectionOps & ops ) {
   const DynamicCollection & of = collectionOf( ops );
   const Ptr< PtrInterface > self( static_cast< PtrInterface * >( object ) );
   switch( of.form ) {
   case Form::values:
      return valueIs( object, of, keyOrMember, arguments[0] );
   case Form::fields:
      return valueIs( object, of, placeOf( keyOrMember, *of.keyRow ), keyOrMember );
   case Form::set:
      return valueIs( object, of, keyOrMember, nullptr );
   case Form::owned:
      return ownedIs( object, of, keyOrMember, arguments );
   case Form::referred:
      return referredIs( object, of, keyOrMember );
   }
}

void
memberDel( void * object, const void * key, const CollectionOps & ops ) {
   const DynamicCollection & of = collectionOf( ops );
   const Ptr< PtrInterface > self( static_cast< PtrInterface * >( object ) );
   const AnyKey removed( of.keyOps, key ); // it may be the member's own
   const Ptr< PtrInterface > member = take( object, of, removed.get() );
   if( !member ) return;
   if( of.form == Form::owned ) disownMember( static_cast< Entity & >( *member ) );
   announce( object, of, removed.get() );
}

const PtrInterface *
memberAfter( const void * object, const void * key, const CollectionOps & ops ) {
   const DynamicCollection & of = collectionOf( ops );
   if( !of.isOrdered ) {
      return hashed( object, of ).memberAfter( reversedHashOfKey( of, key ), key );
   }
   const RbNode * best = nullptr;
   for( const RbNode * node = ordered( object, of ).root(); node; ) {
      const bool isBehind = of.keyOps.less( key, of.keyOf( node ) );
      if( isBehind ) best = node;
      node = RbTree::child( node, !isBehind );
   }
   return best;
}

void
membersDel( void * object, const CollectionOps & ops ) {
   const DynamicCollection & of = collectionOf( ops );
   const Ptr< PtrInterface > self( static_cast< PtrInterface * >( object ) );
   const PtrInterface * member = ops.first( object );
   while( member ) {
      const AnyKey key( of.keyOps, of.keyOf( member ) );
      memberDel( object, key.get(), ops );
      member = memberAfter( object, key.get(), ops );
   }
}

// -- Order ------------------------------------------------------------------------------------

int
compareKeys( const DynamicCollection & of, const void * a, const void * b ) {
   const uint32_t hashA = reversedHashOfKey( of, a ), hashB = reversedHashOfKey( of, b );
   if( hashA != hashB ) return hashA < hashB ? -1 : 1;
   return of.keyOps.equal( a, b ) ? 0 : of.keyOps.less( a, b ) ? -1 : 1;
}

const DynamicCollection &
hashedBy( const HashTableOps & ops ) {
   return *static_cast< const DynamicCollection::Hashing & >( ops ).of;
}

uint32_t
roundedUp( size_t bytes, uint32_t alignment ) {
   return static_cast< uint32_t >( ( bytes + alignment - 1 ) & ~size_t( alignment - 1 ) );
}

} // namespace

// -- A collection -----------------------------------------------------------------------------

const void *
DynamicCollection::keyOf( const PtrInterface * member ) const {
   switch( form ) {
   case Form::values:
   case Form::set:
      return reinterpret_cast< const char * >( member ) + keyAt;
   case Form::fields:
      return placeOf( valueOf( *this, member ), *keyRow );
   case Form::owned:
   case Form::referred:
      break;
   }
   if( keyRow ) return keyRow->address( member );
   auto * entity = static_cast< const Entity * >( member );
   if( isDynamicEntity( *entity->fwkType() ) ) {
      return &static_cast< const DynamicEntity * >( entity )->key();
   }
   return &static_cast< const NamedEntity * >( entity )->fwkKey();
}

DynamicCollection::DynamicCollection( const TypeDescriptor & owner, const AttributeRow & served,
                                      Form wanted, const AttributeRow * by )
   : CollectionOps{},
     row( served ),
     form( wanted ),
     isOrdered( served.has( AttributeFlag::isOrdered ) ),
     keyOps( *served.keyType->values ),
     valueOps( wanted == Form::values || wanted == Form::fields ? served.type->values : nullptr ),
     keyRow( by ),
     hashing{},
     keyAt( form == Form::values || form == Form::set
               ? roundedUp( isOrdered ? sizeof( DynamicNode< RbNode > )
                                      : sizeof( DynamicNode< PtrInterface > ),
                            keyOps.alignment )
               : 0 ),
     valueAt( !valueOps ? 0
              : keyAt   ? roundedUp( keyAt + keyOps.size, valueOps->alignment )
                        : roundedUp( isOrdered ? sizeof( DynamicNode< RbNode > )
                                               : sizeof( DynamicNode< PtrInterface > ),
                                   valueOps->alignment ) ),
     nodeBytes( valueOps ? valueAt + valueOps->size : keyAt + keyOps.size ),
     nodeName( std::string( owner.fullName ) + "::" + served.name ),
     nodes( nodeName.c_str(), nodeBytes ) {
   hashing.of = this;
   hashing.reversedHashThunk = []( const PtrInterface * member, const HashTableOps & ops ) {
      const DynamicCollection & of = hashedBy( ops );
      return reversedHashOfKey( of, of.keyOf( member ) );
   };
   hashing.compareThunk = []( const PtrInterface * a, const void * b, const HashTableOps & ops ) {
      const DynamicCollection & of = hashedBy( ops );
      return compareKeys( of, of.keyOf( a ), b );
   };
   hashing.compareMembersThunk = []( const PtrInterface * a, const PtrInterface * b,
                                     const HashTableOps & ops ) {
      const DynamicCollection & of = hashedBy( ops );
      return compareKeys( of, of.keyOf( a ), of.keyOf( b ) );
   };
   countThunk = []( const void * object, const CollectionOps & ops ) {
      const DynamicCollection & of = collectionOf( ops );
      return of.isOrdered ? ordered( object, of ).count() : hashed( object, of ).count();
   };
   firstThunk = []( const void * object, const CollectionOps & ops ) -> const PtrInterface * {
      const DynamicCollection & of = collectionOf( ops );
      if( of.isOrdered ) return ordered( object, of ).firstMember();
      return hashed( object, of ).firstMember();
   };
   afterThunk = &memberAfter;
   findThunk = []( const void * object, const void * key, const CollectionOps & ops ) {
      return static_cast< const PtrInterface * >( memberUnder( object, collectionOf( ops ), key ) );
   };
   memberKeyThunk = []( const PtrInterface * member, const CollectionOps & ops ) {
      return collectionOf( ops ).keyOf( member );
   };
   if( valueOps ) {
      memberValueThunk = []( const PtrInterface * member, const CollectionOps & ops ) {
         return valueOf( collectionOf( ops ), member );
      };
   }
   isThunk = &memberIs;
   delThunk = &memberDel;
   delAllThunk = &membersDel;
   notifyThunk = []( void * object, const void * key, const CollectionOps & ops ) {
      announce( object, collectionOf( ops ), key );
   };
   if( !isOrdered ) {
      reserveThunk = []( void * object, size_t members, const CollectionOps & ops ) {
         const DynamicCollection & of = collectionOf( ops );
         hashed( object, of ).reserve( of.hashing, members );
      };
   }
   if( form == Form::fields ) {
      valueKeyThunk = []( const void * value, const CollectionOps & ops ) {
         return placeOf( value, *collectionOf( ops ).keyRow );
      };
   }
}

void
fillCollection( const TypeDescriptor & owner, AttributeRow & row, DynamicPart & part,
                DynamicCollection::Form form, const AttributeRow * keyRow ) {
   part.collection = std::make_unique< DynamicCollection >( owner, row, form, keyRow );
   row.collection = part.collection.get();
}

} // namespace Zek
