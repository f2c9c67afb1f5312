#include "agents/ipstated/Apply.h"

#include <algorithm>
#include <functional>
#include <map>
#include <type_traits>
#include <utility>

namespace Ipstated {

namespace {

using Key4 = Velon::IpAddrWithMask;
using Key6 = Velon::Ip6AddrWithMask;

/// A notifiee counted under a name of its own.
template< class N >
class Watching : public N {
 public:
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline constinit Zek::AllocTrackTypeInfo allocTrackTypeInfo_{
      "Ipstated::Watching", sizeof( N ) + 3 * sizeof( void * )
   };
};

/// Made, attached and registered.
template< class W, class Record, class... Arguments >
Zek::Ptr< W >
watching( const Record & record, Arguments &&... arguments ) {
   auto watch = Zek::allocate< W >( std::forward< Arguments >( arguments )... );
   watch->notifierIs( &record );
   watch->isRegisteredNotifieeIs( true );
   return watch;
}

class VrfWatch final : public Watching< L3::Intf::Config::NotifieeConst > {
 public:
   explicit VrfWatch( std::function< void() > changed ) : changed_( std::move( changed ) ) {}
   void onVrf() override { changed_(); }

 private:
   const std::function< void() > changed_;
};

/// What follows the VRF of a configuration, if it has one.
template< class Config >
Zek::Ptr< VrfWatch >
vrfWatch( const Config & config, std::function< void() > changed ) {
   const auto l3Config = config.l3Config();
   return l3Config ? watching< VrfWatch >( *l3Config, std::move( changed ) ) : nullptr;
}

bool
hasAddresses( const Ip::IpIntfConfig & config ) {
   return config.addrWithMask() || config.virtualAddrWithMask() || config.unnumberedIntfId() ||
          config.secondaryWithMaskCount() > 0 || config.virtualSecondaryWithMaskCount() > 0;
}

bool
hasAddresses( const Ip6::IntfConfig & config ) {
   return config.linkLocalAddrWithMask() || config.addrCount() > 0;
}

/// Why no interface may have that address; empty when one may.
template< class Key >
std::string
faultOf( const Key & key ) {
   constexpr unsigned most = std::remove_cvref_t< decltype( key.addr() ) >::bits;
   if( key.len() < 1 || key.len() > most ) {
      return "a prefix length from 1 to " + std::to_string( most ) + " expected";
   }
   bool possible = !key.addr().isUnspecified() && !key.addr().isMulticast();
   if constexpr( std::is_same_v< Key, Key4 > ) {
      possible = possible && !key.addr().isBroadcast();
   }
   return possible ? "" : "no interface may have this address";
}

} // namespace

// -- What is known ----------------------------------------------------------------------------

/// The addresses of one family on one interface.
template< class Key >
struct Apply::Book {
   struct Entry {
      bool queued = false;
      bool present = false;                              ///< says the kernel
      bool dadFailed = false;                            ///< says the kernel
      bool installed = false;                            ///< by us
      bool pending = false;                              ///< installed, the event has not come
      bool leaving = false;                              ///< removed by us, the event has not come
      Ip::IpAddrScope scope = Ip::IpAddrScope::universe; ///< with which it was installed

      bool isThere() const { return present && !leaving; }
   };

   bool done() const { return !all && queue.empty(); }

   std::map< Key, Entry > entries;
   std::deque< Key > queue;             ///< to be looked at
   bool all = false;                    ///< all others too
   std::map< Key, std::string > errors; ///< of the kernel and of ours
};

struct Apply::Intf {
   explicit Intf( Velon::IntfId id ) : id( id ) {}

   Book< Key4 > & book( const Key4 & ) { return book4; }
   Book< Key6 > & book( const Key6 & ) { return book6; }

