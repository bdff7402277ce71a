#ifndef MODEMSIM_MODEMSIM_H
#define MODEMSIM_MODEMSIM_H

// The simulated modem: ports with their control channels, WDS and DFS clients, the
// dormancy and power-save filters of each port and IP family, the radio of each port
// (traffic, its energy, and what the filters drop), fault injection and a log of the
// requests. It only turns frames into frames; SimServer moves the bytes and keeps the
// time.

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "Oracle.h"
#include "Radio.h"
#include "data_filter_service_v01.h"
#include "tov_wire.h"

namespace modemsim {

// "v4" or "v6", as the simulator's texts name an IP family (0 or 1).
const char* familyName(int family);
// A decimal number from `text` within [min, max]; false for anything else.
bool parseNumber(const std::string& text, long min, long max, long* out);
// What keeps `name` from being a port's name, or "" when nothing does. Ports are named
// as the kernel names interfaces: 1 to 15 bytes, not "." or "..", no '/', ':',
// whitespace or control character.
std::string portNameProblem(const std::string& name);

// A frame for connection `connection`. Answers to library requests wait for the
// configured delay; everything else goes out at once, behind what is queued.
struct Outgoing {
  uint64_t connection;
  std::vector<uint8_t> frame;
  bool delayed;
};

class ModemSim {
 public:
  ModemSim() = default;

  // Takes one well-formed frame from `connection` and appends what must be sent.
  void handleFrame(uint64_t connection, const tovwire::Header& header,
                   const std::vector<uint8_t>& body, std::vector<Outgoing>& out);
  // The connection ended: its libraries, clients and control channels are gone.
  void connectionClosed(uint64_t connection);
  // A command line (without the program name): the exit status and the text to print.
  int command(const std::vector<std::string>& args, std::string& text,
              std::vector<Outgoing>& out);

  int delayMs() const { return delayMs_; }

  // The radio's clock, in milliseconds: releases the connections whose inactivity timer
  // ran out by `nowMs` (each at its own time, indicated as a dormancy change), then
  // stands at `nowMs`. An earlier time than the last one is taken as the last one.
  void advance(int64_t nowMs, std::vector<Outgoing>& out);
  // The earliest time an inactivity timer runs out; -1 when none runs.
  int64_t nextRadioEventMs() const;
  void setRadioParams(const RadioParams& params) { radio_ = params; }

  // The fault names, in the order --help lists them.
  static const std::vector<std::string>& operations();

 private:
  enum Family { kV4 = 0, kV6 = 1 };
  struct Rule {
    uint32_t handle;
    dfs_filter_rule_type_v01 rule;
  };
  // What the modem keeps per port and IP family.
  struct Path {
    bool dormant = false;
    bool filterMode = false;
    bool autoExit = false;
    std::vector<Rule> rules;
  };
  struct Port {
    std::map<uint64_t, int> channels;  // control channels opened, per connection
    Path path[2];
  };
  struct WdsClient {
    uint64_t connection;
    std::string port;
    Family family = kV4;
    uint32_t mask = 0;
    bool dormReport = false;
  };
  struct DfsClient {
    uint64_t connection;
    std::string port;
    bool bound = false;
    Family family = kV4;
    bool indications = false;
  };
  struct Fault {
    int times;
    int error;
  };
  // A port's radio and its packets; kept across modem restarts, unlike the port.
  struct Link {
    Radio radio;
    uint64_t delivered = 0;
    uint64_t dropped = 0;
    std::map<std::string, uint64_t> droppedBy;  // "v4 tcp/443": downlink by remote port
    PortRecord record;                          // since the totals were reset, for the oracles
  };

  // Library requests, each appending its answer fields after "rc err" to `answer`.
  int hello(uint64_t connection, tovwire::Reader& in, int* err, std::string& note);
  int bye(uint64_t connection, int* err, std::string& note);
  int ctrlOpen(uint64_t connection, tovwire::Reader& in, int* err, std::string& note);
  int wdsStart(uint64_t connection, tovwire::Reader& in, int* err, tovwire::Writer& answer,
               std::string& note);
  int wdsRequest(uint16_t kind, uint64_t connection, tovwire::Reader& in, int* err,
                 tovwire::Writer& answer, std::string& note, std::vector<Outgoing>& out);
  int dfsStart(uint64_t connection, tovwire::Reader& in, tovwire::Writer& answer,
               std::string& note);
  int dfsRequest(uint64_t connection, tovwire::Reader& in, tovwire::Writer& answer,
                 std::string& note, std::vector<Outgoing>& out);
  int dfsRelease(uint64_t connection, tovwire::Reader& in, std::string& note);
  // DFS message handling: the modem's result for the decoded request.
  int dfsMessage(uint32_t id, DfsClient& client, unsigned msgId, void* request, void* response,
                 std::string& note, std::vector<Outgoing>& out);

  // True (and the error to answer with) when a fault is armed for `operation`.
  bool injected(const std::string& operation, int* error);
  void setDormancy(const std::string& port, int family, bool dormant, bool onlyIfChanged,
                   std::vector<Outgoing>& out);
  void setFilterMode(const std::string& port, int family, bool on, bool onlyIfChanged,
                     std::vector<Outgoing>& out);
  void restart(std::vector<Outgoing>& out);
  void record(const std::string& line);
  // The port, created when new: a new port is connected, as its paths say.
  Port& port(const std::string& name);
  // The radio of `port` follows its paths: connected while either family is active.
  void followPaths(const std::string& port);
  int traffic(const std::vector<std::string>& args, std::string& text, std::vector<Outgoing>& out);

  std::string stateText() const;
  std::string stateJson() const;
  // The reports note their time, where the oracles end.
  std::string energyText();
  std::string energyJson();
  // The oracles for the packets delivered from the reset to the last energy report,
  // the bound one with at most `maxPromotions`.
  std::string oracleText(int64_t maxPromotions) const;
  void resetEnergy();

  std::map<std::string, Port> ports_;
  std::map<std::string, Link> links_;
  RadioParams radio_;
  int64_t now_ = 0;
  int64_t reportedAt_ = 0;  // the last energy report's time, where the oracles end
  std::map<uint32_t, WdsClient> wds_;
  std::map<uint32_t, DfsClient> dfs_;
  std::map<uint64_t, int> starts_;  // libraries started, per connection
  std::map<std::string, Fault> faults_;
  uint32_t nextClient_ = 1;
  uint32_t nextFilter_ = 1;
  uint32_t restarts_ = 0;
  int delayMs_ = 0;
  std::deque<std::string> log_;
  uint64_t logCount_ = 0;
};

}  // namespace modemsim

#endif  // MODEMSIM_MODEMSIM_H
