// Runs the built noxctl against a fake daemon on a real Unix socket and checks the bytes.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

using Args = std::vector<std::string>;
using Bytes = std::vector<uint8_t>;
using ::testing::MatchesRegex;

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// A payload word: an int32 (little-endian), or ASCII text as a String16 (unit count, the
// units, a 0 unit, zero padding to 4 bytes).
struct Part {
  Part(int32_t v) : bytes(le(v)) {}  // NOLINT: ints and texts mix in one list
  Part(const char* text) : bytes(le(static_cast<int32_t>(strlen(text)))) {  // NOLINT
    for (const char* c = text; *c != '\0'; ++c) bytes = bytes + Bytes{uint8_t(*c), 0};
    bytes = bytes + Bytes{0, 0};
    if (bytes.size() % 4 != 0) bytes = bytes + Bytes{0, 0};
  }
  static Bytes le(int32_t v) {
    const uint32_t u = static_cast<uint32_t>(v);
    return {uint8_t(u), uint8_t(u >> 8), uint8_t(u >> 16), uint8_t(u >> 24)};
  }
  Bytes bytes;
};

// One record: 4-byte big-endian length, then the parts.
Bytes rec(std::initializer_list<Part> parts) {
  Bytes body;
  for (const Part& p : parts) body = body + p.bytes;
  const uint32_t n = static_cast<uint32_t>(body.size());
  return Bytes{uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)} + body;
}

// Generous: the machine may be busy.
bool waitFor(int fd, short events, int timeoutMs = 20000) {
  pollfd p = {fd, events, 0};
  return poll(&p, 1, timeoutMs) > 0;
}

// Reads up to `n` bytes; fewer only if the peer closed or nothing came for a long time.
Bytes readBytes(int fd, size_t n = SIZE_MAX) {
  Bytes out;
  uint8_t buf[4096];
  ssize_t got = 1;
  while (out.size() < n && got > 0 && waitFor(fd, POLLIN)) {
    got = read(fd, buf, std::min(sizeof(buf), n - out.size()));
    if (got > 0) out.insert(out.end(), buf, buf + got);
  }
  return out;
}

void writeBytes(int fd, const Bytes& b) {
  ASSERT_EQ(static_cast<ssize_t>(b.size()), write(fd, b.data(), b.size()));
}

std::string tempDir() {
  char dir[] = "/tmp/noxctl_test.XXXXXX";
  return mkdtemp(dir) != nullptr ? dir : "";
}

int boundSocket(const std::string& path) {
  sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr))) << path;
  return fd;
}

// A listening socket in a fresh directory; `serve` gets the first connection on a thread.
class FakeDaemon {
 public:
  explicit FakeDaemon(std::function<void(int)> serve)
      : dir_(tempDir()), path_(dir_ + "/noxd"), fd_(boundSocket(path_)) {
    EXPECT_EQ(0, listen(fd_, 4));
    thread_ = std::thread([this, serve] {
      const int conn = waitFor(fd_, POLLIN) ? accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
      if (conn >= 0) serve(conn), close(conn);
    });
  }
  ~FakeDaemon() {
    join();
    close(fd_);
    unlink(path_.c_str());
    rmdir(dir_.c_str());
  }
  void join() {
    if (thread_.joinable()) thread_.join();
  }
  const std::string& path() const { return path_; }

 private:
  std::string dir_, path_;
  int fd_;
  std::thread thread_;
};

struct Outcome {
  int status;
  std::string out, err;
};

// noxctl running with its output on pipes; the tool sits in build-*/tools, beside our tests/.
class Noxctl {
 public:
  explicit Noxctl(const Args& args) {
    char self[PATH_MAX] = {};
    EXPECT_GT(readlink("/proc/self/exe", self, sizeof(self) - 1), 0);
    const std::string tool = std::string(self, strrchr(self, '/')) + "/../tools/noxctl";
    std::vector<char*> argv = {const_cast<char*>(tool.c_str())};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    int out[2], err[2];
    EXPECT_EQ(0, pipe2(out, O_CLOEXEC) | pipe2(err, O_CLOEXEC));
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, out[1], 1);
    posix_spawn_file_actions_adddup2(&fa, err[1], 2);
    EXPECT_EQ(0, posix_spawn(&pid_, tool.c_str(), &fa, nullptr, argv.data(), environ)) << tool;
    posix_spawn_file_actions_destroy(&fa);
    close(out[1]), close(err[1]);
    out_ = out[0], err_ = err[0];
  }
  ~Noxctl() {
    if (pid_ > 0) kill(pid_, SIGKILL), waitpid(pid_, nullptr, 0);
    close(out_), close(err_);
  }
  std::string readLine() {
    std::string line;
    char c;
    while (waitFor(out_, POLLIN) && read(out_, &c, 1) == 1 && c != '\n') line += c;
    return line;
  }
  Outcome finish() {
    const Bytes out = readBytes(out_), err = readBytes(err_);
    int status = 0;
    const bool exited = pid_ > 0 && waitpid(pid_, &status, 0) == pid_ && WIFEXITED(status);
    pid_ = -1;
    return {exited ? WEXITSTATUS(status) : -1, {out.begin(), out.end()}, {err.begin(), err.end()}};
  }

 private:
  pid_t pid_ = -1;
  int out_ = -1, err_ = -1;
};

