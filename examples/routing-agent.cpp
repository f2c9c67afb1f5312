// A routing agent's eyes: mounts the interface status of its cell from ipstated, and follows the
// addresses, and those that packets from one interface carry.
//
//    routing-agent /run/ipstated.socket eth0

#include "IpGen/IpGenStatusSm.h"
#include "IpGen/SrcGenIntf.h"
#include "Ira/IpStatusMounter.h"
#include "platform/Kelmo/SocketMountGroup.h"

#include <algorithm>
#include <iostream>
#include <poll.h>

using Clock = Kelmo::SocketMountGroup::Clock;
namespace Source = IpGen::SourceIntf;

/// Tells of the address that packets from a registered interface carry.
struct SourceTeller final : Source::SourceIntf::NotifieeConst {
   SourceTeller( const char * family, const Source::SourceIntf::Ptr & source ) : family_( family ) {
      notifierIs( source );
      isRegisteredNotifieeIs( true );
      onIpAddr();
   }
   void onIpAddr() override {
      std::cout << family_ << " source of " << notifier()->intfId() << " is "
                << notifier()->ipAddr() << std::endl;
   }
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline constinit Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "SourceTeller", 64 };
   const char * family_;
};

/// What either family has: the view of its records with the machine that keeps it, and a registry
/// of source interfaces over the view. Tells of each address that comes or goes.
struct Family final : IpGen::Status::NotifieeConst {
   Family( const char * name, const IpGen::Status::Ptr & view, Velon::IntfId source )
      : name_( name ) {
      notifierIs( view );
      isRegisteredNotifieeIs( true );
      machine_ = IpGen::statusSmFactory( view ); // tells of what is there already
      registry_ = Source::sourceIntfSmFactory( Source::sourceIntfDirFactory(), view );
      teller_ = Zek::allocate< SourceTeller >( name, registry_->registerSourceIntf( source ) );
   }
   void onAddrChanged() override {
      const auto view = notifier();
      const auto address = view->changedAddr();
      std::cout << name_ << " " << view->changedIntf();
      if( !address.v4AddrWithMask() && !address.v6AddrWithMask() ) { // the primary IPv4 one went
         std::cout << " has none" << std::endl;
      } else {
         const bool has = view->addr( view->changedIntf(), address );
         std::cout << ( has ? " has " : " lost " ) << address << std::endl;
      }
   }
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline constinit Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "Family", 64 };
   const char * name_;
   IpGen::StatusSm::Ptr machine_;
   Source::SourceIntfSm::Ptr registry_;
   Zek::Ptr< SourceTeller > teller_;
};

struct Agent final : Kelmo::MountGroupOwner {
   void onSynchronised() override {
      std::cout << "synchronised" << std::endl;
      if( ip ) return; // again: the replicas are the same objects as before
      auto status = [this]( const char * path ) { return root->entityAt( path ).ptr(); };
      ip = Zek::allocate< Family >(
         "IPv4", IpGen::ipv4StatusFactory( dynamic_cast< Ip::Status * >( status( "ip/status" ) ) ),
         source );
      ip6 = Zek::allocate< Family >(
         "IPv6",
         IpGen::ipv6StatusFactory( dynamic_cast< Ip6::Status * >( status( "ip6/status" ) ) ),
         source );
   }
   void onRefused( const Kelmo::Mount & mount, const std::string & reason ) override {
      std::cout << "cannot mount " << mount.path() << ": " << reason << std::endl;
   }
   void onLost( const std::string & reason ) override { std::cout << reason << std::endl; }

   Velon::IntfId source;
   Zek::Dir::Ptr root = Zek::dirFactory();
   Zek::Ptr< Family > ip, ip6;
};

int
main( int argc, char ** argv ) {
   if( argc != 3 ) {
      std::cerr << "usage: routing-agent SOCKET INTERFACE\n";
      return 2;
   }
   Agent agent;
   agent.source = Velon::IntfId( argv[2] );
   Zek::Ptr< Kelmo::SocketMountGroup > group;
   try {
      group = Zek::allocate< Kelmo::SocketMountGroup >( agent.root, argv[1], agent );
   } catch( const Zek::RangeException & refused ) { // no path of a socket
      std::cerr << "routing-agent: " << refused.what() << "\n";
      return 2;
   }
   Ira::IraIpStatusMounter::doMountEntities( group, true, true );
   for( ;; ) {
      const auto wakeUp = group->timePassed( Clock::now() ); // connects, and connects again
      group->flush();
      int timeout = -1;
      if( wakeUp ) {
         using namespace std::chrono;
         timeout = std::max( 0, int( ceil< milliseconds >( *wakeUp - Clock::now() ).count() ) );
      }
      pollfd wait{ group->fd(), POLLIN, 0 };
      if( poll( &wait, 1, timeout ) > 0 ) group->onReadable();
   }
}
