#include "Nox.h"

#include <cutils/properties.h>
#include <cutils/record_stream.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <new>
#include <string>
#include <vector>

#include <binder/Parcel.h>

#include "NoxLog.h"
#include "NoxParcel.h"
#include "NoxPlugin.h"
#include "NoxTypes.h"

#ifndef NOX_PLUGIN_DIR
#define NOX_PLUGIN_DIR "/system/vendor/lib"
#endif

namespace {
constexpr size_t kMaxRecordLen = 8192;
constexpr int kListenBacklog = 128;
constexpr long long kTrimQuietMs = 1000;
constexpr long long kListenRetryMs = 1000;

// `err` is the failed call's errno, taken before any log line can change it.
void logSysError(const char* what, int err = errno) {
  NOX_LOG(NOX_LOG_ERROR, NOX_MOD_GENERIC, "Error: %s", what);
  NOX_LOG(NOX_LOG_ERROR, NOX_MOD_GENERIC, "    %s (Errno %d)", strerror(err), err);
}

// dlerror()'s text, which names the file on glibc and bionic; otherwise with `path` in front.
void logDlError(const std::string& path) {
  const char* err = dlerror();
  if (err == nullptr) err = "no error text";
  if (strstr(err, path.c_str()) != nullptr)
    NOX_LOG(NOX_LOG_WARN, NOX_MOD_COMMON, "    %s", err);
  else
    NOX_LOG(NOX_LOG_WARN, NOX_MOD_COMMON, "    %s: %s", path.c_str(), err);
}

// glibc rejects the flag value 0 that bionic takes for "immediate binding, local symbols".
constexpr int kDlopenFlags = RTLD_NOW | RTLD_LOCAL;
}  // namespace

const char* const Nox::SOCKET_NAME_NOX = "noxd";
int Nox::noxSockFd = -1;
int Nox::count = 0;
std::string Nox::pluginDir = NOX_PLUGIN_DIR;

Nox::Nox()
    : timer(this),
      dsm(*this, config, com),
      tov(dsm, com, timer, config),
      fdMgrHandle(nullptr),
      ctMgrHandle(nullptr) {
  tov.init();
  const bool fdMgr = config.isEnabled(NOX_FEATURE_FDMGR);
  const bool ctMgr = config.isEnabled(NOX_FEATURE_CTMGR);
  const bool nsrm = config.isEnabled(NOX_FEATURE_NSRM);
  if (fdMgr || ctMgr) {
    if (fdMgr) initFdMgr();
    if (ctMgr) initCtMgr();
  } else if (!nsrm) {
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_COMMON, "None of the nox feature enabled, noxd shutting down");
    property_set("ctl.stop", "noxd");
  }
}

Nox::~Nox() {
  // The hooks run before any plug-in is unloaded: one may still use what another set up.
  for (const PluginInfo* p : {&fdMgrInfo, &ctMgrInfo})
    if (p->stop != nullptr) p->stop(this);
  deinitFdMgr();
  deinitCtMgr();
}

void Nox::fatal(const char* message) {
  const int err = errno;
  NOX_LOG(NOX_LOG_ERROR, NOX_MOD_GENERIC, "Critical Error, Aborting: %s", message);
  NOX_LOG(NOX_LOG_ERROR, NOX_MOD_GENERIC, "    %s (Errno %d)", strerror(err), err);
  abort();
}

void Nox::notifyDelayChange() { com.wake(); }

NoxPermissions Nox::getPermissions() { return permissions; }

