#include "framework/Generic.h"

#include "framework/Entity.h"
#include "framework/EntityUriPath.h"
#include "framework/ValueSet.h"

#include <algorithm>
#include <memory>
#include <vector>

namespace Zek {

namespace {

[[noreturn]] void
throwRejected( const std::string & text ) {
   throw RejectedException( text );
}

std::string
counted( size_t count, const char * what ) {
   return std::to_string( count ) + " " + what + ( count == 1 ? "" : "s" );
}

} // namespace

// -- Targets ----------------------------------------------------------------------------------

GenericTarget::GenericTarget( GenericValue & value ) : GenericTarget( std::as_const( value ) ) {
   if( !value.isPointer() ) typeAndConst_ &= ~constBit;
}

GenericTarget::GenericTarget( const GenericValue & value )
   : GenericTarget( value.isPointer() ? value.object() : value.address(), value.type(),
                    !value.isPointer() || value.isConst() ) {
   if( !address_ ) throwRejected( value.shape() + " has no attributes" );
}

// -- Rejections -------------------------------------------------------------------------------

namespace {

/// "Ip::Config::ipIntfConfig cannot be <this>".
const char *
verb( GenericOperation operation ) {
   switch( operation ) {
   case GenericOperation::read:
      return "read";
   case GenericOperation::write:
      return "written";
   case GenericOperation::lookUp:
      return "looked up in";
   case GenericOperation::has:
      return "asked for members";
   case GenericOperation::wrap:
      return "asked for a member";
   case GenericOperation::count:
      return "counted";
   case GenericOperation::add:
      return "added to";
   case GenericOperation::remove:
      return "removed from";
   case GenericOperation::removeAll:
      return "emptied";
   case GenericOperation::notify:
      return "announced by key";
   case GenericOperation::increment:
      return "incremented";
   case GenericOperation::decrement:
      return "decremented";
   case GenericOperation::call:
      return "called";
   }
   return "used";
}

const char *
nature( const AttributeRow & row ) {
   switch( row.kind ) {
   case AttributeKind::constructorParameter:
      return "it is a constructor parameter";
   case AttributeKind::plain:
      return row.has( isCounter ) ? "it is a counter without that operation"
                                  : "it is a plain attribute";
   case AttributeKind::pointer:
      return "it is a pointer";
   case AttributeKind::collection:
      return "it is a collection";
   case AttributeKind::constant:
      return "it is a constant";
   case AttributeKind::derived:
      return "it is derived";
   case AttributeKind::callable:
      return "it is an operation to call";
   }
   return "";
}

} // namespace

void
GenericIf::reject( GenericOperation operation, const AttributeRow & row,
                   std::string_view reason ) const {
   throwRejected( std::string( type_.fullName ) + "::" + row.name + " cannot be " +
                  verb( operation ) + ": " + std::string( reason ) );
}

void
GenericIf::rejectFor( GenericOperation operation, const AttributeRow & row ) const {
   reject( operation, row, nature( row ) );
}

void
GenericIf::throwOtherObject( GenericTarget object ) const {
   throwRejected( "an object of type " +
                  std::string( object.type() ? object.type()->fullName : "unknown" ) +
                  " is not of type " + type_.fullName );
}

const AttributeRow &
GenericIf::attribute( std::string_view name ) const {
   const AttributeRow * row = type_.attribute( name );
   if( !row ) {
      throwRejected( std::string( type_.fullName ) + " has no attribute '" + std::string( name ) +
                     "'" );
   }
   return *row;
}

const AttributeRow &
GenericIf::attribute( uint16_t id ) const {
   const AttributeRow * row = type_.attribute( id );
   if( !row ) {
      throwRejected( std::string( type_.fullName ) + " has no attribute of number " +
                     std::to_string( id ) );
   }
   return *row;
}

void *
GenericIf::changeable( GenericTarget object, GenericOperation operation,
                       const AttributeRow & row ) const {
   if( object.isConst() ) reject( operation, row, "the object is held by a const pointer" );
   return const_cast< void * >( object.address() );
}

void
GenericIf::checkCount( GenericOperation operation, const AttributeRow & row, Arguments arguments,
                       size_t least, size_t most ) const {
   if( arguments.size() >= least && arguments.size() <= most ) return;
   std::string takes = least == most ? "" : std::to_string( least ) + " to ";
   reject( operation, row,
           "it takes " + takes + counted( most, "argument" ) + ", not " +
              std::to_string( arguments.size() ) );
}

void
GenericIf::checkArguments( std::string_view what, std::span< const ParameterRow > parameters,
                           Arguments arguments ) {
   if( arguments.size() != parameters.size() ) {
      throwRejected( std::string( what ) + " takes " + counted( parameters.size(), "argument" ) +
                     ", not " + std::to_string( arguments.size() ) );
   }
   for( size_t i = 0; i < parameters.size(); ++i ) {
      const ParameterRow & parameter = parameters[i];
      if( arguments[i].fits( parameter.type, parameter.isPointer, parameter.isConst ) ) continue;
      throwRejected( "argument '" + std::string( parameter.name ) + "' of " + std::string( what ) +
                     " is " + GenericValue::shapeOf( parameter.type, parameter.isPointer ) +
                     ", not " + arguments[i].shape() );
   }
}

// -- Attributes -------------------------------------------------------------------------------

// The row of attribute `id`, for an object that has it.
const AttributeRow &
GenericIf::rowOf( GenericTarget object, GenericOperation operation, uint16_t id ) const {
   const AttributeRow * row = ownRow( id );
   if( !row ) row = &attribute( id );
   checkObject( object );
   if( !object.address() && !row->has( isStaticCall ) && row->kind != AttributeKind::constant ) {
      reject( operation, *row, "there is no object" );
   }
   return *row;
}

GenericValue
GenericIf::readSlowly( GenericTarget object, uint16_t id, Arguments arguments ) const {
   constexpr auto operation = GenericOperation::read;
   const AttributeRow & row = rowOf( object, operation, id );
   if( row.kind == AttributeKind::collection || row.kind == AttributeKind::callable ) {
      rejectFor( operation, row );
   }
   checkCount( operation, row, arguments, 0, 0 );
   GenericValue value;
   if( row.type->isCounted() ) {
      Ptr< const PtrInterface > held;
      if( row.isStored() ) {
         held =
            *static_cast< const Ptr< const PtrInterface > * >( row.address( object.address() ) );
      } else {
         row.read( object.address(), value.storage_ );
         held = Ptr< const PtrInterface >::adopt( value.pointer() );
      }
      value = GenericValue( held.ptr(), row.type );
      if( !row.has( pointsToConst ) ) value.holding_ = GenericValue::Holding::object;
      return value;
   }
   if( row.isStored() ) return GenericValue( *row.type, row.address( object.address() ) );
   value.type_ = row.type;
   try {
      row.read( object.address(), value.room( *row.type->values ) );
   } catch( ... ) {
      value.abandonRoom();
      throw;
   }
   return value;
}

void
GenericIf::write( GenericTarget object, uint16_t id, Arguments arguments ) const {
   constexpr auto operation = GenericOperation::write;
   const AttributeRow & row = rowOf( object, operation, id );
   if( !row.isWritable() ) rejectFor( operation, row );
   if( arguments.size() != 1 ) checkCount( operation, row, arguments, 1, 1 );
   const GenericValue & value = arguments[0];
   const bool sameType = value.type() == row.type && !value.isPointer();
   if( !sameType ) {
      const bool isPointer = row.type->isCounted();
      if( !value.fits( row.type, isPointer, row.has( pointsToConst ) ) ) {
         reject( operation, row,
                 "it is " + GenericValue::shapeOf( row.type, isPointer ) + ", not " +
                    value.shape() );
      }
   }
   row.write( changeable( object, operation, row ), value.address() );
}

GenericValue
GenericIf::other( GenericTarget object, GenericOperation operation, uint16_t id,
                  Arguments arguments ) const {
   const AttributeRow & row = rowOf( object, operation, id );
   if( operation == GenericOperation::call ) return call( object, row, arguments );
   if( operation == GenericOperation::increment || operation == GenericOperation::decrement ) {
      return step( object, operation, row, arguments );
   }
   if( row.kind == AttributeKind::collection ) {
      return collectionOp( object, operation, row, arguments );
   }
   rejectFor( operation, row );
}

GenericValue
GenericIf::step( GenericTarget object, GenericOperation operation, const AttributeRow & row,
                 Arguments arguments ) const {
   const bool up = operation == GenericOperation::increment;
   if( !row.counter || !( up ? row.counter->hasIncrement() : row.counter->hasDecrement() ) ) {
      rejectFor( operation, row );
   }
   checkCount( operation, row, arguments, 0, 1 );
   if( !arguments.empty() && !arguments[0].fits( row.type, false, false ) ) {
      reject( operation, row,
              "it is " + GenericValue::shapeOf( row.type, false ) + ", not " +
                 arguments[0].shape() );
   }
   GenericValue result = GenericValue::zero( *row.type );
   void * at = changeable( object, operation, row );
   const void * by = arguments.empty() ? nullptr : arguments[0].address();
   if( up ) {
      row.counter->increment( at, by, result.address() );
   } else {
      row.counter->decrement( at, by, result.address() );
   }
   return result;
}

GenericValue
GenericIf::call( GenericTarget object, const AttributeRow & row, Arguments arguments ) const {
   constexpr auto operation = GenericOperation::call;
   if( !row.isCallable() ) rejectFor( operation, row );
   checkArguments( std::string( type_.fullName ) + "::" + row.name, row.parameters, arguments );
   const bool leavesObjectAlone = row.has( isStaticCall ) || row.has( isConstCall );
   void * at = leavesObjectAlone ? const_cast< void * >( object.address() )
                                 : changeable( object, operation, row );
   GenericValue result;
   row.call( at, arguments.data(), &result );
   return result;
}

// -- Collections ------------------------------------------------------------------------------

namespace {

/// The object that a collection shows for a member: of a machine's reactor what it watches.
Ptr< const PtrInterface >
shownObject( const PtrInterface * member ) {
   if( !member->fwkType() ) {
      if( auto reactor = dynamic_cast< const PtrInterface::NotifieeConst * >( member ) ) {
         return reactor->notifier();
      }
   }
   return member;
}

/// A member as its collection shows it: value, key (sets) or object.
GenericValue
wrapped( const AttributeRow & row, const PtrInterface * member ) {
   const CollectionOps & ops = *row.collection;
   if( row.has( isSet ) ) return GenericValue( *row.keyType, ops.memberKey( member ) );
   if( ops.hasMemberValue() ) return GenericValue( *row.type, ops.memberValue( member ) );
   Ptr< const PtrInterface > object = shownObject( member );
   if( row.has( pointsToConst ) ) return GenericValue( object.ptr(), row.type );
   return GenericValue( const_cast< PtrInterface * >( object.ptr() ), row.type );
}

/// What a collection shows for a key that it has no member under.
GenericValue
absentMember( const AttributeRow & row ) {
   if( row.collection->hasMemberValue() ) return GenericValue::zero( *row.type );
   if( row.has( pointsToConst ) ) {
      return GenericValue( static_cast< const PtrInterface * >( nullptr ), row.type );
   }
   return GenericValue( static_cast< PtrInterface * >( nullptr ), row.type );
}

/// What collections of objects and sets inside values have in common.
class Members {
 public:
   explicit Members( const AttributeRow & row ) : row_( row ) {}

