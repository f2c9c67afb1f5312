#include "typelang/Checker.h"

#include "typelang/Parser.h"

#include <map>

namespace Zek::TypeLang {

namespace {

constexpr uint16_t firstNumber = 258;
constexpr uint16_t firstMachineNumber = 130;

// -- Builtins ---------------------------------------------------------------------------------

void
addBuiltin( Program & program, const char * name, const char * cpp, bool byValue, int64_t minimum,
            int64_t maximum, std::vector< std::string > scope = {} ) {
   Type & t = program.builtins.emplace_back();
   t.name = name;
   t.cppName = cpp;
   t.byValue = byValue;
   t.isHashed = t.isOrderedType = true;
   t.minimum = minimum;
   t.maximum = maximum;
   t.scope = std::move( scope );
}

void
addBuiltins( Program & program ) {
   addBuiltin( program, "bool", "bool", true, 0, 1 );
   addBuiltin( program, "U8", "uint8_t", true, 0, 0xff );
   addBuiltin( program, "U16", "uint16_t", true, 0, 0xffff );
   addBuiltin( program, "U32", "uint32_t", true, 0, 0xffffffff );
   addBuiltin( program, "U64", "uint64_t", true, 0, INT64_MAX );
   addBuiltin( program, "S8", "int8_t", true, INT8_MIN, INT8_MAX );
   addBuiltin( program, "S16", "int16_t", true, INT16_MIN, INT16_MAX );
   addBuiltin( program, "S32", "int32_t", true, INT32_MIN, INT32_MAX );
   addBuiltin( program, "S64", "int64_t", true, INT64_MIN, INT64_MAX );
   addBuiltin( program, "double", "double", true, 0, 0 );
   addBuiltin( program, "String", "Zek::String", false, 0, 0, { "Zek" } );
   addBuiltin( program, "Name", "Zek::Name", false, 0, 0, { "Zek" } );
}

bool
isInteger( const Type & t ) {
   return t.kind == TypeKind::builtin && ( t.name[0] == 'U' || t.name[0] == 'S' ) &&
          t.scope.empty();
}

bool
isString( const Type & t ) {
   return ( t.kind == TypeKind::builtin && !t.scope.empty() ) || t.kind == TypeKind::boundedString;
}

const std::set< std::string > &
reservedWords() {
   static const std::set< std::string > words{
      "alignas",   "alignof",   "and",       "asm",      "auto",     "bool",      "break",
      "case",      "catch",     "char",      "class",    "compl",    "concept",   "const",
      "consteval", "constexpr", "constinit", "continue", "co_await", "co_return", "co_yield",
      "decltype",  "default",   "delete",    "do",       "double",   "else",      "enum",
      "explicit",  "export",    "extern",    "false",    "float",    "for",       "friend",
      "goto",      "if",        "inline",    "int",      "long",     "mutable",   "namespace",
      "new",       "noexcept",  "not",       "nullptr",  "operator", "or",        "private",
      "protected", "public",    "register",  "requires", "return",   "short",     "signed",
      "sizeof",    "static",    "struct",    "switch",   "template", "this",      "throw",
      "true",      "try",       "typedef",   "typeid",   "typename", "union",     "unsigned",
      "using",     "virtual",   "void",      "volatile", "wchar_t",  "while",     "xor"
   };
   return words;
}

// Names that every counted class has from the framework.
const std::set< std::string > &
frameworkNames() {
   static const std::set< std::string > names{
      "name",         "fullName",       "parent",
      "parentIs",     "parentAttrName", "parentAttrId",
      "entity",       "entityIs",       "entityDel",
      "entityDelAll", "entityNotify",   "entityHas",
      "entityCount",  "entityAt",       "notifieeList",
      "announce",     "fwkType",        "fwkKey",
      "references",   "referencesInc",  "referencesDec",
      "Ptr",          "PtrConst",       "NotifieeConst",
      "Notifiee",     "handleZeroRef",  "zekDoZombieReactors"
   };
   return names;
}

// -- Loading ----------------------------------------------------------------------------------

class Loader {
 public:
   Loader( const Reader & read, Compilation & out ) : read_( read ), out_( out ) {}

