// Interface tracking against the real kernel: a real Nox in a private network namespace
// of its own (one per process: ctest runs each case in a process of its own) with tun links
// mdlnk0, mdlnk1 and wlan0, changed with `ip` while the test drives the loop. Needs root
// or CAP_NET_ADMIN; skips otherwise, unless NOX_REQUIRE_NETNS=1 makes that a failure.

#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "DsmEventLog.h"
#include "ModemSimProcess.h"
#include "Nox.h"
#include "TestLog.h"
#include "Wire.h"

namespace {

using Ids = std::vector<NoxDsmEvent>;
const NoxDsmEvent kIface = NOX_DSM_WWAN_INTERFACE_STATUS_CHANGE_EVENT;
const NoxDsmEvent kApn = NOX_DSM_WWAN_APN_STATUS_CHANGE_EVENT;
const NoxDsmEvent kMcc = NOX_DSM_MCC_MNC_CHANGE_EVENT;
const int32_t kUp = NOX_NW_STATE_CONNECTED, kDown = NOX_NW_STATE_DISCONNECTED;
const int32_t kLte = NOX_RAT_SUBTYPE_LTE, kHspap = NOX_RAT_SUBTYPE_HSPAP;
using Mcc = std::array<char, NOX_MCCMNC_SIZE>;

// Runs iproute2's `ip` (lines of `batch` on its standard input); what it says on failure
// goes to the test's output.
bool ip(const std::string& args, const std::string& batch = "") {
  FILE* pipe = popen(("ip " + args).c_str(), "w");
  if (pipe != nullptr) fputs(batch.c_str(), pipe);
  const int status = pipe != nullptr ? pclose(pipe) : -1;
  const bool ok = status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
  EXPECT_TRUE(ok) << "ip " << args;
  return ok;
}
// `cidr` as "10.0.0.1/24" or "2001:db8::1/64". IPv6 unicast goes in with nodad (one
// RTM_NEWADDR, no later flag change), multicast with autojoin, which the kernel requires.
bool addAddr(const std::string& iface, const std::string& cidr) {
  if (cidr.find(':') == std::string::npos) return ip("-4 addr add " + cidr + " dev " + iface);
  return ip("-6 addr add " + cidr + " dev " + iface + (cidr.rfind("ff", 0) == 0 ? " autojoin" : " nodad"));
}

Bytes ifinfo(uint8_t family, unsigned int index, uint32_t flags, uint32_t change) {
  return bytesOf(ifinfomsg{family, 0, 0, static_cast<int>(index), flags, change});
}
// ifaddrmsg, then an IFA_ADDRESS attribute holding `addr`; `attrLen` overrides its length.
Bytes ifaddr(uint8_t family, unsigned int index, const Bytes& addr, uint16_t attrLen = 0) {
  const rtattr attr{attrLen != 0 ? attrLen : uint16_t(RTA_LENGTH(addr.size())), IFA_ADDRESS};
  return bytesOf(ifaddrmsg{family, 24, 0, 0, index}) + bytesOf(attr) + addr;
}
Bytes first(const Bytes& b, size_t n) { return Bytes(b.begin(), b.begin() + n); }

class DsmNetnsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    static const int error = unshare(CLONE_NEWNET) != 0 ? errno : 0;
    if (error != 0) {
      const char* required = getenv("NOX_REQUIRE_NETNS");
      if (required != nullptr && strcmp(required, "1") == 0)
        FAIL() << "NOX_REQUIRE_NETNS=1 but no private network namespace: " << strerror(error);
      GTEST_SKIP() << "no private network namespace (needs root): " << strerror(error);
    }
    inNetns_ = true;
    // No automatic link-local addresses: whatever the link kind, the test adds every address.
    std::string links = "link set dev lo up\n";
    for (const std::string name : {"mdlnk0", "mdlnk1", "wlan0"})
      links += "tuntap add dev " + name + " mode tun\nlink set dev " + name +
               " addrgenmode none\nlink set dev " + name + " up\n";
    ASSERT_TRUE(ip("-batch -", links));
    start();
  }
  // Every link but lo goes, with its addresses, for the next case of this process.
  void TearDown() override {
    events_.reset(), nox_.reset();
    if (!inNetns_) return;  // never the host's links
    std::string links;
    if (struct if_nameindex* names = if_nameindex()) {
      for (struct if_nameindex* n = names; n->if_index != 0; ++n)
        if (strcmp(n->if_name, "lo") != 0) links += std::string("link del dev ") + n->if_name + "\n";
      if_freenameindex(names);
    }
    ip("-batch -", links);
  }
  // A fresh Nox, which loads the addresses the kernel has now.
  void start() {
    events_.reset(), nox_.reset();
    runWithoutModem();
    property_host_reset();
    property_set("persist.nox.feature", "4");
    nox_ = std::make_unique<Nox>();
    events_ = std::make_unique<DsmEventLog>(nox_->dsm);
  }
  NoxDsm& dsm() { return nox_->dsm; }

  // Runs the loop until `done` holds. Some notifications come from kernel work queues
  // after `ip` returns; the bound only keeps a fault from hanging the test.
  bool driveUntil(const std::function<bool()>& done) {
    for (int pass = 0; pass < 200 && !done(); ++pass) nox_->com.processEvents(100, nox_->timer);
    return done();
  }
  bool driveUntilLogged(const std::string& needle, int times = 1) {
    return driveUntil([&] { return log_.count(needle) >= times; });
  }
  // The last interface event as "status,name,IPv4,IPv6".
  std::string lastIface() {
    const auto e = events_->last<_NoxDsmWwanIfaceInfoType>(kIface);
    return std::to_string(e.status) + "," + e.ifaceName + "," + e.ipAddr + "," + e.ipAddrV6;
  }
  // The last APN event as "state,APN,roaming,IPv4,MCC-MNC".
  std::string lastApn() {
    const auto e = events_->last<_NoxDsmWwanApnInfoType>(kApn);
    return std::to_string(e.state) + "," + std::to_string(e.apn) + "," + std::to_string(e.roaming) +
           "," + e.ipAddr + "," + e.mccMnc;
  }
  bool has(const char* name) { return dsm().getAllWwanInfo().count(name) != 0; }
  // The record of `name` as "iface,IPv4,ifaceV6,IPv6".
  std::string rec(const char* name) {
    const _NoxDsmWwanInfoType r = dsm().getWwanInfo(name);
    return std::string(r.iface) + "," + r.ipAddr + "," + r.ifaceV6 + "," + r.ipAddrV6;
  }
  // Hands one datagram of exactly these bytes to the netlink handler.
  void feed(Bytes datagram) {
    NoxDsm::HandleNlMsg(&dsm(), reinterpret_cast<nlmsghdr*>(datagram.data()),
                        static_cast<unsigned int>(datagram.size()));
  }
  // {type, status, nwType, roaming, apn, ipV4, ifaceV4, ipV6, ifaceV6, mccmnc}
  void wwan(const NoxWwanInfoType& w) {
    nox_->dispatcher.dispatchEvent(NOX_S_NOTIFY_WWAN_STATE_CHG, &w);
  }

  LogCapture log_;
  std::unique_ptr<Nox> nox_;
  std::unique_ptr<DsmEventLog> events_;
  bool inNetns_ = false;
};

