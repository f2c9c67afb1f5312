// How a record is framed. Not for others than the parts of the outbound half.

#pragma once

#include "framework/attrlog/StreamAdapter.h"

#include <cstring>

namespace Zek::NboAttrLog {

inline Wire::Encoder
Out::beginFrame( uint32_t flow, uint16_t attribute, Kind kind ) {
   frame_ = buffer_.size();
   Wire::Encoder out( buffer_ );
   uint8_t * at = buffer_.room( FrameHeader::size + 1 );
   // Length and checks are known in the end.
   const uint64_t which = Wire::networkOrder( uint64_t( flow ) );
   const uint64_t what = Wire::networkOrder( uint64_t( attribute ) << 48 | uint64_t( kind ) << 40 );
   std::memcpy( at, &which, sizeof which );
   std::memcpy( at + 8, &what, sizeof what );
   at[FrameHeader::size] = openToken;
   buffer_.written( FrameHeader::size + 1 );
   return out;
}

inline void
Out::acknowledgeFirst() {
   if( adapter_.peerWrites_ ) [[unlikely]] {
      acknowledge();
   }
}

inline Wire::Encoder
Out::begin( const FlowHead & head, uint16_t attribute, Kind kind ) {
   acknowledgeFirst();
   return beginFrame( head.id, attribute, kind );
}

inline Wire::Encoder
Out::begin( const FlowOut & flow, uint16_t attribute, Kind kind ) {
   return begin( flow.head_, attribute, kind );
}

inline void
Out::end() {
   *buffer_.room( 1 ) = closeToken;
   buffer_.written( 1 );
   uint8_t * frame = buffer_.at( frame_ );
   const size_t size = buffer_.size() - frame_;
   const uint32_t length = Wire::networkOrder( static_cast< uint32_t >( size ) );
   std::memcpy( frame, &length, sizeof length );
   const uint32_t check = FrameHeader::checkOf( frame, static_cast< uint32_t >( records_ ) );
   const uint32_t sum =
      Wire::checksum( frame + FrameHeader::size, size - FrameHeader::size, check );
   const uint64_t checks = Wire::networkOrder( uint64_t( check ) << 32 | sum );
   std::memcpy( frame + FrameHeader::checked, &checks, sizeof checks );
   ++records_;
}

/// A value's record whose body is a number of `size` bytes, the first one lowest. Put together in
/// registers: reading back for the checks what has just been written in parts would wait for it.
inline void
Out::writeNumber( const FlowHead & flow, uint16_t attribute, uint64_t number, unsigned size ) {
   acknowledgeFirst();
   const uint32_t length = FrameHeader::size + 2 + size;
   const uint64_t which = Wire::byteSwapped( uint64_t( length ) << 32 | flow.id );
   const auto what = static_cast< uint32_t >(
      Wire::byteSwapped( uint32_t( attribute ) << 16 | uint32_t( Kind::value ) << 8 ) );
   // Token, number, token.
   uint64_t low = uint64_t( openToken ) | number << 8;
   uint64_t high = number >> 56;
   const unsigned close = 8 + 8 * size;
   ( close < 64 ? low : high ) |= uint64_t( closeToken ) << close % 64;
   uint8_t * frame = buffer_.room( FrameHeader::size + 16 );
   Wire::storeLowestFirst( frame, which );
   Wire::storeLowestFirst( frame + 20, low );
   Wire::storeLowestFirst( frame + 28, high );
   uint32_t check, sum;
#ifdef __x86_64__
   if( Wire::hasChecksumInstruction ) [[likely]] {
      uint64_t crc = Wire::checksumStep( Wire::checksumStart,
                                         Wire::byteSwapped( static_cast< uint32_t >( records_ ) ) );
      crc = Wire::checksumStep( Wire::checksumStep( crc, which ), what );
      check = ~static_cast< uint32_t >( crc );
      unsigned left = 2 + size;
      if( left >= 8 ) {
         crc = Wire::checksumStep( crc, low );
         low = high;
         left -= 8;
      }
      if( left & 4 ) {
         crc = Wire::checksumStep( crc, static_cast< uint32_t >( low ) );
         low >>= 32;
      }
      if( left & 2 ) {
         crc = Wire::checksumStep( crc, static_cast< uint16_t >( low ) );
         low >>= 16;
      }
      if( left & 1 ) crc = Wire::checksumStep( crc, static_cast< uint8_t >( low ) );
      sum = ~static_cast< uint32_t >( crc );
   } else
#endif
   {
      Wire::storeLowestFirst( frame + 8, uint64_t( what ) );
      check = FrameHeader::checkOf( frame, static_cast< uint32_t >( records_ ) );
      sum = Wire::checksum( frame + FrameHeader::size, length - FrameHeader::size, check );
   }
   Wire::storeLowestFirst( frame + 8, uint64_t( Wire::byteSwapped( check ) ) << 32 | what );
   const uint32_t swapped = Wire::networkOrder( sum );
   std::memcpy( frame + 16, &swapped, sizeof swapped );
   buffer_.written( length );
   ++records_;
}

} // namespace Zek::NboAttrLog
