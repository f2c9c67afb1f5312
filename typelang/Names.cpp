#include "typelang/Names.h"

#include "typelang/Text.h"

#include <map>
#include <set>

namespace Zek::TypeLang {

std::string
factoryOf( const Type & type ) {
   return uncapitalised( type.name ) + "Factory";
}

namespace {

using Words = std::set< std::string >;

// Keywords, macros of headers that every generated file sees, and what generated code spells
// without a namespace.
const Words cppWords{
   "alignas",
   "alignof",
   "and",
   "and_eq",
   "asm",
   "auto",
   "bitand",
   "bitor",
   "bool",
   "break",
   "case",
   "catch",
   "char",
   "char16_t",
   "char32_t",
   "char8_t",
   "class",
   "co_await",
   "co_return",
   "co_yield",
   "compl",
   "concept",
   "const",
   "const_cast",
   "consteval",
   "constexpr",
   "constinit",
   "continue",
   "decltype",
   "default",
   "delete",
   "do",
   "double",
   "dynamic_cast",
   "else",
   "enum",
   "explicit",
   "export",
   "extern",
   "false",
   "final",
   "float",
   "for",
   "friend",
   "goto",
   "if",
   "inline",
   "int",
   "long",
   "mutable",
   "namespace",
   "new",
   "noexcept",
   "not",
   "not_eq",
   "nullptr",
   "operator",
   "or",
   "or_eq",
   "private",
   "protected",
   "public",
   "register",
   "requires",
   "return",
   "short",
   "signed",
   "sizeof",
   "static",
   "static_assert",
   "static_cast",
   "struct",
   "switch",
   "template",
   "this",
   "thread_local",
   "throw",
   "true",
   "try",
   "typedef",
   "typeid",
   "typename",
   "union",
   "unsigned",
   "using",
   "virtual",
   "void",
   "volatile",
   "wchar_t",
   "while",
   "xor",
   "xor_eq",
   "reinterpret_cast",
   "int8_t",
   "int16_t",
   "int32_t",
   "int64_t",
   "uint8_t",
   "uint16_t",
   "uint32_t",
   "uint64_t",
   "size_t",
   "NULL",
   "EOF",
   "errno",
   "assert",
   "stdin",
   "stdout",
   "stderr",
   "INT64_MIN",
   "IPSTATE_EXPORT",
};

// What every counted class has from the framework.
const Words countedNames{
   "name",
   "fullName",
   "parent",
   "parentIs",
   "parentAttrName",
   "parentAttrId",
   "parentAttrIdIs",
   "entity",
   "entityIs",
   "entityDel",
   "entityDelAll",
   "entityNotify",
   "entityHas",
   "entityCount",
   "entityAt",
   "entityIteratorConst",
   "EntityKeyFunktor",
   "childKey",
   "EntityDirectory",
   "EntityIteratorConst",
   "notifieeList",
   "announce",
   "fwkType",
   "fwkKey",
   "references",
   "referencesInc",
   "referencesDec",
   "Ptr",
   "PtrConst",
   "NotifieeConst",
   "Notifiee",
   "handleZeroRef",
   "onZeroReferences",
   "nameIsFromBackup",
   "hasNotificationActive",
   "hasNotificationActiveIs",
   "allocTrackTypeInfo_",
};

// What every value has.
const Words valueNames{ "hash", "appendTo", "toString", "fromText", "fwkType" };

// What every reactor has, and what its callbacks call their own.
const Words reactorNames{
   "owner",
   "live",
   "notifier",
   "notifierIs",
   "fwkType",
   "fwkKey",
   "key_",
   "Reactor",
   "references",
   "referencesInc",
   "referencesDec",
   "handleZeroRef",
   "hasNotificationActive",
   "hasNotificationActiveIs",
   "isRegisteredNotifiee",
   "isRegisteredNotifieeIs",
   "isWeakNotifiee",
   "isWeakNotifieeIs",
   "notifierAs",
   "notifierAssign",
   "machine",
   "input",
   "key",
   "i",
   "Ptr",
   "PtrConst",
   "allocTrackTypeInfo_",
};

// Functions beside every enumeration and value.
const Words companions{ "stringValue", "valueToStrep", "sequenceToValue" };

bool
startsWith( const std::string & text, const char * prefix ) {
   return text.rfind( prefix, 0 ) == 0;
}

bool
isCapital( char c ) {
   return c >= 'A' && c <= 'Z';
}

class Names {
 public:
   Names( const std::vector< Schema * > & schemas, Errors & errors )
      : schemas_( schemas ),
        errors_( errors ) {}

