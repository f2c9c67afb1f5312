// Which part of a mounted entity's state comes over.

#pragma once

namespace Kelmo {

class MountFilter {
 public:
   /// True lets the structure pass alone: which entities and members there are, with their keys and
   /// constructor arguments. False lets everything pass.
   constexpr explicit MountFilter( bool structureOnly ) : structureOnly_( structureOnly ) {}

   constexpr bool structureOnly() const { return structureOnly_; }

   friend bool operator==( const MountFilter &, const MountFilter & ) = default;

 private:
   bool structureOnly_;
};

} // namespace Kelmo
