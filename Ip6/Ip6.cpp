// What Ip6.zek declares and cannot say: what counts as configured, the link-local address, and
// the choice of a source address.
//
// The choice is a reduced form of RFC 6724, section 5: rules 1, 2, 6 and 8 in that order, with a
// coarse scope and a short label table of its own. Rules about deprecated, home and temporary
// addresses and about outgoing interfaces are not applied; nor is the state of duplicate address
// detection consulted. Pure functions of the address values, callable from any thread.

#include "Ip6/Ip6.h"

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

unsigned
label( Velon::Ip6Addr addr ) {
   // Deliberate: the table's prefixes are tried in its order, not by length. ::/0 stands second,
   // so the 6to4 (label 2), IPv4-compatible (3) and IPv4-mapped (4) rows behind it never decide,
   // and rule 6 tells no two addresses but the loopback and another apart.
   return addr == Velon::ip6AddrLoopback ? 0 : 1;
}

namespace {

// Each rule stands once, for a traced and a silent form: whether the trace is on is asked once a
// choice, and the silent form is nothing but the comparisons.

template< bool traced >
struct Rules {
   using Addr = Velon::Ip6Addr;

   static ordering decided( ordering decision, const char * function ) {
      if constexpr( traced ) {
         static constexpr const char * names[] = { ": PREFER_SA", ": EQUAL", ": PREFER_SB" };
         Vistrel::trace( traceHandle, traceLevel, function, function, names[decision] );
      }
      return decision;
   }
   static void candidates( const char * function, Addr sa, Addr sb, Addr d ) {
      if constexpr( traced ) {
         Vistrel::trace( traceHandle, traceLevel, function, function, ":SA: ", sa, " SB: ", sb,
                         " d: ", d );
      }
   }

   static ordering rule1( Addr sa, Addr sb, Addr d ) {
      candidates( "sasRule1", sa, sb, d );
      if( sa == d ) return decided( PREFER_SA, "sasRule1" );
      if( sb == d ) return decided( PREFER_SB, "sasRule1" );
      return decided( EQUAL, "sasRule1" );
   }

   static ordering rule2( Addr sa, Addr sb, Addr d ) {
      candidates( "sasRule2", sa, sb, d );
      const unsigned scopeA = scope( sa );
      const unsigned scopeB = scope( sb );
      if( scopeA == scopeB ) return decided( EQUAL, "sasRule2" );
      // The narrower candidate wins only where it still reaches the destination.
      const unsigned scopeD = scope( d );
      const bool preferB = scopeA < scopeB ? scopeA < scopeD : scopeB >= scopeD;
      return decided( preferB ? PREFER_SB : PREFER_SA, "sasRule2" );
   }

   static ordering rule6( Addr sa, Addr sb, Addr d ) {
      candidates( "sasRule6", sa, sb, d );
      const unsigned labelA = label( sa );
      const unsigned labelB = label( sb );
      if( labelA != labelB ) {
         const unsigned labelD = label( d );
         if( labelA == labelD ) return decided( PREFER_SA, "sasRule6" );
         if( labelB == labelD ) return decided( PREFER_SB, "sasRule6" );
      }
      return decided( EQUAL, "sasRule6" );
   }

   static ordering rule8( Addr sa, Addr sb, Addr d ) {
      candidates( "sasRule8", sa, sb, d );
      // Deliberate: a tie goes to the first candidate, so that the comparison is total and a
      // fold keeps the first among equals; and all 128 bits count, not the source's prefix
      // alone.
      const bool preferB = sa.longestCommonPrefix( d ) < sb.longestCommonPrefix( d );
      return decided( preferB ? PREFER_SB : PREFER_SA, "sasRule8" );
   }

   static ordering choose( Addr sa, Addr sb, Addr d ) {
      ordering decision = rule1( sa, sb, d );
      if( decision != EQUAL ) return decision;
      decision = rule2( sa, sb, d );
      if( decision != EQUAL ) return decision;
      decision = rule6( sa, sb, d );
      if( decision != EQUAL ) return decision;
      decision = rule8( sa, sb, d );
      Zek::assertThat( decision != EQUAL, "decision != EQUAL", "Ip6" );
      return decided( decision, "chooseSourceAddress" );
   }
};

// The rule in its traced or silent form. By value, so that the silent form need not put the
// addresses into memory.
using Rule = ordering ( * )( Velon::Ip6Addr, Velon::Ip6Addr, Velon::Ip6Addr );

template< Rule loud, Rule silent >
inline ordering
applied( Velon::Ip6Addr sa, Velon::Ip6Addr sb, Velon::Ip6Addr d ) {
   return traceHandle.enabled( traceLevel ) ? loud( sa, sb, d ) : silent( sa, sb, d );
}

} // namespace

ordering
sasRule1( Velon::Ip6Addr sa, Velon::Ip6Addr sb, Velon::Ip6Addr d ) {
   return applied< Rules< true >::rule1, Rules< false >::rule1 >( sa, sb, d );
}

ordering
sasRule2( Velon::Ip6Addr sa, Velon::Ip6Addr sb, Velon::Ip6Addr d ) {
   return applied< Rules< true >::rule2, Rules< false >::rule2 >( sa, sb, d );
}

ordering
sasRule6( Velon::Ip6Addr sa, Velon::Ip6Addr sb, Velon::Ip6Addr d ) {
   return applied< Rules< true >::rule6, Rules< false >::rule6 >( sa, sb, d );
}

ordering
sasRule8( Velon::Ip6Addr sa, Velon::Ip6Addr sb, Velon::Ip6Addr d ) {
   return applied< Rules< true >::rule8, Rules< false >::rule8 >( sa, sb, d );
}

ordering
chooseSourceAddress( Velon::Ip6Addr sa, Velon::Ip6Addr sb, Velon::Ip6Addr d ) {
   return applied< Rules< true >::choose, Rules< false >::choose >( sa, sb, d );
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
   if( !config ) return false;
   for( auto i = config->addrIteratorConst(); i; ++i ) {
      if( !i.key().addr().isLinkLocal() ) return true;
   }
   return false;
}

bool
intfLinkLocalAddrConfigured( Zek::Ptr< const IntfConfig > config ) {
   return config && !( config->linkLocalAddrWithMask() == Velon::Ip6AddrWithMask() );
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
