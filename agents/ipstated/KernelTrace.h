// What the kernel told, as traces: for people who search for a fault.

#pragma once

#include "agents/ipstated/KernelFeed.h"

#include <string>

namespace Ipstated {

/// Writes a trace of the handle KernelFeed for everything it hears: level 5 for what became
/// different, level 3 for full dumps, level 1 for problems. Costs a load each while that is off.
class KernelTrace final : public KernelObserver {
 public:
   void onInterface( const Interface & interface ) override;
   void onInterfaceGone( const Interface & interface ) override;
   void onVrf( const Interface & interface, const std::string & before ) override;
   void onFlags( const Interface & interface ) override;
   void onLink( const Interface & interface, const LinkFacts & before ) override;
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
};

} // namespace Ipstated
