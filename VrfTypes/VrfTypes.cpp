// What VrfTypes.zek declares and cannot say: how records start.

#include "VrfTypes/VrfTypes.h"

#include "framework/System.h"

#include <limits>

namespace VrfTypes {

// -- VrfProtocolLaunchStatus ------------------------------------------------------------------

void
VrfProtocolLaunchStatus::initialize() {
   // Deliberate: minus infinity, not 0, marks a phase that has not happened.
   constexpr double notYet = -std::numeric_limits< double >::infinity();
   startTimeIs( Zek::System::currentTime() );
   initAgentConditionalMountsTimeIs( notYet );
   loadPluginsTimeIs( notYet );
}

// -- RibVrfAgents -----------------------------------------------------------------------------

void
RibVrfAgents::initialize() {
   initIs( true );
   for( const char * agent : { "Rib", "Ospf", "Ospf3", "Isis" } ) agentsIs( agent, true );
}

} // namespace VrfTypes
