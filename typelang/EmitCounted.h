// The pieces of one line of a counted type, shared by the emitters of entities and of reactors.

#pragma once

#include "typelang/Ast.h"
#include "typelang/Text.h"

#include <string>
#include <vector>

namespace Zek::TypeLang {

struct Storage {
   int rank;                // fields are laid by falling size: classes, then 8, 4, 2, 1 bytes
   std::string text;        // "   Velon::IntfId intfId_;"
   std::string initialiser; // "intfId_( intfId )", or empty
};

struct Pieces {
   std::string declaration; // public part of the class
   std::string callbacks;   // of the notifiee
   std::vector< Storage > storage;
   std::string parameter;     // of the constructor
   std::string parameterType; // when not the line's own
   std::string definition;    // source
   std::string row;
   std::string relay;
   std::string check;        // constructor's tests of the initial value
   std::string construction; // calls at the end of construction
   std::string orphaning;    // destructor's
   std::string zombie;       // of the machine's zekDoZombieReactors()
};

/// The holes that every line of a type fills alike.
Holes holesOf( const Type & type, const Member & m );

/// What all forms of collection have in common, once the form's own holes are filled: K, Map,
/// Node, Removed, Shown, hasValue, rowFlags, isDeclaration, isDefinition, delBody.
void shareCollection( Holes & h, const Type & type, Pieces & out );

/// A line `one` or `each` of a machine. EmitReactor.cpp
Pieces emitReactor( const Type & machine, const Member & m );

} // namespace Zek::TypeLang
