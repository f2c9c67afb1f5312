// Text forms of values and enumerations, read back, and what is said of texts that are none.

#include "Ip/Ip.h"
#include "Ip6/Ip6.h"
#include "tests/records/Records.h"

#include <sstream>

using namespace Records;
using Velon::IntfId;
using Velon::Ip6Addr;
using Velon::Ip6AddrWithMask;
using Velon::IpAddr;

namespace {

/// The value in every writer's form, and back by every reader.
template< class V >
void
expectText( const V & value, const std::string & expected ) {
   EXPECT_EQ( stringValue( value ), expected );
   EXPECT_EQ( valueToStrep( value ), expected );
   EXPECT_EQ( value.toString(), expected );
   std::ostringstream out;
   out << value;
   EXPECT_EQ( out.str(), expected );
   if constexpr( std::is_same_v< V, Ip::MulticastGroupInfo > ||
                 std::is_same_v< V, Ip6::MulticastGroupInfo > ) {
      V back;
      EXPECT_FALSE( V::fromText( expected, back ) );
   } else {
      const Zek::String text( expected );
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
   // What would end a field early is quoted.
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
              "'isTru' is no enumerator of Ip6::TristateBool" );
}

} // namespace
