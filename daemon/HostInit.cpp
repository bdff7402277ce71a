#include "HostInit.h"

#ifndef __ANDROID__

#include <cutils/properties.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace hostinit {

namespace {

constexpr int kListenBacklog = 128;
std::atomic<bool> gStop{false};
std::string gPropertyFile;
bool gPropertyFileExisted = false;

void onPropertySet(const char* key, const char* value) {
  if (strcmp(key, "ctl.stop") == 0 && strcmp(value, "noxd") == 0) {
    gStop = true;
    raise(SIGTERM);
  }
}

// Whether a daemon accepts on `addr`: a connection, or a full backlog, says it does.
bool served(const sockaddr_un& addr) {
  const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (probe < 0) return false;
  const bool live = connect(probe, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) == 0 ||
                    errno == EAGAIN;
  close(probe);
  return live;
}

}  // namespace

std::string createControlSocket(const char* path) {
  sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  if (strlen(path) >= sizeof(addr.sun_path)) return std::string("socket path too long: ") + path;
  strncpy(addr.sun_path, path, sizeof(addr.sun_path) - 1);
  struct stat st;
  if (lstat(path, &st) == 0) {
    if (!S_ISSOCK(st.st_mode)) return std::string(path) + " exists and is not a socket";
    if (served(addr)) return std::string("another daemon serves ") + path;
    unlink(path);  // a stale socket from an earlier run
  }
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  // Listening from the start (run() listens again, harmlessly) makes the socket live
  // for the check above while the daemon is still starting up; a client that comes
  // meanwhile waits in the backlog.
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) < 0 ||
      chmod(path, 0660) < 0 || listen(fd, kListenBacklog) < 0) {
    const std::string error = std::string("cannot create socket ") + path + ": " + strerror(errno);
    if (fd >= 0) close(fd);
    return error;
  }
  setenv("ANDROID_SOCKET_noxd", std::to_string(fd).c_str(), 1);
  return "";
}

std::string useProperties(const char* path) {
  const char* env = getenv("NOX_PROPERTY_FILE");
  if (path == nullptr && env != nullptr && *env != '\0') path = env;
  if (path != nullptr) {
    struct stat st;
    gPropertyFileExisted = stat(path, &st) == 0;
    if (property_host_use_file(path) < 0)
      return std::string("cannot use property file ") + path + ": " + strerror(errno);
    gPropertyFile = path;
  }
  property_host_set_watcher(onPropertySet);
  return "";
}

std::string propertySource() {
  if (gPropertyFile.empty()) return "(no property file)";
  return "in " + gPropertyFile + (gPropertyFileExisted ? "" : ", which did not exist");
}

bool stopRequested() { return gStop; }

}  // namespace hostinit

#endif  // __ANDROID__
