// Entities and counted objects. One visit of a line yields all of its pieces: declaration,
// callbacks, storage, definitions and row; emitCounted() lays them in order.

#include "typelang/EmitCounted.h"

#include "typelang/Emission.h"
#include "typelang/Names.h"
#include "typelang/Text.h"

#include <algorithm>

namespace Zek::TypeLang {

Holes
holesOf( const Type & type, const Member & m ) {
   Holes h{
      { "doc", docComment( m.doc, 3 ) },   { "x", m.name },       { "X", capitalised( m.name ) },
      { "n", std::to_string( m.number ) }, { "Self", type.name }, { "full", type.fullName() },
      { "stem", type.schema->stem }
   };
   if( m.type ) {
      h["T"] = cppStored( m.type );
      h["P"] = cppParameter( m.type );
   }
   h["announce"] =
      type.hasNotifier ? fill( "   announce( &NotifieeConst::on$X$ );\n", h ) : std::string();
   return h;
}

void
shareCollection( Holes & h, const Type & type, Pieces & out ) {
   h["announceKey"] =
      type.hasNotifier ? fill( "   announce( &NotifieeConst::on$X$, key );\n", h ) : std::string();
   h["keyName"] = type.hasNotifier ? " key" : "";
   h["notifies"] = type.hasNotifier ? "Announces the member under `key` without changing anything."
                                    : "Does nothing: nobody can watch this type.";
   out.declaration += fill( R"(   bool $x$Has( const $K$ & key ) const;
   size_t $x$Count() const;
   using $X$IteratorConst = $Map$::IteratorConst;
   using $X$Iterator = $Map$::Iterator;
   $X$IteratorConst $x$IteratorConst() const;
   $X$IteratorConst $x$IteratorConst( const $K$ & key ) const;
   $X$Iterator $x$Iterator();
   $X$Iterator $x$Iterator( const $K$ & key );
$isDeclaration$
   $Removed$ $x$Del( const $K$ & key );
   /// At the end, nothing.
   $Removed$ $x$Del( const $X$IteratorConst & at );
   void $x$DelAll();
   /// $notifies$
   void $x$Notify( const $K$ & key );
)",
                            h );
   out.callbacks = fill( R"(      virtual void on$X$( const $K$ & ) {} // $n$
      virtual void on$X$zekImmediate() {}
      virtual void on$X$() {}
)",
                         h );
   out.storage.push_back( { 16, fill( "   $Map$ $x$_;\n", h ), "" } );
   out.definition += fill( R"(bool
$Self$::$x$Has( const $K$ & key ) const {
   return $x$_.find( key ) != nullptr;
}

size_t
$Self$::$x$Count() const {
   return $x$_.count();
}

$Self$::$X$IteratorConst
$Self$::$x$IteratorConst() const {
   return $X$IteratorConst( $x$_ );
}

$Self$::$X$IteratorConst
$Self$::$x$IteratorConst( const $K$ & key ) const {
   return $X$IteratorConst( $x$_, key );
}

$Self$::$X$Iterator
$Self$::$x$Iterator() {
   return $X$Iterator( $x$_ );
}

$Self$::$X$Iterator
$Self$::$x$Iterator( const $K$ & key ) {
   return $X$Iterator( $x$_, key );
}

$isDefinition$
$Removed$
$Self$::$x$Del( const $K$ & key ) {
$delBody$
}

$Removed$
$Self$::$x$Del( const $X$IteratorConst & at ) {
   return at ? $x$Del( $K$( at.key() ) ) : $Removed$();
}

void
$Self$::$x$DelAll() {
   const Zek::Ptr< $Self$ > self( this ); // the last member's callback may drop this object
   for( $X$IteratorConst i( $x$_ ); i; ++i ) $x$Del( i );
}

void
$Self$::$x$Notify( const $K$ &$keyName$ ) {
$announceKey$
}

)",
                           h );
   out.row = fill( R"(   Zek::Rows::collection< $K$, $Shown$ >(
      "$x$", $n$, $rowFlags$,
      &Zek::Rows::collectionOps<
         Zek::Rows::Shared< &$Self$::$x$_, $K$, $Removed$,
                            &$Self$::$x$Del,
                            &$Self$::$x$DelAll,
                            &$Self$::$x$Notify >,
         Zek::Rows::Adding< &$Self$::$x$Is >, $Node$, $hasValue$ > ),
)",
                   h );
   out.relay = fill( "   void on$X$( const $K$ & key ) override { changed( $n$, &key ); }\n", h );
}

