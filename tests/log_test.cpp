#include <cutils/properties.h>
#include <diag/msg.h>
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
  unsigned ssId;
  unsigned mask;
  std::string text;
};
std::mutex gDiagMutex;
std::vector<DiagLine> gDiag;
bool gDiagUsed = false;  // the channel's descriptor is filled once per process

void diagSink(const msg_const_type* desc, const char* line) {
  std::lock_guard<std::mutex> lock(gDiagMutex);
  gDiag.push_back({desc->ss_id, desc->ss_mask, line});
  gDiagUsed = true;
}

std::string gTag;
int tagRecorder(int, const char* tag, const char*, ...) {
  gTag = tag;
  return 0;
}

// The logcat channel through LogCapture, the diagnostic channel through the host sink.
class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    msg_host_set_sink(diagSink);
    std::lock_guard<std::mutex> lock(gDiagMutex);
    gDiag.clear();
  }
  void TearDown() override { msg_host_set_sink(nullptr); }

  // Text of the only logcat line, or "" when nothing or more was written.
  std::string onlyLine() const {
    const auto lines = log.lines();
    return lines.size() == 1 ? lines[0].text : "";
  }
  static std::vector<DiagLine> diag() {
    std::lock_guard<std::mutex> lock(gDiagMutex);
    return gDiag;
  }
  // Skips a test that needs the first diagnostic line of its process.
  static bool diagAlreadyUsed() {
    std::lock_guard<std::mutex> lock(gDiagMutex);
    return gDiagUsed;
  }

  LogCapture log;
  NoxLogDiag diagLog;
};

TEST_F(LogTest, LevelBelowThresholdIsDroppedBeforeFormatting) {
  struct Case {
    int threshold, level;
    bool written;
  };
  for (const Case& c : {Case{2, 1, false}, Case{2, 2, true}, Case{0, 0, true}, Case{-1, 0, true},
                        Case{5, 4, false}}) {
    log.clear();
    NoxLog::logLevel = c.threshold;
    NOX_LOG(c.level, NOX_MOD_COMMON, "line");
    EXPECT_EQ(c.written ? 1u : 0u, log.lines().size()) << c.threshold << "/" << c.level;
  }
  // A dropped call must not touch its arguments: formatting this one would fault.
  NoxLog::logLevel = 2;
  NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_COMMON, "%s", reinterpret_cast<const char*>(1));
  diagLog.printLog(NOX_LOG_DEBUG, NOX_MOD_COMMON, "%s", reinterpret_cast<const char*>(1));
  EXPECT_TRUE(log.lines().empty());
  EXPECT_TRUE(diag().empty());
}

TEST_F(LogTest, LogcatLineCarriesTheModuleTag) {
  const struct {
    int module;
    const char* text;
  } cases[] = {
      {NOX_MOD_UNTAGGED, "fd 7"},
      {NOX_MOD_CONFIG, "|CONFIG| fd 7"},
      {NOX_MOD_COM, "|COMMON:COM| fd 7"},
      {NOX_MOD_TEST, "|TEST| fd 7"},
      {0, "|UNDEFINED| fd 7"},
      {NOX_MOD_TEST + 1, "|UNDEFINED| fd 7"},
      {NOX_MOD_UNTAGGED - 1, "|UNDEFINED| fd 7"},
  };
  for (const auto& c : cases) {
    log.clear();
    NOX_LOG(NOX_LOG_INFO, c.module, "fd %d", 7);
    EXPECT_EQ(c.text, onlyLine()) << c.module;
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

TEST_F(LogTest, ExpansionIsCutAt511Characters) {
  const std::string longArg(600, 'x');
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_UNTAGGED, "%s", longArg.c_str());
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_CONFIG, "%s", longArg.c_str());
  const auto lines = log.lines();
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ(longArg.substr(0, 511), lines[0].text);
  EXPECT_EQ("|CONFIG| " + longArg.substr(0, 502), lines[1].text);
}

TEST_F(LogTest, LongFormatLosesItsTailBeforeExpansionOnATaggedLine) {
  const std::string format = std::string(503, 'a') + "%d";
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_UNTAGGED, format.c_str(), 42);
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_CONFIG, format.c_str(), 42);
  const auto lines = log.lines();
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ(std::string(503, 'a') + "42", lines[0].text);
  EXPECT_EQ("|CONFIG| " + std::string(502, 'a'), lines[1].text);
}

