#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "NoxTimer.h"
#include "TestLog.h"

namespace {

long long gNowNs;  // the fake boot-time clock every test runs on
bool gClockFails;
clockid_t gClockId;
std::string gTrace;

int fakeClock(clockid_t id, timespec* now) {
  gClockId = id;
  if (gClockFails) return errno = EINVAL, -1;
  *now = {static_cast<time_t>(gNowNs / 1000000000), static_cast<long>(gNowNs % 1000000000)};
  return 0;
}

// Appends its name to the trace, runs its action, returns the next scripted value or -1.
struct Probe {
  char name;
  std::deque<int> returns;
  std::function<void()> action;
};
int run(void* data) {
  Probe& p = *static_cast<Probe*>(data);
  gTrace += p.name;
  if (p.action) p.action();
  const int ret = p.returns.empty() ? -1 : p.returns.front();
  if (!p.returns.empty()) p.returns.pop_front();
  return ret;
}

class TimerTest : public ::testing::Test, public INoxTimerMonitor {
 protected:
  TimerTest() {
    NoxTimer::clockGetTime = fakeClock;
    gNowNs = 999740000000, gClockFails = false, gTrace.clear();
  }
  ~TimerTest() override { NoxTimer::clockGetTime = ::clock_gettime; }
  void notifyDelayChange() override { ++notified; }

  int add(long long delayMs, char name, std::deque<int> returns = {}) {
    probes[name] = {name, std::move(returns), nullptr};
    return timer.addTimedCallback(delayMs, run, &probes[name]);
  }
  // Moves the clock on, runs what is due, then checks all that ran so far and the next wait.
  void step(long us, const std::string& ran, int wait) {
    gNowNs += us * 1000;
    timer.processEvents();
    EXPECT_EQ(ran, gTrace);
    EXPECT_EQ(wait, timer.timeUntilNextEvent());
  }

  LogCapture log;
  int notified = 0;
  NoxTimer timer{this};
  std::map<char, Probe> probes;  // callbacks keep pointers into it
};

TEST_F(TimerTest, RunsInDueOrderAndWakesTheLoopOnlyForANewEarliest) {
  EXPECT_EQ(-1, timer.timeUntilNextEvent());
  EXPECT_EQ(-1, timer.addTimedCallback(10, nullptr, nullptr));
  add(100, 'a');
  EXPECT_EQ(1, notified);
  add(50, 'b');
  add(75, 'c');
  EXPECT_EQ(2, notified);
  EXPECT_EQ(CLOCK_BOOTTIME, gClockId);
  step(50000, "b", 25);
  step(50000, "bca", -1);
}

TEST_F(TimerTest, ReturnValueSetsTheNextDelay) {
  add(10, 'p', {250, 0, -5});
  step(10000, "p", 250);  // 250: due 250 ms after it ran, and stored
  step(250000, "pp", 250);   // 0: the stored delay again
  step(250000, "ppp", 250);  // -5: invalid, warned, the stored delay again
  EXPECT_EQ(std::vector<std::string>{"|COMMON:COM| Invalid delay (-5), using 250 instead"},
            log.matching("Invalid delay"));
}

TEST_F(TimerTest, RemovalKeepsTheOthersInDueOrderAndCannotStopARunningCallback) {
  add(30, 'a');
  const int victim = add(10, 'b'), self = add(20, 'c', {40});
  add(5, 'd');
  const int before = notified;
  timer.removeTimedCallback(12345);  // never given out: nothing happens
  timer.removeTimedCallback(victim);
  EXPECT_EQ(before, notified);
  const int other = add(25, 'e');
  probes['c'].action = [&] {
    timer.removeTimedCallback(self);
    timer.removeTimedCallback(other);
  };
  step(30000, "dca", 40);  // e removed by c; c re-armed although it removed itself
  step(40000, "dcac", -1);
}

TEST_F(TimerTest, WaitIsRoundedUpAndWorkThatStaysDueRunsInTheSamePass) {
  gNowNs = 5999900000;
  add(1, 'a');  // due at 6.000900000, across a second boundary
  probes['a'].action = [&] { add(0, 's'); };
  step(700, "", 1);  // 0.3 ms away
  step(300, "as", -1);
  add(0, 'r', {0});  // delay 0 re-armed with 0: due again at once
  step(0, "asrr", -1);
}

TEST_F(TimerTest, ClockFailureFailsTheAddAndDropsARearm) {
  const std::string why = strerror(EINVAL);
  gClockFails = true;
  EXPECT_EQ(-1, add(10, 'a'));
  EXPECT_EQ(0, notified);
  gClockFails = false;
  add(0, 'p', {100});
  add(20, 'b');
  probes['p'].action = [] { gClockFails = true; };
  step(0, "p", -1);  // p's re-arm and then the wait read a failing clock
  EXPECT_EQ(2, log.count("|COMMON:COM| timeUntilNextCallback failed; clock_gettime(): " + why));
  gClockFails = false;
  step(200000, "pb", -1);  // neither 'a' nor p was pending
}

}  // namespace