   const Velon::IntfId id;
   bool queued = false;
   bool present = false; ///< the kernel has it
   std::string vrf;
   std::optional< Velon::IpAddr > primary; ///< what others may borrow
   Velon::IntfId lender;
   Ip::IpIntfConfig::PtrConst config4;
   Ip6::IntfConfig::PtrConst config6;
   Zek::Ptr< ConfigWatch4 > watch4;
   Zek::Ptr< ConfigWatch6 > watch6;
   Book< Key4 > book4;
   Book< Key6 > book6;
};

Apply::Intf &
Apply::intf( Velon::IntfId id ) {
   auto & place = intfs_[id];
   if( !place ) {
      place = std::make_unique< Intf >( id );
   }
   return *place;
}

Apply::Intf *
Apply::known( Velon::IntfId id ) {
   auto found = intfs_.find( id );
   return found == intfs_.end() ? nullptr : found->second.get();
}

// -- Following the configuration --------------------------------------------------------------

struct Apply::ConfigWatch4 final : Watching< Ip::IpIntfConfig::NotifieeConst > {
   ConfigWatch4( Apply & apply, Intf & intf ) : apply( apply ), intf( intf ) { follow(); }

   void follow() {
      vrf = vrfWatch( *intf.config4, [this] { all(); } );
      apply.lenderIs( intf, intf.config4->unnumberedIntfId() );
      all();
   }
   void all() { apply.touchAll( intf, intf.book4 ); }

   void onAddrWithMask() override { all(); }
   void onAddrSource() override { all(); }
   void onVirtualAddrWithMask() override { all(); }
   void onScope() override { all(); }
   void onL3Config() override { follow(); }
   void onUnnumberedIntfId() override { follow(); }
   void onSecondaryWithMask( const Key4 & key ) override { apply.touch( intf, intf.book4, key ); }
   void onVirtualSecondaryWithMask( const Key4 & key ) override {
      apply.touch( intf, intf.book4, key );
   }

   Apply & apply;
   Intf & intf;
   Zek::Ptr< VrfWatch > vrf;
};

struct Apply::ConfigWatch6 final : Watching< Ip6::IntfConfig::NotifieeConst > {
   ConfigWatch6( Apply & apply, Intf & intf ) : apply( apply ), intf( intf ) { follow(); }

   void follow() {
      vrf = vrfWatch( *intf.config6, [this] { all(); } );
      all();
   }
   void all() { apply.touchAll( intf, intf.book6 ); }

   void onLinkLocalAddrWithMask() override { all(); }
   void onL3Config() override { follow(); }
   void onAddr( const Key6 & key ) override { apply.touch( intf, intf.book6, key ); }

