// noxctl: talks to noxd over its control socket, for people and scripts.

#include <limits.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "noxctl_conn.h"
#include "noxctl_msg.h"

namespace {

using noxctl::Connection;
using noxctl::Deadline;
using noxctl::Message;
using noxctl::Result;

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitTimedOut = 2;
constexpr int kExitRefused = 3;
constexpr int kInfoLevel = 2;  // the state dump's log level

const char kUsage[] =
    "usage: noxctl [--socket PATH] [--timeout MS] COMMAND [ARGS...]\n"
    "\n"
    "Sends messages to noxd over its control socket.\n"
    "\n"
    "Options (anywhere on the line):\n"
    "  --socket PATH   the control socket (default /dev/socket/noxd)\n"
    "  --timeout MS    how long to wait for noxd at each step (default 3000)\n"
    "  --help          show this text\n"
    "\n"
    "Commands:\n"
    "  init-done                  announce this connection as the framework client\n"
    "  feature get ID             ask for the status of feature ID (0 descriptor manager,\n"
    "                             1 connection tracking, 2 NSRM); prints\n"
    "                             \"feature ID status S\": for NSRM S is 1 to 3 as stored,\n"
    "                             1 also when NSRM is off; other features answer 1\n"
    "  feature set ID STATUS      set the preference of feature ID (NSRM: STATUS 1 to 3);\n"
    "                             prints \"feature ID status S result R\" (R 0 accepted,\n"
    "                             -2 refused)\n"
    "  wlan TYPE STATUS SOFTAP    Wi-Fi state, or with --type N --status N --softap N\n"
    "                             (unset numbers are 0): STATUS 1 connected, 0 connecting;\n"
    "                             SOFTAP 1 on, 0 off; TYPE is passed on as it is\n"
    "  wwan [OPTIONS]             mobile data state of one connection:\n"
    "                             --type N --status N --nw-type N --roaming N --apn N\n"
    "                             --ipv4 ADDR --iface NAME --ipv6 ADDR --iface-v6 NAME\n"
    "                             --mccmnc DIGITS\n"
    "                             --status: 0 connecting, 1 connected (the default),\n"
    "                             2 suspended, 3 disconnecting, 4 disconnected;\n"
    "                             --roaming 1 roaming, 0 home; other numbers default to\n"
    "                             0, texts to empty\n"
    "  screen N                   screen state: 1 on, 0 off\n"
    "  tethering N                tethering state: 1 on, 0 off\n"
    "  nsrm-bkg N...              background event state (1 to 100 numbers, passed on)\n"
    "  nsrm-config N...           NSRM configuration (1 to 100 numbers, passed on)\n"
    "  apps add|remove ENTRY...   application list change; ENTRY is UID:PKG[:HEX[:HEX...]]\n"
    "                             (e.g. 10050:com.a:1f:2a)\n"
    "  raw ID [N...]              message ID with the numbers N as its payload\n"
    "  listen                     act as the framework client and print each message noxd\n"
    "                             sends, one line each, until the connection ends\n"
    "  dump                       have noxd write its state to its log at info level\n"
    "                             (SIGUSR1 to the process serving the socket); says where\n"
    "                             the log goes, or that noxd's log threshold hides it\n"
    "\n"
    "Numbers are decimal or 0x-prefixed hexadecimal, 32 bits.\n"
    "A message is only taken as sent once noxd has read it.\n"
    "\n"
    "Exit status: 0 done, 1 error, 2 timed out, 3 noxd refused a feature preference.\n";

struct Options {
  std::string socketPath = "/dev/socket/noxd";
  int timeoutMs = 3000;
  bool help = false;
  std::vector<std::string> rest;  // the command and its arguments
};

int usageError(const std::string& what) {
  fprintf(stderr, "noxctl: %s\nTry 'noxctl --help' for more information.\n", what.c_str());
  return kExitFailed;
}

// Takes the global options out of the command line, wherever they are.
bool parseOptions(int argc, char** argv, Options* opt, std::string* error) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      opt->help = true;
      continue;
    }
    std::string name = arg;
    std::string value;
    const size_t eq = arg.find('=');
    if (arg.compare(0, 2, "--") == 0 && eq != std::string::npos) {
      name = arg.substr(0, eq);
      value = arg.substr(eq + 1);
    }
    if (name != "--socket" && name != "--timeout") {
      opt->rest.push_back(arg);
      continue;
    }
    if (eq == std::string::npos) {
      if (i + 1 >= argc) {
        *error = name + " needs a value";
        return false;
      }
      value = argv[++i];
    }
    if (name == "--socket") {
      opt->socketPath = value;
      continue;
    }
    int32_t ms;
    if (!noxctl::parseInt32(value, &ms) || ms < 0) {
      *error = "--timeout '" + value + "' is not a number of milliseconds";
      return false;
    }
    opt->timeoutMs = ms;
  }
  return true;
}