TEST_F(DsmNetnsTest, NewAddressesOfModemLinksCreateRecordsOnceIpv6OnlyGlobalUnicast) {
  ASSERT_TRUE(addAddr("mdlnk0", "10.1.0.1/24"));
  ASSERT_TRUE(driveUntil([&] { return events_->ids.size() >= 1; }));
  EXPECT_EQ("1,mdlnk0,10.1.0.1,", lastIface());
  ASSERT_TRUE(ip("-4 addr replace 10.1.0.1/24 dev mdlnk0"));  // reported again, unchanged
  ASSERT_TRUE(driveUntilLogged("HandleNlNewAddr interface mdlnk0 family 2", 2));

  for (const char* cidr : {"fe80::1/64", "ff0e::101/128", "fec0::1/64"})
    ASSERT_TRUE(addAddr("mdlnk1", cidr));
  ASSERT_TRUE(driveUntilLogged("HandleNlNewAddr interface mdlnk1 family 10", 3));
  Bytes loopback(16, 0);
  loopback[15] = 1;
  feed(nlmsg(RTM_NEWADDR, 0, ifaddr(AF_INET6, if_nametoindex("mdlnk1"), loopback)));
  EXPECT_FALSE(has("mdlnk1"));
  ASSERT_TRUE(addAddr("mdlnk1", "2001:db8::5/64"));
  ASSERT_TRUE(driveUntil([&] { return events_->ids.size() >= 2; }));
  EXPECT_EQ((Ids{kIface, kIface}), events_->ids);
  EXPECT_EQ("1,mdlnk1,,2001:db8::5", lastIface());
  EXPECT_EQ("mdlnk1,,mdlnk1,2001:db8::5", rec("mdlnk1"));
}

