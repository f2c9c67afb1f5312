#include "typelang/Explain.h"

#include "typelang/Names.h"
#include "typelang/Source.h"
#include "typelang/Text.h"

#include <algorithm>
#include <map>

namespace Zek::TypeLang {

// -- Phrases ----------------------------------------------------------------------------------

Phrase &
Phrase::operator+=( std::string text ) {
   if( !text.empty() ) pieces.push_back( { std::move( text ), nullptr } );
   return *this;
}

Phrase &
Phrase::operator+=( const Phrase & more ) {
   pieces.insert( pieces.end(), more.pieces.begin(), more.pieces.end() );
   return *this;
}

std::string
Phrase::text() const {
   std::string out;
   for( const Piece & piece : pieces ) out += piece.text;
   return out;
}

Phrase
nameOf( const Type & type ) {
   Phrase out;
   out.pieces.push_back( { type.fullName(), type.schema ? &type : nullptr } );
   return out;
}

// -- Types of a program -----------------------------------------------------------------------

std::vector< const Type * >
declaredTypes( const Program & program ) {
   std::vector< const Type * > out;
   for( const auto & schema : program.schemas ) {
      for( const Type & type : schema->types ) {
         out.push_back( &type );
         for( const auto & nested : type.nested ) out.push_back( nested.get() );
      }
   }
   return out;
}

const Type *
findType( const Program & program, const std::string & name ) {
   for( const Type * type : declaredTypes( program ) ) {
      if( type->fullName() == name || type->dottedName() == name ) return type;
   }
   return nullptr;
}

namespace {

Phrase
named( const TypeRef & ref ) {
   Phrase out( std::string( ref.isConst ? "const " : "" ) );
   return out += nameOf( *ref.type );
}

Phrase
signatureOf( const std::vector< Argument > & arguments, const TypeRef & result ) {
   Phrase out( std::string( "(" ) );
   for( const Argument & a : arguments ) {
      out += ( &a == &arguments.front() ? " " : ", " ) + a.name + " ";
      out += named( a.type );
      if( a.byReference ) out += " &";
   }
   out += arguments.empty() ? ")" : " )";
   if( result ) {
      out += " ";
      out += named( result );
   }
   return out;
}

// -- What a type is ---------------------------------------------------------------------------

std::string
kindOf( const Type & type ) {
   switch( type.kind ) {
   case TypeKind::builtin:
      return "Builtin";
   case TypeKind::foreign:
      return "Value written in C++";
   case TypeKind::foreignEnum:
      return "Enumeration written in C++";
   case TypeKind::foreignObject:
      return "Counted class written in C++";
   case TypeKind::enumeration:
      return "Enumeration";
   case TypeKind::value:
      return "Value";
   case TypeKind::boundedString:
      return "String of at most " + std::to_string( type.maxBytes ) + " bytes";
   case TypeKind::entity:
      return "Entity";
   case TypeKind::object:
      return "Counted object";
   case TypeKind::machine:
      return "State machine";
   case TypeKind::view:
      return type.isEntity ? "View, an entity" : "View, a counted object";
   case TypeKind::binding:
      return "Binding";
   }
   return "";
}

std::string
whatIs( const Type & type ) {
   std::string out = kindOf( type );
   if( type.kind == TypeKind::value || type.kind == TypeKind::foreign ) {
      if( type.isOrderedType ) out += ", ordered";
      if( !type.compares.empty() ) out += ", compared by " + type.compares;
   } else if( type.isCounted() && !type.isForeign() ) {
      if( type.isNamed ) out += ", named";
      if( !type.hasNotifier ) {
         out += ", without notifier";
      } else if( !type.hasLog ) {
         out += ", without attribute log";
      }
   }
   return type.isRegistered ? out : out + ", not registered";
}

Phrase
factory( const Type & type ) {
   std::vector< std::string > scope = type.scope;
   scope.push_back( factoryOf( type ) );
   Phrase out( joined( scope, "::" ) + "(" );
   bool first = true;
   auto takes = [&]( const std::string & name, const Phrase & of ) {
      out += ( first ? " " : ", " ) + name + " ";
      out += of;
      first = false;
   };
   if( type.isNamed ) takes( "name", Phrase( std::string( "Zek::Name" ) ) );
   for( const Member * p : parametersOf( type ) ) takes( p->name, named( p->type ) );
   if( type.holds ) takes( type.holdsName, named( type.holds ) );
   return out += first ? ")" : " )";
}

// -- What refers to a type --------------------------------------------------------------------

/// The other ends of one kind of relation, each once, by name: in whatever order schemas are given.
class Relation {
 public:
   explicit Relation( const char * name ) : name_( name ) {}
   void add( const Type & type, const std::string & member ) {
      const std::string end = member.empty() ? "" : "::" + member;
      ends_[type.fullName() + end] = { &type, end };
   }
   void putInto( Explanation & out ) const {
      Phrase phrase;
      for( const auto & [name, end] : ends_ ) {
         if( !phrase.empty() ) phrase += ", ";
         phrase += nameOf( *end.first );
         phrase += end.second;
      }
      if( !phrase.empty() ) out.facts.push_back( { name_, std::move( phrase ) } );
   }

