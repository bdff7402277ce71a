#ifndef NOX_FDMGR_H
#define NOX_FDMGR_H

// The dormancy sample plug-in (descriptor-manager slot, libnoxfdmgr.so, entry
// "init_fd_mgr"): once the screen has been off for a grace period while tethering is
// off, it asks the modem to release the data link (go dormant) on each interface, so
// the radio does not burn its tail energy waiting for the network's inactivity timer.
// While they stay off, traffic that wakes a link again, and a link that connects, gets
// a shorter grace before the next request, learnt per interface and used after the
// screen goes off too (GraceLearner.h says from what, and how it weighs a release with
// the screen on). Screen on or tethering on cancels pending requests; with the screen
// on, traffic that wakes a link gets a release too while the learner finds that it
// pays. With tethering on the link is left to the network: the tethered devices' users
// are not the phone's to see. It follows the dormancy of every interface that connects,
// also after its start, and logs every change ("FDMGR").
//
// How it decides, and what to keep when you copy it: per interface it acts on what the
// modem reports (the dormancy status callbacks), not on what it last asked for. The
// subscription is made once the framework has the interface's port tracker (a
// subscription made before is not stored), so a link that connects later is followed
// too. A refused request is retried after retry_ms, doubling, six times; then the link
// is left active (the safe state) with a warning, until the next event.
//
// Settings, in a tagged file (default /system/vendor/etc/noxfdmgr.conf, on the host
// $NOX_FDMGR_CONFIG):
//   grace_period_ms:5000   how long the screen stays off before the request, until
//                          the learner knows better
//   active_grace_ms:3000   how long a link woken by traffic stays active before the
//                          request again, until the learner knows better
//   min_grace_ms:500       the learnt grace's floor
//   max_grace_ms:8000      and ceiling
//   network_timer_ms:10000 the network's inactivity timer: a release followed by
//                          traffic sooner than this cost an extra promotion
//   screen_on_premature_max:333  per mille of recent screen-on releases that may have
//                          cost one, above which the screen-on releases stop
//   retry_ms:1000          first delay before a refused request is tried again
// A missing file gives the defaults; a bad value is logged and the default kept.
//
// To start a plug-in of your own, copy this folder, rename the class and the entry,
// and keep the shape: the entry builds one object that subscribes on the framework's
// dispatchers, and a static owner that takes everything back when the daemon stops
// (nox_plugin_stop) or the plug-in is unloaded. Everything runs on the daemon's loop thread.

#include <map>
#include <string>

#include "GraceLearner.h"
#include "NoxPlugin.h"

class NoxFdMgr {
 public:
  explicit NoxFdMgr(Nox& nox);
  // Withdraws the subscriptions and the pending request.
  ~NoxFdMgr();
  NoxFdMgr(const NoxFdMgr&) = delete;
  NoxFdMgr& operator=(const NoxFdMgr&) = delete;

  // Writes what the policy wants and what the modem has, per interface.
  void dump() const;

 private:
  struct Port {
    NoxFdMgr* mgr;
    std::string iface;
    bool followed = false;
    int timerId = -1;  // the next dormancy request
    bool afterTraffic = false;  // that request is the short one
    long long armedMs = 0;  // and its delay
    int retries = 0;  // refused requests in a row
    bool asked = false;  // a request the modem took, until the link goes dormant
    GraceLearner learner{GraceLearner::Settings()};
  };

  static void onDsmEvent(NoxDsmEvent event, const void* data, void* self);
  static int onGraceOver(void* port);
  static void onDormancyChange(NoxTovWdsEventType event, const void* info, void* self);

  void readSettings();
  // Arms each connected interface's request when the screen and tethering are off,
  // cancels them otherwise.
  void decide();
  Port& port(const std::string& iface);
  void follow(Port& p);
  void arm(Port& p, long long delayMs, bool afterTraffic);
  void cancel(Port& p);
  bool screenAndTetheringOff() const;
  bool connected(const std::string& iface) const;

  Nox& nox_;
  long long graceMs_ = 5000;
  long long activeGraceMs_ = 3000;
  long long retryMs_ = 1000;
  GraceLearner::Settings learning_;
  std::map<std::string, Port> ports_;
};

#endif  // NOX_FDMGR_H