TEST_F(DsmNetnsTest, LostAddressesEraseRecordsApnEventFirstLinkDownOnlyThroughThem) {
  ASSERT_TRUE(addAddr("mdlnk0", "10.1.0.1/24") && addAddr("mdlnk1", "10.2.0.1/24"));
  ASSERT_TRUE(driveUntil([&] { return events_->ids.size() >= 2; }));
  wwan({0, kUp, kLte, 1, 3, "", "mdlnk0", "", "", ""});
  events_->clear();
  ASSERT_TRUE(ip("-4 addr del 10.1.0.1/24 dev mdlnk0"));
  ASSERT_TRUE(driveUntil([&] { return events_->ids.size() >= 2; }));
  EXPECT_EQ((Ids{kApn, kIface}), events_->ids);
  EXPECT_EQ("4,3,0,10.1.0.1,", lastApn());
  EXPECT_EQ("4,mdlnk0,,", lastIface());
  EXPECT_FALSE(has("mdlnk0"));

  // The kernel's link messages carry no address family and are dropped; IPv4 addresses
  // outlive a link going down, IPv6 ones do not.
  ASSERT_TRUE(ip("link set dev mdlnk1 down"));
  ASSERT_TRUE(driveUntilLogged("|COMMON:DSM| HandleNlMsg NEWLINK family 0"));
  EXPECT_TRUE(has("mdlnk1"));
  ASSERT_TRUE(addAddr("mdlnk0", "2001:db8::7/64"));
  ASSERT_TRUE(driveUntil([&] { return has("mdlnk0"); }));
  ASSERT_TRUE(ip("link set dev mdlnk0 down"));
  ASSERT_TRUE(driveUntil([&] { return !has("mdlnk0"); }));
  EXPECT_EQ("4,mdlnk0,,", lastIface());

  // An interface deleted with its addresses: their deletions come once it is gone and
  // cannot be named, and the name its record was made under still erases it.
  ASSERT_TRUE(ip("link set dev mdlnk0 up") && addAddr("mdlnk0", "10.1.0.9/24") &&
              addAddr("mdlnk0", "2001:db8::9/64"));
  ASSERT_TRUE(driveUntil([&] { return rec("mdlnk0") == "mdlnk0,10.1.0.9,mdlnk0,2001:db8::9"; }));
  events_->clear();
  ASSERT_TRUE(ip("link del dev mdlnk0"));
  ASSERT_TRUE(driveUntil([&] { return !has("mdlnk0"); }));
  EXPECT_EQ((Ids{kApn, kIface}), events_->ids);
  EXPECT_EQ("4,mdlnk0,,", lastIface());
}

TEST_F(DsmNetnsTest, HandBuiltLinkMessagesFollowIffUpMalformedOnesAreDropped) {
  const unsigned int md0 = if_nametoindex("mdlnk0"), md1 = if_nametoindex("mdlnk1");
  feed(nlmsg(RTM_NEWLINK, 0, ifinfo(AF_INET, md0, IFF_UP, IFF_UP)));
  feed(nlmsg(RTM_NEWLINK, 0, ifinfo(AF_INET6, md1, IFF_UP, IFF_UP)));
  EXPECT_EQ("mdlnk0,,,", rec("mdlnk0"));
  EXPECT_EQ(",,mdlnk1,", rec("mdlnk1"));
  feed(nlmsg(RTM_NEWLINK, 0, ifinfo(AF_INET, md0, 0, IFF_RUNNING)));  // not about IFF_UP
  feed(nlmsg(RTM_NEWLINK, 0, ifinfo(AF_INET, md0, IFF_UP, IFF_UP)));  // known: reported again
  EXPECT_EQ((Ids{kIface, kIface, kIface}), events_->ids);
  EXPECT_EQ("1,mdlnk0,,", lastIface());
  events_->clear();
  feed(nlmsg(RTM_NEWLINK, 0, ifinfo(AF_INET, md0, 0, IFF_UP)));
  EXPECT_EQ("5,9,0,,", lastApn());  // the starting values: no APN was ever up
  feed(nlmsg(RTM_DELLINK, 0, ifinfo(AF_INET6, md1, 0, 0)));
  EXPECT_EQ((Ids{kApn, kIface, kApn, kIface}), events_->ids);
  EXPECT_TRUE(dsm().getAllWwanInfo().empty());

  const Bytes v4 = {10, 1, 0, 1};
  const Bytes good = nlmsg(RTM_NEWADDR, 0, ifaddr(AF_INET, md0, v4));
  const Bytes bad[] = {
      first(good, 15),                                            // no whole header
      first(good, good.size() - 4),                               // datagram cut short
      nlmsg(RTM_NEWADDR, 0, ifaddr(AF_INET, md0, v4), 12),        // length below a header
      nlmsg(RTM_NEWADDR, 0, first(ifaddr(AF_INET, md0, v4), 8)),  // no attribute
      nlmsg(RTM_NEWADDR, 0, ifaddr(AF_INET6, md0, v4)),           // attribute too short
      nlmsg(RTM_NEWADDR, 0, ifaddr(AF_INET, md0, v4, 200)),       // attribute past the end
      nlmsg(RTM_NEWLINK, 0, first(ifinfo(AF_INET, md0, IFF_UP, IFF_UP), 12)),
  };
  events_->clear();
  for (const Bytes& b : bad) {
    log_.clear();
    feed(b);
    EXPECT_EQ(1, log_.count("|COMMON:DSM| HandleNlMsg dropping")) << "case " << &b - bad;
  }
  EXPECT_TRUE(events_->ids.empty());
  feed(good);
  EXPECT_EQ("mdlnk0,10.1.0.1,mdlnk0,", rec("mdlnk0"));
}

