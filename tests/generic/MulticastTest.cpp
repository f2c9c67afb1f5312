// Multicast groups that applications joined: handles of both families and the walk over them.

#include "tests/generic/World.h"

#include <set>

namespace Generic {
namespace {

using IpGen::IntfAddrInfo;
using IpGen::McaddrIteratorConst;
using Handle = IpGen::MulticastGroupsForApplications::Ptr;

IntfAddrInfo
pair( const char * intf, const char * addr ) {
   return { Intf( intf ), Velon::IpGenAddr( addr ) };
}

// Each test runs for IPv4 and IPv6.
struct Case {
   const char * name;
   Handle handle;
   IntfAddrInfo one, two, three;
};

std::vector< Case >
cases() {
   return { { "V4",
              IpGen::ipv4MulticastGroupsForApplicationsFactory(
                 Ip::multicastGroupsForApplicationsFactory() ),
              pair( "Ethernet1", "224.0.0.5" ), pair( "Ethernet1", "224.0.0.6" ),
              pair( "Ethernet2", "224.0.0.5" ) },
            { "V6",
              IpGen::ipv6MulticastGroupsForApplicationsFactory(
                 Ip6::multicastGroupsForApplicationsFactory() ),
              pair( "Ethernet1", "ff02::5" ), pair( "Ethernet1", "ff02::6" ),
              pair( "Ethernet2", "ff02::5" ) } };
}

constexpr char initialising[] =
   "Ira::IpGen/8 IpGen: void IpGen::McaddrIteratorConst::doInitializeCurrentIntfAddrInfo()";
constexpr char advancing[] = "Ira::IpGen/8 IpGen: IpGen::McaddrIteratorConst& "
                             "IpGen::McaddrIteratorConst::operator+=(U32)";

TEST( Multicast, AddsAndRemovesPairsInEitherFamily ) {
   for( const Case & c : cases() ) {
      EXPECT_EQ( c.handle->af() == Velon::AddressFamily::ipv4, c.name == std::string( "V4" ) );
      c.handle->mcaddrIs( c.one, false ); // absent: nothing
      EXPECT_FALSE( c.handle->mcaddr( c.one ) );
      c.handle->mcaddrIs( c.one, true );
      c.handle->mcaddrIs( c.two, true );
      EXPECT_TRUE( c.handle->mcaddr( c.one ) && c.handle->mcaddr( c.two ) );
      EXPECT_FALSE( c.handle->mcaddr( c.three ) );
      c.handle->mcaddrIs( c.one, false ); // Deliberate: false deletes
      c.handle->mcaddrDel( c.two );
      EXPECT_FALSE( c.handle->mcaddr( c.one ) || c.handle->mcaddr( c.two ) );
   }
}

TEST( Multicast, WalksThePairsOneByOneAndStaysOnTheLast ) {
   for( const Case & c : cases() ) {
      const std::string name = c.name;
      for( const auto & p : { c.one, c.two, c.three } ) c.handle->mcaddrIs( p, true );
      Traces traces( "Ira::IpGen/8" );
      McaddrIteratorConst i( c.handle );
      const std::string found = " Found " + name + " mcaddr entry";
      EXPECT_EQ( traces.seen(), std::string( initialising ) + "\n" + initialising + found +
                                   i.currIntfAddrInfo().pretty().toString() + "\n" );
      EXPECT_EQ( i.ipv4Minfo() != nullptr, name == "V4" );
      EXPECT_EQ( i.ipv6Minfo() != nullptr, name == "V6" );
      std::set< IntfAddrInfo > walked;
      while( !i.done() ) {
         EXPECT_TRUE( walked.insert( i.currIntfAddrInfo() ).second );
         EXPECT_EQ( &( i += 5 ), &i ); // Deliberate: one at a time, whatever is asked
      }
      EXPECT_EQ( walked, ( std::set< IntfAddrInfo >{ c.one, c.two, c.three } ) );
      EXPECT_TRUE( walked.count( i.currIntfAddrInfo() ) );
      const std::string story = traces.seen();
      EXPECT_NE( story.find( std::string( advancing ) + found ), std::string::npos );
      const std::string end = std::string( advancing ) + " Current was the last element\n";
      EXPECT_TRUE( story.size() > end.size() && story.ends_with( end ) ) << story;

      McaddrIteratorConst vanished( c.handle );
      McaddrIteratorConst same( c.handle );
      EXPECT_TRUE( vanished == same );
      c.handle->mcaddrDel( vanished.currIntfAddrInfo() );
      traces.seen();
      vanished += 1;
      EXPECT_EQ( traces.seen(), end );
      EXPECT_TRUE( vanished.done() );
      EXPECT_TRUE( vanished == same ); // Deliberate: the pair alone is compared

      for( const auto & p : { c.one, c.two, c.three } ) c.handle->mcaddrDel( p );
      const std::string none = " No " + name + " mcaddr entries\n";
      same += 1;
      EXPECT_EQ( traces.seen(), advancing + none );
      EXPECT_TRUE( same.done() && !!same.currIntfAddrInfo() );
      McaddrIteratorConst empty( c.handle );
      EXPECT_EQ( traces.seen(), std::string( initialising ) + "\n" + initialising + none );
      EXPECT_TRUE( empty.done() && !empty.currIntfAddrInfo() );
   }
}

TEST( MulticastDeathTest, ABareHandleAnswersNothing ) {
   const auto bare = IpGen::multicastGroupsForApplicationsFactory();
   constexpr char text[] = "^assertion 'Must override in derived class' failed .source IpGen.\n$";
   EXPECT_DEATH( bare->af(), text );
   EXPECT_DEATH( bare->mcaddr( {} ), text );
   EXPECT_DEATH( bare->mcaddrIs( {}, true ), text );
   EXPECT_DEATH( bare->mcaddrDel( {} ), text );
}

// A handle that holds no record of ours, whatever it says of its family.
class Stranger final : public IpGen::MulticastGroupsForApplications {
 public:
   explicit Stranger( Velon::AddressFamily family ) : family_( family ) {}
   Velon::AddressFamily af() const override { return family_; }

