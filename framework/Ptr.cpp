#include "framework/Ptr.h"

#include <cstdlib>
#include <new>

#if __has_include( <sys/single_threaded.h> )
#include <sys/single_threaded.h>
#endif

namespace Zek {

bool VFPtrInterface::threadSafePointers_ = false;

namespace {

// Head of the list of all allocation records. Records are only ever prepended.
constinit std::atomic< AllocTrackTypeInfo * > allInfos{ nullptr };

// Whether there is no other thread; false where that is not known.
bool
onlyThread() {
#if __has_include( <sys/single_threaded.h> )
   return __libc_single_threaded;
#else
   return false;
#endif
}

// The counts of a type are shared by all trees, also by those of threads that share no object:
// plain arithmetic only as long as there is one thread.
void
add( std::atomic< uint64_t > & counter ) {
   if( !onlyThread() ) {
      counter.fetch_add( 1, std::memory_order_relaxed );
   } else {
      counter.store( counter.load( std::memory_order_relaxed ) + 1, std::memory_order_relaxed );
   }
}

} // namespace

const AllocTrackTypeInfo *
AllocTrackTypeInfo::all() {
   return allInfos.load( std::memory_order_acquire );
}

void
AllocTrackTypeInfo::join() {
   if( joined_.exchange( true, std::memory_order_relaxed ) ) return;
   AllocTrackTypeInfo * head = allInfos.load( std::memory_order_relaxed );
   do {
      next_ = head;
   } while( !allInfos.compare_exchange_weak( head, this, std::memory_order_release ) );
}

void
trackAllocation( AllocTrackTypeInfo & info, size_t ) {
   if( !info.joined_.load( std::memory_order_relaxed ) ) [[unlikely]] {
      info.join();
   }
   add( info.allocated_ );
}

void
trackDeallocation( AllocTrackTypeInfo & info, size_t ) {
   add( info.deallocated_ );
}

PtrInterface::~PtrInterface() = default;

void
PtrInterface::handleZeroRef() {
   if( lastReferenceGone() ) destroy();
}

bool
PtrInterface::lastReferenceGone() {
   bump( 1 );
   onZeroReferences();
   uint32_t before = bump( static_cast< uint32_t >( -1 ) );
   if( ( before & countMask ) != 1 ) return false;
   // A pointer made to this object while its destructor runs must not destroy it again.
   bump( 1u << 29 );
   return true;
}

/// Of one thread: how deep destructions stand in each other, and those that wait.
struct PtrInterface::Doomed {
   static constexpr uint32_t deepest = 64;

   /// Keeps it for later; false without memory.
   bool add( PtrInterface * object ) {
      if( count == capacity ) {
         const size_t more = capacity ? 2 * capacity : 64;
         void * grown = std::realloc( waiting, more * sizeof( void * ) );
         if( !grown ) return false;
         waiting = static_cast< PtrInterface ** >( grown );
         capacity = more;
      }
      waiting[count++] = object;
      return true;
   }
   /// At the end of the outermost destruction.
   void finish() {
      while( count ) {
         PtrInterface * next = waiting[--count];
         next->destroyNow();
      }
      std::free( waiting );
      waiting = nullptr;
      capacity = 0;
   }

   uint32_t depth;
   PtrInterface ** waiting;
   size_t count;
   size_t capacity;

   // In the block of static storage that a thread begins with: reached without a call.
   [[gnu::tls_model( "initial-exec" )]] static thread_local constinit Doomed ofThread;
};

thread_local constinit PtrInterface::Doomed PtrInterface::Doomed::ofThread{ 0, nullptr, 0, 0 };

void
PtrInterface::destroy() {
   Doomed & doomed = Doomed::ofThread;
   if( doomed.depth >= Doomed::deepest && doomed.add( this ) ) [[unlikely]]
      return;
   ++doomed.depth;
   destroyNow();
   if( doomed.depth == 1 && doomed.count ) [[unlikely]]
      doomed.finish();
   --doomed.depth;
}

void
PtrInterface::destroyNow() {
   AllocTrackTypeInfo & info = zekAllocTrackTypeInfo();
   delete this;
   trackDeallocation( info, info.size() );
}

void
PtrInterface::onZeroReferences() {}

const TypeDescriptor *
PtrInterface::fwkType() const {
   return nullptr;
}

void *
PtrInterface::zekMemAlloc( size_t bytes ) {
   return ::operator new( bytes );
}

void
PtrInterface::zekMemFree( void * memory, size_t ) {
   ::operator delete( memory );
}

void
PtrInterface::flagIs( uint32_t bit, bool on ) {
   if( threadSafePointers_ ) {
      if( on ) {
         word_.fetch_or( bit, std::memory_order_relaxed );
      } else {
         word_.fetch_and( ~bit, std::memory_order_relaxed );
      }
      return;
   }
   uint32_t word = word_.load( std::memory_order_relaxed );
   word_.store( on ? word | bit : word & ~bit, std::memory_order_relaxed );
}

} // namespace Zek
