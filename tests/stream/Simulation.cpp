#include "tests/stream/Simulation.h"

#include "framework/Exception.h"
#include "tests/stream/Link.h"
#include "tests/stream/Memory.h"
#include "tests/stream/Trees.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>

namespace ipstate::test {

using namespace Zek;

namespace {

using Live = std::map< const AllocTrackTypeInfo *, uint64_t >;

Live
liveObjects() {
   Live live;
   for( auto * type = AllocTrackTypeInfo::all(); type; type = type->next() ) {
      if( type->liveObjects() ) live[type] = type->liveObjects();
   }
   return live;
}

uint64_t
mix( uint64_t seed, uint64_t n ) {
   uint64_t x = seed * 0x9e3779b97f4a7c15 + n;
   x = ( x ^ x >> 30 ) * 0xbf58476d1ce4e5b9;
   x = ( x ^ x >> 27 ) * 0x94d049bb133111eb;
   return x ^ x >> 31;
}

class World;

/// Watches one entity, and does what agents do in callbacks.
class Reactor final : public AttributeSink {
 public:
   Reactor( World & world, uint32_t tree, const Entity & entity, bool throws, bool writes,
            bool ends = false )
      : world_( world ),
        tree_( tree ),
        throws_( throws ),
        writes_( writes ),
        ends_( ends ) {
      relay_ = relayOf( entity, *this );
      relay_->isWeakNotifieeIs( true );
   }
   ~Reactor() override { relay_->notifierIs( nullptr ); }
   bool isGone() const { return !relay_->notifier(); }
   void onAttribute( const AttributeRow & row ) override { react( row ); }
   void onMember( const AttributeRow & row, const void * ) override { react( row ); }
   void onNotificationException() override { throw; }

 private:
   void react( const AttributeRow & row );

   World & world_;
   uint32_t tree_;
   bool throws_;
   bool writes_;
   bool ends_;
   Ptr< PtrInterface::NotifieeConst > relay_;
};

/// Finds references that another takes the place of, without the removal of the first.
class Keeper final : public AttributeSink {
 public:
   Keeper( World & world, const Entity & entity ) : world_( world ), entity_( entity ) {
      for( const AttributeRow * row : shapeOf( entity ).plan.collections ) {
         if( row->has( refersToMembers ) ) {
            forEachMember( *row, [&]( const void * key, const PtrInterface * member ) {
               seen_[placeOf( entity_, *row, key )] = member;
            } );
         }
      }
      relay_ = relayOf( entity, *this );
      relay_->isWeakNotifieeIs( true );
   }
   ~Keeper() override { relay_->notifierIs( nullptr ); }
   bool isGone() const { return !relay_->notifier(); }
   const Entity & entity() const { return entity_; }
   void onAttribute( const AttributeRow & ) override {}
   void onMember( const AttributeRow & row, const void * key ) override;

 private:
   template< class Visit >
   void forEachMember( const AttributeRow & row, Visit visit ) {
      const PtrInterface * member = row.collection->first( &entity_ );
      while( member ) {
         member = withMemberKey( row, member, [&]( const void * key ) {
            visit( key, member );
            return row.collection->after( &entity_, key );
         } );
      }
   }

   World & world_;
   const Entity & entity_;
   std::map< std::string, const PtrInterface * > seen_;
   Ptr< PtrInterface::NotifieeConst > relay_;
};

/// Notes what it is told.
class Witness final : public AttributeSink {
 public:
   Witness( std::map< std::string, uint32_t > & seen, const Entity & entity )
      : seen_( seen ),
        entity_( entity ) {
      relay_ = relayOf( entity, *this );
   }
   void onAttribute( const AttributeRow & row ) override {
      if( row.isMutable() ) ++seen_[placeOf( entity_, row, nullptr )];
   }
   void onMember( const AttributeRow & row, const void * key ) override {
      ++seen_[placeOf( entity_, row, key )];
   }

 private:
   std::map< std::string, uint32_t > & seen_;
   const Entity & entity_;
   Ptr< PtrInterface > relay_;
};

class World {
 public:
   World( const Schedule & schedule, Situations & situations );
   ~World();

   Outcome run();
   bool isOneOf( Seeds seeds ) const;

 private:
   friend class Reactor;
   friend class Keeper;

   void step( uint32_t what );
   void change( uint32_t tree, Entity & top );
   void fill( Random & random, Entity & top, int changes );
   void changed( uint32_t tree, const Change & change );
   Change changeCopy( Link & link, Entity & top );
   void cross();
   void write();
   void scribble();
   void switchAdaptor();
   void attachReactor();
   void restart( uint32_t tree );
   void widen();
   void move();
   void add( Entity & loose );
   void takeOut();
   void changeTargets();
   void changeWithoutMemory();
   void pumpWithoutMemory();
   void attachEnder();
   void endOne( Link & link );
   void settle();
   void rest();
   void reconnect( Link & link );
   void check( bool afterDump );
   void checkMemory( bool atRest );
   void noteFull( const Link & link, const Change & change );
   bool isWritable( uint32_t tree, std::string_view path = "" ) const;
   Entity * mounted( const Link & link, const Kelmo::Mount & mount ) const;
   std::vector< Difference > differencesOf( const Link & link, const Kelmo::Mount & mount ) const;
   Link & anyLink() { return *links_[random_.below( static_cast< uint32_t >( links_.size() ) )]; }
   Dir::Ptr cloned( const Dir::Ptr & tree );
   void problem( const std::string & what ) {
      if( problem_.size() < 4000 ) problem_ += what + "\n";
   }
   void log( std::string what ) {
      if( schedule_.describe && !what.empty() ) log_.push_back( std::move( what ) );
   }
   void reached( Situation situation ) { situations_.reached( situation ); }

