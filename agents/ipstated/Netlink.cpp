#include "agents/ipstated/Netlink.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string_view>
#include <system_error>

#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/ipv6.h>
#include <linux/netconf.h>
#include <linux/rtnetlink.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Ipstated {

namespace {

// Newer than some kernel headers that this builds with.
constexpr uint16_t newMulticast = 56;
constexpr uint16_t delMulticast = 57;
constexpr uint16_t getMulticast = 58;
constexpr uint16_t addressProto = 11; // IFA_PROTO
constexpr int groupIp4Multicast = 37;
constexpr int groupIp6Multicast = 38;

// ---- checked attributes ----

/// An attribute number with its name for reports.
struct Known {
   uint16_t type;
   const char * name;
};

/// The attributes of one message or of one nest: the few asked for, each checked as it is read.
/// The first thing found wrong is remembered in the Reader; from then on every read answers zero.
class Reader {
 public:
   Reader( const char * message, const char * start ) : message_( message ), start_( start ) {}

   bool good() const { return problem_.empty(); }
   const std::string & problem() const { return problem_; }

   void fail( const void * where, const std::string & what ) {
      if( problem_.empty() ) {
         problem_ = std::string( message_ ) + " message: " + what + " at byte " +
                    std::to_string( static_cast< const char * >( where ) - start_ ) +
                    "; message skipped";
      }
   }

 private:
   const char * message_;
   const char * start_;
   std::string problem_;
};

class Attributes {
 public:
   static constexpr size_t maxType = 64;

   /// Finds the attributes among `length` bytes from `first`. Unknown ones are passed over; of
   /// several of one type the last counts.
   Attributes( Reader & reader, const void * first, size_t length ) : reader_( reader ) {
      const char * end = static_cast< const char * >( first ) + length;
      const nlattr * attribute = static_cast< const nlattr * >( first );
      while(
         mnl_attr_ok( attribute, int( end - reinterpret_cast< const char * >( attribute ) ) ) ) {
         uint16_t type = mnl_attr_get_type( attribute );
         if( type < maxType ) {
            table_[type] = attribute;
         }
         attribute = mnl_attr_next( attribute );
      }
      if( reinterpret_cast< const char * >( attribute ) < end ) {
         ptrdiff_t left = end - reinterpret_cast< const char * >( attribute );
         std::string what = "attribute list ends inside an attribute (";
         if( left >= ptrdiff_t( sizeof( nlattr ) ) ) {
            what += "type " + std::to_string( mnl_attr_get_type( attribute ) ) + " of " +
                    std::to_string( attribute->nla_len ) + " bytes, ";
         }
         reader_.fail( attribute, what + std::to_string( left ) + " bytes left)" );
      }
   }

   bool has( Known known ) const { return table_[known.type]; }

   uint32_t u32( Known known ) const {
      uint32_t value = 0;
      copy( known, &value, sizeof value );
      return value;
   }

   uint8_t u8( Known known ) const {
      uint8_t value = 0;
      copy( known, &value, sizeof value );
      return value;
   }

   int32_t s32( Known known ) const {
      int32_t value = 0;
      copy( known, &value, sizeof value );
      return value;
   }

   /// An IPv4 address in network order.
   RawIp4 ip4( Known known ) const {
      std::array< uint8_t, 4 > raw{};
      copy( known, raw.data(), raw.size() );
      return RawIp4( raw[0] ) << 24 | RawIp4( raw[1] ) << 16 | RawIp4( raw[2] ) << 8 |
             RawIp4( raw[3] );
   }

   RawIp6 ip6( Known known ) const {
      RawIp6 raw{};
      copy( known, raw.data(), raw.size() );
      return raw;
   }

   /// A text that ends in a zero byte within the attribute and is at least one byte long, at most
   /// `most`.
   std::string text( Known known, size_t most ) const {
      const nlattr * attribute = table_[known.type];
      if( !attribute ) {
         return {};
      }
      const char * from = static_cast< const char * >( mnl_attr_get_payload( attribute ) );
      size_t room = mnl_attr_get_payload_len( attribute );
      size_t length = strnlen( from, room );
      if( length == room || length == 0 || length > most ) {
         reader_.fail( attribute, std::string( known.name ) + " is not a text of 1 to " +
                                     std::to_string( most ) + " bytes with its zero byte" );
         return {};
      }
      return std::string( from, length );
   }

