// Records by name: every attribute of every type through one interpreter over its rows.
//
//    const Zek::TypeDescriptor * type = Zek::typeNode( "Ip::IpIntfConfig" );
//    Zek::GenericValue config = type->genericIf->genericIfFromCtorArgs( { intfId } );
//    type->genericIf->genericIfAttributeOp( config, Zek::GenericOperation::write, "mtu", { mtu } );
//
// A type's companion (GenericIf) is a constant that knows nothing but the type's descriptor. What
// it does goes through the typed mutators, with their checks, exceptions and notifications. A
// request that an attribute does not support is a RejectedException, and the object is as it was.
//
// Constness is that of the pointer through which an object was reached; as with typed pointers, it
// does not extend to the members of the object's collections.

#pragma once

#include "framework/Exception.h"
#include "framework/Export.h"
#include "framework/GenericValue.h"
#include "framework/Notifiee.h"
#include "framework/Ptr.h"
#include "framework/Type.h"

#include <functional>
#include <initializer_list>
#include <span>
#include <string_view>

namespace Zek {

class Entity;

/// What a companion does with an attribute, and the arguments of each.
enum class GenericOperation : uint8_t {
   read,      // any attribute but collections and callables
   write,     // value: plain attributes and pointers
   lookUp,    // [key]: value, member or membership as the typed accessor answers
   has,       // [key]: whether there is such a member
   wrap,      // [key]: value or member, nothing where there is none
   count,     // members as U64
   add,       // see genericIfAttributeOp()
   remove,    // key: removed value or member, nothing where there was none
   removeAll, //
   notify,    // key: announces it
   increment, // [by]: a counter's new value
   decrement, // [by]
   call,      // the callable's arguments: its result
};

/// An object under reflection: its place, its own type, and whether it may be changed. Two words,
/// passed by value.
class IPSTATE_EXPORT GenericTarget {
 public:
   GenericTarget( PtrInterface & object ) : GenericTarget( &object, object.fwkType(), false ) {}
   GenericTarget( const PtrInterface & object )
      : GenericTarget( &object, object.fwkType(), true ) {}
   template< class T >
   GenericTarget( const Ptr< T > & object ) : GenericTarget( *object ) {}
   /// The object that a pointer points to; a value itself, read-only when it is const.
   /// RejectedException for nothing and null.
   GenericTarget( GenericValue & value );
   GenericTarget( const GenericValue & value );
   /// No object: for constants and static callables of that type.
   explicit GenericTarget( const TypeDescriptor & type ) : GenericTarget( nullptr, &type, true ) {}

   const void * address() const { return address_; }
   const TypeDescriptor * type() const {
      return reinterpret_cast< const TypeDescriptor * >( typeAndConst_ & ~constBit );
   }
   bool isConst() const { return typeAndConst_ & constBit; }

 private:
   static constexpr uintptr_t constBit = 1; // descriptors are aligned
   GenericTarget( const void * address, const TypeDescriptor * type, bool isConst )
      : address_( address ),
        typeAndConst_( reinterpret_cast< uintptr_t >( type ) | uintptr_t( isConst ) ) {}

   const void * address_;
   uintptr_t typeAndConst_;
};

/// Stands on one member of a collection. Keeps a record (not a value) and the member alive and
/// tolerates every change of the collection, like the typed iterators.
class IPSTATE_EXPORT GenericIfIterator {
 public:
   explicit operator bool() const { return !key_.isNothing(); }
   GenericIfIterator & operator++();
   // REQUIRES of the rest: not at the end.
   const GenericValue & key() const { return key_; }
   /// Its value, the member itself, or in a set the key.
   GenericValue value() const;

 private:
   friend class GenericIf;
   GenericIfIterator( GenericTarget object, const AttributeRow & row );
   void standOn( const PtrInterface * member );
   void standOnKey( const void * key );

   const void * object_;
   const AttributeRow * row_;
   Ptr< const PtrInterface > record_;
   Ptr< const PtrInterface > member_;
   GenericValue key_;
};

/// Watches a record of any type: every callback of its typed notifiees becomes one call that names
/// the attribute. Watches until it is destroyed.
class IPSTATE_EXPORT GenericIfNotifiee_ final : public PtrInterface, private AttributeSink {
 public:
   /// `key` is that of the member that changed, nothing for plain attributes.
   using Callback = std::function< void( const AttributeRow & row, const GenericValue & key ) >;

