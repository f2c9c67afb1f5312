#include "tools/ipstate-nats/Mirror.h"

#include "tools/ipstate-nats/Publisher.h"

#include "framework/EntityUriPath.h"
#include "framework/Exception.h"

#include <algorithm>
#include <fnmatch.h>
#include <functional>
#include <utility>

namespace IpstateNats {

namespace {

using Operation = Zek::GenericOperation;

uint64_t
hashOf( std::string_view text ) {
   return std::hash< std::string_view >()( text );
}

bool
matches( const std::vector< std::string > & patterns, const char * text ) {
   return patterns.empty() ||
          std::any_of( patterns.begin(), patterns.end(), [text]( const std::string & pattern ) {
             return fnmatch( pattern.c_str(), text, 0 ) == 0;
          } );
}

const Json &
part( const Json & json, const char * name ) {
   static const Json nothing;
   const auto at = json.find( name );
   return at == json.end() ? nothing : *at;
}

uint32_t
instanceOf( const Json & record ) {
   const Json & instance = part( record, "instance" );
   return instance.is_number_unsigned() ? instance.get< uint32_t >() : 0;
}

double
secondsSince1970() {
   return std::chrono::duration< double >( std::chrono::system_clock::now().time_since_epoch() )
      .count();
}

Zek::GenericValue
operate( Zek::Entity & record, Operation operation, const Zek::AttributeRow & row,
         std::initializer_list< Zek::GenericValue > arguments = {} ) {
   return record.fwkType()->genericIf->genericIfAttributeOp( record, operation, row.id, arguments );
}

/// The key of the member that the token names; nothing where there is none.
Zek::GenericValue
keyOfToken( const Zek::Entity & record, const Zek::AttributeRow & row, std::string_view token ) {
   std::string text;
   Zek::GenericValue key = Zek::GenericValue::zero( *row.keyType );
   if( !nameOf( token, text ) ) Zek::throwRangeException( "a key that is none" );
   if( row.keyType->values->read( text, key.address() ) ) return key;
   // Of some types the text says all, and cannot be read.
   const Zek::PtrInterface * member = row.collection->first( &record );
   while( member ) {
      Zek::withMemberKey( row, member,
                          [&]( const void * k ) { key = Zek::GenericValue( *row.keyType, k ); } );
      if( tokenOfKey( row, key.address() ) == token ) return key;
      member = row.collection->after( &record, key.address() );
   }
   return {};
}

const Zek::AttributeRow &
collectionOf( const Zek::Entity & record ) {
   return *record.parent()->fwkType()->attribute( record.parentAttrId() );
}

} // namespace

Mirror::Mirror( const Zek::Entity::Ptr & root, Bucket & bucket, MirrorOptions options )
   : root_( root ),
     bucket_( bucket ),
     options_( std::move( options ) ) {
   fleet_ = root->entityIs( "Zek::Dir", Zek::Name( "fleet" ) );
   status_ = Fleet::statusFactory( Zek::Name( "devices" ) );
   root->entityIs( status_ );
}

Mirror::~Mirror() = default;

// -- Devices ----------------------------------------------------------------------------------

Mirror::Device *
Mirror::deviceOf( std::string_view token, bool make ) {
   const auto at = devices_.find( token );
   if( at != devices_.end() ) return at->second.get();
   std::string name;
   if( !make || !nameOf( token, name ) || name.empty() ||
       !matches( options_.devices, name.c_str() ) ) {
      return nullptr;
   }
   if( devices_.size() >= options_.mostDevices ) {
      refused( std::string( token ), "too many devices: expected " +
                                        std::to_string( options_.mostDevices ) + " or fewer" );
      return nullptr;
   }
   auto device = std::make_unique< Device >();
   device->token = token;
   device->directory = fleet_->entityIs( "Zek::Dir", Zek::Name( name ) );
   device->status = status_->deviceIs( Zek::String( name ) );
   device->heard = Clock::now();
   return devices_.emplace( std::string( token ), std::move( device ) ).first->second.get();
}

void
Mirror::lease( Device & device, const BucketEvent & event ) {
   if( event.kind == BucketEvent::Kind::removal ) return;
   device.status->lastHeardIs( event.time );
   const Json json = Json::parse( event.text, nullptr, false );
   const Json & interval = json.is_object() ? part( json, "interval" ) : json;
   if( interval.is_number() ) {
      device.interval =
         std::chrono::duration< double >( std::clamp( interval.get< double >(), 0.01, 86400.0 ) );
   }
   const auto allowed = device.interval * options_.missedLeases;
   // One that was there when we came may be old: by the server's own clock, which a later lease
   // corrects should it have jumped.
   const double age = std::max( 0.0, newest_ - event.time );
   device.heard = Clock::now();
   if( isReading_ && age > allowed.count() ) {
      device.heard -= std::chrono::duration_cast< Clock::duration >(
         std::chrono::duration< double >( std::min( age, 1e6 ) ) );
   } else {
      device.status->staleIs( false );
      device.status->staleSinceIs( 0 );
   }
   checkAt_ = {};
}

Mirror::Clock::time_point
Mirror::timePassed( Clock::time_point now ) {
   if( now < checkAt_ ) return checkAt_;
   checkAt_ = now + std::chrono::seconds( 60 );
   // While the bucket cannot be heard, nobody's lease can.
   if( !isSynchronised() ) return checkAt_;
   std::vector< Device * > old;
   for( auto & [token, device] : devices_ ) {
      const auto allowed =
         std::chrono::duration_cast< Clock::duration >( device->interval * options_.missedLeases );
      const Clock::time_point due = device->heard + allowed;
      if( now < due ) {
         checkAt_ = std::min( checkAt_, due );
         continue;
      }
      if( !device->status->stale() ) {
         device->status->staleSinceIs( secondsSince1970() );
         device->status->staleIs( true );
      }
      if( now >= due + options_.forget ) {
         old.push_back( device.get() );
      } else {
         checkAt_ = std::min( checkAt_, due + options_.forget );
      }
   }
   for( Device * device : old ) {
      forgotten_.push_back( device->token );
      forget( *device );
   }
   return checkAt_;
}

std::vector< std::string >
Mirror::forgotten() {
   return std::exchange( forgotten_, {} );
}

void
Mirror::forget( Device & device ) {
   const std::string token = device.token;
   for( const auto & [key, value] : device.waiting ) waitingBytes_ -= key.size() + value.size();
   std::string name;
   nameOf( token, name );
   guarded( token, [&] { fleet_->entityDel( Zek::String( name ) ); } );
   guarded( token, [&] { status_->deviceDel( Zek::String( name ) ); } );
   devices_.erase( token );
}

void
Mirror::tellWaiting( Device & device ) {
   device.status->waitingIs(
      static_cast< uint32_t >( device.waiting.size() + device.links.size() ) );
}

// -- What the bucket says ---------------------------------------------------------------------

void
Mirror::onReadable() {
   for( const BucketEvent & event : bucket_.take() ) {
      switch( event.kind ) {
      case BucketEvent::Kind::online:
         online_ = true;
         // Nobody could be heard meanwhile: each has its time again.
         for( auto & [token, device] : devices_ ) {
            if( !device->status->stale() ) device->heard = Clock::now();
         }
         checkAt_ = {};
         break;
      case BucketEvent::Kind::offline:
         online_ = false;
         fault_ = event.text;
         break;
      case BucketEvent::Kind::begin:
         beginWhole();
         break;
      case BucketEvent::Kind::end:
         endWhole();
         break;
      case BucketEvent::Kind::entry:
      case BucketEvent::Kind::removal:
         entry( event );
         break;
      case BucketEvent::Kind::stored:
      case BucketEvent::Kind::refused:
         break;
      }
   }
}

void
Mirror::entry( const BucketEvent & event ) {
   newest_ = std::max( newest_, event.time );
   const size_t dot = event.key.find( '.' );
   if( dot == std::string::npos ) return; // none of a device's
   const std::string_view token = std::string_view( event.key ).substr( 0, dot );
   const bool isThere = event.kind == BucketEvent::Kind::entry;
   Device * device = deviceOf( token, isThere );
   if( !device ) return;
   const std::string key = event.key.substr( dot + 1 );
   if( isReading_ && isThere ) mentioned_.insert( hashOf( event.key ) );
   if( key == leaseToken ) {
      lease( *device, event );
      return;
   }
   ++applied_;
   static const std::string infix = std::string( "." ) + memberToken + ".";
   const size_t mark = key.find( infix );
   guarded( event.key, [&] {
      if( mark != std::string::npos ) {
         member( *device, key, mark, isThere ? &event.text : nullptr );
      } else if( isThere ) {
         record( *device, key, event.text );
      } else {
         gone( *device, key );
      }
   } );
   tellWaiting( *device );
}

void
Mirror::beginWhole() {
   isReading_ = true;
   isWhole_ = false;
   mentioned_.clear();
   for( auto & [token, device] : devices_ ) {
      for( const auto & [key, value] : device->waiting ) {
         waitingBytes_ -= key.size() + value.size();
      }
      device->waiting.clear();
      device->waitingFor.clear();
   }
}

/// What was not mentioned is gone.
void
Mirror::endWhole() {
   std::vector< Device * > unmentioned;
   for( auto & [token, device] : devices_ ) {
      sweep( *device, *device->directory, token );
      const bool isEmpty = device->directory->entityCount() == 0 && device->waiting.empty();
      if( isEmpty && !mentioned_.contains( hashOf( token + "." + leaseToken ) ) ) {
         unmentioned.push_back( device.get() );
      }
      tellWaiting( *device );
   }
   for( Device * device : unmentioned ) forget( *device );
   mentioned_ = {};
   isReading_ = false;
   isWhole_ = true;
   checkAt_ = {};
}

void
Mirror::sweep( Device & device, Zek::Entity & record, const std::string & key ) {
   const Shape * shape = shapeOf( *record.fwkType() );
   if( !shape ) return;
   // Members that stand apart.
   for( const Zek::AttributeRow * row : shape->collections ) {
      if( !device.apart.contains( { &record, row->id } ) ) continue;
      const Zek::PtrInterface * at = row->collection->first( &record );
      while( at ) {
         Zek::GenericValue memberKey;
         Zek::withMemberKey( *row, at, [&]( const void * k ) {
            memberKey = Zek::GenericValue( *row->keyType, k );
         } );
         at = row->collection->after( &record, memberKey.address() );
         const std::string name = key + "." + memberToken + "." + row->name + "." +
                                  tokenOfKey( *row, memberKey.address() );
         if( mentioned_.contains( hashOf( name ) ) ) continue;
         guarded( name, [&] { operate( record, Operation::remove, *row, { memberKey } ); } );
      }
   }
   std::vector< Zek::Entity::Ptr > members;
   for( const Zek::AttributeRow * row : shape->owning ) {
      for( auto i = shape->type->genericIf->genericIfIterator( record, row->id ); i; ++i ) {
         const Zek::GenericValue value = i.value();
         if( auto * entity = dynamic_cast< const Zek::Entity * >( value.object() ) ) {
            members.emplace_back( const_cast< Zek::Entity * >( entity ) );
         }
      }
   }
   for( const Zek::Entity::Ptr & each : members ) {
      const std::string below = keyOf( *each, *device.directory );
      const std::string name = device.token + "." + below;
      if( mentioned_.contains( hashOf( name ) ) ) {
         sweep( device, *each, name );
      } else {
         guarded( name, [&] { remove( device, below, *each ); } );
      }
   }
}

// -- Records ----------------------------------------------------------------------------------

void
Mirror::record( Device & device, const std::string & key, const std::string & value ) {
   stopWaiting( device, key );
   const Json json = parsed( value );
   const Json & name = part( json, "type" );
   const Zek::TypeDescriptor * type =
      name.is_string() ? Zek::typeNode( name.get_ref< const std::string & >() ) : nullptr;
   const Shape * shape = type ? shapeOf( *type ) : nullptr;
   if( !shape ) {
      Zek::throwRangeException( "type " + name.dump().substr( 0, 80 ) + " is not known here" );
   }
   Place place = placeOf( *device.directory, key );
   if( Zek::Entity * known = place.record() ) {
      if( known == device.directory.ptr() ) Zek::throwRangeException( "a key that names nothing" );
      if( isSame( device, key, *known, *shape, json ) ) {
         content( device, key, *known, *shape, json );
         return;
      }
      remove( device, key, *known );
      place = placeOf( *device.directory, key );
   }
   // One that is not taken and has none below it.
   if( !takes( *type ) && type != &Zek::Dir::zekTypeDescriptor_ && shape->owning.size() < 2 ) {
      return;
   }
   if( !place.isVacant() ) {
      wait( device, key, value );
      return;
   }
   if( !make( device, place, key, *type, json, value ) ) return;
   Zek::Entity * made = placeOf( *device.directory, key ).record();
   // A reaction may have taken it away again.
   if( made ) content( device, key, *made, *shape, json );
   came( device, key );
}

/// Whether the record is the one that the value means; content aside.
bool
Mirror::isSame( Device & device, const std::string & key, Zek::Entity & record, const Shape & shape,
                const Json & json ) {
   if( record.fwkType() != shape.type ) return false;
   const auto instance = device.instances.find( key );
   if( instanceOf( json ) != ( instance == device.instances.end() ? 0 : instance->second ) ) {
      return false;
   }
   const Json & arguments = part( json, "args" );
   for( const Zek::AttributeRow * row : shape.arguments ) {
      if( row->isWritable() ) continue; // content
      const Json & argument = part( arguments, row->name );
      const Zek::GenericValue now = operate( record, Operation::read, *row );
      if( row->type->isCounted() ) {
         const Zek::Entity * wanted =
            argument.is_string()
               ? target( device, referenceFromText( argument.get_ref< const std::string & >() ) )
               : nullptr;
         if( argument.is_object() ? !standsOutside( device, now.object() )
                                  : now.object() != wanted ) {
            return false;
         }
      } else if( !( now == valueFromJson( *row->type, argument ) ) ) {
         return false;
      }
   }
   return true;
}

/// False when it must wait for an argument.
bool
Mirror::make( Device & device, const Place & place, const std::string & key,
              const Zek::TypeDescriptor & type, const Json & json, const std::string & value ) {
   std::vector< Zek::GenericValue > arguments;
   if( !type.constructorParameters.empty() ) {
      const Zek::TypeDescriptor & first = *type.constructorParameters[0].type;
      if( &first == &Zek::TypeOf< Zek::Name >::descriptor && place.key.is< Zek::String >() ) {
         arguments.emplace_back( Zek::Name( place.key.as< Zek::String >() ) );
      } else {
         arguments.push_back( place.key );
      }
   }
   const Json & given = part( json, "args" );
   for( const Zek::AttributeRow * row : shapeOf( type )->arguments ) {
      const Json & argument = part( given, row->name );
      if( !row->type->isCounted() ) {
         arguments.push_back( valueFromJson( *row->type, argument ) );
         continue;
      }
      Zek::Entity * object = nullptr;
      if( argument.is_string() ) {
         const Reference reference = referenceFromText( argument.get_ref< const std::string & >() );
         object = target( device, reference );
         if( !object ) {
            wait( device, key, value );
            device.waitingFor.emplace( reference.key, key );
            return false;
         }
      }
      arguments.emplace_back( static_cast< Zek::PtrInterface * >( object ), row->type );
   }
   const uint32_t instance = instanceOf( json );
   if( instance ) device.instances[key] = instance;
   const Zek::AttributeRow & row = *place.collection;
   if( row.id == Zek::entityAttr ) {
      operate( *place.nearest, Operation::add, row,
               { type.genericIf->genericIfFromCtorArgs( arguments ) } );
   } else if( row.type != &type ) {
      Zek::throwRangeException( std::string( type.fullName ) + " where " + row.type->fullName +
                                " was expected" );
   } else {
      place.nearest->fwkType()->genericIf->genericIfAttributeOp( *place.nearest, Operation::add,
                                                                 row.id, arguments );
   }
   return true;
}

void
Mirror::content( Device & device, const std::string & key, Zek::Entity & record,
                 const Shape & shape, const Json & json ) {
   // Callbacks may take it out of the tree meanwhile.
   const Zek::Entity::Ptr holds( &record );
   const bool isTaken = takes( *shape.type );
   const Json & attributes = part( json, "attrs" );
   for( const Zek::AttributeRow * row : shape.plain ) {
      const auto at = attributes.find( row->name );
      if( at == attributes.end() || !isTaken || !takes( *row ) ) continue;
      guarded( key + "." + row->name, [&] {
         if( row->type->isCounted() ) {
            pointer( device, key, record, *row, *at );
         } else {
            operate( record, Operation::write, *row, { valueFromJson( *row->type, *at ) } );
         }
      } );
   }
   const Json & apart = part( json, "apart" );
   const Json & members = part( json, "members" );
   for( const Zek::AttributeRow * row : shape.collections ) {
      if( !isTaken || !takes( *row ) ) continue;
      const bool isApart = std::any_of( apart.begin(), apart.end(),
                                        [row]( const Json & each ) { return each == row->name; } );
      if( isApart ) {
         if( device.apart.insert( { &record, row->id } ).second ) {
            // Members that came before it did wait.
            came( device, key + "." + memberToken + "." + row->name );
         }
         continue;
      }
      device.apart.erase( { &record, row->id } );
      guarded( key + "." + row->name,
               [&] { collection( device, key, record, *row, part( members, row->name ) ); } );
   }
}

void
Mirror::collection( Device & device, const std::string & key, Zek::Entity & record,
                    const Zek::AttributeRow & row, const Json & list ) {
   unlink( device, key, row );
   std::set< std::string > wanted;
   for( const Json & pair : list ) {
      if( !pair.is_array() || pair.empty() ) Zek::throwRangeException( "expected pairs" );
      const Zek::GenericValue memberKey = valueFromJson( *row.keyType, pair[0] );
      wanted.insert( tokenOfKey( row, memberKey.address() ) );
   }
   const Zek::PtrInterface * at = row.collection->first( &record );
   while( at ) {
      Zek::GenericValue memberKey;
      Zek::withMemberKey(
         row, at, [&]( const void * k ) { memberKey = Zek::GenericValue( *row.keyType, k ); } );
      if( !wanted.contains( tokenOfKey( row, memberKey.address() ) ) ) {
         operate( record, Operation::remove, row, { memberKey } );
      }
      at = row.collection->after( &record, memberKey.address() );
   }
   for( const Json & pair : list ) {
      guarded( key + "." + row.name, [&] {
         memberIs( device, key, record, row, pair[0], pair.size() > 1 ? &pair[1] : nullptr );
      } );
   }
}

/// A member of a collection is there, with what it holds.
void
Mirror::memberIs( Device & device, const std::string & key, Zek::Entity & record,
                  const Zek::AttributeRow & row, const Json & memberKey, const Json * held ) {
   if( row.has( Zek::isSet ) ) {
      operate( record, Operation::add, row, { valueFromJson( *row.keyType, memberKey ) } );
      return;
   }
   if( !held ) Zek::throwRangeException( "a member without a value" );
   if( row.has( Zek::refersToMembers ) ) {
      // {}: what the device has there stands in no tree, and so may ours.
      if( !held->is_string() ) return;
      Link wanted{ row.id, referenceFromText( held->get_ref< const std::string & >() ), memberKey };
      if( Zek::Entity * object = target( device, wanted.target ) ) {
         operate( record, Operation::add, row,
                  { Zek::GenericValue( static_cast< Zek::PtrInterface * >( object ), row.type ) } );
      } else {
         link( device, key, std::move( wanted ) );
      }
   } else if( row.has( Zek::keyIsField ) ) {
      operate( record, Operation::add, row, { valueFromJson( *row.type, *held ) } );
   } else {
      operate( record, Operation::add, row,
               { valueFromJson( *row.keyType, memberKey ), valueFromJson( *row.type, *held ) } );
   }
}

/// A key of a member that stands apart from its record; `mark`: where what names it begins. Null:
/// it is gone.
void
Mirror::member( Device & device, const std::string & key, size_t mark, const std::string * value ) {
   stopWaiting( device, key );
   const std::string recordKey = key.substr( 0, mark );
   const Place place = placeOf( *device.directory, recordKey );
   Zek::Entity * record = place.record();
   const std::string_view name = std::string_view( key ).substr( mark + sizeof memberToken + 1 );
   const Shape * shape = record ? shapeOf( *record->fwkType() ) : nullptr;
   const Zek::AttributeRow * row =
      shape ? shape->collection( name.substr( 0, name.find( '.' ) ) ) : nullptr;
   const bool isApart = row && device.apart.contains( { record, row->id } );
   if( !isApart ) {
      // Where the record lists its members, what was said of them one by one is over.
      if( !record && value ) wait( device, key, *value );
      return;
   }
   if( value ) {
      const Json json = parsed( *value );
      const Json & held = part( json, "value" );
      memberIs( device, recordKey, *record, *row, part( json, "key" ),
                json.contains( "value" ) ? &held : nullptr );
      return;
   }
   const size_t dot = name.find( '.' );
   const std::string_view token =
      dot == std::string_view::npos ? std::string_view() : name.substr( dot + 1 );
   const Zek::GenericValue memberKey = keyOfToken( *record, *row, token );
   if( !memberKey.isNothing() ) operate( *record, Operation::remove, *row, { memberKey } );
}

void
Mirror::gone( Device & device, const std::string & key ) {
   stopWaiting( device, key );
   Zek::Entity * record = placeOf( *device.directory, key ).record();
   if( record && record != device.directory.ptr() ) remove( device, key, *record );
}

void
Mirror::remove( Device & device, const std::string & key, Zek::Entity & record ) {
   const Zek::Entity::Ptr holds( &record );
   forgetBelow( device, key, record );
   Zek::Entity & parent = *record.parent();
   const Zek::AttributeRow & row = collectionOf( record );
   Zek::GenericValue memberKey;
   Zek::withMemberKey(
      row, &record, [&]( const void * k ) { memberKey = Zek::GenericValue( *row.keyType, k ); } );
   operate( parent, Operation::remove, row, { memberKey } );
}

void
Mirror::forgetBelow( Device & device, const std::string & key, const Zek::Entity & record ) {
   device.links.erase( key );
   device.instances.erase( key );
   const Shape * shape = shapeOf( *record.fwkType() );
   if( !shape ) return;
   for( const Zek::AttributeRow * row : shape->collections ) {
      device.apart.erase( { &record, row->id } );
   }
   for( const Zek::AttributeRow * row : shape->owning ) {
      for( auto i = shape->type->genericIf->genericIfIterator( record, row->id ); i; ++i ) {
         const Zek::GenericValue value = i.value();
         if( auto * entity = dynamic_cast< const Zek::Entity * >( value.object() ) ) {
            forgetBelow( device, keyOf( *entity, *device.directory ), *entity );
         }
      }
   }
}

// -- References -------------------------------------------------------------------------------

/// What is meant, if it is there.
Zek::Entity *
Mirror::target( Device & device, const Reference & reference ) {
   Zek::Entity * found = placeOf( *device.directory, reference.key ).record();
   const auto instance = device.instances.find( reference.key );
   const uint32_t known = instance == device.instances.end() ? 0 : instance->second;
   return known == reference.instance ? found : nullptr;
}

bool
Mirror::standsOutside( Device & device, const Zek::PtrInterface * object ) const {
   auto * entity = dynamic_cast< const Zek::Entity * >( object );
   return entity && keyOf( *entity, *device.directory ).empty();
}

void
Mirror::pointer( Device & device, const std::string & key, Zek::Entity & record,
                 const Zek::AttributeRow & row, const Json & reference ) {
   unlink( device, key, row );
   Zek::Entity * object = nullptr;
   if( reference.is_string() ) {
      Link wanted{ row.id, referenceFromText( reference.get_ref< const std::string & >() ), {} };
      object = target( device, wanted.target );
      if( !object ) link( device, key, std::move( wanted ) );
   } else if( reference.is_object() &&
              standsOutside( device, operate( record, Operation::read, row ).object() ) ) {
      return;
   }
   operate( record, Operation::write, row,
            { Zek::GenericValue( static_cast< Zek::PtrInterface * >( object ), row.type ) } );
}

void
Mirror::link( Device & device, const std::string & key, Link link ) {
   device.linksTo.emplace( link.target.key, key );
   device.links[key].push_back( std::move( link ) );
}

void
Mirror::unlink( Device & device, const std::string & key, const Zek::AttributeRow & row ) {
   const auto at = device.links.find( key );
   if( at == device.links.end() ) return;
   std::erase_if( at->second, [&]( const Link & each ) { return each.row == row.id; } );
   if( at->second.empty() ) device.links.erase( at );
}

/// A record came, or a collection turned out to stand apart: what waits for it goes on.
void
Mirror::came( Device & device, const std::string & key ) {
   // Who refers to it.
   std::vector< std::string > referrers;
   const auto [first, last] = device.linksTo.equal_range( key );
   for( auto at = first; at != last; ++at ) referrers.push_back( at->second );
   device.linksTo.erase( first, last );
   for( const std::string & referrer : referrers ) {
      const auto links = device.links.find( referrer );
      Zek::Entity * record = placeOf( *device.directory, referrer ).record();
      if( links == device.links.end() || !record ) continue;
      std::vector< Link > ready;
      std::erase_if( links->second, [&]( Link & each ) {
         if( each.target.key != key ) return false;
         ready.push_back( each );
         return true;
      } );
      if( links->second.empty() ) device.links.erase( links );
      for( Link & each : ready ) {
         const Zek::AttributeRow & row = *record->fwkType()->attribute( each.row );
         Zek::Entity * object = target( device, each.target );
         if( !object ) {
            link( device, referrer, std::move( each ) );
            continue;
         }
         const Zek::GenericValue value( static_cast< Zek::PtrInterface * >( object ), row.type );
         guarded( referrer + "." + row.name, [&] {
            const bool isMember = row.kind == Zek::AttributeKind::collection;
            operate( *record, isMember ? Operation::add : Operation::write, row, { value } );
         } );
      }
   }
   // Whose argument it is, and what is below it.
   std::vector< std::string > ready;
   const auto [begin, end] = device.waitingFor.equal_range( key );
   for( auto at = begin; at != end; ++at ) ready.push_back( at->second );
   device.waitingFor.erase( begin, end );
   const std::string prefix = key + ".";
   for( auto at = device.waiting.lower_bound( prefix );
        at != device.waiting.end() && at->first.starts_with( prefix ); ++at ) {
      ready.push_back( at->first );
   }
   static const std::string infix = std::string( "." ) + memberToken + ".";
   for( const std::string & each : ready ) {
      const auto at = device.waiting.find( each );
      if( at == device.waiting.end() ) continue; // another has brought it along
      const std::string value = at->second;
      const size_t mark = each.find( infix );
      guarded( each, [&] {
         if( mark == std::string::npos ) {
            record( device, each, value );
         } else {
            member( device, each, mark, &value );
         }
      } );
   }
}

void
Mirror::wait( Device & device, const std::string & key, const std::string & value ) {
   const size_t bytes = key.size() + value.size();
   if( waitingBytes_ + bytes > options_.mostWaitingBytes ) {
      Zek::throwRangeException( "too much waits for what is not there: expected " +
                                std::to_string( options_.mostWaitingBytes ) + " bytes or fewer" );
   }
   if( device.waiting.insert_or_assign( key, value ).second ) waitingBytes_ += bytes;
}

void
Mirror::stopWaiting( Device & device, const std::string & key ) {
   const auto at = device.waiting.find( key );
   if( at == device.waiting.end() ) return;
   waitingBytes_ -= key.size() + at->second.size();
   device.waiting.erase( at );
}

// -- What is taken, and what is refused ---------------------------------------------------------

bool
Mirror::takes( const Zek::AttributeRow & row ) const {
   return matches( options_.attributes, row.name );
}

bool
Mirror::takes( const Zek::TypeDescriptor & type ) const {
   return matches( options_.types, type.fullName );
}

void
Mirror::refused( const std::string & what, const std::string & why ) {
   status_->lastRefusalIs( Zek::String( what.substr( 0, 200 ) + ": " + why ) );
   status_->refusedIs( status_->refused() + 1 );
}

template< class Change >
void
Mirror::guarded( const std::string & what, Change change ) {
   try {
      change();
   } catch( const std::exception & e ) {
      refused( what, e.what() );
   }
}

} // namespace IpstateNats
