#include "typelang/Parser.h"

#include "typelang/Lexer.h"

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <set>

namespace Zek::TypeLang {

namespace {

// Leaves a declaration that cannot be understood.
struct Abandon {};

class Parser {
 public:
   Parser( const SourceFile & file, Schema & schema, std::vector< Import > & imports,
           Errors & errors )
      : tokens_( lex( file, errors ) ),
        schema_( schema ),
        imports_( imports ),
        errors_( errors ) {}

   void run() {
      try {
         head();
      } catch( const Abandon & ) {
         recover( 0 );
      }
      items( false );
   }

 private:
   // -- Tokens --------------------------------------------------------------------------------

   const Token & token() const { return tokens_[at_]; }
   bool atEnd() const { return token().kind == TokenKind::end; }
   /// The declaration's line is over.
   bool lineOver() const {
      return atEnd() || ( token().startsLine && depth_ == 0 ) || isAny( "}" );
   }
   bool isAny( const char * text ) const {
      return ( token().kind == TokenKind::symbol || token().kind == TokenKind::name ) &&
             token().text == text;
   }
   bool is( const char * text ) const { return !lineOver() && isAny( text ); }
   void advance() {
      if( !atEnd() ) ++at_;
   }
   bool accept( const char * text ) {
      if( !is( text ) ) return false;
      advance();
      return true;
   }
   static std::string quoted( const Token & t ) {
      return t.kind == TokenKind::end ? "the end of the file" : "'" + t.text + "'";
   }
   [[noreturn]] void fail( const std::string & expected ) {
      // What is missing is missing behind the last word, not on the line after it.
      bool endOfLine = token().startsLine && !isAny( "}" ) && !atEnd() && at_ > 0;
      Span behind = at_ > 0 ? tokens_[at_ - 1].span : token().span;
      behind.begin = behind.end;
      errors_.error( endOfLine || atEnd() ? behind : token().span,
                     expected + " expected, not " +
                        ( endOfLine ? "the end of the line" : quoted( token() ) ) );
      throw Abandon();
   }
   void expect( const char * text, const char * where ) {
      if( !is( text ) ) fail( "'" + std::string( text ) + "' " + where );
      advance();
   }
   Token expectName( const char * what ) {
      if( lineOver() || token().kind != TokenKind::name ) fail( what );
      Token t = token();
      advance();
      return t;
   }
   /// A name that is declared: plain, not dotted.
   Token newName( const char * what ) {
      Token t = expectName( what );
      if( t.text.find( '.' ) != std::string::npos ) {
         errors_.error( t.span, std::string( what ) + " expected, not a dotted name" );
         throw Abandon();
      }
      return t;
   }

   /// After an error: on to the next line that can start a declaration at the same level.
   void recover( size_t from ) {
      int depth = 0;
      if( at_ == from ) advance();
      // Braces opened by the abandoned line belong to it.
      for( size_t i = from; i < at_ && i < tokens_.size(); ++i ) {
         if( tokens_[i].kind != TokenKind::symbol ) continue;
         if( tokens_[i].text == "{" ) ++depth;
         if( tokens_[i].text == "}" ) --depth;
      }
      if( depth < 0 ) depth = 0;
      while( !atEnd() ) {
         if( depth == 0 && ( token().startsLine || isAny( "}" ) ) ) break;
         if( isAny( "{" ) ) ++depth;
         if( isAny( "}" ) ) --depth;
         advance();
      }
      depth_ = 0;
   }
   /// One declaration, with recovery.
   template< class Declaration >
   void guarded( Declaration declaration ) {
      size_t from = at_;
      try {
         declaration();
      } catch( const Abandon & ) {
         recover( from );
      }
   }
   void endOfLine() {
      if( !lineOver() ) fail( "end of the line" );
   }

   // -- The file ------------------------------------------------------------------------------

   void head() {
      schema_.doc = token().doc;
      if( !isAny( "model" ) ) {
         errors_.error( token().span, "a schema file starts with 'model' and the model's name" );
         throw Abandon();
      }
      advance();
      Token name = expectName( "the model's name" );
      std::string part;
      for( char c : name.text + "." ) {
         if( c == '.' ) {
            schema_.model.push_back( part );
            part.clear();
         } else {
            part += c;
         }
      }
      scope_ = schema_.model;
      schema_.scopes.push_back( { scope_, name.span } );
      endOfLine();
   }

