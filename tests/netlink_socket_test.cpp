#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "NetnsFixture.h"
#include "NoxNetlinkSocket.h"
#include "TestLog.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Netlink is host byte order; these hosts are little-endian.
void put16(Bytes& b, uint16_t v) {
  for (int i = 0; i < 2; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}
void put32(Bytes& b, uint32_t v) {
  for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

// Header: length, type, flags, sequence, port id; then the payload, padded to 4 bytes.
// `len` overrides the length field (0: the true length).
Bytes msg(uint16_t type, uint32_t seq, Bytes payload = {}, uint32_t len = 0) {
  Bytes b;
  put32(b, len != 0 ? len : static_cast<uint32_t>(16 + payload.size()));
  put16(b, type);
  put16(b, 0);
  put32(b, seq);
  put32(b, 0);
  b.insert(b.end(), payload.begin(), payload.end());
  while (b.size() % 4 != 0) b.push_back(0);
  return b;
}
Bytes errorMsg(uint32_t seq, int32_t code) {
  Bytes p;
  put32(p, static_cast<uint32_t>(code));
  return msg(NLMSG_ERROR, seq, p);
}
Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// RTM_GETADDR with an ifaddrmsg (family, prefix 0, flags 0x81, scope 0, index ~0), and
// header fields that NetlinkSend must overwrite: length 99, flags 0x0005, seq 77, pid 1234.
Bytes addrDumpRequest(uint8_t family) {
  Bytes b;
  put32(b, 99);
  put16(b, RTM_GETADDR);
  put16(b, 0x0005);
  put32(b, 77);
  put32(b, 1234);
  b.insert(b.end(), {family, 0, 0x81, 0, 0xff, 0xff, 0xff, 0xff});
  return b;
}

struct Seen {
  uint16_t type;
  uint32_t seq;
  unsigned int len;   // what the callback was given
  std::string where;  // "<ifname> <address>" for address messages
};

void record(void* user, nlmsghdr* m, unsigned int len) {
  Seen s{m->nlmsg_type, m->nlmsg_seq, len, ""};
  if ((s.type == RTM_NEWADDR || s.type == RTM_DELADDR) && len >= NLMSG_LENGTH(sizeof(ifaddrmsg))) {
    const ifaddrmsg* ifa = static_cast<const ifaddrmsg*>(NLMSG_DATA(m));
    int attrLen = static_cast<int>(std::min<unsigned int>(len, m->nlmsg_len)) -
                  static_cast<int>(NLMSG_LENGTH(sizeof(ifaddrmsg)));
    for (const rtattr* a = IFA_RTA(ifa); RTA_OK(a, attrLen); a = RTA_NEXT(a, attrLen)) {
      if (a->rta_type != IFA_ADDRESS) continue;
      char name[IF_NAMESIZE] = "?";
      char text[INET6_ADDRSTRLEN] = "";
      if_indextoname(ifa->ifa_index, name);
      inet_ntop(ifa->ifa_family, RTA_DATA(a), text, sizeof(text));
      s.where = std::string(name) + " " + text;
    }
  }
  static_cast<std::vector<Seen>*>(user)->push_back(s);
}

bool sawAddr(const std::vector<Seen>& seen, uint16_t type, const std::string& where) {
  for (const Seen& s : seen)
    if (s.type == type && s.where == where) return true;
  return false;
}

// Waits for data without asserting on time: the bound only keeps a fault from hanging.
bool readable(int fd) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, 10000) == 1;
}

const std::string kWouldBlock = "|NETLINK| Would block on receive, returning.";

class NetlinkKernelTest : public NetnsTest {
 protected:
  unsigned int send(NoxNetlinkSocket& sock, Bytes& request) {
    return sock.NetlinkSend(reinterpret_cast<nlmsghdr*>(request.data()),
                            static_cast<unsigned int>(request.size()));
  }

  LogCapture log_;
  std::vector<Seen> seen_;
};

