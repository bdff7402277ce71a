#include "NoxTov.h"

#include <unistd.h>

#include <new>

#include "NoxLog.h"
#include "NoxTimer.h"

int NoxTov::mTovHandle = -1;
unsigned int (*NoxTov::sleepSeconds)(unsigned int) = ::sleep;

namespace {
// Seconds to wait before attempts 2 to 6.
constexpr unsigned int kRetryDelays[] = {3, 5, 10, 15, 30};
constexpr int kMaxRetries = 5;
}  // namespace

NoxTov::NoxTov(NoxDsm& dsm, NoxCom& com, NoxTimer& timer, NoxConfig& config)
    : mDsm(dsm), mCom(com), mTimer(timer), mConfig(config) {
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_TOV, "NoxTov Xtor");
}

NoxTov::~NoxTov() {
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_TOV, "NoxTov D-Xtor");
  for (const auto& retry : mRetries)
    if (retry.second->timerId != -1) mTimer.removeTimedCallback(retry.second->timerId);
  for (auto& entry : mWdsPortTrackers) entry.second.reset();
  for (auto& entry : mDfsPortTrackers) entry.second.reset();
  mWdsPortTrackers.clear();
  mDfsPortTrackers.clear();
  if (mTovHandle < 0) return;  // never started: nothing to release, and nothing followed
  const int rc = tov_release(mTovHandle);
  if (rc < 0) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV, "FATAL ERROR: tov_release error, ret:%d", rc);
    return;
  }
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_TOV, "TOV service release for client_id:%d", mTovHandle);
  mTovHandle = -1;
  mDsm.dispatcher.deregEventCallback(NOX_DSM_WWAN_INTERFACE_STATUS_CHANGE_EVENT, dsmEventHandler,
                                     this);
}

void NoxTov::init() {
  int attempt = 0;
  for (;;) {
    mTovHandle = tov_init(noxTovSysEventHdlr, this);
    if (mTovHandle >= 0) break;
    if (attempt == kMaxRetries) {
      mTovHandle = -1;
      NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV, "NoxTov::init: max tov int attempted");
      return;
    }
    ++attempt;
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV, "NoxTov::init: tov init error %d attempt %d", mTovHandle,
            attempt);
    const unsigned int delay = kRetryDelays[attempt - 1];
    NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_TOV, "NoxTov::init: retry tov init in %d sec", delay);
    if (sleepSeconds(delay) != 0) {
      mTovHandle = -1;
      NOX_LOG(NOX_LOG_INFO, NOX_MOD_TOV, "NoxTov::init: stop asked for, no more tov init attempts");
      return;
    }
  }
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_TOV, "TOV service initialized with client_id:%d", mTovHandle);
  mDsm.dispatcher.regEventCallback(NOX_DSM_WWAN_INTERFACE_STATUS_CHANGE_EVENT, dsmEventHandler,
                                   this);
  handleWwanIfStatus();
}

void NoxTov::dumpTrackerInfo() {}

void NoxTov::noxTovSysEventHdlr(tov_sys_event_type event, const tov_sys_event_info_type* info,
                                void* userData) {
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_TOV, "received tov system event:%d", event);
  if (userData == nullptr) {
    NOX_LOG(NOX_LOG_WARN, NOX_MOD_TOV, "Received tov system event with null reference");
    return;
  }
  // Deliberate: nothing is restarted after a system event; this thread only logs.
  static_cast<NoxTov*>(userData)->processSysEvent(info);
}

void NoxTov::processSysEvent(const tov_sys_event_info_type*) {
  NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_TOV, "process tov sys event");
}

bool NoxTov::initTovCtrlChannel(const char* port) {
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_TOV, "initTovCtrlChannel port:%s", port);
  int err = 0;
  const int rc = tov_dev_connection_init(port, &err);
  if (rc < 0) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV, "tov_dev_connection_init error: ret:%d, err:%d", rc, err);
    return false;
  }
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_TOV, "established control channel for tov port:%s", port);
  return true;
}

