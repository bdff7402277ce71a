// Interface tracking against the real kernel: a real Nox in a private network namespace
// with links mdlnk0, mdlnk1 and wlan0, changed with `ip` while the test drives the loop.

#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "DsmEventLog.h"
#include "NetnsFixture.h"
#include "Nox.h"
#include "TestLog.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Ids = std::vector<NoxDsmEvent>;
const NoxDsmEvent kIface = NOX_DSM_WWAN_INTERFACE_STATUS_CHANGE_EVENT;
const NoxDsmEvent kApn = NOX_DSM_WWAN_APN_STATUS_CHANGE_EVENT;
struct Mcc {
  char text[NOX_MCCMNC_SIZE];
};

// Fields of (value, size in bytes); netlink is host byte order, and these hosts are
// little-endian.
Bytes le(std::initializer_list<std::pair<uint32_t, int>> fields) {
  Bytes b;
  for (const auto& f : fields)
    for (int i = 0; i < f.second; ++i) b.push_back(static_cast<uint8_t>(f.first >> (8 * i)));
  return b;
}
Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
// Header (length, type, flags, sequence, port id), then the body; `len` overrides the length.
Bytes nlmsg(uint16_t type, const Bytes& body, uint32_t len = 0) {
  const uint32_t total = len != 0 ? len : static_cast<uint32_t>(16 + body.size());
  return le({{total, 4}, {type, 2}, {0, 2}, {0, 4}, {0, 4}}) + body;
}
// ifinfomsg: family, pad, type, index, flags, change.
Bytes ifinfo(uint8_t family, unsigned int index, uint32_t flags, uint32_t change) {
  return le({{family, 1}, {0, 1}, {0, 2}, {index, 4}, {flags, 4}, {change, 4}});
}
// ifaddrmsg (family, prefix length, flags, scope, index), then a first attribute holding
// `addr`; `attrLen` overrides the attribute's length.
Bytes ifaddr(uint8_t family, unsigned int index, const Bytes& addr, uint16_t attrLen = 0) {
  const uint32_t rtaLen = attrLen != 0 ? attrLen : static_cast<uint32_t>(4 + addr.size());
  return le({{family, 1}, {24, 1}, {0, 1}, {0, 1}, {index, 4}, {rtaLen, 2}, {IFA_ADDRESS, 2}}) +
         addr;
}
Bytes first(const Bytes& b, size_t n) { return Bytes(b.begin(), b.begin() + n); }

