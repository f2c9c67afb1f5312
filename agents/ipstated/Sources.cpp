#include "agents/ipstated/Sources.h"
#include "agents/ipstated/Reflect.h"

#include "Ip/SrcIntf.h"
#include "IpGen/IpGenIntfSm.h"
#include "IpGen/IpGenStatusSm.h"
#include "IpGen/SrcGenIntf.h"

#include <algorithm>
#include <map>
#include <memory>
#include <utility>

namespace Ipstated {

namespace {

// -- One registry -----------------------------------------------------------------------------

/// Tells what becomes of one registered record; knows what was told last.
template< class Record >
class Follower final : public Record::NotifieeConst {
 public:
   Follower( const Zek::Ptr< Record > & record, std::string title, const ChangeSink & sink )
      : record_( record ),
        title_( std::move( title ) + "  " + record->intfId().toString() ),
        sink_( sink ) {
      this->notifierIs( record );
      this->isRegisteredNotifieeIs( true );
      onIpAddr();
   }
   const Zek::Ptr< Record > & record() const { return record_; }
   void onIpAddr() override {
      const Velon::IpGenAddr address = record_->ipAddr();
      tell( address ? address.toString() : "none" );
   }
   void tell( const std::string & now ) {
      const std::string before = std::exchange( told_, now );
      if( sink_ ) {
         sink_( { printable( title_ ), printable( before ), printable( now ) } );
      }
   }
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline constinit Zek::AllocTrackTypeInfo allocTrackTypeInfo_{
      "Ipstated::Follower", sizeof( typename Record::NotifieeConst ) + 64
   };

 private:
   const Zek::Ptr< Record > record_;
   const std::string title_;
   const ChangeSink & sink_;
   std::string told_ = "-";
};

class Registry {
 public:
   virtual ~Registry() = default;
   virtual void registerIntf( Velon::IntfId intf ) = 0;
};

/// A registry's machine and what is registered with it, which is unregistered at the end.
template< class Machine, class Record >
class RegistryOf final : public Registry {
 public:
   RegistryOf( const Zek::Ptr< Machine > & machine, std::string title, const ChangeSink & sink )
      : machine_( machine ),
        title_( std::move( title ) ),
        sink_( sink ) {}
   ~RegistryOf() override {
      for( const auto & follower : followers_ ) {
         machine_->unregisterSourceIntf( follower->record() );
         follower->tell( "-" );
      }
   }
   void registerIntf( Velon::IntfId intf ) override {
      followers_.push_back( Zek::allocate< Follower< Record > >(
         machine_->registerSourceIntf( intf ), title_, sink_ ) );
   }

 private:
   const Zek::Ptr< Machine > machine_;
   const std::string title_;
   const ChangeSink & sink_;
   std::vector< Zek::Ptr< Follower< Record > > > followers_;
};

// -- One scope of one family ------------------------------------------------------------------

/// What runs over the system or over one VRF.
class Scope {
 public:
   Scope( const std::string & name, const ChangeSink & sink )
      : title_( "source  " + name + "  " ),
        sink_( sink ) {}

   /// The machine that keeps the view of the registries current.
   void machineIs( Zek::Ptr< const Zek::PtrInterface > machine ) {
      machine_ = std::move( machine );
   }
   template< class Machine >
   void registryIs( const Zek::Ptr< Machine > & machine, const char * name ) {
      using Record = std::remove_cvref_t< decltype( *machine->registerSourceIntf( {} ) ) >;
      registries_.push_back(
         std::make_unique< RegistryOf< Machine, Record > >( machine, title_ + name, sink_ ) );
   }
   void registerIntf( Velon::IntfId intf ) {
      for( const auto & registry : registries_ ) {
         registry->registerIntf( intf );
      }
   }

