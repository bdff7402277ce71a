#ifndef NOX_CTMGR_H
#define NOX_CTMGR_H

// The power-save filter sample plug-in (connection-tracking slot, libnoxctmgr.so,
// entry "init_ct_mgr"): while the screen is off, the modem drops downlink packets that
// no installed filter allows instead of waking the radio for them. When the screen
// goes off, it installs the filters of its allow list on every connected interface
// and switches the filter mode on; when the screen comes on, it switches the mode off
// and clears the filters. Tethering on counts as screen on: the tethered devices'
// packets are not the phone's to drop. An interface that connects while the screen is
// off gets the filters too. Uplink traffic ends the filter mode (the modem's auto-exit,
// which lets the answers in); it goes back on a few seconds later. It follows the
// filtering status of the interfaces it has seen connected and logs every change
// ("CTMGR").
//
// Settings, in a tagged file (default /system/vendor/etc/noxctmgr.conf, on the host
// $NOX_CTMGR_CONFIG):
//   allow_v4:tcp/5228 udp/53   downlink IPv4 packets from these remote ports pass
//   allow_v6:tcp/5228          the same for IPv6
//   reenter_ms:3000            how long the filter mode stays off after uplink traffic
//                              ended it
// Entries are PROTO/PORT with PROTO tcp or udp, separated by blanks or commas. A
// missing file gives the defaults (push messaging, tcp/5228 to 5230, both families,
// and 3000 ms); a bad entry or value is logged and skipped.
//
// To start a plug-in of your own, copy this folder or the dormancy sample's; the
// comment at the top of NoxFdMgr.h says what to keep. Everything runs on the daemon's
// loop thread.

#include <list>
#include <set>
#include <string>

#include "NoxPlugin.h"

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
  static int onReenter(void* self);

  void readSettings();
  // Parses an allow list into filters of `family` (2 or 10); false if an entry was bad.
  bool parseAllowList(const char* tag, const std::string& text, uint16_t family,
                      std::list<NoxConnTrackFilter_s>& out);
  // Screen off and tethering off.
  bool filtering() const;
  void install(const std::string& iface);
  void uninstall(const std::string& iface);
  void follow(const std::string& iface);

  Nox& nox_;
  std::list<NoxConnTrackFilter_s> v4Filters_;
  std::list<NoxConnTrackFilter_s> v6Filters_;
  std::set<std::string> followed_;
  std::set<std::string> installed_;
  std::set<std::string> exited_;  // installed, but their filter mode went off by itself
  long long reenterMs_ = 3000;
  int timerId_ = -1;  // the filter mode goes back on on the exited interfaces
};

#endif  // NOX_CTMGR_H
