#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "NetnsFixture.h"
#include "NoxNetlinkSocket.h"
#include "TestLog.h"

namespace {

using Bytes = std::vector<uint8_t>;
const std::string kWouldBlock = "|NETLINK| Would block on receive, returning.";

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
// A message by hand, in host byte order: header, then the payload padded to 4 bytes.
// `len` overrides the length field (0: the true length).
Bytes msg(uint16_t type, uint32_t seq, const Bytes& payload = {}, uint32_t len = 0,
          uint16_t flags = 0, uint32_t port = 0) {
  const nlmsghdr h{len != 0 ? len : uint32_t(16 + payload.size()), type, flags, seq, port};
  Bytes b = Bytes(reinterpret_cast<const uint8_t*>(&h), reinterpret_cast<const uint8_t*>(&h + 1)) +
            payload;
  b.resize((b.size() + 3) & ~size_t{3});
  return b;
}

// What a callback was given: the length (bytes to the datagram's end) and the message,
// as far as both its length and the datagram reach.
struct Seen {
  unsigned int len;
  Bytes bytes;
};
void record(void* user, nlmsghdr* m, unsigned int len) {
  const uint8_t* p = reinterpret_cast<const uint8_t*>(m);
  static_cast<std::vector<Seen>*>(user)->push_back(
      {len, Bytes(p, p + std::min(len, m->nlmsg_len))});
}

class NetlinkKernelTest : public NetnsTest {
 protected:
  void SetUp() override {
    NetnsTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_TRUE(addLink("mdlnk0") && linkUp("mdlnk0"));
  }
  // Sends an RTM_GETADDR dump request whose length, flags, seq and port id are wrong, for
  // NetlinkSend to replace, and returns the header it sent.
  Bytes dump(NoxNetlinkSocket& sock, uint8_t family, unsigned int expectedSeq) {
    Bytes m = msg(RTM_GETADDR, 77, {family, 0, 0x81, 0, 0xff, 0xff, 0xff, 0xff}, 99, 5, 1234);
    EXPECT_EQ(expectedSeq, sock.NetlinkSend(reinterpret_cast<nlmsghdr*>(m.data()), m.size()));
    return Bytes(m.begin(), m.begin() + 16);
  }
  // Whether a new-address message holding the address `text` came through.
  bool saw(int family, const char* text) const {
    uint8_t a[16];
    EXPECT_EQ(1, inet_pton(family, text, a));
    const size_t n = family == AF_INET ? 4 : 16;
    return std::any_of(seen_.begin(), seen_.end(), [&](const Seen& s) {
      return s.bytes[4] == RTM_NEWADDR &&
             std::search(s.bytes.begin(), s.bytes.end(), a, a + n) != s.bytes.end();
    });
  }

