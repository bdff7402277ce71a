// The state dump: what the daemon knows, in one block of log lines.

#include <string>

#include "Nox.h"
#include "NoxLog.h"

namespace {

// A line of the block; a macro so that the format is checked.
#define DUMP_LINE(...) NOX_LOG(NOX_LOG_INFO, NOX_MOD_COMMON, __VA_ARGS__)

std::string join(const std::vector<int>& values) {
  std::string out;
  for (int v : values) out += (out.empty() ? "" : " ") + std::to_string(v);
  return out.empty() ? "none" : out;
}

// "v4 v6", "v4", ... for the families that have a tracker.
template <typename Port>
std::string families(const Port& port) {
  std::string out = port.v4Tracker ? "v4" : "";
  if (port.v6Tracker) out += out.empty() ? "v6" : " v6";
  return out.empty() ? "no family" : out;
}

}  // namespace

void Nox::dumpState() {
  DUMP_LINE("noxd state:");
  const int mask = config.featureMask();
  DUMP_LINE("  features: mask 0x%x (descriptor manager %s, connection tracking %s, NSRM %s)", mask,
       mask & 1 ? "on" : "off", mask & 2 ? "on" : "off", mask & 4 ? "on" : "off");
  dumpPlugins();
  DUMP_LINE("  log threshold: %d", NoxLog::logLevel);
  DUMP_LINE("  framework client: fd %d", NoxCom::getNoxClientFd());
  DUMP_LINE("  connected clients: %s", join(com.descriptorsServedBy(processNoxEvent)).c_str());
  const _WlanInfo wlan = dsm.getWlanInfo();
  DUMP_LINE("  WLAN: type %d state %d soft AP %d", wlan.type, wlan.status, wlan.softAp);
  DUMP_LINE("  screen state %d, tethering state %d (stored: 0 for the client's 1, 1 for its 0)",
       dsm.getScreenState(), dsm.getTetheringState());
  for (const auto& entry : dsm.getAllWwanInfo()) {
    const _NoxDsmWwanInfoType& w = entry.second;
    DUMP_LINE("  WWAN %s: state %d type %d nwType %d roaming %d APNs %s IPv4 '%s' on '%s' IPv6 '%s' on '%s'"
         " MCC-MNC '%s'",
         entry.first.c_str(), w.state, w.type, w.nwType, w.roaming, join(w.apnList).c_str(),
         w.ipAddr, w.iface, w.ipAddrV6, w.ifaceV6, w.mccMnc);
  }
  DUMP_LINE("  applications: %zu", dsm.GetAppInfoMap().size());
  DUMP_LINE("  modem library: handle %d", NoxTov::mTovHandle);
  DUMP_LINE("  indications dropped (hand-over queue full): %llu",
            static_cast<unsigned long long>(com.droppedPosts()));
  for (const auto& entry : tov.wdsPortTrackers()) {
    if (!entry.second) continue;
    const WdsPortTracker& p = *entry.second;
    DUMP_LINE("  port %s WDS: %s, dormancy registrations %d, last status %d", entry.first.c_str(),
         families(p).c_str(), p.dormRegRefCnt, p.status);
  }
  for (const auto& entry : tov.dfsPortTrackers()) {
    if (!entry.second) continue;
    const DfsPortTracker& p = *entry.second;
    DUMP_LINE("  port %s DFS: %s, filtering registrations %d, last status %d", entry.first.c_str(),
         families(p).c_str(), p.filterRegRefCnt, p.status);
  }
  DUMP_LINE("end of noxd state");
}

#undef DUMP_LINE