   const Schema * load( const std::string & path, const Span & importedAt ) {
      if( auto loaded = loaded_.find( path ); loaded != loaded_.end() ) {
         if( !loaded->second )
            out_.errors.error( importedAt, "'" + path + "' imports itself in a circle" );
         return loaded->second;
      }
      std::optional< std::string > text = read_( path );
      if( !text ) {
         out_.errors.error( importedAt, "no schema at '" + path + "'" );
         return nullptr;
      }
      loaded_[path] = nullptr;
      SourceFile & file = out_.files.emplace_back( SourceFile{ path, std::move( *text ) } );
      // A schema stands after all that it imports, so it is parsed aside first.
      auto schema = std::make_unique< Schema >();
      Schema & s = *schema;
      parsed_.push_back( std::move( schema ) );
      s.file = &file;
      s.path = path;
      size_t slash = path.rfind( '/' );
      size_t start = slash == std::string::npos ? 0 : slash + 1;
      s.stem = path.substr( start, path.size() - start - 4 );
      std::vector< Import > imports;
      parse( file, s, imports, out_.errors );
      for( const Import & import : imports ) {
         if( const Schema * imported = load( import.path, import.span ) )
            s.imports.push_back( imported );
      }
      order.push_back( &s );
      loaded_[path] = &s;
      return &s;
   }

   std::vector< Schema * > order; // each after its imports

 private:
   const Reader & read_;
   Compilation & out_;
   std::map< std::string, const Schema * > loaded_; // null while being loaded
   std::vector< std::unique_ptr< Schema > > parsed_;

 public:
   std::vector< std::unique_ptr< Schema > > release() { return std::move( parsed_ ); }
};

// -- Checking ---------------------------------------------------------------------------------

class Checker {
 public:
   Checker( Compilation & out, const std::vector< Schema * > & schemas )
      : program_( out.program ),
        errors_( out.errors ),
        schemas_( schemas ) {}

   void run() {
      for( const Type & t : program_.builtins ) types_[t.dottedName()] = &t;
      for( Schema * s : schemas_ ) {
         for( Type & t : s->types ) {
            declare( t );
            for( auto & nested : t.nested ) declare( *nested );
         }
      }
      for( Schema * s : schemas_ ) {
         for( Type & t : s->types ) resolveType( *s, t );
         for( Function & f : s->functions ) resolveFunction( *s, f );
      }
      if( !errors_.empty() ) return; // what follows relies on resolved names
      for( Schema * s : schemas_ ) {
         for( Type & t : s->types ) bases( t );
      }
      if( !errors_.empty() ) return;
      for( Schema * s : schemas_ ) {
         for( Type & t : s->types ) number( t );
      }
      for( Schema * s : schemas_ ) {
         for( Type & t : s->types ) {
            for( Member & m : t.members ) collectionKey( t, m );
         }
      }
      for( Schema * s : schemas_ ) {
         for( Type & t : s->types ) check( t );
         order( *s );
      }
   }

 private:
   void error( const Span & where, const std::string & message ) {
      errors_.error( where, message );
   }

   // -- Names ---------------------------------------------------------------------------------

   void plainName( const Span & where, const std::string & name, const char * what ) {
      if( reservedWords().count( name ) ) {
         error( where, "'" + name + "' is a word of C++ and cannot name " + what );
      }
   }