   /// The payload of an attribute that holds others or an array; empty when it is absent.
   std::pair< const void *, size_t > payload( Known known ) const {
      const nlattr * attribute = table_[known.type];
      if( !attribute ) {
         return { nullptr, 0 };
      }
      return { mnl_attr_get_payload( attribute ), mnl_attr_get_payload_len( attribute ) };
   }

 private:
   void copy( Known known, void * to, size_t size ) const {
      const nlattr * attribute = table_[known.type];
      if( !attribute ) {
         return;
      }
      size_t length = mnl_attr_get_payload_len( attribute );
      if( length != size ) {
         reader_.fail( attribute, std::string( known.name ) + " has " + std::to_string( length ) +
                                     " bytes where " + std::to_string( size ) + " were expected" );
         return;
      }
      memcpy( to, mnl_attr_get_payload( attribute ), size );
   }

   Reader & reader_;
   std::array< const nlattr *, maxType > table_{};
};

Attributes
nested( Reader & reader, const Attributes & outer, Known known ) {
   auto [bytes, length] = outer.payload( known );
   // An absent nest reads as an empty one; the address only has to be a valid one.
   static const nlattr nothing{};
   return Attributes( reader, bytes ? bytes : &nothing, length );
}

constexpr size_t maxInterfaceName = IFNAMSIZ - 1;

// ---- one function a message ----

const char *
messageName( uint16_t type ) {
   switch( type ) {
   case RTM_NEWLINK:
      return "RTM_NEWLINK";
   case RTM_DELLINK:
      return "RTM_DELLINK";
   case RTM_NEWADDR:
      return "RTM_NEWADDR";
   case RTM_DELADDR:
      return "RTM_DELADDR";
   case RTM_NEWNETCONF:
      return "RTM_NEWNETCONF";
   case RTM_DELNETCONF:
      return "RTM_DELNETCONF";
   case newMulticast:
      return "RTM_NEWMULTICAST";
   case delMulticast:
      return "RTM_DELMULTICAST";
   case getMulticast:
      return "RTM_GETMULTICAST";
   default:
      return "netlink";
   }
}

/// The IPv6 nest of a link message: the array of configuration values and the cache information.
void
readIp6Link( Reader & reader, const Attributes & nest, Ip6LinkConfig & config ) {
   auto [values, length] = nest.payload( { IFLA_INET6_CONF, "IFLA_INET6_CONF" } );
   auto valueAt = [&, from = values, size = length]( size_t at ) -> std::optional< int32_t > {
      // The array grows with the kernel: an older one is shorter.
      if( ( at + 1 ) * sizeof( int32_t ) > size ) {
         return std::nullopt;
      }
      int32_t value;
      memcpy( &value, static_cast< const char * >( from ) + at * sizeof value, sizeof value );
      return value;
   };
   config.acceptDad = valueAt( DEVCONF_ACCEPT_DAD );
   if( std::optional< int32_t > enhanced = valueAt( DEVCONF_ENHANCED_DAD ) ) {
      config.enhancedDad = *enhanced != 0;
   }
   auto [cache, cacheLength] = nest.payload( { IFLA_INET6_CACHEINFO, "IFLA_INET6_CACHEINFO" } );
   if( cache ) {
      ifla_cacheinfo info{};
      if( cacheLength < sizeof info ) {
         reader.fail( cache, "IFLA_INET6_CACHEINFO has " + std::to_string( cacheLength ) +
                                " bytes where " + std::to_string( sizeof info ) +
                                " were expected" );
         return;
      }
      memcpy( &info, cache, sizeof info );
      config.retransTime = info.retrans_time;
   }
}

void
readLink( const nlmsghdr * message, Reader & reader, MessageHandler & handler ) {
   const ifinfomsg * info = static_cast< const ifinfomsg * >( mnl_nlmsg_get_payload( message ) );
   LinkMessage link;
   link.gone = message->nlmsg_type == RTM_DELLINK;
   link.index = info->ifi_index;
   link.flags = info->ifi_flags;
   // The bridge tells of its ports by messages of this type in its own family; its "delete" only
   // says that a port left the bridge.
   if( info->ifi_family != AF_UNSPEC && ( info->ifi_family != AF_INET6 || link.gone ) ) {
      return;
   }
   if( info->ifi_index <= 0 ) {
      reader.fail( info, "interface index " + std::to_string( info->ifi_index ) );
      return;
   }
   Attributes attributes( reader, info + 1, mnl_nlmsg_get_payload_len( message ) - sizeof *info );
   if( attributes.has( { IFLA_WIRELESS, "IFLA_WIRELESS" } ) ) {
      return; // names the interface and says nothing else of it
   }
   if( info->ifi_family == AF_INET6 ) {
      link.ip6Only = true;
      readIp6Link( reader, nested( reader, attributes, { IFLA_PROTINFO, "IFLA_PROTINFO" } ),
                   link.config6 );
   } else if( !link.gone ) {
      constexpr Known name{ IFLA_IFNAME, "IFLA_IFNAME" };
      if( !attributes.has( name ) ) {
         reader.fail( info, "no IFLA_IFNAME" );
      }
      link.name = attributes.text( name, maxInterfaceName );
      link.master = attributes.s32( { IFLA_MASTER, "IFLA_MASTER" } );
      Attributes kind = nested( reader, attributes, { IFLA_LINKINFO, "IFLA_LINKINFO" } );
      constexpr Known kindName{ IFLA_INFO_KIND, "IFLA_INFO_KIND" };
      if( kind.has( kindName ) ) {
         link.facts.kind = kind.text( kindName, 255 );
      }
      link.facts.mtu = attributes.u32( { IFLA_MTU, "IFLA_MTU" } );
      if( attributes.has( { IFLA_OPERSTATE, "IFLA_OPERSTATE" } ) ) {
         link.facts.state = attributes.u8( { IFLA_OPERSTATE, "IFLA_OPERSTATE" } );
      }
      const auto [hardware, length] = attributes.payload( { IFLA_ADDRESS, "IFLA_ADDRESS" } );
      link.facts.address.assign( static_cast< const char * >( hardware ), hardware ? length : 0 );
      if( link.facts.kind == "vrf" ) {
         link.isVrf = true;
         link.table = nested( reader, kind, { IFLA_INFO_DATA, "IFLA_INFO_DATA" } )
                         .u32( { IFLA_VRF_TABLE, "IFLA_VRF_TABLE" } );
      }
      Attributes families = nested( reader, attributes, { IFLA_AF_SPEC, "IFLA_AF_SPEC" } );
      readIp6Link( reader, nested( reader, families, { AF_INET6, "AF_INET6" } ), link.config6 );
   }
   if( reader.good() ) {
      handler.onLink( link );
   }
}

void
readAddress( const nlmsghdr * message, Reader & reader, MessageHandler & handler ) {
   const ifaddrmsg * info = static_cast< const ifaddrmsg * >( mnl_nlmsg_get_payload( message ) );
   if( info->ifa_family != AF_INET && info->ifa_family != AF_INET6 ) {
      return;
   }
   bool gone = message->nlmsg_type == RTM_DELADDR;
   bool is4 = info->ifa_family == AF_INET;
   Attributes attributes( reader, info + 1, mnl_nlmsg_get_payload_len( message ) - sizeof *info );
   constexpr Known local{ IFA_LOCAL, "IFA_LOCAL" };
   constexpr Known address{ IFA_ADDRESS, "IFA_ADDRESS" };
   constexpr Known flags{ IFA_FLAGS, "IFA_FLAGS" };
   uint32_t allFlags = attributes.has( flags ) ? attributes.u32( flags ) : info->ifa_flags;
   if( info->ifa_index == 0 || info->ifa_index > uint32_t( INT32_MAX ) ) {
      reader.fail( info, "interface index " + std::to_string( info->ifa_index ) );
   }
   if( info->ifa_prefixlen > ( is4 ? 32 : 128 ) ) {
      reader.fail( info, "prefix length " + std::to_string( info->ifa_prefixlen ) );
   }
   if( !attributes.has( local ) && !attributes.has( address ) ) {
      reader.fail( info, "neither IFA_LOCAL nor IFA_ADDRESS" );
   }
   // With a named other end IFA_LOCAL is this end and IFA_ADDRESS the other one.
   Known mine = attributes.has( local ) ? local : address;
   if( is4 ) {
      AddressMessage< Ip4Address > told;
      told.gone = gone;
      told.index = int( info->ifa_index );
      told.address.local = attributes.ip4( mine );
      told.address.peer =
         attributes.has( address ) ? attributes.ip4( address ) : told.address.local;
      told.address.prefixLength = info->ifa_prefixlen;
      told.address.scope = info->ifa_scope;
      told.address.flags = allFlags;
      told.address.proto = attributes.u8( { addressProto, "IFA_PROTO" } );
      told.address.label = attributes.text( { IFA_LABEL, "IFA_LABEL" }, maxInterfaceName );
      if( reader.good() ) {
         handler.onAddress4( told );
      }
   } else {
      AddressMessage< Ip6Address > told;
      told.gone = gone;
      told.index = int( info->ifa_index );
      told.address.address = attributes.ip6( mine );
      told.address.prefixLength = info->ifa_prefixlen;
      told.address.scope = info->ifa_scope;
      told.address.flags = allFlags;
      told.address.proto = attributes.u8( { addressProto, "IFA_PROTO" } );
      if( reader.good() ) {
         handler.onAddress6( told );
      }
   }
}

void
readConfig( const nlmsghdr * message, Reader & reader, MessageHandler & handler ) {
   const netconfmsg * info = static_cast< const netconfmsg * >( mnl_nlmsg_get_payload( message ) );
   if( info->ncm_family != AF_INET && info->ncm_family != AF_INET6 ) {
      return;
   }
   const char * first =
      static_cast< const char * >( mnl_nlmsg_get_payload( message ) ) + MNL_ALIGN( sizeof *info );
   size_t length = mnl_nlmsg_get_payload_len( message );
   length -= std::min< size_t >( length, MNL_ALIGN( sizeof *info ) );
   Attributes attributes( reader, first, length );
   ConfigMessage config;
   config.gone = message->nlmsg_type == RTM_DELNETCONF;
   constexpr Known index{ NETCONFA_IFINDEX, "NETCONFA_IFINDEX" };
   if( !attributes.has( index ) ) {
      reader.fail( info, "no NETCONFA_IFINDEX" );
   }
   config.index = attributes.s32( index );
   constexpr Known forwarding{ NETCONFA_FORWARDING, "NETCONFA_FORWARDING" };
   constexpr Known rpFilter{ NETCONFA_RP_FILTER, "NETCONFA_RP_FILTER" };
   constexpr Known bcForwarding{ NETCONFA_BC_FORWARDING, "NETCONFA_BC_FORWARDING" };
   if( attributes.has( forwarding ) ) {
      config.forwarding = attributes.s32( forwarding ) != 0;
   }
   if( info->ncm_family == AF_INET ) {
      if( attributes.has( rpFilter ) ) {
         // The switch takes any number: the kernel treats what is neither 0 nor 1 as loose.
         int32_t value = attributes.s32( rpFilter );
         config.rpFilter = value == 0 ? 0 : value == 1 ? 1 : 2;
      }
      if( attributes.has( bcForwarding ) ) {
         config.bcForwarding = attributes.s32( bcForwarding ) != 0;
      }
   }
   if( !reader.good() ) {
      return;
   }
   if( info->ncm_family == AF_INET ) {
      handler.onConfig4( config );
   } else {
      handler.onConfig6( config );
   }
}

void
readGroup( const nlmsghdr * message, Reader & reader, MessageHandler & handler ) {
   const ifaddrmsg * info = static_cast< const ifaddrmsg * >( mnl_nlmsg_get_payload( message ) );
   if( info->ifa_family != AF_INET && info->ifa_family != AF_INET6 ) {
      return;
   }
   Attributes attributes( reader, info + 1, mnl_nlmsg_get_payload_len( message ) - sizeof *info );
   constexpr Known group{ IFA_MULTICAST, "IFA_MULTICAST" };
   if( info->ifa_index == 0 || info->ifa_index > uint32_t( INT32_MAX ) ) {
      reader.fail( info, "interface index " + std::to_string( info->ifa_index ) );
   }
   if( !attributes.has( group ) ) {
      reader.fail( info, "no IFA_MULTICAST" );
   }
   bool gone = message->nlmsg_type == delMulticast;
   if( info->ifa_family == AF_INET ) {
      RawIp4 address = attributes.ip4( group );
      if( reader.good() ) {
         handler.onGroup4( { gone, int( info->ifa_index ), address } );
      }
   } else {
      RawIp6 address = attributes.ip6( group );
      if( reader.good() ) {
         handler.onGroup6( { gone, int( info->ifa_index ), address } );
      }
   }
}

void
readError( const nlmsghdr * message, Reader & reader, MessageHandler & handler ) {
   const nlmsgerr * error = static_cast< const nlmsgerr * >( mnl_nlmsg_get_payload( message ) );
   std::string text;
   if( message->nlmsg_flags & NLM_F_ACK_TLVS ) {
      // The explanation stands behind the request, of which only the header may be repeated.
      size_t repeated = sizeof( int ) + ( message->nlmsg_flags & NLM_F_CAPPED
                                             ? sizeof( nlmsghdr )
                                             : MNL_ALIGN( size_t( error->msg.nlmsg_len ) ) );
      size_t length = mnl_nlmsg_get_payload_len( message );
      if( repeated < length ) {
         Reader lenient( "", "" );
         Attributes attributes( lenient, reinterpret_cast< const char * >( error ) + repeated,
                                length - repeated );
         text = attributes.text( { NLMSGERR_ATTR_MSG, "NLMSGERR_ATTR_MSG" }, 512 );
      }
   }
   // The kernel writes -errno; keep the one number that has no negation out.
   int number = error->error;
   if( number > 0 || number < -4095 ) {
      reader.fail( error, "error number " + std::to_string( number ) );
      return;
   }
   handler.onError( -number, text );
}

/// Bytes of the fixed part behind the header.
size_t
fixedPart( uint16_t type ) {
   switch( type ) {
   case RTM_NEWLINK:
   case RTM_DELLINK:
      return sizeof( ifinfomsg );
   case RTM_NEWADDR:
   case RTM_DELADDR:
   case newMulticast:
   case delMulticast:
   case getMulticast:
      return sizeof( ifaddrmsg );
   case RTM_NEWNETCONF:
   case RTM_DELNETCONF:
      return sizeof( netconfmsg );
   case NLMSG_ERROR:
      return sizeof( nlmsgerr );
   default:
      return 0;
   }
}

void
readMessage( const nlmsghdr * message, const char * start, MessageHandler & handler ) {
   uint16_t type = message->nlmsg_type;
   if( !handler.onHeader( { type, message->nlmsg_flags, message->nlmsg_seq } ) ) {
      return;
   }
   Reader reader( messageName( type ), start );
   size_t length = mnl_nlmsg_get_payload_len( message );
   if( length < fixedPart( type ) ) {
      reader.fail( message, std::to_string( length ) + " bytes behind the header where " +
                               std::to_string( fixedPart( type ) ) + " were expected" );
      handler.onMalformed( reader.problem() );
      return;
   }
   switch( type ) {
   case RTM_NEWLINK:
   case RTM_DELLINK:
      readLink( message, reader, handler );
      break;
   case RTM_NEWADDR:
   case RTM_DELADDR:
      readAddress( message, reader, handler );
      break;
   case RTM_NEWNETCONF:
   case RTM_DELNETCONF:
      readConfig( message, reader, handler );
      break;
   case newMulticast:
   case delMulticast:
   case getMulticast: // the kernel answers a request for groups under the request's own type
      readGroup( message, reader, handler );
      break;
   case NLMSG_DONE: {
      int32_t result = 0;
      if( length >= sizeof result ) {
         memcpy( &result, mnl_nlmsg_get_payload( message ), sizeof result );
      }
      handler.onDone( result < 0 && result >= -4095 ? -result : 0 );
      break;
   }
   case NLMSG_ERROR:
      readError( message, reader, handler );
      break;
   case NLMSG_OVERRUN:
      handler.onOverrun();
      break;
   default:
      break;
   }
   if( !reader.good() ) {
      handler.onMalformed( reader.problem() );
   }
}

} // namespace

