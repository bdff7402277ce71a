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
  const long long timer = settings_.networkTimerMs;
  if (releasedAtMs_ >= 0) {
    judge(context_[releasedScreenOn_], nowMs - releasedAtMs_ < timer);
    releasedAtMs_ = -1;
  }
  if (unmadeAtMs_ >= 0) judge(context_[1], nowMs - unmadeAtMs_ < timer);
  unmadeAtMs_ = unmadeFromMs_ = -1;
  const Context& c = context_[screenOn];
  if (c.samples < kMinSamples) return settings_.fallbackMs;
  if (screenOn && c.premature > settings_.screenOnPrematureMax) {
    unmadeFromMs_ = nowMs + c.graceMs;
    return -1;
  }
  return c.graceMs;
}

void GraceLearner::dormant(long long nowMs, bool asked, bool screenOn) {
  if (asked) {
    releasedAtMs_ = nowMs;
    releasedScreenOn_ = screenOn;
  } else if (screenOn && unmadeFromMs_ >= 0 && unmadeFromMs_ < nowMs) {
    // The network lets go a whole timer after the last packet. Traffic after the release
    // we did not make: premature. Else it would have held until the next wake.
    if (unmadeFromMs_ < nowMs - settings_.networkTimerMs)
      judge(context_[1], true);
    else
      unmadeAtMs_ = unmadeFromMs_;
  }
  unmadeFromMs_ = -1;
}