int report(Result result, const Connection& conn) {
  fprintf(stderr, "noxctl: %s\n", conn.error().c_str());
  return result == Result::kTimedOut ? kExitTimedOut : kExitFailed;
}

// Sends each message with the next token, in order.
Result sendAll(Connection* conn, const std::vector<Message>& messages, const Options& opt) {
  int32_t token = 1;
  for (const Message& msg : messages) {
    const Result r = conn->send(noxctl::encode(msg, token++), Deadline::after(opt.timeoutMs));
    if (r != Result::kOk) return r;
  }
  return Result::kOk;
}

int runSend(const Options& opt, const Message& msg) {
  Connection conn;
  Result r = conn.open(opt.socketPath, Deadline::after(opt.timeoutMs));
  if (r == Result::kOk) r = sendAll(&conn, {msg}, opt);
  if (r == Result::kOk) r = conn.waitUntilRead(Deadline::after(opt.timeoutMs));
  return r == Result::kOk ? kExitOk : report(r, conn);
}

// The daemon answers only its framework client, so announce this connection first.
int runFeature(const Options& opt, const Message& request) {
  const int32_t replyId = request.id == NOX_S_REQ_GET_FEATURE_STATUS ? NOX_S_RSP_GET_FEATURE_STATUS
                                                                     : NOX_S_RESP_SET_FEATURE_PREF;
  Message initDone;
  initDone.id = NOX_S_NOTIFY_INIT_DONE;

  Connection conn;
  Result r = conn.open(opt.socketPath, Deadline::after(opt.timeoutMs));
  if (r == Result::kOk) r = sendAll(&conn, {initDone, request}, opt);
  if (r != Result::kOk) return report(r, conn);

  const Deadline deadline = Deadline::after(opt.timeoutMs);
  for (;;) {
    std::vector<uint8_t> record;
    r = conn.receive(&record, deadline);
    if (r == Result::kEnded) {
      fputs("noxctl: noxd closed the connection without an answer\n", stderr);
      return kExitFailed;
    }
    if (r != Result::kOk) return report(r, conn);
    // Other messages to the framework client may come first; they are not ours.
    const noxctl::DaemonMessage reply = noxctl::decode(record);
    if (reply.marker != 1 || reply.id != replyId) continue;
    printf("%s\n", noxctl::describe(reply).c_str());
    fflush(stdout);
    // The answer means the daemon has read everything we sent.
    const bool refused =
        replyId == NOX_S_RESP_SET_FEATURE_PREF && (reply.words.size() < 3 || reply.words[2] != 0);
    return refused ? kExitRefused : kExitOk;
  }
}

int runListen(const Options& opt) {
  Message initDone;
  initDone.id = NOX_S_NOTIFY_INIT_DONE;
  Connection conn;
  Result r = conn.open(opt.socketPath, Deadline::after(opt.timeoutMs));
  if (r == Result::kOk) r = sendAll(&conn, {initDone}, opt);
  if (r != Result::kOk) return report(r, conn);
  for (;;) {
    std::vector<uint8_t> record;
    r = conn.receive(&record, Deadline::never());
    if (r == Result::kEnded) {
      fputs("noxctl: noxd closed the connection\n", stderr);
      return kExitOk;
    }
    if (r != Result::kOk) return report(r, conn);
    printf("%s\n", noxctl::describe(noxctl::decode(record)).c_str());
    fflush(stdout);
  }
}

