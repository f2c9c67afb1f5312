#include "tools/ipstate-nats/Publisher.h"

#include "tools/ipstate-nats/Key.h"

#include "framework/EntityUriPath.h"
#include "framework/Exception.h"
#include "framework/Relay.h"

#include <algorithm>
#include <functional>
#include <random>
#include <utility>

namespace IpstateNats {

namespace {

uint64_t
hashOf( std::string_view text ) {
   return std::hash< std::string_view >()( text );
}

/// Between the key of a record and what names a member that stands apart.
const std::string memberInfix = std::string( "." ) + memberToken + ".";

/// The members that a record's value lists, each as <collection>.<key's token>.
std::vector< std::string >
membersIn( const Json & record ) {
   std::vector< std::string > names;
   const auto members = record.find( "members" );
   const auto name = record.find( "type" );
   if( members == record.end() || !members->is_object() || !name->is_string() ) return names;
   const Zek::TypeDescriptor * type = Zek::typeNode( name->get_ref< const std::string & >() );
   const Shape * shape = type ? shapeOf( *type ) : nullptr;
   if( !shape ) return names;
   for( const auto & [collection, list] : members->items() ) {
      const Zek::AttributeRow * row = shape->collection( collection );
      if( !row || !list.is_array() ) continue;
      for( const Json & pair : list ) {
         if( !pair.is_array() || pair.empty() ) continue;
         try {
            const Zek::GenericValue key = valueFromJson( *row->keyType, pair[0] );
            names.push_back( collection + "." + tokenOfKey( *row, key.address() ) );
         } catch( const Zek::Exception & ) {
            // Not written by us; what is written next replaces it.
         }
      }
   }
   return names;
}

std::string
randomName() {
   std::random_device random;
   return std::to_string( random() ) + std::to_string( random() );
}

} // namespace

/// Watches one record, and by others those that it owns.
class Publisher::Tracker : private Zek::AttributeSink {
 public:
   Tracker( Publisher & publisher, const Zek::Entity & record, const Shape & shape,
            std::string key )
      : publisher_( publisher ),
        record_( &record ),
        shape_( shape ) {
      if( !key.empty() ) {
         item_ = &publisher_.item( key );
         if( item_->hadRecord ) ++item_->instance;
         item_->hadRecord = true;
         item_->record = this;
         publisher_.markDirty( *item_ );
      }
      relay_ = Zek::relayOf( record, *this );
      for( const Zek::AttributeRow * row : shape.owning ) {
         forEach( *row, [&]( const Zek::PtrInterface & member, const void * memberKey ) {
            follow( *row, member, memberKey );
         } );
      }
   }

   ~Tracker() override {
      relay_ = nullptr;
      members_.clear();
      for( Item * apart : apartItems() ) publisher_.release( *apart );
      if( item_ ) publisher_.release( *item_ );
   }

   const Zek::Entity & record() const { return *record_; }
   const Shape & shape() const { return shape_; }

   /// Members of a collection stand apart from their record once there are many, and until there
   /// are less than half as many.
   const std::vector< uint16_t > & apart() {
      for( const Zek::AttributeRow * row : shape_.collections ) {
         const size_t count = row->collection->count( record_.ptr() );
         const auto at = std::find( apart_.begin(), apart_.end(), row->id );
         if( at == apart_.end() && count > publisher_.options_.inRecord ) {
            apart_.push_back( row->id );
            forEach( *row, [&]( const Zek::PtrInterface &, const void * key ) {
               memberDirty( *row, key );
            } );
         } else if( at != apart_.end() && count < publisher_.options_.inRecord / 2 ) {
            apart_.erase( at );
            auto items = std::move( apartItems_[row->id] );
            apartItems_.erase( row->id );
            for( auto & [token, item] : items ) publisher_.release( *item );
         }
      }
      return apart_;
   }

   /// What is below it was lost with the instance that had it, wherever that was read.
   void forgetBelow() {
      for( auto & [name, member] : members_ ) {
         Tracker & below = *member.tracker;
         forget( *below.item_ );
         below.forgetBelow();
      }
      for( Item * apart : apartItems() ) forget( *apart );
   }

   bool isApart( std::string_view collection ) const {
      const Zek::AttributeRow * row = shape_.collection( collection );
      return row && std::find( apart_.begin(), apart_.end(), row->id ) != apart_.end();
   }

   bool has( const Zek::AttributeRow & row, const void * key ) const {
      return row.collection->find( record_.ptr(), key );
   }

