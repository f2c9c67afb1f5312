// Counted objects that announce their changes.
//
// A mutator ends with announce( &NotifieeConst::onX ): one load and a branch while nobody
// watches, else a visit of the notifiees as framework/NotifieeList.h describes it.

#pragma once

#include "framework/Export.h"
#include "framework/NotifieeList.h"
#include "framework/Ptr.h"

#include <typeinfo>

namespace Zek {

class IPSTATE_EXPORT Notifier : public PtrInterface {
 public:
   /// Who watches. Watching changes no value, so that a const notifier can be watched too.
   NotifieeList & notifieeList() const { return notifieeList_; }

   /// The type whose callbacks all changes of this object are told through: its own, or that base
   /// to which its type adds none.
   virtual const std::type_info & zekCallbackType() const;

 protected:
   Notifier() = default;
   ~Notifier() override;

   /// Calls `callback` on every registered notifiee. Throws what a notifiee lets pass. This
   /// object may be gone afterwards when nobody else holds it: a caller that goes on using it
   /// must hold a reference.
   template< class N >
   [[gnu::always_inline]] void announce( void ( N::*callback )() ) const {
      if( !notifieeList_.idle() ) [[unlikely]] {
         watchedList().visitMembers( callback );
      }
   }
   /// The same with the key of the member that changed. Where more than one watches, the visit
   /// keeps a copy of it.
   template< class N, class K >
   [[gnu::always_inline]] void announce( void ( N::*callback )( const K & ),
                                         const std::type_identity_t< K > & key ) const {
      if( !notifieeList_.idle() ) [[unlikely]] {
         watchedList().visitMembers( callback, key );
      }
   }

   /// A visit in progress takes the reference that keeps this object; else its members forget it
   /// before anything of it is destroyed.
   void handleZeroRef() override;

   /// Number of the parent's collection that holds this entity. It belongs to Entity and stands
   /// here because four bytes beside the count are free.
   uint16_t parentAttrId_ = 0;
   /// The entity is not streamed; here for the same reason.
   bool notLogged_ = false;

 private:
   friend class NotifieeList;
   /// Whose list that is.
   static const Notifier & of( const NotifieeList & list );
   /// The list, as a pointer of which the compiler knows nothing: else it would share registers
   /// between the visit and the test before it, and save them even where nobody watches.
   NotifieeList & watchedList() const {
      NotifieeList * list = &notifieeList_;
      asm( "" : "+r"( list ) );
      return *list;
   }

   mutable NotifieeList notifieeList_;
};

} // namespace Zek
