// Text forms of values and enumerations, read back, and what is said of texts that are none.

#include "Ip/Ip.h"
#include "Ip6/Ip6.h"
#include "IpGen/IpGen.h"
#include "VirtualIp/VirtualIp.h"
#include "VrfTypes/VrfTypes.h"
#include "tests/records/Records.h"

#include <random>
#include <sstream>

// Of fuzz/Text.cpp: reads what follows the bytes n, 0 and 255 as the text of the nth type, and
// aborts when what reads is not written again as it was, or what does not read leaves a trace.
extern "C" int LLVMFuzzerTestOneInput( const uint8_t * data, size_t size );

using namespace Records;
using Velon::IntfId;
using Velon::Ip6Addr;
using Velon::Ip6AddrWithMask;
using Velon::IpAddr;
using Zek::sequenceToValue;
using Zek::valueToStrep;

namespace {

template< class V >
constexpr const char * noReader =
   "'No String constructor for MulticastGroupInfo - has collection' failed";
template<>
constexpr const char * noReader< IpGen::McaddrIteratorConst > =
   "'No String constructor for McaddrIteratorConst' failed";

/// The value in every writer's form, and back by every reader.
template< class V >
void
expectText( const V & value, const std::string & expected ) {
   EXPECT_EQ( stringValue( value ), expected );
   EXPECT_EQ( valueToStrep( value ), expected );
   EXPECT_EQ( value.toString(), expected );
   EXPECT_EQ( Zek::typeNode( value.fwkType()->fullName ), V::fwkType() );
   std::ostringstream out;
   out << value;
   EXPECT_EQ( out.str(), expected );
   const Zek::String text( expected );
   if constexpr( std::is_same_v< V, Ip::MulticastGroupInfo > ||
                 std::is_same_v< V, Ip6::MulticastGroupInfo > ||
                 std::is_same_v< V, IpGen::McaddrIteratorConst > ) {
      V back;
      EXPECT_FALSE( V::fromText( expected, back ) );
      EXPECT_DEATH( V( text.begin(), text.end() ), noReader< V > );
   } else {
      EXPECT_EQ( V( text.begin(), text.end() ), value );
      V back;
      EXPECT_TRUE( V::fromText( expected, back ) );
      EXPECT_EQ( back, value );
      V sequence;
      sequenceToValue( text.begin(), text.end(), sequence );
      EXPECT_EQ( sequence, value );
   }
   // Only the default value is unset.
   EXPECT_TRUE( !V() );
   EXPECT_EQ( !value, value == V() );
}

TEST( ValueText, StandsInTheseForms ) {
   const IntfId ethernet1( "Ethernet1" );
   const IpAddr ip( 10, 0, 0, 1 );
   const Ip6Addr ip6( "2001:db8::1" );
   expectText( Ip::IntfAddrInfo( ethernet1, ip ),
               "Value('Ip::IntfAddrInfo', ** {'intfId': Ethernet1, 'addr': 10.0.0.1})" );
   expectText( Ip::IntfAddrInfo(), "Value('Ip::IntfAddrInfo', ** {'intfId': , 'addr': 0.0.0.0})" );
   expectText( Ip6::IntfAddrInfo( ethernet1, ip6 ),
               "Value('Ip6::IntfAddrInfo', ** {'intfId': Ethernet1, 'addr': 2001:db8::1})" );
   expectText( Ip6::AddressInfo( Ip6AddrWithMask( ip6, 64 ) ),
               "Value('Ip6::AddressInfo', ** {'key': 2001:db8::1/64})" );
   expectText( Urpf::UrpfConfig( Urpf::strictDefault, "acl 1" ),
               "Value('Urpf::UrpfConfig', ** {'mode': strictDefault, 'acl': acl 1})" );
   expectText( Urpf::UrpfStatus(), "Value('Urpf::UrpfStatus', ** {'mode': disable, 'acl': })" );
   expectText( IpGen::IntfAddrInfo( ethernet1, Velon::IpGenAddr( ip6 ) ),
               "Value('IpGen::IntfAddrInfo', ** {'intfId': Ethernet1, 'addr': 2001:db8::1})" );
   expectText( IpGen::McaddrIteratorConst(),
               "Value('IpGen::McaddrIteratorConst', ** {'minfo': null, 'done': false, "
               "'currIntfAddrInfo': Value('IpGen::IntfAddrInfo', ** {'intfId': , 'addr': }), "
               "'ipv4Minfo': null, 'ipv6Minfo': null})" );
   expectText( VirtualIp::VrfIpPair( "red", Velon::IpGenAddr( ip ) ),
               "Value('VirtualIp::VrfIpPair', ** {'vrfName': red, 'ip': 10.0.0.1})" );
   expectText( VirtualIp::VrfIpWithMaskPair( "", Velon::IpGenAddrWithMask( "::1/128" ) ),
               "Value('VirtualIp::VrfIpWithMaskPair', ** {'vrfName': , 'ipWithMask': ::1/128})" );
   expectText( VrfTypes::VrfCleanupEntry( "Bgp", true ),
               "Value('VrfTypes::VrfCleanupEntry', ** {'pluginName': Bgp, 'cleanupDone': true})" );
   // What would end a field early is quoted, but for interface ids: what follows tells their end.
   expectText( Ip::IntfAddrInfo( IntfId( "a, 'addr': 1.1.1.1})" ), ip ),
               "Value('Ip::IntfAddrInfo', ** {'intfId': a, 'addr': 1.1.1.1}), 'addr': 10.0.0.1})" );
   expectText( Urpf::UrpfStatus( Urpf::loose, "a, 'b'})\\\n" ),
               R"(Value('Urpf::UrpfStatus', ** {'mode': loose, 'acl': 'a, \'b\'})\\\n'}))" );
   expectText( L3::UpdateIpIntfStatusRequest( ethernet1, "red" ),
               "Value('L3::UpdateIpIntfStatusRequest', ** {'intfId': Ethernet1, 'vrf': red})" );
   expectText( L3::ProtocolAgentModelType::multiAgent(),
               "Value('L3::ProtocolAgentModelType', ** {'value': multi-agent})" );
   Ip::MulticastGroupInfo group( IpAddr( 224, 0, 0, 5 ) );
   expectText( group,
               "Value('Ip::MulticastGroupInfo', ** {'address': 224.0.0.5, 'application': []})" );
   group.applicationIs( "ospf" );
   group.applicationIs( "bfd" );
   expectText( group, "Value('Ip::MulticastGroupInfo', ** {'address': 224.0.0.5, 'application': "
                      "[bfd, ospf]})" );
   expectText( Ip6::MulticastGroupInfo( ip6 ),
               "Value('Ip6::MulticastGroupInfo', ** {'address': 2001:db8::1, 'application': []})" );
}

TEST( ValueText, OfAnotherFormIsRefusedWithItsPlace ) {
   const struct {
      const char *text, *expected;
      unsigned offset;
   } rows[] = {
      { "", "\"Value('Ip::IntfAddrInfo', ** {\"", 0 },
      { "Value('Ip6::IntfAddrInfo', ** {'intfId': a, 'addr': ::})",
        "\"Value('Ip::IntfAddrInfo', ** {\"", 0 },
      { "Value('Ip::IntfAddrInfo', ** {'addr': 10.0.0.1, 'intfId': a})", "\"'intfId': \"", 30 },
      { "Value('Ip::IntfAddrInfo', ** {'intfId': a,'addr': 10.0.0.1})", "\", 'addr': \"", 41 },
      { "Value('Ip::IntfAddrInfo', ** {'intfId': a, 'addr': 10.x.0.1})", "Velon::IpAddr", 51 },
      { "Value('Ip::IntfAddrInfo', ** {'intfId': a, 'addr': 10.0.0.1", "\"})\"", 59 },
      { "Value('Ip::IntfAddrInfo', ** {'intfId': a, 'addr': 10.0.0.1})x", "end of text", 61 },
   };
   for( auto & [text, expected, offset] : rows ) {
      const Zek::String form( text );
      const Ip::IntfAddrInfo kept( IntfId( "kept" ), IpAddr( 1 ) );
      Ip::IntfAddrInfo value = kept;
      EXPECT_EQ( refusal< Zek::RangeException >(
                    [&] { sequenceToValue( form.begin(), form.end(), value ); } ),
                 expected + std::string( " expected at offset " ) + std::to_string( offset ) +
                    " of \"" + text + "\"" );
      EXPECT_FALSE( Ip::IntfAddrInfo::fromText( text, value ) );
      EXPECT_EQ( value, kept );
   }
}

TEST( ValueText, ASetInsideAValueHasNoDefaultKeyAndSaysSo ) {
   testing::internal::CaptureStderr();
   EXPECT_EQ( Zek::ValueSet< Zek::String >::defaultKey(), Zek::String() );
   EXPECT_EQ( testing::internal::GetCapturedStderr(),
              "Default key not supported in collection inside nominal\n" );
}

TEST( EnumerationText, IsTheEnumeratorsName ) {
   EXPECT_EQ( stringValue( Ip::nowhere ), "nowhere" );
   EXPECT_EQ( valueToStrep( Ip6::dadStrict ), "dadStrict" );
   std::ostringstream out;
   out << Ip::AddrSource::dhcp << " " << Ip6::AddrSource::slaac << " " << Urpf::urpfErrorDisabled;
   EXPECT_EQ( out.str(), "dhcp slaac urpfErrorDisabled" );
   EXPECT_EQ( Ip::IpAddrScopeInstance( 253 ), Ip::link );
   EXPECT_EQ( Ip::IpAddrScopeInstance( "site" ), Ip::site );
   const Zek::String text( "isTrue" );
   Ip6::TristateBool value{};
   sequenceToValue( text.begin(), text.end(), value );
   EXPECT_EQ( value, Ip6::isTrue );
   EXPECT_EQ( refusal< Zek::RangeException >( [] { Ip::IpAddrScopeInstance( 1 ); } ),
              "1 is no enumerator of Ip::IpAddrScope" );
   EXPECT_EQ( refusal< Zek::RangeException >( [] { Urpf::UrpfModeInstance( "Loose" ); } ),
              "'Loose' is no enumerator of Urpf::UrpfMode" );
   EXPECT_EQ( refusal< Zek::RangeException >(
                 [&] { sequenceToValue( text.begin(), text.end() - 1, value ); } ),
              "Ip6::TristateBool expected at offset 0 of \"isTru\"" );
}

TEST( EnumerationText, OfANestedEnumerationIsServedByItsClass ) {
   using Input = Ip::RouteDistinguisherInput;
   EXPECT_EQ( Input::ClientPrecedenceInstance( 2 ), Input::vrfDefinition );
   EXPECT_EQ( Input::ClientPrecedenceInstance( "bgp" ), Input::bgp );
   EXPECT_EQ( stringValue( Input::bgp ), "bgp" );
}

TEST( Text, OfBuiltinAndNetworkTypesHasTheSameCompanions ) {
   const Zek::String awkward( "it's" );
   EXPECT_EQ( stringValue( awkward ), "it's" );
   EXPECT_EQ( valueToStrep( awkward ), R"('it\'s')" );
   EXPECT_EQ( valueToStrep( L3::VrfName( "a,b" ) ), "'a,b'" );
   EXPECT_EQ( valueToStrep( IntfId( "a,b" ) ), "a,b" );
   EXPECT_EQ( valueToStrep( Velon::ipv6 ), "ipv6" );
   EXPECT_EQ( Zek::valueToStrep( -7 ), "-7" );
   EXPECT_EQ( Zek::valueToStrep( 0.1 ), "0.1" );
   EXPECT_EQ( Zek::valueToStrepOfRawPtr( nullptr ), "null" );
   auto entity = Zek::allocate< Zek::Dir >( "dir" );
   std::ostringstream address;
   address << static_cast< const void * >( entity.ptr() );
   EXPECT_EQ( Zek::valueToStrepOfRawPtr( entity.ptr() ), address.str() );

   // Each reader takes the whole text or throws and leaves the value alone.
   auto read = []( auto value, const char * text ) {
      const Zek::String range( text );
      std::string said = refusal< Zek::RangeException >(
         [&] { sequenceToValue( range.begin(), range.end(), value ); } );
      return Zek::valueToStrep( Zek::String( said == "nothing thrown" ? "" : said ) ).toString() +
             "|" + valueToStrep( value ).toString();
   };
   EXPECT_EQ( read( uint8_t{ 1 }, "255" ), "|255" );
   EXPECT_EQ( read( uint8_t{ 1 }, "256" ), R"('U8 expected at offset 0 of "256"'|1)" );
   EXPECT_EQ( read( 0.0, "-inf" ), "|-inf" );
   EXPECT_EQ( read( 0.0, "nan" ), "|nan" );
   EXPECT_EQ( read( Zek::String(), R"('\x00\n')" ), R"(|'\x00\n')" );
   EXPECT_EQ( read( Zek::String( "kept" ), "'open" ),
              R"('Zek::String expected at offset 0 of "\'open"'|kept)" );
   EXPECT_EQ( read( L3::VrfName(), "'a b'" ), "|a b" );
   EXPECT_EQ( read( IpAddr( 1 ), "1.2.3." ),
              R"('Velon::IpAddr expected at offset 6 of \'1.2.3.\''|0.0.0.1)" );
   EXPECT_EQ( read( Velon::ipv4, "ipv6" ), "|ipv6" );
   const std::string tooLong =
      "Value('VirtualIp::VrfIpPair', ** {'vrfName': " + std::string( 101, 'x' ) + ", 'ip': ::})";
   EXPECT_EQ( read( VirtualIp::VrfIpPair(), tooLong.c_str() ),
              "VrfName::bytes > VrfName::maxLength not allowed|" +
                 valueToStrep( VirtualIp::VrfIpPair() ).toString() );
}

// -- Any value of any type --------------------------------------------------------------------

/// Types with values, in the order of fuzz/Text.cpp.
Types
valueTypes() {
   return typesThat( []( auto & type ) { return type.values; } );
}

bool
readsBack( const Zek::TypeDescriptor & type ) {
   return std::none_of( type.attributes.begin(), type.attributes.end(), []( auto & row ) {
      return row.isStored() && ( row.has( Zek::isSet ) || row.type->isCounted() );
   } );
}

class Awkward {
 public:
   explicit Awkward( unsigned seed ) : random_( seed ) {}

