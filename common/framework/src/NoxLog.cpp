#include "NoxLog.h"

#include <cutils/properties.h>
#include <diag_channel.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

namespace {

constexpr int kLineMax = 512;

const char* const kModuleTags[] = {
    "",           "COMMON",    "COMMON:COM", "COMMON:TOV",  "COMMON:DSM",
    "CONFIG",     "GENERIC",   "NETLINK",    "FDMGR",       "CTMGR",
    "NSRM",       "NSRM:CORE", "NSRM:GATESM", "NSRM:TRG",   "TEST",
};

const char* moduleTag(int module) {
  if (module < NOX_MOD_UNTAGGED || module > NOX_MOD_TEST) return "UNDEFINED";
  return kModuleTags[module - NOX_MOD_UNTAGGED];
}

// Puts the tag in front of the caller's format (unexpanded), then expands the
// result; a long format loses its tail before expansion, as on a device.
void formatTagged(char (&buf)[kLineMax], const char* tag, const char* format, va_list args) {
  snprintf(buf, sizeof(buf), "|%s| %s", tag, format);
  const std::string combined(buf);
  vsnprintf(buf, sizeof(buf), combined.c_str(), args);
}

diag_msg_descriptor gDiagDescriptor = {149, 0, 0, "%s", "common/framework/src/NoxLog"};
std::once_flag gDiagDescriptorOnce;

}  // namespace

int NoxLog::ADB_VERBOSITY_LEVEL[5] = {2, 3, 4, 5, 6};
int NoxLog::RYVO_VERBOSITY_LEVEL[5] = {1, 1, 2, 4, 8};
int NoxLog::logLevel = 2;
void* NoxLog::_libnoxlog_handle = nullptr;
NoxLog::LogPrintFn NoxLog::_libnoxlog_log_handle = nullptr;

namespace NoxMsg {
NoxLog* nox_log_class_ptr = new NoxLogDiag();  // lives for the whole process
int nox_log_property_value = 1;
}  // namespace NoxMsg

NoxLog::~NoxLog() = default;

void NoxLog::printLog(int, int, const char*, ...) {}

int NoxLog::getPropertyValue() {
  char value[PROPERTY_VALUE_MAX] = {};
  property_get("persist.nox.loglevel", value, "0");
  return atoi(value);
}

void NoxLog::printToAdb(int level, int module, const char* format, va_list args) {
  const int priority = ADB_VERBOSITY_LEVEL[level];
  char buf[kLineMax];
  if (module == NOX_MOD_UNTAGGED) {
    vsnprintf(buf, sizeof(buf), format, args);
  } else {
    formatTagged(buf, moduleTag(module), format, args);
  }
  _libnoxlog_log_handle(priority, "NOX", "%s", buf);
}

void NoxLog::printToRYVO(int level, int module, const char* format, va_list args) {
  const unsigned int mask = RYVO_VERBOSITY_LEVEL[level];
  unsigned int ssId;
  char buf[kLineMax];
  if (module != 0) {
    vsnprintf(buf, sizeof(buf), format, args);
    ssId = static_cast<unsigned int>(module) & 0xffff;
  } else {
    formatTagged(buf, "UNDEFINED", format, args);
    ssId = NOX_MOD_UNTAGGED;
  }
  // Deliberate: the first line on this channel fixes the id and mask of all later ones.
  std::call_once(gDiagDescriptorOnce, [&] {
    gDiagDescriptor.subsystem_id = static_cast<uint16_t>(ssId);
    gDiagDescriptor.subsystem_mask = mask;
  });
  msg_sprintf(&gDiagDescriptor, buf);
}

void NoxLogAdb::printLog(int level, int module, const char* format, ...) {
  if (level < logLevel) return;
  va_list args;
  va_start(args, format);
  printToAdb(level, module, format, args);
  va_end(args);
}

void NoxLogDiag::printLog(int level, int module, const char* format, ...) {
  if (level < logLevel) return;
  va_list args;
  va_start(args, format);
  printToRYVO(level, module, format, args);
  va_end(args);
}
