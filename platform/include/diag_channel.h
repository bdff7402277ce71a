#ifndef NOX_PLATFORM_DIAG_CHANNEL_H
#define NOX_PLATFORM_DIAG_CHANNEL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Static descriptor of one diagnostic message, as the modem vendor's channel takes it.
typedef struct {
  uint16_t line;
  uint16_t subsystem_id;
  uint32_t subsystem_mask;
  const char* fmt;
  const char* fname;
} diag_msg_descriptor;

// Host stand-in of the diagnostic channel: formats with desc->fmt and writes the
// finished line to standard error (or to the sink a test installed).
void msg_sprintf(const diag_msg_descriptor* desc, ...);

// Host only: route finished lines to `sink` instead of standard error; null restores it.
typedef void (*msg_host_sink_fn)(const diag_msg_descriptor* desc, const char* line);
void msg_host_set_sink(msg_host_sink_fn sink);

#ifdef __cplusplus
}
#endif

#endif  // NOX_PLATFORM_DIAG_CHANNEL_H