bool
MessageHeader::interrupted() const {
   return flags & NLM_F_DUMP_INTR;
}

void
decode( const void * bytes, size_t length, MessageHandler & handler ) {
   std::vector< uint32_t > aligned;
   if( reinterpret_cast< uintptr_t >( bytes ) % alignof( nlmsghdr ) ) {
      aligned.resize( length / sizeof( uint32_t ) + 1 );
      memcpy( aligned.data(), bytes, length );
      bytes = aligned.data();
   }
   // Not libmnl's walk: it takes the length for a signed number, so that one of 2 GB and more
   // passes.
   const char * start = static_cast< const char * >( bytes );
   size_t at = 0;
   while( at < length ) {
      size_t left = length - at;
      const nlmsghdr * message = reinterpret_cast< const nlmsghdr * >( start + at );
      bool header = left >= sizeof( nlmsghdr );
      if( !header || message->nlmsg_len < sizeof( nlmsghdr ) || message->nlmsg_len > left ) {
         std::string what = "netlink datagram: ";
         if( header ) {
            what += "message of " + std::to_string( message->nlmsg_len ) + " bytes where ";
         }
         handler.onMalformed( what + std::to_string( left ) + " are left at byte " +
                              std::to_string( at ) + "; the rest skipped" );
         return;
      }
      readMessage( message, start, handler );
      at += MNL_ALIGN( size_t( message->nlmsg_len ) );
   }
}

