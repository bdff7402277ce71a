// The data state manager in a real Nox: feature status over a real socket, WLAN,
// tethering, screen and the application list. Interfaces: dsm_netns_test.cpp.

#include <arpa/inet.h>
#include <cutils/properties.h>
#include <cutils/record_stream.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "DsmEventLog.h"
#include "ModemSimProcess.h"
#include "Nox.h"
#include "TestLog.h"

namespace {

using Ints = std::vector<int32_t>;
using Ids = std::vector<NoxDsmEvent>;
using Names = std::vector<std::string>;

std::string nsrmProperty() {
  char value[PROPERTY_VALUE_MAX];
  property_get("persist.sys.noxd.nsrm", value, "");
  return value;
}

// A real Nox with feature mask `mask` and its framework client on one end of a socket pair
// (admission is the daemon's own tests' business).
class DsmTest : public ::testing::Test {
 protected:
  void SetUp() override { start("4"); }
  void TearDown() override { stop(); }
  void start(const char* mask) {
    stop();
    runWithoutModem();
    property_host_reset();
    property_set("persist.nox.feature", mask);
    nox_ = std::make_unique<Nox>();
    events_ = std::make_unique<DsmEventLog>(nox_->dsm);
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds_));
    nox_->com.addComEventHandler(fds_[1], Nox::processNoxEvent,
                                 new NoxClientConn{nox_.get(), record_stream_new(fds_[1], 8192)},
                                 Nox::processNoxCloseEvent, EPOLLIN | EPOLLHUP);
    ask({NOX_S_NOTIFY_INIT_DONE, 0});
  }
  void stop() {
    if (!nox_) return;
    nox_->com.removeComEventHandler(fds_[1]);
    close(fds_[0]), close(fds_[1]);
    events_.reset(), nox_.reset();
  }
  // Sends one record of int32s and returns the int32s of the reply, if one came.
  Ints ask(const Ints& request) {
    uint32_t header = htonl(static_cast<uint32_t>(request.size() * 4));
    EXPECT_EQ(4, write(fds_[0], &header, 4));
    EXPECT_EQ(ssize_t(request.size() * 4), write(fds_[0], request.data(), request.size() * 4));
    nox_->com.processEvents(0, nox_->timer);
    if (recv(fds_[0], &header, 4, 0) != 4) return {};
    Ints reply(ntohl(header) / 4);
    EXPECT_EQ(ssize_t(reply.size() * 4), recv(fds_[0], reply.data(), reply.size() * 4, 0));
    return reply;
  }
  void cmd(NoxMsgEnumType id, const void* data) { nox_->dispatcher.dispatchEvent(id, data); }
  NoxDsm& dsm() { return nox_->dsm; }

  LogCapture log_;
  std::unique_ptr<Nox> nox_;
  std::unique_ptr<DsmEventLog> events_;
  int fds_[2] = {-1, -1};  // client, daemon
};