   void declare( Type & t ) {
      plainName( t.span, t.name, "a type" );
      auto [at, fresh] = types_.emplace( t.dottedName(), &t );
      if( !fresh ) error( t.span, "there is another type '" + t.dottedName() + "'" );
      std::set< std::string > names;
      std::set< int64_t > values;
      for( const Enumerator & e : t.enumerators ) {
         plainName( e.span, e.name, "an enumerator" );
         if( !names.insert( e.name ).second ) {
            error( e.span, "there is another enumerator '" + e.name + "'" );
         }
         if( !values.insert( e.value ).second ) {
            error( e.span, "another enumerator has the value " + std::to_string( e.value ) );
         }
         if( e.value < INT32_MIN || e.value > INT32_MAX ) {
            error( e.span, "the value of '" + e.name + "' does not fit 32 bits" );
         }
         // Enumerators are also names of the scope around their enumeration.
         if( t.kind == TypeKind::enumeration && t.isRegistered ) {
            std::string around = t.dottedName();
            around.erase( around.rfind( '.' ) + 1 );
            auto [other, first] = enumerators_.emplace( around + e.name, &t );
            if( !first && other->second != &t ) {
               error( e.span, "'" + e.name + "' is an enumerator of '" + other->second->name +
                                 "' in the same scope" );
            }
         }
      }
      if( t.isEnum() && t.enumerators.empty() )
         error( t.span, "an enumeration needs an enumerator" );
   }

   const Type * lookup( const Schema & schema, std::vector< std::string > scope,
                        const std::string & text ) const {
      for( ;; ) {
         std::string dotted;
         for( const std::string & s : scope ) dotted += s + ".";
         if( auto found = types_.find( dotted + text ); found != types_.end() ) {
            if( visible( schema, *found->second ) ) return found->second;
         }
         if( scope.empty() ) return nullptr;
         scope.pop_back();
      }
   }
   /// Builtins, the schema's own types, and those of what it imports, directly or not.
   static bool visible( const Schema & schema, const Type & t ) {
      if( !t.schema || t.schema == &schema ) return true;
      for( const Schema * import : schema.imports ) {
         if( visible( *import, t ) ) return true;
      }
      return false;
   }

   void resolve( const Schema & schema, const std::vector< std::string > & scope, TypeRef & ref ) {
      if( !ref ) return;
      ref.type = lookup( schema, scope, ref.text );
      if( !ref.type ) {
         bool known = false;
         for( const auto & [dotted, type] : types_ ) known = known || dotted == ref.text;
         error( ref.span, "unknown type '" + ref.text + "'" +
                             ( known ? " (its schema is not imported)" : "" ) );
      } else if( ref.isConst && !ref.type->isCounted() ) {
         error( ref.span, "'const' is for records; '" + ref.text + "' is a value" );
      }
   }

   void resolveMember( const Schema & schema, const std::vector< std::string > & scope,
                       Member & m ) {
      resolve( schema, scope, m.type );
      resolve( schema, scope, m.keyType );
      for( Argument & a : m.arguments ) resolve( schema, scope, a.type );
      for( Member & handler : m.handlers ) resolveMember( schema, scope, handler );
   }

   void resolveType( const Schema & schema, Type & t ) {
      std::vector< std::string > inside = t.scope;
      inside.push_back( t.name );
      resolve( schema, t.scope, t.base );
      resolve( schema, t.scope, t.holds );
      for( Member & m : t.members ) resolveMember( schema, inside, m );
   }

   void resolveFunction( const Schema & schema, Function & f ) {
      plainName( f.span, f.name, "a function" );
      resolve( schema, f.scope, f.result );
      for( Argument & a : f.arguments ) {
         plainName( f.span, a.name, "an argument" );
         resolve( schema, f.scope, a.type );
      }
   }

   // -- Bases ---------------------------------------------------------------------------------