TEST_F(NetlinkKernelTest, DumpRequestsCarryOwnSeqnoAndFlagsAndEndAtDone) {
  ASSERT_TRUE(addLink("mdlnk0") && linkUp("mdlnk0"));
  ASSERT_TRUE(addAddr("mdlnk0", "10.11.12.13/24") && addAddr("mdlnk0", "2001:db8::5/64"));
  NoxNetlinkSocket sock(NETLINK_ROUTE, 0);
  EXPECT_EQ(static_cast<uint32_t>(getpid()), sock.pid);

  Bytes v4 = addrDumpRequest(AF_INET), v6 = addrDumpRequest(AF_INET6);
  EXPECT_EQ(1u, send(sock, v4));
  EXPECT_EQ(Bytes({24, 0, 0, 0, RTM_GETADDR, 0, 0x01, 0x03, 1, 0, 0, 0, 0, 0, 0, 0}),
            Bytes(v4.begin(), v4.begin() + 16));
  EXPECT_TRUE(log_.has("|NETLINK| NetlinkSend len 24/24 type 22 flags 769\n"));
  EXPECT_TRUE(log_.has("|NETLINK| sendmsg 24"));
  sock.NetlinkRecv(1, record, &seen_);
  EXPECT_TRUE(sawAddr(seen_, RTM_NEWADDR, "mdlnk0 10.11.12.13"));

  EXPECT_EQ(2u, send(sock, v6));
  EXPECT_EQ(2, v6[8]);
  sock.NetlinkRecv(2, record, &seen_);
  EXPECT_TRUE(sawAddr(seen_, RTM_NEWADDR, "mdlnk0 2001:db8::5"));
  for (const Seen& s : seen_) EXPECT_NE(0u, s.seq);
  EXPECT_EQ(0, log_.count(kWouldBlock)) << "both dumps must end at their done message";
}

TEST_F(NetlinkKernelTest, NotificationsReachBothReceivePaths) {
  ASSERT_TRUE(addLink("mdlnk0") && linkUp("mdlnk0"));
  NoxNetlinkSocket sock(NETLINK_ROUTE, RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR);

  ASSERT_TRUE(addAddr("mdlnk0", "10.20.30.40/24"));
  sock.NetlinkRecv(0, record, &seen_);
  EXPECT_TRUE(sawAddr(seen_, RTM_NEWADDR, "mdlnk0 10.20.30.40"));
  EXPECT_TRUE(log_.has(kWouldBlock)) << "notifications carry no done: read until would-block";
  ASSERT_TRUE(delAddr("mdlnk0", "10.20.30.40/24"));
  sock.NetlinkRecv(0, record, &seen_);
  EXPECT_TRUE(sawAddr(seen_, RTM_DELADDR, "mdlnk0 10.20.30.40"));

  seen_.clear();
  ASSERT_TRUE(addAddr("mdlnk0", "2001:db8::7/64"));
  ASSERT_TRUE(readable(sock.fd));
  sock.NetlinkRecvSocketEvent(0, record, &seen_);
  ASSERT_EQ(1u, seen_.size());
  EXPECT_TRUE(sawAddr(seen_, RTM_NEWADDR, "mdlnk0 2001:db8::7"));
  EXPECT_LE(seen_[0].len, 72u);
}

TEST_F(NetlinkKernelTest, SecondSocketInProcessTakesKernelChosenPort) {
  NoxNetlinkSocket first(NETLINK_ROUTE, 0);
  NoxNetlinkSocket second(NETLINK_ROUTE, 0);
  ASSERT_EQ(static_cast<uint32_t>(getpid()), first.pid);
  ASSERT_NE(first.pid, second.pid);
  sockaddr_nl bound{};
  socklen_t boundLen = sizeof(bound);
  ASSERT_EQ(0, getsockname(second.fd, reinterpret_cast<sockaddr*>(&bound), &boundLen));
  EXPECT_EQ(bound.nl_pid, second.pid);
  EXPECT_TRUE(log_.has("|NETLINK| NoxNetlinkSocket port id " + std::to_string(first.pid) +
                       " in use, bound to kernel-chosen port id " + std::to_string(second.pid)));

  Bytes request = addrDumpRequest(AF_INET);
  EXPECT_EQ(1u, send(second, request));
  second.NetlinkRecv(1, record, &seen_);
  EXPECT_TRUE(sawAddr(seen_, RTM_NEWADDR, "lo 127.0.0.1"));
}

