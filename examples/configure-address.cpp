// Configures the address of an interface through a running ipstated, and waits until the kernel has
// it; or takes the interface out of the configuration, and waits until what that had there is gone:
//
//    ipstated --apply --serve /run/ipstated.socket &
//    configure-address /run/ipstated.socket eth0 10.0.0.1/24
//    configure-address /run/ipstated.socket eth0 none

#include "Ip/Ip.h"
#include "Ip6/Ip6.h"
#include "Ira/IpStatusMounter.h"
#include "platform/Kelmo/SocketMountGroup.h"

#include <algorithm>
#include <iostream>
#include <optional>
#include <poll.h>
#include <set>

using Clock = Kelmo::SocketMountGroup::Clock;

struct Configuration final : Kelmo::MountGroupOwner {
   /// Says it in the configuration records.
   void onSynchronised() override {
      const auto config = get< Ip::Config >( "ip/config" );
      const auto config6 = get< Ip6::Config >( "ip6/config" );
      if( !fault.empty() || !config || !config6 ) return;
      if( !before ) before = error();
      if( !wanted ) {
         noteConfigured( config->ipIntfConfig( intf ), config6->intf( intf ) );
         config->ipIntfConfigDel( intf );
         config6->intfDel( intf );
      } else if( wanted->af() == Velon::AddressFamily::ipv4 ) {
         config->ipIntfConfigIs( intf )->addrWithMaskIs( wanted->v4AddrWithMask() );
      } else {
         config6->intfIs( intf )->addrIs( Ip6::AddressInfo( wanted->v6AddrWithMask() ) );
      }
   }
   void onRefused( const Kelmo::Mount & mount, const std::string & reason ) override {
      fault = "cannot mount " + mount.path().toString() + ": " + reason;
   }
   // It connects again by itself.
   void onLost( const std::string & reason ) override { lost = reason; }

   /// Whether the kernel's state, as ipstated tells it, is what was asked for.
   bool agrees() {
      // What was wrong before may concern other addresses, or pass.
      if( const std::string now = error(); !now.empty() ) {
         const bool isOurs = wanted && now.find( wanted->toString() + ": " ) != std::string::npos;
         ( isOurs || ( before && before->empty() ) ? fault : lost ) = now;
      }
      const auto status = get< Ip::Status >( "ip/status" );
      const auto status6 = get< Ip6::Status >( "ip6/status" );
      if( !status || !status6 ) return false;
      const auto has4 = status->ipIntfStatus( intf );
      const auto has6 = status6->intf( intf );
      const auto has = [&]( const Velon::IpGenAddrWithMask & address ) {
         if( address.af() == Velon::AddressFamily::ipv4 ) {
            return has4 && ( has4->activeAddrWithMask() == address.v4AddrWithMask() ||
                             has4->activeSecondaryWithMaskHas( address.v4AddrWithMask() ) );
         }
         return has6 && has6->addrHas( address.v6AddrWithMask() );
      };
      return wanted ? has( *wanted ) : std::none_of( configured.begin(), configured.end(), has );
   }
   /// What an interface that leaves the configuration had there is to go; what it has from others
   /// stays.
   void noteConfigured( const Ip::IpIntfConfig::PtrConst & config,
                        const Ip6::IntfConfig::PtrConst & config6 ) {
      if( config ) {
         configured.insert( config->addrWithMask() );
         configured.insert( config->virtualAddrWithMask() );
         for( auto i = config->secondaryWithMaskIteratorConst(); i; ++i ) {
            configured.insert( i.key() );
         }
         for( auto i = config->virtualSecondaryWithMaskIteratorConst(); i; ++i ) {
            configured.insert( i.key() );
         }
      }
      if( config6 ) {
         configured.insert( config6->linkLocalAddrWithMask() );
         for( auto i = config6->addrIteratorConst(); i; ++i ) configured.insert( i.key() );
      }
      configured.erase( Velon::IpAddrWithMask() );
      configured.erase( Velon::Ip6AddrWithMask() );
   }
   std::string error() {
      const auto errors = get< Ip::IpConfigError >( "ip/configError" );
      return errors ? errors->ipIntfConfigError( intf ).toString() : "";
   }
   template< class T >
   Zek::Ptr< T > get( const char * path ) {
      return Zek::ptrCast< T >( root->entityAt( path ) );
   }

   Velon::IntfId intf;
   std::optional< Velon::IpGenAddrWithMask > wanted; // without: none
   std::set< Velon::IpGenAddrWithMask > configured;  // until it was to have none
   std::optional< std::string > before;              // what was wrong when we came
   std::string fault;
   std::string lost = "no answer from the kernel";
   Zek::Dir::Ptr root = Zek::dirFactory();
};

int
main( int argc, char ** argv ) {
   if( argc != 4 ) {
      std::cerr << "usage: configure-address SOCKET INTERFACE ADDRESS/LENGTH|none\n";
      return 2;
   }
   Configuration configuration;
   configuration.intf = Velon::IntfId( argv[2] );
   const bool none = std::string_view( argv[3] ) == "none";
   if( !none ) {
      Velon::IpGenAddrWithMask address;
      try {
         address = Velon::IpGenAddrWithMask( argv[3] );
      } catch( const Zek::RangeException & ) {}
      if( !address.v4Addr() && !address.v6Addr() ) { // 0.0.0.0 stands for none in the records
         std::cerr << "'" << argv[3]
                   << "' is no address of an interface with its prefix length, as "
                   << "10.0.0.1/24 and 2001:db8::1/64 are\n";
         return 2;
      }
      configuration.wanted = address;
   }
   Zek::Ptr< Kelmo::SocketMountGroup > group;
   try {
      group =
         Zek::allocate< Kelmo::SocketMountGroup >( configuration.root, argv[1], configuration );
   } catch( const Zek::RangeException & refused ) {
      std::cerr << "configure-address: " << refused.what() << "\n";
      return 2;
   }
   const auto mount = [&]( const char * path, const char * type, const char * mode ) {
      group->doMount( Kelmo::Mount( path, type, mode, Kelmo::MountFilter( false ) ) );
   };
   Ira::IraIpStatusMounter::doMountEntities( group, true, true );
   mount( "ip/configError", "Ip::IpConfigError", "r" );
   mount( "ip/config", "Ip::Config", "w" );
   mount( "ip6/config", "Ip6::Config", "w" );
   const auto end = Clock::now() + std::chrono::seconds( 10 );
   while( Clock::now() < end && configuration.fault.empty() ) {
      group->timePassed( Clock::now() );
      group->flush();
      if( group->isSynchronised() && configuration.agrees() ) {
         std::cout << argv[2] << ( none ? ": nothing configured" : " has " )
                   << ( none ? "" : argv[3] ) << std::endl;
         return 0;
      }
      pollfd wait{ group->fd(), POLLIN, 0 };
      if( poll( &wait, 1, 100 ) > 0 ) group->onReadable();
   }
   std::cerr << argv[2] << ": "
             << ( configuration.fault.empty() ? configuration.lost : configuration.fault ) << "\n";
   return 1;
}
