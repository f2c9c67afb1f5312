// What one declaration contributes to the three files of its schema.

#pragma once

#include "typelang/Ast.h"

#include <string>
#include <vector>

namespace Zek::TypeLang {

struct Emission {
   std::vector< std::string > scope;      // namespaces of declaration and definition
   std::string declaration;               // header, inside the scope
   std::string globalDeclaration;         // header, outside all namespaces
   std::string definition;                // source, inside the scope
   std::string globalDefinition;          // source, outside all namespaces
   std::string attrLog;                   // header of the adaptors, inside the scope
   std::vector< std::string > registered; // descriptors to register, in order
};

/// Dispatches on the kind of type.
Emission emitType( const Type & type );

// One emitter per kind of type, each in a file of its own.
Emission emitEnumeration( const Type & type );   // EmitEnumeration.cpp
Emission emitForeign( const Type & type );       // EmitEnumeration.cpp
Emission emitValue( const Type & type );         // EmitValue.cpp
Emission emitBoundedString( const Type & type ); // EmitValue.cpp
Emission emitCounted( const Type & type );       // EmitCounted.cpp

/// `enum class E : storage { ... };` and its names in the scope around it.
std::string enumClass( const Type & type );
/// The enumeration's descriptor and its registration, for enumerations and foreign types.
void describe( const Type & type, Emission & out );

/// The row of an operation, and the table of its arguments that stands before the rows.
struct CallableRow {
   std::string table;
   std::string row;
};
CallableRow callableRow( const Type & type, const Member & m ); // EmitGeneric.cpp
/// A type's generic companion in an unnamed namespace; the descriptor names it
/// <id>_GenericIf, `id` being genericId( type ).
std::string companion( const Type & type, const std::string & descriptor );
std::string genericId( const Type & type );

/// The adaptor that streams a type's changes.
struct AttrLogPieces {
   std::string forward; // in the class
   std::string declaration;
   std::string definition;
   std::string state; // in the descriptor
};
AttrLogPieces attrLog( const Type & type ); // EmitAttrLog.cpp
bool isStreamed( const Type & type );
/// The class that forwards a type's changes by number.
std::string relayClass( const Type & type );
/// What a type's declaration says beyond its rows, as one constant; see framework/Declaration.h.
struct NotesPieces {
   std::string table; // before the descriptor
   std::string entry; // in it
};
NotesPieces notes( const Type & type ); // EmitNotes.cpp
/// Whether an operation leaves its object unchanged.
bool isConstOperation( const Member & m );

} // namespace Zek::TypeLang