// Queue: a datagram from another netlink socket, the kernel's error for an unknown type
// (seq 1), the dump (seq 2). Receiving seq 2 skips the first two and ends at the done.
TEST_F(NetlinkKernelTest, ForeignAndStaleDatagramsAreSkippedAndKernelErrorsEndTheReceive) {
  NoxNetlinkSocket sock(NETLINK_ROUTE, 0);
  const int other = socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
  sockaddr_nl to{};
  to.nl_family = AF_NETLINK;
  to.nl_pid = sock.pid;
  const Bytes forged = msg(RTM_NEWADDR, 2);
  ASSERT_EQ(16, sendto(other, forged.data(), forged.size(), 0, reinterpret_cast<sockaddr*>(&to),
                       sizeof(to)));
  sockaddr_nl otherAddr{};
  socklen_t otherLen = sizeof(otherAddr);
  ASSERT_EQ(0, getsockname(other, reinterpret_cast<sockaddr*>(&otherAddr), &otherLen));
  close(other);

  Bytes unknown = msg(1000, 0, {0, 0, 0, 0}), dump = addrDumpRequest(AF_INET);
  EXPECT_EQ(1u, send(sock, unknown));
  EXPECT_EQ(2u, send(sock, dump));
  sock.NetlinkRecv(2, record, &seen_);
  EXPECT_TRUE(log_.has("|NETLINK| Netlink returned msg from another process " +
                       std::to_string(static_cast<int>(otherAddr.nl_pid)) + ", skipping"));
  EXPECT_TRUE(log_.has("|NETLINK| Netlink returned unexpected seqno 1 rather than 2, skipping"));
  EXPECT_TRUE(sawAddr(seen_, RTM_NEWADDR, "lo 127.0.0.1"));
  for (const Seen& s : seen_) EXPECT_EQ(2u, s.seq);
  EXPECT_EQ(0, log_.count("netlink error"));

  EXPECT_EQ(3u, send(sock, unknown));
  sock.NetlinkRecv(3, record, &seen_);
  EXPECT_TRUE(log_.has("|NETLINK| netlink error: Operation not supported"));
  EXPECT_EQ(0, log_.count(kWouldBlock));
}

TEST_F(NetlinkKernelTest, DroppedNotificationsAreReportedOnce) {
  ASSERT_TRUE(addLink("mdlnk0") && linkUp("mdlnk0"));
  NoxNetlinkSocket sock(NETLINK_ROUTE, RTMGRP_IPV4_IFADDR);
  const int tiny = 1;  // the kernel raises it to its minimum, a few notifications
  ASSERT_EQ(0, setsockopt(sock.fd, SOL_SOCKET, SO_RCVBUF, &tiny, sizeof(tiny)));
  for (int i = 1; i <= 16; ++i)
    ASSERT_TRUE(addAddr("mdlnk0", "10.9.0." + std::to_string(i) + "/24"));

  sock.NetlinkRecv(0, record, &seen_);
  EXPECT_TRUE(
      log_.has("|NETLINK| Unhandled error code 105 ( No buffer space available ), returning."));
  EXPECT_TRUE(sock.overrunSeen());
  EXPECT_FALSE(sock.overrunSeen());
  sock.NetlinkRecv(0, record, &seen_);  // what was queued before the drop is still there
  EXPECT_FALSE(seen_.empty());
  EXPECT_FALSE(sock.overrunSeen());
}

// Hand-built datagrams through an AF_UNIX datagram socket put in place of the netlink one.
// A sender bound to a 12-byte abstract address passes for a netlink sender: bytes 4..7 of
// its address, where a netlink address keeps the port id, are ours to choose, 0 for the
// kernel or anything else for another process. An unbound sender has no address at all.
class NetlinkWalkTest : public ::testing::Test {
 protected:
  enum From { kKernel, kForeign, kAnonymous };
  static constexpr uint32_t kForeignPort = 4242;