void Nox::loadPlugin(const char* file, const char* entry, PluginInfo& info, void*& handle) {
  const std::string path = pluginDir + "/" + file;
  // Stored at once, null included: the entry below already finds it in the Nox.
  handle = dlopen(path.c_str(), kDlopenFlags);
  if (handle == nullptr) {
    NOX_LOG(NOX_LOG_WARN, NOX_MOD_COMMON, "loading %s lib failed!!", info.name);
    logDlError(path);
    return;
  }
  const auto* version = static_cast<const int*>(dlsym(handle, "nox_plugin_interface_version"));
  if (version != nullptr && *version != NOX_PLUGIN_INTERFACE_VERSION) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_COMMON,
            "refusing %s: %s was built for plug-in interface %d, this noxd has %d", info.name,
            path.c_str(), *version, NOX_PLUGIN_INTERFACE_VERSION);
    dlclose(handle);
    handle = nullptr;
    return;
  }
  auto init = reinterpret_cast<void (*)(Nox*)>(dlsym(handle, entry));
  if (init == nullptr) {
    NOX_LOG(NOX_LOG_WARN, NOX_MOD_COMMON, "init %s failed!!", info.name);
    logDlError(path);
    return;  // deliberately kept open, as a device build does
  }
  info.path = path;
  info.stop = reinterpret_cast<void (*)(Nox*)>(dlsym(handle, "nox_plugin_stop"));
  info.dump = reinterpret_cast<void (*)(Nox*)>(dlsym(handle, "nox_plugin_dump"));
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_COMMON, "loaded %s from %s%s", info.name, path.c_str(),
          info.stop != nullptr ? ", with a stop hook" : "");
  init(this);
}

void Nox::initFdMgr() { loadPlugin("libnoxfdmgr.so", "init_fd_mgr", fdMgrInfo, fdMgrHandle); }

void Nox::initCtMgr() { loadPlugin("libnoxctmgr.so", "init_ct_mgr", ctMgrInfo, ctMgrHandle); }

namespace {
// bionic fails dlclose(null) harmlessly; glibc crashes on it.
void closePlugin(void*& handle) {
  if (handle != nullptr) dlclose(handle);
  handle = nullptr;
}
}  // namespace

void Nox::deinitFdMgr() {
  closePlugin(fdMgrHandle);
  fdMgrInfo = PluginInfo(fdMgrInfo.name);
}

void Nox::deinitCtMgr() {
  closePlugin(ctMgrHandle);
  ctMgrInfo = PluginInfo(ctMgrInfo.name);
}

void Nox::dumpPlugins() {
  for (const PluginInfo* p : {&fdMgrInfo, &ctMgrInfo}) {
    if (p->path.empty()) {
      NOX_LOG(NOX_LOG_INFO, NOX_MOD_COMMON, "  plug-in %s: not loaded", p->name);
      continue;
    }
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_COMMON, "  plug-in %s: %s%s", p->name, p->path.c_str(),
            p->stop != nullptr ? ", stop hook" : "");
    if (p->dump != nullptr) p->dump(this);
  }
}

void Nox::run() {
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COMMON, "Starting Nox event loop");
  count = 0;
  noxSockFd = -1;

  char envName[64];
  snprintf(envName, sizeof(envName), "ANDROID_SOCKET_%s", SOCKET_NAME_NOX);
  const char* value = getenv(envName);
  if (value == nullptr) fatal("Cannot get control socket");
  errno = 0;
  const long fd = strtol(value, nullptr, 10);
  if (errno != 0) fatal("Cannot get control socket");
  noxSockFd = static_cast<int>(fd);
  if (noxSockFd == -1) fatal("Cannot get control socket");

  if (fcntl(noxSockFd, F_SETFL, O_NONBLOCK) < 0) fatal("Cannot set NOXD socket as non-blocking");
  // Deliberate: registration precedes listen.
  com.addComEventHandler(noxSockFd, listenSocketCallback, this, nullptr, EPOLLIN | EPOLLHUP);
  if (listen(noxSockFd, kListenBacklog) < 0) fatal("Cannot open control socket for listening");
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COMMON, "Control socket is ready. noxListenFd:%d", noxSockFd);

  for (;;) {
    timer.processEvents();
    com.processEvents(timer.timeUntilNextEvent(), timer);
  }
}