Outcome run(const std::string& socket, Args args) {
  args.insert(args.begin(), {"--socket", socket});
  return Noxctl(args).finish();
}

struct Case {
  Args args;
  Bytes sent;       // everything noxctl must send, in order
  Bytes reply;      // what the fake daemon answers once it has all of it
  std::string out;  // expected standard output
  int status;
};

TEST(NoxctlTest, EachCommandSendsItsRecords) {
  const Bytes initDone = rec({8, 1});
  // clang-format off
  const std::vector<Case> cases = {
      {{"init-done"}, initDone, {}, "", 0},
      {{"screen", "1"}, {0, 0, 0, 16, 13, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0}, {}, "", 0},
      {{"tethering", "0x0"}, rec({14, 1, 1, 0}), {}, "", 0},
      {{"nsrm-bkg", "1", "-2", "3"}, rec({11, 1, 3, 1, -2, 3}), {}, "", 0},
      {{"nsrm-config", "0xffffffff"}, rec({6, 1, 1, -1}), {}, "", 0},
      {{"wlan", "1", "2", "0"}, rec({9, 1, 1, 2, 0}), {}, "", 0},
      {{"wlan", "--softap=1", "--type", "1"}, rec({9, 1, 1, 0, 1}), {}, "", 0},
      // Unset: status 1 (connected), other numbers 0, texts empty.
      {{"wwan"}, rec({10, 1, 0, 1, 0, 0, 0, "", "", "", "", ""}), {}, "", 0},
      {{"wwan", "--type", "0", "--status", "4", "--nw-type", "13", "--roaming", "1", "--apn", "3",
        "--ipv4", "10.0.0.2", "--iface", "mdlnk0", "--ipv6", "fe80::1", "--iface-v6", "mdlnk1",
        "--mccmnc", "310260"},
       rec({10, 1, 0, 4, 13, 1, 3, "10.0.0.2", "mdlnk0", "fe80::1", "mdlnk1", "310260"}), {}, "",
       0},
      {{"apps", "remove", "10050:com.a"},
       {0, 0, 0, 44, 12, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0,  // remove, one entry:
        5, 0, 0, 0, 'c', 0, 'o', 0, 'm', 0, '.', 0, 'a', 0, 0, 0,          // "com.a"
        0x42, 0x27, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},                         // 10050, ""
       {}, "", 0},
      {{"apps", "add", "10050:com.a:1f:2a", "4294967295:org.b"},
       rec({12, 1, 0, 2, "com.a", 10050, "1f:2a", "org.b", -1, ""}), {}, "", 0},
      {{"raw", "42", "-1", "7"}, rec({42, 1, -1, 7}), {}, "", 0},
      // Feature requests announce the connection first, then wait for their answer.
      {{"feature", "get", "2"}, initDone + rec({1, 2, 1, 2}), rec({1, 2, 2, 3}),
       "feature 2 status 3\n", 0},
      {{"feature", "set", "2", "3"}, initDone + rec({3, 2, 2, 2, 3}),
       rec({1, 0}) + rec({1, 4, 2, 3, 0}), "feature 2 status 3 result 0\n", 0},
      {{"feature", "set", "5", "1"}, initDone + rec({3, 2, 2, 5, 1}), rec({1, 4, 5, 1, -2}),
       "feature 5 status 1 result -2\n", 3},
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args[0] + (c.args.size() > 1 ? " " + c.args[1] : ""));
    Bytes got, after;
    FakeDaemon daemon([&](int fd) {
      got = readBytes(fd, c.sent.size());
      if (!c.reply.empty()) writeBytes(fd, c.reply);
      after = readBytes(fd);
    });
    const Outcome o = run(daemon.path(), c.args);
    daemon.join();
    EXPECT_EQ(c.sent, got);
    EXPECT_TRUE(after.empty());
    EXPECT_EQ(c.out, o.out);
    EXPECT_EQ("", o.err);
    EXPECT_EQ(c.status, o.status);
  }
}

TEST(NoxctlTest, BadArgumentsGiveOneLineAndTheHint) {
  Args tooMany = {"nsrm-config"};
  tooMany.resize(102, "1");
  // clang-format off
  const std::vector<Args> cases = {
      {}, {"bogus"}, {"screen"}, {"screen", "x"}, {"tethering", "2147483648"},
      {"feature", "frob", "1"}, {"wlan", "1", "2"}, {"wlan", "1", "2", "3", "--type", "1"},
      {"wwan", "1"}, {"wwan", "--bogus", "1"}, {"wwan", "--iface"},
      {"wwan", "--iface", "0123456789abcdef"}, {"apps", "move", "1:com.a"}, {"apps", "add", "1"},
      {"apps", "add", "4294967296:com.a"}, {"apps", "add", "1:com.a:zz"}, {"raw", "0x100000000"},
      {"listen", "now"}, {"--timeout", "-5", "init-done"}, tooMany,
  };
  // clang-format on
  // No daemon there: an attempt to connect would show as a different line.
  for (const Args& args : cases) {
    SCOPED_TRACE(args.empty() ? "(none)" : args[0] + (args.size() > 1 ? " " + args[1] : ""));
    const Outcome o = run("/nonexistent/noxd", args);
    EXPECT_EQ(1, o.status);
    EXPECT_EQ("", o.out);
    EXPECT_THAT(o.err, MatchesRegex("noxctl: [^\n]+\nTry 'noxctl --help' for more information.\n"));
  }
  const Outcome help = Noxctl({"--help"}).finish();
  EXPECT_EQ(0, help.status);
  EXPECT_EQ(0u, help.out.find("usage: noxctl"));
}

