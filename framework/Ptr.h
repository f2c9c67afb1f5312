// Counted objects and the pointers that own them.
//
// PtrInterface is the base of every reference-counted object: entities, collection members,
// notifiees, reactors. One 32-bit word holds the count and two flags. Objects are made by
// Zek::allocate< T >(), never on the stack, and destroy themselves when the count reaches zero.
//
// Threads: one thread owns a tree of objects. When VFPtrInterface::threadSafePointers_ is set
// (once, before objects are shared) counts and flags change by atomic read-modify-write, so that
// pointers may be passed to and dropped on other threads; otherwise by plain arithmetic.

#pragma once

#include "framework/Assert.h"
#include "framework/Export.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>

namespace Zek {

struct TypeDescriptor; // framework/Type.h

/// Live objects of one type. Every entity, collection member node and reactor type has one with
/// static storage; it joins the list of all() at its first allocation and is never destroyed.
class IPSTATE_EXPORT AllocTrackTypeInfo {
 public:
   constexpr AllocTrackTypeInfo( const char * typeName, size_t typeSize )
      : name_( typeName ),
        size_( typeSize ) {}
   AllocTrackTypeInfo( const AllocTrackTypeInfo & ) = delete;
   AllocTrackTypeInfo & operator=( const AllocTrackTypeInfo & ) = delete;

   /// Full name of the type, as in "Ip::IpIntfConfig::ZekSecondaryWithMask".
   const char * name() const { return name_; }
   /// Bytes of one object.
   size_t size() const { return size_; }
   /// Objects alive now, and all that were ever made.
   uint64_t liveObjects() const { return allocated() - deallocated_.load( relaxed ); }
   uint64_t allocated() const { return allocated_.load( relaxed ); }
   /// Bytes held by the objects alive now.
   uint64_t liveBytes() const { return liveObjects() * size_; }

   /// The records of all types that ever allocated: first one, then next() until null.
   static const AllocTrackTypeInfo * all();
   const AllocTrackTypeInfo * next() const { return next_; }

 private:
   friend void trackAllocation( AllocTrackTypeInfo & info, size_t bytes );
   friend void trackDeallocation( AllocTrackTypeInfo & info, size_t bytes );
   static constexpr auto relaxed = std::memory_order_relaxed;
   void join();

   const char * name_;
   size_t size_;
   std::atomic< uint64_t > allocated_{ 0 };
   std::atomic< uint64_t > deallocated_{ 0 };
   std::atomic< bool > joined_{ false };
   AllocTrackTypeInfo * next_ = nullptr;
};

/// The switch of the counting mode, apart from the objects so that it can be named without them.
class IPSTATE_EXPORT VFPtrInterface {
 public:
   /// Set once, before objects are shared between threads: counts become atomic.
   static bool threadSafePointers_;
};

/// Base of every counted object. See the file comment.
class IPSTATE_EXPORT PtrInterface : public VFPtrInterface {
 public:
   class NotifieeConst; // framework/Notifiee.h

   PtrInterface( const PtrInterface & ) = delete;
   PtrInterface & operator=( const PtrInterface & ) = delete;

   /// Takes one reference. Asserts when the count would overflow.
   void referencesInc() const {
      uint32_t before = bump( 1 );
      assertThat( ( before & countMask ) != countMask, "reference count overflow", "Ptr" );
   }
   /// Drops one reference. Only the count bits are tested: at zero handleZeroRef() runs,
   /// whatever the flags say.
   void referencesDec() const {
      uint32_t before = bump( static_cast< uint32_t >( -1 ) );
      if( ( before & countMask ) == 1 ) {
         const_cast< PtrInterface * >( this )->handleZeroRef();
      }
   }
   uint32_t references() const { return word_.load( std::memory_order_relaxed ) & countMask; }

   /// The zombie flag: a zombie reactor stays where it is and ignores every callback.
   bool zekMarkedForDeletion() const { return flag( zombieFlag ); }
   void zekMarkedForDeletionIs( bool marked ) { flagIs( zombieFlag, marked ); }

   /// Notification-active: on from construction; on a notifiee, off suspends delivery to it.
   bool hasNotificationActive() const { return flag( activeFlag ); }

   /// The allocation record of the object's own (most derived) type.
   virtual AllocTrackTypeInfo & zekAllocTrackTypeInfo() const = 0;
   /// The descriptor of the object's own type; null for objects that reflection does not show
   /// (collection members, notifiees).
   virtual const TypeDescriptor * fwkType() const;

   static void * zekMemAlloc( size_t bytes );
   static void zekMemFree( void * memory, size_t bytes );
   static void * operator new( size_t, void * memory ) { return memory; }
   static void operator delete( void *, void * ) {}
   static void operator delete( void * memory, size_t bytes ) { zekMemFree( memory, bytes ); }

 protected:
   /// A new object carries the one reference that allocate() hands to its Ptr.
   PtrInterface() = default;
   virtual ~PtrInterface();

   /// The count reached zero: runs onZeroReferences() and, if that took no new reference,
   /// destroys the object and takes its allocation record back.
   virtual void handleZeroRef();
   /// Hook for a last farewell; may revive the object by taking a reference. One reference is
   /// held while it runs, so that pointers made and dropped in it do not get here again.
   virtual void onZeroReferences();
   /// The two halves of handleZeroRef(), for bases with something to undo between them. The
   /// first runs onZeroReferences() and returns false when that revived the object; else the
   /// count is set out of reach and destroy() must follow.
   bool lastReferenceGone();
   /// Where destructions stand deep in each other, as along a chain of objects that hold the next
   /// one, this one waits for those above it to end: the stack's depth has a bound.
   void destroy();

