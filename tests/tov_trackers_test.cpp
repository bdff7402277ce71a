// WDS and DFS trackers against the real modem simulator, with indications handed to a
// real loop by the host library's thread.

#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <list>
#include <sstream>
#include <regex>
#include <thread>

#include <gtest/gtest.h>

#include "ModemSimProcess.h"
#include "NoxDfsTracker.h"
#include "NoxTimer.h"
#include "NoxWdsTracker.h"
#include "TestLog.h"

namespace {

using Lines = std::vector<std::string>;
const tov_ip_family_pref_type kV4 = TOV_IP_FAMILY_PREF_IPV4, kV6 = TOV_IP_FAMILY_PREF_IPV6;

NoxConnTrackFilter_s filter(uint16_t family, int32_t protocol, const char* src = nullptr,
                            const char* dst = nullptr, uint16_t srcPort = 0, uint16_t dstPort = 0) {
  NoxConnTrackFilter_s f = {};
  f.family = family;
  f.protocol = protocol;
  f.srcPort = htons(srcPort);
  f.dstPort = htons(dstPort);
  const int af = family == 10 ? AF_INET6 : AF_INET;
  if (src != nullptr) {
    EXPECT_EQ(1, inet_pton(af, src, f.srcAddr));
  }
  if (dst != nullptr) {
    EXPECT_EQ(1, inet_pton(af, dst, f.dstAddr));
  }
  return f;
}

class TrackerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    int err = 0;
    handle_ = tov_init(nullptr, nullptr);
    ASSERT_GE(handle_, 0);
    ASSERT_EQ(TOV_NO_ERR, tov_dev_connection_init("mdlnk0", &err));
    requests();
  }
  void TearDown() override {
    drive([] { return false; }, 2);  // hand-overs still on their way
    tov_release(handle_);
  }

  // Runs the loop until `done`; the bound only keeps a fault from hanging the test.
  bool drive(const std::function<bool()>& done, int passes = 200) {
    for (int i = 0; i < passes && !done(); ++i) com_.processEvents(50, timer_);
    return done();
  }
  // The simulator's request lines since the last call, client numbers as '#'.
  Lines requests() {
    Lines out;
    for (const std::string& line : sim_.requests())
      out.push_back(std::regex_replace(line, std::regex("client [0-9]+"), "client #"));
    return out;
  }
  // The installed filters as the simulator describes them.
  Lines filters() {
    Lines out;
    std::istringstream in(sim_.cli({"state"}));
    for (std::string line; std::getline(in, line);)
      if (line.find("    filter ") == 0) out.push_back(line.substr(line.find(": ") + 2));
    return out;
  }

  LogCapture log_;
  ModemSimProcess sim_;
  NoxCom com_;
  NoxTimer timer_{nullptr};
  int handle_ = -1;
};

TEST_F(TrackerTest, DormancyIsReadAndOrdered) {
  struct Case {
    const char* simDormancy;
    const char* fault;
    int get, goDormant;
    Lines goRequests;
  };
  const Case cases[] = {
      {"active", nullptr, 1, 0,
       {"wds-get-dormancy mdlnk0 v4 client # -> active", "wds-go-dormant mdlnk0 v4 client # -> ok"}},
      {"dormant", nullptr, 0, 0, {"wds-get-dormancy mdlnk0 v4 client # -> dormant"}},
      // A query that fails still leads to the order.
      {"active", "wds-get-dormancy", 1, 0,
       {"wds-get-dormancy mdlnk0 v4 client # -> error -2/3 (injected)",
        "wds-go-dormant mdlnk0 v4 client # -> ok"}},
      {"active", "wds-go-dormant", 1, -1,
       {"wds-get-dormancy mdlnk0 v4 client # -> active",
        "wds-go-dormant mdlnk0 v4 client # -> error -2/3 (injected)"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.simDormancy) + " " + (c.fault ? c.fault : ""));
    sim_.cli({"dormancy", "mdlnk0", c.simDormancy});
    NoxWdsTracker tracker("mdlnk0", kV4, com_);
    EXPECT_EQ(c.get, tracker.getDormancy());
    requests();
    if (c.fault) sim_.cli({"fail", c.fault});
    EXPECT_EQ(c.goDormant, tracker.goDormant());
    EXPECT_EQ(c.goRequests, requests());
  }
  EXPECT_EQ(1, log_.count("|COMMON:TOV| NoxWdsTracker::goDormant: Failed to get dormancy status, ret -2 err 3"));
  EXPECT_EQ(1, log_.count("|COMMON:TOV| NoxWdsTracker::goDormant: Failed to go dormant, ret -2 err 3"));
}