TEST_F(LogTest, DiagnosticLineIsBareExceptForModuleZero) {
  diagLog.printLog(NOX_LOG_INFO, NOX_MOD_CONFIG, "fd %d", 7);
  diagLog.printLog(NOX_LOG_INFO, 0, "fd %d", 7);
  diagLog.printLog(NOX_LOG_INFO, NOX_MOD_TEST + 1, "fd %d", 7);
  const auto lines = diag();
  ASSERT_EQ(3u, lines.size());
  EXPECT_EQ("fd 7", lines[0].text);
  EXPECT_EQ("|UNDEFINED| fd 7", lines[1].text);
  EXPECT_EQ("fd 7", lines[2].text);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(LogTest, FirstDiagnosticLineFixesTheDescriptorForGood) {
  if (diagAlreadyUsed()) GTEST_SKIP() << "needs a process of its own";
  diagLog.printLog(NOX_LOG_ERROR, NOX_MOD_TOV, "first");
  diagLog.printLog(NOX_LOG_VERBOSE, NOX_MOD_DSM, "later");
  const auto lines = diag();
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ(10403u, lines[1].ssId);
  EXPECT_EQ(8u, lines[1].mask);
  EXPECT_EQ("later", lines[1].text);
}

TEST_F(LogTest, BaseLogWritesNothing) {
  NoxLog base;
  for (int level = 0; level <= 4; ++level) base.printLog(level, NOX_MOD_COMMON, "x");
  EXPECT_TRUE(log.lines().empty());
  EXPECT_TRUE(diag().empty());
}

// Starts `n` threads that wait for one another, then run `body(i)`.
template <typename Body>
void runTogether(int n, Body body) {
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < n; ++i) {
    threads.emplace_back([&, i] {
      ready.fetch_add(1);
      while (ready.load() < n) std::this_thread::yield();
      body(i);
    });
  }
  for (auto& t : threads) t.join();
}

TEST_F(LogTest, ConcurrentLinesStayWhole) {
  constexpr int kThreads = 4, kLines = 200;
  runTogether(kThreads, [](int i) {
    for (int k = 0; k < kLines; ++k)
      NOX_LOG(NOX_LOG_INFO, NOX_MOD_COMMON + i, "thread %d line %d", i, k);
  });
  EXPECT_EQ(kThreads * kLines, static_cast<int>(log.lines().size()));
  EXPECT_TRUE(log.has("|COMMON:TOV| thread 2 line 199"));
  EXPECT_EQ(kLines, log.count("|COMMON:DSM| thread 3 line "));
}

TEST_F(LogTest, ConcurrentFirstDiagnosticLinesFillTheDescriptorOnce) {
  if (diagAlreadyUsed()) GTEST_SKIP() << "needs a process of its own";
  constexpr int kThreads = 4;
  runTogether(kThreads, [this](int i) {
    for (int k = 0; k < 50; ++k) diagLog.printLog(i, NOX_MOD_COMMON + i, "thread %d", i);
  });
  const auto lines = diag();
  ASSERT_EQ(kThreads * 50u, lines.size());
  const unsigned first = lines[0].ssId - NOX_MOD_COMMON;
  ASSERT_LT(first, static_cast<unsigned>(kThreads));
  for (const DiagLine& l : lines) {
    EXPECT_EQ(lines[0].ssId, l.ssId);
    EXPECT_EQ(static_cast<unsigned>(NoxLog::RYVO_VERBOSITY_LEVEL[first]), l.mask);
  }
}

TEST(LogPropertyTest, ThresholdPropertyIsReadAsANumber) {
  const struct {
    const char* value;
    int level;
  } cases[] = {{nullptr, 0}, {"3", 3}, {"4x", 4}, {"verbose", 0}, {"-1", -1}};
  for (const auto& c : cases) {
    property_host_reset();
    if (c.value != nullptr) {
      ASSERT_EQ(0, property_set("persist.nox.loglevel", c.value));
    }
    EXPECT_EQ(c.level, NoxLog::getPropertyValue()) << (c.value ? c.value : "(unset)");
  }
  property_host_reset();
}

}  // namespace
