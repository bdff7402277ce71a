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

struct NetnsState {
  bool tried = false;
  bool entered = false;
  std::string why;
};

NetnsState& netnsState() {
  static NetnsState state;
  return state;
}

// The kind of link that addLink found to work in this process; empty until then.
std::string& workingLinkKind() {
  static std::string kind;
  return kind;
}

bool runIp(const std::string& args, std::string* output) {
  const std::string command = "ip " + args + " 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) {
    if (output != nullptr) *output = std::string("popen: ") + strerror(errno);
    return false;
  }
  std::string text;
  char chunk[256];
  size_t n;
  while ((n = fread(chunk, 1, sizeof(chunk), pipe)) > 0) text.append(chunk, n);
  const int status = pclose(pipe);
  if (output != nullptr) *output = text;
  return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool isIpv6(const std::string& cidr) { return cidr.find(':') != std::string::npos; }

bool isMulticast(const std::string& cidr) {
  if (isIpv6(cidr))
    return cidr.size() >= 2 && (cidr[0] == 'f' || cidr[0] == 'F') &&
           (cidr[1] == 'f' || cidr[1] == 'F');
  const int firstOctet = atoi(cidr.c_str());
  return firstOctet >= 224 && firstOctet <= 239;
}

// Peers must not start with "mdlnk": the daemon takes such names for modem links.
std::string vethPeerName(const std::string& name) {
  return ("nxp-" + name).substr(0, IFNAMSIZ - 1);
}

}  // namespace

bool enterPrivateNetns(std::string* why) {
  NetnsState& state = netnsState();
  if (!state.tried) {
    state.tried = true;
    std::string output;
    if (unshare(CLONE_NEWNET) != 0) {
      state.why = std::string("unshare(CLONE_NEWNET) failed: ") + strerror(errno) +
                  " (needs root or CAP_NET_ADMIN)";
    } else if (!runIp("link set dev lo up", &output)) {
      state.why = "ip link set dev lo up failed: " + output;
    } else {
      state.entered = true;
    }
  }
  if (!state.entered && why != nullptr) *why = state.why;
  return state.entered;
}

bool netnsRequired() {
  const char* value = getenv("NOX_REQUIRE_NETNS");
  return value != nullptr && strcmp(value, "1") == 0;
}

void NetnsTest::SetUp() {
  std::string why;
  if (enterPrivateNetns(&why)) return;
  if (netnsRequired()) FAIL() << "NOX_REQUIRE_NETNS=1 but no private network namespace: " << why;
  GTEST_SKIP() << "no private network namespace: " << why;
}

void NetnsTest::TearDown() {
  for (auto it = createdLinks_.rbegin(); it != createdLinks_.rend(); ++it) {
    if (if_nametoindex(it->c_str()) != 0) ip("link del dev " + *it);
  }
  createdLinks_.clear();
}

bool NetnsTest::ip(const std::string& args) {
  std::string output;
  if (tryIp(args, &output)) return true;
  ADD_FAILURE() << "ip " << args << " failed: " << output;
  return false;
}

bool NetnsTest::tryIp(const std::string& args, std::string* output) { return runIp(args, output); }

bool NetnsTest::addLinkOfKind(const std::string& kind, const std::string& name,
                              std::string* output) {
  if (kind == "tun") return tryIp("tuntap add dev " + name + " mode tun", output);
  if (kind == "veth")
    return tryIp("link add " + name + " type veth peer name " + vethPeerName(name), output);
  return tryIp("link add " + name + " type " + kind, output);
}

bool NetnsTest::addLink(const std::string& name) {
  std::string& known = workingLinkKind();
  const std::vector<std::string> kinds = known.empty()
                                             ? std::vector<std::string>{"dummy", "tun", "veth"}
                                             : std::vector<std::string>{known};
  std::string failures;
  for (const std::string& kind : kinds) {
    std::string output;
    if (addLinkOfKind(kind, name, &output)) {
      known = kind;
      createdLinks_.push_back(name);
      return true;
    }
    failures += "\n  " + kind + ": " + output;
  }
  ADD_FAILURE() << "cannot create link " << name << ":" << failures;
  return false;
}

bool NetnsTest::delLink(const std::string& name) {
  createdLinks_.erase(std::remove(createdLinks_.begin(), createdLinks_.end(), name),
                      createdLinks_.end());
  return ip("link del dev " + name);
}

bool NetnsTest::linkUp(const std::string& name) { return ip("link set dev " + name + " up"); }

bool NetnsTest::linkDown(const std::string& name) { return ip("link set dev " + name + " down"); }

const std::string& NetnsTest::linkKind() { return workingLinkKind(); }

bool NetnsTest::addAddr(const std::string& iface, const std::string& cidr) {
  std::string args =
      std::string(isIpv6(cidr) ? "-6 " : "-4 ") + "addr add " + cidr + " dev " + iface;
  if (isMulticast(cidr)) {
    args += " autojoin";
  } else if (isIpv6(cidr)) {
    args += " nodad";
  }
  return ip(args);
}

bool NetnsTest::delAddr(const std::string& iface, const std::string& cidr) {
  return ip(std::string(isIpv6(cidr) ? "-6 " : "-4 ") + "addr del " + cidr + " dev " + iface);
}

unsigned int NetnsTest::ifIndex(const std::string& name) {
  const unsigned int index = if_nametoindex(name.c_str());
  if (index == 0) ADD_FAILURE() << "no interface " << name << ": " << strerror(errno);
  return index;
}
