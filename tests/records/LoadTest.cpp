// What loading the library does: registers all types, once, however often it is loaded.

#include "framework/Ptr.h"
#include "framework/Type.h"
#include "tests/records/Records.h"

#include <filesystem>
#include <iostream>
#include <sstream>

#include <dlfcn.h>
#include <unistd.h>

using namespace Records;

namespace {

const struct {
   const char *space, *types;
} registered[] = {
   { "Ip::", "BgpRouteDistinguisherInput IpInputStatusDir IpAddrScope VrfStatusGlobal "
             "VrfIpIntfStatus Config AddrSource IpIntfConfig IpIntfStatus VrfStatusLocal "
             "TristateBool VrfState AllVrfStatusLocal VrfDefinitionRouteDistinguisherInput "
             "IntfAddrInfo MulticastGroupInfo IpConfigError AllVrfStatusGlobal AllVrfConfig "
             "VrfConfig MulticastGroupsForApplications RouteDistinguisherInput::ClientPrecedence "
             "RouteDistinguisherInput VrfCapability Input::Status Status" },
   { "Ip6::", "IntfStatus Config AddrSource AddressInfo TristateBool VrfIp6IntfStatus IntfConfig "
              "IntfAddrInfo MulticastGroupInfo Ip6Enable AcceptDad "
              "MulticastGroupsForApplications Input::Status Status" },
   { "L3::", "Config UpdateIpIntfStatusVrfRequest ProtocolAgentModelStatus "
             "UpdateIpIntfStatusRequest Intf::Config Intf::ConfigDir Intf::StatusDir "
             "Intf::InputStatusDir Intf::Input::StatusDir Intf::Status "
             "UpdateIpIntfStatusRequests ProtocolAgentModelType UpdateIpIntfStatusVrfRequests" },
   { "Urpf::", "UrpfConfig UrpfMode UrpfStatus UrpfState UrpfOnAllIntfStat" },
   { "Ira::", "IraIpStatusMounter IntfDir Ip6LinkLocalAddrSet AddrSet Ip6AddrSet AddrSetBogon "
              "KernelUpdateCodefEntry VrfToIntfMap" },
   { "IpGen::", "IntfStatus Ipv4Status McaddrIteratorConst Ipv4IntfStatus Ipv6Status "
                "Ipv6MulticastGroupsForApplications IntfAddrInfo MulticastGroupsForApplications "
                "Ipv4MulticastGroupsForApplications Status Ipv6IntfStatus IntfSm StatusSm "
                "SourceIntf::SourceIntfSm SourceIntf::VrfSourceIntfSm SourceIntf::SourceIntf "
                "SourceIntf::SourceIntfDir" },
   { "Ip::SourceIntf::", "SourceIntfSm VrfSourceIntfSm SourceIntf SourceIntfDir" },
   { "VirtualIp::", "VrfIpPair AcceptMode VirtualIpStatus VirtualIpIntfStatus "
                    "VirtualIp6IntfStatus VrfIpWithMaskPair VirtualIp6Status" },
   { "VrfTypes::", "MultiAgentVrfProtoConfig VrfProtocolLaunchStatus MultiAgentVrfProtocolEntry "
                   "VrfCleanupEntry RibVrfAgents VrfAgentInfo VrfCleanupIndicator" },
};

using Find = const Zek::TypeDescriptor *( std::string_view );

/// How many of the types are there, and the names of those that are not.
std::string
census( Find * find ) {
   unsigned there = 0;
   std::string missing;
   for( auto & [space, types] : registered ) {
      std::istringstream names( types );
      for( std::string name; names >> name; ) {
         const Zek::TypeDescriptor * type = find( space + name );
         if( type && type->isRecord ) {
            ++there;
         } else {
            missing += ' ' + ( space + name );
         }
      }
   }
   return std::to_string( there ) + missing;
}

uint64_t
liveObjects() {
   uint64_t live = 0;
   for( auto info = Zek::AllocTrackTypeInfo::all(); info; info = info->next() ) {
      live += info->liveObjects();
   }
   return live;
}

// Before main: the library is loaded, nothing was made.
const std::string censusAtLoad = census( &Zek::typeNode );
const uint64_t objectsAtLoad = liveObjects();

TEST( Loading, RegistersEveryTypeBeforeAnyObjectExists ) {
   EXPECT_EQ( objectsAtLoad, 0u );
   EXPECT_EQ( censusAtLoad, "101" );
   EXPECT_EQ( recordTypes().size(), 101u ) << "and no other";
}

// A sanitizer's runtime stands no second copy of itself.
#ifdef __has_feature
#if __has_feature( address_sanitizer ) || __has_feature( thread_sanitizer )
#define IPSTATE_LOADS_ONCE
#endif
#endif
#ifndef IPSTATE_LOADS_ONCE

/// Where a function of the library lies, and its name for the linker.
Dl_info
whereIs( Find * find ) {
   Dl_info info = {};
   EXPECT_NE( dladdr( reinterpret_cast< void * >( find ), &info ), 0 );
   return info;
}

[[noreturn]] void
fail( const std::string & why ) {
   std::cerr << why << std::endl;
   _exit( 1 );
}

/// In a process of its own: the second copy loads and knows every type, or says why not, and the
/// first one goes on as before.
[[noreturn]] void
loadTwice( const char * path, bool inNewNamespace ) {
   const auto * before = Zek::typeNode( "Ip::IpIntfConfig" );
   const auto record = made( *before, 1 );
   void * copy = inNewNamespace ? dlmopen( LM_ID_NEWLM, path, RTLD_NOW | RTLD_LOCAL )
                                : dlopen( path, RTLD_NOW | RTLD_LOCAL );
   if( !copy ) fail( std::string( "no second copy: " ) + dlerror() );
   auto find = reinterpret_cast< Find * >( dlsym( copy, whereIs( &Zek::typeNode ).dli_sname ) );
   if( !find ) fail( "the second copy looks up nothing" );
   if( census( find ) != "101" ) fail( "in the second copy: " + census( find ) );
   if( census( &Zek::typeNode ) != "101" ) fail( "afterwards: " + census( &Zek::typeNode ) );
   if( recordTypes().size() != 101 ) fail( "types are registered twice" );
   if( Zek::typeNode( "Ip::IpIntfConfig" ) != before ) fail( "another descriptor" );
   if( record->fwkType() != before || !made( *before, 2 ) ) fail( "records are lost" );
   if( dlclose( copy ) != 0 ) fail( std::string( "cannot be closed: " ) + dlerror() );
   if( census( &Zek::typeNode ) != "101" ) fail( "closed: " + census( &Zek::typeNode ) );
   std::cerr << "both know all" << std::endl;
   _exit( 0 );
}

TEST( LoadingDeathTest, ASecondTimeInANamespaceOfItsOwnIsAnotherLibrary ) {
   EXPECT_EXIT( loadTwice( whereIs( &Zek::typeNode ).dli_fname, true ),
                testing::ExitedWithCode( 0 ), "both know all" );
}

TEST( LoadingDeathTest, OfACopyBesideTheFirstRegistersNothingTwice ) {
   const auto path = std::filesystem::temp_directory_path() /
                     ( "ipstate-copy-" + std::to_string( getpid() ) + ".so" );
   std::filesystem::copy_file( whereIs( &Zek::typeNode ).dli_fname, path );
   EXPECT_EXIT( loadTwice( path.c_str(), false ), testing::ExitedWithCode( 0 ), "both know all" );
   std::filesystem::remove( path );
}

#endif

} // namespace
