// The host modem library against the real modem simulator, and both ends of their wire
// against bytes written by hand.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include "ModemSimProcess.h"
#include "data_filter_service_v01.h"
#include "tov.h"
#include "tov_client_helper.h"
#include "tov_wds.h"

namespace {

using Bytes = std::vector<uint8_t>;

// A frame as the wire format lays it out: "TOVW", version, kind, length, seq, body.
Bytes frame(uint16_t kind, uint32_t seq, const Bytes& body, uint32_t magic = 0x57564f54,
            uint32_t length = UINT32_MAX) {
  if (length == UINT32_MAX) length = static_cast<uint32_t>(body.size());
  Bytes b;
  auto put = [&](uint64_t v, int n) {
    for (int i = 0; i < n; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
  };
  put(magic, 4), put(1, 2), put(kind, 2), put(length, 4), put(seq, 4);
  b.insert(b.end(), body.begin(), body.end());
  return b;
}

int connectTo(const std::string& path) {
  sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  EXPECT_EQ(0, connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
  const timeval timeout = {5, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
  return fd;
}

// The kind and seq of the next frame on `fd`; kind 0 at the end of the stream.
std::pair<int, uint32_t> nextFrame(int fd) {
  uint8_t h[16];
  if (recv(fd, h, sizeof(h), MSG_WAITALL) != 16) return {0, 0};
  const uint32_t len = h[8] | h[9] << 8 | h[10] << 16 | uint32_t(h[11]) << 24;
  Bytes body(len);
  if (len != 0) recv(fd, body.data(), len, MSG_WAITALL);
  return {h[6] | h[7] << 8, h[12] | h[13] << 8 | h[14] << 16 | uint32_t(h[15]) << 24};
}

TEST(TovLibraryTest, CallsOnWhatNeverStartedOrIsReleasedFailCleanly) {
  runWithoutModem();
  int err = -1;
  tov_client_type dfs = nullptr;
  const tov_idl_service_object_type service = dfs_get_service_object_v01();
  dfs_set_powersave_filter_mode_req_msg_v01 req = {1};
  dfs_set_powersave_filter_mode_resp_msg_v01 resp;
  testing::internal::CaptureStderr();
  EXPECT_EQ(TOV_PORT_NOT_OPEN_ERR, tov_init(nullptr, nullptr));
  EXPECT_EQ(TOV_PORT_NOT_OPEN_ERR, tov_init(nullptr, nullptr));
  // One line says where the library looks for the modem, and how to point it elsewhere.
  EXPECT_EQ("tov: no modem at /nonexistent/modemsim.sock (No such file or directory); a modem "
            "simulator's socket is named by $TOV_SIM_SOCKET\n",
            testing::internal::GetCapturedStderr());
  EXPECT_EQ(TOV_INVALID_HANDLE_ERR, tov_release(-1));
  EXPECT_EQ(TOV_PORT_NOT_OPEN_ERR, tov_dev_connection_init("mdlnk0", &err));
  EXPECT_EQ(-1, tov_wds_srvc_init_client("mdlnk0", nullptr, nullptr, &err));
  EXPECT_EQ(TOV_CLIENT_TRANSPORT_ERR,
            tov_client_dfs_init_instance("mdlnk0", service, 0xffff, nullptr, nullptr, nullptr, 5000, &dfs));
  EXPECT_EQ(nullptr, dfs_get_service_object_internal_v01(2, 6, 6));
  // Handles the library never gave out.
  tov_wds_dorm_status_type status;
  EXPECT_EQ(TOV_INVALID_HANDLE_ERR, tov_wds_get_dormancy_status(12345, &status, &err));
  EXPECT_EQ(TOV_INVALID_HANDLE_ERR, tov_wds_srvc_release_client(12345, &err));
  dfs = reinterpret_cast<tov_client_type>(uintptr_t(12345));
  EXPECT_EQ(TOV_CLIENT_INVALID_HANDLE,
            tov_client_send_msg_sync(dfs, TOV_DFS_SET_POWERSAVE_FILTER_MODE_REQ_V01, &req, sizeof(req),
                                     &resp, sizeof(resp), 1000));
  EXPECT_EQ(TOV_CLIENT_INVALID_HANDLE, tov_client_release(dfs));
}

class TovSimTest : public ::testing::Test {
 protected:
  void SetUp() override {
    lib_ = tov_init(onSysEvent, this);
    ASSERT_GE(lib_, 0);
    ASSERT_EQ(TOV_NO_ERR, tov_dev_connection_init("mdlnk0", &err_));
  }
  void TearDown() override { tov_release(lib_); }
  static void onSysEvent(tov_sys_event_type event, const tov_sys_event_info_type*, void* data) {
    TovSimTest* self = static_cast<TovSimTest*>(data);
    std::unique_lock<std::mutex> lock(self->mutex_);
    const std::function<void()> hook = self->onEvent_;
    lock.unlock();
    if (hook) hook();
    lock.lock();
    self->events_.push_back(event);
  }
  // True once `done` holds; false after 5 s.
  static bool waitFor(const std::function<bool()>& done) {
    for (int i = 0; i < 500 && !done(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return done();
  }
  // The n-th system event (1 the first) once it came; -1 when it has not after 5 s.
  int event(size_t n) {
    int seen = -1;
    waitFor([&] {
      std::lock_guard<std::mutex> lock(mutex_);
      if (events_.size() >= n) seen = events_[n - 1];
      return seen >= 0;
    });
    return seen;
  }
  // How often `text` appears in the simulator's state.
  int count(const std::string& text) {
    const std::string state = sim_.cli({"state"});
    int n = 0;
    for (size_t at = state.find(text); at != std::string::npos; at = state.find(text, at + 1)) ++n;
    return n;
  }
  static tov_client_error_type startDfs(tov_client_type* dfs, uint32_t timeoutMs = 5000) {
    return tov_client_dfs_init_instance("mdlnk0", dfs_get_service_object_v01(), 0xffff, nullptr,
                                        nullptr, nullptr, timeoutMs, dfs);
  }

  ModemSimProcess sim_;
  int lib_ = -1;
  int err_ = 0;
  std::mutex mutex_;
  std::vector<int> events_;  // written by the library's thread
  std::function<void()> onEvent_;  // run by the library's thread before an event is kept
};

TEST_F(TovSimTest, SlowAnswersTimeOutAndLateAnswersAreDroppedOrReleaseTheirClient) {
  tov_client_type dfs = nullptr, late = nullptr;
  ASSERT_EQ(TOV_CLIENT_NO_ERR, startDfs(&dfs));
  dfs_set_powersave_filter_mode_req_msg_v01 on = {1};
  dfs_set_powersave_filter_mode_resp_msg_v01 set;
  // A request of the wrong size is refused before it is sent.
  EXPECT_EQ(TOV_CLIENT_ENCODE_ERR, tov_client_send_msg_sync(dfs, TOV_DFS_SET_POWERSAVE_FILTER_MODE_REQ_V01, &on,
                                                            sizeof(on) + 1, &set, sizeof(set), 1000));
  sim_.cli({"delay", "1500"});
  EXPECT_EQ(TOV_CLIENT_TIMEOUT_ERR,
            tov_client_send_msg_sync(dfs, TOV_DFS_SET_POWERSAVE_FILTER_MODE_REQ_V01, &on, sizeof(on), &set,
                                     sizeof(set), 1000));
  EXPECT_EQ(TOV_CLIENT_TIMEOUT_ERR, startDfs(&late, 100));
  EXPECT_EQ(nullptr, late);
  sim_.cli({"delay", "0"});
  // The late answers arrive meanwhile: not taken for this one (they would not decode as
  // its answer), and the client that started after its caller gave up is released.
  dfs_get_powersave_filter_mode_req_msg_v01 get = {};
  dfs_get_powersave_filter_mode_resp_msg_v01 mode;
  EXPECT_EQ(0, tov_client_send_msg_sync(dfs, TOV_DFS_GET_POWERSAVE_FILTER_MODE_REQ_V01, &get, sizeof(get),
                                        &mode, sizeof(mode), 5000));
  EXPECT_TRUE(waitFor([&] { return count("dfs client") == 1; }));
}

TEST_F(TovSimTest, ReleaseReturnsOnlyOnceTheClientsCallbackHasReturned) {
  static std::atomic<int> calls;
  static std::promise<void> release;
  calls = 0, release = std::promise<void>();
  const int wds = tov_wds_srvc_init_client(
      "mdlnk0", [](int, tov_service_id_type, void*, tov_wds_indication_id_type, tov_wds_indication_data_type*) {
        ++calls;
        release.get_future().wait();
      }, nullptr, &err_);
  tov_wds_event_report_params_type report = {TOV_WDS_EVENT_DORM_STATUS_IND, 0, 0, 1};
  ASSERT_EQ(TOV_NO_ERR, tov_wds_set_event_report(wds, &report, &err_));
  sim_.cli({"dormancy", "mdlnk0", "dormant"});
  ASSERT_TRUE(waitFor([] { return calls == 1; }));
  auto released = std::async(std::launch::async, [&] { return tov_wds_srvc_release_client(wds, &err_); });
  EXPECT_EQ(std::future_status::timeout, released.wait_for(std::chrono::milliseconds(100)));
  release.set_value();
  EXPECT_EQ(TOV_NO_ERR, released.get());
  sim_.cli({"dormancy", "mdlnk0", "active"});
  sim_.cli({"state"});  // the simulator has sent whatever it would send
  EXPECT_EQ(1, calls);
}

TEST_F(TovSimTest, TheLibraryRecoversFromModemRestartsStallsAndDeath) {
  const int wds = tov_wds_srvc_init_client("mdlnk0", nullptr, nullptr, &err_);
  ASSERT_GE(wds, 0);
  const int out = TOV_SYS_EVENT_MODEM_OUT_OF_SERVICE_IND, in = TOV_SYS_EVENT_MODEM_IN_SERVICE_IND;
  sim_.cli({"restart"});
  EXPECT_EQ(out, event(1));
  EXPECT_EQ(in, event(2));
  // The modem forgot the client; the library opened the control channel again.
  EXPECT_EQ(TOV_SERVICE_ERR, tov_wds_go_dormant_req(wds, &err_));
  EXPECT_EQ(TOV_SERVICE_ERR_INVALID_CLIENT_ID, err_);
  tov_client_type dfs = nullptr;
  ASSERT_EQ(TOV_CLIENT_NO_ERR, startDfs(&dfs));

  // A modem that stops reading: large requests fill the socket until one cannot be sent
  // whole, which ends the stream; no call outlives its timeout.
  auto add = std::make_unique<dfs_add_powersave_filters_req_msg_v01>();
  add->powersave_filter_rules_valid = 1;
  add->powersave_filter_rules_len = DFS_MAX_POWERSAVE_FILTERS_V01;
  auto added = std::make_unique<dfs_add_powersave_filters_resp_msg_v01>();
  sim_.pause(true);
  int rc = TOV_CLIENT_NO_ERR;
  for (int i = 0; i < 100 && rc != TOV_CLIENT_TRANSPORT_ERR; ++i) {
    auto call = std::async(std::launch::async, [&] {
      return tov_client_send_msg_sync(dfs, TOV_DFS_ADD_POWERSAVE_FILTERS_REQ_V01, add.get(), sizeof(*add),
                                      added.get(), sizeof(*added), 50);
    });
    if (call.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
      sim_.pause(false);
      FAIL() << "a call with a 50 ms timeout still runs after 10 s";
    }
    rc = call.get();
  }
  EXPECT_EQ(TOV_CLIENT_TRANSPORT_ERR, rc);
  sim_.pause(false);
  EXPECT_EQ(out, event(3));
  EXPECT_EQ(in, event(4));
  EXPECT_EQ(TOV_CLIENT_NO_ERR, startDfs(&dfs));

  // The modem dies, and a new one comes up: the library reconnects by itself.
  sim_.kill();
  EXPECT_EQ(out, event(5));
  EXPECT_EQ(TOV_PORT_NOT_OPEN_ERR, tov_wds_go_dormant_req(wds, &err_));
  sim_.start();
  EXPECT_EQ(in, event(6));
  EXPECT_GE(tov_wds_srvc_init_client("mdlnk0", nullptr, nullptr, &err_), 0);
  EXPECT_EQ(1, count("libraries started: 1"));
  EXPECT_EQ(1, count("port mdlnk0: control channels 1"));

  // A handler may release the library, but not wait for the modem on its thread.
  std::atomic<int> inHandler{1};
  {
    std::lock_guard<std::mutex> lock(mutex_);
    onEvent_ = [&] {
      int code;
      if (inHandler == 1) inHandler = tov_dev_connection_init("mdlnk0", &code);
      if (inHandler == TOV_INTERNAL_ERR) inHandler = tov_release(lib_);
    };
  }
  sim_.cli({"restart"});
  EXPECT_EQ(out, event(7));
  EXPECT_EQ(TOV_NO_ERR, inHandler);
  const int again = tov_init(nullptr, nullptr);
  EXPECT_GE(again, 0);
  EXPECT_EQ(TOV_NO_ERR, tov_release(again));
  EXPECT_EQ(TOV_INVALID_HANDLE_ERR, tov_release(again));
}

TEST(TovWireTest, EachEndRefusesWhatItCannotTake) {
  ModemSimProcess sim;
  // The simulator: a frame it cannot take is refused (kind 127) with its seq; the
  // connection goes on, unless the header itself is bad.
  const int fd = connectTo(sim.path());
  const Bytes twoBytes = {1, 0};
  for (const Bytes& bad : {frame(99, 7, {}), frame(7, 8, twoBytes), frame(1, 9, {0, 0, 0, 0, 0})}) {
    ASSERT_EQ(static_cast<ssize_t>(bad.size()), write(fd, bad.data(), bad.size()));
    const auto answer = nextFrame(fd);
    EXPECT_EQ(127, answer.first);
    EXPECT_EQ(bad[12], answer.second);
  }
  for (const Bytes& bad : {frame(1, 1, {}, 0x12345678), frame(1, 1, {}, 0x57564f54, (8 << 20) + 1)}) {
    const int other = connectTo(sim.path());
    ASSERT_EQ(16, write(other, bad.data(), 16));
    EXPECT_EQ(127, nextFrame(other).first);
    EXPECT_EQ(0, nextFrame(other).first);  // closed
    close(other);
  }
  const Bytes state = frame(64, 3, {1, 0, 5, 0, 's', 't', 'a', 't', 'e'});
  ASSERT_EQ(static_cast<ssize_t>(state.size()), write(fd, state.data(), state.size()));
  EXPECT_EQ(std::make_pair(64 | 0x8000, uint32_t(3)), nextFrame(fd));
  close(fd);
  // Command lines it refuses say what is wrong; port names are taken as the kernel takes
  // interface names, and shown as valid JSON.
  const std::pair<std::vector<std::string>, std::string> refused[] = {
      {{"fail", "clear", "extra"}, "fail: unexpected argument 'extra'"},
      {{"dormancy", "a\nb", "active"}, "dormancy: port name 'a?b' contains a control character"},
      {{"filter-mode", "a/b", "on"}, "filter-mode: port name 'a/b' contains '/'"},
      {{"traffic", "a b", "up"}, "traffic: port name 'a b' contains a space"},
  };
  for (const auto& r : refused) {
    const std::string text = sim.cli(r.first, 2);
    EXPECT_EQ(r.second, text.substr(0, text.find('\n')));
  }
  sim.cli({"dormancy", "a\"b", "dormant"});
  EXPECT_NE(std::string::npos, sim.cli({"state", "--json"}).find("{\"name\":\"a\\\"b\","));

  // The library: a simulator whose answers it cannot take (a cut answer fails the call, a
  // bad header ends the connection), then one whose indication follows a client's start
  // at once, with a dormancy value the headers do not name.
  char dir[] = "/tmp/noxwire-XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(dir));
  const std::string path = std::string(dir) + "/sock";
  setenv("TOV_SIM_SOCKET", path.c_str(), 1);
  const int server = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
  ASSERT_EQ(0, bind(server, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
  ASSERT_EQ(0, listen(server, 4));
  const Bytes ok = {0, 0, 0, 0, 0, 0, 0, 0};
  Bytes started = ok, indication = {5, 0, 0, 0, 2, 0, 0, 0, 8, 0, 0, 0, 0, 0, 0, 0, 7, 0, 0, 0};
  started.insert(started.end(), {5, 0, 0, 0});
  std::thread fake([&] {
    const std::vector<std::vector<Bytes>> answers = {{frame(0x8001, 0, {0, 0, 0, 0})},
                                                     {frame(0x8001, 0, {}, 0x12345678)},
                                                     {frame(0x8001, 0, ok)},
                                                     {frame(0x8004, 0, started), frame(32, 0, indication)},
                                                     {frame(0x8002, 0, ok)}};
    int peer = -1;
    for (size_t i = 0; i < answers.size(); ++i) {
      if (i < 3) peer = accept(server, nullptr, nullptr);
      const uint32_t seq = nextFrame(peer).second;
      for (Bytes a : answers[i]) {
        if (a[7] & 0x80) memcpy(&a[12], &seq, 4);  // an answer repeats its request's seq
        EXPECT_EQ(static_cast<ssize_t>(a.size()), write(peer, a.data(), a.size()));
      }
      if (i < 2 || i == answers.size() - 1) {
        nextFrame(peer);  // until the library hangs up
        close(peer);
      }
    }
  });
  EXPECT_EQ(TOV_INTERNAL_ERR, tov_init(nullptr, nullptr));
  EXPECT_EQ(TOV_PORT_NOT_OPEN_ERR, tov_init(nullptr, nullptr));
  const int lib = tov_init(nullptr, nullptr);
  static std::atomic<int> indicated;
  static std::atomic<tov_wds_dorm_status_type> dormancy;
  indicated = 0;
  int err;
  const int wds = tov_wds_srvc_init_client(
      "mdlnk0",
      [](int handle, tov_service_id_type, void*, tov_wds_indication_id_type, tov_wds_indication_data_type* data) {
        dormancy = data->event_report.dorm_status;
        indicated = handle;
      },
      nullptr, &err);
  for (int i = 0; i < 500 && indicated == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(wds, indicated);
  EXPECT_EQ(TOV_WDS_DORM_STATUS_ACTIVE, dormancy);
  EXPECT_EQ(TOV_NO_ERR, tov_release(lib));
  fake.join();
  close(server);
  unlink(path.c_str());
  rmdir(dir);
}

}  // namespace
