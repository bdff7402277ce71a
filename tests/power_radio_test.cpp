// The simulator's radio model: an exact energy account from a fixed sequence on its own
// clock (the oracles built on it: power_replay_test.sh), and, through the real server and
// the host library, power-save filters, auto-exit and the inactivity timer reaching the
// clients unasked.

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>

#include "ModemSim.h"
#include "SimServer.h"
#include "data_filter_service_v01.h"
#include "tov.h"
#include "tov_client_helper.h"
#include "tov_wds.h"

namespace {

using Lines = std::vector<std::string>;

// The line of `port` in the energy report.
std::string portLine(const std::string& report, const std::string& port) {
  const size_t at = report.find("port " + port + " ");
  return at == std::string::npos ? "" : report.substr(at, report.find('\n', at) - at);
}

TEST(RadioTest, AFixedSequenceGivesExactFigures) {
  modemsim::ModemSim sim;
  std::vector<modemsim::Outgoing> out;
  auto at = [&](int64_t ms, const Lines& args) {
    std::string text;
    sim.advance(ms, out);
    EXPECT_EQ(0, sim.command(args, text, out)) << text;
    return text;
  };
  // Defaults: 10 s inactivity, 260 ms promotion at 1210 mW, 1060 mW connected, 20 mW idle.
  at(0, {"dormancy", "mdlnk0", "dormant"});
  at(1000, {"traffic", "mdlnk0", "down", "--count", "2"});  // promoted until 1260
  at(5000, {"traffic", "mdlnk0", "up"});                    // released at 15000
  at(20000, {"traffic", "mdlnk0", "down"});
  at(20100, {"dormancy", "mdlnk0", "dormant"});  // cuts the promotion short
  // Idle 1000 + 5000 + 1900 ms at 20 mW, promoting 260 + 100 ms at 1210 mW, connected
  // otherwise 13740 ms at 1060 mW: 158000 + 435600 + 14564400 uJ.
  EXPECT_EQ(
      "port mdlnk0 (idle now): connected 14.100 s (promoting 0.360 s), idle 7.900 s, promotions 2, "
      "energy 15.158000 J, delivered 4, dropped 0",
      portLine(at(22000, {"energy"}), "mdlnk0"));
}

// What the library's thread hands over, as lines.
struct Heard {
  std::mutex mutex;
  Lines lines;

