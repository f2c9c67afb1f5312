#include "agents/ipstated/Reflect.h"

namespace Ipstated {

std::string
memberName( const Zek::AttributeRow & row, const void * key ) {
   std::string name = row.name;
   name += '[';
   row.keyType->values->append( key, name );
   name += ']';
   return name;
}

} // namespace Ipstated
