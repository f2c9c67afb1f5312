#include "framework/Entity.h"

#include "framework/Exception.h"
#include "framework/Generic.h"
#include "framework/Relay.h"
#include "framework/Rows.h"

#include <memory>
#include <utility>

namespace Zek {

// -- Children ---------------------------------------------------------------------------------

struct Entity::Children : NotifieeList::Extras {
   EntityDirectory members;
   ~Children() override { orphanMembers( members ); }
};

Entity::Children *
Entity::children() const {
   return static_cast< Children * >( notifieeList().extras() );
}

namespace {

// Never holds anything: its iterators are at the end and leave no trace in it.
const Entity::EntityDirectory noChildren;

// The directory is keyed by interned names; a text that nobody interned names no child.
Entity *
findChild( const Entity::EntityDirectory & members, std::string_view name ) {
   Name key;
   return Name::find( name, key ) ? members.find( key ) : nullptr;
}

} // namespace

const Entity::EntityDirectory &
Entity::directory() const {
   Children * held = children();
   return held ? held->members : noChildren;
}

Ptr< Entity >
Entity::entity( const String & name ) const {
   Children * held = children();
   return held ? findChild( held->members, name.view() ) : nullptr;
}

Zek::Ptr< const Entity >
Entity::entityAfter( const String & name ) const {
   Children * held = children();
   if( !held ) return nullptr;
   return static_cast< const Entity * >( held->members.memberAfter( Name( name ) ) );
}

size_t
Entity::entityCount() const {
   Children * held = children();
   return held ? held->members.count() : 0;
}

namespace {

// How an error calls an entity.
std::string
quotedName( const Entity & entity ) {
   const Name name = entity.fullName();
   return name.empty() ? std::string( "a nameless " ) + entity.fwkType()->fullName
                       : "'" + std::string( name.view() ) + "'";
}

// Whether anything can stand below it.
bool
ownsMembersNow( const Entity & entity ) {
   for( const TypeDescriptor * type = entity.fwkType(); type; type = type->base ) {
      for( const AttributeRow & row : type->attributes ) {
         if( row.has( ownsMembers ) && row.collection->count( &entity ) ) return true;
      }
   }
   return false;
}

} // namespace

/// A child has one parent, and stands nowhere above it.
void
Entity::requireNoOtherPlace( const Entity & child ) const {
   if( child.parent_ ) {
      throwRangeException( quotedName( child ) + " has a parent already and cannot be a child of " +
                           quotedName( *this ) + " too" );
   }
   if( &child != this && !ownsMembersNow( child ) ) return;
   for( const Entity * at = this; at; at = at->parent_ ) {
      if( at != &child ) continue;
      throwRangeException(
         quotedName( child ) + " cannot be a child of " +
         ( at == this ? "itself" : quotedName( *this ) + ", which is below it" ) );
   }
}

void
Entity::entityIs( const Zek::Ptr< Entity > & child ) {
   if( !child ) throwNullParameterException( fwkType()->fullName, "entity" );
   const Zek::Ptr< Entity > added = child;
   const Name key = added->childKeyToPut();
   if( key.empty() ) {
      throwRangeException( "an entity without a name cannot be a child of " + quotedName( *this ) );
   }
   Children * held = children();
   Entity * present = held ? held->members.find( key ) : nullptr;
   if( present == added.ptr() ) return;
   requireNoOtherPlace( *added );
   const String announced( key.view() );
   if( !held ) {
      auto made = std::make_unique< Children >();
      held = made.get();
      notifieeList().extrasIs( std::move( made ) );
   }
   if( present ) {
      disownMember( *held->members.replace( added.ptr() ) );
   } else {
      held->members.insert( added.ptr() );
   }
   added->parentAttrIdIs( entityAttr );
   added->parentIs( this );
   entityNotify( announced );
}

Zek::Ptr< Entity >
Entity::entityIs( std::string_view typeName, const Name & name ) {
   const TypeDescriptor * type = typeNode( typeName );
   if( !type || !type->isEntity() || !type->isNamed || !type->isMade() ||
       type->constructorParameters.size() != 1 ) {
      throw RejectedException( "'" + std::string( typeName ) +
                               "' is no type of entities that are made of their name alone" );
   }
   if( Zek::Ptr< Entity > present = entity( String( name.view() ) ) ) {
      if( present->fwkType() == type ) return present;
      throwNameInUseException( "'" + std::string( present->fullName().view() ) + "' is " +
                               present->fwkType()->fullName + ", not " + type->fullName );
   }
   const void * const arguments[] = { &name };
   Zek::Ptr< Entity > child = ptrCast< Entity >( type->create( arguments ) );
   entityIs( child );
   return child;
}

Zek::Ptr< Entity >
Entity::entityDel( const String & name ) {
   Children * held = children();
   Name key;
   if( !held || !Name::find( name.view(), key ) ) return nullptr;
   const String announced = name; // may be the child's
   Zek::Ptr< Entity > removed = held->members.take( key );
   if( !removed ) return nullptr;
   disownMember( *removed );
   entityNotify( announced );
   return removed;
}

Zek::Ptr< Entity >
Entity::entityDel( const EntityIteratorConst & at ) {
   return at ? entityDel( String( at.key().view() ) ) : nullptr;
}

void
Entity::entityDelAll() {
   const Zek::Ptr< Entity > self( this ); // the last child's callback may drop this entity
   for( EntityIteratorConst i = entityIteratorConst(); i; ++i ) entityDel( i );
}

void
Entity::entityNotify( const String & name ) {
   announce( &NotifieeConst::onEntity, name );
}

Entity::EntityIteratorConst
Entity::entityIteratorConst() const {
   return EntityIteratorConst( directory() );
}

Entity::EntityIteratorConst
Entity::entityIteratorConst( const String & name ) const {
   return EntityIteratorConst( directory(), Name( name ) );
}

Entity::EntityIterator
Entity::entityIterator() {
   return EntityIterator( directory() );
}

Entity::EntityIterator
Entity::entityIterator( const String & name ) {
   return EntityIterator( directory(), Name( name ) );
}

Zek::Ptr< Entity >
Entity::entityAt( std::string_view path ) const {
   const Entity * at = this;
   while( at && !path.empty() ) {
      size_t slash = path.find( '/' );
      Children * held = at->children();
      at = held ? findChild( held->members, path.substr( 0, slash ) ) : nullptr;
      path = slash == std::string_view::npos ? std::string_view() : path.substr( slash + 1 );
   }
   return const_cast< Entity * >( at );
}

// -- Names and parents ------------------------------------------------------------------------

Entity::~Entity() = default;

Name
Entity::name() const {
   return {};
}

namespace {

// "ipIntfStatus[Ethernet1]": how a member without a name stands in a path.
std::string
memberStep( const Entity & member ) {
   std::string step( member.parentAttrName().view() );
   const AttributeRow * key = nullptr;
   for( const TypeDescriptor * type = member.fwkType(); type && !key; type = type->base ) {
      for( const AttributeRow & row : type->attributes ) {
         if( row.has( isKey ) ) key = &row;
      }
   }
   step += '[';
   if( key ) key->stored->append( key->address( &member ), step );
   step += ']';
   return step;
}

} // namespace

Name
Entity::fullName() const {
   std::string path;
   for( const Entity * at = this; at; at = at->parent_ ) {
      std::string step( at->name().view() );
      if( step.empty() && at->parent_ ) step = memberStep( *at );
      if( step.empty() ) continue;
      path = path.empty() ? step : step + "/" + path;
   }
   return Name( path );
}

String
Entity::parentAttrName() const {
   if( !parent_ ) return {};
   const AttributeRow * row = parent_->fwkType()->attribute( parentAttrId_ );
   return row ? String( row->name ) : String();
}

Name
NamedEntity::name() const {
   return name_;
}

Name
NamedEntity::childKey() const {
   return key_;
}

Name
NamedEntity::childKeyToPut() const {
   return zekKeyToPut();
}

void
NamedEntity::childHeldIs( bool held ) const {
   zekHeldIs( held );
}

NamedEntity::~NamedEntity() = default;

// -- Notifiees --------------------------------------------------------------------------------

Entity::NotifieeConst::~NotifieeConst() = default;

void
Entity::NotifieeConst::onEntity( const String & ) {}

void
Entity::NotifieeConst::onEntityzekImmediate() {}

void
Entity::NotifieeConst::onEntity() {}

Zek::Ptr< const Entity >
Entity::NotifieeConst::notifier() const {
   return notifierAs< Entity >();
}

void
Entity::NotifieeConst::notifierIs( Zek::Ptr< const PtrInterface > notifier ) {
   notifierAssign( dynamic_cast< const Entity * >( notifier.ptr() ) );
}

// -- Directories ------------------------------------------------------------------------------

constinit AllocTrackTypeInfo Dir::allocTrackTypeInfo_( "Zek::Dir", sizeof( Dir ) );

Dir::Dir( const Name & name ) : NamedEntity( name ) {}

Dir::~Dir() = default;

Dir::Ptr
Dir::dirIs( std::string_view path ) {
   Zek::Ptr< Dir > at( this );
   while( !path.empty() ) {
      size_t slash = path.find( '/' );
      std::string_view step = path.substr( 0, slash );
      path = slash == std::string_view::npos ? std::string_view() : path.substr( slash + 1 );
      Zek::Ptr< Entity > next = at->entity( String( step ) );
      if( !next ) {
         next = dirFactory( Name( step ) );
         at->entityIs( next );
      }
      Zek::Ptr< Dir > nextDir = ptrCast< Dir >( next );
      if( !nextDir ) {
         throwRangeException( "'" + std::string( next->fullName().view() ) +
                              "' is no directory but " + next->fwkType()->fullName );
      }
      at = nextDir;
   }
   return at;
}

AllocTrackTypeInfo &
Dir::zekAllocTrackTypeInfo() const {
   return allocTrackTypeInfo_;
}

const TypeDescriptor *
Dir::fwkType() const {
   return &zekTypeDescriptor_;
}

Dir::Ptr
dirFactory( const Name & name ) {
   return allocate< Dir >( name );
}

// -- Descriptors ------------------------------------------------------------------------------

namespace {

// The parent as a reader of descriptors sees it: a counted pointer made for the reading.
void
readParent( const void * object, void * result, const AttributeRow & ) {
   new( result ) Entity::Ptr( static_cast< const Entity * >( object )->parent() );
}

const Entity &
entityOf( const void * object ) {
   return *static_cast< const Entity * >( object );
}

const String &
childName( const void * key ) {
   return *static_cast< const String * >( key );
}

size_t
countChildren( const void * object, const CollectionOps & ) {
   return entityOf( object ).entityCount();
}

const PtrInterface *
firstChild( const void * object, const CollectionOps & ) {
   auto i = entityOf( object ).entityIteratorConst();
   return i ? i.ptr() : nullptr;
}

const PtrInterface *
childAfter( const void * object, const void * key, const CollectionOps & ) {
   return entityOf( object ).entityAfter( childName( key ) ).ptr();
}

const PtrInterface *
findChildByKey( const void * object, const void * key, const CollectionOps & ) {
   return entityOf( object ).entity( childName( key ) ).ptr();
}

constexpr CollectionOps childOps = {
   &countChildren,
   &firstChild,
   &childAfter,
   &findChildByKey,
   nullptr, // a text made of the child's key
   nullptr,
   []( void * object, const void * member, const void * const *, const CollectionOps & ) {
      static_cast< Entity * >( object )->entityIs( *static_cast< const Entity::Ptr * >( member ) );
   },
   []( void * object, const void * key, const CollectionOps & ) {
      static_cast< Entity * >( object )->entityDel( childName( key ) );
   },
   []( void * object, const CollectionOps & ) {
      static_cast< Entity * >( object )->entityDelAll();
   },
   []( void * object, const void * key, const CollectionOps & ) {
      static_cast< Entity * >( object )->entityNotify( childName( key ) );
   },
};

constexpr AttributeRow
frameworkRow( const char * name, FrameworkAttribute id, const TypeDescriptor & type,
              const ValueOps & stored, decltype( AttributeRow::readThunk ) read ) {
   AttributeRow row{};
   row.name = name;
   row.id = id;
   row.kind = AttributeKind::derived;
   row.type = &type;
   row.stored = &stored;
   row.readThunk = read;
   return row;
}

constexpr AttributeRow
childrenRow() {
   AttributeRow row{};
   row.name = "entity";
   row.id = entityAttr;
   row.kind = AttributeKind::collection;
   row.flags = ownsMembers;
   row.type = &Entity::zekTypeDescriptor_;
   row.keyType = &TypeOf< String >::descriptor;
   row.collection = &childOps;
   return row;
}

constexpr AttributeRow frameworkRows[] = {
   frameworkRow( "name", nameAttr, TypeOf< Name >::descriptor, valueOps< Name >,
                 &Rows::readBy< &Entity::name > ),
   frameworkRow( "fullName", fullNameAttr, TypeOf< Name >::descriptor, valueOps< Name >,
                 &Rows::readBy< &Entity::fullName > ),
   frameworkRow( "parent", parentAttr, Entity::zekTypeDescriptor_, valueOps< Entity::Ptr >,
                 &readParent ),
   frameworkRow( "parentAttrName", parentAttrNameAttr, TypeOf< String >::descriptor,
                 valueOps< String >, &Rows::readBy< &Entity::parentAttrName > ),
   childrenRow(),
};

constexpr ParameterRow dirParameters[] = { Rows::argument< Name >( "name" ) };

constexpr GenericIf entityGenericIf( Entity::zekTypeDescriptor_ );
constexpr GenericIf dirGenericIf( Dir::zekTypeDescriptor_ );

class DirRelay final : public Relay< Dir > {
 public:
   using Relay::Relay;
   void onEntity( const String & key ) override { changed( entityAttr, &key ); }
};

} // namespace

constinit const TypeDescriptor Entity::zekTypeDescriptor_ = {
   .fullName = "Zek::Entity",
   .kind = TypeKind::entity,
   .isRecord = false,
   .isNamed = false,
   .hasNotifier = true,
   .hasAttrLog = true,
   .base = nullptr,
   .values = nullptr,
   .attributes = frameworkRows,
   .enumerators = {},
   .constructorParameters = {},
   .createThunk = nullptr,
   .relay = nullptr,
   .allocations = nullptr,
   .genericIf = &entityGenericIf,
};

constinit const TypeDescriptor Dir::zekTypeDescriptor_ = {
   .fullName = "Zek::Dir",
   .kind = TypeKind::entity,
   .isRecord = false,
   .isNamed = true,
   .hasNotifier = true,
   .hasAttrLog = true,
   .base = &Entity::zekTypeDescriptor_,
   .values = nullptr,
   .attributes = {},
   .enumerators = {},
   .constructorParameters = dirParameters,
   .createThunk = &Rows::createBy< &dirFactory >,
   .relay = &makeRelay< DirRelay >,
   .allocations = &Dir::allocTrackTypeInfo_,
   .genericIf = &dirGenericIf,
};

namespace {

struct Initialiser {
   Initialiser() {
      typeNodeIs( Entity::zekTypeDescriptor_ );
      typeNodeIs( Dir::zekTypeDescriptor_ );
   }
} initialiser;

} // namespace

// -- Name in use ------------------------------------------------------------------------------

void
throwParameterDiffers( const Entity & member, const char * parameter, std::string_view requested,
                       std::string_view current ) {
   std::string text( "Reinstantiating the entity with fullName " );
   text.append( member.fullName().view() );
   text.append( " where constructor parameter attribute '" ).append( parameter );
   text.append( "' has a different value of " ).append( requested );
   text.append( " than the current value of " ).append( current ).append( " not allowed" );
   throwNameInUseException( text );
}

} // namespace Zek
