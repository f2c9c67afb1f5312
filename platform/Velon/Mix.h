// Mixing of numbers into 32-bit hashes, shared by the value types of this folder.

#pragma once

#include <cstdint>

namespace Velon {

/// A one-to-one scattering of 64 bits: each bit of the result depends on all bits of `v`.
constexpr uint64_t
mix64( uint64_t v ) {
   v ^= v >> 33;
   v *= 0xff51afd7ed558ccdu;
   v ^= v >> 33;
   v *= 0xc4ceb9fe1a85ec53u;
   return v ^ v >> 33;
}

/// The same for 32 bits: different numbers have different hashes.
constexpr uint32_t
mix32( uint32_t v ) {
   v ^= v >> 16;
   v *= 0x85ebca6bu;
   v ^= v >> 13;
   v *= 0xc2b2ae35u;
   return v ^ v >> 16;
}

} // namespace Velon