   size_t count( const void * object ) const {
      return row_.collection ? row_.collection->count( object ) : row_.valueSet->count( object );
   }
   bool has( const void * object, const void * key ) const {
      return row_.collection ? row_.collection->find( object, key ) != nullptr
                             : row_.valueSet->has( object, key );
   }
   /// The member as it is shown; nothing when there is none.
   GenericValue find( const void * object, const void * key ) const {
      if( row_.collection ) {
         const PtrInterface * member = row_.collection->find( object, key );
         return member ? wrapped( row_, member ) : GenericValue();
      }
      return row_.valueSet->has( object, key ) ? GenericValue( *row_.keyType, key )
                                               : GenericValue();
   }
   void remove( void * object, const void * key ) const {
      if( row_.collection ) {
         row_.collection->del( object, key );
      } else {
         row_.valueSet->remove( object, key );
      }
   }
   void removeAll( void * object ) const {
      if( row_.collection ) {
         row_.collection->delAll( object );
      } else {
         row_.valueSet->removeAll( object );
      }
   }

 private:
   const AttributeRow & row_;
};

GenericValue
keyOfMember( const AttributeRow & row, const PtrInterface * member ) {
   return withMemberKey( row, member,
                         [&]( const void * key ) { return GenericValue( *row.keyType, key ); } );
}

GenericValue
defaultKey( const AttributeRow & row ) {
   if( row.valueSet ) reportDefaultKeyUnsupported();
   return GenericValue::zero( *row.keyType );
}

} // namespace

void
GenericIf::checkKey( GenericOperation operation, const AttributeRow & row,
                     const GenericValue & key ) const {
   if( key.fits( row.keyType, false, false ) ) return;
   reject( operation, row,
           "its key is " + GenericValue::shapeOf( row.keyType, false ) + ", not " + key.shape() );
}

// The key that is the only argument, or the default one, for which `none` is the place.
const void *
GenericIf::keyOf( GenericOperation operation, const AttributeRow & row, Arguments arguments,
                  GenericValue & none ) const {
   const bool mayBeLeftOut = operation == GenericOperation::lookUp ||
                             operation == GenericOperation::has ||
                             operation == GenericOperation::wrap;
   checkCount( operation, row, arguments, mayBeLeftOut ? 0 : 1, 1 );
   if( arguments.empty() ) {
      none = defaultKey( row );
      return none.address();
   }
   checkKey( operation, row, arguments[0] );
   return arguments[0].address();
}

GenericValue
GenericIf::collectionOp( GenericTarget object, GenericOperation operation, const AttributeRow & row,
                         Arguments arguments ) const {
   const Members members( row );
   GenericValue none;
   switch( operation ) {
   case GenericOperation::count:
      checkCount( operation, row, arguments, 0, 0 );
      return uint64_t( members.count( object.address() ) );
   case GenericOperation::lookUp:
   case GenericOperation::has:
   case GenericOperation::wrap: {
      const void * key = keyOf( operation, row, arguments, none );
      const bool asksMembership = operation == GenericOperation::has ||
                                  ( operation == GenericOperation::lookUp && row.has( isSet ) );
      if( asksMembership ) return members.has( object.address(), key );
      GenericValue found = members.find( object.address(), key );
      if( found.isNothing() && operation == GenericOperation::lookUp ) return absentMember( row );
      return found;
   }
   case GenericOperation::add:
      return add( changeable( object, operation, row ), row, arguments );
   case GenericOperation::remove: {
      void * at = changeable( object, operation, row );
      const void * key = keyOf( operation, row, arguments, none );
      GenericValue removed = members.find( at, key );
      members.remove( at, key );
      return removed;
   }
   case GenericOperation::removeAll:
      checkCount( operation, row, arguments, 0, 0 );
      members.removeAll( changeable( object, operation, row ) );
      return {};
   case GenericOperation::notify: {
      if( row.valueSet ) break;
      void * at = changeable( object, operation, row );
      row.collection->notify( at, keyOf( operation, row, arguments, none ) );
      return {};
   }
   default:
      break;
   }
   rejectFor( operation, row );
}

GenericValue
GenericIf::add( void * object, const AttributeRow & row, Arguments arguments ) const {
   constexpr auto operation = GenericOperation::add;
   if( row.valueSet ) {
      GenericValue none;
      row.valueSet->add( object, keyOf( operation, row, arguments, none ) );
      return {};
   }
   if( !row.collection->hasMemberKey() ) {
      return addChild( *static_cast< Entity * >( object ), row, arguments );
   }
   if( row.has( ownsMembers ) ) return addOwned( object, row, arguments );
   const bool isPointer = row.has( refersToMembers );
   const bool keyIsCarried = isPointer || row.has( keyIsField );
   const size_t count = keyIsCarried || row.has( isSet ) ? 1 : 2;
   checkCount( operation, row, arguments, count, count );
   if( !keyIsCarried ) checkKey( operation, row, arguments[0] );
   if( count == 2 || keyIsCarried ) {
      const GenericValue & value = arguments[count - 1];
      if( !value.fits( row.type, isPointer, row.has( pointsToConst ) ) ) {
         reject( operation, row,
                 "its members are " + GenericValue::shapeOf( row.type, isPointer ) + ", not " +
                    value.shape() );
      }
   }
   const void * value = arguments[count - 1].address();
   row.collection->is( object, arguments[0].address(), &value );
   return {};
}

namespace {

/// The place of the key among the constructor's parameters; past them for types without one.
size_t
keyParameter( const TypeDescriptor & type ) {
   if( type.isNamed ) return 0;
   for( const TypeDescriptor * part = &type; part; part = part->base ) {
      for( const AttributeRow & row : part->attributes ) {
         if( !row.has( isKey ) ) continue;
         const auto parameters = type.constructorParameters;
         auto at = std::find_if( parameters.begin(), parameters.end(), [&]( auto & parameter ) {
            return std::string_view( parameter.name ) == row.name;
         } );
         return static_cast< size_t >( at - parameters.begin() );
      }
   }
   return type.constructorParameters.size();
}

} // namespace

// The collection takes the key first, the member's constructor where it is declared.
GenericValue
GenericIf::addOwned( void * object, const AttributeRow & row, Arguments arguments ) const {
   const auto parameters = row.type->constructorParameters;
   const size_t keyAt = keyParameter( *row.type );
   std::vector< ParameterRow > wanted{ { "key", row.keyType, false, false } };
   for( size_t i = 0; i < parameters.size(); ++i ) {
      if( i != keyAt ) wanted.push_back( parameters[i] );
   }
   checkArguments( "adding to " + std::string( type_.fullName ) + "::" + row.name, wanted,
                   arguments );
   std::vector< const void * > further;
   for( const GenericValue & argument : arguments.subspan( 1 ) ) {
      further.push_back( argument.address() );
   }
   row.collection->is( object, arguments[0].address(), further.data() );
   const PtrInterface * member = row.collection->find( object, arguments[0].address() );
   return member ? wrapped( row, member ) : GenericValue(); // a watcher may have removed it
}

GenericValue
GenericIf::addChild( Entity & parent, const AttributeRow & row, Arguments arguments ) const {
   constexpr auto operation = GenericOperation::add;
   checkCount( operation, row, arguments, 1, 2 );
   if( arguments.size() == 2 ) {
      checkKey( operation, row, arguments[0] );
      if( !arguments[1].is< String >() ) {
         reject( operation, row,
                 "the name of the type is a value of type Zek::String, not " +
                    arguments[1].shape() );
      }
      return parent.entityIs( arguments[1].as< String >().view(),
                              Name( arguments[0].as< String >().view() ) );
   }
   if( !arguments[0].fits( row.type, true, false ) ) {
      reject( operation, row,
              "its members are " + GenericValue::shapeOf( row.type, true ) + ", not " +
                 arguments[0].shape() );
   }
   row.collection->is( &parent, arguments[0].address(), nullptr );
   return arguments[0];
}

// -- Iterators --------------------------------------------------------------------------------

GenericIfIterator::GenericIfIterator( GenericTarget object, const AttributeRow & row )
   : object_( object.address() ),
     row_( &row ) {
   if( row.collection ) record_ = static_cast< const PtrInterface * >( object.address() );
}

void
GenericIfIterator::standOn( const PtrInterface * member ) {
   member_ = member;
   key_ = member ? keyOfMember( *row_, member ) : GenericValue();
}

void
GenericIfIterator::standOnKey( const void * key ) {
   key_ = key ? GenericValue( *row_->keyType, key ) : GenericValue();
}

GenericIfIterator &
GenericIfIterator::operator++() {
   if( row_->collection ) {
      standOn( row_->collection->after( object_, key_.address() ) );
   } else {
      standOnKey( row_->valueSet->after( object_, key_.address() ) );
   }
   return *this;
}

GenericValue
GenericIfIterator::value() const {
   return row_->collection ? wrapped( *row_, member_.ptr() ) : key_;
}

GenericIfIterator
GenericIf::genericIfIterator( GenericTarget object, uint16_t id ) const {
   const AttributeRow & row = attribute( id );
   checkObject( object );
   if( row.kind != AttributeKind::collection ) {
      reject( GenericOperation::wrap, row, nature( row ) );
   }
   GenericIfIterator at( object, row );
   if( row.collection ) {
      at.standOn( row.collection->first( object.address() ) );
   } else {
      at.standOnKey( row.valueSet->first( object.address() ) );
   }
   return at;
}

GenericIfIterator
GenericIf::genericIfIteratorKey( GenericTarget object, uint16_t id,
                                 const GenericValue & key ) const {
   const AttributeRow & row = attribute( id );
   checkObject( object );
   if( row.kind != AttributeKind::collection ) {
      reject( GenericOperation::wrap, row, nature( row ) );
   }
   GenericValue none;
   const void * at =
      keyOf( GenericOperation::wrap, row, Arguments( &key, key.isNothing() ? 0 : 1 ), none );
   GenericIfIterator iterator( object, row );
   if( row.collection ) {
      iterator.standOn( row.collection->find( object.address(), at ) );
   } else {
      iterator.standOnKey( row.valueSet->has( object.address(), at ) ? at : nullptr );
   }
   return iterator;
}

// -- Watching ---------------------------------------------------------------------------------

constinit AllocTrackTypeInfo
   GenericIfNotifiee_::allocTrackTypeInfo_( "Zek::GenericIfNotifiee_",
                                            sizeof( GenericIfNotifiee_ ) );

GenericIfNotifiee_::GenericIfNotifiee_( const TypeDescriptor & type, const PtrInterface & object,
                                        Callback callback )
   : callback_( std::move( callback ) ),
     relay_( ptrCast< PtrInterface::NotifieeConst >( type.relay( object, *this ) ) ) {}

GenericIfNotifiee_::~GenericIfNotifiee_() = default;

AllocTrackTypeInfo &
GenericIfNotifiee_::zekAllocTrackTypeInfo() const {
   return allocTrackTypeInfo_;
}

void
GenericIfNotifiee_::onAttribute( const AttributeRow & row ) {
   const Ptr< GenericIfNotifiee_ > self( this ); // the callback may drop the last reference
   callback_( row, GenericValue() );
}

void
GenericIfNotifiee_::onMember( const AttributeRow & row, const void * key ) {
   const Ptr< GenericIfNotifiee_ > self( this );
   callback_( row, GenericValue( *row.keyType, key ) );
}

Ptr< GenericIfNotifiee_ >
GenericIf::genericIfNotifiee( const PtrInterface & object,
                              GenericIfNotifiee_::Callback callback ) const {
   checkObject( object );
   // A binding is watched as the view that it binds.
   for( const TypeDescriptor * type = object.fwkType(); type; type = type->base ) {
      if( type->relay ) {
         return allocate< GenericIfNotifiee_ >( *type, object, std::move( callback ) );
      }
   }
   throwRejected( std::string( "objects of type " ) + type_.fullName + " announce nothing" );
}

// -- Making objects ---------------------------------------------------------------------------

namespace {

std::vector< const void * >
addresses( GenericIf::Arguments arguments ) {
   std::vector< const void * > out;
   for( const GenericValue & argument : arguments ) out.push_back( argument.address() );
   return out;
}

} // namespace

GenericValue
GenericIf::genericIfFromCtorArgs( Arguments arguments ) const {
   if( type_.kind == TypeKind::enumeration ) {
      if( arguments.size() != 1 ||
          !( arguments[0].is< int64_t >() || arguments[0].is< String >() ) ) {
         throwRejected( std::string( type_.fullName ) +
                        " takes one argument, a number (S64) or name (Zek::String)" );
      }
      const int64_t number = arguments[0].is< int64_t >()
                                ? enumeratorValue( type_, arguments[0].as< int64_t >() )
                                : enumeratorValue( type_, arguments[0].as< String >().view() );
      return GenericValue::fromText( type_, enumeratorName( type_, number ) );
   }
   if( !type_.isMade() && !type_.isAssembled() ) {
      throwRejected( std::string( "objects of type " ) + type_.fullName + " are not made" );
   }
   checkArguments( type_.fullName, type_.constructorParameters, arguments );
   const std::vector< const void * > at = addresses( arguments );
   if( type_.isMade() ) return type_.create( at.data() );
   GenericValue value;
   value.type_ = &type_;
   try {
      type_.assemble( value.room( *type_.values ), at.data() );
   } catch( ... ) {
      value.abandonRoom();
      throw;
   }
   return value;
}

Ptr< Entity >
GenericIf::newEntityForAttrLog( Arguments arguments ) const {
   if( !type_.isEntity() || !type_.hasAttrLog ) {
      throwRejected( std::string( "objects of type " ) + type_.fullName + " are not logged" );
   }
   checkArguments( type_.fullName, type_.constructorParameters, arguments );
   return newEntityForAttrLogUnchecked( addresses( arguments ).data() );
}

Ptr< Entity >
GenericIf::newEntityForAttrLogUnchecked( const void * const * arguments ) const {
   const Ptr< PtrInterface > made = type_.create( arguments );
   return static_cast< Entity * >( made.ptr() );
}

Ptr< Entity >
GenericIf::newEntityForAttrLog( Entity & parent, uint16_t id, Arguments arguments ) const {
   const GenericIf & companion = *parent.fwkType()->genericIf;
   const AttributeRow & row = companion.attribute( id );
   constexpr auto add = GenericOperation::add;
   if( !row.has( ownsMembers ) ) companion.rejectFor( add, row );
   if( id == entityAttr ) {
      Ptr< Entity > child = newEntityForAttrLog( arguments );
      parent.entityIs( child );
      return child;
   }
   if( row.type != &type_ || !type_.hasAttrLog ) {
      companion.reject( add, row,
                        "its members are of type " + std::string( row.type->fullName ) + ", not " +
                           type_.fullName );
   }
   checkArguments( type_.fullName, type_.constructorParameters, arguments );
   std::vector< GenericValue > inOrder( arguments.begin(), arguments.end() );
   auto key = inOrder.begin() + static_cast< ptrdiff_t >( keyParameter( type_ ) );
   std::rotate( inOrder.begin(), key, key + 1 );
   return companion.genericIfAttributeOp( parent, add, id, inOrder ).as< Ptr< Entity > >();
}

} // namespace Zek
