#include "NoxPermissions.h"

#include <sys/prctl.h>

#include <cstring>
#include <new>
#include <string>

#include "NoxLog.h"
#include "NoxUtils.h"

namespace {
constexpr int kPrSetSecurebits = 28;
// No set-uid fix-up, and that bit locked.
constexpr unsigned long kSecbitsKeepCaps = 12;
}  // namespace

NoxPermissions::NoxPermissions() {
  for (int gid : {0, 1000, 2000, 3003}) allowGid(gid);
}

NoxPermissions::NoxPermissions(const NoxPermissions& other) { *this = other; }

NoxPermissions& NoxPermissions::operator=(const NoxPermissions& other) {
  try {
    permissionList = other.permissionList;
  } catch (const std::bad_alloc&) {
    NoxUtils::exitOutOfMemory();
  }
  return *this;
}

void NoxPermissions::append(const PermissionInfo& entry) {
  try {
    permissionList.push_back(entry);
  } catch (const std::bad_alloc&) {
    NoxUtils::exitOutOfMemory();
  }
}

void NoxPermissions::allowGid(int gid) {
  PermissionInfo entry = {};
  entry.gid = gid;
  append(entry);
}

bool NoxPermissions::allowName(const char* name) {
  PermissionInfo entry = {};
  if (strlen(name) >= sizeof(entry.name)) return false;
  entry.isName = true;
  strcpy(entry.name, name);
  append(entry);
  return true;
}

bool NoxPermissions::isGidAllowed(int gid) const {
  for (const PermissionInfo& e : permissionList)
    if (!e.isName && e.gid == gid) return true;
  return false;
}

bool NoxPermissions::isNameAllowed(const char* name) const {
  for (const PermissionInfo& e : permissionList)
    if (e.isName && strcmp(e.name, name) == 0) return true;
  return false;
}

bool NoxPermissions::isAppAllowed(int pid, int gid) const {
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_COMMON, "PID= %d GID= %d", pid, gid);
  if (isGidAllowed(gid)) {
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_COMMON, "Detected acceptable application.");
    return true;
  }
  std::string name;
  const bool found = NoxUtils::GetAppName(pid, name);
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_COMMON, "Appname: %s", name.c_str());
  if (!found) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_COMMON, "unable to get appname of process with pid=%d", pid);
    return false;
  }
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_COMMON, "Checking app %s", name.c_str());
  if (!isNameAllowed(name.c_str())) {
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_COMMON, "Detected unacceptable application.");
    return false;
  }
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_COMMON, "Detected acceptable application.");
  return true;
}

int NoxPermissions::setProcessCapabilities() {
  return prctl(kPrSetSecurebits, kSecbitsKeepCaps, 0, 0, 0) == 0 ? 0 : -1;
}
