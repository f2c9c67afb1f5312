// What a flow needs for each record, and nothing else.
//
// It stands in the relay: a change of a record has the relay's cache line in its hands anyway, and
// as long as nothing is unusual reads no other of the adaptor's and its flow's.

#pragma once

#include "framework/Export.h"

#include <cstdint>

namespace Zek {

class Notifier;
struct AttributeRow;

namespace NboAttrLog {

class Out;

struct FlowHead {
   /// Writes the value of a plain attribute to the stream that the flow is open to. False when the
   /// adaptor must look at the change; nothing has been written then.
   IPSTATE_EXPORT bool writeAtOnce( const Notifier & entity, const AttributeRow & row );

   /// The stream to which a change of a plain attribute goes at once; null while the adaptor must
   /// look at each change.
   Out * open = nullptr;
   uint32_t id = 0; // 0: none yet
   uint32_t generation = 0;
   uint16_t attrId = 0; // worked on
};

} // namespace NboAttrLog
} // namespace Zek