   size_t below( size_t n ) { return random_() % n; }

   /// Up to 100 bytes, half of them such as end, quote or disguise a field.
   std::string string() {
      static constexpr std::string_view pieces[] = {
         "'",          "\"",      ",",    " ",  "{",        "}",    "[",    "]",    "(",
         ")",          "\\",      "\n",   "\t", "\x7f",     "\xff", "\xc3", "})",   ", 'addr': ",
         "', 'vrf': ", "Value('", "null", "x",  "\xc3\xa9", "0",    ":",    "\\x41"
      };
      const size_t size = below( 4 ) ? below( 12 ) : below( 101 );
      std::string out( below( 8 ) ? 0 : 1, '\0' );
      while( out.size() < size ) {
         if( below( 2 ) ) {
            out += pieces[below( std::size( pieces ) )];
         } else {
            out += static_cast< char >( below( 256 ) );
         }
      }
      return below( 9 ) ? out.substr( 0, 100 ) : std::string( 100, '\'' );
   }

   void fill( const Zek::TypeDescriptor & type, void * value ) {
      if( type.kind == Zek::TypeKind::value ) {
         for( const Zek::AttributeRow & row : type.attributes ) {
            if( row.isStored() ) fill( *row.type, const_cast< void * >( row.address( value ) ) );
         }
      } else if( type.values->isBare ) {
         ASSERT_TRUE( type.values->read( string(), value ) );
      } else if( type.values->read( "a", value ) ) { // a string or a name
         std::string quoted;
         Zek::appendText( Zek::String( string() ), quoted );
         ASSERT_TRUE( type.values->read( quoted, value ) ) << quoted;
      } else {
         fillSpecimen( type, value, static_cast< unsigned >( below( 120 ) ) );
      }
   }

