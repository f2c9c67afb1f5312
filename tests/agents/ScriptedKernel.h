// A kernel by script: messages built from the kernel's headers, a source that replays them as
// dumps and events, and an observer that writes down what it is told.
//
// A test says what each dump answers, queues events, and can have the source lose events or mark
// dumps as interrupted; then it reads the lines that the observer heard.

#pragma once

#include "agents/ipstated/KernelFeed.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <deque>
#include <functional>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/ipv6.h>
#include <linux/netconf.h>
#include <linux/rtnetlink.h>
#include <map>
#include <net/if.h>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Ipstated::Scripted {

inline constexpr uint16_t newMulticast = 56;
inline constexpr uint16_t delMulticast = 57;

/// One message under construction; its bytes are complete at any time.
class Message {
 public:
   template< class Fixed >
   Message( uint16_t type, const Fixed & fixed ) {
      nlmsghdr header{};
      header.nlmsg_type = type;
      append( &header, sizeof header );
      append( &fixed, sizeof fixed );
      finish();
   }

   Message & attribute( uint16_t type, const void * bytes, size_t length ) {
      nlattr head{ uint16_t( sizeof( nlattr ) + length ), type };
      append( &head, sizeof head );
      append( bytes, length );
      finish();
      return *this;
   }

   template< class Value >
   Message & value( uint16_t type, const Value & value ) {
      return attribute( type, &value, sizeof value );
   }

   Message & text( uint16_t type, const std::string & text ) {
      return attribute( type, text.c_str(), text.size() + 1 );
   }

   /// The attributes of `inner`, as made by nest().
   Message & nest( uint16_t type, const Message & inner ) {
      return attribute( type, inner.bytes_.data() + sizeof( nlmsghdr ),
                        inner.bytes_.size() - sizeof( nlmsghdr ) );
   }

   static Message nest() {
      struct Nothing {};
      Message message;
      return message;
   }

   Message & flags( uint16_t flags ) {
      header().nlmsg_flags |= flags;
      return *this;
   }

   nlmsghdr & header() { return *reinterpret_cast< nlmsghdr * >( bytes_.data() ); }
   std::vector< char > & bytes() { return bytes_; }
   const std::vector< char > & bytes() const { return bytes_; }

 private:
   Message() : bytes_( sizeof( nlmsghdr ) ) { finish(); }

   void append( const void * from, size_t length ) {
      bytes_.resize( ( bytes_.size() + 3 ) & ~size_t( 3 ) );
      const char * first = static_cast< const char * >( from );
      bytes_.insert( bytes_.end(), first, first + length );
   }

   void finish() {
      bytes_.resize( ( bytes_.size() + 3 ) & ~size_t( 3 ) );
      header().nlmsg_len = uint32_t( bytes_.size() );
   }

   std::vector< char > bytes_;
};

inline in_addr
ip4( const std::string & text ) {
   in_addr address;
   if( inet_pton( AF_INET, text.c_str(), &address ) != 1 ) {
      throw std::invalid_argument( text );
   }
   return address;
}

inline in6_addr
ip6( const std::string & text ) {
   in6_addr address;
   if( inet_pton( AF_INET6, text.c_str(), &address ) != 1 ) {
      throw std::invalid_argument( text );
   }
   return address;
}

/// "10.0.0.1/24" in two parts.
inline std::pair< std::string, uint8_t >
withLength( const std::string & text ) {
   size_t slash = text.find( '/' );
   return { text.substr( 0, slash ), uint8_t( std::stoi( text.substr( slash + 1 ) ) ) };
}

struct Link {
   int index;
   std::string name;
   uint32_t flags = IFF_UP;
   int master = 0;
   uint32_t vrfTable = 0; ///< a VRF device when not 0
   int acceptDad = 1;
};

inline Message
newLink( const Link & link ) {
   ifinfomsg info{};
   info.ifi_index = link.index;
   info.ifi_flags = link.flags;
   Message message( RTM_NEWLINK, info );
   message.text( IFLA_IFNAME, link.name );
   if( link.master ) {
      message.value( IFLA_MASTER, link.master );
   }
   if( link.vrfTable ) {
      Message data = Message::nest();
      data.value( IFLA_VRF_TABLE, link.vrfTable );
      Message kind = Message::nest();
      kind.text( IFLA_INFO_KIND, "vrf" ).nest( IFLA_INFO_DATA, data );
      message.nest( IFLA_LINKINFO, kind );
   }
   std::vector< int32_t > values( DEVCONF_ENHANCED_DAD + 1 );
   values[DEVCONF_ACCEPT_DAD] = link.acceptDad;
   ifla_cacheinfo cache{};
   cache.retrans_time = 1000;
   Message family = Message::nest();
   family.attribute( IFLA_INET6_CONF, values.data(), values.size() * sizeof( int32_t ) );
   family.value( IFLA_INET6_CACHEINFO, cache );
   Message families = Message::nest();
   families.nest( AF_INET6, family );
   return message.nest( IFLA_AF_SPEC, families );
}

