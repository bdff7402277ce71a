// The simulated modem's radio: the link of each port follows its traffic and the
// network's inactivity timer, power-save filters drop downlink packets before they wake
// it, and the energy it spends is reported.

#include <cinttypes>
#include <cstdio>
#include <sstream>

#include "ModemSim.h"

namespace modemsim {

namespace {

constexpr size_t kMaxRecord = 4000000;

bool inRange(const dfs_port_type_v01& range, long port) {
  return port >= range.port && port <= long(range.port) + range.range;
}

// Whether `rule` lets the packet through. Injected packets carry no addresses, so a
// rule's address conditions are not checked.
bool allows(const dfs_filter_rule_type_v01& rule, int proto, long srcPort, long dstPort) {
  const dfs_xport_filter_type_v01& x = rule.xport_info;
  const dfs_port_info_type_v01* ports = nullptr;
  switch (x.xport_protocol) {
    case DFS_PROTO_NONE_V01:
      return true;
    case DFS_PROTO_TCP_V01:
    case DFS_PROTO_UDP_V01:
      if (x.xport_protocol != proto) return false;
      ports = proto == DFS_PROTO_TCP_V01 ? &x.tcp_info : &x.udp_info;
      break;
    case DFS_PROTO_TCP_UDP_V01:
      ports = &x.tcp_udp_info;
      break;
    default:
      return false;
  }
  if ((ports->valid_params & DFS_PORT_INFO_FILTER_MASK_SRC_PORT_V01) &&
      !inRange(ports->src_port_info, srcPort))
    return false;
  return !(ports->valid_params & DFS_PORT_INFO_FILTER_MASK_DEST_PORT_V01) ||
         inRange(ports->dest_port_info, dstPort);
}

std::string quoted(const std::string& text) {
  std::string s = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') s += '\\';
    s += c;
  }
  return s + "\"";
}

std::string seconds(int64_t ms) {
  char s[32];
  snprintf(s, sizeof(s), "%" PRId64 ".%03d s", ms / 1000, static_cast<int>(ms % 1000));
  return s;
}

std::string joules(uint64_t uj) {
  char s[32];
  snprintf(s, sizeof(s), "%" PRIu64 ".%06d", uj / 1000000, static_cast<int>(uj % 1000000));
  return s;
}

std::string totalsText(const RadioTotals& t, uint64_t delivered, uint64_t dropped) {
  return "connected " + seconds(t.connectedMs) + " (promoting " + seconds(t.promotionMs) +
         "), idle " + seconds(t.idleMs) + ", promotions " + std::to_string(t.promotions) +
         ", energy " + joules(t.energyUj) + " J, delivered " + std::to_string(delivered) +
         ", dropped " + std::to_string(dropped);
}

std::string totalsJson(const RadioTotals& t, uint64_t delivered, uint64_t dropped) {
  std::ostringstream s;
  s << "\"connectedMs\":" << t.connectedMs << ",\"promotingMs\":" << t.promotionMs
    << ",\"idleMs\":" << t.idleMs << ",\"promotions\":" << t.promotions
    << ",\"energyUj\":" << t.energyUj << ",\"energyJ\":" << joules(t.energyUj)
    << ",\"delivered\":" << delivered << ",\"dropped\":" << dropped;
  return s.str();
}

}  // namespace

ModemSim::Port& ModemSim::port(const std::string& name) {
  const auto it = ports_.find(name);
  if (it != ports_.end()) return it->second;
  const auto link = links_.find(name);
  if (link == links_.end())
    links_.emplace(name, Link{Radio(now_), 0, 0, {}, PortRecord{now_, true, {}}});
  else
    link->second.radio.connect(now_, radio_);
  return ports_[name];
}

void ModemSim::followPaths(const std::string& name) {
  const Port& p = port(name);
  Radio& radio = links_.at(name).radio;
  if (!p.path[kV4].dormant || !p.path[kV6].dormant)
    radio.connect(now_, radio_);
  else
    radio.release(now_);
}

