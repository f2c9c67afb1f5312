// Bases of collection members that the collection makes for itself.
//
// A value collection keeps each member in a small counted object of its own type, for example
//
//    class ZekSecondaryWithMask final : public Zek::RbKeyValueNode< Velon::IpAddrWithMask, bool > {
//     public:
//       using KeyValueNode::KeyValueNode;
//       Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override;
//       static Zek::AllocTrackTypeInfo allocTrackTypeInfo_;
//    };
//
// made by Zek::allocate and owned by the collection and by the iterators that stand on it. Hashed
// collections link nothing into their members; ordered ones need the links of RbNode
// (framework/RbTree.h) in them, so each base exists in two variants that differ in that alone:
//
//    key and value             KeyValueNode< K, V >      RbKeyValueNode< K, V >
//    key alone (a set)         KeyNode< K >              RbKeyNode< K >
//    value keyed by a field    ValueNode< V, Functor >   RbValueNode< V, Functor >
//
// The key never changes. A node that left its collection still answers key() and value().

#pragma once

#include "framework/Assert.h"
#include "framework/Ptr.h"
#include "framework/RbTree.h"

#include <type_traits>
#include <utility>

namespace Zek {

template< class K, class V, class Links = PtrInterface >
class KeyValueNode : public Links {
 public:
   using KeyType = K;
   using ValueType = V;

   KeyValueNode( const K & key, const V & value ) : key_( key ), value_( value ) {}

   const K & key() const { return key_; }
   const K & fwkKey() const { return key_; }
   const V & value() const { return value_; }
   void valueIs( const V & value ) { value_ = value; }

 protected:
   ~KeyValueNode() override = default;

 private:
   const K key_;
   V value_;
};

template< class K, class Links = PtrInterface >
class KeyNode : public Links {
 public:
   using KeyType = K;

   explicit KeyNode( const K & key ) : key_( key ) {}

   const K & key() const { return key_; }
   const K & fwkKey() const { return key_; }

 protected:
   ~KeyNode() override = default;

 private:
   const K key_;
};

/// `KeyFunktor()( value )` is the key: a field of the value, by reference or by value.
template< class V, class KeyFunktor, class Links = PtrInterface >
class ValueNode : public Links {
 public:
   using KeyType = std::remove_cvref_t< decltype( KeyFunktor()( std::declval< const V & >() ) ) >;
   using ValueType = V;
   using KeyFunktorType = KeyFunktor;

   explicit ValueNode( const V & value ) : value_( value ) {}

   decltype( auto ) key() const { return KeyFunktor()( value_ ); }
   decltype( auto ) fwkKey() const { return KeyFunktor()( value_ ); }
   const V & value() const { return value_; }
   /// Asserts that the key stays.
   void valueIs( const V & value ) {
      assertThat( fwkKey() == KeyFunktor()( value ), "fwkKey() == KeyFunktor()( _value )", "Node" );
      value_ = value;
   }

 protected:
   ~ValueNode() override = default;

 private:
   V value_;
};

template< class K, class V >
using RbKeyValueNode = KeyValueNode< K, V, RbNode >;
template< class K >
using RbKeyNode = KeyNode< K, RbNode >;
template< class V, class KeyFunktor >
using RbValueNode = ValueNode< V, KeyFunktor, RbNode >;

} // namespace Zek
