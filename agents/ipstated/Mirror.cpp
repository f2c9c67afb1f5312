#include "agents/ipstated/Mirror.h"

#include <algorithm>

namespace Ipstated {

namespace {

Velon::IpAddrWithMask
keyOf( const Ip4Address & address ) {
   return Velon::IpAddrWithMask( Velon::IpAddr( address.local ), address.prefixLength );
}

Velon::Ip6AddrWithMask
keyOf( const Ip6Address & address ) {
   return Velon::Ip6AddrWithMask( Velon::Ip6Addr( address.address ), address.prefixLength );
}

Velon::IntfId
intfIdOf( const Interface & interface ) {
   return Velon::IntfId( interface.name );
}

/// Whether one of the interface's IPv4 addresses reads so; two may, to different other ends.
bool
holds( const Interface & interface, const Velon::IpAddrWithMask & key ) {
   return std::any_of(
      interface.addresses4.begin(), interface.addresses4.end(), [&]( const Ip4Address & address ) {
         return address.local == key.addr().value() && address.prefixLength == key.len();
      } );
}

template< class T >
Zek::Ptr< T >
lay( Zek::Dir & root, const std::string & directory, const std::string & name ) {
   Zek::Ptr< T > record = Zek::allocate< T >( Zek::Name( name ) );
   root.dirIs( directory )->entityIs( record );
   return record;
}

} // namespace

Mirror::Mirror( uint32_t cell, std::function< void( const std::string & ) > problem )
   : problem_( std::move( problem ) ),
     root_( Zek::dirFactory() ) {
   const std::string n = std::to_string( cell );
   lay< L3::Intf::Input::StatusDir >( *root_, "l3/intf/input/status", "system" );
   l3Input_ =
      lay< L3::Intf::Input::StatusDir >( *root_, "cell/" + n + "/l3/intf/input", "status-" + n );
   root_->dirIs( "ip/input/status" );
   ipInput_ = lay< Ip::Input::Status >( *root_, "cell/" + n + "/ip/input", "status-" + n );
   ipStatus_ = lay< Ip::Status >( *root_, "ip", "status" );
   root_->dirIs( "ip6/input/status" );
   ip6Input_ = lay< Ip6::Input::Status >( *root_, "cell/" + n + "/ip6/input", "status-" + n );
   ip6Status_ = lay< Ip6::Status >( *root_, "ip6", "status" );
   ipStatus_->vrfIpIntfStatusIs( L3::VrfName( defaultVrf ) );
   ip6Status_->vrfIp6IntfStatusIs( L3::VrfName( defaultVrf ) );
}

Mirror::~Mirror() = default;

Mirror::Records
Mirror::records( const Interface & interface ) const {
   Velon::IntfId intfId = intfIdOf( interface );
   return { l3Input_->intfStatus( intfId ), ipInput_->ipIntfStatus( intfId ),
            ip6Input_->intf( intfId ) };
}

// -- Whole interfaces -------------------------------------------------------------------------

void
Mirror::onInterface( const Interface & interface ) {
   Velon::IntfId intfId = intfIdOf( interface );
   Records records;
   records.l3 = l3Input_->intfStatusIs( intfId );
   records.l3->vrfIs( L3::VrfName( interface.vrf ) );
   records.ip = ipInput_->ipIntfStatusIs( intfId, records.l3 );
   records.ip6 = ip6Input_->intfIs( intfId, records.l3 );
   writeFlags( records, interface );
   writeConfig4( records, interface );
   writeConfig6( records, interface );
   writePrimary4( *records.ip, interface );
   for( const Ip4Address & address : interface.addresses4 ) {
      writeAddress4( *records.ip, keyOf( address ), true );
   }
   for( const Ip6Address & address : interface.addresses6 ) {
      writeAddress6( *records.ip6, address, Difference::added );
   }
   for( RawIp4 group : interface.groups4 ) {
      onGroup4( interface, group, Difference::added );
   }
   for( const RawIp6 & group : interface.groups6 ) {
      onGroup6( interface, group, Difference::added );
   }
   vrfIsEntered( records.l3->vrf(), records );
   ipStatus_->ipIntfStatusIs( records.ip );
   ip6Status_->intfIs( records.ip6 );
}

void
Mirror::onInterfaceGone( const Interface & interface ) {
   Velon::IntfId intfId = intfIdOf( interface );
   Records gone = records( interface );
   ipStatus_->ipIntfStatusDel( intfId );
   ip6Status_->intfDel( intfId );
   vrfIsLeft( gone.l3->vrf(), intfId );
   if( gone.ip->urpf().mode() != Urpf::UrpfMode::disable ) {
      urpfCountIs( urpfCount_ - 1 );
   }
   ipInput_->ipIntfStatusDel( intfId );
   ip6Input_->intfDel( intfId );
   l3Input_->intfStatusDel( intfId );
}

void
Mirror::onVrf( const Interface & interface, const std::string & ) {
   Records moved = records( interface );
   vrfIsLeft( moved.l3->vrf(), intfIdOf( interface ) );
   moved.l3->vrfIs( L3::VrfName( interface.vrf ) );
   vrfIsEntered( moved.l3->vrf(), moved );
}

void
Mirror::vrfIsEntered( const L3::VrfName & vrf, const Records & records ) {
   ipStatus_->vrfIpIntfStatusIs( vrf )->ipIntfStatusIs( records.ip );
   ip6Status_->vrfIp6IntfStatusIs( vrf )->ip6IntfStatusIs( records.ip6 );
}

void
Mirror::vrfIsLeft( const L3::VrfName & vrf, Velon::IntfId intfId ) {
   bool lasting = vrf == L3::VrfName( defaultVrf );
   if( Ip::VrfIpIntfStatus::Ptr directory = ipStatus_->vrfIpIntfStatus( vrf ) ) {
      directory->ipIntfStatusDel( intfId );
      if( !lasting && directory->ipIntfStatusCount() == 0 ) {
         ipStatus_->vrfIpIntfStatusDel( vrf );
      }
   }
   if( Ip6::VrfIp6IntfStatus::Ptr directory = ip6Status_->vrfIp6IntfStatus( vrf ) ) {
      directory->ip6IntfStatusDel( intfId );
      if( !lasting && directory->ip6IntfStatusCount() == 0 ) {
         ip6Status_->vrfIp6IntfStatusDel( vrf );
      }
   }
}

// -- Flags and settings -----------------------------------------------------------------------

void
Mirror::onFlags( const Interface & interface ) {
   writeFlags( records( interface ), interface );
}

void
Mirror::writeFlags( const Records & records, const Interface & interface ) {
   bool noArp = interface.noArp();
   records.ip->noArpIs( noArp ? Ip::TristateBool::isTrue : Ip::TristateBool::isFalse );
   records.ip6->noArpIs( noArp ? Ip6::TristateBool::isTrue : Ip6::TristateBool::isFalse );
}

void
Mirror::onConfig4( const Interface & interface ) {
   writeConfig4( records( interface ), interface );
}

void
Mirror::writeConfig4( const Records & records, const Interface & interface ) {
   const Ip4Config & config = interface.config4;
   Urpf::UrpfMode mode = config.rpFilter == 0   ? Urpf::UrpfMode::disable
                         : config.rpFilter == 1 ? Urpf::UrpfMode::strict
                                                : Urpf::UrpfMode::loose;
   bool was = records.ip->urpf().mode() != Urpf::UrpfMode::disable;
   bool is = mode != Urpf::UrpfMode::disable;
   records.ip->dpRoutingEnabledIs( config.forwarding );
   records.ip->directedBroadcastEnabledIs( config.bcForwarding );
   records.ip->urpfIs( Urpf::UrpfStatus( mode, Zek::String() ) );
   urpfCountIs( urpfCount_ + is - was );
}

void
Mirror::urpfCountIs( unsigned count ) {
   urpfCount_ = count;
   ipInput_->urpfConfiguredOnAnyIntfIs( count > 0 );
   ipStatus_->urpfConfiguredOnAnyIntfIs( count > 0 );
}

void
Mirror::onConfig6( const Interface & interface ) {
   writeConfig6( records( interface ), interface );
}

void
Mirror::writeConfig6( const Records & records, const Interface & interface ) {
   const Ip6Config & config = interface.config6;
   records.ip6->dpRoutingEnabledIs( config.forwarding );
   records.ip6->acceptDadIs( config.acceptDad );
   records.ip6->enhancedDadIs( config.enhancedDad );
   records.ip6->nsRetransmitIntervalIs( config.retransTime );
}

// -- Addresses and groups ---------------------------------------------------------------------

void
Mirror::onAddress4( const Interface & interface, const Ip4Address & address,
                    Difference difference ) {
   Ip::IpIntfStatus::Ptr status = ipInput_->ipIntfStatus( intfIdOf( interface ) );
   const Velon::IpAddrWithMask key = keyOf( address );
   writePrimary4( *status, interface );
   writeAddress4( *status, key, difference != Difference::removed || holds( interface, key ) );
}

void
Mirror::onPrimary4( const Interface & interface ) {
   writePrimary4( *ipInput_->ipIntfStatus( intfIdOf( interface ) ), interface );
}

void
Mirror::writePrimary4( Ip::IpIntfStatus & status, const Interface & interface ) {
   const Ip4Address * primary = interface.primary4();
   const Velon::IpAddrWithMask before = status.activeAddrWithMask();
   const Velon::IpAddrWithMask now = primary ? keyOf( *primary ) : Velon::IpAddrWithMask();
   if( before == now ) {
      return;
   }
   // An address that only changes its part is announced in the new place before it leaves the old
   // one.
   if( before && holds( interface, before ) ) {
      status.activeSecondaryWithMaskIs( before, true );
   }
   status.activeAddrWithMaskIs( now );
   status.activeSecondaryWithMaskDel( now );
}

void
Mirror::writeAddress4( Ip::IpIntfStatus & status, const Velon::IpAddrWithMask & address,
                       bool there ) {
   if( there && address != status.activeAddrWithMask() ) {
      status.activeSecondaryWithMaskIs( address, true );
   } else {
      status.activeSecondaryWithMaskDel( address );
   }
}

void
Mirror::onAddress6( const Interface & interface, const Ip6Address & address,
                    Difference difference ) {
   writeAddress6( *ip6Input_->intf( intfIdOf( interface ) ), address, difference );
}

void
Mirror::writeAddress6( Ip6::IntfStatus & status, const Ip6Address & address,
                       Difference difference ) {
   Velon::Ip6AddrWithMask key = keyOf( address );
   bool there = difference != Difference::removed;
   if( there && address.dadFailed() ) {
      status.dadfailedIs( key );
      status.addrDel( key );
   } else if( there ) {
      status.addrIs( Ip6::AddressInfo( key ) );
      status.dadfailedDel( key );
   } else {
      status.addrDel( key );
      status.dadfailedDel( key );
   }
}

void
Mirror::onGroup4( const Interface & interface, RawIp4 group, Difference difference ) {
   Ip::IpIntfStatus::Ptr status = ipInput_->ipIntfStatus( intfIdOf( interface ) );
   if( difference == Difference::removed ) {
      status->mcaddrDel( Velon::IpAddr( group ) );
   } else {
      status->mcaddrIs( Ip::MulticastGroupInfo( Velon::IpAddr( group ) ) );
   }
}

void
Mirror::onGroup6( const Interface & interface, const RawIp6 & group, Difference difference ) {
   Ip6::IntfStatus::Ptr status = ip6Input_->intf( intfIdOf( interface ) );
   if( difference == Difference::removed ) {
      status->mcaddrDel( Velon::Ip6Addr( group ) );
   } else {
      status->mcaddrIs( Ip6::MulticastGroupInfo( Velon::Ip6Addr( group ) ) );
   }
}

void
Mirror::onSynchronized() {
   if( onFullDump ) {
      onFullDump();
   }
}

void
Mirror::onProblem( const std::string & text ) {
   if( problem_ ) {
      problem_( text );
   }
}

} // namespace Ipstated
