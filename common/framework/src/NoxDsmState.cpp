// Network state from the framework client: WLAN, mobile data per interface and APN,
// tethering and screen.

#include <net/if.h>

#include <algorithm>
#include <cstring>

#include "NoxDsm.h"
#include "NoxDsmText.h"
#include "NoxLog.h"

using NoxDsmText::copy;
using NoxDsmText::replaceAddress;

void NoxDsm::handleWlanEvent(_WlanInfo* info) {
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_DSM,
          "handleWlanEvent: WlanInfo, type=%d, state=%d, softApState=%d,", info->type, info->status,
          info->softAp);
  // Deliberate: only the state counts; a change of type or soft-AP state alone is dropped.
  if (info->status == wlanInfo.status) return;
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_DSM,
          "handleWlanEvent: WLAN state changed, newState=%d, oldState=%d", info->status,
          wlanInfo.status);
  if (isDhcpRenewState(*info, wlanInfo)) return;
  wlanInfo = *info;
  _WlanInfo event = wlanInfo;
  dispatcher.dispatchEvent(NOX_DSM_WLAN_STATUS_CHANGE_EVENT, &event);
}

bool NoxDsm::isDhcpRenewState(_WlanInfo& cur, _WlanInfo& prev) {
  if (inDhcpRenew) {
    NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_DSM, "Exiting dhcprenew state");
    inDhcpRenew = false;
    return prev.status == NOX_NW_STATE_CONNECTING && cur.status == NOX_NW_STATE_CONNECTED;
  }
  NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_DSM, "isdhcprenew, c.status:%d, p.status:%d", cur.status,
          prev.status);
  if (cur.status == NOX_NW_STATE_CONNECTING && prev.status == NOX_NW_STATE_CONNECTED) {
    NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_DSM, "Entering dhcprenew state");
    inDhcpRenew = true;
    return true;
  }
  return false;
}

