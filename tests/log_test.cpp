#include <cutils/properties.h>
#include <diag_channel.h>
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "NoxLog.h"
#include "TestLog.h"

namespace {

// Lines that reached the diagnostic channel, with the descriptor they carried.
struct DiagLine {
  unsigned ssId, mask;
  std::string text;
};
std::mutex gDiagMutex;
std::vector<DiagLine> gDiag;
bool gDiagUsed = false;  // the channel's descriptor is filled once per process

void diagSink(const diag_msg_descriptor* desc, const char* line) {
  std::lock_guard<std::mutex> lock(gDiagMutex);
  gDiag.push_back({desc->subsystem_id, desc->subsystem_mask, line});
  gDiagUsed = true;
}
std::vector<DiagLine> diag() {
  std::lock_guard<std::mutex> lock(gDiagMutex);
  return gDiag;
}

std::string gTag;
int tagRecorder(int, const char* tag, const char*, ...) {
  gTag = tag;
  return 0;
}

// Starts `n` threads that wait for one another, then run `body(i)`.
template <typename Body>
void runTogether(int n, Body body) {
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < n; ++i)
    threads.emplace_back([&, i] {
      for (ready.fetch_add(1); ready.load() < n;) std::this_thread::yield();
      body(i);
    });
  for (auto& t : threads) t.join();
}

// The logcat channel through LogCapture, the diagnostic channel through the host sink.
// The tests that need the first diagnostic line of their process skip when it is gone
// (ctest runs each case in a process of its own).
class LogTest : public ::testing::Test {
 protected:
  LogTest() {
    msg_host_set_sink(diagSink);
    std::lock_guard<std::mutex> lock(gDiagMutex);
    gDiag.clear();
  }
  ~LogTest() override { msg_host_set_sink(nullptr); }
  std::vector<std::string> texts() { return log.matching(""); }

  LogCapture log;
  NoxLogDiag diagLog;
};

TEST_F(LogTest, LevelBelowThresholdIsDroppedBeforeFormatting) {
  const struct {
    int threshold, level;
    size_t written;
  } cases[] = {{2, 1, 0}, {2, 2, 1}, {0, 0, 1}, {-1, 0, 1}, {5, 4, 0}};
  for (const auto& c : cases) {
    log.clear();
    NoxLog::logLevel = c.threshold;
    NOX_LOG(c.level, NOX_MOD_COMMON, "line");
    EXPECT_EQ(c.written, log.lines().size()) << c.threshold << "/" << c.level;
  }
  // A dropped call must not touch its arguments: formatting this one would fault.
  NoxLog::logLevel = 2;
  NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_COMMON, "%s", reinterpret_cast<const char*>(1));
  diagLog.printLog(NOX_LOG_DEBUG, NOX_MOD_COMMON, "%s", reinterpret_cast<const char*>(1));
  NoxLog base;  // writes nothing at any level
  for (int level = 0; level <= 4; ++level) base.printLog(level, NOX_MOD_COMMON, "x");
  EXPECT_TRUE(log.lines().empty());
  EXPECT_TRUE(diag().empty());
}

TEST_F(LogTest, ModuleTagOnEachChannel) {
  const struct {
    int module;
    const char *logcat, *diag;
  } cases[] = {
      {NOX_MOD_UNTAGGED, "fd 7", "fd 7"},
      {NOX_MOD_CONFIG, "|CONFIG| fd 7", "fd 7"},
      {NOX_MOD_TEST, "|TEST| fd 7", "fd 7"},
      {0, "|UNDEFINED| fd 7", "|UNDEFINED| fd 7"},
      {NOX_MOD_TEST + 1, "|UNDEFINED| fd 7", "fd 7"},
      {NOX_MOD_UNTAGGED - 1, "|UNDEFINED| fd 7", "fd 7"},
  };
  for (const auto& c : cases) {
    log.clear();
    NOX_LOG(NOX_LOG_INFO, c.module, "fd %d", 7);
    diagLog.printLog(NOX_LOG_INFO, c.module, "fd %d", 7);
    EXPECT_EQ(std::vector<std::string>{c.logcat}, texts()) << c.module;
    EXPECT_EQ(c.diag, diag().back().text) << c.module;
  }
}

