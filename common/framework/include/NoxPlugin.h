#ifndef NOX_PLUGIN_H
#define NOX_PLUGIN_H

// For plug-in authors: what a plug-in exports to the daemon and the names it may rely
// on besides the framework's classes. A plug-in is a shared object with one entry,
// extern "C" void init_fd_mgr(Nox*) in libnoxfdmgr.so or init_ct_mgr in libnoxctmgr.so,
// called once on the loop thread while noxd starts; everything it registers is then
// called on that thread too.

#include <stdint.h>

#include "Nox.h"
#include "NoxLog.h"

// The plug-in interface: the layout of Nox and of everything a plug-in reaches through
// it, the records of the data-state events, and the exported operations' signatures. It
// changes only when one of those changes in a way that breaks a plug-in built before.
#define NOX_PLUGIN_INTERFACE_VERSION 1

// Write this once, at file scope, in one source file of the plug-in. The daemon refuses
// a plug-in that exports another version; a plug-in without it loads unchecked.
#define NOX_PLUGIN_DECLARE_INTERFACE_VERSION()                                           \
  extern "C" __attribute__((visibility("default"))) const int nox_plugin_interface_version = \
      NOX_PLUGIN_INTERFACE_VERSION

// The stop hook, optional. When the plug-in exports it, it is called once on a normal
// stop (SIGTERM), on the loop thread, in load order, before any plug-in is unloaded and
// before the modem clients are released: withdraw what you registered and leave the
// modem as it should be without you. It is not called when the process dies otherwise
// (abort, SIGKILL).
extern "C" void nox_plugin_stop(Nox* nox);

// The dump hook, optional. When the plug-in exports it, the state dump (`noxctl dump`,
// SIGUSR1) calls it on the loop thread after the plug-in's own line: write what the
// policy wants and what the modem has, at info level.
extern "C" void nox_plugin_dump(Nox* nox);

// Screen and tethering as plug-ins see them (NoxDsm::getScreenState(),
// getTetheringState() and the int32 of the screen and tethering events). Compare with
// these names only: the framework stores the inverse of its client's integer.
constexpr int32_t NOX_SCREEN_ON = 0;
constexpr int32_t NOX_SCREEN_OFF = 1;
constexpr int32_t NOX_TETHERING_ON = 0;
constexpr int32_t NOX_TETHERING_OFF = 1;

// Subscriptions to status changes (NoxTov::regDormancyStatusChgEvent,
// regFilteringStatusChgEvent): once the interface's port tracker exists (its first
// connect has been handled: NoxTov::wdsPortTrackers() resp. dfsPortTrackers() has the
// name), every change of its combined status is called back, on the loop thread, also
// across later disconnects and reconnects. A subscription made before returns 0 but is
// only counted, never called back: subscribe from the connect event, once the tracker
// is there, as the samples do.

// Logs under the plug-in's own tag, at the daemon's threshold, on the daemon's channel:
// NOX_PLUGIN_LOG(NOX_LOG_INFO, "MYPLUG", "ready on %s", iface) writes
// "|MYPLUG| ready on mdlnk0". The tag and the format must be string literals.
#define NOX_PLUGIN_LOG(level, tag, ...) NOX_LOG((level), NOX_MOD_UNTAGGED, "|" tag "| " __VA_ARGS__)

#endif  // NOX_PLUGIN_H
