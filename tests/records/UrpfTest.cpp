// What is particular to the reverse-path filter's types.

#include "Urpf/UrpfTypes.h"
#include "tests/records/Records.h"

using namespace Records;

namespace {

template< class T >
class UrpfValue : public testing::Test {};
using UrpfValues = testing::Types< Urpf::UrpfConfig, Urpf::UrpfStatus >;
TYPED_TEST_SUITE( UrpfValue, UrpfValues );

TYPED_TEST( UrpfValue, IsUnsetOnlyWithoutModeAndWithoutAccessList ) {
   EXPECT_TRUE( !TypeParam() );
   EXPECT_EQ( TypeParam().mode(), Urpf::disable );
   EXPECT_FALSE( !TypeParam( Urpf::loose, "" ) );
   EXPECT_FALSE( !TypeParam( Urpf::disable, "acl" ) );
   EXPECT_FALSE( TypeParam( Urpf::loose, "" ) == TypeParam( Urpf::loose, "acl" ) );
   EXPECT_FALSE( TypeParam( Urpf::loose, "acl" ) == TypeParam( Urpf::strict, "acl" ) );
   EXPECT_EQ( TypeParam( Urpf::loose, "acl" ), TypeParam( Urpf::loose, "acl" ) );
}

TEST( UrpfOnAllIntfStat, CountsModulo2To32AndReturnsTheNewValue ) {
   auto stat = Urpf::urpfOnAllIntfStatFactory();
   EXPECT_EQ( stat->urpfOnLocalIntfCount(), 0u );
   EXPECT_EQ( stat->urpfOnLocalIntfCountDec( 1 ), 0xffffffffu );
   EXPECT_EQ( stat->urpfOnLocalIntfCountInc( 3 ), 2u );
   EXPECT_EQ( stat->urpfOnLocalIntfCountInc(), 3u );
   EXPECT_EQ( stat->urpfOnLocalIntfCountDec(), 2u );
   stat->urpfOnLocalIntfCountIs( 7 );
   EXPECT_EQ( stat->urpfOnLocalIntfCount(), 7u );
   EXPECT_EQ( stat->urpfOnGlobalIntfCount(), 0u ) << "the other one";
   EXPECT_EQ( stat->urpfOnGlobalIntfCountDec( 0x80000000u ), 0x80000000u );
   EXPECT_EQ( stat->urpfOnGlobalIntfCountInc( 0x80000000u ), 0u );
   EXPECT_EQ( stat->urpfOnLocalIntfCount(), 7u );
}

} // namespace
