// The data state manager in a real Nox: feature status over a real socket, WLAN,
// tethering, screen and the application list. Interfaces: dsm_netns_test.cpp.

#include <arpa/inet.h>
#include <cutils/properties.h>
#include <cutils/record_stream.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "DsmEventLog.h"
#include "Nox.h"
#include "TestLog.h"

namespace {

using Ints = std::vector<int32_t>;
const char kNsrm[] = "persist.sys.noxd.nsrm";

std::string prop(const char* key) {
  char value[PROPERTY_VALUE_MAX];
  property_get(key, value, "");
  return value;
}

class DsmTest : public ::testing::Test {
 protected:
  void SetUp() override { start("4"); }
  void start(const char* mask) {
    property_host_reset();
    property_set("persist.nox.feature", mask);
    nox_ = std::make_unique<Nox>();
    events_ = std::make_unique<DsmEventLog>(nox_->dsm);
  }
  void cmd(NoxMsgEnumType id, const void* data) { nox_->dispatcher.dispatchEvent(id, data); }
  NoxDsm& dsm() { return nox_->dsm; }

  LogCapture log_;
  std::unique_ptr<Nox> nox_;
  std::unique_ptr<DsmEventLog> events_;
};

// The framework client on a real socket; its admission is the daemon's own tests' business.
class DsmFeatureTest : public DsmTest {
 protected:
  void SetUp() override {}
  void TearDown() override {
    nox_->com.removeComEventHandler(serverFd_);
    close(serverFd_);
    close(client_);
  }
  void connectWithMask(const char* mask) {
    start(mask);
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
    client_ = pair[0];
    serverFd_ = pair[1];
    ASSERT_EQ(0, fcntl(serverFd_, F_SETFL, O_NONBLOCK));
    nox_->com.addComEventHandler(serverFd_, Nox::processNoxEvent,
                                 new NoxClientConn{nox_.get(), record_stream_new(serverFd_, 8192)},
                                 Nox::processNoxCloseEvent, EPOLLIN | EPOLLHUP);
    ask({NOX_S_NOTIFY_INIT_DONE, 0});
  }
  // Sends a record (big-endian length, then little-endian int32s) and returns the ints
  // of the reply, if one came.
  Ints ask(const Ints& request) {
    const uint32_t bytes = static_cast<uint32_t>(request.size() * 4);
    const uint32_t header = htonl(bytes);
    EXPECT_EQ(4, write(client_, &header, 4));
    EXPECT_EQ(static_cast<ssize_t>(bytes), write(client_, request.data(), bytes));
    nox_->com.processEvents(0, nox_->timer);
    uint32_t replyHeader = 0;
    if (recv(client_, &replyHeader, 4, MSG_DONTWAIT) != 4) return {};
    const uint32_t replyBytes = ntohl(replyHeader);
    Ints reply(replyBytes / 4);
    EXPECT_EQ(static_cast<ssize_t>(replyBytes),
              recv(client_, reply.data(), replyBytes, MSG_WAITALL));
    return reply;
  }

