// The choice of an IPv6 source address: decisions, their traces letter by letter, and that nothing
// is allocated for them while traces are off.

#include "Ip6/Ip6.h"
#include "platform/Vistrel/Trace.h"
#include "tests/framework/OutOfMemory.h"
#include "tests/records/Records.h"

using OutOfMemory::allocations;
using Velon::Ip6Addr;

namespace {

Ip6Addr
addr( std::string_view text ) {
   return Ip6Addr( text );
}

/// Has the traces of source address selection as text, "function: text" a line.
class Traces {
 public:
   Traces() : before_( Vistrel::sinkIs( &sink_ ) ) { Vistrel::settingIs( "Ip6/8" ); }
   ~Traces() {
      Vistrel::settingIs( "" );
      Vistrel::sinkIs( before_ );
   }
   std::string seen() { return std::exchange( text_, std::string() ); }

 private:
   static void write( void * context, const Vistrel::Message & message ) {
      EXPECT_STREQ( message.source, "Ip6" );
      EXPECT_EQ( message.level, 8u );
      static_cast< Traces * >( context )->text_ +=
         std::string( message.function ) + "> " + std::string( message.text ) + "\n";
   }
   std::string text_;
   Vistrel::Sink sink_{ &Traces::write, this };
   const Vistrel::Sink * before_;
};

TEST( SourceAddress, IsChosenByTheFirstRuleThatDecides ) {
   const struct {
      const char *sa, *sb, *d;
      int rule;
      Ip6::ordering decision;
   } rows[] = {
      { "2001:db8::1", "2001:db8::2", "2001:db8::1", 1, Ip6::PREFER_SA },
      { "2001:db8::2", "2001:db8::1", "2001:db8::1", 1, Ip6::PREFER_SB },
      { "2001:db8::1", "2001:db8::1", "2001:db8::1", 1, Ip6::PREFER_SA },
      { "::1", "2001:db8::1", "::1", 1, Ip6::PREFER_SA },
      // The narrower scope wins where it reaches the destination.
      { "fe80::1", "2001:db8::1", "2001:db8::99", 2, Ip6::PREFER_SB },
      { "2001:db8::1", "fe80::1", "2001:db8::99", 2, Ip6::PREFER_SA },
      { "fe80::1", "2001:db8::1", "fe80::2", 2, Ip6::PREFER_SA },
      { "2001:db8::1", "fe80::1", "fe80::2", 2, Ip6::PREFER_SB },
      { "fd00::1", "2001:db8::1", "ff02::1", 2, Ip6::PREFER_SA },
      { "2001:db8::1", "fec0::1", "fd00::9", 2, Ip6::PREFER_SB },
      { "fe80::1", "fd00::1", "ff0e::1", 2, Ip6::PREFER_SB },
      // Every multicast address has scope 1, so that the wider candidate loses to unique-local.
      { "2001:db8::1", "fd00::1", "ff0e::1", 2, Ip6::PREFER_SB },
      // Only the loopback has a label of its own.
      { "::1", "2001:db8::1", "2001:db8::2", 6, Ip6::PREFER_SB },
      { "2001:db8::1", "::1", "2001:db8::2", 6, Ip6::PREFER_SA },
      // By the rule of the loopback alone: every other pair is equal up to the last rule.
      { "2002:c000:201::1", "2001:db8::1", "2002:c000:201::9", 8, Ip6::PREFER_SA },
      { "2001:db8::1", "2002:c000:201::1", "2002:c000:201::9", 8, Ip6::PREFER_SB },
      { "2001:db8::1", "2001:db8::2", "3000::1", 8, Ip6::PREFER_SA },
      { "2001:db8::2", "2001:db8::1", "3000::1", 8, Ip6::PREFER_SA },
      // All 128 bits count.
      { "2001:db8::1", "2001:db8::8", "2001:db8::9", 8, Ip6::PREFER_SB },
      { "::", "::ffff:10.0.0.1", "::ffff:10.0.0.2", 8, Ip6::PREFER_SB },
   };
   for( auto & [sa, sb, d, rule, decision] : rows ) {
      Traces traces;
      EXPECT_EQ( Ip6::chooseSourceAddress( addr( sa ), addr( sb ), addr( d ) ), decision )
         << sa << " " << sb << " " << d;
      const char * word = decision == Ip6::PREFER_SA ? "PREFER_SA" : "PREFER_SB";
      std::string expected;
      for( int asked : { 1, 2, 6, 8 } ) {
         if( asked > rule ) break;
         const std::string name = "sasRule" + std::to_string( asked );
         expected += name + "> " + name + ":SA: " + sa + " SB: " + sb + " d: " + d + "\n";
         expected += name + "> " + name + ": " + ( asked == rule ? word : "EQUAL" ) + "\n";
      }
      if( rule == 8 ) {
         expected += std::string( "chooseSourceAddress> chooseSourceAddress: " ) + word + "\n";
      }
      EXPECT_EQ( traces.seen(), expected );
   }
}

TEST( SourceAddress, HasAScopeAndALabel ) {
   const struct {
      const char * text;
      unsigned scope, label;
   } rows[] = {
      { "fe80::1", 0, 1 },
      { "febf::1", 0, 1 },
      { "fec0::1", 1, 1 },
      { "fc00::1", 1, 1 },
      { "fdff::1", 1, 1 },
      { "ff02::1", 1, 1 },
      { "ff0e::1", 1, 1 },
      { "2001:db8::1", 2, 1 },
      { "::", 2, 1 },
      { "::1", 2, 0 },
      { "2002::1", 2, 1 },
      { "::10.0.0.1", 2, 1 },
      { "::ffff:10.0.0.1", 2, 1 },
      { "::2", 2, 1 },
      { "fbff::1", 2, 1 },
   };
   for( auto & [text, scope, label] : rows ) {
      EXPECT_EQ( Ip6::scope( addr( text ) ), scope ) << text;
      EXPECT_EQ( Ip6::label( addr( text ) ), label ) << text;
   }
}

/// Both records of an interface with these addresses, `addr` in their order.
struct Sources {
   explicit Sources( std::initializer_list< const char * > addrs ) {
      for( const char * text : addrs ) {
         config->addrIs( Velon::Ip6AddrWithMask( std::string_view( text ) ) );
         status->addrIs( Velon::Ip6AddrWithMask( std::string_view( text ) ) );
      }
   }
   Ip6::IntfConfig::Ptr config = Ip6::intfConfigFactory( Velon::IntfId( "Ethernet1" ) );
   Ip6::IntfStatus::Ptr status = Ip6::intfStatusFactory( Velon::IntfId( "Ethernet1" ), nullptr );
};

TEST( SourceAddress, IsTheBestOfAnInterface ) {
   const struct {
      std::initializer_list< const char * > addrs;
      const char *d, *best;
   } rows[] = {
      { {}, "2001:db8::9", "::" },
      { { "fe80::1/64" }, "2001:db8::9", "fe80::1" },
      { { "fe80::1/64", "2001:db8:1::1/64", "2001:db8:2::1/64" },
        "2001:db8:2::9",
        "2001:db8:2::1" },
      { { "fe80::1/64", "2001:db8:1::1/64", "2001:db8:2::1/64" },
        "2001:db8:1::9",
        "2001:db8:1::1" },
      { { "fe80::1/64", "2001:db8:1::1/64", "2001:db8:2::1/64" }, "fe80::9", "fe80::1" },
      { { "fe80::1/64", "2001:db8:1::1/64" }, "2001:db8:1::1", "2001:db8:1::1" },
   };
   for( auto & [addrs, d, best] : rows ) {
      Sources sources( addrs );
      EXPECT_EQ( sources.config->sourceAddressForDestination( addr( d ) ), addr( best ) );
      EXPECT_EQ( sources.status->sourceAddressForDestination( addr( d ) ), addr( best ) );
   }
   // Among equals the first in the record's own order; the failed ones are not left out.
   Sources equals( { "2001:db8::2/64", "2001:db8::1/64", "2001:db8::3/64" } );
   equals.status->dadfailedIs( equals.status->addrIteratorConst().key() );
   EXPECT_EQ( equals.config->sourceAddressForDestination( addr( "3000::1" ) ),
              addr( "2001:db8::1" ) );
   EXPECT_EQ( equals.status->sourceAddressForDestination( addr( "3000::1" ) ),
              equals.status->addrIteratorConst().key().addr() );
   // The first is compared with itself like every other.
   Traces traces;
   Sources one( { "2001:db8::1/64" } );
   one.config->sourceAddressForDestination( addr( "3000::1" ) );
   EXPECT_EQ( traces.seen(), "sasRule1> sasRule1:SA: 2001:db8::1 SB: 2001:db8::1 d: 3000::1\n"
                             "sasRule1> sasRule1: EQUAL\n"
                             "sasRule2> sasRule2:SA: 2001:db8::1 SB: 2001:db8::1 d: 3000::1\n"
                             "sasRule2> sasRule2: EQUAL\n"
                             "sasRule6> sasRule6:SA: 2001:db8::1 SB: 2001:db8::1 d: 3000::1\n"
                             "sasRule6> sasRule6: EQUAL\n"
                             "sasRule8> sasRule8:SA: 2001:db8::1 SB: 2001:db8::1 d: 3000::1\n"
                             "sasRule8> sasRule8: PREFER_SA\n"
                             "chooseSourceAddress> chooseSourceAddress: PREFER_SA\n" );
}

TEST( SourceAddress, AllocatesNothingWhileTracesAreOff ) {
   Sources sources( { "fe80::1/64", "2001:db8:1::1/64", "2001:db8:2::1/64" } );
   const Ip6Addr d = addr( "2001:db8:2::9" );
   Vistrel::settingIs( "" );
   sources.config->sourceAddressForDestination( d ); // the handle looks its levels up
   const size_t before = allocations;
   sources.config->sourceAddressForDestination( d );
   sources.status->sourceAddressForDestination( d );
   EXPECT_EQ( allocations, before );
   Traces traces;
   sources.config->sourceAddressForDestination( d );
   EXPECT_NE( allocations, before ) << "the count works";
}

} // namespace
