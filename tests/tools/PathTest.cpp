// The path language: its texts, what they name in any tree, and values as people write them.

#include "framework/inspect/Place.h"
#include "framework/inspect/Text.h"

#include "Ip/Ip.h"
#include "tests/stream/Trees.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace Zek::Inspect {
namespace {

using ipstate::test::Random;

TEST( Path, ReadsAsItIsPrinted ) {
   struct {
      const char * text;
      const char * printed; // null: the same
   } good[] = {
      { "", nullptr },
      { "ip/status", nullptr },
      { "/ip/status/", "ip/status" },
      { "ip/status/ipIntfStatus[eth0].activeAddrWithMask", nullptr },
      { "a[10.0.0.1/24].b.c[*]", nullptr },
      { "a[\"]\"]/\"b/c\"/\"\\x00\\\"\"", nullptr },
      { "a[\"*\"]", nullptr },
      { "a[]", nullptr },
      { "l3/eth0.100", nullptr },
   };
   for( const auto & each : good ) {
      const Path path( each.text );
      EXPECT_EQ( path.text(), each.printed ? each.printed : each.text );
      EXPECT_EQ( path.picksAll(), std::string_view( each.text ).ends_with( "[*]" ) );
   }
   struct {
      const char * text;
      const char * expected;
   } bad[] = {
      { "a//b", "a name at offset 2" },
      { "a.", "an attribute at offset 2" },
      { "a[b", "\"]\" at offset 3" },
      { "a[b]c", "\"/\", \".\" or the end at offset 4" },
      { "\"a", "a closing quote at offset 2" },
      { "\"\\x1\"", "\\\", \\\\ or \\x and two hexadecimal digits at offset 2" },
      { "]", "a name at offset 0" },
   };
   for( const auto & each : bad ) {
      try {
         Path path( each.text );
         ADD_FAILURE() << each.text;
      } catch( const RangeException & error ) {
         EXPECT_EQ( error.what(),
                    "path '" + std::string( each.text ) + "': expected " + each.expected );
      }
   }
}

TEST( Place, LeadsThroughReferencesAndNamesTheNearest ) {
   auto root = dirFactory();
   auto input = Ip::Input::statusFactory( "input.1" );
   root->dirIs( "ip" )->entityIs( input );
   auto status = Ip::statusFactory( "status" );
   root->dirIs( "ip" )->entityIs( status );
   auto l3 = L3::Intf::statusFactory( Velon::IntfId( "eth0" ) );
   auto record = input->ipIntfStatusIs( Velon::IntfId( "eth0" ), l3 );
   record->urpfIs( Urpf::UrpfStatus( Urpf::strict, "edge 1" ) );
   status->ipIntfStatusIs( record );
   auto text = [&]( const char * path ) {
      std::string all;
      for( const Place & place : placesAt( *root, Path( path ) ) ) {
         all += ( all.empty() ? "" : " " ) + textOf( valueAt( place ) );
      }
      return all;
   };
   EXPECT_EQ( text( "ip/status/ipIntfStatus[eth0].urpf" ), "strict acl=\"edge 1\"" );
   EXPECT_EQ( text( "ip/status/ipIntfStatus[*].urpf.mode" ), "strict" );
   EXPECT_EQ( text( "ip/status/ipIntfStatus[eth0].l3Status.intfId" ), "eth0" );
   EXPECT_EQ( text( "ip/input.1/ipIntfStatus[eth0].maxMssEgress" ), "0" );
   EXPECT_EQ( text( "ip/input.1.urpfConfiguredOnAnyIntf" ), "false" );
   for( const auto & [path, problem] :
        { std::pair( "ip/statsu", "no 'statsu' in 'ip' (Zek::Dir); the nearest is 'status'" ),
          std::pair( "ip/status/ipIntfStatus[eth1]",
                     "no 'ipIntfStatus[eth1]' in 'ip/status'; the nearest is 'eth0'" ),
          std::pair( "ip/status/ipIntfStatus[eth0].activeAdr",
                     "no 'activeAdr' in 'ip/status/ipIntfStatus[eth0]' (Ip::IpIntfStatus)" ),
          std::pair( "ip/status/ipIntfStatus[eth0].urpf.moed",
                     "no 'moed' in 'ip/status/ipIntfStatus[eth0].urpf' (Urpf::UrpfStatus); the "
                     "nearest is 'mode'" ) } ) {
      try {
         (void)text( path );
         ADD_FAILURE() << path;
      } catch( const NotFoundException & error ) {
         EXPECT_EQ( std::string( error.what() ).substr( 0, std::string( problem ).size() ),
                    problem );
      }
   }
   EXPECT_EQ( completions( *root, "ip/s" ), std::vector< std::string >{ "ip/status" } );
   EXPECT_EQ( completions( *root, "ip/status/ipIntfStatus[" ),
              std::vector< std::string >{ "ip/status/ipIntfStatus[eth0]" } );
   EXPECT_EQ( completions( *root, "ip/status/ipIntfStatus[eth0].urpf.m" ),
              std::vector< std::string >{ "ip/status/ipIntfStatus[eth0].urpf.mode" } );
   EXPECT_TRUE( completions( *root, "nowhere/" ).empty() );
}

TEST( Place, HasOfAnyTreeOnePathEach ) {
   size_t records = 0, values = 0, members = 0;
   for( uint64_t seed = 1; seed <= 60; ++seed ) {
      Random random( seed );
      auto root = dirFactory();
      for( int i = 0; i < 120; ++i ) ipstate::test::mutate( random, *root, false );
      ipstate::test::forEachEntity( *root, [&]( const Entity & entity ) {
         const std::string path = pathOf( entity );
         ASSERT_EQ( placeAt( *root, path ).object.ptr(), &entity ) << seed << " " << path;
         ++records;
         for( const AttributeRow * row : rowsOf( *entity.fwkType() ) ) {
            if( !isShown( *row ) || row->has( abortsOnRead ) ) continue;
            if( row->kind != AttributeKind::collection ) {
               const GenericValue value = read( entity, *row );
               // What is computed is not written, and what stands in no tree has no path.
               if( !row->stored || value.isPointer() ) continue;
               const std::string text = textOf( value );
               ASSERT_EQ( valueFromText( *row->type, text, false, *root ), value )
                  << path << "." << row->name << " = " << text;
               ++values;
               continue;
            }
            for( const Member & member : membersOf( entity, *row ) ) {
               const std::string name = memberPath( path, *row, member.object.ptr(), member.key );
               const Place place = placeAt( *root, name );
               if( holdsRecords( *row ) ) {
                  ASSERT_EQ( place.object, member.object ) << seed << " " << name;
               } else {
                  ASSERT_EQ( place.path, name );
                  ASSERT_EQ( place.key.text(), member.key );
               }
               const auto offered = completions( *root, name.substr( 0, name.rfind( '[' ) + 1 ) );
               const bool isNamed = !name.ends_with( ']' );
               ASSERT_TRUE( isNamed || name.find( '"' ) != name.npos ||
                            std::count( offered.begin(), offered.end(), name ) )
                  << name;
               ++members;
            }
         }
      } );
   }
   EXPECT_GT( records, 500u );
   EXPECT_GT( values, 1000u );
   EXPECT_GT( members, 500u );
}

TEST( Text, OfAnyTypeReadsBack ) {
   Random random( 7 );
   size_t types = 0;
   const auto root = dirFactory();
   auto visit = [&]( const TypeDescriptor & type ) {
      if( type.isCounted() || !type.values ) return;
      for( const AttributeRow * field : rowsOf( type ) ) {
         if( field->isStored() && field->type->isCounted() ) return;
      }
      ++types;
      for( int i = 0; i < 200; ++i ) {
         GenericValue value = GenericValue::zero( type );
         ipstate::test::randomise( random, type, value.address() );
         const std::string text = textOf( value );
         GenericValue back;
         ASSERT_NO_THROW( back = valueFromText( type, text, false, *root ) )
            << type.fullName << " " << text;
         ASSERT_EQ( textOf( back ), text ) << type.fullName;
      }
   };
   forEachType(
      []( const TypeDescriptor & type, void * context ) {
         ( *static_cast< decltype( visit ) * >( context ) )( type );
      },
      &visit );
   EXPECT_GT( types, 20u );
   EXPECT_EQ( textOf( GenericValue( Urpf::UrpfConfig( Urpf::strict, "" ) ) ), "strict" );
}

} // namespace
} // namespace Zek::Inspect