  void SetUp() override {
    const std::string name = std::string(1, '\0') + "noxnl-walk-" + std::to_string(getpid());
    to_.sun_family = AF_UNIX;
    memcpy(to_.sun_path, name.data(), name.size());
    toLen_ = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    close(sock_.fd);
    sock_.fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_EQ(0, bind(sock_.fd, reinterpret_cast<sockaddr*>(&to_), toLen_));
    senders_[kKernel] = boundSender(0);
    senders_[kForeign] = boundSender(kForeignPort);
    senders_[kAnonymous] = socket(AF_UNIX, SOCK_DGRAM, 0);
  }
  void TearDown() override {
    for (int fd : senders_) close(fd);
  }

  static int boundSender(uint32_t port) {
    const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;  // sun_path[0] stays 0: abstract
    a.sun_path[1] = 'N';
    const uint32_t me = static_cast<uint32_t>(getpid());
    memcpy(a.sun_path + 2, &port, 4);
    memcpy(a.sun_path + 6, &me, 4);
    EXPECT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(sockaddr_nl)));
    return fd;
  }
  void send(From from, const Bytes& d) {
    ASSERT_EQ(static_cast<ssize_t>(d.size()), sendto(senders_[from], d.data(), d.size(), 0,
                                                     reinterpret_cast<sockaddr*>(&to_), toLen_));
  }
  int leftQueued() {
    char b[64];
    int n = 0;
    while (recv(sock_.fd, b, sizeof(b), MSG_DONTWAIT) >= 0) ++n;
    return n;
  }
  static Bytes cut(Bytes b, size_t n) {
    b.resize(n);
    return b;
  }

  LogCapture log_;
  NoxNetlinkSocket sock_{NETLINK_ROUTE, 0};
  std::vector<Seen> seen_;
  sockaddr_un to_{};
  socklen_t toLen_ = 0;
  int senders_[3] = {-1, -1, -1};
};

TEST_F(NetlinkWalkTest, DatagramsAreWalkedSkippedAndEndedByTheRightMessages) {
  const uint16_t D = RTM_NEWADDR;
  struct Case {
    const char* what;
    unsigned int seqno;
    std::vector<std::pair<From, Bytes>> datagrams;
    std::vector<unsigned int> forwarded;  // the len each callback got: bytes to datagram end
    int left;                             // datagrams still queued afterwards
    std::string logLine;
  };
  // clang-format off
  const std::vector<Case> cases = {
      {"two data and a done: both forwarded, the next datagram stays", 5,
       {{kKernel, msg(D, 5, {1, 2, 3, 4}) + msg(D, 5, Bytes(8, 7)) + msg(NLMSG_DONE, 5, {0, 0, 0, 0})},
        {kKernel, msg(D, 5)}},
       {64, 44}, 1, "|NETLINK| Handling nlmsg_type 3 20"},
      {"data only: reads on until would-block", 0,
       {{kKernel, msg(D, 9)}, {kKernel, msg(D, 9)}},
       {16, 16}, 0, kWouldBlock},
      {"error: the rest of its datagram is still forwarded, then the receive ends", 3,
       {{kKernel, errorMsg(3, -EEXIST) + msg(D, 3)}, {kKernel, msg(D, 3)}},
       {16}, 1, "|NETLINK| netlink error: File exists"},
      {"done before data in one datagram still ends the receive", 0,
       {{kKernel, msg(NLMSG_DONE, 0) + msg(D, 0)}, {kKernel, msg(D, 0)}},
       {16}, 1, "|NETLINK| Wildcard seqno returned 0"},
      {"overrun ends the receive", 0,
       {{kKernel, msg(NLMSG_OVERRUN, 0) + msg(D, 0)}, {kKernel, msg(D, 0)}},
       {16}, 1, ""},
      {"noop is skipped", 0,
       {{kKernel, msg(NLMSG_NOOP, 0) + msg(D, 0) + msg(NLMSG_DONE, 0)}},
       {32}, 0, "|NETLINK| Skipping netlink noop message"},
      {"another process's datagram is skipped whole", 0,
       {{kForeign, msg(D, 0)}, {kKernel, msg(D, 0)}},
       {16}, 0, "|NETLINK| Netlink returned msg from another process 4242, skipping"},
      {"an unexpected first seqno skips the whole datagram", 8,
       {{kKernel, msg(D, 7) + msg(D, 8)}, {kKernel, msg(D, 8) + msg(NLMSG_DONE, 8)}},
       {32}, 0, "|NETLINK| Netlink returned unexpected seqno 7 rather than 8, skipping"},
      {"a length below 16 ends the walk", 0,
       {{kKernel, msg(D, 0) + msg(D, 0, {}, 12) + msg(D, 0)}},
       {48}, 0, kWouldBlock},
      {"a length beyond the datagram ends the walk", 0,
       {{kKernel, msg(D, 0) + msg(D, 0, {}, 200) + Bytes(16, 0)}},
       {48}, 0, kWouldBlock},
      {"an unpadded last message", 0,
       {{kKernel, msg(D, 0, {1, 2}) + cut(msg(D, 0, {1, 2}), 18)}},
       {38, 18}, 0, kWouldBlock},
      {"a datagram shorter than a header is skipped", 0,
       {{kKernel, Bytes(8, 1)}, {kKernel, msg(D, 0)}},
       {16}, 0, "|NETLINK| Netlink datagram of 8 bytes has no header, skipping"},
      {"a sender without a netlink address sends the last datagram", 0,
       {{kAnonymous, msg(D, 0)}, {kAnonymous, msg(D, 0)}},
       {16}, 1, ""},
      {"an error code with no negation", 0,
       {{kKernel, errorMsg(0, INT_MIN)}},
       {}, 0, "|NETLINK| netlink error: Unknown error -2147483648"},
      {"an error message without its code", 0,
       {{kKernel, msg(NLMSG_ERROR, 0)}},
       {}, 0, "|NETLINK| netlink error message too short (16 bytes)"},
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    log_.clear();
    seen_.clear();
    for (const auto& d : c.datagrams) send(d.first, d.second);
    sock_.NetlinkRecv(c.seqno, record, &seen_);
    std::vector<unsigned int> forwarded;
    for (const Seen& s : seen_) forwarded.push_back(s.len);
    EXPECT_EQ(c.forwarded, forwarded);
    if (!c.logLine.empty()) {
      EXPECT_TRUE(log_.has(c.logLine));
    }
    const bool overrunFirst = c.datagrams[0].second[4] == NLMSG_OVERRUN;  // low type byte
    EXPECT_EQ(overrunFirst, sock_.overrunSeen());
    EXPECT_EQ(c.left, leftQueued());
  }
}

