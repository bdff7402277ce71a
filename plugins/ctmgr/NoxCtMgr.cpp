#include "NoxCtMgr.h"

#include <arpa/inet.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>

#include "NoxLog.h"

namespace {

const char kDefaultConfig[] = "/system/vendor/etc/noxctmgr.conf";
const char kDefaultAllowList[] = "tcp/5228 tcp/5229 tcp/5230";
enum Tag { kAllowV4, kAllowV6, kReenter };
const NoxDsmEvent kEvents[] = {NOX_DSM_SCREEN_STATE_CHANGE_EVENT,
                               NOX_DSM_TETHERING_STATE_CHANGE_EVENT,
                               NOX_DSM_WWAN_INTERFACE_STATUS_CHANGE_EVENT};
constexpr int kProtoTcp = 6;
constexpr int kProtoUdp = 17;
constexpr long long kMaxReenterMs = 3600000;

std::unique_ptr<NoxCtMgr> gInstance;

const char* filteringText(int status) {
  return status == 0 ? "on" : status == 1 ? "off" : "unknown";
}

}  // namespace

NOX_PLUGIN_DECLARE_INTERFACE_VERSION();

extern "C" void init_ct_mgr(Nox* nox) { gInstance.reset(new NoxCtMgr(*nox)); }

extern "C" void nox_plugin_stop(Nox*) { gInstance.reset(); }

NoxCtMgr::NoxCtMgr(Nox& nox) : nox_(nox) {
  readSettings();
  for (NoxDsmEvent e : kEvents) nox_.dsm.dispatcher.regEventCallback(e, onDsmEvent, this);
  for (const auto& entry : nox_.dsm.getAllWwanInfo())
    if (entry.second.state == NOX_NW_STATE_CONNECTED) follow(entry.first);
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_CTMGR,
          "power-save filter policy ready: %zu IPv4 and %zu IPv6 filters while the screen is off",
          v4Filters_.size(), v6Filters_.size());
}

NoxCtMgr::~NoxCtMgr() {
  if (timerId_ != -1) nox_.timer.removeTimedCallback(timerId_);
  for (NoxDsmEvent e : kEvents) nox_.dsm.dispatcher.deregEventCallback(e, onDsmEvent, this);
  for (const std::string& iface : followed_)
    nox_.tov.deRegFilteringStatusChgEvent(iface, onFilteringChange, this);
}

void NoxCtMgr::readSettings() {
  const char* path = getenv("NOX_CTMGR_CONFIG");
  NoxConfigParseControl control;
  control.fileName = path != nullptr && *path != '\0' ? path : kDefaultConfig;
  control.tags = {{"allow_v4", kAllowV4}, {"allow_v6", kAllowV6}, {"reenter_ms", kReenter}};
  std::map<int, std::string> values;
  if (nox_.config.parseConfigFile(control, values) != NOX_RET_OK)
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_CTMGR, "no settings in %s, using the defaults",
            control.fileName.c_str());
  auto text = [&](Tag tag) {
    const auto it = values.find(tag);
    return it != values.end() ? it->second : std::string(kDefaultAllowList);
  };
  parseAllowList("allow_v4", text(kAllowV4), AF_INET, v4Filters_);
  parseAllowList("allow_v6", text(kAllowV6), AF_INET6, v6Filters_);
  const auto it = values.find(kReenter);
  if (it == values.end()) return;
  char* end = nullptr;
  const long long ms = strtoll(it->second.c_str(), &end, 10);
  // The parser keeps the line's newline: only blanks may follow the number.
  if (end == it->second.c_str() || strspn(end, " \t\r\n") != strlen(end) || ms < 0 ||
      ms > kMaxReenterMs) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_CTMGR,
            "%s: reenter_ms is not 0 to %lld milliseconds, keeping %lld", control.fileName.c_str(),
            kMaxReenterMs, reenterMs_);
    return;
  }
  reenterMs_ = ms;
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

void NoxCtMgr::onDsmEvent(NoxDsmEvent event, const void* data, void* self) {
  NoxCtMgr* mgr = static_cast<NoxCtMgr*>(self);
  const bool filtering = mgr->filtering();
  if (event == NOX_DSM_WWAN_INTERFACE_STATUS_CHANGE_EVENT) {
    const auto* info = static_cast<const _NoxDsmWwanIfaceInfoType*>(data);
    const std::string iface(info->ifaceName, strnlen(info->ifaceName, sizeof(info->ifaceName)));
    if (info->status != NOX_NW_STATE_CONNECTED) {
      mgr->installed_.erase(iface);  // its modem clients are gone, and their filters with them
      mgr->exited_.erase(iface);
      return;
    }
    mgr->follow(iface);
    if (filtering) mgr->install(iface);
    return;
  }
  for (const auto& entry : mgr->nox_.dsm.getAllWwanInfo()) {
    if (entry.second.state != NOX_NW_STATE_CONNECTED) continue;
    if (filtering)
      mgr->install(entry.first);
    else
      mgr->uninstall(entry.first);
  }
}

void NoxCtMgr::install(const std::string& iface) {
  if (installed_.count(iface) != 0) return;
  const int rc = nox_.tov.addDfsFilters(iface, v4Filters_, v6Filters_);
  nox_.tov.setDfsFilterMode(iface, true);
  installed_.insert(iface);
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_CTMGR, "screen off: %s filters on %s (%zu IPv4, %zu IPv6), filter mode on",
          rc == 1 ? "installed" : "could not install", iface.c_str(), v4Filters_.size(),
          v6Filters_.size());
}

void NoxCtMgr::uninstall(const std::string& iface) {
  exited_.erase(iface);
  if (installed_.erase(iface) == 0) return;
  nox_.tov.setDfsFilterMode(iface, false);
  nox_.tov.clearAllDfsFilters(iface);
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_CTMGR,
          "screen or tethering on: filter mode off and filters cleared on %s", iface.c_str());
}

void NoxCtMgr::follow(const std::string& iface) {
  if (followed_.count(iface) != 0) return;
  if (nox_.tov.regFilteringStatusChgEvent(iface, onFilteringChange, this) != 0) return;
  followed_.insert(iface);
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_CTMGR, "following the filtering status of %s", iface.c_str());
}

void NoxCtMgr::onFilteringChange(NoxTovDfsEventType, const void* data, void* self) {
  NoxCtMgr* mgr = static_cast<NoxCtMgr*>(self);
  const auto* info = static_cast<const NoxTovStatusChgInfo*>(data);
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_CTMGR, "filtering on %s is now %s", info->iface.c_str(),
          filteringText(info->status));
  // Off while our filters are installed: the modem's auto-exit, not a request of ours.
  if (info->status != 1 || mgr->installed_.count(info->iface) == 0) return;
  mgr->exited_.insert(info->iface);
  if (mgr->timerId_ == -1)
    mgr->timerId_ = mgr->nox_.timer.addTimedCallback(mgr->reenterMs_, onReenter, mgr);
}

int NoxCtMgr::onReenter(void* self) {
  NoxCtMgr* mgr = static_cast<NoxCtMgr*>(self);
  mgr->timerId_ = -1;
  for (const std::string& iface : mgr->exited_) {
    if (mgr->installed_.count(iface) == 0) continue;
    mgr->nox_.tov.setDfsFilterMode(iface, true);
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_CTMGR, "%s: filter mode on again after uplink traffic",
            iface.c_str());
  }
  mgr->exited_.clear();
  return -1;
}
