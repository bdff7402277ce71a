#include "NoxCtMgr.h"

#include <arpa/inet.h>
#include <time.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>

#include "NoxLog.h"

namespace {

const char kDefaultConfig[] = "/system/vendor/etc/noxctmgr.conf";
const char kDefaultAllowList[] = "tcp/5228 tcp/5229 tcp/5230";
enum Tag { kAllowV4, kAllowV6, kReenter, kRetry };
const NoxDsmEvent kEvents[] = {NOX_DSM_SCREEN_STATE_CHANGE_EVENT,
                               NOX_DSM_TETHERING_STATE_CHANGE_EVENT,
                               NOX_DSM_WWAN_INTERFACE_STATUS_CHANGE_EVENT};
constexpr int kProtoTcp = 6;
constexpr int kProtoUdp = 17;
constexpr long long kMaxMs = 3600000;
constexpr int kMaxRetries = 6;
// The settings parser hands a longer line over in pieces.
constexpr size_t kMaxLine = 256;

std::unique_ptr<NoxCtMgr> gInstance;

const char* filteringText(int status) {
  return status == 0 ? "on" : status == 1 ? "off" : "unknown";
}

long long bootMs() {
  timespec ts;
  clock_gettime(CLOCK_BOOTTIME, &ts);
  return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

// Takes the setting into `ms` when it is 0 to kMaxMs; logs and keeps `ms` otherwise.
void readMs(const std::string& file, const std::map<int, std::string>& values, Tag tag,
            const char* name, long long& ms) {
  const auto it = values.find(tag);
  if (it == values.end()) return;
  char* end = nullptr;
  const long long v = strtoll(it->second.c_str(), &end, 10);
  // The parser keeps the line's newline: only blanks may follow the number.
  if (end == it->second.c_str() || strspn(end, " \t\r\n") != strlen(end) || v < 0 || v > kMaxMs) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_CTMGR, "%s: %s is not 0 to %lld milliseconds, keeping %lld",
            file.c_str(), name, kMaxMs, ms);
    return;
  }
  ms = v;
}

}  // namespace

NOX_PLUGIN_DECLARE_INTERFACE_VERSION();

extern "C" void init_ct_mgr(Nox* nox) { gInstance.reset(new NoxCtMgr(*nox)); }

extern "C" void nox_plugin_stop(Nox*) { gInstance.reset(); }

extern "C" void nox_plugin_dump(Nox*) {
  if (gInstance) gInstance->dump();
}

NoxCtMgr::NoxCtMgr(Nox& nox) : nox_(nox) {
  readSettings();
  for (NoxDsmEvent e : kEvents) nox_.dsm.dispatcher.regEventCallback(e, onDsmEvent, this);
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_CTMGR,
          "power-save filter policy ready: %zu IPv4 and %zu IPv6 filters while the screen is off",
          v4Filters_.size(), v6Filters_.size());
  // What the modem has after a restart of the daemon is unknown: brought to the policy now.
  for (const auto& entry : nox_.dsm.getAllWwanInfo())
    if (entry.second.state == NOX_NW_STATE_CONNECTED) reconcile(port(entry.first));
}

NoxCtMgr::~NoxCtMgr() {
  for (NoxDsmEvent e : kEvents) nox_.dsm.dispatcher.deregEventCallback(e, onDsmEvent, this);
  for (auto& entry : ports_) {
    cancelTimers(entry.second);
    if (entry.second.followed)
      nox_.tov.deRegFilteringStatusChgEvent(entry.first, onFilteringChange, this);
    if (entry.second.followedDormancy)
      nox_.tov.deRegDormancyStatusChgEvent(entry.first, onDormancyChange, this);
    // Nobody would switch the filters off at screen on: leave the safe state.
    for (int family : {4, 6}) {
      nox_.tov.setFamilyFilterMode(entry.first, family, false);
      nox_.tov.clearFamilyFilters(entry.first, family);
    }
  }
}

