// A request for one entity of another process.

#pragma once

#include "framework/Export.h"
#include "framework/String.h"
#include "platform/Kelmo/MountFilter.h"

#include <string_view>
#include <utility>

namespace Kelmo {

/// The path without slashes at its beginning, at its end and behind another one.
IPSTATE_EXPORT Zek::String normalisedPath( std::string_view path );

class Mount {
 public:
   /// Tests nothing: what cannot be mounted is the mount group's to report.
   Mount( Zek::String path, Zek::String typeName, Zek::String mode, MountFilter filter )
      : path_( normalisedPath( path.view() ) ),
        typeName_( std::move( typeName ) ),
        mode_( std::move( mode ) ),
        filter_( filter ) {}

   /// Names from below the root, joined by "/": "ip/input/status". Normalised.
   const Zek::String & path() const { return path_; }
   /// Full name of the entity's type: "Ip::Status".
   const Zek::String & typeName() const { return typeName_; }
   /// "r": read-only, with all below it. "ri": read-only, a directory with its direct entries.
   /// "w": with all below it, and writable: what is written goes to the owner.
   const Zek::String & mode() const { return mode_; }
   const MountFilter & filter() const { return filter_; }

 private:
   Zek::String path_;
   Zek::String typeName_;
   Zek::String mode_;
   MountFilter filter_;
};

} // namespace Kelmo
