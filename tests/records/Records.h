// Records seen through their descriptors alone: all types, values of any type, records as text, and
// the story of what a record announced.

#pragma once

#include "framework/DynamicTypes.h"
#include "framework/Entity.h"
#include "framework/Exception.h"
#include "framework/Relay.h"
#include "framework/Type.h"
#include "framework/ValueOps.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Records {

using Types = std::map< std::string, const Zek::TypeDescriptor * >;

/// All registered types of which `chosen` holds, by full name.
template< class Chosen >
Types
typesThat( Chosen chosen ) {
   Types types;
   Zek::forEachType(
      []( const Zek::TypeDescriptor & type, void * context ) {
         ( *static_cast< Types * >( context ) )[type.fullName] = &type;
      },
      &types );
   std::erase_if( types, [&]( auto & entry ) { return !chosen( *entry.second ); } );
   return types;
}

/// The record types.
inline Types
recordTypes() {
   return typesThat( []( auto & type ) { return type.isRecord; } );
}

/// Twins of all record types, made of their declarations as if they were unknown here.
inline const Zek::DynamicTypes &
twins() {
   static Zek::DynamicTypes & types = []() -> Zek::DynamicTypes & {
      static Zek::DynamicTypes made( Zek::DynamicTypes::Linked::ignored );
      for( auto & [name, type] : recordTypes() ) made.declare( declarationsOf( *type ) );
      return made;
   }();
   return types;
}

/// The value that has that text.
template< class Value >
Value
valueOf( std::string_view text ) {
   Value value;
   EXPECT_TRUE( Zek::valueOps< Value >.read( text, &value ) ) << text;
   return value;
}

/// A value of a type known by its operations only.
class AnyValue {
 public:
   /// The type's zero value.
   explicit AnyValue( const Zek::ValueOps & ops )
      : ops_( ops ),
        memory_( new std::byte[ops.size] ) {
      ops_.construct( at() );
   }
   AnyValue( const Zek::ValueOps & ops, const void * value )
      : ops_( ops ),
        memory_( new std::byte[ops.size] ) {
      ops_.copy( at(), value );
   }
   /// What a row computes or holds.
   AnyValue( const Zek::AttributeRow & row, const void * object )
      : ops_( *row.stored ),
        memory_( new std::byte[ops_.size] ) {
      if( row.isStored() ) {
         ops_.copy( at(), row.address( object ) );
      } else {
         row.read( object, at() );
      }
   }
   AnyValue( const AnyValue & other ) : AnyValue( other.ops_, other.at() ) {}
   AnyValue & operator=( const AnyValue & ) = delete;
   ~AnyValue() { ops_.destroy( at() ); }

   void * at() const { return memory_.get(); }
   /// Takes the place of the value that is there.
   void becomes( const AnyValue & other ) const {
      ops_.destroy( at() );
      ops_.copy( at(), other.at() );
   }
   bool operator==( const AnyValue & other ) const { return ops_.equal( at(), other.at() ); }
   std::string text() const {
      std::string out;
      ops_.append( at(), out );
      return out;
   }

 private:
   const Zek::ValueOps & ops_;
   std::unique_ptr< std::byte[] > memory_;
};

inline void fillSpecimen( const Zek::TypeDescriptor & type, void * value, unsigned n );

/// An object made through the type's factory, of specimens or (n 0) of zero values; where any
/// entity will do, a directory.
inline Zek::Ptr< Zek::PtrInterface >
made( const Zek::TypeDescriptor & type, unsigned n = 0 ) {
   if( &type == &Zek::Entity::zekTypeDescriptor_ ) return made( Zek::Dir::zekTypeDescriptor_, n );
   std::vector< AnyValue > values;
   values.reserve( type.constructorParameters.size() );
   std::vector< const void * > arguments;
   for( const Zek::ParameterRow & parameter : type.constructorParameters ) {
      // A null pointer of any type looks like any other.
      values.emplace_back( parameter.isPointer ? Zek::valueOps< Zek::Ptr< Zek::PtrInterface > >
                                               : *parameter.type->values );
      if( n ) fillSpecimen( *parameter.type, values.back().at(), n );
      arguments.push_back( values.back().at() );
   }
   return type.create( arguments.data() );
}

