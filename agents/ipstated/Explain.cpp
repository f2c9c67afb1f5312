#include "agents/ipstated/Explain.h"
#include "agents/ipstated/Reflect.h"

#include "framework/Assert.h"

#include <algorithm>
#include <vector>

namespace Ipstated {

namespace {

using Address = Velon::Ip6Addr;

std::string
scopeText( const Address & address ) {
   static const char * const names[] = { "link-local", "site or multicast", "global" };
   const unsigned scope = Ip6::scope( address );
   return "scope " + std::to_string( scope ) + " (" + names[std::min( scope, 2u )] + ")";
}

std::string
labelText( const Address & address ) {
   return "label " + std::to_string( Ip6::label( address ) );
}

std::string
bitsText( const Address & address, const Address & destination ) {
   return std::to_string( address.longestCommonPrefix( destination ) );
}

/// A rule, and why it came to its decision: of the one preferred and the other one, or, when it
/// has not decided, of the two as they were asked.
struct Rule {
   const char * name;
   Ip6::ordering ( *ask )( Address sa, Address sb, Address d );
   std::string ( *decided )( const Address & preferred, const Address & other, const Address & d );
   std::string ( *undecided )( const Address & sa, const Address & sb, const Address & d );
};

const Rule rules[] = {
   { "rule 1, same address:      ", Ip6::sasRule1,
     []( const Address &, const Address &, const Address & ) {
        return std::string( "it is the destination" );
     },
     []( const Address &, const Address &, const Address & ) {
        return std::string( "neither is the destination" );
     } },
   { "rule 2, appropriate scope: ", Ip6::sasRule2,
     []( const Address & preferred, const Address & other, const Address & d ) {
        return Ip6::scope( preferred ) < Ip6::scope( other )
                  ? "its " + scopeText( preferred ) + " is the narrower and reaches the " +
                       "destination's " + scopeText( d )
                  : "the other's " + scopeText( other ) + " does not reach the destination's " +
                       scopeText( d );
     },
     []( const Address & sa, const Address &, const Address & ) {
        return "both have " + scopeText( sa );
     } },
   { "rule 6, matching label:    ", Ip6::sasRule6,
     []( const Address & preferred, const Address & other, const Address & ) {
        return "it has the destination's " + labelText( preferred ) + ", the other has " +
               labelText( other );
     },
     []( const Address & sa, const Address &, const Address & d ) {
        return ( Ip6::label( sa ) == Ip6::label( d ) ? "both have the destination's "
                                                     : "neither has the destination's " ) +
               labelText( d );
     } },
   { "rule 8, longest prefix:    ", Ip6::sasRule8,
     []( const Address & preferred, const Address & other, const Address & d ) {
        const std::string bits = bitsText( preferred, d );
        const std::string bitsOfOther = bitsText( other, d );
        return bits == bitsOfOther
                  ? "both share " + bits + " leading bits with the destination; the first one stays"
                  : "it shares " + bits + " leading bits with the destination, the other " +
                       bitsOfOther;
     },
     []( const Address &, const Address &, const Address & ) { return std::string(); } },
};

/// Adds the comparison of two candidates; returns the better one.
Velon::Ip6AddrWithMask
compare( const Velon::Ip6AddrWithMask & sa, const Velon::Ip6AddrWithMask & sb, const Address & d,
         std::string & out ) {
   out += "   " + sa.toString() + " or " + sb.toString() + "?\n";
   for( const Rule & rule : rules ) {
      out += std::string( "      " ) + rule.name;
      const Ip6::ordering decision = rule.ask( sa.addr(), sb.addr(), d );
      if( decision != Ip6::EQUAL ) {
         const auto & preferred = decision == Ip6::PREFER_SA ? sa : sb;
         const auto & other = decision == Ip6::PREFER_SA ? sb : sa;
         out +=
            preferred.toString() + ", " + rule.decided( preferred.addr(), other.addr(), d ) + "\n";
         return preferred;
      }
      out += "undecided, " + rule.undecided( sa.addr(), sb.addr(), d ) + "\n";
   }
   Zek::assertionFailed( "decision != EQUAL", "Explain" );
}

void
explain( const Ip6::IntfStatus & interface, const Address & d, std::string & out ) {
   const std::string name = printable( interface.intfId().toString() );
   auto candidates = interface.addrIteratorConst();
   if( !candidates ) {
      out += name + " has no IPv6 address to send from\n";
      return;
   }
   const Address used = interface.sourceAddressForDestination( d );
   out += name + " sends from " + used.toString() + "\n";
   Velon::Ip6AddrWithMask best = candidates.key();
   if( interface.addrCount() == 1 ) {
      out += "   " + best.toString() + " is the only candidate\n";
   }
   for( ++candidates; candidates; ++candidates ) {
      best = compare( best, candidates.key(), d, out );
   }
   Zek::assertThat( best.addr() == used, "best == used", "Explain" );
}

} // namespace

std::string
explainSource( const Ip6::Status & ip6, const Velon::Ip6Addr & destination ) {
   std::vector< Velon::IntfId > ids;
   for( auto i = ip6.intfIteratorConst(); i; ++i ) {
      ids.push_back( i.key() );
   }
   std::sort( ids.begin(), ids.end() );
   std::string out = "Source addresses for " + destination.toString() + ", " +
                     scopeText( destination ) + ", " + labelText( destination ) + "\n";
   for( Velon::IntfId id : ids ) {
      out += "\n";
      explain( *ip6.intf( id ), destination, out );
   }
   return out;
}

} // namespace Ipstated