void NoxCtMgr::readSettings() {
  const char* path = getenv("NOX_CTMGR_CONFIG");
  NoxConfigParseControl control;
  control.fileName = path != nullptr && *path != '\0' ? path : kDefaultConfig;
  control.tags = {{"allow_v4", kAllowV4},
                  {"allow_v6", kAllowV6},
                  {"reenter_ms", kReenter},
                  {"retry_ms", kRetry}};
  std::map<int, std::string> values;
  if (nox_.config.parseConfigFile(control, values) != NOX_RET_OK)
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_CTMGR, "no settings in %s, using the defaults",
            control.fileName.c_str());
  auto list = [&](Tag tag, const char* name, uint16_t family, std::list<NoxConnTrackFilter_s>& out) {
    const auto it = values.find(tag);
    if (it == values.end()) {
      parseAllowList(name, kDefaultAllowList, family, out);
      return;
    }
    // A piece of a longer line ends without its newline: a cut list could install a cut
    // port (tcp/44 for tcp/44321), so none of it is taken.
    const std::string& v = it->second;
    if ((v.empty() || v.back() != '\n') && strlen(name) + 1 + v.size() >= kMaxLine - 1) {
      NOX_LOG(NOX_LOG_ERROR, NOX_MOD_CTMGR,
              "%s: %s is longer than %zu characters: refused, %s is not filtered",
              control.fileName.c_str(), name, kMaxLine - 1, family == AF_INET ? "IPv4" : "IPv6");
      return;
    }
    parseAllowList(name, v, family, out);
  };
  list(kAllowV4, "allow_v4", AF_INET, v4Filters_);
  list(kAllowV6, "allow_v6", AF_INET6, v6Filters_);
  readMs(control.fileName, values, kReenter, "reenter_ms", reenterMs_);
  readMs(control.fileName, values, kRetry, "retry_ms", retryMs_);
}

bool NoxCtMgr::parseAllowList(const char* tag, const std::string& text, uint16_t family,
                              std::list<NoxConnTrackFilter_s>& out) {
  std::string entries = text;
  for (char& c : entries)
    if (c == ',') c = ' ';
  std::istringstream in(entries);
  bool good = true;
  for (std::string entry; in >> entry;) {
    const size_t slash = entry.find('/');
    const std::string proto = entry.substr(0, slash);
    char* end = nullptr;
    const long port = slash == std::string::npos ? 0 : strtol(entry.c_str() + slash + 1, &end, 10);
    if ((proto != "tcp" && proto != "udp") || port < 1 || port > 65535 || *end != '\0') {
      NOX_LOG(NOX_LOG_ERROR, NOX_MOD_CTMGR, "%s: skipping '%s' (want tcp/PORT or udp/PORT)", tag,
              entry.c_str());
      good = false;
      continue;
    }
    NoxConnTrackFilter_s filter = {};
    filter.family = family;
    filter.protocol = proto == "tcp" ? kProtoTcp : kProtoUdp;
    // Downlink packets come from the remote port.
    filter.srcPort = htons(static_cast<uint16_t>(port));
    out.push_back(filter);
  }
  return good;
}

bool NoxCtMgr::filtering() const {
  return nox_.dsm.getScreenState() == NOX_SCREEN_OFF &&
         nox_.dsm.getTetheringState() == NOX_TETHERING_OFF;
}

const std::list<NoxConnTrackFilter_s>& NoxCtMgr::allowList(const Family& f) const {
  return f.family == 4 ? v4Filters_ : v6Filters_;
}

bool NoxCtMgr::wantsOn(const Family& f) const { return filtering() && !allowList(f).empty(); }

NoxCtMgr::Port& NoxCtMgr::port(const std::string& iface) {
  Port& p = ports_.emplace(iface, Port{this, iface}).first->second;
  follow(p);
  return p;
}

void NoxCtMgr::follow(Port& p) {
  // A registration that has to create the port tracker is not stored: only subscribe
  // once the framework has the interface's tracker, else at its next connect.
  if (!p.followed && nox_.tov.dfsPortTrackers().count(p.iface) != 0 &&
      nox_.tov.regFilteringStatusChgEvent(p.iface, onFilteringChange, this) == 0) {
    p.followed = true;
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_CTMGR, "following the filtering status of %s", p.iface.c_str());
  }
  // The port's filtering status is one for both families: while one is off, the other's
  // auto-exit changes nothing there and is not told. The uplink traffic that ends filter
  // mode wakes the link, or it goes dormant soon after: each change is a look at the modes.
  if (!p.followedDormancy && nox_.tov.wdsPortTrackers().count(p.iface) != 0 &&
      nox_.tov.regDormancyStatusChgEvent(p.iface, onDormancyChange, this) == 0)
    p.followedDormancy = true;
}

