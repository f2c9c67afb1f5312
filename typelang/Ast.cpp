#include "typelang/Ast.h"

namespace Zek::TypeLang {

namespace {

std::string
scoped( const std::vector< std::string > & scope, const std::string & name,
        const char * separator ) {
   std::string out;
   for( const std::string & s : scope ) out += s + separator;
   return out + name;
}

} // namespace

std::string
Type::fullName() const {
   return scoped( scope, name, "::" );
}

std::string
Type::dottedName() const {
   return scoped( scope, name, "." );
}

const Member *
Type::find( const std::string & memberName ) const {
   for( const Member & m : members ) {
      if( m.name == memberName ) return &m;
   }
   return base.type ? base.type->find( memberName ) : nullptr;
}

const Member *
Type::keyMember() const {
   for( const Member & m : members ) {
      if( m.kind == MemberKind::key ) return &m;
   }
   return base.type ? base.type->keyMember() : nullptr;
}

bool
isParameter( const Member & m ) {
   return m.kind == MemberKind::key || m.kind == MemberKind::param || m.setAtConstruction;
}

std::vector< const Member * >
parametersOf( const Type & type ) {
   std::vector< const Member * > out;
   if( type.base.type ) {
      for( const Member * m : parametersOf( *type.base.type ) ) {
         if( m->name != type.fixedParam ) out.push_back( m );
      }
   }
   for( const Member & m : type.members ) {
      if( isParameter( m ) ) out.push_back( &m );
   }
   return out;
}

Member
heldBy( const Type & binding ) {
   Member held;
   held.kind = MemberKind::param;
   held.name = binding.holdsName;
   held.doc = "The record that answers.";
   held.span = binding.holdsSpan;
   held.type = binding.holds;
   const auto & asked = binding.base.type->members;
   held.number = asked.empty() ? 258 : static_cast< uint16_t >( asked.back().number + 1 );
   return held;
}

std::vector< const Member * >
constructorFields( const Type & value ) {
   if( const Member * key = value.keyMember() ) return { key };
   std::vector< const Member * > out;
   for( const Member & m : value.members ) {
      if( m.kind == MemberKind::attr ) out.push_back( &m );
   }
   return out;
}

bool
Schema::foreignOnly() const {
   for( const Type & type : types ) {
      if( !type.isForeign() ) return false;
   }
   return functions.empty();
}

} // namespace Zek::TypeLang
