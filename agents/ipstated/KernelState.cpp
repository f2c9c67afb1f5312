#include "agents/ipstated/KernelState.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include <linux/if.h>
#include <linux/if_addr.h>

namespace Ipstated {

bool
Ip4Address::primary() const {
   return !( flags & IFA_F_SECONDARY );
}

bool
Ip6Address::settled() const {
   return !( flags & IFA_F_TENTATIVE ) || flags & ( IFA_F_OPTIMISTIC | IFA_F_DADFAILED );
}

bool
Ip6Address::dadFailed() const {
   return flags & IFA_F_DADFAILED;
}

const char *
LinkFacts::stateText() const {
   static constexpr std::array names{ "UNKNOWN", "NOTPRESENT", "DOWN", "LOWERLAYERDOWN",
                                      "TESTING", "DORMANT",    "UP" };
   return state < names.size() ? names[state] : "UNKNOWN";
}

std::string
LinkFacts::addressText() const {
   std::string text;
   for( char each : address ) {
      char digits[4];
      snprintf( digits, sizeof digits, "%02x:", uint8_t( each ) );
      text += digits;
   }
   if( !text.empty() ) text.pop_back();
   return text;
}

bool
Interface::up() const {
   return flags & IFF_UP;
}

bool
Interface::noArp() const {
   return flags & IFF_NOARP;
}

const Ip4Address *
Interface::primary4() const {
   for( const Ip4Address & address : addresses4 ) {
      if( address.primary() ) {
         return &address;
      }
   }
   return nullptr;
}

const Interface *
KernelState::find( int index ) const {
   auto found = interfaces_.find( index );
   return found == interfaces_.end() ? nullptr : &found->second;
}

Interface *
KernelState::find( int index ) {
   auto found = interfaces_.find( index );
   return found == interfaces_.end() ? nullptr : &found->second;
}

const Interface *
KernelState::findByName( const std::string & name ) const {
   auto found = byName_.find( name );
   return found == byName_.end() ? nullptr : find( found->second );
}

Interface &
KernelState::at( int index ) {
   Interface & interface = interfaces_[index];
   interface.index = index;
   return interface;
}

void
KernelState::nameIs( Interface & interface, const std::string & name ) {
   if( interface.present ) {
      if( interface.name == name ) {
         return;
      }
      byName_.erase( interface.name );
   }
   interface.present = true;
   interface.name = name;
   byName_[name] = interface.index;
}

void
KernelState::unname( Interface & interface ) {
   if( interface.present ) {
      byName_.erase( interface.name );
      interface.present = false;
   }
}

void
KernelState::remove( int index ) {
   auto found = interfaces_.find( index );
   if( found == interfaces_.end() ) {
      return;
   }
   if( found->second.present ) {
      byName_.erase( found->second.name );
   }
   interfaces_.erase( found );
}

bool
KernelState::refresh( Interface & interface ) const {
   // A VRF device is the loopback of its own VRF: what is configured on it lives there.
   std::string_view vrf = defaultVrf;
   if( interface.isVrf ) {
      vrf = interface.name;
   } else if( interface.master ) {
      const Interface * master = find( interface.master );
      if( master && master->present && master->isVrf ) {
         vrf = master->name;
      }
   }

   // The kernel's own rules: the stricter reverse-path filter and the stronger duplicate address
   // detection win, directed broadcasts need both switches. Setting "all" copies forwarding into
   // every interface, so that the interface's own value is the one in effect.
   Ip4Config config4 = interface.own4;
   config4.rpFilter = std::max( all4.rpFilter, config4.rpFilter );
   config4.bcForwarding = all4.bcForwarding && config4.bcForwarding;
   Ip6Config config6 = interface.own6;
   config6.acceptDad = std::max( all6.acceptDad, config6.acceptDad );
   config6.enhancedDad = all6.enhancedDad || config6.enhancedDad;

   if( interface.vrf == vrf && interface.config4 == config4 && interface.config6 == config6 ) {
      return false;
   }
   interface.vrf = vrf;
   interface.config4 = config4;
   interface.config6 = config6;
   return true;
}

bool
KernelState::isInUse( const Interface & interface, const Ip6Address & address ) const {
   if( address.settled() || interface.flags & ( IFF_NOARP | IFF_LOOPBACK ) ) {
      return true;
   }
   return interface.acceptDadTold && std::max( all6.acceptDad, interface.own6.acceptDad ) < 1;
}

void
KernelState::refreshAll() {
   for( auto & entry : interfaces_ ) {
      refresh( entry.second );
   }
}

namespace {

template< class Address >
auto
findObject( std::vector< Address > & list, const Address & address ) {
   return std::find_if( list.begin(), list.end(),
                        [&]( const Address & other ) { return other.sameObject( address ); } );
}

/// Where a new primary of that scope goes.
size_t
primaryPosition( const std::vector< Ip4Address > & list, uint8_t scope ) {
   size_t position = 0;
   for( size_t i = 0; i < list.size(); ++i ) {
      if( list[i].primary() && scope <= list[i].scope ) {
         position = i + 1;
      }
   }
   return position;
}

} // namespace

Difference
addAddress( Interface & interface, const Ip4Address & address, bool * promoted ) {
   std::vector< Ip4Address > & list = interface.addresses4;
   auto found = findObject( list, address );
   if( found != list.end() && *found == address ) {
      return Difference::none;
   }
   bool known = found != list.end();
   bool moved = known && !found->primary() && address.primary();
   if( known && !moved ) {
      *found = address;
      return Difference::changed;
   }
   if( moved ) {
      list.erase( found );
   }
   if( promoted ) {
      *promoted = moved;
   }
   size_t position = address.primary() ? primaryPosition( list, address.scope ) : list.size();
   list.insert( list.begin() + ptrdiff_t( position ), address );
   return known ? Difference::changed : Difference::added;
}

Difference
removeAddress( Interface & interface, const Ip4Address & address ) {
   std::vector< Ip4Address > & list = interface.addresses4;
   auto found = findObject( list, address );
   if( found == list.end() ) {
      return Difference::none;
   }
   list.erase( found );
   return Difference::removed;
}

Difference
addAddress( Interface & interface, const Ip6Address & address ) {
   auto found = findObject( interface.addresses6, address );
   if( found == interface.addresses6.end() ) {
      interface.addresses6.push_back( address );
      return Difference::added;
   }
   if( *found == address ) {
      return Difference::none;
   }
   *found = address;
   return Difference::changed;
}

Difference
removeAddress( Interface & interface, const Ip6Address & address ) {
   auto found = findObject( interface.addresses6, address );
   if( found == interface.addresses6.end() ) {
      return Difference::none;
   }
   interface.addresses6.erase( found );
   return Difference::removed;
}

namespace {

template< class Group >
Difference
addMember( std::vector< Group > & groups, const Group & group ) {
   if( std::find( groups.begin(), groups.end(), group ) != groups.end() ) {
      return Difference::none;
   }
   groups.push_back( group );
   return Difference::added;
}

template< class Group >
Difference
removeMember( std::vector< Group > & groups, const Group & group ) {
   auto found = std::find( groups.begin(), groups.end(), group );
   if( found == groups.end() ) {
      return Difference::none;
   }
   groups.erase( found );
   return Difference::removed;
}

} // namespace

Difference
addGroup( Interface & interface, RawIp4 group ) {
   return addMember( interface.groups4, group );
}

Difference
removeGroup( Interface & interface, RawIp4 group ) {
   return removeMember( interface.groups4, group );
}

Difference
addGroup( Interface & interface, const RawIp6 & group ) {
   return addMember( interface.groups6, group );
}

Difference
removeGroup( Interface & interface, const RawIp6 & group ) {
   return removeMember( interface.groups6, group );
}

std::vector< Ip4Address >
mergeDumps( const std::vector< Ip4Address > & earlier, const std::vector< Ip4Address > & later ) {
   std::vector< Ip4Address > merged;
   merged.reserve( later.size() );
   for( const Ip4Address & address : later ) {
      // An interrupted dump may also tell an entry twice: the last word counts.
      auto found = findObject( merged, address );
      if( found == merged.end() ) {
         merged.push_back( address );
      } else {
         *found = address;
      }
   }
   size_t behind = 0;
   for( const Ip4Address & address : earlier ) {
      auto found = findObject( merged, address );
      if( found == merged.end() ) {
         found = merged.insert( merged.begin() + ptrdiff_t( behind ), address );
      }
      behind = size_t( found - merged.begin() ) + 1;
   }
   return merged;
}

} // namespace Ipstated
