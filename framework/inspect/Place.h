// What stands at a path: records, collections, and values down to a field.

#pragma once

#include "framework/inspect/Path.h"
#include "framework/inspect/Reflect.h"

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace Zek::Inspect {

/// One thing that a path names. Keeps it alive.
struct Place {
   enum class Kind : uint8_t {
      record,     // `object`
      collection, // `row` of `object`
      value,      // attribute `row` of `object`, or a member of it under `key`; then `fields`
   };
   Kind kind = Kind::record;
   Ptr< const PtrInterface > object;
   const AttributeRow * row = nullptr;
   GenericValue key; // nothing: no member
   std::vector< const AttributeRow * > fields;
   std::string path; // as it is printed

   const TypeDescriptor & type() const { return *object->fwkType(); }
   const Entity * entity() const { return dynamic_cast< const Entity * >( object.ptr() ); }
};

/// What a value's place holds now; nothing for a member that is gone, and for a member of a set
/// its key. A set inside a value is given as the value that it stands in, `set` as its row.
IPSTATE_EXPORT GenericValue valueAt( const Place & place, const AttributeRow ** set = nullptr );
/// The type of what valueAt() gives.
IPSTATE_EXPORT const TypeDescriptor & typeAt( const Place & place );
/// Where a pointer leads: the record. Any other place is itself. NotFoundException for null.
IPSTATE_EXPORT Place followed( const Place & place );

/// What stands at the path below `root`, in the order of the tree. NotFoundException when a step
/// is missing, unless a step before it picked all.
IPSTATE_EXPORT std::vector< Place > placesAt( const Entity & root, const Path & path );
/// The same of a path that names one thing.
IPSTATE_EXPORT Place placeAt( const Entity & root, const Path & path );
inline Place
placeAt( const Entity & root, std::string_view path ) {
   return placeAt( root, Path( path ) );
}

/// One step further; empty when it leads nowhere. `used` is how many of the steps from `step` on
/// it took: a name with dots takes several.
IPSTATE_EXPORT std::vector< Place > stepFrom( const Place & at, const std::vector< Step > & steps,
                                              size_t step, size_t * used );

/// A key as people type it: the text form, or for strings the bytes alone. RangeException.
IPSTATE_EXPORT GenericValue keyFromText( const TypeDescriptor & type, std::string_view text );

/// What can stand next after an unfinished path: whole paths, each of which begins with it.
IPSTATE_EXPORT std::vector< std::string > completions( const Entity & root, std::string_view path );

} // namespace Zek::Inspect
