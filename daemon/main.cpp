// noxd: creates the one Nox object and runs its loop. The host options stand in
// for what init and the device provide.
#include <android/log.h>
#include <cutils/properties.h>
#include <getopt.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Nox.h"
#include "NoxLog.h"
#include "NoxUtils.h"

namespace {

const char kUsage[] =
    "usage: noxd [--socket PATH] [--props FILE] [--log-level N] [--plugin-dir DIR]\n"
    "  --socket PATH     create the control socket at PATH (as init does on a device);\n"
    "                    without it the descriptor comes from ANDROID_SOCKET_noxd\n"
    "  --props FILE      property store file (same as NOX_PROPERTY_FILE)\n"
    "  --log-level N     log threshold 0 (verbose) to 4 (error); default from\n"
    "                    persist.nox.loglevel\n"
    "  --plugin-dir DIR  directory of libnoxfdmgr.so and libnoxctmgr.so\n"
    "\n"
    "The modem is the simulator (modemsim serve) at $TOV_SIM_SOCKET, by default\n"
    "/tmp/modemsim.sock; without it, start-up retries for 63 seconds.\n"
    "SIGUSR1 (noxctl dump) writes the daemon's state to its log at info level.\n";

std::atomic<bool> gStopRequested{false};

#ifndef __ANDROID__
// On a device init carries out "ctl.stop"; on the host the daemon stops itself.
void onPropertySet(const char* key, const char* value) {
  if (strcmp(key, "ctl.stop") == 0 && strcmp(value, "noxd") == 0) {
    gStopRequested = true;
    raise(SIGTERM);
  }
}
#endif

std::atomic<bool> gConstructed{false};

void onTerm(int) {
  // During construction, let it finish; main() then exits cleanly.
  if (gConstructed) _exit(0);
  gStopRequested = true;
}

// SIGUSR1 asks for the state dump; it is read from a signalfd on the loop thread.
void onDumpRequest(int fd, void* data) {
  signalfd_siginfo info;
  while (read(fd, &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
  }
  static_cast<Nox*>(data)->dumpState();
}

int fail(const std::string& message) {
  fprintf(stderr, "noxd: %s\n", message.c_str());
  return 2;
}

// Creates, binds and hands over the control socket as init would.
int createControlSocket(const char* path, std::string& error) {
  sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  if (strlen(path) >= sizeof(addr.sun_path)) {
    error = std::string("socket path too long: ") + path;
    return -1;
  }
  strncpy(addr.sun_path, path, sizeof(addr.sun_path) - 1);
  struct stat st;
  if (lstat(path, &st) == 0) {
    if (!S_ISSOCK(st.st_mode)) {
      error = std::string(path) + " exists and is not a socket";
      return -1;
    }
    unlink(path);  // a stale socket from an earlier run
  }
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) < 0 ||
      chmod(path, 0660) < 0) {
    error = std::string("cannot create socket ") + path + ": " + strerror(errno);
    if (fd >= 0) close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

int main(int argc, char** argv) {
  static const option kOptions[] = {
      {"socket", required_argument, nullptr, 's'},  {"props", required_argument, nullptr, 'p'},
      {"log-level", required_argument, nullptr, 'l'}, {"plugin-dir", required_argument, nullptr, 'd'},
      {"help", no_argument, nullptr, 'h'},          {nullptr, 0, nullptr, 0},
  };
  const char* socketPath = nullptr;
  const char* propsFile = nullptr;
  int logLevel = -1;
  opterr = 0;
  int c;
  while ((c = getopt_long(argc, argv, "", kOptions, nullptr)) != -1) {
    switch (c) {
      case 's': socketPath = optarg; break;
      case 'p': propsFile = optarg; break;
      case 'd': Nox::pluginDir = optarg; break;
      case 'l': {
        char* end = nullptr;
        const long v = strtol(optarg, &end, 10);
        if (*optarg == '\0' || *end != '\0' || v < 0 || v > 5)
          return fail(std::string("invalid log level '") + optarg + "' (0 to 5)");
        logLevel = static_cast<int>(v);
        break;
      }
      case 'h': fputs(kUsage, stdout); return 0;
      default:
        return fail(std::string("unknown or incomplete option '") + argv[optind - 1] +
                    "' (see --help)");
    }
  }
  if (optind < argc) return fail(std::string("unexpected argument '") + argv[optind] + "'");

#ifdef __ANDROID__
  // A device has init: the property store, "ctl.stop" and the control socket are its.
  if (propsFile != nullptr || socketPath != nullptr)
    return fail("--props and --socket are for host builds");
#else
  if (propsFile != nullptr && property_host_use_file(propsFile) < 0)
    return fail(std::string("cannot read property file ") + propsFile);
  property_host_set_watcher(onPropertySet);
#endif
  signal(SIGTERM, onTerm);

  if (socketPath != nullptr) {
    std::string error;
    const int fd = createControlSocket(socketPath, error);
    if (fd < 0) return fail(error);
    setenv("ANDROID_SOCKET_noxd", std::to_string(fd).c_str(), 1);
  }

  // The daemon's own threshold filters; liblog passes whatever reaches it.
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
  NoxLog::_libnoxlog_log_handle = __android_log_print;
  NoxLog* const loadTimeLog = NoxMsg::nox_log_class_ptr;
  NoxMsg::nox_log_class_ptr = new NoxLogAdb();  // lives for the whole process
  delete loadTimeLog;  // the load-time diagnostic channel; no other thread exists yet
  NoxLog::logLevel = logLevel >= 0 ? logLevel : NoxLog::getPropertyValue();
  NoxUtils::init();  // before any modem-library thread can look a name up

  // Blocked before the modem library's thread exists, so that only the signalfd sees it.
  sigset_t dump;
  sigemptyset(&dump);
  sigaddset(&dump, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &dump, nullptr);

  static Nox nox;
  gConstructed = true;
  if (gStopRequested) {
    fprintf(stderr, "noxd: stopped on request (ctl.stop)\n");
    return 0;
  }
  const int dumpFd = signalfd(-1, &dump, SFD_NONBLOCK | SFD_CLOEXEC);
  if (dumpFd >= 0) nox.com.addComEventHandler(dumpFd, onDumpRequest, &nox, nullptr, EPOLLIN);
  nox.run();
}
