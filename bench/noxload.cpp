// The benchmarks' load client. It speaks the control socket's framing to noxd or to a
// reference server and prints one line of name=value results.
//
//   noxload pipeline SOCKET --depth D (--seconds S [--warmup W] | --count N) [--pid PID]
//                    [--spin 1]
//       The framework client: "init done", then "get feature status 2" requests with D
//       outstanding. Timed: requests per second, latency p50/p99 and, with --pid, the
//       server's CPU time per request, over the S seconds after W seconds of warm-up.
//       Counted: exactly N requests, nothing timed (for an instruction count). --spin 1
//       polls for answers instead of sleeping, for a client with a core of its own: its
//       own wake-ups then stay out of the latency.
//   noxload storm SOCKET --cycles N --pid PID
//       N connect-and-close cycles as fast as they go: the most descriptors PID held, and
//       its anonymous memory before, at the end, and once idle again (its descriptors
//       back to what they were, then two more seconds).
//   noxload hold SOCKET --clients N [--apps M] --pid PID
//       Holds N idle connections and, with --apps, a framework client that reported M
//       applications; prints "ready" once PID holds them all, then waits for SIGTERM.
//   noxload wwan SOCKET --modem MODEMSOCK [--iface-prefix P] [--expect N] [--repeat R]
//       Reports mobile data connected on interface P0, P1, ... P(R-1) in turn, and times
//       each until the modem simulator shows N more clients.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "exchange.h"
#include "noxload_util.h"

