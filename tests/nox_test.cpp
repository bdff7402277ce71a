#include <cutils/properties.h>
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
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

// Lines that tell what start-up decided: plug-in entries run, plug-in warnings, stop.
std::vector<std::string> startupLines(const LogCapture& log) {
  std::vector<std::string> out;
  for (const auto& l : log.lines())
    if (l.text.rfind("|TEST| ", 0) == 0 || l.text.find("failed!!") != std::string::npos ||
        l.text.find("shutting down") != std::string::npos)
      out.push_back(l.text);
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
  const Case cases[] = {
      {"0", "full", false, false, true, 0,
       {"|COMMON| None of the nox feature enabled, noxd shutting down"}},
      {"4", "full", false, false, false, 0, {}},
      {"3", "full", true, true, false, 2, {"|TEST| init_fd_mgr called", "|TEST| init_ct_mgr called"}},
      // A missing first plug-in does not keep the second from loading.
      {"0x3", "ctonly", false, true, false, 1,
       {"|COMMON| loading fdmgr lib failed!!", "|TEST| init_ct_mgr called"}},
      // Without its entry the plug-in stays open.
      {"1", "noentry", true, false, false, 0, {"|COMMON| init fdmgr failed!!"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string("mask ") + c.mask + ", plug-ins " + c.dir);
    LogCapture log;
    auto nox = makeNox(c.mask, c.dir);
    EXPECT_EQ(c.lines, startupLines(log));
    EXPECT_EQ(c.fdLoaded, nox->fdMgrHandle != nullptr);
    EXPECT_EQ(c.ctLoaded, nox->ctMgrHandle != nullptr);
    EXPECT_EQ(c.stop ? "noxd" : "", prop("ctl.stop"));
    // The data state manager asks for NSRM, then the daemon asks the three switches in order.
    EXPECT_EQ((std::vector<std::string>{"|CONFIG| NoxConfig::isEnabled: feature 2",
                                        "|CONFIG| NoxConfig::isEnabled: feature 0",
                                        "|CONFIG| NoxConfig::isEnabled: feature 1",
                                        "|CONFIG| NoxConfig::isEnabled: feature 2"}),
              log.matching("NoxConfig::isEnabled: feature"));
    // Each entry got this Nox and registered on its dispatcher, after the data state manager.
    EXPECT_EQ(1u + c.entriesRun, nox->dispatcher.count(NOX_S_NOTIFY_INIT_DONE));
    nox->deinitFdMgr();
    nox->deinitCtMgr();
    EXPECT_EQ(nullptr, nox->fdMgrHandle);
  }
}

// run() failures end the process; their log goes to standard error.
int printToStderr(int, const char*, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vfprintf(stderr, format, args);
  va_end(args);
  fputc('\n', stderr);
  return 0;
}

void runWithSocketEnv(const char* value) {
  NoxLog::_libnoxlog_log_handle = printToStderr;
  NoxLogAdb adb;
  NoxMsg::nox_log_class_ptr = &adb;
  auto nox = makeNox("4");
  if (value == nullptr)
    unsetenv("ANDROID_SOCKET_noxd");
  else
    setenv("ANDROID_SOCKET_noxd", value, 1);
  nox->run();
}

TEST(RunDeathTest, ControlSocketFromTheEnvironment) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(runWithSocketEnv(nullptr), "Critical Error, Aborting: Cannot get control socket");
  EXPECT_DEATH(runWithSocketEnv("-1"), "Critical Error, Aborting: Cannot get control socket");
  EXPECT_DEATH(runWithSocketEnv("99999999999999999999"),
               "Critical Error, Aborting: Cannot get control socket");
  // Not a number reads as descriptor 0, which is no listening socket.
  EXPECT_DEATH(runWithSocketEnv("abc"), "Critical Error, Aborting: Cannot (set|open)");
  // Trailing non-digits are ignored: the leading number is used (here a pipe, which
  // cannot listen).
  int p[2];
  ASSERT_EQ(0, pipe(p));
  const std::string trailing = std::to_string(p[0]) + "xyz";
  EXPECT_DEATH(runWithSocketEnv(trailing.c_str()),
               "Critical Error, Aborting: Cannot open control socket for listening");
  close(p[0]);
  close(p[1]);
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
    Nox::count = 0;
    nox_ = makeNox("4");
    char dir[] = "/tmp/noxtest-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    dir_ = dir;
    path_ = dir_ + "/sock";
    listenFd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr_un addr = address();
    ASSERT_EQ(0, bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
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
    unlink(path_.c_str());
    rmdir(dir_.c_str());
  }

  sockaddr_un address() {
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path_.c_str());
    return addr;
  }
  int connectClient() {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr = address();
    EXPECT_EQ(0, connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
    clients_.push_back(fd);
    return fd;
  }
  void closeClient(int fd) {
    close(fd);
    std::replace(clients_.begin(), clients_.end(), fd, -1);
  }
  void pass() { nox_->com.processEvents(0, nox_->timer); }

  // A record: big-endian length, then the little-endian int32s of the Parcel.
  static std::vector<uint8_t> record(const std::vector<int32_t>& ints) {
    std::vector<uint8_t> out(4);
    for (int32_t v : ints)
      for (int b = 0; b < 4; ++b) out.push_back(static_cast<uint8_t>(static_cast<uint32_t>(v) >> (8 * b)));
    const uint32_t len = static_cast<uint32_t>(out.size() - 4);
    for (int b = 0; b < 4; ++b) out[b] = static_cast<uint8_t>(len >> (8 * (3 - b)));
    return out;
  }
  static void sendAll(int fd, const std::vector<uint8_t>& bytes) {
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(fd, bytes.data(), bytes.size()));
  }
  // Server side descriptor of the n-th admitted client, from its log line.
  std::vector<int> admitted() {
    std::vector<int> fds;
    for (const auto& line : log_.matching("|COMMON| New client (fd:"))
      fds.push_back(atoi(line.c_str() + strlen("|COMMON| New client (fd:")));
    return fds;
  }

  struct Seen {
    NoxMsgEnumType id;
    bool hasData;
    int firstInt;
  };
  static void recordEvent(NoxMsgEnumType id, const void* data, void* self) {
    static_cast<ClientTest*>(self)->seen_.push_back(
        {id, data != nullptr, data != nullptr ? *static_cast<const int*>(data) : 0});
  }

  LogCapture log_;
  std::unique_ptr<Nox> nox_;
  std::string dir_, path_;
  int listenFd_ = -1;
  std::vector<int> clients_;
  std::vector<Seen> seen_;
};