// ---- /proc ----

namespace {

/// Calls `line` with each line of `text`, without its end.
template< class Function >
void
forEachLine( std::string_view text, Function line ) {
   while( !text.empty() ) {
      size_t end = std::min( text.find( '\n' ), text.size() );
      line( text.substr( 0, end ) );
      text.remove_prefix( std::min( end + 1, text.size() ) );
   }
}

/// Takes the next word, parted by blanks, off `line`; empty at its end.
std::string_view
takeWord( std::string_view & line ) {
   size_t from = std::min( line.find_first_not_of( " \t" ), line.size() );
   line.remove_prefix( from );
   size_t end = std::min( line.find_first_of( " \t" ), line.size() );
   std::string_view word = line.substr( 0, end );
   line.remove_prefix( end );
   return word;
}

template< class Number >
bool
readNumber( std::string_view word, Number & number, int base ) {
   auto [end, error] = std::from_chars( word.data(), word.data() + word.size(), number, base );
   return error == std::errc() && end == word.data() + word.size() && !word.empty();
}

} // namespace

bool
readIgmp( const std::string & text, std::vector< std::pair< int, RawIp4 > > & groups ) {
   bool good = true;
   bool heading = true;
   int index = 0;
   forEachLine( text, [&]( std::string_view line ) {
      if( heading ) {
         heading = false;
         return;
      }
      // A line for the interface, then one for each of its groups, which begins with blanks.
      if( line.empty() || line[0] != '\t' ) {
         if( !readNumber( takeWord( line ), index, 10 ) || index <= 0 ) {
            index = 0;
            good = false;
         }
         return;
      }
      uint32_t raw;
      std::string_view word = takeWord( line );
      if( index == 0 || word.size() != 8 || !readNumber( word, raw, 16 ) ) {
         good = false;
         return;
      }
      // The kernel prints the network-order word as if it were a number of this machine.
      std::array< uint8_t, 4 > octets;
      memcpy( octets.data(), &raw, sizeof raw );
      groups.emplace_back( index, RawIp4( octets[0] ) << 24 | RawIp4( octets[1] ) << 16 |
                                     RawIp4( octets[2] ) << 8 | RawIp4( octets[3] ) );
   } );
   return good;
}

