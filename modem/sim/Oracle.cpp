#include "Oracle.h"

#include <algorithm>
#include <limits>

namespace modemsim {

namespace {

// A gap of one port: before its packet `index`, or after the last one when `index` is
// the number of packets (then no promotion follows a release).
struct Gap {
  size_t port;
  size_t index;
  int64_t lengthMs;
};

// The radio of one port with its connection released `delayMs` after a packet in the
// gaps marked in `release`, the network's inactivity timer running as in the run.
RadioTotals replay(const PortRecord& p, const std::vector<char>& release, int64_t endMs,
                   const RadioParams& params, int64_t delayMs = 0) {
  Radio radio(p.startMs);
  if (!p.connectedAtStart) radio.release(p.startMs);
  const auto timerUpTo = [&](int64_t t) {
    if (radio.releaseAt() >= 0 && radio.releaseAt() <= t) radio.release(radio.releaseAt());
  };
  int64_t promotionEnd = p.startMs;
  const std::vector<int64_t>& t = p.packetsMs;
  for (size_t j = 0; j <= t.size(); ++j) {
    const int64_t next = j < t.size() ? t[j] : endMs;
    if (release[j]) {
      // After the packet (at once, for the oracles), once its promotion is over: a radio
      // cannot give up a connection it is still setting up.
      const int64_t at = j == 0 ? p.startMs + delayMs : std::max(t[j - 1] + delayMs, promotionEnd);
      if (at < next) {
        timerUpTo(at);
        radio.release(at);
      }
    }
    if (j == t.size()) break;
    timerUpTo(next);
    if (radio.packet(next, params)) promotionEnd = next + params.promotionMs;
  }
  timerUpTo(endMs);
  return radio.totals(endMs, params);
}

}  // namespace

int64_t breakEvenGapMs(const RadioParams& params) {
  const int64_t above = params.connectedMw - params.idleMw;
  if (above <= 0) return std::numeric_limits<int64_t>::max();
  const int64_t promotion = std::max<int64_t>(0, params.promotionMw - params.idleMw) * params.promotionMs;
  return (promotion + above - 1) / above;
}

OracleTotals oracles(const std::vector<PortRecord>& ports, int64_t endMs,
                     const RadioParams& params, int64_t maxPromotions) {
  const int64_t breakEven = breakEvenGapMs(params);
  std::vector<PortRecord> records = ports;
  std::vector<std::vector<char>> base(records.size());
  // Gaps worth a release that may cost a promotion the network would not have made,
  // largest first; the others are released in both oracles.
  std::vector<Gap> costly;
  for (size_t i = 0; i < records.size(); ++i) {
    std::vector<int64_t>& t = records[i].packetsMs;
    t.erase(std::upper_bound(t.begin(), t.end(), endMs), t.end());
    base[i].assign(t.size() + 1, 0);
    for (size_t j = records[i].connectedAtStart ? 0 : 1; j <= t.size(); ++j) {
      const int64_t length = (j < t.size() ? t[j] : endMs) - (j == 0 ? records[i].startMs : t[j - 1]);
      if (length <= breakEven) continue;
      // After the last packet no promotion follows; beyond the inactivity timer and a
      // promotion the network releases anyway.
      if (j == t.size() || length > params.inactivityMs + params.promotionMs)
        base[i][j] = 1;
      else
        costly.push_back({i, j, length});
    }
  }
  std::stable_sort(costly.begin(), costly.end(),
                   [](const Gap& a, const Gap& b) { return a.lengthMs > b.lengthMs; });

  // The largest `k` costly gaps released as well.
  const auto run = [&](size_t k) {
    std::vector<std::vector<char>> release = base;
    for (size_t g = 0; g < k; ++g) release[costly[g].port][costly[g].index] = 1;
    RadioTotals sum;
    for (size_t i = 0; i < records.size(); ++i) sum += replay(records[i], release[i], endMs, params);
    return sum;
  };
  OracleTotals result;
  result.unlimited = run(costly.size());
  if (maxPromotions < 0) {
    result.bound = result.unlimited;
    return result;
  }
  // Each costly release adds at most one promotion: the largest count within the budget.
  size_t low = 0, high = costly.size();
  while (low < high) {
    const size_t mid = (low + high + 1) / 2;
    if (run(mid).promotions <= static_cast<uint64_t>(maxPromotions))
      low = mid;
    else
      high = mid - 1;
  }
  result.bound = run(low);
  return result;
}

TimerTotals bestTimer(const std::vector<PortRecord>& ports, int64_t endMs,
                      const RadioParams& params, int64_t maxPromotions) {
  TimerTotals best;
  for (int64_t delay = kTimerStepMs; delay <= params.inactivityMs; delay += kTimerStepMs) {
    RadioTotals sum;
    for (const PortRecord& p : ports) {
      PortRecord upToEnd = p;
      std::vector<int64_t>& t = upToEnd.packetsMs;
      t.erase(std::upper_bound(t.begin(), t.end(), endMs), t.end());
      sum += replay(upToEnd, std::vector<char>(t.size() + 1, 1), endMs, params, delay);
    }
    if ((maxPromotions < 0 || sum.promotions <= static_cast<uint64_t>(maxPromotions)) &&
        (best.timerMs < 0 || sum.energyUj < best.totals.energyUj)) {
      best.timerMs = delay;
      best.totals = sum;
    }
  }
  return best;
}

}  // namespace modemsim