void NoxCtMgr::onDsmEvent(NoxDsmEvent event, const void* data, void* self) {
  NoxCtMgr* mgr = static_cast<NoxCtMgr*>(self);
  if (event == NOX_DSM_WWAN_INTERFACE_STATUS_CHANGE_EVENT) {
    const auto* info = static_cast<const _NoxDsmWwanIfaceInfoType*>(data);
    mgr->reconcile(
        mgr->port(std::string(info->ifaceName, strnlen(info->ifaceName, sizeof(info->ifaceName)))));
    return;
  }
  for (const auto& entry : mgr->nox_.dsm.getAllWwanInfo()) mgr->port(entry.first);
  for (auto& entry : mgr->ports_) mgr->reconcile(entry.second);
}

void NoxCtMgr::onFilteringChange(NoxTovDfsEventType, const void* data, void* self) {
  const auto* info = static_cast<const NoxTovStatusChgInfo*>(data);
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_CTMGR, "filtering on %s is now %s", info->iface.c_str(),
          filteringText(info->status));
  static_cast<NoxCtMgr*>(self)->lookAgain(info->iface);
}

void NoxCtMgr::onDormancyChange(NoxTovWdsEventType, const void* data, void* self) {
  NoxCtMgr* mgr = static_cast<NoxCtMgr*>(self);
  if (mgr->filtering()) mgr->lookAgain(static_cast<const NoxTovStatusChgInfo*>(data)->iface);
}

void NoxCtMgr::lookAgain(const std::string& iface) {
  const auto it = ports_.find(iface);
  if (it == ports_.end()) return;
  if (it->second.reconciling)
    it->second.again = true;
  else
    reconcile(it->second);
}

void NoxCtMgr::reconcile(Port& p) {
  if (!filtering() && p.reenterTimer != -1) {
    nox_.timer.removeTimedCallback(p.reenterTimer);
    p.reenterTimer = -1;
    p.reenterAt = 0;
  }
  auto on = [](const Family& f) { return f.mode == Known::kYes; };
  const bool v4Was = on(p.v4), v6Was = on(p.v6);
  const bool installedBefore = p.v4.rules == Known::kYes || p.v6.rules == Known::kYes;
  bool ok = true;
  p.reconciling = true;
  // A change seen during a pass (the modem's auto-exit) is looked at by one more pass.
  for (int pass = 0; pass < 3 && (pass == 0 || p.again); ++pass) {
    p.again = false;
    ok = reconcile(p, p.v4);
    ok = reconcile(p, p.v6) && ok;
  }
  p.reconciling = false;
  if ((on(p.v4) && !v4Was) || (on(p.v6) && !v6Was)) {
    if (installedBefore)
      NOX_LOG(NOX_LOG_INFO, NOX_MOD_CTMGR, "%s: filter mode on again after uplink traffic",
              p.iface.c_str());
    else
      NOX_LOG(NOX_LOG_INFO, NOX_MOD_CTMGR,
              "screen off: installed filters on %s (%zu IPv4, %zu IPv6), filter mode on",
              p.iface.c_str(), on(p.v4) ? v4Filters_.size() : 0, on(p.v6) ? v6Filters_.size() : 0);
  } else if (((v4Was && !on(p.v4)) || (v6Was && !on(p.v6))) && !filtering()) {
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_CTMGR,
            "screen or tethering on: filter mode off and filters cleared on %s", p.iface.c_str());
  }
  if (ok) {
    if (p.retries > 0)
      NOX_LOG(NOX_LOG_INFO, NOX_MOD_CTMGR, "%s is as the policy wants again", p.iface.c_str());
    p.retries = 0;
    if (p.retryTimer != -1) nox_.timer.removeTimedCallback(p.retryTimer);
    p.retryTimer = -1;
    return;
  }
  if (p.retryTimer != -1) return;  // a retry is already on its way
  if (p.retries == kMaxRetries) {
    NOX_LOG(NOX_LOG_WARN, NOX_MOD_CTMGR,
            "%s: the modem refused the policy %d times: IPv4 filter mode %s, IPv6 filter mode %s; "
            "waiting for the next event",
            p.iface.c_str(), kMaxRetries + 1, p.v4.mode == Known::kYes ? "on" : "not on",
            p.v6.mode == Known::kYes ? "on" : "not on");
    p.retries = 0;
    return;
  }
  const long long delay = retryMs_ << p.retries++;
  NOX_LOG(NOX_LOG_WARN, NOX_MOD_CTMGR, "%s: a modem request failed; filter mode is %s for IPv4, "
          "%s for IPv6; retry in %lld ms", p.iface.c_str(), p.v4.mode == Known::kYes ? "on" : "off",
          p.v6.mode == Known::kYes ? "on" : "off", delay);
  p.retryTimer = nox_.timer.addTimedCallback(delay, onRetry, &p);
}

