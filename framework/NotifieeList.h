// The notifiees of one notifier, in order of registration, in one word.
//
// A mutator costs one load of this word as long as nobody watches. One notifiee is held in place;
// more of them, and everything unusual, live in a block on the heap.
//
//    0          nobody
//    n          the notifiee n alone; while it is being called, it is marked
//    n | tags   n is being called, and has left meanwhile, or the notifier has lost its last
//               reference, or both
//    b | block  the block b: an array of notifiees, the visits in progress, extras
//
// A callback may do anything: remove its own notifiee or others, register new ones, attach and
// re-point, run the same mutator again, drop the last reference to any notifiee or to the
// notifier, throw. What holds then:
//
// - A visit calls the notifiees that were registered when it began, in order, each at most once,
//   and none that has left since. One that left and came back waits for later visits like one
//   that is new.
// - A nested visit runs whole before the outer one goes on.
// - The notifiee being called and the notifier live until the call, respectively the outermost
//   visit, has returned. Nothing is counted for that on the way: whoever takes the notifiee out
//   of the list during its call takes a reference for the visit at that moment, and a notifier
//   whose count falls to zero during a visit is given one by the visit.
// - An exception leaves the visit after its notifiee's onNotificationException() ran and let it
//   pass. Later notifiees are then skipped, but for attribute-log adaptors, which must learn of
//   every change. The first exception is the one that leaves.
//
// Memory: who comes may need some, and nothing has changed when there is none. Who leaves, be it
// during its own call, needs none.
//
// Many: a list of more than a few dozen leaves a hole where one leaves, and closes the holes when
// they are half of it or before the next visit. A notifiee knows the lower half of its place. So
// letting go of all costs the same each, in whatever order.
//
// Why in place: a visit of a single notifiee marks it, calls, and finds the word unchanged unless
// something happened, so that the usual case counts nothing and waits for no store of its own.
// That path is inlined into the mutator, where the callback is a constant. Why one block for all
// else: an entity's optional parts (extras) share the word instead of adding one.
//
// Threads: none; a list belongs to the thread that owns the notifier.

#pragma once

#include "framework/Export.h"
#include "framework/Notifiee.h"
#include "framework/Ptr.h"

#include <cstdint>
#include <memory>
#include <type_traits>
#include <utility>

namespace Zek {

class Notifier;

class IPSTATE_EXPORT NotifieeList {
 public:
   using NotifieeConst = PtrInterface::NotifieeConst;

   /// Optional parts of a notifier that exist only once used, such as an entity's children.
   struct IPSTATE_EXPORT Extras {
      virtual ~Extras();
   };

   NotifieeList() = default;
   NotifieeList( const NotifieeList & ) = delete;
   NotifieeList & operator=( const NotifieeList & ) = delete;
   ~NotifieeList();

   /// True when a visit has nothing to do; false does not promise a notifiee.
   bool idle() const { return word_ == 0; }
   /// Registered notifiees, the suspended ones included.
   uint32_t count() const;
   /// True while a callback of this list runs.
   bool visitInProgress() const;

   /// Calls `callback` on every registered notifiee that is switched on and is an N. Throws what
   /// a notifiee let pass. The notifier may be gone afterwards when nobody else holds it.
   template< class N >
   void doVisit( void ( N::*callback )() ) {
      if( word_ ) visitMembers( callback );
   }
   /// The same for a callback with a key. Whoever is called may change or destroy what the key was
   /// taken from: where others are still to hear of it, the visit keeps a copy.
   template< class N, class K >
   void doVisit( void ( N::*callback )( const K & ), const std::type_identity_t< K > & key ) {
      if( word_ ) visitMembers( callback, key );
   }

   /// Whether this notifiee, and nobody else, hears of changes.
   bool isOnly( const NotifieeConst * notifiee ) const {
      return word_ == reinterpret_cast< uintptr_t >( notifiee );
   }
   /// While it lives, nobody hears of changes of a notifier whose only notifiee was asked for
   /// above. For changes that do nothing but store and announce: none may reach the list.
   class Muted {
    public:
      explicit Muted( NotifieeList & list )
         : list_( list ),
           word_( std::exchange( list.word_, 0 ) ) {}
      ~Muted() { list_.word_ = word_; }
      Muted( const Muted & ) = delete;
      Muted & operator=( const Muted & ) = delete;

    private:
      NotifieeList & list_;
      uintptr_t word_;
   };

   /// The attribute-log adaptor number `n` in order of registration, or null.
   NotifieeConst * logAdaptor( uint32_t n ) const;
   /// Tells every attribute-log adaptor that the notifier leaves its parent or dies.
   void tellLeaving();

   /// The optional parts, or null. The list owns them; other parts replace (and delete) them.
   Extras * extras() const;
   void extrasIs( std::unique_ptr< Extras > extras );

 private:
   friend class PtrInterface::NotifieeConst;
   friend class Notifier;

