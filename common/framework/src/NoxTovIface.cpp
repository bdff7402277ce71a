// Interface changes from the data state manager: the per-family modem trackers follow
// the mobile-data interfaces and their addresses.

#include <time.h>

#include <cstring>
#include <new>

#include "NoxConfig.h"
#include "NoxDsmText.h"
#include "NoxLog.h"
#include "NoxTimer.h"
#include "NoxTov.h"

namespace {

bool present(const char* text) { return text[0] != '\0'; }

long long monotonicMs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

// Delays before start retries 1 to kMaxStartRetries of an interface.
constexpr int kStartRetryDelaysMs[] = {1000, 2000, 4000, 8000, 16000, 30000};
constexpr int kMaxStartRetries = sizeof(kStartRetryDelaysMs) / sizeof(kStartRetryDelaysMs[0]);

}  // namespace

void NoxTov::dsmEventHandler(NoxDsmEvent event, const void* data, void* cbData) {
  NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_TOV, "Dsm called back for event:%d, cb_data:%p", event, cbData);
  static_cast<NoxTov*>(cbData)->processDsmEvent(event, data);
}

void NoxTov::processDsmEvent(NoxDsmEvent event, const void* data) {
  NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_TOV, "NoxTov::processDsmEvent ev %d", event);
  if (event != NOX_DSM_WWAN_INTERFACE_STATUS_CHANGE_EVENT) {
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_TOV, "Unrecognized DSM event:%d", event);
    return;
  }
  if (data == nullptr) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV, "Recvd null data from DSM wwan iface status event");
    return;
  }
  const _NoxDsmWwanIfaceInfoType* info = static_cast<const _NoxDsmWwanIfaceInfoType*>(data);
  const std::string name = NoxDsmText::ifaceKey(info->ifaceName);
  const auto earlier = mRetries.find(name);
  if (earlier != mRetries.end()) earlier->second->askedInPass = false;
  mPassDeadline = monotonicMs() + kConnectBudgetMs;
  mPassFailed = false;
  handleWwanIfChangeEvent(info);
  if (mConfig.isEnabled(NOX_FEATURE_CTMGR)) handleDfsWwanIfChangeEvent(info);
  mPassDeadline = 0;
  const auto retry = mRetries.find(name);
  if (retry == mRetries.end() || retry->second->askedInPass) return;
  // Everything this event asked for is started, or the interface is gone.
  if (retry->second->attempts > 0 && info->status == NOX_NW_STATE_CONNECTED)
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_TOV, "modem clients of %s started", name.c_str());
  if (retry->second->timerId != -1) mTimer.removeTimedCallback(retry->second->timerId);
  mRetries.erase(retry);
}

bool NoxTov::mayStart(const std::string& iface) {
  if (mPassDeadline == 0) return true;  // not within a data-state event: no budget
  if (!mPassFailed && monotonicMs() < mPassDeadline) return true;
  retryLater(iface, mPassFailed);
  return false;
}

void NoxTov::retryLater(const std::string& iface, bool failed) {
  std::unique_ptr<Retry>& slot = mRetries[iface];
  if (!slot) slot.reset(new Retry{this, iface});
  Retry& retry = *slot;
  retry.askedInPass = true;
  if (retry.timerId != -1) return;
  long long delayMs = 0;  // a spent budget: right after the other events waiting
  if (failed) {
    if (retry.attempts == kMaxStartRetries) {
      NOX_LOG(NOX_LOG_WARN, NOX_MOD_TOV,
              "modem clients of %s could not be started %d times: waiting for its next connect",
              iface.c_str(), kMaxStartRetries + 1);
      mRetries.erase(iface);
      return;
    }
    delayMs = kStartRetryDelaysMs[retry.attempts++];
    NOX_LOG(NOX_LOG_WARN, NOX_MOD_TOV, "modem clients of %s not started: retry in %lld ms",
            iface.c_str(), delayMs);
  }
  retry.timerId = mTimer.addTimedCallback(delayMs, onRetry, &retry);
}

int NoxTov::onRetry(void* data) {
  Retry* retry = static_cast<Retry*>(data);
  retry->timerId = -1;
  // As a connect event, so that the policies bring the new clients to their state too.
  // The event may end the retry: nothing of it is used afterwards.
  retry->tov->mDsm.dispatchWwanEvent(retry->iface.c_str());
  return -1;
}

