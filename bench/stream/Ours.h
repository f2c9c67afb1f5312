// The library: a server in the writer, a mount group in the reader.

#pragma once

#include "Ip/Ip.h"
#include "bench/stream/Processes.h"
#include "platform/Kelmo/Server.h"
#include "platform/Kelmo/SocketMountGroup.h"

#include <memory>
#include <poll.h>
#include <vector>

namespace bench {

class Ours {
 public:
   static constexpr const char * name = "ipstate";

   explicit Ours( size_t records ) : child_( [&] { read(); } ) {
      auto status = Ip::Input::statusFactory( "status" );
      root_->entityIs( status );
      for( size_t i = 0; i < records; ++i ) {
         auto record = status->ipIntfStatusIs( Velon::IntfId( intfName( i ).c_str() ),
                                               L3::Intf::Status::Ptr() );
         record->activeAddrWithMaskIs( address( i ) );
         records_.push_back( record );
      }
      server_ = std::make_unique< Kelmo::Server >( root_, directory_ / "socket" );
      shared_->go = 1;
      while( !shared_->synced ) turn( 1 );
   }

   /// Seconds.
   double firstSync() const { return double( shared_->synced ) * 1e-9; }
   double updatesASecond( size_t updates ) {
      const uint64_t before = shared_->received;
      shared_->arrived = 0;
      const uint64_t start = now();
      for( size_t n = 0; n < updates; ) {
         for( const size_t end = n + updatesATurn; n < end; ++n ) {
            if( next_ == records_.size() ) {
               next_ = 0;
               ++value_;
            }
            records_[next_++]->maxMssEgressIs( value_ );
         }
         server_->flush();
         // What waits when there is no room is merged; here every update is to arrive.
         while( server_->waiting() > 16384 ) turn( 1 );
      }
      tell();
      server_->flush();
      while( !shared_->arrived ) turn( 1 );
      if( shared_->received - before != updates + 1 ) {
         std::fprintf( stderr, "%lu of %zu updates arrived\n",
                       static_cast< unsigned long >( shared_->received - before ), updates );
         _exit( 2 );
      }
      return double( updates ) / ( double( shared_->arrived - start ) * 1e-9 );
   }
   double hop() {
      return hopOf( *shared_, [&] {
         tell();
         server_->flush();
      } );
   }

 private:
   static Velon::IpAddrWithMask address( size_t i ) {
      return Velon::IpAddrWithMask( Velon::IpAddr( 0x0a000001 + uint32_t( i ) ), 24 );
   }
   void turn( int milliseconds ) {
      server_->flush();
      pollfd wait{ server_->fd(), POLLIN, 0 };
      if( poll( &wait, 1, milliseconds ) > 0 ) server_->onReadable();
   }
   /// The change that the reader has a callback for.
   void tell() { records_[0]->dpRoutingEnabledIs( told_ = !told_ ); }

   // -- The reader
   struct Watch final : Ip::IpIntfStatus::NotifieeConst {
      explicit Watch( Ours & ours ) : ours_( ours ) {}
      void onDpRoutingEnabled() override {
         const uint64_t time = now();
         ours_.shared_->received = ours_.group_->session().received();
         ours_.shared_->arrived.store( time, std::memory_order_release );
      }
      Zek::AllocTrackTypeInfo & zekAllocTrackTypeInfo() const override {
         return allocTrackTypeInfo_;
      }
      static inline constinit Zek::AllocTrackTypeInfo allocTrackTypeInfo_{ "bench::Ours::Watch",
                                                                           64 };
      Ours & ours_;
   };
   struct Owner final : Kelmo::MountGroupOwner {
      explicit Owner( Ours & ours ) : ours_( ours ) {}
      void onSynchronised() override { synced = now(); }
      void onLost( const std::string & reason ) override { die( reason ); }
      Ours & ours_;
      uint64_t synced = 0;
   };
   void read() {
      Owner owner( *this );
      group_ = Zek::allocate< Kelmo::SocketMountGroup >( root_, directory_ / "socket", owner );
      group_->doMount(
         Kelmo::Mount( "status", "Ip::Input::Status", "r", Kelmo::MountFilter( false ) ) );
      waitFor( shared_->go );
      const uint64_t start = now();
      group_->timePassed( Kelmo::SocketMountGroup::Clock::now() );
      Zek::Ptr< Watch > watch;
      for( ;; ) {
         pollfd wait{ group_->fd(), POLLIN, 0 };
         poll( &wait, 1, -1 );
         group_->onReadable();
         if( watch || !owner.synced ) continue;
         auto status = Zek::ptrCast< Ip::Input::Status >( root_->entityAt( "status" ) );
         watch = Zek::allocate< Watch >( *this );
         watch->notifierIs( status->ipIntfStatus( Velon::IntfId( intfName( 0 ).c_str() ) ) );
         watch->isRegisteredNotifieeIs( true );
         shared_->received = group_->session().received();
         shared_->synced = owner.synced - start;
      }
   }

   Directory directory_;
   Shared * shared_ = Shared::make();
   Zek::Dir::Ptr root_ = Zek::dirFactory();
   Kelmo::SocketMountGroup::Ptr group_;
   std::vector< Ip::IpIntfStatus::Ptr > records_;
   std::unique_ptr< Kelmo::Server > server_;
   Child child_; // forked before there are records
   size_t next_ = 0;
   uint16_t value_ = 1;
   bool told_ = false;
};

} // namespace bench