   void run() {
      for( const Schema * schema : schemas_ ) scopes( *schema );
      for( const Schema * schema : schemas_ ) {
         roots_.clear();
         addRoots( *schema );
         for( const Schema::Scope & scope : schema->scopes ) scopeName( *schema, scope );
         for( const Type & type : schema->types ) {
            typeName( type );
            for( const auto & nested : type.nested ) typeName( *nested );
         }
         for( const Function & function : schema->functions ) functionName( function );
         for( const Type & type : schema->types ) members( type );
      }
   }

 private:
   void error( const Span & where, const std::string & message ) {
      errors_.error( where, message );
   }

   // -- Words ---------------------------------------------------------------------------------

   void word( const Span & where, const std::string & name, const char * what ) {
      if( cppWords.count( name ) ) {
         error( where, "'" + name + "' is a word of C++ and cannot name " + what );
      } else if( name[0] == '_' ) {
         error( where, "the name of " + std::string( what ) + " begins with a letter" );
      }
   }
   void arguments( const std::vector< Argument > & arguments ) {
      for( const Argument & a : arguments ) word( a.span, a.name, "an argument" );
   }

   // -- Namespaces ----------------------------------------------------------------------------

   // The outermost namespaces that the schema's code spells out. Nothing below may hide them.
   void addRoots( const Schema & schema ) {
      roots_.insert( { "Zek", "std" } );
      if( !schema.model.empty() ) roots_.insert( schema.model[0] ); // it may be missing
      for( const Schema * import : schema.imports ) addRoots( *import );
   }
   void hidesRoot( const Span & where, const std::string & name ) {
      if( roots_.count( name ) ) error( where, "'" + name + "' is the name of a whole model" );
   }

   static std::string dotted( const std::vector< std::string > & scope ) {
      return joined( scope, "." );
   }

   void scopes( const Schema & schema ) {
      for( const Schema::Scope & scope : schema.scopes ) {
         std::vector< std::string > path;
         for( const std::string & part : scope.path ) {
            path.push_back( part );
            taken_[dotted( path )] = "a scope";
         }
      }
   }
   void scopeName( const Schema & schema, const Schema::Scope & scope ) {
      bool isModel = &scope == &schema.scopes.front();
      if( isModel && !isCapital( scope.path[0][0] ) ) {
         error( scope.span, "a model's name begins with a capital letter" );
      }
      if( isModel && scope.path[0] == "Zek" && !schema.foreignOnly() ) {
         error( scope.span, "the model 'Zek' is the framework's" );
      }
      for( size_t i = isModel ? 0 : scope.path.size() - 1; i < scope.path.size(); ++i ) {
         word( scope.span, scope.path[i], isModel ? "a model" : "a scope" );
         if( i > 0 ) hidesRoot( scope.span, scope.path[i] );
      }
   }

   // One name of a namespace. `what` tells what has it: "the type 'X'".
   void take( const Span & where, const std::vector< std::string > & scope,
              const std::string & name, const std::string & what, const std::string & own ) {
      if( companions.count( name ) ) {
         error( where, "'" + name + "' is a name of the framework" );
         return;
      }
      auto [at, fresh] = taken_.emplace( dotted( scope ) + "." + name, what );
      if( fresh || at->second == what ) return;
      error( where, name == own ? "'" + name + "' is " + at->second + " in the same scope"
                                : "'" + own + "' needs the name '" + name + "', which is " +
                                     at->second + " in the same scope" );
   }