TEST_F(TrackerTest, DormancyReportIsSentOnceAndNeverSwitchedOff) {
  NoxWdsTracker tracker("mdlnk0", kV6, com_);
  requests();
  tracker.setDormancyEventReport(false);  // a fresh client: sent
  tracker.setDormancyEventReport(true);   // the report is not on yet: sent again
  tracker.setDormancyEventReport(false);  // on: never switched off
  tracker.setDormancyEventReport(true);
  EXPECT_EQ((Lines{"wds-event-report mdlnk0 v6 client # mask 0x8 dormancy off -> ok",
                   "wds-event-report mdlnk0 v6 client # mask 0x8 dormancy on -> ok"}),
            requests());
  EXPECT_EQ(2, log_.count("|COMMON:TOV| Dormancy event already set on this port:mdlnk0"));

}

int openDescriptors() {
  const std::filesystem::directory_iterator fds("/proc/self/fd");
  return static_cast<int>(std::distance(begin(fds), end(fds)));
}

struct Received {
  std::vector<int> values;
  bool offLoop = false;
  std::thread::id loop = std::this_thread::get_id();
};
template <typename T>
void receive(T value, void* data) {
  Received* r = static_cast<Received*>(data);
  r->values.push_back(static_cast<int>(value));
  r->offLoop |= std::this_thread::get_id() != r->loop;
}

