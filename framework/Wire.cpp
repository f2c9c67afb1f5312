#include "framework/Wire.h"

#include "framework/Assert.h"
#include "framework/Type.h"

#include <array>
#include <cstdlib>
#include <new>

namespace Zek::Wire {

// -- Buffers ----------------------------------------------------------------------------------

Buffer::~Buffer() {
   std::free( data_ );
}

void
Buffer::grow( size_t bytes ) {
   size_t held = size();
   if( begin_ >= capacity_ / 2 && held + bytes <= capacity_ ) {
      std::memmove( data_, data_ + begin_, held );
   } else {
      size_t wanted = capacity_ * 2 + 256;
      if( wanted < held + bytes ) wanted = held + bytes;
      auto * grown = static_cast< uint8_t * >( std::malloc( wanted ) );
      if( !grown ) throw std::bad_alloc();
      if( held ) std::memcpy( grown, data_ + begin_, held );
      std::free( data_ );
      data_ = grown;
      capacity_ = wanted;
   }
   begin_ = 0;
   end_ = held;
}

bool
Decoder::fail( const char * expected ) {
   return failAt( expected, offset() );
}

bool
Decoder::failAt( const char * expected, size_t offset ) {
   if( !expected_ ) {
      expected_ = expected;
      failedAt_ = offset;
   }
   at_ = end_;
   return false;
}

// -- Enumerations -----------------------------------------------------------------------------

bool
isEnumerator( const TypeDescriptor & type, int64_t value ) {
   for( const EnumeratorRow & row : type.enumerators ) {
      if( row.value == value ) return true;
   }
   return false;
}

// -- Checksum ---------------------------------------------------------------------------------

namespace {

constexpr uint32_t polynomial = 0x82f63b78; // Castagnoli's, bits reflected

constexpr std::array< uint32_t, 256 >
makeTable() {
   std::array< uint32_t, 256 > table{};
   for( uint32_t i = 0; i < 256; ++i ) {
      uint32_t crc = i;
      for( int bit = 0; bit < 8; ++bit ) crc = crc >> 1 ^ ( crc & 1 ? polynomial : 0 );
      table[i] = crc;
   }
   return table;
}

constexpr auto table = makeTable();

} // namespace

uint32_t
checksumByTable( const uint8_t * bytes, size_t count, uint32_t before ) {
   uint32_t crc = ~before;
   for( ; count; --count ) crc = crc >> 8 ^ table[( crc ^ *bytes++ ) & 0xff];
   return ~crc;
}

#ifdef __x86_64__
const bool hasChecksumInstruction = __builtin_cpu_supports( "sse4.2" );
#endif

} // namespace Zek::Wire
