#include "NoxDsm.h"

#include <binder/Parcel.h>
#include <cutils/properties.h>
#include <sys/epoll.h>

#include <cstdlib>
#include <cstring>
#include <new>

#include "Nox.h"
#include "NoxDsmText.h"
#include "NoxLog.h"
#include "NoxNetlinkSocket.h"
#include "NoxParcel.h"

namespace {

// Links, IPv4 addresses and IPv6 addresses.
constexpr unsigned int kNetlinkGroups = 0x111;
constexpr NoxMsgEnumType kCommands[] = {
    NOX_S_NOTIFY_INIT_DONE,        NOX_S_NOTIFY_WLAN_STATE_CHG,      NOX_S_NOTIFY_WWAN_STATE_CHG,
    NOX_S_NOTIFY_SCREEN_STATE_CHG, NOX_S_NOTIFY_TETHERING_STATE_CHG, NOX_S_NOTIFY_APP_INFO_LIST_CHG,
    NOX_S_REQ_GET_FEATURE_STATUS,  NOX_S_REQ_SET_FEATURE_PREF,
};

const char kNsrmProperty[] = "persist.sys.noxd.nsrm";

// atoi, with a short path for what the property holds on every request: a few digits.
int toInt(const char* text) {
  int value = 0;
  int n = 0;
  for (; n < 9 && text[n] >= '0' && text[n] <= '9'; ++n) value = value * 10 + (text[n] - '0');
  return n > 0 && text[n] == '\0' ? value : atoi(text);
}
constexpr int kNsrmUnset = 65535;
constexpr int32_t kResultOk = 0;  // deliberately not NOX_RET_OK: clients test against 0
constexpr int kAppInfoBuckets = 8;
constexpr NoxApnType kNoApn = 9;

// Sends {1, type, record} to the framework client. The line is logged before the record is
// parceled, so it precedes the parcel's own log line.
template <typename T>
void sendToClient(NoxMsgEnumType type, const T& record) {
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COMMON, "sending unsolicited message. fd:%d type:%s (%d)", 0,
          NoxUtils::getNoxMsgStr(type), static_cast<int>(type));
  android::Parcel p;
  p.writeInt32(1);
  p.writeInt32(type);
  NoxParcel::parcel(record, p);
  NoxCom::sendMessage(0, p.data(), static_cast<unsigned int>(p.dataSize()));
}

}  // namespace

NoxDsm::NoxDsm(Nox& owner, NoxConfig& cfg, NoxCom& loop)
    : nox(owner),
      config(cfg),
      com(loop),
      wlanInfo(),
      tetheringState(1),
      screenState(0),
      appInfoMap(kAppInfoBuckets),
      inDhcpRenew(false),
      nsrmEnabled(false),
      mccMnc() {
  appInfoMap.max_load_factor(1.0f);
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_DSM, "NoxDsm Constructor called \n");
  nsrmEnabled = config.isEnabled(NOX_FEATURE_NSRM);

  nlSocket.reset(new (std::nothrow) NoxNetlinkSocket(NETLINK_ROUTE, kNetlinkGroups));
  if (!nlSocket) NoxUtils::exitOutOfMemory();
  com.addComEventHandler(nlSocket->fd, noxEvtCallback, this, nullptr, EPOLLIN);
  for (NoxMsgEnumType cmd : kCommands) nox.dispatcher.regEventCallback(cmd, processNoxCmd, this);
  dumpAddresses();
}

NoxDsm::~NoxDsm() {
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_DSM, "Clear populated map. Size is %d\n",
          static_cast<int>(appInfoMap.size()));
  for (auto& app : appInfoMap) delete[] app.second.pkg_name;
  appInfoMap.clear();
  wwanIfaceMap.clear();
  for (NoxMsgEnumType cmd : kCommands) nox.dispatcher.deregEventCallback(cmd, processNoxCmd, this);
  com.removeComEventHandler(nlSocket->fd);
}

