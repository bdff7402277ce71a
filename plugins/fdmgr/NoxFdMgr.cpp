#include "NoxFdMgr.h"

#include <time.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "NoxLog.h"

namespace {

const char kDefaultConfig[] = "/system/vendor/etc/noxfdmgr.conf";
enum Tag { kGracePeriod, kActiveGrace, kRetry, kMinGrace, kMaxGrace, kNetworkTimer, kScreenOnMax };
constexpr int kMaxRetries = 6;
const NoxDsmEvent kEvents[] = {NOX_DSM_SCREEN_STATE_CHANGE_EVENT,
                               NOX_DSM_TETHERING_STATE_CHANGE_EVENT,
                               NOX_DSM_WWAN_INTERFACE_STATUS_CHANGE_EVENT};
constexpr long long kMaxGraceMs = 3600000;

// The one instance; unloading the plug-in destroys it.
std::unique_ptr<NoxFdMgr> gInstance;

long long nowMs() {
  timespec ts = {};
  clock_gettime(CLOCK_BOOTTIME, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

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

extern "C" void nox_plugin_dump(Nox*) {
  if (gInstance) gInstance->dump();
}

NoxFdMgr::NoxFdMgr(Nox& nox) : nox_(nox) {
  readSettings();
  learning_.fallbackMs = activeGraceMs_;  // what the learner uses until it knows better
  for (NoxDsmEvent e : kEvents) nox_.dsm.dispatcher.regEventCallback(e, onDsmEvent, this);
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_FDMGR,
          "dormancy policy ready: dormant %lld ms after screen off, %lld ms after traffic",
          graceMs_, activeGraceMs_);
  // Interfaces connected before the plug-in was loaded.
  for (const auto& entry : nox_.dsm.getAllWwanInfo())
    if (entry.second.state == NOX_NW_STATE_CONNECTED) port(entry.first);
  decide();
}

NoxFdMgr::~NoxFdMgr() {
  for (NoxDsmEvent e : kEvents) nox_.dsm.dispatcher.deregEventCallback(e, onDsmEvent, this);
  for (auto& entry : ports_) {
    cancel(entry.second);
    if (entry.second.followed)
      nox_.tov.deRegDormancyStatusChgEvent(entry.first, onDormancyChange, this);
  }
}

void NoxFdMgr::readSettings() {
  const char* path = getenv("NOX_FDMGR_CONFIG");
  NoxConfigParseControl control;
  control.fileName = path != nullptr && *path != '\0' ? path : kDefaultConfig;
  control.tags = {{"grace_period_ms", kGracePeriod},   {"active_grace_ms", kActiveGrace},
                  {"retry_ms", kRetry},                {"min_grace_ms", kMinGrace},
                  {"max_grace_ms", kMaxGrace},         {"network_timer_ms", kNetworkTimer},
                  {"screen_on_premature_max", kScreenOnMax}};
  std::map<int, std::string> values;
  if (nox_.config.parseConfigFile(control, values) != NOX_RET_OK) {
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_FDMGR, "no settings in %s, using the defaults",
            control.fileName.c_str());
    return;
  }
  readMs(control.fileName, values, kGracePeriod, "grace_period_ms", graceMs_);
  readMs(control.fileName, values, kActiveGrace, "active_grace_ms", activeGraceMs_);
  readMs(control.fileName, values, kRetry, "retry_ms", retryMs_);
  readMs(control.fileName, values, kMinGrace, "min_grace_ms", learning_.floorMs);
  readMs(control.fileName, values, kMaxGrace, "max_grace_ms", learning_.ceilingMs);
  readMs(control.fileName, values, kNetworkTimer, "network_timer_ms", learning_.networkTimerMs);
  long long most = learning_.screenOnPrematureMax;
  readMs(control.fileName, values, kScreenOnMax, "screen_on_premature_max", most);
  learning_.screenOnPrematureMax = static_cast<int>(std::min(most, 1000LL));
  learning_.ceilingMs = std::max(learning_.ceilingMs, learning_.floorMs);
}

bool NoxFdMgr::screenAndTetheringOff() const {
  return nox_.dsm.getScreenState() == NOX_SCREEN_OFF &&
         nox_.dsm.getTetheringState() == NOX_TETHERING_OFF;
}

bool NoxFdMgr::connected(const std::string& iface) const {
  const NoxDsmWwanIfaceMap all = nox_.dsm.getAllWwanInfo();
  const auto it = all.find(iface);
  return it != all.end() && it->second.state == NOX_NW_STATE_CONNECTED;
}

NoxFdMgr::Port& NoxFdMgr::port(const std::string& iface) {
  const auto added = ports_.emplace(iface, Port{this, iface});
  Port& p = added.first->second;
  if (added.second) p.learner = GraceLearner(learning_);
  follow(p);
  return p;
}

void NoxFdMgr::follow(Port& p) {
  // A registration that has to create the port tracker is counted but not stored: only
  // subscribe once the framework has the interface's tracker, else at its next connect.
  if (p.followed || nox_.tov.wdsPortTrackers().count(p.iface) == 0) return;
  if (nox_.tov.regDormancyStatusChgEvent(p.iface, onDormancyChange, this) != 0) return;
  p.followed = true;
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_FDMGR, "following the dormancy of %s", p.iface.c_str());
}

