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

TEST(GraceLearnerTest, ScreenOnReleasesStopWhileTooManyCostAPromotionAndResumeWhenTheyWouldPay) {
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
  EXPECT_EQ(-1, learner.woke(200000, true));  // a release not made at 205064
  // The network lets go a timer after the last packet, at 206000: premature.
  learner.dormant(216000, false, true);
  EXPECT_EQ(516, learner.prematurePerMille(true));
  EXPECT_EQ(-1, learner.woke(250000, true));  // not made at 258000: the network let go first,
  learner.dormant(255000, false, true);       // so there was no release to judge
  EXPECT_EQ(-1, learner.woke(280000, true));
  EXPECT_EQ(516, learner.prematurePerMille(true));
  EXPECT_EQ(-1, learner.woke(300000, true));  // not made at 308000
  learner.dormant(312000, false, true);       // the last packet came before it
  EXPECT_EQ(-1, learner.woke(330000, true));  // dormant 22 s: 387 per mille, not made at 336000
  learner.dormant(340000, false, true);
  EXPECT_EQ(4500, learner.woke(360000, true)) << "291 per mille: releases again";
  // The screen-off side never stops releasing.
  EXPECT_EQ(3000, learner.woke(370000, false));
}

}  // namespace
