#include "GraceLearner.h"

#include <algorithm>

void GraceLearner::judge(Context& c, bool premature) {
  // With the screen on a premature release also costs the user a wait: shrink slower.
  const long long shrunk = &c == &context_[1] ? c.graceMs - c.graceMs / 4 : c.graceMs / 2;
  c.graceMs = premature ? std::min(settings_.ceilingMs, c.graceMs * 2)
                        : std::max(settings_.floorMs, shrunk);
  c.premature += ((premature ? 1000 : 0) - c.premature) / 4;
  ++c.samples;
}

long long GraceLearner::screenOffGraceMs(long long unknownMs) const {
  const Context& c = context_[0];
  return c.samples < kMinSamples ? unknownMs : c.graceMs;
}

long long GraceLearner::woke(long long nowMs, bool screenOn) {
  if (releasedAtMs_ >= 0) {
    judge(context_[releasedScreenOn_], nowMs - releasedAtMs_ < settings_.networkTimerMs);
    releasedAtMs_ = -1;
  }
  const Context& c = context_[screenOn];
  if (c.samples < kMinSamples) return settings_.fallbackMs;
  if (screenOn && c.premature > settings_.screenOnPrematureMax) return -1;
  return c.graceMs;
}

void GraceLearner::dormant(long long nowMs, bool asked, bool screenOn) {
  if (asked) {
    releasedAtMs_ = nowMs;
    releasedScreenOn_ = screenOn;
  } else if (screenOn && context_[1].samples >= kMinSamples) {
    // The network found a gap of its whole timer: a release would have paid.
    judge(context_[1], false);
  }
}
