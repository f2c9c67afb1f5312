#include "framework/inspect/Place.h"

#include <algorithm>

namespace Zek::Inspect {

namespace {

using Places = std::vector< Place >;

Place
recordPlace( const PtrInterface & object, std::string path ) {
   Place place;
   place.object = Ptr< const PtrInterface >( &object );
   place.path = std::move( path );
   return place;
}

/// By its own path where it stands in a tree: what a reference leads to has but one name.
Place
targetPlace( const PtrInterface & object, const std::string & asReached ) {
   const auto entity = dynamic_cast< const Entity * >( &object );
   return recordPlace( object, entity && entity->parent() ? pathOf( *entity ) : asReached );
}

std::string
attributePath( const Place & at, std::string_view name ) {
   return at.path.empty() ? "." + std::string( name ) : at.path + "." + std::string( name );
}

/// The member of `row` that `key` picks, or nothing.
void
addMember( const Place & at, const AttributeRow & row, const PtrInterface & member,
           const void * key, Places & out ) {
   std::string text;
   row.keyType->values->append( key, text );
   const std::string path = memberPath( at.path, row, &member, text );
   if( holdsRecords( row ) ) {
      out.push_back( recordPlace( member, path ) );
      return;
   }
   Place place = at;
   place.kind = Place::Kind::value;
   place.row = &row;
   place.key = GenericValue::fromText( *row.keyType, text );
   place.path = path;
   out.push_back( std::move( place ) );
}

Places
membersAt( const Place & at, const AttributeRow & row, const Step & step ) {
   Places found;
   if( step.pick == Step::Pick::none ) {
      Place place = at;
      place.kind = Place::Kind::collection;
      place.row = &row;
      place.path = row.has( ownsMembers ) || row.has( refersToMembers )
                      ? joined( at.path, row.name )
                      : attributePath( at, row.name );
      found.push_back( std::move( place ) );
   } else if( step.pick == Step::Pick::one ) {
      const GenericValue key = keyFromText( *row.keyType, step.key );
      const void * address = key.address();
      if( const auto * member = row.collection->find( at.object.ptr(), address ) ) {
         addMember( at, row, *member, address, found );
      }
   } else {
      for( const Member & member : membersOf( *at.object, row ) ) {
         withMemberKey( row, member.object.ptr(), [&]( const void * key ) {
            addMember( at, row, *member.object, key, found );
         } );
      }
   }
   return found;
}

/// A named member of a collection that the record owns.
const Entity *
namedMember( const Place & at, const std::string & name ) {
   for( const AttributeRow * row : rowsOf( at.type() ) ) {
      if( row->kind != AttributeKind::collection || !row->has( ownsMembers ) ) continue;
      const PtrInterface * member = nullptr;
      try {
         const GenericValue key = keyFromText( *row->keyType, name );
         member = row->collection->find( at.object.ptr(), key.address() );
      } catch( const Exception & ) {
         continue; // no such key
      }
      const auto entity = dynamic_cast< const Entity * >( member );
      if( entity && entity->name().view() == name ) return entity;
   }
   return nullptr;
}

Places
fieldAt( const Place & at, const Step & step ) {
   const TypeDescriptor & type = typeAt( at );
   const AttributeRow * field = type.genericIf ? type.attribute( step.name ) : nullptr;
   if( !field || field->kind == AttributeKind::callable || step.pick != Step::Pick::none ) {
      return {};
   }
   Place place = at;
   place.fields.push_back( field );
   place.path += "." + step.name;
   return { place };
}

std::vector< std::string >
namesAt( const Place & at, bool attributesOnly ) {
   std::vector< std::string > names;
   if( at.kind == Place::Kind::value ) {
      for( const AttributeRow * row : rowsOf( typeAt( at ) ) ) {
         if( row->kind != AttributeKind::callable ) names.push_back( row->name );
      }
      return names;
   }
   if( at.kind == Place::Kind::collection ) return names;
   for( const AttributeRow * row : rowsOf( at.type() ) ) {
      if( row->id != entityAttr && ( row->id > entityAttr || attributesOnly ) ) {
         names.push_back( row->name );
      }
      if( row->kind != AttributeKind::collection || !row->has( ownsMembers ) || attributesOnly ) {
         continue;
      }
      forEachMember( *at.object, *row, [&]( const PtrInterface & member, const void * ) {
         const auto entity = dynamic_cast< const Entity * >( &member );
         if( entity && !entity->name().empty() ) {
            names.emplace_back();
            appendName( entity->name().view(), names.back() );
         }
      } );
   }
   return names;
}

[[noreturn]] void
throwMissing( const Place & at, const Step & step ) {
   const std::string where = at.path.empty() ? "the root" : "'" + printable( at.path ) + "'";
   const bool isValue = at.kind == Place::Kind::value;
   const TypeDescriptor & type = isValue ? typeAt( at ) : at.type();
   std::string text;
   const AttributeRow * row =
      at.kind == Place::Kind::record ? at.type().attribute( step.name ) : nullptr;
   if( row && row->collection && step.pick == Step::Pick::one ) {
      text = "no '" + printable( row->name ) + "[" + printable( step.key ) + "]' in " + where;
      std::vector< std::string > keys;
      for( const Member & member : membersOf( *at.object, *row ) ) keys.push_back( member.key );
      const std::string near = nearest( step.key, keys );
      if( !near.empty() ) text += "; the nearest is '" + printable( near ) + "'";
   } else if( row && row->kind == AttributeKind::pointer ) {
      text = "'" + printable( at.path ) + "." + row->name + "' is null";
   } else {
      text = "no '" + printable( step.name ) + "' in " + where + " (" + type.fullName + ")";
      const std::string near = nearest( step.name, namesAt( at, step.isAttribute ) );
      if( !near.empty() ) text += "; the nearest is '" + printable( near ) + "'";
   }
   throw NotFoundException( text );
}

} // namespace

GenericValue
keyFromText( const TypeDescriptor & type, std::string_view text ) {
   if( &type == &TypeOf< String >::descriptor ) {
      // As a text of its own, or in quotes as among other values.
      String bytes;
      return GenericValue( readText( text, bytes ) ? bytes : String( text ) );
   }
   return GenericValue::fromText( type, text );
}

const TypeDescriptor &
typeAt( const Place & place ) {
   if( !place.fields.empty() ) return *place.fields.back()->type;
   if( place.kind == Place::Kind::record ) return place.type();
   const bool isSetMember = !place.key.isNothing() && place.row->has( isSet );
   return isSetMember ? *place.row->keyType : *place.row->type;
}

GenericValue
valueAt( const Place & place, const AttributeRow ** set ) {
   GenericValue value;
   if( place.key.isNothing() ) {
      value = read( *place.object, *place.row );
   } else {
      const void * key = place.key.address();
      const PtrInterface * member = place.row->collection->find( place.object.ptr(), key );
      if( !member ) return {};
      const GenericIf & generic = *place.type().genericIf;
      value = place.row->has( isSet )
                 ? place.key
                 : generic.genericIfAttributeOp( *place.object, GenericOperation::lookUp,
                                                 place.row->id, { place.key } );
   }
   if( set ) *set = nullptr;
   for( const AttributeRow * field : place.fields ) {
      if( field->kind == AttributeKind::collection ) {
         if( set ) *set = field;
         return value;
      }
      value = read( std::as_const( value ), *field );
   }
   return value;
}

Place
followed( const Place & place ) {
   if( place.kind != Place::Kind::value ) return place;
   const GenericValue value = valueAt( place );
   if( !value.isPointer() ) return place;
   if( !value.object() ) throw NotFoundException( "'" + printable( place.path ) + "' is null" );
   return targetPlace( *value.object(), place.path );
}

std::vector< Place >
stepFrom( const Place & from, const std::vector< Step > & steps, size_t index, size_t * used ) {
   *used = 1;
   const Step & step = steps[index];
   Place at = from;
   if( at.kind == Place::Kind::value ) {
      const GenericValue value = valueAt( at );
      if( !value.isPointer() ) return fieldAt( at, step );
      if( !value.object() ) return {};
      at = targetPlace( *value.object(), at.path );
   }
   if( at.kind == Place::Kind::collection ) return {};
   const Entity * entity = at.entity();
   if( entity && !step.isAttribute ) {
      // A name with dots, the longest first.
      size_t last = index;
      while( !step.isQuoted && steps[last].pick == Step::Pick::none && last + 1 < steps.size() &&
             steps[last + 1].isAttribute && !steps[last + 1].isQuoted ) {
         ++last;
      }
      for( ; last > index; --last ) {
         if( steps[last].pick != Step::Pick::none ) continue;
         std::string name = step.name;
         for( size_t i = index + 1; i <= last; ++i ) name += "." + steps[i].name;
         Step whole;
         whole.name = name;
         whole.isQuoted = true;
         Ptr< const Entity > child = entity->entity( String( name ) );
         if( !child ) child = Ptr< const Entity >( namedMember( at, name ) );
         if( !child ) continue;
         *used = last - index + 1;
         std::string path = at.path;
         if( !path.empty() ) path += '/';
         appendName( name, path );
         return { recordPlace( *child, path ) };
      }
   }
   if( entity && !step.isAttribute && step.pick == Step::Pick::none ) {
      Ptr< const Entity > child = entity->entity( String( step.name ) );
      if( !child ) child = Ptr< const Entity >( namedMember( at, step.name ) );
      if( child ) {
         std::string path = at.path;
         if( !path.empty() ) path += '/';
         appendName( step.name, path );
         return { recordPlace( *child, path ) };
      }
   }
   const AttributeRow * row = at.type().attribute( step.name );
   if( !row || row->kind == AttributeKind::callable ) return {};
   if( row->collection ) return membersAt( at, *row, step );
   if( step.pick != Step::Pick::none || row->has( abortsOnRead ) ) return {};
   Place place = at;
   place.kind = Place::Kind::value;
   place.row = row;
   place.path = attributePath( at, row->name );
   return { place };
}

std::vector< Place >
placesAt( const Entity & root, const Path & path ) {
   Places found;
   std::vector< std::pair< Place, size_t > > open{ { recordPlace( root, "" ), 0 } };
   bool manyPicked = false;
   // Depth first, so that the order is that of the tree.
   while( !open.empty() ) {
      auto [at, index] = std::move( open.back() );
      open.pop_back();
      if( index == path.steps().size() ) {
         found.push_back( std::move( at ) );
         continue;
      }
      size_t used;
      Places next = stepFrom( at, path.steps(), index, &used );
      const Step & step = path.steps()[index];
      if( step.pick == Step::Pick::all && !next.empty() ) manyPicked = true;
      if( next.empty() && !manyPicked ) {
         const AttributeRow * row =
            at.kind == Place::Kind::record ? at.type().attribute( step.name ) : nullptr;
         const bool isEmpty = step.pick == Step::Pick::all && row && row->collection;
         if( !isEmpty ) throwMissing( at.kind == Place::Kind::value ? followed( at ) : at, step );
      }
      for( auto i = next.rbegin(); i != next.rend(); ++i ) {
         open.emplace_back( std::move( *i ), index + used );
      }
   }
   return found;
}

Place
placeAt( const Entity & root, const Path & path ) {
   if( path.picksAll() ) {
      throwRangeException( "path '" + path.text() + "': expected one that names one thing" );
   }
   return placesAt( root, path ).front();
}

std::vector< std::string >
completions( const Entity & root, std::string_view text ) {
   // What is whole already, and where the last step begins.
   size_t open = std::string_view::npos, last = 0;
   bool quoted = false;
   for( size_t i = 0; i < text.size(); ++i ) {
      if( text[i] == '"' ) quoted = !quoted;
      if( quoted ) continue;
      if( text[i] == '[' ) open = i;
      if( text[i] == ']' ) open = text.npos;
      if( ( text[i] == '/' || text[i] == '.' ) && open == text.npos ) last = i + 1;
   }
   std::vector< std::string > candidates;
   try {
      if( open != text.npos ) {
         const Place place = placeAt( root, text.substr( 0, open ) );
         if( place.kind != Place::Kind::collection ) return {};
         const std::string before( text.substr( 0, open + 1 ) );
         for( const Member & member : membersOf( *place.object, *place.row ) ) {
            std::string candidate = before;
            appendKey( member.key, candidate );
            candidates.push_back( candidate + "]" );
         }
      } else {
         const std::string before( text.substr( 0, last ) );
         const bool isAttribute = last > 0 && text[last - 1] == '.';
         const Place place = followed( placeAt( root, text.substr( 0, last ? last - 1 : 0 ) ) );
         if( place.kind == Place::Kind::record ) {
            for( const AttributeRow * row : rowsOf( place.type() ) ) {
               if( row->id <= entityAttr || row->kind == AttributeKind::callable ) continue;
               if( row->kind == AttributeKind::collection ) {
                  candidates.push_back( before + row->name + "[" );
               } else if( isAttribute || row->kind == AttributeKind::pointer ) {
                  candidates.push_back( before + row->name );
               }
            }
            if( !isAttribute ) {
               for( const std::string & name : namesAt( place, false ) ) {
                  if( !place.type().attribute( name ) ) candidates.push_back( before + name );
               }
            }
         } else if( place.kind == Place::Kind::value && isAttribute ) {
            for( const std::string & name : namesAt( place, true ) ) {
               candidates.push_back( before + name );
            }
         }
      }
   } catch( const Exception & ) {
      return {}; // nothing begins so
   }
   std::erase_if( candidates,
                  [&]( const std::string & each ) { return !each.starts_with( text ); } );
   std::sort( candidates.begin(), candidates.end(), comesBefore );
   candidates.erase( std::unique( candidates.begin(), candidates.end() ), candidates.end() );
   return candidates;
}

} // namespace Zek::Inspect