/// Gives a value of any type its `n`th specimen; those of different numbers differ where the type
/// has enough values.
inline void
fillSpecimen( const Zek::TypeDescriptor & type, void * value, unsigned n ) {
   if( type.isCounted() ) {
      *static_cast< Zek::Ptr< Zek::PtrInterface > * >( value ) = made( type, n );
      return;
   }
   if( type.kind == Zek::TypeKind::value ) {
      for( const Zek::AttributeRow & row : type.attributes ) {
         if( !row.isStored() || row.has( Zek::isSet ) ) continue;
         fillSpecimen( *row.type, const_cast< void * >( row.address( value ) ), n );
      }
      return;
   }
   const std::string number = std::to_string( n );
   const bool isEnumeration = type.kind == Zek::TypeKind::enumeration;
   for( const std::string & text :
        { isEnumeration ? type.enumerators[n % type.enumerators.size()].name : "10.0.0." + number,
          "10.0.0." + number + "/24", "10.0." + number + ".0/24", "2001:db8::" + number,
          "2001:db8::" + number + "/64", "2001:db8:" + number + "::/48", number, "65000:" + number,
          std::string( n % 2 ? "true" : "false" ) } ) {
      if( type.values->read( text, value ) ) return;
   }
   ADD_FAILURE() << "no text is known that reads as a " << type.fullName;
}

inline AnyValue
specimen( const Zek::TypeDescriptor & type, unsigned n ) {
   AnyValue value( type.isCounted() ? Zek::valueOps< Zek::Ptr< Zek::PtrInterface > >
                                    : *type.values );
   fillSpecimen( type, value.at(), n );
   return value;
}

/// A specimen that differs from `value`, which is of that type.
inline AnyValue
otherThan( const Zek::TypeDescriptor & type, const AnyValue & value ) {
   for( unsigned n = 1;; ++n ) {
      AnyValue other = specimen( type, n );
      if( !( other == value ) || n == 9 ) return other;
   }
}

/// The members of a collection in its order, as "key: value", owned and referred ones by key.
inline std::string
members( const Zek::AttributeRow & row, const void * object ) {
   const Zek::CollectionOps & ops = *row.collection;
   std::string out;
   for( auto member = ops.first( object ); member;
        member = ops.after( object, ops.memberKey( member ) ) ) {
      if( !out.empty() ) out += ", ";
      row.keyType->values->append( ops.memberKey( member ), out );
      if( !ops.hasMemberValue() ) continue;
      out += ": ";
      row.type->values->append( ops.memberValue( member ), out );
   }
   return "{" + out + "}";
}

/// Every attribute of the record's own type as a line "name value"; objects as null or their types.
inline std::string
shown( const Zek::PtrInterface & record ) {
   std::string out;
   for( const Zek::AttributeRow & row : record.fwkType()->attributes ) {
      out += row.name;
      if( row.collection ) {
         out += " " + members( row, &record );
      } else if( row.has( Zek::abortsOnRead ) ) {
         out += " aborts";
      } else if( row.kind == Zek::AttributeKind::callable ) {
         out += "()";
      } else {
         AnyValue value( row, &record );
         bool isObject = row.type->isCounted() && value.text() != "null";
         out += " " + ( isObject ? row.type->fullName : value.text() );
      }
      out += '\n';
   }
   return out;
}

/// What a record announced, in order, as it stood at that moment: "forwarding false",
/// "enable[Ethernet1] true", "enable[Ethernet1] gone". Watches as long as it lives.
class Story : public Zek::AttributeSink {
 public:
   explicit Story( const Zek::PtrInterface & record )
      : record_( &record ),
        relay_( Zek::relayOf( record, *this ) ) {}

   /// What was announced since the last time.
   std::string told() { return std::exchange( text_, std::string() ); }

   /// Runs after each line.
   std::function< void() > reaction = [] {};

   void onAttribute( const Zek::AttributeRow & row ) override {
      const bool isObject = row.type->isCounted();
      text_ +=
         std::string( row.name ) + ( isObject ? "" : " " + AnyValue( row, record_ ).text() ) + "\n";
      reaction();
   }
   void onMember( const Zek::AttributeRow & row, const void * key ) override {
      text_ += row.name;
      text_ += '[';
      row.keyType->values->append( key, text_ );
      text_ += ']';
      auto member = row.collection->find( record_, key );
      if( !member ) {
         text_ += " gone";
      } else if( row.collection->hasMemberValue() && row.collection->memberValue( member ) ) {
         text_ += ' ';
         row.type->values->append( row.collection->memberValue( member ), text_ );
      }
      text_ += '\n';
      reaction();
   }

 private:
   const Zek::PtrInterface * record_;
   std::string text_;
   Zek::Ptr< Zek::PtrInterface > relay_;
};

/// The text of the exception of type E that `action` throws; "nothing thrown" otherwise.
template< class E, class Action >
std::string
refusal( Action action ) {
   try {
      action();
   } catch( const E & error ) {
      return error.what();
   }
   return "nothing thrown";
}

} // namespace Records
