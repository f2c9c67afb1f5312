// Memory that is counted and runs out: operator new of the whole program, the library included. One
// file of the program defines OUT_OF_MEMORY_HERE before it includes this.

#pragma once

#include "framework/Ptr.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <new>

namespace OutOfMemory {

/// Allocations of this thread.
inline thread_local uint64_t allocations = 0;
/// Those that it may still make; below zero: any number.
inline thread_local long left = -1;

/// From the `n`th allocation on, none succeeds until the end of the scope.
class From {
 public:
   explicit From( long n ) { left = n; }
   ~From() { left = -1; }
};

/// Objects of all types.
inline uint64_t
liveObjects() {
   uint64_t live = 0;
   for( auto info = Zek::AllocTrackTypeInfo::all(); info; info = info->next() ) {
      live += info->liveObjects();
   }
   return live;
}

/// Tries a change with ever more memory. A `Scene`, made of the arguments, is a world of its own:
/// change() throws bad_alloc and leaves state() as it was, or does all of it; afterwards it can be
/// done again.
template< class Scene, class... Arguments >
void
expectAllOrNothing( const Arguments &... arguments ) {
   const uint64_t live = liveObjects();
   bool done = false;
   for( long n = 0; !done; ++n ) {
      ASSERT_LT( n, 100 );
      {
         Scene whole( arguments... );
         whole.change();
         Scene scene( arguments... );
         const auto before = scene.state();
         done = true;
         try {
            From from( n );
            scene.change();
         } catch( const std::bad_alloc & ) {
            done = false;
         }
         if( !done ) {
            ASSERT_EQ( scene.state(), before ) << "after " << n << " allocations";
            scene.change();
         }
         ASSERT_EQ( scene.state(), whole.state() ) << "after " << n << " allocations";
      }
      ASSERT_EQ( liveObjects(), live );
   }
}

} // namespace OutOfMemory

#ifdef OUT_OF_MEMORY_HERE

void *
operator new( size_t bytes ) {
   ++OutOfMemory::allocations;
   if( OutOfMemory::left == 0 ) throw std::bad_alloc();
   if( OutOfMemory::left > 0 ) --OutOfMemory::left;
   if( void * memory = std::malloc( bytes ? bytes : 1 ) ) return memory;
   throw std::bad_alloc();
}

// Standard algorithms ask this one for their buffers, and give them back by those below.
void *
operator new( size_t bytes, const std::nothrow_t & ) noexcept {
   try {
      return ::operator new( bytes );
   } catch( const std::bad_alloc & ) {
      return nullptr;
   }
}

void
operator delete( void * memory ) noexcept {
   std::free( memory );
}

void
operator delete( void * memory, const std::nothrow_t & ) noexcept {
   std::free( memory );
}

void
operator delete( void * memory, size_t ) noexcept {
   std::free( memory );
}

#endif
