// Keeps the kernel's addresses in agreement with the configuration records.
//
// What the configuration of an interface wants: of IPv4, `addrWithMask`, the virtual address, and
// the secondary and virtual secondary ones whose flag is set; a single address of the interface
// named by `unnumberedIntfId` where it has no primary one of its own; of IPv6, `addr` and
// `linkLocalAddrWithMask`. An interface that is not in the VRF of its configuration gets none.
//
// What is wanted is installed, and becomes Apply's own by that, even where the kernel had it
// before. What is its own and not wanted any more is removed. All else in the kernel is left alone.
// Addresses are installed with a tag by which an agent that keeps its configuration knows its own
// again after a restart; where the kernel knows no tags, by a list that it keeps.
//
// Requests are believed no further than their answer: only the kernel's events say that an address
// is there or gone. One that is wanted and goes (removing a primary takes the secondaries of its
// subnet along) is installed again. The kernel decides by its own order which one of a subnet is
// the primary; of those installed together, the configured primary comes first.
//
// Callbacks of records and of the feed only note which address may be in disagreement; serve()
// works that off, a bounded number at a time, and costs the same for each, however many addresses
// the interface has. What cannot be done is told in words, by interface, in Ip::IpConfigError,
// those of IPv6 too.

#pragma once

#include "agents/ipstated/AddressWriter.h"
#include "agents/ipstated/KernelFeed.h"

#include "Ip/Ip.h"
#include "Ip6/Ip6.h"
#include "framework/Ptr.h"

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace Ipstated {

class Apply : public KernelObserver {
 public:
   using Time = KernelFeed::Time;

   struct Options {
      /// Addresses looked at in one call of serve(), lest events wait too long to be read.
      size_t mostPerTurn = 256;
      /// Before trying again what the kernel refused or never told of.
      KernelFeed::Duration retryDelay = std::chrono::seconds( 10 );
      /// Whether an interface of that name may be configured; empty: each.
      std::function< bool( const std::string & name ) > covers{};
      /// With which addresses are installed; 0: none.
      uint8_t tag = addressTag;
      /// What the kernel has with that tag is its own from an earlier run.
      bool recognises = false;
   };

   /// An address of its own, as a list keeps it.
   struct Owned {
      std::string intf;
      std::string address;
   };

   struct Statistics {
      uint64_t installed = 0; ///< requests that the kernel took
      uint64_t removed = 0;
      uint64_t refused = 0;                       ///< those that it refused
      std::map< std::string, uint64_t > refusals; ///< by the kernel's reason
   };

   /// Make it before the feed starts, which must tell it everything. `state` is the feed's.
   Apply( Ip::Config::PtrConst config4, Ip6::Config::PtrConst config6,
          Ip::IpConfigError::Ptr errors, const KernelState & state );
   Apply( Ip::Config::PtrConst config4, Ip6::Config::PtrConst config6,
          Ip::IpConfigError::Ptr errors, const KernelState & state, const Options & options );
   /// Removes nothing from the kernel.
   ~Apply() override;
   Apply( const Apply & ) = delete;
   Apply & operator=( const Apply & ) = delete;

   /// Brings some of what disagrees into agreement.
   void serve( Time now );
   /// When serve() wants to be called; none while all is at rest.
   std::optional< Time > deadline() const;

   /// Which interfaces may be configured is to be asked anew.
   void coverageChanged();
   /// Its own from an earlier run, if the kernel has it: before the feed tells of it.
   void ownIs( const Owned & owned );
   /// What is its own.
   std::vector< Owned > owned() const;

   /// Interfaces with something to look at.
   size_t queued() const { return queue_.size(); }
   const Statistics & statistics() const { return statistics_; }

   void onInterface( const Interface & interface ) override;
   void onInterfaceGone( const Interface & interface ) override;
   void onVrf( const Interface & interface, const std::string & before ) override;
   void onFlags( const Interface & interface ) override;
   void onAddress4( const Interface & interface, const Ip4Address & address,
                    Difference difference ) override;
   void onAddress6( const Interface & interface, const Ip6Address & address,
                    Difference difference ) override;
   void onPrimary4( const Interface & interface ) override;
   void onSynchronized() override;

 private:
   template< class Key >
   struct Book;
   struct Intf;
   struct ConfigWatch4;
   struct ConfigWatch6;
   struct DirectoryWatch4;
   struct DirectoryWatch6;

   using Key4 = Velon::IpAddrWithMask;
   using Key6 = Velon::Ip6AddrWithMask;

   Intf & intf( Velon::IntfId id );
   Intf * known( Velon::IntfId id );

   void directoryChanged( const Ip::Config & directory, Velon::IntfId id );
   void directoryChanged( const Ip6::Config & directory, Velon::IntfId id );
   void lenderIs( Intf & borrower, Velon::IntfId lender );
   template< class Key, class Address >
   void told( Intf & intf, const Key & key, Difference difference, const Address & address,
              bool dadFailed );

   void queue( Intf & intf );
   template< class Key >
   void touch( Intf & intf, Book< Key > & book, const Key & key );
   template< class Key >
   void touchAll( Intf & intf, Book< Key > & book );
   void touchAll( Intf & intf );
   template< class Key >
   void touchUnsettled( Intf & intf, Book< Key > & book );
   void touchBorrowers( const Intf & lender );
   void touchRivals( Intf & intf, const Key4 & key );
   void touchRivals( Intf & intf, const Key6 & key );
   void touchWanted( Intf & intf, Book< Key4 > & book );
   void touchWanted( Intf & intf, Book< Key6 > & book );

   std::optional< Key4 > borrowed( const Intf & intf );
   bool covers( const Intf & intf ) const;
   bool isWanted( const Intf & intf, const Key4 & key );
   bool isWanted( const Intf & intf, const Key6 & key );
   static std::string rivalOf( const Intf & intf, const Key4 & key );
   static std::string rivalOf( const Intf & intf, const Key6 & key );

   template< class Key >
   size_t work( Intf & intf, Book< Key > & book, size_t most, Time now );
   template< class Key >
   void removeIfUnwanted( Intf & intf, Book< Key > & book, unsigned index, const Key & key,
                          Time now );
   template< class Key >
   void installIfWanted( Intf & intf, Book< Key > & book, unsigned index, const Key & key,
                         Time now );
   std::string install( unsigned index, const Key4 & key, Ip::IpAddrScope scope );
   std::string install( unsigned index, const Key6 & key, Ip::IpAddrScope scope );
   void retry( Time now );
   void count( uint64_t Statistics::*done, const std::string & refusal );

   std::vector< std::string > conditionsOf( const Intf & intf );
   void writeErrors( const Intf & intf );

   const Ip::IpConfigError::Ptr errors_;
   const KernelState & state_;
   const Options options_;
   AddressWriter writer_;
   // Ordered: writers choose the names, and so the hashes.
   std::map< Velon::IntfId, std::unique_ptr< Intf > > intfs_;
   std::map< Velon::IntfId, std::set< Velon::IntfId > > borrowers_; ///< by lender
   std::deque< Intf * > queue_;
   std::optional< Time > retryAt_;
   Statistics statistics_;
   std::set< std::pair< std::string, std::string > > remembered_; ///< own, not seen yet
   Zek::Ptr< DirectoryWatch4 > watch4_;
   Zek::Ptr< DirectoryWatch6 > watch6_;
};

} // namespace Ipstated
