#ifndef NOX_CTMGR_H
#define NOX_CTMGR_H

// The power-save filter sample plug-in (connection-tracking slot, libnoxctmgr.so,
// entry "init_ct_mgr"): while the screen is off, the modem drops downlink packets that
// no installed filter allows instead of waking the radio for them. When the screen
// goes off, it installs the filters of its allow list on every connected interface
// and switches the filter mode on; when the screen comes on, it switches the mode off
// and clears the filters. An interface that connects while the screen is off gets
// them too. It follows the filtering status of the interfaces it has seen connected
// and logs every change ("CTMGR").
//
// Screen values: the framework stores the inverse of the integer its client sends.
// This sample assumes the client sends 1 for on and 0 for off, so a stored 0 is on and
// a stored 1 is off, which matches the framework's start value (screen on). Tethering
// plays no part here.
//
// Settings, in a tagged file (default /system/vendor/etc/noxctmgr.conf, on the host
// $NOX_CTMGR_CONFIG):
//   allow_v4:tcp/5228 udp/53   downlink IPv4 packets from these remote ports pass
//   allow_v6:tcp/5228          the same for IPv6
// Entries are PROTO/PORT with PROTO tcp or udp, separated by blanks or commas. A
// missing file gives the defaults (push messaging, tcp/5228 to 5230, both families);
// a bad entry is logged and skipped.
//
// To start a plug-in of your own, copy this folder or the dormancy sample's; the
// comment at the top of NoxFdMgr.h says what to keep. Everything runs on the daemon's
// loop thread.

#include <list>
#include <set>
#include <string>

#include "Nox.h"

class NoxCtMgr {
 public:
  explicit NoxCtMgr(Nox& nox);
  // Withdraws the subscriptions; filters stay as they are on the modem.
  ~NoxCtMgr();
  NoxCtMgr(const NoxCtMgr&) = delete;
  NoxCtMgr& operator=(const NoxCtMgr&) = delete;

 private:
  static void onDsmEvent(NoxDsmEvent event, const void* data, void* self);
  static void onFilteringChange(NoxTovDfsEventType event, const void* info, void* self);

  void readSettings();
  // Parses an allow list into filters of `family` (2 or 10); false if an entry was bad.
  bool parseAllowList(const char* tag, const std::string& text, uint16_t family,
                      std::list<NoxConnTrackFilter_s>& out);
  void install(const std::string& iface);
  void uninstall(const std::string& iface);
  void follow(const std::string& iface);

  Nox& nox_;
  std::list<NoxConnTrackFilter_s> v4Filters_;
  std::list<NoxConnTrackFilter_s> v6Filters_;
  std::set<std::string> followed_;
  std::set<std::string> installed_;
};

#endif  // NOX_CTMGR_H
