#include "framework/attrlog/AttrLog.h"

#include "framework/Assert.h"
#include "framework/attrlog/StreamAdapter.h"

#include <algorithm>
#include <utility>

namespace Zek {

using Sa = Entity::ZekNboAttrLogSa;

namespace NboAttrLog {

// -- Plans ------------------------------------------------------------------------------------

namespace {

uint64_t
mixText( uint64_t hash, std::string_view text ) {
   // FNV-1a, and a byte that no text contains between two texts.
   for( char c : text ) hash = ( hash ^ static_cast< uint8_t >( c ) ) * 0x100000001b3;
   return ( hash ^ 0xff ) * 0x100000001b3;
}

constexpr uint64_t hashStart = 0xcbf29ce484222325;

} // namespace

uint32_t
Plan::signature( const AttributeRow & row ) {
   constexpr unsigned shape = isSet | ownsMembers | refersToMembers | keyIsField;
   uint64_t hash = mixText( hashStart, row.name );
   hash = mixText( hash, row.type->fullName );
   hash = mixText( hash, row.keyType ? row.keyType->fullName : "" );
   hash = mixText( hash, std::to_string( row.id ) );
   hash = mixText( hash, std::to_string( static_cast< unsigned >( row.kind ) ) );
   hash = mixText( hash, std::to_string( row.flags & shape ) );
   return static_cast< uint32_t >( hash ^ hash >> 32 );
}

uint8_t
Plan::sizeInState( const AttributeRow & row ) {
   if( row.collection ) return 1;
   return row.stored->hasWireForm() ? row.stored->wireSize : Wire::varies;
}

bool
Plan::covers( const TypeDescriptor & type ) {
   if( !type.isEntity() || !type.isMade() ) return false;
   auto arguments = type.constructorParameters;
   for( size_t i = 1; i < arguments.size(); ++i ) {
      const AttributeRow * row = type.attribute( arguments[i].name );
      if( !row || !row->isStored() ) return false;
   }
   return true;
}

Plan::Plan( const TypeDescriptor & described ) : type( described ) {
   std::vector< const TypeDescriptor * > line;
   for( const TypeDescriptor * t = &type; t; t = t->base ) line.insert( line.begin(), t );
   for( const TypeDescriptor * t : line ) {
      for( const AttributeRow & row : t->attributes ) {
         if( !row.collection && !row.isMutable() ) continue;
         attrIdsReqSync.push_back( row.id );
         if( row.id == entityAttr ) {
            children_ = &row;
         } else {
            ( row.collection ? collections : plain ).push_back( &row );
            if( !row.collection && !row.stored->hasWireForm() ) references.push_back( &row );
         }
      }
   }
   // So that most of a state stands at the same place in all records of a type.
   std::stable_partition( plain.begin(), plain.end(), []( const AttributeRow * row ) {
      return Wire::isFixed( sizeInState( *row ) );
   } );
   for( auto * rows : { &plain, &collections } ) {
      for( const AttributeRow * row : *rows ) {
         if( rows_.empty() ) firstAttrId_ = row->id;
         if( row->id < firstAttrId_ ) {
            rows_.insert( rows_.begin(), firstAttrId_ - row->id, nullptr );
            firstAttrId_ = row->id;
         }
         const size_t index = row->id - firstAttrId_;
         if( index >= rows_.size() ) rows_.resize( index + 1 );
         rows_[index] = row;
      }
   }
   if( children_ ) collections.push_back( children_ );
   std::sort( attrIdsReqSync.begin(), attrIdsReqSync.end() );
   auto arguments = type.constructorParameters;
   for( size_t i = 1; i < arguments.size(); ++i ) {
      parameters.push_back( type.attribute( arguments[i].name ) );
   }
   fingerprint = mixText( hashStart, type.fullName );
   for( const AttributeRow * row : parameters ) {
      fingerprint = mixText( fingerprint, std::to_string( signature( *row ) ) );
   }
   for( uint16_t id : attrIdsReqSync ) {
      fingerprint = mixText( fingerprint, std::to_string( signature( *type.attribute( id ) ) ) );
   }
}

// -- Flows ------------------------------------------------------------------------------------

std::unique_ptr< FlowOut >
Demuxer::createFlowOut( Out &, const EntityUriPath &, Entity::ZekNboAttrLogSa & sa, uint32_t first,
                        uint32_t last ) {
   return sa.createFlowOut( 0, first, last );
}

FlowOut::FlowOut( Sa & sa, uint32_t id, uint32_t first, uint32_t last )
   : sa_( sa ),
     plan_( sa.plan_ ),
     head_( *sa.head_ ),
     last_( last ),
     dirty_( plan_.bits() ) {
   head_.id = id;
   head_.generation = first;
}

FlowOut::~FlowOut() {
   close();
   Out & out = sa_.adapter().nboAttrLogOut();
   out.unqueue( *this );
   if( head_.id >= out.flows_.size() || out.flows_[head_.id] != &sa_ ) return;
   out.flows_[head_.id] = nullptr;
   --out.liveFlows_;
   if( head_.generation < last_ ) out.free_.push_back( { head_.id, head_.generation + 1 } );
}

DirtyCollection *
FlowOut::collection( uint16_t attrId ) const {
   for( auto & c : collections_ ) {
      if( c->row->id == attrId ) return c.get();
   }
   return nullptr;
}

DirtyCollection &
FlowOut::collectionIs( const AttributeRow & row ) {
   if( DirtyCollection * present = collection( row.id ) ) return *present;
   collections_.push_back( std::make_unique< DirtyCollection >() );
   collections_.back()->row = &row;
   return *collections_.back();
}

void
FlowOut::collectionDone( DirtyCollection & done ) {
   std::erase_if( collections_, [&]( auto & c ) { return c.get() == &done; } );
}

const DirtyKeys *
FlowOut::dirtyKeys( uint16_t attrId ) const {
   DirtyCollection * c = collection( attrId );
   return c ? &c->keys : nullptr;
}

bool
FlowOut::hasDirtyCollKeys() const {
   return std::any_of( collections_.begin(), collections_.end(),
                       []( auto & c ) { return !c->keys.empty(); } );
}

bool
FlowOut::zekIsKeyDirty( uint16_t attrId, const void * key ) const {
   const DirtyKeys * keys = dirtyKeys( attrId );
   return keys && keys->find( key ) != keys->end();
}

void
FlowOut::zekKeyDirtyIs( const AttributeRow & row, const void * key, bool removal ) {
   DirtyCollection & c = collectionIs( row );
   // What has not begun includes it anyway.
   if( c.whole && !c.resync ) return;
   auto at = c.keys.find( key );
   if( at != c.keys.end() ) {
      at->second |= removal;
   } else {
      c.keys.emplace( AnyKey( *row.keyType->values, key ), removal );
   }
   // Removals must not pile up behind a stalled reader.
   size_t members = row.collection->count( sa_.entity() );
   if( c.keys.size() > 2 * members + 16 ) wholeIs( row );
}

void
FlowOut::zekKeyDirtyIs( uint16_t attrId, const void * key, bool dirty ) {
   if( !dirty ) {
      zekKeyDirtyDel( attrId, key );
   } else if( const AttributeRow * row = sa_.plan_.row( attrId ) ) {
      zekKeyDirtyIs( *row, key, false );
   }
}

void
FlowOut::zekKeyDirtyDel( uint16_t attrId, const void * key ) {
   DirtyCollection * c = collection( attrId );
   if( !c ) return;
   auto at = c->keys.find( key );
   if( at != c->keys.end() ) c->keys.erase( at );
   if( c->keys.empty() && !c->whole && !c->resync ) collectionDone( *c );
}

void
FlowOut::allDirty() {
   close();
   dirty_.clear();
   stateDirty_ = !plan_.plain.empty() && sa_.is( Sa::withContent );
   if( stateDirty_ ) {
      for( const AttributeRow * row : plan_.plain ) dirty_.set( plan_.bit( row->id ), true );
   }
   for( const AttributeRow * row : plan_.collections ) {
      if( !sa_.covers( *row ) ) continue;
      if( stateDirty_ && row->collection->count( sa_.entity() ) == 0 ) {
         // The state says that it is empty.
         if( DirtyCollection * c = collection( row->id ) ) collectionDone( *c );
         dirty_.set( plan_.bit( row->id ), true );
      } else {
         wholeIs( *row );
      }
   }
}

void
FlowOut::allClean() {
   dirty_.clear();
   stateDirty_ = false;
   collections_.clear();
}

void
FlowOut::wholeIs( const AttributeRow & row ) {
   DirtyCollection & c = collectionIs( row );
   c.keys.clear();
   c.resync.reset();
   c.whole = true;
}

void
FlowOut::freeResyncState() {
   for( auto & c : collections_ ) {
      if( !c->resync ) continue;
      c->resync.reset();
      c->whole = true;
   }
}

void
FlowOut::resynchronise() {
   freeResyncState();
   for( auto & c : collections_ ) {
      [[maybe_unused]] DirtyCollection::ResyncState * rsc = c->resync.get();
      assertThat( !rsc || !rsc->hasBookmark(), "!rsc->bookmark()", "AttrLog" );
   }
   allDirty();
}

} // namespace NboAttrLog
} // namespace Zek
