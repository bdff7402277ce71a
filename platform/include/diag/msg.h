#ifndef NOX_PLATFORM_DIAG_MSG_H
#define NOX_PLATFORM_DIAG_MSG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Static descriptor of one diagnostic message, as the modem vendor's channel takes it.
typedef struct {
  uint16_t line;
  uint16_t ss_id;
  uint32_t ss_mask;
  const char* fmt;
  const char* fname;
} msg_const_type;

// Host stand-in of the diagnostic channel: formats with desc->fmt and writes the
// finished line to standard error (or to the sink a test installed).
void msg_sprintf(const msg_const_type* desc, ...);

// Host only: route finished lines to `sink` instead of standard error; null restores it.
typedef void (*msg_host_sink_fn)(const msg_const_type* desc, const char* line);
void msg_host_set_sink(msg_host_sink_fn sink);

#ifdef __cplusplus
}
#endif

#endif  // NOX_PLATFORM_DIAG_MSG_H
