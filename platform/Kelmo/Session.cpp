#include "platform/Kelmo/Session.h"

#include "framework/Exception.h"

#include <algorithm>

namespace Kelmo {

using Zek::Entity;
using Zek::NboAttrLog::Out;
using Sa = Entity::ZekNboAttrLogSa;

SessionOwner::~SessionOwner() = default;
void
SessionOwner::onMountRefused( const Mount &, const std::string & ) {}
void
SessionOwner::onSynchronised() {}
void
SessionOwner::onOutput() {}
bool
SessionOwner::allows( const Mount &, std::string & ) {
   return true;
}

/// Looks again when anything comes or goes in one of the directories on the way to an export.
class Session::DirectoryWatch final : public Entity::NotifieeConst {
 public:
   DirectoryWatch( Session & session, Export & wanted ) : session_( session ), wanted_( wanted ) {}
   void onEntity( const Zek::String & name ) override;
   void onNotificationException() override;

   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline constinit Zek::AllocTrackTypeInfo allocTrackTypeInfo_{
      "Kelmo::Session::DirectoryWatch", 64
   };

 private:
   Session & session_;
   Export & wanted_;
};

struct Session::Export {
   Export( uint32_t number, const Mount & wanted ) : id( number ), mount( wanted ) {}
   uint32_t id;
   Mount mount;
   const Entity * root = nullptr;
   bool refused = false;
   std::vector< Zek::Ptr< DirectoryWatch > > watches;
   ~Export() { unwatch(); }
   void unwatch() {
      for( auto & watch : watches ) watch->notifierIs( nullptr );
      watches.clear();
   }
};

void
Session::DirectoryWatch::onEntity( const Zek::String & ) {
   session_.look( wanted_ );
   session_.owner_.onOutput();
}

void
Session::DirectoryWatch::onNotificationException() {
   session_.adapter_.nboAttrLogOut().orBreakOff( [] { throw; } );
}

Session::Session( const Entity::Ptr & root, SessionOwner & owner )
   : root_( root ),
     owner_( owner ),
     held_( std::make_shared< Zek::StreamAdapter >( root, *this ) ),
     adapter_( *held_ ) {}

Session::~Session() {
   exports_.clear();
   adapter_.end();
}

namespace {

void
splitPath( std::string_view path, std::string_view & directory, std::string_view & name ) {
   size_t slash = path.rfind( '/' );
   bool top = slash == std::string_view::npos;
   directory = top ? std::string_view() : path.substr( 0, slash );
   name = top ? path : path.substr( slash + 1 );
}

bool
isMode( std::string_view mode ) {
   return mode == "r" || mode == "ri" || mode == "w";
}

/// Why the mode cannot be that of the type, whatever stands at the path; empty if it can.
std::string
problemOfMode( const Mount & mount ) {
   const std::string_view expected = Zek::Dir::zekTypeDescriptor_.fullName;
   if( mount.mode() != "ri" || mount.typeName() == expected ) return "";
   return "mount of '" + mount.path().toString() + "' with mode 'ri' and type '" +
          mount.typeName().toString() + "': expected type " + std::string( expected );
}

} // namespace

// -- Mounting ---------------------------------------------------------------------------------

void
Session::mount( const Mount & mount ) {
   if( !isMode( mount.mode().view() ) ) {
      Zek::throwRangeException( "mount of '" + mount.path().toString() + "' with mode '" +
                                mount.mode().toString() + "': expected r, ri or w" );
   }
   if( mount.path().empty() ) Zek::throwRangeException( "mount of an empty path" );
   if( mount.path().size() > longestText || mount.typeName().size() > longestText ) {
      Zek::throwRangeException( "mount with a path of " + std::to_string( mount.path().size() ) +
                                " bytes and a type's name of " +
                                std::to_string( mount.typeName().size() ) + ": expected " +
                                std::to_string( longestText ) + " or fewer" );
   }
   const std::string problem = problemOfMode( mount );
   if( !problem.empty() ) Zek::throwRangeException( problem );
   imports_.push_back( { mount } );
   synchronised_ = false;
   roleIs();
   if( !connected_ ) return;
   ask( static_cast< uint32_t >( imports_.size() ) );
   owner_.onOutput();
}

void
Session::ask( uint32_t id ) {
   const Import & wanted = imports_[id - 1];
   Out & out = adapter_.nboAttrLogOut();
   Zek::Wire::Encoder body = out.control( mountMessage );
   body.u32( id );
   body.text( wanted.mount.path().view() );
   body.text( wanted.mount.typeName().view() );
   body.text( wanted.mount.mode().view() );
   body.u8( wanted.mount.filter().structureOnly() );
   out.controlEnd();
}

void
Session::connected() {
   connected_ = true;
   greeted_ = false;
   synchronised_ = false;
   roleIs();
   Out & out = adapter_.nboAttrLogOut();
   Zek::Wire::Encoder body = out.control( helloMessage );
   body.u32( magic );
   body.u16( version );
   out.controlEnd();
   for( uint32_t id = 1; id <= imports_.size(); ++id ) {
      imports_[id - 1].refused = imports_[id - 1].complete = false;
      ask( id );
   }
   owner_.onOutput();
}

void
Session::disconnected() {
   connected_ = false;
   exports_.clear();
   adapter_.reset();
   adapter_.peerWritesIs( false );
}

void
Session::receive( const void * bytes, size_t count ) {
   const auto held = held_;
   held->nboAttrLogIn().receive( bytes, count );
   if( !held->isOver() ) drain();
}

void
Session::arrived( size_t count ) {
   const auto held = held_;
   held->nboAttrLogIn().arrived( count );
   if( !held->isOver() ) drain();
}

void
Session::carried( size_t bytes ) {
   adapter_.nboAttrLogOut().consume( bytes );
   drain();
}

void
Session::drain() {
   Out & out = adapter_.nboAttrLogOut();
   out.orBreakOff( [&] { out.drain(); } );
   if( isBroken() ) throw Zek::StreamException( "out of memory for what is to be sent" );
   if( !output().empty() ) owner_.onOutput();
}

bool
Session::isAtRest() const {
   return out().isClean() && output().empty();
}

/// What the peer may say by what it is to this end.
void
Session::roleIs() {
   using Zek::NboAttrLog::Says;
   const bool sendsState = !imports_.empty() || adapter_.peerWrites();
   adapter_.peerSaysIs( !greeted_ ? Says::greeting : sendsState ? Says::state : Says::requests );
}

// -- What the peer says -----------------------------------------------------------------------

void
Session::onControl( uint16_t message, Zek::Wire::Decoder & body ) {
   if( !greeted_ ) {
      uint32_t word;
      uint16_t theirs;
      if( message != helloMessage || !body.u32( word ) || !body.u16( theirs ) || word != magic ) {
         body.fail( "the greeting of an attribute log" );
      } else if( theirs != version ) {
         body.fail( "version 2 of the attribute log" );
      } else {
         greeted_ = true;
         roleIs();
      }
      return;
   }
   switch( message ) {
   case mountMessage: {
      uint32_t id;
      uint8_t structureOnly;
      std::string_view path, type, mode;
      if( !body.u32( id ) || !body.text( path ) || !body.text( type ) || !body.text( mode ) ||
          !body.u8( structureOnly ) ) {
         return;
      }
      const bool fits = path.size() <= longestText && type.size() <= longestText;
      const Mount asked( Zek::String( fits ? path : "" ), Zek::String( fits ? type : "" ),
                         Zek::String( isMode( mode ) ? mode : "" ),
                         MountFilter( structureOnly != 0 ) );
      if( id == 0 || asked.mode().empty() || asked.path().empty() || structureOnly > 1 ) {
         body.fail( "a mount with number, path, and mode r, ri or w" );
         return;
      }
      mountAsked( id, asked );
      return;
   }
   case refusedMessage: {
      uint32_t id;
      std::string_view reason;
      if( !body.u32( id ) || !body.text( reason ) ) return;
      Import * refused = import( id );
      if( !refused ) {
         body.fail( "a mount that was asked for" );
         return;
      }
      refused->refused = refused->complete = true;
      const Mount mount = refused->mount; // another may be added meanwhile
      if( callOut( [&] { owner_.onMountRefused( mount, std::string( reason ) ); } ) ) completed();
      return;
   }
   default:
      body.fail( "a greeting, mount or refusal" );
   }
}

/// False where the connection, or the session, is no longer there afterwards.
template< class Work >
bool
Session::callOut( Work work ) {
   const auto held = held_;
   const uint64_t connection = held->connection();
   work();
   return held->connection() == connection;
}

Session::Import *
Session::import( uint32_t exportId ) {
   return exportId && exportId <= imports_.size() ? &imports_[exportId - 1] : nullptr;
}

bool
Session::acceptsRoot( uint32_t exportId, const Zek::TypeDescriptor * type, std::string_view name,
                      uint32_t * flags ) {
   Import * wanted = import( exportId );
   if( !greeted_ || !wanted || wanted->refused ) return false;
   bool writable = wanted->mount.mode() == "w";
   *flags = writable ? Sa::toOwner | Sa::sends | Sa::withContent | Sa::withMembers | Sa::deep
                     : Sa::readOnly;
   if( !type ) return true;
   std::string_view directory, wantedName;
   splitPath( wanted->mount.path().view(), directory, wantedName );
   return name == wantedName && wanted->mount.typeName() == std::string_view( type->fullName );
}

Entity::Ptr
Session::rootDirectory( uint32_t exportId ) {
   std::string_view path, name;
   splitPath( import( exportId )->mount.path().view(), path, name );
   Entity::Ptr at = root_;
   while( !path.empty() ) {
      size_t slash = path.find( '/' );
      Zek::String step( path.substr( 0, slash ) );
      path = slash == std::string_view::npos ? std::string_view() : path.substr( slash + 1 );
      Entity::Ptr next = at->entity( step );
      if( !next ) {
         next = Zek::dirFactory( Zek::Name( step ) );
         adapter_.childIs( *at, next );
      }
      at = next;
   }
   return at;
}

void
Session::onRoot( uint32_t exportId, Entity * root ) {
   Import * wanted = import( exportId );
   if( root || !wanted ) return;
   std::string_view path, name;
   splitPath( wanted->mount.path().view(), path, name );
   Entity::Ptr directory = root_->entityAt( path );
   Entity::Ptr present = directory ? directory->entity( Zek::String( name ) ) : nullptr;
   // What this end has made there itself, under a mount that never had anything, stays.
   if( present && adapter_.adaptorOf( *present ) ) {
      adapter_.childDel( *directory, Zek::Name( name ) );
   }
}

void
Session::onDump( uint32_t exportId, bool complete ) {
   Import * wanted = import( exportId );
   if( !wanted || !complete ) return;
   wanted->complete = true;
   completed();
}

void
Session::completed() {
   if( synchronised_ ) return;
   for( const Import & i : imports_ ) {
      if( !i.complete ) return;
   }
   synchronised_ = true;
   owner_.onSynchronised();
}

// -- Exports ----------------------------------------------------------------------------------

void
Session::refuse( uint32_t id, const std::string & reason ) {
   Out & out = adapter_.nboAttrLogOut();
   Zek::Wire::Encoder body = out.control( refusedMessage );
   body.u32( id );
   body.text( reason );
   out.controlEnd();
}

void
Session::mountAsked( uint32_t id, const Mount & mount ) {
   std::string reason = problemOfMode( mount );
   for( auto & e : exports_ ) {
      if( e->id == id ) reason = "the number is in use";
   }
   if( reason.empty() && exports_.size() >= mostMounts_ ) {
      reason = "more than " + std::to_string( mostMounts_ ) + " mounts";
   }
   bool allowed = reason.empty();
   if( allowed && !callOut( [&] { allowed = owner_.allows( mount, reason ); } ) ) return;
   if( !allowed ) {
      refuse( id, reason );
      return;
   }
   exports_.push_back( std::make_unique< Export >( id, mount ) );
   Export & wanted = *exports_.back();
   if( mount.mode() == "w" ) {
      adapter_.peerWritesIs( true );
      roleIs();
   }
   look( wanted );
   if( !wanted.root && !wanted.refused ) adapter_.exportAbsent( id );
}

/// Exports what stands at the path, if that is not what is exported already.
void
Session::look( Export & wanted ) {
   if( wanted.refused ) return;
   // Every directory on the way is watched, those that are not there yet through the one above.
   std::vector< Entity::Ptr > way{ root_ };
   std::string_view path = wanted.mount.path().view();
   while( !path.empty() && way.back() ) {
      size_t slash = path.find( '/' );
      way.push_back( way.back()->entity( Zek::String( path.substr( 0, slash ) ) ) );
      path = slash == std::string_view::npos ? std::string_view() : path.substr( slash + 1 );
   }
   Entity::Ptr target = path.empty() ? way.back() : nullptr;
   way.pop_back();
   bool sameWay =
      way.size() == wanted.watches.size() &&
      std::equal( way.begin(), way.end(), wanted.watches.begin(),
                  []( auto & directory, auto & watch ) { return watch->notifier() == directory; } );
   if( !sameWay ) {
      wanted.unwatch();
      for( const Entity::Ptr & directory : way ) {
         auto watch = Zek::allocate< DirectoryWatch >( *this, wanted );
         watch->zekIsLogAdaptorIs( true ); // whatever the notifiees before it throw
         watch->notifierIs( directory );
         watch->isRegisteredNotifieeIs( true );
         wanted.watches.push_back( watch );
      }
   }
   if( !target || target.ptr() == wanted.root ) return;
   std::string_view typeName = target->fwkType()->fullName;
   if( wanted.mount.typeName() != typeName ) {
      refuse( wanted.id, "'" + wanted.mount.path().toString() + "' is " + std::string( typeName ) +
                            ", expected " + wanted.mount.typeName().toString() );
      wanted.refused = true;
      return;
   }
   if( !target->zekHasAttrLogInterface() ) {
      refuse( wanted.id, "'" + wanted.mount.path().toString() + "' is " + std::string( typeName ) +
                            ", which cannot be streamed" );
      wanted.refused = true;
      return;
   }
   uint32_t flags = Sa::withMembers;
   if( wanted.mount.mode() != "ri" ) flags |= Sa::deep;
   if( wanted.mount.mode() != "ri" && !wanted.mount.filter().structureOnly() ) {
      flags |= Sa::withContent;
   }
   if( wanted.mount.mode() == "w" ) flags |= Sa::fromPeer;
   wanted.root = target.ptr();
   adapter_.exportIs( wanted.id, *target, flags );
}

void
Session::onExportGone( uint32_t exportId ) {
   for( auto & e : exports_ ) {
      if( e->id == exportId ) e->root = nullptr;
   }
}

} // namespace Kelmo
