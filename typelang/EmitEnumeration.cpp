// Enumerations and types written by hand: the descriptor is a specialisation of Zek::TypeOf.

#include "typelang/Emission.h"
#include "typelang/Text.h"

namespace Zek::TypeLang {

Emission
emitType( const Type & type ) {
   switch( type.kind ) {
   case TypeKind::builtin:
      return {};
   case TypeKind::foreign:
   case TypeKind::foreignEnum:
   case TypeKind::foreignObject:
      return emitForeign( type );
   case TypeKind::enumeration:
      return emitEnumeration( type );
   case TypeKind::value:
      return emitValue( type );
   case TypeKind::boundedString:
      return emitBoundedString( type );
   case TypeKind::entity:
   case TypeKind::object:
   case TypeKind::machine:
   case TypeKind::view:
   case TypeKind::binding:
      return emitCounted( type );
   }
   return {};
}

void
describe( const Type & type, Emission & out ) {
   std::string name = cppName( type );
   out.globalDeclaration += "template<>\nstruct IPSTATE_EXPORT Zek::TypeOf< " + name +
                            " > {\n   static const TypeDescriptor descriptor;\n};\n";
   std::string rows;
   for( const Enumerator & e : type.enumerators ) {
      rows += "   { \"" + e.name + "\", " + std::to_string( e.value ) + " },\n";
   }
   std::string id = genericId( type );
   Holes holes{ { "name", name },
                { "full", type.fullName() },
                { "id", id },
                { "kind", type.isEnum()      ? "enumeration"
                          : type.isCounted() ? "object"
                                             : "opaque" },
                { "values", type.isCounted() ? "nullptr" : "&Zek::valueOps< " + name + " >" },
                { "record", type.kind == TypeKind::enumeration ? "true" : "false" },
                { "rows", rows },
                { "enumerators", rows.empty() ? "{}" : id + "_enumerators" },
                { "genericIf", "" } };
   const NotesPieces said = notes( type );
   holes["notes"] = said.entry;
   out.globalDefinition += said.table;
   if( type.kind == TypeKind::enumeration ) {
      holes["genericIf"] = "   .genericIf = &" + id + "_GenericIf,\n";
      out.globalDefinition += companion( type, "Zek::TypeOf< " + name + " >::descriptor" );
   }
   if( !rows.empty() ) {
      out.globalDefinition += fill( R"(static constexpr Zek::EnumeratorRow $id$_enumerators[] = {
$rows$
};

)",
                                    holes );
   }
   out.globalDefinition +=
      fill( R"(constinit const Zek::TypeDescriptor Zek::TypeOf< $name$ >::descriptor = {
   .fullName = "$full$",
   .kind = Zek::TypeKind::$kind$,
   .isRecord = $record$,
   .isNamed = false,
   .hasNotifier = false,
   .hasAttrLog = false,
   .base = nullptr,
   .values = $values$,
   .attributes = {},
   .enumerators = $enumerators$,
   .constructorParameters = {},
   .createThunk = nullptr,
   .relay = nullptr,
   .allocations = nullptr,
$genericIf$
$notes$
};
)",
            holes );
   if( type.isRegistered ) {
      out.registered.push_back( "Zek::TypeOf< " + name + " >::descriptor" );
   }
}

Emission
emitForeign( const Type & type ) {
   Emission out;
   describe( type, out );
   return out;
}

namespace {

Holes
enumHoles( const Type & type ) {
   int64_t least = 0;
   int64_t most = 0;
   std::string enumerators;
   for( const Enumerator & e : type.enumerators ) {
      least = std::min( least, e.value );
      most = std::max( most, e.value );
      enumerators +=
         docComment( e.doc, 3 ) + "   " + e.name + " = " + std::to_string( e.value ) + ",\n";
   }
   return { { "doc", docComment( type.doc, 0 ) },
            { "name", type.name },
            { "storage", least >= 0 && most <= 255 ? "uint8_t" : "int32_t" },
            { "enumerators", enumerators } };
}

// The functions from a number and from a name.
std::string
instances( const Type & type, const char * prefix ) {
   return fill( R"(/// The $name$ of that number or name; RangeException when there is none.
$prefix$$name$ $name$Instance( int64_t number );
$prefix$$name$ $name$Instance( std::string_view name );
)",
                { { "name", type.name }, { "prefix", prefix } } );
}

} // namespace

std::string
enumClass( const Type & type ) {
   std::string declared = fill( R"($doc$
enum class $name$ : $storage$ {
$enumerators$
};
using enum $name$;
)",
                                enumHoles( type ) );
   if( type.enclosing ) declared += instances( type, "static " );
   return declared;
}

Emission
emitEnumeration( const Type & type ) {
   Emission out;
   out.scope = type.scope;
   Holes holes = enumHoles( type );
   if( !type.isRegistered ) {
      out.declaration = fill( "$doc$\nenum $name$ {\n$enumerators$\n};\n", holes );
      return out;
   }
   // An enumeration inside an entity is declared by the entity's class with its functions from
   // number and name; its other companions and its descriptor stand beside it.
   if( !type.enclosing ) {
      out.declaration = enumClass( type ) + "\n" + instances( type, "IPSTATE_EXPORT " );
   } else {
      out.scope.pop_back();
   }
   std::string within = type.enclosing ? type.enclosing->name + "::" : "";
   holes["within"] = within;
   holes["own"] = within + type.name;
   out.declaration += fill( R"(/// The enumerator's name; for a number that is none, the number.
IPSTATE_EXPORT Zek::String stringValue( $own$ value );
IPSTATE_EXPORT Zek::String valueToStrep( $own$ value );
IPSTATE_EXPORT std::ostream & operator<<( std::ostream & out, $own$ value );
/// Reads an enumerator's name, the whole of [begin, end); RangeException when it is none.
IPSTATE_EXPORT void sequenceToValue( Zek::String::IteratorConst begin,
                                     Zek::String::IteratorConst end, $own$ & value );
)",
                            holes );
   out.definition = fill( R"($own$
$within$$name$Instance( int64_t number ) {
   return Zek::EnumType< $own$ >::instance( number );
}

$own$
$within$$name$Instance( std::string_view name ) {
   return Zek::EnumType< $own$ >::instance( name );
}

Zek::String
stringValue( $own$ value ) {
   return Zek::EnumType< $own$ >::stringValue( value );
}

Zek::String
valueToStrep( $own$ value ) {
   return Zek::EnumType< $own$ >::stringValue( value );
}

std::ostream &
operator<<( std::ostream & out, $own$ value ) {
   return out << Zek::EnumType< $own$ >::stringValue( value );
}

void
sequenceToValue( Zek::String::IteratorConst begin, Zek::String::IteratorConst end,
                 $own$ & value ) {
   value = Zek::EnumType< $own$ >::fromText( Zek::String::IteratorConst::view( begin, end ) );
}
)",
                          holes );
   describe( type, out );
   return out;
}

} // namespace Zek::TypeLang
