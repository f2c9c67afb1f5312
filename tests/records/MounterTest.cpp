// Which mounts a routing agent asks for, seen by a mount group that writes them down.

#include "Ira/IpStatusMounter.h"
#include "framework/Generic.h"
#include "platform/Kelmo/MountGroup.h"
#include "platform/Vistrel/Trace.h"
#include "tests/records/Records.h"

#include <cstdlib>

namespace {

class RecordingGroup final : public Kelmo::MountGroup {
 public:
   void doMount( const Kelmo::Mount & mount ) override {
      if( requests == refused ) throw Zek::RangeException( "no such path" );
      ++requests;
      EXPECT_EQ( mount.filter(), Kelmo::MountFilter( false ) );
      seen += mount.path().toString() + " " + mount.typeName().toString() + " " +
              mount.mode().toString() + "\n";
   }
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static Zek::AllocTrackTypeInfo allocTrackTypeInfo_;

   int requests = 0;
   int refused = -1; // the number of the request that it refuses
   std::string seen;
};
Zek::AllocTrackTypeInfo RecordingGroup::allocTrackTypeInfo_( "RecordingGroup",
                                                             sizeof( RecordingGroup ) );

const std::string l3 = "l3/intf/input/status/system L3::Intf::Input::StatusDir r\n"
                       "cell/2/l3/intf/input/status-2 L3::Intf::Input::StatusDir r\n";
const std::string ipv4 = "ip/input/status Zek::Dir ri\n"
                         "cell/2/ip/input/status-2 Ip::Input::Status r\n"
                         "ip/status Ip::Status r\n";
const std::string ipv6 = "ip6/input/status Zek::Dir ri\n"
                         "cell/2/ip6/input/status-2 Ip6::Input::Status r\n"
                         "ip6/status Ip6::Status r\n";

class Mounter : public testing::Test {
 protected:
   Mounter() { setenv( "IPSTATE_CELL", "2", 1 ); }
   ~Mounter() override { unsetenv( "IPSTATE_CELL" ); }
   std::string mounted( bool v4, bool v6 ) {
      auto group = Zek::allocate< RecordingGroup >();
      Ira::IraIpStatusMounter::doMountEntities( group, v4, v6 );
      EXPECT_EQ( group->references(), 1u );
      return group->seen;
   }
};
using MounterDeathTest = Mounter;

TEST_F( Mounter, AsksForTheFamiliesWantedOfItsCell ) {
   EXPECT_EQ( mounted( true, false ), l3 + ipv4 );
   EXPECT_EQ( mounted( false, true ), l3 + ipv6 );
   EXPECT_EQ( mounted( true, true ), l3 + ipv4 + ipv6 );
   unsetenv( "IPSTATE_CELL" );
   EXPECT_NE( mounted( true, true ).find( "\ncell/1/ip/input/status-1 " ), std::string::npos );
}

TEST_F( MounterDeathTest, AssertsThatAFamilyIsWanted ) {
   EXPECT_DEATH( mounted( false, false ),
                 "assertion 'mountV4 \\|\\| mountV6' failed \\(source IpStatusMounter\\)" );
}

TEST_F( Mounter, HandsOnWhatTheGroupThrowsAfterEarlierRequests ) {
   auto group = Zek::allocate< RecordingGroup >();
   group->refused = 3;
   EXPECT_THROW( Ira::IraIpStatusMounter::doMountEntities( group, true, true ),
                 Zek::RangeException );
   EXPECT_EQ( group->seen, l3 + "ip/input/status Zek::Dir ri\n" );
   EXPECT_THROW( Ira::IraIpStatusMounter::doMountEntities( nullptr, true, true ),
                 Zek::RangeException );
}

TEST_F( Mounter, TracesToRingAndSink ) {
   std::string sunk;
   const Vistrel::Sink sink{ []( void * to, const Vistrel::Message & m ) {
                               *static_cast< std::string * >( to ) +=
                                  std::string( m.handle ) + "/" + std::to_string( m.level ) + " " +
                                  m.source + ":" + m.function + " " + std::string( m.text );
                            },
                             &sunk };
   const Vistrel::Sink * before = Vistrel::sinkIs( &sink );
   Vistrel::settingIs( "IraIpStatusMounter/8" );
   mounted( true, false );
   Vistrel::settingIs( "" );
   Vistrel::sinkIs( before );
   const std::string text =
      "static void Ira::IraIpStatusMounter::doMountEntities(const Ptr&, bool, bool)"
      " mountV4 true mountV6 false";
   EXPECT_EQ( sunk, "IraIpStatusMounter/8 IpStatusMounter:doMountEntities " + text );
   EXPECT_EQ( Vistrel::TraceHandle::find( "IraIpStatusMounter" )->records().back().text, text );
}

TEST_F( Mounter, IsReachedByName ) {
   const Zek::TypeDescriptor * type = Zek::typeNode( "Kelmo::MountGroup" );
   ASSERT_TRUE( type );
   EXPECT_EQ( type->kind, Zek::TypeKind::object );
   EXPECT_FALSE( type->isRecord );
   EXPECT_EQ( Records::recordTypes().size(), 101u );

   auto group = Zek::allocate< RecordingGroup >();
   EXPECT_EQ( group->fwkType(), type );
   const Zek::GenericIf & mounter = *Zek::typeNode( "Ira::IraIpStatusMounter" )->genericIf;
   Zek::GenericValue made = mounter.genericIfFromCtorArgs( {} );
   auto mount = [&]( const Zek::GenericValue & mg ) {
      mounter.genericIfAttributeOp( made, Zek::GenericOperation::call, "doMountEntities",
                                    { mg, false, true } );
   };
   mount( Kelmo::MountGroup::Ptr( group ) );
   EXPECT_EQ( group->seen, l3 + ipv6 );
   EXPECT_THROW( mount( made ), Zek::RejectedException ) << "no mount group";
   // It is static: the type will do.
   mounter.genericIfAttributeOp( Zek::GenericTarget( mounter.type() ), Zek::GenericOperation::call,
                                 "doMountEntities",
                                 { Kelmo::MountGroup::Ptr( group ), true, false } );
   EXPECT_EQ( group->seen, l3 + ipv6 + l3 + ipv4 );
   EXPECT_THROW(
      mounter.genericIfAttributeOp( made, Zek::GenericOperation::read, "doMountEntities" ),
      Zek::RejectedException );
}

} // namespace
