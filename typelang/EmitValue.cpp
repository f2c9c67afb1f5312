// Value types: small copyable records compared field by field, and bounded strings.

#include "typelang/Emission.h"
#include "typelang/Text.h"

#include <optional>

namespace Zek::TypeLang {

namespace {

bool
isSet( const Member & m ) {
   return m.kind == MemberKind::collection;
}

// One field's pieces: accessors, storage and row.
struct Pieces {
   std::string accessors;
   std::string storage;
   std::string row;
};

Pieces
field( const Type & type, const Member & m ) {
   Holes h{ { "doc", docComment( m.doc, 3 ) },
            { "x", m.name },
            { "T", cppStored( m.type ) },
            { "P", cppParameter( m.type ) },
            { "n", std::to_string( m.number ) },
            { "init", braced( cppExpression( m.init, m.type, &type ) ) },
            { "Self", type.name } };
   Pieces out;
   out.accessors = fill( R"(   // $n$ $x$
$doc$
   const $T$ & $x$() const { return $x$_; }
)",
                         h );
   if( m.kind == MemberKind::attr ) {
      out.accessors += fill( "   void $x$Is( $P$ $x$ ) { $x$_ = $x$; }\n", h );
   }
   out.accessors += "\n";
   out.storage = fill( "   $T$ $x$_$init$;\n", h );
   out.row = fill( "   Zek::Rows::parameter< &$Self$::$x$_ >( \"$x$\", $n$ ),\n", h );
   return out;
}

Pieces
set( const Type & type, const Member & m ) {
   Holes h{ { "doc", docComment( m.doc, 3 ) },   { "x", m.name },
            { "K", cppStored( m.keyType ) },     { "KP", cppParameter( m.keyType ) },
            { "n", std::to_string( m.number ) }, { "Self", type.name } };
   Pieces out;
   out.accessors = fill( R"(   // $n$ $x$
$doc$
   const Zek::ValueSet< $K$ > & $x$() const { return $x$_; }
   bool $x$( $KP$ key ) const { return $x$_.has( key ); }
   bool $x$Has( $KP$ key ) const { return $x$_.has( key ); }
   size_t $x$Count() const { return $x$_.size(); }
   void $x$Is( $KP$ key ) { $x$_.insert( key ); }
   void $x$Del( $KP$ key ) { $x$_.remove( key ); }
   void $x$DelAll() { $x$_.clear(); }

)",
                         h );
   out.storage = fill( "   Zek::ValueSet< $K$ > $x$_;\n", h );
   out.row = fill( "   Zek::Rows::valueSet< &$Self$::$x$_, $K$ >( \"$x$\", $n$ ),\n", h );
   return out;
}

} // namespace

