// The simulated modem's data filter service, dormancy changes and restarts.

#include <cstring>

#include "ModemSim.h"
#include "tov.h"
#include "tov_wds.h"

namespace modemsim {

using tovwire::Writer;

namespace {

constexpr size_t kMaxRulesPerPath = 2048;

bool knownProtocol(int p) {
  switch (p) {
    case DFS_PROTO_NONE_V01:
    case DFS_PROTO_ICMP_V01:
    case DFS_PROTO_TCP_V01:
    case DFS_PROTO_UDP_V01:
    case DFS_PROTO_ESP_V01:
    case DFS_PROTO_ICMP6_V01:
    case DFS_PROTO_TCP_UDP_V01:
      return true;
  }
  return false;
}

}  // namespace

int ModemSim::dfsMessage(uint32_t id, DfsClient& client, unsigned msgId, void* request,
                         void* response, std::string& note, std::vector<Outgoing>& out) {
  // Never destroyed: a simulator served in-process answers until the process has ended,
  // after the static destructors.
  static const std::map<unsigned, std::string>& kOps = *new std::map<unsigned, std::string>{
      {TOV_DFS_INDICATION_REGISTER_REQ_V01, "dfs-ind-register"},
      {TOV_DFS_BIND_CLIENT_REQ_V01, "dfs-bind"},
      {TOV_DFS_ADD_POWERSAVE_FILTERS_REQ_V01, "dfs-add-filters"},
      {TOV_DFS_SET_POWERSAVE_FILTER_MODE_REQ_V01, "dfs-set-mode"},
      {TOV_DFS_GET_POWERSAVE_FILTER_MODE_REQ_V01, "dfs-get-mode"},
      {TOV_DFS_SET_AUTOEXIT_POWERSAVE_FILTER_MODE_REQ_V01, "dfs-set-autoexit"},
      {TOV_DFS_REMOVE_ALL_POWERSAVE_FILTERS_REQ_V01, "dfs-remove-filters"}};
  const std::string& op = kOps.at(msgId);
  note = op + " " + client.port + (client.bound ? std::string(" ") + familyName(client.family) : "") +
         " client " + std::to_string(id);
  int error = 0;
  auto done = [&](int e, const std::string& detail, bool fault = false) {
    note += detail + " -> ";
    if (e == 0)
      note += "ok";
    else
      note += "error " + std::to_string(e) + (fault ? " (injected)" : "");
    return e;
  };
  if (injected(op, &error)) return done(error, "", true);

  Path& path = port(client.port).path[client.family];
  if (msgId == TOV_DFS_INDICATION_REGISTER_REQ_V01) {
    const auto* req = static_cast<dfs_indication_register_req_msg_v01*>(request);
    if (req->report_powersave_filter_mode_change_valid)
      client.indications = req->report_powersave_filter_mode_change != 0;
    return done(0, std::string(" mode changes ") + (client.indications ? "on" : "off"));
  }
  if (msgId == TOV_DFS_BIND_CLIENT_REQ_V01) {
    const auto* req = static_cast<dfs_bind_client_req_msg_v01*>(request);
    const int family = req->ip_preference;
    if (!req->ip_preference_valid ||
        (family != DFS_IP_FAMILY_IPV4_V01 && family != DFS_IP_FAMILY_IPV6_V01))
      return done(TOV_SERVICE_ERR_INVALID_ARG, " family " + std::to_string(family));
    client.bound = true;
    client.family = family == DFS_IP_FAMILY_IPV6_V01 ? kV6 : kV4;
    return done(0, std::string(" ") + familyName(client.family));
  }
  if (!client.bound) return done(TOV_SERVICE_ERR_INVALID_OPERATION, " (not bound)");

  switch (msgId) {
    case TOV_DFS_ADD_POWERSAVE_FILTERS_REQ_V01: {
      const auto* req = static_cast<dfs_add_powersave_filters_req_msg_v01*>(request);
      const uint32_t n = req->powersave_filter_rules_valid ? req->powersave_filter_rules_len : 0;
      const std::string detail = " " + std::to_string(n) + " rules";
      if (n == 0) return done(TOV_SERVICE_ERR_INVALID_ARG, detail);
      const int version = client.family == kV6 ? DFS_IP_FAMILY_IPV6_V01 : DFS_IP_FAMILY_IPV4_V01;
      for (uint32_t i = 0; i < n; ++i) {
        const dfs_filter_rule_type_v01& rule = req->powersave_filter_rules[i];
        if (rule.ip_info.ip_version != version || !knownProtocol(rule.xport_info.xport_protocol))
          return done(TOV_SERVICE_ERR_INVALID_ARG, detail + " (rule " + std::to_string(i) + ")");
      }
      if (path.rules.size() + n > kMaxRulesPerPath) return done(TOV_SERVICE_ERR_NO_MEMORY, detail);
      auto* resp = static_cast<dfs_add_powersave_filters_resp_msg_v01*>(response);
      resp->filter_handles_valid = 1;
      resp->filter_handles_len = n;
      resp->filter_cookies_valid = 1;
      resp->filter_cookies_len = n;
      for (uint32_t i = 0; i < n; ++i) {
        const uint32_t handle = nextFilter_++;
        path.rules.push_back({handle, req->powersave_filter_rules[i]});
        resp->filter_handles[i] = handle;
        resp->filter_cookies[i] = uint64_t(id) << 32 | handle;
      }
      return done(0, detail);
    }
    case TOV_DFS_SET_POWERSAVE_FILTER_MODE_REQ_V01: {
      const bool on = static_cast<dfs_set_powersave_filter_mode_req_msg_v01*>(request)
                          ->powersave_filter_mode != 0;
      done(0, on ? " on" : " off");
      setFilterMode(client.port, client.family, on, true, out);
      return 0;
    }
    case TOV_DFS_GET_POWERSAVE_FILTER_MODE_REQ_V01: {
      auto* resp = static_cast<dfs_get_powersave_filter_mode_resp_msg_v01*>(response);
      resp->powersave_filter_mode_valid = 1;
      resp->powersave_filter_mode = path.filterMode ? 1 : 0;
      return done(0, path.filterMode ? " (on)" : " (off)");
    }
    case TOV_DFS_SET_AUTOEXIT_POWERSAVE_FILTER_MODE_REQ_V01:
      path.autoExit =
          static_cast<dfs_set_autoexit_powersave_filter_mode_req_msg_v01*>(request)->autoexit != 0;
      return done(0, path.autoExit ? " on" : " off");
    case TOV_DFS_REMOVE_ALL_POWERSAVE_FILTERS_REQ_V01: {
      const size_t n = path.rules.size();
      path.rules.clear();
      return done(0, " " + std::to_string(n) + " rules");
    }
  }
  return done(TOV_SERVICE_ERR_INVALID_OPERATION, "");
}

void ModemSim::setDormancy(const std::string& port, int family, bool dormant, bool onlyIfChanged,
                           std::vector<Outgoing>& out) {
  Port& p = this->port(port);
  for (int f = kV4; f <= kV6; ++f) {
    if (family >= 0 && family != f) continue;
    const bool changed = p.path[f].dormant != dormant;
    p.path[f].dormant = dormant;
    if (!changed && onlyIfChanged) continue;
    for (const auto& c : wds_) {
      const WdsClient& client = c.second;
      if (client.port != port || client.family != f || !client.dormReport) continue;
      Writer ind;
      ind.u32(c.first)
          .u32(TOV_WDS_SRVC_EVENT_REPORT_IND_MSG)
          .u64(TOV_WDS_EVENT_DORM_STATUS_IND)
          .u32(dormant ? TOV_WDS_DORM_STATUS_DORMANT : TOV_WDS_DORM_STATUS_ACTIVE);
      out.push_back({client.connection, ind.frame(tovwire::kWdsIndication, 0), false});
    }
  }
  followPaths(port);
}

void ModemSim::setFilterMode(const std::string& port, int family, bool on, bool onlyIfChanged,
                             std::vector<Outgoing>& out) {
  Port& p = this->port(port);
  for (int f = kV4; f <= kV6; ++f) {
    if (family >= 0 && family != f) continue;
    const bool changed = p.path[f].filterMode != on;
    p.path[f].filterMode = on;
    if (!changed && onlyIfChanged) continue;
    for (const auto& c : dfs_) {
      const DfsClient& client = c.second;
      if (client.port != port || !client.bound || client.family != f || !client.indications)
        continue;
      dfs_powersave_filter_mode_ind_msg_v01 msg = {static_cast<uint8_t>(on ? 1 : 0)};
      Writer ind;
      ind.u32(c.first).u16(TOV_DFS_POWERSAVE_FILTER_MODE_IND_V01);
      tovwire::encodeDfs(TOV_IDL_INDICATION, TOV_DFS_POWERSAVE_FILTER_MODE_IND_V01, &msg,
                         sizeof(msg), ind);
      out.push_back({client.connection, ind.frame(tovwire::kDfsIndication, 0), false});
    }
  }
}

void ModemSim::restart(std::vector<Outgoing>& out) {
  ++restarts_;
  // The data calls drop with the modem; a port opened again comes with a new one.
  for (auto& link : links_) link.second.radio.release(now_);
  wds_.clear();
  dfs_.clear();
  ports_.clear();
  for (const auto& s : starts_) {
    if (s.second <= 0) continue;
    for (uint32_t event : {TOV_SYS_EVENT_MODEM_OUT_OF_SERVICE_IND, TOV_SYS_EVENT_MODEM_IN_SERVICE_IND}) {
      Writer ev;
      ev.u32(event).u32(restarts_);
      out.push_back({s.first, ev.frame(tovwire::kSysEvent, 0), false});
    }
  }
}

void ModemSim::connectionClosed(uint64_t connection) {
  starts_.erase(connection);
  for (auto it = wds_.begin(); it != wds_.end();)
    it = it->second.connection == connection ? wds_.erase(it) : std::next(it);
  for (auto it = dfs_.begin(); it != dfs_.end();)
    it = it->second.connection == connection ? dfs_.erase(it) : std::next(it);
  for (auto& p : ports_) p.second.channels.erase(connection);
}

}  // namespace modemsim
