// The path language: how people and programs name what stands in a tree.
//
//    ip/status                                          a record
//    ip/status/ipIntfStatus[eth0]                       a member of a collection
//    ip/status/ipIntfStatus[eth0].activeAddrWithMask    an attribute
//    ip/status/ipIntfStatus[eth0].urpf.mode             a field of a value
//    ip/status/ipIntfStatus[*].vrf                      of every member
//
//    path = [ "/" ] [ step { ( "/" | "." ) step } ]     empty: the root
//    step = name [ "[" ( key | "*" ) "]" ]
//
// A name or key stands bare where it can; else in double quotes, in which \" \\ and \xNN are
// escapes. After "." a step is an attribute or a field, after "/" also a record: an entity's name,
// or a member of a collection. Collections of references and pointers lead on to what they refer
// to. A bare name may hold dots: "l3/status/eth0.100" is looked for first as one name.

#pragma once

#include "framework/Exception.h"
#include "framework/Export.h"

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Zek {
class Entity;
class PtrInterface;
struct AttributeRow;
} // namespace Zek

namespace Zek::Inspect {

/// Nothing stands at a path, or no type or attribute has a name. The text names the nearest one
/// that exists.
class IPSTATE_EXPORT NotFoundException : public Exception {
 public:
   using Exception::Exception;
   ~NotFoundException() override;
};

struct Step {
   enum class Pick : uint8_t { none, one, all };

   std::string name;
   Pick pick = Pick::none;
   std::string key; // of `one`: the text form of the key
   bool isAttribute = false;
   bool isQuoted = false; // the name is meant as it stands, dots and all
};

class IPSTATE_EXPORT Path {
 public:
   Path() = default;
   /// RangeException with offset and what was expected for a text that is no path.
   explicit Path( std::string_view text );

   const std::vector< Step > & steps() const { return steps_; }
   bool picksAll() const;
   std::string text() const;

 private:
   std::vector< Step > steps_;
};

/// A name as a step of a path, and a key between brackets: in quotes where it needs them.
IPSTATE_EXPORT void appendName( std::string_view name, std::string & out );
IPSTATE_EXPORT void appendKey( std::string_view key, std::string & out );

/// The path of an entity from the root of its tree; empty for what has no parent.
IPSTATE_EXPORT std::string pathOf( const Entity & entity );
/// The same of what a pointer points to; of what stands in no tree the type's name in
/// parentheses.
IPSTATE_EXPORT std::string pathOf( const PtrInterface & object );
/// The path of the member under `key` below the record at `path`.
IPSTATE_EXPORT std::string memberPath( const std::string & path, const AttributeRow & row,
                                       const PtrInterface * member, std::string_view key );
/// "a/b" of "a" and "b"; one of them where the other is empty.
IPSTATE_EXPORT std::string joined( const std::string & path, std::string_view step );

/// That of `candidates` which `name` was probably meant to be; empty when none is near.
IPSTATE_EXPORT std::string nearest( std::string_view name,
                                    const std::vector< std::string > & candidates );

} // namespace Zek::Inspect
