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

// The records behind a view, by the names that each family has for them.
Zek::Ptr< const Ip::IpIntfStatus >
intfOf( const Ip::Status & status, Velon::IntfId intfId ) {
   return status.ipIntfStatus( intfId );
}

Zek::Ptr< const Ip::IpIntfStatus >
intfOf( const Ip::VrfIpIntfStatus & vrf, Velon::IntfId intfId ) {
   return vrf.ipIntfStatus( intfId );
}

Zek::Ptr< const Ip6::IntfStatus >
intfOf( const Ip6::Status & status, Velon::IntfId intfId ) {
   return status.intf( intfId );
}

Zek::Ptr< const Ip6::IntfStatus >
intfOf( const Ip6::VrfIp6IntfStatus & vrf, Velon::IntfId intfId ) {
   return vrf.ip6IntfStatus( intfId );
}

Zek::Ptr< const Ip::VrfIpIntfStatus >
vrfOf( const Ip::Status & status, const L3::VrfName & name ) {
   return status.vrfIpIntfStatus( name );
}

Zek::Ptr< const Ip6::VrfIp6IntfStatus >
vrfOf( const Ip6::Status & status, const L3::VrfName & name ) {
   return status.vrfIp6IntfStatus( name );
}

// The same where there may be none: a view over no record knows of nothing.
template< class Held >
auto
intfIn( const Zek::Ptr< const Held > & held, Velon::IntfId intfId ) {
   return held ? intfOf( *held, intfId ) : nullptr;
}

template< class Held >
auto
vrfIn( const Zek::Ptr< const Held > & held, const L3::VrfName & name ) {
   return held ? vrfOf( *held, name ) : nullptr;
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
   return intfIn( ipStatus(), intfId ) != nullptr;
}

L3::VrfName
Ipv4Status::vrf( Velon::IntfId intfId ) const {
   return vrfOf( intfIn( ipStatus(), intfId ) );
}

bool
Ipv4Status::vrfIpIntfStatus( const L3::VrfName & vrfName ) const {
   return vrfIn( ipStatus(), vrfName ) != nullptr;
}

bool
Ipv4Status::intfInVrf( const L3::VrfName & vrfName, Velon::IntfId intfId ) const {
   return intfIn( vrfIn( ipStatus(), vrfName ), intfId ) != nullptr;
}

bool
Ipv4Status::addr( Velon::IntfId intfId, const Velon::IpGenAddrWithMask & address ) const {
   return addrOf( intfIn( ipStatus(), intfId ), address );
}

Velon::IpGenAddrWithMask
Ipv4Status::activeAddr( Velon::IntfId intfId ) const {
   return activeAddrOf( intfIn( ipStatus(), intfId ) );
}

// -- Ipv6Status -------------------------------------------------------------------------------

Velon::AddressFamily
Ipv6Status::af() const {
   return Velon::AddressFamily::ipv6;
}

bool
Ipv6Status::intf( Velon::IntfId intfId ) const {
   return intfIn( ip6Status(), intfId ) != nullptr;
}

L3::VrfName
Ipv6Status::vrf( Velon::IntfId intfId ) const {
   return vrfOf( intfIn( ip6Status(), intfId ) );
}

bool
Ipv6Status::vrfIpIntfStatus( const L3::VrfName & vrfName ) const {
   return vrfIn( ip6Status(), vrfName ) != nullptr;
}

bool
Ipv6Status::intfInVrf( const L3::VrfName & vrfName, Velon::IntfId intfId ) const {
   return intfIn( vrfIn( ip6Status(), vrfName ), intfId ) != nullptr;
}

bool
Ipv6Status::addr( Velon::IntfId intfId, const Velon::IpGenAddrWithMask & address ) const {
   return addrOf( intfIn( ip6Status(), intfId ), address );
}

Velon::IpGenAddrWithMask
Ipv6Status::activeAddr( Velon::IntfId intfId ) const {
   return activeAddrOf( intfIn( ip6Status(), intfId ) );
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
   return intfIn( vrfIpIntfStatus(), intfId ) != nullptr;
}

bool
Ipv4IntfStatus::dpRouting( Velon::IntfId intfId ) const {
   return dpRoutingOf( intfIn( vrfIpIntfStatus(), intfId ) );
}

bool
Ipv4IntfStatus::addr( Velon::IntfId intfId, const Velon::IpGenAddrWithMask & address ) const {
   return addrOf( intfIn( vrfIpIntfStatus(), intfId ), address );
}

Velon::IpGenAddrWithMask
Ipv4IntfStatus::activeAddr( Velon::IntfId intfId ) const {
   return activeAddrOf( intfIn( vrfIpIntfStatus(), intfId ) );
}

// -- Ipv6IntfStatus ---------------------------------------------------------------------------

Velon::AddressFamily
Ipv6IntfStatus::af() const {
   return Velon::AddressFamily::ipv6;
}

bool
Ipv6IntfStatus::intf( Velon::IntfId intfId ) const {
   return intfIn( vrfIp6IntfStatus(), intfId ) != nullptr;
}

bool
Ipv6IntfStatus::dpRouting( Velon::IntfId intfId ) const {
   return dpRoutingOf( intfIn( vrfIp6IntfStatus(), intfId ) );
}

bool
Ipv6IntfStatus::addr( Velon::IntfId intfId, const Velon::IpGenAddrWithMask & address ) const {
   return addrOf( intfIn( vrfIp6IntfStatus(), intfId ), address );
}

