// noxd: creates the one Nox object and runs its loop. The host options stand in for
// what init and the device provide (HostInit.h).
#include <android/log.h>
#include <cutils/properties.h>
#include <getopt.h>
#include <signal.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "HostInit.h"
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
    "SIGUSR1 (noxctl dump) writes the daemon's state to its log at info level.\n"
    "SIGTERM (or SIGINT) stops it at any time: the plug-ins' stop hooks run, the modem\n"
    "clients are released and the socket file of --socket is removed.\n";

// A stop that the modem keeps from ending (its calls wait for their timeouts) ends here.
constexpr unsigned kStopGraceSeconds = 2;

std::atomic<bool> gStop{false};
int gStopFd = -1;  // an eventfd the SIGTERM handler makes readable

// Any thread may take SIGTERM: the handler only wakes the loop (or the start-up wait)
// and bounds the time the normal stop may take.
void onTerm(int) {
  const int savedErrno = errno;
  if (gStopFd < 0) _exit(0);
  if (!gStop.exchange(true)) alarm(kStopGraceSeconds);
  const uint64_t one = 1;
  if (write(gStopFd, &one, sizeof(one)) < 0) {
  }
  errno = savedErrno;
}

void onStopOverdue(int) {
  static const char kMessage[] = "noxd: the stop did not end in time, exiting without it\n";
  if (write(STDERR_FILENO, kMessage, sizeof(kMessage) - 1) < 0) {
  }
  _exit(0);
}

// The start-up retries' wait: cut short, with the seconds asked for, by SIGTERM.
unsigned int startupSleep(unsigned int seconds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  for (;;) {
    if (gStop) return seconds;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    if (left.count() <= 0) return 0;
    pollfd stop = {gStopFd, POLLIN, 0};
    poll(&stop, 1, static_cast<int>(left.count()));
  }
}

// The host's control socket file, as created, so that the stop removes only that one.
const char* gSocketPath = nullptr;
struct stat gSocketFile;

// The normal stop: the Nox's destructor runs the plug-ins' stop hooks and releases the
// modem; nothing else needs tearing down before the process ends.
[[noreturn]] void stopNormally(Nox* nox) {
  delete nox;
  struct stat now;
  if (gSocketPath != nullptr && lstat(gSocketPath, &now) == 0 && now.st_ino == gSocketFile.st_ino &&
      now.st_dev == gSocketFile.st_dev)
    unlink(gSocketPath);
  _exit(0);
}

void onStopRequest(int, void* data) {
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_COMMON, "SIGTERM or SIGINT: stopping");
  stopNormally(static_cast<Nox*>(data));
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

// The control socket init hands over: "" or why it cannot be used. Checked before
// anything is built: the framework's own check would abort after a long start-up.
std::string checkControlSocket() {
  const char* value = getenv("ANDROID_SOCKET_noxd");
  if (value == nullptr || *value == '\0')
    return "ANDROID_SOCKET_noxd is unset: start noxd from init, or give --socket PATH";
  char* end = nullptr;
  errno = 0;
  const long fd = strtol(value, &end, 10);
  struct stat st;
  if (errno != 0 || *end != '\0' || fd < 0 || fd > INT_MAX)
    return std::string("ANDROID_SOCKET_noxd '") + value + "' is not a descriptor number";
  if (fstat(static_cast<int>(fd), &st) != 0 || !S_ISSOCK(st.st_mode))
    return std::string("ANDROID_SOCKET_noxd ") + value + " is not an open socket";
  return "";
}

}  // namespace

int main(int argc, char** argv) {
  gStopFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  signal(SIGALRM, onStopOverdue);
  struct sigaction term = {};
  term.sa_handler = onTerm;
  term.sa_flags = SA_RESTART;
  sigaction(SIGTERM, &term, nullptr);
  sigaction(SIGINT, &term, nullptr);  // by hand, ^C stops it the same way

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
        if (*optarg == '\0' || *end != '\0' || v < NOX_LOG_VERBOSE || v > NOX_LOG_ERROR)
          return fail(std::string("invalid log level '") + optarg + "' (0 to 4)");
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
  std::string error = hostinit::useProperties(propsFile);
  if (error.empty() && socketPath != nullptr) error = hostinit::createControlSocket(socketPath);
  if (!error.empty()) return fail(error);
  if (socketPath != nullptr && lstat(socketPath, &gSocketFile) == 0) gSocketPath = socketPath;
#endif
  const std::string socketError = checkControlSocket();
  if (!socketError.empty()) return fail(socketError);

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

  NoxTov::sleepSeconds = startupSleep;
  Nox* const nox = new Nox();  // ends in stopNormally()
#ifndef __ANDROID__
  if (hostinit::stopRequested()) {
    char mask[PROPERTY_VALUE_MAX];
    const std::string value = property_get("persist.nox.feature", mask, "") > 0
                                  ? std::string("is \"") + mask + "\""
                                  : std::string("is unset");
    fprintf(stderr, "noxd: no feature is on (persist.nox.feature %s %s): stopping, as init does "
            "on ctl.stop\n", value.c_str(), hostinit::propertySource().c_str());
    stopNormally(nox);
  }
#endif
  if (gStop) onStopRequest(gStopFd, nox);
  nox->com.addComEventHandler(gStopFd, onStopRequest, nox, nullptr, EPOLLIN);
  const int dumpFd = signalfd(-1, &dump, SFD_NONBLOCK | SFD_CLOEXEC);
  if (dumpFd >= 0) nox->com.addComEventHandler(dumpFd, onDumpRequest, nox, nullptr, EPOLLIN);
  nox->run();
}