namespace {

int
rank( const TypeRef & type ) {
   const Type & t = *type.type;
   if( t.isEnum() ) return 1;
   if( t.kind != TypeKind::builtin || !t.byValue ) return 16;
   if( t.name == "bool" || t.name == "U8" || t.name == "S8" ) return 1;
   if( t.name == "U16" || t.name == "S16" ) return 2;
   if( t.name == "U32" || t.name == "S32" ) return 4;
   return 8;
}

std::string
pointerTo( const TypeRef & type ) {
   return cppStored( type );
}

std::string
flags( const std::vector< std::string > & names ) {
   return names.empty() ? "" : ", Zek::" + joined( names, " | Zek::" );
}

Pieces
parameter( const Type & type, const Member & m ) {
   Holes h = holesOf( type, m );
   bool isKey = m.kind == MemberKind::key;
   h["flags"] =
      flags( isKey ? std::vector< std::string >{ "isKey" } : std::vector< std::string >() );
   Pieces out;
   out.declaration = fill( "   // $n$ $x$\n$doc$\n   $P$ $x$() const { return $x$_; }\n", h );
   if( isKey ) {
      out.declaration += fill( "   const $T$ & fwkKey() const { return $x$_; }\n", h );
   }
   if( m.keyIsName ) {
      out.declaration +=
         fill( "   /// The text of its key.\n   Zek::Name name() const override;\n", h );
      out.definition = fill( R"(Zek::Name
$Self$::name() const {
   return Zek::Name( $x$_.toString() );
}

)",
                             h );
   }
   out.storage.push_back(
      { rank( m.type ), fill( "   const $T$ $x$_;\n", h ), fill( "$x$_( $x$ )", h ) } );
   out.parameter = fill( "$P$ $x$", h );
   out.row = fill( "   Zek::Rows::parameter< &$Self$::$x$_ >( \"$x$\", $n$$flags$ ),\n", h );
   return out;
}

std::string
boundTest( const Type & type, const Member & m, const std::string & value ) {
   Holes h{ { "Self", type.name }, { "x", m.name }, { "max", m.bound }, { "value", value } };
   return fill( R"(   if( $value$ > $max$() ) {
      Zek::throwRangeException( "$Self$::$x$ < 0 or > $Self$::$max$ not allowed" );
   }
)",
                h );
}

Pieces
plain( const Type & type, const Member & m ) {
   Holes h = holesOf( type, m );
   h["init"] = braced( cppExpression( m.init, m.type, &type ) );
   Pieces out;
   if( m.setAtConstruction ) out.parameter = fill( "$P$ $x$", h );
   out.declaration = fill( R"(   // $n$ $x$
$doc$
   $P$ $x$() const { return $x$_; }
   void $x$Is( $P$ $x$ );
)",
                           h );
   out.callbacks = fill( "      virtual void on$X$() {} // $n$\n", h );
   out.storage.push_back( { rank( m.type ), fill( "   $T$ $x$_$init$;\n", h ),
                            m.setAtConstruction ? fill( "$x$_( $x$ )", h ) : "" } );
   h["before"] = "";
   h["after"] = "";
   std::vector< std::string > rowFlags;
   if( !m.bound.empty() ) {
      h[m.testedFirst ? "before" : "after"] = boundTest( type, m, m.name );
      if( m.testedFirst ) rowFlags.push_back( "isTestedFirst" );
      out.check = boundTest( type, m, m.name + "_" );
   }
   h["flags"] = flags( rowFlags );
   out.definition = fill( R"(void
$Self$::$x$Is( $P$ $x$ ) {
   if( $x$_ == $x$ ) return;
$before$
   $x$_ = $x$;
$after$
$announce$
}

)",
                          h );
   out.row =
      fill( "   Zek::Rows::plain< &$Self$::$x$_, &$Self$::$x$Is >( \"$x$\", $n$$flags$ ),\n", h );
   out.relay = fill( "   void on$X$() override { changed( $n$ ); }\n", h );
   return out;
}

