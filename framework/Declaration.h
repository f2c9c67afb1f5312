// A type's declaration, whole and at run time: what its schema said of it, as data.
//
//    Zek::Declarations known = Zek::declarationsOf( *Zek::typeNode( "Ip::IpIntfConfig" ) );
//    known.front().attributes[1].comment;      // the `///` lines of its first attribute but the
//    key
//
// The names, numbers, kinds and types are those of the descriptor's rows (framework/Type.h);
// comments, defaults and bounds come from its notes. Values stand as text, in the form in which
// they read back (framework/Text.h). From declarations, types can be made at run time
// (framework/DynamicTypes.h); encode() and decode() carry them from one process to another.
//
// Notes. zekc writes them as one constant a type: texts, each a word, a blank and what it says.
// `attr N` or `enumerator NAME` begins what is said of that attribute or enumerator; what stands
// before the first of them is said of the type. Words: doc, default, max, refused, through,
// becomes, name, hash, compares, fixes. Readers pass over words that they do not know.

#pragma once

#include "framework/Export.h"
#include "framework/Type.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace Zek {

/// One type as declared.
struct Declaration {
   /// One argument of a callable, or of a constructor.
   struct Parameter {
      std::string name;
      std::string type; // full name
      bool isPointer = false;
      bool isConst = false;
   };
   /// One attribute, a value's field, or an operation.
   struct Attribute {
      std::string name;
      uint16_t id = 0;
      AttributeKind kind = AttributeKind::plain;
      uint16_t flags = 0;      // of AttributeFlag
      std::string type;        // full name; empty: an operation without a result
      std::string keyType;     // of a collection
      std::string keyField;    // of a collection keyed by a field of its values: the field
      std::string value;       // of a constant
      std::string initial;     // its default; empty: the type's zero, or null
      std::string max;         // its bound; empty: none
      std::string refusal;     // what the exception says when it is out of bounds
      std::string through;     // derived: the pointer through which it is reached
      std::string becomes;     // in words, what it is set to at construction
      std::string comment;     // lines, without the slashes
      bool isStored = false;   // stands in the object: neither computed nor an operation
      bool isWritable = false; // has a mutator
      bool increments = false; // a counter's steps
      bool decrements = false;
      bool isName = false; // its text is the entity's name
      std::vector< Parameter > parameters;
   };
   struct Enumerator {
      std::string name;
      int64_t value = 0;
      std::string comment;
   };
   /// A parameter of the base that this type sets once and for all, and its text.
   struct Fixed {
      std::string parameter;
      std::string value;
   };

   std::string fullName;
   TypeKind kind = TypeKind::value;
   bool isNamed = false;
   bool hasNotifier = false;
   bool hasAttrLog = false;
   bool isMade = false;    // counted: by its constructor parameters
   bool isOrdered = false; // value: has an order, of its fields as they stand
   bool hashIsSum = false; // value: of its fields' hashes
   bool isBare = false;    // written by hand: its text is its bytes
   uint8_t wireSize = 0;   // written by hand: as ValueOps::wireSize
   uint32_t maxBytes = 0;  // a string: the most that it holds; 0: unbounded, or no string
   std::string refusal;    // what the exception says of a longer one
   std::string base;       // full name; empty: none
   std::string comparedBy; // value: the field that alone counts in comparisons; empty: all
   std::string comment;    //
   std::vector< Fixed > fixed;
   std::vector< Attribute > attributes; // its own, numbered without a gap
   std::vector< Enumerator > enumerators;
   std::vector< Parameter > constructorParameters;

   /// Its attribute of that name, or null.
   IPSTATE_EXPORT const Attribute * attribute( std::string_view name ) const;
};

using Declarations = std::vector< Declaration >;

/// Bounds of what decode() takes. What exceeds them is refused, whatever has been said before.
struct DeclarationLimits {
   uint32_t types = 512;
   uint32_t attributes = 1024; // of a type; so many parameters of an operation, too
   uint32_t enumerators = 8192;
   uint32_t nameBytes = 512; // of a name
};

/// What the type's own declaration says. Takes time in proportion to what it says.
IPSTATE_EXPORT Declaration declarationOf( const TypeDescriptor & type );
/// The declaration of `type` first, and those of all types that it names and they name in turn,
/// each once; without the framework's own, which every process has.
IPSTATE_EXPORT Declarations declarationsOf( const TypeDescriptor & type );
/// Whether every process has the type, so that no declaration is needed: numbers, strings, names,
/// and the framework's entities.
IPSTATE_EXPORT bool isFrameworkType( std::string_view fullName );

/// As in streams (docs/attribute-log.md).
IPSTATE_EXPORT void encode( const Declarations & declarations, Wire::Encoder & out );
/// False, and the decoder says why, for bytes that are no declarations: within their limits, each
/// name once, numbers without a gap, kinds and flags that exist and fit together. Whether types
/// can be made of them is for DynamicTypes to say.
IPSTATE_EXPORT bool decode( Wire::Decoder & in, Declarations & declarations,
                            const DeclarationLimits & limits = {} );

} // namespace Zek
