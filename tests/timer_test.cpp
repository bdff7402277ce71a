#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "NoxTimer.h"
#include "TestLog.h"

namespace {

// The fake boot-time clock every test runs on.
timespec gNow;
bool gClockFails;
clockid_t gClockId;

int fakeClock(clockid_t id, timespec* now) {
  gClockId = id;
  if (gClockFails) {
    errno = EINVAL;
    return -1;
  }
  *now = gNow;
  return 0;
}

struct CountingMonitor : INoxTimerMonitor {
  void notifyDelayChange() override { ++notified; }
  int notified = 0;
};

// Exposes the id counter so that the wrap can be reached without 2^31 calls.
struct TestTimer : NoxTimer {
  using NoxTimer::lastTimerId;
  using NoxTimer::NoxTimer;
};

class TimerTest : public ::testing::Test {
 protected:
  // A callback that records its name, runs an optional action, then returns the
  // next scripted value (-1 once the script is used up).
  struct Probe {
    TimerTest* test;
    std::string name;
    std::deque<int> returns;
    std::function<void()> action;
  };

  void SetUp() override {
    NoxTimer::clockGetTime = fakeClock;
    gNow = {1000, 500000000};
    gClockFails = false;
  }
  void TearDown() override { NoxTimer::clockGetTime = ::clock_gettime; }

  static int run(void* data) {
    Probe* p = static_cast<Probe*>(data);
    p->test->trace.push_back(p->name);
    if (p->action) p->action();
    if (p->returns.empty()) return -1;
    const int ret = p->returns.front();
    p->returns.pop_front();
    return ret;
  }

  Probe& probe(const std::string& name, std::deque<int> returns = {}) {
    probes.push_back({this, name, std::move(returns), nullptr});
    return probes.back();
  }
  int add(long long delayMs, Probe& p) { return timer.addTimedCallback(delayMs, run, &p); }

  // Moves the clock on by whole and fractional milliseconds.
  void advanceUs(long us) {
    gNow.tv_nsec += us * 1000;
    gNow.tv_sec += gNow.tv_nsec / 1000000000;
    gNow.tv_nsec %= 1000000000;
  }
  void advanceMs(long ms) { advanceUs(ms * 1000); }

  // The description the log must show for an event.
  static std::string described(int id, const Probe& p, long delay, long sec, long nsec) {
    char text[256];
    snprintf(text, sizeof(text),
             "TimedEvent id:%d callback:%p data:%p delay:%ldms time: %ld.%06ld (Epoch)", id,
             reinterpret_cast<void*>(&run), static_cast<const void*>(&p), delay, sec, nsec);
    return text;
  }

  // Priority of the first line containing `needle`, or -1.
  int priorityOf(const std::string& needle) const {
    for (const auto& l : log.lines())
      if (l.text.find(needle) != std::string::npos) return l.priority;
    return -1;
  }

