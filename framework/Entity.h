// Entities: counted objects with a name, a parent and a place in the tree.
//
// A parent holds its members strongly, a member its parent by a raw pointer that the parent clears
// when it dies or lets the member go. Beside its own attributes every entity shows the five
// framework attributes name, fullName, parent, parentAttrName and entity (numbers 1 to 5).
//
// The `entity` collection is the framework's own child directory. It costs nothing until its
// first member; Zek::Dir is an entity with nothing else, and the root of every tree.

#pragma once

#include "framework/Export.h"
#include "framework/HashMap.h"
#include "framework/Name.h"
#include "framework/Notifiee.h"
#include "framework/Notifier.h"
#include "framework/Ptr.h"
#include "framework/String.h"
#include "framework/Text.h"
#include "framework/Type.h"

namespace Zek {

namespace NboAttrLog {
class Out;
}

/// Numbers of the framework attributes, the same in every entity type.
enum FrameworkAttribute : uint16_t {
   nameAttr = 1,
   fullNameAttr = 2,
   parentAttr = 3,
   parentAttrNameAttr = 4,
   entityAttr = 5,
};

class IPSTATE_EXPORT Entity : public Notifier {
 public:
   using Ptr = Zek::Ptr< Entity >;
   using PtrConst = Zek::Ptr< const Entity >;

   /// Base of all entities' notifiees; itself told of the `entity` collection.
   class IPSTATE_EXPORT NotifieeConst : public PtrInterface::NotifieeConst {
    public:
      /// 5 entity: a child was added, replaced or removed.
      virtual void onEntity( const String & name );
      virtual void onEntityzekImmediate();
      virtual void onEntity();

      Zek::Ptr< const Entity > notifier() const;
      void notifierIs( Zek::Ptr< const PtrInterface > notifier ) override;

    protected:
      ~NotifieeConst() override;
   };

   struct EntityKeyFunktor {
      Name operator()( const Entity & child ) const { return child.childKey(); }
      static Name toPut( const Entity & child ) { return child.childKeyToPut(); }
      static void heldIs( const Entity & child, bool held ) { child.childHeldIs( held ); }
   };
   using EntityDirectory = HashMap< Entity, Name, EntityKeyFunktor >;
   using EntityIteratorConst = EntityDirectory::IteratorConst;
   using EntityIterator = EntityDirectory::Iterator;

   /// 1: the entity's own name; empty for a member that its key identifies.
   virtual Name name() const;
   /// 2: the names from the root down, joined by "/"; a nameless member stands as
   /// attribute[key]. Empty for a nameless entity without parent.
   Name fullName() const;
   /// 3: the owner, or null. Not counted; the owner clears it.
   Entity * parent() const { return parent_; }
   void parentIs( Entity * parent ) { parent_ = parent; }
   void parentIs( const Zek::Ptr< Entity > & parent ) { parent_ = parent.ptr(); }
   /// 4: name of the parent's collection that holds this entity; empty without parent.
   String parentAttrName() const;
   /// Its number.
   uint16_t parentAttrId() const { return parentAttrId_; }
   void parentAttrIdIs( uint16_t attributeId ) { parentAttrId_ = attributeId; }

   /// 5: the child of that name, or null.
   Zek::Ptr< Entity > entity( const String & name ) const;
   bool entityHas( const String & name ) const { return entity( name ) != nullptr; }
   size_t entityCount() const;
   /// The child after `name` in the directory's order, be that one present or not; null at the
   /// end.
   Zek::Ptr< const Entity > entityAfter( const String & name ) const;
   /// The key under which a directory keeps it; of what stands in a collection of its parent the
   /// key as text. A child that is renamed keeps its key.
   virtual Name childKey() const { return name(); }
   /// Takes `child` into the directory under its name and becomes its parent; replaces another
   /// child of that name. Announces onEntity( name ). RangeException, and nothing changes, on null,
   /// on a nameless child, on one that has another parent or stands above this entity.
   void entityIs( const Zek::Ptr< Entity > & child );
   /// The child of that name, made and announced when there is none. `typeName` is the full name of
   /// a named entity type that is made of its name alone; RejectedException for others,
   /// NameInUseException when the child exists with another type.
   Zek::Ptr< Entity > entityIs( std::string_view typeName, const Name & name );
   /// Removes and returns the child, its parent cleared, or returns null. Announces.
   Zek::Ptr< Entity > entityDel( const String & name );
   /// At the end, nothing.
   Zek::Ptr< Entity > entityDel( const EntityIteratorConst & at );
   void entityDelAll();
   void entityNotify( const String & name );
   EntityIteratorConst entityIteratorConst() const;
   EntityIteratorConst entityIteratorConst( const String & name ) const;
   EntityIterator entityIterator();
   EntityIterator entityIterator( const String & name );

   /// The descendant at `path` ("ip/input/status"), following `entity` directories; null when
   /// any step is missing. The empty path is this entity.
   Zek::Ptr< Entity > entityAt( std::string_view path ) const;

