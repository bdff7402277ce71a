#include "NoxNetlinkSocket.h"

#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <new>

#include "NoxLog.h"

namespace {

constexpr size_t kRecvBufferSize = 8208;
constexpr size_t kEventBufferSize = 88;
constexpr size_t kEventReadSize = 72;
constexpr unsigned int kBindAddressLength = 16;
constexpr uint16_t kDumpRequestFlags = NLM_F_REQUEST | NLM_F_DUMP;  // 0x301

static_assert(kDumpRequestFlags == 0x301, "request, root and match");

void logRecvError(int err) {
  NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_NETLINK, "NoxNetlinkSocket Recv: %d", -1);
  if (err == EAGAIN) {
    NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_NETLINK, "Would block on receive, returning.");
  } else if (err == EINVAL) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_NETLINK, "Invalid argument for netlink poll, returning.");
  } else {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_NETLINK, "Unhandled error code %d ( %s ), returning.", err,
            strerror(err));
  }
}

// `msg` has passed the walk's length checks, so nlmsg_len bytes are there to read.
void logErrorMessage(const nlmsghdr* msg) {
  if (msg->nlmsg_len < NLMSG_LENGTH(sizeof(int))) {
    NOX_LOG(NOX_LOG_WARN, NOX_MOD_NETLINK, "netlink error message too short (%d bytes)",
            static_cast<int>(msg->nlmsg_len));
    return;
  }
  int code;
  memcpy(&code, NLMSG_DATA(msg), sizeof(code));
  // The kernel sends a negated errno; INT_MIN has no negation.
  const int err = code == INT_MIN ? code : -code;
  NOX_LOG(NOX_LOG_WARN, NOX_MOD_NETLINK, "netlink error: %s", strerror(err));
}

}  // namespace

NoxNetlinkSocket::NoxNetlinkSocket(int protocol, unsigned int groups)
    : fd(-1), pid(static_cast<uint32_t>(getpid())), seqno(0) {
  NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_NETLINK, "NoxNetlinkSocket initialization");
  fd = socket(AF_NETLINK, SOCK_RAW, protocol);

  struct {
    sockaddr_nl nl;
    uint32_t unused;
  } local = {};
  static_assert(sizeof(local) == kBindAddressLength, "bind address length");
  local.nl.nl_family = AF_NETLINK;
  local.nl.nl_pid = pid;
  local.nl.nl_groups = groups;
  // Deliberate: the length passed is 16, not sizeof(sockaddr_nl); the kernel uses the first 12.
  const int bound = bind(fd, reinterpret_cast<sockaddr*>(&local), kBindAddressLength);
  const int bindErrno = errno;
  NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_NETLINK, "NoxNetlinkSocket nlsock %d, bind %d", fd, bound);
  if (bound != 0 && bindErrno == EADDRINUSE) bindToKernelChosenPort(local.nl);
}

NoxNetlinkSocket::~NoxNetlinkSocket() {
  NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_NETLINK, "NoxNetlinkSocket delete");
  if (fd >= 0) close(fd);
}

void NoxNetlinkSocket::bindToKernelChosenPort(const sockaddr_nl& wanted) {
  sockaddr_nl any = wanted;
  any.nl_pid = 0;
  if (bind(fd, reinterpret_cast<sockaddr*>(&any), sizeof(any)) != 0) {
    const int err = errno;
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_NETLINK,
            "NoxNetlinkSocket port id %u in use and kernel-chosen bind failed: %s (%d)", pid,
            strerror(err), err);
    return;
  }
  sockaddr_nl chosen = {};
  socklen_t chosenLength = sizeof(chosen);
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&chosen), &chosenLength) != 0 ||
      chosenLength != sizeof(chosen)) {
    const int err = errno;
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_NETLINK, "NoxNetlinkSocket getsockname failed: %s (%d)",
            strerror(err), err);
    return;
  }
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_NETLINK,
          "NoxNetlinkSocket port id %u in use, bound to kernel-chosen port id %u", pid,
          chosen.nl_pid);
  pid = chosen.nl_pid;
}

unsigned int NoxNetlinkSocket::NetlinkSend(nlmsghdr* msg, unsigned int len) {
  const uint32_t used = ++seqno;
  msg->nlmsg_len = len;
  msg->nlmsg_flags = kDumpRequestFlags;
  msg->nlmsg_seq = used;
  msg->nlmsg_pid = 0;
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_NETLINK, "NetlinkSend len %d/%d type %d flags %d\n",
          static_cast<int>(len), static_cast<int>(msg->nlmsg_len), msg->nlmsg_type,
          msg->nlmsg_flags);

  sockaddr_nl kernel = {};
  kernel.nl_family = AF_NETLINK;
  iovec iov = {msg, len};
  msghdr header = {};
  header.msg_name = &kernel;
  header.msg_namelen = sizeof(kernel);
  header.msg_iov = &iov;
  header.msg_iovlen = 1;
  const ssize_t sent = sendmsg(fd, &header, 0);
  if (sent < 0) {
    const int err = errno;
    NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_NETLINK, "sendmsg %d (%s: %d)", static_cast<int>(sent),
            strerror(err), err);
  } else {
    NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_NETLINK, "sendmsg %d", static_cast<int>(sent));
  }
  return used;
}

