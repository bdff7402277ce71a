// noxctl: talks to noxd over its control socket, for people and scripts.

#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <cstdlib>
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
    "  feature get ID             ask for the status of feature ID; prints\n"
    "                             \"feature ID status S\"\n"
    "  feature set ID STATUS      set the preference of feature ID; prints\n"
    "                             \"feature ID status S result R\" (R 0 means accepted)\n"
    "  wlan TYPE STATUS SOFTAP    Wi-Fi state, or with --type N --status N --softap N\n"
    "                             (unset numbers are 0)\n"
    "  wwan [OPTIONS]             mobile data state of one connection:\n"
    "                             --type N --status N --nw-type N --roaming N --apn N\n"
    "                             --ipv4 ADDR --iface NAME --ipv6 ADDR --iface-v6 NAME\n"
    "                             --mccmnc DIGITS\n"
    "                             (--status defaults to 1, connected; other numbers to 0,\n"
    "                             texts to empty)\n"
    "  screen N                   screen state\n"
    "  tethering N                tethering state\n"
    "  nsrm-bkg N...              background event state (1 to 100 numbers)\n"
    "  nsrm-config N...           NSRM configuration (1 to 100 numbers)\n"
    "  apps add|remove ENTRY...   application list change; ENTRY is UID:PKG[:HEX[:HEX...]]\n"
    "                             (e.g. 10050:com.a:1f:2a)\n"
    "  raw ID [N...]              message ID with the numbers N as its payload\n"
    "  listen                     act as the framework client and print each message noxd\n"
    "                             sends, one line each, until the connection ends\n"
    "  dump                       have noxd write its state to its log (SIGUSR1 to the\n"
    "                             process serving the socket)\n"
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

// The daemon's pid from the socket's credentials; the signal does the rest.
int runDump(const Options& opt) {
  Connection conn;
  int pid = 0;
  Result r = conn.open(opt.socketPath, Deadline::after(opt.timeoutMs));
  if (r == Result::kOk) r = conn.peerPid(&pid);
  if (r != Result::kOk) return report(r, conn);
  if (kill(pid, SIGUSR1) != 0) {
    fprintf(stderr, "noxctl: cannot signal noxd (pid %d): %s\n", pid, strerror(errno));
    return kExitFailed;
  }
  printf("noxd (pid %d) writes its state to its log at info level: standard error on the host,\n"
         "logcat on a device\n", pid);
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
