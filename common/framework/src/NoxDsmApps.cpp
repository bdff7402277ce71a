// The installed applications that the framework client reports.

#include <cstdlib>
#include <cstring>
#include <new>

#include "NoxDsm.h"
#include "NoxLog.h"

int NoxDsm::AddAppInfoList(const NoxAppInfoMsgDataType* msg) {
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_DSM, "AddAppInfoList called");
  if (msg->numApps > NOX_MAX_APPLIST_SIZE) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_DSM, "No of applications exceed the max size %d",
            NOX_MAX_APPLIST_SIZE);
    return -1;
  }
  const bool fullList = appInfoMap.empty();
  if (fullList || msg->action == NOX_PKG_ACTION_ADD) {
    // Deliberate safety bound: a list that would grow past NOX_MAX_APPS is refused whole.
    size_t added = fullList ? msg->apps.size() : 0;
    if (!fullList) {
      for (auto app = msg->apps.begin(); app != msg->apps.end(); ++app) {
        bool again = knownApp(*app);
        for (auto earlier = msg->apps.begin(); earlier != app && !again; ++earlier)
          again = earlier->uid == app->uid &&
                  strncmp(earlier->pkg_name, app->pkg_name, NOX_PKG_NAME_SIZE) == 0;
        if (!again) ++added;
      }
    }
    if (appInfoMap.size() + added > NOX_MAX_APPS) {
      NOX_LOG(NOX_LOG_ERROR, NOX_MOD_DSM,
              "AddAppInfoList: %zu more applications would exceed the limit of %zu, refused",
              added, NOX_MAX_APPS);
      return -1;
    }
  }
  if (fullList) {
    // Deliberate: the first message is the full list, whatever its action says.
    for (const NoxAppInfoType& app : msg->apps) insertApp(app);
  } else if (msg->action == NOX_PKG_ACTION_ADD) {
    NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_DSM, "Got NOX_PKG_ACTION_ADD");
    for (const NoxAppInfoType& app : msg->apps) {
      if (knownApp(app)) {
        NOX_LOG(NOX_LOG_WARN, NOX_MOD_DSM, "App %.*s already exists in map! Ignoring",
                NOX_PKG_NAME_SIZE, app.pkg_name);
        continue;
      }
      insertApp(app);
    }
  } else {
    NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_DSM, "Got NOX_PKG_ACTION_REMOVE");
    for (const NoxAppInfoType& app : msg->apps) removeApp(app);
  }
  return 1;
}

bool NoxDsm::knownApp(const NoxAppInfoType& app) const {
  const auto range = appInfoMap.equal_range(app.uid);
  for (auto it = range.first; it != range.second; ++it)
    if (strncmp(it->second.pkg_name, app.pkg_name, NOX_PKG_NAME_SIZE) == 0) return true;
  return false;
}

void NoxDsm::removeApp(const NoxAppInfoType& app) {
  for (auto it = appInfoMap.begin(); it != appInfoMap.end(); ++it) {
    NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_DSM,
            "appMapItr->first = %d, it->uid = %d (appMapItr->second).pkg_name = %s  "
            "it->pkg_name = %.*s",
            static_cast<int>(it->first), static_cast<int>(app.uid), it->second.pkg_name,
            NOX_PKG_NAME_SIZE, app.pkg_name);
    if (it->first != app.uid || strncmp(it->second.pkg_name, app.pkg_name, NOX_PKG_NAME_SIZE) != 0)
      continue;
    NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_DSM, "Removing App %.*s from map", NOX_PKG_NAME_SIZE,
            app.pkg_name);
    delete[] it->second.pkg_name;
    appInfoMap.erase(it);
    return;
  }
}

void NoxDsm::insertApp(const NoxAppInfoType& app) {
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_DSM, "Inserting App: Name %.*s , uid %d into map.",
          NOX_PKG_NAME_SIZE, app.pkg_name, static_cast<int>(app.uid));
  const size_t len = strnlen(app.pkg_name, NOX_PKG_NAME_SIZE);
  char* name = new (std::nothrow) char[len + 1];
  if (name == nullptr) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_DSM, "Not enough memory not inserting %.*s to map",
            NOX_PKG_NAME_SIZE, app.pkg_name);
    return;
  }
  memcpy(name, app.pkg_name, len);
  name[len] = '\0';

  NoxDsmAppInfoDataType record{name, {}};
  try {
    char ids[NOX_PKG_NAME_SIZE + 1];
    const size_t idsLen = strnlen(app.app_name, NOX_PKG_NAME_SIZE);
    memcpy(ids, app.app_name, idsLen);
    ids[idsLen] = '\0';
    char* save = nullptr;
    for (char* piece = strtok_r(ids, ":", &save); piece != nullptr;
         piece = strtok_r(nullptr, ":", &save))
      record.appNameIds.insert(static_cast<uint32_t>(strtoul(piece, nullptr, 16)));
    appInfoMap.emplace(app.uid, std::move(record));
  } catch (const std::bad_alloc&) {
    delete[] name;
    NoxUtils::exitOutOfMemory();
  }
}