void NoxDsm::handleWwanEvent(NoxWwanInfoType* info) {
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_DSM,
          "handleWwanEvent- WWAN: type=%d, state=%d, nwType=%d roaming=%d, apn= %d, ipAddr=%s, "
          "iface=%s, ipAddrV6=%s, ifaceV6=%s, mccMnc=%s",
          info->type, info->status, info->nwType, info->roaming, info->apn, info->ipV4,
          info->ifaceV4, info->ipV6, info->ifaceV6, info->mccmnc);

  // Runs for every notification, before the interface is checked.
  if (strncmp(info->mccmnc, mccMnc, NOX_MCCMNC_SIZE - 1) != 0) {
    memcpy(mccMnc, info->mccmnc, NOX_MCCMNC_SIZE);
    mccMnc[NOX_MCCMNC_SIZE - 1] = '\0';
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_DSM, "handleWwanEvent - WWAN: MCCMNC got changed = %s", mccMnc);
    char event[NOX_MCCMNC_SIZE];
    memcpy(event, mccMnc, sizeof(event));
    dispatcher.dispatchEvent(NOX_DSM_MCC_MNC_CHANGE_EVENT, event);
  }

  // The IPv6 interface is the key whenever it is given.
  char key[NOX_IFACE_NAME_SIZE];
  if (info->ifaceV6[0] != '\0') {
    copy(key, info->ifaceV6, NOX_IFACE_NAME_SIZE);
    if (if_nametoindex(key) == 0) {
      NOX_LOG(NOX_LOG_WARN, NOX_MOD_DSM, "invalid ifaceV6 name %s", key);
      return;
    }
  } else if (info->ifaceV4[0] != '\0') {
    copy(key, info->ifaceV4, NOX_IFACE_NAME_SIZE);
    if (if_nametoindex(key) == 0) {
      NOX_LOG(NOX_LOG_WARN, NOX_MOD_DSM, "invalid iface name %s", key);
      return;
    }
  } else {
    return;
  }

  auto it = wwanIfaceMap.find(key);
  if (it == wwanIfaceMap.end()) {
    if (info->status != NOX_NW_STATE_CONNECTED) return;
    _NoxDsmWwanInfoType entry;
    entry.type = info->type;
    entry.state = info->status;
    entry.nwType = info->nwType;
    entry.roaming = info->roaming;
    entry.apnList.push_back(info->apn);
    copy(entry.ipAddr, info->ipV4, NOX_IP_ADDR_SIZE);
    copy(entry.iface, info->ifaceV4, NOX_IFACE_NAME_SIZE);
    copy(entry.ipAddrV6, info->ipV6, NOX_IP_ADDR_SIZE);
    copy(entry.ifaceV6, info->ifaceV6, NOX_IFACE_NAME_SIZE);
    copy(entry.mccMnc, info->mccmnc, NOX_MCCMNC_SIZE);
    NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_DSM, "handleWwanEvent insert to map iface: %s", key);
    wwanIfaceMap.emplace(key, std::move(entry));
    dispatchApnEvent(key);
    dispatchWwanEvent(key);
    return;
  }

  _NoxDsmWwanInfoType& entry = it->second;
  if (info->status == NOX_NW_STATE_CONNECTED) {
    const bool newApn =
        std::find(entry.apnList.begin(), entry.apnList.end(), info->apn) == entry.apnList.end();
    // Deliberate safety bound: past NOX_MAX_APNS_PER_IFACE APNs the notification is
    // refused whole, and the record stays as it was.
    if (newApn && entry.apnList.size() >= NOX_MAX_APNS_PER_IFACE) {
      NOX_LOG(NOX_LOG_ERROR, NOX_MOD_DSM,
              "handleWwanEvent: %s already has %zu APNs, APN %d refused", key,
              entry.apnList.size(), info->apn);
      return;
    }
    bool changed = false;
    if (entry.state != NOX_NW_STATE_CONNECTED) {
      entry.state = NOX_NW_STATE_CONNECTED;
      changed = true;
    }
    if (newApn) {
      entry.apnList.push_back(info->apn);
      changed = true;
    }
    changed |= replaceAddress(entry.ipAddrV6, entry.ifaceV6, info->ipV6, info->ifaceV6,
                              sizeof(info->ifaceV6));
    changed |= replaceAddress(entry.ipAddr, entry.iface, info->ipV4, info->ifaceV4,
                              sizeof(info->ifaceV4));
    if (info->nwType != entry.nwType) {
      entry.nwType = info->nwType;
      int32_t event = entry.nwType;
      dispatcher.dispatchEvent(NOX_DSM_WWAN_NW_TYPE_CHANGE_EVENT, &event);
    }
    // No interface event here, and type and roaming of a known interface stay as they were.
    if (changed) dispatchApnEvent(key);
  } else if (info->status == NOX_NW_STATE_DISCONNECTED) {
    entry.state = NOX_NW_STATE_DISCONNECTED;
    if (std::find(entry.apnList.begin(), entry.apnList.end(), info->apn) == entry.apnList.end())
      return;
    // Reported before the APN leaves the list, so the event still names it.
    dispatchApnEvent(key);
    it = wwanIfaceMap.find(key);  // a subscriber may have changed the map
    if (it == wwanIfaceMap.end()) return;
    std::vector<NoxApnType>& apns = it->second.apnList;
    const auto apn = std::find(apns.begin(), apns.end(), info->apn);
    if (apn != apns.end()) apns.erase(apn);
  }
}

namespace {
// Deliberate: the stored screen and tethering values are the inverse of the client's
// integer (its 1, "on", is stored as 0); plug-ins compare them with NOX_SCREEN_ON and the
// other names of NoxPlugin.h.
int32_t inverted(int32_t received) { return received == 0 ? 1 : 0; }
}  // namespace

void NoxDsm::handleTetheringEvent(NoxTetheringStateType* state) {
  const int32_t newState = inverted(*state);
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_DSM,
          "handleTetheringEvent: Tetheirng State Event, newstate:%d oldstate:%d", newState,
          tetheringState);
  if (newState == tetheringState) return;
  tetheringState = newState;
  int32_t event = tetheringState;
  dispatcher.dispatchEvent(NOX_DSM_TETHERING_STATE_CHANGE_EVENT, &event);
}

void NoxDsm::handleScreenEvent(NoxScreenStateType* state) {
  const int32_t newState = inverted(*state);
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_DSM,
          "handleScreenEvent: Screen State Event, newstate:%d oldstate:%d", newState, screenState);
  if (newState == screenState) return;
  screenState = newState;
  int32_t event = screenState;
  dispatcher.dispatchEvent(NOX_DSM_SCREEN_STATE_CHANGE_EVENT, &event);
}
