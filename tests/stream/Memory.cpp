#include "tests/stream/Memory.h"

#include <cstdlib>
#include <malloc.h>
#include <new>

namespace {

// On each thread, so that others are left alone.
thread_local constinit uint64_t left = UINT64_MAX;
thread_local constinit bool lasts = false;
thread_local constinit bool failed = false;
thread_local constinit ptrdiff_t held = 0;

void *
take( void * memory ) {
   if( memory ) held += static_cast< ptrdiff_t >( malloc_usable_size( memory ) );
   return memory;
}

void
give( void * memory ) {
   if( memory ) held -= static_cast< ptrdiff_t >( malloc_usable_size( memory ) );
   std::free( memory );
}

bool
fails() {
   if( left == UINT64_MAX ) return false;
   if( left ) {
      --left;
      return false;
   }
   if( !lasts ) left = UINT64_MAX;
   failed = true;
   return true;
}

} // namespace

void *
operator new( size_t size ) {
   void * memory = fails() ? nullptr : take( std::malloc( size ) );
   if( !memory ) throw std::bad_alloc();
   return memory;
}
void *
operator new( size_t size, const std::nothrow_t & ) noexcept {
   return fails() ? nullptr : take( std::malloc( size ) );
}
void
operator delete( void * memory ) noexcept {
   give( memory );
}
void
operator delete( void * memory, size_t ) noexcept {
   give( memory );
}

namespace ipstate::test {

NoMemory::NoMemory( uint64_t after, bool lasting ) {
   left = after;
   lasts = lasting;
   failed = false;
}

NoMemory::~NoMemory() {
   left = UINT64_MAX;
}

bool
NoMemory::met() const {
   return failed;
}

ptrdiff_t
heldBytes() {
   return held;
}

} // namespace ipstate::test