TEST_F(DsmTest, NsrmStatusIsKeptInItsPropertyAndAnswered) {
  EXPECT_EQ((Ints{1, NOX_S_RSP_GET_FEATURE_STATUS, 2, 3}), ask({1, 0, 2, 2, 0}));
  EXPECT_EQ("3", nsrmProperty());  // an unset status is stored as 3
  for (const auto& c :
       std::vector<std::pair<const char*, int32_t>>{{"2", 2}, {"1", 1}, {"abc", 1}}) {
    property_set("persist.sys.noxd.nsrm", c.first);
    EXPECT_EQ((Ints{1, 2, 2, c.second}), ask({1, 0, 2, 2, 0})) << c.first;
  }
  EXPECT_EQ((Ints{1, 2, 5, 1}), ask({1, 0, 2, 5, 0}));  // not a feature of ours

  // Accepted is result 0, not NOX_RET_OK: clients test against 0.
  EXPECT_EQ((Ints{1, NOX_S_RESP_SET_FEATURE_PREF, 2, 2, 0}), ask({3, 0, 2, 2, 2}));
  EXPECT_EQ((Ints{1, 4, 2, 4, NOX_RET_NOT_ALLOWED_NOW}), ask({3, 0, 2, 2, 4}));
  EXPECT_EQ((Ints{1, 4, 5, 2, NOX_RET_NOT_ALLOWED_NOW}), ask({3, 0, 2, 5, 2}));
  EXPECT_EQ("2", nsrmProperty());
  EXPECT_EQ(Ids{NOX_DSM_NSRM_STATUS_CHANGE_EVENT}, events_->ids);  // the refusals report nothing
  EXPECT_EQ(2, events_->last<int32_t>(NOX_DSM_NSRM_STATUS_CHANGE_EVENT));

  start("0");  // switched off: answers 1 and leaves the property alone
  EXPECT_EQ((Ints{1, 2, 2, 1}), ask({1, 0, 2, 2, 0}));
  EXPECT_EQ((Ints{1, 4, 2, 1, 0}), ask({3, 0, 2, 2, 3}));
  EXPECT_EQ("", nsrmProperty());
  EXPECT_TRUE(events_->ids.empty());
}

TEST_F(DsmTest, WlanDhcpRenewIsNotReported) {
  for (const Ints& s : {Ints{NOX_NW_STATE_CONNECTED, 0}, Ints{NOX_NW_STATE_CONNECTING, 0},
                        Ints{NOX_NW_STATE_CONNECTED, 0}, Ints{NOX_NW_STATE_CONNECTED, 1}}) {
    _WlanInfo w = {1, s[0], s[1]};
    cmd(NOX_S_NOTIFY_WLAN_STATE_CHG, &w);
  }
  EXPECT_EQ(1u, events_->ids.size());  // the renewal and a soft-AP change are swallowed
  EXPECT_EQ(NOX_NW_STATE_CONNECTED, dsm().getWlanInfo().status);
  _WlanInfo down = {1, NOX_NW_STATE_DISCONNECTED, 0};
  cmd(NOX_S_NOTIFY_WLAN_STATE_CHG, &down);
  ASSERT_EQ(2u, events_->ids.size());
  EXPECT_EQ(NOX_NW_STATE_DISCONNECTED,
            events_->last<_WlanInfo>(NOX_DSM_WLAN_STATUS_CHANGE_EVENT).status);
}

TEST_F(DsmTest, TetheringAndScreenAreInvertedAndReportedOnChange) {
  // Tethering starts at 1 and screen at 0; the client's 0 stands for 1, anything else for 0.
  for (int32_t t : {0, 1, 5, 0}) cmd(NOX_S_NOTIFY_TETHERING_STATE_CHG, &t);
  for (int32_t s : {1, 0, 7}) cmd(NOX_S_NOTIFY_SCREEN_STATE_CHG, &s);
  // Records without a usable list reach the handlers as no data: nothing is reported.
  cmd(NOX_S_NOTIFY_TETHERING_STATE_CHG, nullptr), cmd(NOX_S_NOTIFY_SCREEN_STATE_CHG, nullptr);
  const NoxDsmEvent kT = NOX_DSM_TETHERING_STATE_CHANGE_EVENT;
  const NoxDsmEvent kS = NOX_DSM_SCREEN_STATE_CHANGE_EVENT;
  EXPECT_EQ((Ids{kT, kT, kS, kS}), events_->ids);
  Ints values;
  for (size_t i = 0; i < events_->ids.size(); ++i) values.push_back(events_->at<int32_t>(i));
  EXPECT_EQ((Ints{0, 1, 1, 0}), values);
  EXPECT_EQ(2, log_.count("|COMMON:DSM| DSM processNoxCmd: data corrupted"));
}

NoxAppInfoMsgDataType appMessage(int32_t action, const std::vector<NoxAppInfoType>& apps) {
  NoxAppInfoMsgDataType m = {action, static_cast<uint16_t>(apps.size()), {}};
  m.apps.insert(apps.begin(), apps.end());
  return m;
}

