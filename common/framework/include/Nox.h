#ifndef NOX_H
#define NOX_H

#include <string>

#include "EventDispatcher.h"
#include "NoxCom.h"
#include "NoxConfig.h"
#include "NoxDsm.h"
#include "NoxPermissions.h"
#include "NoxTimer.h"
#include "NoxTov.h"
#include "NoxUtils.h"

// One client connection: owned by its NoxCom registration, created on accept and
// freed by the close callback.
struct NoxClientConn {
  class Nox* nox;
  struct RecordStream* stream;
};

// The daemon object: owns every long-lived part, loads the plug-ins, and runs the
// loop. Plug-ins receive a Nox* and use its public members from the loop thread.
class Nox : public INoxTimerMonitor {
 public:
  // Builds everything, starts the modem library (blocking for up to 63 s of retries
  // when it cannot), loads the enabled plug-ins, and asks init to stop the service
  // ("ctl.stop") when no feature is on. Runs on the constructing thread, which becomes
  // the loop thread.
  Nox();
  // The normal stop: runs the plug-ins' stop hooks in load order, unloads the plug-ins,
  // then destroys the members (the modem clients and the library are released). Loop
  // thread.
  ~Nox() override;
  Nox(const Nox&) = delete;
  Nox& operator=(const Nox&) = delete;

  // Takes the control socket from ANDROID_SOCKET_noxd and loops for ever; aborts
  // when the socket is missing or unusable.
  void run();
  // A new earliest timed callback: end the current wait so that it is recomputed.
  void notifyDelayChange() override;
  // Writes the daemon's state to the log at info level as one block of lines: features,
  // log threshold, clients, WLAN, tethering and screen, the WWAN records, the number of
  // applications, the loaded plug-ins and the modem's port trackers. Loop thread.
  void dumpState();
  // A copy of the admission list (exits the process if it cannot be copied).
  NoxPermissions getPermissions();

  // Plug-in loading; a missing file or entry, or a plug-in built for another interface
  // version (NoxPlugin.h), is logged with its path and the daemon goes on.
  void initFdMgr();
  void initCtMgr();
  void deinitFdMgr();
  void deinitCtMgr();

  // Loop-thread callbacks for the control socket and its clients.
  static void listenSocketCallback(int fd, void* data);
  static void processNoxEvent(int fd, void* data);
  static void processNoxCloseEvent(int fd, void* data);
  static void parcelAndDispatch(int fd, Nox* nox, void* data, unsigned int len);

  // Host builds: directory of the plug-in shared objects (a build setting by
  // default; the daemon's --plugin-dir). Set before constructing the Nox.
  static std::string pluginDir;

  // Declared first so that the feature mask is read before any member asks for it.
  NoxConfig config;
  EventDispatcher<NoxMsgEnumType> dispatcher;
  NoxTimer timer;
  NoxCom com;
  NoxDsm dsm;
  NoxTov tov;
  NoxPermissions permissions;
  void* fdMgrHandle;
  void* ctMgrHandle;

  static const char* const SOCKET_NAME_NOX;
  static int noxSockFd;
  static int count;

 private:
  // A burst of ended connections leaves their record buffers with the allocator: once a
  // second has passed without another one ending, the free memory goes back to the system.
  void connectionEnded();
  static int trimMemory(void* data);
  // Out of descriptors, a level-triggered listening socket would be reported ready for
  // ever: it is not watched until a connection ends or a second has passed.
  void pauseListening(int listenFd, int err);
  void resumeListening();
  static int resumeListeningLater(void* data);

  [[noreturn]] static void fatal(const char* message);
  // What the loader knows of a plug-in: where it came from and its optional hooks.
  struct PluginInfo {
    explicit PluginInfo(const char* n) : name(n) {}
    const char* name;
    std::string path;  // empty when not loaded
    void (*stop)(Nox*) = nullptr;
    void (*dump)(Nox*) = nullptr;
  };
  void loadPlugin(const char* file, const char* entry, PluginInfo& info, void*& handle);
  void dumpPlugins();

  PluginInfo fdMgrInfo{"fdmgr"};
  PluginInfo ctMgrInfo{"ctmgr"};

  int pausedListenFd = -1;
  bool outOfDescriptors = false;  // logged once for each time it happens
  bool trimPending = false;
  unsigned endedSinceCheck = 0;
  unsigned endedInBurst = 0;
};

#endif  // NOX_H
