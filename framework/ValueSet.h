// A small set of keys inside a value type, such as the applications of a multicast group.
//
// It is part of the value: copied, compared and hashed with it. Kept sorted in one array, since
// such sets have a handful of members. It has no default key, unlike the collections of entities.

#pragma once

#include "framework/Export.h"
#include "framework/Hash.h"
#include "framework/Text.h"
#include "framework/ValueOps.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace Zek {

/// Writes "Default key not supported in collection inside nominal" to standard error.
IPSTATE_EXPORT void reportDefaultKeyUnsupported();

template< class Key >
class ValueSet {
 public:
   using const_iterator = typename std::vector< Key >::const_iterator;

   bool has( const Key & key ) const {
      auto at = std::lower_bound( keys_.begin(), keys_.end(), key );
      return at != keys_.end() && *at == key;
   }
   /// True when the key was absent.
   bool insert( const Key & key ) {
      auto at = std::lower_bound( keys_.begin(), keys_.end(), key );
      if( at != keys_.end() && *at == key ) return false;
      keys_.insert( at, key );
      return true;
   }
   /// True when the key was present. `key` may be one of the set's own.
   bool remove( const Key & key ) {
      auto at = std::lower_bound( keys_.begin(), keys_.end(), key );
      if( at == keys_.end() || !( *at == key ) ) return false;
      keys_.erase( at );
      return true;
   }
   void clear() { keys_.clear(); }
   /// There is none: says so on standard error and goes on with the key type's zero.
   static Key defaultKey() {
      reportDefaultKeyUnsupported();
      return Key();
   }
   size_t size() const { return keys_.size(); }

   /// Ascending.
   const_iterator begin() const { return keys_.begin(); }
   const_iterator end() const { return keys_.end(); }

   bool operator==( const ValueSet & other ) const { return keys_ == other.keys_; }
   uint32_t hash() const {
      uint32_t sum = 0;
      for( const Key & key : keys_ ) sum = sum * 31 + hashField( key );
      return sum;
   }

   /// "[a, b]", ascending.
   void appendTo( std::string & out ) const {
      const char * separator = "[";
      for( const Key & key : keys_ ) {
         out += separator;
         appendField( key, out );
         separator = ", ";
      }
      out += keys_.empty() ? "[]" : "]";
   }
   /// Deliberate: a value with a collection has no text that reads back.
   static bool fromText( std::string_view, ValueSet & ) { return false; }
   void encodeTo( Wire::Encoder & out ) const {
      out.u32( static_cast< uint32_t >( keys_.size() ) );
      for( const Key & key : keys_ ) encodeField( key, out );
   }
   static bool decodeFrom( Wire::Decoder & in, ValueSet & out ) {
      uint32_t count;
      if( !in.u32( count, "a count of keys" ) ) return false;
      // Every key takes a byte at least.
      if( count > in.left() ) return in.fail( "as many keys as were counted" );
      std::vector< Key > keys;
      for( ; count; --count ) {
         Key key{};
         if( !decodeField( in, key ) ) return false;
         if( !keys.empty() && !( keys.back() < key ) ) return in.fail( "keys in ascending order" );
         keys.push_back( std::move( key ) );
      }
      out.keys_ = std::move( keys );
      return true;
   }

 private:
   std::vector< Key > keys_;
};

} // namespace Zek
