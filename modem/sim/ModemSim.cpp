// The simulated modem's answers to library requests.

#include "ModemSim.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "tov.h"
#include "tov_wds.h"

namespace modemsim {

using tovwire::Reader;
using tovwire::Writer;

namespace {

constexpr size_t kMaxPortName = 15;
constexpr size_t kLogLines = 10000;

bool validPort(const std::string& port) { return portNameProblem(port).empty(); }

std::string result(int rc, int err, bool fault) {
  if (rc == 0) return "ok";
  std::string s = "error " + std::to_string(rc) + "/" + std::to_string(err);
  return fault ? s + " (injected)" : s;
}

Outgoing answerFrame(uint64_t connection, const tovwire::Header& h, const Writer& body) {
  return {connection, body.frame(static_cast<uint16_t>(h.kind | tovwire::kAnswer), h.seq), true};
}

}  // namespace

const char* familyName(int family) { return family == 1 ? "v6" : "v4"; }

std::string portNameProblem(const std::string& name) {
  std::string shown;  // printable, whatever the name holds
  for (char c : name.substr(0, 32)) shown += (c >= ' ' && c != 0x7f) ? c : '?';
  const std::string named = "port name '" + shown + "' ";
  if (name.empty()) return "empty port name";
  if (name.size() > kMaxPortName) return named + "is longer than 15 characters";
  if (name == "." || name == "..") return named + "is not a name";
  for (char c : name) {
    if (c == '/' || c == ':') return named + "contains '" + c + "'";
    if ((c >= 0 && c < ' ') || c == 0x7f) return named + "contains a control character";
    if (c == ' ') return named + "contains a space";
  }
  return "";
}

bool parseNumber(const std::string& text, long min, long max, long* out) {
  char* end = nullptr;
  errno = 0;
  const long v = strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno != 0 || v < min || v > max) return false;
  *out = v;
  return true;
}

const std::vector<std::string>& ModemSim::operations() {
  static const std::vector<std::string> ops = {
      "start",           "stop",           "ctrl",
      "wds-start",       "wds-ip-pref",    "wds-event-report",
      "wds-get-dormancy", "wds-go-dormant", "wds-release",
      "dfs-start",       "dfs-bind",       "dfs-ind-register",
      "dfs-add-filters", "dfs-set-mode",   "dfs-get-mode",
      "dfs-set-autoexit", "dfs-remove-filters", "dfs-release"};
  return ops;
}

void ModemSim::record(const std::string& line) {
  log_.push_back(std::to_string(++logCount_) + " " + line);
  if (log_.size() > kLogLines) log_.pop_front();
}

bool ModemSim::injected(const std::string& operation, int* error) {
  const auto it = faults_.find(operation);
  if (it == faults_.end()) return false;
  *error = it->second.error;
  if (--it->second.times <= 0) faults_.erase(it);
  return true;
}

void ModemSim::handleFrame(uint64_t connection, const tovwire::Header& header,
                           const std::vector<uint8_t>& body, std::vector<Outgoing>& out) {
  Reader in(body.data(), body.size());
  if (header.kind == tovwire::kCli) {
    std::vector<std::string> args(in.u16());
    for (std::string& a : args) a = in.str();
    Writer answer;
    if (!in.done()) {
      answer.str("malformed command");
      out.push_back({connection, answer.frame(tovwire::kError, header.seq), false});
      return;
    }
    std::string text;
    int status = command(args, text, out);
    if (text.size() > tovwire::kMaxBody - 8) {
      status = 1;
      text = "the answer of " + std::to_string(text.size()) +
             " bytes is longer than the wire takes (8 MiB)\n";
    }
    answer.i32(status).text(text);
    out.push_back({connection, answer.frame(tovwire::kCli | tovwire::kAnswer, header.seq), false});
    return;
  }

  Writer fields;  // what follows "rc err" in the answer
  int err = TOV_SERVICE_ERR_NONE;
  int rc = 0;
  std::string note;
  switch (header.kind) {
    case tovwire::kHello:
      rc = hello(connection, in, &err, note);
      break;
    case tovwire::kBye:
      rc = bye(connection, &err, note);
      break;
    case tovwire::kCtrlOpen:
      rc = ctrlOpen(connection, in, &err, note);
      break;
    case tovwire::kWdsStart:
      rc = wdsStart(connection, in, &err, fields, note);
      break;
    case tovwire::kWdsIpPref:
    case tovwire::kWdsEventReport:
    case tovwire::kWdsGetDormancy:
    case tovwire::kWdsGoDormant:
    case tovwire::kWdsRelease:
      rc = wdsRequest(header.kind, connection, in, &err, fields, note, out);
      break;
    case tovwire::kDfsStart:
      rc = dfsStart(connection, in, fields, note);
      break;
    case tovwire::kDfsRequest:
      rc = dfsRequest(connection, in, fields, note, out);
      break;
    case tovwire::kDfsRelease:
      rc = dfsRelease(connection, in, note);
      break;
    default: {
      Writer answer;
      answer.str("unexpected frame kind " + std::to_string(header.kind));
      out.push_back({connection, answer.frame(tovwire::kError, header.seq), false});
      return;
    }
  }
  if (note.empty()) {  // a body the request's fields did not fit
    Writer answer;
    answer.str("malformed request of kind " + std::to_string(header.kind));
    out.push_back({connection, answer.frame(tovwire::kError, header.seq), false});
    return;
  }
  record(note);
  Writer answer;
  answer.i32(rc).i32(err);
  if (rc == 0) answer.bytes(fields.body().data(), fields.size());
  // Indications the request caused were queued first; its answer goes out after them.
  out.push_back(answerFrame(connection, header, answer));
}