   void bases( Type & t ) {
      if( !t.base ) return;
      const Type & base = *t.base.type;
      for( const Type * at = &base; at; at = at->base.type ) {
         if( at == &t ) {
            error( t.base.span, "'" + t.name + "' derives from itself" );
            t.base.type = nullptr;
            t.base.text.clear();
            return;
         }
      }
      if( t.kind == TypeKind::binding ) {
         if( base.kind != TypeKind::view ) {
            error( t.base.span, "'" + t.base.text + "' is no view" );
            return;
         }
         if( !t.holds.type->isCounted() ) {
            error( t.holds.span, "a binding holds a record; '" + t.holds.text + "' is a value" );
         }
         t.isEntity = base.isEntity;
         t.isNamed = base.isNamed;
         t.hasNotifier = base.hasNotifier;
         t.hasLog = false;
         return;
      }
      if( base.kind != TypeKind::entity || base.base ) {
         error( t.base.span, "an entity derives from an entity that derives from none" );
         return;
      }
      t.isNamed = base.isNamed;
      t.hasNotifier = base.hasNotifier;
      t.hasLog = base.hasLog;
      if( t.fixedParam.empty() ) {
         error( t.span, "a derived entity says which parameter of its base it fixes" );
         return;
      }
      const Member * fixed = base.find( t.fixedParam );
      if( !fixed || fixed->kind != MemberKind::param ) {
         error( t.fixedValue.span, "'" + base.name + "' has no parameter '" + t.fixedParam + "'" );
      } else {
         fits( t.fixedValue, fixed->type, &base, "'" + t.fixedParam + "'" );
      }
   }

   // -- Numbers -------------------------------------------------------------------------------

   void number( Type & t ) {
      uint16_t next = t.kind == TypeKind::machine ? firstMachineNumber : firstNumber;
      if( t.base && !t.base.type->members.empty() ) {
         // A derived type goes on after its base.
         for( const Member & m : t.base.type->members ) {
            if( m.kind != MemberKind::named ) ++next;
         }
      }
      for( Member & m : t.members ) {
         if( m.kind != MemberKind::named ) m.number = next++;
      }
   }

   // -- Collections ---------------------------------------------------------------------------

   void collectionKey( const Type &, Member & m ) {
      if( m.kind != MemberKind::collection ) return;
      if( m.form == CollectionForm::fields ) {
         const Member * field =
            m.type.type->kind == TypeKind::value ? m.type.type->find( m.keyField ) : nullptr;
         if( m.type.type->kind != TypeKind::value ) {
            error( m.type.span,
                   "'by' is for collections of values; '" + m.type.text + "' is none" );
         } else if( !field ||
                    ( field->kind != MemberKind::key && field->kind != MemberKind::attr ) ) {
            error( m.keyFieldSpan, "'" + m.type.text + "' has no field '" + m.keyField + "'" );
         } else {
            m.keyType = field->type;
            m.keyType.span = m.keyFieldSpan;
         }
      } else if( m.form == CollectionForm::owning || m.form == CollectionForm::byRef ) {
         const Type & member = *m.type.type;
         if( member.kind != TypeKind::entity ) {
            error( m.type.span, "'" + m.type.text + "' is no entity" );
            return;
         }
         if( const Member * key = member.keyMember() ) {
            m.keyType = key->type;
            m.keyField = key->name;
         } else if( member.isNamed ) {
            m.keyType.text = "Zek.Name";
            m.keyType.type = types_.at( "Zek.Name" );
            m.keyField = "name";
         } else {
            error( m.type.span, "'" + m.type.text + "' has no key" );
         }
         if( m.form == CollectionForm::owning && m.type.isConst ) {
            error( m.type.span, "a collection owns its members: not 'const'" );
         }
      }
   }

   // -- One type ------------------------------------------------------------------------------

   void check( Type & t ) {
      names( t );
      size_t keys = 0;
      for( Member & m : t.members ) {
         if( m.kind == MemberKind::key && ++keys > 1 ) {
            error( m.span, "'" + t.name + "' has a key already" );
         }
         checkMember( t, m );
      }
      if( t.kind == TypeKind::value ) value( t );
      if( t.kind == TypeKind::binding && !t.members.empty() ) {
         error( t.members.front().span, "a binding has no lines of its own" );
      }
   }