void ModemSim::advance(int64_t nowMs, std::vector<Outgoing>& out) {
  for (;;) {
    const int64_t due = nextRadioEventMs();
    if (due < 0 || due > nowMs) break;
    for (auto& link : links_) {
      if (link.second.radio.releaseAt() != due) continue;
      now_ = std::max(now_, due);
      link.second.radio.release(now_);
      setDormancy(link.first, -1, true, true, out);
    }
  }
  now_ = std::max(now_, nowMs);
}

int64_t ModemSim::nextRadioEventMs() const {
  int64_t earliest = -1;
  for (const auto& link : links_) {
    const int64_t at = link.second.radio.releaseAt();
    if (at >= 0 && (earliest < 0 || at < earliest)) earliest = at;
  }
  return earliest;
}

int ModemSim::traffic(const std::vector<std::string>& args, std::string& text,
                      std::vector<Outgoing>& out) {
  const size_t n = args.size();
  auto wrong = [&](const std::string& what) {
    text = "traffic: " + what +
           "\nusage: traffic PORT up|down [--family v4|v6] [--proto tcp|udp] [--src-port N] "
           "[--dst-port N] [--count N]\n";
    return 2;
  };
  if (n < 3) return wrong("too few arguments");
  const std::string& name = args[1];
  const std::string problem = portNameProblem(name);
  if (!problem.empty()) return wrong(problem);
  if (args[2] != "up" && args[2] != "down") return wrong("'" + args[2] + "' is neither up nor down");
  const bool up = args[2] == "up";
  int family = kV4;
  int proto = DFS_PROTO_TCP_V01;
  long srcPort = 0, dstPort = 0, count = 1;
  for (size_t i = 3; i < n; i += 2) {
    const std::string& option = args[i];
    if (i + 1 >= n) return wrong(option + " needs a value");
    const std::string& value = args[i + 1];
    if (option == "--family" && (value == "v4" || value == "v6")) {
      family = value == "v6" ? kV6 : kV4;
    } else if (option == "--proto" && (value == "tcp" || value == "udp")) {
      proto = value == "udp" ? DFS_PROTO_UDP_V01 : DFS_PROTO_TCP_V01;
    } else if (!((option == "--src-port" && parseNumber(value, 0, 65535, &srcPort)) ||
                 (option == "--dst-port" && parseNumber(value, 0, 65535, &dstPort)) ||
                 (option == "--count" && parseNumber(value, 1, 1000000, &count)))) {
      return wrong("'" + option + " " + value + "' is not an option this command takes");
    }
  }

  Path& path = port(name).path[family];
  Link& link = links_.at(name);
  const char* protoName = proto == DFS_PROTO_UDP_V01 ? "udp" : "tcp";
  std::string line = "cli traffic " + name + " " + args[2] + " " + familyName(family) + " " +
                     protoName + " src-port " + std::to_string(srcPort) + " dst-port " +
                     std::to_string(dstPort) + " count " + std::to_string(count) + " -> ";
  bool pass = up || !path.filterMode;
  for (size_t i = 0; !pass && i < path.rules.size(); ++i)
    pass = allows(path.rules[i].rule, proto, srcPort, dstPort);
  if (!pass) {
    link.dropped += static_cast<uint64_t>(count);
    link.droppedBy[std::string(familyName(family)) + " " + protoName + "/" +
                   std::to_string(srcPort)] += static_cast<uint64_t>(count);
    record(line + "dropped by the filters");
    text = "dropped\n";
    return 0;
  }
  link.delivered += static_cast<uint64_t>(count);
  // Enough for days of traffic; a simulator left running for longer keeps its memory.
  if (link.record.packetsMs.size() < kMaxRecord) link.record.packetsMs.push_back(now_);
  line += "delivered";
  if (up && path.filterMode && path.autoExit) {
    line += ", filter mode off (auto-exit)";
    setFilterMode(name, family, false, true, out);
  }
  if (link.radio.packet(now_, radio_)) line += ", radio promoted";
  record(line);
  setDormancy(name, -1, false, true, out);
  text = "delivered\n";
  return 0;
}

