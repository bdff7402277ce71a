#include "NoxFdMgr.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "NoxLog.h"

namespace {

const char kDefaultConfig[] = "/system/vendor/etc/noxfdmgr.conf";
enum Tag { kGracePeriod };
const NoxDsmEvent kEvents[] = {NOX_DSM_SCREEN_STATE_CHANGE_EVENT,
                               NOX_DSM_TETHERING_STATE_CHANGE_EVENT,
                               NOX_DSM_WWAN_INTERFACE_STATUS_CHANGE_EVENT};
constexpr int32_t kOff = 1;  // stored screen and tethering value for "off"
constexpr long long kMaxGraceMs = 3600000;

// The one instance; unloading the plug-in destroys it.
std::unique_ptr<NoxFdMgr> gInstance;

const char* dormancyText(int status) {
  return status == 0 ? "dormant" : status == 1 ? "active" : "unknown";
}

}  // namespace

extern "C" void init_fd_mgr(Nox* nox) { gInstance.reset(new NoxFdMgr(*nox)); }

NoxFdMgr::NoxFdMgr(Nox& nox) : nox_(nox) {
  readSettings();
  for (NoxDsmEvent e : kEvents) nox_.dsm.dispatcher.regEventCallback(e, onDsmEvent, this);
  // Interfaces connected before the plug-in was loaded.
  for (const auto& entry : nox_.dsm.getAllWwanInfo())
    if (entry.second.state == NOX_NW_STATE_CONNECTED) follow(entry.first);
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_FDMGR, "dormancy policy ready: dormant %lld ms after screen off",
          graceMs_);
  decide();
}

NoxFdMgr::~NoxFdMgr() {
  if (timerId_ != -1) nox_.timer.removeTimedCallback(timerId_);
  for (NoxDsmEvent e : kEvents) nox_.dsm.dispatcher.deregEventCallback(e, onDsmEvent, this);
  for (const std::string& iface : followed_)
    nox_.tov.deRegDormancyStatusChgEvent(iface, onDormancyChange, this);
}

void NoxFdMgr::readSettings() {
  const char* path = getenv("NOX_FDMGR_CONFIG");
  NoxConfigParseControl control;
  control.fileName = path != nullptr && *path != '\0' ? path : kDefaultConfig;
  control.tags = {{"grace_period_ms", kGracePeriod}};
  std::map<int, std::string> values;
  if (nox_.config.parseConfigFile(control, values) != NOX_RET_OK) {
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_FDMGR, "no settings in %s, using the defaults",
            control.fileName.c_str());
    return;
  }
  const auto it = values.find(kGracePeriod);
  if (it == values.end()) return;
  char* end = nullptr;
  const long long ms = strtoll(it->second.c_str(), &end, 10);
  // The parser keeps the line's newline: only blanks may follow the number.
  const bool blanksOnly = end != it->second.c_str() && strspn(end, " \t\r\n") == strlen(end);
  if (!blanksOnly || ms < 0 || ms > kMaxGraceMs) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_FDMGR,
            "%s: grace_period_ms '%.*s' is not 0 to %lld milliseconds, keeping %lld",
            control.fileName.c_str(), static_cast<int>(strcspn(it->second.c_str(), "\n")),
            it->second.c_str(), kMaxGraceMs, graceMs_);
    return;
  }
  graceMs_ = ms;
}

void NoxFdMgr::onDsmEvent(NoxDsmEvent event, const void* data, void* self) {
  NoxFdMgr* mgr = static_cast<NoxFdMgr*>(self);
  if (event == NOX_DSM_WWAN_INTERFACE_STATUS_CHANGE_EVENT) {
    const auto* info = static_cast<const _NoxDsmWwanIfaceInfoType*>(data);
    // The framework's own handler ran first, so the interface's port tracker exists
    // and the subscription is stored.
    if (info->status == NOX_NW_STATE_CONNECTED)
      mgr->follow(std::string(info->ifaceName, strnlen(info->ifaceName, sizeof(info->ifaceName))));
    return;
  }
  mgr->decide();
}

void NoxFdMgr::decide() {
  const bool screenOff = nox_.dsm.getScreenState() == kOff;
  const bool tetheringOff = nox_.dsm.getTetheringState() == kOff;
  if (screenOff && tetheringOff) {
    if (timerId_ != -1) return;
    timerId_ = nox_.timer.addTimedCallback(graceMs_, onGraceOver, this);
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_FDMGR, "screen off, tethering off: dormant in %lld ms", graceMs_);
  } else if (timerId_ != -1) {
    nox_.timer.removeTimedCallback(timerId_);
    timerId_ = -1;
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_FDMGR, "screen or tethering on: dormancy request cancelled");
  }
}

int NoxFdMgr::onGraceOver(void* self) {
  NoxFdMgr* mgr = static_cast<NoxFdMgr*>(self);
  mgr->timerId_ = -1;
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_FDMGR, "screen off for %lld ms: asking the modem to go dormant",
          mgr->graceMs_);
  mgr->nox_.tov.goDormant();
  return -1;
}

void NoxFdMgr::follow(const std::string& iface) {
  if (followed_.count(iface) != 0) return;
  if (nox_.tov.regDormancyStatusChgEvent(iface, onDormancyChange, this) != 0) return;
  followed_.insert(iface);
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_FDMGR, "following the dormancy of %s", iface.c_str());
}

void NoxFdMgr::onDormancyChange(NoxTovWdsEventType, const void* data, void*) {
  const auto* info = static_cast<const NoxTovStatusChgInfo*>(data);
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_FDMGR, "%s is now %s", info->iface.c_str(),
          dormancyText(info->status));
}