inline Message
delLink( int index, const std::string & name ) {
   ifinfomsg info{};
   info.ifi_index = index;
   return Message( RTM_DELLINK, info ).text( IFLA_IFNAME, name );
}

inline Message
address4( uint16_t type, int index, const std::string & text, uint32_t flags = 0,
          uint8_t scope = 0 ) {
   auto [address, length] = withLength( text );
   ifaddrmsg info{};
   info.ifa_family = AF_INET;
   info.ifa_prefixlen = length;
   info.ifa_index = uint32_t( index );
   info.ifa_scope = scope;
   info.ifa_flags = uint8_t( flags );
   Message message( type, info );
   message.value( IFA_ADDRESS, ip4( address ) ).value( IFA_LOCAL, ip4( address ) );
   return message.value( IFA_FLAGS, flags );
}

inline Message
newAddress( int index, const std::string & text, uint32_t flags = 0, uint8_t scope = 0 ) {
   return address4( RTM_NEWADDR, index, text, flags, scope );
}

inline Message
delAddress( int index, const std::string & text ) {
   return address4( RTM_DELADDR, index, text );
}

inline Message
address6( uint16_t type, int index, const std::string & text, uint32_t flags = 0 ) {
   auto [address, length] = withLength( text );
   ifaddrmsg info{};
   info.ifa_family = AF_INET6;
   info.ifa_prefixlen = length;
   info.ifa_index = uint32_t( index );
   Message message( type, info );
   return message.value( IFA_ADDRESS, ip6( address ) ).value( IFA_FLAGS, flags );
}

/// Values below zero are left out.
inline Message
config( int family, int index, int forwarding, int rpFilter = -1, int bcForwarding = -1 ) {
   netconfmsg info{};
   info.ncm_family = uint8_t( family );
   Message message( RTM_NEWNETCONF, info );
   message.value( NETCONFA_IFINDEX, index );
   if( forwarding >= 0 ) {
      message.value( NETCONFA_FORWARDING, forwarding );
   }
   if( rpFilter >= 0 ) {
      message.value( NETCONFA_RP_FILTER, rpFilter );
   }
   if( bcForwarding >= 0 ) {
      message.value( NETCONFA_BC_FORWARDING, bcForwarding );
   }
   return message;
}

inline Message
group4( uint16_t type, int index, const std::string & address ) {
   ifaddrmsg info{};
   info.ifa_family = AF_INET;
   info.ifa_prefixlen = 32;
   info.ifa_index = uint32_t( index );
   return Message( type, info ).value( IFA_MULTICAST, ip4( address ) );
}

using Datagram = std::vector< char >;

inline Datagram
datagram( const std::vector< Message > & messages ) {
   Datagram bytes;
   for( const Message & message : messages ) {
      bytes.insert( bytes.end(), message.bytes().begin(), message.bytes().end() );
   }
   return bytes;
}

/// What one request is answered with.
struct Reply {
   std::vector< Message > messages;
   bool interrupted = false;
   int error = 0; ///< refused with this errno
};

class Source : public MessageSource {
 public:
   int fd() const override { return -1; }

   /// Answers for a dump, one a request; the last one stays. A dump without any is empty.
   std::map< Dump, std::deque< Reply > > dumps;

   /// Runs when a dump is requested, before its answer is made.
   std::function< void( Dump ) > onRequest;

   std::map< KernelText, std::string > texts; ///< others are not offered
   int textError = 0;                         ///< with which every text is refused
   bool groupEvents = true;
   std::vector< Dump > requested;

   /// Events that fit into the reader's buffer.
   size_t capacity = ~size_t( 0 );

   /// Queues an event, or loses it: the kernel tells once that it lost some, and loses all further
   /// ones until the reader has emptied its buffer.
   void event( const Message & message ) {
      if( events_.size() >= capacity && !losing_ ) {
         overrun();
      }
      if( !losing_ ) {
         events_.push_back( datagram( { message } ) );
      }
   }

   /// Loses an event that nobody sees.
   void overrun() { losing_ = lossToTell_ = true; }

   int request( Dump dump, uint32_t sequence ) override {
      requested.push_back( dump );
      if( onRequest ) {
         onRequest( dump );
      }
      std::deque< Reply > & answers = dumps[dump];
      Reply reply = answers.empty() ? Reply{} : answers.front();
      if( answers.size() > 1 ) {
         answers.pop_front();
      }
      replies_.clear();
      if( reply.error ) {
         nlmsgerr error{};
         error.error = -reply.error;
         reply.messages = { Message( NLMSG_ERROR, error ) };
      } else {
         reply.messages.push_back( Message( NLMSG_DONE, int32_t( 0 ) ) );
      }
      for( Message & message : reply.messages ) {
         message.header().nlmsg_seq = sequence;
         if( reply.interrupted ) {
            message.flags( NLM_F_DUMP_INTR );
         }
      }
      // The end comes in a datagram of its own, as the kernel sends it.
      Message last = reply.messages.back();
      reply.messages.pop_back();
      if( !reply.messages.empty() ) {
         replies_.push_back( datagram( reply.messages ) );
      }
      replies_.push_back( datagram( { last } ) );
      return 0;
   }

