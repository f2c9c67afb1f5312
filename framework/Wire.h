// Values as bytes, for streams between processes.
//
// Numbers stand in network byte order. bool: one byte, 0 or 1. double: its IEEE 754 bits.
// Strings and names: a 32-bit count of bytes, then the bytes. Enumerations: their number in 32
// bits. Value types: their fields in declaration order; sets: a 32-bit count, then the keys
// ascending. Types written by hand say for themselves (encodeTo, decodeFrom).
//
// What is read may come from anyone: a Decoder never reads behind its end, and says what it
// expected at which offset when it fails.

#pragma once

#include "framework/Export.h"
#include "framework/Name.h"
#include "framework/String.h"

#include <bit>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>
#include <vector>

namespace Zek {

struct TypeDescriptor;

namespace Wire {

template< class U >
constexpr U
byteSwapped( U value ) {
   if constexpr( sizeof( U ) == 1 ) {
      return value;
   } else if constexpr( sizeof( U ) == 2 ) {
      return __builtin_bswap16( value );
   } else if constexpr( sizeof( U ) == 4 ) {
      return __builtin_bswap32( value );
   } else {
      return __builtin_bswap64( value );
   }
}

template< class U >
constexpr U
networkOrder( U value ) {
   return std::endian::native == std::endian::big ? value : byteSwapped( value );
}

/// The number at an address.
template< class U >
U
numberAt( const uint8_t * at ) {
   U number;
   std::memcpy( &number, at, sizeof number );
   return networkOrder( number );
}

/// Stores a number of which the lowest byte comes first.
inline void
storeLowestFirst( uint8_t * at, uint64_t number ) {
   if( std::endian::native == std::endian::big ) number = byteSwapped( number );
   std::memcpy( at, &number, sizeof number );
}

/// How far the bytes of an attribute reach in a state record, of which the writer tells for each:
/// so many, or what these two say.
constexpr uint8_t varies = 0;          // a count of them stands before them, in 32 bits
constexpr uint8_t countsItself = 0xff; // they begin with that count, as texts do
constexpr bool
isFixed( uint8_t size ) {
   return size != varies && size != countsItself;
}

/// Bytes in one piece: written at the end, taken from the front.
class IPSTATE_EXPORT Buffer {
 public:
   Buffer() = default;
   Buffer( const Buffer & ) = delete;
   Buffer & operator=( const Buffer & ) = delete;
   ~Buffer();

   const uint8_t * data() const { return data_ + begin_; }
   size_t size() const { return end_ - begin_; }
   bool empty() const { return begin_ == end_; }
   std::string_view view() const { return { reinterpret_cast< const char * >( data() ), size() }; }

   /// Room for `bytes` more; where they go. They count once written() says so.
   uint8_t * room( size_t bytes ) {
      if( capacity_ - end_ < bytes ) [[unlikely]] {
         grow( bytes );
      }
      return data_ + end_;
   }
   void written( size_t bytes ) { end_ += bytes; }
   void append( const void * bytes, size_t count ) {
      if( count == 0 ) return;
      std::memcpy( room( count ), bytes, count );
      written( count );
   }
   /// Gives up the first bytes.
   void consume( size_t bytes ) {
      begin_ += bytes;
      if( begin_ == end_ ) begin_ = end_ = 0;
   }
   /// Gives up the bytes behind the first `size`.
   void truncate( size_t size ) { end_ = begin_ + size; }
   void clear() { begin_ = end_ = 0; }
   /// A byte written earlier, counted from the front.
   uint8_t * at( size_t offset ) { return data_ + begin_ + offset; }

 private:
   void grow( size_t bytes );

   uint8_t * data_ = nullptr;
   size_t begin_ = 0;
   size_t end_ = 0;
   size_t capacity_ = 0;
};

/// Writes to a buffer.
class Encoder {
 public:
   explicit Encoder( Buffer & buffer ) : buffer_( buffer ) {}

   template< class U >
   void number( U value ) {
      static_assert( std::is_unsigned_v< U > );
      value = networkOrder( value );
      std::memcpy( buffer_.room( sizeof value ), &value, sizeof value );
      buffer_.written( sizeof value );
   }
   void u8( uint8_t value ) { number( value ); }
   void u16( uint16_t value ) { number( value ); }
   void u32( uint32_t value ) { number( value ); }
   void u64( uint64_t value ) { number( value ); }
   void bytes( const void * bytes, size_t count ) { buffer_.append( bytes, count ); }
   void text( std::string_view text ) {
      u32( static_cast< uint32_t >( text.size() ) );
      bytes( text.data(), text.size() );
   }
   Buffer & buffer() const { return buffer_; }

 private:
   Buffer & buffer_;
};

/// Counts in 32 bits, ahead of them, the bytes that are written to the encoder while it lives.
class Counted {
 public:
   explicit Counted( Encoder & out ) : buffer_( out.buffer() ) {
      out.u32( 0 );
      start_ = buffer_.size();
   }
   Counted( const Counted & ) = delete;
   Counted & operator=( const Counted & ) = delete;
   ~Counted() {
      const uint32_t count = networkOrder( static_cast< uint32_t >( buffer_.size() - start_ ) );
      std::memcpy( buffer_.at( start_ - sizeof count ), &count, sizeof count );
   }

 private:
   Buffer & buffer_;
   size_t start_;
};

/// Reads bytes of which as many are known to be there as will be read; otherwise as a Decoder.
class FixedReader {
 public:
   explicit FixedReader( const uint8_t * at ) : at_( at ) {}