   /// Every accessor, mutator and callback that the lines of a type generate, once.
   void names( const Type & t ) {
      std::map< std::string, const Member * > generated;
      auto add = [&]( const Member & m, const std::string & name ) {
         auto [at, fresh] = generated.emplace( name, &m );
         if( fresh || at->second == &m ) return;
         bool overloads = name == m.name && m.kind == MemberKind::call &&
                          at->second->kind == MemberKind::call && at->second->name == name &&
                          at->second->arguments.size() != m.arguments.size();
         if( !overloads ) {
            error( m.span, name == m.name && at->second->name == name
                              ? "there is another '" + name + "'"
                              : "'" + m.name + "' needs the name '" + name + "', which '" +
                                   at->second->name + "' has" );
         }
      };
      for( const Type * base = t.base.type; base; base = base->base.type ) {
         for( const Member & m : base->members ) add( m, m.name );
      }
      for( const Member & m : t.members ) {
         plainName( m.span, m.name, "an attribute" );
         if( t.isCounted() && frameworkNames().count( m.name ) ) {
            error( m.span, "'" + m.name + "' is a name of the framework" );
         }
         add( m, m.name );
         for( const std::string & suffix : suffixes( m ) ) add( m, m.name + suffix );
         std::set< std::string > arguments;
         for( const Argument & a : m.arguments ) plainName( m.span, a.name, "an argument" );
         for( const Member & handler : m.handlers )
            plainName( handler.span, handler.name, "a handler" );
      }
   }
   static std::vector< std::string > suffixes( const Member & m ) {
      switch( m.kind ) {
      case MemberKind::attr:
         return { "Is" };
      case MemberKind::derived:
         return m.through.empty() ? std::vector< std::string >{}
                                  : std::vector< std::string >{ "Is" };
      case MemberKind::counter: {
         std::vector< std::string > out;
         if( m.hasInc ) out.push_back( "Inc" );
         if( m.hasDec ) out.push_back( "Dec" );
         if( m.hasIs ) out.push_back( "Is" );
         return out;
      }
      case MemberKind::collection:
         return { "Is", "Del", "DelAll", "Notify", "Has", "Count", "Iterator", "IteratorConst" };
      case MemberKind::reactor:
         return m.isEach
                   ? std::vector< std::string >{ "Is", "Del", "DelAll", "Notify", "Has", "Count" }
                   : std::vector< std::string >{ "Is", "Del", "Reactor" };
      default:
         return {};
      }
   }

   void checkMember( const Type & t, Member & m ) {
      switch( m.kind ) {
      case MemberKind::key:
         if( m.type.type->isCounted() && t.kind != TypeKind::value ) {
            error( m.type.span, "a key is a value" );
         } else if( t.isCounted() ) {
            keyFits( m.type, m.type.span, false );
         }
         if( m.keyIsName && !t.isEntity ) error( m.span, "only an entity has a name" );
         if( m.keyIsName && t.isNamed ) error( m.span, "'" + t.name + "' has a name of its own" );
         break;
      case MemberKind::param:
         break;
      case MemberKind::attr:
         attribute( t, m );
         break;
      case MemberKind::constant:
         if( m.type.type->isCounted() ) {
            error( m.type.span, "a constant is a value" );
         } else {
            fits( m.init, m.type, &t, "'" + m.name + "'" );
         }
         break;
      case MemberKind::derived:
         derived( t, m );
         break;
      case MemberKind::counter:
         if( !isInteger( *m.type.type ) || m.type.type->name[0] != 'U' ) {
            error( m.type.span, "a counter is an unsigned integer" );
         }
         break;
      case MemberKind::collection:
         collection( t, m );
         break;
      case MemberKind::call:
         if( m.atConstruction && ( !m.arguments.empty() || !m.isVoid ) ) {
            error( m.span, "what runs at construction takes and returns nothing" );
         }
         if( m.isStatic && m.isConst ) error( m.span, "a static operation is not 'const'" );
         if( m.returnsSelf && m.type.type != &t ) {
            error( m.type.span, "'&' returns the value itself: '" + t.name + " &'" );
         }
         break;
      case MemberKind::ask:
         break;
      case MemberKind::reactor:
         reactor( t, m );
         break;
      case MemberKind::named:
         namedConstant( t, m );
         break;
      }
   }

