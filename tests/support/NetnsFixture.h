#ifndef NOX_TESTS_NETNSFIXTURE_H
#define NOX_TESTS_NETNSFIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

// Moves the calling thread into a private network namespace, once per process, and brings
// "lo" up there. Returns false with the reason when that is not possible (not root, no
// CAP_NET_ADMIN, no `ip`). Only the calling thread moves: threads started before the call
// stay outside, threads started after it inherit the namespace. gtest_discover_tests runs
// every test case in its own process, so each case gets a fresh namespace; when the test
// binary runs several cases in one process they share it.
bool enterPrivateNetns(std::string* why);

// True when NOX_REQUIRE_NETNS=1: a missing namespace is then a failure, not a skip.
bool netnsRequired();

// Base fixture for tests against the real kernel in a private network namespace.
// SetUp enters the namespace or skips (fails under NOX_REQUIRE_NETNS=1); a derived SetUp
// calls NetnsTest::SetUp() first and returns early if IsSkipped() || HasFatalFailure().
// TearDown deletes the links this test created, with their addresses; addresses a test
// adds to "lo" are its own to remove. Every helper runs iproute2's `ip`, returns whether
// it succeeded and, unless it starts with "try", records a test failure with the output.
class NetnsTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Runs `ip <args>`.
  bool ip(const std::string& args);
  // Runs `ip <args>` without failing the test; the combined output goes to *output.
  static bool tryIp(const std::string& args, std::string* output = nullptr);

  // Creates a link, left down: a dummy where the kernel has that driver, else a persistent
  // tun (no carrier), else a veth whose peer "nxp-<name>" stays down. The kind found to
  // work is reused for the rest of the process; linkKind() names it.
  bool addLink(const std::string& name);
  bool delLink(const std::string& name);
  bool linkUp(const std::string& name);
  bool linkDown(const std::string& name);
  static const std::string& linkKind();

  // `cidr` is "10.0.0.1/24", "2001:db8::1/64", "fe80::1/64", "ff0e::101/128",
  // "224.0.0.251/32". IPv6 unicast is added with nodad, so exactly one RTM_NEWADDR
  // follows and no later flag change; multicast is added with autojoin, which the
  // kernel requires for it.
  bool addAddr(const std::string& iface, const std::string& cidr);
  bool delAddr(const std::string& iface, const std::string& cidr);

  // The index of `name` in the namespace, 0 (and a test failure) if it does not exist.
  static unsigned int ifIndex(const std::string& name);

 private:
  bool addLinkOfKind(const std::string& kind, const std::string& name, std::string* output);

  std::vector<std::string> createdLinks_;
};

#endif  // NOX_TESTS_NETNSFIXTURE_H