void NoxDsm::processNoxCmd(NoxMsgEnumType cmd, const void* data, void* cbData) {
  if (cbData == nullptr) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_DSM, "cbData NULL unexpected!!");
    return;
  }
  NoxDsm* dsm = static_cast<NoxDsm*>(cbData);
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_DSM, "DSM processCommand: Rcvd command, cmdType=%d",
          static_cast<int>(cmd));
  // The handlers take mutable records (a fixed interface); the decoded payload is the
  // caller's local, which nothing else reads afterwards.
  void* payload = const_cast<void*>(data);
  // The texts keep both "processCommand" and "processNoxCmd" on purpose: log readers match them.
  auto present = [data](const char* whenNull) {
    if (data != nullptr) return true;
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_DSM, "%s", whenNull);
    return false;
  };
  try {
    switch (cmd) {
      case NOX_S_REQ_GET_FEATURE_STATUS:
        if (present("DSM processCommand: NOX_REQ_GET_FEATURE_STATUS data corrupted"))
          dsm->handleGetFeatureEvent(static_cast<NoxFeatureInfoType*>(payload));
        break;
      case NOX_S_REQ_SET_FEATURE_PREF:
        if (present("DSM processCommand: NOX_REQ_SET_FEATURE_PREF data corrupted"))
          dsm->setFeatureStatus(static_cast<NoxFeatureInfoType*>(payload));
        break;
      case NOX_S_NOTIFY_INIT_DONE:
        NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_DSM, "DSM processNoxCmd: NOX service init completed");
        break;
      case NOX_S_NOTIFY_WLAN_STATE_CHG:
        if (present("DSM processCommand: data corrupted"))
          dsm->handleWlanEvent(static_cast<_WlanInfo*>(payload));
        break;
      case NOX_S_NOTIFY_WWAN_STATE_CHG:
        if (present("DSM processCommand: data corrupted"))
          dsm->handleWwanEvent(static_cast<NoxWwanInfoType*>(payload));
        break;
      case NOX_S_NOTIFY_APP_INFO_LIST_CHG:
        if (present("DSM processCommand: NOX_NOTIFY_APP_INFO_LIST_CMD data corrupted")) {
          dsm->AddAppInfoList(static_cast<const NoxAppInfoMsgDataType*>(data));
          dsm->dispatcher.dispatchEvent(NOX_DSM_APP_INFO_LIST_CHANGE_EVENT, nullptr);
        }
        break;
      case NOX_S_NOTIFY_SCREEN_STATE_CHG:
        if (present("DSM processNoxCmd: data corrupted"))
          dsm->handleScreenEvent(static_cast<NoxScreenStateType*>(payload));
        break;
      case NOX_S_NOTIFY_TETHERING_STATE_CHG:
        if (present("DSM processNoxCmd: data corrupted"))
          dsm->handleTetheringEvent(static_cast<NoxTetheringStateType*>(payload));
        break;
      default:
        NOX_LOG(NOX_LOG_INFO, NOX_MOD_DSM, "DSM processCommand: Not DSM Cmd");
        break;
    }
  } catch (const std::bad_alloc&) {
    NoxUtils::exitOutOfMemory();
  }
}

bool NoxDsm::getFeatureStatus(NoxFeatureInfoType* info) {
  if (info == nullptr) return false;
  if (info->featureId != NOX_FEATURE_NSRM) {
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_DSM, "DSM getFeatureStatus: unknown feature.");
    return false;
  }
  if (!nsrmEnabled) return false;
  char value[PROPERTY_VALUE_MAX];
  property_get(kNsrmProperty, value, "65535");
  const int stored = toInt(value);
  if (stored == kNsrmUnset) {
    property_set(kNsrmProperty, "3");
    return true;
  }
  if (info->featureStatus == 2) return stored == 2 || stored == 3;
  if (info->featureStatus == 3) return stored == 3;
  return false;
}

void NoxDsm::handleGetFeatureEvent(NoxFeatureInfoType* info) {
  if (info == nullptr) return;
  if (info->featureId == NOX_FEATURE_NSRM) {
    info->featureStatus = 3;
    if (!getFeatureStatus(info)) {
      info->featureStatus = 2;
      if (!getFeatureStatus(info)) info->featureStatus = 1;
    }
  } else {
    info->featureStatus = getFeatureStatus(info) ? 2 : 1;
  }
  sendToClient(NOX_S_RSP_GET_FEATURE_STATUS, *info);
}

