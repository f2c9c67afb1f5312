// Several observers of one feed.

#pragma once

#include "agents/ipstated/KernelFeed.h"

#include <string>
#include <vector>

namespace Ipstated {

/// Passes everything on to each, in the order in which they were added. They must live as long.
class Observers final : public KernelObserver {
 public:
   /// Before the feed starts.
   void add( KernelObserver & observer ) { all_.push_back( &observer ); }

   void onInterface( const Interface & interface ) override {
      for( auto each : all_ ) each->onInterface( interface );
   }
   void onInterfaceGone( const Interface & interface ) override {
      for( auto each : all_ ) each->onInterfaceGone( interface );
   }
   void onVrf( const Interface & interface, const std::string & before ) override {
      for( auto each : all_ ) each->onVrf( interface, before );
   }
   void onFlags( const Interface & interface ) override {
      for( auto each : all_ ) each->onFlags( interface );
   }
   void onLink( const Interface & interface, const LinkFacts & before ) override {
      for( auto each : all_ ) each->onLink( interface, before );
   }
   void onRename( const Interface & before, const std::string & now ) override {
      for( auto each : all_ ) each->onRename( before, now );
   }
   void onRenamed( const Interface & interface ) override {
      for( auto each : all_ ) each->onRenamed( interface );
   }
   void onConfig4( const Interface & interface ) override {
      for( auto each : all_ ) each->onConfig4( interface );
   }
   void onConfig6( const Interface & interface ) override {
      for( auto each : all_ ) each->onConfig6( interface );
   }
   void onAddress4( const Interface & interface, const Ip4Address & address,
                    Difference difference ) override {
      for( auto each : all_ ) each->onAddress4( interface, address, difference );
   }
   void onAddress6( const Interface & interface, const Ip6Address & address,
                    Difference difference ) override {
      for( auto each : all_ ) each->onAddress6( interface, address, difference );
   }
   void onPrimary4( const Interface & interface ) override {
      for( auto each : all_ ) each->onPrimary4( interface );
   }
   void onGroup4( const Interface & interface, RawIp4 group, Difference difference ) override {
      for( auto each : all_ ) each->onGroup4( interface, group, difference );
   }
   void onGroup6( const Interface & interface, const RawIp6 & group,
                  Difference difference ) override {
      for( auto each : all_ ) each->onGroup6( interface, group, difference );
   }
   void onSynchronized() override {
      for( auto each : all_ ) each->onSynchronized();
   }
   void onProblem( const std::string & text ) override {
      for( auto each : all_ ) each->onProblem( text );
   }

 private:
   std::vector< KernelObserver * > all_;
};

} // namespace Ipstated