bool
readIgmp6( const std::string & text, std::vector< std::pair< int, RawIp6 > > & groups ) {
   bool good = true;
   forEachLine( text, [&]( std::string_view line ) {
      int index;
      RawIp6 group{};
      bool fits = readNumber( takeWord( line ), index, 10 ) && index > 0;
      takeWord( line ); // the name; interface names hold no blank
      std::string_view word = takeWord( line );
      fits = fits && word.size() == 2 * group.size();
      for( size_t i = 0; fits && i < group.size(); ++i ) {
         fits = readNumber( word.substr( 2 * i, 2 ), group[i], 16 );
      }
      if( fits ) {
         groups.emplace_back( index, group );
      } else {
         good = false;
      }
   } );
   return good;
}

const char *
dumpName( Dump dump ) {
   switch( dump ) {
   case Dump::links:
      return "links";
   case Dump::addresses4:
      return "IPv4 addresses";
   case Dump::addresses6:
      return "IPv6 addresses";
   case Dump::config4:
      return "IPv4 configuration";
   case Dump::config6:
      return "IPv6 configuration";
   case Dump::groups4:
      return "IPv4 groups";
   case Dump::groups6:
      return "IPv6 groups";
   }
   return "?";
}

// ---- the kernel's sockets ----

namespace {

[[noreturn]] void
throwErrno( const char * what ) {
   throw std::system_error( errno, std::generic_category(), what );
}

} // namespace

