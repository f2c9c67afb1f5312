#include "platform/Kelmo/MountGroup.h"

#include "platform/Kelmo/Kelmo.h"

#include <string>

namespace Kelmo {

Zek::String
normalisedPath( std::string_view path ) {
   std::string steps;
   steps.reserve( path.size() );
   for( char c : path ) {
      if( c != '/' || ( !steps.empty() && steps.back() != '/' ) ) steps += c;
   }
   if( steps.ends_with( '/' ) ) steps.pop_back();
   return Zek::String( steps );
}

MountGroup::~MountGroup() = default;

const Zek::TypeDescriptor *
MountGroup::fwkType() const {
   return &Zek::TypeOf< MountGroup >::descriptor;
}

} // namespace Kelmo