WdsPortTracker* NoxTov::findWds(const std::string& iface) {
  const auto it = mWdsPortTrackers.find(iface);
  return it == mWdsPortTrackers.end() ? nullptr : it->second.get();
}

DfsPortTracker* NoxTov::findDfs(const std::string& iface) {
  const auto it = mDfsPortTrackers.find(iface);
  return it == mDfsPortTrackers.end() ? nullptr : it->second.get();
}

int NoxTov::regDormancyStatusChgEvent(std::string iface, DormancyStatusCb cb, void* data) {
  const auto it = mWdsPortTrackers.find(iface);
  if (it == mWdsPortTrackers.end()) {
    if (!initTovCtrlChannel(iface.c_str())) return -1;
    std::unique_ptr<WdsPortTracker> tracker(new (std::nothrow) WdsPortTracker(iface));
    if (!tracker) return -1;
    // Deliberate: counted, but the callback is not stored and no report is asked for.
    tracker->dormRegRefCnt++;
    mWdsPortTrackers.emplace(iface, std::move(tracker));
    return 0;
  }
  WdsPortTracker* tracker = it->second.get();
  if (tracker == nullptr) return -1;
  tracker->dispatcher.regEventCallback(NOX_TOV_WDS_DORMANCY_STATUS_CHG_EV, cb, data);
  tracker->dormRegRefCnt++;
  tracker->checkDormRegNeeded();
  return 0;
}

int NoxTov::deRegDormancyStatusChgEvent(std::string iface, DormancyStatusCb cb, void* data) {
  WdsPortTracker* tracker = findWds(iface);
  if (tracker == nullptr) return -1;
  // Counts as removed even when the pair was never stored.
  tracker->dispatcher.deregEventCallback(NOX_TOV_WDS_DORMANCY_STATUS_CHG_EV, cb, data);
  tracker->dormRegRefCnt--;
  tracker->checkDormRegNeeded();
  return 0;
}

int NoxTov::regFilteringStatusChgEvent(std::string iface, FilteringStatusCb cb, void* data) {
  const auto it = mDfsPortTrackers.find(iface);
  if (it == mDfsPortTrackers.end()) {
    std::unique_ptr<DfsPortTracker> tracker(new (std::nothrow) DfsPortTracker(iface));
    if (!tracker) return -1;
    // Deliberate: neither counted nor stored.
    mDfsPortTrackers.emplace(iface, std::move(tracker));
    return 0;
  }
  DfsPortTracker* tracker = it->second.get();
  if (tracker == nullptr) return -1;
  tracker->dispatcher.regEventCallback(NOX_TOV_DFS_FILTERING_STATUS_CHG_EV, cb, data);
  tracker->filterRegRefCnt++;
  tracker->checkFilterRegNeeded();
  return 0;
}

int NoxTov::deRegFilteringStatusChgEvent(std::string iface, FilteringStatusCb cb, void* data) {
  DfsPortTracker* tracker = findDfs(iface);
  if (tracker == nullptr) return -1;
  tracker->dispatcher.deregEventCallback(NOX_TOV_DFS_FILTERING_STATUS_CHG_EV, cb, data);
  // Deliberate: the indication registration is not re-applied; the modem keeps reporting.
  tracker->filterRegRefCnt--;
  return 0;
}

int NoxTov::getDormancyStatus(std::string iface) {
  WdsPortTracker* tracker = findWds(iface);
  if (tracker == nullptr) return -1;
  return tracker->dormRegRefCnt < 1 ? tracker->getDormancyStatus() : tracker->status;
}

int NoxTov::getFilterStatus(std::string iface) {
  DfsPortTracker* tracker = findDfs(iface);
  if (tracker == nullptr) return -1;
  return tracker->filterRegRefCnt < 1 ? tracker->getFilterStatus() : tracker->status;
}

