#include <cutils/properties.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Nox.h"
#include "ModemSimProcess.h"
#include "TestLog.h"
#include "Wire.h"

namespace {

std::string prop(const char* key) {
  char value[PROPERTY_VALUE_MAX];
  property_get(key, value, "");
  return value;
}

std::unique_ptr<Nox> makeNox(const char* mask, const char* pluginSubdir = "full") {
  runWithoutModem();
  property_host_reset();
  property_set("persist.nox.feature", mask);
  Nox::pluginDir = std::string(NOX_TEST_PLUGIN_DIR) + "/" + pluginSubdir;
  return std::make_unique<Nox>();
}

// What start-up decided: entries run, loads, refusals, warnings, stop (plug-in dir: DIR).
std::vector<std::string> startupLines(const LogCapture& log) {
  std::vector<std::string> out;
  for (auto l : log.lines()) {
    for (size_t at; (at = l.text.find(NOX_TEST_PLUGIN_DIR)) != std::string::npos;)
      l.text.replace(at, strlen(NOX_TEST_PLUGIN_DIR), "DIR");
    if (l.text.rfind("|TEST| ", 0) == 0 || l.text.find("failed!!") != std::string::npos ||
        l.text.find("shutting down") != std::string::npos || l.text.find("DIR") != std::string::npos)
      out.push_back(l.text);
  }
  return out;
}

TEST(StartupTest, FeatureMaskDecidesPluginsAndStop) {
  struct Case {
    const char* mask;
    const char* dir;
    bool fdLoaded, ctLoaded, stop;
    unsigned entriesRun;
    std::vector<std::string> lines;
  };
  // The mask is a number in any base; text reads as 0, bits above the three features
  // are ignored.
  const Case cases[] = {
      {"0", "full", false, false, true, 0,
       {"|COMMON| None of the nox feature enabled, noxd shutting down"}},
      {"on", "full", false, false, true, 0,
       {"|COMMON| None of the nox feature enabled, noxd shutting down"}},
      {"12", "full", false, false, false, 0, {}},
      {"07", "full", true, true, false, 2,
       {"|COMMON| loaded fdmgr from DIR/full/libnoxfdmgr.so", "|TEST| init_fd_mgr called",
        "|COMMON| loaded ctmgr from DIR/full/libnoxctmgr.so", "|TEST| init_ct_mgr called"}},
      // A missing first plug-in does not keep the second from loading.
      {"0x3", "ctonly", false, true, false, 1,
       {"|COMMON| loading fdmgr lib failed!!",
        "|COMMON|     DIR/ctonly/libnoxfdmgr.so: cannot open shared object file: No such file or "
        "directory",
        "|COMMON| loaded ctmgr from DIR/ctonly/libnoxctmgr.so",
        "|TEST| init_ct_mgr called"}},
      // Without its entry the plug-in stays open.
      {"1", "noentry", true, false, false, 0,
       {"|COMMON| init fdmgr failed!!",
        "|COMMON|     DIR/noentry/libnoxfdmgr.so: undefined symbol: init_fd_mgr"}},
      {"1", "oldkit", false, false, false, 0,
       {"|COMMON| refusing fdmgr: DIR/oldkit/libnoxfdmgr.so was built for plug-in interface 99, "
        "this noxd has 1"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string("mask ") + c.mask + ", plug-ins " + c.dir);
    LogCapture log;
    auto nox = makeNox(c.mask, c.dir);
    EXPECT_EQ(c.lines, startupLines(log));
    EXPECT_EQ(c.fdLoaded, nox->fdMgrHandle != nullptr);
    EXPECT_EQ(c.ctLoaded, nox->ctMgrHandle != nullptr);
    EXPECT_EQ(c.stop ? "noxd" : "", prop("ctl.stop"));
    EXPECT_FALSE(nox->config.isEnabled(NoxFeatureType(3)) || nox->config.isEnabled(NoxFeatureType(-1)));
    // Each entry got this Nox and registered on its dispatcher, after the data state manager.
    EXPECT_EQ(1u + c.entriesRun, nox->dispatcher.count(NOX_S_NOTIFY_INIT_DONE));
    log.clear();
    nox->dumpState();  // lists both slots
    EXPECT_EQ(2, log.count("|COMMON|   plug-in "));
    EXPECT_EQ(2 - c.entriesRun, static_cast<unsigned>(log.count(": not loaded")));
  }
}

timespec gNow = {1000, 0};
int fakeClock(clockid_t, timespec* now) {
  *now = gNow;
  return 0;
}

// A real Nox serving a real listening socket; the test drives its loop one pass
// at a time, so every step is deterministic.
class ClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    NoxCom::setNoxClientFd(-1);
    nox_ = makeNox("4");
    // An abstract address (sun_path[0] == 0): nothing to remove afterwards.
    snprintf(addr_.sun_path + 1, sizeof(addr_.sun_path) - 1, "noxtest-%d", getpid());
    listenFd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    ASSERT_EQ(0, bind(listenFd_, reinterpret_cast<sockaddr*>(&addr_), sizeof(addr_)));
    ASSERT_EQ(0, listen(listenFd_, 128));
    nox_->com.addComEventHandler(listenFd_, Nox::listenSocketCallback, nox_.get(), nullptr,
                                 EPOLLIN | EPOLLHUP);
    log_.clear();
  }
  void TearDown() override {
    NoxTimer::clockGetTime = ::clock_gettime;
    // The daemon never ends its clients on its own; release what it still holds.
    for (int fd : admitted()) {
      if (!NoxCom::isApprovedFd(fd)) continue;
      nox_->com.removeComEventHandler(fd);
      close(fd);
    }
    for (int fd : clients_)
      if (fd >= 0) close(fd);
    nox_->com.removeComEventHandler(listenFd_);
    close(listenFd_);
  }

