#include "agents/ipstated/AddressWriter.h"

#include "platform/Velon/Netlink.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace Ipstated {

namespace {

std::string
inWords( int result ) {
   if( result == 0 ) {
      return {};
   }
   std::string words = std::generic_category().message( -result );
   if( result == -EPERM ) {
      words += ": expected the capability CAP_NET_ADMIN in this network namespace";
   }
   if( const std::string_view kernels = Velon::netlinkAnswerText(); !kernels.empty() ) {
      words.append( " (" ).append( kernels ) += ')';
   }
   return words;
}

constexpr uint16_t addressProto = 11; // IFA_PROTO, newer than some kernel headers

/// A request about one address, under construction.
class Request {
 public:
   Request( uint16_t type, uint16_t flags, uint8_t family, unsigned ifIndex, unsigned length ) {
      header().nlmsg_len = NLMSG_LENGTH( sizeof( ifaddrmsg ) );
      header().nlmsg_type = type;
      header().nlmsg_flags = uint16_t( NLM_F_REQUEST | NLM_F_ACK | flags );
      interface().ifa_family = family;
      interface().ifa_prefixlen = uint8_t( length );
      interface().ifa_index = ifIndex;
   }
   ifaddrmsg & interface() { return *static_cast< ifaddrmsg * >( NLMSG_DATA( &header() ) ); }

   template< size_t bytes >
   void add( uint16_t type, const std::array< uint8_t, bytes > & payload ) {
      auto * attribute =
         reinterpret_cast< rtattr * >( bytes_.data() + NLMSG_ALIGN( header().nlmsg_len ) );
      attribute->rta_type = type;
      attribute->rta_len = RTA_LENGTH( bytes );
      memcpy( RTA_DATA( attribute ), payload.data(), bytes );
      header().nlmsg_len = uint32_t( NLMSG_ALIGN( header().nlmsg_len ) + RTA_LENGTH( bytes ) );
   }

   /// 0 or a negative errno.
   int send( int fd ) {
      Velon::netlinkHandle handle{ fd };
      return Velon::sendNetlinkMsg( &handle, &header() );
   }

 private:
   nlmsghdr & header() { return *reinterpret_cast< nlmsghdr * >( bytes_.data() ); }

   alignas( nlmsghdr ) std::array< char, 128 > bytes_{};
};

// Both attributes: an IPv4 address to another end of the link is another address.
template< size_t bytes >
std::string
removeAddress( int fd, uint8_t family, unsigned ifIndex,
               const std::array< uint8_t, bytes > & address, unsigned length ) {
   Request request( RTM_DELADDR, 0, family, ifIndex, length );
   request.add( IFA_LOCAL, address );
   request.add( IFA_ADDRESS, address );
   const int result = request.send( fd );
   return result == -EADDRNOTAVAIL || result == -ENODEV ? std::string() : inWords( result );
}

} // namespace

AddressWriter::AddressWriter( uint8_t tag )
   : fd_( socket( AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE ) ),
     tag_( tag ) {
   if( fd_ < 0 ) {
      throw std::system_error( errno, std::generic_category(), "cannot open a netlink socket" );
   }
   const int on = 1; // older kernels answer without words
   (void)setsockopt( fd_, SOL_NETLINK, NETLINK_EXT_ACK, &on, sizeof on );
}

AddressWriter::~AddressWriter() {
   close( fd_ );
}

// The requests of Ip/IpUtils.h, which have no room for the tag.

std::string
AddressWriter::add( unsigned ifIndex, const Velon::IpAddrWithMask & address,
                    Ip::IpAddrScope scope ) const {
   Request request( RTM_NEWADDR, NLM_F_REPLACE, AF_INET, ifIndex, address.len() );
   request.interface().ifa_scope = uint8_t( scope );
   request.add( IFA_LOCAL, address.addr().bytes() );
   if( address.len() < 31 ) { // networks of one or two addresses have no broadcast
      request.add( IFA_BROADCAST, address.broadcast().bytes() );
   }
   if( tag_ ) request.add( addressProto, std::array{ tag_ } );
   return inWords( request.send( fd_ ) );
}

std::string
AddressWriter::add( unsigned ifIndex, const Velon::Ip6AddrWithMask & address ) const {
   Request request( RTM_NEWADDR, NLM_F_REPLACE, AF_INET6, ifIndex, address.len() );
   request.add( IFA_LOCAL, address.addr().bytes() );
   if( tag_ ) request.add( addressProto, std::array{ tag_ } );
   return inWords( request.send( fd_ ) );
}

std::string
AddressWriter::remove( unsigned ifIndex, const Velon::IpAddrWithMask & address ) const {
   return removeAddress( fd_, AF_INET, ifIndex, address.addr().bytes(), address.len() );
}

std::string
AddressWriter::remove( unsigned ifIndex, const Velon::Ip6AddrWithMask & address ) const {
   return removeAddress( fd_, AF_INET6, ifIndex, address.addr().bytes(), address.len() );
}

} // namespace Ipstated
