// The answers of the bindings: each question is read from the family's own records.

#include "IpGen/IpGen.h"

#include "platform/Vistrel/Trace.h"

namespace IpGen {

namespace {

constinit Vistrel::TraceHandle traceHandle( "Ira::IpGen", "IpGen" );
constexpr unsigned traceLevel = 8;

// -- What one interface record answers, per family --------------------------------------------

bool
hasAddr( const Ip::IpIntfStatus & record, const Velon::IpGenAddrWithMask & address ) {
   const Velon::IpAddrWithMask v4 = address.v4AddrWithMask();
   // A secondary counts by the value stored with it.
   return v4 == record.activeAddrWithMask() || record.activeSecondaryWithMask( v4 );
}

bool
hasAddr( const Ip6::IntfStatus & record, const Velon::IpGenAddrWithMask & address ) {
   return !( record.addr( address.v6AddrWithMask() ) == Ip6::AddressInfo() );
}

Velon::IpGenAddrWithMask
activeAddrOf( const Ip::IpIntfStatus & record ) {
   return record.activeAddrWithMask();
}

// Deliberate: the generic layer identifies an IPv6 interface by its link-local address, never by
// a global one.
Velon::IpGenAddrWithMask
activeAddrOf( const Ip6::IntfStatus & record ) {
   return record.linkLocalAddrWithMask();
}

// The questions that a record answers alike in every binding; all take none for an answer.
template< class Record >
bool
addrOf( const Zek::Ptr< const Record > & record, const Velon::IpGenAddrWithMask & address ) {
   return record && hasAddr( *record, address );
}

template< class Record >
Velon::IpGenAddrWithMask
activeAddrOf( const Zek::Ptr< const Record > & record ) {
   return record ? activeAddrOf( *record ) : Velon::IpGenAddrWithMask();
}

template< class Record >
L3::VrfName
vrfOf( const Zek::Ptr< const Record > & record ) {
   return record ? record->vrf() : L3::VrfName();
}

template< class Record >
bool
dpRoutingOf( const Zek::Ptr< const Record > & record ) {
   return record && record->dpRoutingEnabled();
}

} // namespace

// -- IntfAddrInfo -----------------------------------------------------------------------------

Zek::String
IntfAddrInfo::pretty() const {
   return Zek::String( intfId().toString() + " " + addr().toString() );
}

// -- Status -----------------------------------------------------------------------------------

void
Status::reset() {
   changedVrfIs( L3::VrfName() );
   changedIntfIs( Velon::IntfId() );
   changedAddrIs( Velon::IpGenAddrWithMask() );
}

// -- Ipv4Status -------------------------------------------------------------------------------

Velon::AddressFamily
Ipv4Status::af() const {
   return Velon::AddressFamily::ipv4;
}

bool
Ipv4Status::intf( Velon::IntfId intfId ) const {
   return ipStatus()->ipIntfStatusHas( intfId );
}

L3::VrfName
Ipv4Status::vrf( Velon::IntfId intfId ) const {
   return vrfOf( ipStatus()->ipIntfStatus( intfId ) );
}

bool
Ipv4Status::vrfIpIntfStatus( const L3::VrfName & vrfName ) const {
   return ipStatus()->vrfIpIntfStatusHas( vrfName );
}

bool
Ipv4Status::intfInVrf( const L3::VrfName & vrfName, Velon::IntfId intfId ) const {
   const auto vrf = ipStatus()->vrfIpIntfStatus( vrfName );
   return vrf && vrf->ipIntfStatusHas( intfId );
}

bool
Ipv4Status::addr( Velon::IntfId intfId, const Velon::IpGenAddrWithMask & address ) const {
   return addrOf( ipStatus()->ipIntfStatus( intfId ), address );
}

Velon::IpGenAddrWithMask
Ipv4Status::activeAddr( Velon::IntfId intfId ) const {
   return activeAddrOf( ipStatus()->ipIntfStatus( intfId ) );
}

// -- Ipv6Status -------------------------------------------------------------------------------

Velon::AddressFamily
Ipv6Status::af() const {
   return Velon::AddressFamily::ipv6;
}

bool
Ipv6Status::intf( Velon::IntfId intfId ) const {
   return ip6Status()->intfHas( intfId );
}

L3::VrfName
Ipv6Status::vrf( Velon::IntfId intfId ) const {
   return vrfOf( ip6Status()->intf( intfId ) );
}

bool
Ipv6Status::vrfIpIntfStatus( const L3::VrfName & vrfName ) const {
   return ip6Status()->vrfIp6IntfStatusHas( vrfName );
}

bool
Ipv6Status::intfInVrf( const L3::VrfName & vrfName, Velon::IntfId intfId ) const {
   const auto vrf = ip6Status()->vrfIp6IntfStatus( vrfName );
   return vrf && vrf->ip6IntfStatusHas( intfId );
}

bool
Ipv6Status::addr( Velon::IntfId intfId, const Velon::IpGenAddrWithMask & address ) const {
   return addrOf( ip6Status()->intf( intfId ), address );
}

Velon::IpGenAddrWithMask
Ipv6Status::activeAddr( Velon::IntfId intfId ) const {
   return activeAddrOf( ip6Status()->intf( intfId ) );
}

// -- IntfStatus -------------------------------------------------------------------------------

void
IntfStatus::reset() {
   changedIntfIs( Velon::IntfId() );
   changedAddrIs( Velon::IpGenAddrWithMask() );
}

// -- Ipv4IntfStatus ---------------------------------------------------------------------------

Velon::AddressFamily
Ipv4IntfStatus::af() const {
   return Velon::AddressFamily::ipv4;
}

bool
Ipv4IntfStatus::intf( Velon::IntfId intfId ) const {
   return vrfIpIntfStatus()->ipIntfStatusHas( intfId );
}

bool
Ipv4IntfStatus::dpRouting( Velon::IntfId intfId ) const {
   return dpRoutingOf( vrfIpIntfStatus()->ipIntfStatus( intfId ) );
}

bool
Ipv4IntfStatus::addr( Velon::IntfId intfId, const Velon::IpGenAddrWithMask & address ) const {
   return addrOf( vrfIpIntfStatus()->ipIntfStatus( intfId ), address );
}

Velon::IpGenAddrWithMask
Ipv4IntfStatus::activeAddr( Velon::IntfId intfId ) const {
   return activeAddrOf( vrfIpIntfStatus()->ipIntfStatus( intfId ) );
}

// -- Ipv6IntfStatus ---------------------------------------------------------------------------

Velon::AddressFamily
Ipv6IntfStatus::af() const {
   return Velon::AddressFamily::ipv6;
}

bool
Ipv6IntfStatus::intf( Velon::IntfId intfId ) const {
   return vrfIp6IntfStatus()->ip6IntfStatusHas( intfId );
}

bool
Ipv6IntfStatus::dpRouting( Velon::IntfId intfId ) const {
   return dpRoutingOf( vrfIp6IntfStatus()->ip6IntfStatus( intfId ) );
}

bool
Ipv6IntfStatus::addr( Velon::IntfId intfId, const Velon::IpGenAddrWithMask & address ) const {
   return addrOf( vrfIp6IntfStatus()->ip6IntfStatus( intfId ), address );
}

Velon::IpGenAddrWithMask
Ipv6IntfStatus::activeAddr( Velon::IntfId intfId ) const {
   return activeAddrOf( vrfIp6IntfStatus()->ip6IntfStatus( intfId ) );
}

// -- Multicast groups -------------------------------------------------------------------------

namespace {

Ip::IntfAddrInfo
v4Key( const IntfAddrInfo & info ) {
   return { info.intfId(), info.addr().v4Addr() };
}

Ip6::IntfAddrInfo
v6Key( const IntfAddrInfo & info ) {
   return { info.intfId(), info.addr().v6Addr() };
}

} // namespace

Velon::AddressFamily
Ipv4MulticastGroupsForApplications::af() const {
   return Velon::AddressFamily::ipv4;
}

bool
Ipv4MulticastGroupsForApplications::mcaddr( const IntfAddrInfo & info ) const {
   return groups()->mcaddrHas( v4Key( info ) );
}

void
Ipv4MulticastGroupsForApplications::mcaddrIs( const IntfAddrInfo & info, bool present ) {
   if( present ) {
      groups()->mcaddrIs( v4Key( info ) );
   } else {
      mcaddrDel( info );
   }
}

void
Ipv4MulticastGroupsForApplications::mcaddrDel( const IntfAddrInfo & info ) {
   groups()->mcaddrDel( v4Key( info ) );
}

Velon::AddressFamily
Ipv6MulticastGroupsForApplications::af() const {
   return Velon::AddressFamily::ipv6;
}

bool
Ipv6MulticastGroupsForApplications::mcaddr( const IntfAddrInfo & info ) const {
   return groups()->mcaddrHas( v6Key( info ) );
}

void
Ipv6MulticastGroupsForApplications::mcaddrIs( const IntfAddrInfo & info, bool present ) {
   if( present ) {
      groups()->mcaddrIs( v6Key( info ) );
   } else {
      mcaddrDel( info );
   }
}

void
Ipv6MulticastGroupsForApplications::mcaddrDel( const IntfAddrInfo & info ) {
   groups()->mcaddrDel( v6Key( info ) );
}

// -- McaddrIteratorConst ----------------------------------------------------------------------

namespace {

constexpr char initialising[] =
   "void IpGen::McaddrIteratorConst::doInitializeCurrentIntfAddrInfo()";
constexpr char advancing[] =
   "IpGen::McaddrIteratorConst& IpGen::McaddrIteratorConst::operator+=(U32)";

// One family's half of the iterator: where it stands and what it traces.
template< class Groups >
struct Walk {
   using Entries = decltype( std::declval< const Groups & >().mcaddrIteratorConst() );
   const char * function;
   const char * signature;
   const char * none;
   const char * found;