   void attribute( const Type & t, Member & m ) {
      const Type & type = *m.type.type;
      if( m.init ) {
         if( type.isCounted() ) {
            error( m.init.span, "a pointer starts null and takes no default" );
         } else {
            fits( m.init, m.type, &t, "'" + m.name + "'" );
         }
      }
      if( t.kind == TypeKind::value && &type == &t ) {
         error( m.type.span, "a value cannot contain itself" );
      }
      if( m.bound.empty() ) return;
      m.boundConst = t.find( m.bound );
      if( !m.boundConst || m.boundConst->kind != MemberKind::constant ) {
         error( m.boundSpan, "'" + t.name + "' has no constant '" + m.bound + "'" );
      } else if( !isInteger( type ) || m.boundConst->type.type != &type ) {
         error( m.boundSpan,
                "'" + m.bound + "' is not of the type of '" + m.name + "', or that is no integer" );
      }
   }

   void derived( const Type & t, Member & m ) {
      if( m.through.empty() ) return;
      m.throughMember = t.find( m.through );
      bool pointer = m.throughMember &&
                     ( m.throughMember->kind == MemberKind::attr ||
                       m.throughMember->kind == MemberKind::param ) &&
                     m.throughMember->type.type->isCounted();
      if( !pointer ) {
         error( m.throughSpan, "'" + m.through + "' is no pointer of '" + t.name + "'" );
         return;
      }
      const Member * target = m.throughMember->type.type->find( m.name );
      if( !target || target->type.type != m.type.type || target->kind != MemberKind::attr ) {
         error( m.span, "'" + m.throughMember->type.text + "' has no attribute '" + m.name +
                           "' of that type" );
      } else if( m.throughMember->type.isConst ) {
         error( m.throughSpan, "'" + m.through + "' points to a constant record" );
      }
   }

   void keyFits( const TypeRef & key, const Span & where, bool ordered ) {
      if( !key.type ) return;
      if( key.type->isCounted() ) {
         error( where, "a key is a value" );
      } else if( ordered ? !key.type->isOrderedType : !key.type->isHashed ) {
         error( where, "'" + key.text + "' is not " + ( ordered ? "ordered" : "hashed" ) );
      }
   }

   void collection( const Type & t, const Member & m ) {
      if( t.kind == TypeKind::value ) {
         keyFits( m.keyType, m.keyType.span, true ); // kept sorted
         return;
      }
      bool explicitKey = m.form == CollectionForm::values || m.form == CollectionForm::set;
      keyFits( m.keyType, explicitKey ? m.keyType.span : m.type.span, m.isOrdered );
      if( m.form == CollectionForm::values && m.type.type->isCounted() ) {
         error( m.type.span, "values are held here; use 'owns' or 'refs' for records" );
      }
   }

   void namedConstant( const Type & t, const Member & m ) {
      std::vector< const Member * > fields;
      for( const Member & f : t.members ) {
         if( f.kind == MemberKind::attr || f.kind == MemberKind::key ) fields.push_back( &f );
      }
      if( m.init.items.size() != fields.size() ) {
         error( m.init.span, "'" + t.name + "' has " + std::to_string( fields.size() ) +
                                " fields, not " + std::to_string( m.init.items.size() ) );
         return;
      }
      for( size_t i = 0; i < fields.size(); ++i ) {
         fits( m.init.items[i], fields[i]->type, nullptr, "'" + fields[i]->name + "'" );
      }
   }

