// What adding a timed callback and removing it again costs with 10 and with 1000 other
// callbacks pending, at the daemon's quietest log threshold.
#include <benchmark/benchmark.h>

#include "NoxLog.h"
#include "NoxTimer.h"

namespace {

int never(void*) { return -1; }

constexpr long long kHourMs = 3600 * 1000;

void BM_TimerAddRemove(benchmark::State& state) {
  const int savedLevel = NoxLog::logLevel;
  NoxLog::logLevel = NOX_LOG_ERROR;
  const int pending = static_cast<int>(state.range(0));
  NoxTimer timer(nullptr);
  for (int i = 0; i < pending; ++i) timer.addTimedCallback(kHourMs + i, never, nullptr);
  // Due in the middle of the pending ones, so neither end of the heap is favoured.
  const long long delay = kHourMs + pending / 2;
  for (auto _ : state) {
    const int id = timer.addTimedCallback(delay, never, nullptr);
    timer.removeTimedCallback(id);
  }
  NoxLog::logLevel = savedLevel;
}
BENCHMARK(BM_TimerAddRemove)->Arg(10)->Arg(1000);

}  // namespace