   void import() {
      do {
         size_t from = at_;
         std::string path;
         do {
            path += ( path.empty() ? "" : "/" ) + expectName( "a schema's path" ).text;
         } while( accept( "/" ) );
         Span span = tokens_[from].span;
         span.end = tokens_[at_ - 1].span.end;
         imports_.push_back( { path + ".zek", span } );
      } while( accept( "," ) );
      endOfLine();
   }

   void items( bool nested ) {
      while( !atEnd() ) {
         if( isAny( "}" ) ) {
            if( nested ) return;
            errors_.error( token().span, "this '}' closes nothing" );
            advance();
            continue;
         }
         guarded( [this] { item(); } );
      }
   }

   void item() {
      std::string doc = token().doc;
      Token word = token();
      if( word.kind != TokenKind::name ) fail( "a declaration" );
      advance();
      if( word.text == "import" ) return import();
      if( word.text == "include" ) {
         if( token().kind != TokenKind::string || lineOver() ) fail( "a header in quotes" );
         schema_.includes.push_back( token().text );
         advance();
         return endOfLine();
      }
      if( word.text == "scope" ) return scope();
      if( word.text == "function" ) return function( doc );
      if( word.text == "const" ) return constant( doc );
      static const std::set< std::string > kinds{ "enum",    "value", "string",  "entity", "object",
                                                  "machine", "view",  "binding", "foreign" };
      if( !kinds.count( word.text ) ) {
         errors_.error( word.span, word.text == "model"
                                      ? "the model is declared once, on the first line"
                                      : "unknown declaration '" + word.text + "'" );
         throw Abandon();
      }
      type( word.text, doc );
   }

   void scope() {
      Token name = newName( "the scope's name" );
      expect( "{", "after the scope's name" );
      Nesting nesting( *this, name );
      scope_.push_back( name.text );
      schema_.scopes.push_back( { scope_, name.span } );
      // Only an abandoned file leaves it by an exception.
      items( true );
      scope_.pop_back();
      closeBrace( name );
   }

   // Depth of scopes and lists. A file that goes deeper is no schema but an accident.
   struct Nesting {
      Nesting( Parser & parser, const Token & at ) : parser_( parser ) {
         if( ++parser_.nesting_ > 32 ) {
            --parser_.nesting_;
            parser_.errors_.error( at.span, "too deeply nested" );
            throw Abandon();
         }
      }
      ~Nesting() { --parser_.nesting_; }
      Parser & parser_;
   };

   void closeBrace( const Token & opened ) {
      if( !isAny( "}" ) ) {
         // Only the innermost: what surrounds it may well be closed by what was meant for it.
         if( !unclosed_ )
            errors_.error( opened.span, "'" + opened.text + "' is not closed by '}'" );
         unclosed_ = true;
         throw Abandon();
      }
      advance();
   }

   void function( const std::string & doc ) {
      Function f;
      f.doc = doc;
      f.scope = scope_;
      Token name = newName( "the function's name" );
      f.name = name.text;
      f.span = name.span;
      f.arguments = arguments();
      if( !lineOver() ) f.result = typeRef();
      functionIs( std::move( f ) );
   }

   /// A constant of the model: a function that returns it.
   void constant( const std::string & doc ) {
      Function f;
      f.doc = doc;
      f.scope = scope_;
      Token name = newName( "the constant's name" );
      f.name = name.text;
      f.span = name.span;
      f.result = typeRef();
      expect( "=", "and the constant's value" );
      f.init = expression();
      functionIs( std::move( f ) );
   }

   void functionIs( Function f ) {
      endOfLine();
      schema_.functions.push_back( std::move( f ) );
      schema_.items.push_back( { nullptr, &schema_.functions.back() } );
   }

   // -- Types ---------------------------------------------------------------------------------

   TypeRef typeRef() {
      TypeRef ref;
      ref.isConst = accept( "const" );
      Token name = expectName( "a type" );
      ref.text = name.text;
      ref.span = name.span;
      return ref;
   }

