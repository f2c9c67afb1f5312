#include "tests/stream/Trees.h"

#include <algorithm>
#include <set>

namespace ipstate::test {

using namespace Zek;

namespace {

const std::vector< const TypeDescriptor * > &
rootTypes() {
   static const auto types = [] {
      std::vector< const TypeDescriptor * > found;
      forEachType(
         []( const TypeDescriptor & type, void * context ) {
            if( type.isEntity() && type.isNamed && type.hasAttrLog && type.create &&
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

const Entity &
topOf( const Entity & entity ) {
   return EntityUriPath( entity ).root();
}

/// A random entity of the type in the tree, or null.
Entity *
randomEntity( Random & random, const Entity & top, const TypeDescriptor & type ) {
   std::vector< Entity * > found;
   walk( topOf( top ), [&]( const Entity & e ) {
      if( e.fwkType()->isA( type ) ) found.push_back( const_cast< Entity * >( &e ) );
   } );
   if( found.empty() || random.oneIn( 6 ) ) return nullptr;
   return found[random.below( static_cast< uint32_t >( found.size() ) )];
}

std::string
changeMember( Random & random, Entity & entity, const AttributeRow & row ) {
   const CollectionOps & ops = *row.collection;
   if( random.oneIn( 200 ) ) {
      ops.delAll( &entity );
      return "DelAll";
   }
   if( row.id == entityAttr ) {
      if( random.oneIn( 3 ) ) {
         const PtrInterface * child = ops.first( &entity );
         if( !child ) return "nothing";
         std::vector< String > names;
         walk( entity, [&]( const Entity & e ) {
            if( e.parent() == &entity ) names.push_back( String( e.name().view() ) );
         } );
         const String & name = names[random.below( static_cast< uint32_t >( names.size() ) )];
         ops.del( &entity, &name );
         return "Del " + name.toString();
      }
      auto & types = rootTypes();
      const TypeDescriptor & type = *types[random.below( static_cast< uint32_t >( types.size() ) )];
      const Name name( random.oneIn( 3 ) ? std::string( 1, char( 'a' + random.below( 4 ) ) )
                                         : std::string( type.fullName ) );
      const void * arguments[] = { &name };
      Ptr< PtrInterface > made = type.create( arguments );
      entity.entityIs( Entity::Ptr( static_cast< Entity * >( made.ptr() ) ) );
      return "Is " + name.toString() + " a " + type.fullName;
   }
   AnyKey key = randomKey( random, *row.keyType );
   std::string keyText;
   row.keyType->values->append( key.get(), keyText );
   if( random.oneIn( 3 ) ) {
      ops.del( &entity, key.get() );
      return "Del " + keyText;
   }
   if( row.has( refersToMembers ) ) {
      Entity::Ptr target( randomEntity( random, entity, *row.type ) );
      if( !target ) return "nothing";
      ops.is( &entity, &target, nullptr );
      return "Is -> " + target->fullName().toString();
   }
   if( row.has( ownsMembers ) ) {
      const TypeDescriptor & type = *row.type;
      std::vector< AnyKey > values;
      std::vector< Entity::Ptr > pointers( type.constructorParameters.size() );
      std::vector< const void * > arguments;
      for( size_t i = 1; i < type.constructorParameters.size(); ++i ) {
         const ParameterRow & parameter = type.constructorParameters[i];
         if( parameter.isPointer ) {
            pointers[i] = Entity::Ptr( randomEntity( random, entity, *parameter.type ) );
            arguments.push_back( &pointers[i] );
         } else {
            values.push_back( randomKey( random, *parameter.type ) );
            arguments.push_back( values.back().get() );
         }
      }
      ops.is( &entity, key.get(), arguments.data() );
      return "Is " + keyText;
   }
   if( row.has( isSet ) ) {
      ops.is( &entity, key.get(), nullptr );
      return "Is " + keyText;
   }
   AnyKey value = randomKey( random, *row.type );
   const void * arguments[] = { value.get() };
   if( row.has( keyIsField ) ) {
      ops.is( &entity, value.get(), nullptr );
   } else {
      ops.is( &entity, key.get(), arguments );
   }
   return "Is " + keyText + " value";
}

} // namespace

Dir::Ptr
makeTree() {
   Dir::Ptr root = dirFactory();
   root->dirIs( "all" );
   return root;
}

std::string
mutate( Random & random, Entity & top ) {
   std::vector< Entity::Ptr > all;
   walk( top, [&]( const Entity & e ) { all.emplace_back( const_cast< Entity * >( &e ) ); } );
   // The directory itself now and then, so that there is something to change.
   Entity::Ptr entity =
      random.oneIn( 8 ) ? all.front() : all[random.below( static_cast< uint32_t >( all.size() ) )];
   NboAttrLog::Plan plan( *entity->fwkType() );
   std::vector< const AttributeRow * > rows = plan.plain;
   for( auto * row : plan.collections ) {
      // A child directory in every record would be more than anyone has.
      if( row->id != entityAttr || entity->fwkType() == &Dir::zekTypeDescriptor_ ) {
         rows.push_back( row );
      }
   }
   if( rows.empty() ) return "nothing";
   const AttributeRow & row = *rows[random.below( static_cast< uint32_t >( rows.size() ) )];
   std::string what = EntityUriPath( *entity ).text() + "." + row.name + " ";
   try {
      if( row.collection ) {
         what += changeMember( random, *entity, row );
      } else if( row.stored->encode ) {
         AnyKey value = AnyKey::zero( *row.stored );
         randomise( random, row, value.get() );
         row.write( entity.ptr(), value.get() );
         std::string text;
         row.stored->append( value.get(), text );
         what += "= " + text;
      } else {
         Entity::Ptr target( randomEntity( random, *entity, *row.type ) );
         row.write( entity.ptr(), &target );
         what += "-> " + ( target ? target->fullName().toString() : "null" );
      }
   } catch( const std::exception & e ) {
      what += std::string( " threw " ) + e.what();
   }
   return what;
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
   if( !row.stored->encode ) return pathOf( *static_cast< PtrInterface * const * >( value ), top );
   std::string text;
   row.stored->append( value, text );
   return text;
}

struct Comparison {
   const Entity & sourceTop;
   const Entity & copyTop;
   std::string found;

   void differs( const Entity & where, const std::string & what ) {
      found += EntityUriPath( where ).text() + " " + what + "\n";
   }

   void compareStored( const AttributeRow & row, const Entity & source, const Entity & copy ) {
      std::string expected = storedText( row, source, sourceTop );
      if( expected == outside ) return;
      std::string actual = storedText( row, copy, copyTop );
      if( actual == outside && expected == "null" && row.kind != AttributeKind::pointer ) return;
      if( expected != actual ) {
         differs( source, std::string( row.name ) + ": " + expected + ", copy " + actual );
      }
   }

   void compareMembers( const AttributeRow & row, const Entity & source, const Entity & copy ) {
      const CollectionOps & ops = *row.collection;
      const PtrInterface * member = ops.first( &source );
      while( member ) {
         member = withMemberKey( row, member, [&]( const void * key ) {
            std::string text( row.name );
            text += "[";
            row.keyType->values->append( key, text );
            text += "]";
            const PtrInterface * twin = ops.find( &copy, key );
            bool untold = row.has( refersToMembers ) && pathOf( member, sourceTop ) == outside;
            if( untold ) {
               // nobody can be told of it
            } else if( !twin ) {
               differs( source, text + " missing" );
            } else if( row.has( ownsMembers ) ) {
               compare( *static_cast< const Entity * >( member ),
                        *static_cast< const Entity * >( twin ) );
            } else if( row.has( refersToMembers ) ) {
               if( pathOf( member, sourceTop ) != pathOf( twin, copyTop ) ) {
                  differs( source, text + " -> " + pathOf( twin, copyTop ) );
               }
            } else if( ops.memberValue && !row.type->values->equal( ops.memberValue( member ),
                                                                    ops.memberValue( twin ) ) ) {
               differs( source, text + " has another value" );
            }
            return ops.after( &source, key );
         } );
      }
      member = ops.first( &copy );
      while( member ) {
         member = withMemberKey( row, member, [&]( const void * key ) {
            if( !ops.find( &source, key ) ) {
               std::string text( row.name );
               text += "[";
               row.keyType->values->append( key, text );
               differs( source, text + "] too many" );
            }
            return ops.after( &copy, key );
         } );
      }
   }

   void compare( const Entity & source, const Entity & copy ) {
      if( source.fwkType() != copy.fwkType() ) {
         differs( source, std::string( "is a " ) + source.fwkType()->fullName + ", copy a " +
                             copy.fwkType()->fullName );
         return;
      }
      if( !source.zekHasAttrLogInterface() ) return;
      NboAttrLog::Plan plan( *source.fwkType() );
      for( auto * row : plan.parameters ) compareStored( *row, source, copy );
      for( auto * row : plan.plain ) compareStored( *row, source, copy );
      for( auto * row : plan.collections ) compareMembers( *row, source, copy );
   }
};

} // namespace

std::string
difference( const Entity & source, const Entity & copy ) {
   Comparison comparison{ topOf( source ), topOf( copy ), {} };
   comparison.compare( source, copy );
   return comparison.found;
}

} // namespace ipstate::test
