// Entities of types made at run time: their attributes and their notification.

#include "framework/DynamicParts.h"
#include "framework/Exception.h"
#include "framework/Relay.h"
#include "framework/ValueOps.h"

#include <new>

namespace Zek {

constinit const TypeDescriptor & DynamicEntity::zekTypeDescriptor_ = Entity::zekTypeDescriptor_;

DynamicEntity::NotifieeConst::~NotifieeConst() = default;

void
DynamicEntity::NotifieeConst::notifierIs( Zek::Ptr< const PtrInterface > notifier ) {
   notifierAssign( dynamic_cast< const DynamicEntity * >( notifier.ptr() ) );
}

// -- Life -------------------------------------------------------------------------------------

DynamicEntity::DynamicEntity( const DynamicType & type, const void * const * arguments )
   : type_( type ),
     name_( type.isNamed ? *static_cast< const Name * >( arguments[0] ) : Name() ) {
   size_t made = 0;
   try {
      construct( type, made );
      for( size_t i = 0; i < type.parameterAttributes.size(); ++i ) {
         const AttributeRow * row = type.parameterAttributes[i];
         if( row ) assign( *row->stored, placeOf( this, *row ), arguments[i] );
      }
   } catch( ... ) {
      destroy( made );
      throw;
   }
}

/// Makes the attributes of the bases, then the type's own; counts them in `made`.
void
DynamicEntity::construct( const DynamicType & type, size_t & made ) {
   if( const DynamicType * base = type.dynamicBase ) construct( *base, made );
   for( const AttributeRow & row : type.rows ) {
      void * at = placeOf( this, row );
      if( row.collection ) {
         // Either is one pointer, and null when it is empty.
         if( row.has( AttributeFlag::isOrdered ) ) {
            new( at ) RbTree();
         } else {
            new( at ) HashTable();
         }
      } else if( row.isStored() ) {
         const GenericValue & initial = row.part->initial;
         if( initial.isNothing() ) {
            row.stored->construct( at );
         } else {
            row.stored->copy( at, initial.address() );
         }
      }
      ++made;
   }
   for( const DynamicType::Fixed & fixed : type.fixed ) {
      assign( *fixed.row->stored, placeOf( this, *fixed.row ), fixed.value.address() );
   }
}

namespace {

/// Clears the parent of each member, as a dying parent does; nothing is removed.
void
orphan( const DynamicEntity & parent, const AttributeRow & row ) {
   const CollectionOps & ops = *row.collection;
   Ptr< const PtrInterface > member( ops.first( &parent ) );
   while( member ) {
      auto & child = const_cast< Entity & >( static_cast< const Entity & >( *member ) );
      const AnyKey key( *row.keyType->values, ops.memberKey( member.ptr() ) );
      child.parentIs( nullptr );
      child.parentAttrIdIs( 0 );
      if( !child.notifieeList().idle() ) child.notifieeList().tellLeaving();
      member = ops.after( &parent, key.get() );
   }
}

} // namespace

void
DynamicEntity::destroy( size_t made ) {
   std::vector< const AttributeRow * > rows;
   for( const DynamicType * type = &type_; type; type = type->dynamicBase ) {
      std::vector< const AttributeRow * > here;
      for( const AttributeRow & row : type->rows ) here.push_back( &row );
      rows.insert( rows.begin(), here.begin(), here.end() );
   }
   rows.resize( made );
   for( const AttributeRow * row : rows ) {
      if( row->has( ownsMembers ) ) orphan( *this, *row );
   }
   while( !rows.empty() ) {
      const AttributeRow & row = *rows.back();
      void * at = placeOf( this, row );
      rows.pop_back();
      if( row.collection ) {
         if( row.has( AttributeFlag::isOrdered ) ) {
            static_cast< RbTree * >( at )->~RbTree();
         } else {
            static_cast< HashTable * >( at )->~HashTable();
         }
      } else if( row.isStored() ) {
         row.stored->destroy( at );
      }
   }
}

DynamicEntity::~DynamicEntity() {
   size_t rows = 0;
   for( const DynamicType * type = &type_; type; type = type->dynamicBase ) {
      rows += type->rows.size();
   }
   destroy( rows );
}

Name
DynamicEntity::name() const {
   const AttributeRow * row = type_.nameRow;
   if( !row ) return name_;
   // The text of its key as it is, without quotes.
   Wire::Buffer buffer;
   Wire::Encoder encoder( buffer );
   row->stored->encode( placeOf( this, *row ), encoder );
   return Name( buffer.view().substr( sizeof( uint32_t ) ) );
}

const TypeDescriptor *
DynamicEntity::fwkType() const {
   return &type_;
}

AllocTrackTypeInfo &
DynamicEntity::zekAllocTrackTypeInfo() const {
   return *type_.allocations;
}

// -- Thunks -----------------------------------------------------------------------------------

namespace {

DynamicEntity &
entityAt( void * object ) {
   return static_cast< DynamicEntity & >( *static_cast< PtrInterface * >( object ) );
}

void
requireBound( const AttributeRow & row, const void * value ) {
   const DynamicPart & part = *row.part;
   if( part.max.isNothing() || !row.stored->less( part.max.address(), value ) ) return;
   throwRangeException( part.refusal );
}

/// As generated mutators: the bound is tested before the value is stored or after it, as declared.
void
write( void * object, const void * value, const AttributeRow & row ) {
   DynamicEntity & entity = entityAt( object );
   void * at = placeOf( object, row );
   if( row.stored->equal( at, value ) ) return;
   if( row.has( isTestedFirst ) ) requireBound( row, value );
   if( row.type->isCounted() ) {
      // What it held may have a farewell to say.
      const Ptr< PtrInterface > held = *static_cast< Ptr< PtrInterface > * >( at );
      *static_cast< Ptr< PtrInterface > * >( at ) =
         *static_cast< const Ptr< PtrInterface > * >( value );
   } else {
      assign( *row.stored, at, value );
   }
   if( !row.has( isTestedFirst ) ) requireBound( row, value );
   entity.changed( row, nullptr );
}

template< class U >
void
stepAs( const AttributeRow & row, void * object, const void * by, void * result, bool up ) {
   U & number = *static_cast< U * >( placeOf( object, row ) );
   const U step = by ? *static_cast< const U * >( by ) : U( 1 );
   number = static_cast< U >( up ? number + step : number - step );
   *static_cast< U * >( result ) = number;
   entityAt( object ).changed( row, nullptr );
}

template< bool up >
void
step( void * object, const void * by, void * result, const CounterOps & ops ) {
   const AttributeRow & row = *static_cast< const DynamicCounter & >( ops ).row;
   const Ptr< PtrInterface > self( static_cast< PtrInterface * >( object ) );
   switch( row.stored->size ) {
   case 1:
      return stepAs< uint8_t >( row, object, by, result, up );
   case 2:
      return stepAs< uint16_t >( row, object, by, result, up );
   case 4:
      return stepAs< uint32_t >( row, object, by, result, up );
   default:
      return stepAs< uint64_t >( row, object, by, result, up );
   }
}

void
reach( void * object, const void * value, const CounterOps & ops ) {
   write( object, value, *static_cast< const DynamicCounter & >( ops ).row );
}

class DynamicRelay final : public Relay< DynamicEntity > {
 public:
   using Relay::Relay;
   void onEntity( const String & key ) override { Relay::changed( entityAttr, &key ); }
   void onChange( const DynamicEntity::Change & change ) override {
      const auto & [row, key] = change;
      if( key ) {
         sink().onMember( *row, key );
      } else {
         Relay::changed( *row );
      }
   }
};

/// Allocated as by allocate(), with its attributes behind it.
Ptr< PtrInterface >
create( const void * const * arguments, const TypeDescriptor & descriptor ) {
   auto & type = static_cast< const DynamicType & >( descriptor );
   trackAllocation( *type.allocations, type.bytes );
   void * memory = nullptr;
   try {
      memory = PtrInterface::zekMemAlloc( type.bytes );
      return Ptr< PtrInterface >::adopt( new( memory ) DynamicEntity( type, arguments ) );
   } catch( ... ) {
      trackDeallocation( *type.allocations, type.bytes );
      if( memory ) PtrInterface::zekMemFree( memory, type.bytes );
      throw;
   }
}

} // namespace

void
fillPlain( AttributeRow & row ) {
   row.addressThunk = &dynamicAddress;
   if( row.kind != AttributeKind::constructorParameter ) row.writeThunk = &write;
}

void
fillCounter( AttributeRow & row, DynamicPart & part, bool increments, bool decrements ) {
   part.counter = std::make_unique< DynamicCounter >();
   part.counter->incrementThunk = increments ? &step< true > : nullptr;
   part.counter->decrementThunk = decrements ? &step< false > : nullptr;
   part.counter->reachThunk = &reach;
   part.counter->row = &row;
   row.counter = part.counter.get();
}

void
fillEntity( DynamicType & type ) {
   type.createThunk = &create;
   if( type.hasNotifier ) type.relay = &makeRelay< DynamicRelay >;
}

bool
isDynamicEntity( const TypeDescriptor & type ) {
   return type.createThunk == &create;
}

} // namespace Zek
