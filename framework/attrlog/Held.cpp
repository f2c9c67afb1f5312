// What waits for what it refers to.

#include "framework/attrlog/InParts.h"

namespace Zek {

using Sa = Entity::ZekNboAttrLogSa;

namespace NboAttrLog {

/// A record that was read waits, or takes the place of one that did.
void
In::settle( const FrameHeader & header, std::string_view key, bool complete, const uint8_t * body,
            size_t size ) {
   if( !complete || isProvisional_ ) {
      hold( header, key, complete ? Awaited{} : awaited_, body, size );
   } else {
      dropHeld( header.flow, header.attribute, key );
   }
}

void
In::hold( const FrameHeader & header, std::string_view key, Awaited awaited, const uint8_t * body,
          size_t size ) {
   dropHeld( header.flow, header.attribute, key );
   if( held_.size() >= quota.held || size > quota.heldBytes - heldBytes_ ) {
      malformed( header, "fewer references that wait", 0 );
   }
   const bool isInstance = header.kind == Kind::instantiate || header.kind == Kind::adopt;
   const uint32_t names = isInstance ? Wire::numberAt< uint32_t >( body ) : 0;
   const uint32_t generation = names ? flows_[names].generation : 0;
   held_[{ header.flow, header.attribute, std::string( key ) }] = {
      header.kind, awaited, generation, std::vector< uint8_t >( body, body + size )
   };
   heldBytes_ += size;
}

/// A newer record says what the attribute, or member, is.
void
In::dropHeld( uint32_t flow, uint16_t attribute, std::string_view key ) {
   if( held_.empty() ) return;
   auto at = held_.find( { flow, attribute, std::string( key ) } );
   if( at == held_.end() ) return;
   heldBytes_ -= at->second.body.size();
   held_.erase( at );
}

/// All of some attributes.
void
In::dropHeld( uint32_t flow, uint16_t first, uint16_t last ) {
   auto at = held_.lower_bound( { flow, first, {} } );
   while( at != held_.end() && std::get< 0 >( at->first ) == flow &&
          std::get< 1 >( at->first ) <= last ) {
      heldBytes_ -= at->second.body.size();
      at = held_.erase( at );
   }
}

/// A record refers to what is not here. False when it is to wait for that. But the owner takes no
/// write that leads nowhere at it, and what a write of this end overtakes is void.
bool
In::settledWithout( Sa & sa, const AttributeRow & row, const void * key ) {
   if( !sa.is( Sa::fromPeer ) ) return !passesFence( sa, row, key );
   ++refused_;
   lastRefusal_ =
      "'" + EntityUriPath( *sa.entity_ ).text() + "." + row.name + "' refers to what is not here";
   refusedIs( sa, row, key );
   return true;
}

/// This end writes to the owner: what the owner said before is void, also where it waits, and what
/// it does not mention in a collection that it is telling may be what it has not seen yet.
void
In::overtaken( Sa & sa, const AttributeRow & row, const void * key ) {
   if( !held_.empty() && sa.flowIn_ ) {
      if( row.collection && !key ) {
         dropHeld( sa.flowIn_, row.id, row.id );
      } else {
         Wire::Buffer bytes;
         Wire::Encoder encoder( bytes );
         if( key ) row.keyType->values->encode( key, encoder );
         dropHeld( sa.flowIn_, row.id, bytes.view() );
      }
   }
   if( !row.collection ) return;
   if( key ) {
      mention( sa, row, key );
      return;
   }
   auto isOf = [&]( auto & part ) { return part.sa.ptr() == &sa && part.row == &row; };
   std::erase_if( wholes_, isOf );
   std::erase_if( sweeps_, isOf );
}

void
In::retryHeld() {
   bound_ = 0;
   auto waiting = std::move( held_ );
   held_.clear();
   heldBytes_ = 0;
   for( auto & [place, held] : waiting ) {
      const auto & [id, attribute, key] = place;
      Flow & flow = flows_[id];
      if( !flow.sa ) continue;
      const Awaited awaited = held.awaited;
      if( awaited.id && flows_[awaited.id].generation != awaited.generation ) continue; // gone
      FrameHeader header{};
      header.flow = id;
      header.attribute = attribute;
      header.kind = held.kind;
      if( held.kind != Kind::instantiate && held.kind != Kind::adopt ) {
         Wire::Decoder body( held.body.data(), held.body.size() );
         entityRecord( flow, header, body );
      } else if( !retryInstance( *flow.sa, place, held ) ) {
         held.awaited = isProvisional_ ? Awaited{} : awaited_;
         heldBytes_ += held.body.size();
         held_[place] = std::move( held );
      }
   }
}

/// False while the instance waits on for its arguments. With them it is asked for again, and so all
/// that was passed over meanwhile; unless it has turned out to be what stands here, or is gone:
/// then another has its flow's number.
bool
In::retryInstance( Sa & sa, const HeldPlace & place, const Held & held ) {
   const auto & [parent, attribute, keyBytes] = place;
   Scratch scratch;
   const ValueOps & keyOps = *sa.plan_.row( attribute )->keyType->values;
   void * key = scratch.make( keyOps );
   Wire::Decoder body( held.body.data(), held.body.size() );
   FlowName flow;
   if( !flowName( body, flow ) ) return false;
   if( flow.id && flows_[flow.id].generation != held.generation ) return true;
   const WireType * wire = wireType( body );
   if( !wire || !keyOps.decode( body, key ) ) return false;
   Plan & plan = adapter_.plan( *wire->type );
   std::vector< const void * > arguments{ key };
   isProvisional_ = false;
   if( !readArguments( plan, body, scratch, arguments ) || isProvisional_ ) return false;
   if( Sa * bound = flow.id ? flows_[flow.id].sa : nullptr ) {
      if( isSame( *bound->entity_, plan, arguments ) ) return true;
      unbind( *bound );
   }
   again( parent, attribute, keyBytes, flow.id );
   return true;
}

bool
In::passesFence( Sa & sa, const AttributeRow & row, const void * key ) {
   if( mayApply( sa, row, key ) ) return true;
   passedOver( sa, row, key );
   return false;
}

/// What this end wrote, the owner may not take, or take for another instance's: what it has then is
/// asked for.
void
In::passedOver( Sa & sa, const AttributeRow & row, const void * key ) {
   if( !sa.flowIn_ ) return;
   Wire::Buffer bytes;
   Wire::Encoder encoder( bytes );
   if( key ) row.keyType->values->encode( key, encoder );
   auto [place, isNew] = passedOver_.emplace( sa.flowIn_, row.id, bytes.view() );
   if( isNew ) fences_.emplace_back( adapter_.out_.records_, place );
}

/// Whether what this end wrote of it is still on its way.
bool
In::isFenced( const HeldPlace & place ) {
   const auto & [id, attribute, keyBytes] = place;
   Sa * sa = flows_[id].sa;
   const AttributeRow * row = sa ? sa->plan_.row( attribute ) : nullptr;
   if( !row ) return false;
   if( keyBytes.empty() ) return !mayApply( *sa, *row, nullptr );
   if( !row->collection ) return false; // another instance has the flow by now
   Scratch scratch;
   void * key = scratch.make( *row->keyType->values );
   Wire::Decoder body( keyBytes.data(), keyBytes.size() );
   return row->keyType->values->decode( body, key ) && !mayApply( *sa, *row, key );
}

/// Each is looked at once for each time that the owner has seen all there was.
void
In::askForPassedOver() {
   while( !fences_.empty() && fences_.front().first <= acked_ ) {
      const auto place = fences_.front().second;
      fences_.pop_front();
      if( isFenced( *place ) ) {
         fences_.emplace_back( adapter_.out_.records_ + 1, place );
         continue;
      }
      const auto node = passedOver_.extract( place );
      const auto & [id, attribute, key] = node.value();
      if( flows_[id].sa ) again( id, attribute, key, 0 );
   }
}

void
In::again( uint32_t parent, uint16_t attribute, std::string_view key, uint32_t flow ) {
   if( flow ) flows_[flow].asked = true;
   if( wanted_.size() >= quota.held || key.size() > quota.heldBytes - wantedBytes_ ) {
      FrameHeader header{};
      header.flow = parent;
      header.attribute = attribute;
      malformed( header, "fewer members that are wanted again", 0 );
   }
   if( wanted_.emplace( parent, attribute, key ).second ) wantedBytes_ += key.size();
   askAgain();
}

void
In::askAgain() {
   while( !wanted_.empty() && adapter_.out_.hasSufficientBuffer() ) {
      const auto place = wanted_.extract( wanted_.begin() );
      const auto & [parent, attribute, key] = place.value();
      wantedBytes_ -= key.size();
      Wire::Encoder body = adapter_.out_.control( againControl );
      body.u32( parent );
      body.u16( attribute );
      body.bytes( key.data(), key.size() );
      adapter_.out_.controlEnd();
   }
}

} // namespace NboAttrLog
} // namespace Zek
