#include "platform/Velon/Netlink.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>

namespace Velon {

namespace {

struct AnswerText {
   char bytes[255];
   uint8_t length;
};
constinit thread_local AnswerText answerText{};

bool
isNetlink( int fd ) {
   int domain = 0;
   socklen_t length = sizeof domain;
   return getsockopt( fd, SOL_SOCKET, SO_DOMAIN, &domain, &length ) == 0 && domain == AF_NETLINK;
}

// Looks without reading: a pending error of the socket belongs to whoever reads it.
bool
isIdle( int fd ) {
   pollfd look{ fd, POLLIN, 0 };
   return poll( &look, 1, 0 ) == 0;
}

// 0 or a negative errno.
int
send( int fd, const nlmsghdr & message ) {
   ssize_t sent;
   do {
      sent = ::send( fd, &message, message.nlmsg_len, MSG_NOSIGNAL );
   } while( sent < 0 && errno == EINTR );
   if( sent < 0 ) return -errno;
   return static_cast< size_t >( sent ) == message.nlmsg_len ? 0 : -EMSGSIZE;
}

// Keeps the text among these attributes.
void
keepText( std::string_view attributes ) {
   nlattr header;
   while( attributes.size() >= NLA_HDRLEN ) {
      std::memcpy( &header, attributes.data(), sizeof header );
      if( header.nla_len < NLA_HDRLEN || header.nla_len > attributes.size() ) return;
      if( ( header.nla_type & NLA_TYPE_MASK ) == NLMSGERR_ATTR_MSG ) {
         std::string_view text = attributes.substr( NLA_HDRLEN, header.nla_len - NLA_HDRLEN );
         text = text.substr( 0, text.find( '\0' ) );
         answerText.length =
            static_cast< uint8_t >( text.copy( answerText.bytes, sizeof answerText.bytes ) );
         return;
      }
      attributes.remove_prefix(
         std::min< size_t >( NLA_ALIGN( header.nla_len ), attributes.size() ) );
   }
}

// Takes the answer to `request` if it is at the head of the queue: 0 or a negative errno.
int
takeAnswer( int fd, const nlmsghdr & request ) {
   struct {
      nlmsghdr header;
      nlmsgerr answer;
      char rest[4096]; // an echo of the request, then attributes
   } reply;
   sockaddr_nl from{};
   iovec place{ &reply, sizeof reply };
   msghdr envelope{};
   envelope.msg_name = &from;
   envelope.msg_namelen = sizeof from;
   envelope.msg_iov = &place;
   envelope.msg_iovlen = 1;
   const ssize_t length = recvmsg( fd, &envelope, MSG_PEEK | MSG_DONTWAIT );
   if( length < 0 ) return errno == EAGAIN ? 0 : -errno; // none asked for, or it was lost
   constexpr size_t least = sizeof reply.header + sizeof reply.answer;
   if( static_cast< size_t >( length ) < least || from.nl_pid != 0 ||
       reply.header.nlmsg_type != NLMSG_ERROR ||
       std::memcmp( &reply.answer.msg, &request, sizeof request ) != 0 ) {
      return 0;
   }
   recv( fd, nullptr, 0, MSG_DONTWAIT );
   if( reply.header.nlmsg_flags & NLM_F_ACK_TLVS ) {
      std::string_view rest( reply.rest, static_cast< size_t >( length ) - least );
      const size_t echoed = reply.header.nlmsg_flags & NLM_F_CAPPED
                               ? 0
                               : NLMSG_ALIGN( request.nlmsg_len ) - sizeof request;
      rest.remove_prefix( std::min( echoed, rest.size() ) );
      keepText( rest );
   }
   return reply.answer.error;
}

} // namespace

int
sendNetlinkMsg( netlinkHandle * handle, nlmsghdr * message ) {
   answerText.length = 0;
   const bool answered = isNetlink( handle->fd ) && isIdle( handle->fd );
   const int error = send( handle->fd, *message );
   return error == 0 && answered ? takeAnswer( handle->fd, *message ) : error;
}

std::string_view
netlinkAnswerText() {
   return { answerText.bytes, answerText.length };
}

} // namespace Velon
