// The modem controller inside a real Nox, against the real modem simulator: start-up
// retries, counted registrations, combined statuses, plug-in operations and interface
// changes.

#include <arpa/inet.h>
#include <cutils/properties.h>

#include <memory>
#include <regex>
#include <sstream>

#include <gtest/gtest.h>

#include "ModemSimProcess.h"
#include "Nox.h"
#include "TestLog.h"

namespace {

using Lines = std::vector<std::string>;

std::unique_ptr<Nox> makeNox(const char* mask) {
  property_host_reset();
  property_set("persist.nox.feature", mask);
  Nox::pluginDir = "/nonexistent";
  return std::make_unique<Nox>();
}

std::vector<unsigned> gSlept;
unsigned recordSleep(unsigned seconds) {
  gSlept.push_back(seconds);
  return 0;
}

// A start that succeeds on a retry: noxd_netns_test.sh, against a modem that comes late.
TEST(TovInitTest, GivesUpAfterRetriesThreeFiveTenFifteenAndThirtySecondsApart) {
  LogCapture log;
  ModemSimProcess sim;
  sim.cli({"fail", "start", "--times", "6"});
  NoxTov::sleepSeconds = recordSleep;
  auto nox = makeNox("4");
  EXPECT_EQ((std::vector<unsigned>{3, 5, 10, 15, 30}), gSlept);
  EXPECT_TRUE(log.has("|COMMON:TOV| NoxTov::init: max tov int attempted"));
  EXPECT_LT(NoxTov::mTovHandle, 0);
  // Without the library nothing follows the interface events.
  EXPECT_EQ(0u, nox->dsm.dispatcher.count(NOX_DSM_WWAN_INTERFACE_STATUS_CHANGE_EVENT));
}

struct Calls {
  std::vector<std::string> seen;  // "iface status"
  template <typename Event>
  static void record(Event, const void* info, void* data) {
    const auto* i = static_cast<const NoxTovStatusChgInfo*>(info);
    static_cast<Calls*>(data)->seen.push_back(i->iface + " " + std::to_string(i->status));
  }
};

class TovTest : public ::testing::Test {
 public:
  void start(const char* mask) {
    nox_.reset();
    nox_ = makeNox(mask);
    sim_.requests();
  }
  void TearDown() override {
    for (int i = 0; i < 2; ++i) nox_->com.processEvents(50, nox_->timer);  // late hand-overs
    nox_.reset();
  }
  NoxTov& tov() { return nox_->tov; }
  // An interface event as the data state manager raises it.
  void iface(int status, const char* v4, const char* v6) {
    _NoxDsmWwanIfaceInfoType e = {};
    e.status = status;
    snprintf(e.ifaceName, sizeof(e.ifaceName), "mdlnk0");
    snprintf(e.ipAddr, sizeof(e.ipAddr), "%s", v4);
    snprintf(e.ipAddrV6, sizeof(e.ipAddrV6), "%s", v6);
    nox_->dsm.dispatcher.dispatchEvent(NOX_DSM_WWAN_INTERFACE_STATUS_CHANGE_EVENT, &e);
  }
  // The simulator's clients as "wds v4", "dfs v6", ... in its order.
  Lines clients() {
    Lines out;
    std::istringstream in(sim_.cli({"state"}));
    std::smatch m;
    const std::regex client("  (wds|dfs) client [0-9]+: (v[46])");
    for (std::string line; std::getline(in, line);)
      if (std::regex_search(line, m, client)) out.push_back(m[1].str() + " " + m[2].str());
    return out;
  }
  Lines requests() {
    Lines out;
    for (const std::string& line : sim_.requests())
      out.push_back(std::regex_replace(line, std::regex("client [0-9]+"), "client #"));
    return out;
  }
  WdsPortTracker& wds(const char* name) { return *tov().wdsPortTrackers().at(name); }
  DfsPortTracker& dfs(const char* name) { return *tov().dfsPortTrackers().at(name); }

