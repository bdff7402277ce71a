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

// The logcat channel through LogCapture, the diagnostic channel through the host sink.
class LogTest : public ::testing::Test {
 protected:
  LogTest() {
    msg_host_set_sink(diagSink);
    std::lock_guard<std::mutex> lock(gDiagMutex);
    gDiag.clear();
  }
  ~LogTest() override { msg_host_set_sink(nullptr); }

  LogCapture log;
  NoxLogDiag diagLog;
};

TEST_F(LogTest, LevelBelowThresholdIsDroppedBeforeFormattingOthersGoUnderTagNox) {
  const struct {
    int threshold, level, priority;  // -1: nothing written
  } cases[] = {{2, 1, -1}, {2, 2, 4}, {0, 0, 2}, {-1, 0, 2}, {5, 4, -1}, {0, 1, 3}, {0, 3, 5}, {0, 4, 6}};
  for (const auto& c : cases) {
    log.clear();
    NoxLog::logLevel = c.threshold;
    NOX_LOG(c.level, NOX_MOD_COMMON, "line");
    const auto lines = log.lines();
    ASSERT_LE(lines.size(), 1u);
    EXPECT_EQ(c.priority, lines.empty() ? -1 : lines[0].priority) << c.threshold << "/" << c.level;
    for (const auto& l : lines) EXPECT_EQ("NOX", l.tag);
  }
  // A dropped call must not touch its arguments: formatting this one would fault.
  log.clear();
  NoxLog::logLevel = 2;
  NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_COMMON, "%s", reinterpret_cast<const char*>(1));
  diagLog.printLog(NOX_LOG_DEBUG, NOX_MOD_COMMON, "%s", reinterpret_cast<const char*>(1));
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
    EXPECT_EQ(std::vector<std::string>{c.logcat}, log.matching("")) << c.module;
    EXPECT_EQ(c.diag, diag().back().text) << c.module;
  }
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
      log.matching(""));
}

// The diagnostic descriptor is filled by the first line of the process, from whatever
// thread; every later line carries it. Needs a process of its own (ctest gives each case one).
TEST_F(LogTest, ConcurrentLinesStayWholeAndFillTheDescriptorOnce) {
  if (gDiagUsed) GTEST_SKIP() << "needs a process of its own";
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&, i] {
      for (ready.fetch_add(1); ready.load() < 4;) std::this_thread::yield();
      for (int k = 0; k < 100; ++k) {
        NOX_LOG(NOX_LOG_INFO, NOX_MOD_COMMON + i, "thread %d line %d", i, k);
        diagLog.printLog(i, NOX_MOD_COMMON + i, "thread %d", i);
      }
    });
  for (auto& t : threads) t.join();
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

}  // namespace