 private:
   std::string name_;
   std::map< std::string, std::pair< const Type *, std::string > > ends_;
};

void
relate( const Program & program, const Type & target, Explanation & out ) {
   Relation heirs( target.kind == TypeKind::view ? "Bindings" : "Base of" );
   Relation owners( "Owned by" ), referrers( "Referred to by" ), pointers( "Pointed to by" );
   Relation watchers( "Watched by" ), users( "Used by" );
   for( const Type * type : declaredTypes( program ) ) {
      if( type->base.type == &target ) heirs.add( *type, "" );
      if( type->holds.type == &target ) pointers.add( *type, type->holdsName );
      for( const Member & m : type->members ) {
         bool takes = m.keyType.type == &target;
         for( const Argument & a : m.arguments ) takes = takes || a.type.type == &target;
         if( m.type.type == &target ) {
            const bool isOperation = m.kind == MemberKind::call || m.kind == MemberKind::ask;
            Relation & relation = m.form == CollectionForm::owning     ? owners
                                  : m.form == CollectionForm::byRef    ? referrers
                                  : m.kind == MemberKind::reactor      ? watchers
                                  : target.isCounted() && !isOperation ? pointers
                                                                       : users;
            relation.add( *type, m.name );
         } else if( takes ) {
            users.add( *type, m.name );
         }
      }
   }
   for( const Relation * r : { &heirs, &owners, &referrers, &pointers, &watchers, &users } ) {
      r->putInto( out );
   }
}

// -- Lines ------------------------------------------------------------------------------------

std::string
kindOf( const Type & type, const Member & m ) {
   switch( m.kind ) {
   case MemberKind::key:
      return m.keyIsName ? "key and name" : "key";
   case MemberKind::param:
      return "constructor parameter";
   case MemberKind::attr:
      return type.kind == TypeKind::value ? "field"
             : m.setAtConstruction        ? "attribute, also constructor parameter"
                                          : "attribute";
   case MemberKind::constant:
      return "constant";
   case MemberKind::derived:
      return !m.aborts.empty()    ? "derived: reading it fails assertion " + quoted( m.aborts )
             : !m.through.empty() ? "derived, through " + m.through
                                  : "derived";
   case MemberKind::counter:
      return std::string( "counter:" ) + ( m.hasInc ? " inc" : "" ) + ( m.hasDec ? " dec" : "" ) +
             ( m.hasIs ? " is" : "" );
   case MemberKind::collection: {
      if( m.form == CollectionForm::owning ) return "owned members";
      if( m.form == CollectionForm::byRef ) return "references to members";
      const std::string order = type.kind == TypeKind::value || m.isOrdered ? "ordered" : "hashed";
      return order + ( m.form == CollectionForm::set ? " set" : " collection" );
   }
   case MemberKind::call:
      return std::string( m.isStatic ? "static " : "" ) + "operation" +
             ( m.atConstruction ? ", run at construction" : "" );
   case MemberKind::ask:
      return "question";
   case MemberKind::reactor:
      return m.isEach ? "reactor to each" : "reactor";
   case MemberKind::named:
      return "named constant";
   }
   return "";
}

Phrase
typeOf( const Member & m ) {
   if( m.kind == MemberKind::call || m.kind == MemberKind::ask ) {
      Phrase out = signatureOf( m.arguments, m.type );
      if( m.returnsSelf ) out += " &";
      if( m.isConst ) out += " const";
      return out;
   }
   if( m.kind == MemberKind::named ) return {};
   if( m.kind != MemberKind::collection || m.form == CollectionForm::set ) return named( m.type );
   Phrase out = named( m.keyType );
   out += " -> ";
   return out += named( m.type );
}

/// As a schema spells it.
std::string
spelt( const Expr & e ) {
   if( e.kind == Expr::Kind::string ) return quoted( e.text );
   if( e.kind != Expr::Kind::list ) return e.text;
   std::vector< std::string > items;
   for( const Expr & item : e.items ) items.push_back( spelt( item ) );
   return "( " + joined( items, ", " ) + " )";
}

/// The constant of the type that the expression names, or null.
const Member *
constantOf( const Expr & e, const Type & within ) {
   const Member * named = e.kind == Expr::Kind::name ? within.find( e.text ) : nullptr;
   return named && named->kind == MemberKind::constant ? named : nullptr;
}

/// A constant that stands for the value, with the value.
std::string
spelt( const Expr & e, const Type & within ) {
   const Expr * value = &e;
   while( const Member * constant = constantOf( *value, within ) ) value = &constant->init;
   return value == &e ? spelt( e ) : e.text + " = " + spelt( *value );
}

std::string
initOf( const Type & type, const Member & m ) {
   if( m.init ) return spelt( m.init, type );
   const bool starts =
      m.kind == MemberKind::counter ||
      ( m.kind == MemberKind::attr && !m.setAtConstruction && type.kind != TypeKind::value );
   if( !starts ) return "";
   const Type & t = *m.type.type;
   if( t.isCounted() ) return "null";
   if( t.name == "bool" && !t.schema ) return "false";
   if( t.isEnum() ) {
      for( const Enumerator & e : t.enumerators ) {
         if( e.value == 0 ) return e.name;
      }
   }
   if( t.kind == TypeKind::boundedString || ( t.kind == TypeKind::builtin && !t.byValue ) ) {
      return "\"\"";
   }
   return t.kind == TypeKind::builtin || t.isEnum() ? "0" : "zero value";
}

std::string
callbacksOf( const Type & type, const Member & m ) {
   const std::string on = "on" + capitalised( m.name );
   if( !type.isCounted() || !type.hasNotifier ) return "";
   if( m.kind == MemberKind::collection || ( m.kind == MemberKind::reactor && m.isEach ) ) {
      return on + "( key )";
   }
   const bool announced =
      m.kind == MemberKind::attr || m.kind == MemberKind::counter || m.kind == MemberKind::reactor;
   return announced ? on + "()" : "";
}

std::string
reactionText( const Reaction & r ) {
   std::vector< std::string > actions;
   for( const Action & a : r.actions ) {
      actions.push_back( ( a.kind == Action::Kind::owner  ? "owner."
                           : a.kind == Action::Kind::self ? "self."
                                                          : "feed " ) +
                         a.target );
   }
   const std::string when = r.when == Reaction::When::on         ? "on " + r.attribute
                            : r.when == Reaction::When::start    ? "start"
                            : r.when == Reaction::When::retarget ? "retarget"
                                                                 : "gone";
   return when + " -> " + joined( actions, ", " );
}

std::string
oneLine( std::string text ) {
   std::replace( text.begin(), text.end(), '\n', ' ' );
   return text;
}

ExplainedLine
lineOf( const Type & type, const Member & m ) {
   ExplainedLine line;
   line.number = m.number ? std::to_string( m.number ) : "";
   line.name = m.name;
   line.kind = kindOf( type, m );
   line.type = typeOf( m );
   line.init = m.becomes.empty() ? initOf( type, m ) : m.becomes;
   if( m.boundConst ) {
      Expr bound;
      bound.kind = Expr::Kind::name;
      bound.text = m.bound;
      line.bound = "at most " + spelt( bound, type ) +
                   ( m.testedFirst ? ", tested before it is stored" : ", tested once stored" );
   }
   line.callbacks = callbacksOf( type, m );
   line.comment = m.doc;
   for( const Reaction & r : m.reactions ) line.notes.push_back( reactionText( r ) );
   for( const Member & h : m.handlers ) {
      line.notes.push_back( h.name + signatureOf( h.arguments, h.type ).text() +
                            ( h.doc.empty() ? "" : ": " + oneLine( h.doc ) ) );
   }
   return line;
}

/// The type's lines behind those of its base.
void
addLines( const Type & type, const Type & explained, std::vector< ExplainedLine > & out ) {
   if( type.base.type ) addLines( *type.base.type, explained, out );
   const Type * inheritedFrom = &type == &explained ? nullptr : &type;
   auto add = [&]( ExplainedLine line ) {
      line.inheritedFrom = inheritedFrom;
      out.push_back( std::move( line ) );
   };
   for( const Enumerator & e : type.enumerators ) {
      ExplainedLine line;
      line.number = std::to_string( e.value );
      line.name = e.name;
      line.kind = "enumerator";
      line.comment = e.doc;
      add( line );
   }
   if( type.holds ) add( lineOf( type, heldBy( type ) ) );
   for( const Member & m : type.members ) {
      ExplainedLine line = lineOf( type, m );
      if( inheritedFrom && m.name == explained.fixedParam ) {
         line.kind = "fixed parameter";
         line.init = spelt( explained.fixedValue );
      }
      add( std::move( line ) );
   }
}

} // namespace

Phrase
signatureOf( const Function & function ) {
   if( !function.init ) return signatureOf( function.arguments, function.result );
   Phrase out = named( function.result );
   return out += " = " + spelt( function.init );
}

Explanation
explain( const Program & program, const Type & type ) {
   Explanation out;
   out.type = &type;
   out.what = whatIs( type );
   out.comment = type.doc;
   if( !type.header.empty() ) out.facts.push_back( { "Declared in", Phrase( type.header ) } );
   if( type.enclosing ) out.facts.push_back( { "Declared in", nameOf( *type.enclosing ) } );
   if( type.isCounted() && !type.isForeign() && type.kind != TypeKind::view ) {
      out.facts.push_back( { "Made by", factory( type ) } );
   }
   if( type.base ) {
      Phrase base = nameOf( *type.base.type );
      if( !type.fixedParam.empty() ) {
         base += ", with " + type.fixedParam + " = " + spelt( type.fixedValue );
      }
      out.facts.push_back(
         { type.kind == TypeKind::binding ? "Answers for" : "Derives from", std::move( base ) } );
   }
   if( !type.trace.empty() ) out.facts.push_back( { "Traces as", Phrase( type.trace ) } );
   relate( program, type, out );
   addLines( type, type, out.lines );
   return out;
}

// -- Text -------------------------------------------------------------------------------------

namespace {

/// Words broken before column 100, all lines but the first behind `columns` blanks.
std::string
filled( const std::string & text, size_t columns, size_t at ) {
   constexpr size_t widest = 100;
   std::string out;
   for( size_t from = 0; from < text.size(); ) {
      size_t to = std::min( text.find( ' ', from ), text.size() );
      if( at > columns && at + 1 + ( to - from ) > widest ) {
         out += "\n" + std::string( columns, ' ' );
         at = columns;
      } else if( from > 0 ) {
         out += ' ';
         ++at;
      }
      out.append( text, from, to - from );
      at += to - from;
      from = to + 1;
   }
   return out + "\n";
}

std::string
paragraph( const std::string & text, size_t columns ) {
   return std::string( columns, ' ' ) + filled( oneLine( text ), columns, columns );
}

} // namespace

std::string
explanationText( const Explanation & explanation ) {
   const Type & type = *explanation.type;
   const auto line = type.span.file->position( type.span.begin ).line;
   std::string out = type.fullName() + "  (" + type.schema->path + ":" + std::to_string( line ) +
                     ")\n" + explanation.what + ".\n";
   if( !explanation.comment.empty() ) out += "\n" + explanation.comment + "\n";
   if( !explanation.facts.empty() ) out += "\n";
   for( const auto & [name, text] : explanation.facts ) {
      std::string label = name + ": ";
      out += label + filled( text.text(), 3, label.size() );
   }
   if( !explanation.lines.empty() ) out += "\n";
   for( const ExplainedLine & l : explanation.lines ) {
      const std::string number = std::string( l.number.size() < 4 ? 4 - l.number.size() : 0, ' ' );
      std::string head = number + l.number + "  " + l.name;
      if( !l.type.empty() ) head += "  " + l.type.text();
      if( !l.init.empty() ) head += "  = " + l.init;
      out += head + "\n";
      std::vector< std::string > about{ l.kind };
      if( l.inheritedFrom ) about.push_back( "of " + l.inheritedFrom->fullName() );
      if( !l.bound.empty() ) about.push_back( l.bound );
      if( !l.callbacks.empty() ) about.push_back( l.callbacks );
      if( l.kind != "enumerator" ) out += paragraph( joined( about, "; " ), 6 );
      for( const std::string & note : l.notes ) out += paragraph( note, 9 );
      if( !l.comment.empty() ) out += paragraph( l.comment, 6 );
   }
   return out;
}

} // namespace Zek::TypeLang