TEST_F(DsmTest, AppListAddRemoveDuplicatesAndLimit) {
  auto update = [&](int32_t action, const std::vector<NoxAppInfoType>& apps) {
    const NoxAppInfoMsgDataType m = appMessage(action, apps);
    cmd(NOX_S_NOTIFY_APP_INFO_LIST_CHG, &m);
  };
  auto names = [&](uint32_t uid) {
    Names out;
    const auto range = dsm().GetAppInfoMap().equal_range(uid);
    for (auto it = range.first; it != range.second; ++it) out.push_back(it->second.pkg_name);
    std::sort(out.begin(), out.end());
    return out;
  };
  // The first message is the whole list, whatever its action.
  update(NOX_PKG_ACTION_REMOVE, {{"com.a", 10050, "1f:2a:1f"}, {"android", 1000, ""}});
  EXPECT_EQ(Names{"com.a"}, names(10050));
  EXPECT_EQ((std::set<uint32_t>{0x1f, 0x2a}), dsm().GetAppInfoMap().find(10050)->second.appNameIds);
  EXPECT_EQ(Ids{NOX_DSM_APP_INFO_LIST_CHANGE_EVENT}, events_->ids);
  EXPECT_TRUE(events_->payloads[0].empty());

  update(NOX_PKG_ACTION_ADD, {{"com.b", 10050, ""}, {"com.a", 10050, "5"}});  // uids are shared
  EXPECT_EQ((Names{"com.a", "com.b"}), names(10050));
  update(NOX_PKG_ACTION_REMOVE, {{"com.a", 10051, ""}, {"com.c", 10050, ""}});  // uid and name
  EXPECT_EQ(3u, dsm().GetAppInfoMap().size());
  update(7, {{"com.a", 10050, ""}});  // any action but add removes
  EXPECT_EQ(Names{"com.b"}, names(10050));

  // An over-long list is refused whole but still announced.
  NoxAppInfoMsgDataType m = appMessage(NOX_PKG_ACTION_ADD, {{"com.c", 10051, ""}});
  m.numApps = NOX_MAX_APPLIST_SIZE + 1;
  events_->clear();
  cmd(NOX_S_NOTIFY_APP_INFO_LIST_CHG, &m);
  EXPECT_EQ(2u, dsm().GetAppInfoMap().size());
  EXPECT_EQ(Ids{NOX_DSM_APP_INFO_LIST_CHANGE_EVENT}, events_->ids);
  m.numApps = NOX_MAX_APPLIST_SIZE;
  EXPECT_EQ(1, dsm().AddAppInfoList(&m));
  EXPECT_EQ(Names{"com.c"}, names(10051));

  // The whole list stays within NOX_MAX_APPS: what would go over is refused whole.
  uint32_t next = 20000;
  auto batch = [&](size_t n) {
    std::vector<NoxAppInfoType> apps;
    while (apps.size() < n) apps.push_back({"p", next++, ""});
    return apps;
  };
  while (dsm().GetAppInfoMap().size() + 500 < NOX_MAX_APPS) update(NOX_PKG_ACTION_ADD, batch(500));
  update(NOX_PKG_ACTION_ADD, batch(NOX_MAX_APPS - 1 - dsm().GetAppInfoMap().size()));
  ASSERT_EQ(NOX_MAX_APPS - 1, dsm().GetAppInfoMap().size());
  const std::vector<NoxAppInfoType> twoNew = batch(2);
  update(NOX_PKG_ACTION_ADD, twoNew);
  EXPECT_EQ(NOX_MAX_APPS - 1, dsm().GetAppInfoMap().size());
  // A known entry and a repeated one count once: this fills the list exactly.
  update(NOX_PKG_ACTION_ADD, {{"com.c", 10051, ""}, twoNew[0], twoNew[0]});
  EXPECT_EQ(NOX_MAX_APPS, dsm().GetAppInfoMap().size());
}

}  // namespace
