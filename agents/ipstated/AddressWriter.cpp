#include "agents/ipstated/AddressWriter.h"

#include "Ip/IpUtils.h"
#include "platform/Velon/Netlink.h"

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

// Both attributes: an IPv4 address to another end of the link is another address.
template< size_t bytes >
std::string
removeAddress( int fd, uint8_t family, unsigned ifIndex,
               const std::array< uint8_t, bytes > & address, unsigned length ) {
   struct Attribute {
      rtattr header;
      std::array< uint8_t, bytes > address;
   };
   struct {
      nlmsghdr header;
      ifaddrmsg interface;
      Attribute local, other;
   } message{};
   message.header.nlmsg_len = sizeof message;
   message.header.nlmsg_type = RTM_DELADDR;
   message.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
   message.interface.ifa_family = family;
   message.interface.ifa_prefixlen = static_cast< uint8_t >( length );
   message.interface.ifa_index = ifIndex;
   message.local = { { sizeof( Attribute ), IFA_LOCAL }, address };
   message.other = { { sizeof( Attribute ), IFA_ADDRESS }, address };
   Velon::netlinkHandle handle{ fd };
   const int result = Velon::sendNetlinkMsg( &handle, &message.header );
   return result == -EADDRNOTAVAIL || result == -ENODEV ? std::string() : inWords( result );
}

} // namespace

AddressWriter::AddressWriter()
   : fd_( socket( AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE ) ) {
   if( fd_ < 0 ) {
      throw std::system_error( errno, std::generic_category(), "cannot open a netlink socket" );
   }
   const int on = 1; // older kernels answer without words
   (void)setsockopt( fd_, SOL_NETLINK, NETLINK_EXT_ACK, &on, sizeof on );
}

AddressWriter::~AddressWriter() {
   close( fd_ );
}

std::string
AddressWriter::add( unsigned ifIndex, const Velon::IpAddrWithMask & address,
                    Ip::IpAddrScope scope ) const {
   // Networks of one or two addresses have no broadcast.
   const Velon::IpAddr broadcast = address.len() < 31 ? address.broadcast() : Velon::IpAddr();
   return inWords( Ip::ipAddrAddCommon( fd_, ifIndex, address.addr(), int( address.len() ), false,
                                        broadcast, scope ) );
}

std::string
AddressWriter::add( unsigned ifIndex, const Velon::Ip6AddrWithMask & address ) const {
   return inWords( Ip::ip6AddrAddCommon( fd_, ifIndex, address.addr(), int( address.len() ) ) );
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