void NoxDsm::setFeatureStatus(NoxFeatureInfoType* info) {
  if (info == nullptr) return;
  NoxFeatureRespType resp = {info->featureId, info->featureStatus, NOX_RET_NOT_ALLOWED_NOW};
  if (info->featureId == NOX_FEATURE_NSRM) {
    if (!nsrmEnabled) {
      resp.featureStatus = 1;
      resp.resultCode = kResultOk;
    } else if (info->featureStatus >= 1 && info->featureStatus <= 3) {
      char value[PROPERTY_VALUE_MAX];
      snprintf(value, sizeof(value), "%d", info->featureStatus);
      property_set(kNsrmProperty, value);
      resp.resultCode = kResultOk;
      NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_DSM, "Release required for nsrmStatus %d",
              info->featureStatus);
      dispatcher.dispatchEvent(NOX_DSM_NSRM_STATUS_CHANGE_EVENT, &info->featureStatus);
    }
  }
  sendToClient(NOX_S_RESP_SET_FEATURE_PREF, resp);
}

_WlanInfo NoxDsm::getWlanInfo() const { return wlanInfo; }

_NoxDsmWwanInfoType NoxDsm::getWwanInfo(const char* iface) const {
  if (iface != nullptr) {
    const auto it = wwanIfaceMap.find(NoxDsmText::ifaceKey(iface));
    if (it != wwanIfaceMap.end()) return it->second;
  }
  return _NoxDsmWwanInfoType();
}

_NoxDsmWwanInfoType NoxDsm::getWwanInfo(NoxApnType) const { return _NoxDsmWwanInfoType(); }

NoxDsmWwanIfaceMap NoxDsm::getAllWwanInfo() const { return wwanIfaceMap; }

NoxDsmAppInfoMap& NoxDsm::GetAppInfoMap() { return appInfoMap; }

int NoxDsm::netlinkFd() const { return nlSocket->fd; }

void NoxDsm::dispatchWwanEvent(const char* ifName) {
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_DSM, "dispatch NOX_DSM_WWAN_INTERFACE_STATUS_CHANGE_EVENT");
  _NoxDsmWwanIfaceInfoType event;
  memset(&event, 0, sizeof(event));
  const auto it = wwanIfaceMap.find(NoxDsmText::ifaceKey(ifName));
  if (it != wwanIfaceMap.end()) {
    event.status = it->second.state;
    NoxDsmText::copy(event.ipAddrV6, it->second.ipAddrV6, NOX_IP_ADDR_SIZE);
    NoxDsmText::copy(event.ipAddr, it->second.ipAddr, NOX_IP_ADDR_SIZE);
  } else {
    event.status = NOX_NW_STATE_DISCONNECTED;
  }
  NoxDsmText::copy(event.ifaceName, ifName, NOX_IFACE_NAME_SIZE, NOX_IFACE_NAME_SIZE);
  dispatcher.dispatchEvent(NOX_DSM_WWAN_INTERFACE_STATUS_CHANGE_EVENT, &event);
}

void NoxDsm::dispatchApnEvent(const char* ifName) {
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_DSM, "dispatch NOX_DSM_WWAN_APN_STATUS_CHANGE_EVENT");
  const auto it = wwanIfaceMap.find(NoxDsmText::ifaceKey(ifName));
  if (it == wwanIfaceMap.end()) return;
  const _NoxDsmWwanInfoType& entry = it->second;
  _NoxDsmWwanApnInfoType event;
  memset(&event, 0, sizeof(event));
  event.state = NOX_NW_STATE_UNKNOWN;
  event.apn = kNoApn;
  event.nwType = -1;
  // Deliberately walks the whole list: only the last APN survives, which subscribers
  // take as the interface's current one.
  for (NoxApnType apn : entry.apnList) {
    event.type = entry.type;
    event.state = entry.state;
    event.apn = apn;
    event.nwType = entry.nwType;
    // Bound 16: an IPv4 text never needs more.
    NoxDsmText::copy(event.ipAddr, entry.ipAddr, NOX_IFACE_NAME_SIZE);
    NoxDsmText::copy(event.iface, entry.iface, NOX_IFACE_NAME_SIZE);
    NoxDsmText::copy(event.ipAddrV6, entry.ipAddrV6, NOX_IP_ADDR_SIZE);
    NoxDsmText::copy(event.ifaceV6, entry.ifaceV6, NOX_IFACE_NAME_SIZE);
    NoxDsmText::copy(event.mccMnc, entry.mccMnc, NOX_MCCMNC_SIZE);
  }
  dispatcher.dispatchEvent(NOX_DSM_WWAN_APN_STATUS_CHANGE_EVENT, &event);
}
