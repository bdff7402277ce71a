// Interface changes from the data state manager: the per-family modem trackers follow
// the mobile-data interfaces and their addresses.

#include <cstring>
#include <new>

#include "NoxConfig.h"
#include "NoxDsmText.h"
#include "NoxLog.h"
#include "NoxTov.h"

namespace {

bool present(const char* text) { return text[0] != '\0'; }

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
  handleWwanIfChangeEvent(info);
  if (mConfig.isEnabled(NOX_FEATURE_CTMGR)) handleDfsWwanIfChangeEvent(info);
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
    if (!initTovCtrlChannel(name.c_str())) return;
    std::unique_ptr<WdsPortTracker> created(new (std::nothrow) WdsPortTracker(name));
    if (!created) return;
    port = created.get();
    mWdsPortTrackers[name] = std::move(created);
  }
  // Deliberate: a new IPv4 tracker is followed by a status update, a new IPv6 one not.
  if (!present(info->ipAddr)) {
    port->v4Tracker.reset();
  } else if (!port->v4Tracker && addWdsTracker(*port, port->v4Tracker, TOV_IP_FAMILY_PREF_IPV4)) {
    port->updateDormancyStatus();
    port->checkDormRegNeeded();
  }
  if (!present(info->ipAddrV6)) {
    port->v6Tracker.reset();
  } else if (!port->v6Tracker && addWdsTracker(*port, port->v6Tracker, TOV_IP_FAMILY_PREF_IPV6)) {
    port->checkDormRegNeeded();
  }
  port->updateDormancyStatus();
}

bool NoxTov::addWdsTracker(WdsPortTracker& port, std::unique_ptr<NoxWdsTracker>& slot,
                           tov_ip_family_pref_type family) {
  slot.reset(new (std::nothrow) NoxWdsTracker(port.iface.c_str(), family, mCom));
  if (!slot) return false;
  slot->mIndCb = WdsPortTracker::dormIndHdlr;
  slot->mIndCbData = &port;
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
    if (f.tracker) continue;
    f.tracker.reset(new (std::nothrow) NoxDfsTracker(name.c_str(), f.pref, mCom));
    if (!f.tracker) {
      NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV, "%s", f.nullText);
      return;
    }
    f.tracker->mIndCb = DfsPortTracker::dfsFilteringIndHdlr;
    f.tracker->mIndCbData = port;
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
