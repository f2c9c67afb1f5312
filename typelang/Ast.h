// What a schema says, after parsing and checking.
//
// The parser fills the declared part of each structure; the checker resolves type references,
// assigns attribute numbers and proves everything that the emitter relies on (the comments say
// what holds afterwards). One structure serves every kind of type and one every kind of line, so
// that a stage that does not care about a kind need not name it.
//
// Owned by the Program; all pointers between declarations stay valid as long as it lives.

#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Zek::TypeLang {

struct SourceFile; // Source.h
struct Type;
struct Schema;

/// A stretch of a source file, for the error reporter. `end` is exclusive.
struct Span {
   const SourceFile * file = nullptr;
   uint32_t begin = 0;
   uint32_t end = 0;
};

enum class TypeKind {
   builtin,       // bool, U8 .. U64, S8 .. S64, double; Zek.String, Zek.Name, Zek.Entity
   foreign,       // a value type written by hand in C++, declared by `foreign value`
   foreignEnum,   // an enumeration written by hand in C++, declared by `foreign enum`
   foreignObject, // a counted class written by hand in C++, declared by `foreign object`
   enumeration,   // enum
   value,         // value
   boundedString, // string
   entity,        // entity
   object,        // object: counted, no entity
   machine,       // machine
   view,          // view: abstract questions (an entity or an object)
   binding,       // binding: a view's concrete form over one held record
};

/// A type as named in a declaration. `const` is allowed only for counted types.
struct TypeRef {
   std::string text; // as written, "Velon.IntfId"
   Span span;
   bool isConst = false;
   const Type * type = nullptr; // resolved by the checker, never null afterwards
   explicit operator bool() const { return !text.empty(); }
};

/// A literal or a name: a default, a bound, the value of a constant, an enumerator's number.
struct Expr {
   enum class Kind { none, boolean, number, real, string, name, list };
   Kind kind = Kind::none;
   std::string text; // digits as written (with sign), string contents unescaped, dotted name
   Span span;
   std::vector< Expr > items; // list: ( a, b )
   int64_t number = 0;        // number: its value
   explicit operator bool() const { return kind != Kind::none; }
};

struct Enumerator {
   std::string name;
   std::string doc;
   Span span;
   int64_t value = 0; // given, or one more than the last
};

struct Argument {
   std::string name;
   Span span; // of the name
   TypeRef type;
   bool byReference = false; // `T &`: passed as a const reference to the pointer or value
};

enum class MemberKind {
   key,        // key: constructor parameter and key (first one; in a value: constructor argument)
   param,      // param: constructor parameter
   attr,       // attr / field: plain attribute, or a value's field
   constant,   // const
   derived,    // derived
   counter,    // counter
   collection, // ordered, hashed, set, owns, refs
   call,       // call
   ask,        // ask: a view's question
   reactor,    // one, each: a machine's reactor or keyed reactor collection
   named,      // named: a value's named constant
};

enum class CollectionForm {
   none,
   values, // key -> value
   fields, // values keyed by one of their fields
   set,    // keys alone
   owning, // instantiating: owns its entities
   byRef,  // pointers to entities owned elsewhere
};

/// One reaction of a reactor: `on ATTR -> action, action` (also `start -> ...`, `gone -> ...`,
/// `retarget -> ...`).
struct Action {
   enum class Kind { owner, self, feed };
   Kind kind = Kind::self;
   std::string target; // handler's or reactor collection's name
   Span span;
   const struct Member * handler = nullptr; // owner, self: resolved, the overload that is called
};

struct Reaction {
   enum class When { on, start, retarget, gone };
   When when = When::on;
   std::string attribute; // when == on: an attribute of the watched type
   Span span;
   std::vector< Action > actions;           // left to right
   const struct Member * watched = nullptr; // resolved
};

/// One line of a type's body.
struct Member {
   MemberKind kind = MemberKind::attr;
   std::string keyword; // the line's first word
   std::string name;
   std::string doc;        // the `///` lines before it, without the slashes, joined by newlines
   Span span;              // of the name
   bool keyIsName = false; // key: `as name`, its text is the entity's name
   bool setAtConstruction = false; // attr: `given`, also a constructor parameter
   uint16_t number = 0; // assigned by the checker; 0 for lines that take none (named, ...)

   TypeRef type; // of the attribute, value or member of the collection, or result of a call
   Expr init;    // default of an attr, value of a const, arguments of a named constant

   // attr
   std::string bound; // name of the constant that bounds it, or empty
   Span boundSpan;
   const Member * boundConst = nullptr;
   bool testedFirst = false; // bound tested before storing instead of after
   std::string becomes;      // in words, what an operation run at construction sets it to, or empty

   // derived
   std::string through; // pointer attribute it is reached through, or empty: by hand
   Span throughSpan;
   const Member * throughMember = nullptr; // resolved
   bool writable = false;                  // has a typed mutator (always with `through`)
   std::string aborts;                     // text of the assertion that reading it fails, or empty

   // counter
   bool hasInc = false, hasDec = false, hasIs = false;

   // collection
   CollectionForm form = CollectionForm::none;
   bool isOrdered = false; // `ordered`; all else is hashed
   TypeRef keyType;        // values, set: as declared; others: filled in by the checker
   std::string keyField;   // fields: the value's field; owning, byRef: filled by the checker
                           // ("name" when the member is keyed by its name)
   Span keyFieldSpan;

