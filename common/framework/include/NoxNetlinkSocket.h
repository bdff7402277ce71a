#ifndef NOX_NETLINK_SOCKET_H
#define NOX_NETLINK_SOCKET_H

#include <linux/netlink.h>

#include <cstddef>
#include <cstdint>

// Called with each data message (or, from NetlinkRecvSocketEvent, the whole datagram).
// `msg` points into the socket's receive buffer and is valid only during the call;
// `len` is the number of bytes from `msg` to the end of the datagram, which may exceed
// msg->nlmsg_len (more messages follow) or, from NetlinkRecvSocketEvent, fall short of it.
typedef void (*NoxNetlinkCallback)(void* userData, nlmsghdr* msg, unsigned int len);

// One netlink socket: requests with its own sequence numbers, replies and notifications
// split into messages for a callback. Loop thread only. Failures are logged (module
// NETLINK) and never reported through return values.
class NoxNetlinkSocket {
 public:
  // Opens socket(AF_NETLINK, SOCK_RAW, protocol) and binds it to port id getpid() with
  // the multicast `groups`. When that port id is taken (a second socket in the process),
  // binds again with port id 0 and stores the port id the kernel chose in `pid`. The
  // object is built even if socket or bind fails; `fd` then holds the bad descriptor.
  NoxNetlinkSocket(int protocol, unsigned int groups);
  // Closes `fd`.
  ~NoxNetlinkSocket();
  NoxNetlinkSocket(const NoxNetlinkSocket&) = delete;
  NoxNetlinkSocket& operator=(const NoxNetlinkSocket&) = delete;

  // Sends the `len` bytes at `msg` to the kernel as one dump request: overwrites the
  // header's length, flags (0x301), sequence number (++seqno) and port id (0) in place.
  // Returns the sequence number used, also when sendmsg failed (that is only logged).
  unsigned int NetlinkSend(nlmsghdr* msg, unsigned int len);

  // Reads without blocking until a done, overrun or error message has been seen or the
  // socket would block. Takes only datagrams from the kernel whose first message carries
  // `seqno` (0 accepts any) and calls `callback` for each message that is not a control
  // message. A datagram whose sender address is not a netlink address is the last one read.
  void NetlinkRecv(unsigned int seqno, NoxNetlinkCallback callback, void* userData);

  // Reads one datagram (blocking if the socket blocks; call it when `fd` is readable) and
  // passes at most its first 72 bytes to `callback` unchecked. `seqno` is not used.
  void NetlinkRecvSocketEvent(unsigned int seqno, NoxNetlinkCallback callback, void* userData);

  // Walks the messages of one received datagram of `len` bytes at `buf` (aligned for
  // nlmsghdr): each data message goes to `callback`; a message whose length does not fit
  // ends the walk. True when a done, error or overrun message was seen (an overrun also
  // sets *overrun).
  static bool WalkDatagram(unsigned char* buf, size_t len, NoxNetlinkCallback callback,
                           void* userData, bool* overrun);

  // True once after the kernel reported dropped messages (ENOBUFS on receive, or an
  // overrun message): notifications were lost and the owner should dump again.
  // Reading clears it.
  bool overrunSeen();

  // Owned by this object; others may only watch or read it.
  int fd;
  // Local port id: getpid(), or the kernel's choice when that was taken.
  uint32_t pid;
  // Last sequence number sent; 0 before the first send.
  uint32_t seqno;

 private:
  void bindToKernelChosenPort(const sockaddr_nl& wanted);

  bool overrun_ = false;
};

#endif  // NOX_NETLINK_SOCKET_H
