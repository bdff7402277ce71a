#ifndef NOX_LOG_H
#define NOX_LOG_H

#include <cstdarg>

// Log levels: callers pass only these five values.
enum NoxLogLevel {
  NOX_LOG_VERBOSE = 0,
  NOX_LOG_DEBUG = 1,
  NOX_LOG_INFO = 2,
  NOX_LOG_WARN = 3,
  NOX_LOG_ERROR = 4,
};

// Module codes; each carries a tag on the logcat channel. A plug-in without a code of
// its own logs under a tag of its own with NOX_PLUGIN_LOG (NoxPlugin.h).
enum NoxLogModule {
  NOX_MOD_UNTAGGED = 10400,
  NOX_MOD_COMMON = 10401,
  NOX_MOD_COM = 10402,
  NOX_MOD_TOV = 10403,
  NOX_MOD_DSM = 10404,
  NOX_MOD_CONFIG = 10405,
  NOX_MOD_GENERIC = 10406,
  NOX_MOD_NETLINK = 10407,
  NOX_MOD_FDMGR = 10408,
  NOX_MOD_CTMGR = 10409,
  NOX_MOD_NSRM = 10410,
  NOX_MOD_NSRM_CORE = 10411,
  NOX_MOD_NSRM_GATESM = 10412,
  NOX_MOD_NSRM_TRG = 10413,
  NOX_MOD_TEST = 10414,
};

#define NOX_LOG_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))

// The process-wide log. An instance is its virtual table alone; the base class
// writes nothing. Safe to call from any thread.
class NoxLog {
 public:
  typedef int (*LogPrintFn)(int priority, const char* tag, const char* format, ...);

  virtual ~NoxLog();
  // Drops the call when level < logLevel (signed compare, before any formatting).
  virtual void printLog(int level, int module, const char* format, ...) NOX_LOG_PRINTF(4, 5);

  // atoi of "persist.nox.loglevel" (default "0"); the executable decides whether to use it.
  static int getPropertyValue();
  // Logcat channel: "|TAG| " in front of the message, then the log-print function.
  void printToAdb(int level, int module, const char* format, va_list args);
  // Diagnostic channel: bare message through msg_sprintf.
  void printToRYVO(int level, int module, const char* format, va_list args);

  static int ADB_VERBOSITY_LEVEL[5];
  static int RYVO_VERBOSITY_LEVEL[5];
  static int logLevel;
  static void* _libnoxlog_handle;
  // Set by the program that links the framework; called without a null check.
  static LogPrintFn _libnoxlog_log_handle;
};

// Writes to logcat through NoxLog::_libnoxlog_log_handle.
class NoxLogAdb : public NoxLog {
 public:
  void printLog(int level, int module, const char* format, ...) override NOX_LOG_PRINTF(4, 5);
};

// Writes to the modem vendor's diagnostic channel; installed at load time.
class NoxLogDiag : public NoxLog {
 public:
  void printLog(int level, int module, const char* format, ...) override NOX_LOG_PRINTF(4, 5);
};

namespace NoxMsg {
// The one log object; a NoxLogDiag from load time until the executable replaces it.
extern NoxLog* nox_log_class_ptr;
extern int nox_log_property_value;
}  // namespace NoxMsg

// The threshold is checked first, so that a dropped line costs one comparison and its
// arguments are not evaluated; printLog checks it again for direct callers.
#define NOX_LOG(level, module, ...)                                            \
  do {                                                                         \
    if ((level) >= NoxLog::logLevel)                                           \
      NoxMsg::nox_log_class_ptr->printLog((level), (module), __VA_ARGS__);     \
  } while (0)

#endif  // NOX_LOG_H