TEST_F(ClientTest, RecordsAreDecodedAndDispatchedInOrder) {
  nox_->dispatcher.regEventCallback(NOX_S_NOTIFY_SCREEN_STATE_CHG, recordEvent, this);
  nox_->dispatcher.regEventCallback(NOX_S_RSP_GET_FEATURE_STATUS, recordEvent, this);
  nox_->dispatcher.regEventCallback(static_cast<NoxMsgEnumType>(99), recordEvent, this);
  const int c = connectClient();
  connectClient();
  pass();
  EXPECT_EQ(2u, admitted().size());  // both in one accept pass
  // Two records in one write; then an out-going id and an unknown one, each with
  // nothing the daemon would decode.
  std::vector<uint8_t> bytes = record({13, 7, 1, 0});
  const auto second = record({13, 8, 2, 5, 6});
  bytes.insert(bytes.end(), second.begin(), second.end());
  sendAll(c, bytes);
  sendAll(c, record({2, 9}));
  sendAll(c, record({99, 10, 4, 4}));
  pass();
  ASSERT_EQ(4u, seen_.size());
  EXPECT_EQ(0, seen_[0].firstInt);
  EXPECT_EQ(5, seen_[1].firstInt);
  EXPECT_EQ(NOX_S_RSP_GET_FEATURE_STATUS, seen_[2].id);
  EXPECT_FALSE(seen_[2].hasData);
  EXPECT_FALSE(seen_[3].hasData);
  EXPECT_EQ((std::vector<std::string>{
                "|COMMON| processing NOX event 'NOX_S_NOTIFY_SCREEN_STATE_CHG' (13) [token 7, count 0]",
                "|COMMON| processing NOX event 'NOX_S_NOTIFY_SCREEN_STATE_CHG' (13) [token 8, count 1]",
                "|COMMON| processing NOX event 'NOX_S_RSP_GET_FEATURE_STATUS' (2) [token 9, count 2]",
                "|COMMON| processing NOX event '' (99) [token 10, count 3]"}),
            log_.matching("processing NOX event"));
  EXPECT_TRUE(log_.has("|COMMON| Nox does not recognize event '2'"));
  EXPECT_TRUE(log_.has("|COMMON| Nox does not recognize event '99'"));
}

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
  EXPECT_EQ(fds[1], NoxCom::getNoxClientFd());
  EXPECT_TRUE(log_.has("|COMMON| NOXJ client is on descriptor " + std::to_string(fds[1])));
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
  std::vector<int> lower;  // numbers freed meanwhile, below the one we want
  int efd;
  while ((efd = eventfd(0, EFD_NONBLOCK)) >= 0 && efd < fds[1]) lower.push_back(efd);
  for (int fd : lower) close(fd);
  ASSERT_EQ(fds[1], efd);
  nox_->com.addComEventHandler(efd, NoxCom::clearRead, nullptr, nullptr, EPOLLIN);
  NoxCom::sendUnsolicitedMsg(0, NOX_D_REQ_REQUEST_GET_APP_INFO_LIST);
  EXPECT_TRUE(NoxCom::isApprovedFd(efd));
  EXPECT_TRUE(log_.has("|COMMON:COM| Cannot send message to fd='-1', not on approved list"));
  nox_->com.removeComEventHandler(efd);
  close(efd);
  const int c = connectClient();
  pass();
  ASSERT_EQ(fds[1], admitted().back());
  NoxCom::sendUnsolicitedMsg(0, NOX_D_REQ_REQUEST_GET_APP_INFO_LIST);
  EXPECT_EQ(-1, recv(c, buf, sizeof(buf), MSG_DONTWAIT));
}