Pieces
counter( const Type & type, const Member & m ) {
   Holes h = holesOf( type, m );
   Pieces out;
   out.declaration = fill( "   // $n$ $x$\n$doc$\n   $T$ $x$() const { return $x$_; }\n", h );
   out.callbacks = fill( "      virtual void on$X$() {} // $n$\n", h );
   out.storage.push_back( { rank( m.type ), fill( "   $T$ $x$_{ 0 };\n", h ), "" } );
   if( m.hasIs ) {
      out.declaration += fill( "   void $x$Is( $T$ $x$ );\n", h );
      out.definition += fill( R"(void
$Self$::$x$Is( $T$ $x$ ) {
   if( $x$_ == $x$ ) return;
   $x$_ = $x$;
$announce$
}

)",
                              h );
   }
   for( auto [has, name, op] : { std::tuple( m.hasInc, "Inc", "+" ), { m.hasDec, "Dec", "-" } } ) {
      if( !has ) continue;
      h["op"] = op;
      h["Op"] = name;
      out.declaration += fill( "   $T$ $x$$Op$( $T$ n = 1 );\n", h );
      out.definition += fill( R"($T$
$Self$::$x$$Op$( $T$ n ) {
   const $T$ changed = static_cast< $T$ >( $x$_ $op$ n );
   $x$_ = changed;
$announce$
   return changed;
}

)",
                              h );
   }
   auto orNull = [&]( bool has, const char * name ) {
      return has ? fill( std::string( "&$Self$::$x$" ) + name, h ) : "nullptr";
   };
   h["operations"] = joined(
      { orNull( m.hasIs, "Is" ), orNull( m.hasInc, "Inc" ), orNull( m.hasDec, "Dec" ) }, ", " );
   out.row = fill( "   Zek::Rows::counter< &$Self$::$x$_, $operations$ >( \"$x$\", $n$ ),\n", h );
   out.relay = fill( "   void on$X$() override { changed( $n$ ); }\n", h );
   return out;
}

Pieces
constant( const Type & type, const Member & m ) {
   Holes h = holesOf( type, m );
   h["value"] = cppExpression( m.init, m.type, &type );
   h["constexpr"] =
      m.type.type->isEnum() || ( m.type.type->kind == TypeKind::builtin && m.type.type->byValue )
         ? "constexpr "
         : "";
   Pieces out;
   out.declaration =
      fill( "   // $n$ $x$\n$doc$\n   static $constexpr$$T$ $x$() { return $value$; }\n", h );
   out.row = fill( "   Zek::Rows::constant< &$Self$::$x$ >( \"$x$\", $n$ ),\n", h );
   return out;
}

Pieces
derived( const Type & type, const Member & m ) {
   Holes h = holesOf( type, m );
   Pieces out;
   out.declaration = fill( "   // $n$ $x$\n$doc$\n   $T$ $x$() const;\n", h );
   std::vector< std::string > rowFlags;
   if( !m.aborts.empty() ) {
      h["text"] = quoted( m.aborts );
      out.definition = fill( R"($T$
$Self$::$x$() const {
   Zek::assertionFailed( $text$, "$stem$" );
}

)",
                             h );
      rowFlags.push_back( "abortsOnRead" );
   } else if( !m.through.empty() ) {
      h["p"] = m.through;
      out.declaration += fill( "   void $x$Is( $P$ $x$ );\n", h );
      out.definition = fill( R"($T$
$Self$::$x$() const {
   return $p$_ ? $p$_->$x$() : $T$();
}

void
$Self$::$x$Is( $P$ $x$ ) {
   Zek::assertThat( $p$_ != nullptr, "$p$", "$stem$" );
   $p$_->$x$Is( $x$ );
}

)",
                             h );
   }
   h["flags"] = flags( rowFlags );
   out.row = fill( "   Zek::Rows::derived< &$Self$::$x$ >( \"$x$\", $n$$flags$ ),\n", h );
   return out;
}

// Arguments as the declarations of operations spell them.
std::vector< std::string >
declaredArguments( const Member & m ) {
   std::vector< std::string > out;
   for( const Argument & a : m.arguments ) out.push_back( cppParameter( a.type ) + " " + a.name );
   return out;
}

Pieces
operation( const Type & type, const Member & m ) {
   Pieces out;
   bool asked = m.kind == MemberKind::ask;
   std::string result = m.isVoid ? "void" : cppStored( m.type );
   std::string tail = isConstOperation( m ) ? " const" : "";
   out.declaration = "   // " + std::to_string( m.number ) + " " + m.name + "\n" +
                     docComment( m.doc, 3 ) + "   " +
                     call( ( m.isStatic ? "static "
                             : asked    ? "virtual "
                                        : "" ) +
                              result + " " + m.name,
                           declaredArguments( m ), tail + ";\n", 3 );
   CallableRow callable = callableRow( type, m );
   out.definition = callable.table;
   out.row = callable.row;
   if( asked ) {
      std::vector< std::string > unnamed;
      for( const Argument & a : m.arguments ) unnamed.push_back( cppParameter( a.type ) );
      out.definition += result + "\n" +
                        call( type.name + "::" + m.name, unnamed, tail + " {\n", 0 ) +
                        "   Zek::assertionFailed( \"Must override in derived class\", \"" +
                        type.schema->stem + "\" );\n}\n\n";
   }
   if( m.atConstruction ) out.construction = "   " + m.name + "();\n";
   return out;
}

