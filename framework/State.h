// All plain attributes of a type at once: what its state record has, and what it makes of one.
// Included by generated sources only.

#pragma once

#include "framework/Rows.h"

#include <cstring>
#include <tuple>
#include <type_traits>
#include <utility>

namespace Zek::Rows {

/// Writes behind a buffer's end, as an Encoder; makes it known to the buffer now and then.
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
   void u8( uint8_t value ) { number( value ); }
   void u32( uint32_t value ) { number( value ); }
   void u64( uint64_t value ) { number( value ); }
   void text( std::string_view text ) {
      number( static_cast< uint32_t >( text.size() ) );
      if( text.empty() ) return;
      finish();
      start( text.size() );
      std::memcpy( at_, text.data(), text.size() );
      at_ += text.size();
   }
   /// The value behind its length.
   template< class V >
   void counted( const V & value ) {
      const size_t begin = size();
      number( uint32_t( 0 ) );
      encodeField( value, *this );
      const uint32_t count =
         Wire::networkOrder( static_cast< uint32_t >( size() - begin - sizeof count ) );
      std::memcpy( out_.at( begin ), &count, sizeof count );
   }
   template< class Write >
   void byEncoder( Write write ) {
      finish();
      Wire::Encoder encoder( out_ );
      write( encoder );
      start( 0 );
   }
   void finish() { out_.written( static_cast< size_t >( at_ - begin_ ) ); }

 private:
   size_t size() const { return out_.size() + static_cast< size_t >( at_ - begin_ ); }
   void start( size_t text ) { at_ = begin_ = out_.room( spare_ + text ); }

   Wire::Buffer & out_;
   const size_t spare_;
   uint8_t * begin_;
   uint8_t * at_;
};

/// The bytes of any value, without those of texts and of what is left to an Encoder.
template< class V >
constexpr size_t
roomOf() {
   if constexpr( requires { typename V::ZekFields; } ) {
      return V::ZekFields::sum(
         []< class F >( std::type_identity< F > ) { return roomOf< F >(); } );
   } else {
      return Wire::isFixed( wireSize< V >() ) ? wireSize< V >() : sizeof( uint32_t );
   }
}

/// A plain attribute: its field, its number, and its mutator, null where that does no more than to
/// store what differs and to tell of it.
template< auto Field, auto Write, uint16_t number >
struct Attribute {
   using Object = typename MemberPointer< decltype( Field ) >::Object;
   using Value = typename MemberPointer< decltype( Field ) >::Value;
   static constexpr uint16_t id = number;
   static constexpr uint8_t size = wireSize< Value >();
   static constexpr bool isFixed = Wire::isFixed( size );
   static constexpr bool onlyStores = Write == nullptr;
   static constexpr size_t room = roomOf< Value >() + sizeof( uint32_t ); // and for its length

   static const Value & of( const Object & object ) { return object.*Field; }
   static void encode( const Object & object, StateWriter & out ) {
      if constexpr( size == Wire::varies ) {
         out.counted( of( object ) );
      } else {
         encodeField( of( object ), out );
      }
   }

   static void write( Object & object, Value & value ) {
      if constexpr( onlyStores ) {
         object.*Field = std::move( value );
      } else {
         ( object.*Write )( value );
      }
   }
};

/// What a record says of an attribute.
template< class A >
class Said {
 public:
   using Object = typename A::Object;
   using Value = typename A::Value;

   /// Spelled out, and numbers without a value at first: nothing is cleared that is written anyway.
   Said() {}

   /// False where it is no such value.
   bool decode( Wire::FixedReader & in, const Object & object ) requires( A::isFixed ) {
      if constexpr( A::onlyStores ) return decodeField( in, value_ );
      const Value & here = A::of( object );
      if constexpr( WireNumber< Value > ) {
         // What there is already needs no check.
         const auto number = wireNumber( here );
         if( Wire::numberAt< std::remove_const_t< decltype( number ) > >( in.at() ) == number ) {
            in.skip( sizeof number );
            return true;
         }
      }
      if( !decodeField( in, value_ ) ) return false;
      differs_ = !( value_ == here );
      return true;
   }
   bool decode( Wire::Decoder & in,
                const Object & object ) requires( A::size == Wire::countsItself ) {
      const uint8_t * start = in.at();
      std::string_view text;
      if( !in.text( text ) ) return false;
      differs_ = A::of( object ).view() != text;
      if( !differs_ ) return true;
      Wire::Decoder again( start, static_cast< size_t >( in.at() - start ) );
      return decodeField( again, value_ );
   }
   bool decode( Wire::Decoder & in, const Object & object ) requires( A::size == Wire::varies ) {
      const Value & here = A::of( object );
      std::string_view bytes;
      if( !in.text( bytes ) ) return false;
      Wire::Decoder same( bytes.data(), bytes.size() );
      if( saysField( same, here ) && !same.left() ) return true;
      Wire::Decoder value( bytes.data(), bytes.size() );
      value_ = here; // texts that are the same need no memory
      if( !decodeField( value, value_ ) || value.left() ) return false;
      differs_ = !( value_ == here );
      return true;
   }
   void apply( Object & object ) {
      // To store what is there already costs less than to compare.
      if( ( A::isFixed && A::onlyStores ) || differs_ ) A::write( object, value_ );
   }

 private:
   Value value_;
   bool differs_ = false;
};

template< class... A >
struct StateOf {
   using Object = typename std::tuple_element_t< 0, std::tuple< A... > >::Object;

   static constexpr size_t fixedBytes = ( size_t( A::isFixed ? A::size : 0 ) + ... );

   static void encode( const void * at, Wire::Buffer & out ) {
      const auto & object = *static_cast< const Object * >( at );
      StateWriter writer( out, ( A::room + ... ) );
      ( encode< A, true >( object, writer ), ... );
      ( encode< A, false >( object, writer ), ... );
      writer.finish();
   }
   static bool take( Wire::Decoder & in, void * at, StateTaker & taker ) {
      return take( in, *static_cast< Object * >( at ), taker, std::index_sequence_for< A... >() );
   }

 private:
   template< class Each, bool fixed >
   static void encode( const Object & object, StateWriter & writer ) {
      if constexpr( Each::isFixed == fixed ) Each::encode( object, writer );
   }
   template< bool fixed, class Each, class In >
   static bool decode( Said< Each > & said, In & in, const Object & object ) {
      if constexpr( Each::isFixed == fixed ) return said.decode( in, object );
      return true;
   }
   template< size_t... I >
   static bool take( Wire::Decoder & in, Object & object, StateTaker & taker,
                     std::index_sequence< I... > ) {
      if( in.left() < fixedBytes ) return false;
      std::tuple< Said< A >... > said;
      Wire::FixedReader fixed( in.at() );
      in.skip( fixedBytes );
      if( !( decode< true >( std::get< I >( said ), fixed, object ) && ... ) ||
          !( decode< false >( std::get< I >( said ), in, object ) && ... ) || !taker.rest( in ) ) {
         return false;
      }
      ( apply( std::get< I >( said ), object, taker ), ... );
      return true;
   }
   template< class Each >
   static void apply( Said< Each > & said, Object & object, StateTaker & taker ) {
      try {
         said.apply( object );
      } catch( ... ) {
         taker.refused( Each::id );
      }
   }
};

template< class... A >
inline constexpr StateOps stateOf = { &StateOf< A... >::encode, &StateOf< A... >::take };

} // namespace Zek::Rows
