// Records and values as JSON.
//
// A record is an object: its path as "fullName", its type as "fwkType", then its attributes in the
// order of their declaration, without constants and operations, and its children by their names.
// Numbers and truth values are such, values of several fields are objects, sets arrays, other
// collections objects in the order of their keys. What a record refers to and does not own stands
// as its path, null as null. A text that is no UTF-8 has its odd bytes written as \xNN; infinite
// numbers and NaN are texts. A child with the name of an attribute stands as "entity[name]".

#pragma once

#include "framework/inspect/Place.h"
#include "tools/print/JsonText.h"

#include <climits>
#include <string>
#include <vector>

namespace Print {

/// How much of a record is shown.
struct Extent {
   int depth = INT_MAX;                     ///< owned records below it, this many levels of them
   std::vector< std::string > attributes{}; ///< those alone, in their order; empty: all
};

void writeJson( JsonText & json, const Zek::GenericValue & value );
void writeJson( JsonText & json, const Zek::PtrInterface & record, const Extent & extent = {} );
/// What stands at the place; a collection as within its record.
void writeJson( JsonText & json, const Zek::Inspect::Place & place, const Extent & extent = {} );

/// The same as a text of its own, a member a line.
std::string jsonOf( const Zek::PtrInterface & record );

/// The attributes that an extent shows of a type, in its order. Zek::Inspect::NotFoundException
/// for a name that is none.
std::vector< const Zek::AttributeRow * > shownRows( const Zek::TypeDescriptor & type,
                                                    const Extent & extent );

} // namespace Print
