// What a log call costs when its level is below the threshold, against calls that
// pass and format into a log-print function that does nothing.
#include <benchmark/benchmark.h>

#include "NoxLog.h"

namespace {

int discard(int, const char*, const char*, ...) { return 0; }

// Installs a logcat log that prints nowhere, at the daemon's default threshold.
class QuietLog {
 public:
  QuietLog() : saved_(NoxMsg::nox_log_class_ptr), savedLevel_(NoxLog::logLevel) {
    NoxLog::_libnoxlog_log_handle = discard;
    NoxLog::logLevel = NOX_LOG_INFO;
    NoxMsg::nox_log_class_ptr = &adb_;
  }
  ~QuietLog() {
    NoxMsg::nox_log_class_ptr = saved_;
    NoxLog::logLevel = savedLevel_;
  }

 private:
  NoxLogAdb adb_;
  NoxLog* const saved_;
  const int savedLevel_;
};

void BM_LogCall(benchmark::State& state, int level, int module) {
  QuietLog quiet;
  int fd = 0;
  for (auto _ : state) {
    NOX_LOG(level, module, "Error while clearing the read buffer on fd %d", fd++);
  }
}
BENCHMARK_CAPTURE(BM_LogCall, Dropped, NOX_LOG_DEBUG, NOX_MOD_COM);
BENCHMARK_CAPTURE(BM_LogCall, PassingUntagged, NOX_LOG_INFO, NOX_MOD_UNTAGGED);
BENCHMARK_CAPTURE(BM_LogCall, PassingTagged, NOX_LOG_INFO, NOX_MOD_COM);

}  // namespace