   template< class U >
   bool number( U & value, const char * ) {
      value = numberAt< U >( at_ );
      at_ += sizeof value;
      return true;
   }
   bool u8( uint8_t & value, const char * = nullptr ) { return number( value, nullptr ); }
   bool u32( uint32_t & value, const char * = nullptr ) { return number( value, nullptr ); }
   bool u64( uint64_t & value, const char * = nullptr ) { return number( value, nullptr ); }
   bool fail( const char * ) { return false; }
   const uint8_t * at() const { return at_; }
   void skip( size_t count ) { at_ += count; }

 private:
   const uint8_t * at_;
};

/// Reads a range of bytes that must outlive it. After a failure every read fails.
class IPSTATE_EXPORT Decoder {
 public:
   Decoder( const void * bytes, size_t count )
      : begin_( static_cast< const uint8_t * >( bytes ) ),
        at_( begin_ ),
        end_( begin_ + count ) {}

   size_t left() const { return static_cast< size_t >( end_ - at_ ); }
   size_t offset() const { return static_cast< size_t >( at_ - begin_ ); }
   const uint8_t * at() const { return at_; }

   template< class U >
   bool number( U & value, const char * expected ) {
      static_assert( std::is_unsigned_v< U > );
      if( left() < sizeof value ) [[unlikely]] {
         fail( expected );
         return false; // spelled out: callers are compiled without the body of fail()
      }
      std::memcpy( &value, at_, sizeof value );
      value = networkOrder( value );
      at_ += sizeof value;
      return true;
   }
   bool u8( uint8_t & value, const char * expected = "a byte" ) {
      return number( value, expected );
   }
   bool u16( uint16_t & value, const char * expected = "a 16-bit number" ) {
      return number( value, expected );
   }
   bool u32( uint32_t & value, const char * expected = "a 32-bit number" ) {
      return number( value, expected );
   }
   bool u64( uint64_t & value, const char * expected = "a 64-bit number" ) {
      return number( value, expected );
   }
   /// The next `count` bytes.
   bool bytes( const uint8_t *& bytes, size_t count, const char * expected = "more bytes" ) {
      if( left() < count ) {
         fail( expected );
         return false;
      }
      bytes = at_;
      at_ += count;
      return true;
   }
   bool text( std::string_view & text, const char * expected = "a text" ) {
      uint32_t size = 0;
      const uint8_t * first = nullptr;
      if( !u32( size, expected ) || !bytes( first, size, expected ) ) return false;
      text = { reinterpret_cast< const char * >( first ), size };
      return true;
   }
   /// Passes over bytes that the caller knows to be there.
   void skip( size_t count ) { at_ += count; }

   /// Fails here; false. `expected` must live as long as the decoder.
   bool fail( const char * expected );
   /// The same at another offset: a part of the range was read by another decoder.
   bool failAt( const char * expected, size_t offset );
   bool failed() const { return expected_ != nullptr; }
   const char * expected() const { return expected_; }
   size_t failedAt() const { return failedAt_; }

 private:
   const uint8_t * begin_;
   const uint8_t * at_;
   const uint8_t * end_;
   const char * expected_ = nullptr;
   size_t failedAt_ = 0;
};

/// True for an enumerator's number.
IPSTATE_EXPORT bool isEnumerator( const TypeDescriptor & type, int64_t value );

// -- Checksum ---------------------------------------------------------------------------------

IPSTATE_EXPORT uint32_t checksumByTable( const uint8_t * bytes, size_t count, uint32_t before );

#ifdef __x86_64__

/// Whether the processor has an instruction for it (SSE 4.2).
extern IPSTATE_EXPORT const bool hasChecksumInstruction;

/// The checksum goes on over a word with that instruction, spelled out: the compiler would not
/// inline it into functions for all processors, and a record is short. A record begins with
/// checksumStart; at its end all bits are inverted.
constexpr uint64_t checksumStart = 0xffffffff;

template< class U >
uint64_t
checksumStep( uint64_t crc, U word ) {
   auto low = static_cast< uint32_t >( crc );
   if constexpr( sizeof( U ) == 8 ) {
      asm( "crc32q %1, %0" : "+r"( crc ) : "rm"( word ) );
      return crc;
   }
   if constexpr( sizeof( U ) == 4 ) asm( "crc32l %1, %0" : "+r"( low ) : "rm"( word ) );
   if constexpr( sizeof( U ) == 2 ) asm( "crc32w %1, %0" : "+r"( low ) : "rm"( word ) );
   if constexpr( sizeof( U ) == 1 ) asm( "crc32b %1, %0" : "+r"( low ) : "rm"( word ) );
   return low;
}

inline uint32_t
checksumByInstruction( const uint8_t * bytes, size_t count, uint32_t before ) {
   uint64_t crc = ~before;
   auto take = [&]( auto word ) {
      std::memcpy( &word, bytes, sizeof word );
      bytes += sizeof word;
      crc = checksumStep( crc, word );
   };
   for( ; count >= 32; count -= 32 ) {
      take( uint64_t() );
      take( uint64_t() );
      take( uint64_t() );
      take( uint64_t() );
   }
   for( ; count >= 8; count -= 8 ) take( uint64_t() );
   if( count & 4 ) take( uint32_t() );
   if( count & 2 ) take( uint16_t() );
   if( count & 1 ) take( uint8_t() );
   return ~static_cast< uint32_t >( crc );
}

#endif

/// CRC-32C (RFC 3720, 12.1) of the bytes; `before`: that of what precedes them.
inline uint32_t
checksum( const void * bytes, size_t count, uint32_t before = 0 ) {
   auto * at = static_cast< const uint8_t * >( bytes );
#ifdef __x86_64__
   if( hasChecksumInstruction ) [[likely]] {
      return checksumByInstruction( at, count, before );
   }
#endif
   return checksumByTable( at, count, before );
}

} // namespace Wire
} // namespace Zek