void NoxNetlinkSocket::NetlinkRecv(unsigned int wantedSeqno, NoxNetlinkCallback callback,
                                   void* userData) {
  alignas(nlmsghdr) unsigned char buf[kRecvBufferSize];
  // Set by a done, overrun or error message, or a sender that is not netlink.
  bool last = false;
  do {
    NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_NETLINK, "NoxNetlinkSocket Recv");
    sockaddr_nl sender;
    msghdr header;
    iovec iov;
    ssize_t got;
    do {
      sender = {};
      iov = {buf, sizeof(buf)};
      header = {};
      header.msg_name = &sender;
      header.msg_namelen = sizeof(sender);
      header.msg_iov = &iov;
      header.msg_iovlen = 1;
      got = recvmsg(fd, &header, MSG_DONTWAIT);
    } while (got < 0 && errno == EINTR);
    if (got < 0) {
      const int err = errno;
      logRecvError(err);
      if (err == ENOBUFS) overrun_ = true;
      return;
    }
    NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_NETLINK, "NoxNetlinkSocket Recv: %d", static_cast<int>(got));
    if (got == 0) return;

    if (header.msg_namelen != sizeof(sockaddr_nl)) last = true;
    if (sender.nl_pid != 0) {
      NOX_LOG(NOX_LOG_WARN, NOX_MOD_NETLINK,
              "Netlink returned msg from another process %d, skipping",
              static_cast<int>(sender.nl_pid));
      continue;
    }
    size_t remaining = static_cast<size_t>(got);
    if (remaining < sizeof(nlmsghdr)) {
      NOX_LOG(NOX_LOG_WARN, NOX_MOD_NETLINK, "Netlink datagram of %d bytes has no header, skipping",
              static_cast<int>(remaining));
      continue;
    }
    const uint32_t firstSeqno = reinterpret_cast<const nlmsghdr*>(buf)->nlmsg_seq;
    if (wantedSeqno != 0 && firstSeqno != wantedSeqno) {
      NOX_LOG(NOX_LOG_WARN, NOX_MOD_NETLINK,
              "Netlink returned unexpected seqno %d rather than %d, skipping",
              static_cast<int>(firstSeqno), static_cast<int>(wantedSeqno));
      continue;
    }
    NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_NETLINK, "Wildcard seqno returned %d",
            static_cast<int>(firstSeqno));

    if (WalkDatagram(buf, remaining, callback, userData, &overrun_)) last = true;
  } while (!last);
}

bool NoxNetlinkSocket::WalkDatagram(unsigned char* buf, size_t remaining,
                                    NoxNetlinkCallback callback, void* userData, bool* overrun) {
  bool last = false;
  unsigned char* at = buf;
  while (remaining >= sizeof(nlmsghdr)) {
    nlmsghdr* msg = reinterpret_cast<nlmsghdr*>(at);
    const size_t len = msg->nlmsg_len;
    if (len < sizeof(nlmsghdr) || len > remaining) break;
    NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_NETLINK, "Handling nlmsg_type %d %d", msg->nlmsg_type,
            static_cast<int>(len));
    switch (msg->nlmsg_type) {
      case NLMSG_NOOP:
        NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_NETLINK, "Skipping netlink noop message");
        break;
      case NLMSG_ERROR:
        last = true;
        logErrorMessage(msg);
        break;
      case NLMSG_OVERRUN:
        *overrun = true;
        last = true;
        break;
      case NLMSG_DONE:
        last = true;
        break;
      default:
        // An end already seen in this datagram stands; data after it does not undo it.
        NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_NETLINK, "forwarding to %p",
                reinterpret_cast<void*>(callback));
        callback(userData, msg, static_cast<unsigned int>(remaining));
        break;
    }
    const size_t step = NLMSG_ALIGN(len);
    if (step >= remaining) break;
    at += step;
    remaining -= step;
  }
  return last;
}

void NoxNetlinkSocket::NetlinkRecvSocketEvent(unsigned int /*seqno*/, NoxNetlinkCallback callback,
                                              void* userData) {
  std::unique_ptr<unsigned char[]> buf(new (std::nothrow) unsigned char[kEventBufferSize]());
  if (!buf) {
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_NETLINK, "malloc() failed");
    return;
  }
  // Deliberate: at most 72 bytes are read into the 88-byte buffer; a handler that trusts
  // the nlmsg_len of a cut-off notification still reads zeroes inside the buffer.
  const ssize_t got = recvfrom(fd, buf.get(), kEventReadSize, 0, nullptr, nullptr);
  if (got < 0) {
    NOX_LOG(NOX_LOG_WARN, NOX_MOD_NETLINK, "Netlink recvfrom failed");
  } else if (got == 0) {
    NOX_LOG(NOX_LOG_WARN, NOX_MOD_NETLINK, "Netlink recvfrom failed because peer shutdown");
  } else {
    NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_NETLINK, "forwarding to %p",
            reinterpret_cast<void*>(callback));
    callback(userData, reinterpret_cast<nlmsghdr*>(buf.get()), static_cast<unsigned int>(got));
  }
}

bool NoxNetlinkSocket::overrunSeen() {
  const bool seen = overrun_;
  overrun_ = false;
  return seen;
}