   void notificationActiveIs( bool active ) { flagIs( activeFlag, active ); }

 private:
   struct Doomed;
   void destroyNow();

   static constexpr uint32_t countMask = 0x3fffffff;
   static constexpr uint32_t zombieFlag = 0x40000000;
   static constexpr uint32_t activeFlag = 0x80000000;

   uint32_t bump( uint32_t by ) const {
      if( threadSafePointers_ ) [[unlikely]] {
         return word_.fetch_add( by, std::memory_order_acq_rel );
      }
      uint32_t before = word_.load( std::memory_order_relaxed );
      word_.store( before + by, std::memory_order_relaxed );
      return before;
   }
   bool flag( uint32_t bit ) const { return word_.load( std::memory_order_relaxed ) & bit; }
   void flagIs( uint32_t bit, bool on );

   mutable std::atomic< uint32_t > word_{ activeFlag | 1 };
};

/// Owning pointer: a copy takes a reference, destruction or re-assignment drops one. On
/// re-assignment the new reference is taken before the old one is dropped; re-assigning the
/// object already held changes nothing. Compares by identity.
template< class T >
class Ptr {
 public:
   using element_type = T;

   Ptr() = default;
   Ptr( std::nullptr_t ) {}
   Ptr( T * object ) : object_( object ) { inc(); }
   Ptr( const Ptr & other ) : object_( other.object_ ) { inc(); }
   Ptr( Ptr && other ) noexcept : object_( std::exchange( other.object_, nullptr ) ) {}
   template< class U, class = std::enable_if_t< std::is_convertible_v< U *, T * > > >
   Ptr( const Ptr< U > & other ) : object_( other.ptr() ) {
      inc();
   }
   template< class U, class = std::enable_if_t< std::is_convertible_v< U *, T * > > >
   Ptr( Ptr< U > && other ) noexcept : object_( other.release() ) {}
   ~Ptr() {
      if( object_ ) object_->referencesDec();
   }

   Ptr & operator=( const Ptr & other ) {
      T * old = object_;
      if( other.object_ != old ) {
         object_ = other.object_;
         inc();
         if( old ) old->referencesDec();
      }
      return *this;
   }
   Ptr & operator=( Ptr && other ) noexcept {
      Ptr taken( std::move( other ) );
      std::swap( object_, taken.object_ );
      return *this;
   }

   /// Makes a pointer of a reference that the caller already holds.
   static Ptr adopt( T * object ) {
      Ptr p;
      p.object_ = object;
      return p;
   }
   /// Gives the held reference to the caller and leaves null.
   T * release() { return std::exchange( object_, nullptr ); }

   T * ptr() const { return object_; }
   T * get() const { return object_; }
   T * operator->() const { return object_; }
   T & operator*() const { return *object_; }
   explicit operator bool() const { return object_ != nullptr; }
   bool operator!() const { return object_ == nullptr; }

   friend bool operator==( const Ptr & a, const Ptr & b ) { return a.object_ == b.object_; }
   friend bool operator==( const Ptr & a, std::nullptr_t ) { return !a.object_; }
   friend bool operator<( const Ptr & a, const Ptr & b ) {
      return std::less< T * >()( a.object_, b.object_ );
   }

 private:
   void inc() {
      if( object_ ) object_->referencesInc();
   }
   T * object_ = nullptr;
};

/// Identity across constness and base classes.
template< class T, class U >
requires( !std::is_same_v< T, U > ) bool
operator==( const Ptr< T > & a, const Ptr< U > & b ) {
   return static_cast< const volatile void * >( a.ptr() ) ==
          static_cast< const volatile void * >( b.ptr() );
}

/// The object as a T, or null when it is of another type.
template< class T, class U >
Ptr< T >
ptrCast( const Ptr< U > & p ) {
   return Ptr< T >( dynamic_cast< T * >( p.ptr() ) );
}

/// Drops the constness of the object held.
template< class T >
Ptr< T >
constCast( const Ptr< const T > & p ) {
   return Ptr< T >( const_cast< T * >( p.ptr() ) );
}

IPSTATE_EXPORT void trackAllocation( AllocTrackTypeInfo & info, size_t bytes );
IPSTATE_EXPORT void trackDeallocation( AllocTrackTypeInfo & info, size_t bytes );

/// Makes a T: records the allocation with T::allocTrackTypeInfo_, takes memory, constructs. The
/// object holds one reference during its own construction. When construction throws, record and
/// memory are given back and the exception leaves.
template< class T, class... Args >
Ptr< T >
allocate( Args &&... args ) {
   auto & info = std::remove_const_t< T >::allocTrackTypeInfo_;
   trackAllocation( info, sizeof( T ) );
   void * memory = nullptr;
   try {
      memory = PtrInterface::zekMemAlloc( sizeof( T ) );
      return Ptr< T >::adopt( new( memory )
                                 std::remove_const_t< T >( std::forward< Args >( args )... ) );
   } catch( ... ) {
      trackDeallocation( info, sizeof( T ) );
      if( memory ) PtrInterface::zekMemFree( memory, sizeof( T ) );
      throw;
   }
}

} // namespace Zek
