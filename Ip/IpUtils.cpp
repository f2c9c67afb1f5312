#include "Ip/IpUtils.h"

#include "platform/Velon/Netlink.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

namespace Ip {

namespace {

// An attribute that holds an address.
template< class Address >
struct AddressAttribute {
   rtattr header;
   std::array< uint8_t, Address::bits / 8 > bytes;

   void set( uint16_t type, const Address & address ) {
      header.rta_len = sizeof *this;
      header.rta_type = type;
      bytes = address.bytes();
   }
};

// Deliberate: the address goes as IFA_LOCAL alone; without IFA_ADDRESS the kernel takes it as
// that too.
template< class Address >
struct Request {
   nlmsghdr header;
   ifaddrmsg interface;
   AddressAttribute< Address > local;

   void set( uint8_t family, unsigned ifIndex, const Address & address, int prefixLen ) {
      header.nlmsg_len = sizeof *this;
      header.nlmsg_type = RTM_NEWADDR;
      header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK | NLM_F_REPLACE;
      interface.ifa_family = family;
      interface.ifa_prefixlen = static_cast< uint8_t >( prefixLen );
      interface.ifa_index = ifIndex;
      local.set( IFA_LOCAL, address );
   }
};

struct Request4 {
   Request< Velon::IpAddr > request;
   AddressAttribute< Velon::IpAddr > broadcast;
};

static_assert( sizeof( Request4 ) == 40 && offsetof( Request4, broadcast ) == 32 );
static_assert( sizeof( Request< Velon::Ip6Addr > ) == 44 );

int
send( int fd, nlmsghdr & message ) {
   Velon::netlinkHandle handle;
   handle.fd = fd;
   return Velon::sendNetlinkMsg( &handle, &message );
}

} // namespace

int
ipAddrAddCommon( int fd, unsigned ifIndex, const Velon::IpAddr & addr, int prefixLen,
                 bool secondary, const Velon::IpAddr & broadcast, IpAddrScope scope ) {
   Request4 message{};
   message.request.set( AF_INET, ifIndex, addr, prefixLen );
   message.request.interface.ifa_flags = secondary ? IFA_F_SECONDARY : 0;
   message.request.interface.ifa_scope = static_cast< uint8_t >( scope );
   if( !broadcast.isUnspecified() ) {
      message.broadcast.set( IFA_BROADCAST, broadcast );
      message.request.header.nlmsg_len = sizeof message;
   }
   return send( fd, message.request.header );
}

int
ip6AddrAddCommon( int fd, unsigned ifIndex, const Velon::Ip6Addr & addr, int prefixLen ) {
   Request< Velon::Ip6Addr > message{};
   message.set( AF_INET6, ifIndex, addr, prefixLen );
   return send( fd, message.header );
}

} // namespace Ip
