// What Ip6.zek declares and cannot say: what counts as configured, the link-local address, and
// the choice of a source address.
//
// The choice is a reduced form of RFC 6724, section 5: rules 1, 2, 6 and 8 in that order, with a
// coarse scope and a short label table of its own. Rules about deprecated, home and temporary
// addresses and about outgoing interfaces are not applied; nor is the state of duplicate address
// detection consulted. Pure functions of the address values, callable from any thread.

#include "Ip6/Ip6.h"

#include "platform/Velon/Prefix.h"
#include "platform/Vistrel/Trace.h"

namespace Ip6 {

namespace {

constinit Vistrel::TraceHandle traceHandle( "Ip6" );
constexpr unsigned traceLevel = 8;

} // namespace

// -- Source address selection -----------------------------------------------------------------

unsigned
scope( Velon::Ip6Addr addr ) {
   if( addr.isLinkLocal() ) return 0;
   if( addr.isSiteLocal() || addr.isUniqueLocal() ) return 1;
   // Deliberate: every multicast address has scope 1, whatever its scope field says.
   if( addr.isMulticast() ) return 1;
   return 2;
}

namespace {

struct LabelRow {
   Velon::Ip6Prefix prefix;
   unsigned label;
};

// Deliberate: tried in this order, not by prefix length, so that ::/0 decides for every address
// but the loopback and rule 6 tells no two other addresses apart.
constexpr LabelRow labelTable[] = {
   { Velon::Ip6Prefix( Velon::ip6AddrLoopback, 128 ), 0 },
   { Velon::Ip6Prefix( Velon::ip6AddrZero, 0 ), 1 },
   { Velon::Ip6Prefix( Velon::Ip6Addr( 0x2002000000000000, 0 ), 16 ), 2 },
   { Velon::Ip6Prefix( Velon::ip6AddrZero, 96 ), 3 },
   { Velon::Ip6Prefix( Velon::Ip6Addr( 0, 0x0000ffff00000000 ), 96 ), 4 },
};
constexpr unsigned noLabel = 255;

ordering
decided( ordering decision, const char * function, const char * line ) {
   Vistrel::trace( traceHandle, traceLevel, function, line );
   return decision;
}

void
traceCandidates( const char * function, const char * prefix, const Velon::Ip6Addr & sa,
                 const Velon::Ip6Addr & sb, const Velon::Ip6Addr & d ) {
   Vistrel::trace( traceHandle, traceLevel, function, prefix, sa, " SB: ", sb, " d: ", d );
}

} // namespace

unsigned
label( Velon::Ip6Addr addr ) {
   for( const LabelRow & row : labelTable ) {
      if( row.prefix.contains( addr ) ) return row.label;
   }
   return noLabel;
}

ordering
sasRule1( Velon::Ip6Addr sa, Velon::Ip6Addr sb, Velon::Ip6Addr d ) {
   traceCandidates( "sasRule1", "sasRule1:SA: ", sa, sb, d );
   if( sa == d ) return decided( PREFER_SA, "sasRule1", "sasRule1: PREFER_SA" );
   if( sb == d ) return decided( PREFER_SB, "sasRule1", "sasRule1: PREFER_SB" );
   return decided( EQUAL, "sasRule1", "sasRule1: EQUAL" );
}

ordering
sasRule2( Velon::Ip6Addr sa, Velon::Ip6Addr sb, Velon::Ip6Addr d ) {
   traceCandidates( "sasRule2", "sasRule2:SA: ", sa, sb, d );
   const unsigned scopeA = scope( sa );
   const unsigned scopeB = scope( sb );
   if( scopeA == scopeB ) return decided( EQUAL, "sasRule2", "sasRule2: EQUAL" );
   // The narrower candidate wins only where it still reaches the destination.
   const unsigned scopeD = scope( d );
   const bool preferB = scopeA < scopeB ? scopeA < scopeD : scopeB >= scopeD;
   return preferB ? decided( PREFER_SB, "sasRule2", "sasRule2: PREFER_SB" )
                  : decided( PREFER_SA, "sasRule2", "sasRule2: PREFER_SA" );
}

ordering
sasRule6( Velon::Ip6Addr sa, Velon::Ip6Addr sb, Velon::Ip6Addr d ) {
   traceCandidates( "sasRule6", "sasRule6:SA: ", sa, sb, d );
   const unsigned labelD = label( d );
   const bool matchesA = label( sa ) == labelD;
   const bool matchesB = label( sb ) == labelD;
   if( matchesA == matchesB ) return decided( EQUAL, "sasRule6", "sasRule6: EQUAL" );
   return matchesA ? decided( PREFER_SA, "sasRule6", "sasRule6: PREFER_SA" )
                   : decided( PREFER_SB, "sasRule6", "sasRule6: PREFER_SB" );
}

ordering
sasRule8( Velon::Ip6Addr sa, Velon::Ip6Addr sb, Velon::Ip6Addr d ) {
   traceCandidates( "sasRule8", "sasRule8:SA: ", sa, sb, d );
   // Deliberate: a tie goes to the first candidate, so that the comparison is total and a fold
   // keeps the first among equals; and all 128 bits count, not the source's prefix alone.
   return sa.longestCommonPrefix( d ) < sb.longestCommonPrefix( d )
             ? decided( PREFER_SB, "sasRule8", "sasRule8: PREFER_SB" )
             : decided( PREFER_SA, "sasRule8", "sasRule8: PREFER_SA" );
}

ordering
chooseSourceAddress( Velon::Ip6Addr sa, Velon::Ip6Addr sb, Velon::Ip6Addr d ) {
   ordering decision = sasRule1( sa, sb, d );
   if( decision != EQUAL ) return decision;
   decision = sasRule2( sa, sb, d );
   if( decision != EQUAL ) return decision;
   decision = sasRule6( sa, sb, d );
   if( decision != EQUAL ) return decision;
   decision = sasRule8( sa, sb, d );
   Zek::assertThat( decision != EQUAL, "decision != EQUAL", "Ip6" );
   Vistrel::trace( traceHandle, traceLevel, "chooseSourceAddress",
                   "chooseSourceAddress: ", decision == PREFER_SB ? "PREFER_SB" : "PREFER_SA" );
   return decision;
}

namespace {

// The best of the addresses under an iterator, in its order; :: when there is none. The first
// member is compared with itself like every other.
template< class Iterator >
Velon::Ip6Addr
bestSource( Iterator members, const Velon::Ip6Addr & destination ) {
   if( !members ) return Velon::ip6AddrZero;
   Velon::Ip6Addr best = members.key().addr();
   for( ; members; ++members ) {
      const Velon::Ip6Addr candidate = members.key().addr();
      if( chooseSourceAddress( best, candidate, destination ) == PREFER_SB ) best = candidate;
   }
   return best;
}

} // namespace

// -- MulticastGroupInfo -----------------------------------------------------------------------

bool
MulticastGroupInfo::isValid() const {
   // Deliberate: any address but :: will do, unlike an IPv4 group, which must be multicast.
   return !address().isUnspecified();
}

// -- IntfConfig -------------------------------------------------------------------------------

bool
intfConfigGlobalAddrConfigured( Zek::Ptr< const IntfConfig > config ) {
   for( auto i = config->addrIteratorConst(); i; ++i ) {
      if( !i.key().addr().isLinkLocal() ) return true;
   }
   return false;
}

bool
intfLinkLocalAddrConfigured( Zek::Ptr< const IntfConfig > config ) {
   return !( config->linkLocalAddrWithMask() == Velon::Ip6AddrWithMask() );
}

bool
IntfConfig::ipv6Configured() const {
   if( Velon::LoopbackIntfId::isLoopbackIntfId( intfId() ) ) {
      return intfConfigGlobalAddrConfigured( this );
   }
   return enable() || intfConfigGlobalAddrConfigured( this ) || intfLinkLocalAddrConfigured( this );
}

Velon::Ip6Addr
IntfConfig::sourceAddressForDestination( const Velon::Ip6Addr & destination ) const {
   return bestSource( addrIteratorConst(), destination );
}

// -- IntfStatus -------------------------------------------------------------------------------

Velon::Ip6AddrWithMask
IntfStatus::linkLocalAddrWithMask() const {
   for( auto i = addrIteratorConst(); i; ++i ) {
      if( i.key().addr().isLinkLocal() ) return i.key();
   }
   return {};
}

Velon::Ip6Addr
IntfStatus::sourceAddressForDestination( const Velon::Ip6Addr & destination ) const {
   return bestSource( addrIteratorConst(), destination );
}

// -- Status -----------------------------------------------------------------------------------

Zek::Ptr< const IntfStatus >
Status::ipIntfStatus( Velon::IntfId intfId ) const {
   return intf( intfId );
}

} // namespace Ip6