  LogCapture log_;
  std::vector<Seen> seen_;
};

TEST_F(NetlinkKernelTest, DumpsEndAtDoneNotificationsAtWouldBlockDropsReportedOnce) {
  ASSERT_TRUE(addAddr("mdlnk0", "10.11.12.13/24") && addAddr("mdlnk0", "2001:db8::5/64"));
  NoxNetlinkSocket sock(NETLINK_ROUTE, RTMGRP_IPV4_IFADDR), second(NETLINK_ROUTE, 0);
  EXPECT_EQ(static_cast<uint32_t>(getpid()), sock.pid);
  EXPECT_EQ(Bytes({24, 0, 0, 0, RTM_GETADDR, 0, 0x01, 0x03, 1, 0, 0, 0, 0, 0, 0, 0}),
            dump(sock, AF_INET, 1));
  sock.NetlinkRecv(1, record, &seen_);
  dump(sock, AF_INET6, 2);
  sock.NetlinkRecv(2, record, &seen_);
  EXPECT_TRUE(saw(AF_INET, "10.11.12.13"));
  EXPECT_TRUE(saw(AF_INET6, "2001:db8::5"));
  EXPECT_EQ(0, log_.count(kWouldBlock)) << "both dumps must end at their done message";
  seen_.clear();
  ASSERT_TRUE(addAddr("mdlnk0", "10.20.30.40/24"));
  sock.NetlinkRecv(0, record, &seen_);
  EXPECT_TRUE(saw(AF_INET, "10.20.30.40"));
  EXPECT_TRUE(log_.has(kWouldBlock)) << "notifications carry no done: read until would-block";

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

  // The second socket in the process finds its port id taken and lets the kernel choose.
  sockaddr_nl bound{};
  socklen_t boundLen = sizeof(bound);
  ASSERT_EQ(0, getsockname(second.fd, reinterpret_cast<sockaddr*>(&bound), &boundLen));
  EXPECT_NE(sock.pid, second.pid);
  EXPECT_EQ(bound.nl_pid, second.pid);
  EXPECT_TRUE(log_.has("|NETLINK| NoxNetlinkSocket port id " + std::to_string(sock.pid) +
                       " in use, bound to kernel-chosen port id " + std::to_string(second.pid)));
  seen_.clear();
  dump(second, AF_INET, 1);
  second.NetlinkRecv(1, record, &seen_);
  EXPECT_TRUE(saw(AF_INET, "127.0.0.1"));
}

// Hand-built datagrams through an AF_UNIX datagram socket put in place of the netlink one.
// A sender bound to a 12-byte abstract address passes for a netlink sender: bytes 4..7 of
// its address, where a netlink address keeps the port id, are ours to choose, 0 for the
// kernel or anything else for another process. An unbound sender has no address at all.
class NetlinkWalkTest : public ::testing::Test {
 protected:
  enum From { kKernel, kForeign, kAnonymous };

  void SetUp() override {
    close(sock_.fd);
    sock_.fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    // An address of only the family: the kernel picks an abstract one.
    ASSERT_EQ(0, bind(sock_.fd, reinterpret_cast<sockaddr*>(&to_), sizeof(sa_family_t)));
    ASSERT_EQ(0, getsockname(sock_.fd, reinterpret_cast<sockaddr*>(&to_), &toLen_));
    for (From from : {kKernel, kForeign}) {
      sockaddr_un a{AF_UNIX, {0, 'N'}};  // sun_path[0] == 0: abstract
      const uint32_t portAndMore[2] = {from == kKernel ? 0u : 4242u, uint32_t(getpid())};
      memcpy(a.sun_path + 2, portAndMore, 8);
      senders_[from] = socket(AF_UNIX, SOCK_DGRAM, 0);
      ASSERT_EQ(0, bind(senders_[from], reinterpret_cast<sockaddr*>(&a), sizeof(sockaddr_nl)));
    }
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
  sockaddr_un to_{AF_UNIX, {}};
  socklen_t toLen_ = sizeof(to_);
  int senders_[3] = {-1, -1, socket(AF_UNIX, SOCK_DGRAM, 0)};
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
      // An error (-EEXIST): the rest of its datagram is still forwarded, then the receive ends.
      {3, {{kKernel, msg(NLMSG_ERROR, 3, {0xef, 0xff, 0xff, 0xff}) + msg(D, 3)}, {kKernel, msg(D, 3)}},
       {16}, 1, "|NETLINK| netlink error: File exists"},
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
      {0, {{kKernel, msg(NLMSG_ERROR, 0, {0, 0, 0, 0x80})}}, {}, 0,  // INT_MIN
       "|NETLINK| netlink error: Unknown error -2147483648"},
      {0, {{kKernel, msg(NLMSG_ERROR, 0)}}, {}, 0, "|NETLINK| netlink error message too short (16 bytes)"},
      // clang-format on
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    log_.clear();
    seen_.clear();
    for (const auto& d : c.datagrams) send(d.first, d.second);
    sock_.NetlinkRecv(c.seqno, record, &seen_);
    std::vector<unsigned int> forwarded;  // the len each callback got
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
  EXPECT_EQ(72u, seen_[0].len);
  EXPECT_EQ(msg(RTM_NEWADDR, 0, Bytes(84, 9)), seen_[0].bytes + Bytes(28, 9));
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