   void abandonRequest() override { replies_.clear(); }

   Received receiveReply() override {
      if( replies_.empty() ) {
         return {};
      }
      held_ = std::move( replies_.front() );
      replies_.pop_front();
      return { Received::Status::data, held_.data(), held_.size(), 0 };
   }

   Received receiveEvent() override {
      if( std::exchange( lossToTell_, false ) ) {
         return { Received::Status::overrun, nullptr, 0, ENOBUFS };
      }
      if( events_.empty() ) {
         losing_ = false;
         return {};
      }
      heldEvent_ = std::move( events_.front() );
      events_.pop_front();
      return { Received::Status::data, heldEvent_.data(), heldEvent_.size(), 0 };
   }

   bool hasGroupEvents( Dump ) const override { return groupEvents; }

   int readText( KernelText which, std::string & text ) override {
      auto found = texts.find( which );
      if( textError || found == texts.end() ) {
         return textError ? textError : ENOENT;
      }
      text = found->second;
      return 0;
   }

 private:
   std::deque< Datagram > events_;
   bool losing_ = false;
   bool lossToTell_ = false;
   std::deque< Datagram > replies_;
   Datagram held_;
   Datagram heldEvent_;
};

inline std::string
text( RawIp4 address ) {
   in_addr raw{ htonl( address ) };
   char buffer[INET_ADDRSTRLEN];
   return inet_ntop( AF_INET, &raw, buffer, sizeof buffer );
}

inline std::string
text( const RawIp6 & address ) {
   char buffer[INET6_ADDRSTRLEN];
   return inet_ntop( AF_INET6, address.data(), buffer, sizeof buffer );
}

inline std::string
text( const Ip4Address & address ) {
   return text( address.local ) + "/" + std::to_string( address.prefixLength );
}

inline std::string
text( const Ip6Address & address ) {
   return text( address.address ) + "/" + std::to_string( address.prefixLength );
}

inline std::string
mark( Difference difference ) {
   return difference == Difference::added ? "+" : difference == Difference::removed ? "-" : "~";
}

/// Writes a line for everything it hears.
class Listener : public KernelObserver {
 public:
   std::vector< std::string > lines;
   std::vector< std::string > problems;
   int synchronized = 0;

   /// The lines since the last call.
   std::vector< std::string > heard() { return std::exchange( lines, {} ); }

   void onInterface( const Interface & interface ) override {
      std::string line = "+ " + interface.name + " vrf " + interface.vrf;
      for( const Ip4Address & address : interface.addresses4 ) {
         line += " " + text( address );
      }
      for( const Ip6Address & address : interface.addresses6 ) {
         line += " " + text( address );
      }
      lines.push_back( line );
   }

   void onInterfaceGone( const Interface & interface ) override {
      lines.push_back( "- " + interface.name );
   }

   void onVrf( const Interface & interface, const std::string & before ) override {
      lines.push_back( interface.name + " vrf " + before + " > " + interface.vrf );
   }

   void onFlags( const Interface & interface ) override {
      lines.push_back( interface.name + ( interface.up() ? " up" : " down" ) +
                       ( interface.noArp() ? " noarp" : "" ) );
   }

   void onConfig4( const Interface & interface ) override {
      const Ip4Config & config = interface.config4;
      lines.push_back( interface.name + " config4 " + std::to_string( config.forwarding ) + " " +
                       std::to_string( config.rpFilter ) + " " +
                       std::to_string( config.bcForwarding ) );
   }

   void onConfig6( const Interface & interface ) override {
      const Ip6Config & config = interface.config6;
      lines.push_back( interface.name + " config6 " + std::to_string( config.forwarding ) + " " +
                       std::to_string( config.acceptDad ) + " " +
                       std::to_string( config.enhancedDad ) );
   }

   void onAddress4( const Interface & interface, const Ip4Address & address,
                    Difference difference ) override {
      lines.push_back( interface.name + " " + mark( difference ) + text( address ) );
   }

   void onAddress6( const Interface & interface, const Ip6Address & address,
                    Difference difference ) override {
      lines.push_back( interface.name + " " + mark( difference ) + text( address ) +
                       ( address.dadFailed() ? " dadfailed" : "" ) );
   }

   void onPrimary4( const Interface & interface ) override {
      const Ip4Address * primary = interface.primary4();
      lines.push_back( interface.name + " primary " + ( primary ? text( *primary ) : "none" ) );
   }

   void onGroup4( const Interface & interface, RawIp4 group, Difference difference ) override {
      lines.push_back( interface.name + " " + mark( difference ) + "group " + text( group ) );
   }

   void onGroup6( const Interface & interface, const RawIp6 & group,
                  Difference difference ) override {
      lines.push_back( interface.name + " " + mark( difference ) + "group " + text( group ) );
   }

   void onSynchronized() override { ++synchronized; }

   void onProblem( const std::string & text ) override { problems.push_back( text ); }
};

} // namespace Ipstated::Scripted
