// The simulated modem's command line: state, dormancy and filter-mode changes, traffic
// and energy, fault injection, delays, restart and the request log.

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <sstream>

#include "ModemSim.h"
#include "tov.h"

namespace modemsim {

namespace {

const char* onOff(bool on) { return on ? "on" : "off"; }

std::string hex(uint64_t v) {
  char s[24];
  snprintf(s, sizeof(s), "0x%llx", static_cast<unsigned long long>(v));
  return s;
}

std::string v4(uint32_t hostOrder) {
  const uint32_t n = htonl(hostOrder);
  char s[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &n, s, sizeof(s));
  return s;
}

std::string v6(const uint8_t (&a)[16]) {
  char s[INET6_ADDRSTRLEN];
  inet_ntop(AF_INET6, a, s, sizeof(s));
  return s;
}

std::string quoted(const std::string& s) {
  std::string out = "\"";
  for (char c : s) {
    if ((c >= 0 && c < ' ') || c == 0x7f) {
      char escaped[8];
      snprintf(escaped, sizeof(escaped), "\\u%04x", c);
      out += escaped;
      continue;
    }
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

std::string portRange(const dfs_port_type_v01& p) {
  return std::to_string(p.port) + (p.range ? "-" + std::to_string(p.port + p.range) : "");
}

// The rule's set fields, e.g. "v4 tcp dst 10.0.0.2/255.255.255.255 dst-port 443".
std::string describe(const dfs_filter_rule_type_v01& r) {
  std::ostringstream s;
  const dfs_ipv4_info_type_v01& a = r.ip_info.v4_info;
  const dfs_ipv6_info_type_v01& b = r.ip_info.v6_info;
  const bool isV6 = r.ip_info.ip_version == DFS_IP_FAMILY_IPV6_V01;
  s << (isV6 ? "v6" : "v4");
  const int proto = r.xport_info.xport_protocol;
  s << " " << (proto == DFS_PROTO_TCP_V01 ? "tcp" : proto == DFS_PROTO_UDP_V01 ? "udp" : "proto " + std::to_string(proto));
  if (a.valid_params & DFS_IPV4_FILTER_MASK_SRC_ADDR_V01)
    s << " src " << v4(a.src_addr.ipv4_addr) << "/" << v4(a.src_addr.subnet_mask);
  if (a.valid_params & DFS_IPV4_FILTER_MASK_DEST_ADDR_V01)
    s << " dst " << v4(a.dest_addr.ipv4_addr) << "/" << v4(a.dest_addr.subnet_mask);
  if (b.valid_params & DFS_IPV6_FILTER_MASK_SRC_ADDR_V01)
    s << " src " << v6(b.src_addr.ipv6_address) << "/" << int(b.src_addr.prefix_len);
  if (b.valid_params & DFS_IPV6_FILTER_MASK_DEST_ADDR_V01)
    s << " dst " << v6(b.dest_addr.ipv6_address) << "/" << int(b.dest_addr.prefix_len);
  for (const dfs_port_info_type_v01* p : {&r.xport_info.tcp_info, &r.xport_info.udp_info}) {
    if (p->valid_params & DFS_PORT_INFO_FILTER_MASK_SRC_PORT_V01)
      s << " src-port " << portRange(p->src_port_info);
    if (p->valid_params & DFS_PORT_INFO_FILTER_MASK_DEST_PORT_V01)
      s << " dst-port " << portRange(p->dest_port_info);
  }
  return s.str();
}

std::string portJson(const dfs_port_info_type_v01& p) {
  return "{\"valid\":" + std::to_string(p.valid_params) +
         ",\"srcPort\":" + std::to_string(p.src_port_info.port) +
         ",\"srcRange\":" + std::to_string(p.src_port_info.range) +
         ",\"dstPort\":" + std::to_string(p.dest_port_info.port) +
         ",\"dstRange\":" + std::to_string(p.dest_port_info.range) + "}";
}

std::string ruleJson(uint32_t handle, const dfs_filter_rule_type_v01& r) {
  const dfs_ipv4_info_type_v01& a = r.ip_info.v4_info;
  const dfs_ipv6_info_type_v01& b = r.ip_info.v6_info;
  std::ostringstream s;
  s << "{\"handle\":" << handle << ",\"ipVersion\":" << r.ip_info.ip_version
    << ",\"v4\":{\"valid\":" << a.valid_params << ",\"src\":" << quoted(v4(a.src_addr.ipv4_addr))
    << ",\"srcMask\":" << quoted(v4(a.src_addr.subnet_mask))
    << ",\"dst\":" << quoted(v4(a.dest_addr.ipv4_addr))
    << ",\"dstMask\":" << quoted(v4(a.dest_addr.subnet_mask)) << "}"
    << ",\"v6\":{\"valid\":" << b.valid_params << ",\"src\":" << quoted(v6(b.src_addr.ipv6_address))
    << ",\"srcPrefix\":" << int(b.src_addr.prefix_len)
    << ",\"dst\":" << quoted(v6(b.dest_addr.ipv6_address))
    << ",\"dstPrefix\":" << int(b.dest_addr.prefix_len) << "}"
    << ",\"protocol\":" << r.xport_info.xport_protocol
    << ",\"tcp\":" << portJson(r.xport_info.tcp_info) << ",\"udp\":" << portJson(r.xport_info.udp_info)
    << "}";
  return s.str();
}

}  // namespace

std::string ModemSim::stateText() const {
  std::ostringstream s;
  int started = 0;
  for (const auto& st : starts_) started += st.second;
  s << "libraries started: " << started << ", modem restarts: " << restarts_ << "\n";
  for (const auto& p : ports_) {
    int channels = 0;
    for (const auto& c : p.second.channels) channels += c.second;
    s << "port " << p.first << ": control channels " << channels << "\n";
    for (int f = kV4; f <= kV6; ++f) {
      const Path& path = p.second.path[f];
      s << "  " << familyName(f) << ": " << (path.dormant ? "dormant" : "active") << ", filter mode "
        << onOff(path.filterMode) << ", auto-exit " << onOff(path.autoExit) << ", "
        << path.rules.size() << " rules\n";
    }
    const Radio& radio = links_.at(p.first).radio;
    s << "  radio: " << (radio.connected() ? "connected" : "idle");
    if (radio.releaseAt() >= 0) s << ", released in " << radio.releaseAt() - now_ << " ms";
    s << "\n";
    for (const auto& c : wds_) {
      if (c.second.port != p.first) continue;
      const WdsClient& w = c.second;
      s << "  wds client " << c.first << ": " << familyName(w.family) << ", event report mask "
        << hex(w.mask) << " dormancy report " << onOff(w.dormReport) << ", "
        << (p.second.path[w.family].dormant ? "dormant" : "active") << "\n";
    }
    for (const auto& c : dfs_) {
      if (c.second.port != p.first) continue;
      const DfsClient& d = c.second;
      s << "  dfs client " << c.first << ": ";
      if (!d.bound) {
        s << "not bound, indications " << onOff(d.indications) << "\n";
        continue;
      }
      const Path& path = p.second.path[d.family];
      s << familyName(d.family) << ", auto-exit " << onOff(path.autoExit) << ", filter mode "
        << onOff(path.filterMode) << ", indications " << onOff(d.indications) << ", "
        << path.rules.size() << " rules\n";
      for (const Rule& r : path.rules)
        s << "    filter " << r.handle << ": " << describe(r.rule) << "\n";
    }
  }
  return s.str();
}

std::string ModemSim::stateJson() const {
  std::ostringstream s;
  int started = 0;
  for (const auto& st : starts_) started += st.second;
  s << "{\"librariesStarted\":" << started << ",\"restarts\":" << restarts_ << ",\"ports\":[";
  const char* portSep = "";
  for (const auto& p : ports_) {
    int channels = 0;
    for (const auto& c : p.second.channels) channels += c.second;
    s << portSep << "{\"name\":" << quoted(p.first) << ",\"controlChannels\":" << channels;
    portSep = ",";
    for (int f = kV4; f <= kV6; ++f) {
      const Path& path = p.second.path[f];
      s << ",\"" << familyName(f) << "\":{\"dormancy\":\"" << (path.dormant ? "dormant" : "active")
        << "\",\"filterMode\":" << (path.filterMode ? "true" : "false")
        << ",\"autoExit\":" << (path.autoExit ? "true" : "false")
        << ",\"rules\":" << path.rules.size() << "}";
    }
    const Radio& radio = links_.at(p.first).radio;
    s << ",\"radio\":{\"state\":\"" << (radio.connected() ? "connected" : "idle")
      << "\",\"releaseInMs\":" << (radio.releaseAt() < 0 ? -1 : radio.releaseAt() - now_) << "}";
    s << ",\"wdsClients\":[";
    const char* sep = "";
    for (const auto& c : wds_) {
      if (c.second.port != p.first) continue;
      const WdsClient& w = c.second;
      s << sep << "{\"id\":" << c.first << ",\"family\":\"" << familyName(w.family)
        << "\",\"eventMask\":" << w.mask << ",\"dormancyReport\":" << (w.dormReport ? "true" : "false")
        << ",\"dormancy\":\"" << (p.second.path[w.family].dormant ? "dormant" : "active") << "\"}";
      sep = ",";
    }
    s << "],\"dfsClients\":[";
    sep = "";
    for (const auto& c : dfs_) {
      if (c.second.port != p.first) continue;
      const DfsClient& d = c.second;
      const Path& path = p.second.path[d.family];
      s << sep << "{\"id\":" << c.first << ",\"family\":"
        << (d.bound ? quoted(familyName(d.family)) : "null")
        << ",\"indications\":" << (d.indications ? "true" : "false");
      if (d.bound) {
        s << ",\"autoExit\":" << (path.autoExit ? "true" : "false")
          << ",\"filterMode\":" << (path.filterMode ? "true" : "false") << ",\"rules\":[";
        const char* ruleSep = "";
        for (const Rule& r : path.rules) {
          s << ruleSep << ruleJson(r.handle, r.rule);
          ruleSep = ",";
        }
        s << "]";
      }
      s << "}";
      sep = ",";
    }
    s << "]}";
  }
  s << "]}\n";
  return s.str();
}

int ModemSim::command(const std::vector<std::string>& args, std::string& text,
                      std::vector<Outgoing>& out) {
  // What is wrong, then how the command is used.
  auto wrong = [&](const std::string& what, const std::string& use) {
    text = what + "\n" + (use.empty() ? "" : "usage: " + use + "\n");
    return 2;
  };
  if (args.empty()) return wrong("no command", "");
  const std::string& cmd = args[0];
  const size_t n = args.size();
  // The first argument past what the command takes.
  auto extra = [&](size_t taken) { return cmd + ": unexpected argument '" + args[taken] + "'"; };

  if (cmd == "state") {
    const char* use = "state [--json]";
    if (n > 2) return wrong(extra(2), use);
    if (n == 2 && args[1] != "--json") return wrong(cmd + ": unknown option '" + args[1] + "'", use);
    text = n == 1 ? stateText() : stateJson();
    return 0;
  }
  if (cmd == "dormancy" || cmd == "filter-mode") {
    const bool dorm = cmd == "dormancy";
    const std::string on = dorm ? "dormant" : "on";
    const std::string off = dorm ? "active" : "off";
    const std::string use = cmd + " PORT [v4|v6] " + on + "|" + off;
    if (n < 3) return wrong(cmd + ": too few arguments", use);
    if (n > 4) return wrong(extra(4), use);
    int family = -1;
    if (n == 4) {
      if (args[2] != "v4" && args[2] != "v6")
        return wrong(cmd + ": family '" + args[2] + "' is neither v4 nor v6", use);
      family = args[2] == "v6" ? kV6 : kV4;
    }
    const std::string& value = args[n - 1];
    if (value != on && value != off)
      return wrong(cmd + ": '" + value + "' is neither " + on + " nor " + off, use);
    const std::string problem = portNameProblem(args[1]);
    if (!problem.empty()) return wrong(cmd + ": " + problem, use);
    record("cli " + cmd + " " + args[1] + (family < 0 ? "" : std::string(" ") + familyName(family)) +
           " " + value);
    if (dorm)
      setDormancy(args[1], family, value == on, false, out);
    else
      setFilterMode(args[1], family, value == on, false, out);
    return 0;
  }
  if (cmd == "traffic") return traffic(args, text, out);
  if (cmd == "energy") {
    const char* use = "energy [--json|--reset|--oracle MAX_PROMOTIONS]";
    if (n > 3 || (n == 3 && args[1] != "--oracle")) return wrong(extra(n > 3 ? 3 : 2), use);
    if (n == 1) {
      text = energyText();
    } else if (args[1] == "--json") {
      text = energyJson();
    } else if (args[1] == "--reset") {
      resetEnergy();
    } else if (long most = 0;
               n == 3 && args[1] == "--oracle" && parseNumber(args[2], 0, INT32_MAX, &most)) {
      text = oracleText(most);
    } else {
      return wrong(cmd + ": unknown option '" + args[1] + "'", use);
    }
    return 0;
  }
  if (cmd == "fail") {
    const char* use = "fail OPERATION [--times N] [--error CODE] | fail [clear]";
    if (n >= 2 && args[1] == "clear") {
      if (n > 2) return wrong(extra(2), use);
      faults_.clear();
      return 0;
    }
    if (n < 2) {
      for (const auto& f : faults_)
        text += f.first + " times " + std::to_string(f.second.times) + " error " +
                std::to_string(f.second.error) + "\n";
      return 0;
    }
    const auto& ops = operations();
    if (std::find(ops.begin(), ops.end(), args[1]) == ops.end())
      return wrong("fail: unknown operation '" + args[1] + "' (see modemsim --help)", use);
    long times = 1, error = TOV_SERVICE_ERR_INTERNAL;
    for (size_t i = 2; i < n; i += 2) {
      const std::string& option = args[i];
      if (option != "--times" && option != "--error")
        return wrong("fail: unknown option '" + option + "'", use);
      if (i + 1 >= n) return wrong("fail: " + option + " needs a value", use);
      const bool isTimes = option == "--times";
      if (!parseNumber(args[i + 1], isTimes ? 0 : 1, isTimes ? 1000000 : 0xffff,
                       isTimes ? &times : &error))
        return wrong("fail: " + option + " takes a number from " +
                         (isTimes ? "0 to 1000000" : "1 to 65535") + ", not '" + args[i + 1] + "'",
                     use);
    }
    if (times == 0)
      faults_.erase(args[1]);
    else
      faults_[args[1]] = Fault{static_cast<int>(times), static_cast<int>(error)};
    return 0;
  }
  if (cmd == "delay") {
    const char* use = "delay MS";
    long ms = 0;
    if (n < 2) return wrong("delay: no time given", use);
    if (n > 2) return wrong(extra(2), use);
    if (!parseNumber(args[1], 0, 600000, &ms))
      return wrong("delay: '" + args[1] + "' is not a number of milliseconds from 0 to 600000", use);
    delayMs_ = static_cast<int>(ms);
    return 0;
  }
  if (cmd == "restart") {
    if (n > 1) return wrong(extra(1), "restart");
    record("cli restart");
    restart(out);
    return 0;
  }
  if (cmd == "log") {
    const char* use = "log [--clear]";
    if (n > 2) return wrong(extra(2), use);
    if (n == 2 && args[1] != "--clear") return wrong("log: unknown option '" + args[1] + "'", use);
    // The answer must fit one frame: the oldest lines give way.
    size_t room = tovwire::kMaxBody - 128;
    auto first = log_.end();
    while (first != log_.begin() && std::prev(first)->size() + 1 <= room)
      room -= (--first)->size() + 1;
    if (first != log_.begin())
      text = "(" + std::to_string(first - log_.begin()) + " older lines left out)\n";
    for (auto it = first; it != log_.end(); ++it) text += *it + "\n";
    if (n == 2) log_.clear();
    return 0;
  }
  return wrong("unknown command '" + cmd + "' (see modemsim --help)", "");
}

}  // namespace modemsim
