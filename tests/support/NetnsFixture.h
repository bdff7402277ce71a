#ifndef NOX_TESTS_NETNSFIXTURE_H
#define NOX_TESTS_NETNSFIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

// Moves the calling thread (and threads it starts later) into a private network namespace,
// once per process, with "lo" up. Returns false with the reason when that is not possible
// (not root, no CAP_NET_ADMIN, no `ip`). ctest runs each test case in a process of its own.
bool enterPrivateNetns(std::string* why);

// True when NOX_REQUIRE_NETNS=1: a missing namespace is then a failure, not a skip.
bool netnsRequired();

// Base fixture for tests against the real kernel in a private network namespace. SetUp
// enters it or skips (fails under NOX_REQUIRE_NETNS=1); a derived SetUp calls it first and
// returns if IsSkipped() || HasFatalFailure(). TearDown deletes the links the test created
// (with their addresses; addresses added to "lo" are the test's to remove).
// The helpers run iproute2's `ip` and return whether it succeeded; all but tryIp record a
// test failure with the output.
class NetnsTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  bool ip(const std::string& args);
  static bool tryIp(const std::string& args, std::string* output = nullptr);

  // A link, left down: dummy, else tun (no carrier), else veth with a peer "nxp-<name>"
  // left down; the kind that works is kept for the process and named by linkKind().
  bool addLink(const std::string& name);
  bool delLink(const std::string& name);
  bool linkUp(const std::string& name);
  bool linkDown(const std::string& name);
  static const std::string& linkKind();

  // `cidr` as "10.0.0.1/24" or "2001:db8::1/64". IPv6 unicast is added with nodad (one
  // RTM_NEWADDR, no later flag change); multicast with autojoin, which the kernel requires.
  bool addAddr(const std::string& iface, const std::string& cidr);
  bool delAddr(const std::string& iface, const std::string& cidr);

  // The index of `name`, 0 (and a test failure) if it does not exist.
  static unsigned int ifIndex(const std::string& name);

 private:
  std::vector<std::string> createdLinks_;
};

#endif  // NOX_TESTS_NETNSFIXTURE_H