 private:
   const std::string title_;
   const ChangeSink & sink_;
   // The registries go before their view's machine.
   Zek::Ptr< const Zek::PtrInterface > machine_;
   std::vector< std::unique_ptr< Registry > > registries_;
};

// What the families name differently.

template< class Records >
struct NamesOf;

template<>
struct NamesOf< Ip::Status > {
   static constexpr const char * generic = "generic IPv4";
   static auto view( const Ip::Status & records ) { return IpGen::ipv4StatusFactory( &records ); }
   static auto view( const Ip::VrfIpIntfStatus & records ) {
      return IpGen::ipv4IntfStatusFactory( &records );
   }
   static auto vrf( const Ip::Status & records, const L3::VrfName & name ) {
      return Ip::VrfIpIntfStatus::PtrConst( records.vrfIpIntfStatus( name ) );
   }
   static auto vrfs( const Ip::Status & records ) { return records.vrfIpIntfStatusIteratorConst(); }
   static void ownRegistryIs( Scope & scope, const Ip::Status & records ) {
      scope.registryIs(
         Ip::SourceIntf::sourceIntfSmFactory( Ip::SourceIntf::sourceIntfDirFactory(), &records ),
         "IPv4" );
   }
   static void ownRegistryIs( Scope & scope, const Ip::VrfIpIntfStatus & records ) {
      scope.registryIs(
         Ip::SourceIntf::vrfSourceIntfSmFactory( Ip::SourceIntf::sourceIntfDirFactory(), &records ),
         "IPv4" );
   }
};

template<>
struct NamesOf< Ip6::Status > {
   static constexpr const char * generic = "generic IPv6";
   static auto view( const Ip6::Status & records ) { return IpGen::ipv6StatusFactory( &records ); }
   static auto view( const Ip6::VrfIp6IntfStatus & records ) {
      return IpGen::ipv6IntfStatusFactory( &records );
   }
   static auto vrf( const Ip6::Status & records, const L3::VrfName & name ) {
      return Ip6::VrfIp6IntfStatus::PtrConst( records.vrfIp6IntfStatus( name ) );
   }
   static auto vrfs( const Ip6::Status & records ) {
      return records.vrfIp6IntfStatusIteratorConst();
   }
   // IPv6 has the generic registry alone.
   template< class Records >
   static void ownRegistryIs( Scope &, const Records & ) {}
};

} // namespace

// -- One family -------------------------------------------------------------------------------

/// The system's scope and those of the VRFs, which it hears of from the generic view.
class Sources::Family : public IpGen::Status::NotifieeConst {
 public:
   virtual void registerIntf( Velon::IntfId intf ) = 0;
};

namespace {

template< class Records >
class FamilyOf final : public Sources::Family {
 public:
   FamilyOf( const Records & records, const std::vector< Velon::IntfId > & registered,
             const ChangeSink & sink )
      : records_( &records ),
        registered_( registered ),
        sink_( sink ),
        system_( "system", sink ) {
      const IpGen::Status::Ptr view = Names::view( records );
      system_.machineIs( IpGen::statusSmFactory( view ) );
      Names::ownRegistryIs( system_, records );
      system_.registryIs(
         IpGen::SourceIntf::sourceIntfSmFactory( IpGen::SourceIntf::sourceIntfDirFactory(), view ),
         Names::generic );
      for( auto i = Names::vrfs( records ); i; ++i ) {
         vrfIs( i.key() );
      }
      notifierIs( view );
      isRegisteredNotifieeIs( true );
   }
   void registerIntf( Velon::IntfId intf ) override {
      system_.registerIntf( intf );
      for( auto & [name, scope] : vrfs_ ) {
         scope.registerIntf( intf );
      }
   }
   void onVrfCollectionChanged() override { vrfIs( notifier()->changedVrf() ); }
   Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override { return allocTrackTypeInfo_; }
   static inline constinit Zek::AllocTrackTypeInfo allocTrackTypeInfo_{
      "Ipstated::Family", sizeof( IpGen::Status::NotifieeConst ) + 128
   };

 private:
   using Names = NamesOf< Records >;

   void vrfIs( const L3::VrfName name ) {
      // A record made again under its name is another one.
      vrfs_.erase( name );
      const auto records = Names::vrf( *records_, name );
      if( !records ) {
         return;
      }
      Scope & scope =
         vrfs_.try_emplace( name, "vrf " + std::string( name.view() ), sink_ ).first->second;
      const IpGen::IntfStatus::Ptr view = Names::view( *records );
      scope.machineIs( IpGen::intfSmFactory( view ) );
      Names::ownRegistryIs( scope, *records );
      scope.registryIs( IpGen::SourceIntf::vrfSourceIntfSmFactory(
                           IpGen::SourceIntf::sourceIntfDirFactory(), view ),
                        Names::generic );
      for( Velon::IntfId intf : registered_ ) {
         scope.registerIntf( intf );
      }
   }

   const Zek::Ptr< const Records > records_;
   const std::vector< Velon::IntfId > & registered_;
   const ChangeSink & sink_;
   Scope system_;
   std::map< L3::VrfName, Scope > vrfs_;
};

} // namespace

// -- All of it --------------------------------------------------------------------------------

Sources::Sources( const Ip::Status & ip, const Ip6::Status & ip6, ChangeSink sink )
   : sink_( std::move( sink ) ) {
   families_ = { Zek::allocate< FamilyOf< Ip::Status > >( ip, registered_, sink_ ),
                 Zek::allocate< FamilyOf< Ip6::Status > >( ip6, registered_, sink_ ) };
}

Sources::~Sources() {
   sink_ = nullptr;
}

void
Sources::sourceIntfIs( Velon::IntfId intf ) {
   if( std::find( registered_.begin(), registered_.end(), intf ) != registered_.end() ) {
      return;
   }
   registered_.push_back( intf );
   for( const auto & family : families_ ) {
      family->registerIntf( intf );
   }
}

} // namespace Ipstated
