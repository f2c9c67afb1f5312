// What is particular to the small sets of a routing agent.

#include "Ira/IraTypes.h"
#include "Ira/VrfToIntf.h"
#include "tests/records/Records.h"

using namespace Records;

namespace {

Velon::Prefix
net( unsigned third ) {
   return valueOf< Velon::Prefix >( "10.0." + std::to_string( third ) + ".0/24" );
}

TEST( IraRecords, StartWithTheirDefaultsInThisOrder ) {
   const struct {
      Zek::Ptr< Zek::PtrInterface > record;
      const char * expected;
   } rows[] = {
      { Ira::addrSetFactory( net( 1 ) ), "ip {}\nprefix 10.0.1.0/24\n" },
      { Ira::ip6AddrSetFactory( {} ), "ip {}\nprefix ::/0\n" },
      { Ira::ip6LinkLocalAddrSetFactory( Velon::IntfId( "Vlan1" ) ), "ip {}\nintfId Vlan1\n" },
      { Ira::intfDirFactory(), "intfName {}\n" },
      { Ira::kernelUpdateCodefEntryFactory( Velon::IntfId( "Vlan1" ) ),
        "intfId Vlan1\nprocUpdate false\naddrUpdate false\nneedClean false\nerror 0\ntries 0\n"
        "firstTry 0\n" },
   };
   for( auto & [record, expected] : rows ) {
      EXPECT_EQ( shown( *record ), expected ) << record->fwkType()->fullName;
   }
}

TEST( AddrSetBogon, LetsAMemberGoThatLivesOn ) {
   auto bogon = Ira::addrSetBogonFactory( "bogon" );
   Story story( *bogon );
   auto set = bogon->addrSetHackIs( net( 1 ) );
   EXPECT_EQ( bogon->addrSetHackIs( net( 1 ) ), set );
   EXPECT_EQ( set->name(), "" );
   EXPECT_EQ( set->fullName(), "bogon/addrSetHack[10.0.1.0/24]" );
   set->ipIs( Velon::IpAddr( 10, 0, 1, 7 ) );
   EXPECT_EQ( bogon->addrSetHackDel( net( 2 ) ), nullptr );
   EXPECT_EQ( bogon->addrSetHackDel( net( 1 ) ), set );
   EXPECT_EQ( set->parent(), nullptr );
   EXPECT_EQ( set->references(), 1u );
   EXPECT_TRUE( set->ipHas( Velon::IpAddr( 10, 0, 1, 7 ) ) );
   EXPECT_EQ( story.told(), "addrSetHack[10.0.1.0/24]\naddrSetHack[10.0.1.0/24] gone\n" );
}

TEST( AddrSetBogon, LetsAllGoOneByOne ) {
   auto bogon = Ira::addrSetBogonFactory( "bogon" );
   Story story( *bogon );
   bogon->addrSetHackDelAll();
   EXPECT_EQ( story.told(), "" );
   std::vector< Ira::AddrSet::Ptr > sets;
   for( unsigned third = 1; third <= 3; ++third ) {
      sets.push_back( bogon->addrSetHackIs( net( third ) ) );
   }
   std::string expected;
   for( auto i = bogon->addrSetHackIteratorConst(); i; ++i ) {
      expected +=
         "addrSetHack[" + AnyValue( Zek::valueOps< Velon::Prefix >, &i.key() ).text() + "] gone\n";
   }
   story.told();
   bogon->addrSetHackDelAll();
   EXPECT_EQ( story.told(), expected ) << "in the order of the walk";
   for( auto & set : sets ) EXPECT_EQ( set->parent(), nullptr );
}

TEST( KernelUpdateCodefEntry, CountsItsTriesModulo2To32 ) {
   auto entry = Ira::kernelUpdateCodefEntryFactory( Velon::IntfId( "Vlan1" ) );
   entry->triesIs( UINT32_MAX );
   EXPECT_EQ( entry->triesInc( 1 ), 0u );
   EXPECT_EQ( entry->triesInc( 5 ), 5u );
   EXPECT_EQ( entry->tries(), 5u );
}

TEST( VrfToIntfMap, HoldsOneInterfacePerVrf ) {
   auto map = Ira::vrfToIntfMapFactory( "map" );
   Story story( *map );
   const Velon::IntfId vlan1( "Vlan1" ), vlan2( "Vlan2" );
   for( Velon::IntfId intf : { vlan1, vlan1, vlan2 } ) map->injectIntfIs( "red", intf );
   EXPECT_EQ( map->injectIntf( "red" ), vlan2 );
   EXPECT_EQ( map->injectIntf( "blue" ), Velon::IntfId() );
   EXPECT_EQ( map->injectIntfCount(), 1u );
   EXPECT_EQ( refusal< Zek::RangeException >(
                 [&] { map->injectIntfIs( std::string( 101, 'v' ), vlan1 ); } ),
              "VrfName::bytes > VrfName::maxLength not allowed" );
   EXPECT_EQ( map->injectIntfDel( "red" ), vlan2 );
   EXPECT_EQ( map->injectIntfDel( "red" ), Velon::IntfId() );
   EXPECT_EQ( story.told(), "injectIntf[red] Vlan1\ninjectIntf[red] Vlan2\n"
                            "injectIntf[red] gone\n" );
}

} // namespace
