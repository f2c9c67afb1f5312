// One server and one mount group, both attached to one loop: the copy follows what the loop's own
// timer changes, and the group finds a server that came back.

#pragma once

#include "Ip/Ip.h"
#include "platform/Kelmo/Server.h"
#include "platform/Kelmo/SocketMountGroup.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <unistd.h>

namespace LoopTests {

template< class Loop >
class Scenario : public Kelmo::MountGroupOwner {
 public:
   explicit Scenario( Loop & loop ) : loop_( loop ) {
      source_->dirIs( "ip" )->entityIs( status_ );
      record_ = status_->ipIntfStatusIs( ethernet1_, L3::Intf::Status::Ptr() );
      serve();
      group_ = Zek::allocate< Kelmo::SocketMountGroup >( copy_, path_, *this );
      group_->doMount( { "ip/status", "Ip::Input::Status", "r", Kelmo::MountFilter( false ) } );
      groupServed_.emplace( attach( loop_, *group_ ) );
   }
   ~Scenario() override {
      groupServed_.reset();
      serverServed_.reset();
   }

   /// To be called every few milliseconds, by the loop. True when all has been seen.
   bool tick() {
      switch( step_ ) {
      case 0: // the first state is there: change it, and let nothing but the loop tell of it
         if( seen() != 0 || synchronised_ != 1 ) break;
         record_->maxMssEgressIs( 1000 );
         ++step_;
         break;
      case 1:
         if( seen() != 1000 ) break;
         serverServed_.reset();
         server_.reset();
         ++step_;
         break;
      case 2:
         if( lost_ == 0 ) break;
         record_->maxMssEgressIs( 2000 );
         serve();
         ++step_;
         break;
      case 3:
         if( seen() != 2000 ) break;
         EXPECT_EQ( synchronised_, 2 );
         ++step_;
         break;
      }
      if( ++ticks_ == 2000 ) ADD_FAILURE() << "nothing came of step " << step_;
      return step_ == 4 || ticks_ == 2000;
   }

   /// A pause between two ticks, in milliseconds. What is not sent by the loop is found missing by
   /// then: nothing else goes on between two processes that are one.
   static constexpr int pause = 5;

 private:
   void onSynchronised() override { ++synchronised_; }
   void onLost( const std::string & ) override { ++lost_; }

   void serve() {
      server_ = std::make_unique< Kelmo::Server >( source_, path_ );
      serverServed_.emplace( attach( loop_, *server_ ) );
   }
   int seen() const {
      auto copy = dynamic_cast< Ip::Input::Status * >( copy_->entityAt( "ip/status" ).ptr() );
      if( !copy || !copy->ipIntfStatus( ethernet1_ ) ) return -1;
      return copy->ipIntfStatus( ethernet1_ )->maxMssEgress();
   }

   using Attachment =
      decltype( attach( std::declval< Loop & >(), std::declval< Kelmo::Server & >() ) );

   Loop & loop_;
   const std::string path_ =
      std::filesystem::temp_directory_path() / ( "loops-test." + std::to_string( getpid() ) );
   const Velon::IntfId ethernet1_{ "Ethernet1" };
   const Zek::Dir::Ptr source_ = Zek::dirFactory();
   const Zek::Dir::Ptr copy_ = Zek::dirFactory();
   const Ip::Input::Status::Ptr status_ = Ip::Input::statusFactory( "status" );
   Ip::IpIntfStatus::Ptr record_;
   std::unique_ptr< Kelmo::Server > server_;
   Kelmo::SocketMountGroup::Ptr group_;
   std::optional< Attachment > serverServed_, groupServed_;
   int step_ = 0, ticks_ = 0, synchronised_ = 0, lost_ = 0;
};

} // namespace LoopTests
