#include "typelang/Checker.h"

#include "typelang/Names.h"
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
        schemas_( schemas ),
        incomplete_( !out.errors.empty() ) {}

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
      for( Schema * s : schemas_ ) {
         for( Type & t : s->types ) breakCircle( t );
      }
      checkNames( schemas_, errors_ );
      forSoundTypes( [&]( Type & t ) {
         const size_t before = errors_.count();
         bases( t );
         if( errors_.count() != before ) faulty_.insert( &t );
      } );
      forSoundTypes( [&]( Type & t ) { number( t ); } );
      forSoundTypes( [&]( Type & t ) {
         for( Member & m : t.members ) collectionKey( t, m );
      } );
      forSoundTypes( [&]( Type & t ) { check( t ); } );
      if( anyUnresolved_ ) return;
      for( Schema * s : schemas_ ) order( *s );
   }

 private:
   void error( const Span & where, const std::string & message ) {
      errors_.error( where, message );
   }

   /// Every type whose names resolve and whose base is one: the later stages rely on both. What
   /// is wrong with one type keeps nobody from looking at the others.
   template< class Stage >
   void forSoundTypes( Stage stage ) {
      for( Schema * s : schemas_ ) {
         for( Type & t : s->types ) {
            if( !faulty_.count( &t ) ) stage( t );
         }
      }
   }

   // -- Names ---------------------------------------------------------------------------------

   void declare( Type & t ) {
      if( !types_.emplace( t.dottedName(), &t ).second )
         error( t.span, "there is another type '" + t.dottedName() + "'" );
      std::set< std::string > names;
      std::set< int64_t > values;
      for( const Enumerator & e : t.enumerators ) {
         if( !names.insert( e.name ).second ) {
            error( e.span, "there is another enumerator '" + e.name + "'" );
         }
         if( !values.insert( e.value ).second ) {
            error( e.span, "another enumerator has the value " + std::to_string( e.value ) );
         }
         if( e.value < INT32_MIN || e.value > INT32_MAX ) {
            error( e.span, "the value of '" + e.name + "' does not fit 32 bits" );
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
         unresolved_ = anyUnresolved_ = true;
         if( incomplete_ ) return; // it may be the one that was not understood
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
      unresolved_ = false;
      std::vector< std::string > inside = t.scope;
      inside.push_back( t.name );
      resolve( schema, t.scope, t.base );
      resolve( schema, t.scope, t.holds );
      for( Member & m : t.members ) resolveMember( schema, inside, m );
      if( unresolved_ ) faulty_.insert( &t );
   }

   void resolveFunction( const Schema & schema, Function & f ) {
      resolve( schema, f.scope, f.result );
      for( Argument & a : f.arguments ) {
         resolve( schema, f.scope, a.type );
      }
      if( f.init ) constantValue( f.init, f.result, nullptr, f.name );
   }

   void constantValue( const Expr & init, const TypeRef & type, const Type * within,
                       const std::string & name ) {
      if( type.type && type.type->isCounted() ) {
         error( type.span, "a constant is a value" );
      } else {
         fits( init, type, within, "'" + name + "'" );
      }
   }

   // -- Bases ---------------------------------------------------------------------------------

   /// Everything that walks bases relies on their ending.
   void breakCircle( Type & t ) {
      // A circle that t leads into, but does not belong to, is broken at its own types.
      size_t steps = 0;
      for( const Type * at = t.base.type; at && steps < types_.size(); at = at->base.type ) {
         if( at == &t ) {
            error( t.base.span, "'" + t.name + "' derives from itself" );
            t.base.type = nullptr;
            t.base.text.clear();
            return;
         }
         ++steps;
      }
   }

   void bases( Type & t ) {
      if( !t.base ) return;
      const Type & base = *t.base.type;
      if( t.isNamed || !t.hasNotifier || ( !t.hasLog && t.kind == TypeKind::entity ) ) {
         error( t.span, "'" + t.name + "' has the options of '" + base.name + "' and no others" );
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
         error( t.fixedSpan, "'" + base.name + "' has no parameter '" + t.fixedParam + "'" );
      } else {
         fits( t.fixedValue, fixed->type, &base, "'" + t.fixedParam + "'" );
      }
      for( const Member & m : t.members ) {
         if( m.kind != MemberKind::param && m.kind != MemberKind::constant &&
             m.kind != MemberKind::derived && m.kind != MemberKind::call ) {
            error( m.span, "a derived entity adds parameters, constants, derived attributes and "
                           "operations alone" );
         }
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
      if( t.isNamed && !t.isEntity ) error( t.span, "only an entity has a name" );
      size_t keys = t.base.type && t.base.type->keyMember() ? 1 : 0;
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

   void checkMember( const Type & t, Member & m ) {
      registered( m.type );
      registered( m.keyType );
      for( const Argument & a : m.arguments ) registered( a.type );
      switch( m.kind ) {
      case MemberKind::key:
         if( m.type.type->isCounted() && t.kind != TypeKind::value ) {
            error( m.type.span, "a key is a value" );
         } else if( t.isCounted() ) {
            keyFits( m.type, m.type.span, false );
         }
         if( m.keyIsName && !t.isEntity ) error( m.span, "only an entity has a name" );
         if( t.isNamed ) error( m.span, "'" + t.name + "' is keyed by its name" );
         if( m.keyIsName && ( m.type.type->byValue || m.type.type->isEnum() ) &&
             m.type.type->kind != TypeKind::foreign ) {
            error( m.type.span, "'" + m.type.text + "' has no text that could be a name" );
         }
         break;
      case MemberKind::param:
         break;
      case MemberKind::attr:
         attribute( t, m );
         break;
      case MemberKind::constant:
         constantValue( m.init, m.type, &t, m.name );
         if( !m.type.type->isCounted() ) earlier( t, m );
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
         if( m.returnsSelf &&
             ( m.type.type != &t || t.kind != TypeKind::value || m.isConst || m.isStatic ) ) {
            error( m.type.span, "'&' returns the value itself: '" + t.name + " &' of a value" );
         }
         if( m.name == "operator+=" &&
             ( t.kind != TypeKind::value || m.arguments.size() != 1 || m.isStatic ) ) {
            error( m.span, "'operator +=' belongs to a value and takes one argument" );
         }
         break;
      case MemberKind::ask:
         if( m.isConst || m.isStatic || m.atConstruction || m.returnsSelf ) {
            error( m.span, "a question has arguments and a type, no options" );
         }
         break;
      case MemberKind::reactor:
         reactor( t, m );
         break;
      case MemberKind::named:
         namedConstant( t, m );
         break;
      }
   }

   /// A plain enumeration has no descriptor, which attributes and operations need.
   void registered( const TypeRef & type ) {
      if( type.type && type.type->kind == TypeKind::enumeration && !type.type->isRegistered ) {
         error( type.span, "'" + type.text + "' is unregistered: functions alone may use it" );
      }
   }

   /// A constant that names another one stands after it.
   void earlier( const Type & t, const Member & m ) {
      if( m.init.kind != Expr::Kind::name ) return;
      const Member * named = t.find( m.init.text );
      if( named && named->kind == MemberKind::constant && named >= &m &&
          named->number >= m.number ) {
         error( m.init.span, "'" + m.init.text + "' stands before the constant that names it" );
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
      if( !m.becomes.empty() &&
          std::none_of( t.members.begin(), t.members.end(),
                        []( const auto & each ) { return each.atConstruction; } ) ) {
         error( m.span,
                "no operation of '" + t.name + "' runs at construction and sets '" + m.name + "'" );
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
      } else if( m.init.kind == Expr::Kind::number &&
                 m.boundConst->init.kind == Expr::Kind::number &&
                 m.init.number > m.boundConst->init.number ) {
         error( m.init.span, "the default of '" + m.name + "' is above '" + m.bound + "'" );
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
      } else if( !key.type->isOrderedType ) { // hashed ones too, where hashes collide
         error( where, "'" + key.text + "' is not ordered" );
      } else if( !ordered && ( !key.type->isHashed || key.type->name == "double" ) ) {
         error( where, "'" + key.text + "' is not hashed" );
      }
   }

   void collection( const Type & t, const Member & m ) {
      if( t.kind == TypeKind::value ) {
         keyFits( m.keyType, m.keyType.span, true ); // kept sorted
         return;
      }
      bool explicitKey = m.form == CollectionForm::values || m.form == CollectionForm::set;
      keyFits( m.keyType, explicitKey ? m.keyType.span : m.type.span, m.isOrdered );
      if( m.form == CollectionForm::owning ) owning( t, m );
      if( m.form == CollectionForm::values && m.type.type->isCounted() ) {
         error( m.type.span, "values are held here; use 'owns' or 'refs' for records" );
      }
   }

   void owning( const Type & t, const Member & m ) {
      if( !t.isEntity ) error( m.span, "only an entity owns entities" );
      for( const Member * p : parametersOf( *m.type.type ) ) {
         if( p->kind != MemberKind::key && ( p->name == "key" || p->name == "member" ) ) {
            error( m.type.span, "'" + m.type.text + "' has a parameter '" + p->name +
                                   "', which is the collection's own word" );
         }
      }
   }

   void namedConstant( const Type & t, const Member & m ) {
      std::vector< const Member * > fields = constructorFields( t );
      if( m.init.items.size() != fields.size() ) {
         error( m.init.span, "'" + t.name + "' is made of " + std::to_string( fields.size() ) +
                                ( fields.size() == 1 ? " field, not " : " fields, not " ) +
                                std::to_string( m.init.items.size() ) );
         return;
      }
      for( size_t i = 0; i < fields.size(); ++i ) {
         fits( m.init.items[i], fields[i]->type, nullptr, "'" + fields[i]->name + "'" );
      }
   }

   /// Whether a literal or name can stand for a value of that type.
   void fits( const Expr & e, const TypeRef & ref, const Type * within, const std::string & of ) {
      if( !ref.type ) return; // of a base that is faulty itself
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
         constexpr int64_t exact = int64_t( 1 ) << 53;
         bool fitting = e.kind == Expr::Kind::real ||
                        ( e.kind == Expr::Kind::number && -exact <= e.number && e.number <= exact );
         if( !fitting ) no( "a number that it holds exactly" );
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
         error( e.span,
                of + " is of type '" + ref.text + "', which no default can be written for" );
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
         error( t.comparesSpan, "'" + t.name + "' has no field '" + t.compares + "'" );
      }
   }

   /// Values stand before the values and entities that contain them: C++ needs their size.
   void order( Schema & s ) {
      std::vector< Item > out;
      std::set< const Type * > done;
      std::set< const Type * > open;
      std::function< void( const Item & ) > visit = [&]( const Item & item ) {
         auto needs = [&]( const Type * type ) {
            if( !type || type->schema != &s ) return;
            const Type * outer = type->enclosing ? type->enclosing : type;
            for( const Item & other : s.items ) {
               if( other.type == outer && outer != item.type ) visit( other );
            }
         };
         // Classes are declared ahead, so arguments and results need enumerations alone.
         auto mentions = [&]( const TypeRef & result, const std::vector< Argument > & arguments ) {
            if( result && result.type->isEnum() ) needs( result.type );
            for( const Argument & a : arguments ) {
               if( a.type.type->isEnum() ) needs( a.type.type );
            }
         };
         if( !item.type ) {
            mentions( item.function->result, item.function->arguments );
            out.push_back( item );
            return;
         }
         if( done.count( item.type ) ) return;
         if( !open.insert( item.type ).second ) {
            error( item.type->span, "'" + item.type->name + "' contains itself" );
            return;
         }
         needs( item.type->base.type );
         for( const Member & m : item.type->members ) {
            for( const Member & handler : m.handlers ) mentions( handler.type, handler.arguments );
            if( m.kind == MemberKind::call || m.kind == MemberKind::ask ) {
               mentions( m.type, m.arguments );
               continue;
            }
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
      if( faulty_.count( &input ) ) return;
      if( !input.isCounted() ) {
         error( m.type.span, "a reactor watches a record; '" + m.type.text + "' is a value" );
         return;
      }
      if( !input.hasNotifier ) {
         error( m.type.span, "'" + m.type.text + "' tells nobody of its changes" );
         return;
      }
      if( input.base ) {
         error( m.type.span, "'" + m.type.text + "' tells of its changes as a '" +
                                input.base.type->name + "': watch that" );
         return;
      }
      for( const Member & h : m.handlers ) {
         for( const Argument & a : h.arguments ) registered( a.type );
         if( h.isStatic || h.atConstruction || h.returnsSelf || h.name == "operator+=" ) {
            error( h.span, "a handler has arguments and a type, no options" );
         }
      }
      if( !m.type.isConst ) error( m.type.span, "a reactor watches a constant record: 'const'" );
      if( m.isEach && !input.keyMember() && !input.isNamed ) {
         error( m.type.span, "'" + m.type.text + "' has no key" );
      }
      std::set< std::string > watched;
      std::set< Reaction::When > listed;
      for( Reaction & r : m.reactions ) {
         if( r.when != Reaction::When::on && !listed.insert( r.when ).second ) {
            error( r.span, "this reaction is listed already" );
         }
         size_t feeds = 0;
         for( const Action & a : r.actions ) feeds += a.kind == Action::Kind::feed;
         if( feeds > 1 ) error( r.span, "a reaction feeds one collection" );
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
         for( Action & a : r.actions ) action( machine, m, r, a );
      }
   }

   /// What a handler may take: the reactor's key, the changed member's, or both in this order.
   void handler( const Member & m, const Reaction & r, Action & a,
                 const std::vector< Member > & among, bool & found ) {
      bool owner = a.kind == Action::Kind::owner;
      const Type * reactorKey = nullptr;
      if( m.isEach && owner ) {
         const Member * key = m.type.type->keyMember();
         reactorKey = key ? key->type.type : types_.at( "Zek.Name" );
      }
      const Type * memberKey =
         r.watched && r.watched->kind == MemberKind::collection ? r.watched->keyType.type : nullptr;
      std::vector< std::vector< const Type * > > offers;
      if( reactorKey && memberKey ) offers.push_back( { reactorKey, memberKey } );
      if( memberKey ) offers.push_back( { memberKey } );
      if( reactorKey && !memberKey ) offers.push_back( { reactorKey } );
      offers.push_back( {} );
      for( const auto & offer : offers ) {
         for( const Member & candidate : among ) {
            if( candidate.kind != MemberKind::call || candidate.name != a.target ) continue;
            found = true;
            std::vector< const Type * > takes;
            for( const Argument & argument : candidate.arguments )
               takes.push_back( argument.type.type );
            if( takes != offer ) continue;
            a.handler = &candidate;
            return;
         }
      }
      if( !found ) return;
      std::string list;
      for( const auto & offer : offers ) {
         std::string types;
         for( const Type * type : offer )
            types += ( types.empty() ? " " : ", " ) + type->dottedName();
         list += ( list.empty()               ? ""
                   : &offer == &offers.back() ? " or "
                                              : ", " ) +
                 ( types.empty() ? "nothing" : "(" + types + " )" );
      }
      error( a.span, "no handler '" + a.target + "' takes what there is to hand on: " + list );
   }

   void action( const Type & machine, const Member & m, const Reaction & r, Action & a ) {
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
      bool found = false;
      handler( m, r, a, owner ? machine.members : m.handlers, found );
      if( found ) return;
      error( a.span, ( owner ? "'" + machine.name + "'" : "the reactor '" + m.name + "'" ) +
                        " has no handler '" + a.target + "'" );
   }

   Program & program_;
   Errors & errors_;
   const std::vector< Schema * > & schemas_;
   const bool incomplete_;                       // some declarations were not understood
   std::map< std::string, const Type * > types_; // by dotted name
   std::set< const Type * > faulty_;             // left out by later stages
   bool unresolved_ = false;                     // a name of the type just resolved is unknown
   bool anyUnresolved_ = false;                  // or of any
};

} // namespace

void
compile( const std::vector< std::string > & paths, const Reader & read, Compilation & out ) {
   addBuiltins( out.program );
   Loader loader( read, out );
   for( const std::string & path : paths ) out.program.main = loader.load( path, {} );
   out.program.schemas = loader.release();
   for( const Schema * s : loader.order ) {
      if( s->model.empty() ) return; // nothing has a full name
   }
   Checker( out, loader.order ).run();
}

} // namespace Zek::TypeLang
