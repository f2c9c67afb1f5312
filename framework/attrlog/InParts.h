// What the parts of the inbound half share. Not for others.

#pragma once

#include "framework/ValueOps.h"
#include "framework/attrlog/StreamAdapter.h"

#include <cstddef>
#include <exception>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

namespace Zek::NboAttrLog {

inline std::string_view
bytesBetween( const uint8_t * begin, const uint8_t * end ) {
   return { reinterpret_cast< const char * >( begin ), static_cast< size_t >( end - begin ) };
}

/// While it lives, the adaptor knows which change arrived from the log.
class In::Handles {
 public:
   Handles( In & in, const Handling & handling ) : in_( in ), handling_( handling ) {
      handling_.outer = std::exchange( in.handling_, &handling_ );
   }
   ~Handles() {
      in_.answered_ = handling_.answered;
      in_.handling_ = handling_.outer;
   }
   Handles( const Handles & ) = delete;
   Handles & operator=( const Handles & ) = delete;

 private:
   In & in_;
   Handling handling_;
};

/// The connection that a record came by is over: whatever was called on the way ended it, or
/// destroyed the session. Nothing that belonged to it may be looked at; what is above goes.
struct In::Over {};

/// Runs what may call anybody's code, which may end the connection.
template< class Work >
void
In::callOut( Work work ) {
   const uint64_t connection = adapter_.connection();
   work();
   if( adapter_.connection() != connection ) throw Over();
}

/// Values of any type for the length of one record.
class In::Scratch {
 public:
   Scratch() = default; // the memory stays as it is
   Scratch( const Scratch & ) = delete;
   Scratch & operator=( const Scratch & ) = delete;
   ~Scratch() {
      for( size_t i = count_; i; --i ) ops_[i - 1]->destroy( values_[i - 1] );
      count_ = 0;
   }
   /// The type's zero value.
   void * make( const ValueOps & ops ) {
      const size_t aligned = ( used_ + ops.alignment - 1 ) & ~size_t( ops.alignment - 1 );
      if( aligned + ops.size > sizeof memory_ || ops.alignment > alignof( std::max_align_t ) ||
          count_ == most ) [[unlikely]] {
         return makeElsewhere( ops );
      }
      void * at = memory_ + aligned;
      used_ = aligned + ops.size;
      ops.construct( at );
      if( !ops.isTrivial ) {
         ops_[count_] = &ops;
         values_[count_++] = at;
      }
      return at;
   }
   /// A pointer, as attributes and constructors take it.
   const void * pointer( Entity * target ) {
      auto * made = static_cast< Entity::Ptr * >( make( valueOps< Entity::Ptr > ) );
      *made = Entity::Ptr( target );
      return made;
   }

 private:
   [[gnu::noinline]] void * makeElsewhere( const ValueOps & ops ) {
      more_.push_back( AnyKey::zero( ops ) );
      return more_.back().get();
   }

   static constexpr size_t most = 48;
   size_t used_ = 0;
   size_t count_ = 0;
   alignas( std::max_align_t ) char memory_[1024];
   const ValueOps * ops_[most];
   void * values_[most];
   std::vector< AnyKey > more_;
};

/// Runs what calls mutators. What they and their notifiees throw is counted and traced, and is
/// no fault of the stream's; but without memory the record is not applied, and what follows it must
/// not be.
template< class Change >
bool
In::guarded( Change change ) {
   const uint64_t connection = adapter_.connection();
   const bool done = attempted( change );
   if( adapter_.connection() != connection ) throw Over();
   return done;
}

template< class Change >
bool
In::attempted( Change change ) {
   try {
      change();
      return true;
   } catch( const Over & ) {
      throw;
   } catch( const std::bad_alloc & ) {
      throw;
   } catch( const std::exception & e ) {
      lastRefusal_ = e.what();
   } catch( ... ) {
      lastRefusal_ = "an exception that is none of the standard library's";
   }
   ++refused_;
   return false;
}

template< class Change >
bool
In::change( Entity::ZekNboAttrLogSa & sa, const AttributeRow & row, const void * key,
            const void * value, bool instance, Change change ) {
   Handles handles( *this, { &sa, row.id, key, value, instance } );
   return guarded( change );
}

} // namespace Zek::NboAttrLog
