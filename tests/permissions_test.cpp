#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "NoxPermissions.h"
#include "NoxUtils.h"
#include "TestLog.h"

namespace {

// A pid that existed and has been reaped.
pid_t vanishedPid() {
  const pid_t pid = fork();
  if (pid == 0) _exit(0);
  waitpid(pid, nullptr, 0);
  return pid;
}

class PermissionsTest : public ::testing::Test {
 protected:
  ~PermissionsTest() override {
    for (pid_t pid : children) kill(pid, SIGKILL), waitpid(pid, nullptr, 0);
  }
  // A sleeping child whose command line starts with argv0, once it has exec'ed (end of
  // file on the close-on-exec pipe).
  pid_t spawn(const char* argv0) {
    int fds[2];
    EXPECT_EQ(0, pipe2(fds, O_CLOEXEC));
    const pid_t pid = fork();
    if (pid == 0) execl("/bin/sleep", argv0, "30", nullptr), _exit(127);
    close(fds[1]);
    char c;
    EXPECT_EQ(0, read(fds[0], &c, 1));
    close(fds[0]);
    children.push_back(pid);
    return pid;
  }

  LogCapture log;
  NoxPermissions permissions;
  std::vector<pid_t> children;
};

TEST_F(PermissionsTest, ListedGroupOrWholeNameIsAdmitted) {
  for (int gid : {0, 1000, 2000, 3003}) EXPECT_TRUE(permissions.isAppAllowed(vanishedPid(), gid));
  EXPECT_EQ(0, log.count("Appname"));  // without reading the name

  const pid_t abcdef = spawn("abcdef"), gone = vanishedPid();
  EXPECT_FALSE(permissions.isAppAllowed(abcdef, 1001));
  EXPECT_FALSE(permissions.isAppAllowed(gone, 1001));

  ASSERT_TRUE(permissions.allowName("abcd"));  // the first 4 bytes of its command line
  EXPECT_TRUE(permissions.isAppAllowed(abcdef, 1001));
  EXPECT_FALSE(permissions.isNameAllowed("abc"));
  EXPECT_FALSE(permissions.isNameAllowed("abcde"));
  EXPECT_FALSE(permissions.allowName(std::string(32, 'n').c_str()));

  std::string name = "stale";
  EXPECT_TRUE(NoxUtils::GetAppName(spawn("ab"), name));  // a name shorter than 4 bytes
  EXPECT_EQ("ab", name);
}

TEST(PermissionsCapsTest, SetProcessCapabilitiesLocksNoSetuidFixup) {
  const pid_t pid = fork();  // the securebits lock would outlive the test otherwise
  if (pid == 0) {
    const int rc = NoxPermissions::setProcessCapabilities();
    _exit(geteuid() != 0 ? rc != -1 : rc != 0 || prctl(PR_GET_SECUREBITS) != 12);
  }
  int status = 0;
  ASSERT_EQ(pid, waitpid(pid, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

}  // namespace
