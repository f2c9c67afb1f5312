// The messages that add addresses: their bytes, and what the kernel makes of them.

#include "tests/agents/Namespace.h"

#include "Ip/IpUtils.h"
#include "platform/Velon/Netlink.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace Ipstated::Scripted {
namespace {

using Bytes = std::vector< uint8_t >;

/// A descriptor that closes itself.
struct Socket {
   explicit Socket( int fd ) : fd( fd ) {}
   ~Socket() { close( fd ); }
   Socket( const Socket & ) = delete;
   Socket & operator=( const Socket & ) = delete;
   const int fd;
};

bool
hasMore( int fd ) {
   pollfd look{ fd, POLLIN, 0 };
   return poll( &look, 1, 0 ) > 0;
}

struct Message {
   const char * name;
   int ( *send )( int fd );
   Bytes bytes;
};

class MessageBytes : public ::testing::TestWithParam< Message > {};

TEST_P( MessageBytes, AreTheseAndNothingIsAwaited ) {
   for( const int kind : { SOCK_DGRAM, SOCK_STREAM } ) {
      int ends[2];
      ASSERT_EQ( socketpair( AF_UNIX, kind, 0, ends ), 0 );
      Socket here( ends[0] ), there( ends[1] );
      EXPECT_EQ( write( there.fd, "an answer", 9 ), 9 ); // no business of the sender's
      EXPECT_EQ( GetParam().send( here.fd ), 0 );
      Bytes received( 100 );
      received.resize( size_t( read( there.fd, received.data(), received.size() ) ) );
      EXPECT_EQ( received, GetParam().bytes );
      EXPECT_TRUE( hasMore( here.fd ) );
   }
}

INSTANTIATE_TEST_SUITE_P(
   All, MessageBytes,
   ::testing::Values(
      Message{ "Ip4",
               []( int fd ) {
                  return Ip::ipAddrAddCommon( fd, 7, Velon::IpAddr( "10.1.2.3" ), 24, false,
                                              Velon::IpAddr(), Ip::IpAddrScope::universe );
               },
               { 32, 0,  0, 0, 20, 0, 5, 1, 0, 0, 0, 0, 0,  0, 0, 0,
                 2,  24, 0, 0, 7,  0, 0, 0, 8, 0, 2, 0, 10, 1, 2, 3 } },
      Message{ "Ip4WithAll",
               []( int fd ) {
                  return Ip::ipAddrAddCommon( fd, 0x01020304, Velon::IpAddr( "10.1.2.3" ), 288,
                                              true, Velon::IpAddr( "10.1.2.255" ),
                                              Ip::IpAddrScope::link );
               },
               { 40, 0, 0, 0, 20, 0, 5, 1, 0,  0, 0, 0, 0, 0, 0, 0, 2,  32, 1, 253,
                 4,  3, 2, 1, 8,  0, 2, 0, 10, 1, 2, 3, 8, 0, 4, 0, 10, 1,  2, 255 } },
      Message{
         "Ip6",
         []( int fd ) {
            return Ip::ip6AddrAddCommon( fd, 7, Velon::Ip6Addr( "2001:db8::1" ), 64 );
         },
         { 44, 0, 0,  0, 20, 0, 5,    1,    0,    0,    0, 0, 0, 0, 0, 0, 10, 64, 0, 0, 7, 0,
           0,  0, 20, 0, 2,  0, 0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0,  0,  0, 0, 0, 1 } } ),
   []( const auto & info ) { return info.param.name; } );

class AddressMessages : public NamespaceTest {
 protected:
   void SetUp() override {
      NamespaceTest::SetUp();
      if( IsSkipped() ) return;
      netlink = socket( AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE );
      const int on = 1;
      ASSERT_EQ( setsockopt( netlink, SOL_NETLINK, NETLINK_EXT_ACK, &on, sizeof on ), 0 );
      v0 = if_nametoindex( "v0" );
   }
   void TearDown() override {
      if( netlink >= 0 ) close( netlink );
      NamespaceTest::TearDown();
   }

   int add4( const char * address, int length, unsigned index, bool secondary = false ) const {
      return Ip::ipAddrAddCommon( netlink, index, Velon::IpAddr( address ), length, secondary,
                                  Velon::IpAddr( "10.0.0.255" ), Ip::IpAddrScope::site );
   }
   int add6( const char * address, int length, unsigned index ) const {
      return Ip::ip6AddrAddCommon( netlink, index, Velon::Ip6Addr( address ), length );
   }

   /// How often the kernel's dump of v0's addresses says so.
   static size_t shows( const std::string & what ) {
      FILE * dump = popen( "ip -oneline address show dev v0", "re" );
      std::string text;
      for( int c; ( c = fgetc( dump ) ) != EOF; ) text += char( c );
      pclose( dump );
      size_t found = 0;
      for( size_t at = 0; ( at = text.find( what, at ) ) != std::string::npos; ++at ) ++found;
      return found;
   }

