// Every registered record type, by reflection: what must hold of any attribute of any type.

#include "framework/EntityUriPath.h"
#include "framework/Generic.h"
#include "tests/records/Records.h"

using namespace Records;
using Zek::AttributeKind;
using Zek::AttributeRow;
using Zek::GenericOperation;
using Zek::GenericValue;
using Zek::TypeDescriptor;
using Zek::TypeKind;

namespace {

/// Live objects of every type that ever allocated, but for those of the tests' own.
std::map< std::string, uint64_t >
liveObjects() {
   std::map< std::string, uint64_t > live;
   for( auto info = Zek::AllocTrackTypeInfo::all(); info; info = info->next() ) {
      if( info->liveObjects() ) live[info->name()] += info->liveObjects();
   }
   return live;
}

GenericValue
generic( const TypeDescriptor & type, const AnyValue & value ) {
   if( !type.isCounted() ) return GenericValue( type, value.at() );
   return { static_cast< const Zek::Ptr< Zek::PtrInterface > * >( value.at() )->ptr(), &type };
}

/// One record under test, reached by name, and the lines "number" or "number key" of what it
/// announced.
class Subject {
 public:
   explicit Subject( const TypeDescriptor & type )
      : record_( made( type ) ),
        generic_( *type.genericIf ) {
      if( !record_ ) record_ = made( type, 1 ); // a view of nothing is none
      if( !type.hasNotifier ) return;
      watcher_ = generic_.genericIfNotifiee(
         *record_, [this]( const AttributeRow & row, const GenericValue & key ) {
            announced_.push_back( std::to_string( row.id ) +
                                  ( key.isNothing() ? "" : " " + key.text() ) );
         } );
   }
   void * at() const { return record_.ptr(); }
   Zek::PtrInterface & record() const { return *record_; }
   const Zek::GenericIf & type() const { return generic_; }
   std::vector< std::string > announced() { return std::exchange( announced_, {} ); }

   GenericValue op( GenericOperation operation, const AttributeRow & row,
                    const std::vector< GenericValue > & arguments = {} ) {
      return generic_.genericIfAttributeOp( *record_, operation, row.id, arguments );
   }
   /// Whether the operation is rejected, as it is for a record that may not be changed.
   bool refuses( GenericOperation operation, const AttributeRow & row,
                 const std::vector< GenericValue > & arguments = {} ) {
      try {
         op( operation, row, arguments );
      } catch( const Zek::RejectedException & error ) {
         const std::string name = std::string( generic_.type().fullName ) + "::" + row.name;
         return std::string( error.what() ).find( name ) != std::string::npos;
      }
      return false;
   }

 private:
   Zek::Ptr< Zek::PtrInterface > record_;
   const Zek::GenericIf & generic_;
   std::vector< std::string > announced_;
   Zek::Ptr< Zek::GenericIfNotifiee_ > watcher_;
};

using Lines = std::vector< std::string >;

class EveryType : public testing::TestWithParam< const TypeDescriptor * > {
 protected:
   const TypeDescriptor & type() const { return *GetParam(); }
};

class EveryValue : public EveryType {
 protected:
   /// Neither sets nor objects: only such values read back.
   bool hasPlainFieldsOnly() const {
      return std::none_of( type().attributes.begin(), type().attributes.end(), []( auto & row ) {
         return row.has( Zek::isSet ) || ( row.isStored() && row.type->isCounted() );
      } );
   }
};

class EveryRecord : public EveryType {
 protected:
   /// What is announced when attribute `line` of a record of this type changes.
   Lines once( const std::string & line ) const {
      return type().hasNotifier ? Lines{ line } : Lines{};
   }
   void sweepPlain( Subject & subject, const AttributeRow & row );
   void sweepCollection( Subject & subject, const AttributeRow & row );