bool NoxCtMgr::reconcile(Port& p, Family& f) {
  NoxTov& tov = nox_.tov;
  const uint64_t client = tov.dfsClientId(p.iface, f.family);
  if (client != f.client) {
    // A new client, or none: whatever the modem's port has is unknown.
    f = Family{f.family};
    f.client = client;
  }
  if (client == 0) return true;
  bool on = false;
  if (tov.getFamilyFilterMode(p.iface, f.family, on) == 1) {
    if (!on && f.onByUs && filtering()) {
      // Off without our asking: uplink traffic ended it; back on after reenter_ms.
      armReenter(p);
    }
    f.mode = on ? Known::kYes : Known::kNo;
    f.onByUs = on && f.onByUs;
  } else {
    f.mode = Known::kUnknown;
  }
  auto setMode = [&](bool want) {
    if (tov.setFamilyFilterMode(p.iface, f.family, want) != 1) {
      f.mode = Known::kUnknown;
      return false;
    }
    f.mode = want ? Known::kYes : Known::kNo;
    f.onByUs = want;
    return true;
  };
  if (!wantsOn(f)) {
    if (f.mode != Known::kNo && !setMode(false)) return false;
    if (f.rules != Known::kNo) {
      if (tov.clearFamilyFilters(p.iface, f.family) != 1) return false;
      f.rules = Known::kNo;
    }
    return true;
  }
  if (f.rules != Known::kYes) {
    // The mode stays off while the filters change: never filter with a partial list.
    if (f.mode != Known::kNo && !setMode(false)) return false;
    f.rules = Known::kUnknown;
    if (tov.clearFamilyFilters(p.iface, f.family) != 1) return false;
    f.rules = Known::kNo;
    if (tov.addFamilyFilters(p.iface, f.family, allowList(f)) != 1) {
      f.rules = Known::kUnknown;  // an earlier batch may be in
      return false;
    }
    f.rules = Known::kYes;
  }
  if (f.mode == Known::kYes || bootMs() < p.reenterAt) return true;
  if (!setMode(true)) return false;
  // Uplink traffic may end it again before the port's status is read after the request:
  // then that status did not change and nothing is told. Read the mode back.
  if (tov.getFamilyFilterMode(p.iface, f.family, on) == 1 && !on) {
    f.mode = Known::kNo;
    f.onByUs = false;
    armReenter(p);
  }
  return true;
}

void NoxCtMgr::armReenter(Port& p) {
  p.reenterAt = bootMs() + reenterMs_;
  if (p.reenterTimer != -1) nox_.timer.removeTimedCallback(p.reenterTimer);
  p.reenterTimer = nox_.timer.addTimedCallback(reenterMs_, onReenter, &p);
}

int NoxCtMgr::onRetry(void* data) {
  Port& p = *static_cast<Port*>(data);
  p.retryTimer = -1;
  p.mgr->reconcile(p);
  return -1;
}

int NoxCtMgr::onReenter(void* data) {
  Port& p = *static_cast<Port*>(data);
  p.reenterTimer = -1;
  p.reenterAt = 0;
  p.mgr->reconcile(p);
  return -1;
}

void NoxCtMgr::cancelTimers(Port& p) {
  if (p.retryTimer != -1) nox_.timer.removeTimedCallback(p.retryTimer);
  if (p.reenterTimer != -1) nox_.timer.removeTimedCallback(p.reenterTimer);
  p.retryTimer = p.reenterTimer = -1;
}

void NoxCtMgr::dump() const {
  auto text = [](Known k, const char* yes, const char* no) {
    return k == Known::kYes ? yes : k == Known::kNo ? no : "unknown";
  };
  for (const auto& entry : ports_) {
    for (const Family* f : {&entry.second.v4, &entry.second.v6}) {
      const bool want = wantsOn(*f);
      NOX_LOG(NOX_LOG_INFO, NOX_MOD_CTMGR,
              "  %s IPv%d: wants filter mode %s with %zu filters; modem has %s, filter mode %s, "
              "filters %s%s",
              entry.first.c_str(), f->family, want ? "on" : "off", want ? allowList(*f).size() : 0,
              f->client != 0 ? "a client" : "no client", text(f->mode, "on", "off"),
              text(f->rules, "installed", "none"),
              entry.second.retries > 0 ? " (retrying)" : "");
    }
  }
}
