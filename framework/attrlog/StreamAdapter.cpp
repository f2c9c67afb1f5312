#include "framework/attrlog/StreamAdapter.h"

#include "framework/attrlog/InParts.h"

#include <algorithm>
#include <utility>

namespace Zek {

using Sa = Entity::ZekNboAttrLogSa;

StreamException::~StreamException() = default;
StreamOwner::~StreamOwner() = default;

// -- The adapter ------------------------------------------------------------------------------

StreamAdapter::StreamAdapter( const Entity::Ptr & root, StreamOwner & owner )
   : root_( root ),
     owner_( owner ),
     out_( *this ),
     in_( *this ) {}

StreamAdapter::~StreamAdapter() {
   end();
}

void
StreamAdapter::end() {
   ++connection_;
   exports_.clear();
   while( first_ ) first_->detachAlone();
   peerWrites_ = false;
   isOver_ = true;
   out_.reset();
   in_.reset();
}

Sa *
StreamAdapter::adaptorOf( const Entity & entity, const StreamAdapter & adapter ) {
   NotifieeList & list = entity.notifieeList();
   for( uint32_t n = 0; auto * notifiee = list.logAdaptor( n ); ++n ) {
      auto * sa = static_cast< Sa * >( notifiee->zekSink() );
      if( sa && &sa->adapter_ == &adapter ) return sa;
   }
   return nullptr;
}

NboAttrLog::Plan &
StreamAdapter::plan( const TypeDescriptor & type ) {
   // Mostly that of the record before.
   if( lastPlan_ && &lastPlan_->type == &type ) return *lastPlan_;
   auto at = plans_.find( &type );
   if( at == plans_.end() ) {
      at = plans_.emplace( &type, std::make_unique< NboAttrLog::Plan >( type ) ).first;
   }
   lastPlan_ = at->second.get();
   return *lastPlan_;
}

Sa *
StreamAdapter::adaptorIs( Entity & entity, uint32_t flags ) {
   if( Sa * present = adaptorOf( entity ) ) {
      present->flagsAdd( flags );
      return present;
   }
   if( !entity.zekHasAttrLogInterface() ) return nullptr;
   const TypeDescriptor * type = entity.fwkType();
   NboAttrLog::Plan & plan = this->plan( *type );
   while( type && !type->attrLogSa ) type = type->base;
   auto make = type ? type->attrLogSa : &makeAttrLogSa< Sa >;
   auto * made = static_cast< Sa * >( make( entity, *this, plan, flags ).release() );
   join( *made ); // the adapter has the reference
   return made;
}

void
StreamAdapter::link( Sa *& first, Sa & sa ) {
   sa.nextSa_ = first;
   sa.linkSa_ = &first;
   if( first ) first->linkSa_ = &sa.nextSa_;
   first = &sa;
}

void
StreamAdapter::unlink( Sa & sa ) {
   *sa.linkSa_ = sa.nextSa_;
   if( sa.nextSa_ ) sa.nextSa_->linkSa_ = sa.linkSa_;
   sa.linkSa_ = nullptr;
   sa.nextSa_ = nullptr;
}

void
StreamAdapter::join( Sa & sa ) {
   link( first_, sa );
   ++adaptors_;
}

void
StreamAdapter::leave( Sa & sa ) {
   in_.unbind( sa );
   bool gone = false;
   for( Export & e : exports_ ) {
      if( e.root != &sa ) continue;
      e.root = nullptr;
      e.rootWaits = false;
      e.absenceWaits = e.goneUntold = gone = true;
   }
   sa.flow_ = nullptr;
   unlink( sa );
   --adaptors_;
   // The entity may be dying: nobody is to hear of it if there is no memory.
   out_.orBreakOff( [&] {
      flowDone( sa );
      if( gone ) writeExports();
   } );
   if( !gone ) return;
   for( size_t i = 0; i < exports_.size(); ++i ) {
      if( std::exchange( exports_[i].goneUntold, false ) ) owner_.onExportGone( exports_[i].id );
   }
}

// -- Exports ----------------------------------------------------------------------------------

StreamAdapter::Export *
StreamAdapter::exported( uint32_t exportId ) {
   for( Export & e : exports_ ) {
      if( e.id == exportId ) return &e;
   }
   return nullptr;
}

StreamAdapter::Export &
StreamAdapter::exportFor( uint32_t exportId ) {
   if( Export * present = exported( exportId ) ) return *present;
   return exports_.emplace_back( Export{ exportId } );
}

namespace {

void
mark( NboAttrLog::Out & out, NboAttrLog::Control mark, uint32_t exportId ) {
   Wire::Encoder body = out.control( mark );
   body.u32( exportId );
   out.controlEnd();
}

} // namespace

/// Says that the export's dump begins, unless it is under way.
void
StreamAdapter::beginDump( Export & e ) {
   if( e.dump == Export::Dump::begun ) return;
   e.dump = Export::Dump::begun;
   mark( out_, NboAttrLog::beginControl, e.id );
}

void
StreamAdapter::exportIs( uint32_t exportId, Entity & entity, uint32_t flags ) {
   Sa * sa = adaptorIs( entity, flags | Sa::sends );
   if( !sa ) {
      throwRangeException( std::string( "'" ) + EntityUriPath( entity ).text() + "' of type " +
                           entity.fwkType()->fullName + " cannot be streamed" );
   }
   Export & e = exportFor( exportId );
   e.root = sa;
   e.rootWaits = true;
   out_.drain();
}

void
StreamAdapter::exportAbsent( uint32_t exportId ) {
   exportFor( exportId ).absenceWaits = true;
   writeExports();
}

/// The root of an export is to be told of again.
void
StreamAdapter::exportAgain( Sa & sa ) {
   for( Export & e : exports_ ) e.rootWaits |= e.root == &sa;
}

bool
StreamAdapter::exportsWait() const {
   return std::any_of( exports_.begin(), exports_.end(),
                       []( auto & e ) { return e.rootWaits || e.absenceWaits; } );
}

/// Says what stands at the exports' paths, while there is room. True when all is said.
bool
StreamAdapter::writeExports() {
   // What is gone first: a root may stand within another.
   for( Export & e : exports_ ) {
      if( !e.absenceWaits ) continue;
      if( !out_.hasSufficientBuffer() ) return false;
      e.absenceWaits = false;
      if( e.dump == Export::Dump::none ) beginDump( e );
      mark( out_, NboAttrLog::noRootControl, e.id );
      endDumps();
   }
   for( Export & e : exports_ ) {
      if( !e.rootWaits ) continue;
      if( !out_.hasSufficientBuffer() ) return false;
      e.rootWaits = false;
      writeRoot( e );
   }
   return true;
}

void
StreamAdapter::writeRoot( Export & e ) {
   Sa & sa = *e.root;
   beginDump( e );
   // Within another export, as its member first: what stood there before is taken away by that.
   out_.announce( *sa.entity_ );
   bool isNew = !sa.announced_;
   sa.doSerializeOrphan( e.id );
   sa.announced_ = true;
   out_.strangers_.exported( *sa.entity_ );
   if( !isNew && sa.dump_ ) return;
   joinDump( sa, e.id );
   sa.flow_->allDirty();
   out_.queue( *sa.flow_ );
}

void
StreamAdapter::joinDump( Sa & sa, uint32_t exportId ) {
   if( sa.dump_ ) return;
   sa.dump_ = exportId;
   if( Export * e = exported( exportId ) ) ++e->pending;
}

void
StreamAdapter::flowDone( Sa & sa ) {
   if( !sa.dump_ ) return;
   Export * e = exported( std::exchange( sa.dump_, 0 ) );
   if( e && --e->pending == 0 ) endDumps();
}

/// Says, in the order of the exports, which dumps are complete: an export within another may
/// have been sent with that.
void
StreamAdapter::endDumps() {
   if( out_.isBroken() ) return;
   for( Export & e : exports_ ) {
      if( e.pending || e.dump == Export::Dump::none ) break;
      if( e.dump == Export::Dump::ended ) continue;
      e.dump = Export::Dump::ended;
      mark( out_, NboAttrLog::endControl, e.id );
   }
}

void
StreamAdapter::reset() {
   ++connection_;
   // There may be no memory, which is why the connection is lost.
   exports_.clear();
   Sa * exportedOnly = nullptr;
   for( Sa * sa = first_; sa; ) {
      Sa * next = sa->nextSa_;
      sa->announced_ = false;
      sa->askedAgain_ = false;
      sa->flowIn_ = 0;
      sa->dump_ = 0;
      // What the peer has mounted in turn is no part of a copy.
      sa->flags_ &= sa->is( Sa::toOwner ) ? ~uint32_t( Sa::fromPeer ) : uint32_t( Sa::readOnly );
      if( sa->is( Sa::toOwner ) ) {
         // Else the owner's state counts, as if it had refused them.
         out_.orBreakOff( [&] { sa->rewriteUnacked(); } );
         if( sa->flow_ ) out_.unqueue( *sa->flow_ );
      } else {
         sa->flow_ = nullptr;
      }
      if( !( sa->flags_ & ( Sa::readOnly | Sa::toOwner ) ) ) {
         unlink( *sa );
         link( exportedOnly, *sa );
      }
      sa = next;
   }
   while( exportedOnly ) exportedOnly->detachAlone();
   out_.reset();
   for( Sa * sa = first_; sa; sa = sa->nextSa_ ) {
      if( sa->flow_ ) out_.unnumber( *sa->flow_ );
   }
   for( auto & [type, plan] : plans_ ) plan->wireType = 0;
   in_.reset();
}

// -- Directories ------------------------------------------------------------------------------

void
StreamAdapter::childIs( Entity & directory, const Entity::Ptr & child ) {
   const AttributeRow & row = *Entity::zekTypeDescriptor_.attribute( entityAttr );
   const String key( child->childKey().view() );
   auto place = [&] { directory.entityIs( child ); };
   if( Sa * sa = adaptorOf( directory ) ) {
      in_.change( *sa, row, &key, child.ptr(), true, place );
   } else {
      in_.guarded( place );
   }
}

void
StreamAdapter::childDel( Entity & directory, const Name & name ) {
   const AttributeRow & row = *Entity::zekTypeDescriptor_.attribute( entityAttr );
   const String key( name.view() );
   if( Sa * sa = adaptorOf( directory ) ) {
      if( in_.mayApply( *sa, row, &key ) ) in_.remove( *sa, row, &key );
   } else {
      in_.guarded( [&] { directory.entityDel( key ); } );
   }
}

} // namespace Zek