   void typeName( const Type & t ) {
      word( t.span, t.name, "a type" );
      hidesRoot( t.span, t.name );
      std::vector< std::string > scope = t.scope;
      std::string what = "the type '" + t.dottedName() + "'";
      if( t.enclosing ) {
         scope.pop_back(); // its own name and its enumerators are looked at with the class
      } else {
         if( t.isCounted() &&
             ( countedNames.count( t.name ) || t.name == "Reactor" || t.name == "PtrInterface" ) ) {
            error( t.span, "'" + t.name + "' is a name of the framework" );
         }
         take( t.span, scope, t.name, what, t.name );
         std::string flat = joined( t.scope, "_" ) + "_" + t.name;
         auto [at, fresh] = flat_.emplace( t.schema->path + " " + flat, &t );
         if( !fresh && at->second->dottedName() != t.dottedName() ) {
            error( t.span, "'" + t.dottedName() + "' and '" + at->second->dottedName() +
                              "' are both '" + flat + "' in generated code" );
         }
      }
      for( const Enumerator & e : t.enumerators ) {
         word( e.span, e.name, "an enumerator" );
         if( t.kind == TypeKind::enumeration && !t.enclosing ) {
            take( e.span, scope, e.name, "an enumerator of '" + t.name + "'", e.name );
         }
      }
      if( t.kind == TypeKind::enumeration && t.isRegistered && !t.enclosing ) {
         take( t.span, scope, t.name + "Instance", "generated for '" + t.dottedName() + "'",
               t.name );
      }
      if( t.isCounted() && !t.isForeign() ) {
         take( t.span, scope, factoryOf( t ), "generated for '" + t.dottedName() + "'", t.name );
      }
      static const Words stringNames{ "maxBytes", "lengthError", "string",   "view",
                                      "charPtr",  "size",        "empty",    "hash",
                                      "toString", "appendTo",    "fromText", "BoundedString" };
      if( t.kind == TypeKind::boundedString ) {
         word( t.maxSpan, t.maxName, "a limit" );
         if( stringNames.count( t.maxName ) || t.maxName == t.name ) {
            error( t.maxSpan, "'" + t.maxName + "' is a name of the string itself" );
         }
      }
   }

   void functionName( const Function & f ) {
      word( f.span, f.name, "a function" );
      arguments( f.arguments );
      take( f.span, f.scope, f.name, "a function", f.name );
      std::string signature =
         dotted( f.scope ) + "." + f.name + " " + std::to_string( f.arguments.size() );
      if( !functions_.insert( signature ).second ) {
         error( f.span, "there is another function '" + f.name + "' of as many arguments" );
      }
   }

   // -- The members of one class --------------------------------------------------------------

   struct Owner {
      const Member * member; // null: the type's own name, a nested enumeration
      std::string name;
   };
   using Class = std::map< std::string, Owner >;

   void members( const Type & t ) {
      Class own;
      Class callbacks;
      own[t.name] = { nullptr, t.name };
      for( const Type * base = t.base.type; base; base = base->base.type ) {
         for( const Member & m : base->members ) member( *base, m, own, callbacks, false );
      }
      for( const auto & e : t.nested ) {
         nestedName( e->span, e->name, own );
         nestedName( e->span, e->name + "Instance", own );
         for( const Enumerator & enumerator : e->enumerators ) {
            nestedName( enumerator.span, enumerator.name, own );
         }
      }
      Member held; // a binding's
      if( t.holds ) {
         held.kind = MemberKind::param;
         held.name = t.holdsName;
         held.span = t.holdsSpan;
         member( t, held, own, callbacks, true );
      }
      for( const Member & m : t.members ) {
         member( t, m, own, callbacks, true );
         arguments( m.arguments );
         handlers( t, m );
      }
   }

   void nestedName( const Span & where, const std::string & name, Class & own ) {
      if( countedNames.count( name ) ) error( where, "'" + name + "' is a name of the framework" );
      if( !own.emplace( name, Owner{ nullptr, name } ).second ) {
         error( where, "there is another '" + name + "'" );
      }
   }

   void member( const Type & t, const Member & m, Class & own, Class & callbacks, bool report ) {
      const Words & reserved = t.kind == TypeKind::value ? valueNames : countedNames;
      bool framework = startsWith( m.name, "zek" ) || startsWith( m.name, "Zek" );
      for( const std::string & name : needed( m ) ) framework = framework || reserved.count( name );
      if( report ) {
         // Else its iterators' types would have the names of its functions.
         bool iterated = m.kind == MemberKind::collection || m.kind == MemberKind::reactor;
         if( iterated && isCapital( m.name[0] ) ) {
            error( m.span, "a collection's name begins with a small letter" );
         }
         word( m.span, m.name, "an attribute" );
         if( framework ) error( m.span, "'" + m.name + "' is a name of the framework" );
      }
      for( const std::string & name : needed( m ) ) {
         if( name != m.name ) hidesGenerated( m, name, report );
         report = add( m, name, own, report ) && report; // the first clash tells it all
      }
      for( const std::string & name : callbacksOf( t, m ) ) {
         report = add( m, name, callbacks, report ) && report;
      }
   }
   // A nested class that is generated could hide a model.
   void hidesGenerated( const Member & m, const std::string & name, bool report ) {
      if( report && isCapital( name[0] ) ) hidesRoot( m.span, name );
   }