   /// Streams the changes of this entity to other processes (framework/attrlog/AttrLog.h).
   class ZekNboAttrLogSa;
   /// The adaptor that streams this entity to `out`, made if there is none: one per entity and
   /// stream. Null for a type without attribute log. `flags`: of ZekNboAttrLogSa::Flag, added
   /// to those it has. `id`: the mount that asks; all mounts of a stream share the adaptor.
   Zek::Ptr< ZekNboAttrLogSa > zekNboAttrLogSaIs( uint32_t flags, uint32_t id,
                                                  NboAttrLog::Out & out );
   /// Whether entities of this type can be streamed.
   bool zekHasAttrLogInterface() const { return fwkType()->hasAttrLog; }
   /// While not logged, no change of the entity is streamed; afterwards all of it is sent again.
   bool zekIsLogged() const { return !notLogged_; }
   void zekIsLoggedIs( bool logged );

   const TypeDescriptor * fwkType() const override = 0;

   static const TypeDescriptor zekTypeDescriptor_;

 protected:
   Entity() = default;
   ~Entity() override;

 private:
   struct Children;
   Children * children() const;
   const EntityDirectory & directory() const;
   void requireNoOtherPlace( const Entity & child ) const;
   virtual Name childKeyToPut() const { return name(); }
   virtual void childHeldIs( bool ) const {}

   Entity * parent_ = nullptr;
};

/// An entity with a name of its own.
class IPSTATE_EXPORT NamedEntity : public Entity {
 public:
   Name name() const override;
   /// Restores the name from a backup copy; the name it already has changes nothing. Nobody is
   /// told, and a member keyed by its name keeps its key.
   void nameIsFromBackup( const Name & name ) {
      name_ = name;
      if( !holders_ ) key_ = name;
   }
   /// The key under which directories and collections keep it: the name that it had when the first
   /// of those that hold it took it.
   const Name & fwkKey() const { return key_; }
   Name childKey() const override;

   /// For collections: the key under which it is to be put in, and who takes and loses it.
   const Name & zekKeyToPut() const {
      if( !holders_ ) key_ = name_;
      return key_;
   }
   void zekHeldIs( bool held ) const { holders_ += held ? 1u : ~0u; }

 protected:
   explicit NamedEntity( const Name & name ) : name_( name ), key_( name ) {}
   ~NamedEntity() override;

 private:
   Name childKeyToPut() const override;
   void childHeldIs( bool held ) const override;

   Name name_;
   mutable Name key_;
   mutable uint32_t holders_ = 0; // collections that have it under its key
};

/// A directory: a named entity whose content is its `entity` collection.
class IPSTATE_EXPORT Dir final : public NamedEntity {
 public:
   using Ptr = Zek::Ptr< Dir >;
   using PtrConst = Zek::Ptr< const Dir >;
   using NotifieeConst = Entity::NotifieeConst;

   explicit Dir( const Name & name = Name() );
   ~Dir() override;

   /// The directory at `path` below this one, made with all directories above it where missing.
   /// Throws RangeException when an entity on the way is no directory.
   Zek::Ptr< Dir > dirIs( std::string_view path );

   const TypeDescriptor * fwkType() const override;
   AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override;
   static AllocTrackTypeInfo allocTrackTypeInfo_;
   static const TypeDescriptor zekTypeDescriptor_;
};

/// Makes the root of a tree, or a directory to put into one.
IPSTATE_EXPORT Dir::Ptr dirFactory( const Name & name = Name() );

// -- Verbs of owning collections --------------------------------------------------------------

/// Puts a new member into the collection with number `attributeId` of `parent`.
template< class Map, class Member >
void
adoptMember( Map & members, Member & member, Entity & parent, uint16_t attributeId ) {
   member.parentAttrIdIs( attributeId );
   members.insert( &member );
   member.parentIs( &parent );
}

/// What a member that has left its collection keeps of its parent: nothing.
inline void
disownMember( Entity & member ) {
   if( !member.notifieeList().idle() ) member.notifieeList().tellLeaving();
   member.parentIs( nullptr );
   member.parentAttrIdIs( 0 );
}

/// Clears the parent of every member of an owning collection; run by the dying parent, which none
/// of those who learn of it may ask any more.
template< class Map >
void
orphanMembers( Map & members ) {
   for( typename Map::Iterator i( members ); i; ++i ) {
      Entity & member = *i.ptr();
      member.parentIs( nullptr );
      member.parentAttrIdIs( 0 );
      if( !member.notifieeList().idle() ) member.notifieeList().tellLeaving();
   }
}

[[noreturn]] IPSTATE_EXPORT void throwParameterDiffers( const Entity & member,
                                                        const char * parameter,
                                                        std::string_view requested,
                                                        std::string_view current );

/// A member that exists must have been made with the same constructor arguments: throws
/// NameInUseException naming the parameter and both values otherwise.
template< class V >
void
requireSameParameter( const Entity & member, const char * parameter, const V & requested,
                      const std::type_identity_t< V > & current ) {
   if( requested == current ) [[likely]] {
      return;
   }
   std::string requestedText;
   std::string currentText;
   appendPlain( requested, requestedText );
   appendPlain( current, currentText );
   throwParameterDiffers( member, parameter, requestedText, currentText );
}

} // namespace Zek
