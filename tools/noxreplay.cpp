// noxreplay: plays a trace (noxreplay_trace.h) against a running noxd, as its framework
// client, and the modem simulator, as the network's traffic, at a speed factor; then
// prints the simulator's energy report, which is in trace time, and how many packets the
// filters dropped while the trace had the screen on.

#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "SimServer.h"
#include "noxctl_conn.h"
#include "noxctl_msg.h"
#include "noxreplay_trace.h"
#include "tov_wire.h"

namespace {

using noxctl::Connection;
using noxctl::Deadline;
using noxctl::Result;
using noxreplay::Event;

constexpr int kTimeoutMs = 3000;

const char kUsage[] =
    "usage: noxreplay --socket PATH [--modem-socket PATH] [--speed F] TRACE\n"
    "\n"
    "Plays TRACE against noxd (on its control socket PATH, as the framework client) and\n"
    "the modem simulator (packets), every duration divided by F (default 1; the simulator\n"
    "must run with the same --speed), then prints the simulator's energy report, in trace\n"
    "time, and how late the events were.\n"
    "\n"
    "The modem socket is --modem-socket PATH, else $TOV_SIM_SOCKET, else the simulator's\n"
    "default. The trace format is described at the top of tools/noxreplay_trace.h.\n"
    "\n"
    "Exit status: 0 done, 1 noxd or the simulator failed, 2 bad command line or trace.\n";

struct Options {
  std::string socketPath;
  std::string modemPath = tovwire::socketPath();
  double speed = 1;
  std::string trace;
};

int64_t nowNs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

bool parseOptions(int argc, char** argv, Options* opt, std::string* error) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--socket" || arg == "--modem-socket" || arg == "--speed") {
      if (i + 1 >= argc) {
        *error = arg + " needs a value";
        return false;
      }
      const std::string value = argv[++i];
      if (arg == "--socket") opt->socketPath = value;
      if (arg == "--modem-socket") opt->modemPath = value;
      if (arg == "--speed") {
        char* end = nullptr;
        opt->speed = strtod(value.c_str(), &end);
        if (value.empty() || *end != '\0' || !(opt->speed >= 0.001 && opt->speed <= 100000)) {
          *error = "--speed takes a factor from 0.001 to 100000";
          return false;
        }
      }
    } else if (opt->trace.empty() && arg.compare(0, 2, "--") != 0) {
      opt->trace = arg;
    } else {
      *error = "unexpected '" + arg + "'";
      return false;
    }
  }
  if (opt->socketPath.empty() || opt->trace.empty()) {
    *error = "--socket and a trace are needed";
    return false;
  }
  return true;
}

class Replay {
 public:
  explicit Replay(const Options& opt) : opt_(opt) {}

  bool run(const std::vector<Event>& events) {
    noxctl::Message initDone;
    initDone.id = NOX_S_NOTIFY_INIT_DONE;
    if (conn_.open(opt_.socketPath, Deadline::after(kTimeoutMs)) != Result::kOk ||
        !sendToNoxd(initDone))
      return failed("noxd: " + conn_.error());
    // The report covers the trace, not the start-up before it.
    std::string text;
    if (modemsim::runCommand(opt_.modemPath, {"energy", "--reset"}, &text) != 0)
      return failed("modem: " + text);
    startNs_ = nowNs();
    for (const Event& e : events) {
      waitFor(e.atMs);
      if (!perform(e)) return false;
    }
    if (conn_.waitUntilRead(Deadline::after(kTimeoutMs)) != Result::kOk)
      return failed("noxd: " + conn_.error());
    std::string energy;
    if (modemsim::runCommand(opt_.modemPath, {"energy"}, &energy) != 0)
      return failed("modem: " + energy);
    printf(
        "replay: %s, %zu events over %s of trace time at speed %g; events late by %.0f ms "
        "of trace time on average, %.0f ms at most\n"
        "screen on: %llu packets dropped by the filters\n%s",
        opt_.trace.c_str(), events.size(), noxreplay::formatTime(events.back().atMs).c_str(),
        opt_.speed, lateSumMs_ / double(events.size()), lateMaxMs_,
        static_cast<unsigned long long>(droppedScreenOn_), energy.c_str());
    return true;
  }