// A binding over the questions of its view: the record it holds, and the answers, which are
// written by hand.
Pieces
binding( const Type & type ) {
   const Type & view = *type.base.type;
   Pieces out = parameter( type, heldBy( type ) );
   out.declaration += "\n";
   if( view.hasNotifier ) {
      out.declaration += fill( "   const std::type_info & zekCallbackType() const override {\n"
                               "      return typeid( $view$ );\n   }\n",
                               { { "view", cppName( view ) } } );
   }
   for( const Member & m : view.members ) {
      if( m.kind != MemberKind::ask ) continue;
      out.declaration +=
         "   " + call( ( m.isVoid ? std::string( "void" ) : cppStored( m.type ) ) + " " + m.name,
                       declaredArguments( m ),
                       isConstOperation( m ) ? " const override;\n" : " override;\n", 3 );
   }
   return out;
}

// The member node class of a collection that makes its members itself.
std::string
nodeClass( const Holes & h ) {
   return fill( R"(   /// A member of $x$.
   class $Node$ final : public $NodeBase$ {
    public:
      using $NodeCtor$;
      Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override;
      static Zek::AllocTrackTypeInfo allocTrackTypeInfo_;
   };
)",
                h );
}

std::string
nodeDefinition( const Holes & h ) {
   return fill( R"(constinit Zek::AllocTrackTypeInfo $Self$::$Node$::allocTrackTypeInfo_(
   "$full$::$Node$", sizeof( $Node$ ) );

Zek::AllocTrackTypeInfo &
$Self$::$Node$::zekAllocTrackTypeInfo() const {
   return allocTrackTypeInfo_;
}

)",
                h );
}

Pieces
nodeCollection( const Type & type, const Member & m ) {
   Holes h = holesOf( type, m );
   bool set = m.form == CollectionForm::set;
   bool fields = m.form == CollectionForm::fields;
   h["K"] = cppStored( m.keyType );
   h["V"] = set ? "bool" : cppStored( m.type );
   h["VP"] = set ? "" : cppParameter( m.type );
   h["Node"] = "Zek" + h["X"];
   h["Rb"] = m.isOrdered ? "Zek::Rb" : "Zek::";
   h["Functor"] = h["X"] + "KeyFunktor";
   h["field"] = m.keyField;
   h["NodeBase"] = set      ? fill( "$Rb$KeyNode< $K$ >", h )
                   : fields ? fill( "$Rb$ValueNode< $V$, $Functor$ >", h )
                            : fill( "$Rb$KeyValueNode< $K$, $V$ >", h );
   h["NodeCtor"] = set      ? "KeyNode::KeyNode"
                   : fields ? "ValueNode::ValueNode"
                            : "KeyValueNode::KeyValueNode";
   h["Map"] =
      m.isOrdered
         ? fill( set ? "Zek::RbTreeMap< $Node$, $K$ >" : "Zek::RbTreeMap< $Node$, $K$, $V$ >", h )
         : fill( "Zek::HashMap< $Node$, $K$ >", h );
   h["Removed"] = set ? "void" : h["V"];
   h["Shown"] = set ? h["K"] : h["V"];
   h["hasValue"] = set ? "false" : "true";
   std::vector< std::string > rowFlags;
   if( m.isOrdered ) rowFlags.push_back( "isOrdered" );
   if( set ) rowFlags.push_back( "isSet" );
   if( fields ) rowFlags.push_back( "keyIsField" );
   h["rowFlags"] = rowFlags.empty() ? "0" : "Zek::" + joined( rowFlags, " | Zek::" );

   Pieces out;
   out.declaration = fill( "   // $n$ $x$\n", h );
   if( fields ) {
      out.declaration += fill( R"(   /// The key of a member: its $field$.
   struct $Functor$ {
      const $K$ & operator()( const $V$ & value ) const { return value.$field$(); }
   };
)",
                               h );
   }
   out.declaration += nodeClass( h );
   out.definition = nodeDefinition( h );
   if( set ) {
      out.declaration += fill(
         "$doc$\n   /// Whether it holds `key`.\n   bool $x$( const $K$ & key ) const;\n", h );
      out.definition += fill( R"(bool
$Self$::$x$( const $K$ & key ) const {
   return $x$Has( key );
}

)",
                              h );
      h["isDeclaration"] = fill( "   void $x$Is( const $K$ & key );\n", h );
      h["isDefinition"] = fill( R"(void
$Self$::$x$Is( const $K$ & key ) {
   if( $x$_.keyIs( key ) ) $x$Notify( key );
}

)",
                                h );
      h["delBody"] = fill( R"(   const $K$ removedKey = key;
   if( $x$_.take( removedKey ) ) $x$Notify( removedKey );
)",
                           h );
   } else {
      out.declaration += fill( R"($doc$
   /// The value under `key`, or the default value when there is none.
   $V$ $x$( const $K$ & key ) const;
)",
                               h );
      out.definition += fill( R"($V$
$Self$::$x$( const $K$ & key ) const {
   const $Node$ * member = $x$_.find( key );
   return member ? member->value() : $V$();
}

)",
                              h );
      h["is"] = fields ? fill( "const $V$ & value", h ) : fill( "const $K$ & key, $VP$ value", h );
      h["isKey"] = fields ? fill( "$Functor$()( value )", h ) : "key";
      h["isArguments"] = fields ? "value" : "key, value";
      h["isDeclaration"] = fill( "   void $x$Is( $is$ );\n", h );
      h["isDefinition"] = fill( R"(void
$Self$::$x$Is( $is$ ) {
   if( $x$_.valueIs( $isArguments$ ) ) $x$Notify( $isKey$ );
}

)",
                                h );
      h["delBody"] = fill( R"(   const $K$ removedKey = key;
   Zek::Ptr< $Node$ > member = $x$_.take( removedKey );
   if( !member ) return $V$();
   $x$Notify( removedKey );
   return member->value();
)",
                           h );
   }
   shareCollection( h, type, out );
   return out;
}

