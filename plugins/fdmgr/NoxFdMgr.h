#ifndef NOX_FDMGR_H
#define NOX_FDMGR_H

// The dormancy sample plug-in (descriptor-manager slot, libnoxfdmgr.so, entry
// "init_fd_mgr"): once the screen has been off for a grace period while tethering is
// off, it asks the modem to release the data link (go dormant) on every interface, so
// the radio does not burn its tail energy waiting for the network's inactivity timer.
// While they stay off, traffic that wakes a link again gets a shorter grace before the
// next request. Screen on or tethering on cancels a pending request. It follows the
// dormancy of the interfaces it has seen connected and logs every change ("FDMGR").
//
// Settings, in a tagged file (default /system/vendor/etc/noxfdmgr.conf, on the host
// $NOX_FDMGR_CONFIG):
//   grace_period_ms:5000   how long the screen stays off before the request
//   active_grace_ms:3000   how long a link woken by traffic, screen off, stays active
//                          before the request again
// A missing file gives the defaults; a bad value is logged and the default kept.
//
// To start a plug-in of your own, copy this folder, rename the class and the entry,
// and keep the shape: the entry builds one object that subscribes on the framework's
// dispatchers, and a static owner that takes everything back when the daemon stops
// (nox_plugin_stop) or the plug-in is unloaded. Everything runs on the daemon's loop thread.

#include <set>
#include <string>

#include "NoxPlugin.h"

class NoxFdMgr {
 public:
  explicit NoxFdMgr(Nox& nox);
  // Withdraws the subscriptions and the pending request.
  ~NoxFdMgr();
  NoxFdMgr(const NoxFdMgr&) = delete;
  NoxFdMgr& operator=(const NoxFdMgr&) = delete;

 private:
  static void onDsmEvent(NoxDsmEvent event, const void* data, void* self);
  static int onGraceOver(void* self);
  static void onDormancyChange(NoxTovWdsEventType event, const void* info, void* self);

  void readSettings();
  // Arms the request when the screen is off and tethering is off, cancels it otherwise.
  void decide();
  void follow(const std::string& iface);
  bool screenAndTetheringOff() const;

  Nox& nox_;
  long long graceMs_ = 5000;
  long long activeGraceMs_ = 3000;
  int timerId_ = -1;
  bool afterTraffic_ = false;  // the pending request is the short one, after traffic
  std::set<std::string> followed_;
};

#endif  // NOX_FDMGR_H