   bool add( const Member & m, const std::string & name, Class & names, bool report ) {
      auto [at, fresh] = names.emplace( name, Owner{ &m, m.name } );
      if( fresh || at->second.member == &m || !report ) return true;
      const Member * other = at->second.member;
      bool overloads = name == m.name && other && m.kind == MemberKind::call &&
                       other->kind == MemberKind::call && other->name == name &&
                       other->arguments.size() != m.arguments.size();
      if( overloads ) return true;
      error( m.span, name == m.name && at->second.name == name
                        ? "there is another '" + name + "'"
                        : "'" + m.name + "' needs the name '" + name + "', which '" +
                             at->second.name + "' has" );
      return false;
   }

   // Every name in the class that a line gives it.
   static std::vector< std::string > needed( const Member & m ) {
      std::vector< std::string > out{ m.name };
      std::string X = capitalised( m.name );
      auto functions = [&]( std::initializer_list< const char * > suffixes ) {
         for( const char * suffix : suffixes ) out.push_back( m.name + suffix );
      };
      auto iterated = [&] {
         functions(
            { "Is", "Del", "DelAll", "Notify", "Has", "Count", "Iterator", "IteratorConst" } );
         for( const char * suffix : { "Iterator", "IteratorConst" } ) out.push_back( X + suffix );
      };
      switch( m.kind ) {
      case MemberKind::key:
      case MemberKind::param:
         functions( { "_" } );
         break;
      case MemberKind::attr:
         functions( { "_", "Is" } );
         break;
      case MemberKind::derived:
         if( !m.through.empty() ) functions( { "Is" } );
         break;
      case MemberKind::counter:
         functions( { "_" } );
         if( m.hasInc ) functions( { "Inc" } );
         if( m.hasDec ) functions( { "Dec" } );
         if( m.hasIs ) functions( { "Is" } );
         break;
      case MemberKind::collection:
         functions( { "_" } );
         iterated();
         if( m.form == CollectionForm::fields ) out.push_back( X + "KeyFunktor" );
         if( m.form != CollectionForm::owning && m.form != CollectionForm::byRef ) {
            out.push_back( "Zek" + X );
         }
         break;
      case MemberKind::reactor:
         functions( { "_" } );
         out.push_back( "Zek" + X );
         if( m.isEach ) {
            iterated();
         } else {
            functions( { "Is", "Del", "Reactor" } );
         }
         break;
      case MemberKind::constant:
      case MemberKind::call:
      case MemberKind::ask:
      case MemberKind::named:
         break;
      }
      return out;
   }

   // Every callback of the type's notifiees that a line gives them.
   static std::vector< std::string > callbacksOf( const Type & t, const Member & m ) {
      bool keyed =
         m.kind == MemberKind::collection || ( m.kind == MemberKind::reactor && m.isEach );
      bool plain = m.kind == MemberKind::attr || m.kind == MemberKind::counter ||
                   m.kind == MemberKind::reactor;
      if( !t.hasNotifier || ( !keyed && !plain ) ) return {};
      std::string on = "on" + capitalised( m.name );
      if( keyed ) return { on, on + "zekImmediate" };
      return { on };
   }

   void handlers( const Type & machine, const Member & reactor ) {
      std::set< std::string > signatures;
      for( const Member & h : reactor.handlers ) {
         word( h.span, h.name, "a handler" );
         arguments( h.arguments );
         bool callback = h.name.size() > 2 && startsWith( h.name, "on" ) && isCapital( h.name[2] );
         if( reactorNames.count( h.name ) || callback || startsWith( h.name, "zek" ) ||
             startsWith( h.name, "Zek" ) || h.name == machine.name ) {
            error( h.span, "'" + h.name + "' is a name of the framework" );
         }
         if( !signatures.insert( h.name + " " + std::to_string( h.arguments.size() ) ).second ) {
            error( h.span, "there is another '" + h.name + "'" );
         }
      }
   }

   const std::vector< Schema * > & schemas_;
   Errors & errors_;
   Words roots_;
   std::map< std::string, std::string > taken_; // by dotted name: what it is
   std::map< std::string, const Type * > flat_; // by schema and name joined by "_"
   std::set< std::string > functions_;
};

} // namespace

void
checkNames( const std::vector< Schema * > & schemas, Errors & errors ) {
   Names( schemas, errors ).run();
}

} // namespace Zek::TypeLang