   /// Members that outlive the record.
   std::vector< Zek::Ptr< Zek::Entity > > leftBehind_;
};

std::string
nameOf( const testing::TestParamInfo< const TypeDescriptor * > & info ) {
   std::string name = info.param->fullName;
   std::replace( name.begin(), name.end(), ':', '_' );
   return name;
}

/// Those twins that can be made, and whose pointers are to such.
std::vector< const TypeDescriptor * >
twinsThat( bool ( *chosen )( const TypeDescriptor & ) ) {
   std::vector< const TypeDescriptor * > types;
   for( auto & [name, linked] : recordTypes() ) {
      const TypeDescriptor * type = twins().type( name );
      const bool pointsToOthers =
         std::any_of( type->attributes.begin(), type->attributes.end(), []( auto & row ) {
            return row.isStored() && row.type->isCounted() && !row.type->isMade();
         } );
      if( chosen( *type ) && !pointsToOthers ) types.push_back( type );
   }
   return types;
}

std::vector< const TypeDescriptor * >
recordsThat( bool ( *chosen )( const TypeDescriptor & ) ) {
   std::vector< const TypeDescriptor * > types;
   for( auto & [name, type] : recordTypes() ) {
      if( chosen( *type ) ) types.push_back( type );
   }
   return types;
}

void
EveryRecord::sweepPlain( Subject & subject, const AttributeRow & row ) {
   const AnyValue before( row, subject.at() );
   const AnyValue other = otherThan( *row.type, before );
   const GenericValue now = generic( *row.type, before ), then = generic( *row.type, other );
   ASSERT_FALSE( other == before ) << before.text();
   EXPECT_EQ( subject.op( GenericOperation::read, row ), now );
   for( bool up : { true, false } ) {
      const auto step = up ? GenericOperation::increment : GenericOperation::decrement;
      if( !row.counter || !( up ? row.counter->hasIncrement() : row.counter->hasDecrement() ) ) {
         EXPECT_TRUE( subject.refuses( step, row ) );
         continue;
      }
      const GenericValue stepped = subject.op( step, row );
      EXPECT_EQ( subject.announced(), once( std::to_string( row.id ) ) );
      EXPECT_EQ( subject.op( GenericOperation::read, row ), stepped );
   }
   if( !row.isWritable() ) {
      EXPECT_TRUE( row.has( Zek::isCounter ) );
      EXPECT_TRUE( subject.refuses( GenericOperation::write, row, { then } ) );
      return;
   }
   EXPECT_TRUE( subject.refuses( GenericOperation::write, row ) );
   EXPECT_TRUE( subject.refuses( GenericOperation::write, row, { GenericValue() } ) );
   const Zek::PtrInterface & readOnly = subject.record();
   EXPECT_THROW( subject.type().genericIfAttributeOp( readOnly, GenericOperation::write, row.id,
                                                      std::span( &then, 1 ) ),
                 Zek::RejectedException );
   row.write( subject.at(), before.at() );
   subject.announced(); // a counter's steps are undone
   subject.op( GenericOperation::write, row, { now } );
   EXPECT_EQ( subject.announced(), Lines{} ) << "the value that it has";
   subject.op( GenericOperation::write, row, { then } );
   EXPECT_EQ( subject.announced(), once( std::to_string( row.id ) ) );
   EXPECT_TRUE( AnyValue( row, subject.at() ) == other ) << other.text();
   EXPECT_EQ( subject.op( GenericOperation::read, row ), then );
   row.write( subject.at(), AnyValue( other ).at() );
   EXPECT_EQ( subject.announced(), Lines{} ) << "an equal value";
}

/// What goes into a collection as its `n`th member: the argument that carries the key (the key, the
/// value that holds it, or the member itself) and those behind it.
struct Entry {
   Entry( const AttributeRow & row, unsigned n, unsigned otherwise = 0 )
      : key( specimen( *row.keyType, n ) ),
        carrier( row.has( Zek::refersToMembers ) || row.has( Zek::keyIsField ) ||
                       row.id == Zek::entityAttr
                    ? specimen( *row.type, n )
                    : key ) {
      if( row.has( Zek::ownsMembers ) ) {
         auto parameters = row.type->constructorParameters;
         for( size_t i = 1; i < parameters.size(); ++i ) {
            further.push_back( specimen( *parameters[i].type, n + otherwise ) );
         }
      } else if( !row.has( Zek::isSet ) ) {
         further.push_back( specimen( *row.type, n + otherwise ) );
      }
      const bool isCarried =
         row.has( Zek::refersToMembers ) || row.has( Zek::keyIsField ) || row.id == Zek::entityAttr;
      arguments.push_back( generic( isCarried ? *row.type : *row.keyType, carrier ) );
      if( isCarried ) return;
      for( size_t i = 0; i < further.size(); ++i ) {
         const bool owned = row.has( Zek::ownsMembers );
         arguments.push_back( generic(
            owned ? *row.type->constructorParameters[i + 1].type : *row.type, further[i] ) );
      }
   }
   GenericValue putInto( const AttributeRow & row, Subject & subject ) const {
      return subject.op( GenericOperation::add, row, arguments );
   }
   std::vector< GenericValue > keyed( const AttributeRow & row ) const {
      return { generic( *row.keyType, key ) };
   }

