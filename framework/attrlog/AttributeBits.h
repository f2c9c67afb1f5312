// A bit for each attribute of a type, in place where a word has as many.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace Zek::NboAttrLog {

class AttributeBits {
 public:
   explicit AttributeBits( size_t bits ) : bits_( bits ) {
      if( !isInPlace() ) words_ = new uint64_t[words()]{};
   }
   AttributeBits( const AttributeBits & ) = delete;
   AttributeBits & operator=( const AttributeBits & ) = delete;
   ~AttributeBits() {
      if( !isInPlace() ) delete[] words_;
   }

   bool has( size_t bit ) const { return bit < bits_ && data()[bit / 64] >> bit % 64 & 1; }
   /// What is not below the count of bits is passed over.
   void set( size_t bit, bool value ) {
      if( bit >= bits_ ) return;
      const uint64_t mask = uint64_t( 1 ) << bit % 64;
      uint64_t & word = data()[bit / 64];
      word = value ? word | mask : word & ~mask;
   }
   bool any() const {
      return std::any_of( data(), data() + words(), []( uint64_t word ) { return word != 0; } );
   }
   void clear() { std::fill_n( data(), words(), 0 ); }

 private:
   bool isInPlace() const { return bits_ <= 64; }
   size_t words() const { return ( bits_ + 63 ) / 64; }
   uint64_t * data() { return isInPlace() ? &word_ : words_; }
   const uint64_t * data() const { return isInPlace() ? &word_ : words_; }

   size_t bits_;
   union {
      uint64_t word_ = 0;
      uint64_t * words_;
   };
};

} // namespace Zek::NboAttrLog