// The words of /proc/PID/FILE split at NUL bytes (cmdline, environ), or none.
std::vector<std::string> procWords(int pid, const char* file) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/" + file);
  std::vector<std::string> words;
  for (std::string w; std::getline(in, w, '\0');) words.push_back(w);
  return words;
}

// The value of noxd's option `name` (--name VALUE or --name=VALUE), or "".
std::string optionValue(const std::vector<std::string>& words, const std::string& name) {
  for (size_t i = 1; i < words.size(); ++i) {
    if (words[i] == name && i + 1 < words.size()) return words[i + 1];
    if (words[i].compare(0, name.size() + 1, name + "=") == 0) return words[i].substr(name.size() + 1);
  }
  return "";
}

// noxd's log threshold: its --log-level, else persist.nox.loglevel in its property file
// (unset reads as 0); -1 when this cannot tell.
int logThreshold(int pid) {
  const std::vector<std::string> words = procWords(pid, "cmdline");
  const std::string level = optionValue(words, "--log-level");
  if (!level.empty()) return atoi(level.c_str());
  std::string props = optionValue(words, "--props");
  for (const std::string& v : procWords(pid, "environ"))
    if (props.empty() && v.compare(0, 18, "NOX_PROPERTY_FILE=") == 0) props = v.substr(18);
  if (props.empty()) return -1;
  if (props[0] != '/') props = "/proc/" + std::to_string(pid) + "/cwd/" + props;
  std::ifstream in(props);
  if (!in) return -1;
  for (std::string line; std::getline(in, line);)
    if (line.compare(0, 21, "persist.nox.loglevel=") == 0) return atoi(line.c_str() + 21);
  return 0;
}

// The daemon's pid from the socket's credentials; the signal does the rest.
int runDump(const Options& opt) {
  Connection conn;
  int pid = 0;
  Result r = conn.open(opt.socketPath, Deadline::after(opt.timeoutMs));
  if (r == Result::kOk) r = conn.peerPid(&pid);
  if (r != Result::kOk) return report(r, conn);
  const int threshold = logThreshold(pid);
  if (threshold > kInfoLevel) {
    fprintf(stderr, "noxd (pid %d) logs from level %d on: its state, at info level (%d), would not "
            "show; start it with --log-level %d or lower (or persist.nox.loglevel)\n", pid,
            threshold, kInfoLevel, kInfoLevel);
    return kExitFailed;
  }
  if (kill(pid, SIGUSR1) != 0) {
    fprintf(stderr, "noxd (pid %d) cannot be signalled: %s\n", pid, strerror(errno));
    return kExitFailed;
  }
  char target[PATH_MAX] = "";
  const std::string err = "/proc/" + std::to_string(pid) + "/fd/2";
  if (readlink(err.c_str(), target, sizeof(target) - 1) < 0) snprintf(target, sizeof(target), "?");
  printf("noxd (pid %d) writes its state to its log at info level: its standard error (%s)%s\n", pid,
         target, threshold < 0 ? "; its log threshold is unknown here: above 2 hides it" : "");
  return kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
  Options opt;
  std::string error;
  if (!parseOptions(argc, argv, &opt, &error)) return usageError(error);
  if (opt.help) {
    fputs(kUsage, stdout);
    return kExitOk;
  }
  if (opt.rest.empty()) return usageError("no command given");

  const std::string command = opt.rest[0];
  const std::vector<std::string> args(opt.rest.begin() + 1, opt.rest.end());
  if (command == "listen" || command == "dump") {
    if (!args.empty()) return usageError(command + " takes no arguments");
    return command == "listen" ? runListen(opt) : runDump(opt);
  }
  Message msg;
  if (!noxctl::buildMessage(command, args, &msg, &error)) return usageError(error);
  const size_t size = noxctl::encode(msg, 0).size();
  if (size > noxctl::kMaxOutgoingRecord) {
    fprintf(stderr, "noxctl: the message is %zu bytes, more than the %zu noxd reads\n", size,
            noxctl::kMaxOutgoingRecord);
    return kExitFailed;
  }
  return command == "feature" ? runFeature(opt, msg) : runSend(opt, msg);
}