   AnyValue key;
   AnyValue carrier;
   std::vector< AnyValue > further;
   std::vector< GenericValue > arguments; // of `add`
};

void
EveryRecord::sweepCollection( Subject & subject, const AttributeRow & row ) {
   const Zek::CollectionOps & ops = *row.collection;
   const Entry one( row, 1 ), two( row, 2 ), three( row, 3 );
   auto line = [&]( const Entry & entry ) {
      return std::to_string( row.id ) + " " + entry.key.text();
   };

   for( auto operation : { GenericOperation::read, GenericOperation::write,
                           GenericOperation::increment, GenericOperation::call } ) {
      EXPECT_TRUE( subject.refuses( operation, row, {} ) );
   }
   EXPECT_TRUE( subject.refuses( GenericOperation::add, row ) );
   EXPECT_TRUE( subject.refuses( GenericOperation::remove, row, { GenericValue() } ) );
   subject.op( GenericOperation::removeAll, row ); // some start with members
   subject.announced();
   EXPECT_EQ( ops.count( subject.at() ), 0u );
   EXPECT_EQ( ops.first( subject.at() ), nullptr );
   EXPECT_FALSE( subject.type().genericIfIterator( subject.record(), row.id ) );
   EXPECT_TRUE( subject.op( GenericOperation::remove, row, one.keyed( row ) ).isNothing() );
   EXPECT_EQ( subject.announced(), Lines{} ) << "removing an absent member";
   subject.op( GenericOperation::notify, row, one.keyed( row ) );
   EXPECT_EQ( subject.announced(), once( line( one ) ) ) << "announcing an absent member";

   for( const Entry * entry : { &two, &one, &three } ) {
      entry->putInto( row, subject );
      EXPECT_EQ( subject.announced(), once( line( *entry ) ) ) << "adding";
      entry->putInto( row, subject );
      EXPECT_EQ( subject.announced(), Lines{} ) << "adding it again";
   }
   EXPECT_EQ( ops.count( subject.at() ), 3u );
   EXPECT_EQ( subject.op( GenericOperation::count, row ), GenericValue( uint64_t( 3 ) ) );
   EXPECT_EQ( subject.op( GenericOperation::has, row, one.keyed( row ) ), GenericValue( true ) );
   const Zek::PtrInterface * member = ops.find( subject.at(), one.key.at() );
   ASSERT_NE( member, nullptr );
   Zek::withMemberKey( row, member, [&]( const void * key ) {
      EXPECT_TRUE( AnyValue( *row.keyType->values, key ) == one.key );
   } );
   // A name is not the key: walks go by the key of a member that was renamed.
   auto named =
      const_cast< Zek::NamedEntity * >( dynamic_cast< const Zek::NamedEntity * >( member ) );
   const Zek::Name usual = named ? named->name() : Zek::Name();
   if( named ) {
      named->nameIsFromBackup( "restored" );
      EXPECT_EQ( ops.find( subject.at(), one.key.at() ), member );
   }
   // In order and complete; from a key that is no longer there as well.
   Lines order;
   for( auto at = subject.type().genericIfIterator( subject.record(), row.id );
        at && order.size() < 4; ++at ) {
      order.push_back( at.key().text() );
      EXPECT_EQ( subject.op( GenericOperation::wrap, row, { at.key() } ), at.value() );
   }
   EXPECT_EQ( order.size(), 3u );
   if( named ) named->nameIsFromBackup( usual );
   auto from = subject.type().genericIfIteratorKey( subject.record(), row.id, one.keyed( row )[0] );
   ASSERT_TRUE( from );
   EXPECT_EQ( from.key(), one.keyed( row )[0] );
   if( row.has( Zek::isOrdered ) ) {
      EXPECT_EQ( order, ( Lines{ one.key.text(), two.key.text(), three.key.text() } ) );
      ops.del( subject.at(), two.key.at() );
      EXPECT_EQ( ops.after( subject.at(), two.key.at() ),
                 ops.find( subject.at(), three.key.at() ) );
      two.putInto( row, subject );
      EXPECT_EQ( subject.announced().size(), type().hasNotifier ? 2u : 0u );
   }

   // Another member or value under the same key.
   const Entry changed( row, 1, 1 );
   if( row.has( Zek::refersToMembers ) || row.id == Zek::entityAttr ) {
      changed.putInto( row, subject );
      EXPECT_EQ( subject.announced(), once( line( one ) ) ) << "another object of the same key";
      EXPECT_EQ(
         ops.find( subject.at(), one.key.at() ),
         static_cast< const Zek::Ptr< Zek::PtrInterface > * >( changed.carrier.at() )->ptr() );
      Zek::Ptr< Zek::PtrInterface > null;
      EXPECT_EQ( refusal< Zek::RangeException >( [&] { ops.is( subject.at(), &null, nullptr ); } ),
                 std::string( "null _" ) + row.name + " parameter to mutator for " +
                    type().fullName + "::" + row.name + " not allowed\"" );
   } else if( row.has( Zek::ownsMembers ) ) {
      auto owned = dynamic_cast< const Zek::Entity * >( member );
      ASSERT_NE( owned, nullptr );
      EXPECT_EQ( static_cast< const Zek::PtrInterface * >( owned->parent() ), &subject.record() );
      EXPECT_EQ( owned->parentAttrName(), row.name );
      EXPECT_EQ( owned->parentAttrId(), row.id );
      if( !one.further.empty() ) {
         EXPECT_THROW( changed.putInto( row, subject ), Zek::NameInUseException );
      }
      EXPECT_EQ( ops.find( subject.at(), one.key.at() ), member );
   } else if( ops.hasMemberValue() && !row.has( Zek::keyIsField ) ) {
      changed.putInto( row, subject );
      EXPECT_EQ( subject.announced(), once( line( one ) ) ) << "another value";
      member = ops.find( subject.at(), one.key.at() );
      EXPECT_TRUE( AnyValue( *row.type->values, ops.memberValue( member ) ) == changed.further[0] );
   }
   EXPECT_EQ( subject.announced(), Lines{} );
   EXPECT_EQ( ops.count( subject.at() ), 3u );

   const GenericValue held = subject.op( GenericOperation::wrap, row, one.keyed( row ) );
   EXPECT_EQ( subject.op( GenericOperation::remove, row, one.keyed( row ) ), held );
   EXPECT_EQ( subject.announced(), once( line( one ) ) );
   EXPECT_EQ( ops.find( subject.at(), one.key.at() ), nullptr );
   subject.op( GenericOperation::removeAll, row );
   Lines removed = subject.announced();
   std::sort( removed.begin(), removed.end() );
   EXPECT_EQ( removed, type().hasNotifier ? ( Lines{ line( two ), line( three ) } ) : Lines{} );
   EXPECT_EQ( ops.count( subject.at() ), 0u );
   // Whoever hears it first may change what the key was taken from.
   if( type().hasNotifier ) {
      Story first( subject.record() ), later( subject.record() );
      const std::string start = std::string( row.name ) + "[" + one.key.text() + "]";
      const AnyValue key( one.key ), carrier( one.carrier );
      first.reaction = [&] { key.becomes( two.key ), carrier.becomes( two.carrier ); };
      ops.notify( subject.at(), key.at() );
      EXPECT_EQ( later.told().substr( 0, start.size() ), start );
      std::vector< const void * > further;
      for( const AnyValue & argument : one.further ) further.push_back( argument.at() );
      carrier.becomes( one.carrier );
      ops.is( subject.at(), carrier.at(), further.data() );
      EXPECT_EQ( later.told().substr( 0, start.size() ), start );
      key.becomes( one.key );
      ops.del( subject.at(), key.at() );
      EXPECT_EQ( later.told().substr( 0, start.size() ), start );
      subject.announced();
   }
   // Left in, so that destruction of a record with members is swept too.
   one.putInto( row, subject );
   subject.announced();
   if( row.has( Zek::ownsMembers ) ) {
      auto left = const_cast< Zek::PtrInterface * >( ops.find( subject.at(), one.key.at() ) );
      leftBehind_.push_back( Zek::ptrCast< Zek::Entity >( Zek::Ptr( left ) ) );
   }
}

// -- The sweep --------------------------------------------------------------------------------

TEST_P( EveryType, NumbersItsAttributesInOneRun ) {
   const bool onItsOwn = !type().base || !type().base->isRecord;
   unsigned next = type().kind == TypeKind::stateMachine ? 130 : 258;
   for( const AttributeRow & row : type().attributes ) {
      if( onItsOwn ) {
         EXPECT_EQ( row.id, next++ ) << row.name;
      }
      EXPECT_EQ( type().attribute( row.name ), &row );
      EXPECT_EQ( type().attribute( row.id ), &row );
      EXPECT_EQ( type().ownerOf( row ), &type() );
      if( row.kind != AttributeKind::callable ) {
         EXPECT_NE( row.type, nullptr ) << row.name;
      }
   }
   EXPECT_EQ( type().attribute( "" ), nullptr );
   EXPECT_EQ( type().attribute( 6 ), nullptr );
   EXPECT_EQ( Zek::typeNode( type().fullName ), &type() );
   if( !type().isEntity() ) return;
   ASSERT_TRUE( type().isA( Zek::Entity::zekTypeDescriptor_ ) );
   unsigned number = 0;
   for( const char * name : { "name", "fullName", "parent", "parentAttrName", "entity" } ) {
      ASSERT_NE( type().attribute( name ), nullptr ) << name;
      EXPECT_EQ( type().attribute( name )->id, ++number );
      EXPECT_EQ( type().ownerOf( *type().attribute( name ) ), &Zek::Entity::zekTypeDescriptor_ );
   }
}

TEST_P( EveryType, LetsWriteOnlyWhatHasAMutator ) {
   for( const AttributeRow & row : type().attributes ) {
      SCOPED_TRACE( row.name );
      const bool mayBeWritten =
         row.kind == AttributeKind::plain || row.kind == AttributeKind::pointer;
      if( !mayBeWritten ) {
         EXPECT_FALSE( row.isWritable() );
      }
      EXPECT_EQ( row.collection != nullptr,
                 row.kind == AttributeKind::collection && type().isCounted() );
      EXPECT_EQ( row.isStored() || row.isComputed(),
                 row.kind != AttributeKind::callable && !row.collection );
   }
}

TEST_P( EveryRecord, AnnouncesEachChangeOnceAndNoOther ) {
   const auto liveBefore = liveObjects();
   {
      Subject subject( type() );
      EXPECT_EQ( subject.record().fwkType(), &type() );
      EXPECT_EQ( &subject.record().zekAllocTrackTypeInfo(), type().allocations );
      EXPECT_EQ( std::string( type().allocations->name() ), type().fullName );
      for( auto part = &type(); part && part->isRecord; part = part->base ) {
         for( const AttributeRow & row : part->attributes ) {
            SCOPED_TRACE( row.name );
            if( row.collection ) {
               sweepCollection( subject, row );
            } else if( row.kind == AttributeKind::plain || row.kind == AttributeKind::pointer ) {
               sweepPlain( subject, row );
            } else {
               EXPECT_TRUE( subject.refuses( GenericOperation::write, row, { true } ) );
               EXPECT_TRUE( subject.refuses( GenericOperation::count, row ) );
               if( row.kind == AttributeKind::callable ) {
                  EXPECT_TRUE( row.isCallable() );
               } else if( !row.has( Zek::abortsOnRead ) ) {
                  EXPECT_EQ( subject.op( GenericOperation::read, row ),
                             generic( *row.type, AnyValue( row, subject.at() ) ) );
               }
            }
         }
      }
      if( type().isEntity() ) sweepCollection( subject, *type().attribute( Zek::entityAttr ) );
   }
   for( auto & member : leftBehind_ ) {
      EXPECT_EQ( member->parent(), nullptr ) << member->fwkType()->fullName;
   }
   leftBehind_.clear();
   EXPECT_EQ( liveObjects(), liveBefore );
}

TEST_P( EveryValue, ReadsBackTheTextsOfItsValues ) {
   const bool readable = hasPlainFieldsOnly();
   for( unsigned n = 0; n < 4; ++n ) {
      const AnyValue value = specimen( type(), n );
      AnyValue back( *type().values );
      EXPECT_EQ( type().values->read( value.text(), back.at() ), readable ) << value.text();
      EXPECT_EQ( back == value, readable ) << value.text();
      if( type().values->isHashed() ) {
         EXPECT_EQ( type().values->hash( AnyValue( value ).at() ),
                    type().values->hash( value.at() ) );
      }
      EXPECT_FALSE( type().values->read( value.text() + " ", back.at() ) );
   }
}

TEST_P( EveryValue, DiffersWhenOneFieldDoes ) {
   // Deliberate: what walks a record compares by its place alone.
   if( type().fullName == std::string_view( "IpGen::McaddrIteratorConst" ) ) return;
   const AnyValue value = specimen( type(), 1 );
   for( const AttributeRow & row : type().attributes ) {
      if( !row.isStored() || row.has( Zek::isSet ) ) continue;
      const AnyValue other( value );
      fillSpecimen( *row.type, const_cast< void * >( row.address( other.at() ) ), 2 );
      EXPECT_FALSE( other == value ) << row.name;
      EXPECT_NE( other.text(), value.text() ) << row.name;
      if( type().values->isHashed() ) {
         EXPECT_NE( type().values->hash( other.at() ), type().values->hash( value.at() ) )
            << row.name;
      }
      if( type().values->isOrdered() ) {
         EXPECT_NE( type().values->less( other.at(), value.at() ),
                    type().values->less( value.at(), other.at() ) )
            << row.name;
      }
   }
}

INSTANTIATE_TEST_SUITE_P( Records, EveryType,
                          testing::ValuesIn( recordsThat( []( auto & ) { return true; } ) ),
                          nameOf );
bool
isSweptRecord( const TypeDescriptor & type ) {
   // A machine's inputs are records that stand already.
   return type.isMade() && type.kind != TypeKind::stateMachine;
}

bool
isSweptValue( const TypeDescriptor & type ) {
   return !type.isCounted();
}

INSTANTIATE_TEST_SUITE_P( Records, EveryRecord, testing::ValuesIn( recordsThat( &isSweptRecord ) ),
                          nameOf );
INSTANTIATE_TEST_SUITE_P( Records, EveryValue, testing::ValuesIn( recordsThat( &isSweptValue ) ),
                          nameOf );
INSTANTIATE_TEST_SUITE_P( Twins, EveryRecord, testing::ValuesIn( twinsThat( &isSweptRecord ) ),
                          nameOf );
INSTANTIATE_TEST_SUITE_P( Twins, EveryValue, testing::ValuesIn( twinsThat( &isSweptValue ) ),
                          nameOf );

} // namespace