TEST_F(LogTest, LogcatPriorityFollowsLevelUnderTagNox) {
  for (int level = 0; level <= 4; ++level) NOX_LOG(level, NOX_MOD_COM, "x");
  std::vector<int> priorities;
  for (const auto& l : log.lines()) priorities.push_back(l.priority);
  EXPECT_EQ((std::vector<int>{2, 3, 4, 5, 6}), priorities);
  NoxLog::_libnoxlog_log_handle = tagRecorder;  // LogCapture restores its own
  NOX_LOG(NOX_LOG_ERROR, NOX_MOD_DSM, "x");
  EXPECT_EQ("NOX", gTag);
}

TEST_F(LogTest, ExpansionIsCutAt511AndATaggedFormatBeforeExpansion) {
  const std::string arg(600, 'x'), format = std::string(503, 'a') + "%d";
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_UNTAGGED, "%s", arg.c_str());
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_CONFIG, "%s", arg.c_str());
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_UNTAGGED, format.c_str(), 42);
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_CONFIG, format.c_str(), 42);  // "%d" cut off with the tail
  EXPECT_EQ(
      (std::vector<std::string>{arg.substr(0, 511), "|CONFIG| " + arg.substr(0, 502),
                                std::string(503, 'a') + "42", "|CONFIG| " + std::string(502, 'a')}),
      texts());
}

TEST_F(LogTest, FirstDiagnosticLineFixesTheDescriptorForGood) {
  if (gDiagUsed) GTEST_SKIP() << "needs a process of its own";
  diagLog.printLog(NOX_LOG_ERROR, NOX_MOD_TOV, "first");
  diagLog.printLog(NOX_LOG_VERBOSE, NOX_MOD_DSM, "later");
  const auto lines = diag();
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ(10403u, lines[1].ssId);
  EXPECT_EQ(8u, lines[1].mask);
  EXPECT_EQ("later", lines[1].text);
}

TEST_F(LogTest, ConcurrentLinesStayWholeAndFillTheDescriptorOnce) {
  if (gDiagUsed) GTEST_SKIP() << "needs a process of its own";
  runTogether(4, [this](int i) {
    for (int k = 0; k < 100; ++k) {
      NOX_LOG(NOX_LOG_INFO, NOX_MOD_COMMON + i, "thread %d line %d", i, k);
      diagLog.printLog(i, NOX_MOD_COMMON + i, "thread %d", i);
    }
  });
  EXPECT_EQ(400u, log.lines().size());
  EXPECT_EQ(100, log.count("|COMMON:DSM| thread 3 line "));
  const auto lines = diag();
  ASSERT_EQ(400u, lines.size());
  const unsigned first = lines[0].ssId - NOX_MOD_COMMON;
  ASSERT_LT(first, 4u);
  for (const DiagLine& l : lines) {
    EXPECT_EQ(lines[0].ssId, l.ssId);
    EXPECT_EQ(static_cast<unsigned>(NoxLog::RYVO_VERBOSITY_LEVEL[first]), l.mask);
  }
}

TEST(LogPropertyTest, ThresholdPropertyIsReadAsANumber) {
  property_host_reset();
  EXPECT_EQ(0, NoxLog::getPropertyValue());
  const struct {
    const char* value;
    int level;
  } cases[] = {{"3", 3}, {"4x", 4}, {"verbose", 0}, {"-1", -1}, {"", 0}};
  for (const auto& c : cases) {
    ASSERT_EQ(0, property_set("persist.nox.loglevel", c.value));
    EXPECT_EQ(c.level, NoxLog::getPropertyValue()) << c.value;
  }
  property_host_reset();
}

}  // namespace
