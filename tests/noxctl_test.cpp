// Runs the built noxctl against a fake daemon on a real Unix socket and checks the bytes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

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
  // clang-format off
  Part(int32_t v) : bytes{uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)} {}  // NOLINT
  // clang-format on
  Part(const char* text) : Part(int32_t(strlen(text))) {  // NOLINT: ints and texts mix in a list
    for (const char* c = text; *c != '\0'; ++c) bytes = bytes + Bytes{uint8_t(*c), 0};
    bytes.resize((bytes.size() + 2 + 3) & ~size_t{3});
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
  for (ssize_t got = 1; out.size() < n && got > 0 && waitFor(fd, POLLIN);) {
    got = read(fd, buf, std::min(sizeof(buf), n - out.size()));
    if (got > 0) out.insert(out.end(), buf, buf + got);
  }
  return out;
}

void writeBytes(int fd, const Bytes& b) {
  ASSERT_EQ(static_cast<ssize_t>(b.size()), write(fd, b.data(), b.size()));
}

// A Unix stream socket bound to a fresh path in /tmp, listening unless told otherwise.
struct BoundSocket {
  explicit BoundSocket(bool listening = true) {
    sockaddr_un addr = {AF_UNIX, {}};
    snprintf(addr.sun_path, sizeof(addr.sun_path), "/tmp/noxctl_test.%d.%d", getpid(), ++count);
    path = addr.sun_path;
    unlink(addr.sun_path);
    EXPECT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr))) << path;
    EXPECT_TRUE(!listening || listen(fd, 4) == 0);
  }
  ~BoundSocket() { close(fd), unlink(path.c_str()); }
  static inline int count = 0;
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  std::string path;
};

// Hands the first connection to `serve` on a thread, and closes it afterwards.
struct FakeDaemon : BoundSocket {
  explicit FakeDaemon(std::function<void(int)> serve)
      : thread([this, serve] {
          const int conn = waitFor(fd, POLLIN) ? accept4(fd, nullptr, nullptr, SOCK_CLOEXEC) : -1;
          if (conn >= 0) serve(conn), close(conn);
        }) {}
  ~FakeDaemon() { join(); }
  void join() {
    if (thread.joinable()) thread.join();
  }
  std::thread thread;
};

struct Outcome {
  int status;
  std::string out, err;
};

// noxctl (in build-*/tools, beside our tests/) run through the shell, stderr into a file.
class Noxctl {
 public:
  explicit Noxctl(const Args& args) {
    char self[PATH_MAX] = {};
    EXPECT_GT(readlink("/proc/self/exe", self, sizeof(self) - 1), 0);
    std::string command = std::string(self, strrchr(self, '/')) + "/../tools/noxctl";
    for (const std::string& a : args) command += " '" + a + "'";
    out_ = popen((command + " 2>" + errPath_).c_str(), "r");
  }
  ~Noxctl() {
    if (out_ != nullptr) pclose(out_);
    unlink(errPath_.c_str());
  }
  std::string readLine() {
    char line[256] = "";
    if (!waitFor(fileno(out_), POLLIN)) return "";  // nothing printed for a long time
    return fgets(line, sizeof(line), out_) ? std::string(line, strcspn(line, "\n")) : "";
  }
  Outcome finish() {
    std::string out;
    for (int c; (c = fgetc(out_)) != EOF;) out += char(c);
    const int status = pclose(out_);
    out_ = nullptr;
    std::ifstream err(errPath_);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out,
            std::string(std::istreambuf_iterator<char>(err), {})};
  }

 private:
  std::string errPath_ = "/tmp/noxctl_test." + std::to_string(getpid()) + ".err";
  FILE* out_;
};

Outcome run(const std::string& socket, Args args) {
  args.insert(args.begin(), {"--socket", socket});
  return Noxctl(args).finish();
}

