// Types made at run time from their declarations.
//
// A process that was not linked with a type makes a descriptor of what its peer, or a file, says of
// it (framework/Declaration.h). Objects of such a type are made, held, watched, read, written,
// dumped, streamed and forwarded like those of any other through the generic interface
// (framework/Generic.h); there are no C++ classes for them.
//
//    Zek::DynamicTypes & types = Zek::DynamicTypes::ofProcess();
//    types.declare( declarations );
//    const Zek::TypeDescriptor & door = *Zek::typeNode( "House::Door" );
//    Zek::GenericValue made = door.genericIf->genericIfFromCtorArgs( { Zek::Name( "front" ) } );
//
// What they have: plain attributes with defaults and bounds, pointers, counters, constants,
// collections of every form, children, enumerations, values, bounded strings. What is computed,
// and operations, are code, which a declaration cannot bring: they are listed, and asking for them
// is a RejectedException. A value type written by hand comes as its bytes: text where it travels as
// a text, else hexadecimal digits; where nobody can tell how many there are, what is of it is
// listed only, as if it were computed. Types that are no entities, and machines, are listed and not
// made, as nobody streams them. See docs/decisions/dynamic-types.md.

#pragma once

#include "framework/Declaration.h"
#include "framework/Export.h"
#include "framework/Type.h"

#include <cstddef>
#include <map>
#include <string>
#include <string_view>

namespace Zek {

/// A set of types made at run time. They stay for the life of the process, like those that were
/// linked; so do the limits' counts.
class IPSTATE_EXPORT DynamicTypes {
 public:
   /// What becomes of a type that this process was linked with.
   enum class Linked : uint8_t {
      used,    // it is taken for what is declared under its name
      ignored, // types are made as if it were unknown; those written by hand are used all the same
   };
   /// What all declarations to one set may come to. What exceeds it is refused.
   struct Limits {
      size_t types = 4096;
      size_t attributes = 64 << 10; // of all types; enumerators count too
   };

   /// Those of this process: they are in the registry (typeNode()) as linked ones are.
   static DynamicTypes & ofProcess();
   /// A set of its own, known to whoever has it. The set must outlive its use, the types do so.
   explicit DynamicTypes( Linked linked );
   DynamicTypes( const DynamicTypes & ) = delete;
   DynamicTypes & operator=( const DynamicTypes & ) = delete;

   /// Makes the types that are not there yet. Types that are named and not declared must be there.
   /// Throws RangeException, naming the type and what is wrong with it, for declarations of which
   /// no types can be made; none has been made then.
   void declare( const Declarations & declarations );
   /// The type of that name: made here, or linked where linked ones are used. Null: unknown.
   const TypeDescriptor * type( std::string_view fullName ) const;
   /// How many were made.
   size_t count() const { return types_.size(); }

   Limits limits;

 private:
   class Maker;

   Linked linked_;
   bool isRegistered_ = false;
   size_t attributes_ = 0;
   std::map< std::string, const TypeDescriptor *, std::less<> > types_;
};

/// Whether the type was made at run time.
IPSTATE_EXPORT bool isDynamic( const TypeDescriptor & type );

} // namespace Zek