TEST_F(DsmNetnsTest, LostNotificationsAreRecoveredByDumpingAgain) {
  ASSERT_TRUE(addAddr("mdlnk0", "10.1.0.1/24"));
  ASSERT_TRUE(driveUntil([&] { return has("mdlnk0"); }));
  const int tiny = 1;  // the kernel raises it to its minimum: a few messages
  ASSERT_EQ(0, setsockopt(dsm().netlinkFd(), SOL_SOCKET, SO_RCVBUF, &tiny, sizeof(tiny)));
  for (int i = 1; i <= 40; ++i)
    ASSERT_TRUE(addAddr("wlan0", "10.9.0." + std::to_string(i) + "/32"));
  ASSERT_TRUE(ip("link del dev mdlnk0"));                 // its deletions cannot fit any more,
  ASSERT_TRUE(addAddr("mdlnk1", "10.2.0.1/24"));  // nor this
  ASSERT_TRUE(driveUntil([&] { return has("mdlnk1"); }));
  EXPECT_TRUE(log_.has("|COMMON:DSM| Netlink messages were lost, reading the addresses again"));
  EXPECT_EQ("mdlnk1,10.2.0.1,mdlnk1,", rec("mdlnk1"));
  EXPECT_FALSE(has("mdlnk0"));  // gone from the kernel, so from the records
  EXPECT_EQ("4,mdlnk0,,", lastIface());
}

// Hundreds of modem interfaces come and go, flap, and gain and lose addresses in bursts
// (many vanish before their notifications are read): afterwards the records are those of
// the interfaces that still have an address, and the loop is idle. A daemon started then
// reads the same from the kernel, both families of a link in one record.
TEST_F(DsmNetnsTest, StormsLeaveTheRecordsAsTheKernelHasThem) {
  // Beside them a link that is not the modem's, and a modem link with IPv6 only.
  std::string batch = "addr add 10.9.0.1/24 dev wlan0\naddr add 2001:db8:1::1/64 dev mdlnk1 nodad\n";
  std::map<std::string, std::string> expected = {{"mdlnk1", "mdlnk1,,mdlnk1,2001:db8:1::1"}};
  for (int i = 10; i < 210; ++i) {
    const std::string name = "mdlnk" + std::to_string(i);
    const std::string v4 = "10." + std::to_string(i / 100) + "." + std::to_string(i % 100);
    batch += "tuntap add dev " + name + " mode tun\nlink set dev " + name +
             " addrgenmode none\nlink set dev " + name + " up\naddr add " + v4 + ".1/32 dev " +
             name + "\naddr add 2001:db8:" + std::to_string(i) + "::1/64 dev " + name + " nodad\n";
    if (i % 2 == 1) {  // gone, addresses and all
      batch += "link del dev " + name + "\n";
      continue;
    }
    // Flapping (which takes its IPv6 address), then a burst of address changes; it ends
    // with one address of each family.
    const std::string v6 = "2001:db8:" + std::to_string(i) + "::2";
    batch += "link set dev " + name + " down\nlink set dev " + name + " up\naddr del " + v4 +
             ".1/32 dev " + name + "\naddr add " + v4 + ".2/32 dev " + name + "\naddr add " + v6 +
             "/64 dev " + name + " nodad\n";
    expected[name] = name + "," + v4 + ".2," + name + "," + v6;
  }
  ASSERT_TRUE(ip("-batch -", batch));
  auto records = [&] {
    std::map<std::string, std::string> out;
    for (const auto& entry : dsm().getAllWwanInfo()) out[entry.first] = rec(entry.first.c_str());
    return out;
  };
  auto names = [](const std::map<std::string, std::string>& m) {
    std::set<std::string> out;
    for (const auto& entry : m) out.insert(entry.first);
    return out;
  };
  EXPECT_TRUE(driveUntil([&] { return names(records()) == names(expected); }));
  log_.clear();
  nox_->com.processEvents(0, nox_->timer);
  EXPECT_EQ(0, log_.count("file descriptor(s) with events pending"));
  start();
  EXPECT_EQ(expected, records());
}