   using Callback = void ( NotifieeConst::* )();
   using Invoke = void ( * )( NotifieeConst & notifiee, const void * call );
   /// Whether the notifiee has the callback at all; asked only of one that watches a base part
   /// of its notifier.
   using Accepts = bool ( * )( const NotifieeConst & notifiee );
   template< class K >
   struct Keyed {
      using Callback = void ( NotifieeConst::* )( const K & );
      Callback callback;
      const K key; // a copy, see doVisit()
      static void invoke( NotifieeConst & notifiee, const void * call ) {
         auto & self = *static_cast< const Keyed * >( call );
         ( notifiee.*self.callback )( self.key );
      }
   };
   template< class N >
   static bool accepts( const NotifieeConst & notifiee ) {
      return dynamic_cast< const N * >( &notifiee ) != nullptr;
   }
   struct Block;
   struct Visit;
   struct Slot;

   // With a word that is not 0.
   template< class N >
   [[gnu::always_inline]] void visitMembers( void ( N::*callback )() ) {
      if( !beginInPlace() ) {
         visit( static_cast< Callback >( callback ), &accepts< N > );
         return;
      }
      try {
         ( static_cast< N * >( untagged() )->*callback )();
      } catch( ... ) {
         thrownInPlace();
      }
      endInPlace();
   }
   template< class N, class K >
   [[gnu::always_inline]] void visitMembers( void ( N::*callback )( const K & ), const K & key ) {
      if( !beginInPlace() ) {
         Keyed< K > call{ static_cast< typename Keyed< K >::Callback >( callback ), key };
         visitKeyed( &Keyed< K >::invoke, &call, &accepts< N > );
         return;
      }
      try {
         ( static_cast< N * >( untagged() )->*callback )( key );
      } catch( ... ) {
         thrownInPlace();
      }
      endInPlace();
   }
   void visit( Callback callback, Accepts accepts );
   void visitOddly( Callback callback, Accepts accepts );
   void visitKeyed( Invoke invoke, const void * call, Accepts accepts );

   // For notifiees. Members are registered ones, which are called, and passive ones, which only
   // learn of the notifier's death (weak holders that are not registered). Those that may throw
   // bad_alloc say so; they have changed nothing then.

   /// Throws. Afterwards one of such members, be it unusual or passive, is added without memory.
   void reserve( bool unusual, bool passive );
   void add( NotifieeConst * notifiee );        // throws without reserve()
   void addPassive( NotifieeConst * notifiee ); // throws without reserve()
   void remove( NotifieeConst * notifiee );
   void removePassive( NotifieeConst * notifiee );
   /// Makes a passive member a registered one, and the other way round (throws).
   void promote( NotifieeConst * notifiee );
   void demote( NotifieeConst * notifiee );
   /// One that is registered is to be suspended. Throws.
   void reserveUnusual() { roomFor( 0 ); }
   /// The registered notifiee was suspended, for which it has reserved, or resumed.
   void unusualChanged( NotifieeConst * notifiee );
   /// Whether a visit is just calling it.
   bool isBeingCalled( const NotifieeConst * notifiee ) const;

   // For the notifier.
   /// Keeps it alive until the outermost visit in progress ends.
   void keep( const Notifier * notifier );
   /// It dies: every member forgets it.
   void detachAll();

   // Tags of the word. Without any, a notifiee in place; it never is an unusual one.
   static constexpr uintptr_t blockTag = 1;    // a block, unless with one of the others
   static constexpr uintptr_t departedTag = 2; // the notifiee being called left: the visit holds it
   static constexpr uintptr_t keptTag = 4;     // the visit holds the notifier
   static constexpr uintptr_t tags = blockTag | departedTag | keptTag;
   bool holdsBlock() const { return ( word_ & tags ) == blockTag; }
   NotifieeConst * inPlace() const { return reinterpret_cast< NotifieeConst * >( word_ & ~tags ); }
   NotifieeConst * untagged() const { return reinterpret_cast< NotifieeConst * >( word_ ); }
   bool departed() const { return !holdsBlock() && ( word_ & departedTag ); }

   // The visit of a notifiee in place.
   bool beginInPlace() {
      if( word_ & blockTag ) return false;
      if( untagged()->calledInPlace_ ) return false;
      untagged()->calledInPlace_ = true;
      return true;
   }
   void endInPlace() {
      if( word_ & blockTag ) [[unlikely]] {
         endEventfulVisit();
      } else {
         untagged()->calledInPlace_ = false;
      }
   }
   void endEventfulVisit();
   void thrownInPlace();

   // REQUIRES holdsBlock().
   Block * block() const { return reinterpret_cast< Block * >( word_ - blockTag ); }
   Block * makeBlock();
   Block * roomFor( uint32_t more );
   void settle();
   void settleUnlessVisited();
   template< class Call >
   void visitTagged( Call call, Accepts accepts );
   template< class Call >
   void visitRest( Visit & visit, Call call, Accepts accepts, bool thrown );

   uintptr_t word_ = 0;
};

} // namespace Zek
