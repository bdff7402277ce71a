#include <diag_channel.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace {
std::atomic<msg_host_sink_fn> gSink{nullptr};
}

extern "C" void msg_host_set_sink(msg_host_sink_fn sink) { gSink.store(sink); }

extern "C" void msg_sprintf(const diag_msg_descriptor* desc, ...) {
  char line[1024];
  va_list args;
  va_start(args, desc);
  vsnprintf(line, sizeof(line), desc->fmt, args);
  va_end(args);
  msg_host_sink_fn sink = gSink.load();
  if (sink != nullptr) {
    sink(desc, line);
    return;
  }
  fprintf(stderr, "diag[%u/0x%x] %s\n", desc->subsystem_id, desc->subsystem_mask, line);
}
