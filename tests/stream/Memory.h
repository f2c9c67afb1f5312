// Memory that runs out where a test wants it to, and is counted.

#pragma once

#include <cstddef>
#include <cstdint>

namespace ipstate::test {

/// While it lives, the allocation number `after` from now on this thread, counted from 0, throws
/// std::bad_alloc; with `lasting`, so does each one behind it.
class NoMemory {
 public:
   explicit NoMemory( uint64_t after, bool lasting = false );
   ~NoMemory();
   NoMemory( const NoMemory & ) = delete;
   NoMemory & operator=( const NoMemory & ) = delete;

   /// Whether it came to that.
   bool met() const;
};

/// Bytes that operator new has given out on this thread and nobody gave back.
ptrdiff_t heldBytes();

} // namespace ipstate::test