Pieces
entityCollection( const Type & type, const Member & m ) {
   Holes h = holesOf( type, m );
   bool owning = m.form == CollectionForm::owning;
   const Type & member = *m.type.type;
   h["K"] = cppStored( m.keyType );
   h["M"] = cppName( member );
   h["CM"] = ( m.type.isConst ? "const " : "" ) + h["M"];
   h["Ptr"] = pointerTo( m.type );
   h["Node"] = h["M"];
   h["Map"] = fill( "Zek::HashMap< $CM$, $K$ >", h );
   h["Removed"] = h["Ptr"];
   h["Shown"] = h["M"];
   h["hasValue"] = "false";
   h["rowFlags"] = owning ? "Zek::ownsMembers" : "Zek::refersToMembers";
   if( m.type.isConst ) h["rowFlags"] += " | Zek::pointsToConst";

   Pieces out;
   out.declaration = fill( R"(   // $n$ $x$
$doc$
   /// The member under `key`, or null.
   $Ptr$ $x$( const $K$ & key ) const;
)",
                           h );
   out.definition = fill( R"($Ptr$
$Self$::$x$( const $K$ & key ) const {
   return $x$_.find( key );
}

)",
                          h );
   if( owning ) {
      // The collection takes the key first, the member's constructor where it is declared.
      std::string checks;
      std::vector< std::string > all{ fill( "const $K$ & key", h ) };
      std::vector< std::string > arguments;
      if( member.isNamed ) arguments.push_back( "key" );
      for( const Member * p : parametersOf( member ) ) {
         if( p->kind == MemberKind::key ) {
            arguments.push_back( "key" );
            continue;
         }
         all.push_back( cppParameter( p->type ) + " " + p->name );
         arguments.push_back( p->name );
         checks += "      Zek::requireSameParameter( *member, \"" + p->name + "\", " + p->name +
                   ", member->" + p->name + "() );\n";
      }
      h["factory"] = joined( member.scope, "::" ) + "::" + factoryOf( member );
      h["arguments"] = joined( arguments, ", " );
      h["checks"] = checks;
      h["isDeclaration"] =
         fill( R"(   /// The member under `key`, made and announced when there is none.
)",
               h ) +
         ( checks.empty()
              ? ""
              : "   /// NameInUseException, and nothing changes, when it exists with another\n"
                "   /// constructor argument.\n" ) +
         "   " + call( fill( "$Ptr$ $x$Is", h ), all, ";\n", 3 );
      h["isHead"] = call( fill( "$Ptr$\n$Self$::$x$Is", h ), all, " {", 0 );
      h["isDefinition"] = fill( R"($isHead$
   if( $M$ * member = $x$_.find( key ) ) {
$checks$
      return member;
   }
   $Ptr$ member = $factory$( $arguments$ );
   Zek::adoptMember( $x$_, *member, *this, $n$ );
   $x$Notify( member->fwkKey() );
   return member;
}

)",
                                h );
      h["delBody"] = fill( R"(   const $K$ removedKey = key;
   $Ptr$ member = $x$_.take( removedKey );
   if( !member ) return member;
   Zek::disownMember( *member );
   $x$Notify( removedKey );
   return member;
)",
                           h );
      out.orphaning = fill( "   Zek::orphanMembers( $x$_ );\n", h );
   } else {
      h["isDeclaration"] = fill(
         R"(   /// Adds `member` under its own key, or replaces the one held there.
   /// RangeException on null.
   void $x$Is( const $Ptr$ & member );
)",
         h );
      h["isDefinition"] = fill( R"(void
$Self$::$x$Is( const $Ptr$ & member ) {
   if( !member ) Zek::throwNullParameterException( "$full$", "$x$" );
   const $Ptr$ held = member;
   if( $x$_.put( held.ptr() ) ) $x$Notify( held->fwkKey() );
}

)",
                                h );
      h["delBody"] = fill( R"(   const $K$ removedKey = key;
   $Ptr$ member = $x$_.take( removedKey );
   if( member ) $x$Notify( removedKey );
   return member;
)",
                           h );
   }
   shareCollection( h, type, out );
   return out;
}