  LogCapture log;
  CountingMonitor monitor;
  TestTimer timer{&monitor};
  std::deque<Probe> probes;  // deque: callbacks keep pointers into it
  std::vector<std::string> trace;
};

TEST_F(TimerTest, NothingPendingMeansWaitWithoutLimit) {
  EXPECT_EQ(-1, timer.timeUntilNextEvent());
  timer.processEvents();
  EXPECT_TRUE(trace.empty());
}

TEST_F(TimerTest, RunsInDueOrderAndWakesTheLoopOnlyForANewEarliest) {
  add(100, probe("a"));
  EXPECT_EQ(1, monitor.notified);
  add(50, probe("b"));
  EXPECT_EQ(2, monitor.notified);
  add(75, probe("c"));
  EXPECT_EQ(2, monitor.notified);
  EXPECT_EQ(CLOCK_BOOTTIME, gClockId);

  EXPECT_EQ(50, timer.timeUntilNextEvent());
  advanceMs(50);
  timer.processEvents();
  EXPECT_EQ(std::vector<std::string>{"b"}, trace);
  advanceMs(50);
  timer.processEvents();
  EXPECT_EQ((std::vector<std::string>{"b", "c", "a"}), trace);
  EXPECT_EQ(-1, timer.timeUntilNextEvent());
}

TEST_F(TimerTest, PositiveReturnRearmsWithTheNewDelay) {
  Probe& p = probe("p", {250});
  const int id = add(10, p);
  advanceMs(10);
  timer.processEvents();
  EXPECT_EQ(250, timer.timeUntilNextEvent());
  EXPECT_TRUE(log.has("|COMMON:COM| Re-entering timed callback - " +
                      described(id, p, 250, 1000, 760000000)));
}

TEST_F(TimerTest, ZeroReturnKeepsThePreviousDelay) {
  add(40, probe("p", {0}));
  advanceMs(40);
  timer.processEvents();
  EXPECT_EQ(40, timer.timeUntilNextEvent());
}

TEST_F(TimerTest, InvalidNegativeReturnWarnsAndKeepsTheDelay) {
  add(40, probe("p", {-5}));
  advanceMs(40);
  timer.processEvents();
  EXPECT_EQ(40, timer.timeUntilNextEvent());
  const auto lines = log.matching("Invalid delay");
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ("|COMMON:COM| Invalid delay (-5), using 40 instead", lines[0]);
  EXPECT_EQ(5, priorityOf("Invalid delay"));
}

TEST_F(TimerTest, RemovalKeepsTheOthersInDueOrder) {
  add(30, probe("a"));
  const int victim = add(10, probe("b"));
  add(20, probe("c"));
  add(5, probe("d"));
  const int notified = monitor.notified;
  log.clear();
  timer.removeTimedCallback(12345);
  EXPECT_TRUE(log.lines().empty());
  timer.removeTimedCallback(victim);
  EXPECT_EQ(1,
            log.count("Removing timed callback - TimedEvent id:" + std::to_string(victim) + " "));
  EXPECT_EQ(notified, monitor.notified);

  advanceMs(100);
  timer.processEvents();
  EXPECT_EQ((std::vector<std::string>{"d", "c", "a"}), trace);
}

TEST_F(TimerTest, CallbackCannotCancelItsOwnRearmButCanCancelOthers) {
  Probe& self = probe("self", {30});
  Probe& other = probe("other");
  const int selfId = add(10, self);
  const int otherId = add(20, other);
  self.action = [&] {
    timer.removeTimedCallback(selfId);
    timer.removeTimedCallback(otherId);
  };
  advanceMs(10);
  timer.processEvents();
  EXPECT_EQ(30, timer.timeUntilNextEvent());
  advanceMs(30);
  timer.processEvents();
  EXPECT_EQ((std::vector<std::string>{"self", "self"}), trace);
}

TEST_F(TimerTest, IdsWrapToOneAfterTheLargest) {
  timer.lastTimerId = 0x7ffffffd;
  EXPECT_EQ(0x7ffffffe, timer.getNextTimerId());
  EXPECT_EQ(1, add(10, probe("a")));
  EXPECT_EQ(2, timer.getNextTimerId());
}

TEST_F(TimerTest, WaitIsRoundedUpAndEventWaitsForTheClock) {
  gNow = {5, 999900000};
  add(1, probe("a"));  // due at 6.000900000, across a second boundary
  EXPECT_EQ(1, timer.timeUntilNextEvent());
  advanceUs(700);
  EXPECT_EQ(1, timer.timeUntilNextEvent());  // 0.3 ms away
  timer.processEvents();
  EXPECT_TRUE(trace.empty());
  advanceUs(300);
  EXPECT_EQ(0, timer.timeUntilNextEvent());
  timer.processEvents();
  EXPECT_EQ(std::vector<std::string>{"a"}, trace);
}

TEST_F(TimerTest, WorkThatStaysDueRunsInTheSamePass) {
  add(0, probe("again", {0}));  // delay 0 re-armed with 0: due again at once
  timer.processEvents();
  EXPECT_EQ((std::vector<std::string>{"again", "again"}), trace);

  Probe& spawned = probe("spawned");
  Probe& parent = probe("parent");
  parent.action = [&] { add(0, spawned); };
  add(5, parent);
  advanceMs(5);
  timer.processEvents();
  EXPECT_EQ((std::vector<std::string>{"again", "again", "parent", "spawned"}), trace);
  EXPECT_EQ(-1, timer.timeUntilNextEvent());
}

TEST_F(TimerTest, NullCallbackIsRefused) {
  EXPECT_EQ(-1, timer.addTimedCallback(10, nullptr, nullptr));
  EXPECT_TRUE(log.has("|COMMON:COM| addTimedCallback failed; cannot have NULL callback function"));
  EXPECT_EQ(-1, timer.timeUntilNextEvent());
}

TEST_F(TimerTest, ClockFailureFailsTheAddAndDropsARearm) {
  gClockFails = true;
  EXPECT_EQ(-1, add(10, probe("a")));
  EXPECT_TRUE(log.has("|COMMON:COM| addTimedCallback failed; clock_gettime(): " +
                      std::string(strerror(EINVAL))));
  EXPECT_EQ(0, monitor.notified);
  gClockFails = false;
  EXPECT_EQ(-1, timer.timeUntilNextEvent());

  Probe& p = probe("p", {100});
  p.action = [] { gClockFails = true; };
  add(0, p);
  timer.processEvents();
  const std::string error = "|COMMON:COM| timeUntilNextCallback failed; clock_gettime(): " +
                            std::string(strerror(EINVAL));
  EXPECT_TRUE(log.has(error));
  EXPECT_EQ(6, priorityOf("timeUntilNextCallback failed"));
  gClockFails = false;
  EXPECT_EQ(-1, timer.timeUntilNextEvent());  // the event is gone

  add(10, probe("b"));
  gClockFails = true;
  EXPECT_EQ(-1, timer.timeUntilNextEvent());
  EXPECT_EQ(2, log.count("timeUntilNextCallback failed"));
}

TEST_F(TimerTest, DelayArithmeticKeepsItsQuirks) {
  timespec t{10, 999000000};
  timer.addDelayToTimeval(1500, t);
  EXPECT_EQ(12, t.tv_sec);
  EXPECT_EQ(499000000, t.tv_nsec);

  t = {10, 0};
  timer.addDelayToTimeval(-1500, t);  // not normalised
  EXPECT_EQ(9, t.tv_sec);
  EXPECT_EQ(-500000000, t.tv_nsec);

  t = {10, 0};
  timer.addDelayToTimeval(0x100000000LL + 2000, t);  // seconds from the low 32 bits only
  EXPECT_EQ(12, t.tv_sec);
  EXPECT_EQ(296000000, t.tv_nsec);
}

TEST_F(TimerTest, LogShowsQueueAndNextDelay) {
  add(100, probe("a"));
  add(50, probe("b"));
  log.clear();
  timer.log();
  const auto lines = log.lines();
  ASSERT_EQ(3u, lines.size());
  EXPECT_EQ("|COMMON:COM| NoxTimer *******************************************", lines[0].text);
  EXPECT_EQ("|COMMON:COM|     items queued: 2", lines[1].text);
  EXPECT_EQ("|COMMON:COM|     next item in: 50ms", lines[2].text);
  EXPECT_EQ(3, lines[2].priority);
}

}  // namespace