TEST_F(ClientTest, ANewEarliestTimerEndsAWaitAtOnce) {
  int calls = 0;
  nox_->timer.addTimedCallback(0, [](void* n) { return ++*static_cast<int*>(n), -1; }, &calls);
  const auto start = std::chrono::steady_clock::now();
  nox_->com.processEvents(3000, nox_->timer);
  EXPECT_EQ(1, calls);
  // Without the wake-up the wait would take its whole 3 s.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
}

TEST_F(ClientTest, ConnectionsEndOnOversizedRecordHangUpAndHalfClose) {
  NoxTimer::clockGetTime = fakeClock;
  nox_->dispatcher.regEventCallback(NOX_S_NOTIFY_SCREEN_STATE_CHG, recordEvent, this);
  const int big = connectClient();
  const int midRecord = connectClient();
  const int halfClosed = connectClient();
  pass();
  const auto fds = admitted();
  ASSERT_EQ(3u, fds.size());

  sendAll(big, record(std::vector<int32_t>(2049, 0)));  // 8196 bytes
  std::vector<uint8_t> cut = record({13, 1, 1, 1});
  cut.resize(cut.size() - 3);
  sendAll(midRecord, cut);
  closeClient(midRecord);
  ASSERT_EQ(0, shutdown(halfClosed, SHUT_WR));
  pass();  // the stream fills its buffer and waits for the rest of the big record
  pass();  // then gives up on a record that can never fit
  EXPECT_TRUE(seen_.empty());
  for (int fd : fds) EXPECT_FALSE(NoxCom::isApprovedFd(fd));
  EXPECT_TRUE(log_.has("|COMMON| file descriptor " + std::to_string(fds[0]) + " is in error state"));
  EXPECT_TRUE(log_.has("|GENERIC| Error: cannot get next record"));
  EXPECT_TRUE(log_.has("|COMMON:COM| fd '" + std::to_string(fds[1]) + "' sent HUP."));
  EXPECT_TRUE(log_.has("|COMMON| end of stream"));
  char byte;
  EXPECT_GE(0, read(big, &byte, 1));  // closed by the daemon (unread data: a reset)
  EXPECT_EQ(0, read(halfClosed, &byte, 1));
  // A half-closed peer costs nothing afterwards: no event is left to spin on.
  log_.clear();
  pass();
  EXPECT_EQ(0, log_.count("file descriptor(s) with events pending"));
  // Once a second has passed without another connection ending, the memory they held
  // goes back to the system.
  log_.clear();
  gNow.tv_sec += 1;
  nox_->timer.processEvents();
  connectClient();
  pass();
  closeClient(clients_.back());
  pass();
  gNow.tv_sec += 1;
  nox_->timer.processEvents();  // another one ended meanwhile: not yet
  EXPECT_EQ(0, log_.count("free memory returned"));
  gNow.tv_sec += 1;
  nox_->timer.processEvents();
  EXPECT_TRUE(log_.has("|COMMON| quiet after 4 ended connections: free memory returned to the system"));
  EXPECT_EQ(-1, nox_->timer.timeUntilNextEvent());
}

