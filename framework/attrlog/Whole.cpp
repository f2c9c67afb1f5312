// Collections that are told as a whole: what is not mentioned goes.

#include "framework/attrlog/InParts.h"

#include <algorithm>

namespace Zek {

using Sa = Entity::ZekNboAttrLogSa;

namespace NboAttrLog {

void
In::beginWhole( Sa & sa, const AttributeRow & row, uint32_t members ) {
   std::erase_if( wholes_, [&]( auto & w ) { return w.sa.ptr() == &sa && w.row == &row; } );
   dropHeld( sa.flowIn_, row.id, row.id ); // told again, or absent
   if( row.collection->count( sa.entity_ ) == 0 && !sa.is( Sa::fromPeer ) ) {
      // Nothing can be left over. They come in the order of the table, which would be one long run
      // in a table that grows.
      if( row.collection->hasReserve() && members <= quota.reserved - reserved_ ) {
         row.collection->reserve( sa.entity_, members );
         // Their flows follow. Less than twice as many come without being asked.
         const size_t flows = flows_.size() + members;
         if( row.has( ownsMembers ) && flows > 2 * flows_.capacity() ) flows_.reserve( flows );
         reserved_ += members;
      }
      return;
   }
   Whole whole{ Sa::Ptr( &sa ), &row, {} };
   if( sa.is( Sa::toOwner ) && !sa.unackedKeys( row, whole.mentioned ) ) {
      passedOver( sa, row, nullptr );
      return;
   }
   // What was written and not seen yet is not gone where it is left out.
   for( auto & [key, is] : whole.mentioned ) passedOver( sa, row, key.get() );
   wholes_.push_back( std::move( whole ) );
}

void
In::mention( Sa & sa, const AttributeRow & row, const void * key ) {
   for( Whole & whole : wholes_ ) {
      if( whole.sa.ptr() != &sa || whole.row != &row ) continue;
      if( whole.mentioned.find( key ) == whole.mentioned.end() ) {
         whole.mentioned.emplace( AnyKey( *row.keyType->values, key ), true );
      }
   }
   if( !sa.hasSweep_ ) return;
   for( Sweep & sweep : sweeps_ ) {
      if( sweep.sa.ptr() != &sa || sweep.row != &row ) continue;
      auto at = sweep.keys.find( key );
      if( at != sweep.keys.end() ) sweep.keys.erase( at );
   }
}

void
In::endWhole( Sa & sa, const AttributeRow & row ) {
   auto whole = std::find_if( wholes_.begin(), wholes_.end(),
                              [&]( auto & w ) { return w.sa.ptr() == &sa && w.row == &row; } );
   if( whole == wholes_.end() ) return;
   Sweep sweep{ Sa::Ptr( &sa ), &row, {} };
   const CollectionOps & ops = *row.collection;
   const PtrInterface * member = ops.first( sa.entity_ );
   while( member ) {
      member = withMemberKey( row, member, [&]( const void * key ) {
         // What the owner does not know yet is not gone there.
         if( whole->mentioned.find( key ) == whole->mentioned.end() ) {
            if( passesFence( sa, row, key ) ) {
               sweep.keys.emplace( AnyKey( *row.keyType->values, key ), true );
            }
         } else if( sa.is( Sa::fromPeer ) && row.has( ownsMembers ) ) {
            // The writer lost its own, and passed over the one it was answered with.
            Sa * child = adapter_.adaptorOf( *static_cast< const Entity * >( member ) );
            if( child && child->announced_ && !child->flowIn_ ) answer( sa, row, key );
         }
         return ops.after( sa.entity_, key );
      } );
   }
   // The writer has what did not come to be here, and passed over the answer.
   if( sa.is( Sa::fromPeer ) && row.has( ownsMembers ) ) {
      for( auto & [key, is] : whole->mentioned ) {
         if( !ops.find( sa.entity_, key.get() ) ) answer( sa, row, key.get() );
      }
   }
   wholes_.erase( whole );
   // What it leaves out is no less than what the one before left out and it did not mention.
   if( sa.hasSweep_ ) {
      std::erase_if( sweeps_, [&]( auto & s ) { return s.sa.ptr() == &sa && s.row == &row; } );
   }
   if( !sweep.keys.empty() ) {
      sa.hasSweep_ = true;
      sweeps_.push_back( std::move( sweep ) );
   }
   if( !openDumps_ ) sweepAll();
}

/// Removes what was not mentioned, what came last first: references go before what they refer to.
void
In::sweepAll() {
   while( !sweeps_.empty() ) {
      Sweep sweep = std::move( sweeps_.back() );
      sweeps_.pop_back();
      sweep.sa->hasSweep_ = false;
      for( auto at = sweep.keys.rbegin(); at != sweep.keys.rend(); ++at ) {
         if( !sweep.sa->entity_ ) break;
         if( mayApply( *sweep.sa, *sweep.row, at->first.get() ) ) {
            remove( *sweep.sa, *sweep.row, at->first.get() );
         }
      }
   }
}

} // namespace NboAttrLog
} // namespace Zek