int NoxTov::goDormant(std::string iface) {
  WdsPortTracker* tracker = findWds(iface);
  if (tracker == nullptr) return -1;
  int result = tracker->v4Tracker ? tracker->v4Tracker->goDormant() : -1;
  // The IPv6 result wins, also over an IPv4 failure.
  if (tracker->v6Tracker) result = tracker->v6Tracker->goDormant();
  return result;
}

int NoxTov::goDormant() {
  for (const auto& entry : mWdsPortTrackers) goDormant(entry.first);
  return 0;
}

void NoxTov::setDfsFilterMode(std::string iface, bool on) {
  DfsPortTracker* tracker = findDfs(iface);
  if (tracker == nullptr) return;
  if (tracker->v4Tracker) tracker->v4Tracker->setDfsFilterMode(on);
  if (tracker->v6Tracker) tracker->v6Tracker->setDfsFilterMode(on);
}

int NoxTov::addDfsFilters(std::string iface, const std::list<NoxConnTrackFilter_s>& v4Filters,
                          const std::list<NoxConnTrackFilter_s>& v6Filters) {
  DfsPortTracker* tracker = findDfs(iface);
  if (tracker == nullptr) return -1;
  int result = -1;
  if (tracker->v4Tracker && !v4Filters.empty()) {
    result = tracker->v4Tracker->addDfsFilters(v4Filters);
    if (result != 1) {
      NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV, "DfsPortTracker::addDfsFilters: add DFS v4 filters failed");
      return result;
    }
  }
  if (tracker->v6Tracker && !v6Filters.empty()) {
    result = tracker->v6Tracker->addDfsFilters(v6Filters);
    if (result != 1)
      NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV, "DfsPortTracker::addDfsFilters: add DFS v6 filters failed");
  }
  return result;
}

int NoxTov::clearAllDfsFilters(std::string iface) {
  DfsPortTracker* tracker = findDfs(iface);
  if (tracker == nullptr) return -1;
  int result = tracker->v4Tracker ? tracker->v4Tracker->removeAllDfsFilters() : -1;
  if (tracker->v6Tracker) result = tracker->v6Tracker->removeAllDfsFilters();
  return result;
}

NoxDfsTracker* NoxTov::findDfs(const std::string& iface, int family) const {
  const auto it = mDfsPortTrackers.find(iface);
  if (it == mDfsPortTrackers.end() || !it->second) return nullptr;
  const DfsPortTracker& port = *it->second;
  NoxDfsTracker* tracker = family == TOV_IP_FAMILY_PREF_IPV4   ? port.v4Tracker.get()
                           : family == TOV_IP_FAMILY_PREF_IPV6 ? port.v6Tracker.get()
                                                               : nullptr;
  return tracker != nullptr && tracker->started() ? tracker : nullptr;
}

int NoxTov::setFamilyFilterMode(const std::string& iface, int family, bool on) {
  NoxDfsTracker* tracker = findDfs(iface, family);
  if (tracker == nullptr) return -1;
  const int rc = tracker->setDfsFilterMode(on);
  // The modem's indication of this change may come after a later one (auto-exit) and
  // find the status it had before: the subscribers learn it now.
  findDfs(iface)->updateFilterStatus();
  return rc;
}

int NoxTov::getFamilyFilterMode(const std::string& iface, int family, bool& on) {
  NoxDfsTracker* tracker = findDfs(iface, family);
  return tracker != nullptr ? tracker->getDfsFilterMode(on) : -1;
}

int NoxTov::addFamilyFilters(const std::string& iface, int family,
                          const std::list<NoxConnTrackFilter_s>& filters) {
  NoxDfsTracker* tracker = findDfs(iface, family);
  return tracker != nullptr ? tracker->addDfsFilters(filters) : -1;
}

int NoxTov::clearFamilyFilters(const std::string& iface, int family) {
  NoxDfsTracker* tracker = findDfs(iface, family);
  return tracker != nullptr ? tracker->removeAllDfsFilters() : -1;
}

uint64_t NoxTov::dfsClientId(const std::string& iface, int family) const {
  const NoxDfsTracker* tracker = findDfs(iface, family);
  return tracker != nullptr ? tracker->serial : 0;
}