TEST_F(NetlinkWalkTest, SocketEventPassesAtMost72BytesUnchecked) {
  send(kForeign, msg(RTM_NEWADDR, 0, Bytes(84, 9)));
  sock_.NetlinkRecvSocketEvent(0, record, &seen_);
  ASSERT_EQ(1u, seen_.size());
  EXPECT_EQ(RTM_NEWADDR, seen_[0].type);
  EXPECT_EQ(72u, seen_[0].len);

  send(kKernel, {});
  sock_.NetlinkRecvSocketEvent(0, record, &seen_);
  EXPECT_EQ(1u, seen_.size());
  EXPECT_TRUE(log_.has("|NETLINK| Netlink recvfrom failed because peer shutdown"));
}

TEST_F(NetlinkWalkTest, ReceiveErrorsAreLoggedAndReturn) {
  close(sock_.fd);
  sock_.fd = socket(AF_UNIX, SOCK_STREAM, 0);  // not connected: EINVAL
  sock_.NetlinkRecv(0, record, &seen_);
  EXPECT_TRUE(log_.has("|NETLINK| Invalid argument for netlink poll, returning."));

  close(sock_.fd);
  sock_.fd = -1;
  sock_.NetlinkRecv(0, record, &seen_);
  EXPECT_TRUE(log_.has("|NETLINK| NoxNetlinkSocket Recv: -1"));
  EXPECT_TRUE(log_.has("|NETLINK| Unhandled error code 9 ( Bad file descriptor ), returning."));
  sock_.NetlinkRecvSocketEvent(0, record, &seen_);
  EXPECT_TRUE(log_.has("|NETLINK| Netlink recvfrom failed"));
  EXPECT_TRUE(seen_.empty());
  EXPECT_FALSE(sock_.overrunSeen());
}

}  // namespace
