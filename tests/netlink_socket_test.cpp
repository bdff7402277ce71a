#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "NetnsFixture.h"
#include "NoxNetlinkSocket.h"
#include "TestLog.h"

namespace {

using Bytes = std::vector<uint8_t>;

// A message by hand, in host byte order: header, then the payload padded to 4 bytes.
// `len` overrides the length field (0: the true length).
Bytes msg(uint16_t type, uint32_t seq, Bytes payload = {}, uint32_t len = 0, uint16_t flags = 0,
          uint32_t port = 0) {
  const nlmsghdr h{len != 0 ? len : uint32_t(16 + payload.size()), type, flags, seq, port};
  Bytes b((16 + payload.size() + 3) & ~size_t{3});
  memcpy(b.data(), &h, 16);
  std::copy(payload.begin(), payload.end(), b.begin() + 16);
  return b;
}
Bytes errorMsg(uint32_t seq, int32_t code) {
  return msg(NLMSG_ERROR, seq,
             Bytes(reinterpret_cast<uint8_t*>(&code), reinterpret_cast<uint8_t*>(&code) + 4));
}
Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
// RTM_GETADDR for all interfaces, with length, flags, seq and port id for NetlinkSend to replace.
Bytes addrDump(uint8_t family) {
  return msg(RTM_GETADDR, 77, {family, 0, 0x81, 0, 0xff, 0xff, 0xff, 0xff}, 99, 5, 1234);
}

struct Seen {
  uint16_t type;
  unsigned int len;   // what the callback was given: bytes to the datagram's end
  std::string where;  // "<ifname> <address>" for new-address messages
};
void record(void* user, nlmsghdr* m, unsigned int len) {
  Seen s{m->nlmsg_type, len, ""};
  if (s.type == RTM_NEWADDR && len >= NLMSG_LENGTH(sizeof(ifaddrmsg))) {
    const ifaddrmsg* ifa = static_cast<const ifaddrmsg*>(NLMSG_DATA(m));
    int left = int(std::min(len, m->nlmsg_len)) - int(NLMSG_LENGTH(sizeof(ifaddrmsg)));
    for (const rtattr* a = IFA_RTA(ifa); RTA_OK(a, left); a = RTA_NEXT(a, left)) {
      char name[IF_NAMESIZE] = "?", text[INET6_ADDRSTRLEN] = "";
      if (a->rta_type != IFA_ADDRESS) continue;
      if_indextoname(ifa->ifa_index, name);
      inet_ntop(ifa->ifa_family, RTA_DATA(a), text, sizeof(text));
      s.where = std::string(name) + " " + text;
    }
  }
  static_cast<std::vector<Seen>*>(user)->push_back(s);
}

const std::string kWouldBlock = "|NETLINK| Would block on receive, returning.";

class NetlinkKernelTest : public NetnsTest {
 protected:
  unsigned int send(NoxNetlinkSocket& sock, Bytes& request) {
    return sock.NetlinkSend(reinterpret_cast<nlmsghdr*>(request.data()), request.size());
  }
  bool saw(const std::string& where) const {
    return std::any_of(seen_.begin(), seen_.end(), [&](const Seen& s) { return s.where == where; });
  }

