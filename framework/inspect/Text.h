// Values as people write them: what tools print and take.
//
// Scalars, names and addresses are their text. A value of several fields is its first field,
// then the others that are not zero, each with its name:
//
//    strict
//    loose acl=edge
//    224.0.0.251 application={mdns,"a b"}
//
// A pointer is the path of what it points to, or null.

#pragma once

#include "framework/GenericValue.h"
#include "framework/inspect/Path.h"

#include <string>
#include <string_view>

namespace Zek::Inspect {

IPSTATE_EXPORT std::string textOf( const GenericValue & value );
/// Of a value at an address.
IPSTATE_EXPORT std::string textOf( const TypeDescriptor & type, const void * value );
/// The keys of a set inside a value.
IPSTATE_EXPORT std::string textOfSet( const GenericValue & value, const AttributeRow & set );

/// Reads that form, or the type's own; RangeException says what was expected. Pointers are paths
/// below `root`; NotFoundException for one that leads to no record.
IPSTATE_EXPORT GenericValue valueFromText( const TypeDescriptor & type, std::string_view text,
                                           bool asPointer, const Entity & root );

} // namespace Zek::Inspect