  void add(const std::string& line) {
    std::lock_guard<std::mutex> lock(mutex);
    lines.push_back(line);
  }
  // The lines once there are `n` (or after 5 s).
  Lines wait(size_t n) {
    for (int i = 0; i < 500; ++i) {
      {
        std::lock_guard<std::mutex> lock(mutex);
        if (lines.size() >= n) return lines;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::lock_guard<std::mutex> lock(mutex);
    return lines;
  }
};

void onWds(int, tov_service_id_type, void* heard, tov_wds_indication_id_type,
           tov_wds_indication_data_type* ind) {
  const bool dormant = ind->event_report.dorm_status == TOV_WDS_DORM_STATUS_DORMANT;
  static_cast<Heard*>(heard)->add(dormant ? "dormant" : "active");
}

void onDfs(tov_client_type client, unsigned msgId, void* buf, unsigned len, void* heard) {
  dfs_powersave_filter_mode_ind_msg_v01 ind = {};
  tov_client_message_decode(client, TOV_IDL_INDICATION, msgId, buf, len, &ind, sizeof(ind));
  static_cast<Heard*>(heard)->add(ind.powersave_filter_mode ? "filter mode on" : "filter mode off");
}

// An IPv4 rule on one port, source or destination, of `info` in the rule: what the
// daemon's filter tracker sends.
dfs_filter_rule_type_v01 rule(dfs_xport_protocol_enum_v01 proto,
                              dfs_port_info_type_v01 dfs_xport_filter_type_v01::*info, bool source,
                              uint16_t port) {
  dfs_filter_rule_type_v01 r = {};
  r.ip_info.ip_version = DFS_IP_FAMILY_IPV4_V01;
  r.xport_info.xport_protocol = proto;
  dfs_port_info_type_v01& p = r.xport_info.*info;
  p.valid_params =
      source ? DFS_PORT_INFO_FILTER_MASK_SRC_PORT_V01 : DFS_PORT_INFO_FILTER_MASK_DEST_PORT_V01;
  (source ? p.src_port_info : p.dest_port_info) = {port, 0};
  return r;
}

TEST(RadioServerTest, FiltersAutoExitAndTheInactivityTimerReachTheClients) {
  char dir[] = "/tmp/noxradio-XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(dir));
  const std::string path = std::string(dir) + "/sim.sock";
  modemsim::SimServer server(100);  // the 10 s inactivity timer runs out in 100 ms
  std::string error;
  ASSERT_TRUE(server.listen(path, &error)) << error;
  std::thread serving([&] { server.run(); });
  setenv("TOV_SIM_SOCKET", path.c_str(), 1);
  auto cli = [&](const Lines& args) {
    std::string text;
    EXPECT_EQ(0, modemsim::runCommand(path, args, &text)) << text;
    return text;
  };

  const int lib = tov_init(nullptr, nullptr);
  ASSERT_GE(lib, 0);
  int err = 0;
  Heard dfsHeard, timerHeard;
  tov_client_type dfs = nullptr;
  ASSERT_EQ(TOV_NO_ERR, tov_dev_connection_init("mdlnk0", &err));
  ASSERT_EQ(TOV_CLIENT_NO_ERR,
            tov_client_dfs_init_instance("mdlnk0", dfs_get_service_object_v01(), 0xffff, onDfs,
                                         &dfsHeard, nullptr, 5000, &dfs));
  auto request = [&](unsigned id, auto req, auto resp) {
    EXPECT_EQ(0, tov_client_send_msg_sync(dfs, id, &req, sizeof(req), &resp, sizeof(resp), 1000));
    EXPECT_EQ(TOV_RESULT_SUCCESS_V01, resp.resp.result) << "message " << id;
  };
  dfs_bind_client_req_msg_v01 bind = {};
  bind.ip_preference_valid = 1, bind.ip_preference = DFS_IP_FAMILY_IPV4_V01;
  request(TOV_DFS_BIND_CLIENT_REQ_V01, bind, dfs_bind_client_resp_msg_v01{});
  request(TOV_DFS_INDICATION_REGISTER_REQ_V01, dfs_indication_register_req_msg_v01{1, 1, 0, 0, 0, 0},
          dfs_indication_register_resp_msg_v01{});
  request(TOV_DFS_SET_AUTOEXIT_POWERSAVE_FILTER_MODE_REQ_V01,
          dfs_set_autoexit_powersave_filter_mode_req_msg_v01{1},
          dfs_set_autoexit_powersave_filter_mode_resp_msg_v01{});
  dfs_add_powersave_filters_req_msg_v01 add = {};
  add.powersave_filter_rules_valid = 1, add.powersave_filter_rules_len = 2;
  add.powersave_filter_rules[0] = rule(DFS_PROTO_TCP_V01, &dfs_xport_filter_type_v01::tcp_info, true, 5228);
  add.powersave_filter_rules[1] = rule(DFS_PROTO_UDP_V01, &dfs_xport_filter_type_v01::udp_info, false, 53);
  request(TOV_DFS_ADD_POWERSAVE_FILTERS_REQ_V01, add, dfs_add_powersave_filters_resp_msg_v01{});
  request(TOV_DFS_SET_POWERSAVE_FILTER_MODE_REQ_V01, dfs_set_powersave_filter_mode_req_msg_v01{1},
          dfs_set_powersave_filter_mode_resp_msg_v01{});
  EXPECT_EQ(Lines{"filter mode on"}, dfsHeard.wait(1));

  struct Case {
    Lines options;
    const char* outcome;
  };
  const Case cases[] = {
      {{"--src-port", "443"}, "dropped"},
      {{"--src-port", "5228"}, "delivered"},
      {{"--proto", "udp", "--src-port", "5228"}, "dropped"},  // the protocol must match too
      {{"--proto", "udp", "--dst-port", "53"}, "delivered"},
      {{"--family", "v6", "--src-port", "443"}, "delivered"},  // IPv6 is not filtering
  };
  for (const Case& c : cases) {
    Lines args = {"traffic", "mdlnk0", "down"};
    args.insert(args.end(), c.options.begin(), c.options.end());
    EXPECT_EQ(std::string(c.outcome) + "\n", cli(args)) << args[3] << " " << args[4];
  }
  // Uplink ends IPv4's filter mode by itself and tells the client; IPv6 is untouched.
  cli({"filter-mode", "mdlnk0", "v6", "on"});
  cli({"traffic", "mdlnk0", "up", "--dst-port", "443"});
  EXPECT_EQ((Lines{"filter mode on", "filter mode off"}), dfsHeard.wait(2));
  const std::string state = cli({"state"});
  EXPECT_NE(std::string::npos, state.find(", filter mode off, auto-exit on, 2 rules")) << state;
  EXPECT_NE(std::string::npos, state.find(", filter mode on, auto-exit off, 0 rules")) << state;

  // A port whose only event is one packet: its release reaches the client with nothing
  // asked of the simulator, once the server wakes for the timer.
  ASSERT_EQ(TOV_NO_ERR, tov_dev_connection_init("mdlnk1", &err));
  const int wds = tov_wds_srvc_init_client("mdlnk1", onWds, &timerHeard, &err);
  ASSERT_GE(wds, 0);
  tov_wds_event_report_params_type report = {TOV_WDS_EVENT_DORM_STATUS_IND, 0, 0, 1};
  ASSERT_EQ(TOV_NO_ERR, tov_wds_set_event_report(wds, &report, &err));
  cli({"traffic", "mdlnk1", "up"});
  EXPECT_EQ(Lines{"dormant"}, timerHeard.wait(1));

  tov_wds_srvc_release_client(wds, &err);
  tov_client_release(dfs);
  tov_release(lib);
  server.stop();
  serving.join();
  rmdir(dir);
}

}  // namespace
