// References to what a stream does not export, and does later.

#include "framework/attrlog/StreamAdapter.h"

#include <algorithm>
#include <utility>

namespace Zek {

using Sa = Entity::ZekNboAttrLogSa;

namespace {

/// The references of an entity: visit( row, key, target ), where `key` is null but for members.
template< class Visit >
void
eachReference( const Entity & entity, const NboAttrLog::Plan & plan, Visit visit ) {
   auto pointer = [&]( const AttributeRow & row ) {
      if( row.stored->hasWireForm() ) return;
      auto * target = *static_cast< PtrInterface * const * >( row.address( &entity ) );
      if( target ) visit( row, nullptr, target );
   };
   for( const AttributeRow * row : plan.references ) pointer( *row );
   for( const AttributeRow * row : plan.parameters ) pointer( *row );
   for( const AttributeRow * row : plan.collections ) {
      if( !row->has( refersToMembers ) ) continue;
      const PtrInterface * member = row->collection->first( &entity );
      while( member ) {
         member = withMemberKey( *row, member, [&]( const void * key ) {
            const PtrInterface * next = row->collection->after( &entity, key );
            visit( *row, key, member );
            return next;
         } );
      }
   }
}

const Entity *
asEntity( const PtrInterface * target ) {
   return dynamic_cast< const Entity * >( target );
}

} // namespace

/// Some of what it refers to is exported now. What it was made of makes it another instance.
void
Sa::tellOfReferences( const std::vector< const Entity * > & targets ) {
   bool isMadeOf = false;
   eachReference( *entity_, plan_,
                  [&]( const AttributeRow & row, const void * key, const PtrInterface * target ) {
                     const Entity * entity = asEntity( target );
                     if( !std::binary_search( targets.begin(), targets.end(), entity ) ) return;
                     if( plan_.row( row.id ) ) {
                        markDirty( row, key );
                     } else {
                        isMadeOf = true;
                     }
                  } );
   if( !isMadeOf || is( toOwner ) || !entity_->parent() ) return;
   removalOwed();
   detach();
}

namespace NboAttrLog {

void
Strangers::met( const Entity & entity, const StreamAdapter & adapter ) {
   met_.insert( &entity );
   if( met_.size() < most_ + adapter.adaptors() ) return;
   decltype( met_ ) referredTo;
   for( const Sa * sa = adapter.first_; sa; sa = sa->nextSa_ ) {
      eachReference( *sa->entity_, sa->plan_,
                     [&]( const AttributeRow &, const void *, const PtrInterface * target ) {
                        const Entity * found = asEntity( target );
                        if( found && met_.contains( found ) ) referredTo.insert( found );
                     } );
   }
   met_ = std::move( referredTo );
   most_ = 2 * met_.size() + 64;
}

void
Strangers::markReferences( StreamAdapter & adapter ) {
   auto targets = std::exchange( known_, {} );
   std::sort( targets.begin(), targets.end() );
   std::vector< Sa::Ptr > all;
   for( Sa * sa = adapter.first_; sa; sa = sa->nextSa_ ) {
      const bool refers = !sa->plan_.references.empty() || !sa->plan_.parameters.empty() ||
                          std::ranges::any_of( sa->plan_.collections, []( auto * row ) {
                             return row->has( refersToMembers );
                          } );
      if( refers && sa->announced_ && sa->is( Sa::sends ) ) all.emplace_back( sa );
   }
   for( const Sa::Ptr & sa : all ) {
      if( sa->entity_ ) sa->tellOfReferences( targets );
   }
}

void
Strangers::clear() {
   met_.clear();
   known_.clear();
   most_ = 64;
}

} // namespace NboAttrLog
} // namespace Zek