   GenericIfNotifiee_( const TypeDescriptor & type, const PtrInterface & object,
                       Callback callback );

   /// The record watched.
   Ptr< const PtrInterface > notifier() const { return relay_->notifier(); }
   /// The typed notifiee that it stands on, with its switches.
   PtrInterface::NotifieeConst & notifiee() const { return *relay_; }

   AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override;
   static AllocTrackTypeInfo allocTrackTypeInfo_;

 protected:
   ~GenericIfNotifiee_() override;

 private:
   void onAttribute( const AttributeRow & row ) override;
   void onMember( const AttributeRow & row, const void * key ) override;

   Callback callback_;
   Ptr< PtrInterface::NotifieeConst > relay_;
};

/// A type's generic companion.
class IPSTATE_EXPORT GenericIf {
 public:
   using Arguments = std::span< const GenericValue >;
   using ArgumentList = std::initializer_list< GenericValue >;

   explicit constexpr GenericIf( const TypeDescriptor & type ) : type_( type ) {}
   GenericIf( const GenericIf & ) = delete;
   GenericIf & operator=( const GenericIf & ) = delete;

   const TypeDescriptor & type() const { return type_; }
   /// The attribute of that name or number; RejectedException when there is none.
   const AttributeRow & attribute( std::string_view name ) const;
   const AttributeRow & attribute( uint16_t id ) const;

   /// Does `operation` on the attribute of `object`, an object of this type. Throws
   /// RejectedException for what the attribute does not support, for arguments of the wrong number
   /// or type and for changes through a const pointer; and whatever the typed operation throws.
   ///
   /// A key left out is the key type's zero value; a set inside a value says on standard error
   /// that it has no default key, and goes on with it.
   ///
   /// What `add` takes and gives:
   ///    values by key      key, value
   ///    keyed by a field   value
   ///    sets               key
   ///    owned members      key, further constructor arguments; gives the member
   ///    members elsewhere  member
   ///    children (entity)  child; or name and full name of its type; gives the child
   GenericValue genericIfAttributeOp( GenericTarget object, GenericOperation operation, uint16_t id,
                                      Arguments arguments = {} ) const {
      switch( operation ) {
      case GenericOperation::read:
         return read( object, id, arguments );
      case GenericOperation::write:
         write( object, id, arguments );
         return {};
      default:
         return other( object, operation, id, arguments );
      }
   }
   GenericValue genericIfAttributeOp( GenericTarget object, GenericOperation operation, uint16_t id,
                                      ArgumentList arguments ) const {
      return genericIfAttributeOp( object, operation, id, toSpan( arguments ) );
   }
   GenericValue genericIfAttributeOp( GenericTarget object, GenericOperation operation,
                                      std::string_view name, Arguments arguments = {} ) const {
      return genericIfAttributeOp( object, operation, attribute( name ).id, arguments );
   }
   GenericValue genericIfAttributeOp( GenericTarget object, GenericOperation operation,
                                      std::string_view name, ArgumentList arguments ) const {
      return genericIfAttributeOp( object, operation, name, toSpan( arguments ) );
   }

   /// Makes an object through its factory, a value through its constructor, an enumerator from its
   /// name (Zek::String) or number (S64). RejectedException for arguments of the wrong number or
   /// type and for types that are not made; and whatever the constructor throws.
   GenericValue genericIfFromCtorArgs( Arguments arguments ) const;
   GenericValue genericIfFromCtorArgs( ArgumentList arguments ) const {
      return genericIfFromCtorArgs( toSpan( arguments ) );
   }

   /// On the first member of a collection; the collection of a value must outlive it.
   GenericIfIterator genericIfIterator( GenericTarget object, uint16_t id ) const;
   /// On the member under `key` (nothing: the default key, as above), or at the end without one.
   GenericIfIterator genericIfIteratorKey( GenericTarget object, uint16_t id,
                                           const GenericValue & key = GenericValue() ) const;