// WWAN notifications name interfaces that must exist, so they run here too.
TEST_F(DsmNetnsTest, WwanRecordsKeyedByIpv6InterfaceApnListNwTypeAndDisconnectOrder) {
  wwan({0, kUp, kLte, 1, 0, "10.3.0.1", "mdlnk0", "", "mdlnk1", "310260"});
  EXPECT_EQ((Ids{kMcc, kApn, kIface}), events_->ids);
  EXPECT_EQ("1,0,0,10.3.0.1,310260", lastApn());  // roaming is never filled in
  EXPECT_FALSE(has("mdlnk0"));
  EXPECT_EQ("mdlnk0,10.3.0.1,mdlnk1,", rec("mdlnk1"));
  EXPECT_EQ(1, dsm().getWwanInfo("mdlnk1").roaming);
  events_->clear();
  wwan({0, kUp, 0, 1, 0, "", "mdlnk7", "", "", "310260"});
  wwan({0, kUp, 0, 1, 0, "", "", "", "nope0", "310260"});
  wwan({0, kDown, 0, 1, 0, "", "mdlnk0", "", "", "23415"});
  EXPECT_EQ(Ids{kMcc}, events_->ids);  // that step comes first
  EXPECT_STREQ("23415", events_->last<Mcc>(kMcc).data());
  EXPECT_EQ(1u, dsm().getAllWwanInfo().size());

  events_->clear();
  for (int32_t apn : {0, 3, 3}) wwan({0, kUp, kLte, 1, apn, "", "mdlnk0", "", "", "23415"});
  EXPECT_EQ((Ids{kApn, kIface, kApn}), events_->ids);
  EXPECT_EQ((std::vector<NoxApnType>{0, 3}), dsm().getWwanInfo("mdlnk0").apnList);
  events_->clear();
  wwan({0, kUp, kHspap, 1, 3, "", "mdlnk0", "", "", "23415"});
  EXPECT_EQ(Ids{NOX_DSM_WWAN_NW_TYPE_CHANGE_EVENT}, events_->ids);
  EXPECT_EQ(kHspap, events_->last<int32_t>(NOX_DSM_WWAN_NW_TYPE_CHANGE_EVENT));
  events_->clear();
  wwan({0, kDown, kHspap, 1, 3, "", "mdlnk0", "", "", "23415"});  // reported while listed
  wwan({0, kDown, kHspap, 1, 5, "", "mdlnk0", "", "", "23415"});  // not listed: no report
  EXPECT_EQ(Ids{kApn}, events_->ids);
  EXPECT_EQ("4,3,0,,23415", lastApn());
  EXPECT_EQ(std::vector<NoxApnType>{0}, dsm().getWwanInfo("mdlnk0").apnList);
  EXPECT_EQ(kDown, dsm().getWwanInfo("mdlnk0").state);

  // At most NOX_MAX_APNS_PER_IFACE APNs: one more is refused with the whole notification.
  for (int32_t apn = 100; dsm().getWwanInfo("mdlnk0").apnList.size() < NOX_MAX_APNS_PER_IFACE; ++apn)
    wwan({0, kUp, kHspap, 1, apn, "", "mdlnk0", "", "", "23415"});
  events_->clear();
  wwan({0, kUp, kLte, 1, 999, "10.3.0.9", "mdlnk0", "", "", "23415"});
  EXPECT_EQ(Ids{}, events_->ids);
  EXPECT_EQ("mdlnk0,,,", rec("mdlnk0"));  // the address did not change either
  EXPECT_EQ(NOX_MAX_APNS_PER_IFACE, dsm().getWwanInfo("mdlnk0").apnList.size());
}

}  // namespace
