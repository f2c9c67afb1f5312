// Hash helpers of keys.
//
// A hash depends on the value alone, never on addresses, history or the process, so that hashed
// orders are the same in every process of one machine.

#pragma once

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

namespace Zek {

/// The 32 bits in reverse order.
constexpr uint32_t
bitReverse( uint32_t v ) {
   v = ( v >> 1 & 0x55555555u ) | ( v & 0x55555555u ) << 1;
   v = ( v >> 2 & 0x33333333u ) | ( v & 0x33333333u ) << 2;
   v = ( v >> 4 & 0x0f0f0f0fu ) | ( v & 0x0f0f0f0fu ) << 4;
   return __builtin_bswap32( v );
}

/// Hash of `size` bytes; every bit of the result depends on every byte.
inline uint32_t
hashBytes( const void * bytes, size_t size ) {
   constexpr uint64_t odd = 0x9e3779b97f4a7c15u;
   const char * p = static_cast< const char * >( bytes );
   uint64_t h = size * odd;
   auto take = [&h]( uint64_t word ) {
      h = ( h ^ word ) * odd;
      h ^= h >> 32;
   };
   for( ; size >= 8; size -= 8, p += 8 ) {
      uint64_t word;
      std::memcpy( &word, p, 8 );
      take( word );
   }
   if( size ) {
      uint64_t word = 0;
      std::memcpy( &word, p, size );
      take( word );
   }
   h *= 0xd6e8feb86659fd93u;
   return static_cast< uint32_t >( h ^ h >> 32 );
}

/// Hash of a number of at most 64 bits.
constexpr uint32_t
hashNumber( uint64_t v ) {
   v = ( v ^ v >> 32 ) * 0x9e3779b97f4a7c15u;
   v = ( v ^ v >> 32 ) * 0xd6e8feb86659fd93u;
   return static_cast< uint32_t >( v ^ v >> 32 );
}

/// A key that carries its reversed hash, so that no lookup has to compute it.
template< class Key >
concept HasReversedHash = requires( const Key & key ) {
   { key.reversedHash() } -> std::convertible_to< uint32_t >;
};

/// The hash of any key: its own hash(), else that of a number, an enumerator or a text.
template< class Key >
constexpr uint32_t
hashOf( const Key & key ) {
   if constexpr( std::is_integral_v< Key > || std::is_enum_v< Key > ) {
      return hashNumber( static_cast< uint64_t >( key ) );
   } else if constexpr( requires { key.hash(); } ) {
      return key.hash();
   } else {
      std::string_view text( key );
      return hashBytes( text.data(), text.size() );
   }
}

/// bitReverse( hashOf( key ) ), the major key of every hashed order.
template< class Key >
constexpr uint32_t
reversedHashOf( const Key & key ) {
   if constexpr( HasReversedHash< Key > ) {
      return key.reversedHash();
   } else {
      return bitReverse( hashOf( key ) );
   }
}

/// The hash of a field of a value.
template< class T >
uint32_t
hashField( const T & value ) {
   if constexpr( std::is_floating_point_v< T > ) {
      static_assert( sizeof( T ) == sizeof( uint64_t ) );
      // Equal values hash alike: 0.0 and -0.0 compare equal.
      return hashNumber( std::bit_cast< uint64_t >( value == 0 ? T( 0 ) : value ) );
   } else {
      return hashOf( value );
   }
}

/// The hash of two fields, in their order.
inline uint32_t
hashCombine( uint32_t first, uint32_t second ) {
   return hashNumber( static_cast< uint64_t >( first ) << 32 | second );
}

} // namespace Zek