class NetlinkSource::Socket {
 public:
   Socket() : socket_( mnl_socket_open2( NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK ) ) {
      if( !socket_ ) {
         throwErrno( "netlink: cannot open a socket" );
      }
      if( mnl_socket_bind( socket_, 0, MNL_SOCKET_AUTOPID ) < 0 ) {
         int error = errno;
         mnl_socket_close( socket_ );
         errno = error;
         throwErrno( "netlink: cannot bind a socket" );
      }
      // The kernel fills dumps up to 32 KB; an event of one interface with many virtual functions
      // may be larger.
      buffer_.resize( 256 * 1024 / sizeof( uint64_t ) );
   }

   ~Socket() { mnl_socket_close( socket_ ); }
   Socket( const Socket & ) = delete;
   Socket & operator=( const Socket & ) = delete;

   int fd() const { return mnl_socket_get_fd( socket_ ); }

   bool optionIs( int option, int value ) {
      return mnl_socket_setsockopt( socket_, option, &value, sizeof value ) == 0;
   }

   bool send( const void * bytes, size_t length ) {
      return mnl_socket_sendto( socket_, bytes, length ) == ssize_t( length );
   }

   Received receive() {
      for( ;; ) {
         sockaddr_nl from{};
         iovec into{ buffer_.data(), buffer_.size() * sizeof( uint64_t ) };
         msghdr message{};
         message.msg_name = &from;
         message.msg_namelen = sizeof from;
         message.msg_iov = &into;
         message.msg_iovlen = 1;
         ssize_t length = recvmsg( fd(), &message, 0 );
         if( length < 0 ) {
            if( errno == EINTR ) {
               continue;
            }
            if( errno == EAGAIN || errno == EWOULDBLOCK ) {
               return { Received::Status::none, nullptr, 0, 0 };
            }
            if( errno == ENOBUFS ) {
               return { Received::Status::overrun, nullptr, 0, ENOBUFS };
            }
            return { Received::Status::failed, nullptr, 0, errno };
         }
         if( message.msg_namelen != sizeof from || from.nl_family != AF_NETLINK || from.nl_pid ) {
            continue; // only the kernel is believed
         }
         if( message.msg_flags & MSG_TRUNC ) {
            return { Received::Status::overrun, nullptr, 0, EMSGSIZE };
         }
         return { Received::Status::data, buffer_.data(), size_t( length ), 0 };
      }
   }

