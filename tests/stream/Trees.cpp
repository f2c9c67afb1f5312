#include "tests/stream/Trees.h"

#include "framework/Exception.h"
#include "framework/ValueOps.h"

#include <algorithm>
#include <map>
#include <set>

namespace ipstate::test {

using namespace Zek;

Shape::Shape( const TypeDescriptor & type ) : plan( type ), changed( plan.plain ) {
   for( auto * row : plan.collections ) {
      if( row->has( ownsMembers ) ) owning.push_back( row );
      // A child directory in every record would be more than anyone has.
      if( row->id != entityAttr || &type == &Dir::zekTypeDescriptor_ ) changed.push_back( row );
   }
}

const Shape &
shapeOf( const Entity & entity ) {
   static std::map< const TypeDescriptor *, Shape > shapes;
   const TypeDescriptor * type = entity.fwkType();
   auto at = shapes.find( type );
   if( at == shapes.end() ) at = shapes.emplace( type, *type ).first;
   return at->second;
}

const std::vector< const TypeDescriptor * > &
allRootTypes() {
   static const auto types = [] {
      std::vector< const TypeDescriptor * > found;
      forEachType(
         []( const TypeDescriptor & type, void * context ) {
            if( type.isEntity() && type.isNamed && type.hasAttrLog && type.isMade() &&
                type.kind == TypeKind::entity && type.constructorParameters.size() == 1 ) {
               static_cast< decltype( found ) * >( context )->push_back( &type );
            }
         },
         &found );
      std::sort( found.begin(), found.end(), []( auto * a, auto * b ) {
         return std::string_view( a->fullName ) < b->fullName;
      } );
      return found;
   }();
   return types;
}

const std::vector< const TypeDescriptor * > &
rootTypes() {
   static const auto types = [] {
      auto found = allRootTypes();
      std::erase_if( found, []( auto * type ) {
         return std::string_view( type->fullName ).starts_with( "Shapes::" );
      } );
      return found;
   }();
   return types;
}

namespace {

const Entity &
topOf( const Entity & entity ) {
   return EntityUriPath( entity ).root();
}

template< class T >
const T &
oneOf( Random & random, const std::vector< T > & all ) {
   return all[random.below( static_cast< uint32_t >( all.size() ) )];
}

/// A random entity of the type in the tree, or in another, or null.
Entity *
randomEntity( Random & random, const Entity & top, const TypeDescriptor & type,
              const Tops & others ) {
   std::vector< Entity * > found;
   auto add = [&]( const Entity & e ) {
      if( e.fwkType()->isA( type ) ) found.push_back( const_cast< Entity * >( &e ) );
   };
   forEachEntity( topOf( top ), add );
   for( const Entity::Ptr & other : others ) forEachEntity( *other, add );
   if( found.empty() || random.oneIn( 6 ) ) return nullptr;
   return oneOf( random, found );
}

void
changeChild( Random & random, Change & change ) {
   Entity & directory = *change.entity;
   auto keyIs = [&]( const String & name ) {
      change.key = AnyKey( valueOps< String >, &name );
      return name;
   };
   if( random.oneIn( 3 ) ) {
      std::vector< String > names;
      for( auto i = directory.entityIteratorConst(); i; ++i ) names.emplace_back( i.key().view() );
      if( names.empty() ) return;
      const String name = keyIs( oneOf( random, names ) );
      change.text = "Del " + name.toString();
      directory.entityDel( name );
      return;
   }
   const TypeDescriptor & type = *oneOf( random, rootTypes() );
   const Name name( random.oneIn( 3 ) ? std::string( 1, char( 'a' + random.below( 4 ) ) )
                                      : std::string( type.fullName ) );
   keyIs( String( name.view() ) );
   change.text = "Is " + std::string( name.view() ) + " a " + type.fullName;
   const void * arguments[] = { &name };
   Ptr< PtrInterface > made = type.create( arguments );
   directory.entityIs( Entity::Ptr( static_cast< Entity * >( made.ptr() ) ) );
}

void
addInstance( Random & random, Change & change, const Tops & others ) {
   Entity & entity = *change.entity;
   const TypeDescriptor & type = *change.row->type;
   std::vector< AnyKey > values;
   std::vector< Entity::Ptr > pointers( type.constructorParameters.size() );
   std::vector< const void * > arguments;
   for( size_t i = 1; i < type.constructorParameters.size(); ++i ) {
      const ParameterRow & parameter = type.constructorParameters[i];
      if( parameter.isPointer ) {
         pointers[i] = Entity::Ptr( randomEntity( random, entity, *parameter.type, others ) );
         arguments.push_back( &pointers[i] );
      } else {
         values.push_back( randomKey( random, *parameter.type ) );
         arguments.push_back( values.back().get() );
      }
   }
   change.row->collection->is( &entity, change.key.get(), arguments.data() );
}

bool
differsInArguments( const PtrInterface * a, const PtrInterface * b ) {
   auto & parameters = shapeOf( *static_cast< const Entity * >( a ) ).plan.parameters;
   return std::any_of( parameters.begin(), parameters.end(), [=]( auto * row ) {
      return !row->isWritable() && !row->stored->equal( row->address( a ), row->address( b ) );
   } );
}

void
changeMember( Random & random, Change & change, const Tops & others ) {
   Entity & entity = *change.entity;
   const AttributeRow & row = *change.row;
   const CollectionOps & ops = *row.collection;
   if( random.oneIn( 200 ) ) {
      change.text = "DelAll";
      ops.delAll( &entity );
      return;
   }
   if( row.id == entityAttr ) {
      changeChild( random, change );
      return;
   }
   change.key = randomKey( random, *row.keyType );
   const void * key = change.key.get();
   const bool replaces = row.has( ownsMembers ) && random.oneIn( 4 );
   const Ptr< const PtrInterface > before( replaces ? ops.find( &entity, key ) : nullptr );
   if( replaces || random.oneIn( 3 ) ) {
      change.text = replaces ? "Del and Is" : "Del";
      ops.del( &entity, key );
      if( !replaces ) return;
   } else {
      change.text = "Is";
   }
   if( row.has( refersToMembers ) ) {
      Entity::Ptr target( randomEntity( random, entity, *row.type, others ) );
      if( !target ) return;
      change.text += " -> " + target->fullName().toString();
      withMemberKey( row, target.ptr(),
                     [&]( const void * at ) { change.key = AnyKey( *row.keyType->values, at ); } );
      ops.is( &entity, &target, nullptr );
   } else if( row.has( ownsMembers ) ) {
      addInstance( random, change, others );
      const PtrInterface * after = ops.find( &entity, key ); // null: a reaction removed it
      change.otherwise = before && after && differsInArguments( before.ptr(), after );
   } else if( row.has( isSet ) ) {
      ops.is( &entity, key, nullptr );
   } else if( row.has( keyIsField ) ) {
      AnyKey value = randomKey( random, *row.type );
      change.key = AnyKey( *row.keyType->values, ops.valueKey( value.get() ) );
      ops.is( &entity, value.get(), nullptr );
   } else {
      AnyKey value = randomKey( random, *row.type );
      const void * arguments[] = { value.get() };
      ops.is( &entity, key, arguments );
   }
}

} // namespace

Change
mutate( Random & random, const Entity::Ptr & entity, const AttributeRow * wanted, bool describe,
        const Tops & others ) {
   Change change;
   change.entity = entity;
   const auto & rows = shapeOf( *entity ).changed;
   if( rows.empty() ) return change;
   const AttributeRow & row = wanted ? *wanted : *oneOf( random, rows );
   change.row = &row;
   const std::string where = describe ? EntityUriPath( *entity ).text() : "";
   std::string refusal;
   try {
      if( row.collection ) {
         changeMember( random, change, others );
      } else if( row.stored->hasWireForm() ) {
         AnyKey value = AnyKey::zero( *row.stored );
         randomise( random, row, value.get() );
         if( describe ) row.stored->append( value.get(), change.text );
         row.bring( entity.ptr(), value.get() );
      } else {
         Entity::Ptr target( randomEntity( random, *entity, *row.type, others ) );
         if( describe ) change.text = "-> " + ( target ? target->fullName().toString() : "null" );
         row.write( entity.ptr(), &target );
      }
   } catch( const RangeException & e ) {
      change.refused = true;
      refusal = e.what();
   } catch( const ReadOnlyException & e ) {
      change.readOnly = true;
      refusal = e.what();
   } catch( const std::bad_alloc & e ) {
      change.refused = !row.collection; // perhaps, on the way to saying why
      refusal = e.what();
   } catch( const std::exception & e ) {
      refusal = e.what();
   }
   if( describe ) {
      std::string text = where + "." + row.name;
      if( change.key.get() ) {
         text += "[";
         row.keyType->values->append( change.key.get(), text );
         text += "]";
      }
      change.text = text + " " + change.text + ( refusal.empty() ? "" : " threw " + refusal );
   }
   return change;
}

Change
mutate( Random & random, Entity & top, bool describe, const Tops & others ) {
   std::vector< Entity * > all;
   forEachEntity( top, [&]( const Entity & e ) { all.push_back( const_cast< Entity * >( &e ) ); } );
   // The directory itself now and then, so that there is something to change.
   Entity * entity = random.oneIn( 8 ) ? &top : oneOf( random, all );
   return mutate( random, Entity::Ptr( entity ), nullptr, describe, others );
}

Entity *
twinOf( const Entity & entity, const Entity & otherRoot ) {
   Wire::Buffer bytes;
   Wire::Encoder out( bytes );
   EntityUriPath( entity ).encodeTo( out );
   Wire::Decoder in( bytes.data(), bytes.size() );
   return EntityUriPath::resolve( otherRoot, in );
}

std::string
placeOf( const Entity & entity, const AttributeRow & row, const void * key ) {
   std::string text = EntityUriPath( entity ).text();
   if( row.id == entityAttr && key ) {
      return text + "/" + static_cast< const String * >( key )->toString();
   }
   text += row.has( ownsMembers ) ? '/' : '.';
   text += row.name;
   if( !key ) return text;
   text += '[';
   row.keyType->values->append( key, text );
   return text += ']';
}

// -- Comparison -------------------------------------------------------------------------------

namespace {

constexpr const char * outside = "(outside)";

std::string
pathOf( const PtrInterface * target, const Entity & top ) {
   if( !target ) return "null";
   auto & entity = *static_cast< const Entity * >( target );
   if( &topOf( entity ) != &top ) return outside;
   return EntityUriPath( entity ).text();
}

std::string
storedText( const AttributeRow & row, const Entity & entity, const Entity & top ) {
   const void * value = row.address( &entity );
   if( !row.stored->hasWireForm() )
      return pathOf( *static_cast< PtrInterface * const * >( value ), top );
   std::string text;
   row.stored->append( value, text );
   return text;
}

struct Comparison {
   const Entity & sourceTop;
   const Entity & copyTop;
   Depth depth;
   std::vector< Difference > found;