 private:
   const Velon::AddressFamily family_;
};

TEST( MulticastDeathTest, NoOtherFamilyNorHandleIsWalked ) {
   EXPECT_DEATH( McaddrIteratorConst{ Zek::allocate< Stranger >( Velon::AddressFamily::none ) },
                 "^assertion 'AddressFamily not supported' failed .source IpGen.\n$" );
   for( auto family : { Velon::AddressFamily::ipv4, Velon::AddressFamily::ipv6 } ) {
      EXPECT_DEATH( McaddrIteratorConst{ Zek::allocate< Stranger >( family ) },
                    "^assertion 'a derived type of MulticastGroupsForApplications that is not of "
                    "this library' failed" );
   }
}

TEST( MulticastDeathTest, WithoutARecordThereIsNothingToWalkNorToChange ) {
   McaddrIteratorConst none;
   none += 1;
   EXPECT_TRUE( none.done() );
   EXPECT_TRUE( McaddrIteratorConst( Handle() ).done() );
   const Handle handles[] = { IpGen::ipv4MulticastGroupsForApplicationsFactory( nullptr ),
                              IpGen::ipv6MulticastGroupsForApplicationsFactory( nullptr ) };
   for( const Handle & handle : handles ) {
      McaddrIteratorConst walk( handle );
      walk += 1;
      EXPECT_TRUE( walk.done() && !walk.currIntfAddrInfo() );
      EXPECT_FALSE( handle->mcaddr( pair( "Ethernet1", "224.0.0.5" ) ) );
      EXPECT_DEATH( handle->mcaddrIs( pair( "Ethernet1", "224.0.0.5" ), true ),
                    "^assertion 'a record behind MulticastGroupsForApplications' failed" );
   }
}

} // namespace
} // namespace Generic