   Apply & apply;
   Intf & intf;
   Zek::Ptr< VrfWatch > vrf;
};

struct Apply::DirectoryWatch4 final : Watching< Ip::Config::NotifieeConst > {
   explicit DirectoryWatch4( Apply & apply ) : apply( apply ) {}
   void onIpIntfConfig( const Velon::IntfId & id ) override {
      apply.directoryChanged( *notifier(), id );
   }
   Apply & apply;
};

struct Apply::DirectoryWatch6 final : Watching< Ip6::Config::NotifieeConst > {
   explicit DirectoryWatch6( Apply & apply ) : apply( apply ) {}
   void onIntf( const Velon::IntfId & id ) override { apply.directoryChanged( *notifier(), id ); }
   Apply & apply;
};

Apply::Apply( Ip::Config::PtrConst config4, Ip6::Config::PtrConst config6,
              Ip::IpConfigError::Ptr errors, const KernelState & state )
   : Apply( std::move( config4 ), std::move( config6 ), std::move( errors ), state, Options() ) {}

Apply::Apply( Ip::Config::PtrConst config4, Ip6::Config::PtrConst config6,
              Ip::IpConfigError::Ptr errors, const KernelState & state, const Options & options )
   : errors_( std::move( errors ) ),
     state_( state ),
     options_( options ),
     writer_( options.tag ) {
   watch4_ = watching< DirectoryWatch4 >( *config4, *this );
   for( auto i = config4->ipIntfConfigIteratorConst(); i; ++i ) {
      directoryChanged( *config4, i.key() );
   }
   watch6_ = watching< DirectoryWatch6 >( *config6, *this );
   for( auto i = config6->intfIteratorConst(); i; ++i ) {
      directoryChanged( *config6, i.key() );
   }
}

Apply::~Apply() = default;

void
Apply::directoryChanged( const Ip::Config & directory, Velon::IntfId id ) {
   Intf & changed = intf( id );
   changed.watch4 = nullptr;
   changed.config4 = directory.ipIntfConfig( id );
   if( changed.config4 ) {
      changed.watch4 = watching< ConfigWatch4 >( *changed.config4, *this, changed );
   } else {
      lenderIs( changed, Velon::IntfId() );
      touchAll( changed, changed.book4 );
   }
}

void
Apply::directoryChanged( const Ip6::Config & directory, Velon::IntfId id ) {
   Intf & changed = intf( id );
   changed.watch6 = nullptr;
   changed.config6 = directory.intf( id );
   if( changed.config6 ) {
      changed.watch6 = watching< ConfigWatch6 >( *changed.config6, *this, changed );
   } else {
      touchAll( changed, changed.book6 );
   }
}

void
Apply::lenderIs( Intf & borrower, Velon::IntfId lender ) {
   if( borrower.lender == lender ) {
      return;
   }
   if( borrower.lender ) {
      auto former = borrowers_.find( borrower.lender );
      former->second.erase( borrower.id );
      if( former->second.empty() ) {
         borrowers_.erase( former );
      }
   }
   if( lender ) {
      borrowers_[lender].insert( borrower.id );
   }
   borrower.lender = lender;
   touchBorrowers( borrower ); // who borrows lends nothing
}

void
Apply::touchBorrowers( const Intf & lender ) {
   auto found = borrowers_.find( lender.id );
   if( found == borrowers_.end() ) {
      return;
   }
   for( Velon::IntfId id : found->second ) {
      Intf & borrower = intf( id );
      touchAll( borrower, borrower.book4 );
   }
}

// -- Following the kernel ---------------------------------------------------------------------

namespace {

Ip::IpAddrScope
scopeOf( const Key4 &, const Ip4Address & address ) {
   return Ip::IpAddrScope( address.scope );
}

Ip::IpAddrScope
scopeOf( const Key6 &, const Ip6Address & ) {
   return Ip::IpAddrScope::universe; // which the kernel knows by itself
}

} // namespace

void
Apply::onInterface( const Interface & interface ) {
   Intf & there = intf( Velon::IntfId( interface.name ) );
   there.present = true;
   there.vrf = interface.vrf;
   for( const Ip4Address & address : interface.addresses4 ) {
      onAddress4( interface, address, Difference::added );
   }
   for( const Ip6Address & address : interface.addresses6 ) {
      onAddress6( interface, address, Difference::added );
   }
   onPrimary4( interface );
   touchAll( there );
}

void
Apply::onInterfaceGone( const Interface & interface ) {
   Intf & gone = intf( Velon::IntfId( interface.name ) );
   gone.present = false;
   gone.book4 = {};
   gone.book6 = {};
   gone.primary.reset();
   touchBorrowers( gone );
   queue( gone );
}

void
Apply::onVrf( const Interface & interface, const std::string & ) {
   Intf & moved = intf( Velon::IntfId( interface.name ) );
   moved.vrf = interface.vrf;
   touchAll( moved );
}

void
Apply::onFlags( const Interface & interface ) {
   // A link that goes down takes IPv6 addresses along, silently those under detection.
   Intf & changed = intf( Velon::IntfId( interface.name ) );
   touchUnsettled( changed, changed.book4 );
   touchUnsettled( changed, changed.book6 );
}

void
Apply::onAddress4( const Interface & interface, const Ip4Address & address,
                   Difference difference ) {
   if( address.peer == address.local ) { // else it is another object, which is never configured
      told( intf( Velon::IntfId( interface.name ) ),
            Key4( Velon::IpAddr( address.local ), address.prefixLength ), difference, address,
            false );
   }
}

void
Apply::onAddress6( const Interface & interface, const Ip6Address & address,
                   Difference difference ) {
   told( intf( Velon::IntfId( interface.name ) ),
         Key6( Velon::Ip6Addr( address.address ), address.prefixLength ), difference, address,
         address.dadFailed() );
}

template< class Key, class Address >
void
Apply::told( Intf & intf, const Key & key, Difference difference, const Address & address,
             bool dadFailed ) {
   Book< Key > & book = intf.book( key );
   auto & entry = book.entries[key];
   entry.present = difference != Difference::removed;
   const bool isTagged = options_.recognises && options_.tag != 0 && address.proto == options_.tag;
   const bool isRemembered =
      !remembered_.empty() && remembered_.erase( { intf.id.toString(), key.toString() } ) > 0;
   if( entry.present && !entry.installed && ( isTagged || isRemembered ) ) {
      entry.installed = true;
      entry.scope = scopeOf( key, address );
   }
   entry.dadFailed = entry.present && dadFailed;
   entry.pending = entry.pending && !entry.present;
   entry.leaving = entry.leaving && difference == Difference::changed;
   touch( intf, book, key );
   if( !entry.present ) {
      touchRivals( intf, key );
   }
}

void
Apply::onPrimary4( const Interface & interface ) {
   Intf & lender = intf( Velon::IntfId( interface.name ) );
   const Ip4Address * first = interface.primary4();
   std::optional< Velon::IpAddr > primary;
   if( first ) {
      primary = Velon::IpAddr( first->local );
   }
   if( std::exchange( lender.primary, primary ) != primary ) {
      touchBorrowers( lender );
   }
}

void
Apply::onSynchronized() {
   remembered_.clear(); // what the kernel has not got is nobody's
   // What came and went while the dump ran is not told.
   auto forget = [&]( Intf & intf, auto & book ) {
      for( auto & [key, entry] : book.entries ) {
         entry.leaving = false;
      }
      touchUnsettled( intf, book );
   };
   for( auto & [id, each] : intfs_ ) {
      forget( *each, each->book4 );
      forget( *each, each->book6 );
   }
}

// -- Noting what to look at -------------------------------------------------------------------

void
Apply::queue( Intf & intf ) {
   if( !std::exchange( intf.queued, true ) ) {
      queue_.push_back( &intf );
   }
}

template< class Key >
void
Apply::touch( Intf & intf, Book< Key > & book, const Key & key ) {
   if( !std::exchange( book.entries[key].queued, true ) ) {
      book.queue.push_back( key );
   }
   queue( intf );
}

template< class Key >
void
Apply::touchAll( Intf & intf, Book< Key > & book ) {
   book.all = true;
   queue( intf );
}

void
Apply::touchAll( Intf & intf ) {
   touchAll( intf, intf.book4 );
   touchAll( intf, intf.book6 );
}

/// What was refused, or never told of.
template< class Key >
void
Apply::touchUnsettled( Intf & intf, Book< Key > & book ) {
   for( auto & [key, entry] : book.entries ) {
      if( std::exchange( entry.pending, false ) ) {
         touch( intf, book, key );
      }
   }
   for( const auto & [key, text] : book.errors ) {
      touch( intf, book, key );
   }
}

// The kernel holds an IPv6 address once, whatever its length: one that goes may make room.
void
Apply::touchRivals( Intf &, const Key4 & ) {}

void
Apply::touchRivals( Intf & intf, const Key6 & key ) {
   auto & entries = intf.book6.entries;
   for( auto i = entries.lower_bound( Key6( key.addr(), 0 ) );
        i != entries.end() && i->first.addr() == key.addr(); ++i ) {
      if( i->first != key ) {
         touch( intf, intf.book6, i->first );
      }
   }
}

// -- What is wanted ---------------------------------------------------------------------------

namespace {

template< class Config >
bool
isInVrf( const Config & config, const std::string & vrf ) {
   const L3::VrfName configured = config.vrf();
   return configured.empty() || configured.view() == vrf;
}

} // namespace

std::optional< Key4 >
Apply::borrowed( const Intf & intf ) {
   if( !intf.lender || intf.config4->addrWithMask() ) {
      return {};
   }
   const Intf * lender = known( intf.lender );
   if( !lender || lender->lender || !lender->primary ) {
      return {};
   }
   return Key4( *lender->primary, Velon::IpAddr::bits );
}

bool
Apply::covers( const Intf & intf ) const {
   return !options_.covers || options_.covers( intf.id.toString() );
}

void
Apply::coverageChanged() {
   for( auto & [id, each] : intfs_ ) {
      touchAll( *each );
   }
}

bool
Apply::isWanted( const Intf & intf, const Key4 & key ) {
   if( !intf.config4 || !isInVrf( *intf.config4, intf.vrf ) || !covers( intf ) ) {
      return false;
   }
   const Ip::IpIntfConfig & config = *intf.config4;
   return ( key && key == config.addrWithMask() &&
            config.addrSource() == Ip::AddrSource::manual ) ||
          ( key && key == config.virtualAddrWithMask() ) || config.secondaryWithMask( key ) ||
          config.virtualSecondaryWithMask( key ) || borrowed( intf ) == key;
}

bool
Apply::isWanted( const Intf & intf, const Key6 & key ) {
   if( !intf.config6 || !isInVrf( *intf.config6, intf.vrf ) || !covers( intf ) ) {
      return false;
   }
   const Ip6::IntfConfig & config = *intf.config6;
   return ( key && key == config.linkLocalAddrWithMask() ) || config.addrHas( key );
}

void
Apply::touchWanted( Intf & intf, Book< Key4 > & book ) {
   if( !intf.config4 ) {
      return;
   }
   const Ip::IpIntfConfig & config = *intf.config4;
   touch( intf, book, config.addrWithMask() );
   touch( intf, book, config.virtualAddrWithMask() );
   if( const auto address = borrowed( intf ) ) {
      touch( intf, book, *address );
   }
   for( auto i = config.secondaryWithMaskIteratorConst(); i; ++i ) {
      touch( intf, book, i.key() );
   }
   for( auto i = config.virtualSecondaryWithMaskIteratorConst(); i; ++i ) {
      touch( intf, book, i.key() );
   }
}

void
Apply::touchWanted( Intf & intf, Book< Key6 > & book ) {
   if( !intf.config6 ) {
      return;
   }
   touch( intf, book, intf.config6->linkLocalAddrWithMask() );
   for( auto i = intf.config6->addrIteratorConst(); i; ++i ) {
      touch( intf, book, i.key() );
   }
}

// -- Bringing into agreement ------------------------------------------------------------------

void
Apply::serve( Time now ) {
   if( retryAt_ && *retryAt_ <= now ) {
      retryAt_.reset();
      for( auto & [id, each] : intfs_ ) {
         touchUnsettled( *each, each->book4 );
         touchUnsettled( *each, each->book6 );
      }
   }
   size_t left = options_.mostPerTurn;
   while( left > 0 && !queue_.empty() ) {
      Intf & next = *queue_.front();
      queue_.pop_front();
      next.queued = false;
      --left; // interfaces without addresses take their time, too
      left -= work( next, next.book4, left, now );
      left -= work( next, next.book6, left, now );
      if( !next.book4.done() || !next.book6.done() ) {
         queue( next );
      }
      writeErrors( next );
      if( !next.queued && !next.present && !next.config4 && !next.config6 ) {
         const Velon::IntfId id = next.id;
         intfs_.erase( id );
      }
   }
}

std::optional< Apply::Time >
Apply::deadline() const {
   return queue_.empty() ? retryAt_ : Time::min();
}

/// Looks at `most` addresses; how many it were.
template< class Key >
size_t
Apply::work( Intf & intf, Book< Key > & book, size_t most, Time now ) {
   const Interface * interface = state_.findByName( intf.id.toString() );
   if( !intf.present || !interface ) {
      // It is told as a whole when it comes.
      book = {};
      return 0;
   }
   if( std::exchange( book.all, false ) ) {
      touchWanted( intf, book );
      for( const auto & [key, entry] : book.entries ) {
         touch( intf, book, key );
      }
   }
   const size_t count = std::min( most, book.queue.size() );
   std::vector< Key > keys( book.queue.begin(), book.queue.begin() + ptrdiff_t( count ) );
   book.queue.erase( book.queue.begin(), book.queue.begin() + ptrdiff_t( count ) );
   const auto index = unsigned( interface->index );
   for( const Key & key : keys ) {
      book.entries[key].queued = false;
      removeIfUnwanted( intf, book, index, key, now );
   }
   for( const Key & key : keys ) {
      installIfWanted( intf, book, index, key, now );
   }
   return count;
}

namespace {

/// With which scope it is to be installed: the kernel knows that of IPv6 addresses by itself.
Ip::IpAddrScope
scopeFor( const Ip::IpIntfConfig::PtrConst & config, const Key4 & ) {
   return config ? config->scope() : Ip::IpAddrScope::universe;
}

Ip::IpAddrScope
scopeFor( const Ip::IpIntfConfig::PtrConst &, const Key6 & ) {
   return Ip::IpAddrScope::universe;
}

} // namespace

template< class Key >
void
Apply::removeIfUnwanted( Intf & intf, Book< Key > & book, unsigned index, const Key & key,
                         Time now ) {
   auto & entry = book.entries[key];
   if( !entry.installed ||
       ( isWanted( intf, key ) && entry.scope == scopeFor( intf.config4, key ) ) ) {
      return;
   }
   const std::string refusal = writer_.remove( index, key );
   count( &Statistics::removed, refusal );
   if( !refusal.empty() ) {
      book.errors[key] = "cannot be removed: " + refusal;
      retry( now );
      return;
   }
   entry.installed = false;
   entry.pending = false;
   entry.leaving = entry.present;
   touchRivals( intf, key );
}

template< class Key >
void
Apply::installIfWanted( Intf & intf, Book< Key > & book, unsigned index, const Key & key,
                        Time now ) {
   auto & entry = book.entries[key];
   const auto scope = scopeFor( intf.config4, key );
   const bool wanted = isWanted( intf, key );
   if( entry.installed && ( !wanted || entry.scope != scope ) ) {
      return; // its removal was refused
   }
   std::string fault;
   if( wanted ) {
      fault = faultOf( key );
      if( fault.empty() ) {
         fault = rivalOf( intf, key );
         if( !fault.empty() && entry.installed && !entry.isThere() ) {
            // It was there before we asked, unseen: the kernel then answers well and does nothing.
            entry.installed = false;
            entry.pending = false;
            touchRivals( intf, key );
         }
      }
      if( fault.empty() && !( entry.installed && ( entry.isThere() || entry.pending ) ) ) {
         fault = install( index, key, scope );
         count( &Statistics::installed, fault );
         entry.installed = fault.empty();
         entry.pending = entry.installed && !entry.isThere();
         entry.scope = scope;
         if( !fault.empty() || entry.pending ) {
            retry( now );
         }
      }
      if( fault.empty() && entry.isThere() && entry.dadFailed ) {
         fault = "another host has this address";
      }
   }
   if( fault.empty() ) {
      book.errors.erase( key );
   } else {
      book.errors[key] = fault;
   }
   if( !wanted && !entry.present ) {
      book.entries.erase( key );
   }
}

std::string
Apply::install( unsigned index, const Key4 & key, Ip::IpAddrScope scope ) {
   return writer_.add( index, key, scope );
}

std::string
Apply::install( unsigned index, const Key6 & key, Ip::IpAddrScope ) {
   return writer_.add( index, key );
}

/// Why another entry of the interface keeps this one out.
std::string
Apply::rivalOf( const Intf &, const Key4 & ) {
   return {};
}

std::string
Apply::rivalOf( const Intf & intf, const Key6 & key ) {
   const auto & entries = intf.book6.entries;
   for( auto i = entries.lower_bound( Key6( key.addr(), 0 ) );
        i != entries.end() && i->first.addr() == key.addr(); ++i ) {
      if( i->first != key && ( i->second.isThere() || i->second.installed ) ) {
         return "the kernel has it with prefix length " + std::to_string( i->first.len() );
      }
   }
   return {};
}

void
Apply::count( uint64_t Statistics::*done, const std::string & refusal ) {
   ++( statistics_.*( refusal.empty() ? done : &Statistics::refused ) );
   // Before the kernel's own words, which may name anything.
   if( !refusal.empty() )
      ++statistics_.refusals[refusal.substr( 0, refusal.find_first_of( ":(" ) )];
}

// -- What is its own --------------------------------------------------------------------------

void
Apply::ownIs( const Owned & owned ) {
   remembered_.emplace( owned.intf, owned.address );
}

std::vector< Apply::Owned >
Apply::owned() const {
   std::vector< Owned > all;
   for( const auto & [intf, address] : remembered_ ) {
      all.push_back( { intf, address } );
   }
   for( const auto & [id, each] : intfs_ ) {
      auto ofFamily = [&, name = id.toString()]( const auto & book ) {
         for( const auto & [key, entry] : book.entries ) {
            if( entry.installed ) all.push_back( { name, key.toString() } );
         }
      };
      ofFamily( each->book4 );
      ofFamily( each->book6 );
   }
   return all;
}

void
Apply::retry( Time now ) {
   if( !retryAt_ ) {
      retryAt_ = now + options_.retryDelay;
   }
}

// -- Telling what is wrong --------------------------------------------------------------------

std::vector< std::string >
Apply::conditionsOf( const Intf & intf ) {
   std::vector< std::string > conditions;
   auto ofFamily = [&]( const auto & config, const char * family ) {
      if( config && intf.present && hasAddresses( *config ) && !isInVrf( *config, intf.vrf ) ) {
         conditions.push_back( "it is in VRF '" + intf.vrf + "', its " + family +
                               " configuration in '" + config->vrf().toString() + "'" );
      }
   };
   if( !intf.present && ( ( intf.config4 && hasAddresses( *intf.config4 ) ) ||
                          ( intf.config6 && hasAddresses( *intf.config6 ) ) ) ) {
      conditions.push_back( "the kernel has no such interface" );
   }
   ofFamily( intf.config4, "IPv4" );
   ofFamily( intf.config6, "IPv6" );
   if( !covers( intf ) && ( ( intf.config4 && hasAddresses( *intf.config4 ) ) ||
                            ( intf.config6 && hasAddresses( *intf.config6 ) ) ) ) {
      conditions.push_back( "this agent is not to configure it" );
   }
   if( intf.config4 && intf.config4->addrSource() == Ip::AddrSource::dhcp ) {
      conditions.push_back( "its primary IPv4 address comes from DHCP: none is installed" );
   }
   if( intf.lender && !intf.config4->addrWithMask() && !borrowed( intf ) ) {
      const Intf * lender = known( intf.lender );
      conditions.push_back( "'" + intf.lender.toString() + "', whose address it borrows, " +
                            ( lender && lender->lender ? "borrows itself" : "has none" ) );
   }
   return conditions;
}

void
Apply::writeErrors( const Intf & intf ) {
   constexpr size_t most = 8; // of each family; a text of thousands helps nobody
   std::vector< std::string > parts = conditionsOf( intf );
   auto ofFamily = [&]( const auto & errors ) {
      size_t told = 0;
      for( auto i = errors.begin(); i != errors.end() && told < most; ++i, ++told ) {
         parts.push_back( i->first.toString() + ": " + i->second );
      }
      if( errors.size() > most ) {
         parts.push_back( "and " + std::to_string( errors.size() - most ) + " more" );
      }
   };
   ofFamily( intf.book4.errors );
   ofFamily( intf.book6.errors );
   std::string text;
   for( const std::string & part : parts ) {
      text += ( text.empty() ? "" : "; " ) + part;
   }
   if( !text.empty() ) {
      errors_->ipIntfConfigErrorIs( intf.id, Zek::String( text ) );
   } else if( errors_->ipIntfConfigErrorHas( intf.id ) ) {
      errors_->ipIntfConfigErrorDel( intf.id );
   }
}

} // namespace Ipstated