   /// Calls `callback` for every change of `object` as long as the result is held.
   /// RejectedException for objects that announce nothing.
   Ptr< GenericIfNotifiee_ > genericIfNotifiee( const PtrInterface & object,
                                                GenericIfNotifiee_::Callback callback ) const;

   /// A fresh entity of this type as a stream announces it, in no collection yet. RejectedException
   /// for types that are not logged.
   Ptr< Entity > newEntityForAttrLog( Arguments arguments ) const;
   /// The same of arguments that are known to fit, by address: one per constructor parameter.
   Ptr< Entity > newEntityForAttrLogUnchecked( const void * const * arguments ) const;
   /// The same in collection `id` of `parent`, which makes it, or has it already; announced like
   /// any member. In the `entity` directory it takes the place of what has its name.
   Ptr< Entity > newEntityForAttrLog( Entity & parent, uint16_t id, Arguments arguments ) const;

   /// What the rules of `parameters` are about arguments: throws naming `what` otherwise.
   static void checkArguments( std::string_view what, std::span< const ParameterRow > parameters,
                               Arguments arguments );

 private:
   static Arguments toSpan( const ArgumentList & list ) { return { list.begin(), list.size() }; }

   GenericValue read( GenericTarget object, uint16_t id, Arguments arguments ) const {
      // What stands in the object as a value: worth a call less.
      const AttributeRow * row = ownRow( id );
      if( row && row->has( isStoredValue ) && object.type() == &type_ && object.address() &&
          arguments.empty() ) [[likely]] {
         return GenericValue( *row->type, *row->stored, row->address( object.address() ) );
      }
      return readSlowly( object, id, arguments );
   }
   GenericValue readSlowly( GenericTarget object, uint16_t id, Arguments arguments ) const;
   void write( GenericTarget object, uint16_t id, Arguments arguments ) const;
   GenericValue other( GenericTarget object, GenericOperation operation, uint16_t id,
                       Arguments arguments ) const;
   GenericValue step( GenericTarget object, GenericOperation operation, const AttributeRow & row,
                      Arguments arguments ) const;
   GenericValue call( GenericTarget object, const AttributeRow & row, Arguments arguments ) const;
   GenericValue collectionOp( GenericTarget object, GenericOperation operation,
                              const AttributeRow & row, Arguments arguments ) const;
   GenericValue add( void * object, const AttributeRow & row, Arguments arguments ) const;
   GenericValue addOwned( void * object, const AttributeRow & row, Arguments arguments ) const;
   GenericValue addChild( Entity & parent, const AttributeRow & row, Arguments arguments ) const;

   /// The row of an attribute that the type does not have from its base. Numbers of one table are
   /// contiguous.
   const AttributeRow * ownRow( uint16_t id ) const {
      const AttributeRow * first = type_.attributes.data();
      if( !first ) return nullptr;
      const size_t index = static_cast< size_t >( id ) - first->id;
      return index < type_.attributes.size() ? first + index : nullptr;
   }
   const AttributeRow & rowOf( GenericTarget object, GenericOperation operation,
                               uint16_t id ) const;
   void checkObject( GenericTarget object ) const {
      if( object.type() == &type_ ) [[likely]] {
         return;
      }
      if( !object.type() || !object.type()->isA( type_ ) ) throwOtherObject( object );
   }
   [[noreturn]] void throwOtherObject( GenericTarget object ) const;
   void * changeable( GenericTarget object, GenericOperation operation,
                      const AttributeRow & row ) const;
   const void * keyOf( GenericOperation operation, const AttributeRow & row, Arguments arguments,
                       GenericValue & none ) const;
   void checkKey( GenericOperation operation, const AttributeRow & row,
                  const GenericValue & key ) const;
   void checkCount( GenericOperation operation, const AttributeRow & row, Arguments arguments,
                    size_t least, size_t most ) const;
   [[noreturn]] void reject( GenericOperation operation, const AttributeRow & row,
                             std::string_view reason ) const;
   [[noreturn]] void rejectFor( GenericOperation operation, const AttributeRow & row ) const;

   const TypeDescriptor & type_;
};

} // namespace Zek
