// Keys of collections that are known by their rows only.

#pragma once

#include "framework/Type.h"

#include <cstddef>
#include <map>
#include <memory>
#include <utility>

namespace Zek {

/// A copy of one value, by its type's operations; or nothing.
class AnyKey {
 public:
   AnyKey() = default;
   AnyKey( const ValueOps & ops, const void * value ) : ops_( &ops ), value_( allocate( ops ) ) {
      ops.copy( value_, value );
   }
   AnyKey( AnyKey && other ) noexcept
      : ops_( other.ops_ ),
        value_( std::exchange( other.value_, nullptr ) ) {}
   AnyKey & operator=( AnyKey && other ) noexcept {
      std::swap( ops_, other.ops_ );
      std::swap( value_, other.value_ );
      return *this;
   }
   ~AnyKey() {
      if( !value_ ) return;
      ops_->destroy( value_ );
      ::operator delete( value_ );
   }
   /// The type's zero value.
   static AnyKey zero( const ValueOps & ops ) {
      AnyKey key;
      key.ops_ = &ops;
      key.value_ = allocate( ops );
      ops.construct( key.value_ );
      return key;
   }

   const ValueOps & ops() const { return *ops_; }
   const void * get() const { return value_; }
   void * get() { return value_; }

 private:
   static void * allocate( const ValueOps & ops ) { return ::operator new( ops.size ); }

   const ValueOps * ops_ = nullptr;
   void * value_ = nullptr;
};

/// In the order of the keys' type, which must have one.
struct AnyKeyLess {
   using is_transparent = void;
   bool operator()( const AnyKey & a, const AnyKey & b ) const {
      return a.ops().less( a.get(), b.get() );
   }
   bool operator()( const AnyKey & a, const void * b ) const { return a.ops().less( a.get(), b ); }
   bool operator()( const void * a, const AnyKey & b ) const { return b.ops().less( a, b.get() ); }
};

/// An ordered map from keys of one type to bool.
using DirtyKeys = std::map< AnyKey, bool, AnyKeyLess >;

} // namespace Zek
