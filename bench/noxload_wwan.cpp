// noxload wwan: from the framework's "mobile data connected" to the modem clients
// existing in the simulator, once for each of R interfaces PREFIX0..PREFIX(R-1), which
// must exist: a fresh interface each time, as releasing one takes the kernel's word (its
// addresses or its link going), not the framework's. The simulator is
// asked for its state over one connection of its command line, whose frame is written
// here from its documented wire: a 16-byte little-endian header (magic "TOVW", version 1,
// kind, body length, sequence), then u16 argc and each argument as u16 length and bytes;
// the answer (kind | 0x8000) holds i32 status, u32 text length and the text.
#include <stdio.h>
#include <unistd.h>

#include <algorithm>

#include "exchange.h"
#include "noxload_util.h"

namespace noxload {

namespace {

constexpr uint32_t kMagic = 0x57564f54;
constexpr uint16_t kKindCli = 64;
constexpr uint16_t kAnswer = 0x8000;
constexpr int64_t kTimeoutNs = 10000000000LL;

void putLe(std::vector<uint8_t>& out, uint32_t v, int bytes) {
  for (int i = 0; i < bytes; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

uint32_t getLe(const uint8_t* p, int bytes) {
  uint32_t v = 0;
  for (int i = bytes - 1; i >= 0; --i) v = v << 8 | p[i];
  return v;
}

// The number of WDS and DFS clients the simulator reports.
int modemClients(int fd) {
  static uint32_t seq = 0;
  const std::string command = "state";
  std::vector<uint8_t> body;
  putLe(body, 1, 2);
  putLe(body, static_cast<uint32_t>(command.size()), 2);
  body.insert(body.end(), command.begin(), command.end());
  std::vector<uint8_t> frame;
  putLe(frame, kMagic, 4);
  putLe(frame, 1, 2);
  putLe(frame, kKindCli, 2);
  putLe(frame, static_cast<uint32_t>(body.size()), 4);
  putLe(frame, ++seq, 4);
  frame.insert(frame.end(), body.begin(), body.end());
  writeAll(fd, frame.data(), frame.size());

  uint8_t header[16];
  if (!readAll(fd, header, sizeof(header))) fail("the modem simulator closed the connection");
  const uint32_t len = getLe(header + 8, 4);
  if (getLe(header, 4) != kMagic || getLe(header + 6, 2) != (kKindCli | kAnswer) || len < 8 ||
      len > 65536)
    fail("unexpected answer from the modem simulator");
  std::vector<uint8_t> answer(len);
  if (!readAll(fd, answer.data(), len)) fail("the modem simulator closed the connection");
  const std::string text(answer.begin() + 8, answer.end());
  int clients = 0;
  for (const char* kind : {"wds client ", "dfs client "})
    for (size_t at = text.find(kind); at != std::string::npos; at = text.find(kind, at + 1))
      ++clients;
  return clients;
}

// Microseconds from now until the simulator reports a client count for which `reached`
// holds.
template <typename Pred>
double waitForClients(int modem, int64_t since, Pred reached) {
  while (!reached(modemClients(modem))) {
    if (nowNs() - since > kTimeoutNs) fail("the modem clients did not change within 10 s");
    sleepUs(50);
  }
  return static_cast<double>(nowNs() - since) / 1000.0;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? -1 : v[v.size() / 2];
}

}  // namespace

int runWwan(int argc, char** argv) {
  const std::string path = argv[2];
  const std::string modemPath = option(argc, argv, "modem", "");
  const std::string prefix = option(argc, argv, "iface-prefix", "mdlnk");
  const int expect = static_cast<int>(optionNum(argc, argv, "expect", 4));
  const long repeat = optionNum(argc, argv, "repeat", 5);
  if (modemPath.empty()) fail("wwan needs --modem");

  const int fd = connectTo(path);
  const std::vector<uint8_t> init = bench::initDoneFrame();
  writeAll(fd, init.data(), init.size());
  const int modem = connectTo(modemPath);
  if (modemClients(modem) != 0) fail("the modem simulator already has clients");

  std::vector<double> created;
  for (long i = 0; i < repeat; ++i) {
    const std::vector<uint8_t> up = bench::wwanFrame(
        bench::kWwanConnected, prefix + std::to_string(i), "10.0.0.5", "2001:db8::5");
    const int want = expect * static_cast<int>(i + 1);
    const int64_t t = nowNs();
    writeAll(fd, up.data(), up.size());
    created.push_back(waitForClients(modem, t, [want](int n) { return n >= want; }));
  }
  close(fd);
  close(modem);
  printf("runs=%ld clients=%d created_us=%.0f max_us=%.0f\n", repeat, expect, median(created),
         *std::max_element(created.begin(), created.end()));
  return 0;
}

}  // namespace noxload