Pieces
visit( const Type & type, const Member & m ) {
   switch( m.kind ) {
   case MemberKind::key:
   case MemberKind::param:
      return parameter( type, m );
   case MemberKind::attr:
      return plain( type, m );
   case MemberKind::constant:
      return constant( type, m );
   case MemberKind::derived:
      return derived( type, m );
   case MemberKind::counter:
      return counter( type, m );
   case MemberKind::call:
   case MemberKind::ask:
      return operation( type, m );
   case MemberKind::collection:
      return m.form == CollectionForm::owning || m.form == CollectionForm::byRef
                ? entityCollection( type, m )
                : nodeCollection( type, m );
   case MemberKind::reactor:
      return emitReactor( type, m );
   case MemberKind::named:
      break;
   }
   return {};
}

// The base classes of a counted type and of its notifiee.
struct Bases {
   std::string object;
   std::string notifiee;
   std::string descriptor;
};

Bases
basesOf( const Type & type ) {
   if( type.base ) {
      std::string base = cppName( *type.base.type );
      return { base, base + "::NotifieeConst", "&" + base + "::zekTypeDescriptor_" };
   }
   if( type.isEntity ) {
      return { type.isNamed ? "Zek::NamedEntity" : "Zek::Entity", "Zek::Entity::NotifieeConst",
               "&Zek::Entity::zekTypeDescriptor_" };
   }
   return { type.hasNotifier ? "Zek::Notifier" : "Zek::PtrInterface",
            "Zek::PtrInterface::NotifieeConst", "nullptr" };
}

} // namespace