Emission
emitValue( const Type & type ) {
   Emission out;
   out.scope = type.scope;

   std::string accessors;
   std::string storage;
   std::string rows;
   std::string calls;
   std::string named;
   std::string namedDefinitions;
   std::vector< std::string > parameters; // of the field-by-field constructor
   std::vector< std::string > initialisers;
   std::vector< std::string > equal;
   std::string less;
   std::vector< std::string > hashes;
   std::vector< std::string > fields;       // as member pointers
   std::optional< std::string > unreadable; // why no text reads back
   std::string construction;
   const Member * key = type.keyMember();
   for( const Member * m : constructorFields( type ) ) {
      parameters.push_back( cppParameter( m->type ) + " " + m->name );
      initialisers.push_back( m->name + "_( " + m->name + " )" );
   }
   for( const Member & m : type.members ) {
      if( m.kind == MemberKind::call ) {
         std::vector< std::string > arguments;
         for( const Argument & a : m.arguments ) {
            arguments.push_back( cppParameter( a.type ) + " " + a.name );
         }
         calls +=
            "   // " + std::to_string( m.number ) + " " + m.name + "\n" + docComment( m.doc, 3 );
         calls += "   " + call( ( m.isStatic ? "static " : "" ) +
                                   ( m.isVoid        ? std::string( "void" )
                                     : m.returnsSelf ? type.name + " &"
                                                     : cppStored( m.type ) ) +
                                   " " + m.name,
                                arguments, m.isConst ? " const;\n\n" : ";\n\n", 3 );
         if( m.atConstruction ) construction += "      " + m.name + "();\n";
         continue;
      }
      if( m.kind == MemberKind::named ) {
         std::vector< std::string > arguments;
         size_t i = 0;
         for( const Member * f : constructorFields( type ) ) {
            arguments.push_back( cppExpression( m.init.items[i++], f->type, &type ) );
         }
         named += docComment( m.doc, 3 ) + "   static " + type.name + " " + m.name + "();\n";
         namedDefinitions += type.name + "\n" + type.name + "::" + m.name + "() {\n   return " +
                             type.name + "( " + joined( arguments, ", " ) + " );\n}\n\n";
         continue;
      }
      Pieces pieces = isSet( m ) ? set( type, m ) : field( type, m );
      accessors += pieces.accessors;
      storage += pieces.storage;
      rows += pieces.row;
      fields.push_back( "&" + type.name + "::" + m.name + "_" );
      if( isSet( m ) ) unreadable = " - has collection";
      if( m.type.type->isCounted() ) unreadable = "";
      if( !type.compares.empty() && m.name != type.compares ) continue;
      equal.push_back( m.name + "_ == other." + m.name + "_" );
      less += "   if( !( " + m.name + "_ == other." + m.name + "_ ) ) return " + m.name +
              "_ < other." + m.name + "_;\n";
      hashes.push_back(
         ( isSet( m ) ? m.name + "_.hash()" : "Zek::hashField( " + m.name + "_ )" ) );
   }

   std::string hash;
   if( type.hashIsSum || hashes.size() == 1 ) {
      hash = "   return " + joined( hashes, " + " ) + ";\n";
   } else {
      hash = "   uint32_t mixed = " + hashes.front() + ";\n";
      for( size_t i = 1; i < hashes.size(); ++i ) {
         hash += "   mixed = Zek::hashCombine( mixed, " + hashes[i] + " );\n";
      }
      hash += "   return mixed;\n";
   }

   Holes h{ { "doc", docComment( type.doc, 0 ) },
            { "Self", type.name },
            { "full", type.fullName() },
            { "accessors", accessors },
            { "storage", storage },
            { "rows", rows },
            { "fields", joined( fields, ", " ) },
            { "calls", calls },
            { "named", named.empty() ? "" : named + "\n" },
            { "namedDefinitions", namedDefinitions },
            { "fieldConstructor",
              parameters.empty()
                 ? ""
                 : "   " +
                      call( std::string( key || parameters.size() > 1 ? "" : "explicit " ) +
                               type.name,
                            parameters, "", 3 ) +
                      "\n      : " + joined( initialisers, ", " ) +
                      ( construction.empty() ? " {}\n" : " {\n" + construction + "   }\n" ) },
            { "equal", joined( equal, " && " ) },
            { "less", less },
            { "hash", hash } };
   h["order"] =
      type.isOrderedType ? "   bool operator<( const " + type.name + " & other ) const;\n" : "";
   h["orderDefinition"] =
      type.isOrderedType
         ? fill( "bool\n$Self$::operator<( const $Self$ & other ) const {\n$less$   return "
                 "false;\n}\n\n",
                 h )
         : "";
   h["fromTextComment"] =
      unreadable
         ? "   /// Deliberate: stops on an assertion, a value with a collection or a pointer has "
           "no\n"
           "   /// text that reads back.\n"
         : "   /// Reads the text form back, exactly that form; RangeException otherwise.\n";
   out.declaration = fill( R"($doc$
class IPSTATE_EXPORT $Self$ {
 public:
   $Self$() = default;
$fieldConstructor$
$fromTextComment$
   $Self$( Zek::String::IteratorConst begin, Zek::String::IteratorConst end );

$named$
$accessors$
$calls$
   bool operator==( const $Self$ & other ) const;
$order$
   /// True for the default value.
   bool operator!() const { return *this == $Self$(); }
   uint32_t hash() const;

   /// The text form: word, full type name, and each field in its own text form.
   void appendTo( std::string & out ) const;
   Zek::String toString() const { return Zek::valueText( *this ); }
   /// Reads that form; false, and `out` unchanged, when `text` is not exactly one.
   static bool fromText( std::string_view text, $Self$ & out );

   static const Zek::TypeDescriptor * fwkType() { return &zekTypeDescriptor_; }
   static const Zek::TypeDescriptor zekTypeDescriptor_;

 private:
   static const Zek::AttributeRow zekAttributes_[];

$storage$

 public:
   /// What there is of it in streams.
   using ZekFields = Zek::Fields< $fields$ >;
};

IPSTATE_EXPORT Zek::String stringValue( const $Self$ & value );
IPSTATE_EXPORT Zek::String valueToStrep( const $Self$ & value );
IPSTATE_EXPORT std::ostream & operator<<( std::ostream & out, const $Self$ & value );
/// As the constructor from text.
IPSTATE_EXPORT void sequenceToValue( Zek::String::IteratorConst begin,
                                     Zek::String::IteratorConst end, $Self$ & value );
)",
                           h );
   h["stem"] = type.schema->stem;
   h["why"] = unreadable.value_or( "" );
   h["constructFromText"] =
      unreadable
         ? fill( R"($Self$::$Self$( Zek::String::IteratorConst, Zek::String::IteratorConst ) {
   Zek::assertionFailed( "No String constructor for $Self$$why$", "$stem$" );
}
)",
                 h )
         : fill(
              R"($Self$::$Self$( Zek::String::IteratorConst begin,
                 Zek::String::IteratorConst end ) {
   Zek::readValueOrThrow( zekTypeDescriptor_, Zek::String::IteratorConst::view( begin, end ),
                          this );
}
)",
              h );
   std::string tables;
   std::string parameterRows;
   std::vector< std::string > made{ type.name };
   for( const Member * m : constructorFields( type ) ) {
      made.push_back( cppStored( m->type ) );
      parameterRows += "   Zek::Rows::argument< " + made.back() + " >( \"" + m->name + "\" ),\n";
   }
   h["made"] = joined( made, ", " );
   h["parameters"] = "{}";
   h["id"] = genericId( type );
   if( !parameterRows.empty() ) {
      h["parameters"] = h["id"] + "_parameters";
      tables += "static constexpr Zek::ParameterRow " + h["parameters"] + "[] = {\n" +
                parameterRows + "};\n\n";
   }
   for( const Member & m : type.members ) {
      if( m.kind != MemberKind::call ) continue;
      CallableRow callable = callableRow( type, m );
      tables += callable.table;
      rows += callable.row;
   }
   h["rows"] = rows;
   h["tables"] = tables;
   const NotesPieces said = notes( type );
   h["notesTable"] = said.table;
   h["notes"] = said.entry;
   h["companion"] = companion( type, type.name + "::zekTypeDescriptor_" );
   out.definition = fill( R"($constructFromText$

$namedDefinitions$
bool
$Self$::operator==( const $Self$ & other ) const {
   return $equal$;
}

$orderDefinition$
uint32_t
$Self$::hash() const {
$hash$
}

void
$Self$::appendTo( std::string & out ) const {
   Zek::appendValueText( zekTypeDescriptor_, this, out );
}

bool
$Self$::fromText( std::string_view text, $Self$ & out ) {
   return Zek::readValueText( zekTypeDescriptor_, text, &out, nullptr );
}

Zek::String
stringValue( const $Self$ & value ) {
   return Zek::valueText( value );
}

Zek::String
valueToStrep( const $Self$ & value ) {
   return Zek::valueText( value );
}

std::ostream &
operator<<( std::ostream & out, const $Self$ & value ) {
   return out << Zek::valueText( value );
}

void
sequenceToValue( Zek::String::IteratorConst begin, Zek::String::IteratorConst end,
                 $Self$ & value ) {
   value = $Self$( begin, end );
}

$companion$
$tables$
constinit const Zek::AttributeRow $Self$::zekAttributes_[] = {
$rows$
};

$notesTable$
constinit const Zek::TypeDescriptor $Self$::zekTypeDescriptor_ = {
   .fullName = "$full$",
   .kind = Zek::TypeKind::value,
   .isRecord = true,
   .isNamed = false,
   .hasNotifier = false,
   .hasAttrLog = false,
   .base = nullptr,
   .values = &Zek::valueOps< $Self$ >,
   .attributes = zekAttributes_,
   .enumerators = {},
   .constructorParameters = $parameters$,
   .createThunk = nullptr,
   .relay = nullptr,
   .allocations = nullptr,
   .assembleThunk = &Zek::Rows::assembleBy< $made$ >,
   .genericIf = &$id$_GenericIf,
$notes$
};
)",
                          h );
   if( type.isRegistered ) out.registered.push_back( type.fullName() + "::zekTypeDescriptor_" );
   return out;
}