void NoxFdMgr::onDsmEvent(NoxDsmEvent event, const void* data, void* self) {
  NoxFdMgr* mgr = static_cast<NoxFdMgr*>(self);
  if (event != NOX_DSM_WWAN_INTERFACE_STATUS_CHANGE_EVENT) {
    mgr->decide();
    return;
  }
  const auto* info = static_cast<const _NoxDsmWwanIfaceInfoType*>(data);
  Port& p = mgr->port(std::string(info->ifaceName, strnlen(info->ifaceName, sizeof(info->ifaceName))));
  if (info->status != NOX_NW_STATE_CONNECTED) {
    mgr->cancel(p);
  } else if (p.timerId == -1 && mgr->screenAndTetheringOff()) {
    // A link that connects with the screen off is as active as one that traffic woke.
    mgr->arm(p, p.learner.screenOffGraceMs(mgr->activeGraceMs_), true);
  }
}

void NoxFdMgr::decide() {
  const bool off = screenAndTetheringOff();
  for (const auto& entry : nox_.dsm.getAllWwanInfo())
    if (entry.second.state == NOX_NW_STATE_CONNECTED) port(entry.first);
  for (auto& entry : ports_) {
    Port& p = entry.second;
    if (!off) {
      if (p.timerId != -1)
        NOX_LOG(NOX_LOG_INFO, NOX_MOD_FDMGR, "screen or tethering on: dormancy request for %s "
                "cancelled", p.iface.c_str());
      cancel(p);
    } else if (p.timerId == -1 && connected(p.iface)) {
      arm(p, p.learner.screenOffGraceMs(graceMs_), false);
    }
  }
}

void NoxFdMgr::arm(Port& p, long long delayMs, bool afterTraffic) {
  cancel(p);
  p.timerId = nox_.timer.addTimedCallback(delayMs, onGraceOver, &p);
  p.afterTraffic = afterTraffic;
  p.armedMs = delayMs;
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_FDMGR, "screen %s, tethering off: %s dormant %sin %lld ms",
          nox_.dsm.getScreenState() == NOX_SCREEN_OFF ? "off" : "on", p.iface.c_str(),
          afterTraffic ? "again " : "", delayMs);
}

void NoxFdMgr::cancel(Port& p) {
  if (p.timerId != -1) nox_.timer.removeTimedCallback(p.timerId);
  p.timerId = -1;
  p.retries = 0;
}

int NoxFdMgr::onGraceOver(void* data) {
  Port& p = *static_cast<Port*>(data);
  NoxFdMgr* mgr = p.mgr;
  p.timerId = -1;
  // Armed with the screen off, or on by the learner; screen on cancels the former.
  if (mgr->nox_.dsm.getTetheringState() != NOX_TETHERING_OFF || !mgr->connected(p.iface)) return -1;
  if (p.retries > 0)
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_FDMGR, "%s: asking the modem to go dormant again (try %d)",
            p.iface.c_str(), p.retries + 1);
  else if (p.afterTraffic)
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_FDMGR, "%s active for its grace: asking the modem to go "
            "dormant again", p.iface.c_str());
  else
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_FDMGR, "screen off for %lld ms: asking the modem to take %s "
            "dormant", p.armedMs, p.iface.c_str());
  if (mgr->nox_.tov.goDormant(p.iface) == 0) {
    p.retries = 0;
    p.asked = true;
    return -1;
  }
  if (p.retries == kMaxRetries) {
    NOX_LOG(NOX_LOG_WARN, NOX_MOD_FDMGR, "%s: the modem refused to go dormant %d times: the link "
            "stays active until the next event", p.iface.c_str(), kMaxRetries + 1);
    p.retries = 0;
    return -1;
  }
  const long long delay = mgr->retryMs_ << p.retries++;
  NOX_LOG(NOX_LOG_WARN, NOX_MOD_FDMGR, "%s: the modem refused to go dormant, the link is active; "
          "retry in %lld ms", p.iface.c_str(), delay);
  p.timerId = mgr->nox_.timer.addTimedCallback(delay, onGraceOver, &p);
  return -1;
}

void NoxFdMgr::onDormancyChange(NoxTovWdsEventType, const void* data, void* self) {
  NoxFdMgr* mgr = static_cast<NoxFdMgr*>(self);
  const auto* info = static_cast<const NoxTovStatusChgInfo*>(data);
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_FDMGR, "%s is now %s", info->iface.c_str(),
          dormancyText(info->status));
  const auto it = mgr->ports_.find(info->iface);
  if (it == mgr->ports_.end()) return;
  Port& p = it->second;
  const bool screenOn = mgr->nox_.dsm.getScreenState() != NOX_SCREEN_OFF;
  if (info->status == 0) {
    p.learner.dormant(nowMs(), p.asked, screenOn);
    p.asked = false;
    return;
  }
  if (info->status != 1) return;
  // Traffic woke the link: it gets the learnt grace, not the network's inactivity
  // timer. A pending request keeps its own time.
  const long long grace = p.learner.woke(nowMs(), screenOn);
  if (grace < 0 || p.timerId != -1 || mgr->nox_.dsm.getTetheringState() != NOX_TETHERING_OFF) return;
  mgr->arm(p, grace, true);
}

void NoxFdMgr::dump() const {
  const bool off = screenAndTetheringOff();
  for (const auto& entry : ports_) {
    const Port& p = entry.second;
    const char* want = p.timerId != -1 ? (p.retries > 0 ? "dormant (retrying)"
                                                        : "dormant after its grace")
                       : off && connected(p.iface) ? "dormant"
                                                   : "no request";
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_FDMGR, "  %s: wants %s; modem has %s", p.iface.c_str(), want,
            dormancyText(nox_.tov.getDormancyStatus(p.iface)));
  }
}
