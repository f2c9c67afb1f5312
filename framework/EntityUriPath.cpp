#include "framework/EntityUriPath.h"

#include "framework/AnyKey.h"
#include "framework/Exception.h"

namespace Zek {

namespace {

constexpr uint16_t deepest = 64;
constexpr size_t longest = 512; // text of a path, about

void
encodeSteps( const Entity & entity, uint16_t count, Wire::Encoder & out ) {
   const Entity * parent = entity.parent();
   if( !parent ) {
      out.u16( count );
      return;
   }
   encodeSteps( *parent, static_cast< uint16_t >( count + 1 ), out );
   const AttributeRow & row = *parent->fwkType()->attribute( entity.parentAttrId() );
   out.u16( row.id );
   const Wire::Counted counted( out );
   withMemberKey( row, &entity,
                  [&]( const void * key ) { row.keyType->values->encode( key, out ); } );
}

const Entity *
member( const Entity & entity, uint16_t attrId, std::string_view keyBytes ) {
   const AttributeRow * row = entity.fwkType()->attribute( attrId );
   if( !row || !row->collection || !row->has( ownsMembers ) ) return nullptr;
   AnyKey key = AnyKey::zero( *row->keyType->values );
   Wire::Decoder in( keyBytes.data(), keyBytes.size() );
   try {
      if( !key.ops().decode( in, key.get() ) || in.left() ) return nullptr;
   } catch( const RangeException & ) {
      return nullptr; // nothing stands under a key that is out of bounds
   }
   return static_cast< const Entity * >( row->collection->find( &entity, key.get() ) );
}

} // namespace

std::string
EntityUriPath::text() const {
   std::string out;
   for( char c : entity_.fullName().view() ) {
      if( out.size() >= longest ) return out += "...";
      const auto byte = static_cast< unsigned char >( c );
      if( byte >= 0x20 && byte != 0x7f ) {
         out += c;
      } else {
         constexpr const char * digits = "0123456789abcdef";
         out += { '\\', 'x', digits[byte >> 4], digits[byte & 15] };
      }
   }
   return out;
}

const Entity &
EntityUriPath::root() const {
   const Entity * at = &entity_;
   while( at->parent() ) at = at->parent();
   return *at;
}

void
EntityUriPath::encodeTo( Wire::Encoder & out ) const {
   encodeSteps( entity_, 0, out );
}

Entity *
EntityUriPath::resolve( const Entity & root, Wire::Decoder & in ) {
   uint16_t steps;
   if( !in.u16( steps, "a count of steps" ) ) return nullptr;
   if( steps > deepest ) {
      in.fail( "64 steps or fewer" );
      return nullptr;
   }
   const Entity * at = &root;
   for( ; steps; --steps ) {
      uint16_t attrId;
      std::string_view key;
      if( !in.u16( attrId, "the number of a collection" ) || !in.text( key, "a key" ) ) {
         return nullptr;
      }
      if( at ) at = member( *at, attrId, key );
   }
   return const_cast< Entity * >( at );
}

} // namespace Zek