class DsmNetnsTest : public NetnsTest {
 protected:
  void SetUp() override {
    NetnsTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    // No automatic link-local addresses: whatever the link kind, the test adds every address.
    for (const std::string name : {"mdlnk0", "mdlnk1", "wlan0"})
      ASSERT_TRUE(addLink(name) && ip("link set dev " + name + " addrgenmode none") &&
                  linkUp(name));
  }
  void TearDown() override {
    events_.reset();
    nox_.reset();
    NetnsTest::TearDown();
  }
  void start() {
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
  bool driveUntilEvents(size_t n) {
    return driveUntil([&] { return events_->events.size() >= n; });
  }

  _NoxDsmWwanIfaceInfoType lastIface() { return events_->last<_NoxDsmWwanIfaceInfoType>(kIface); }
  _NoxDsmWwanApnInfoType lastApn() { return events_->last<_NoxDsmWwanApnInfoType>(kApn); }
  bool has(const char* name) { return dsm().getAllWwanInfo().count(name) != 0; }
  _NoxDsmWwanInfoType rec(const char* name) { return dsm().getWwanInfo(name); }
  // Hands one datagram of exactly these bytes to the netlink handler.
  void feed(const Bytes& datagram) {
    Bytes copy(datagram);
    NoxDsm::HandleNlMsg(&dsm(), reinterpret_cast<nlmsghdr*>(copy.data()),
                        static_cast<unsigned int>(copy.size()));
  }
  void wwan(int32_t status, int32_t apn, const char* iface, const char* ifaceV6,
            const char* ip = "", int32_t nwType = NOX_RAT_SUBTYPE_LTE, const char* mccmnc = "") {
    NoxWwanInfoType w = {};
    w.status = status;
    w.apn = apn;
    w.nwType = nwType;
    w.roaming = 1;
    snprintf(w.ifaceV4, sizeof(w.ifaceV4), "%s", iface);
    snprintf(w.ifaceV6, sizeof(w.ifaceV6), "%s", ifaceV6);
    snprintf(w.ipV4, sizeof(w.ipV4), "%s", ip);
    snprintf(w.mccmnc, sizeof(w.mccmnc), "%s", mccmnc);
    nox_->dispatcher.dispatchEvent(NOX_S_NOTIFY_WWAN_STATE_CHG, &w);
  }

  LogCapture log_;
  std::unique_ptr<Nox> nox_;
  std::unique_ptr<DsmEventLog> events_;
};

TEST_F(DsmNetnsTest, StartupLoadsAddressesOfModemLinksIpv4First) {
  ASSERT_TRUE(addAddr("mdlnk0", "10.1.0.1/24") && addAddr("mdlnk0", "2001:db8::1/64"));
  ASSERT_TRUE(addAddr("mdlnk1", "2001:db8:1::1/64") && addAddr("wlan0", "10.9.0.1/24"));
  start();
  EXPECT_EQ(2u, dsm().getAllWwanInfo().size());
  EXPECT_STREQ("10.1.0.1", rec("mdlnk0").ipAddr);
  EXPECT_STREQ("2001:db8::1", rec("mdlnk0").ipAddrV6);
  EXPECT_STREQ("mdlnk0", rec("mdlnk0").ifaceV6);
  EXPECT_STREQ("", rec("mdlnk1").ipAddr);
  EXPECT_STREQ("2001:db8:1::1", rec("mdlnk1").ipAddrV6);
  const auto seen = log_.matching("|COMMON:DSM| HandleNlNewAddr interface mdlnk");
  ASSERT_FALSE(seen.empty());
  EXPECT_EQ("|COMMON:DSM| HandleNlNewAddr interface mdlnk0 family 2", seen.front());
}

TEST_F(DsmNetnsTest, Ipv4AddressCreatesRecordOnceAndOtherLinksAreIgnored) {
  start();
  log_.clear();
  ASSERT_TRUE(addAddr("mdlnk0", "10.1.0.1/24"));
  ASSERT_TRUE(driveUntilEvents(1));
  EXPECT_EQ(
      (std::vector<std::string>{
          "|COMMON:DSM| HandleNlMsg NEWADDR family 2", "|COMMON:DSM| HandleNlMsg ifName mdlnk0",
          "|COMMON:DSM| HandleNlNewAddr interface mdlnk0 family 2",
          "|COMMON:DSM| handleNlNewAddr insert to map: mdlnk0",
          "|COMMON:DSM| dispatch NOX_DSM_WWAN_INTERFACE_STATUS_CHANGE_EVENT"}),
      log_.matching("|COMMON:DSM|"));
  EXPECT_EQ(NOX_NW_STATE_CONNECTED, lastIface().status);
  EXPECT_STREQ("10.1.0.1", lastIface().ipAddr);
  EXPECT_STREQ("mdlnk0", rec("mdlnk0").iface);
  EXPECT_STREQ("mdlnk0", rec("mdlnk0").ifaceV6);

  ASSERT_TRUE(ip("-4 addr replace 10.1.0.1/24 dev mdlnk0"));  // reported again, unchanged
  ASSERT_TRUE(driveUntilLogged("HandleNlNewAddr interface mdlnk0 family 2", 2));
  ASSERT_TRUE(addAddr("wlan0", "10.9.0.1/24"));
  ASSERT_TRUE(driveUntilLogged("|COMMON:DSM| HandleNlMsg ifName wlan0"));
  EXPECT_EQ(1u, events_->events.size());
  EXPECT_FALSE(has("wlan0"));
}

TEST_F(DsmNetnsTest, Ipv6KeepsOnlyGlobalUnicastAddresses) {
  start();
  for (const char* cidr : {"fe80::1/64", "ff0e::101/128", "fec0::1/64"})
    ASSERT_TRUE(addAddr("mdlnk0", cidr));
  ASSERT_TRUE(driveUntilLogged("HandleNlNewAddr interface mdlnk0 family 10", 3));
  Bytes loopback(16, 0);
  loopback[15] = 1;
  feed(nlmsg(RTM_NEWADDR, ifaddr(AF_INET6, ifIndex("mdlnk0"), loopback)));
  EXPECT_FALSE(has("mdlnk0"));

  ASSERT_TRUE(addAddr("mdlnk0", "2001:db8::5/64"));
  ASSERT_TRUE(driveUntilEvents(1));
  EXPECT_EQ(Ids{kIface}, events_->ids());
  EXPECT_STREQ("2001:db8::5", lastIface().ipAddrV6);
  EXPECT_STREQ("", rec("mdlnk0").ipAddr);
}

TEST_F(DsmNetnsTest, LosingAnAddressErasesTheRecordApnEventFirst) {
  start();
  ASSERT_TRUE(addAddr("mdlnk0", "10.1.0.1/24"));
  ASSERT_TRUE(driveUntilEvents(1));
  wwan(NOX_NW_STATE_CONNECTED, 3, "mdlnk0", "");
  events_->events.clear();
  ASSERT_TRUE(delAddr("mdlnk0", "10.1.0.1/24"));
  ASSERT_TRUE(driveUntilEvents(2));
  EXPECT_EQ((Ids{kApn, kIface}), events_->ids());
  EXPECT_EQ(NOX_NW_STATE_DISCONNECTED, lastApn().state);
  EXPECT_EQ(3, lastApn().apn);
  EXPECT_EQ(NOX_NW_STATE_DISCONNECTED, lastIface().status);
  EXPECT_STREQ("", lastIface().ipAddr);
  EXPECT_FALSE(has("mdlnk0"));
}

TEST_F(DsmNetnsTest, LinkDownIsSeenOnlyThroughTheAddressesItTakes) {
  start();
  ASSERT_TRUE(addAddr("mdlnk1", "10.2.0.1/24") && addAddr("mdlnk0", "2001:db8::7/64"));
  ASSERT_TRUE(driveUntilEvents(2));
  log_.clear();
  // The kernel's link messages carry no address family and are dropped; IPv4 addresses
  // outlive a link going down.
  ASSERT_TRUE(linkDown("mdlnk1"));
  ASSERT_TRUE(driveUntilLogged("|COMMON:DSM| HandleNlMsg NEWLINK family 0"));
  EXPECT_TRUE(has("mdlnk1"));
  ASSERT_TRUE(linkDown("mdlnk0"));
  ASSERT_TRUE(driveUntil([&] { return !has("mdlnk0"); }));
  EXPECT_EQ(NOX_NW_STATE_DISCONNECTED, lastIface().status);
  EXPECT_STREQ("mdlnk0", lastIface().ifaceName);
}

TEST_F(DsmNetnsTest, LinkMessagesWithAFamilyFollowIffUp) {
  start();
  const unsigned int md0 = ifIndex("mdlnk0"), md1 = ifIndex("mdlnk1");
  feed(nlmsg(RTM_NEWLINK, ifinfo(AF_INET, md0, IFF_UP, IFF_UP)));
  feed(nlmsg(RTM_NEWLINK, ifinfo(AF_INET6, md1, IFF_UP, IFF_UP)));
  EXPECT_STREQ("", rec("mdlnk0").ifaceV6);
  EXPECT_STREQ("mdlnk1", rec("mdlnk1").ifaceV6);
  EXPECT_EQ((Ids{kIface, kIface}), events_->ids());

  events_->events.clear();
  feed(nlmsg(RTM_NEWLINK, ifinfo(AF_INET, md0, 0, IFF_RUNNING)));  // not about IFF_UP
  feed(nlmsg(RTM_NEWLINK, ifinfo(AF_INET, md0, IFF_UP, IFF_UP)));  // known: reported again
  ASSERT_EQ(Ids{kIface}, events_->ids());
  EXPECT_EQ(NOX_NW_STATE_CONNECTED, lastIface().status);

  events_->events.clear();
  feed(nlmsg(RTM_NEWLINK, ifinfo(AF_INET, md0, 0, IFF_UP)));
  feed(nlmsg(RTM_DELLINK, ifinfo(AF_INET6, md1, 0, 0)));
  EXPECT_EQ((Ids{kApn, kIface, kApn, kIface}), events_->ids());
  EXPECT_EQ(9, events_->events[0].as<_NoxDsmWwanApnInfoType>().apn);  // no APN was ever up
  EXPECT_TRUE(dsm().getAllWwanInfo().empty());
}

TEST_F(DsmNetnsTest, MalformedMessagesAreDroppedWithoutReadingPastThem) {
  start();
  const unsigned int md0 = ifIndex("mdlnk0");
  const Bytes v4 = {10, 1, 0, 1};
  const Bytes good = nlmsg(RTM_NEWADDR, ifaddr(AF_INET, md0, v4));
  const std::vector<Bytes> bad = {
      first(good, 15),                                         // no whole header
      first(good, good.size() - 4),                            // datagram cut short
      nlmsg(RTM_NEWADDR, ifaddr(AF_INET, md0, v4), 12),        // length below a header
      nlmsg(RTM_NEWADDR, first(ifaddr(AF_INET, md0, v4), 8)),  // no attribute
      nlmsg(RTM_NEWADDR, ifaddr(AF_INET6, md0, v4)),           // attribute too short
      nlmsg(RTM_NEWADDR, ifaddr(AF_INET, md0, v4, 200)),       // attribute past the end
      nlmsg(RTM_NEWLINK, first(ifinfo(AF_INET, md0, IFF_UP, IFF_UP), 12)),
  };
  for (size_t i = 0; i < bad.size(); ++i) {
    log_.clear();
    feed(bad[i]);
    EXPECT_EQ(1, log_.count("|COMMON:DSM| HandleNlMsg dropping")) << "case " << i;
  }
  EXPECT_TRUE(events_->events.empty());
  feed(good);
  EXPECT_STREQ("10.1.0.1", rec("mdlnk0").ipAddr);
}

TEST_F(DsmNetnsTest, LostNotificationsAreRecoveredByDumpingAgain) {
  start();
  const int tiny = 1;  // the kernel raises it to its minimum: a few messages
  ASSERT_EQ(0, setsockopt(dsm().netlinkFd(), SOL_SOCKET, SO_RCVBUF, &tiny, sizeof(tiny)));
  for (int i = 1; i <= 40; ++i)
    ASSERT_TRUE(addAddr("wlan0", "10.9.0." + std::to_string(i) + "/32"));
  ASSERT_TRUE(addAddr("mdlnk1", "10.2.0.1/24"));  // its notification cannot fit any more
  ASSERT_TRUE(driveUntil([&] { return has("mdlnk1"); }));
  EXPECT_TRUE(log_.has("|COMMON:DSM| Netlink messages were lost, reading the addresses again"));
  EXPECT_STREQ("10.2.0.1", rec("mdlnk1").ipAddr);
}

// WWAN notifications name interfaces that must exist, so they run here too.
TEST_F(DsmNetnsTest, WwanConnectedCreatesRecordKeyedByIpv6Interface) {
  start();
  wwan(NOX_NW_STATE_CONNECTED, 0, "mdlnk0", "mdlnk1", "10.3.0.1", NOX_RAT_SUBTYPE_LTE, "310260");
  EXPECT_EQ((Ids{NOX_DSM_MCC_MNC_CHANGE_EVENT, kApn, kIface}), events_->ids());
  EXPECT_STREQ("310260", events_->last<Mcc>(NOX_DSM_MCC_MNC_CHANGE_EVENT).text);
  const auto apn = lastApn();
  EXPECT_EQ(0, apn.roaming);  // never filled in
  EXPECT_STREQ("10.3.0.1", apn.ipAddr);
  EXPECT_STREQ("310260", apn.mccMnc);
  EXPECT_FALSE(has("mdlnk0"));
  EXPECT_STREQ("mdlnk0", rec("mdlnk1").iface);
  EXPECT_EQ(1, rec("mdlnk1").roaming);

  events_->events.clear();
  wwan(NOX_NW_STATE_CONNECTED, 0, "mdlnk7", "", "", 0, "310260");
  wwan(NOX_NW_STATE_CONNECTED, 0, "", "nope0", "", 0, "310260");
  wwan(NOX_NW_STATE_DISCONNECTED, 0, "mdlnk0", "", "", 0, "23415");
  EXPECT_TRUE(log_.has("|COMMON:DSM| invalid iface name mdlnk7"));
  EXPECT_TRUE(log_.has("|COMMON:DSM| invalid ifaceV6 name nope0"));
  EXPECT_EQ(Ids{NOX_DSM_MCC_MNC_CHANGE_EVENT}, events_->ids());  // that step comes first
  EXPECT_STREQ("23415", events_->last<Mcc>(NOX_DSM_MCC_MNC_CHANGE_EVENT).text);
  EXPECT_EQ(1u, dsm().getAllWwanInfo().size());
}

TEST_F(DsmNetnsTest, WwanApnListNwTypeAndDisconnectOrder) {
  start();
  wwan(NOX_NW_STATE_CONNECTED, 0, "mdlnk0", "");
  wwan(NOX_NW_STATE_CONNECTED, 3, "mdlnk0", "");
  wwan(NOX_NW_STATE_CONNECTED, 3, "mdlnk0", "");
  EXPECT_EQ((Ids{kApn, kIface, kApn}), events_->ids());
  EXPECT_EQ((std::vector<NoxApnType>{0, 3}), rec("mdlnk0").apnList);

  events_->events.clear();
  wwan(NOX_NW_STATE_CONNECTED, 3, "mdlnk0", "", "", NOX_RAT_SUBTYPE_HSPAP);
  ASSERT_EQ(Ids{NOX_DSM_WWAN_NW_TYPE_CHANGE_EVENT}, events_->ids());
  EXPECT_EQ(NOX_RAT_SUBTYPE_HSPAP, events_->events[0].as<int32_t>());

  events_->events.clear();
  wwan(NOX_NW_STATE_DISCONNECTED, 3, "mdlnk0", "");  // reported while still listed
  ASSERT_EQ(Ids{kApn}, events_->ids());
  EXPECT_EQ(NOX_NW_STATE_DISCONNECTED, lastApn().state);
  EXPECT_EQ(3, lastApn().apn);
  EXPECT_EQ(std::vector<NoxApnType>{0}, rec("mdlnk0").apnList);
  wwan(NOX_NW_STATE_DISCONNECTED, 5, "mdlnk0", "");  // not listed: nothing to report
  EXPECT_EQ(1u, events_->events.size());
  EXPECT_EQ(NOX_NW_STATE_DISCONNECTED, rec("mdlnk0").state);
}

}  // namespace