   void differs( std::string place, std::string what, bool ofInstance = false,
                 bool waits = false ) {
      found.push_back( { std::move( place ), std::move( what ), ofInstance, waits } );
   }

   /// Whether the pointer leads to what the copy does not have, so that it waits there; or to what
   /// stands in no tree: that it left its tree is told to nobody, and it may have been waited for.
   bool waits( const AttributeRow & row, const Entity & source ) const {
      auto * target = *static_cast< PtrInterface * const * >( row.address( &source ) );
      return target && isAbsent( *static_cast< const Entity * >( target ) );
   }
   bool isAbsent( const Entity & target ) const {
      return &topOf( target ) != &sourceTop || !twinOf( target, copyTop );
   }
   bool waitsForArgument( const PtrInterface * member ) const {
      auto & entity = *static_cast< const Entity * >( member );
      for( auto * row : shapeOf( entity ).plan.parameters ) {
         if( !row->stored->hasWireForm() && waits( *row, entity ) ) return true;
      }
      return false;
   }

   /// Notes when the values differ as far as anyone can be told.
   void compareStored( const AttributeRow & row, const Entity & source, const Entity & copy,
                       std::string place, bool ofInstance ) {
      if( row.stored->hasWireForm() &&
          row.stored->equal( row.address( &source ), row.address( &copy ) ) ) {
         return;
      }
      std::string expected = storedText( row, source, sourceTop );
      std::string actual = storedText( row, copy, copyTop );
      if( expected == actual ) return;
      const bool waiting = !row.stored->hasWireForm() && waits( row, source );
      if( expected == outside && actual == "null" ) return;
      if( actual == outside && expected == "null" && row.kind != AttributeKind::pointer ) return;
      differs( std::move( place ), std::string( row.name ) + ": " + expected + ", copy " + actual,
               ofInstance, waiting );
   }