Emission
emitCounted( const Type & type ) {
   Emission out;
   out.scope = type.scope;
   Bases bases = basesOf( type );
   bool extends = static_cast< bool >( type.base );

   std::string body;
   std::string callbacks;
   std::vector< Storage > storage;
   std::vector< std::string > parameters;
   std::vector< std::string > arguments;
   std::string definitions;
   std::string rows;
   std::string relay;
   std::string checks;
   std::string construction;
   std::string orphaning;
   std::string zombie;
   std::string nested;
   std::string parameterRows;

   auto takes = [&]( const std::string & parameter, const std::string & name,
                     const std::string & stored ) {
      parameters.push_back( parameter );
      arguments.push_back( name );
      parameterRows += "   Zek::Rows::argument< " + stored + " >( \"" + name + "\" ),\n";
   };
   if( type.isNamed ) takes( "const Zek::Name & name", "name", "Zek::Name" );
   std::vector< std::string > up; // what the base is made of
   if( type.isNamed && extends ) up.push_back( "name" );
   if( extends ) {
      for( const Member * m : parametersOf( *type.base.type ) ) {
         if( m->name == type.fixedParam ) {
            up.push_back( cppExpression( type.fixedValue, m->type, type.base.type ) );
         } else {
            up.push_back( m->name );
            takes( cppParameter( m->type ) + " " + m->name, m->name, cppStored( m->type ) );
         }
      }
   }
   for( const auto & e : type.nested ) nested += indented( enumClass( *e ), 3 ) + "\n";
   auto add = [&]( const Pieces & p, const std::string & name, const TypeRef & stored ) {
      if( !p.declaration.empty() ) body += p.declaration + "\n";
      callbacks += p.callbacks;
      storage.insert( storage.end(), p.storage.begin(), p.storage.end() );
      if( !p.parameter.empty() ) {
         takes( p.parameter, name,
                p.parameterType.empty() ? cppStored( stored ) : p.parameterType );
      }
      definitions += p.definition;
      rows += p.row;
      relay += p.relay;
      checks += p.check;
      construction += p.construction;
      orphaning += p.orphaning;
      zombie += p.zombie;
   };
   if( type.kind == TypeKind::binding ) add( binding( type ), type.holdsName, type.holds );
   for( const Member & m : type.members ) add( visit( type, m ), m.name, m.type );
   std::stable_sort( storage.begin(), storage.end(),
                     []( const Storage & a, const Storage & b ) { return a.rank > b.rank; } );
   std::string fields;
   std::vector< std::string > initialisers;
   if( type.isNamed && !extends ) initialisers.push_back( "Zek::NamedEntity( name )" );
   if( extends && !up.empty() ) {
      initialisers.push_back( cppName( *type.base.type ) + "( " + joined( up, ", " ) + " )" );
   }
   for( const Storage & s : storage ) {
      fields += s.text;
      if( !s.initialiser.empty() ) initialisers.push_back( s.initialiser );
   }
   std::vector< std::string > withDefaults = parameters;
   if( type.isNamed && parameters.size() == 1 ) withDefaults[0] += " = Zek::Name()";

   std::string id = genericId( type );
   std::string factory = factoryOf( type );
   Holes h{ { "doc", docComment( type.doc, 0 ) },
            { "Self", type.name },
            { "full", type.fullName() },
            { "id", id },
            { "base", bases.object },
            { "nested", nested },
            { "body", body },
            { "callbacks", callbacks },
            { "fields", fields },
            { "rows", rows },
            { "relayLines", relay },
            { "entityRelay",
              type.isEntity && !extends
                 ? "   void onEntity( const Zek::String & key ) override { changed( 5, &key ); }\n"
                 : "" },
            { "factory", factory },
            { "kind", type.kind == TypeKind::machine ? "stateMachine"
                      : type.isEntity                ? "entity"
                                                     : "object" },
            { "named", type.isNamed ? "true" : "false" },
            { "notifies", type.hasNotifier ? "true" : "false" },
            { "logs", isStreamed( type ) ? "true" : "false" },
            { "descriptorBase", bases.descriptor },
            { "notifieeBase", bases.notifiee },
            { "schema", type.schema->path },
            { "parameterRows", parameterRows },
            { "constructorParameters", parameterRows.empty() ? "{}" : id + "_parameters" } };
   h["constructor"] =
      "   " + call( std::string( parameters.size() == 1 ? "explicit " : "" ) + type.name,
                    withDefaults, ";", 3 );
   h["constructorHead"] = call( type.name + "::" + type.name, parameters, "", 0 );
   std::string list;
   for( const std::string & i : initialisers )
      list += ( list.empty() ? "\n   : " : ",\n     " ) + i;
   h["initialisers"] = list;
   h["constructorBody"] = checks + construction;
   h["orphaning"] = orphaning;
   h["factoryDeclaration"] =
      call( "IPSTATE_EXPORT Zek::Ptr< " + type.name + " > " + factory, withDefaults, ";\n", 0 );
   h["factoryHead"] = call( "Zek::Ptr< " + type.name + " >\n" + factory, parameters, " {", 0 );
   h["arguments"] = arguments.empty() ? "" : " " + joined( arguments, ", " ) + " ";
   h["notifiee"] = "";
   h["notifieeDefinition"] = "";
   const AttrLogPieces streamed = attrLog( type );
   out.attrLog = streamed.declaration;
   h["attrLogForward"] = streamed.forward;
   h["attrLogDefinition"] = streamed.definition;
   h["attrLogThunk"] =
      streamed.declaration.empty()
         ? ""
         : fill( "   .attrLogSa = &Zek::makeAttrLogSa< $Self$::ZekNboAttrLogSa >,\n", h );
   h["attrLogThunk"] += streamed.state;
   h["relay"] = "";
   h["relayThunk"] = "nullptr";
   h["Relay"] = relayClass( type );
   if( type.hasNotifier && !extends ) {
      h["notifiee"] =
         fill( R"(   /// Told of every change of the record it is attached to and registered with.
   class IPSTATE_EXPORT NotifieeConst : public $notifieeBase$ {
    public:
$callbacks$

      /// The record watched, or null when detached.
      Zek::Ptr< const $Self$ > notifier() const;
      /// Attaches to that record, or detaches: null, or an object of another type.
      void notifierIs( Zek::Ptr< const Zek::PtrInterface > notifier ) override;

    protected:
      ~NotifieeConst() override;
   };
   /// The same, for holders that may change the record.
   class IPSTATE_EXPORT Notifiee : public NotifieeConst {
    public:
      Zek::Ptr< $Self$ > notifier() const;

    protected:
      ~Notifiee() override;
   };

)",
               h );
      h["notifieeDefinition"] = fill( R"($Self$::NotifieeConst::~NotifieeConst() = default;
$Self$::Notifiee::~Notifiee() = default;

Zek::Ptr< const $Self$ >
$Self$::NotifieeConst::notifier() const {
   return notifierAs< $Self$ >();
}

void
$Self$::NotifieeConst::notifierIs( Zek::Ptr< const Zek::PtrInterface > notifier ) {
   notifierAssign( dynamic_cast< const $Self$ * >( notifier.ptr() ) );
}

Zek::Ptr< $Self$ >
$Self$::Notifiee::notifier() const {
   return Zek::constCast( NotifieeConst::notifier() );
}

)",
                                      h );
      h["relay"] = fill( R"(// Forwards every change by number.
class $Relay$ final : public Zek::Relay< $Self$ > {
 public:
   using Relay::Relay;
$entityRelay$
$relayLines$
};

)",
                         h );
      // A nested class has its place in the header; any other is this file's own.
      if( !isStreamed( type ) ) h["relay"] = "namespace {\n\n" + h["relay"] + "} // namespace\n\n";
      h["relayThunk"] = fill( "&Zek::makeRelay< $Relay$ >", h );
   } else if( extends ) {
      h["relayThunk"] = "nullptr"; // the base's, found through the descriptor
   }
   h["parameterTable"] =
      parameterRows.empty()
         ? ""
         : fill(
              "static constexpr Zek::ParameterRow $id$_parameters[] = {\n$parameterRows$\n};\n\n",
              h );
   h["attributes"] = rows.empty() ? "{}" : "zekAttributes_";
   h["rowsDeclaration"] =
      rows.empty() ? "" : "   static const Zek::AttributeRow zekAttributes_[];\n";
   h["rowsDefinition"] =
      rows.empty()
         ? ""
         : fill( "constinit const Zek::AttributeRow $Self$::zekAttributes_[] = {\n$rows$\n};\n\n",
                 h );
   h["zombieDeclaration"] = type.kind == TypeKind::machine
                               ? "   /// Puts all its reactors into or out of the zombie state.\n"
                                 "   void zekDoZombieReactors( bool zombie );\n"
                               : "";
   h["zombieDefinition"] =
      type.kind == TypeKind::machine
         ? "void\n" + type.name + "::zekDoZombieReactors( bool zombie ) {\n" + zombie + "}\n\n"
         : "";
   h["companion"] = companion( type, type.name + "::zekTypeDescriptor_" );
   const NotesPieces said = notes( type );
   h["notesTable"] = said.table;
   h["notes"] = said.entry;
   h["fieldsBlock"] = fields.empty() ? "" : "\n" + fields;

   out.declaration = fill( R"($doc$
class IPSTATE_EXPORT $Self$ : public $base$ {
 public:
   using Ptr = Zek::Ptr< $Self$ >;
   using PtrConst = Zek::Ptr< const $Self$ >;

$nested$
$notifiee$
$attrLogForward$
$constructor$

$body$
$zombieDeclaration$
   const Zek::TypeDescriptor * fwkType() const override;
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override;
   static Zek::AllocTrackTypeInfo allocTrackTypeInfo_;
   static const Zek::TypeDescriptor zekTypeDescriptor_;

 protected:
   ~$Self$() override;

 private:
$rowsDeclaration$
$fieldsBlock$
};

/// Makes one.
$factoryDeclaration$
)",
                           h );
   out.definition = fill( R"(// -- $full$

constinit Zek::AllocTrackTypeInfo $Self$::allocTrackTypeInfo_( "$full$", sizeof( $Self$ ) );

$constructorHead$$initialisers$ {
$constructorBody$
}

$Self$::~$Self$() {
$orphaning$
}

$factoryHead$
   return Zek::allocate< $Self$ >($arguments$);
}

