// A change as it is told: what it is of, what that was and what it is now.

#pragma once

#include <functional>
#include <string>

namespace Ipstated {

struct Change {
   std::string what; ///< the same for each change of one thing
   std::string before;
   std::string now;

   std::string line() const { return what + "  " + before + " -> " + now; }
};

using ChangeSink = std::function< void( const Change & change ) >;

} // namespace Ipstated