   void compareMember( const AttributeRow & row, const Entity & source, const Entity & copy,
                       const PtrInterface * member, const void * key ) {
      const CollectionOps & ops = *row.collection;
      const PtrInterface * twin = ops.find( &copy, key );
      if( row.has( refersToMembers ) && isAbsent( *static_cast< const Entity * >( member ) ) ) {
         if( twin ) differs( placeOf( source, row, key ), "waits", false, true );
         return;
      }
      if( !twin ) {
         const bool waits = row.has( ownsMembers ) && waitsForArgument( member );
         differs( placeOf( source, row, key ), "missing", row.has( ownsMembers ), waits );
      } else if( row.has( ownsMembers ) ) {
         compare( *static_cast< const Entity * >( member ), *static_cast< const Entity * >( twin ),
                  depth == Depth::entries ? 1 : 0 );
      } else if( row.has( refersToMembers ) ) {
         if( pathOf( member, sourceTop ) != pathOf( twin, copyTop ) ) {
            // Told of as a removal and another one.
            differs( placeOf( source, row, key ), "-> " + pathOf( twin, copyTop ), true );
         }
      } else if( ops.hasMemberValue() &&
                 !row.type->values->equal( ops.memberValue( member ), ops.memberValue( twin ) ) ) {
         differs( placeOf( source, row, key ), "has another value" );
      }
   }

