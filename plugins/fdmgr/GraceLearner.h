#ifndef NOX_FDMGR_GRACE_LEARNER_H
#define NOX_FDMGR_GRACE_LEARNER_H

// How long after traffic wakes one link the dormancy policy should ask for a release,
// learnt from what a plug-in sees of that link: the modem's dormancy changes, its own
// requests, and whether the screen is on.
//
// What it learns from: each release it asked for is judged at the link's next wake. A
// wake sooner than the network's inactivity timer after the release means the release
// cost a promotion that the network would not have made (the traffic had not ended, or
// came back soon): premature. A premature release doubles the grace; with the screen off
// any other halves it, down to the floor, so the grace settles where about half of the
// releases are premature. That is the trade: a premature release still saves energy
// unless the link is woken within a promotion's worth of connected time (about 0.3 s),
// and with the screen off the filters keep the link from most wakes, so the promotions
// stay below the network's own (measured by make power). Until kMinSamples releases
// were judged it knows too little and uses the fallback grace.
//
// What it can't see: the packets themselves (while the link is active a plug-in hears
// nothing, so the grace runs from the wake, not from the last packet; only a release by
// the network dates the last one, a timer earlier), which app or port sent them, what
// the filters dropped, and the network's timer (a setting).
//
// With the screen on a release also costs the user: the next tap waits for a promotion
// (about a quarter second) when it comes before the network would have let go. So the
// screen-on grace is learnt on its own, a release that was not premature takes only a
// quarter off it (about three in ten premature), and releases with the screen on stop
// while more than `screenOnPrematureMax` per mille of the recent ones (a moving average
// over about four) were premature. While they are stopped, the release it did not make
// is judged all the same: the network lets go a whole timer after the last packet, so
// its release tells whether traffic came after that moment (premature), and if not, the
// next wake tells how long the link would have stayed dormant. Releases start again
// once those would have paid, when the user reads more than taps.
//
// Times are the caller's, in milliseconds, and never go back.
class GraceLearner {
 public:
  struct Settings {
    long long floorMs = 500;
    long long ceilingMs = 8000;
    long long fallbackMs = 3000;
    long long networkTimerMs = 10000;
    int screenOnPrematureMax = 333;
  };
  static constexpr int kMinSamples = 4;

  explicit GraceLearner(const Settings& settings) : settings_(settings) {}

  // The link woke at `nowMs`; judges the release before. Returns how long to wait before
  // asking for the next release, or -1 when the link is better left to the network.
  long long woke(long long nowMs, bool screenOn);
  // The link went dormant at `nowMs`: `asked` when at the policy's request, else by the
  // network's timer.
  void dormant(long long nowMs, bool asked, bool screenOn);

  // The grace of a request that no wake started (the screen went off, the link
  // connected with it off): the screen-off one once it knows enough, else `unknownMs`.
  long long screenOffGraceMs(long long unknownMs) const;

  long long graceMs(bool screenOn) const { return context_[screenOn].graceMs; }
  int samples(bool screenOn) const { return context_[screenOn].samples; }
  int prematurePerMille(bool screenOn) const { return context_[screenOn].premature; }

 private:
  struct Context {
    long long graceMs;
    int samples = 0;
    int premature = 0;  // per mille, moving average
  };
  void judge(Context& c, bool premature);

  Settings settings_;
  Context context_[2] = {{settings_.fallbackMs}, {settings_.fallbackMs}};
  long long releasedAtMs_ = -1;  // our release still to be judged
  bool releasedScreenOn_ = false;
  // With screen-on releases stopped: when the one not made would have come, and, once the
  // network let go after it, when it would have released the link, judged at the next wake.
  long long unmadeFromMs_ = -1;
  long long unmadeAtMs_ = -1;
};

#endif  // NOX_FDMGR_GRACE_LEARNER_H