namespace noxload {

int runWwan(int argc, char** argv);

namespace {

using bench::kRequestFrameLen;

double percentileUs(std::vector<uint32_t>& ns, double q) {
  if (ns.empty()) return -1;
  const size_t k = std::min(ns.size() - 1, static_cast<size_t>(q * static_cast<double>(ns.size())));
  std::nth_element(ns.begin(), ns.begin() + static_cast<long>(k), ns.end());
  return ns[k] / 1000.0;
}

int runPipeline(const std::string& path, int argc, char** argv) {
  const size_t depth = static_cast<size_t>(optionNum(argc, argv, "depth", 1));
  const double seconds = optionReal(argc, argv, "seconds", 1.0);
  const double warmup = optionReal(argc, argv, "warmup", 0.2);
  const uint64_t count = static_cast<uint64_t>(optionNum(argc, argv, "count", 0));
  const pid_t pid = static_cast<pid_t>(optionNum(argc, argv, "pid", 0));
  const int recvFlags = optionNum(argc, argv, "spin", 0) != 0 ? MSG_DONTWAIT : 0;
  if (depth < 1 || depth > 1024) fail("--depth takes 1 to 1024");
  const bool counted = count > 0;

  const int fd = connectTo(path);
  const std::vector<uint8_t> init = bench::initDoneFrame();
  writeAll(fd, init.data(), init.size());

  std::vector<int64_t> sentAt(depth);
  std::vector<uint8_t> out(depth * kRequestFrameLen);
  std::vector<uint32_t> latencies;
  latencies.reserve(counted ? 0 : 4000000);
  uint64_t sent = 0, done = 0, unsolicited = 0;
  auto sendMore = [&](size_t k) {
    const int64_t now = nowNs();
    for (size_t i = 0; i < k; ++i, ++sent) {
      bench::writeRequestFrame(&out[i * kRequestFrameLen], static_cast<int32_t>(sent));
      sentAt[sent % depth] = now;
    }
    writeAll(fd, out.data(), k * kRequestFrameLen);
  };

  enum Phase { kWarmup, kWindow, kDraining } phase = counted ? kWindow : kWarmup;
  const int64_t start = nowNs();
  int64_t windowStart = start, windowEnd = start, cpuStart = -1, cpuEnd = -1;
  uint64_t doneAtStart = 0, doneAtEnd = 0;
  if (pid > 0 && counted) cpuStart = cpuNs(pid);
  sendMore(counted ? std::min<uint64_t>(depth, count) : depth);

  uint8_t in[65536];
  size_t used = 0;
  while (done < sent) {
    const ssize_t n = recv(fd, in + used, sizeof(in) - used, recvFlags);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (n <= 0) fail("the server ended the connection after " + std::to_string(done) + " answers");
    const int64_t now = nowNs();
    used += static_cast<size_t>(n);
    size_t pos = 0, answered = 0;
    while (used - pos >= bench::kHeaderLen) {
      const uint32_t len = bench::readBe32(in + pos);
      if (len > bench::kMaxRecordLen) fail("framing lost");
      if (used - pos - bench::kHeaderLen < len) break;
      const uint8_t* rec = in + pos + bench::kHeaderLen;
      pos += bench::kHeaderLen + len;
      if (len == bench::kReplyLen && bench::readLe32(rec) == 1 &&
          bench::readLe32(rec + 4) == bench::kMsgFeatureStatus) {
        if (phase == kWindow && !counted)
          latencies.push_back(static_cast<uint32_t>(std::min<int64_t>(now - sentAt[done % depth], UINT32_MAX)));
        ++done;
        ++answered;
      } else {
        ++unsolicited;
      }
    }
    memmove(in, in + pos, used - pos);
    used -= pos;

    if (!counted && phase == kWarmup && now - start >= static_cast<int64_t>(warmup * 1e9)) {
      phase = kWindow;
      windowStart = now;
      doneAtStart = done;
      if (pid > 0) cpuStart = cpuNs(pid);
    } else if (!counted && phase == kWindow &&
               now - windowStart >= static_cast<int64_t>(seconds * 1e9)) {
      phase = kDraining;
      windowEnd = now;
      doneAtEnd = done;
      if (pid > 0) cpuEnd = cpuNs(pid);
    }
    size_t more = phase == kDraining ? 0 : answered;
    if (counted) more = static_cast<size_t>(std::min<uint64_t>(answered, count - sent));
    if (more > 0) sendMore(more);
  }
  close(fd);

  if (counted) {
    windowEnd = nowNs();
    doneAtEnd = done;
    if (pid > 0) cpuEnd = cpuNs(pid);
  }
  const uint64_t requests = doneAtEnd - doneAtStart;
  const double span = static_cast<double>(windowEnd - windowStart) / 1e9;
  const double cpuPerRequest =
      cpuStart >= 0 && cpuEnd >= 0 && requests > 0
          ? static_cast<double>(cpuEnd - cpuStart) / static_cast<double>(requests)
          : -1;
  const double p50 = percentileUs(latencies, 0.50);
  const double p99 = percentileUs(latencies, 0.99);
  printf("requests=%llu seconds=%.3f rps=%.0f p50_us=%.1f p99_us=%.1f cpu_ns_per_req=%.0f "
         "unsolicited=%llu\n",
         static_cast<unsigned long long>(requests), span, requests / span, p50, p99,
         cpuPerRequest, static_cast<unsigned long long>(unsolicited));
  return 0;
}

int runStorm(const std::string& path, int argc, char** argv) {
  const long cycles = optionNum(argc, argv, "cycles", 10000);
  const pid_t pid = static_cast<pid_t>(optionNum(argc, argv, "pid", 0));
  if (pid <= 0) fail("storm needs --pid");
  const int base = countFds(pid);
  const long anonBefore = anonKb(pid);
  std::atomic<bool> stop{false};
  std::atomic<int> peak{base};
  std::thread sampler([&] {
    while (!stop) {
      const int n = countFds(pid);
      if (n > peak) peak = n;
      sleepUs(100);
    }
  });
  const int64_t start = nowNs();
  for (long i = 0; i < cycles; ++i) close(connectTo(path));
  const int64_t end = nowNs();
  const long anonEnd = anonKb(pid);
  // Settled once the server holds no more descriptors than before the storm.
  while (countFds(pid) > base && nowNs() - end < 10000000000LL) sleepUs(1000);
  const int64_t settled = nowNs();
  stop = true;
  sampler.join();
  sleepUs(2000000);
  printf("cycles=%ld seconds=%.3f base_fds=%d peak_fds=%d settle_ms=%.1f anon_before_kb=%ld "
         "anon_end_kb=%ld anon_idle_kb=%ld\n",
         cycles, static_cast<double>(end - start) / 1e9, base, peak.load(),
         static_cast<double>(settled - end) / 1e6, anonBefore, anonEnd, anonKb(pid));
  return 0;
}

int runHold(const std::string& path, int argc, char** argv) {
  const long clients = optionNum(argc, argv, "clients", 100);
  const long apps = optionNum(argc, argv, "apps", 0);
  const pid_t pid = static_cast<pid_t>(optionNum(argc, argv, "pid", 0));
  if (pid <= 0) fail("hold needs --pid");
  const int base = countFds(pid);
  std::vector<int> fds;
  for (long i = 0; i < clients; ++i) fds.push_back(connectTo(path));
  const int64_t start = nowNs();
  while (countFds(pid) < base + clients) {
    if (nowNs() - start > 10000000000LL) fail("the server did not take every connection");
    sleepUs(1000);
  }
  if (apps > 0) {
    const int fd = connectTo(path);
    const std::vector<uint8_t> init = bench::initDoneFrame();
    writeAll(fd, init.data(), init.size());
    // 100 entries a record keep each under the record limit.
    for (long first = 0; first < apps; first += 100) {
      const std::vector<uint8_t> list =
          bench::appListFrame(static_cast<int>(first), static_cast<int>(std::min(100L, apps - first)));
      writeAll(fd, list.data(), list.size());
    }
    // Records are handled in order: the answer to this one means the lists are stored.
    uint8_t request[kRequestFrameLen];
    bench::writeRequestFrame(request, 1);
    writeAll(fd, request, sizeof(request));
    std::vector<uint8_t> body;
    do {
      if (!readRecord(fd, body)) fail("the server ended the framework connection");
    } while (body.size() < 8 || bench::readLe32(&body[4]) != bench::kMsgFeatureStatus);
  }
  printf("ready fds=%d\n", countFds(pid));
  fflush(stdout);
  for (;;) pause();
}

}  // namespace
}  // namespace noxload

int main(int argc, char** argv) {
  using namespace noxload;
  if (argc < 3) {
    fprintf(stderr, "usage: noxload pipeline|storm|hold|wwan SOCKET [options] (see noxload.cpp)\n");
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);
  const std::string mode = argv[1];
  if (mode == "pipeline") return runPipeline(argv[2], argc, argv);
  if (mode == "storm") return runStorm(argv[2], argc, argv);
  if (mode == "hold") return runHold(argv[2], argc, argv);
  if (mode == "wwan") return runWwan(argc, argv);
  fail("unknown mode '" + mode + "'");
}