 private:
   std::mt19937 random_;
};

TEST( AnyText, ReadsBackWhateverTheStringsHold ) {
   Awkward awkward( 1 );
   for( auto & [name, type] : valueTypes() ) {
      if( !readsBack( *type ) ) continue;
      for( unsigned i = 0; i < 300; ++i ) {
         AnyValue value( *type->values );
         awkward.fill( *type, value.at() );
         const std::string text = value.text();
         AnyValue back( *type->values );
         ASSERT_TRUE( type->values->read( text, back.at() ) ) << name << ": " << text;
         ASSERT_TRUE( back == value ) << name << ": " << text;
         ASSERT_EQ( back.text(), text ) << name;
      }
   }
}

TEST( AnyText, CutOrChangedAnywhereIsRefusedOrReadsBack ) {
   Awkward awkward( 2 );
   char index = 0;
   for( auto & [name, type] : valueTypes() ) {
      auto offer = [&]( const std::string & text ) {
         const std::string input = index + std::string( "\0\xff", 2 ) + text;
         LLVMFuzzerTestOneInput( reinterpret_cast< const uint8_t * >( input.data() ),
                                 input.size() );
      };
      for( unsigned i = 0; i < 20; ++i ) {
         AnyValue value( *type->values );
         if( readsBack( *type ) ) awkward.fill( *type, value.at() );
         const std::string text = value.text();
         for( size_t at = 0; at <= text.size(); ++at ) {
            const std::string cut = text.substr( 0, at );
            AnyValue kept( *type->values );
            if( type->kind == Zek::TypeKind::value && at < text.size() ) {
               EXPECT_FALSE( type->values->read( cut, kept.at() ) ) << cut;
            }
            offer( cut );
            offer( cut + "'\\,})0"[awkward.below( 6 )] +
                   text.substr( std::min( at + 1, text.size() ) ) );
            offer( cut + static_cast< char >( awkward.below( 256 ) ) + text.substr( at ) );
         }
      }
      ++index;
   }
}

} // namespace