void ModemSim::resetEnergy() {
  for (auto& entry : links_) {
    Link& link = entry.second;
    link.radio.resetTotals(now_);
    link.delivered = link.dropped = 0;
    link.droppedBy.clear();
    link.record = PortRecord{now_, link.radio.connected(), {}};
  }
  reportedAt_ = now_;
}

std::string ModemSim::energyText() {
  reportedAt_ = now_;
  std::string s = "radio: " + radio_.describe() + "\n";
  RadioTotals all;
  uint64_t delivered = 0, dropped = 0;
  for (const auto& entry : links_) {
    const Link& link = entry.second;
    const RadioTotals t = link.radio.totals(now_, radio_);
    s += "port " + entry.first + " (" + (link.radio.connected() ? "connected" : "idle") +
         " now): " + totalsText(t, link.delivered, link.dropped);
    const char* sep = " (";
    for (const auto& d : link.droppedBy) {
      s += sep + d.first + " " + std::to_string(d.second);
      sep = ", ";
    }
    s += link.droppedBy.empty() ? "\n" : ")\n";
    all += t;
    delivered += link.delivered;
    dropped += link.dropped;
  }
  return s + "total: " + totalsText(all, delivered, dropped) + "\n";
}

std::string ModemSim::energyJson() {
  reportedAt_ = now_;
  std::ostringstream s;
  s << "{\"params\":{\"inactivityMs\":" << radio_.inactivityMs
    << ",\"promotionMs\":" << radio_.promotionMs << ",\"promotionMw\":" << radio_.promotionMw
    << ",\"connectedMw\":" << radio_.connectedMw << ",\"idleMw\":" << radio_.idleMw
    << "},\"ports\":[";
  RadioTotals all;
  uint64_t delivered = 0, dropped = 0;
  const char* sep = "";
  for (const auto& entry : links_) {
    const Link& link = entry.second;
    const RadioTotals t = link.radio.totals(now_, radio_);
    s << sep << "{\"name\":" << quoted(entry.first) << ",\"state\":\""
      << (link.radio.connected() ? "connected" : "idle") << "\","
      << totalsJson(t, link.delivered, link.dropped) << ",\"droppedBy\":{";
    const char* dsep = "";
    for (const auto& d : link.droppedBy) {
      s << dsep << "\"" << d.first << "\":" << d.second;
      dsep = ",";
    }
    s << "}}";
    sep = ",";
    all += t;
    delivered += link.delivered;
    dropped += link.dropped;
  }
  s << "],\"total\":{" << totalsJson(all, delivered, dropped) << "}}\n";
  return s.str();
}

std::string ModemSim::oracleText(int64_t maxPromotions) const {
  std::vector<PortRecord> records;
  uint64_t delivered = 0, dropped = 0;
  for (const auto& entry : links_) {
    records.push_back(entry.second.record);
    delivered += entry.second.delivered;
    dropped += entry.second.dropped;
  }
  const OracleTotals best = oracles(records, reportedAt_, radio_, maxPromotions);
  const TimerTotals timer = bestTimer(records, reportedAt_, radio_, maxPromotions);
  return "oracle: releases after a packet when the next one on its port comes more than " +
         std::to_string(breakEvenGapMs(radio_)) + " ms later, up to the report at " +
         seconds(reportedAt_) + "\n" + "oracle (unlimited): " +
         totalsText(best.unlimited, delivered, dropped) + "\n" +
         "oracle (signalling-bound, at most " + std::to_string(maxPromotions) +
         " promotions): " + totalsText(best.bound, delivered, dropped) + "\n" +
         (timer.timerMs < 0 ? std::string()
                            : "timer (signalling-bound): releases " + std::to_string(timer.timerMs) +
                                  " ms after the last packet: " +
                                  totalsText(timer.totals, delivered, dropped) + "\n");
}

}  // namespace modemsim
