// Sending to the kernel's netlink sockets, and the answers that come back at once.
//
// The kernel handles a message inside the call that sends it: when that call returns, the
// acknowledgement stands in the socket's queue. sendNetlinkMsg() takes it from there, lest a
// sender that never reads fills the queue (after about 256 messages) and loses every later answer.
//
// Send on a socket that joins no multicast group. On one that does, the events of a message come
// before its acknowledgement, which then stays with them in the queue, unread.

#pragma once

#include "framework/Export.h"

#include <string_view>

struct nlmsghdr;

namespace Velon {

/// An open netlink socket; the opener closes it.
struct netlinkHandle {
   int fd = -1;
};

/// Sends `message`, whole as its header tells its length, without an address: to the kernel on a
/// netlink socket, to the peer on a connected one. 0 or a negative errno: of the sending itself,
/// or, on a netlink socket, the kernel's answer.
///
/// The answer is taken when it is at the head of the queue. If something stood there before, or
/// something else arrived first, the queue is left as it is and the result is that of sending.
/// Never waits for an answer; allocates nothing.
IPSTATE_EXPORT int sendNetlinkMsg( netlinkHandle * handle, nlmsghdr * message );

/// The kernel's own words in the answer that this thread's last sendNetlinkMsg() took; valid until
/// the next one. Empty when it took none or the kernel added none, which it does only on sockets
/// with the option NETLINK_EXT_ACK. At most 255 bytes, the rest is cut off.
IPSTATE_EXPORT std::string_view netlinkAnswerText();

} // namespace Velon
