// A record as the value of its key: JSON that says all of it, for any reader.
//
//    { "type": "Ip::IpIntfStatus",
//      "instance": 2,                                    left out where it is 0
//      "args": { "l3Status": "l3.intf.status.intfStatus.eth0#1" },
//      "attrs": { "activeAddrWithMask": "10.0.0.1/24", "mtu": 1500 },
//      "members": { "activeSecondaryWithMask": [ [ "10.0.1.1/24", true ] ] }, a set's: [ key ]
//      "apart": [ "mcaddr" ] }
//
// Booleans and numbers are JSON's, values of several fields an object, all others their text form;
// bytes that are no UTF-8 stand as { "hex": "ff00" }. What is not owned is named by its key, and
// after "#" its instance where that is not 0; by {} where it stands in no tree. Members that are
// records have keys of their own, and so have those of collections that are "apart" for their size:
//
//    leaf1.ip.status._m.mcaddr.224=2E0=2E0=2E1          { "key": "224.0.0.1", "value": … }
//
// The instance of a record counts how often it was made anew under its key: what refers to an
// earlier one refers to something else.

#pragma once

#include "framework/Entity.h"
#include "framework/Generic.h"
#include "framework/Type.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace IpstateNats {

using Json = nlohmann::ordered_json;

/// What of a type goes into a record, base first. One per type, kept for good.
struct Shape {
   const Zek::TypeDescriptor * type;
   std::vector< const Zek::AttributeRow * > arguments;   // of the constructor, behind the key
   std::vector< const Zek::AttributeRow * > plain;       // stored, with a mutator; pointers too
   std::vector< const Zek::AttributeRow * > collections; // not of records that it owns
   std::vector< const Zek::AttributeRow * > owning;      // of these; the children last

   const Zek::AttributeRow * collection( std::string_view name ) const;
};
/// Null for a type that is not streamed. Of one whose changes nobody is told of, the key alone is.
const Shape * shapeOf( const Zek::TypeDescriptor & type );

/// How a record is referred to: its key, "#" and its instance. Empty for what stands in no tree
/// that is published.
using Referrer = std::function< std::string( const Zek::PtrInterface & ) >;

// -- Writing ----------------------------------------------------------------------------------

/// `apart` by number: collections that stand apart.
Json recordJson( const Zek::Entity & record, const Shape & shape, uint32_t instance,
                 const std::vector< uint16_t > & apart, const Referrer & referrer );
/// What of it tells one instance from another.
std::string identityOf( const Json & record );
/// A member of a collection that stands apart.
Json memberJson( const Zek::AttributeRow & row, const Zek::PtrInterface & member,
                 const Referrer & referrer );

// -- Reading ----------------------------------------------------------------------------------

/// A value of `type`. RangeException says what was expected for anything else.
Zek::GenericValue valueFromJson( const Zek::TypeDescriptor & type, const Json & json );
/// The text form that stands there: a string, { "hex": … }, a number or a boolean.
std::string textFromJson( const Json & json );

/// A reference apart: its key, and the instance that it means.
struct Reference {
   std::string key;
   uint32_t instance = 0;
};
Reference referenceFromText( std::string_view text );

/// Bounds of what a value may be, checked before it is read whole.
constexpr size_t longestValue = 1 << 20;
constexpr size_t deepestValue = 16;
/// The JSON of a value. RangeException for what is none, or too large or deep.
Json parsed( std::string_view value );

} // namespace IpstateNats