   void type( const std::string & word, const std::string & doc ) {
      Type t;
      t.doc = doc;
      t.schema = &schema_;
      t.scope = scope_;
      if( word == "foreign" ) {
         foreign( t );
      } else {
         declared( t, word );
      }
      endOfLine();
      schema_.types.push_back( std::move( t ) );
      Type & kept = schema_.types.back();
      for( auto & nested : kept.nested ) nested->enclosing = &kept;
      schema_.items.push_back( { &kept, nullptr } );
      for( auto & nested : kept.nested ) schema_.items.push_back( { nested.get(), nullptr } );
   }

   void named( Type & t, const char * what ) {
      Token name = newName( what );
      t.name = name.text;
      t.span = name.span;
   }

   void foreign( Type & t ) {
      bool isEnum = accept( "enum" );
      bool isObject = !isEnum && accept( "object" );
      if( !isEnum && !isObject && !accept( "value" ) ) {
         fail( "'value', 'enum' or 'object' after 'foreign'" );
      }
      t.kind = isEnum     ? TypeKind::foreignEnum
               : isObject ? TypeKind::foreignObject
                          : TypeKind::foreign;
      named( t, "the type's name" );
      expect( "from", "and the header that declares it" );
      if( lineOver() || token().kind != TokenKind::string ) fail( "a header in quotes" );
      t.header = token().text;
      advance();
      if( isEnum ) {
         t.byValue = t.isHashed = t.isOrderedType = true;
         t.enumerators = enumerators();
         return;
      }
      if( isObject ) {
         t.hasNotifier = t.hasLog = false;
         if( !lineOver() ) unknownOption( token(), "a foreign object" );
         return;
      }
      while( !lineOver() ) {
         Token option = expectName( "'ordered', 'hashed' or 'byvalue'" );
         if( option.text == "ordered" ) {
            t.isOrderedType = true;
         } else if( option.text == "hashed" ) {
            t.isHashed = true;
         } else if( option.text == "byvalue" ) {
            t.byValue = true;
         } else {
            unknownOption( option, "a foreign value" );
         }
      }
   }

   [[noreturn]] void unknownOption( const Token & option, const std::string & of ) {
      errors_.error( option.span, "'" + option.text + "' is no option of " + of );
      throw Abandon();
   }

   void declared( Type & t, const std::string & word ) {
      named( t, "the type's name" );
      if( word == "enum" ) {
         t.kind = TypeKind::enumeration;
         t.isHashed = t.isOrderedType = true;
         if( accept( "unregistered" ) ) t.isRegistered = false;
         t.enumerators = enumerators();
         return;
      }
      if( word == "string" ) {
         t.kind = TypeKind::boundedString;
         t.isHashed = t.isOrderedType = true;
         expect( "max", "and the greatest length in bytes" );
         Token maximum = newName( "the limit's name" );
         t.maxName = maximum.text;
         t.maxSpan = maximum.span;
         expect( "=", "and the limit" );
         Expr limit = expression();
         if( limit.kind != Expr::Kind::number || limit.number <= 0 ) {
            errors_.error( limit.span, "the limit is a positive number of bytes" );
         }
         t.maxBytes = limit.number;
         if( accept( "unregistered" ) ) t.isRegistered = false;
         return;
      }
      if( word == "value" ) {
         t.kind = TypeKind::value;
         t.isHashed = true;
         valueOptions( t );
         body( t );
         return;
      }
      t.kind = word == "entity"    ? TypeKind::entity
               : word == "object"  ? TypeKind::object
               : word == "machine" ? TypeKind::machine
               : word == "view"    ? TypeKind::view
                                   : TypeKind::binding;
      t.isEntity = word == "entity" || word == "machine";
      countedOptions( t, word );
      if( is( "{" ) ) {
         body( t );
      } else if( t.kind == TypeKind::machine || t.kind == TypeKind::view ) {
         fail( "'{' and the lines of the " + word );
      }
   }

   void valueOptions( Type & t ) {
      while( !lineOver() && !is( "{" ) ) {
         Token option = expectName( "'{'" );
         if( option.text == "ordered" ) {
            t.isOrderedType = true;
         } else if( option.text == "hash" ) {
            expect( "sum", "after 'hash'" );
            t.hashIsSum = true;
         } else if( option.text == "compares" ) {
            Token compared = newName( "the field that is compared" );
            t.compares = compared.text;
            t.comparesSpan = compared.span;
         } else if( option.text == "unregistered" ) {
            t.isRegistered = false;
         } else {
            unknownOption( option, "a value" );
         }
      }
      if( !is( "{" ) ) fail( "'{' and the fields of the value" );
   }