  int connectClient() {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    EXPECT_EQ(0, connect(fd, reinterpret_cast<sockaddr*>(&addr_), sizeof(addr_)));
    clients_.push_back(fd);
    return fd;
  }
  void closeClient(int fd) {
    close(fd);
    std::replace(clients_.begin(), clients_.end(), fd, -1);
  }
  void pass() { nox_->com.processEvents(0, nox_->timer); }

  static Bytes record(const std::vector<int32_t>& ints) {
    Wire w;
    for (int32_t v : ints) w.i32(v);
    return w.record();
  }
  // Writes all of `bytes`, or fails the test; a daemon that has closed the connection is
  // an error to report, not a signal that ends the test.
  static void sendAll(int fd, const std::vector<uint8_t>& bytes) {
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()), send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL));
  }
  // Server side descriptor of the n-th admitted client, from its log line.
  std::vector<int> admitted() {
    std::vector<int> fds;
    for (const auto& line : log_.matching("|COMMON| New client (fd:"))
      fds.push_back(atoi(line.c_str() + strlen("|COMMON| New client (fd:")));
    return fds;
  }

  LogCapture log_;
  std::unique_ptr<Nox> nox_;
  sockaddr_un addr_ = {AF_UNIX, {}};
  int listenFd_ = -1;
  std::vector<int> clients_;
};

TEST_F(ClientTest, RepliesToDescriptorZeroGoToTheLastClientThatSentInitDone) {
  const int a = connectClient();
  const int b = connectClient();
  pass();
  sendAll(a, record({8, 1}));
  pass();
  sendAll(b, record({8, 1}));
  pass();
  const auto fds = admitted();
  ASSERT_EQ(2u, fds.size());
  NoxCom::sendUnsolicitedMsg(0, NOX_D_REQ_REQUEST_GET_APP_INFO_LIST);
  uint8_t buf[32];
  EXPECT_EQ(12, recv(b, buf, sizeof(buf), MSG_DONTWAIT));
  EXPECT_EQ(-1, recv(a, buf, sizeof(buf), MSG_DONTWAIT));

  // Once it is gone, its number serves others, which never get its messages: neither a
  // client that did not announce itself nor an eventfd, whose send would fail and
  // unapprove it.
  closeClient(b);
  pass();
  EXPECT_EQ(-1, NoxCom::getNoxClientFd());
  const int spare = eventfd(0, EFD_NONBLOCK);
  const int efd = dup2(spare, fds[1]);  // an eventfd on the freed number
  close(spare);
  ASSERT_EQ(fds[1], efd);
  nox_->com.addComEventHandler(efd, NoxCom::clearRead, nullptr, nullptr, EPOLLIN);
  NoxCom::sendUnsolicitedMsg(0, NOX_D_REQ_REQUEST_GET_APP_INFO_LIST);
  EXPECT_TRUE(NoxCom::isApprovedFd(efd));
  nox_->com.removeComEventHandler(efd);
  close(efd);
  const int c = connectClient();
  pass();
  ASSERT_EQ(fds[1], admitted().back());
  NoxCom::sendUnsolicitedMsg(0, NOX_D_REQ_REQUEST_GET_APP_INFO_LIST);
  EXPECT_EQ(-1, recv(c, buf, sizeof(buf), MSG_DONTWAIT));
}