   // call, ask
   std::vector< Argument > arguments;
   bool isConst = false;
   bool isStatic = false;
   bool atConstruction = false; // run at the end of construction
   bool isVoid = true;
   bool returnsSelf = false; // result `T &`: the object itself

   // reactor
   bool isEach = false; // `each`: a collection keyed like the watched type
   std::vector< Reaction > reactions;
   std::vector< Member > handlers; // `call` lines inside a reactor: its own handlers
};

struct Type {
   TypeKind kind = TypeKind::builtin;
   std::string name; // "IpIntfConfig"
   std::string doc;
   Span span;                        // of the name
   const Schema * schema = nullptr;  // null for builtins
   std::vector< std::string > scope; // namespaces from the outermost, and the enclosing type
   const Type * enclosing = nullptr; // an enumeration inside an entity
   bool isRegistered = true;         // `unregistered` clears it

   std::string fullName() const;   // "Ip::IpIntfConfig"
   std::string dottedName() const; // "Ip.IpIntfConfig"

   // enumeration, foreignEnum
   std::vector< Enumerator > enumerators;

   // foreign, builtin
   std::string header;               // to include
   std::string cppName;              // spelled out: "uint16_t", "Zek::String", "Velon::IntfId"
   bool byValue = false;             // passed by value
   bool isOrderedType = false;       // has operator< (value: by the word `ordered`)
   bool isHashed = false;            // has hash()
   int64_t minimum = 0, maximum = 0; // integers

   // value
   bool hashIsSum = false; // `hash sum`: the sum of its fields' hashes
   std::string compares;   // `compares FIELD`: equality and hash look at it alone
   Span comparesSpan;
   // boundedString
   std::string maxName; // "maxLength"
   Span maxSpan;        // of the limit
   int64_t maxBytes = 0;

   // entity, object, machine, view, binding
   bool isNamed = false;    // constructor parameter `name`, framework attribute
   bool hasNotifier = true; // `silent` clears it
   bool hasLog = true;      // `unlogged` clears it (always false without a notifier)
   bool isEntity = false;   // entity, machine, and a view declared `entity`
   TypeRef base;            // derived entity, binding: its view
   std::string fixedParam;  // derived entity: `fixes PARAM = VALUE`
   Span fixedSpan;
   Expr fixedValue;
   TypeRef holds;         // binding: the record it reads
   std::string holdsName; // binding: its name for it
   Span holdsSpan;
   std::string trace; // machine: name of the trace handle, or empty

   std::vector< Member > members;                 // in declaration order
   std::vector< std::unique_ptr< Type > > nested; // enumerations inside an entity

   bool isCounted() const {
      return kind == TypeKind::entity || kind == TypeKind::object || kind == TypeKind::machine ||
             kind == TypeKind::view || kind == TypeKind::binding || kind == TypeKind::foreignObject;
   }
   /// Written by hand in C++: the schema lends it a name and a descriptor.
   bool isForeign() const {
      return kind == TypeKind::foreign || kind == TypeKind::foreignEnum ||
             kind == TypeKind::foreignObject;
   }
   bool isEnum() const { return kind == TypeKind::enumeration || kind == TypeKind::foreignEnum; }
   const Member * find( const std::string & memberName ) const;
   /// The key: its first constructor parameter declared `key`, or null (keyed by name, or not at
   /// all).
   const Member * keyMember() const;
};

/// Whether the line is a parameter of its type's constructor.
bool isParameter( const Member & m );
/// The lines that are parameters of the constructor, in its order: those of the base without the
/// one it fixes, then the type's own. The name of a named type precedes them.
std::vector< const Member * > parametersOf( const Type & type );

/// The record that a binding holds, as a line of its own: numbered after those of its view.
Member heldBy( const Type & binding );

/// The fields that a value is made of: its key alone, or all of them.
std::vector< const Member * > constructorFields( const Type & value );

struct Function {
   std::string name;
   std::string doc;
   Span span;
   std::vector< std::string > scope;
   std::vector< Argument > arguments;
   TypeRef result; // empty: void
   Expr init;      // `const`: the value it returns; without one it is written by hand
};

/// One line of a schema file outside the types, in order, so that output follows the file.
struct Item {
   Type * type = nullptr; // exactly one of the two
   Function * function = nullptr;
};

struct Schema {
   const SourceFile * file = nullptr;
   std::string path;                 // "Ip/Ip.zek", relative to the include root
   std::string stem;                 // "Ip"
   std::vector< std::string > model; // "Ip", or "IpGen", "SourceIntf"
   std::string doc;                  // `///` lines before `model`
   /// The model and each `scope`, which are namespaces.
   struct Scope {
      std::vector< std::string > path; // from the outermost
      Span span;                       // of the name
   };
   std::vector< Scope > scopes;
   std::vector< const Schema * > imports; // as loaded
   std::vector< std::string > includes;   // `include "..."` lines
   std::deque< Type > types;
   std::deque< Function > functions;
   std::vector< Item > items;
   bool foreignOnly() const; // declares foreign types alone: nothing to emit
};

struct Program {
   std::vector< std::unique_ptr< Schema > > schemas;
   const Schema * main = nullptr; // the one to emit
   std::deque< Type > builtins;
};

} // namespace Zek::TypeLang