void Nox::listenSocketCallback(int listenFd, void* data) {
  Nox* nox = static_cast<Nox*>(data);
  for (;;) {
    unsigned char addr[16];
    socklen_t addrLen = sizeof(addr);
    const int fd = accept(listenFd, reinterpret_cast<sockaddr*>(addr), &addrLen);
    if (fd < 0 && (errno == EMFILE || errno == ENFILE)) {
      nox->pauseListening(listenFd, errno);
      return;
    }
    if (fd < 0) {
      if (errno != EAGAIN) logSysError("unable to accept incoming socket");
      return;
    }
    nox->outOfDescriptors = false;
    ucred cred = {};
    socklen_t credLen = sizeof(cred);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &credLen) < 0) {
      logSysError("unable to get SO_PEERCRED on incoming socket");
      close(fd);
      return;
    }
    if (!nox->getPermissions().isAppAllowed(cred.pid, static_cast<int>(cred.gid))) {
      NOX_LOG(NOX_LOG_INFO, NOX_MOD_COMMON, "Closing client fd: %d", fd);
      close(fd);
      return;  // the rest of the backlog is taken at the next readiness event
    }
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
      logSysError("unable to set incoming socket to non-blocking");
      close(fd);
      return;
    }
    NoxClientConn* conn = new (std::nothrow) NoxClientConn{nox, record_stream_new(fd, kMaxRecordLen)};
    if (conn == nullptr) {
      printf("out of memory\n");
      exit(1);
    }
    nox->com.addComEventHandler(fd, processNoxEvent, conn, processNoxCloseEvent, EPOLLIN | EPOLLHUP);
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_COMMON, "New client (fd:%d) added", fd);
  }
}

void Nox::processNoxEvent(int fd, void* data) {
  NoxClientConn* conn = static_cast<NoxClientConn*>(data);
  for (;;) {
    if (!NoxCom::isApprovedFd(fd)) {
      NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COMMON, "file descriptor %d is not approved, ignoring data",
              fd);
      return;
    }
    void* record = nullptr;
    size_t len = 0;
    const int ret = record_stream_get_next(conn->stream, &record, &len);
    if (ret == 0 && record != nullptr) {
      parcelAndDispatch(fd, conn->nox, record, static_cast<unsigned int>(len));
      continue;
    }
    if (ret == 0) {
      NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COMMON, "end of stream");
      // A peer that only shut down its sending side never hangs up, and a
      // level-triggered EPOLLIN would spin for ever: end it as a hang-up would.
      Nox* nox = conn->nox;
      nox->com.removeComEventHandler(fd);  // frees conn
      close(fd);
      return;
    }
    if (ret == -1 && errno == EAGAIN) return;
    if (ret == -1) {
      const int err = errno;
      NOX_LOG(NOX_LOG_WARN, NOX_MOD_COMMON, "file descriptor %d is in error state", fd);
      logSysError("cannot get next record", err);
      // The close callback releases the stream and the connection, once.
      Nox* nox = conn->nox;
      nox->com.removeComEventHandler(fd);
      close(fd);
      return;
    }
  }
}

void Nox::processNoxCloseEvent(int fd, void* data) {
  // Deliberate: the framework client's number is forgotten with its connection, so that
  // the next connection or eventfd to get that number never receives its messages;
  // they are dropped until a client announces itself again.
  if (NoxCom::getNoxClientFd() == fd) NoxCom::setNoxClientFd(-1);
  NoxClientConn* conn = static_cast<NoxClientConn*>(data);
  Nox* nox = conn->nox;
  record_stream_free(conn->stream);
  delete conn;
  nox->connectionEnded();
  nox->resumeListening();  // its descriptor is free now
}

void Nox::pauseListening(int listenFd, int err) {
  // Deliberate: logged once, not at every attempt, and not retried at once.
  if (!outOfDescriptors) logSysError("unable to accept incoming socket", err);
  outOfDescriptors = true;
  com.removeComEventHandler(listenFd);
  pausedListenFd = listenFd;
  timer.addTimedCallback(kListenRetryMs, resumeListeningLater, this);
}

