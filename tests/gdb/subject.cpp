// Holds what the gdb printers show, and stops where gdb can see it.

#include "Ip/Ip.h"
#include "Ip6/Ip6.h"

namespace {

struct Shown {
   Zek::String text{ "say \"hello\"" };
   Zek::String noText;
   Zek::Name name{ "status" };
   Velon::IntfId intfId{ "Ethernet1" };
   L3::VrfName vrf{ "red" };
   Velon::IpAddr addr{ "10.0.0.1" };
   Velon::IpAddrWithMask withMask{ "10.0.0.1/24" };
   Velon::Ip6Addr addr6{ "2001:db8::1" };
   Velon::Ip6AddrWithMask withMask6{ "2001:db8::1/64" };
   Velon::Prefix prefix{ "10.0.0.0/8" };
   Velon::IpGenAddr general{ Velon::IpAddr( "192.0.2.1" ) };
   Velon::IpGenAddr general6{ Velon::Ip6Addr( "2001:db8::1" ) };
   Velon::IpGenAddr noAddr;
   Ip::IpIntfStatus::Ptr nothing;
   Ip::Input::Status::Ptr status = Ip::Input::statusFactory( "status" );
   Ip::IpIntfConfig::Ptr config = Ip::ipIntfConfigFactory( Velon::IntfId( "Ethernet1" ) );
   Zek::Entity::Ptr base = status;
};

} // namespace

// Not inline: where gdb stops.
[[gnu::noinline]] void
look( const Shown & shown ) {
   asm volatile( "" ::"r"( &shown ) : "memory" );
}

int
main() {
   Shown shown;
   for( const char * addr : { "10.0.0.3/24", "10.0.0.2/24" } ) {
      shown.config->secondaryWithMaskIs( Velon::IpAddrWithMask( addr ), true );
   }
   look( shown );
   // In an array with gaps, and while it grows.
   for( int i = 1; i <= 100; ++i ) {
      Velon::IntfId id( "Ethernet" + std::to_string( i ) );
      shown.status->ipIntfStatusIs( id, L3::Intf::statusFactory( id ) );
   }
   look( shown );
}
