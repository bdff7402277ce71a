// The dormancy policy's learning rule, on its own clock: what grace it picks after a
// sequence of wakes and releases, with the screen off and on.

#include <gtest/gtest.h>

#include <vector>

#include "GraceLearner.h"

namespace {

struct Step {
  long long idleAfterMs;  // from our release to the next wake
  long long grace;        // what woke() then returns
};

// Wakes, releases after the grace returned, wakes again `idleAfterMs` later.
void play(GraceLearner& learner, bool screenOn, const std::vector<Step>& steps) {
  long long now = 1000;
  long long grace = learner.woke(now, screenOn);
  for (size_t i = 0; i < steps.size(); ++i) {
    ASSERT_GE(grace, 0) << "step " << i;
    now += grace;
    learner.dormant(now, true, screenOn);
    now += steps[i].idleAfterMs;
    grace = learner.woke(now, screenOn);
    EXPECT_EQ(steps[i].grace, grace) << "step " << i;
  }
}

TEST(GraceLearnerTest, PrematureReleasesDoubleTheGraceOthersShrinkItWithinItsBounds) {
  GraceLearner learner({500, 8000, 3000, 10000, 333});
  EXPECT_EQ(5000, learner.screenOffGraceMs(5000)) << "knows nothing yet";
  play(learner, false,
       {
           {60000, 3000},  // the fallback until four releases were judged
           {60000, 3000},
           {60000, 3000},
           {60000, 500},    // 3000 -> 1500 -> 750 -> 500: halved each time, to the floor
           {9999, 1000},    // woken within the network's timer: premature, doubled
           {2000, 2000},
           {100, 4000},
           {100, 8000},
           {100, 8000},     // the ceiling
           {10000, 4000},   // exactly the timer: not premature
       });
  EXPECT_EQ(4000, learner.screenOffGraceMs(5000)) << "after the screen goes off too";
  for (int i = 0; i < 20; ++i) learner.dormant(0, false, false);  // the network's own
  EXPECT_EQ(4000, learner.graceMs(false)) << "screen-off releases by the network teach nothing";
}

TEST(GraceLearnerTest, ScreenOnReleasesStopWhileTooManyCostAPromotionAndResumeAfterLongGaps) {
  GraceLearner learner({500, 8000, 3000, 10000, 333});
  // Learnt apart from the screen-off side, which stays at the fallback.
  play(learner, true,
       {
           {30000, 3000},
           {5000, 3000},  // premature: 250 per mille
           {30000, 3000},  // 188 per mille
           {30000, 2532},  // judged four times: 141 per mille, grace 3000 x 3/4 x 2 x 3/4 x 3/4
           {4000, -1},     // 141 + (1000 - 141) / 4 = 355 per mille: leave it to the network
       });
  EXPECT_EQ(355, learner.prematurePerMille(true));
  EXPECT_EQ(-1, learner.woke(200000, true));
  // Each time the network lets go with the screen on, a gap of its whole timer happened.
  learner.dormant(210000, false, true);  // 355 -> 267
  EXPECT_EQ(267, learner.prematurePerMille(true));
  EXPECT_EQ(3798, learner.woke(220000, true));
  // The screen-off side never stops releasing.
  EXPECT_EQ(3000, learner.woke(230000, false));
}

}  // namespace
