#ifndef NOX_CTMGR_H
#define NOX_CTMGR_H

// The power-save filter sample plug-in (connection-tracking slot, libnoxctmgr.so,
// entry "init_ct_mgr"): while the screen is off, the modem drops downlink packets that
// no installed filter allows instead of waking the radio for them. Tethering on counts
// as screen on: the tethered devices' packets are not the phone's to drop. Uplink
// traffic ends the filter mode (the modem's auto-exit, which lets the answers in); it
// goes back on reenter_ms later. Every change is logged ("CTMGR").
//
// How it decides, and what to keep when you copy it: the policy is a reconciler, not a
// script. Per interface and IP family it keeps what it WANTS (filter mode on with the
// family's allow list while the screen and tethering are off, else mode off and no
// filters) and what the modem HAS (the mode read back from the modem, the filters known
// from acknowledged answers of the family's current client). One function brings has to
// want, on every trigger: a screen or tethering change, a connect or reconnect, a
// filtering indication, the plug-in's start, a retry timer. Its steps are idempotent:
//   - filter mode goes on for a family only after that family's allow list was removed,
//     installed and acknowledged; a family with an empty or refused allow list is never
//     filtered;
//   - to change the filters the mode goes off first; repeating the steps never adds
//     rules, since the modem's old filters are removed before each install;
//   - a new client (reconnect, restart) means the filters are unknown: they are removed
//     and installed again;
//   - a failed request is retried after retry_ms, doubling, six times; the log says what
//     is true now;
//   - when a family can't reach its wanted state, it is left in the safe state (filter
//     mode off), and a warning says so.
// `noxctl dump` shows both columns per interface and family.
//
// Settings, in a tagged file (default /system/vendor/etc/noxctmgr.conf, on the host
// $NOX_CTMGR_CONFIG):
//   allow_v4:tcp/5228 udp/53   downlink IPv4 packets from these remote ports pass
//   allow_v6:tcp/5228          the same for IPv6
//   reenter_ms:3000            how long the filter mode stays off after uplink traffic
//                              ended it
//   retry_ms:1000              first delay before a failed request is tried again
// Entries are PROTO/PORT with PROTO tcp or udp, separated by blanks or commas. A
// missing file gives the defaults (push messaging, tcp/5228 to 5230, both families,
// 3000 ms and 1000 ms); a bad entry or value is logged and skipped. The settings
// parser reads lines of up to 255 characters: a longer allow list is refused whole,
// and its family is not filtered, rather than installing a cut rule.
//
// To start a plug-in of your own, copy this folder or the dormancy sample's; the
// comment at the top of NoxFdMgr.h says what to keep. Everything runs on the daemon's
// loop thread.

#include <list>
#include <map>
#include <string>

#include "NoxPlugin.h"

class NoxCtMgr {
 public:
  explicit NoxCtMgr(Nox& nox);
  // Withdraws the subscriptions and timers and leaves the modem's ports unfiltered (the
  // safe state): nobody would switch the filter mode off at the next screen on.
  ~NoxCtMgr();
  NoxCtMgr(const NoxCtMgr&) = delete;
  NoxCtMgr& operator=(const NoxCtMgr&) = delete;

  // Writes what the policy wants and what the modem has, per interface and family.
  void dump() const;

 private:
  enum class Known { kUnknown, kNo, kYes };
  struct Family {
    int family;           // 4 or 6
    uint64_t client = 0;  // the client whose answers taught what follows
    Known rules = Known::kUnknown;  // the allow list is installed
    Known mode = Known::kUnknown;   // filter mode is on
    bool onByUs = false;  // switched on by us and not seen off since
  };
  struct Port {
    NoxCtMgr* mgr;
    std::string iface;
    Family v4{4};
    Family v6{6};
    bool followed = false;
    bool followedDormancy = false;
    int retries = 0;        // failed reconciles in a row
    int retryTimer = -1;
    long long reenterAt = 0;  // boot-clock ms before which the mode stays off (auto-exit)
    int reenterTimer = -1;
    bool reconciling = false;  // a status callback from within reconcile() waits for it
    bool again = false;        // and has it run once more
  };

  static void onDsmEvent(NoxDsmEvent event, const void* data, void* self);
  static void onFilteringChange(NoxTovDfsEventType event, const void* info, void* self);
  static void onDormancyChange(NoxTovWdsEventType event, const void* info, void* self);
  static int onRetry(void* port);
  static int onReenter(void* port);

  void readSettings();
  // Parses an allow list into filters of `family` (2 or 10); false if an entry was bad.
  bool parseAllowList(const char* tag, const std::string& text, uint16_t family,
                      std::list<NoxConnTrackFilter_s>& out);
  // Screen off and tethering off.
  bool filtering() const;
  bool wantsOn(const Family& f) const;
  const std::list<NoxConnTrackFilter_s>& allowList(const Family& f) const;
  Port& port(const std::string& iface);
  void follow(Port& p);
  // Brings the port's families to what the policy wants; schedules a retry when a
  // request failed.
  void reconcile(Port& p);
  // One family; false when a request failed.
  bool reconcile(Port& p, Family& f);
  void cancelTimers(Port& p);
  // A status of the port changed: reconcile it, or once more when a pass is running.
  void lookAgain(const std::string& iface);
  // Filter mode stays off until reenter_ms from now (uplink traffic ended it).
  void armReenter(Port& p);

  Nox& nox_;
  std::list<NoxConnTrackFilter_s> v4Filters_;
  std::list<NoxConnTrackFilter_s> v6Filters_;
  std::map<std::string, Port> ports_;
  long long reenterMs_ = 3000;
  long long retryMs_ = 1000;
};

#endif  // NOX_CTMGR_H