   void compareMembers( const AttributeRow & row, const Entity & source, const Entity & copy ) {
      const CollectionOps & ops = *row.collection;
      auto each = [&]( const Entity & of, auto visit ) {
         const PtrInterface * member = ops.first( &of );
         while( member ) {
            member = withMemberKey( row, member, [&]( const void * key ) {
               visit( member, key );
               return ops.after( &of, key );
            } );
         }
      };
      each( source, [&]( const PtrInterface * member, const void * key ) {
         compareMember( row, source, copy, member, key );
      } );
      each( copy, [&]( const PtrInterface *, const void * key ) {
         if( ops.find( &source, key ) ) return;
         differs( placeOf( source, row, key ), "too many", row.has( ownsMembers ) );
      } );
   }

   /// `level`: 1 where only what makes the instance is told.
   void compare( const Entity & source, const Entity & copy, int level ) {
      if( source.fwkType() != copy.fwkType() ) {
         differs( EntityUriPath( source ).text(),
                  std::string( "is a " ) + source.fwkType()->fullName + ", copy a " +
                     copy.fwkType()->fullName,
                  true );
         return;
      }
      const Shape & shape = shapeOf( source );
      for( auto * row : shape.plan.parameters ) {
         // One with a mutator is content.
         if( !row->isWritable() ) {
            compareStored( *row, source, copy, EntityUriPath( source ).text(), true );
         }
      }
      if( level == 1 || !source.zekHasAttrLogInterface() ) return;
      if( depth == Depth::all ) {
         for( auto * row : shape.plan.plain ) {
            compareStored( *row, source, copy, placeOf( source, *row, nullptr ), false );
         }
      }
      for( auto * row : shape.plan.collections ) {
         if( depth == Depth::all || row->has( ownsMembers ) ) compareMembers( *row, source, copy );
      }
   }
};

} // namespace

std::vector< Difference >
differences( const Entity * source, const Entity * copy, Depth depth ) {
   if( !source && !copy ) return {};
   if( !source || !copy ) {
      return { { EntityUriPath( source ? *source : *copy ).text(), source ? "missing" : "too many",
                 true, false } };
   }
   Comparison comparison{ topOf( *source ), topOf( *copy ), depth, {} };
   comparison.compare( *source, *copy, 0 );
   return std::move( comparison.found );
}

} // namespace ipstate::test
