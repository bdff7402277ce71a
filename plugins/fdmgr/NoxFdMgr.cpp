#include "NoxFdMgr.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "NoxLog.h"

namespace {

const char kDefaultConfig[] = "/system/vendor/etc/noxfdmgr.conf";
enum Tag { kGracePeriod, kActiveGrace };
const NoxDsmEvent kEvents[] = {NOX_DSM_SCREEN_STATE_CHANGE_EVENT,
                               NOX_DSM_TETHERING_STATE_CHANGE_EVENT,
                               NOX_DSM_WWAN_INTERFACE_STATUS_CHANGE_EVENT};
constexpr long long kMaxGraceMs = 3600000;

// The one instance; unloading the plug-in destroys it.
std::unique_ptr<NoxFdMgr> gInstance;

const char* dormancyText(int status) {
  return status == 0 ? "dormant" : status == 1 ? "active" : "unknown";
}

// Takes the setting `name` into `ms` when it is 0 to kMaxGraceMs; logs and keeps `ms`
// otherwise.
void readMs(const std::string& file, const std::map<int, std::string>& values, Tag tag,
            const char* name, long long& ms) {
  const auto it = values.find(tag);
  if (it == values.end()) return;
  char* end = nullptr;
  const long long v = strtoll(it->second.c_str(), &end, 10);
  // The parser keeps the line's newline: only blanks may follow the number.
  const bool blanksOnly = end != it->second.c_str() && strspn(end, " \t\r\n") == strlen(end);
  if (!blanksOnly || v < 0 || v > kMaxGraceMs) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_FDMGR,
            "%s: %s '%.*s' is not 0 to %lld milliseconds, keeping %lld", file.c_str(), name,
            static_cast<int>(strcspn(it->second.c_str(), "\n")), it->second.c_str(), kMaxGraceMs,
            ms);
    return;
  }
  ms = v;
}

}  // namespace

NOX_PLUGIN_DECLARE_INTERFACE_VERSION();

extern "C" void init_fd_mgr(Nox* nox) { gInstance.reset(new NoxFdMgr(*nox)); }

extern "C" void nox_plugin_stop(Nox*) { gInstance.reset(); }

NoxFdMgr::NoxFdMgr(Nox& nox) : nox_(nox) {
  readSettings();
  for (NoxDsmEvent e : kEvents) nox_.dsm.dispatcher.regEventCallback(e, onDsmEvent, this);
  // Interfaces connected before the plug-in was loaded.
  for (const auto& entry : nox_.dsm.getAllWwanInfo())
    if (entry.second.state == NOX_NW_STATE_CONNECTED) follow(entry.first);
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_FDMGR,
          "dormancy policy ready: dormant %lld ms after screen off, %lld ms after traffic",
          graceMs_, activeGraceMs_);
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
  control.tags = {{"grace_period_ms", kGracePeriod}, {"active_grace_ms", kActiveGrace}};
  std::map<int, std::string> values;
  if (nox_.config.parseConfigFile(control, values) != NOX_RET_OK) {
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_FDMGR, "no settings in %s, using the defaults",
            control.fileName.c_str());
    return;
  }
  readMs(control.fileName, values, kGracePeriod, "grace_period_ms", graceMs_);
  readMs(control.fileName, values, kActiveGrace, "active_grace_ms", activeGraceMs_);
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

bool NoxFdMgr::screenAndTetheringOff() const {
  return nox_.dsm.getScreenState() == NOX_SCREEN_OFF &&
         nox_.dsm.getTetheringState() == NOX_TETHERING_OFF;
}

void NoxFdMgr::decide() {
  if (screenAndTetheringOff()) {
    if (timerId_ != -1) return;
    timerId_ = nox_.timer.addTimedCallback(graceMs_, onGraceOver, this);
    afterTraffic_ = false;
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
  if (mgr->afterTraffic_)
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_FDMGR, "active for %lld ms: asking the modem to go dormant again",
            mgr->activeGraceMs_);
  else
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

void NoxFdMgr::onDormancyChange(NoxTovWdsEventType, const void* data, void* self) {
  NoxFdMgr* mgr = static_cast<NoxFdMgr*>(self);
  const auto* info = static_cast<const NoxTovStatusChgInfo*>(data);
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_FDMGR, "%s is now %s", info->iface.c_str(),
          dormancyText(info->status));
  // Traffic woke the link while nobody looks: it gets a short grace, not the network's
  // inactivity timer. A pending request keeps its own time.
  if (info->status != 1 || mgr->timerId_ != -1 || !mgr->screenAndTetheringOff()) return;
  mgr->timerId_ = mgr->nox_.timer.addTimedCallback(mgr->activeGraceMs_, onGraceOver, mgr);
  mgr->afterTraffic_ = true;
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_FDMGR, "screen off, tethering off: dormant again in %lld ms",
          mgr->activeGraceMs_);
}
