// What the parts of types made at run time share. Not for others.
//
// A DynamicType is a descriptor and all that its thunks need: they are told by their last argument
// which row, which operations or which collection they serve, and these are members of structures
// here. Objects are laid out like those of C++: attributes at places, one behind the other.

#pragma once

#include "framework/AnyKey.h"
#include "framework/Declaration.h"
#include "framework/Entity.h"
#include "framework/Generic.h"
#include "framework/HashTable.h"
#include "framework/RbTree.h"
#include "framework/Relay.h"
#include "framework/Type.h"

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Zek {

struct DynamicType;

/// Of a value, an enumeration, or a value written by hand elsewhere.
struct DynamicValueOps : ValueOps {
   const DynamicType * type;
};

/// Of the set that a value has, whose keys have these operations.
struct DynamicSetOps : ValueOps {
   const ValueOps * key;
};

struct DynamicSet : ValueSetOps {
   const ValueOps * key;
   uint32_t place;
};

struct DynamicCounter : CounterOps {
   const AttributeRow * row;
};

/// A collection of a dynamic entity.
struct DynamicCollection : CollectionOps {
   enum class Form : uint8_t { values, fields, set, owned, referred };
   struct Hashing : HashTableOps {
      const DynamicCollection * of;
   };

   DynamicCollection( const TypeDescriptor & owner, const AttributeRow & row, Form form,
                      const AttributeRow * keyRow );
   const void * keyOf( const PtrInterface * member ) const;

   const AttributeRow & row;
   const Form form;
   const bool isOrdered;
   const ValueOps & keyOps;
   const ValueOps * const valueOps; // values and fields
   /// fields: the value's; owned and referred: the member's, null where its name is the key.
   const AttributeRow * const keyRow;
   size_t keyParameter = 0; // owned: the key's place among the constructor's parameters
   Hashing hashing;
   // Members that it makes for itself: where key and value stand in them, 0 for nowhere.
   const uint32_t keyAt, valueAt, nodeBytes;
   const std::string nodeName;
   AllocTrackTypeInfo nodes;
};

/// What a row of a dynamic type has beside it.
struct DynamicPart {
   const TypeDescriptor * owner = nullptr;
   GenericValue initial; // its default, or a constant's value; nothing: zero
   GenericValue max;     // its bound, or nothing
   std::string refusal;
   std::unique_ptr< DynamicSetOps > setOps;
   std::unique_ptr< DynamicSet > set;
   std::unique_ptr< DynamicCounter > counter;
   std::unique_ptr< DynamicCollection > collection;
   std::vector< ParameterRow > parameters;
};

struct DynamicType : TypeDescriptor {
   explicit DynamicType( const Declaration & declaration );

   const Declaration declared;
   const DynamicType * dynamicBase = nullptr; // the base, where that is dynamic too
   std::vector< AttributeRow > rows;
   std::vector< DynamicPart > parts; // of each row
   std::vector< EnumeratorRow > enumeratorRows;
   std::vector< ParameterRow > parameterRows;
   GenericIf companion;
   std::optional< AllocTrackTypeInfo > objects;
   uint32_t bytes = 0;  // of an object
   uint32_t leaves = 0; // numbers, texts and the like in a value, however deep
   /// Values.
   DynamicValueOps ops{};
   std::vector< const AttributeRow * > fields;
   const AttributeRow * compared = nullptr; // the one that alone counts in comparisons
   /// Entities: of each constructor parameter the row that holds it, null for the name.
   std::vector< const AttributeRow * > parameterAttributes;
   const AttributeRow * nameRow = nullptr; // the key whose text is the name
   struct Fixed {
      const AttributeRow * row;
      GenericValue value;
   };
   std::vector< Fixed > fixed;
};

/// An entity of a type that was declared at run time. Its attributes stand behind it.
class DynamicEntity final : public Entity {
 public:
   using Change = std::pair< const AttributeRow *, const void * >; // row, a member's key

   class NotifieeConst : public Entity::NotifieeConst {
    public:
      virtual void onChange( const Change & change ) = 0;
      void notifierIs( Zek::Ptr< const PtrInterface > notifier ) override;

    protected:
      ~NotifieeConst() override;
   };

   /// One address per constructor parameter.
   DynamicEntity( const DynamicType & type, const void * const * arguments );

   Name name() const override;
   const Name & key() const { return name_; }
   const DynamicType & type() const { return type_; }
   void changed( const AttributeRow & row, const void * key ) const {
      announce( &NotifieeConst::onChange, Change( &row, key ) );
   }
   const TypeDescriptor * fwkType() const override;
   AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override;

   static const TypeDescriptor &
      zekTypeDescriptor_; // for relays: rows below it are none of its own

 protected:
   ~DynamicEntity() override;

 private:
   using Entity::announce;
   void construct( const DynamicType & type, size_t & made );
   void destroy( size_t made );

   const DynamicType & type_;
   const Name name_; // empty for those keyed otherwise
};

/// Storage of a row's attribute in its object.
inline void *
placeOf( void * object, const AttributeRow & row ) {
   return static_cast< char * >( object ) + row.place;
}
inline const void *
placeOf( const void * object, const AttributeRow & row ) {
   return static_cast< const char * >( object ) + row.place;
}
/// The thunk of rows that are stored in place.
const void * dynamicAddress( const void * object, const AttributeRow & row );

/// Assigns by the operations alone.
inline void
assign( const ValueOps & ops, void * to, const void * from ) {
   if( to == from ) return;
   ops.destroy( to );
   ops.copy( to, from );
}

// -- Filling in thunks, each in the file of its part --------------------------------------------

void fillValueOps( DynamicType & type );       // DynamicValues.cpp
void fillEnumerationOps( DynamicType & type ); //
void fillOpaqueOps( DynamicType & type );      // leaves no operations where it cannot be held
void fillSet( DynamicType & type, AttributeRow & row, DynamicPart & part );
void fillPlain( AttributeRow & row ); // DynamicEntity.cpp: address, mutator
void fillCounter( AttributeRow & row, DynamicPart & part, bool increments, bool decrements );
void fillEntity( DynamicType & type );
bool isDynamicEntity( const TypeDescriptor & type );
void fillCollection( const TypeDescriptor & owner, AttributeRow & row, DynamicPart & part,
                     DynamicCollection::Form form,
                     const AttributeRow * keyRow ); // DynamicCollection.cpp

} // namespace Zek