  LogCapture log_;
  ModemSimProcess sim_;
  std::unique_ptr<Nox> nox_;
};

TEST_F(TovTest, RegistrationsAreCountedAndStoredOnlyOnceTheTrackerExists) {
  start("4");
  Calls calls;
  auto cb = Calls::record<NoxTovWdsEventType>;
  // The first registration opens the control channel and creates the port tracker; it
  // is counted but not stored.
  EXPECT_EQ(0, tov().regDormancyStatusChgEvent("mdlnk7", cb, &calls));
  EXPECT_EQ((Lines{"ctrl-open mdlnk7 -> ok"}), requests());
  EXPECT_EQ(1, wds("mdlnk7").dormRegRefCnt);
  EXPECT_EQ(0u, wds("mdlnk7").dispatcher.count(NOX_TOV_WDS_DORMANCY_STATUS_CHG_EV));
  EXPECT_EQ(0, tov().regDormancyStatusChgEvent("mdlnk7", cb, &calls));
  EXPECT_EQ(2, wds("mdlnk7").dormRegRefCnt);
  EXPECT_EQ(1u, wds("mdlnk7").dispatcher.count(NOX_TOV_WDS_DORMANCY_STATUS_CHG_EV));
  // Removing a pair never stored still counts; below zero the count is reset.
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(0, tov().deRegDormancyStatusChgEvent("mdlnk7", cb, &log_));
  EXPECT_EQ(0, wds("mdlnk7").dormRegRefCnt);
  EXPECT_EQ(1, log_.count("|COMMON:TOV| dormRegRefCnt negative!!"));
  EXPECT_EQ(-1, tov().deRegDormancyStatusChgEvent("mdlnk8", cb, &calls));

  // Filtering: the port tracker is created uncounted; a control channel is not opened.
  auto fcb = Calls::record<NoxTovDfsEventType>;
  EXPECT_EQ(0, tov().regFilteringStatusChgEvent("mdlnk7", fcb, &calls));
  EXPECT_EQ(0, dfs("mdlnk7").filterRegRefCnt);
  EXPECT_EQ(0, tov().regFilteringStatusChgEvent("mdlnk7", fcb, &calls));
  EXPECT_EQ(1, dfs("mdlnk7").filterRegRefCnt);
  EXPECT_EQ(0, tov().deRegFilteringStatusChgEvent("mdlnk7", fcb, &calls));
  EXPECT_EQ(0, tov().deRegFilteringStatusChgEvent("mdlnk7", fcb, &calls));
  EXPECT_EQ(-1, dfs("mdlnk7").filterRegRefCnt);  // not checked on the way down
  EXPECT_EQ(Lines{}, requests());

  // A control channel the modem refuses: no port tracker.
  sim_.cli({"fail", "ctrl"});
  EXPECT_EQ(-1, tov().regDormancyStatusChgEvent("mdlnk9", cb, &calls));
  EXPECT_EQ(0u, tov().wdsPortTrackers().count("mdlnk9"));
}

TEST_F(TovTest, InterfaceEventsCreateAndDeleteTheFamilyTrackers) {
  for (const char* mask : {"3", "1"}) {
    const bool filters = std::string(mask) == "3";
    SCOPED_TRACE(std::string("mask ") + mask);
    start(mask);
    Calls dorm, filt;
    iface(NOX_NW_STATE_CONNECTED, "10.0.0.5", "");  // creates the port trackers
    ASSERT_EQ(0, tov().regDormancyStatusChgEvent("mdlnk0", Calls::record<NoxTovWdsEventType>, &dorm));
    if (filters) {
      ASSERT_EQ(0, tov().regFilteringStatusChgEvent("mdlnk0", Calls::record<NoxTovDfsEventType>, &filt));
    }
    requests();

    iface(NOX_NW_STATE_CONNECTED, "10.0.0.5", "2001:db8::5");
    EXPECT_EQ(filters ? (Lines{"wds v4", "wds v6", "dfs v4", "dfs v6"}) : (Lines{"wds v4", "wds v6"}),
              clients());
    // The new family's report follows the count; IPv4's is on already.
    Lines reports;
    for (const std::string& r : requests())
      if (r.find("wds-event-report") == 0) reports.push_back(r);
    EXPECT_EQ(Lines{"wds-event-report mdlnk0 v6 client # mask 0x8 dormancy on -> ok"}, reports);

    iface(NOX_NW_STATE_CONNECTED, "10.0.0.5", "");  // IPv6 gone: only its trackers go
    EXPECT_EQ(filters ? (Lines{"wds v4", "dfs v4"}) : (Lines{"wds v4"}), clients());
    // Disconnected: dormancy subscribers hear -1, filtering subscribers nothing.
    filt.seen.clear();
    iface(NOX_NW_STATE_DISCONNECTED, "", "");
    EXPECT_EQ(Lines{}, clients());
    EXPECT_EQ("mdlnk0 -1", dorm.seen.back());
    EXPECT_EQ(Lines{}, filt.seen);
    EXPECT_EQ(filters ? 1u : 0u, tov().dfsPortTrackers().size());
  }
}

TEST_F(TovTest, OperationsAndStatusesOfAnInterfaceAndItsFamilies) {
  start("3");
  EXPECT_EQ(-1, tov().goDormant("mdlnk0"));
  EXPECT_EQ(-1, tov().getDormancyStatus("mdlnk0"));
  EXPECT_EQ(-1, tov().addDfsFilters("mdlnk0", {}, {}));
  EXPECT_EQ(-1, tov().clearAllDfsFilters("mdlnk0"));
  iface(NOX_NW_STATE_CONNECTED, "10.0.0.5", "2001:db8::5");
  requests();
  // The IPv6 result wins, also over an IPv4 failure.
  sim_.cli({"fail", "wds-go-dormant"});
  EXPECT_EQ(0, tov().goDormant("mdlnk0"));
  sim_.cli({"dormancy", "mdlnk0", "active"});
  EXPECT_EQ(0, tov().goDormant());
  EXPECT_NE(std::string::npos, sim_.cli({"state"}).find("v6: dormant"));

  NoxConnTrackFilter_s v4 = {}, v6 = {};
  v4.family = 2, v4.protocol = 6, v4.dstPort = htons(443);
  v6.family = 10, v6.protocol = 17, v6.dstPort = htons(53);
  requests();
  EXPECT_EQ(-1, tov().addDfsFilters("mdlnk0", {}, {}));  // nothing sent
  EXPECT_EQ(1, tov().addDfsFilters("mdlnk0", {}, {v6}));  // only IPv6 sent
  EXPECT_EQ(1, tov().addDfsFilters("mdlnk0", {v4}, {v6}));
  // A failing IPv4 list keeps the IPv6 list from being tried.
  sim_.cli({"fail", "dfs-add-filters"});
  EXPECT_EQ(-1, tov().addDfsFilters("mdlnk0", {v4}, {v6}));
  tov().setDfsFilterMode("mdlnk0", true);
  EXPECT_EQ(1, tov().clearAllDfsFilters("mdlnk0"));
  EXPECT_EQ((Lines{"dfs-add-filters mdlnk0 v6 client # 1 rules -> ok",
                   "dfs-add-filters mdlnk0 v4 client # 1 rules -> ok",
                   "dfs-add-filters mdlnk0 v6 client # 1 rules -> ok",
                   "dfs-add-filters mdlnk0 v4 client # -> error 3 (injected)",
                   "dfs-set-mode mdlnk0 v4 client # on -> ok", "dfs-set-mode mdlnk0 v6 client # on -> ok",
                   "dfs-remove-filters mdlnk0 v4 client # 1 rules -> ok",
                   "dfs-remove-filters mdlnk0 v6 client # 2 rules -> ok"}),
            requests());

  // Statuses, nobody registered: asked of the modem, both families (its state changes
  // between calls). Both are dormant now, filter mode on in both.
  EXPECT_EQ(0, tov().getDormancyStatus("mdlnk0"));
  sim_.cli({"dormancy", "mdlnk0", "v4", "active"});
  EXPECT_EQ(1, tov().getDormancyStatus("mdlnk0"));  // one family active
  sim_.cli({"filter-mode", "mdlnk0", "v4", "off"});
  EXPECT_EQ(1, tov().getFilterStatus("mdlnk0"));
  sim_.cli({"filter-mode", "mdlnk0", "v4", "on"});
  EXPECT_EQ(0, tov().getFilterStatus("mdlnk0"));

  // Registered: the cached status, without a request, updated by indications.
  sim_.cli({"dormancy", "mdlnk0", "v4", "dormant"});
  Calls dorm;
  ASSERT_EQ(0, tov().regDormancyStatusChgEvent("mdlnk0", Calls::record<NoxTovWdsEventType>, &dorm));
  requests();  // both families' reports switched on
  EXPECT_EQ(1, tov().getDormancyStatus("mdlnk0"));  // the last status dispatched
  EXPECT_EQ(Lines{}, requests());
  auto indications = [&](int n) {
    for (int i = 0; i < 200 && log_.count("wdsEventfdCallback fd") < n; ++i)
      nox_->com.processEvents(50, nox_->timer);
  };
  sim_.cli({"dormancy", "mdlnk0", "v4", "active"});
  indications(1);
  EXPECT_EQ(Lines{}, dorm.seen);  // combined, still active
  sim_.cli({"dormancy", "mdlnk0", "dormant"});
  indications(3);
  EXPECT_EQ(Lines{"mdlnk0 0"}, dorm.seen);
  EXPECT_EQ(0, tov().getDormancyStatus("mdlnk0"));
}

TEST_F(TovTest, ASlowModemHoldsTheLoopForOneClientStartAtATime) {
  start("3");
  sim_.cli({"delay", "300"});
  // What the modem has when a timer due in 50 ms gets to run.
  struct Probe {
    TovTest* test;
    Lines seen;
    bool ran;
  } probe{this, {}, false};
  nox_->timer.addTimedCallback(50, [](void* p) {
        Probe* probe = static_cast<Probe*>(p);
        return probe->seen = probe->test->clients(), probe->ran = true, -1;
      }, &probe);
  const NoxWwanInfoType w = {0, NOX_NW_STATE_CONNECTED, 0, 0, 0, "10.0.0.5", "lo", "2001:db8::5", "lo", ""};
  // Twelve requests of at least 300 ms each: more than one event's budget.
  nox_->dispatcher.dispatchEvent(NOX_S_NOTIFY_WWAN_STATE_CHG, &w);
  const Lines all = {"wds v4", "wds v6", "dfs v4", "dfs v6"};
  for (int i = 0; i < 300 && (!probe.ran || clients() != all); ++i)
    nox_->com.processEvents(100, nox_->timer);
  EXPECT_TRUE(probe.ran);
  EXPECT_NE(all, probe.seen) << "the timer waited for every client start";
  EXPECT_EQ(all, clients());
  sim_.cli({"delay", "0"});
}

}  // namespace