TEST(NoxctlTest, FailuresAreOneLineWithTheirExitStatus) {
  const std::string dir = tempDir();
  const int stale = boundSocket(dir + "/stale");  // nobody listens on it
  Outcome o = run(dir + "/missing", {"screen", "1"});
  EXPECT_EQ(1, o.status);
  EXPECT_EQ("noxctl: cannot connect to " + dir + "/missing: No such file or directory\n", o.err);
  o = run(dir + "/stale", {"listen"});
  EXPECT_EQ(1, o.status);
  EXPECT_EQ("noxctl: cannot connect to " + dir + "/stale: Connection refused\n", o.err);
  close(stale);
  unlink((dir + "/stale").c_str());
  rmdir(dir.c_str());

  const struct {
    std::function<void(int)> serve;
    Args args;
    int status;
    const char* error;
  } cases[] = {
      // Refused clients are closed unread: the message is lost, which must not pass quietly.
      {[](int) {}, {"screen", "1"}, 1, "noxctl: [^\n]+\n"},
      {[](int fd) { readBytes(fd, 12 + 20); }, {"feature", "get", "2"}, 1, "noxctl: [^\n]+\n"},
      {[](int fd) { readBytes(fd); },
       {"--timeout", "300", "feature", "get", "2"},
       2,
       "noxctl: no answer from noxd within 300 ms\n"},
      {[](int fd) { waitFor(fd, 0); },
       {"--timeout", "300", "screen", "1"},
       2,  // never reads
       "noxctl: noxd did not read the message within 300 ms\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.error);
    FakeDaemon daemon(c.serve);
    o = run(daemon.path(), c.args);
    EXPECT_EQ(c.status, o.status);
    EXPECT_THAT(o.err, MatchesRegex(c.error));
  }
}

TEST(NoxctlTest, StaysConnectedUntilTheDaemonHasReadEverything) {
  const Bytes expected = rec({12, 1, 0, 1, "com.a", 10050, ""});
  bool hungUpEarly = true;
  Bytes got, after;
  FakeDaemon daemon([&](int fd) {
    // Let the whole record arrive, then take our time before reading it: a client that
    // closed on sending would show as a hang-up together with the data.
    int queued = 0;
    while (waitFor(fd, POLLIN) && ioctl(fd, FIONREAD, &queued) == 0 &&
           queued < static_cast<int>(expected.size()))
      usleep(1000);
    usleep(200 * 1000);
    pollfd p = {fd, POLLIN, 0};
    poll(&p, 1, 0);
    hungUpEarly = (p.revents & POLLHUP) != 0;
    got = readBytes(fd, expected.size());
    after = readBytes(fd);
  });
  const Outcome o = run(daemon.path(), {"apps", "add", "10050:com.a"});
  daemon.join();
  EXPECT_FALSE(hungUpEarly);
  EXPECT_EQ(expected, got);
  EXPECT_TRUE(after.empty());
  EXPECT_EQ(0, o.status) << o.err;
}

TEST(NoxctlTest, ListenPrintsEachMessageAsItComes) {
  std::promise<void> firstLineSeen;
  Bytes announced;
  FakeDaemon daemon([&](int fd) {
    announced = readBytes(fd, 12);
    writeBytes(fd, rec({1, 0}));
    firstLineSeen.get_future().wait();
    const Bytes rest = rec({1, 2, 2, 3}) + rec({1, 4, 2, 2, 0}) + rec({1, 7, 10050, 1}) +
                       rec({1, 5, 9, -1}) + rec({7, 7});
    // A record split across writes must be put together again.
    writeBytes(fd, Bytes(rest.begin(), rest.begin() + 6));
    writeBytes(fd, Bytes(rest.begin() + 6, rest.end()));
  });
  Noxctl listener({"--socket", daemon.path(), "listen"});
  EXPECT_EQ("app-list-request", listener.readLine());  // printed before the connection ends
  firstLineSeen.set_value();
  const Outcome o = listener.finish();
  daemon.join();
  EXPECT_EQ(rec({8, 1}), announced);
  EXPECT_EQ(
      "feature 2 status 3\nfeature 2 status 2 result 0\nblocked-uid 10050 blocked 1\n"
      "message 5 9 -1\nunknown record 7 7\n",
      o.out);
  EXPECT_EQ(0, o.status);
}

}  // namespace
