#include "framework/String.h"

#include "framework/Exception.h"
#include "framework/Ptr.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>
#include <ostream>

namespace Zek {

namespace {

using Count = std::atomic_ref< uint32_t >;

} // namespace

// A text of `size` bytes still to be filled in, with room for `capacity` and one reference.
String::Rep *
String::make( size_t size, size_t capacity ) {
   if( size > INT32_MAX ) throwRangeException( "String::bytes > 2147483647 not allowed" );
   capacity = std::min< size_t >( capacity, INT32_MAX );
   void * memory = ::operator new( sizeof( Rep ) + capacity + 1 );
   Rep * rep =
      new( memory ) Rep{ 1, static_cast< uint32_t >( size ), static_cast< uint32_t >( capacity ) };
   rep->text()[size] = '\0';
   return rep;
}

void
String::acquire() const noexcept {
   Count count( rep_->count );
   if( VFPtrInterface::threadSafePointers_ ) {
      count.fetch_add( 1, std::memory_order_relaxed );
   } else {
      count.store( count.load( std::memory_order_relaxed ) + 1, std::memory_order_relaxed );
   }
}

void
String::release() noexcept {
   Count count( rep_->count );
   uint32_t before;
   if( VFPtrInterface::threadSafePointers_ ) {
      before = count.fetch_sub( 1, std::memory_order_acq_rel );
   } else {
      before = count.load( std::memory_order_relaxed );
      count.store( before - 1, std::memory_order_relaxed );
   }
   if( before == 1 ) ::operator delete( rep_ );
   rep_ = nullptr;
}

String::String( std::string_view text ) {
   if( text.empty() ) return;
   rep_ = make( text.size(), text.size() );
   std::memcpy( rep_->text(), text.data(), text.size() );
}

String::String( const char * text ) : String( text ? std::string_view( text ) : "" ) {}

String::String( IteratorConst begin, IteratorConst end )
   : String( IteratorConst::view( begin, end ) ) {}

String &
String::operator+=( std::string_view text ) {
   if( text.empty() ) return *this;
   size_t before = size();
   size_t after = before + text.size();
   // `text` may be a part of this very string: the old bytes stay until the new ones stand.
   if( rep_ && after <= rep_->capacity &&
       Count( rep_->count ).load( std::memory_order_acquire ) == 1 ) {
      std::memcpy( rep_->text() + before, text.data(), text.size() );
      rep_->text()[after] = '\0';
      rep_->size = static_cast< uint32_t >( after );
      return *this;
   }
   String grown;
   grown.rep_ = make( after, before == 0 ? after : std::max( after, 2 * before ) );
   std::memcpy( grown.rep_->text(), charPtr(), before );
   std::memcpy( grown.rep_->text() + before, text.data(), text.size() );
   std::swap( rep_, grown.rep_ );
   return *this;
}

std::ostream &
operator<<( std::ostream & out, const String & text ) {
   return out << text.view();
}

} // namespace Zek
