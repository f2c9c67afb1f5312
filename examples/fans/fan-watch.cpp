// Mounts the fans of another process, tells of each change, and has every fan turn at one speed:
//
//    fan-watch /tmp/fans.socket 4000

#include "Chassis/Chassis.h"
#include "loops/Poll.h"
#include "platform/Kelmo/SocketMountGroup.h"

#include <iostream>
#include <map>
#include <string>

/// Tells of one fan.
struct FanWatch final : Chassis::Fan::NotifieeConst {
   explicit FanWatch( const Chassis::Fan::PtrConst & fan ) {
      notifierIs( fan );
      isRegisteredNotifieeIs( true );
      onRpm(); // what it is now
   }
   void onRpm() override {
      std::cout << "fan " << unsigned( notifier()->slot() ) << " turns at " << notifier()->rpm()
                << " of " << notifier()->target() << std::endl;
   }
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline constinit Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "FanWatch", 64 };
};

/// Keeps a watch for each fan there is, and has each turn at the speed that is wanted.
struct FansWatch final : Chassis::Fans::Notifiee {
   FansWatch( const Chassis::Fans::Ptr & fans, uint16_t speed ) : speed_( speed ) {
      notifierIs( fans );
      isRegisteredNotifieeIs( true );
      for( auto fan = fans->fanIterator(); fan; ++fan ) onFan( fan.ptr()->slot() );
   }
   /// One came, or went.
   void onFan( const uint8_t & slot ) override {
      const auto fan = notifier()->fan( slot );
      if( !fan ) {
         watches_.erase( slot );
         std::cout << "fan " << unsigned( slot ) << " is gone" << std::endl;
         return;
      }
      fan->targetIs( speed_ );
      watches_[slot] = Zek::allocate< FanWatch >( fan );
   }
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline constinit Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "FansWatch", 64 };
   const uint16_t speed_;
   std::map< uint8_t, Zek::Ptr< FanWatch > > watches_;
};

/// Tells of the alarms.
struct AlarmsWatch final : Chassis::Alarms::NotifieeConst {
   explicit AlarmsWatch( const Chassis::Alarms::PtrConst & alarms ) {
      notifierIs( alarms );
      isRegisteredNotifieeIs( true );
   }
   void onStanding( const uint8_t & slot ) override {
      std::cout << "fan " << unsigned( slot )
                << ( notifier()->standingHas( slot ) ? " STANDS" : " is well again" ) << std::endl;
   }
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline constinit Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "AlarmsWatch", 64 };
};

struct Agent final : Kelmo::MountGroupOwner {
   void onSynchronised() override {
      std::cout << "synchronised" << std::endl;
      if( fans ) return; // after a loss: the copies are the same objects as before
      auto at = [this]( const char * path ) { return root->entityAt( path ).ptr(); };
      alarms = Zek::allocate< AlarmsWatch >(
         dynamic_cast< Chassis::Alarms * >( at( "chassis/alarms" ) ) );
      fans = Zek::allocate< FansWatch >( dynamic_cast< Chassis::Fans * >( at( "chassis/fans" ) ),
                                         speed );
   }
   void onRefused( const Kelmo::Mount & mount, const std::string & reason ) override {
      std::cout << "cannot mount " << mount.path() << ": " << reason << std::endl;
   }
   void onLost( const std::string & reason ) override {
      std::cout << "lost: " << reason << std::endl;
   }

   uint16_t speed = 0;
   Zek::Dir::Ptr root = Zek::dirFactory();
   Zek::Ptr< FansWatch > fans;
   Zek::Ptr< AlarmsWatch > alarms;
};

int
main( int argc, char ** argv ) {
   if( argc != 3 ) {
      std::cerr << "usage: fan-watch SOCKET RPM\n";
      return 2;
   }
   Agent agent;
   try {
      agent.speed = uint16_t( std::stoul( argv[2] ) );
      // What is out of bounds is refused before it leaves this process.
      Chassis::fanFactory( 0, 0 )->targetIs( agent.speed );
   } catch( const std::exception & error ) {
      std::cerr << "fan-watch: " << error.what() << "\n";
      return 2;
   }
   auto group = Zek::allocate< Kelmo::SocketMountGroup >( agent.root, argv[1], agent );
   group->doMount( { "chassis/fans", "Chassis::Fans", "w", Kelmo::MountFilter( false ) } );
   group->doMount( { "chassis/alarms", "Chassis::Alarms", "r", Kelmo::MountFilter( false ) } );

   Kelmo::PollLoop loop;
   auto served = Kelmo::attach( loop, *group );
   loop.run();
}
