#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "NoxNetlinkSocket.h"
#include "TestLog.h"
#include "Wire.h"

namespace {

const std::string kWouldBlock = "|NETLINK| Would block on receive, returning.";

// Each callback's length: the bytes from its message to the datagram's end.
using Seen = std::vector<unsigned int>;
void record(void* user, nlmsghdr*, unsigned int len) { static_cast<Seen*>(user)->push_back(len); }

// The first socket of the process binds port id getpid(); a second one (a plug-in's, say)
// gets one from the kernel, and the replies to its requests reach it there. Dumps and
// notifications from the kernel: dsm_netns_test.cpp.
TEST(NetlinkPortTest, ASecondSocketGetsAPortIdOfItsOwn) {
  LogCapture log;
  NoxNetlinkSocket first(NETLINK_ROUTE, 0), second(NETLINK_ROUTE, 0);
  EXPECT_EQ(static_cast<uint32_t>(getpid()), first.pid);
  sockaddr_nl bound{};
  socklen_t boundLen = sizeof(bound);
  ASSERT_EQ(0, getsockname(second.fd, reinterpret_cast<sockaddr*>(&bound), &boundLen));
  EXPECT_NE(first.pid, second.pid);
  EXPECT_EQ(bound.nl_pid, second.pid);
  Bytes dump = nlmsg(RTM_GETLINK, 0, Bytes(sizeof(ifinfomsg), 0));
  EXPECT_EQ(1u, second.NetlinkSend(reinterpret_cast<nlmsghdr*>(dump.data()), dump.size()));
  Seen seen;
  second.NetlinkRecv(1, record, &seen);
  EXPECT_FALSE(seen.empty());  // lo at least
  EXPECT_EQ(0, log.count(kWouldBlock)) << "a dump ends at its done message";
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
  Seen seen_;
  sockaddr_un to_{AF_UNIX, {}};
  socklen_t toLen_ = sizeof(to_);
  int senders_[3] = {-1, -1, socket(AF_UNIX, SOCK_DGRAM, 0)};
};

TEST_F(NetlinkWalkTest, DatagramsAreWalkedSkippedAndEndedByTheRightMessages) {
  const uint16_t D = RTM_NEWADDR;
  const Bytes odd = nlmsg(D, 0, {1, 2}), oddCut(odd.begin(), odd.begin() + 18);
  const struct {
    unsigned int seqno;
    std::vector<std::pair<From, Bytes>> datagrams;
    std::vector<unsigned int> forwarded;  // the len each callback got
    int left;                             // datagrams still queued afterwards
    std::string logLine;
  } cases[] = {
      // clang-format off
      // Two data messages and a done: both forwarded, the next datagram stays.
      {5, {{kKernel, nlmsg(D, 5, {1, 2, 3, 4}) + nlmsg(D, 5, Bytes(8, 7)) + nlmsg(NLMSG_DONE, 5, {0, 0, 0, 0})},
           {kKernel, nlmsg(D, 5)}}, {64, 44}, 1, "|NETLINK| Handling nlmsg_type 3 20"},
      // Data only: reads on until would-block.
      {0, {{kKernel, nlmsg(D, 9)}, {kKernel, nlmsg(D, 9)}}, {16, 16}, 0, kWouldBlock},
      // An error (-EEXIST): the rest of its datagram is still forwarded, then the receive ends.
      {3, {{kKernel, nlmsg(NLMSG_ERROR, 3, {0xef, 0xff, 0xff, 0xff}) + nlmsg(D, 3)}, {kKernel, nlmsg(D, 3)}},
       {16}, 1, "|NETLINK| netlink error: File exists"},
      // An overrun, a no-op, another process's message, another request's: skipped.
      {0, {{kKernel, nlmsg(NLMSG_OVERRUN, 0) + nlmsg(D, 0)}, {kKernel, nlmsg(D, 0)}}, {16}, 1, ""},
      {0, {{kKernel, nlmsg(NLMSG_NOOP, 0) + nlmsg(D, 0) + nlmsg(NLMSG_DONE, 0)}}, {32}, 0, ""},
      {0, {{kForeign, nlmsg(D, 0)}, {kKernel, nlmsg(D, 0)}}, {16}, 0, ""},
      {8, {{kKernel, nlmsg(D, 7) + nlmsg(D, 8)}, {kKernel, nlmsg(D, 8) + nlmsg(NLMSG_DONE, 8)}}, {32}, 0, ""},
      // A length field below 16 or beyond the datagram ends the walk; an unpadded last
      // message is still forwarded.
      {0, {{kKernel, nlmsg(D, 0) + nlmsg(D, 0, {}, 12) + nlmsg(D, 0)}}, {48}, 0, kWouldBlock},
      {0, {{kKernel, nlmsg(D, 0) + nlmsg(D, 0, {}, 200) + Bytes(16, 0)}}, {48}, 0, kWouldBlock},
      {0, {{kKernel, odd + oddCut}}, {38, 18}, 0, kWouldBlock},
      {0, {{kKernel, Bytes(8, 1)}, {kKernel, nlmsg(D, 0)}}, {16}, 0, ""},  // no whole header
      // A sender without a netlink address sends the last datagram read.
      {0, {{kAnonymous, nlmsg(D, 0)}, {kAnonymous, nlmsg(D, 0)}}, {16}, 1, ""},
      {0, {{kKernel, nlmsg(NLMSG_ERROR, 0, {0, 0, 0, 0x80})}}, {}, 0,  // INT_MIN
       "|NETLINK| netlink error: Unknown error -2147483648"},
      {0, {{kKernel, nlmsg(NLMSG_ERROR, 0)}}, {}, 0, "|NETLINK| netlink error message too short (16 bytes)"},
      // clang-format on
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    log_.clear();
    seen_.clear();
    for (const auto& d : c.datagrams) send(d.first, d.second);
    sock_.NetlinkRecv(c.seqno, record, &seen_);
    EXPECT_EQ(c.forwarded, seen_);
    EXPECT_TRUE(c.logLine.empty() || log_.has(c.logLine)) << c.logLine;
    EXPECT_EQ(c.datagrams[0].second[4] == NLMSG_OVERRUN, sock_.overrunSeen());  // low type byte
    EXPECT_EQ(c.left, leftQueued());
  }
}

// A receive that fails ends at once, with its line.
TEST_F(NetlinkWalkTest, ReceiveErrorsEndTheWalk) {
  close(sock_.fd);
  sock_.fd = socket(AF_UNIX, SOCK_STREAM, 0);  // not connected: EINVAL
  sock_.NetlinkRecv(0, record, &seen_);
  EXPECT_TRUE(log_.has("|NETLINK| Invalid argument for netlink poll, returning."));
  close(sock_.fd);
  sock_.fd = -1;
  sock_.NetlinkRecv(0, record, &seen_);
  EXPECT_TRUE(log_.has("|NETLINK| Unhandled error code 9 ( Bad file descriptor ), returning."));
  EXPECT_TRUE(seen_.empty());
}

}  // namespace
