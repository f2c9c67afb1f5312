// Lets other processes mount the agent's tree.

#pragma once

#include "framework/Entity.h"
#include "platform/Kelmo/Server.h"

#include <memory>
#include <string>
#include <vector>

namespace Ipstated {

/// Listens at `path` for those who mount what is below `root`: processes of the agent's own user,
/// of root, and of the group of that name unless it is empty. They may write what is at the paths
/// of `writable`, and nothing else. Problems with clients go to standard error. Throws what
/// Kelmo::Server throws, RangeException for an unknown group.
std::unique_ptr< Kelmo::Server > serveTree( const Zek::Entity::Ptr & root, const std::string & path,
                                            const std::string & group,
                                            std::vector< std::string > writable );

} // namespace Ipstated