  LogCapture log_;
  std::vector<Seen> seen_;
};

TEST_F(NetlinkKernelTest, DumpRequestsCarryOwnSeqnoAndFlagsAndEndAtDone) {
  ASSERT_TRUE(addLink("mdlnk0") && linkUp("mdlnk0"));
  ASSERT_TRUE(addAddr("mdlnk0", "10.11.12.13/24") && addAddr("mdlnk0", "2001:db8::5/64"));
  NoxNetlinkSocket sock(NETLINK_ROUTE, 0), second(NETLINK_ROUTE, 0);
  EXPECT_EQ(static_cast<uint32_t>(getpid()), sock.pid);
  Bytes v4 = addrDump(AF_INET), v6 = addrDump(AF_INET6), again = addrDump(AF_INET);
  EXPECT_EQ(1u, send(sock, v4));
  EXPECT_EQ(Bytes({24, 0, 0, 0, RTM_GETADDR, 0, 0x01, 0x03, 1, 0, 0, 0, 0, 0, 0, 0}),
            Bytes(v4.begin(), v4.begin() + 16));
  EXPECT_TRUE(log_.has("|NETLINK| NetlinkSend len 24/24 type 22 flags 769\n"));
  EXPECT_TRUE(log_.has("|NETLINK| sendmsg 24"));
  sock.NetlinkRecv(1, record, &seen_);
  EXPECT_EQ(2u, send(sock, v6));
  sock.NetlinkRecv(2, record, &seen_);
  EXPECT_TRUE(saw("mdlnk0 10.11.12.13"));
  EXPECT_TRUE(saw("mdlnk0 2001:db8::5"));
  EXPECT_EQ(0, log_.count(kWouldBlock)) << "both dumps must end at their done message";

  // The second socket in the process finds its port id taken and lets the kernel choose.
  sockaddr_nl bound{};
  socklen_t boundLen = sizeof(bound);
  ASSERT_EQ(0, getsockname(second.fd, reinterpret_cast<sockaddr*>(&bound), &boundLen));
  EXPECT_NE(sock.pid, second.pid);
  EXPECT_EQ(bound.nl_pid, second.pid);
  EXPECT_TRUE(log_.has("|NETLINK| NoxNetlinkSocket port id " + std::to_string(sock.pid) +
                       " in use, bound to kernel-chosen port id " + std::to_string(second.pid)));
  seen_.clear();
  EXPECT_EQ(1u, send(second, again));
  second.NetlinkRecv(1, record, &seen_);
  EXPECT_TRUE(saw("lo 127.0.0.1"));
}

TEST_F(NetlinkKernelTest, NotificationsReachBothReceivePathsAndDropsAreReportedOnce) {
  ASSERT_TRUE(addLink("mdlnk0") && linkUp("mdlnk0"));
  NoxNetlinkSocket sock(NETLINK_ROUTE, RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR);
  ASSERT_TRUE(addAddr("mdlnk0", "10.20.30.40/24"));
  sock.NetlinkRecv(0, record, &seen_);
  EXPECT_TRUE(saw("mdlnk0 10.20.30.40"));
  EXPECT_TRUE(log_.has(kWouldBlock)) << "notifications carry no done: read until would-block";
  seen_.clear();
  ASSERT_TRUE(addAddr("mdlnk0", "2001:db8::7/64"));
  pollfd readable{sock.fd, POLLIN, 0};
  ASSERT_EQ(1, poll(&readable, 1, 10000));  // the bound only keeps a fault from hanging
  sock.NetlinkRecvSocketEvent(0, record, &seen_);
  ASSERT_EQ(1u, seen_.size());
  EXPECT_TRUE(saw("mdlnk0 2001:db8::7"));
  EXPECT_LE(seen_[0].len, 72u);

  const int tiny = 1;  // the kernel raises it to its minimum, a few notifications
  ASSERT_EQ(0, setsockopt(sock.fd, SOL_SOCKET, SO_RCVBUF, &tiny, sizeof(tiny)));
  for (int i = 1; i <= 16; ++i)
    ASSERT_TRUE(addAddr("mdlnk0", "10.9.0." + std::to_string(i) + "/24"));
  EXPECT_FALSE(sock.overrunSeen());
  sock.NetlinkRecv(0, record, &seen_);
  EXPECT_TRUE(
      log_.has("|NETLINK| Unhandled error code 105 ( No buffer space available ), returning."));
  EXPECT_TRUE(sock.overrunSeen());
  EXPECT_FALSE(sock.overrunSeen());
  seen_.clear();
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

  void SetUp() override {
    const std::string name = std::string(1, '\0') + "noxnl-walk-" + std::to_string(getpid());
    to_.sun_family = AF_UNIX;
    memcpy(to_.sun_path, name.data(), name.size());
    toLen_ = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    close(sock_.fd);
    sock_.fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_EQ(0, bind(sock_.fd, reinterpret_cast<sockaddr*>(&to_), toLen_));
    for (uint32_t port : {0, 4242}) {
      senders_.push_back(socket(AF_UNIX, SOCK_DGRAM, 0));
      sockaddr_un a{AF_UNIX, {0, 'N'}};  // sun_path[0] == 0: abstract
      const uint32_t me = static_cast<uint32_t>(getpid());
      memcpy(a.sun_path + 2, &port, 4);
      memcpy(a.sun_path + 6, &me, 4);
      ASSERT_EQ(0, bind(senders_.back(), reinterpret_cast<sockaddr*>(&a), sizeof(sockaddr_nl)));
    }
    senders_.push_back(socket(AF_UNIX, SOCK_DGRAM, 0));
  }
  void TearDown() override {
    for (int fd : senders_) close(fd);
  }
  void send(From from, const Bytes& d) {
    ASSERT_EQ(ssize_t(d.size()), sendto(senders_[from], d.data(), d.size(), 0,
                                        reinterpret_cast<sockaddr*>(&to_), toLen_));
  }
  int leftQueued() {
    char b[64];
    int n = 0;
    while (recv(sock_.fd, b, sizeof(b), MSG_DONTWAIT) >= 0) ++n;
    return n;
  }

  LogCapture log_;
  NoxNetlinkSocket sock_{NETLINK_ROUTE, 0};
  std::vector<Seen> seen_;
  sockaddr_un to_{};
  socklen_t toLen_ = 0;
  std::vector<int> senders_;
};

TEST_F(NetlinkWalkTest, DatagramsAreWalkedSkippedAndEndedByTheRightMessages) {
  const uint16_t D = RTM_NEWADDR;
  const Bytes odd = msg(D, 0, {1, 2}), oddCut(odd.begin(), odd.begin() + 18);
  const struct {
    unsigned int seqno;
    std::vector<std::pair<From, Bytes>> datagrams;
    std::vector<unsigned int> forwarded;  // the len each callback got
    int left;                             // datagrams still queued afterwards
    std::string logLine;
  } cases[] = {
      // clang-format off
      // Two data messages and a done: both forwarded, the next datagram stays.
      {5, {{kKernel, msg(D, 5, {1, 2, 3, 4}) + msg(D, 5, Bytes(8, 7)) + msg(NLMSG_DONE, 5, {0, 0, 0, 0})},
           {kKernel, msg(D, 5)}}, {64, 44}, 1, "|NETLINK| Handling nlmsg_type 3 20"},
      // Data only: reads on until would-block.
      {0, {{kKernel, msg(D, 9)}, {kKernel, msg(D, 9)}}, {16, 16}, 0, kWouldBlock},
      // An error: the rest of its datagram is still forwarded, then the receive ends.
      {3, {{kKernel, errorMsg(3, -EEXIST) + msg(D, 3)}, {kKernel, msg(D, 3)}}, {16}, 1,
       "|NETLINK| netlink error: File exists"},
      {0, {{kKernel, msg(NLMSG_OVERRUN, 0) + msg(D, 0)}, {kKernel, msg(D, 0)}}, {16}, 1,
       "|NETLINK| Wildcard seqno returned 0"},
      {0, {{kKernel, msg(NLMSG_NOOP, 0) + msg(D, 0) + msg(NLMSG_DONE, 0)}}, {32}, 0,
       "|NETLINK| Skipping netlink noop message"},
      {0, {{kForeign, msg(D, 0)}, {kKernel, msg(D, 0)}}, {16}, 0,
       "|NETLINK| Netlink returned msg from another process 4242, skipping"},
      {8, {{kKernel, msg(D, 7) + msg(D, 8)}, {kKernel, msg(D, 8) + msg(NLMSG_DONE, 8)}}, {32}, 0,
       "|NETLINK| Netlink returned unexpected seqno 7 rather than 8, skipping"},
      // A length field below 16 or beyond the datagram ends the walk; an unpadded last
      // message is still forwarded.
      {0, {{kKernel, msg(D, 0) + msg(D, 0, {}, 12) + msg(D, 0)}}, {48}, 0, kWouldBlock},
      {0, {{kKernel, msg(D, 0) + msg(D, 0, {}, 200) + Bytes(16, 0)}}, {48}, 0, kWouldBlock},
      {0, {{kKernel, odd + oddCut}}, {38, 18}, 0, kWouldBlock},
      {0, {{kKernel, Bytes(8, 1)}, {kKernel, msg(D, 0)}}, {16}, 0,
       "|NETLINK| Netlink datagram of 8 bytes has no header, skipping"},
      // A sender without a netlink address sends the last datagram read.
      {0, {{kAnonymous, msg(D, 0)}, {kAnonymous, msg(D, 0)}}, {16}, 1, ""},
      {0, {{kKernel, errorMsg(0, INT_MIN)}}, {}, 0, "|NETLINK| netlink error: Unknown error -2147483648"},
      {0, {{kKernel, msg(NLMSG_ERROR, 0)}}, {}, 0, "|NETLINK| netlink error message too short (16 bytes)"},
      // clang-format on
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    log_.clear();
    seen_.clear();
    for (const auto& d : c.datagrams) send(d.first, d.second);
    sock_.NetlinkRecv(c.seqno, record, &seen_);
    std::vector<unsigned int> forwarded;
    for (const Seen& s : seen_) forwarded.push_back(s.len);
    EXPECT_EQ(c.forwarded, forwarded);
    EXPECT_TRUE(c.logLine.empty() || log_.has(c.logLine)) << c.logLine;
    EXPECT_EQ(c.datagrams[0].second[4] == NLMSG_OVERRUN, sock_.overrunSeen());  // low type byte
    EXPECT_EQ(c.left, leftQueued());
  }
}

TEST_F(NetlinkWalkTest, SocketEventPassesAtMost72BytesUncheckedAndErrorsAreLogged) {
  send(kForeign, msg(RTM_NEWADDR, 0, Bytes(84, 9)));
  sock_.NetlinkRecvSocketEvent(0, record, &seen_);
  ASSERT_EQ(1u, seen_.size());
  EXPECT_EQ(RTM_NEWADDR, seen_[0].type);
  EXPECT_EQ(72u, seen_[0].len);
  send(kKernel, {});
  sock_.NetlinkRecvSocketEvent(0, record, &seen_);
  EXPECT_TRUE(log_.has("|NETLINK| Netlink recvfrom failed because peer shutdown"));

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
  EXPECT_EQ(1u, seen_.size());
  EXPECT_FALSE(sock_.overrunSeen());
}

}  // namespace