TEST_F(ClientTest, OutOfDescriptorsTheLoopWaitsAndServesTheBacklogLater) {
  int result[2];
  ASSERT_EQ(0, pipe(result));
  const pid_t child = fork();
  if (child == 0) {
    // Room for two more descriptors: the third client waits in the backlog.
    const int lowest = dup(0);
    close(lowest);
    const rlimit limit = {rlim_t(lowest + 2), rlim_t(lowest + 2)};
    setrlimit(RLIMIT_NOFILE, &limit);
    for (int i = 0; i < 200 && log_.count("sending unsolicited message") == 0; ++i)
      nox_->com.processEvents(50, nox_->timer);
    const int lines = log_.count("unable to accept incoming socket");
    _exit(write(result[1], &lines, sizeof(lines)) == sizeof(lines) ? 0 : 1);
  }
  std::vector<int> waiting;
  for (int i = 0; i < 3; ++i) waiting.push_back(connectClient());
  usleep(300 * 1000);  // the child takes two, and cannot take the third
  for (int fd : waiting) closeClient(fd);
  const int good = connectClient();
  sendAll(good, record({8, 1}));
  sendAll(good, record({1, 2, 2, 0}));
  const timeval limit = {10, 0};
  setsockopt(good, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  uint8_t reply[20];
  EXPECT_EQ(20, recv(good, reply, sizeof(reply), MSG_WAITALL));  // served once there was room
  int lines = -1;
  EXPECT_EQ(static_cast<ssize_t>(sizeof(lines)), read(result[0], &lines, sizeof(lines)));
  // Once each time it runs out (the close-and-accept race may make that a few times),
  // not at every turn of a spinning loop.
  EXPECT_LE(lines, 8);
  EXPECT_GE(lines, 1);
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  close(result[0]);
  close(result[1]);
}

TEST_F(ClientTest, ClientRefusedByGroupIdIsClosedAndTheNextOneAdmitted) {
  if (geteuid() != 0) GTEST_SKIP() << "changing a process's group id needs root";
  int ready[2];
  ASSERT_EQ(0, pipe(ready));
  const pid_t child = fork();
  if (child == 0) {
    // A peer in group 1001, which is not on the list.
    if (setgid(1001) != 0) _exit(3);
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr = address();
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) _exit(4);
    if (write(ready[1], "x", 1) != 1) _exit(5);
    char byte;
    _exit(read(fd, &byte, 1) == 0 ? 0 : 6);  // ends when the daemon closes it
  }
  char byte;
  ASSERT_EQ(1, read(ready[0], &byte, 1));
  connectClient();  // waits in the backlog behind the refused one
  pass();
  EXPECT_TRUE(log_.has("|COMMON| Detected unacceptable application."));
  EXPECT_EQ(1, log_.count("|COMMON| Closing client fd: "));
  EXPECT_TRUE(admitted().empty());
  pass();
  EXPECT_EQ(1u, admitted().size());
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status));
  close(ready[0]);
  close(ready[1]);
}

}  // namespace
