// A server and a mount group in an agent whose loop is libevent's; here both in one process.

#include "Ip/Ip.h"
#include "loops/Libevent.h"
#include "platform/Kelmo/Server.h"
#include "platform/Kelmo/SocketMountGroup.h"

#include <event2/event.h>
#include <filesystem>
#include <iostream>
#include <unistd.h>

struct Printer : Ip::IpIntfStatus::NotifieeConst {
   void onMaxMssEgress() override {
      std::cout << notifier()->intfId() << " " << notifier()->maxMssEgress() << "\n";
      if( notifier()->maxMssEgress() == 3000 ) event_base_loopbreak( base );
   }
   event_base * base = nullptr;
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline constinit Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "Printer", 64 };
};

struct Owner : Kelmo::MountGroupOwner {
   void onSynchronised() override {
      auto copy = dynamic_cast< Ip::Input::Status * >( root->entityAt( "ip/status" ).ptr() );
      printer->notifierIs( copy->ipIntfStatus( Velon::IntfId( "Ethernet1" ) ) );
      printer->isRegisteredNotifieeIs( true );
      std::cout << "synchronised\n";
      const timeval pause{ 0, 10000 };
      event_add( ticks, &pause );
   }
   Zek::Dir::Ptr root = Zek::dirFactory();
   Zek::Ptr< Printer > printer = Zek::allocate< Printer >();
   event * ticks = nullptr;
};

int
main() {
   const std::string path =
      std::filesystem::temp_directory_path() / ( "watch-libevent." + std::to_string( getpid() ) );
   event_base * base = event_base_new();

   // The one who knows: changes a record at each tick.
   auto root = Zek::dirFactory();
   auto status = Ip::Input::statusFactory( "status" );
   root->dirIs( "ip" )->entityIs( status );
   auto record = status->ipIntfStatusIs( Velon::IntfId( "Ethernet1" ), L3::Intf::Status::Ptr() );
   Kelmo::Server server( root, path );
   auto tick = []( evutil_socket_t, short, void * record ) {
      auto & changed = *static_cast< Ip::IpIntfStatus * >( record );
      changed.maxMssEgressIs( changed.maxMssEgress() + 1000 );
   };

   // The one who wants to know.
   Owner owner;
   owner.printer->base = base;
   owner.ticks = event_new( base, -1, EV_PERSIST, tick, record.ptr() );
   auto group = Zek::allocate< Kelmo::SocketMountGroup >( owner.root, path, owner );
   group->doMount( { "ip/status", "Ip::Input::Status", "r", Kelmo::MountFilter( false ) } );

   {
      // Nothing else has to be done for them.
      auto serverServed = Kelmo::attach( base, server );
      auto groupServed = Kelmo::attach( base, *group );
      Kelmo::run( base );
   }
   event_free( owner.ticks );
   event_base_free( base );
}
