// The kernel's interfaces as records, in the tree that a routing agent mounts.
//
// What the kernel knows goes where the status records have a place for it, never into
// configuration:
//
//    VRF device that holds the interface     L3::Intf::Status      vrf
//    first primary IPv4 address              Ip::IpIntfStatus      activeAddrWithMask
//    every other IPv4 address                                      activeSecondaryWithMask, true
//    joined groups                           both families         mcaddr, without applications
//    forwarding                              both families         dpRoutingEnabled
//    reverse-path filter                     Ip::IpIntfStatus      urpf
//    broadcast forwarding                                          directedBroadcastEnabled
//    ARP flag                                both families         noArp
//    IPv6 addresses in use                   Ip6::IntfStatus       addr
//    IPv6 addresses found to be duplicates                         dadfailed
//    duplicate address detection                                   acceptDad, enhancedDad
//    neighbour solicitation interval                               nsRetransmitInterval
//
// Where the records stand, N being the cell:
//
//    l3/intf/input/status/system       L3::Intf::Input::StatusDir   empty: no system-wide interface
//    cell/N/l3/intf/input/status-N     L3::Intf::Input::StatusDir   owns the L3::Intf::Status
//    ip/input/status, ip6/input/status Zek::Dir                     inputs of others: none here
//    cell/N/ip/input/status-N          Ip::Input::Status            owns the Ip::IpIntfStatus
//    cell/N/ip6/input/status-N         Ip6::Input::Status           owns the Ip6::IntfStatus
//    ip/status, ip6/status             Ip::Status, Ip6::Status      all of them, and by VRF
//
// An interface is in `status` only while all else of it is in place: its input records and its
// place in the VRF's directory come first and go last, in the reverse order: who hears that it
// leaves its VRF finds it gone. The directory of a VRF exists while it has a member; that of the
// default VRF always. A VRF device is a member of its own VRF, as the loopback that it is there.

#pragma once

#include "agents/ipstated/KernelFeed.h"

#include "Ip/Ip.h"
#include "Ip6/Ip6.h"
#include "L3/L3.h"
#include "framework/Entity.h"

#include <cstdint>
#include <functional>
#include <string>

namespace Ipstated {

class Mirror : public KernelObserver {
 public:
   /// Lays the empty records for that cell. `problem` is called with the text of every problem
   /// that the feed reports; it may be empty.
   explicit Mirror( uint32_t cell, std::function< void( const std::string & ) > problem = {} );
   ~Mirror() override;
   Mirror( const Mirror & ) = delete;
   Mirror & operator=( const Mirror & ) = delete;

   const Zek::Dir::Ptr & root() const { return root_; }
   const Ip::Status & ipStatus() const { return *ipStatus_; }
   const Ip6::Status & ip6Status() const { return *ip6Status_; }

   /// Called at the end of every full dump told; may be empty.
   std::function< void() > onFullDump;

   void onInterface( const Interface & interface ) override;
   void onInterfaceGone( const Interface & interface ) override;
   void onVrf( const Interface & interface, const std::string & before ) override;
   void onFlags( const Interface & interface ) override;
   void onConfig4( const Interface & interface ) override;
   void onConfig6( const Interface & interface ) override;
   void onAddress4( const Interface & interface, const Ip4Address & address,
                    Difference difference ) override;
   void onAddress6( const Interface & interface, const Ip6Address & address,
                    Difference difference ) override;
   void onPrimary4( const Interface & interface ) override;
   void onGroup4( const Interface & interface, RawIp4 group, Difference difference ) override;
   void onGroup6( const Interface & interface, const RawIp6 & group,
                  Difference difference ) override;
   void onSynchronized() override;
   void onProblem( const std::string & text ) override;

 private:
   /// The records of one interface.
   struct Records {
      L3::Intf::Status::Ptr l3;
      Ip::IpIntfStatus::Ptr ip;
      Ip6::IntfStatus::Ptr ip6;
   };
   Records records( const Interface & interface ) const;

   static void writeFlags( const Records & records, const Interface & interface );
   void writeConfig4( const Records & records, const Interface & interface );
   static void writeConfig6( const Records & records, const Interface & interface );
   static void writePrimary4( Ip::IpIntfStatus & status, const Interface & interface );
   static void writeAddress4( Ip::IpIntfStatus & status, const Velon::IpAddrWithMask & address,
                              bool there );
   static void writeAddress6( Ip6::IntfStatus & status, const Ip6Address & address,
                              Difference difference );
   void vrfIsLeft( const L3::VrfName & vrf, Velon::IntfId intfId );
   void vrfIsEntered( const L3::VrfName & vrf, const Records & records );
   void urpfCountIs( unsigned count );

   std::function< void( const std::string & ) > problem_;
   Zek::Dir::Ptr root_;
   L3::Intf::Input::StatusDir::Ptr l3Input_;
   Ip::Input::Status::Ptr ipInput_;
   Ip6::Input::Status::Ptr ip6Input_;
   Ip::Status::Ptr ipStatus_;
   Ip6::Status::Ptr ip6Status_;
   unsigned urpfCount_ = 0; ///< interfaces with a reverse-path check
};

} // namespace Ipstated
