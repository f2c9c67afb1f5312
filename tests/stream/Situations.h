// What a run of simulations must have met at least once, or it proves less than it says.

#pragma once

#include "framework/attrlog/AttrLog.h"

#include <array>
#include <cstdint>
#include <string>

namespace ipstate::test {

#define IPSTATE_SITUATIONS( X )                                                                    \
   X( fullAtValue, "full stream at an attribute" )                                                 \
   X( fullAtPointer, "full stream at a pointer" )                                                  \
   X( fullAtSet, "full stream at a set" )                                                          \
   X( fullAtValues, "full stream at values by key" )                                               \
   X( fullAtKeyedValues, "full stream at values keyed by a field" )                                \
   X( fullAtReferences, "full stream at references" )                                              \
   X( fullAtMembers, "full stream at members" )                                                    \
   X( fullAtChildren, "full stream at children" )                                                  \
   X( addedBackWhileDirty, "member deleted and made again while dirty" )                           \
   X( madeOtherwise, "member made again with other constructor arguments" )                        \
   X( removedWhileDirty, "key added and removed while the stream is full" )                        \
   X( outgrown, "dirty removals outgrow the members" )                                             \
   X( wholeInterrupted, "change of a collection that is being sent whole" )                        \
   X( deletedInWhole, "deletion from a collection that is being sent whole" )                      \
   X( cutAtBorder, "cut between records" )                                                         \
   X( cutInLength, "cut in the length" )                                                           \
   X( cutInFlow, "cut in the flow" )                                                               \
   X( cutInAttribute, "cut in the attribute" )                                                     \
   X( cutBeforeFlags, "cut between kind and flags" )                                               \
   X( cutInCheck, "cut in the check of the header" )                                               \
   X( cutInChecksum, "cut in the checksum" )                                                       \
   X( cutAtToken, "cut before or behind the opening token" )                                       \
   X( cutInBody, "cut in the body" )                                                               \
   X( cutBeforeEnd, "cut before the closing token" )                                               \
   X( cutWhileFull, "cut while changes are dirty" )                                                \
   X( cutInDump, "cut in a dump" )                                                                 \
   X( valueRecord, "value" )                                                                       \
   X( removalRecord, "removal" )                                                                   \
   X( instantiateRecord, "new instance" )                                                          \
   X( adoptRecord, "instance that may be known" )                                                  \
   X( beginWholeRecord, "mark before a whole collection" )                                         \
   X( endWholeRecord, "mark behind a whole collection" )                                           \
   X( stateRecord, "all plain attributes" )                                                        \
   X( againRecord, "instance asked for again, its constructor argument having come" )              \
   X( bindRecord, "flow of a copy that may be written" )                                           \
   X( noRootRecord, "root of a mount gone" )                                                       \
   X( heldReference, "reference before its target" )                                               \
   X( refusedRecord, "record that a mutator refused" )                                             \
   X( checksumWrong, "wrong checksum" )                                                            \
   X( headerWrong, "wrong check of a header" )                                                     \
   X( rejectedValue, "value stored and rejected" )                                                 \
   X( writtenCopy, "write to a copy" )                                                             \
   X( crossingWrites, "writes that cross" )                                                        \
   X( crossingMembers, "writes of members or children that cross" )                                \
   X( scribbled, "local change of a read-only copy" )                                              \
   X( reaction, "reaction on a copy with another change" )                                         \
   X( reactionAgainst, "reaction with another value of what is applied" )                          \
   X( sourceThrew, "notifiee of the source that throws" )                                          \
   X( copyThrew, "notifiee of a copy that throws" )                                                \
   X( switchedOff, "adaptor switched off and on" )                                                 \
   X( notLogged, "entity not logged for a while" )                                                 \
   X( restartedSame, "writer restarted with the same content" )                                    \
   X( restartedOther, "writer restarted with other content" )                                      \
   X( restartedCopy, "process of a copy restarted" )                                               \
   X( restartedHub, "hub restarted" )                                                              \
   X( twoMounts, "entity reached by two mounts" )                                                  \
   X( twoModes, "entity reached by two mounts of different mode" )                                 \
   X( entriesOnly, "directory with its entries only" )                                             \
   X( structureOnly, "tree without content" )                                                      \
   X( prepared, "prepared subtree attached" )                                                      \
   X( putBack, "subtree taken out and put back" )                                                  \
   X( otherTarget, "reference removed, and added to another instance under the key" )              \
   X( memoryShort, "no memory for what arrived" )                                                  \
   X( brokenOff, "no memory for what is to be sent" )                                              \
   X( cutFromWithin, "connection cut in a callback" )                                              \
   X( againFromWithin, "connection cut and made in a callback" )                                   \
   X( destroyedFromWithin, "session destroyed in a callback" )                                     \
   X( restartedFromWithin, "tree of a copy destroyed in a callback" )                              \
   X( reconnectSilent, "reconnect that announces nothing" )                                        \
   X( reconnectTold, "reconnect that announces differences" )

enum class Situation : uint8_t {
#define IPSTATE_SITUATION( name, text ) name,
   IPSTATE_SITUATIONS( IPSTATE_SITUATION )
#undef IPSTATE_SITUATION
      count
};

class Situations {
 public:
   void reached( Situation situation ) { ++counts_[static_cast< size_t >( situation )]; }
   uint64_t count( Situation situation ) const {
      return counts_[static_cast< size_t >( situation )];
   }
   /// Those that were never reached, a line each.
   std::string missing() const;
   std::string text() const;

   /// A record on its way.
   void record( const Zek::NboAttrLog::FrameHeader & header );
   /// A connection was cut with `inside` bytes of a record of `length` bytes received.
   void cut( size_t inside, size_t length );

 private:
   std::array< uint64_t, static_cast< size_t >( Situation::count ) > counts_{};
};

} // namespace ipstate::test