  int client_ = -1;
  int serverFd_ = -1;
};

TEST_F(DsmFeatureTest, NsrmStatusIsKeptInItsPropertyAndAnswered) {
  connectWithMask("4");
  EXPECT_EQ((Ints{1, NOX_S_RSP_GET_FEATURE_STATUS, 2, 3}), ask({1, 0, 2, 2, 0}));
  EXPECT_EQ("3", prop(kNsrm));  // an unset status is stored as 3
  for (const auto& c :
       std::vector<std::pair<const char*, int32_t>>{{"2", 2}, {"1", 1}, {"abc", 1}}) {
    property_set(kNsrm, c.first);
    EXPECT_EQ((Ints{1, 2, 2, c.second}), ask({1, 0, 2, 2, 0})) << c.first;
  }
  EXPECT_EQ((Ints{1, 2, 5, 1}), ask({1, 0, 2, 5, 0}));  // not a feature of ours

  // Accepted is result 0, not NOX_RET_OK: clients test against 0.
  EXPECT_EQ((Ints{1, NOX_S_RESP_SET_FEATURE_PREF, 2, 2, 0}), ask({3, 0, 2, 2, 2}));
  EXPECT_EQ((std::vector<NoxDsmEvent>{NOX_DSM_NSRM_STATUS_CHANGE_EVENT}), events_->ids());
  EXPECT_EQ(2, events_->last<int32_t>(NOX_DSM_NSRM_STATUS_CHANGE_EVENT));
  EXPECT_EQ((Ints{1, 4, 2, 4, NOX_RET_NOT_ALLOWED_NOW}), ask({3, 0, 2, 2, 4}));
  EXPECT_EQ((Ints{1, 4, 5, 2, NOX_RET_NOT_ALLOWED_NOW}), ask({3, 0, 2, 5, 2}));
  EXPECT_EQ("2", prop(kNsrm));
  EXPECT_EQ(1u, events_->events.size());
}

TEST_F(DsmFeatureTest, NsrmSwitchedOffAnswersOneAndLeavesThePropertyAlone) {
  connectWithMask("0");
  EXPECT_EQ((Ints{1, 2, 2, 1}), ask({1, 0, 2, 2, 0}));
  EXPECT_EQ((Ints{1, 4, 2, 1, 0}), ask({3, 0, 2, 2, 3}));
  EXPECT_EQ("", prop(kNsrm));
  EXPECT_TRUE(events_->events.empty());
}

TEST_F(DsmTest, WlanDhcpRenewIsNotReported) {
  for (const Ints& s : {Ints{NOX_NW_STATE_CONNECTED, 0}, Ints{NOX_NW_STATE_CONNECTING, 0},
                        Ints{NOX_NW_STATE_CONNECTED, 0}, Ints{NOX_NW_STATE_CONNECTED, 1}}) {
    _WlanInfo w = {1, s[0], s[1]};
    cmd(NOX_S_NOTIFY_WLAN_STATE_CHG, &w);
  }
  EXPECT_EQ(1u, events_->events.size());  // the renewal and a soft-AP change are swallowed
  EXPECT_EQ(NOX_NW_STATE_CONNECTED, dsm().getWlanInfo().status);
  log_.clear();
  _WlanInfo down = {1, NOX_NW_STATE_DISCONNECTED, 0};
  cmd(NOX_S_NOTIFY_WLAN_STATE_CHG, &down);
  EXPECT_TRUE(log_.has("|COMMON:DSM| Exiting dhcprenew state"));
  ASSERT_EQ(2u, events_->events.size());
  EXPECT_EQ(NOX_NW_STATE_DISCONNECTED,
            events_->last<_WlanInfo>(NOX_DSM_WLAN_STATUS_CHANGE_EVENT).status);
}

TEST_F(DsmTest, TetheringAndScreenAreInvertedAndReportedOnChange) {
  auto raised = [&](NoxMsgEnumType command, int32_t sent, NoxDsmEvent id) {
    events_->events.clear();
    cmd(command, &sent);
    Ints values;
    for (const auto& e : events_->events) values.push_back(e.id == id ? e.as<int32_t>() : -99);
    return values;
  };
  // Tethering starts at 1 and screen at 0; the client's 0 stands for 1, anything else for 0.
  const NoxMsgEnumType tether = NOX_S_NOTIFY_TETHERING_STATE_CHG;
  const NoxMsgEnumType screen = NOX_S_NOTIFY_SCREEN_STATE_CHG;
  EXPECT_EQ(Ints{}, raised(tether, 0, NOX_DSM_TETHERING_STATE_CHANGE_EVENT));
  EXPECT_EQ(Ints{0}, raised(tether, 1, NOX_DSM_TETHERING_STATE_CHANGE_EVENT));
  EXPECT_EQ(Ints{}, raised(tether, 5, NOX_DSM_TETHERING_STATE_CHANGE_EVENT));
  EXPECT_EQ(Ints{1}, raised(tether, 0, NOX_DSM_TETHERING_STATE_CHANGE_EVENT));
  EXPECT_EQ(Ints{}, raised(screen, 1, NOX_DSM_SCREEN_STATE_CHANGE_EVENT));
  EXPECT_EQ(Ints{1}, raised(screen, 0, NOX_DSM_SCREEN_STATE_CHANGE_EVENT));
  EXPECT_EQ(Ints{0}, raised(screen, 7, NOX_DSM_SCREEN_STATE_CHANGE_EVENT));
}

class DsmAppListTest : public DsmTest {
 protected:
  struct App {
    uint32_t uid;
    const char* name;
    const char* ids;
  };
  static NoxAppInfoMsgDataType message(int32_t action, const std::vector<App>& apps) {
    NoxAppInfoMsgDataType m = {};
    m.action = action;
    for (const App& a : apps) {
      NoxAppInfoType t = {};
      snprintf(t.pkg_name, sizeof(t.pkg_name), "%s", a.name);
      snprintf(t.app_name, sizeof(t.app_name), "%s", a.ids);
      t.uid = a.uid;
      m.apps.insert(t);
    }
    m.numApps = static_cast<uint16_t>(m.apps.size());
    return m;
  }
  void update(int32_t action, const std::vector<App>& apps) {
    const NoxAppInfoMsgDataType m = message(action, apps);
    cmd(NOX_S_NOTIFY_APP_INFO_LIST_CHG, &m);
  }
  std::vector<std::string> names(uint32_t uid) {
    std::vector<std::string> out;
    const auto range = dsm().GetAppInfoMap().equal_range(uid);
    for (auto it = range.first; it != range.second; ++it) out.push_back(it->second.pkg_name);
    std::sort(out.begin(), out.end());
    return out;
  }
  using Names = std::vector<std::string>;
};

TEST_F(DsmAppListTest, FirstMessageIsTheWholeListWhateverItsAction) {
  update(NOX_PKG_ACTION_REMOVE, {{10050, "com.a", "1f:2a:1f"}, {10051, "com.b", ""}});
  EXPECT_EQ(Names{"com.a"}, names(10050));
  EXPECT_EQ(Names{"com.b"}, names(10051));
  EXPECT_EQ((std::set<uint32_t>{0x1f, 0x2a}), dsm().GetAppInfoMap().find(10050)->second.appNameIds);
  ASSERT_EQ(1u, events_->events.size());
  EXPECT_EQ(NOX_DSM_APP_INFO_LIST_CHANGE_EVENT, events_->events[0].id);
  EXPECT_TRUE(events_->events[0].payload.empty());
}

TEST_F(DsmAppListTest, AddKeepsSharedUidsRemoveNeedsUidAndName) {
  update(NOX_PKG_ACTION_ADD, {{1000, "android", ""}});
  update(NOX_PKG_ACTION_ADD, {{10050, "com.a", ""}, {10050, "com.b", ""}});
  update(NOX_PKG_ACTION_ADD, {{10050, "com.a", "5"}});
  EXPECT_EQ((Names{"com.a", "com.b"}), names(10050));
  EXPECT_TRUE(log_.has("|COMMON:DSM| App com.a already exists in map! Ignoring"));
  update(NOX_PKG_ACTION_REMOVE, {{10051, "com.a", ""}, {10050, "com.c", ""}});
  EXPECT_EQ(3u, dsm().GetAppInfoMap().size());
  update(7, {{10050, "com.a", ""}});  // any action but add removes
  EXPECT_EQ(Names{"com.b"}, names(10050));
}

TEST_F(DsmAppListTest, OverLongListIsRefusedWholeButStillAnnounced) {
  update(NOX_PKG_ACTION_ADD, {{10050, "com.a", ""}});
  NoxAppInfoMsgDataType m = message(NOX_PKG_ACTION_ADD, {{10051, "com.b", ""}});
  m.numApps = NOX_MAX_APPLIST_SIZE + 1;
  EXPECT_EQ(-1, dsm().AddAppInfoList(&m));
  cmd(NOX_S_NOTIFY_APP_INFO_LIST_CHG, &m);
  EXPECT_EQ(1u, dsm().GetAppInfoMap().size());
  EXPECT_EQ(2u, events_->events.size());
  m.numApps = NOX_MAX_APPLIST_SIZE;
  EXPECT_EQ(1, dsm().AddAppInfoList(&m));
}

}  // namespace
