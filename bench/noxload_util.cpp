#include "noxload_util.h"

#include <dirent.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include "exchange.h"

namespace noxload {

void fail(const std::string& what) {
  fprintf(stderr, "noxload: %s\n", what.c_str());
  exit(1);
}

int64_t nowNs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

void sleepUs(int us) {
  timespec ts = {us / 1000000, (us % 1000000) * 1000L};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

int connectTo(const std::string& path) {
  sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof(addr.sun_path)) fail("socket path too long: " + path);
  memcpy(addr.sun_path, path.data(), path.size());
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) fail(std::string("socket: ") + strerror(errno));
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0)
    fail("cannot connect to " + path + ": " + strerror(errno));
  return fd;
}

void writeAll(int fd, const void* data, size_t len) {
  const uint8_t* p = static_cast<const uint8_t*>(data);
  while (len > 0) {
    const ssize_t n = send(fd, p, len, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) fail(std::string("send: ") + strerror(errno));
    p += n;
    len -= static_cast<size_t>(n);
  }
}

bool readAll(int fd, void* data, size_t len) {
  uint8_t* p = static_cast<uint8_t*>(data);
  while (len > 0) {
    const ssize_t n = recv(fd, p, len, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) fail(std::string("recv: ") + strerror(errno));
    if (n == 0) return false;
    p += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

bool readRecord(int fd, std::vector<uint8_t>& body) {
  uint8_t header[bench::kHeaderLen];
  if (!readAll(fd, header, sizeof(header))) return false;
  const uint32_t len = bench::readBe32(header);
  if (len > bench::kMaxRecordLen) fail("record of " + std::to_string(len) + " bytes: framing lost");
  body.resize(len);
  return readAll(fd, body.data(), len);
}

int64_t cpuNs(pid_t pid) {
  const std::string dir = "/proc/" + std::to_string(pid) + "/task";
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return -1;
  int64_t total = 0;
  while (const dirent* e = readdir(d)) {
    if (e->d_name[0] == '.') continue;
    FILE* f = fopen((dir + "/" + e->d_name + "/schedstat").c_str(), "r");
    if (f == nullptr) continue;
    long long ns = 0;
    if (fscanf(f, "%lld", &ns) == 1) total += ns;
    fclose(f);
  }
  closedir(d);
  return total;
}

int countFds(pid_t pid) {
  DIR* d = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
  if (d == nullptr) return -1;
  int n = 0;
  while (const dirent* e = readdir(d))
    if (e->d_name[0] != '.') ++n;
  closedir(d);
  return n;
}

long anonKb(pid_t pid) {
  FILE* f = fopen(("/proc/" + std::to_string(pid) + "/status").c_str(), "r");
  if (f == nullptr) return -1;
  char line[256];
  long kb = -1;
  while (fgets(line, sizeof(line), f) != nullptr)
    if (sscanf(line, "RssAnon: %ld", &kb) == 1) break;
  fclose(f);
  return kb;
}

std::string option(int argc, char** argv, const char* name, const std::string& fallback) {
  for (int i = 1; i + 1 < argc; ++i)
    if (strncmp(argv[i], "--", 2) == 0 && strcmp(argv[i] + 2, name) == 0) return argv[i + 1];
  return fallback;
}

long optionNum(int argc, char** argv, const char* name, long fallback) {
  const std::string v = option(argc, argv, name, "");
  if (v.empty()) return fallback;
  char* end = nullptr;
  const long n = strtol(v.c_str(), &end, 10);
  if (*end != '\0') fail(std::string("--") + name + " takes a number, not '" + v + "'");
  return n;
}

double optionReal(int argc, char** argv, const char* name, double fallback) {
  const std::string v = option(argc, argv, name, "");
  if (v.empty()) return fallback;
  char* end = nullptr;
  const double x = strtod(v.c_str(), &end);
  if (*end != '\0') fail(std::string("--") + name + " takes a number, not '" + v + "'");
  return x;
}

}  // namespace noxload