   const Schedule & schedule_;
   Situations & situations_;
   Random random_;
   std::vector< Dir::Ptr > trees_; // the first is the source of all
   std::vector< std::unique_ptr< Link > > links_;
   std::vector< std::unique_ptr< Reactor > > reactors_;
   std::vector< std::unique_ptr< Keeper > > keepers_; // of what copies may not be written
   /// Stored and rejected, by entity's path and attribute: told to nobody before the next dump.
   std::set< std::string > untold_;
   std::set< std::string > rejected_; // the same, told since
   bool scribbled_ = false;
   uint32_t reactions_ = 0; // that may still happen in this step
   uint32_t ends_ = 0;      // connections that may still be ended from within
   /// Stand in no tree: prepared, or taken out of the source.
   Tops loose_;
   std::vector< Change > refusedInLoose_;
   std::string problem_;
   std::vector< std::string > log_;
};

World::World( const Schedule & schedule, Situations & situations )
   : schedule_( schedule ),
     situations_( situations ),
     random_( mix( schedule.seed, 0 ) ) {
   const uint32_t trees = 2 + random_.below( 3 );
   const std::string child =
      random_.oneIn( 2 )
         ? "Ip::Input::Status"
         : rootTypes()[random_.below( static_cast< uint32_t >( rootTypes().size() ) )]->fullName;
   for( uint32_t i = 0; i < trees; ++i ) trees_.push_back( dirFactory() );
   Dir::Ptr all = trees_[0]->dirIs( "all" );
   if( random_.oneIn( 2 ) ) {
      for( const char * name : { "L3::Intf::StatusDir", "Ip::Input::Status" } ) {
         Entity::Ptr made = all->entityIs( name, Name( name ) );
         fill( random_, *made, 12 );
      }
   }
   for( uint32_t i = 1; i < trees; ++i ) {
      // Chains and stars.
      const uint32_t from = random_.oneIn( 2 ) ? i - 1 : 0;
      links_.push_back( std::make_unique< Link >( from, i, situations_ ) );
      Link & link = *links_.back();
      const uint32_t which = random_.below( 4 ); // the directory, a child of it, or both
      auto mount = [&]( const std::string & path, const std::string & type ) {
         const uint32_t mode = random_.below( 10 );
         const bool isDirectory = type == "Zek::Dir";
         const char * name = mode < 4 && isWritable( from, path ) ? "w"
                             : mode == 9 && isDirectory           ? "ri"
                                                                  : "r";
         const bool isNormal = !schedule.wide || schedule.seed % 4;
         link.mounts.emplace_back( String( isNormal ? path : "/" + path + "//" ), String( type ),
                                   name, Kelmo::MountFilter( mode == 8 ) );
      };
      if( which ) mount( "all", "Zek::Dir" );
      if( which < 2 ) mount( "all/" + child, child );
      // What members of the others refer to, from a mount of its own.
      if( !which ) mount( "all/L3::Intf::StatusDir", "L3::Intf::StatusDir" );
      // And what refers to members of the child, ahead of it.
      Random more( mix( schedule.seed, i ) );
      if( !which && child == "Ip::Input::Status" && more.oneIn( 2 ) ) {
         const char * type = "Ip::Status";
         link.mounts.emplace( link.mounts.begin(), String( std::string( "all/" ) + type ),
                              String( type ), "r", Kelmo::MountFilter( false ) );
         Entity::Ptr status = all->entityIs( type, Name( type ) );
         fill( more, *status, 12 );
      }
      if( which == 1 && random_.oneIn( 2 ) ) std::swap( link.mounts.front(), link.mounts.back() );
      if( random_.oneIn( 2 ) ) link.capacity = 1 + random_.below( 3000 );
      std::string how = "tree " + std::to_string( i ) + " of " + std::to_string( from ) +
                        ", capacity " + std::to_string( link.capacity );
      for( auto & m : link.mounts ) {
         how += ", " + m.path().toString() + " " + m.mode().toString();
         if( m.filter().structureOnly() ) how += " without content";
      }
      log( how );
      link.serve( trees_[from] );
      link.follow( trees_[i] );
      link.connect();
      if( link.mounts.size() == 2 ) {
         if( which ) reached( Situation::twoMounts );
         if( which && link.mounts[0].mode() != link.mounts[1].mode() )
            reached( Situation::twoModes );
      }
   }
}

World::~World() {
   for( auto & link : links_ ) link->toldOf = nullptr;
   reactors_.clear();
   keepers_.clear();
   for( auto & link : links_ ) link->cut();
   links_.clear();
}

/// Whether all of a tree, and what stands at the path, may be written there: the root of a mount is
/// the source's alone.
bool
World::isWritable( uint32_t tree, std::string_view path ) const {
   for( auto & link : links_ ) {
      if( link->copy != tree ) continue;
      bool within = path.empty();
      for( auto & mount : link->mounts ) {
         if( mount.mode() != "w" ) return false;
         within |= path.starts_with( mount.path().view() );
      }
      return within;
   }
   return true;
}

Entity *
World::mounted( const Link & link, const Kelmo::Mount & mount ) const {
   return trees_[link.copy]->entityAt( mount.path().view() ).ptr();
}

std::vector< Difference >
World::differencesOf( const Link & link, const Kelmo::Mount & mount ) const {
   const Depth depth = mount.mode() == "ri"             ? Depth::entries
                       : mount.filter().structureOnly() ? Depth::structure
                                                        : Depth::all;
   Entity::Ptr source = trees_[link.source]->entityAt( mount.path().view() );
   return differences( source.ptr(), mounted( link, mount ), depth );
}

// -- Steps ------------------------------------------------------------------------------------

void
Keeper::onMember( const AttributeRow & row, const void * key ) {
   if( !row.has( refersToMembers ) ) return;
   const std::string place = placeOf( entity_, row, key );
   const PtrInterface * member = row.collection->find( &entity_, key );
   const PtrInterface *& before = seen_[place];
   // What throws keeps it from hearing of a removal.
   if( member && before && before != member && world_.reactors_.empty() ) {
      world_.problem( place + " is re-targeted" );
   }
   before = member;
}

void
Reactor::react( const AttributeRow & row ) {
   if( ends_ ) {
      if( world_.ends_ && world_.random_.oneIn( 3 ) ) world_.endOne( world_.anyLink() );
      return;
   }
   if( !world_.reactions_ || !world_.random_.oneIn( 3 ) ) return;
   --world_.reactions_;
   if( writes_ ) {
      auto & entity = static_cast< const Entity & >( *relay_->notifier() );
      const bool same = world_.random_.oneIn( 2 ) && row.isWritable();
      Change made = mutate( world_.random_, Entity::Ptr( const_cast< Entity * >( &entity ) ),
                            same ? &row : nullptr, world_.schedule_.describe );
      world_.reached( same ? Situation::reactionAgainst : Situation::reaction );
      made.text = "   reaction of tree " + std::to_string( tree_ ) + ": " + made.text;
      world_.changed( tree_, made );
   }
   if( throws_ ) {
      world_.reached( tree_ ? Situation::copyThrew : Situation::sourceThrew );
      throw std::runtime_error( "a reaction" );
   }
}

void
World::change( uint32_t tree, Entity & top ) {
   changed( tree, mutate( random_, top, schedule_.describe ) );
}

/// Before anyone follows.
void
World::fill( Random & random, Entity & top, int changes ) {
   for( ; changes; --changes ) {
      const Change made = mutate( random, top, false );
      if( made.refused ) untold_.insert( placeOf( *made.entity, *made.row, nullptr ) );
   }
}

/// Looks at what a change left in the flows.
void
World::changed( uint32_t tree, const Change & change ) {
   log( change.text );
   if( !change.row ) return;
   if( change.otherwise ) reached( Situation::madeOtherwise );
   scribbled_ |= change.readOnly;
   if( change.refused ) {
      reached( Situation::rejectedValue );
      untold_.insert( placeOf( *change.entity, *change.row, nullptr ) );
   }
   for( auto & link : links_ ) {
      if( link->source == tree ) noteFull( *link, change );
   }
}

void
World::noteFull( const Link & link, const Change & change ) {
   const AttributeRow & row = *change.row;
   auto * sa = link.server->adapter().adaptorOf( *change.entity );
   auto * flow = sa ? sa->flowOut() : nullptr;
   if( !flow ) return;
   if( !row.collection ) {
      if( !flow->zekIsDirty( row.id ) ) return;
      reached( row.stored->hasWireForm() ? Situation::fullAtValue : Situation::fullAtPointer );
      return;
   }
   auto * dirty = flow->dirtyCollection( row.id );
   if( !dirty || !change.key.get() ) return;
   const bool isThere = row.collection->find( change.entity.ptr(), change.key.get() );
   if( dirty->resync && dirty->resync->hasBookmark() ) {
      reached( isThere ? Situation::wholeInterrupted : Situation::deletedInWhole );
   } else if( dirty->whole ) {
      reached( Situation::outgrown );
   }
   auto at = dirty->keys.find( change.key.get() );
   if( at == dirty->keys.end() ) return;
   if( at->second && isThere ) reached( Situation::addedBackWhileDirty );
   if( !isThere ) reached( Situation::removedWhileDirty );
   reached( row.id == entityAttr         ? Situation::fullAtChildren
            : row.has( ownsMembers )     ? Situation::fullAtMembers
            : row.has( refersToMembers ) ? Situation::fullAtReferences
            : row.has( isSet )           ? Situation::fullAtSet
            : row.has( keyIsField )      ? Situation::fullAtKeyedValues
                                         : Situation::fullAtValues );
}

/// A change made at the copy's end.
Change
World::changeCopy( Link & link, Entity & top ) {
   Change made = mutate( random_, top, schedule_.describe );
   made.text = "tree " + std::to_string( link.copy ) + ": " + made.text;
   changed( link.copy, made );
   return made;
}

/// A write to a copy that may be written, and another to the same attribute at the source.
void
World::cross() {
   Link & link = anyLink();
   const auto mounts = static_cast< uint32_t >( link.mounts.size() );
   const Kelmo::Mount & mount = link.mounts[mounts > 1 ? random_.below( mounts ) : 0];
   Entity * top = mount.mode() == "w" ? mounted( link, mount ) : nullptr;
   if( !top ) return;
   reached( Situation::crossingWrites );
   Change made = changeCopy( link, *top );
   if( !made.row ) return;
   if( made.row->has( ownsMembers ) ) reached( Situation::crossingMembers );
   // Its tree may be gone.
   if( &EntityUriPath( *made.entity ).root() != trees_[link.copy].ptr() ) return;
   if( Entity * twin = twinOf( *made.entity, *trees_[link.source] ) ) {
      if( twin->fwkType() != made.entity->fwkType() ) return;
      made = mutate( random_, Entity::Ptr( twin ), made.row, schedule_.describe );
      made.text = "tree " + std::to_string( link.source ) + ": " + made.text;
      changed( link.source, made );
   }
}

void
World::write() {
   Link & link = anyLink();
   for( auto & mount : link.mounts ) {
      Entity * top = mount.mode() == "w" ? mounted( link, mount ) : nullptr;
      if( !top ) continue;
      reached( Situation::writtenCopy );
      changeCopy( link, *top );
   }
}

/// A local change of a copy that may not be written: an error, and there until the next dump.
void
World::scribble() {
   Link & link = anyLink();
   const Kelmo::Mount & mount = link.mounts.front();
   Entity * top = mount.mode() == "r" ? mounted( link, mount ) : nullptr;
   if( !top ) return;
   reached( Situation::scribbled );
   scribbled_ = true;
   changeCopy( link, *top );
}

void
World::switchAdaptor() {
   Entity::Ptr all = trees_[0]->entity( "all" );
   std::vector< Entity::Ptr > entities;
   forEachEntity(
      *all, [&]( const Entity & e ) { entities.emplace_back( const_cast< Entity * >( &e ) ); } );
   Entity::Ptr entity = entities[random_.below( static_cast< uint32_t >( entities.size() ) )];
   if( random_.oneIn( 2 ) ) {
      log( "not logged for a while: " + EntityUriPath( *entity ).text() );
      reached( Situation::notLogged );
      entity->zekIsLoggedIs( false );
      for( int i = 0; i < 3; ++i ) {
         changed( 0, mutate( random_, entity, nullptr, schedule_.describe ) );
      }
      entity->zekIsLoggedIs( true );
      return;
   }
   for( auto & link : links_ ) {
      auto * sa = link->server->adapter().adaptorOf( *entity );
      if( !sa ) continue;
      log( "switched off for a while: " + EntityUriPath( *entity ).text() );
      reached( Situation::switchedOff );
      Entity::ZekNboAttrLogSa::Ptr held( sa );
      const bool zombie = random_.oneIn( 2 );
      zombie ? sa->zekDoZombieReactors( true ) : sa->hasNotificationActiveIs( false );
      for( int i = 0; i < 3; ++i ) {
         changed( link->source, mutate( random_, entity, nullptr, schedule_.describe ) );
      }
      zombie ? held->zekDoZombieReactors( false ) : held->hasNotificationActiveIs( true );
      return;
   }
}

void
World::attachReactor() {
   std::erase_if( reactors_, []( auto & r ) { return r->isGone(); } );
   const uint32_t tree = random_.below( static_cast< uint32_t >( trees_.size() ) );
   std::vector< const Entity * > entities;
   forEachEntity( *trees_[tree], [&]( const Entity & e ) {
      if( &e != trees_[tree].ptr() ) entities.push_back( &e );
   } );
   if( entities.empty() ) return;
   const bool writer = isWritable( tree ) && random_.oneIn( 2 );
   for( int i = 0; i < 4; ++i ) {
      const Entity & entity =
         *entities[random_.below( static_cast< uint32_t >( entities.size() ) )];
      if( !entity.zekHasAttrLogInterface() ) continue;
      // Content only: members that come and go are the steps' part.
      auto & rows = shapeOf( entity ).changed;
      const bool writes = writer && std::none_of( rows.begin(), rows.end(), []( auto * row ) {
                             return row->has( ownsMembers );
                          } );
      const bool throws = !writes || random_.oneIn( 4 );
      log( "reactor of tree " + std::to_string( tree ) + " on " + EntityUriPath( entity ).text() +
           ( throws ? ", throws" : "" ) + ( writes ? ", writes" : "" ) );
      reactors_.push_back( std::make_unique< Reactor >( *this, tree, entity, throws, writes ) );
   }
}

/// The same content in another tree.
Dir::Ptr
World::cloned( const Dir::Ptr & tree ) {
   Dir::Ptr copy = dirFactory();
   Link link( 0, 0, situations_ );
   link.mounts.emplace_back( "all", "Zek::Dir", "r", Kelmo::MountFilter( false ) );
   link.serve( tree );
   link.follow( copy );
   link.connect();
   while( link.pump( random_, true ) ) {}
   link.cut();
   return copy;
}

/// A process ends and begins again.
void
World::restart( uint32_t tree ) {
   const bool same = tree == 0 && random_.oneIn( 2 );
   log( "restart of tree " + std::to_string( tree ) + ( same ? " with the same content" : "" ) );
   Dir::Ptr fresh = same ? cloned( trees_[tree] ) : dirFactory();
   if( tree == 0 ) {
      reached( same ? Situation::restartedSame : Situation::restartedOther );
      fresh->dirIs( "all" );
      if( !same ) fill( random_, *fresh->entity( "all" ), 20 );
   }
   for( auto & link : links_ ) {
      if( link->source != tree && link->copy != tree ) continue;
      if( link->source == tree && tree ) {
         reached( Situation::restartedHub );
         // It stores them when they come, and rejects them as the source did.
         untold_.merge( rejected_ );
      }
      if( link->copy == tree ) reached( Situation::restartedCopy );
      link->cut();
      ( link->source == tree ? link->server : link->client ) = nullptr;
   }
   trees_[tree] = fresh;
   if( tree == 0 ) {
      loose_.clear();
      refusedInLoose_.clear();
   }
   for( auto & link : links_ ) {
      if( link->source == tree ) link->serve( fresh );
      if( link->copy == tree ) link->follow( fresh );
   }
}

void
World::step( uint32_t what ) {
   // Each with its share of 200.
   auto share = [&what]( uint32_t n ) {
      if( what < n ) return true;
      what -= n;
      return false;
   };
   Link & link = anyLink();
   Pipe & pipe = random_.oneIn( 4 ) ? link.up : link.down;
   if( share( 92 ) ) {
      Entity::Ptr all = trees_[0]->entity( "all" );
      for( uint32_t n = 1 + random_.below( 8 ); n; --n ) change( 0, *all );
   } else if( share( 50 ) ) {
      for( auto & each : links_ ) each->pump( random_, false );
   } else if( share( 12 ) ) {
      write();
   } else if( share( 6 ) ) {
      cross();
   } else if( share( 8 ) ) {
      pipe.stalled = !pipe.stalled;
   } else if( share( 6 ) ) {
      pipe.capacity = random_.below( 65536 );
   } else if( share( 8 ) ) {
      if( link.isConnected() ) log( "cut of tree " + std::to_string( link.copy ) );
      link.cut();
   } else if( share( 8 ) ) {
      if( !link.isConnected() ) log( "tree " + std::to_string( link.copy ) + " connects" );
      link.connect();
   } else if( share( 2 ) ) {
      if( pipe.size() ) {
         log( "corrupt" );
         pipe.corrupt( random_ );
         link.corrupted = true;
      }
   } else if( share( 1 ) ) {
      log( "all goes" );
      trees_[0]->entityDel( "all" );
      if( random_.oneIn( 3 ) ) link.pump( random_, false );
      trees_[0]->dirIs( "all" );
   } else if( share( 3 ) ) {
      attachReactor();
   } else if( share( 2 ) ) {
      switchAdaptor();
   } else if( share( 1 ) ) {
      if( schedule_.seed % 8 == 0 ) scribble();
   } else {
      if( random_.oneIn( 2 ) ) restart( random_.oneIn( 2 ) ? 0 : link.copy );
   }
}

// -- What moves, is short, and ends -----------------------------------------------------------

void
World::widen() {
   for( auto & link : links_ ) {
      link->toldOf = [this]( Link & told ) {
         if( ends_ && random_.oneIn( 30 ) ) endOne( told );
      };
   }
   const uint32_t what = random_.below( 16 );
   if( what < 8 ) {
      move();
   } else if( what < 10 ) {
      changeTargets();
   } else if( what < 12 ) {
      changeWithoutMemory();
   } else if( what < 14 ) {
      pumpWithoutMemory();
   } else {
      attachEnder();
   }
}

/// Subtrees are prepared, changed, attached, taken out and put back; they refer to what stands in
/// the source, and are referred to.
void
World::move() {
   Entity::Ptr all = trees_[0]->entity( "all" );
   const uint32_t what = random_.below( 8 );
   if( what < 2 && loose_.size() < 4 ) {
      auto & types = allRootTypes();
      const TypeDescriptor & type =
         *types[random_.below( static_cast< uint32_t >( types.size() ) )];
      const Name name( random_.oneIn( 2 ) ? std::string( 1, char( 'a' + random_.below( 4 ) ) )
                                          : std::string( type.fullName ) );
      const void * arguments[] = { &name };
      Ptr< PtrInterface > made = type.create( arguments );
      loose_.emplace_back( static_cast< Entity * >( made.ptr() ) );
      log( "prepared " + loose_.back()->fullName().toString() );
   } else if( what < 4 && !loose_.empty() ) {
      Tops others{ all };
      others.insert( others.end(), loose_.begin(), loose_.end() );
      Entity::Ptr loose = loose_[random_.below( static_cast< uint32_t >( loose_.size() ) )];
      for( uint32_t n = 1 + random_.below( 12 ); n; --n ) {
         Change made = mutate( random_, *loose, schedule_.describe, others );
         log( "loose: " + made.text );
         if( made.refused ) refusedInLoose_.push_back( std::move( made ) );
      }
   } else if( what < 5 ) {
      for( uint32_t n = 1 + random_.below( 8 ); n; --n ) {
         changed( 0, mutate( random_, *all, schedule_.describe, loose_ ) );
      }
   } else if( what < 7 && !loose_.empty() ) {
      const size_t which = random_.below( static_cast< uint32_t >( loose_.size() ) );
      const Entity::Ptr loose = loose_[which];
      loose_.erase( loose_.begin() + static_cast< ptrdiff_t >( which ) );
      add( *loose );
   } else {
      takeOut();
   }
}

/// Into some directory of the source.
void
World::add( Entity & loose ) {
   std::vector< Entity::Ptr > directories;
   forEachEntity( *trees_[0]->entity( "all" ), [&]( const Entity & e ) {
      if( e.fwkType() == &Dir::zekTypeDescriptor_ ) {
         directories.emplace_back( const_cast< Entity * >( &e ) );
      }
   } );
   const Entity::Ptr & directory =
      directories[random_.below( static_cast< uint32_t >( directories.size() ) )];
   const String name( loose.name().view() );
   if( const Entity::Ptr before = directory->entity( name ) ) loose_.push_back( before );
   reached( Situation::prepared );
   try {
      directory->entityDel( name );
      directory->entityIs( Entity::Ptr( &loose ) );
   } catch( const std::exception & ) {
      // a reaction
   }
   log( "attached " + EntityUriPath( loose ).text() );
   std::erase_if( refusedInLoose_, [&]( const Change & change ) {
      if( &EntityUriPath( *change.entity ).root() != trees_[0].ptr() ) return false;
      untold_.insert( placeOf( *change.entity, *change.row, nullptr ) );
      return true;
   } );
}

void
World::takeOut() {
   std::vector< Entity::Ptr > children;
   const Entity::Ptr all = trees_[0]->entity( "all" );
   forEachEntity( *all, [&]( const Entity & e ) {
      if( &e != all.ptr() && e.parentAttrId() == entityAttr ) {
         children.emplace_back( const_cast< Entity * >( &e ) );
      }
   } );
   if( children.empty() || loose_.size() >= 4 ) return;
   Entity::Ptr child = children[random_.below( static_cast< uint32_t >( children.size() ) )];
   log( "taken out " + EntityUriPath( *child ).text() );
   try {
      const_cast< Entity * >( child->parent() )->entityDel( String( child->name().view() ) );
   } catch( const std::exception & ) {
      // a reaction
   }
   if( child->parent() ) return;
   loose_.push_back( child );
   reached( Situation::putBack );
   // Most come back soon.
   if( random_.oneIn( 3 ) ) return;
   if( random_.oneIn( 2 ) ) anyLink().pump( random_, false );
   loose_.pop_back();
   add( *child );
}

/// Under its key a reference leads to another instance.
void
World::changeTargets() {
   const Entity::Ptr all = trees_[0]->entity( "all" );
   std::erase_if( keepers_, []( auto & keeper ) { return keeper->isGone(); } );
   for( auto & link : links_ ) {
      const bool isWritten = std::any_of( link->mounts.begin(), link->mounts.end(),
                                          []( auto & mount ) { return mount.mode() == "w"; } );
      if( isWritten || keepers_.size() > 50 ) continue;
      forEachEntity( *trees_[link->copy], [&]( const Entity & e ) {
         auto & rows = shapeOf( e ).plan.collections;
         if( std::any_of( rows.begin(), rows.end(),
                          []( auto * row ) { return row->has( refersToMembers ); } ) &&
             std::none_of( keepers_.begin(), keepers_.end(),
                           [&]( auto & keeper ) { return &keeper->entity() == &e; } ) ) {
            keepers_.push_back( std::make_unique< Keeper >( *this, e ) );
         }
      } );
   }
   struct Place {
      Entity::Ptr entity;
      const AttributeRow * row;
      Entity::Ptr target;
   };
   std::vector< Place > places;
   forEachEntity( *all, [&]( const Entity & e ) {
      for( const AttributeRow * row : shapeOf( e ).plan.collections ) {
         if( !row->has( refersToMembers ) ) continue;
         if( auto * member = row->collection->first( &e ) ) {
            auto * target = const_cast< Entity * >( static_cast< const Entity * >( member ) );
            if( target->parent() && target->parentAttrId() != entityAttr ) {
               places.push_back(
                  { Entity::Ptr( const_cast< Entity * >( &e ) ), row, Entity::Ptr( target ) } );
            }
         }
      }
   } );
   if( places.empty() ) return;
   const Place & place = places[random_.below( static_cast< uint32_t >( places.size() ) )];
   Entity::Ptr owner( const_cast< Entity * >( place.target->parent() ) );
   const AttributeRow & owning = *owner->fwkType()->attribute( place.target->parentAttrId() );
   AnyKey key;
   withMemberKey( owning, place.target.ptr(),
                  [&]( const void * at ) { key = AnyKey( *owning.keyType->values, at ); } );
   std::vector< const void * > arguments;
   for( auto * row : shapeOf( *place.target ).plan.parameters ) {
      arguments.push_back( row->address( place.target.ptr() ) );
   }
   log( "another instance of " + EntityUriPath( *place.target ).text() + " in " +
        placeOf( *place.entity, *place.row, nullptr ) );
   reached( Situation::otherTarget );
   try {
      withMemberKey( *place.row, place.target.ptr(), [&]( const void * at ) {
         place.row->collection->del( place.entity.ptr(), at );
      } );
      owning.collection->del( owner.ptr(), key.get() );
      owning.collection->is( owner.ptr(), key.get(), arguments.data() );
      auto * made =
         static_cast< const Entity * >( owning.collection->find( owner.ptr(), key.get() ) );
      Entity::Ptr target( const_cast< Entity * >( made ) );
      if( target ) place.row->collection->is( place.entity.ptr(), &target, nullptr );
   } catch( const std::exception & ) {
      // a reaction
   }
}

void
World::changeWithoutMemory() {
   const Entity::Ptr all = trees_[0]->entity( "all" );
   std::vector< Entity::Ptr > entities;
   forEachEntity(
      *all, [&]( const Entity & e ) { entities.emplace_back( const_cast< Entity * >( &e ) ); } );
   Entity::Ptr entity = entities[random_.below( static_cast< uint32_t >( entities.size() ) )];
   auto & rows = shapeOf( *entity ).changed;
   if( rows.empty() ) return;
   const AttributeRow & row = *rows[random_.below( static_cast< uint32_t >( rows.size() ) )];
   if( row.id == entityAttr ) return;
   Change change;
   ends_ = 0;
   try {
      NoMemory none( random_.below( 30 ) );
      change = mutate( random_, entity, &row, false );
   } catch( const std::bad_alloc & ) {
      return; // before anything was changed
   }
   change.text = "with little memory: " + placeOf( *entity, row, nullptr );
   changed( 0, change );
}

void
World::pumpWithoutMemory() {
   Link & link = anyLink();
   log( "tree " + std::to_string( link.copy ) + " with little memory" );
   ends_ = 0; // what the test makes there needs memory
   NoMemory none( random_.below( 200 ), random_.oneIn( 4 ) );
   try {
      link.pump( random_, false );
   } catch( const std::bad_alloc & ) {
      link.cut(); // on the way, not in the sessions
   }
}

void
World::attachEnder() {
   const uint32_t tree = random_.below( static_cast< uint32_t >( trees_.size() ) );
   std::vector< const Entity * > entities;
   forEachEntity( *trees_[tree], [&]( const Entity & e ) { entities.push_back( &e ); } );
   std::erase_if( reactors_, []( auto & r ) { return r->isGone(); } );
   for( int i = 0; i < 4; ++i ) {
      const Entity & entity =
         *entities[random_.below( static_cast< uint32_t >( entities.size() ) )];
      if( !entity.zekHasAttrLogInterface() ) continue;
      log( "connections end within tree " + std::to_string( tree ) + " at " +
           EntityUriPath( entity ).text() );
      reactors_.push_back( std::make_unique< Reactor >( *this, tree, entity, false, false, true ) );
   }
}

/// Called from within whatever a link's sessions or the trees tell.
void
World::endOne( Link & link ) {
   --ends_;
   const std::string name = "   within: tree " + std::to_string( link.copy );
   switch( random_.below( 4 ) ) {
   case 0:
      log( name + " is cut" );
      reached( Situation::cutFromWithin );
      link.cut();
      return;
   case 1:
      log( name + " is cut and connects" );
      reached( Situation::againFromWithin );
      link.cut();
      link.connect();
      return;
   case 2:
      log( name + "'s server is another" );
      reached( Situation::destroyedFromWithin );
      link.cut();
      link.serve( trees_[link.source] );
      return;
   default:
      reached( Situation::restartedFromWithin );
      restart( link.copy );
      return;
   }
}

// -- Rest -------------------------------------------------------------------------------------

void
World::settle() {
   for( int round = 0; round < 1000; ++round ) {
      bool moves = false;
      for( auto & link : links_ ) {
         link->open();
         moves |= link->pump( random_, true ) || link->corrupted;
      }
      if( !moves ) return;
   }
   problem( "no rest" );
}

/// Cuts and connects; the copy is told what differs and nothing else.
void
World::reconnect( Link & link ) {
   link.cut();
   const bool measured = std::none_of( link.mounts.begin(), link.mounts.end(),
                                       []( auto & mount ) { return mount.mode() == "w"; } );
   // Before the first: what is stored and rejected now is told by all dumps that follow.
   if( &link == links_.front().get() && measured && random_.oneIn( 2 ) ) {
      for( int i = 0; i < 5; ++i ) change( 0, *trees_[0]->entity( "all" ) );
   }
   std::map< std::string, uint32_t > seen;
   std::vector< std::unique_ptr< Witness > > witnesses;
   std::set< std::string > expected;
   std::set< std::string > possible;
   bool instances = false; // differ
   if( measured ) {
      for( auto & mount : link.mounts ) {
         for( auto & d : differencesOf( link, mount ) ) {
            ( d.waits ? possible : expected ).insert( d.place );
            instances |= d.ofInstance;
         }
      }
      forEachEntity( *trees_[link.copy], [&]( const Entity & e ) {
         if( e.zekHasAttrLogInterface() ) {
            witnesses.push_back( std::make_unique< Witness >( seen, e ) );
         }
      } );
   }
   link.connect();
   while( link.pump( random_, true ) ) {}
   witnesses.clear();
   if( !measured ) return;
   reached( expected.empty() ? Situation::reconnectSilent : Situation::reconnectTold );
   if( instances ) return;
   for( auto & [place, times] : seen ) {
      if( !expected.contains( place ) && !possible.contains( place ) )
         problem( "told of " + place + ", which is as it was" );
      if( times > 1 ) problem( "told " + std::to_string( times ) + " times of " + place );
   }
   for( auto & place : expected ) {
      if( !seen.contains( place ) && !untold_.contains( place ) ) {
         problem( "not told of " + place );
      }
   }
}

void
World::rest() {
   reactions_ = 10;
   settle();
   reactions_ = ends_ = 0;
   settle();
   if( !scribbled_ ) check( false );
   if( !problem_.empty() || ( !scribbled_ && untold_.empty() && !random_.oneIn( 3 ) ) ) return;
   // From the source on, so that what each copy did not know reaches those behind it.
   for( auto & link : links_ ) reconnect( *link );
   settle();
   scribbled_ = false;
   rejected_.merge( untold_ );
   untold_.clear();
   if( problem_.empty() ) check( true );
   if( !problem_.empty() ) problem( "after a reconnect" );
}

void
World::check( bool afterDump ) {
   for( auto & link : links_ ) {
      const std::string name = "tree " + std::to_string( link->copy ) + ": ";
      if( !link->problem.empty() ) problem( name + link->problem );
      if( !link->isAtRest() ) problem( name + "not at rest" );
      if( !link->client->isSynchronised() ) problem( name + "not synchronised" );
      for( auto & mount : link->mounts ) {
         if( mount.mode() == "ri" ) reached( Situation::entriesOnly );
         if( mount.filter().structureOnly() ) reached( Situation::structureOnly );
         for( auto & d : differencesOf( *link, mount ) ) {
            if( d.waits || ( !afterDump && untold_.contains( d.place ) ) ) continue;
            problem( name + d.place + " " + d.what );
         }
      }
   }
   for( auto & link : links_ ) {
      for( auto * session : { link->server.get(), link->client.get() } ) {
         auto & in = session->adapter().nboAttrLogIn();
         if( !problem_.empty() && in.refused() ) problem( "last refusal: " + in.lastRefusal() );
      }
   }
   checkMemory( true );
}

/// What is held for readers that do not read is bounded by what lives; at rest nothing is dirty.
void
World::checkMemory( bool atRest ) {
   for( auto & link : links_ ) {
      for( bool upwards : { false, true } ) {
         auto & adapter = ( upwards ? link->client : link->server )->adapter();
         const auto & out = adapter.nboAttrLogOut();
         if( out.buffer().size() > out.capacity() + 32768 ) {
            problem( std::to_string( out.buffer().size() ) + " bytes wait where " +
                     std::to_string( out.capacity() ) + " may" );
         }
         size_t entities = 0;
         forEachEntity( *trees_[upwards ? link->copy : link->source], [&]( const Entity & e ) {
            ++entities;
            auto * sa = adapter.adaptorOf( e );
            if( !sa || !sa->flowOut() ) return;
            if( atRest && sa->flowOut()->isDirty() ) {
               problem( EntityUriPath( e ).text() + " is dirty at rest" );
            }
            for( auto * row : sa->plan().collections ) {
               auto * keys = sa->flowOut()->dirtyKeys( row->id );
               if( keys && keys->size() > 2 * row->collection->count( &e ) + 16 ) {
                  problem( placeOf( e, *row, nullptr ) + " has " + std::to_string( keys->size() ) +
                           " dirty keys" );
               }
            }
         } );
         if( adapter.adaptors() > entities || out.flows() > entities ) {
            problem( std::to_string( adapter.adaptors() ) + " adaptors and " +
                     std::to_string( out.flows() ) + " flows of " + std::to_string( entities ) +
                     " entities" );
         }
      }
   }
}

Outcome
World::run() {
   uint32_t i = 0;
   for( ; i < schedule_.steps && problem_.empty(); ++i ) {
      if( i < schedule_.dropped.size() && schedule_.dropped[i] ) continue;
      random_ = Random( mix( schedule_.seed, i + 1 ) );
      reactions_ = 10;
      ends_ = schedule_.wide ? 2 : 0;
      if( random_.oneIn( 60 ) ) {
         log( "-- rest" );
         rest();
      } else {
         step( random_.below( 200 ) );
         random_ = Random( mix( schedule_.seed, i + 1000001 ) );
         if( schedule_.wide && random_.oneIn( 3 ) ) widen();
      }
      if( i % 8 == 0 ) checkMemory( false );
   }
   random_ = Random( mix( schedule_.seed, 0 ) );
   if( problem_.empty() ) rest();
   return { problem_, i, std::move( log_ ) };
}

bool
World::isOneOf( Seeds seeds ) const {
   if( seeds == Seeds::all ) return true;
   const bool writable = std::any_of( links_.begin(), links_.end(), []( auto & link ) {
      return std::any_of( link->mounts.begin(), link->mounts.end(),
                          []( auto & mount ) { return mount.mode() == "w"; } );
   } );
   return writable == ( seeds == Seeds::withWritableMounts );
}

} // namespace

Outcome
simulate( const Schedule & schedule, Situations & situations ) {
   const Live before = liveObjects();
   Outcome outcome;
   {
      World world( schedule, situations );
      if( !world.isOneOf( schedule.which ) ) return {};
      try {
         outcome = world.run();
      } catch( const std::exception & e ) {
         outcome = { std::string( "threw " ) + e.what(), schedule.steps, {} };
      }
   }
   if( !outcome.problem.empty() ) return outcome;
   for( auto & [type, count] : liveObjects() ) {
      auto at = before.find( type );
      const uint64_t were = at == before.end() ? 0 : at->second;
      if( count != were ) {
         outcome.problem += std::to_string( count ) + " of " + type->name() + " live where " +
                            std::to_string( were ) + " did\n";
      }
   }
   return outcome;
}

std::string
simulateSeed( uint64_t seed, Situations & situations, Seeds which, bool wide ) {
   Schedule schedule{ .seed = seed, .which = which, .wide = wide };
   Outcome outcome = simulate( schedule, situations );
   if( outcome.problem.empty() ) return "";
   // As few steps as show a fault still.
   Situations ignored;
   schedule.steps = std::min( schedule.steps, outcome.steps );
   schedule.dropped.assign( schedule.steps, false );
   if( simulate( schedule, ignored ).problem.empty() ) {
      schedule = { .seed = seed, .which = which, .wide = wide };
   }
   schedule.dropped.resize( schedule.steps );
   for( uint32_t size = schedule.steps / 2; size; size /= 2 ) {
      for( uint32_t at = 0; at < schedule.steps; at += size ) {
         Schedule fewer = schedule;
         for( uint32_t i = at; i < std::min( at + size, schedule.steps ); ++i ) {
            fewer.dropped[i] = true;
         }
         if( fewer.dropped == schedule.dropped ) continue;
         if( !simulate( fewer, ignored ).problem.empty() ) schedule = std::move( fewer );
      }
   }
   schedule.describe = true;
   outcome = simulate( schedule, ignored );
   std::string text = "seed " + std::to_string( seed ) + ( wide ? " wide\n" : "\n" );
   for( auto & line : outcome.log ) text += "   " + line + "\n";
   return text + outcome.problem;
}

} // namespace ipstate::test
