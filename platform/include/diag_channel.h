#ifndef NOX_PLATFORM_DIAG_CHANNEL_H
#define NOX_PLATFORM_DIAG_CHANNEL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// The modem vendor's diagnostic channel, as the framework's log uses it (the
// NoxLogDiag channel): one function, msg_sprintf, given a static descriptor and the
// finished line as the argument of the descriptor's format "%s". A device provides it
// in the vendor's libdiag; the device build does not compile platform/ and finds
// android/include/diag_channel.h instead, which includes the vendor's header and names
// its descriptor type diag_msg_descriptor. The framework fills the fields below, in
// this order, and reads none back.

// Static descriptor of one diagnostic message, as the modem vendor's channel takes it.
typedef struct {
  uint16_t line;
  uint16_t subsystem_id;
  uint32_t subsystem_mask;
  const char* fmt;
  const char* fname;
} diag_msg_descriptor;

// Writes one line on the channel: desc->fmt expanded with the arguments. Any thread; the
// descriptor outlives the call. The host's stand-in writes the line to standard error
// (or to the sink a test installed).
void msg_sprintf(const diag_msg_descriptor* desc, ...);

// Host only: route finished lines to `sink` instead of standard error; null restores it.
typedef void (*msg_host_sink_fn)(const diag_msg_descriptor* desc, const char* line);
void msg_host_set_sink(msg_host_sink_fn sink);

#ifdef __cplusplus
}
#endif

#endif  // NOX_PLATFORM_DIAG_CHANNEL_H