void NoxTov::handleWwanIfChangeEvent(const _NoxDsmWwanIfaceInfoType* info) {
  // Deliberate: this side reuses processDsmEvent's text.
  NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_TOV, "NoxTov::processDsmEvent status: %d iface: %s", info->status,
          NoxDsmText::ifaceKey(info->ifaceName).c_str());
  if (!present(info->ifaceName)) {
    NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_TOV, "iface name not set!!");
    return;
  }
  const std::string name = NoxDsmText::ifaceKey(info->ifaceName);
  WdsPortTracker* port = findWds(name);
  if (info->status != NOX_NW_STATE_CONNECTED) {
    if (port == nullptr) {
      NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_TOV, "No portTracker for this iface..");
      return;
    }
    port->v4Tracker.reset();
    port->v6Tracker.reset();
    port->updateDormancyStatus();  // tells the subscribers -1
    return;
  }
  if (port == nullptr) {
    if (!mayStart(name)) return;
    if (!initTovCtrlChannel(name.c_str())) {
      mPassFailed = true;
      retryLater(name, true);
      return;
    }
    std::unique_ptr<WdsPortTracker> created(new (std::nothrow) WdsPortTracker(name));
    if (!created) return;
    port = created.get();
    mWdsPortTrackers[name] = std::move(created);
  }
  // Deliberate: a new IPv4 tracker is followed by a status update, a new IPv6 one not.
  if (!present(info->ipAddr)) {
    port->v4Tracker.reset();
  } else if (addWdsTracker(*port, port->v4Tracker, TOV_IP_FAMILY_PREF_IPV4)) {
    port->updateDormancyStatus();
    port->checkDormRegNeeded();
  }
  if (!present(info->ipAddrV6)) {
    port->v6Tracker.reset();
  } else if (addWdsTracker(*port, port->v6Tracker, TOV_IP_FAMILY_PREF_IPV6)) {
    port->checkDormRegNeeded();
  }
  port->updateDormancyStatus();
}

bool NoxTov::addWdsTracker(WdsPortTracker& port, std::unique_ptr<NoxWdsTracker>& slot,
                           tov_ip_family_pref_type family) {
  // A client that did not start is started anew; one that did is kept.
  if (slot && slot->started()) return false;
  if (!mayStart(port.iface)) return false;
  slot.reset(new (std::nothrow) NoxWdsTracker(port.iface.c_str(), family, mCom));
  if (!slot) return false;
  slot->mIndCb = WdsPortTracker::dormIndHdlr;
  slot->mIndCbData = &port;
  if (!slot->started()) {
    mPassFailed = true;
    retryLater(port.iface, true);
  }
  return true;
}

void NoxTov::handleDfsWwanIfChangeEvent(const _NoxDsmWwanIfaceInfoType* info) {
  NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_TOV, "NoxTov::handleDfsWwanIfChangeEvent status: %d iface: %s",
          info->status, NoxDsmText::ifaceKey(info->ifaceName).c_str());
  if (!present(info->ifaceName)) {
    NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_TOV, "iface name not set!!");
    return;
  }
  const std::string name = NoxDsmText::ifaceKey(info->ifaceName);
  DfsPortTracker* port = findDfs(name);
  if (info->status != NOX_NW_STATE_CONNECTED) {
    if (port == nullptr) {
      NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_TOV, "No portTracker for this iface..");
      return;
    }
    // Deliberate: no filter-status update, so the subscribers are not told.
    port->v4Tracker.reset();
    port->v6Tracker.reset();
    return;
  }
  if (port == nullptr) {
    std::unique_ptr<DfsPortTracker> created(new (std::nothrow) DfsPortTracker(name));
    if (!created) return;
    port = created.get();
    mDfsPortTrackers[name] = std::move(created);
  }
  struct Family {
    const char* address;
    std::unique_ptr<NoxDfsTracker>& tracker;
    tov_ip_family_pref_type pref;
    const char* nullText;
  };
  Family families[] = {
      {info->ipAddr, port->v4Tracker, TOV_IP_FAMILY_PREF_IPV4, "portTracker->v4Tracker is NULL"},
      {info->ipAddrV6, port->v6Tracker, TOV_IP_FAMILY_PREF_IPV6, "portTracker->v6Tracker is NULL"},
  };
  for (Family& f : families) {
    if (!present(f.address)) {
      f.tracker.reset();
      continue;
    }
    // A client that did not start is started anew; one that did is kept.
    if ((f.tracker && f.tracker->started()) || !mayStart(name)) continue;
    f.tracker.reset(new (std::nothrow) NoxDfsTracker(name.c_str(), f.pref, mCom));
    if (!f.tracker) {
      NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV, "%s", f.nullText);
      return;
    }
    f.tracker->mIndCb = DfsPortTracker::dfsFilteringIndHdlr;
    f.tracker->mIndCbData = port;
    if (!f.tracker->started()) {
      mPassFailed = true;
      retryLater(name, true);
    }
    port->checkFilterRegNeeded();
  }
  port->updateFilterStatus();
}

void NoxTov::handleWwanIfStatus() {
  const NoxDsmWwanIfaceMap interfaces = mDsm.getAllWwanInfo();
  for (const auto& entry : interfaces) {
    if (entry.second.state != NOX_NW_STATE_CONNECTED) continue;
    _NoxDsmWwanIfaceInfoType info;
    memset(&info, 0, sizeof(info));
    info.status = NOX_NW_STATE_CONNECTED;
    NoxDsmText::copy(info.ifaceName, entry.first.c_str(), NOX_IFACE_NAME_SIZE, NOX_IFACE_NAME_SIZE);
    NoxDsmText::copy(info.ipAddr, entry.second.ipAddr, NOX_IP_ADDR_SIZE);
    NoxDsmText::copy(info.ipAddrV6, entry.second.ipAddrV6, NOX_IP_ADDR_SIZE);
    handleWwanIfChangeEvent(&info);
    if (mConfig.isEnabled(NOX_FEATURE_CTMGR)) handleDfsWwanIfChangeEvent(&info);
  }
}
