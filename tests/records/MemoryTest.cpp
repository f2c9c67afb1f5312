// Trees of records when memory runs out, and in two threads at once.

#define OUT_OF_MEMORY_HERE
#include "tests/framework/OutOfMemory.h"

#include "Ip/Ip.h"
#include "tests/records/Records.h"

#include <thread>

using namespace Records;
using Velon::IntfId;

namespace {

std::string
name( const char * stem, int n ) {
   return std::string( stem ) + "-of-more-than-a-few-bytes-" + std::to_string( n );
}

// A directory with so many children; one more comes, in the place of another or a fresh one.
class Directory {
 public:
   Directory( int children, bool replaces ) {
      for( int n = 0; n < children; ++n ) root_->dirIs( name( "child", n ) );
      child_ = Zek::dirFactory( Zek::Name( name( "child", children - replaces ) ) );
      child_->dirIs( "below" );
   }
   std::string state() {
      std::string out = child_->fullName().toString() + ( child_->parent() ? " in " : " out " );
      for( auto i = root_->entityIterator(); i; ++i ) out += i.ptr()->fullName().toString() + " ";
      return out;
   }
   void change() { root_->entityIs( child_ ); }

 private:
   const Zek::Dir::Ptr root_ = Zek::dirFactory();
   Zek::Dir::Ptr child_;
};

// A record with members of its own; one of each kind comes.
class Collections {
 public:
   explicit Collections( int kind ) : kind_( kind ) {
      for( int n = 0; n < 8; ++n ) {
         config_->ipIntfConfigIs( IntfId( name( "Ethernet", n ) ) );
         errors_->ipIntfConfigErrorIs( IntfId( name( "Ethernet", n ) ), "none" );
      }
   }
   std::string state() { return shown( *config_ ) + shown( *errors_ ) + shown( *intf_ ); }
   void change() {
      if( kind_ == 0 ) config_->ipIntfConfigIs( IntfId( "Ethernet" ) );
      if( kind_ == 1 ) errors_->ipIntfConfigErrorIs( IntfId( "Ethernet" ), "overlaps" );
      if( kind_ == 2 ) intf_->secondaryWithMaskIs( Velon::IpAddrWithMask(), true );
      if( kind_ == 3 ) Zek::relayOf( *intf_, sink_ );
   }

 private:
   struct Deaf : Zek::AttributeSink {
      void onAttribute( const Zek::AttributeRow & ) override {}
      void onMember( const Zek::AttributeRow &, const void * ) override {}
   };
   const int kind_;
   Deaf sink_;
   const Ip::Config::Ptr config_ = Ip::configFactory( "config" );
   const Ip::IpConfigError::Ptr errors_ = Ip::ipConfigErrorFactory();
   const Ip::IpIntfConfig::Ptr intf_ = Ip::ipIntfConfigFactory( IntfId() );
};

TEST( WithoutMemory, AChildOrMemberIsAddedOrNothingIs ) {
   for( int children : { 0, 1, 2, 4, 8, 12 } ) {
      OutOfMemory::expectAllOrNothing< Directory >( children, false );
      if( children ) OutOfMemory::expectAllOrNothing< Directory >( children, true );
   }
   for( int kind = 0; kind < 4; ++kind ) OutOfMemory::expectAllOrNothing< Collections >( kind );
}

// What two trees share may be read by both threads; what changes is each thread's own. Run under
// the thread sanitizer too.
TEST( TwoThreads, MayEachHaveTreesOfTheirOwn ) {
   const uint64_t live = OutOfMemory::liveObjects();
   auto work = [] {
      for( int round = 0; round < 20; ++round ) {
         auto root = Zek::dirFactory();
         auto config = Ip::configFactory( "config" );
         root->dirIs( "ip" )->entityIs( config );
         Story story( *config );
         Zek::String text = Ip::nsPrefix();
         for( int n = 0; n < 50; ++n ) {
            auto record = config->ipIntfConfigIs( IntfId( name( "Ethernet", n ) ) );
            record->secondaryWithMaskIs( Velon::IpAddrWithMask(), true );
            record->addrSourceIs( Ip::AddrSource::dhcp );
            text = Ip::nsPrefix() + text;
         }
         EXPECT_EQ( root->entityAt( "ip/config" ), config );
         EXPECT_NE( shown( *config ), "" );
         EXPECT_EQ( text.size(), 51 * Ip::nsPrefix().size() );
         config->ipIntfConfigDelAll();
      }
   };
   std::thread one( work ), two( work );
   one.join();
   two.join();
   EXPECT_EQ( OutOfMemory::liveObjects(), live );
}

} // namespace