Velon::IpGenAddrWithMask
Ipv6IntfStatus::activeAddr( Velon::IntfId intfId ) const {
   return activeAddrOf( intfIn( vrfIp6IntfStatus(), intfId ) );
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

// What a view asks its record; one over no record has no pairs and takes none.
template< class Groups >
bool
hasPair( const Zek::Ptr< Groups > & groups, const auto & key ) {
   return groups && groups->mcaddrHas( key );
}

template< class Groups >
Groups &
toChange( const Zek::Ptr< Groups > & groups ) {
   Zek::assertThat( groups != nullptr, "a record behind MulticastGroupsForApplications", "IpGen" );
   return *groups;
}

} // namespace

Velon::AddressFamily
Ipv4MulticastGroupsForApplications::af() const {
   return Velon::AddressFamily::ipv4;
}

bool
Ipv4MulticastGroupsForApplications::mcaddr( const IntfAddrInfo & info ) const {
   return hasPair( groups(), v4Key( info ) );
}

void
Ipv4MulticastGroupsForApplications::mcaddrIs( const IntfAddrInfo & info, bool present ) {
   if( present ) {
      toChange( groups() ).mcaddrIs( v4Key( info ) );
   } else {
      mcaddrDel( info );
   }
}

void
Ipv4MulticastGroupsForApplications::mcaddrDel( const IntfAddrInfo & info ) {
   toChange( groups() ).mcaddrDel( v4Key( info ) );
}

Velon::AddressFamily
Ipv6MulticastGroupsForApplications::af() const {
   return Velon::AddressFamily::ipv6;
}

bool
Ipv6MulticastGroupsForApplications::mcaddr( const IntfAddrInfo & info ) const {
   return hasPair( groups(), v6Key( info ) );
}

void
Ipv6MulticastGroupsForApplications::mcaddrIs( const IntfAddrInfo & info, bool present ) {
   if( present ) {
      toChange( groups() ).mcaddrIs( v6Key( info ) );
   } else {
      mcaddrDel( info );
   }
}

void
Ipv6MulticastGroupsForApplications::mcaddrDel( const IntfAddrInfo & info ) {
   toChange( groups() ).mcaddrDel( v6Key( info ) );
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
   void start( McaddrIteratorConst & iterator, const Zek::Ptr< Groups > & groups ) const {
      if( groups && groups->mcaddrCount() ) {
         take( iterator, groups->mcaddrIteratorConst(), none );
      } else {
         Vistrel::trace( traceHandle, traceLevel, function, signature, none );
         iterator.doneIs( true );
      }
   }
   template< class Key >
   void advance( McaddrIteratorConst & iterator, const Zek::Ptr< Groups > & groups,
                 const Key & key ) const {
      if( !groups || groups->mcaddrCount() == 0 ) {
         start( iterator, groups );
         return;
      }
      Entries at = groups->mcaddrIteratorConst( key );
      if( at ) ++at;
      take( iterator, at, " Current was the last element" );
   }
};

template< class Groups >
Walk< Groups >
v4Walk( const Zek::Ptr< Groups > &, const char * function, const char * signature ) {
   return { function, signature, " No V4 mcaddr entries", " Found V4 mcaddr entry" };
}

template< class Groups >
Walk< Groups >
v6Walk( const Zek::Ptr< Groups > &, const char * function, const char * signature ) {
   return { function, signature, " No V6 mcaddr entries", " Found V6 mcaddr entry" };
}

[[noreturn]] void
familyNotSupported() {
   Zek::assertionFailed( "AddressFamily not supported", "IpGen" );
}

// The record behind a handle that says it is of that binding's family.
template< class Binding >
auto
groupsOf( const Zek::Ptr< MulticastGroupsForApplications > & minfo ) {
   const auto binding = Zek::ptrCast< Binding >( minfo );
   Zek::assertThat( binding != nullptr,
                    "a derived type of MulticastGroupsForApplications that is not of this library",
                    "IpGen" );
   return binding->groups();
}

} // namespace

void
McaddrIteratorConst::doInitializeCurrentIntfAddrInfo() {
   constexpr char function[] = "doInitializeCurrentIntfAddrInfo";
   Vistrel::trace( traceHandle, traceLevel, function, initialising );
   if( !minfo() ) {
      doneIs( true );
      return;
   }
   const Velon::AddressFamily family = minfo()->af();
   if( family == Velon::AddressFamily::ipv4 ) {
      ipv4MinfoIs( groupsOf< Ipv4MulticastGroupsForApplications >( minfo() ) );
      v4Walk( ipv4Minfo(), function, initialising ).start( *this, ipv4Minfo() );
   } else if( family == Velon::AddressFamily::ipv6 ) {
      ipv6MinfoIs( groupsOf< Ipv6MulticastGroupsForApplications >( minfo() ) );
      v6Walk( ipv6Minfo(), function, initialising ).start( *this, ipv6Minfo() );
   } else {
      familyNotSupported();
   }
}

McaddrIteratorConst &
McaddrIteratorConst::operator+=( uint32_t ) {
   constexpr char function[] = "operator+=";
   if( !minfo() ) {
      doneIs( true );
      return *this;
   }
   const Velon::AddressFamily family = minfo()->af();
   if( family == Velon::AddressFamily::ipv4 ) {
      v4Walk( ipv4Minfo(), function, advancing )
         .advance( *this, ipv4Minfo(), v4Key( currIntfAddrInfo() ) );
   } else if( family == Velon::AddressFamily::ipv6 ) {
      v6Walk( ipv6Minfo(), function, advancing )
         .advance( *this, ipv6Minfo(), v6Key( currIntfAddrInfo() ) );
   } else {
      familyNotSupported();
   }
   return *this;
}

} // namespace IpGen
