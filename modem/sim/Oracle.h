#ifndef MODEMSIM_ORACLE_H
#define MODEMSIM_ORACLE_H

// The best any dormancy policy could do: for packets already known, the radio energy of
// the schedule that releases each port's connection right after a packet whenever the
// next packet on that port comes later than the break-even gap, the gap over which
// staying connected costs more than the promotion that a release brings. The
// signalling-bound oracle does the same with a budget of promotions, releasing in the
// largest gaps first. Both are accounted by the same Radio model as the run itself.

#include <cstdint>
#include <vector>

#include "Radio.h"

namespace modemsim {

// What one port did between the totals' reset and `endMs`: its state at the reset and
// the times of the packets it carried (never earlier than the reset, in order).
struct PortRecord {
  int64_t startMs = 0;
  bool connectedAtStart = true;
  std::vector<int64_t> packetsMs;
};

struct OracleTotals {
  RadioTotals unlimited;
  RadioTotals bound;  // at most maxPromotions, or the least any release schedule has
};

// The gap after a packet beyond which releasing costs less energy than staying connected:
// a promotion's energy above idle over connected power above idle, rounded up. Very
// large when connected power is no higher than idle.
int64_t breakEvenGapMs(const RadioParams& params);

// Both oracles over every port up to `endMs`. A negative `maxPromotions` leaves the
// bound oracle as the unlimited one.
OracleTotals oracles(const std::vector<PortRecord>& ports, int64_t endMs,
                     const RadioParams& params, int64_t maxPromotions);

// Not an oracle but the best fixed timer: what a policy that sees every packet as it
// comes, but not the next one, does by releasing each port the same time after its
// last packet. The best of the timers from kTimerStepMs up to the network's own, in
// steps of kTimerStepMs, within `maxPromotions` (none when negative); timerMs -1 when
// none stays within.
constexpr int64_t kTimerStepMs = 250;
struct TimerTotals {
  int64_t timerMs = -1;
  RadioTotals totals;
};
TimerTotals bestTimer(const std::vector<PortRecord>& ports, int64_t endMs,
                      const RadioParams& params, int64_t maxPromotions);

}  // namespace modemsim

#endif  // MODEMSIM_ORACLE_H