   void countedOptions( Type & t, const std::string & word ) {
      if( word == "view" ) {
         if( !is( "entity" ) && !is( "object" ) )
            fail( "'entity' or 'object' after the view's name" );
         t.isEntity = is( "entity" );
         advance();
      }
      if( word == "binding" ) {
         expect( "of", "and the view" );
         t.base = typeRef();
         const bool braced = accept( "{" ); // for lines that would be too long
         if( braced && !isAny( "holds" ) ) fail( "'holds' and the record" );
         if( braced ) {
            advance();
         } else {
            expect( "holds", "and the record" );
         }
         Token name = newName( "the held record's name" );
         t.holdsName = name.text;
         t.holdsSpan = name.span;
         t.holds = typeRef();
         if( braced ) closeBrace( name );
      }
      while( !lineOver() && !is( "{" ) ) {
         if( word == "entity" && accept( ":" ) ) {
            t.base = typeRef();
            continue;
         }
         Token option = expectName( "an option or '{'" );
         if( option.text == "named" && ( word == "entity" || word == "view" ) ) {
            t.isNamed = true;
         } else if( option.text == "silent" && word != "machine" ) {
            t.hasNotifier = t.hasLog = false;
         } else if( option.text == "unlogged" ) {
            t.hasLog = false;
         } else if( option.text == "unregistered" ) {
            t.isRegistered = false;
         } else if( option.text == "fixes" && t.base ) {
            fixes( t );
         } else if( option.text == "traced" && word == "machine" ) {
            if( lineOver() || token().kind != TokenKind::string )
               fail( "the trace handle's name in quotes" );
            t.trace = token().text;
            advance();
         } else {
            unknownOption( option,
                           word == "entity" || word == "object" ? "an " + word : "a " + word );
         }
      }
   }

   void fixes( Type & t ) {
      Token parameter = newName( "the parameter" );
      t.fixedParam = parameter.text;
      t.fixedSpan = parameter.span;
      expect( "=", "and the parameter's value" );
      t.fixedValue = expression();
   }

   std::vector< Enumerator > enumerators() {
      std::vector< Enumerator > out;
      Token opened = token();
      expect( "{", "and the enumerators" );
      int64_t value = 0;
      while( !atEnd() && !isAny( "}" ) ) {
         if( token().kind != TokenKind::name ) fail( "an enumerator" );
         Enumerator e;
         e.doc = token().doc;
         e.name = token().text;
         e.span = token().span;
         if( e.name.find( '.' ) != std::string::npos ) fail( "an enumerator" );
         advance();
         if( accept( "=" ) ) {
            Expr number = expression();
            if( number.kind != Expr::Kind::number ) {
               errors_.error( number.span, "an enumerator's value is a number" );
            }
            value = number.number;
         }
         e.value = value++;
         out.push_back( std::move( e ) );
         if( isAny( "," ) ) advance();
      }
      closeBrace( opened );
      return out;
   }

   void body( Type & t ) {
      Token opened = token();
      opened.text = t.name;
      opened.span = t.span;
      expect( "{", "" );
      while( !atEnd() && !isAny( "}" ) ) {
         guarded( [&] {
            if( isAny( "enum" ) ) {
               nestedEnum( t );
            } else if( isAny( "fixes" ) && t.base ) {
               advance();
               fixes( t );
               endOfLine();
            } else {
               t.members.push_back( line( t ) );
               endOfLine();
            }
         } );
      }
      closeBrace( opened );
   }

   void nestedEnum( Type & t ) {
      auto e = std::make_unique< Type >();
      e->doc = token().doc;
      advance();
      e->kind = TypeKind::enumeration;
      e->schema = &schema_;
      e->scope = t.scope;
      e->scope.push_back( t.name );
      e->isHashed = e->isOrderedType = true;
      e->enclosing = &t; // corrected once the type has its place
      named( *e, "the enumeration's name" );
      e->enumerators = enumerators();
      if( t.kind != TypeKind::entity && t.kind != TypeKind::object ) {
         errors_.error( e->span,
                        "an enumeration stands in an entity, an object or beside the types" );
         return;
      }
      endOfLine();
      t.nested.push_back( std::move( e ) );
   }