   /// Whether a literal or name can stand for a value of that type.
   void fits( const Expr & e, const TypeRef & ref, const Type * within, const std::string & of ) {
      const Type & t = *ref.type;
      auto no = [&]( const std::string & expected ) {
         error( e.span, of + " is of type '" + ref.text + "': " + expected + " expected" );
      };
      if( e.kind == Expr::Kind::name && within ) {
         const Member * constant = within->find( e.text );
         if( constant && constant->kind == MemberKind::constant ) {
            if( constant->type.type != &t ) no( "a constant of that type" );
            return;
         }
      }
      if( t.isEnum() ) {
         for( const Enumerator & enumerator : t.enumerators ) {
            if( e.kind == Expr::Kind::name && e.text == enumerator.name ) return;
         }
         no( "one of its enumerators" );
      } else if( t.name == "bool" && t.kind == TypeKind::builtin ) {
         if( e.kind != Expr::Kind::boolean ) no( "true or false" );
      } else if( isInteger( t ) ) {
         if( e.kind != Expr::Kind::number ) {
            no( "a number" );
         } else if( e.number < t.minimum || e.number > t.maximum ) {
            no( "a number from " + std::to_string( t.minimum ) + " to " +
                std::to_string( t.maximum ) );
         }
      } else if( t.name == "double" && t.kind == TypeKind::builtin ) {
         if( e.kind != Expr::Kind::number && e.kind != Expr::Kind::real ) no( "a number" );
      } else if( isString( t ) ) {
         if( e.kind != Expr::Kind::string ) {
            no( "a string" );
         } else if( t.kind == TypeKind::boundedString &&
                    static_cast< int64_t >( e.text.size() ) > t.maxBytes ) {
            no( "a string of at most " + std::to_string( t.maxBytes ) + " bytes" );
         }
      } else if( t.kind == TypeKind::value ) {
         const Member * constant = e.kind == Expr::Kind::name ? t.find( e.text ) : nullptr;
         if( !constant || constant->kind != MemberKind::named ) no( "one of its named constants" );
      } else {
         no( "no default can be written for it; its zero value" );
      }
   }

   // -- Values --------------------------------------------------------------------------------

   void value( const Type & t ) {
      bool hasField = false;
      for( const Member & m : t.members ) {
         bool field = m.kind == MemberKind::attr || m.kind == MemberKind::key;
         hasField = hasField || field || m.kind == MemberKind::collection;
         bool compared = t.compares.empty() || m.name == t.compares;
         if( field && compared && m.type.type->isCounted() ) {
            error( m.type.span, "records are not compared: say which field the value 'compares'" );
         }
         if( t.isOrderedType && field && compared && !m.type.type->isCounted() &&
             !m.type.type->isOrderedType ) {
            error( m.type.span, "'" + t.name + "' is ordered, '" + m.type.text + "' is not" );
         }
         if( t.isOrderedType && m.kind == MemberKind::collection ) {
            error( m.span, "an ordered value has no collection" );
         }
         if( field && compared && !m.type.type->isCounted() && !m.type.type->isHashed ) {
            error( m.type.span, "'" + m.type.text + "' is not hashed" );
         }
      }
      if( !hasField ) error( t.span, "a value needs a field" );
      const Member * compared = t.compares.empty() ? nullptr : t.find( t.compares );
      if( !t.compares.empty() && ( !compared || ( compared->kind != MemberKind::attr &&
                                                  compared->kind != MemberKind::key ) ) ) {
         error( t.span, "'" + t.name + "' has no field '" + t.compares + "'" );
      }
   }

   /// Values stand before the values and entities that contain them: C++ needs their size.
   void order( Schema & s ) {
      std::vector< Item > out;
      std::set< const Type * > done;
      std::set< const Type * > open;
      std::function< void( const Item & ) > visit = [&]( const Item & item ) {
         if( !item.type ) {
            out.push_back( item );
            return;
         }
         if( done.count( item.type ) ) return;
         if( !open.insert( item.type ).second ) {
            error( item.type->span, "'" + item.type->name + "' contains itself" );
            return;
         }
         auto needs = [&]( const Type * type ) {
            if( !type || type->schema != &s || type == item.type || type->enclosing == item.type )
               return;
            const Type * outer = type->enclosing ? type->enclosing : type;
            for( const Item & other : s.items ) {
               if( other.type == outer && outer != item.type ) visit( other );
            }
         };
         needs( item.type->base.type );
         for( const Member & m : item.type->members ) {
            if( m.type.type && ( !m.type.type->isCounted() || m.kind == MemberKind::reactor ) ) {
               needs( m.type.type );
            }
            if( m.keyType.type && !m.keyType.type->isCounted() ) needs( m.keyType.type );
         }
         done.insert( item.type );
         out.push_back( item );
      };
      for( const Item & item : s.items ) visit( item );
      s.items = std::move( out );
   }

