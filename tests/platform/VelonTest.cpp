#include "framework/Exception.h"
#include "platform/Velon/AddressFamily.h"
#include "platform/Velon/IntfId.h"
#include "platform/Velon/Ip6Addr.h"
#include "platform/Velon/IpAddr.h"
#include "platform/Velon/IpGenAddr.h"
#include "platform/Velon/NamespaceName.h"
#include "platform/Velon/Prefix.h"
#include "platform/Velon/RouteDistinguisher.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <random>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

using namespace Velon;

namespace {

std::mt19937_64 &
random() {
   static std::mt19937_64 engine( 1 );
   return engine;
}

// Random values in which zeros, ones and boundaries are frequent.

uint64_t
bits( unsigned count ) {
   uint64_t value = random()();
   if( random()() % 4 == 0 ) value = 0;
   if( random()() % 4 == 0 ) value = ~uint64_t( 0 );
   return count == 64 ? value : value & ( ( uint64_t( 1 ) << count ) - 1 );
}

unsigned
below( unsigned limit ) {
   return static_cast< unsigned >( random()() % limit );
}

void
pick( IpAddr & out ) {
   out = IpAddr( static_cast< uint32_t >( bits( 32 ) ) );
}
void
pick( Ip6Addr & out ) {
   uint64_t high = bits( 64 );
   uint64_t low = bits( 64 );
   for( int group = 0; group < 4; ++group ) {
      if( below( 2 ) ) high &= ~( uint64_t( 0xffff ) << 16 * group );
      if( below( 2 ) ) low &= ~( uint64_t( 0xffff ) << 16 * group );
   }
   out = below( 8 ) ? Ip6Addr( high, low ) : Ip6Addr( 0, 0xffff00000000 | low >> 32 );
}
void
pick( IpAddrWithMask & out ) {
   IpAddr addr;
   pick( addr );
   out = IpAddrWithMask( addr, below( 33 ) );
}
void
pick( Ip6AddrWithMask & out ) {
   Ip6Addr addr;
   pick( addr );
   out = Ip6AddrWithMask( addr, below( 129 ) );
}
template< class Addr, class WithMask >
void
pick( PrefixOf< Addr, WithMask > & out ) {
   WithMask addr;
   pick( addr );
   out = PrefixOf< Addr, WithMask >( addr );
}
template< class V4, class V6, class Gen >
void
pickEither( Gen & out ) {
   V4 v4;
   V6 v6;
   pick( v4 );
   pick( v6 );
   unsigned family = below( 5 );
   out = family == 0 ? Gen() : family % 2 ? Gen( v4 ) : Gen( v6 );
}
void
pick( IpGenAddr & out ) {
   pickEither< IpAddr, Ip6Addr >( out );
}
void
pick( IpGenAddrWithMask & out ) {
   pickEither< IpAddrWithMask, Ip6AddrWithMask >( out );
}
void
pick( RouteDistinguisher & out ) {
   out = RouteDistinguisher( uint64_t( below( 4 ) ) << 48 | bits( 48 ) );
}
void
pick( IntfId & out ) {
   static const char * parts[] = { "Ethernet", "1", "10", "01", "/", "2", "", "lo", "\x80" };
   std::string text;
   for( int n = 0; n < 4; ++n ) text += parts[below( std::size( parts ) )];
   out = IntfId( text );
}
void
pick( NamespaceName & out ) {
   out = NamespaceName( "ns-" + std::string( below( 148 ), 'x' ) );
}

template< class T >
class Value : public testing::Test {};
using Values =
   testing::Types< IntfId, IpAddr, IpAddrWithMask, Ip6Addr, Ip6AddrWithMask, Prefix, Ip6Prefix,
                   IpGenAddr, IpGenAddrWithMask, RouteDistinguisher, NamespaceName >;
TYPED_TEST_SUITE( Value, Values );

// What every value type promises: one text per value and back, a strict total order that agrees
// with equality, a hash that agrees with equality and scatters.
TYPED_TEST( Value, ReadsBackOrdersAndHashes ) {
   EXPECT_EQ( TypeParam(), TypeParam{} );
   EXPECT_FALSE( static_cast< bool >( TypeParam() ) );
   std::vector< TypeParam > values( 300 );
   for( TypeParam & value : values ) pick( value );
   for( const TypeParam & a : values ) {
      TypeParam read;
      ASSERT_TRUE( TypeParam::fromText( a.toString(), read ) ) << a;
      ASSERT_EQ( read, a );
      std::ostringstream out;
      out << a;
      ASSERT_EQ( out.str(), a.toString() );
      for( const TypeParam & b : values ) {
         bool same = a == b;
         ASSERT_EQ( same, a.toString() == b.toString() ) << a << " " << b;
         ASSERT_EQ( ( a < b ) + ( b < a ) + same, 1 ) << a << " " << b;
         if( same ) {
            ASSERT_EQ( a.hash(), b.hash() );
         }
         if( !same ) {
            ASSERT_NE( a.hash(), b.hash() ) << a << " " << b;
         }
         const TypeParam & c = values[below( 300 )];
         if( a < b && b < c ) {
            ASSERT_TRUE( a < c ) << a << " " << b << " " << c;
         }
      }
   }
}

template< class T >
std::string
refused( const char * text ) {
   T untouched;
   pick( untouched );
   T before( untouched );
   EXPECT_FALSE( T::fromText( text, untouched ) ) << text;
   EXPECT_EQ( untouched, before );
   try {
      T value{ std::string_view( text ) };
      return "accepted as " + value.toString();
   } catch( const Zek::RangeException & e ) {
      return e.what();
   }
}

template< class T >
void
expectRefused( const char * type, std::vector< std::pair< const char *, int > > rows ) {
   for( auto [text, offset] : rows ) {
      EXPECT_EQ( refused< T >( text ), std::string( type ) + " expected at offset " +
                                          std::to_string( offset ) + " of '" + text + "'" );
   }
}

TEST( Velon, ReadersRefuseWhatIsNotTheWholeTextOfAValue ) {
   expectRefused< IpAddr >( "Velon::IpAddr", { { "", 0 },
                                               { "10.x.0.1", 3 },
                                               { "10.0.0", 6 },
                                               { "10.0.0.1 ", 8 },
                                               { " 10.0.0.1", 0 },
                                               { "10.0.0.1.2", 8 },
                                               { "10.0.0.256", 7 },
                                               { "010.0.0.1", 0 },
                                               { "10.00.0.1", 3 },
                                               { "10.+1.0.1", 3 },
                                               { "0x10.0.0.1", 1 },
                                               { "99999999999999999999999.0.0.1", 0 } } );
   expectRefused< IpAddrWithMask >( "Velon::IpAddrWithMask", { { "10.0.0.1", 8 },
                                                               { "10.0.0.1/", 9 },
                                                               { "10.0.0.1/33", 9 },
                                                               { "10.0.0.1/024", 9 },
                                                               { "10.0.0.1/+24", 9 },
                                                               { "10.0.0.1/ 24", 9 },
                                                               { "10.0.0.1/24x", 11 },
                                                               { "10.0.0.1/255.0.0.0", 9 } } );
   expectRefused< Ip6Addr >( "Velon::Ip6Addr", { { "", 0 },
                                                 { ":", 0 },
                                                 { ":::", 2 },
                                                 { "1::2::3", 5 },
                                                 { "1:2:3:4:5:6:7", 13 },
                                                 { "1:2:3:4:5:6:7:8:9", 15 },
                                                 { "1:2:3:4::5:6:7:8", 16 },
                                                 { "12345::", 0 },
                                                 { "fe80::1%eth0", 7 },
                                                 { "1:2:3:4:5:6:7:", 14 },
                                                 { "::1.2.3", 7 },
                                                 { "::1.2.3.04", 8 },
                                                 { "::1.2.3.4:5", 9 },
                                                 { "1.2.3.4", 7 },
                                                 { "g::", 0 } } );
   expectRefused< Ip6AddrWithMask >( "Velon::Ip6AddrWithMask",
                                     { { "fe80::1", 7 }, { "fe80::1/129", 8 }, { "::/00", 3 } } );
   expectRefused< Prefix >( "Velon::Prefix", { { "10.0.0.1/24", 0 }, { "10.0.0.0", 8 } } );
   expectRefused< Ip6Prefix >( "Velon::Ip6Prefix", { { "fe80::1/64", 0 } } );
   expectRefused< IpGenAddr >( "Velon::IpGenAddr",
                               { { " ", 0 }, { "x", 0 }, { "10", 2 }, { "10.0.0.1/8", 8 } } );
   expectRefused< IpGenAddrWithMask >( "Velon::IpGenAddrWithMask",
                                       { { "::/129", 3 }, { "1.2.3.4/33", 8 }, { "/0", 0 } } );
   expectRefused< RouteDistinguisher >( "Velon::RouteDistinguisher",
                                        { { "", 0 },
                                          { "65536:1", 5 },
                                          { "65535:4294967296", 6 },
                                          { "10.0.0.1:65536", 9 },
                                          { "65536L:65536", 7 },
                                          { "4294967296L:1", 0 },
                                          { "1l:1", 1 },
                                          { "01:1", 0 },
                                          { "0x0003", 2 },
                                          { "0x0000000000000001", 2 } } );
}

TEST( Velon, Ip6TextsAgreeWithThoseOfTheCLibrary ) {
   const char letters[] = "0123456789abcdefF:.:::";
   for( int n = 0; n < 100000; ++n ) {
      Ip6Addr addr;
      pick( addr );
      std::string text = addr.toString();
      char buffer[INET6_ADDRSTRLEN];
      inet_ntop( AF_INET6, addr.bytes().data(), buffer, sizeof buffer );
      // The C library also writes ::/96 with a dotted tail, which is no longer recommended.
      if( addr.masked( 96 ) ) {
         ASSERT_EQ( text, buffer );
      }
      for( unsigned edits = below( 4 ); edits > 0 && !text.empty(); --edits ) {
         size_t at = below( static_cast< unsigned >( text.size() ) );
         if( below( 2 ) ) {
            text.insert( at, 1, letters[below( sizeof letters - 1 )] );
         } else {
            text.erase( at, 1 );
         }
      }
      uint8_t bytes[16];
      bool valid = inet_pton( AF_INET6, text.c_str(), bytes ) == 1;
      ASSERT_EQ( Ip6Addr::fromText( text, addr ), valid ) << text;
      if( valid ) {
         ASSERT_EQ( addr, Ip6Addr::fromBytes( bytes ) ) << text;
      }
   }
}

TEST( Velon, Ip6AddressesAreWrittenInTheirCanonicalForm ) {
   for( auto [text, canonical] : { std::pair( "0:0:0:0:0:0:0:0", "::" ),
                                   { "::0001", "::1" },
                                   { "2001:DB8::00AB", "2001:db8::ab" },
                                   { "1:0:0:2:0:0:0:3", "1:0:0:2::3" },
                                   { "1:0:0:2:3:0:0:4", "1::2:3:0:0:4" },
                                   { "1:0:2:3:4:5:6:7", "1:0:2:3:4:5:6:7" },
                                   { "1:2:3:4:5:6::", "1:2:3:4:5:6::" },
                                   { "1:2:3:4:5:6:7::", "1:2:3:4:5:6:7:0" },
                                   { "::ffff:a00:1", "::ffff:10.0.0.1" },
                                   { "::10.0.0.1", "::a00:1" },
                                   { "64:ff9b::1.2.3.4", "64:ff9b::102:304" } } ) {
      EXPECT_EQ( Ip6Addr( text ).toString(), canonical );
   }
}

TEST( Velon, AddressesKnowWhatTheyAreFor ) {
   struct {
      const char * text;
      const char * kinds; // link-local, site-local, unique-local, multicast, loopback, zero
   } rows[] = {
      { "fe80::1", "l" }, { "febf:ffff::", "l" }, { "fec0::", "s" }, { "feff::1", "s" },
      { "fc00::", "u" },  { "fdff::1", "u" },     { "fe7f::", "" },  { "fe00::", "" },
      { "ff02::1", "m" }, { "ffff::", "m" },      { "::1", "o" },    { "::", "z" },
      { "::2", "" },      { "1::1", "" },         { "fbff::", "" },  { "2001:db8::1", "" },
   };
   for( const auto & row : rows ) {
      Ip6Addr a( row.text );
      std::string kinds;
      if( a.isLinkLocal() ) kinds += 'l';
      if( a.isSiteLocal() ) kinds += 's';
      if( a.isUniqueLocal() ) kinds += 'u';
      if( a.isMulticast() ) kinds += 'm';
      if( a.isLoopback() ) kinds += 'o';
      if( a.isUnspecified() ) kinds += 'z';
      EXPECT_EQ( kinds, row.kinds ) << row.text;
   }
   EXPECT_TRUE( IpAddr( "224.0.0.0" ).isMulticast() && IpAddr( "239.255.255.255" ).isMulticast() );
   EXPECT_FALSE( IpAddr( "223.255.255.255" ).isMulticast() || IpAddr( "240.0.0.0" ).isMulticast() );
   EXPECT_TRUE( IpAddr( "169.254.3.4" ).isLinkLocal() && !IpAddr( "169.253.3.4" ).isLinkLocal() );
   EXPECT_EQ( ip6AddrZero, Ip6Addr( "::" ) );
   EXPECT_EQ( ip6AddrLoopback, Ip6Addr( "::1" ) );
   EXPECT_EQ( IpAddr( 10, 0, 0, 1 ).networkOrder(), htonl( 0x0a000001 ) );
   EXPECT_EQ( IpAddr::fromBytes( IpAddr( "1.2.3.4" ).bytes().data() ), IpAddr( 1, 2, 3, 4 ) );
   EXPECT_EQ( IpAddrWithMask( "10.1.2.3/22" ).broadcast(), IpAddr( "10.1.3.255" ) );
}

TEST( Velon, AddressesOrderByNumberThenLength ) {
   EXPECT_LT( IpAddr( "9.255.255.255" ), IpAddr( "10.0.0.0" ) );
   EXPECT_LT( IpAddr( "1.0.0.2" ), IpAddr( "2.0.0.1" ) );
   EXPECT_LT( IpAddrWithMask( "10.0.0.1/32" ), IpAddrWithMask( "10.0.0.2/8" ) );
   EXPECT_LT( IpAddrWithMask( "10.0.0.1/8" ), IpAddrWithMask( "10.0.0.1/32" ) );
   EXPECT_LT( Ip6Addr( "1::ffff" ), Ip6Addr( "100::" ) );
   EXPECT_LT( Ip6Addr( "1::1" ), Ip6Addr( "1::100" ) );
   EXPECT_LT( Ip6AddrWithMask( "fe80::1/64" ), Ip6AddrWithMask( "fe80::1/128" ) );
   EXPECT_LT( Ip6AddrWithMask( "fe80::1/128" ), Ip6AddrWithMask( "fe80::2/0" ) );
   EXPECT_LT( IpGenAddrWithMask( "::1/128" ), IpGenAddrWithMask( "::2/0" ) );
}

TEST( Velon, CommonPrefixesAndPrefixesAgreeBitByBit ) {
   for( unsigned bit = 0; bit < 128; ++bit ) {
      Ip6Addr a;
      pick( a );
      uint64_t flip = uint64_t( 1 ) << ( 63 - bit % 64 );
      Ip6Addr b( a.high() ^ ( bit < 64 ? flip : 0 ), a.low() ^ ( bit < 64 ? 0 : flip ) );
      EXPECT_EQ( a.longestCommonPrefix( b ), bit );
      EXPECT_EQ( a.longestCommonPrefix( a ), 128u );
      EXPECT_TRUE( Ip6Prefix( a, bit ).contains( b ) );
      EXPECT_FALSE( Ip6Prefix( a, bit + 1 ).contains( b ) );
      EXPECT_EQ( Ip6Prefix( a, bit ), Ip6Prefix( b, bit ) );
      if( bit >= 32 ) continue;
      IpAddr v4( static_cast< uint32_t >( a.low() ) );
      IpAddr other( v4.value() ^ 0x80000000u >> bit );
      EXPECT_EQ( v4.longestCommonPrefix( other ), bit );
      EXPECT_TRUE( Prefix( v4, bit ).contains( other ) );
      EXPECT_FALSE( Prefix( v4, bit + 1 ).contains( other ) );
   }
   EXPECT_TRUE( Prefix( "10.0.0.0/8" ).contains( Prefix( "10.1.0.0/16" ) ) );
   EXPECT_TRUE( Prefix( "10.0.0.0/8" ).contains( Prefix( "10.0.0.0/8" ) ) );
   EXPECT_FALSE( Prefix( "10.0.0.0/8" ).contains( Prefix( "10.0.0.0/7" ) ) );
   EXPECT_FALSE( Prefix( "10.0.0.0/8" ).contains( Prefix( "11.0.0.0/16" ) ) );
   EXPECT_EQ( Prefix( IpAddrWithMask( "10.0.0.7/24" ) ).toString(), "10.0.0.0/24" );
}

TEST( Velon, LengthsAboveTheAddressAreRefused ) {
   EXPECT_THROW( IpAddrWithMask( IpAddr(), 33 ), Zek::RangeException );
   EXPECT_THROW( IpAddrWithMask( IpAddr(), 256 ), Zek::RangeException );
   EXPECT_THROW( Ip6AddrWithMask( Ip6Addr(), 129 ), Zek::RangeException );
   EXPECT_THROW( Prefix( IpAddr(), 33 ), Zek::RangeException );
   EXPECT_THROW( Ip6Prefix( Ip6Addr(), 129 ), Zek::RangeException );
   EXPECT_THROW( IpGenAddrWithMask( IpGenAddr( IpAddr() ), 33 ), Zek::RangeException );
   EXPECT_THROW( IpGenAddrWithMask( IpGenAddr(), 1 ), Zek::RangeException );
}

TEST( Velon, EitherFamilyAddressesCarryTheirFamily ) {
   IpGenAddr empty;
   IpGenAddr v4 = IpAddr();
   IpGenAddr v6 = Ip6Addr();
   EXPECT_TRUE( empty < v4 && v4 < v6 );
   EXPECT_TRUE( IpGenAddr( IpAddr( "255.255.255.255" ) ) < v6 );
   EXPECT_NE( empty.hash(), v4.hash() );
   EXPECT_NE( v4.hash(), v6.hash() );
   EXPECT_EQ( empty.toString() + "|" + v4.toString() + "|" + v6.toString(), "|0.0.0.0|::" );
   EXPECT_EQ( empty.af(), AddressFamily::none );

   // The part of the other family is that family's zero.
   IpGenAddrWithMask a = IpAddrWithMask( "10.0.0.1/24" );
   EXPECT_EQ( a.af(), ipv4 );
   EXPECT_EQ( a.v4AddrWithMask(), IpAddrWithMask( "10.0.0.1/24" ) );
   EXPECT_EQ( a.v6AddrWithMask(), Ip6AddrWithMask() );
   EXPECT_EQ( a.addr(), IpGenAddr( IpAddr( "10.0.0.1" ) ) );
   EXPECT_EQ( a.addr().v6Addr(), Ip6Addr() );
   IpGenAddrWithMask b = Ip6AddrWithMask( "fe80::a00:1/64" );
   EXPECT_EQ( b.af(), ipv6 );
   EXPECT_EQ( b.v4AddrWithMask(), IpAddrWithMask() );
   EXPECT_EQ( b.v6AddrWithMask(), Ip6AddrWithMask( "fe80::a00:1/64" ) );
   EXPECT_EQ( b.addr().v4Addr(), IpAddr() );
   EXPECT_EQ( IpGenAddrWithMask().addr(), IpGenAddr() );
   EXPECT_EQ( IpGenAddrWithMask( b.addr(), 64 ), b );
}

TEST( Velon, InterfaceIdsOrderNaturally ) {
   const char * sorted[] = { "",
                             "Ethernet",
                             "Ethernet01",
                             "Ethernet1",
                             "Ethernet1/2",
                             "Ethernet1/10",
                             "Ethernet2",
                             "Ethernet10",
                             "Ethernet99999999999999999999",
                             "Ethernet100000000000000000000",
                             "Ethernet:",
                             "Loopback0",
                             "lo" };
   for( size_t i = 0; i < std::size( sorted ); ++i ) {
      for( size_t j = 0; j < std::size( sorted ); ++j ) {
         EXPECT_EQ( IntfId( sorted[i] ) < IntfId( sorted[j] ), i < j )
            << sorted[i] << " " << sorted[j];
      }
   }
}

TEST( Velon, LoopbackInterfacesAreKnownByTheirNames ) {
   for( const char * name : { "lo", "Loopback0", "Loopback100" } ) {
      EXPECT_TRUE( LoopbackIntfId::isLoopbackIntfId( IntfId( name ) ) ) << name;
   }
   for( const char * name : { "", "lo0", "l", "Loopback", "Loopback1a", "loopback1", "Loopback-1",
                              "Loopback 1", "xLoopback1" } ) {
      EXPECT_FALSE( LoopbackIntfId::isLoopbackIntfId( IntfId( name ) ) ) << name;
   }
}

TEST( Velon, RouteDistinguishersHaveOneTextPerType ) {
   EXPECT_EQ( RouteDistinguisher().toString(), "0:0" );
   EXPECT_EQ( RouteDistinguisher::fromAs2( 65000, 100000 ).toString(), "65000:100000" );
   EXPECT_EQ( RouteDistinguisher::fromIpAddr( IpAddr( "10.0.0.1" ), 1 ).toString(), "10.0.0.1:1" );
   EXPECT_EQ( RouteDistinguisher::fromAs4( 65536, 1 ).toString(), "65536L:1" );
   EXPECT_EQ( RouteDistinguisher::fromAs4( 1, 1 ).toString(), "1L:1" );
   EXPECT_EQ( RouteDistinguisher( uint64_t( 3 ) << 48 ).toString(), "0x0003000000000000" );
   EXPECT_EQ( RouteDistinguisher( "10.0.0.1:258" ).value(), 0x00010a0000010102u );
   EXPECT_EQ( RouteDistinguisher( "65536L:258" ).value(), 0x0002000100000102u );
   EXPECT_EQ( RouteDistinguisher( "258:65536" ).value(), 0x0000010200010000u );
}

TEST( Velon, NamespaceNamesHaveAtMost150Bytes ) {
   NamespaceName name( std::string( 150, 'n' ) );
   try {
      name = NamespaceName( std::string( 151, 'n' ) );
      FAIL();
   } catch( const Zek::RangeException & e ) {
      EXPECT_STREQ( e.what(), "NamespaceName::bytes > 150 not allowed" );
   }
   EXPECT_EQ( name.size(), 150u );
   EXPECT_FALSE( NamespaceName::fromText( std::string( 151, 'n' ), name ) );
}

TEST( Velon, AddressFamiliesHaveNumbersAndNames ) {
   EXPECT_EQ( static_cast< int >( ipv4 ), 1 );
   EXPECT_EQ( static_cast< int >( ipv6 ), 2 );
   for( AddressFamily af : { AddressFamily::none, ipv4, ipv6 } ) {
      EXPECT_EQ( AddressFamilyInstance( toString( af ) ), af );
      EXPECT_EQ( AddressFamilyInstance( static_cast< uint32_t >( af ) ), af );
   }
   EXPECT_EQ( toString( ipv6 ), "ipv6" );
   EXPECT_THROW( AddressFamilyInstance( 3 ), Zek::RangeException );
   EXPECT_THROW( AddressFamilyInstance( "IPv4" ), Zek::RangeException );
}

} // namespace