   // -- Lines of a type -----------------------------------------------------------------------

   Member line( Type & t ) {
      Member m;
      m.doc = token().doc;
      Token word = token();
      if( word.kind != TokenKind::name ) fail( "a line of the type" );
      advance();
      using Rule = void ( Parser::* )( Member &, const std::string & );
      static const std::vector< std::pair< const char *, Rule > > rules{
         { "key", &Parser::plain },           { "param", &Parser::plain },
         { "attr", &Parser::plain },          { "field", &Parser::plain },
         { "const", &Parser::constant },      { "derived", &Parser::derived },
         { "counter", &Parser::counter },     { "ordered", &Parser::values },
         { "hashed", &Parser::values },       { "set", &Parser::set },
         { "owns", &Parser::entities },       { "refs", &Parser::entities },
         { "call", &Parser::operation },      { "ask", &Parser::operation },
         { "named", &Parser::namedConstant }, { "one", &Parser::reactor },
         { "each", &Parser::reactor },
      };
      for( const auto & [name, rule] : rules ) {
         if( word.text != name ) continue;
         if( const char * wrong = misplaced( t, word.text ) ) {
            errors_.error( word.span, "'" + word.text + "' does not stand in " + wrong );
            throw Abandon();
         }
         Token own = newName( "a name" );
         m.keyword = word.text;
         m.name = own.text;
         m.span = own.span;
         ( this->*rule )( m, word.text );
         return m;
      }
      errors_.error( word.span, "unknown line '" + word.text + "'" );
      throw Abandon();
   }

   /// What the type is, where the word does not belong into one.
   static const char * misplaced( const Type & t, const std::string & word ) {
      static const std::set< std::string > ofValues{ "key", "field", "set", "call", "named" };
      static const std::set< std::string > ofMachines{ "param", "attr", "const",  "one",
                                                       "each",  "call", "counter" };
      bool value = t.kind == TypeKind::value;
      if( value ) return ofValues.count( word ) ? nullptr : "a value";
      if( word == "field" || word == "named" ) return "a counted type";
      if( t.kind == TypeKind::machine ) return ofMachines.count( word ) ? nullptr : "a machine";
      if( word == "one" || word == "each" ) return "anything but a machine";
      if( t.kind == TypeKind::binding ) return "a binding";
      if( word == "ask" && t.kind != TypeKind::view ) return "anything but a view";
      return nullptr;
   }

   void plain( Member & m, const std::string & word ) {
      m.kind = word == "key"     ? MemberKind::key
               : word == "param" ? MemberKind::param
                                 : MemberKind::attr;
      m.type = typeRef();
      if( word == "key" && accept( "as" ) ) {
         expect( "name", "after 'as'" );
         m.keyIsName = true;
      }
      if( word == "attr" && accept( "given" ) ) m.setAtConstruction = true;
      if( ( word == "attr" || word == "field" ) && accept( "=" ) ) m.init = expression();
      if( word == "attr" && accept( "max" ) ) {
         Token bound = newName( "the constant that bounds it" );
         m.bound = bound.text;
         m.boundSpan = bound.span;
         if( accept( "tested" ) ) {
            expect( "first", "after 'tested'" );
            m.testedFirst = true;
         }
      }
      if( word == "attr" && accept( "becomes" ) ) m.becomes = quotedText( "what it becomes" );
   }

   std::string quotedText( const char * what ) {
      if( lineOver() || token().kind != TokenKind::string ) {
         fail( ( std::string( what ) + " in quotes" ).c_str() );
      }
      std::string text = token().text;
      advance();
      return text;
   }

   void constant( Member & m, const std::string & ) {
      m.kind = MemberKind::constant;
      m.type = typeRef();
      expect( "=", "and the constant's value" );
      m.init = expression();
   }

   void derived( Member & m, const std::string & ) {
      m.kind = MemberKind::derived;
      m.type = typeRef();
      if( accept( "through" ) ) {
         Token pointer = newName( "the pointer attribute" );
         m.through = pointer.text;
         m.throughSpan = pointer.span;
         m.writable = true;
      } else if( accept( "aborts" ) ) {
         m.aborts = quotedText( "the assertion's text" );
      }
   }