// Out of descriptors, the loop stops listening (one line each time it runs out, never a
// spinning loop) and takes the backlog again once a connection ends or a second passed.
TEST_F(ClientTest, OutOfDescriptorsTheLoopPausesAndServesTheBacklogLater) {
  NoxTimer::clockGetTime = fakeClock;
  // A sanitizer checks a virtual call's type once, with a pipe of its own: let it do that
  // for the timer's monitor while descriptors are still to be had.
  static_cast<INoxTimerMonitor*>(nox_.get())->notifyDelayChange();
  const int first = connectClient();
  for (int i = 0; i < 3; ++i) connectClient();
  rlimit saved;
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
  const int lowest = dup(0);
  close(lowest);
  const rlimit roomForOne = {rlim_t(lowest + 1), saved.rlim_max};
  setrlimit(RLIMIT_NOFILE, &roomForOne);
  for (int i = 0; i < 5; ++i) pass();
  EXPECT_EQ(1u, admitted().size());
  closeClient(first);  // both its ends free a number: two more are taken
  for (int i = 0; i < 5; ++i) pass();
  EXPECT_EQ(3u, admitted().size());
  gNow.tv_sec += 1;  // tried again a second later, still out: not logged again
  for (int i = 0; i < 5; ++i) pass();
  setrlimit(RLIMIT_NOFILE, &saved);
  EXPECT_EQ(3u, admitted().size());
  EXPECT_EQ(2, log_.count("unable to accept incoming socket"));
  gNow.tv_sec += 1;
  for (int i = 0; i < 2; ++i) pass();
  EXPECT_EQ(4u, admitted().size());
}

long openDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// Hostile and careless clients, one after the other; after each, a well-behaved
// framework client is still answered, and afterwards the daemon holds no descriptor more
// than before.
TEST_F(ClientTest, HostileClientsNeverStopAWellBehavedOne) {
  NoxTimer::clockGetTime = fakeClock;
  // Until a pass finds nothing to do (it then logs only its wait): the loop takes at most
  // four events a pass.
  auto drain = [&] {
    for (int i = 0; i < 5000; ++i) {
      const size_t before = log_.size();
      pass();
      if (log_.size() - before <= 1) return;
    }
  };
  // A client that sends `bytes` and hangs up, after the daemon read them or at once.
  auto hangUp = [&](const Bytes& bytes, bool readFirst = true) {
    const int fd = connectClient();
    send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);  // the daemon may end it midway
    if (readFirst) drain();
    closeClient(fd);
    drain();
  };
  auto length = [](uint32_t n) { return bytesOf(htonl(n)); };
  auto manyClients = [&](int n, bool closeAtOnce) {
    std::vector<int> fds;
    for (int i = 0; i < n; ++i) {
      const int fd = connectClient();
      closeAtOnce ? closeClient(fd) : fds.push_back(fd);
      if (i % 100 == 99) drain();  // no more than the backlog waits at once
    }
    drain();
    for (int fd : fds) closeClient(fd);
    drain();
  };
  struct Case {
    const char* what;
    std::function<void()> act;
    const char* logged;  // a line the daemon writes about it, or ""
  };
  const Case cases[] = {
      {"a record of length 0", [&] { hangUp(length(0)); }, "Nox does not recognize event '0'"},
      {"a record of length 3", [&] { hangUp(length(3) + Bytes{1, 2, 3}); }, ""},
      {"a record of length 8193", [&] { hangUp(length(8193) + Bytes(8193, 7)); },
       "|GENERIC| Error: cannot get next record"},
      // Waits for the rest until the client gives up.
      {"a record of length 0xFFFFFFFF", [&] { hangUp(length(0xFFFFFFFF) + Bytes{1}); }, "sent HUP."},
      {"a record cut short before a hang-up", [&] { hangUp(length(16) + Bytes(13, 1)); }, "sent HUP."},
      {"a half-closed peer",
       [&] {
         const int fd = connectClient();
         shutdown(fd, SHUT_WR);
         drain();
         char byte;
         EXPECT_EQ(0, read(fd, &byte, 1));  // the daemon ended it
         closeClient(fd);
       },
       "end of stream"},
      {"a framework client that never reads its replies",
       [&] {
         const int fd = connectClient();
         sendAll(fd, record({8, 1}));
         // Until the daemon drops it. A small write is a whole buffer for the kernel:
         // let the daemon read now and then.
         for (int i = 0; i < 400; ++i) {
           const std::vector<uint8_t> r = record({1, i, 2, 2, 0});
           if (send(fd, r.data(), r.size(), MSG_NOSIGNAL) < 0) break;
           if (i % 50 == 49) drain();
         }
         closeClient(fd);
         drain();
       },
       "send() error while sending parcel"},
      {"500 clients at once", [&] { manyClients(500, false); }, ""},
      {"10,000 connect-and-close cycles", [&] { manyClients(10000, true); }, ""},
      {"a client that hangs up right after sending",
       [&] { hangUp(record({8, 1}) + record({1, 1, 2, 2, 0}), false); }, ""},
      {"a flood of clients refused by group",
       [&] {
         if (geteuid() != 0) return;  // changing a process's group id needs root
         const pid_t child = fork();
         if (child == 0) {
           // Peers in group 1001, which is not on the list, each waiting to be closed.
           if (setgid(1001) != 0) _exit(3);
           for (int i = 0; i < 50; ++i) {
             const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
             if (connect(fd, reinterpret_cast<sockaddr*>(&addr_), sizeof(addr_)) != 0) _exit(4);
             char byte;
             if (read(fd, &byte, 1) != 0) _exit(5);
             close(fd);
           }
           _exit(0);
         }
         int status = -1;
         for (int i = 0; i < 2000 && waitpid(child, &status, WNOHANG) == 0; ++i)
           nox_->com.processEvents(10, nox_->timer);
         if (!WIFEXITED(status)) {  // never leave it behind
           kill(child, SIGKILL);
           waitpid(child, &status, 0);
         }
         EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
       },
       "Detected unacceptable application."},
  };
  const long before = openDescriptors();
  const int good = connectClient();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    log_.clear();
    c.act();
    EXPECT_TRUE(*c.logged == 0 || log_.count(c.logged) > 0) << c.logged;
    // The well-behaved client announces itself (again) and asks.
    sendAll(good, record({8, 1}));
    sendAll(good, record({1, 2, 2, 2, 0}));  // feature status: count 2, feature 2, status
    drain();
    uint8_t reply[24];
    ASSERT_EQ(20, recv(good, reply, sizeof(reply), MSG_DONTWAIT));
    EXPECT_EQ(record({1, NOX_S_RSP_GET_FEATURE_STATUS, 2, 3}), Bytes(reply, reply + 20));
  }
  closeClient(good);
  drain();
  EXPECT_EQ(before, openDescriptors());
  log_.clear();
  pass();
  EXPECT_EQ(0, log_.count("file descriptor(s) with events pending"));  // idle again

  // Once a second has passed without another connection ending, the memory they held
  // goes back to the system.
  gNow.tv_sec += 1;
  nox_->timer.processEvents();
  EXPECT_EQ(0, log_.count("free memory returned"));  // the last ones ended this second
  gNow.tv_sec += 1;
  nox_->timer.processEvents();
  EXPECT_EQ(1, log_.count("free memory returned to the system"));
  EXPECT_EQ(-1, nox_->timer.timeUntilNextEvent());
}

}  // namespace
