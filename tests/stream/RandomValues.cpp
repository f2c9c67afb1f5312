#include "tests/stream/RandomValues.h"

#include <map>
#include <set>
#include <stdexcept>
#include <string>

namespace ipstate::test {

using namespace Zek;

namespace {

const std::map< std::string, std::vector< std::string >, std::less<> > &
texts() {
   static const std::map< std::string, std::vector< std::string >, std::less<> > all = {
      { "Zek::String", { "", "a", "bb", "Rib", "a longer text with 'quotes', commas" } },
      { "Zek::Name", { "a", "b", "c", "d" } },
      { "Velon::IntfId", { "Ethernet1", "Ethernet2", "Ethernet10", "Vlan7", "lo" } },
      { "Velon::IpAddr", { "10.0.0.1", "10.0.0.2", "0.0.0.0", "224.0.0.5" } },
      { "Velon::IpAddrWithMask", { "10.0.0.1/24", "10.0.0.2/24", "0.0.0.0/0", "10.1.0.1/32" } },
      { "Velon::Ip6Addr", { "::", "fe80::1", "2001:db8::1", "ff02::1" } },
      { "Velon::Ip6AddrWithMask", { "::/0", "fe80::1/64", "2001:db8::1/64", "2001:db8::2/128" } },
      { "Velon::IpGenAddr", { "10.0.0.1", "2001:db8::1" } },
      { "Velon::IpGenAddrWithMask", { "10.0.0.1/24", "10.0.0.1/25", "2001:db8::1/64" } },
      { "Velon::Prefix", { "10.0.0.0/8", "10.0.0.0/24", "0.0.0.0/0" } },
      { "Velon::Ip6Prefix", { "2001:db8::/32", "::/0" } },
      { "Velon::RouteDistinguisher", { "0:0", "65000:1", "10.0.0.1:7" } },
      { "Velon::NamespaceName", { "", "ns-red", "ns-blue" } },
      { "L3::VrfName", { "", "default", "red", "blue" } },
   };
   return all;
}

} // namespace

void
randomise( Random & random, const TypeDescriptor & type, void * value ) {
   if( auto found = texts().find( type.fullName ); found != texts().end() ) {
      const std::string & text =
         found->second[random.below( static_cast< uint32_t >( found->second.size() ) )];
      // Strings stand as they are, not as in the text of a value.
      if( &type == &TypeOf< String >::descriptor ) {
         *static_cast< String * >( value ) = String( text );
      } else if( !type.values->read( text, value ) ) {
         throw std::logic_error( "'" + text + "' is no " + type.fullName );
      }
      return;
   }
   switch( type.kind ) {
   case TypeKind::enumeration: {
      auto & row =
         type.enumerators[random.below( static_cast< uint32_t >( type.enumerators.size() ) )];
      type.values->read( row.name, value );
      return;
   }
   case TypeKind::scalar: {
      // The last is out of several attributes' range, where the type can hold it.
      const char * number = random.oneIn( 2 )    ? "1"
                            : random.oneIn( 2 )  ? "0"
                            : random.oneIn( 12 ) ? "65530"
                                                 : "100";
      if( type.values->read( number, value ) ) return;
      if( !type.values->read( random.oneIn( 2 ) ? "true" : "false", value ) ) {
         type.values->read( "7", value );
      }
      return;
   }
   case TypeKind::value:
      for( const AttributeRow & field : type.attributes ) {
         if( field.isStored() ) {
            randomise( random, field, const_cast< void * >( field.address( value ) ) );
         }
      }
      return;
   default:
      throw std::logic_error( std::string( "no values of " ) + type.fullName );
   }
}

void
randomise( Random & random, const AttributeRow & field, void * value ) {
   if( field.kind != AttributeKind::collection ) {
      randomise( random, *field.type, value );
      return;
   }
   struct Less {
      bool operator()( const AnyKey & a, const AnyKey & b ) const { return AnyKeyLess()( a, b ); }
   };
   std::set< AnyKey, Less > keys;
   for( uint32_t n = random.below( 3 ); n; --n ) keys.insert( randomKey( random, *field.keyType ) );
   Wire::Buffer bytes;
   Wire::Encoder out( bytes );
   out.u32( static_cast< uint32_t >( keys.size() ) );
   for( const AnyKey & key : keys ) field.keyType->values->encode( key.get(), out );
   Wire::Decoder in( bytes.data(), bytes.size() );
   if( !field.stored->decode( in, value ) ) throw std::logic_error( "no set" );
}

AnyKey
randomKey( Random & random, const TypeDescriptor & type ) {
   AnyKey key = AnyKey::zero( *type.values );
   randomise( random, type, key.get() );
   return key;
}

} // namespace ipstate::test
