// A server and a mount group in an agent whose loop is libevent's; here both in one process.

#include "Ip/Ip.h"
#include "platform/Kelmo/Server.h"
#include "platform/Kelmo/SocketMountGroup.h"

#include <event2/event.h>
#include <filesystem>
#include <iostream>
#include <unistd.h>

using Clock = Kelmo::SocketMountGroup::Clock;

struct Printer : Ip::IpIntfStatus::NotifieeConst {
   void onMaxMssEgress() override {
      std::cout << notifier()->intfId() << " " << notifier()->maxMssEgress() << "\n";
   }
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

/// Calls end.onReadable() whenever there is something to do.
template< class End >
event *
watch( event_base * base, End & end ) {
   auto ready = []( evutil_socket_t, short, void * end ) {
      static_cast< End * >( end )->onReadable();
   };
   event * made = event_new( base, end.fd(), EV_READ | EV_PERSIST, ready, &end );
   event_add( made, nullptr );
   return made;
}

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
   owner.ticks = event_new( base, -1, EV_PERSIST, tick, record.ptr() );
   auto group = Zek::allocate< Kelmo::SocketMountGroup >( owner.root, path, owner );
   group->doMount( { "ip/status", "Ip::Input::Status", "r", Kelmo::MountFilter( false ) } );

   event * events[] = { owner.ticks, watch( base, server ), watch( base, *group ),
                        event_new(
                           base, -1, 0, []( evutil_socket_t, short, void * ) {}, nullptr ) };
   event * const wakeUp = events[3];
   while( record->maxMssEgress() < 4000 ) {
      if( const auto at = group->timePassed( Clock::now() ) ) {
         using namespace std::chrono;
         const auto pause = ceil< microseconds >( *at - Clock::now() ).count();
         const timeval left{ pause / 1000000, pause % 1000000 };
         event_add( wakeUp, &left );
      }
      group->flush(); // what this turn changed goes out together
      server.flush();
      event_base_loop( base, EVLOOP_ONCE );
   }
   for( event * each : events ) event_free( each );
   event_base_free( base );
}
