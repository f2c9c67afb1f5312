// Sets addresses of the kernel's interfaces, on a socket of its own.
//
// Every answer is there when the call returns; what the kernel makes of it is told by its events.

#pragma once

#include "Ip/Ip.h"
#include "platform/Velon/Ip6Addr.h"
#include "platform/Velon/IpAddr.h"

#include <string>

namespace Ipstated {

/// In the network namespace in which it is made.
class AddressWriter {
 public:
   /// Addresses that it adds carry `tag` as their IFA_PROTO, where the kernel knows that (5.18);
   /// 0 for none. Throws std::system_error saying which call failed.
   explicit AddressWriter( uint8_t tag );
   ~AddressWriter();
   AddressWriter( const AddressWriter & ) = delete;
   AddressWriter & operator=( const AddressWriter & ) = delete;

   // Each answers in words why the kernel refuses; empty when it does not.

   /// Adds the address or makes it permanent. The scope of one that is there does not change.
   std::string add( unsigned ifIndex, const Velon::IpAddrWithMask & address,
                    Ip::IpAddrScope scope ) const;
   std::string add( unsigned ifIndex, const Velon::Ip6AddrWithMask & address ) const;

   /// Removes the address; that it is not there is no fault.
   std::string remove( unsigned ifIndex, const Velon::IpAddrWithMask & address ) const;
   std::string remove( unsigned ifIndex, const Velon::Ip6AddrWithMask & address ) const;

 private:
   int fd_;
   uint8_t tag_;
};

} // namespace Ipstated
