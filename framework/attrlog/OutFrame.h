// How a record is framed. Not for others than the parts of the outbound half.

#pragma once

#include "framework/attrlog/StreamAdapter.h"

#include <cstring>
#include <utility>

namespace Zek::NboAttrLog {

inline Wire::Encoder
Out::beginFrame( uint32_t flow, uint16_t attribute, Kind kind, uint8_t flags, uint32_t sequence ) {
   frame_ = buffer_.size();
   Wire::Encoder out( buffer_ );
   uint8_t * at = buffer_.room( FrameHeader::size + 1 );
   // Length and checksum are known in the end.
   const uint64_t head = Wire::networkOrder( uint64_t( flow ) << 32 | uint64_t( attribute ) << 16 |
                                             uint64_t( kind ) << 8 | flags );
   std::memcpy( at + 8, &head, sizeof head );
   sequence = Wire::networkOrder( sequence );
   std::memcpy( at + 16, &sequence, sizeof sequence );
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

inline uint8_t
Out::restartIfNeeded( FlowOut & flow ) {
   if( !std::exchange( flow.restarts_, false ) ) [[likely]] {
      return 0;
   }
   flow.head_.sequence = flow.firstSequence_;
   return restartsSequence;
}

inline Wire::Encoder
Out::begin( FlowHead & head, uint16_t attribute, Kind kind, uint8_t flags ) {
   acknowledgeFirst();
   return beginFrame( head.id, attribute, kind, flags, head.sequence++ );
}

inline Wire::Encoder
Out::begin( FlowOut & flow, uint16_t attribute, Kind kind ) {
   return begin( flow.head_, attribute, kind, restartIfNeeded( flow ) );
}

inline void
Out::end() {
   *buffer_.room( 1 ) = closeToken;
   buffer_.written( 1 );
   uint8_t * frame = buffer_.at( frame_ );
   const auto length = static_cast< uint32_t >( buffer_.size() - frame_ );
   const uint64_t head =
      Wire::networkOrder( uint64_t( length ) << 32 | Wire::checksum( frame + 8, length - 8 ) );
   std::memcpy( frame, &head, sizeof head );
   ++records_;
}

/// A value's record whose body is a number of `size` bytes, the first one lowest. Put together in
/// registers: reading back for the checksum what has just been written in parts would wait for it.
inline void
Out::writeNumber( FlowHead & flow, uint16_t attribute, uint64_t number, unsigned size,
                  uint8_t flags ) {
   acknowledgeFirst();
   const uint32_t sequence = flow.sequence++;
   const uint64_t head =
      Wire::byteSwapped( uint64_t( flow.id ) << 32 | uint64_t( attribute ) << 16 |
                         uint64_t( Kind::value ) << 8 | flags );
   // Sequence, token, number, token.
   uint64_t low = Wire::byteSwapped( sequence ) | uint64_t( openToken ) << 32 | number << 40;
   uint64_t high = number >> 24;
   const unsigned close = 40 + 8 * size;
   ( close < 64 ? low : high ) |= uint64_t( closeToken ) << close % 64;
   const uint32_t length = FrameHeader::size + 2 + size;
   uint8_t * frame = buffer_.room( FrameHeader::size + 12 );
   Wire::storeLowestFirst( frame + 8, head );
   Wire::storeLowestFirst( frame + 16, low );
   Wire::storeLowestFirst( frame + 24, high );
   uint32_t sum;
#ifdef __x86_64__
   if( Wire::hasChecksumInstruction ) [[likely]] {
      uint64_t crc = Wire::checksumStep( Wire::checksumStart, head );
      unsigned left = 6 + size;
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
      sum = Wire::checksum( frame + 8, length - 8 );
   Wire::storeLowestFirst( frame, Wire::byteSwapped( uint64_t( length ) << 32 | sum ) );
   buffer_.written( length );
   ++records_;
}

} // namespace Zek::NboAttrLog