int ModemSim::hello(uint64_t connection, Reader& in, int* err, std::string& note) {
  const uint32_t pid = in.u32();
  if (!in.done()) return 0;
  const bool fault = injected("start", err);
  const int rc = fault ? TOV_SERVICE_ERR : 0;
  if (!fault) ++starts_[connection];
  note = "start pid " + std::to_string(pid) + " -> " + result(rc, *err, fault);
  return rc;
}

int ModemSim::bye(uint64_t connection, int* err, std::string& note) {
  bool fault = injected("stop", err);
  int rc = fault ? TOV_SERVICE_ERR : 0;
  if (!fault && starts_[connection] == 0) {
    rc = TOV_SERVICE_ERR;
    *err = TOV_SERVICE_ERR_INVALID_OPERATION;
  } else if (!fault) {
    --starts_[connection];
  }
  note = "stop -> " + result(rc, *err, fault);
  return rc;
}

int ModemSim::ctrlOpen(uint64_t connection, Reader& in, int* err, std::string& note) {
  const std::string port = in.str();
  if (!in.done()) return 0;
  int rc = 0;
  const bool fault = injected("ctrl", err);
  if (fault) {
    rc = TOV_SERVICE_ERR;
  } else if (!validPort(port)) {
    rc = TOV_SERVICE_ERR;
    *err = TOV_SERVICE_ERR_INVALID_ARG;
  } else {
    ++this->port(port).channels[connection];
  }
  note = "ctrl-open " + port + " -> " + result(rc, *err, fault);
  return rc;
}

int ModemSim::wdsStart(uint64_t connection, Reader& in, int* err, Writer& answer,
                       std::string& note) {
  const std::string port = in.str();
  if (!in.done()) return 0;
  int rc = 0;
  const bool fault = injected("wds-start", err);
  const auto it = ports_.find(port);
  if (fault) {
    rc = TOV_SERVICE_ERR;
  } else if (it == ports_.end() || it->second.channels.count(connection) == 0) {
    rc = TOV_PORT_NOT_OPEN_ERR;
  } else {
    const uint32_t id = nextClient_++;
    wds_[id] = WdsClient{connection, port};
    answer.u32(id);
    note = "wds-start " + port + " -> client " + std::to_string(id);
    return 0;
  }
  note = "wds-start " + port + " -> " + result(rc, *err, fault);
  return rc;
}

int ModemSim::wdsRequest(uint16_t kind, uint64_t connection, Reader& in, int* err,
                         Writer& answer, std::string& note, std::vector<Outgoing>& out) {
  // Never destroyed, as the DFS table: the release of a daemon stopping at exit may still
  // come in.
  static const std::map<uint16_t, std::string>& kOps = *new std::map<uint16_t, std::string>{
      {tovwire::kWdsIpPref, "wds-ip-pref"},           {tovwire::kWdsEventReport, "wds-event-report"},
      {tovwire::kWdsGetDormancy, "wds-get-dormancy"}, {tovwire::kWdsGoDormant, "wds-go-dormant"},
      {tovwire::kWdsRelease, "wds-release"}};
  const std::string& op = kOps.at(kind);
  const uint32_t id = in.u32();
  uint32_t family = 0, mask = 0;
  uint8_t dormReport = 0;
  if (kind == tovwire::kWdsIpPref) family = in.u32();
  if (kind == tovwire::kWdsEventReport) {
    mask = in.u32();
    in.u8(), in.u8();  // channel rate and bearer technology reports: not modelled
    dormReport = in.u8();
  }
  if (!in.done()) return 0;

  const auto it = wds_.find(id);
  std::string who = op + " client " + std::to_string(id);
  if (it == wds_.end() || it->second.connection != connection) {
    *err = TOV_SERVICE_ERR_INVALID_CLIENT_ID;
    note = who + " -> " + result(TOV_SERVICE_ERR, *err, false);
    return TOV_SERVICE_ERR;
  }
  WdsClient& client = it->second;
  who = op + " " + client.port + " " + familyName(client.family) + " client " + std::to_string(id);
  if (injected(op, err)) {
    note = who + " -> " + result(TOV_SERVICE_ERR, *err, true);
    return TOV_SERVICE_ERR;
  }
  Path& path = port(client.port).path[client.family];
  switch (kind) {
    case tovwire::kWdsIpPref:
      who += std::string(" ") + (family == 6 ? "v6" : family == 4 ? "v4" : std::to_string(family));
      if (family != TOV_IP_FAMILY_PREF_IPV4 && family != TOV_IP_FAMILY_PREF_IPV6) {
        *err = TOV_SERVICE_ERR_INVALID_ARG;
        note = who + " -> " + result(TOV_SERVICE_ERR, *err, false);
        return TOV_SERVICE_ERR;
      }
      client.family = family == TOV_IP_FAMILY_PREF_IPV6 ? kV6 : kV4;
      break;
    case tovwire::kWdsEventReport: {
      char text[64];
      snprintf(text, sizeof(text), " mask 0x%x dormancy %s", mask, dormReport ? "on" : "off");
      who += text;
      client.mask = mask;
      if (mask & TOV_WDS_EVENT_DORM_STATUS_IND) client.dormReport = dormReport != 0;
      break;
    }
    case tovwire::kWdsGetDormancy:
      answer.u32(path.dormant ? TOV_WDS_DORM_STATUS_DORMANT : TOV_WDS_DORM_STATUS_ACTIVE);
      note = who + " -> " + (path.dormant ? "dormant" : "active");
      return 0;
    case tovwire::kWdsGoDormant: {
      note = who + " -> ok";
      const std::string port = client.port;
      setDormancy(port, -1, true, true, out);
      return 0;
    }
    case tovwire::kWdsRelease:
      wds_.erase(it);
      break;
  }
  note = who + " -> ok";
  return 0;
}

