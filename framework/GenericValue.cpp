#include "framework/GenericValue.h"

#include "framework/Exception.h"

namespace Zek {

GenericValue::GenericValue( PtrInterface * object, const TypeDescriptor * declared )
   : GenericValue( static_cast< const PtrInterface * >( object ), declared ) {
   holding_ = Holding::object;
}

GenericValue::GenericValue( const PtrInterface * object, const TypeDescriptor * declared )
   : type_( declared ),
     holding_( Holding::constObject ) {
   new( storage_ ) Ptr< const PtrInterface >( object );
   const TypeDescriptor * own = object ? object->fwkType() : nullptr;
   if( own ) type_ = own;
}

GenericValue::GenericValue( const GenericValue & other )
   : type_( other.type_ ),
     holding_( other.holding_ ) {
   switch( holding_ ) {
   case Holding::nothing:
      break;
   case Holding::trivial:
      std::memcpy( storage_, other.storage_, sizeof( storage_ ) );
      break;
   case Holding::inPlace:
   case Holding::heap:
      holding_ = Holding::nothing;
      type_->values->copy( room( *type_->values ), other.address() );
      break;
   case Holding::object:
   case Holding::constObject:
      new( storage_ ) Ptr< const PtrInterface >( other.pointer() );
      break;
   }
}

GenericValue::GenericValue( GenericValue && other ) noexcept
   : type_( other.type_ ),
     holding_( other.holding_ ) {
   // Values of types written by C++ may hold pointers into themselves: those move by copy.
   if( holding_ == Holding::inPlace ) {
      type_->values->copy( storage_, other.storage_ );
      return;
   }
   std::memcpy( storage_, other.storage_, sizeof( storage_ ) );
   other.holding_ = Holding::nothing;
   other.type_ = nullptr;
}

GenericValue &
GenericValue::operator=( const GenericValue & other ) {
   if( this != &other ) *this = GenericValue( other );
   return *this;
}

GenericValue &
GenericValue::operator=( GenericValue && other ) noexcept {
   if( this != &other ) {
      this->~GenericValue();
      new( this ) GenericValue( std::move( other ) );
   }
   return *this;
}

void *
GenericValue::room( const ValueOps & ops ) {
   if( fitsInPlace( ops ) ) {
      holding_ = Holding::inPlace;
      return storage_;
   }
   heap() = ::operator new( ops.size, std::align_val_t( ops.alignment ) );
   holding_ = Holding::heap;
   return heap();
}

void
GenericValue::abandonRoom() {
   if( holding_ == Holding::heap ) {
      ::operator delete( heap(), std::align_val_t( type_->values->alignment ) );
   }
   holding_ = Holding::nothing;
}

void
GenericValue::destroy() {
   if( isPointer() ) {
      reinterpret_cast< Ptr< const PtrInterface > * >( storage_ )->~Ptr();
      return;
   }
   type_->values->destroy( address() );
   abandonRoom();
}

GenericValue
GenericValue::zero( const TypeDescriptor & type ) {
   GenericValue value;
   value.type_ = &type;
   type.values->construct( value.room( *type.values ) );
   return value;
}

GenericValue
GenericValue::fromText( const TypeDescriptor & type, std::string_view text ) {
   if( !type.values ) {
      throwRangeException( std::string( "objects of type " ) + type.fullName +
                           " have no text that reads back" );
   }
   GenericValue value = zero( type );
   if( !type.values->read( text, value.address() ) ) {
      throwRangeException( "'" + std::string( text ) + "' does not read as a value of type " +
                           type.fullName );
   }
   return value;
}

bool
GenericValue::isPointerTo( const TypeDescriptor * type, bool constWillDo ) const {
   if( !isPointer() || ( isConst() && object() && !constWillDo ) ) return false;
   return !object() || !type || ( type_ && type_->isA( *type ) );
}

bool
GenericValue::operator==( const GenericValue & other ) const {
   if( isPointer() && other.isPointer() ) return object() == other.object();
   if( isPointer() || other.isPointer() || type_ != other.type_ ) return false;
   return isNothing() || type_->values->equal( address(), other.address() );
}

std::string
GenericValue::text() const {
   std::string out;
   if( isPointer() ) {
      appendPointerText( object(), out );
   } else if( !isNothing() ) {
      type_->values->append( address(), out );
   }
   return out;
}

void
GenericValue::throwMismatch( const TypeDescriptor * wanted, bool asPointer ) const {
   throw RejectedException( shape() + " is not " + shapeOf( wanted, asPointer ) );
}

bool
GenericValue::fits( const TypeDescriptor * type, bool asPointer, bool constWillDo ) const {
   return asPointer ? isPointerTo( type, constWillDo ) : type_ == type && !isPointer();
}

std::string
GenericValue::shape() const {
   if( isNothing() ) return "nothing";
   if( !isPointer() ) return shapeOf( type_, false );
   if( !object() ) return "a null pointer";
   return isConst() ? "a const pointer" + shapeOf( type_, true ).substr( 9 )
                    : shapeOf( type_, true );
}

std::string
GenericValue::shapeOf( const TypeDescriptor * type, bool asPointer ) {
   return std::string( asPointer ? "a pointer to " : "a value of type " ) +
          ( type ? type->fullName : "any type" );
}

} // namespace Zek
