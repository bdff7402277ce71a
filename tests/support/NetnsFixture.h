#ifndef NOX_TESTS_NETNSFIXTURE_H
#define NOX_TESTS_NETNSFIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

// Base fixture for tests against the real kernel in a private network namespace, entered
// once per process with "lo" up (ctest runs each test case in a process of its own). SetUp
// enters it or skips when it cannot (not root, no `ip`), and fails instead under
// NOX_REQUIRE_NETNS=1; a derived SetUp calls it first and returns if IsSkipped() ||
// HasFatalFailure(). TearDown deletes the links the test created, with their addresses.
// The helpers run iproute2's `ip` and return whether it succeeded, recording a test
// failure with its output when not.
class NetnsTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  bool ip(const std::string& args);

  // A tun link (no carrier), left down: what a host without the dummy module has too.
  bool addLink(const std::string& name);
  bool delLink(const std::string& name);
  bool linkUp(const std::string& name);
  bool linkDown(const std::string& name);

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
