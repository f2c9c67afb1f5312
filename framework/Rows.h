// Building attribute rows from member pointers. Included by generated sources only.
//
// Each function fills one AttributeRow; the thunks it refers to are instantiated from the member
// pointers given, so a row costs a line of generated code and a few instructions of thunks.

#pragma once

#include "framework/Generic.h"
#include "framework/Type.h"
#include "framework/ValueOps.h"

#include <algorithm>
#include <tuple>
#include <type_traits>
#include <utility>

namespace Zek::Rows {

// -- Taking member pointers apart -------------------------------------------------------------

template< class M >
struct MemberPointer;

template< class V, class O >
struct MemberPointer< V O::* > {
   using Object = O;
   using Value = std::remove_const_t< V >;
};

template< class M >
struct Mutator;

template< class R, class O, class A >
struct Mutator< R ( O::* )( A ) > {
   using Object = O;
   using Value = std::remove_cvref_t< A >;
};

template< class M >
struct Accessor;

template< class R, class O >
struct Accessor< R ( O::* )() const > {
   using Object = O;
   using Value = std::remove_cvref_t< R >;
};

template< class R >
struct Accessor< R ( * )() > {
   using Value = std::remove_cvref_t< R >;
};

/// The counted type behind a pointer, or the type itself.
template< class V >
struct Target {
   using Type = V;
   static constexpr bool isPointer = false;
   static constexpr bool isConst = false;
};
template< class T >
struct Target< Ptr< T > > {
   using Type = std::remove_const_t< T >;
   static constexpr bool isPointer = true;
   static constexpr bool isConst = std::is_const_v< T >;
};

// -- Thunks -----------------------------------------------------------------------------------

template< auto Field >
const void *
addressOf( const void * object, const AttributeRow & ) {
   using Object = typename MemberPointer< decltype( Field ) >::Object;
   return &( static_cast< const Object * >( object )->*Field );
}

template< auto Write >
void
writeBy( void * object, const void * value, const AttributeRow & ) {
   using M = Mutator< decltype( Write ) >;
   ( static_cast< typename M::Object * >( object )->*Write )(
      *static_cast< const typename M::Value * >( value ) );
}

template< auto Read >
void
readBy( const void * object, void * result, const AttributeRow & ) {
   using A = Accessor< decltype( Read ) >;
   if constexpr( std::is_member_function_pointer_v< decltype( Read ) > ) {
      new( result )
         typename A::Value( ( static_cast< const typename A::Object * >( object )->*Read )() );
   } else {
      new( result ) typename A::Value( Read() );
   }
}

template< auto Factory >
struct Creating;

template< class R, class... Arguments, R ( *Factory )( Arguments... ) >
struct Creating< Factory > {
   template< size_t... I >
   static Ptr< PtrInterface > call( [[maybe_unused]] const void * const * arguments,
                                    std::index_sequence< I... > ) {
      return Factory( *static_cast< const std::remove_cvref_t< Arguments > * >( arguments[I] )... );
   }
   static constexpr std::index_sequence_for< Arguments... > indices{};
};

/// Makes an object through its factory, one address per constructor parameter.
template< auto Factory >
Ptr< PtrInterface >
createBy( const void * const * arguments, const TypeDescriptor & ) {
   return Creating< Factory >::call( arguments, Creating< Factory >::indices );
}

/// Makes a value of its constructor's arguments.
template< class V, class... Arguments >
void
assembleBy( void * at, const void * const * arguments, const TypeDescriptor & ) {
   [&]< size_t... I >( std::index_sequence< I... > ) {
      new( at ) V( *static_cast< const Arguments * >( arguments[I] )... );
   }
   ( std::index_sequence_for< Arguments... >() );
}

/// One step of a counter; by one when `by` is null.
template< auto Step >
void
stepBy( void * object, const void * by, void * result, const CounterOps & ) {
   using M = Mutator< decltype( Step ) >;
   using V = typename M::Value;
   *static_cast< V * >( result ) = ( static_cast< typename M::Object * >( object )->*Step )(
      by ? *static_cast< const V * >( by ) : V( 1 ) );
}

template< auto Step >
constexpr auto
stepThunk() -> void ( * )( void *, const void *, void *, const CounterOps & ) {
   if constexpr( Step == nullptr ) {
      return nullptr;
   } else {
      return &stepBy< Step >;
   }
}

/// A counter wraps, so that a step of either kind leads anywhere.
template< auto Field, auto Write, auto Increment, auto Decrement >
void
reachBy( void * object, const void * value, const CounterOps & ) {
   using Object = typename MemberPointer< decltype( Field ) >::Object;
   using V = typename MemberPointer< decltype( Field ) >::Value;
   auto & counter = *static_cast< Object * >( object );
   const V wanted = *static_cast< const V * >( value ), present = counter.*Field;
   if constexpr( Write != nullptr ) {
      ( counter.*Write )( wanted );
   } else if( wanted == present ) {
   } else if constexpr( Increment != nullptr ) {
      ( counter.*Increment )( static_cast< V >( wanted - present ) );
   } else {
      ( counter.*Decrement )( static_cast< V >( present - wanted ) );
   }
}

template< auto Field, auto Write, auto Increment, auto Decrement >
inline constexpr CounterOps counterOps = { stepThunk< Increment >(), stepThunk< Decrement >(),
                                           &reachBy< Field, Write, Increment, Decrement > };

// -- Callables --------------------------------------------------------------------------------

/// An operation's type taken apart. What returns a reference returns its own object: no result.
template< class R, class O, unsigned rowFlags, class... A >
struct CallableOf {
   using Object = O;
   using Value = R;
   using Arguments = std::index_sequence_for< A... >;
   template< size_t I >
   using Argument = std::remove_cvref_t< std::tuple_element_t< I, std::tuple< A... > > >;
   static constexpr bool hasResult = !std::is_void_v< R > && !std::is_reference_v< R >;
   static constexpr unsigned flags = rowFlags;
};

template< class F >
struct Callable;
template< class R, class O, class... A >
struct Callable< R ( O::* )( A... ) > : CallableOf< R, O, 0, A... > {};
template< class R, class O, class... A >
struct Callable< R ( O::* )( A... ) const > : CallableOf< R, const O, isConstCall, A... > {};
template< class R, class... A >
struct Callable< R ( * )( A... ) > : CallableOf< R, void, isStaticCall, A... > {};

/// Unwraps the arguments, which are of the types of the row's parameters, calls, and wraps the
/// result.
template< auto Function, size_t... I >
void
callWith( void * object, const GenericValue * arguments, GenericValue * result,
          std::index_sequence< I... > ) {
   using F = Callable< decltype( Function ) >;
   auto invoke = [&]() -> decltype( auto ) {
      if constexpr( std::is_member_function_pointer_v< decltype( Function ) > ) {
         return ( static_cast< typename F::Object * >( object )->*Function )(
            *static_cast< const typename F::template Argument< I > * >(
               arguments[I].address() )... );
      } else {
         return Function( *static_cast< const typename F::template Argument< I > * >(
            arguments[I].address() )... );
      }
   };
   if constexpr( F::hasResult ) {
      *result = GenericValue( invoke() );
   } else {
      invoke();
   }
}

template< auto Function >
void
callBy( void * object, const GenericValue * arguments, GenericValue * result,
        const AttributeRow & ) {
   callWith< Function >( object, arguments, result,
                         typename Callable< decltype( Function ) >::Arguments() );
}

// -- Sets inside values -----------------------------------------------------------------------

template< auto Field, class Key >
struct ValueSetThunks {
   using Object = typename MemberPointer< decltype( Field ) >::Object;
   static auto & at( const void * object ) {
      return static_cast< const Object * >( object )->*Field;
   }
   static auto & at( void * object ) { return static_cast< Object * >( object )->*Field; }
   static const Key & key( const void * k ) { return *static_cast< const Key * >( k ); }
   static size_t count( const void * object, const ValueSetOps & ) { return at( object ).size(); }
   static bool has( const void * object, const void * k, const ValueSetOps & ) {
      return at( object ).has( key( k ) );
   }
   static const void * first( const void * object, const ValueSetOps & ) {
      return at( object ).size() ? &*at( object ).begin() : nullptr;
   }
   static const void * after( const void * object, const void * k, const ValueSetOps & ) {
      auto next = std::upper_bound( at( object ).begin(), at( object ).end(), key( k ) );
      return next != at( object ).end() ? &*next : nullptr;
   }
   static void add( void * object, const void * k, const ValueSetOps & ) {
      at( object ).insert( key( k ) );
   }
   static void remove( void * object, const void * k, const ValueSetOps & ) {
      at( object ).remove( key( k ) );
   }
   static void removeAll( void * object, const ValueSetOps & ) { at( object ).clear(); }
};

template< auto Field, class Key >
inline constexpr ValueSetOps valueSetOps = {
   &ValueSetThunks< Field, Key >::count,     &ValueSetThunks< Field, Key >::has,
   &ValueSetThunks< Field, Key >::first,     &ValueSetThunks< Field, Key >::after,
   &ValueSetThunks< Field, Key >::add,       &ValueSetThunks< Field, Key >::remove,
   &ValueSetThunks< Field, Key >::removeAll,
};

// -- Rows -------------------------------------------------------------------------------------

template< class V >
constexpr AttributeRow
rowOf( const char * name, uint16_t id, AttributeKind kind, unsigned flags ) {
   using T = Target< V >;
   AttributeRow row{};
   row.name = name;
   row.id = id;
   row.kind = kind;
   row.flags = static_cast< uint16_t >( flags | ( T::isConst ? pointsToConst : 0 ) );
   row.type = &TypeOf< typename T::Type >::descriptor;
   row.stored = &valueOps< V >;
   return row;
}

/// What the object itself holds.
template< auto Field >
constexpr void
standsIn( AttributeRow & row ) {
   row.addressThunk = &addressOf< Field >;
   using V = typename MemberPointer< decltype( Field ) >::Value;
   if( !Target< V >::isPointer ) row.flags |= isStoredValue;
}

/// A constructor parameter, or a value's field.
template< auto Field >
constexpr AttributeRow
parameter( const char * name, uint16_t id, unsigned flags = 0 ) {
   using V = typename MemberPointer< decltype( Field ) >::Value;
   AttributeRow row = rowOf< V >( name, id, AttributeKind::constructorParameter, flags );
   standsIn< Field >( row );
   return row;
}

template< auto Field, auto Write >
constexpr AttributeRow
plain( const char * name, uint16_t id, unsigned flags = 0 ) {
   using V = typename MemberPointer< decltype( Field ) >::Value;
   AttributeRow row = rowOf< V >(
      name, id, Target< V >::isPointer ? AttributeKind::pointer : AttributeKind::plain, flags );
   standsIn< Field >( row );
   row.writeThunk = &writeBy< Write >;
   return row;
}

/// A counter: `Write`, `Increment` and `Decrement` are its operations, null where it has none.
template< auto Field, auto Write, auto Increment, auto Decrement >
constexpr AttributeRow
counter( const char * name, uint16_t id ) {
   AttributeRow row = parameter< Field >( name, id, isCounter );
   row.kind = AttributeKind::plain;
   if constexpr( Write != nullptr ) row.writeThunk = &writeBy< Write >;
   row.counter = &counterOps< Field, Write, Increment, Decrement >;
   return row;
}

template< auto Read >
constexpr AttributeRow
constant( const char * name, uint16_t id ) {
   using V = typename Accessor< decltype( Read ) >::Value;
   AttributeRow row = rowOf< V >( name, id, AttributeKind::constant, 0 );
   row.readThunk = &readBy< Read >;
   return row;
}

template< auto Read >
constexpr AttributeRow
derived( const char * name, uint16_t id, unsigned flags = 0 ) {
   using V = typename Accessor< decltype( Read ) >::Value;
   AttributeRow row = rowOf< V >( name, id, AttributeKind::derived, flags );
   row.readThunk = &readBy< Read >;
   return row;
}

/// The input of a machine's single reactor: read and written through the machine.
template< auto Read, auto Write >
constexpr AttributeRow
input( const char * name, uint16_t id ) {
   AttributeRow row = derived< Read >( name, id );
   row.kind = AttributeKind::pointer;
   row.writeThunk = &writeBy< Write >;
   return row;
}

/// A set inside a value.
template< auto Field, class Key >
constexpr AttributeRow
valueSet( const char * name, uint16_t id ) {
   using V = typename MemberPointer< decltype( Field ) >::Value;
   AttributeRow row{};
   row.name = name;
   row.id = id;
   row.kind = AttributeKind::collection;
   row.flags = isSet | isOrdered;
   row.type = &TypeOf< Key >::descriptor;
   row.keyType = &TypeOf< Key >::descriptor;
   row.stored = &valueOps< V >;
   row.addressThunk = &addressOf< Field >;
   row.valueSet = &valueSetOps< Field, Key >;
   return row;
}

/// A collection of an entity or counted object: `Member` is what it shows (a value type, or the
/// member's own type), `ops` its operations.
template< class Key, class Member >
constexpr AttributeRow
collection( const char * name, uint16_t id, unsigned flags, const CollectionOps * ops ) {
   AttributeRow row{};
   row.name = name;
   row.id = id;
   row.kind = AttributeKind::collection;
   row.flags = static_cast< uint16_t >( flags );
   row.type = &TypeOf< Member >::descriptor;
   row.keyType = &TypeOf< Key >::descriptor;
   row.collection = ops;
   return row;
}

/// An operation reachable by name.
template< auto Function >
constexpr AttributeRow
callable( const char * name, uint16_t id, std::span< const ParameterRow > parameters ) {
   using F = Callable< decltype( Function ) >;
   AttributeRow row{};
   if constexpr( F::hasResult ) {
      row = rowOf< typename F::Value >( name, id, AttributeKind::callable, 0 );
   }
   row.name = name;
   row.id = id;
   row.kind = AttributeKind::callable;
   row.flags = static_cast< uint16_t >( row.flags | F::flags );
   row.callThunk = &callBy< Function >;
   row.parameters = parameters;
   return row;
}

/// One argument of a callable or constructor.
template< class V >
constexpr ParameterRow
argument( const char * name ) {
   using T = Target< V >;
   return { name, &TypeOf< typename T::Type >::descriptor, T::isPointer, T::isConst };
}

// -- Collections ------------------------------------------------------------------------------

/// The reading half, over the container's own type.
template< auto Field, class Key >
struct Reading {
   using Object = typename MemberPointer< decltype( Field ) >::Object;
   using Map = typename MemberPointer< decltype( Field ) >::Value;
   static const Map & map( const void * object ) {
      return static_cast< const Object * >( object )->*Field;
   }
   static const Key & key( const void * k ) { return *static_cast< const Key * >( k ); }
   static size_t count( const void * object, const CollectionOps & ) {
      return map( object ).count();
   }
   static const PtrInterface * first( const void * object, const CollectionOps & ) {
      return map( object ).firstMember();
   }
   static const PtrInterface * after( const void * object, const void * k, const CollectionOps & ) {
      return map( object ).memberAfter( key( k ) );
   }
   static const PtrInterface * find( const void * object, const void * k, const CollectionOps & ) {
      return map( object ).find( key( k ) );
   }
   static void reserve( void * object, size_t members, const CollectionOps & ) {
      ( static_cast< Object * >( object )->*Field ).reserve( members );
   }
};

/// What all forms share: reading, and the mutators that take a key alone. The types of the
/// mutators given pick the overload.
template< auto Field, class Key, class Removed,
          Removed ( MemberPointer< decltype( Field ) >::Object::*Del )( const Key & ),
          void ( MemberPointer< decltype( Field ) >::Object::*DelAll )(),
          void ( MemberPointer< decltype( Field ) >::Object::*Notify )( const Key & ) >
struct Shared : Reading< Field, Key > {
   using Object = typename Reading< Field, Key >::Object;
   static Object & at( void * object ) { return *static_cast< Object * >( object ); }
   static const Key & keyAt( const void * key ) { return *static_cast< const Key * >( key ); }
   static void del( void * object, const void * key, const CollectionOps & ) {
      ( at( object ).*Del )( keyAt( key ) );
   }
   static void delAll( void * object, const CollectionOps & ) { ( at( object ).*DelAll )(); }
   static void notify( void * object, const void * key, const CollectionOps & ) {
      ( at( object ).*Notify )( keyAt( key ) );
   }
};

/// Key and value of a member.
template< class Member >
const void *
memberKey( const PtrInterface * member, const CollectionOps & ) {
   return &static_cast< const Member * >( member )->fwkKey();
}

template< class Node >
const void *
memberValue( const PtrInterface * member, const CollectionOps & ) {
   return &static_cast< const Node * >( member )->value();
}

/// Of a value that is keyed by one of its fields.
template< class Node >
const void *
valueKey( const void * value, const CollectionOps & ) {
   return &typename Node::KeyFunktorType()(
      *static_cast< const typename Node::ValueType * >( value ) );
}

/// How each form adds: `Mutate` is the generated xIs.
template< auto Mutate >
struct Adding;

/// xIs( key, value ) and xIs( key, further constructor arguments ... )
template< class R, class O, class Key, class... Arguments,
          R ( O::*Mutate )( const Key &, Arguments... ) >
struct Adding< Mutate > {
   static void is( void * object, const void * key, const void * const * arguments,
                   const CollectionOps & ) {
      call( object, key, arguments, std::index_sequence_for< Arguments... >() );
   }
   template< size_t... I >
   static void call( void * object, const void * key,
                     [[maybe_unused]] const void * const * arguments,
                     std::index_sequence< I... > ) {
      ( static_cast< O * >( object )->*Mutate )(
         *static_cast< const Key * >( key ),
         *static_cast< const std::remove_cvref_t< Arguments > * >( arguments[I] )... );
   }
};

template< class Common, class Add, class Member, bool hasValue >
constexpr CollectionOps
fillCollectionOps() {
   CollectionOps ops{};
   ops.countThunk = &Common::count;
   ops.firstThunk = &Common::first;
   ops.afterThunk = &Common::after;
   ops.findThunk = &Common::find;
   ops.memberKeyThunk = &memberKey< Member >;
   if constexpr( hasValue ) ops.memberValueThunk = &memberValue< Member >;
   if constexpr( requires { typename Member::KeyFunktorType; } )
      ops.valueKeyThunk = &valueKey< Member >;
   ops.isThunk = &Add::is;
   ops.delThunk = &Common::del;
   ops.delAllThunk = &Common::delAll;
   ops.notifyThunk = &Common::notify;
   if constexpr( requires( typename Common::Map & map ) { map.reserve( size_t() ); } ) {
      ops.reserveThunk = &Common::reserve;
   }
   return ops;
}

/// The ten operations of one collection. `Member` is the node or the member entity.
template< class Common, class Add, class Member, bool hasValue >
inline constexpr CollectionOps collectionOps = fillCollectionOps< Common, Add, Member, hasValue >();

} // namespace Zek::Rows