   void counter( Member & m, const std::string & ) {
      m.kind = MemberKind::counter;
      m.type = typeRef();
      if( lineOver() ) fail( "the counter's operations (inc, dec, is)" );
      while( !lineOver() ) {
         Token op = expectName( "'inc', 'dec' or 'is'" );
         bool * has = op.text == "inc"   ? &m.hasInc
                      : op.text == "dec" ? &m.hasDec
                      : op.text == "is"  ? &m.hasIs
                                         : nullptr;
         if( !has ) unknownOption( op, "a counter; it has inc, dec and is" );
         if( *has ) errors_.error( op.span, "'" + op.text + "' is listed twice" );
         *has = true;
      }
   }

   void values( Member & m, const std::string & word ) {
      m.kind = MemberKind::collection;
      m.isOrdered = word == "ordered";
      TypeRef first = typeRef();
      if( accept( "by" ) ) {
         m.form = CollectionForm::fields;
         m.type = first;
         Token field = newName( "the field that is the key" );
         m.keyField = field.text;
         m.keyFieldSpan = field.span;
         return;
      }
      expect( "->", "and the value's type, or 'by' and a field," );
      m.form = CollectionForm::values;
      m.keyType = first;
      m.type = typeRef();
   }

   void set( Member & m, const std::string & ) {
      m.kind = MemberKind::collection;
      m.form = CollectionForm::set;
      m.keyType = typeRef();
      m.type = m.keyType;
   }

   void entities( Member & m, const std::string & word ) {
      m.kind = MemberKind::collection;
      m.form = word == "owns" ? CollectionForm::owning : CollectionForm::byRef;
      m.type = typeRef();
   }

   void operation( Member & m, const std::string & word ) {
      m.kind = word == "ask" ? MemberKind::ask : MemberKind::call;
      if( m.name == "operator" ) {
         expect( "+=", "after 'operator'" );
         m.name += "+=";
      }
      m.arguments = arguments();
      if( is( "const" ) && nextIsType() ) {
         result( m );
      }
      while( !lineOver() ) {
         if( accept( "const" ) ) {
            m.isConst = true;
         } else if( accept( "static" ) ) {
            m.isStatic = true;
         } else if( accept( "at" ) ) {
            expect( "construction", "after 'at'" );
            m.atConstruction = true;
         } else if( m.isVoid ) {
            result( m );
         } else {
            fail( "'const', 'static' or 'at construction'" );
         }
      }
   }

   void result( Member & m ) {
      m.type = typeRef();
      m.isVoid = false;
      m.returnsSelf = accept( "&" );
   }

   /// After `const`: a type on the same line makes it a result, else it is the operation's own.
   bool nextIsType() const {
      const Token & next = tokens_[at_ + 1];
      return next.kind == TokenKind::name && !next.startsLine && next.text != "static" &&
             next.text != "at";
   }

   std::vector< Argument > arguments() {
      std::vector< Argument > out;
      expect( "(", "and the arguments" );
      ++depth_;
      while( !is( ")" ) ) {
         if( atEnd() || isAny( "}" ) ) {
            --depth_;
            fail( "')' after the arguments" );
         }
         Argument a;
         Token name = newName( "an argument's name" );
         a.name = name.text;
         a.span = name.span;
         for( const Argument & other : out ) {
            if( other.name == a.name ) {
               errors_.error( a.span, "there is another argument '" + a.name + "'" );
            }
         }
         a.type = typeRef();
         a.byReference = accept( "&" );
         out.push_back( std::move( a ) );
         if( !is( ")" ) ) expect( ",", "or ')' after the argument" );
      }
      --depth_;
      advance();
      return out;
   }

   void namedConstant( Member & m, const std::string & ) {
      m.kind = MemberKind::named;
      if( !is( "(" ) ) fail( "'(' and the values of the fields" );
      m.init = expression();
   }

   void reactor( Member & m, const std::string & word ) {
      m.kind = MemberKind::reactor;
      m.isEach = word == "each";
      m.type = typeRef();
      if( !m.isEach && accept( "given" ) ) m.setAtConstruction = true;
      Token opened = tokens_[at_ - 1];
      expect( "{", "and what it reacts to" );
      while( !atEnd() && !isAny( "}" ) ) {
         guarded( [&] { reaction( m ); } );
      }
      closeBrace( opened );
   }