 private:
   mnl_socket * socket_;
   std::vector< uint64_t > buffer_;
};

NetlinkSource::NetlinkSource() : NetlinkSource( Options{} ) {}

NetlinkSource::NetlinkSource( const Options & options ) {
   poll_ = epoll_create1( EPOLL_CLOEXEC );
   if( poll_ < 0 ) {
      throwErrno( "netlink: cannot make an epoll descriptor" );
   }
   try {
      events_ = std::make_unique< Socket >();
      int size = options.receiveBuffer;
      if( setsockopt( events_->fd(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size ) &&
          setsockopt( events_->fd(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size ) ) {
         throwErrno( "netlink: cannot size the receive buffer" );
      }
      for( int group :
           { RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV6_IFADDR, RTNLGRP_IPV4_NETCONF } ) {
         if( !events_->optionIs( NETLINK_ADD_MEMBERSHIP, group ) ) {
            throwErrno( "netlink: cannot join a group of the kernel's events" );
         }
      }
      // Absent from a kernel without IPv6, or from an older one.
      events_->optionIs( NETLINK_ADD_MEMBERSHIP, RTNLGRP_IPV6_NETCONF );
      events_->optionIs( NETLINK_ADD_MEMBERSHIP, RTNLGRP_IPV6_IFINFO );
      groupEvents4_ = events_->optionIs( NETLINK_ADD_MEMBERSHIP, groupIp4Multicast );
      groupEvents6_ = events_->optionIs( NETLINK_ADD_MEMBERSHIP, groupIp6Multicast );
      epoll_event wanted{};
      wanted.events = EPOLLIN;
      if( epoll_ctl( poll_, EPOLL_CTL_ADD, events_->fd(), &wanted ) ) {
         throwErrno( "netlink: cannot watch a socket" );
      }
      if( ( errno = openRequests() ) ) {
         throwErrno( "netlink: cannot open a socket" );
      }
   } catch( ... ) {
      close( poll_ );
      throw;
   }
}

NetlinkSource::~NetlinkSource() {
   requests_.reset();
   events_.reset();
   close( poll_ );
}

/// A fresh socket for requests, or the errno and none: when descriptors have run out, the next
/// request tries again.
int
NetlinkSource::openRequests() {
   requests_.reset(); // closing takes it out of the epoll set
   try {
      auto made = std::make_unique< Socket >();
      made->optionIs( NETLINK_EXT_ACK, 1 );
      made->optionIs( NETLINK_CAP_ACK, 1 );
      made->optionIs( NETLINK_GET_STRICT_CHK, 1 );
      epoll_event wanted{};
      wanted.events = EPOLLIN;
      if( epoll_ctl( poll_, EPOLL_CTL_ADD, made->fd(), &wanted ) ) {
         return errno;
      }
      requests_ = std::move( made );
      return 0;
   } catch( const std::system_error & refused ) {
      return refused.code().value();
   }
}

int
NetlinkSource::fd() const {
   return poll_;
}

int
NetlinkSource::request( Dump dump, uint32_t sequence ) {
   if( !requests_ ) {
      if( const int error = openRequests() ) {
         return error;
      }
   }
   alignas( nlmsghdr ) std::array< char, 128 > bytes{};
   nlmsghdr * message = mnl_nlmsg_put_header( bytes.data() );
   message->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
   message->nlmsg_seq = sequence;
   auto putFamily = [&]( uint16_t type, size_t size, int family ) {
      message->nlmsg_type = type;
      // The family is the first byte of each of the fixed parts.
      *static_cast< uint8_t * >( mnl_nlmsg_put_extra_header( message, size ) ) = uint8_t( family );
   };
   switch( dump ) {
   case Dump::links:
      putFamily( RTM_GETLINK, sizeof( ifinfomsg ), AF_UNSPEC );
      mnl_attr_put_u32( message, IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS );
      break;
   case Dump::addresses4:
      putFamily( RTM_GETADDR, sizeof( ifaddrmsg ), AF_INET );
      break;
   case Dump::addresses6:
      putFamily( RTM_GETADDR, sizeof( ifaddrmsg ), AF_INET6 );
      break;
   case Dump::config4:
      putFamily( RTM_GETNETCONF, sizeof( netconfmsg ), AF_INET );
      break;
   case Dump::config6:
      putFamily( RTM_GETNETCONF, sizeof( netconfmsg ), AF_INET6 );
      break;
   case Dump::groups4:
      putFamily( getMulticast, sizeof( ifaddrmsg ), AF_INET );
      break;
   case Dump::groups6:
      putFamily( getMulticast, sizeof( ifaddrmsg ), AF_INET6 );
      break;
   }
   return requests_->send( message, message->nlmsg_len ) ? 0 : errno;
}

void
NetlinkSource::abandonRequest() {
   (void)openRequests();
}

Received
NetlinkSource::receiveReply() {
   return requests_ ? requests_->receive() : Received{};
}

Received
NetlinkSource::receiveEvent() {
   return events_->receive();
}

bool
NetlinkSource::hasGroupEvents( Dump dump ) const {
   return dump == Dump::groups4 ? groupEvents4_ : dump == Dump::groups6 && groupEvents6_;
}

int
NetlinkSource::readText( KernelText which, std::string & text ) {
   // "thread-self" names this thread's network namespace, "self" that of the process's first
   // thread. The sysctl paths always answer for the reader's own namespace.
   const char * path = "";
   switch( which ) {
   case KernelText::igmp:
      path = "/proc/thread-self/net/igmp";
      break;
   case KernelText::igmp6:
      path = "/proc/thread-self/net/igmp6";
      break;
   case KernelText::allAcceptDad:
      path = "/proc/sys/net/ipv6/conf/all/accept_dad";
      break;
   case KernelText::allEnhancedDad:
      path = "/proc/sys/net/ipv6/conf/all/enhanced_dad";
      break;
   }
   text.clear();
   int file = open( path, O_RDONLY | O_CLOEXEC );
   if( file < 0 ) {
      return errno;
   }
   std::array< char, 16 * 1024 > part;
   ssize_t length;
   while( ( length = read( file, part.data(), part.size() ) ) != 0 ) {
      if( length < 0 ) {
         if( errno == EINTR ) {
            continue;
         }
         const int error = errno;
         close( file );
         return error;
      }
      text.append( part.data(), size_t( length ) );
   }
   close( file );
   return 0;
}

} // namespace Ipstated