 private:
   struct Member {
      const Zek::PtrInterface * object; // compared only
      std::unique_ptr< Tracker > tracker;
   };

   template< class Visit >
   void forEach( const Zek::AttributeRow & row, Visit visit ) {
      const Zek::PtrInterface * member = row.collection->first( record_.ptr() );
      while( member ) {
         Zek::withMemberKey( row, member, [&]( const void * key ) {
            visit( *member, key );
            member = row.collection->after( record_.ptr(), key );
         } );
      }
   }

   void forget( Item & item ) {
      item.mustRewrite = true;
      publisher_.markDirty( item );
   }

   std::vector< Item * > apartItems() {
      std::vector< Item * > items;
      for( auto & [collection, of] : apartItems_ ) {
         for( auto & [token, item] : of ) items.push_back( item );
      }
      return items;
   }

   void onAttribute( const Zek::AttributeRow & ) override {
      if( item_ ) publisher_.markDirty( *item_ );
   }

   void onMember( const Zek::AttributeRow & row, const void * key ) override {
      if( row.id == Zek::entityAttr || ownsRecords( row ) ) {
         follow( row, row.collection->find( record_.ptr(), key ), key );
      } else if( std::find( apart_.begin(), apart_.end(), row.id ) != apart_.end() ) {
         memberDirty( row, key );
         // It may have become small.
         if( row.collection->count( record_.ptr() ) < publisher_.options_.inRecord / 2 ) {
            publisher_.markDirty( *item_ );
         }
      } else if( item_ ) {
         publisher_.markDirty( *item_ );
      }
   }

   void follow( const Zek::AttributeRow & row, const Zek::PtrInterface & member,
                const void * key ) {
      follow( row, &member, key );
   }
   void follow( const Zek::AttributeRow & row, const Zek::PtrInterface * member,
                const void * key ) {
      const std::string name = std::to_string( row.id ) + "/" + tokenOfKey( row, key );
      const auto at = members_.find( name );
      if( at != members_.end() ) {
         if( at->second.object == member ) return;
         members_.erase( at );
      }
      auto * entity = dynamic_cast< const Zek::Entity * >( member );
      const Shape * shape = entity ? shapeOf( *entity->fwkType() ) : nullptr;
      if( !shape ) return;
      const std::string memberKey = keyOf( *entity, *publisher_.root_ );
      if( memberKey.empty() ) return;
      if( publisher_.device_.size() + 1 + memberKey.size() > longestKey ) {
         ++publisher_.refused_;
         publisher_.lastRefusal_ = "a key of " + std::to_string( memberKey.size() ) +
                                   " bytes: expected " + std::to_string( longestKey ) +
                                   " or fewer with the device";
         return;
      }
      Member & made = members_[name];
      made.object = member;
      made.tracker = std::make_unique< Tracker >( publisher_, *entity, *shape, memberKey );
   }

   void memberDirty( const Zek::AttributeRow & row, const void * key ) {
      const std::string token = tokenOfKey( row, key );
      auto & items = apartItems_[row.id];
      auto at = items.find( token );
      if( at == items.end() ) {
         if( !has( row, key ) ) return;
         const std::string memberKey = item_->key + memberInfix + row.name + "." + token;
         Item & item = publisher_.item( memberKey );
         item.record = this;
         item.collection = &row;
         item.member = Zek::GenericValue( *row.keyType, key );
         at = items.emplace( token, &item ).first;
      }
      Item & item = *at->second;
      if( !has( row, key ) ) {
         items.erase( at );
         publisher_.release( item );
      } else {
         publisher_.markDirty( item );
      }
   }