 private:
  bool failed(const std::string& what) {
    fprintf(stderr, "noxreplay: %s\n", what.c_str());
    return false;
  }

  // Sleeps until trace time `atMs`, reading what noxd sends its framework client meanwhile
  // (a client that never reads would fill its socket); then notes how late it is.
  void waitFor(int64_t atMs) {
    const int64_t dueNs = startNs_ + static_cast<int64_t>(double(atMs) * 1e6 / opt_.speed);
    for (;;) {
      std::vector<uint8_t> record;
      while (conn_.receive(&record, Deadline::after(0)) == Result::kOk) {
      }
      const int64_t left = dueNs - nowNs();
      if (left <= 0) break;
      const int64_t napNs = std::min<int64_t>(left, 20000000);
      const timespec nap = {static_cast<time_t>(napNs / 1000000000),
                            static_cast<long>(napNs % 1000000000)};
      nanosleep(&nap, nullptr);
    }
    const double lateMs = double(nowNs() - dueNs) * opt_.speed / 1e6;
    lateSumMs_ += lateMs;
    lateMaxMs_ = std::max(lateMaxMs_, lateMs);
  }

  bool sendToNoxd(const noxctl::Message& msg) {
    return conn_.send(noxctl::encode(msg, token_++), Deadline::after(kTimeoutMs)) == Result::kOk;
  }

  bool perform(const Event& e) {
    std::string command;
    std::vector<std::string> args;
    switch (e.kind) {
      case Event::kEnd:
        return true;
      case Event::kTraffic: {
        std::vector<std::string> line = {"traffic"};
        line.insert(line.end(), e.args.begin(), e.args.end());
        std::string text;
        if (modemsim::runCommand(opt_.modemPath, line, &text) != 0)
          return failed("line " + std::to_string(e.line) + ": modem: " + text);
        // Whoever looks at the screen must get every packet: only filters drop them.
        if (screenOn_ && text == "dropped\n") ++droppedScreenOn_;
        return true;
      }
      case Event::kScreen:
      case Event::kTethering:
        // The client sends 1 for on and 0 for off.
        command = e.kind == Event::kScreen ? "screen" : "tethering";
        if (e.kind == Event::kScreen) screenOn_ = e.on;
        args = {e.on ? "1" : "0"};
        break;
      case Event::kDataConnect:
        command = "wwan";
        for (size_t i = 1; i < e.args.size(); ++i) {
          const bool v6 = e.args[i].find(':') != std::string::npos;
          args.insert(args.end(), {v6 ? "--iface-v6" : "--iface", e.args[0],
                                   v6 ? "--ipv6" : "--ipv4", e.args[i]});
        }
        if (e.args.size() == 1) args = {"--iface", e.args[0]};
        break;
      case Event::kDataDisconnect:
        command = "wwan";
        args = {"--status",   std::to_string(NOX_NW_STATE_DISCONNECTED),
                "--iface",    e.args[0],
                "--iface-v6", e.args[0]};
        break;
    }
    noxctl::Message msg;
    std::string error;
    if (!noxctl::buildMessage(command, args, &msg, &error))
      return failed("line " + std::to_string(e.line) + ": " + error);
    if (!sendToNoxd(msg))
      return failed("line " + std::to_string(e.line) + ": noxd: " + conn_.error());
    return true;
  }

  const Options& opt_;
  Connection conn_;
  int32_t token_ = 1;
  int64_t startNs_ = 0;
  double lateSumMs_ = 0;
  double lateMaxMs_ = 0;
  bool screenOn_ = true;  // as the framework starts
  uint64_t droppedScreenOn_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::string(argv[i]) == "--help" || std::string(argv[i]) == "-h") {
      fputs(kUsage, stdout);
      return 0;
    }
  }
  Options opt;
  std::string error;
  if (!parseOptions(argc, argv, &opt, &error)) {
    fprintf(stderr, "noxreplay: %s (see --help)\n", error.c_str());
    return 2;
  }
  std::ifstream in(opt.trace);
  std::vector<Event> events;
  if (!in) error = "cannot be read";
  if (!in || !noxreplay::parseTrace(in, &events, &error)) {
    fprintf(stderr, "noxreplay: %s: %s\n", opt.trace.c_str(), error.c_str());
    return 2;
  }
  Replay replay(opt);
  return replay.run(events) ? 0 : 1;
}
