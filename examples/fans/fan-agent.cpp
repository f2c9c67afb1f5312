// Knows the fans. Reads what sensors say from standard input, a line "SLOT RPM" or "SLOT gone"
// each, and serves the records at a socket:
//
//    fan-agent /tmp/fans.socket

#include "Chassis/Chassis.h"
#include "loops/Poll.h"
#include "platform/Kelmo/Server.h"

#include <iostream>
#include <sstream>
#include <string>
#include <unistd.h>

/// Applies one line of the sensors; throws for what none says.
void
readSensor( Chassis::Fans & fans, const std::string & line ) {
   std::istringstream words( line );
   unsigned slot = 0;
   std::string what;
   if( !( words >> slot >> what ) || slot > 255 ) throw std::runtime_error( "expected SLOT RPM" );
   if( what == "gone" ) {
      fans.fanDel( uint8_t( slot ) );
      return;
   }
   const auto rpm = uint16_t( std::stoul( what ) );
   if( auto fan = fans.fan( uint8_t( slot ) ) ) {
      fan->rpmIs( rpm );
   } else {
      fans.fanIs( uint8_t( slot ), rpm );
   }
}

int
main( int argc, char ** argv ) {
   if( argc != 2 ) {
      std::cerr << "usage: fan-agent SOCKET\n";
      return 2;
   }
   std::ios::sync_with_stdio( false ); // std::cin says how much it holds
   // The tree: what is at a path here is mounted by that path elsewhere.
   auto root = Zek::dirFactory();
   auto chassis = root->dirIs( "chassis" );
   auto fans = Chassis::fansFactory( "fans" );
   auto alarms = Chassis::alarmsFactory( "alarms" );
   chassis->entityIs( fans );
   chassis->entityIs( alarms );

   // From now on the alarms follow the fans.
   auto machine = Chassis::fanSmFactory( alarms, fans );

   // Anyone of our user may mount all of it, and write what is at chassis/fans.
   Kelmo::ServerOptions options;
   options.writable = { "chassis/fans" };
   Kelmo::Server server( root, argv[1], options );

   Kelmo::PollLoop loop;
   auto served = Kelmo::attach( loop, server );
   auto sensors = loop.watch( STDIN_FILENO, [&] {
      do {
         std::string line;
         if( !std::getline( std::cin, line ) ) return loop.stop();
         try {
            readSensor( *fans, line );
         } catch( const std::exception & error ) {
            std::cerr << "fan-agent: '" << line << "': " << error.what() << "\n";
         }
      } while( std::cin.rdbuf()->in_avail() > 0 );
   } );
   loop.run();
}