   Publisher & publisher_;
   Zek::Ptr< const Zek::Entity > record_;
   const Shape & shape_;
   Item * item_ = nullptr; // null for the root
   std::vector< uint16_t > apart_;
   std::unordered_map< uint16_t, std::unordered_map< std::string, Item * > > apartItems_;
   std::unordered_map< std::string, Member > members_;
   Zek::Ptr< Zek::PtrInterface::NotifieeConst > relay_;
};

Publisher::Publisher( const Zek::Entity::Ptr & root, Bucket & bucket, PublisherOptions options )
   : root_( root ),
     bucket_( bucket ),
     options_( std::move( options ) ),
     device_( tokenOf( options_.device ) ),
     referrer_( [this]( const Zek::PtrInterface & object ) { return referenceTo( object ); } ),
     run_( randomName() ) {
   const Shape * shape = shapeOf( *root->fwkType() );
   top_ = std::make_unique< Tracker >( *this, *root, *shape, std::string() );
}

Publisher::~Publisher() {
   top_.reset();
}

std::string
Publisher::filterOf( const std::string & device ) {
   return tokenOf( device ) + ".>";
}

void
Publisher::isFedIs( bool fed ) {
   isFed_ = fed;
   wasFed_ |= fed;
   leaseAt_.reset();
}

// -- Keys -------------------------------------------------------------------------------------

Publisher::Item &
Publisher::item( const std::string & key ) {
   auto & at = items_[key];
   if( !at ) {
      at = std::make_unique< Item >();
      at->key = key;
   }
   return *at;
}

void
Publisher::markDirty( Item & item ) {
   if( item.isQueued ) return;
   item.isQueued = true;
   queue_.push_back( &item );
}

/// Nothing stands under the key any more.
void
Publisher::release( Item & item ) {
   item.record = nullptr;
   item.collection = nullptr;
   item.member = {};
   markDirty( item );
}

std::string
Publisher::referenceTo( const Zek::PtrInterface & object ) const {
   auto * entity = dynamic_cast< const Zek::Entity * >( &object );
   if( !entity ) return {};
   std::string key = keyOf( *entity, *root_ );
   const auto at = items_.find( key );
   if( key.empty() || at == items_.end() ) return {};
   if( at->second->instance ) key += "#" + std::to_string( at->second->instance );
   return key;
}

/// Members apart mean something to who has read that they stand apart: their record goes first.
bool
Publisher::waitsForRecord( const Item & item ) const {
   const size_t mark = item.key.find( memberInfix );
   if( mark == std::string::npos ) return false;
   const auto at = items_.find( item.key.substr( 0, mark ) );
   if( at == items_.end() || !at->second->record ) return false;
   const Item & record = *at->second;
   return record.ticket || record.isQueued || !record.isHeld;
}

/// Orders what the key lacks. False where that is nothing.
bool
Publisher::write( Item & item ) {
   std::optional< std::string > value;
   uint64_t identity = 0;
   std::vector< std::string > inRecord;
   if( item.record && item.collection ) {
      const Zek::AttributeRow & row = *item.collection;
      const Zek::PtrInterface * member =
         row.collection->find( &item.record->record(), item.member.address() );
      if( member ) value = memberJson( row, *member, referrer_ ).dump();
   } else if( item.record ) {
      const Json json = recordJson( item.record->record(), item.record->shape(), item.instance,
                                    item.record->apart(), referrer_ );
      identity = hashOf( identityOf( json ) );
      inRecord = membersIn( json );
      value = json.dump();
   }
   if( value && value->size() > longestValue ) {
      ++refused_;
      lastRefusal_ = "the value of " + item.key + " has " + std::to_string( value->size() ) +
                     " bytes: expected " + std::to_string( longestValue ) + " or fewer";
      return false;
   }
   const uint64_t hash = value ? hashOf( *value ) : 0;
   const bool isClean =
      value ? item.isHeld && item.held == hash && !item.mustRewrite : !item.isHeld;
   if( isClean ) return false;
   if( value && !item.collection && ( !item.isHeld || item.heldIdentity != identity ) ) {
      item.record->forgetBelow();
   }
   const std::string key = joined( device_, item.key );
   item.ticket = value ? bucket_.put( key, *value ) : bucket_.remove( key );
   // Until it is acknowledged, either may be what stands there.
   item.held = item.heldIdentity = 0;
   item.isHeld = true;
   item.mustRewrite = false;
   item.inRecord.insert( item.inRecord.end(), inRecord.begin(), inRecord.end() );
   underWay_.emplace( item.ticket, Order{ &item, !value, hash, identity, std::move( inRecord ) } );
   return true;
}

/// The record's value does not list these members any more: those that stand apart now and are
/// gone are to be said gone.
void
Publisher::leaveRecord( Item & record, const std::vector< std::string > & before ) {
   if( !record.record ) return;
   for( const std::string & member : before ) {
      if( !record.record->isApart( member.substr( 0, member.find( '.' ) ) ) ) continue;
      Item & apart = item( record.key + memberInfix + member );
      if( apart.record ) continue;
      apart.isHeld = true;
      markDirty( apart );
   }
}

void
Publisher::flush() {
   if( !online_ || !isLoaded_ || !wasFed_ ) return;
   size_t busy = 0; // in the queue, and to wait for what is under way
   while( queue_.size() > busy && underWay_.size() < options_.underWay ) {
      Item & item = *queue_.front();
      queue_.pop_front();
      if( item.ticket || waitsForRecord( item ) ) {
         queue_.push_back( &item );
         ++busy;
         continue;
      }
      item.isQueued = false;
      if( write( item ) ) {
         ++written_;
         busy = 0; // its members may follow
      } else if( !item.record && !item.isHeld ) {
         items_.erase( std::string( item.key ) );
      }
   }
}

bool
Publisher::isAtRest() const {
   return online_ && isLoaded_ && wasFed_ && queue_.empty() && underWay_.empty();
}

// -- The bucket -------------------------------------------------------------------------------

/// A key as it stands in the bucket.
void
Publisher::found( const std::string & key, const BucketEvent & event ) {
   const bool isThere = event.kind == BucketEvent::Kind::entry;
   const auto at = items_.find( key );
   if( at == items_.end() && !isThere ) return;
   Item & known = at == items_.end() ? item( key ) : *at->second;
   // What is under way is answered to us.
   if( known.ticket ) return;
   known.isHeld = isThere;
   known.held = isThere ? hashOf( event.text ) : 0;
   known.heldIdentity = 0;
   if( isThere && key.find( memberInfix ) == std::string::npos ) {
      const Json json = Json::parse( event.text, nullptr, false );
      if( json.is_object() ) {
         known.heldIdentity = hashOf( identityOf( json ) );
         known.inRecord = membersIn( json );
         // Instances go on being counted from where an earlier run left off.
         const auto instance = json.find( "instance" );
         if( !isLoaded_ && instance != json.end() && instance->is_number_unsigned() ) {
            const auto theirs = instance->get< uint64_t >();
            if( theirs < UINT32_MAX / 2 && !known.instance ) {
               known.instance = static_cast< uint32_t >( theirs );
            }
         }
      }
   }
   markDirty( known );
}

void
Publisher::ended( const BucketEvent & event ) {
   if( event.ticket == leaseTicket_ ) {
      leaseTicket_ = 0;
      if( event.kind == BucketEvent::Kind::refused ) leaseAt_.reset();
      return;
   }
   const auto at = underWay_.find( event.ticket );
   if( at == underWay_.end() ) return;
   const Order order = at->second;
   underWay_.erase( at );
   Item & item = *order.item;
   item.ticket = 0;
   if( event.kind == BucketEvent::Kind::stored ) {
      item.isHeld = !order.removes;
      item.held = order.hash;
      item.heldIdentity = order.identity;
      const std::vector< std::string > before = std::exchange( item.inRecord, order.inRecord );
      leaveRecord( item, before );
      if( !item.isQueued && !item.record && !item.isHeld ) {
         items_.erase( std::string( item.key ) );
      }
   } else {
      ++refused_;
      lastRefusal_ = item.key + ": " + event.text;
      markDirty( item );
   }
}

void
Publisher::onReadable() {
   for( const BucketEvent & event : bucket_.take() ) {
      switch( event.kind ) {
      case BucketEvent::Kind::online:
         online_ = true;
         leaseAt_.reset();
         break;
      case BucketEvent::Kind::offline:
         online_ = false;
         fault_ = event.text;
         break;
      case BucketEvent::Kind::begin:
         isLoaded_ = false;
         for( auto & [key, known] : items_ ) {
            if( known->ticket ) continue;
            known->isHeld = false;
            known->held = known->heldIdentity = 0;
            markDirty( *known );
         }
         break;
      case BucketEvent::Kind::end:
         isLoaded_ = true;
         leaseAt_.reset();
         break;
      case BucketEvent::Kind::entry:
      case BucketEvent::Kind::removal: {
         // Behind a dump these are our own, and what others have no business to write.
         if( !event.key.starts_with( device_ + "." ) ) break;
         const std::string key = event.key.substr( device_.size() + 1 );
         if( key != leaseToken ) found( key, event );
         break;
      }
      case BucketEvent::Kind::stored:
      case BucketEvent::Kind::refused:
         ended( event );
         break;
      }
   }
}

Publisher::Clock::time_point
Publisher::timePassed( Clock::time_point now ) {
   if( !online_ || !isLoaded_ || !isFed_ ) return now + options_.lease;
   if( ( !leaseAt_ || now >= *leaseAt_ ) && !leaseTicket_ ) {
      const Json lease{ { "interval", options_.lease.count() / 1000.0 }, { "run", run_ } };
      leaseTicket_ = bucket_.put( joined( device_, leaseToken ), lease.dump() );
      leaseAt_ = now + options_.lease;
   }
   return leaseAt_.value_or( now + options_.lease );
}

} // namespace IpstateNats