Zek::AllocTrackTypeInfo &
$Self$::zekAllocTrackTypeInfo() const {
   return allocTrackTypeInfo_;
}

const Zek::TypeDescriptor *
$Self$::fwkType() const {
   return &zekTypeDescriptor_;
}

$notifieeDefinition$
$zombieDefinition$
)",
                          h ) +
                    definitions +
                    fill( R"($relay$
$attrLogDefinition$
$companion$
$parameterTable$
$rowsDefinition$
$notesTable$
constinit const Zek::TypeDescriptor $Self$::zekTypeDescriptor_ = {
   .fullName = "$full$",
   .kind = Zek::TypeKind::$kind$,
   .isRecord = true,
   .isNamed = $named$,
   .hasNotifier = $notifies$,
   .hasAttrLog = $logs$,
   .base = $descriptorBase$,
   .values = nullptr,
   .attributes = $attributes$,
   .enumerators = {},
   .constructorParameters = $constructorParameters$,
   .createThunk = &Zek::Rows::createBy< &$factory$ >,
   .relay = $relayThunk$,
   .allocations = &allocTrackTypeInfo_,
   .genericIf = &$id$_GenericIf,
$attrLogThunk$
$notes$
};
)",
                          h );
   if( type.isRegistered ) out.registered.push_back( type.fullName() + "::zekTypeDescriptor_" );
   return out;
}

} // namespace Zek::TypeLang