   /// Takes the pair under `at`, or is done.
   void take( McaddrIteratorConst & iterator, const Entries & at, const char * otherwise ) const {
      if( !at ) {
         Vistrel::trace( traceHandle, traceLevel, function, signature, otherwise );
         iterator.doneIs( true );
         return;
      }
      iterator.currIntfAddrInfoIs( IntfAddrInfo( at.key().intfId(), at.key().addr() ) );
      Vistrel::trace( traceHandle, traceLevel, function, signature, found,
                      iterator.currIntfAddrInfo().pretty().view() );
   }
   void start( McaddrIteratorConst & iterator, const Groups & groups ) const {
      take( iterator, groups.mcaddrIteratorConst(), none );
   }
   template< class Key >
   void advance( McaddrIteratorConst & iterator, const Groups & groups, const Key & key ) const {
      if( groups.mcaddrCount() == 0 ) {
         take( iterator, groups.mcaddrIteratorConst(), none );
         return;
      }
      Entries at = groups.mcaddrIteratorConst( key );
      if( at ) ++at;
      take( iterator, at, " Current was the last element" );
   }
};

template< class Groups >
Walk< Groups >
v4Walk( const Groups *, const char * function, const char * signature ) {
   return { function, signature, " No V4 mcaddr entries", " Found V4 mcaddr entry" };
}

template< class Groups >
Walk< Groups >
v6Walk( const Groups *, const char * function, const char * signature ) {
   return { function, signature, " No V6 mcaddr entries", " Found V6 mcaddr entry" };
}

[[noreturn]] void
familyNotSupported() {
   Zek::assertionFailed( "AddressFamily not supported", "IpGen" );
}

} // namespace

void
McaddrIteratorConst::doInitializeCurrentIntfAddrInfo() {
   constexpr char function[] = "doInitializeCurrentIntfAddrInfo";
   Vistrel::trace( traceHandle, traceLevel, function, initialising );
   const Velon::AddressFamily family = minfo()->af();
   if( family == Velon::AddressFamily::ipv4 ) {
      const auto & held = static_cast< const Ipv4MulticastGroupsForApplications & >( *minfo() );
      ipv4MinfoIs( held.groups() );
      v4Walk( ipv4Minfo().ptr(), function, initialising ).start( *this, *ipv4Minfo() );
   } else if( family == Velon::AddressFamily::ipv6 ) {
      const auto & held = static_cast< const Ipv6MulticastGroupsForApplications & >( *minfo() );
      ipv6MinfoIs( held.groups() );
      v6Walk( ipv6Minfo().ptr(), function, initialising ).start( *this, *ipv6Minfo() );
   } else {
      familyNotSupported();
   }
}

McaddrIteratorConst &
McaddrIteratorConst::operator+=( uint32_t ) {
   constexpr char function[] = "operator+=";
   const Velon::AddressFamily family = minfo()->af();
   if( family == Velon::AddressFamily::ipv4 ) {
      v4Walk( ipv4Minfo().ptr(), function, advancing )
         .advance( *this, *ipv4Minfo(), v4Key( currIntfAddrInfo() ) );
   } else if( family == Velon::AddressFamily::ipv6 ) {
      v6Walk( ipv6Minfo().ptr(), function, advancing )
         .advance( *this, *ipv6Minfo(), v6Key( currIntfAddrInfo() ) );
   } else {
      familyNotSupported();
   }
   return *this;
}

} // namespace IpGen