   int netlink = -1;
   unsigned v0 = 0;
};

TEST_F( AddressMessages, AddAndReplace ) {
   for( int i = 0; i < 2; ++i ) { // the second time they replace
      EXPECT_EQ( add4( "10.0.0.1", 24, v0 ), 0 );
      EXPECT_EQ( add4( "10.0.0.2", 24, v0, true ), 0 );
      EXPECT_EQ( add6( "2001:db8::1", 64, v0 ), 0 );
      EXPECT_EQ( shows( "inet 10.0.0.1/24 brd 10.0.0.255 scope site v0" ), 1u );
      EXPECT_EQ( shows( "inet 10.0.0.2/24 brd 10.0.0.255 scope site secondary v0" ), 1u );
      EXPECT_EQ( shows( "2001:db8::1/64 scope global" ), 1u );
   }
   EXPECT_EQ( add4( "10.0.0.3", 288, v0 ), 0 ); // by contract
   EXPECT_EQ( shows( "10.0.0.3/32" ), 1u );
   EXPECT_FALSE( hasMore( netlink ) );
}

TEST_F( AddressMessages, RefusalsComeAsNumberAndWords ) {
   auto words = [] { return std::string( Velon::netlinkAnswerText() ); };
   EXPECT_EQ( add4( "10.0.0.1", 33, v0 ), -EINVAL );
   EXPECT_NE( words().find( "prefix" ), std::string::npos ) << words();
   EXPECT_EQ( add6( "2001:db8::1", 129, v0 ), -EINVAL );
   EXPECT_NE( words().find( "prefix" ), std::string::npos ) << words();
   const std::string kept = words();
   std::thread( [&] { EXPECT_EQ( words(), "" ); } ).join();
   EXPECT_EQ( words(), kept );
   EXPECT_EQ( add4( "10.0.0.1", 24, v0 + 1000 ), -ENODEV );
   EXPECT_EQ( add6( "2001:db8::1", 64, v0 + 1000 ), -ENODEV );
   EXPECT_EQ( add4( "10.0.0.1", 24, v0 ), 0 );
   EXPECT_EQ( words(), "" );

   struct {
      nlmsghdr header{ 28, RTM_NEWADDR, NLM_F_REQUEST | NLM_F_ACK, 5, 0 };
      ifaddrmsg interface { AF_INET, 24, 0, 0, 0 };
      rtattr tooShort{ 6, IFA_LOCAL };
      uint8_t half[4]{ 10, 0 };
   } message;
   message.header.nlmsg_len = sizeof message;
   message.interface.ifa_index = v0;
   Velon::netlinkHandle handle{ netlink };
   EXPECT_EQ( Velon::sendNetlinkMsg( &handle, &message.header ), -ERANGE );
   EXPECT_NE( words(), "" );
   EXPECT_FALSE( hasMore( netlink ) );
   handle.fd = -1;
   EXPECT_EQ( Velon::sendNetlinkMsg( &handle, &message.header ), -EBADF );
   EXPECT_EQ( words(), "" );
}

TEST_F( AddressMessages, NoAnswerIsLostWithoutAReader ) {
   for( int i = 0; i < 1000; ++i ) {
      ASSERT_EQ( add4( "10.0.0.1", 24, v0 ), 0 ) << i;
      ASSERT_EQ( add6( "2001:db8::1", 129, v0 ), -EINVAL ) << i;
   }
   EXPECT_FALSE( hasMore( netlink ) );
}

TEST_F( AddressMessages, WhatStandsInTheQueueStays ) {
   // Another message's answer, by all but its sequence number the same.
   nlmsghdr other{ sizeof other, NLMSG_NOOP, NLM_F_REQUEST | NLM_F_ACK, 9, 0 };
   ASSERT_EQ( send( netlink, &other, sizeof other, 0 ), ssize_t( sizeof other ) );
   EXPECT_EQ( add4( "10.0.0.1", 33, v0 ), 0 ); // its answer stands behind
   EXPECT_EQ( Velon::netlinkAnswerText(), "" );
   struct {
      nlmsghdr header;
      nlmsgerr answer;
      char rest[500];
   } reply;
   ASSERT_GT( recv( netlink, &reply, sizeof reply, 0 ), 0 );
   EXPECT_EQ( reply.answer.msg.nlmsg_seq, 9u );
   ASSERT_GT( recv( netlink, &reply, sizeof reply, 0 ), 0 );
   EXPECT_EQ( reply.answer.error, -EINVAL );
   EXPECT_FALSE( hasMore( netlink ) );
}

} // namespace
} // namespace Ipstated::Scripted
