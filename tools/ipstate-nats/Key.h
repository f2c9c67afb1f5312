// The names of records in a bucket.
//
//    <device>.<name>.<name>.<collection>.<key>      leaf1.ip.input.status.ipIntfStatus.eth0
//
// One token a step: of a child its name; of a member its collection, then its key. What a token
// cannot hold stands as =XX, two hexadecimal digits a byte; the empty text as a single "=". So any
// name is possible, and is had back from its token. A token that begins with "_" is no name: it
// marks what is not a record of the tree.

#pragma once

#include "framework/Entity.h"
#include "framework/GenericValue.h"

#include <string>
#include <string_view>
#include <vector>

namespace IpstateNats {

/// Bytes of a key. NATS takes a subject of some 4 KiB with all that stands on its line.
constexpr size_t longestKey = 2048;

std::string tokenOf( std::string_view name );
/// False for what tokenOf() never gives.
bool nameOf( std::string_view token, std::string & name );

/// The key of a record below `root`, without the device; empty for the root and for what does not
/// stand below it.
std::string keyOf( const Zek::Entity & record, const Zek::Entity & root );
/// The token of a member's key.
std::string tokenOfKey( const Zek::AttributeRow & collection, const void * key );
/// "a.b"; one of them where the other is empty.
std::string joined( std::string_view key, std::string_view more );

/// Whether the members of a collection are records with keys of their own in the bucket.
inline bool
ownsRecords( const Zek::AttributeRow & row ) {
   return row.collection && row.has( Zek::ownsMembers );
}

/// Where a key leads.
struct Place {
   /// The last record on the way that exists.
   Zek::Entity * nearest;
   /// The tokens behind it: none where the record itself is there.
   size_t missing;
   /// For one that is missing alone: the collection of `nearest` it belongs to, and its key there.
   const Zek::AttributeRow * collection;
   Zek::GenericValue key;

   Zek::Entity * record() const { return missing ? nullptr : nearest; }
   /// Whether only the record itself is missing, and its parent could have it.
   bool isVacant() const { return missing && collection; }
};
/// Follows the key from `root`. A token that stands for no name leads nowhere.
Place placeOf( Zek::Entity & root, std::string_view key );

} // namespace IpstateNats
