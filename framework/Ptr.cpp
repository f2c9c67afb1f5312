#include "framework/Ptr.h"

#include <new>

namespace Zek {

bool VFPtrInterface::threadSafePointers_ = false;

namespace {

// Head of the list of all allocation records. Records are only ever prepended.
constinit std::atomic< AllocTrackTypeInfo * > allInfos{ nullptr };

// Plain arithmetic unless counts are shared between threads.
void
add( std::atomic< uint64_t > & counter ) {
   if( VFPtrInterface::threadSafePointers_ ) {
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

void
PtrInterface::destroy() {
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