TEST(NoxctlTest, EachCommandSendsItsRecordsAndStaysUntilTheyAreRead) {
  const Bytes initDone = rec({8, 1});
  const struct {
    Args args;
    Bytes sent;       // everything noxctl must send, in order
    Bytes reply;      // what the fake daemon answers once it has all of it
    std::string out;  // expected standard output
    int status;
  } cases[] = {
      // clang-format off
      {{"init-done"}, initDone, {}, "", 0},
      {{"screen", "1"}, {0, 0, 0, 16, 13, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0}, {}, "", 0},
      {{"nsrm-bkg", "0xffffffff", "-2", "3"}, rec({11, 1, 3, -1, -2, 3}), {}, "", 0},
      {{"wlan", "1", "2", "0"}, rec({9, 1, 1, 2, 0}), {}, "", 0},
      {{"wlan", "--softap=1", "--type", "1"}, rec({9, 1, 1, 0, 1}), {}, "", 0},
      // Unset: status 1 (connected), other numbers 0, texts empty.
      {{"wwan"}, rec({10, 1, 0, 1, 0, 0, 0, "", "", "", "", ""}), {}, "", 0},
      {{"wwan", "--type", "0", "--status", "4", "--nw-type", "13", "--roaming", "1", "--apn", "3",
        "--ipv4", "10.0.0.2", "--iface", "mdlnk0", "--ipv6", "fe80::1", "--iface-v6", "mdlnk1",
        "--mccmnc", "310260"},
       rec({10, 1, 0, 4, 13, 1, 3, "10.0.0.2", "mdlnk0", "fe80::1", "mdlnk1", "310260"}), {}, "", 0},
      {{"apps", "remove", "10050:com.a"},
       {0, 0, 0, 44, 12, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0,  // remove, one entry:
        5, 0, 0, 0, 'c', 0, 'o', 0, 'm', 0, '.', 0, 'a', 0, 0, 0,          // "com.a"
        0x42, 0x27, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, {}, "", 0},             // 10050, ""
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
      // clang-format on
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[0] + (c.args.size() > 1 ? " " + c.args[1] : ""));
    bool hungUpEarly = true;
    Bytes got, after;
    FakeDaemon daemon([&](int fd) {
      // Take our time once all of it has arrived: a client that closed on sending would
      // show as a hang-up together with the data, which the daemon drops.
      int queued = 0;
      while (waitFor(fd, POLLIN) && ioctl(fd, FIONREAD, &queued) == 0 &&
             queued < static_cast<int>(c.sent.size()))
        usleep(1000);
      usleep(100 * 1000);
      pollfd p = {fd, POLLIN, 0};
      hungUpEarly = poll(&p, 1, 0) != 1 || (p.revents & POLLHUP) != 0;
      got = readBytes(fd, c.sent.size());
      if (!c.reply.empty()) writeBytes(fd, c.reply);
      after = readBytes(fd);
    });
    const Outcome o = run(daemon.path, c.args);
    daemon.join();
    EXPECT_FALSE(hungUpEarly);
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
  // One row per check; with no daemon there, an attempt to connect would show as another line.
  // clang-format off
  const std::vector<Args> cases = {
      {}, {"bogus"}, {"screen"}, {"tethering", "2147483648"}, {"feature", "frob", "1"},
      {"wlan", "1", "2"}, {"wlan", "1", "2", "3", "--type", "1"}, {"wwan", "--bogus", "1"},
      {"wwan", "--iface"}, {"wwan", "--iface", "0123456789abcdef"}, {"apps", "move", "1:com.a"},
      {"apps", "add", "1"}, {"apps", "add", "4294967296:com.a"}, {"apps", "add", "1:com.a:zz"},
      {"raw", "0x100000000"}, {"listen", "now"}, {"--timeout", "-5", "init-done"}, tooMany};
  // clang-format on
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
  BoundSocket stale(false);  // nobody listens on it
  Outcome o = run(stale.path + "x", {"screen", "1"});
  EXPECT_EQ(1, o.status);
  EXPECT_EQ("noxctl: cannot connect to " + stale.path + "x: No such file or directory\n", o.err);
  o = run(stale.path, {"listen"});
  EXPECT_EQ(1, o.status);
  EXPECT_EQ("noxctl: cannot connect to " + stale.path + ": Connection refused\n", o.err);

  const struct {
    std::function<void(int)> serve;
    Args args;
    int status;
    const char* error;
  } cases[] = {
      // clang-format off
      // Refused clients are closed unread: the message is lost, which must not pass quietly.
      {[](int) {}, {"screen", "1"}, 1, "noxctl: [^\n]+\n"},
      {[](int fd) { readBytes(fd, 12 + 20); }, {"feature", "get", "2"}, 1, "noxctl: [^\n]+\n"},
      {[](int fd) { readBytes(fd); }, {"--timeout", "300", "feature", "get", "2"}, 2,
       "noxctl: no answer from noxd within 300 ms\n"},
      {[](int fd) { waitFor(fd, 0); }, {"--timeout", "300", "screen", "1"}, 2,  // never reads
       "noxctl: noxd did not read the message within 300 ms\n"},
      // clang-format on
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.error);
    FakeDaemon daemon(c.serve);
    o = run(daemon.path, c.args);
    EXPECT_EQ(c.status, o.status);
    EXPECT_THAT(o.err, MatchesRegex(c.error));
  }
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
  Noxctl listener({"--socket", daemon.path, "listen"});
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