// A flood reaches the loop as the latest status, through no descriptor of its own.
TEST_F(TrackerTest, IndicationsReachTheLoopAsTheLatestStatusUntilTheirTrackerIsGone) {
  Received got;
  auto tracker = std::make_unique<NoxWdsTracker>("mdlnk0", kV4, com_);
  tracker->mIndCb = receive<NoxDormancyStatusType>;
  tracker->mIndCbData = &got;
  tracker->setDormancyEventReport(true);
  auto arrived = [&](int n) {  // indications the library's thread has handed over
    for (int i = 0; i < 1000 && log_.count("received wds indication with event mask:8") < n; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return log_.count("received wds indication with event mask:8") == n;
  };
  const int fds = openDescriptors();
  for (int i = 0; i < 600; ++i) sim_.cli({"dormancy", "mdlnk0", i % 2 ? "dormant" : "active"});
  ASSERT_TRUE(arrived(600));
  EXPECT_EQ(fds, openDescriptors());
  EXPECT_TRUE(drive([&] { return !got.values.empty(); }));
  drive([] { return false; }, 2);
  EXPECT_EQ(std::vector<int>{NOX_DORMANCY_STATUS_DORMANT}, got.values);
  EXPECT_FALSE(got.offLoop);

  // One that the loop would take after its tracker was deleted: dropped.
  sim_.cli({"dormancy", "mdlnk0", "active"});
  ASSERT_TRUE(arrived(601));
  tracker.reset();
  drive([] { return false; }, 2);
  EXPECT_EQ(1u, got.values.size());
}

// Client starts, the report and releases failing: each has its line, nothing more.
TEST_F(TrackerTest, FailedStartsAndReleasesAreLoggedAndSurvived) {
  struct Case {
    const char* fault;
    bool dfs;
    tov_ip_family_pref_type family;
    const char* line;
  };
  const Case cases[] = {
      {"wds-start", false, kV4, "tov_wds_svc_init_client err:3 for port:mdlnk0"},
      {"wds-ip-pref", false, kV6, "tov_wds_set_client_ip_pref rc:-2 err:3"},
      {"wds-event-report", false, kV4, "failed to set dormancy event report, ret:1, err:3"},
      {"wds-release", false, kV4, "tov_wds_svc_release_client failed, ret:-2, err:3"},
      {"dfs-start", true, kV4, "NoxDfsTracker::startTovDfs: DFS client init error -2"},
      {"dfs-bind", true, kV6, "NoxDfsTracker::startTovDfs: TOV req responded with failure 3"},
      {"dfs-set-autoexit", true, kV4, "NoxDfsTracker::startTovDfs: set autoexit mode failed"},
      {"dfs-release", true, kV4, "NoxDfsTracker::stopTovDfs: TOV client release failed error -2"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.fault);
    sim_.cli({"fail", c.fault});
    if (c.dfs) {
      NoxDfsTracker tracker("mdlnk0", c.family, com_);
      bool mode;
      tracker.getDfsFilterMode(mode);
    } else {
      NoxWdsTracker tracker("mdlnk0", c.family, com_);
      tracker.setDormancyEventReport(true);
    }
    EXPECT_EQ(1, log_.count(c.line));
  }
  // The client that never started refused the report.
  EXPECT_EQ(1, log_.count("Cannot set dormancy event report for uninitialized wds tov port:mdlnk0"));
}

TEST_F(TrackerTest, FiltersReachTheModemAsRules) {
  NoxDfsTracker v4("mdlnk0", kV4, com_);
  NoxDfsTracker v6("mdlnk0", kV6, com_);
  EXPECT_EQ((Lines{"dfs-start mdlnk0 instance 65535 -> client #", "dfs-bind mdlnk0 client # v4 -> ok",
                   "dfs-set-autoexit mdlnk0 v4 client # on -> ok",
                   "dfs-start mdlnk0 instance 65535 -> client #", "dfs-bind mdlnk0 client # v6 -> ok",
                   "dfs-set-autoexit mdlnk0 v6 client # on -> ok"}),
            requests());
  EXPECT_EQ(1, v4.addDfsFilters({filter(2, 6, "10.0.0.1", "10.0.0.2", 5000, 443),
                                 filter(2, 17)}));
  // IPv6: without a source no address at all; with one, the destination too, zero or not.
  EXPECT_EQ(1, v6.addDfsFilters({filter(10, 6, nullptr, "2001:db8::2", 0, 80),
                                 filter(10, 17, "2001:db8::1", nullptr, 0, 53)}));
  EXPECT_EQ((Lines{"v4 tcp src 10.0.0.1/255.255.255.255 dst 10.0.0.2/255.255.255.255 src-port 5000 dst-port 443",
                   "v4 udp", "v6 tcp dst-port 80", "v6 udp src 2001:db8::1/64 dst ::/64 dst-port 53"}),
            filters());
  requests();

  // 255 filters in one request, 256 in two.
  const std::list<NoxConnTrackFilter_s> batch(255, filter(2, 6, nullptr, nullptr, 0, 443));
  EXPECT_EQ(1, v4.addDfsFilters(batch));
  std::list<NoxConnTrackFilter_s> more = batch;
  more.push_back(filter(2, 17, nullptr, nullptr, 0, 53));
  log_.clear();
  EXPECT_EQ(1, v4.addDfsFilters(more));
  EXPECT_EQ((Lines{"dfs-add-filters mdlnk0 v4 client # 255 rules -> ok",
                   "dfs-add-filters mdlnk0 v4 client # 255 rules -> ok",
                   "dfs-add-filters mdlnk0 v4 client # 1 rules -> ok"}),
            requests());
  EXPECT_EQ((Lines{"|COMMON:TOV| NoxDfsTracker::addDfsFilters: send DFS add filters req, current filters position 254",
                   "|COMMON:TOV| NoxDfsTracker::addDfsFilters: send DFS add filters req, current filters position 0"}),
            log_.matching("current filters position"));

  // A filter that cannot be built fails the call there: earlier batches stay.
  more.back() = filter(2, 1);
  EXPECT_EQ(-1, v4.addDfsFilters(more));
  EXPECT_EQ(-1, v6.addDfsFilters({filter(10, 6), filter(7, 6)}));
  EXPECT_EQ((Lines{"dfs-add-filters mdlnk0 v4 client # 255 rules -> ok"}), requests());
  EXPECT_EQ(1, log_.count("unknown transport proto 1"));
  EXPECT_EQ(1, log_.count("unknown IP family 7"));
  EXPECT_GT(sim_.cli({"state", "--json"}).size(), 65536u);  // more than one old frame held
  EXPECT_EQ(1, v4.removeAllDfsFilters());
  EXPECT_EQ((Lines{"dfs-remove-filters mdlnk0 v4 client # 768 rules -> ok"}), requests());
}

TEST_F(TrackerTest, FilterModeRequestsIndicationsAndFailures) {
  Received got;
  NoxDfsTracker tracker("mdlnk0", kV4, com_);
  tracker.mIndCb = receive<unsigned char>;
  tracker.mIndCbData = &got;
  bool mode = false;
  EXPECT_EQ(1, tracker.setDfsFilterMode(true));
  EXPECT_EQ(1, tracker.getDfsFilterMode(mode));
  EXPECT_TRUE(mode);
  // The registration is sent once and never withdrawn.
  EXPECT_EQ(1, tracker.regFilterStatusChgInd(true));
  EXPECT_EQ(1, tracker.regFilterStatusChgInd(false));
  requests();
  sim_.cli({"filter-mode", "mdlnk0", "off"});
  EXPECT_TRUE(drive([&] { return got.values.size() == 1; }));
  EXPECT_EQ(std::vector<int>{0}, got.values);
  EXPECT_FALSE(got.offLoop);
  EXPECT_EQ(Lines{"cli filter-mode mdlnk0 off"}, requests());

  // Each request kind failing: its own line and -1; the mode is left as it was.
  struct Case {
    const char* fault;
    std::function<int()> call;
    const char* line;
  };
  const Case cases[] = {
      {"dfs-set-mode", [&] { return tracker.setDfsFilterMode(false); },
       "NoxDfsTracker::setDfsFilterMode: TOV req responded with failure 7"},
      {"dfs-get-mode", [&] { return tracker.getDfsFilterMode(mode); },
       "NoxDfsTracker::getDfsFilterMode: TOV req responded with failure 7"},
      {"dfs-set-autoexit", [&] { return tracker.setDfsAutoExitFilterMode(true); },
       "NoxDfsTracker::setDfsAutoExitFilterMode: TOV req responded with failure 7"},
      {"dfs-remove-filters", [&] { return tracker.removeAllDfsFilters(); },
       "NoxDfsTracker::removeAllDfsFilters: TOV req responded with failure 7"},
      {"dfs-add-filters", [&] { return tracker.addDfsFilters({filter(2, 6)}); },
       "NoxDfsTracker::sendAddFiltersReq: TOV req responded with failure 7"},
  };
  mode = true;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.fault);
    sim_.cli({"fail", c.fault, "--error", "7"});
    EXPECT_EQ(-1, c.call());
    EXPECT_EQ(1, log_.count(c.line));
  }
  EXPECT_TRUE(mode);

  // A family other than 4 or 6 releases the client without a word.
  requests();
  log_.clear();
  NoxDfsTracker odd("mdlnk0", static_cast<tov_ip_family_pref_type>(5), com_);
  EXPECT_EQ((Lines{"dfs-start mdlnk0 instance 65535 -> client #", "dfs-release client # -> ok"}),
            requests());
  EXPECT_EQ(0, log_.count("startTovDfs"));
}

}  // namespace