int ModemSim::dfsStart(uint64_t connection, Reader& in, Writer& answer, std::string& note) {
  const std::string port = in.str();
  const uint32_t instance = in.u32();
  if (!in.done()) return 0;
  int err = 0;
  int rc = 0;
  const bool fault = injected("dfs-start", &err);
  if (fault) {
    rc = TOV_CLIENT_SERVICE_ERR;
  } else if (!validPort(port)) {
    rc = TOV_CLIENT_PARAM_ERR;
  } else {
    const uint32_t id = nextClient_++;
    dfs_[id] = DfsClient{connection, port};
    this->port(port);
    answer.u32(id);
    note = "dfs-start " + port + " instance " + std::to_string(instance) + " -> client " +
           std::to_string(id);
    return 0;
  }
  note = "dfs-start " + port + " -> " + result(rc, err, fault);
  return rc;
}

int ModemSim::dfsRelease(uint64_t connection, Reader& in, std::string& note) {
  const uint32_t id = in.u32();
  if (!in.done()) return 0;
  const auto it = dfs_.find(id);
  int err = 0;
  int rc = 0;
  bool fault = false;
  if (it == dfs_.end() || it->second.connection != connection) {
    rc = TOV_CLIENT_INVALID_HANDLE;
  } else if ((fault = injected("dfs-release", &err))) {
    rc = TOV_CLIENT_SERVICE_ERR;
  } else {
    dfs_.erase(it);
  }
  note = "dfs-release client " + std::to_string(id) + " -> " + result(rc, err, fault);
  return rc;
}

int ModemSim::dfsRequest(uint64_t connection, Reader& in, Writer& answer, std::string& note,
                         std::vector<Outgoing>& out) {
  const uint32_t id = in.u32();
  const unsigned msgId = in.u16();
  if (!in.ok()) return 0;
  char hex[16];
  snprintf(hex, sizeof(hex), "0x%02x", msgId);
  const auto it = dfs_.find(id);
  if (it == dfs_.end() || it->second.connection != connection) {
    note = std::string("dfs ") + hex + " client " + std::to_string(id) + " -> no such client";
    return TOV_CLIENT_INVALID_HANDLE;
  }
  const size_t reqSize = tovwire::dfsStructSize(TOV_IDL_REQUEST, msgId);
  const size_t respSize = tovwire::dfsStructSize(TOV_IDL_RESPONSE, msgId);
  if (reqSize == 0 || respSize == 0) {
    note = std::string("dfs ") + hex + " client " + std::to_string(id) + " -> unknown message";
    return TOV_CLIENT_SERVICE_ERR;
  }
  // Large messages (the add-filters request is 44888 bytes) live on the heap here.
  std::unique_ptr<uint8_t[]> request(new uint8_t[reqSize]);
  std::unique_ptr<uint8_t[]> response(new uint8_t[respSize]());
  tov_response_type_v01* resp = reinterpret_cast<tov_response_type_v01*>(response.get());
  if (!tovwire::decodeDfs(TOV_IDL_REQUEST, msgId, in, request.get(), reqSize)) {
    resp->result = TOV_RESULT_FAILURE_V01;
    resp->error = TOV_SERVICE_ERR_MALFORMED_MSG;
    note = std::string("dfs ") + hex + " client " + std::to_string(id) + " -> malformed";
  } else {
    const int error = dfsMessage(id, it->second, msgId, request.get(), response.get(), note, out);
    resp->result = error == 0 ? TOV_RESULT_SUCCESS_V01 : TOV_RESULT_FAILURE_V01;
    resp->error = error;
  }
  tovwire::encodeDfs(TOV_IDL_RESPONSE, msgId, response.get(), respSize, answer);
  return 0;
}

}  // namespace modemsim