   // -- Machines ------------------------------------------------------------------------------

   void reactor( const Type & machine, Member & m ) {
      const Type & input = *m.type.type;
      if( !input.isCounted() ) {
         error( m.type.span, "a reactor watches a record; '" + m.type.text + "' is a value" );
         return;
      }
      if( !input.hasNotifier ) {
         error( m.type.span, "'" + m.type.text + "' tells nobody of its changes" );
         return;
      }
      if( !m.type.isConst ) error( m.type.span, "a reactor watches a constant record: 'const'" );
      if( m.isEach && !input.keyMember() && !input.isNamed ) {
         error( m.type.span, "'" + m.type.text + "' has no key" );
      }
      std::set< std::string > watched;
      for( Reaction & r : m.reactions ) {
         if( r.when == Reaction::When::on ) {
            r.watched = input.find( r.attribute );
            bool announced = r.watched && ( r.watched->kind == MemberKind::attr ||
                                            r.watched->kind == MemberKind::counter ||
                                            r.watched->kind == MemberKind::collection );
            if( !announced ) {
               error( r.span,
                      "'" + m.type.text + "' announces no attribute '" + r.attribute + "'" );
               r.watched = nullptr;
               continue;
            }
            if( !watched.insert( r.attribute ).second ) {
               error( r.span, "'" + r.attribute + "' is watched already" );
            }
         }
         if( r.when == Reaction::When::gone && !m.isEach ) {
            error( r.span, "'gone' is for the members of a collection: 'each'" );
         }
         for( const Action & a : r.actions ) action( machine, m, r, a );
      }
   }

   void action( const Type & machine, const Member & m, const Reaction & r, const Action & a ) {
      if( a.kind == Action::Kind::feed ) {
         const Member * target = machine.find( a.target );
         if( !target || target->kind != MemberKind::reactor || !target->isEach ) {
            error( a.span, "'" + machine.name + "' has no reactor collection '" + a.target + "'" );
         } else if( r.when != Reaction::When::on || r.watched->kind != MemberKind::collection ||
                    r.watched->type.type != target->type.type ) {
            error( a.span,
                   "'" + a.target + "' is fed by a collection of '" + target->type.text + "'" );
         }
         return;
      }
      bool owner = a.kind == Action::Kind::owner;
      const std::vector< Member > & among = owner ? machine.members : m.handlers;
      for( const Member & handler : among ) {
         if( handler.kind == MemberKind::call && handler.name == a.target ) return;
      }
      error( a.span, ( owner ? "'" + machine.name + "'" : "the reactor '" + m.name + "'" ) +
                        " has no handler '" + a.target + "'" );
   }

   Program & program_;
   Errors & errors_;
   const std::vector< Schema * > & schemas_;
   std::map< std::string, const Type * > types_;       // by dotted name
   std::map< std::string, const Type * > enumerators_; // by scope and name
};

} // namespace

void
compile( const std::string & path, const Reader & read, Compilation & out ) {
   addBuiltins( out.program );
   Loader loader( read, out );
   const Schema * main = loader.load( path, {} );
   out.program.schemas = loader.release();
   out.program.main = main;
   if( !main ) return;
   if( !out.errors.empty() ) return; // a schema that was not understood gives no names to check
   Checker( out, loader.order ).run();
}

} // namespace Zek::TypeLang
