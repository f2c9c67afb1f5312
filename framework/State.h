// All plain attributes of a type at once: what its state record has, and what it makes of one.
// Included by generated sources only.

#pragma once

#include "framework/Rows.h"

#include <cstring>
#include <tuple>
#include <type_traits>
#include <utility>

namespace Zek::Rows {

/// Writes behind a buffer's end; makes it known to the buffer now and then.
class StateWriter {
 public:
   /// `spare`: bytes that always have room, whatever texts there are.
   StateWriter( Wire::Buffer & out, size_t spare ) : out_( out ), spare_( spare ) { start( 0 ); }

   template< class U >
   void number( U value ) {
      value = Wire::networkOrder( value );
      std::memcpy( at_, &value, sizeof value );
      at_ += sizeof value;
   }
   void text( std::string_view text ) {
      number( static_cast< uint32_t >( text.size() ) );
      finish();
      start( text.size() );
      if( text.empty() ) return;
      std::memcpy( at_, text.data(), text.size() );
      at_ += text.size();
   }
   /// Its length, then the value as it encodes itself.
   template< class V >
   void value( const V & value ) {
      number( uint32_t( 0 ) );
      finish();
      const size_t begin = out_.size();
      Wire::Encoder encoder( out_ );
      encodeField( value, encoder );
      const auto length = Wire::networkOrder( static_cast< uint32_t >( out_.size() - begin ) );
      std::memcpy( out_.at( begin - sizeof length ), &length, sizeof length );
      start( 0 );
   }
   void finish() { out_.written( static_cast< size_t >( at_ - begin_ ) ); }

 private:
   void start( size_t text ) { at_ = begin_ = out_.room( spare_ + text ); }

   Wire::Buffer & out_;
   const size_t spare_;
   uint8_t * begin_;
   uint8_t * at_;
};

/// A plain attribute: its field, mutator and number.
template< auto Field, auto Write, uint16_t id >
struct Attribute {
   using Object = typename MemberPointer< decltype( Field ) >::Object;
   using Value = typename MemberPointer< decltype( Field ) >::Value;
   /// Without the bytes of texts.
   static constexpr size_t most = 10 + wireSize< Value >();

   static const Value & of( const Object & object ) { return object.*Field; }
   static void encode( const Object & object, StateWriter & out ) {
      const Value & value = of( object );
      out.number( id );
      if constexpr( WireNumber< Value > ) {
         out.number( uint32_t( wireSize< Value >() ) );
         out.number( wireNumber( value ) );
      } else if constexpr( WireText< Value > ) {
         const std::string_view text = value.view();
         out.number( static_cast< uint32_t >( text.size() + 4 ) );
         out.text( text );
      } else {
         out.value( value );
      }
   }
   /// `value`: what the object has, on the way in.
   static bool decode( Wire::Decoder & in, Value & value ) {
      constexpr size_t heading = sizeof id + sizeof( uint32_t );
      if( in.left() < heading || Wire::numberAt< uint16_t >( in.at() ) != id ) return false;
      const auto length = Wire::numberAt< uint32_t >( in.at() + sizeof id );
      in.skip( heading );
      if( in.left() < length ) return false;
      if constexpr( WireNumber< Value > ) {
         // What it has already needs no check.
         if( length != wireSize< Value >() ) return false;
         if( Wire::numberAt< decltype( wireNumber( value ) ) >( in.at() ) == wireNumber( value ) ) {
            in.skip( length );
            return true;
         }
      }
      const uint8_t * end = in.at() + length;
      return decodeField( in, value ) && in.at() == end;
   }
   static void write( Object & object, const Value & value ) {
      if( !( of( object ) == value ) ) ( object.*Write )( value );
   }
};

template< class... A >
struct StateOf {
   using Object = typename std::tuple_element_t< 0, std::tuple< A... > >::Object;
   using Values = std::tuple< typename A::Value... >;

   static void encode( const void * object, Wire::Buffer & out ) {
      StateWriter writer( out, ( A::most + ... ) );
      ( A::encode( *static_cast< const Object * >( object ), writer ), ... );
      writer.finish();
   }
   static bool take( Wire::Decoder & in, void * object, StateTaker & taker ) {
      return take( in, *static_cast< Object * >( object ), taker,
                   std::index_sequence_for< A... >() );
   }
   template< size_t... I >
   static bool take( Wire::Decoder & in, Object & object, StateTaker & taker,
                     std::index_sequence< I... > ) {
      // From what there is: what does not change needs no memory.
      Values values{ A::of( object )... };
      if( !( A::decode( in, std::get< I >( values ) ) && ... ) || !taker.rest( in ) ) return false;
      for( size_t next = 0; next != sizeof...( A ); ) {
         try {
            // Those before it threw are done.
            ( ( I < next ? void() : ( next = I + 1, A::write( object, std::get< I >( values ) ) ) ),
              ... );
         } catch( ... ) {
            taker.refused( next - 1 );
         }
      }
      return true;
   }
};

template< class... A >
inline constexpr StateOps stateOf = { &StateOf< A... >::encode, &StateOf< A... >::take };

} // namespace Zek::Rows
