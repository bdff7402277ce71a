// modemsim: the host's modem. `serve` runs it; the other commands talk to a running one.

#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ModemSim.h"
#include "SimServer.h"
#include "tov_wire.h"

namespace {

modemsim::SimServer* gServer = nullptr;

void onSignal(int) {
  if (gServer != nullptr) gServer->stop();
}

std::string usage() {
  std::string ops;
  for (const std::string& op : modemsim::ModemSim::operations()) ops += " " + op;
  return std::string(
             "usage: modemsim [--socket PATH] COMMAND [ARGS...]\n"
             "\n"
             "The host's modem simulator, behind the host modem library.\n"
             "\n"
             "  serve [--speed F] [--radio FILE]\n"
             "                                   run the modem in the foreground until SIGINT\n"
             "                                   or SIGTERM; its radio's clock runs F times\n"
             "                                   faster than the wall clock (default 1) and\n"
             "                                   its settings come from FILE (see\n"
             "                                   modem/sim/radio.conf)\n"
             "  state [--json]                   ports, control channels, WDS and DFS clients,\n"
             "                                   dormancy, filter modes and installed filters\n"
             "  dormancy PORT [v4|v6] dormant|active\n"
             "                                   change the dormancy and indicate it to the WDS\n"
             "                                   clients of the port with dormancy reports on;\n"
             "                                   the radio follows, held connected until its\n"
             "                                   next packet\n"
             "  filter-mode PORT [v4|v6] on|off  change the power-save filter mode and indicate\n"
             "                                   it to the DFS clients registered for it\n"
             "  fail OPERATION [--times N] [--error CODE]\n"
             "                                   the next N (default 1) OPERATIONs fail with the\n"
             "                                   modem error CODE (default 3); --times 0 disarms\n"
             "  fail [clear]                     list the armed faults, or disarm them all\n"
             "  delay MS                         answer library requests MS milliseconds late\n"
             "  restart                          restart the modem: every client is gone and the\n"
             "                                   libraries get system events\n"
             "  log [--clear]                    the requests received, one line each\n"
             "  traffic PORT up|down [--family v4|v6] [--proto tcp|udp] [--src-port N]\n"
             "          [--dst-port N] [--count N]\n"
             "                                   packets on PORT (default one v4 tcp packet):\n"
             "                                   they wake an idle link; in filter mode a\n"
             "                                   downlink packet no filter allows is dropped\n"
             "  energy [--json]                  per port and in total: time connected and\n"
             "                                   idle, promotions, energy, packets delivered\n"
             "                                   and dropped, in the radio clock's time\n"
             "  energy --reset                   count again from zero, from now\n"
             "  energy --oracle MAX_PROMOTIONS   the least energy a dormancy policy could reach\n"
             "                                   for the packets delivered up to the last\n"
             "                                   report: unlimited, and with no more promotions\n"
             "\n"
             "OPERATION is one of:") +
         ops +
         "\n\n"
         "The socket is --socket PATH, else $TOV_SIM_SOCKET, else " +
         tovwire::kDefaultSocket +
         ".\n"
         "Exit status: 0 done, 1 the simulator cannot be reached, 2 bad command line.\n";
}

// `serve`'s options: false with the reason.
bool serveOptions(const std::vector<std::string>& args, double* speed, modemsim::RadioParams* radio,
                  std::string* error) {
  for (size_t i = 1; i < args.size(); i += 2) {
    if (i + 1 >= args.size() || (args[i] != "--speed" && args[i] != "--radio")) {
      *error = "serve takes --speed F and --radio FILE (see --help)";
      return false;
    }
    if (args[i] == "--radio") {
      if (!radio->load(args[i + 1], error)) return false;
      continue;
    }
    char* end = nullptr;
    *speed = strtod(args[i + 1].c_str(), &end);
    if (args[i + 1].empty() || *end != '\0' || !(*speed >= 0.001 && *speed <= 100000)) {
      *error = "--speed takes a factor from 0.001 to 100000";
      return false;
    }
  }
  return true;
}

int serve(const std::string& path, const std::vector<std::string>& args) {
  double speed = 1;
  modemsim::RadioParams radio;
  std::string error;
  if (!serveOptions(args, &speed, &radio, &error)) {
    fprintf(stderr, "modemsim: %s\n", error.c_str());
    return 2;
  }
  modemsim::SimServer server(speed);
  server.sim().setRadioParams(radio);
  if (!server.listen(path, &error)) {
    fprintf(stderr, "modemsim: %s\n", error.c_str());
    return 2;
  }
  gServer = &server;
  struct sigaction sa = {};
  sa.sa_handler = onSignal;
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  signal(SIGPIPE, SIG_IGN);
  fprintf(stderr, "modemsim: serving on %s\n", path.c_str());
  server.run();
  gServer = nullptr;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::string path = tovwire::socketPath();
  std::vector<std::string> args;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      fputs(usage().c_str(), stdout);
      return 0;
    }
    if (arg == "--socket") {
      if (i + 1 >= argc) {
        fprintf(stderr, "modemsim: --socket needs a path (see --help)\n");
        return 2;
      }
      path = argv[++i];
      continue;
    }
    args.push_back(arg);
  }
  if (args.empty()) {
    fprintf(stderr, "modemsim: no command (see --help)\n");
    return 2;
  }
  if (args[0] == "serve") return serve(path, args);
  std::string text;
  const int status = modemsim::runCommand(path, args, &text);
  if (status < 0) {
    fprintf(stderr, "modemsim: %s\n", text.c_str());
    return 1;
  }
  if (status == 0) {
    fputs(text.c_str(), stdout);
  } else {
    fprintf(stderr, "modemsim: %s", text.c_str());
  }
  return status;
}
