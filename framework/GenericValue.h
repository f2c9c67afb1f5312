// One value of any type: what code that knows types by their descriptors passes about.
//
//    Zek::GenericValue mtu( uint16_t( 1500 ) );
//    mtu.is< uint16_t >();                                       // true
//    Zek::GenericValue::fromText( *mtu.type(), "70000" );        // RangeException
//
// A value and a counted pointer keep what they hold alive. Nothing is converted: a U16 is no U32.

#pragma once

#include "framework/Export.h"
#include "framework/Ptr.h"
#include "framework/Type.h"
#include "framework/ValueOps.h"

#include <cstddef>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace Zek {

class GenericIf;

/// One value of any type, a counted pointer to an object of any type, or nothing.
class IPSTATE_EXPORT GenericValue {
 private:
   enum class Holding : uint8_t { nothing, trivial, inPlace, heap, object, constObject };
   static constexpr size_t roomInPlace = 24;

 public:
   /// Nothing: the result of operations without one.
   GenericValue() = default;
   /// A value, or the object that a Zek::Ptr points to. Null pointers keep their declared type.
   template< class T >
   requires( !std::is_pointer_v< T > && !std::is_array_v< T > && !isPtr< T > )
      GenericValue( const T & value )
      : type_( &TypeOf< T >::descriptor ) {
      if constexpr( valueOps< T >.isTrivial && sizeof( T ) <= roomInPlace ) {
         new( storage_ ) T( value );
         holding_ = Holding::trivial;
      } else {
         copyValue( valueOps< T >, &value );
      }
   }
   template< class T >
   GenericValue( const Ptr< T > & object ) : GenericValue( object.ptr(), declaredType< T >() ) {}
   /// A copy of the value at `value`, which is of that type.
   GenericValue( const TypeDescriptor & type, const void * value ) : type_( &type ) {
      copyValue( *type.values, value );
   }
   /// A counted pointer; `declared` is the type of a null one and may itself be null.
   GenericValue( PtrInterface * object, const TypeDescriptor * declared );
   GenericValue( const PtrInterface * object, const TypeDescriptor * declared );
   GenericValue( const GenericValue & other );
   GenericValue( GenericValue && other ) noexcept;
   GenericValue & operator=( const GenericValue & other );
   GenericValue & operator=( GenericValue && other ) noexcept;
   ~GenericValue() {
      if( holding_ <= Holding::trivial ) return;
      if( holding_ == Holding::inPlace ) {
         type_->values->destroy( storage_ );
      } else {
         destroy();
      }
   }

   /// The type's zero value.
   static GenericValue zero( const TypeDescriptor & type );
   /// Reads the type's text form, the whole of it; RangeException naming text and type otherwise.
   static GenericValue fromText( const TypeDescriptor & type, std::string_view text );

   bool isNothing() const { return holding_ == Holding::nothing; }
   bool isPointer() const { return holding_ >= Holding::object; }
   /// A pointer through which the object may not be changed.
   bool isConst() const { return holding_ == Holding::constObject; }
   /// The value's type; of a pointer its object's own type, of null the declared one. Null for
   /// nothing.
   const TypeDescriptor * type() const { return type_; }
   /// What a pointer points to; null for null pointers and all else.
   const PtrInterface * object() const { return isPointer() ? pointer() : nullptr; }
   /// The value, or the counted pointer itself. Null for nothing.
   const void * address() const {
      return holding_ == Holding::heap ? heap() : isNothing() ? nullptr : storage_;
   }
   void * address() { return const_cast< void * >( std::as_const( *this ).address() ); }

   /// Whether as< T >() gives an answer.
   template< class T >
   bool is() const {
      if constexpr( isPtr< T > ) {
         using Object = typename T::element_type;
         return isPointerTo( declaredType< Object >(), std::is_const_v< Object > );
      } else {
         return type_ == &TypeOf< T >::descriptor && !isPointer();
      }
   }
   /// The value as a T, or the pointer as that Zek::Ptr; RejectedException when it is another.
   template< class T >
   decltype( auto ) as() const {
      if constexpr( isPtr< T > ) {
         using Object = typename T::element_type;
         if( !is< T >() ) throwMismatch( declaredType< Object >(), true );
         return T( static_cast< Object * >( const_cast< PtrInterface * >( pointer() ) ) );
      } else {
         if( !is< T >() ) throwMismatch( &TypeOf< T >::descriptor, false );
         return *static_cast< const T * >( address() );
      }
   }
   /// Whether it can be passed where a pointer to `type` (null: any) is asked for.
   bool isPointerTo( const TypeDescriptor * type, bool constWillDo ) const;
   /// Whether it can be passed for a value of, or a pointer to, `type`.
   bool fits( const TypeDescriptor * type, bool asPointer, bool constWillDo ) const;

   /// The same value, or the same object.
   bool operator==( const GenericValue & other ) const;
   /// Its text form as in a value's field; pointers in hex, nothing as the empty text.
   std::string text() const;
   /// For messages: "a value of type U16", "a const pointer to Ip::IpIntfConfig", "nothing".
   std::string shape() const;
   static std::string shapeOf( const TypeDescriptor * type, bool asPointer );

 private:
   friend class GenericIf;

   template< class T >
   static const TypeDescriptor * declaredType() {
      if constexpr( std::is_same_v< std::remove_const_t< T >, PtrInterface > ) {
         return nullptr;
      } else {
         return &TypeOf< std::remove_const_t< T > >::descriptor;
      }
   }
   GenericValue( const TypeDescriptor & type, const ValueOps & ops, const void * value )
      : type_( &type ) {
      copyValue( ops, value );
   }
   [[noreturn]] void throwMismatch( const TypeDescriptor * wanted, bool asPointer ) const;

   void copyValue( const ValueOps & ops, const void * value ) {
      if( ops.isTrivial && ops.size <= roomInPlace ) [[likely]] {
         copyBytes( ops.size, value );
         holding_ = Holding::trivial;
      } else if( fitsInPlace( ops ) ) [[likely]] {
         ops.copy( storage_, value );
         holding_ = Holding::inPlace;
      } else {
         ops.copy( room( ops ), value );
      }
   }
   // The sizes that occur most, each by one move.
   void copyBytes( size_t size, const void * from ) {
      switch( size ) {
      case 8:
         std::memcpy( storage_, from, 8 );
         break;
      case 4:
         std::memcpy( storage_, from, 4 );
         break;
      case 2:
         std::memcpy( storage_, from, 2 );
         break;
      case 1:
         std::memcpy( storage_, from, 1 );
         break;
      default:
         std::memcpy( storage_, from, size );
      }
   }
   static bool fitsInPlace( const ValueOps & ops ) {
      return ops.size <= roomInPlace && ops.alignment <= alignof( void * );
   }
   // Where a value is about to be made.
   void * room( const ValueOps & ops );
   void abandonRoom();
   void destroy();
   void *& heap() { return *reinterpret_cast< void ** >( storage_ ); }
   void * heap() const { return *reinterpret_cast< void * const * >( storage_ ); }
   const PtrInterface * pointer() const {
      return *reinterpret_cast< const PtrInterface * const * >( storage_ );
   }

   const TypeDescriptor * type_ = nullptr;
   Holding holding_ = Holding::nothing;
   alignas( 8 ) std::byte storage_[roomInPlace];
};

} // namespace Zek
