// What the kernel says about its interfaces, as plain values.
//
// The model knows nothing of sockets, records or observers: messages are applied to it, and each
// operation answers whether anything became different. Interfaces are held by interface index,
// because that is how the kernel's messages speak. An address or a configuration message may come
// before the message about its link, so an interface can be known in part: only one whose
// `present` is true has been named by the kernel.
//
// Two fields need more than one message: the VRF (the interface's master, if that is a VRF device)
// and the effective configuration (the interface's own values and those for "all"). refresh()
// derives them; whoever applies messages calls it.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Ipstated {

/// The IFA_PROTO by which addresses of this agent are known; none of the kernel's own.
inline constexpr uint8_t addressTag = 105;

/// An IPv4 address as a number, first byte highest.
using RawIp4 = uint32_t;

/// An IPv6 address in network order.
using RawIp6 = std::array< uint8_t, 16 >;

/// The VRF of an interface that no VRF device holds.
inline constexpr std::string_view defaultVrf = "default";

struct Ip4Address {
   RawIp4 local = 0;
   RawIp4 peer = 0; ///< equals `local` unless the other end of the link was named
   uint8_t prefixLength = 0;
   uint8_t scope = 0;  ///< the kernel's route scope: 0 universe, 253 link, 254 host
   uint32_t flags = 0; ///< IFA_F_...
   uint8_t proto = 0;  ///< who set it, as IFA_PROTO says; 0 where nobody did
   std::string label;

   bool primary() const;

   /// The kernel allows one address of this identity on an interface.
   bool sameObject( const Ip4Address & other ) const {
      return local == other.local && peer == other.peer && prefixLength == other.prefixLength;
   }

   bool operator==( const Ip4Address & other ) const = default;
};

struct Ip6Address {
   RawIp6 address{};
   uint8_t prefixLength = 0;
   uint8_t scope = 0;
   uint32_t flags = 0; ///< IFA_F_...
   uint8_t proto = 0;

   /// False while duplicate address detection has neither passed nor failed.
   bool settled() const;
   bool dadFailed() const;

   /// The kernel allows an IPv6 address once on an interface, whatever its prefix length.
   bool sameObject( const Ip6Address & other ) const { return address == other.address; }

   bool operator==( const Ip6Address & other ) const = default;
};

struct Ip4Config {
   bool forwarding = false;
   uint8_t rpFilter = 0; ///< 0 off, 1 strict, 2 loose
   bool bcForwarding = false;

   bool operator==( const Ip4Config & other ) const = default;
};

struct Ip6Config {
   bool forwarding = false;
   int acceptDad = 0;
   bool enhancedDad = false;
   uint32_t retransTime = 0; ///< milliseconds

   bool operator==( const Ip6Config & other ) const = default;
};

/// What the kernel says of the link itself. No record has a place for it; it is shown beside them.
struct LinkFacts {
   uint8_t state = 0;   ///< IF_OPER_...
   uint32_t mtu = 0;    ///< bytes
   std::string address; ///< of the hardware, as bytes; empty where it has none
   std::string kind;    ///< "veth", "vlan", "bridge"; empty for what is made of hardware

   /// "UP", "DOWN", "UNKNOWN", as ip(8) says.
   const char * stateText() const;
   /// "02:00:00:00:00:01"
   std::string addressText() const;

   bool operator==( const LinkFacts & other ) const = default;
};

struct Interface {
   int index = 0;
   bool present = false; ///< the kernel has told its name
   std::string name;
   uint32_t flags = 0; ///< IFF_...
   LinkFacts link;
   bool isVrf = false;
   uint32_t table = 0; ///< routing table, of a VRF device
   int master = 0;     ///< interface index of the device that holds this one, 0 for none

   Ip4Config own4; ///< as set for this interface
   Ip6Config own6;
   bool acceptDadTold = false; ///< `own6.acceptDad` is the kernel's

   std::vector< Ip4Address > addresses4; ///< in the kernel's order
   std::vector< Ip6Address > addresses6;
   std::vector< RawIp4 > groups4;
   std::vector< RawIp6 > groups6;

   // Derived by KernelState::refresh().
   std::string vrf{ defaultVrf };
   Ip4Config config4; ///< in effect: own values and those for "all" taken together
   Ip6Config config6;

   bool up() const;
   bool noArp() const;

   /// The first primary IPv4 address in the kernel's order, null when there is none; valid until
   /// the interface changes.
   const Ip4Address * primary4() const;
};

/// What an operation on the model found.
enum class Difference { none, added, changed, removed };

class KernelState {
 public:
   /// Interfaces by index; one without `present` is only partly known.
   const std::map< int, Interface > & interfaces() const { return interfaces_; }

   /// Null when unknown; valid until the interface is removed.
   const Interface * find( int index ) const;
   Interface * find( int index );

   /// The present interface of that name, null when there is none.
   const Interface * findByName( const std::string & name ) const;

   /// The interface of that index, made (not present) when it is unknown.
   Interface & at( int index );

   /// Makes the interface present under `name`, or renames it. REQUIRES: no other present
   /// interface has that name.
   void nameIs( Interface & interface, const std::string & name );

   /// Makes the interface not present; what is known of it stays.
   void unname( Interface & interface );

   void remove( int index );

   /// Values that hold for all interfaces.
   Ip4Config all4;
   Ip6Config all6;

   /// Derives `vrf`, `config4` and `config6`; true if any of them became different.
   bool refresh( Interface & interface ) const;
   void refreshAll();

   /// Whether the address, as told, is one of the interface's: not while it awaits the end of
   /// duplicate address detection. Where the kernel detects no duplicates it marks new addresses
   /// all the same, until deferred work of its own has come round to them, but cannot refuse them
   /// any more: they count at once.
   bool isInUse( const Interface & interface, const Ip6Address & address ) const;

   template< class Function >
   void forEach( Function function ) {
      for( auto & entry : interfaces_ ) {
         function( entry.second );
      }
   }

 private:
   std::map< int, Interface > interfaces_;
   std::unordered_map< std::string, int > byName_;
};

/// Adds or replaces an address where the kernel puts it: a new or promoted primary behind the last
/// primary whose scope is not smaller (so one of link scope comes before all global ones), a
/// secondary at the end. `*promoted` becomes true when a secondary became a primary; kernels
/// differ in where they put that one.
Difference addAddress( Interface & interface, const Ip4Address & address,
                       bool * promoted = nullptr );
Difference removeAddress( Interface & interface, const Ip4Address & address );

Difference addAddress( Interface & interface, const Ip6Address & address );
Difference removeAddress( Interface & interface, const Ip6Address & address );

Difference addGroup( Interface & interface, RawIp4 group );
Difference removeGroup( Interface & interface, RawIp4 group );
Difference addGroup( Interface & interface, const RawIp6 & group );
Difference removeGroup( Interface & interface, const RawIp6 & group );

/// The addresses of two dumps of one interface taken together: `later` as it stands, and those of
/// `earlier` that it lacks, each behind the one that it followed. An interrupted dump can leave
/// entries out; what vanished meanwhile is told by an event.
std::vector< Ip4Address > mergeDumps( const std::vector< Ip4Address > & earlier,
                                      const std::vector< Ip4Address > & later );

} // namespace Ipstated