void Nox::resumeListening() {
  if (pausedListenFd < 0) return;
  const int fd = pausedListenFd;
  pausedListenFd = -1;
  com.addComEventHandler(fd, listenSocketCallback, this, nullptr, EPOLLIN | EPOLLHUP);
}

int Nox::resumeListeningLater(void* data) {
  static_cast<Nox*>(data)->resumeListening();
  return -1;
}

void Nox::connectionEnded() {
  ++endedInBurst;
  if (trimPending) {
    ++endedSinceCheck;
    return;
  }
  trimPending = true;
  endedSinceCheck = 0;
  timer.addTimedCallback(kTrimQuietMs, trimMemory, this);
}

int Nox::trimMemory(void* data) {
  Nox* nox = static_cast<Nox*>(data);
  if (nox->endedSinceCheck != 0) {  // still busy: look again a second later
    nox->endedSinceCheck = 0;
    return 0;
  }
  NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_COMMON,
          "quiet after %u ended connections: free memory returned to the system", nox->endedInBurst);
#ifdef __GLIBC__
  malloc_trim(0);
#endif
  nox->trimPending = false;
  nox->endedInBurst = 0;
  return -1;
}

void Nox::parcelAndDispatch(int fd, Nox* nox, void* data, unsigned int len) {
  android::Parcel p;
  p.setData(static_cast<const uint8_t*>(data), len);
  const int32_t id = p.readInt32();
  const int32_t token = p.readInt32();
  const NoxMsgEnumType msg = static_cast<NoxMsgEnumType>(id);
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COMMON, "processing NOX event '%s' (%d) [token %d, count %d]",
          NoxUtils::getNoxMsgStr(msg), id, token, count);
  ++count;

  // Each payload is built only for its own message: this runs for every request.
  auto dispatch = [&](const void* payload) { nox->dispatcher.dispatchEvent(msg, payload); };
  switch (msg) {
    case NOX_S_REQ_GET_FEATURE_STATUS:
    case NOX_S_REQ_SET_FEATURE_PREF: {
      NoxFeatureInfoType feature = {};
      NoxParcel::unparcel(p, feature);
      return dispatch(&feature);
    }
    case NOX_S_RSP_REFRESH_NSRM_CONFIG:
    case NOX_S_NOTIFY_NSRM_BKG_EVT_STATE_CHG:
    case NOX_S_NOTIFY_SCREEN_STATE_CHG:
    case NOX_S_NOTIFY_TETHERING_STATE_CHG: {
      std::vector<int> ints;
      NoxParcel::unparcel(p, ints);
      return dispatch(ints.empty() ? nullptr : &ints[0]);
    }
    case NOX_S_NOTIFY_INIT_DONE:
      NoxCom::setNoxClientFd(fd);
      NOX_LOG(NOX_LOG_INFO, NOX_MOD_COMMON, "NOXJ client is on descriptor %d", fd);
      return dispatch(nullptr);
    case NOX_S_NOTIFY_WLAN_STATE_CHG: {
      _WlanInfo wlan = {};
      NoxParcel::unparcel(p, wlan);
      return dispatch(&wlan);
    }
    case NOX_S_NOTIFY_WWAN_STATE_CHG: {
      NoxWwanInfoType wwan = {};
      NoxParcel::unparcel(p, wwan);
      return dispatch(&wwan);
    }
    case NOX_S_NOTIFY_APP_INFO_LIST_CHG: {
      NoxAppInfoMsgDataType apps = {};
      NoxParcel::unparcel(p, apps);
      return dispatch(&apps);
    }
    default:
      NOX_LOG(NOX_LOG_WARN, NOX_MOD_COMMON, "Nox does not recognize event '%d'", id);
      return dispatch(nullptr);
  }
}