Emission
emitBoundedString( const Type & type ) {
   Emission out;
   out.scope = type.scope;
   Holes h{ { "doc", docComment( type.doc, 0 ) },
            { "Self", type.name },
            { "max", type.maxName },
            { "bytes", std::to_string( type.maxBytes ) } };
   out.declaration = fill( R"($doc$
class IPSTATE_EXPORT $Self$ : public Zek::BoundedString< $Self$ > {
 public:
   /// Most bytes that it may hold.
   static constexpr size_t $max$ = $bytes$;
   static constexpr size_t maxBytes = $bytes$;
   static constexpr char lengthError[] = "$Self$::bytes > $Self$::$max$ not allowed";

   /// The empty string.
   $Self$() = default;
   /// Throw RangeException with that text when `text` is longer. Null is the empty string.
   $Self$( const Zek::String & text ) : BoundedString( text ) {}
   $Self$( const char * text ) : BoundedString( Zek::String( text ) ) {}
   $Self$( std::string_view text ) : BoundedString( Zek::String( text ) ) {}
   $Self$( const std::string & text ) : BoundedString( Zek::String( text ) ) {}
   $Self$( Zek::String::IteratorConst begin, Zek::String::IteratorConst end )
      : BoundedString( Zek::String( begin, end ) ) {}
};

/// The string as it is.
IPSTATE_EXPORT Zek::String stringValue( const $Self$ & value );
IPSTATE_EXPORT std::ostream & operator<<( std::ostream & out, const $Self$ & value );
/// As in the text of a value: in quotes where it could not stand bare.
IPSTATE_EXPORT Zek::String valueToStrep( const $Self$ & value );
/// Reads either form; RangeException, and `value` unchanged, for another text or a longer string.
IPSTATE_EXPORT void sequenceToValue( Zek::String::IteratorConst begin,
                                     Zek::String::IteratorConst end, $Self$ & value );
)",
                           h );
   out.definition = fill( R"(Zek::String
stringValue( const $Self$ & value ) {
   return value.string();
}

std::ostream &
operator<<( std::ostream & out, const $Self$ & value ) {
   return out << value.string();
}

Zek::String
valueToStrep( const $Self$ & value ) {
   return Zek::valueText( value );
}

void
sequenceToValue( Zek::String::IteratorConst begin, Zek::String::IteratorConst end,
                 $Self$ & value ) {
   Zek::String string;
   Zek::sequenceToValue( begin, end, string );
   value = $Self$( string );
}
)",
                          h );
   describe( type, out );
   return out;
}

} // namespace Zek::TypeLang