   void reaction( Member & m ) {
      Token word = token();
      if( word.kind != TokenKind::name ) fail( "a reaction" );
      if( word.text == "call" ) {
         Member handler;
         handler.doc = word.doc;
         advance();
         Token own = newName( "the handler's name" );
         handler.name = own.text;
         handler.span = own.span;
         operation( handler, "call" );
         endOfLine();
         m.handlers.push_back( std::move( handler ) );
         return;
      }
      advance();
      Reaction r;
      r.span = word.span;
      if( word.text == "on" ) {
         Token attribute = newName( "the attribute watched" );
         r.attribute = attribute.text;
         r.span = attribute.span;
      } else if( word.text == "start" ) {
         r.when = Reaction::When::start;
      } else if( word.text == "retarget" ) {
         r.when = Reaction::When::retarget;
      } else if( word.text == "gone" ) {
         r.when = Reaction::When::gone;
      } else {
         errors_.error( word.span, "a reaction begins with on, start, retarget or gone" );
         throw Abandon();
      }
      expect( "->", "and what it does" );
      do {
         r.actions.push_back( action() );
      } while( accept( "," ) );
      endOfLine();
      m.reactions.push_back( std::move( r ) );
   }

   Action action() {
      Action a;
      Token word = expectName( "owner.HANDLER, self.HANDLER or feed COLLECTION" );
      a.span = word.span;
      if( word.text == "feed" ) {
         Token target = newName( "the reactor collection to feed" );
         a.kind = Action::Kind::feed;
         a.target = target.text;
         a.span = target.span;
         return a;
      }
      bool owner = word.text.compare( 0, 6, "owner." ) == 0;
      bool self = word.text.compare( 0, 5, "self." ) == 0;
      if( !owner && !self ) {
         errors_.error( word.span, "owner.HANDLER, self.HANDLER or feed COLLECTION expected" );
         throw Abandon();
      }
      a.kind = owner ? Action::Kind::owner : Action::Kind::self;
      a.target = word.text.substr( owner ? 6 : 5 );
      return a;
   }

   // -- Expressions ---------------------------------------------------------------------------

   Expr expression() {
      if( lineOver() ) fail( "a value" );
      Expr e;
      Token t = token();
      e.span = t.span;
      e.text = t.text;
      if( accept( "(" ) ) {
         e.kind = Expr::Kind::list;
         Nesting nesting( *this, t );
         ++depth_;
         while( !is( ")" ) ) {
            if( atEnd() || isAny( "}" ) ) {
               --depth_;
               fail( "')' after the values" );
            }
            e.items.push_back( expression() );
            if( !is( ")" ) ) expect( ",", "or ')' after the value" );
         }
         --depth_;
         e.span.end = token().span.end;
         advance();
         return e;
      }
      switch( t.kind ) {
      case TokenKind::number:
         number( e );
         break;
      case TokenKind::string:
         e.kind = Expr::Kind::string;
         break;
      case TokenKind::name:
         e.kind = t.text == "true" || t.text == "false" ? Expr::Kind::boolean : Expr::Kind::name;
         break;
      default:
         fail( "a value" );
      }
      advance();
      return e;
   }

   void number( Expr & e ) {
      const char * begin = e.text.c_str();
      char * end = nullptr;
      if( e.text.find( '.' ) != std::string::npos ) {
         e.kind = Expr::Kind::real;
         (void)std::strtod( begin, &end );
      } else {
         e.kind = Expr::Kind::number;
         errno = 0;
         e.number = std::strtoll( begin, &end, 0 );
         if( errno == ERANGE ) errors_.error( e.span, "'" + e.text + "' is too large a number" );
      }
      if( *end ) errors_.error( e.span, "'" + e.text + "' is no number" );
   }

   std::vector< Token > tokens_;
   Schema & schema_;
   std::vector< Import > & imports_;
   Errors & errors_;
   std::vector< std::string > scope_;
   size_t at_ = 0;
   int depth_ = 0; // open parentheses: lines do not end in them
   int nesting_ = 0;
   bool unclosed_ = false; // reported
};

} // namespace

void
parse( const SourceFile & file, Schema & schema, std::vector< Import > & imports,
       Errors & errors ) {
   Parser( file, schema, imports, errors ).run();
}

} // namespace Zek::TypeLang
