#include "NetnsFixture.h"

#include <net/if.h>
#include <sched.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

std::string family(const std::string& cidr) {
  return cidr.find(':') != std::string::npos ? "-6 " : "-4 ";
}

bool runIp(const std::string& args, std::string* output) {
  std::string text;
  FILE* pipe = popen(("ip " + args + " 2>&1").c_str(), "r");
  if (pipe == nullptr) text = std::string("popen: ") + strerror(errno);
  char chunk[256];
  for (size_t n; pipe != nullptr && (n = fread(chunk, 1, sizeof(chunk), pipe)) > 0;)
    text.append(chunk, n);
  const int status = pipe != nullptr ? pclose(pipe) : -1;
  if (output != nullptr) *output = text;
  return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Moves the calling thread, and the threads it starts later, into the namespace.
bool enterPrivateNetns(std::string* why) {
  static std::string failure;
  static const bool entered = [] {
    std::string output;
    if (unshare(CLONE_NEWNET) != 0)
      failure = std::string("unshare(CLONE_NEWNET) failed: ") + strerror(errno) +
                " (needs root or CAP_NET_ADMIN)";
    else if (!runIp("link set dev lo up", &output))
      failure = "ip link set dev lo up failed: " + output;
    return failure.empty();
  }();
  *why = failure;
  return entered;
}

}  // namespace

void NetnsTest::SetUp() {
  std::string why;
  if (enterPrivateNetns(&why)) return;
  const char* required = getenv("NOX_REQUIRE_NETNS");
  if (required != nullptr && strcmp(required, "1") == 0)
    FAIL() << "NOX_REQUIRE_NETNS=1 but no private network namespace: " << why;
  GTEST_SKIP() << "no private network namespace: " << why;
}

void NetnsTest::TearDown() {
  for (auto it = createdLinks_.rbegin(); it != createdLinks_.rend(); ++it)
    if (if_nametoindex(it->c_str()) != 0) ip("link del dev " + *it);
  createdLinks_.clear();
}

bool NetnsTest::ip(const std::string& args) {
  std::string output;
  if (runIp(args, &output)) return true;
  ADD_FAILURE() << "ip " << args << " failed: " << output;
  return false;
}

bool NetnsTest::addLink(const std::string& name) {
  if (!ip("tuntap add dev " + name + " mode tun")) return false;
  createdLinks_.push_back(name);
  return true;
}

bool NetnsTest::delLink(const std::string& name) {
  createdLinks_.erase(std::remove(createdLinks_.begin(), createdLinks_.end(), name),
                      createdLinks_.end());
  return ip("link del dev " + name);
}

bool NetnsTest::linkUp(const std::string& name) { return ip("link set dev " + name + " up"); }

bool NetnsTest::linkDown(const std::string& name) { return ip("link set dev " + name + " down"); }

bool NetnsTest::addAddr(const std::string& iface, const std::string& cidr) {
  std::string args = family(cidr) + "addr add " + cidr + " dev " + iface;
  if (family(cidr) == "-6 ") args += cidr.compare(0, 2, "ff") == 0 ? " autojoin" : " nodad";
  return ip(args);
}

bool NetnsTest::delAddr(const std::string& iface, const std::string& cidr) {
  return ip(family(cidr) + "addr del " + cidr + " dev " + iface);
}

unsigned int NetnsTest::ifIndex(const std::string& name) {
  const unsigned int index = if_nametoindex(name.c_str());
  if (index == 0) ADD_FAILURE() << "no interface " << name << ": " << strerror(errno);
  return index;
}
