#include <gtest/gtest.h>

#include <fcntl.h>
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

class PermissionsTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (pid_t pid : children_) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
  }
  // A sleeping child whose command line starts with argv0, once it has exec'ed
  // (end of file on the close-on-exec pipe).
  pid_t spawn(const char* argv0) {
    int fds[2];
    EXPECT_EQ(0, pipe2(fds, O_CLOEXEC));
    const pid_t pid = fork();
    if (pid == 0) {
      execl("/bin/sleep", argv0, "30", static_cast<char*>(nullptr));
      _exit(127);
    }
    close(fds[1]);
    char c;
    EXPECT_EQ(0, read(fds[0], &c, 1));
    close(fds[0]);
    children_.push_back(pid);
    return pid;
  }
  // A pid that existed and has been reaped.
  static pid_t vanishedPid() {
    const pid_t pid = fork();
    if (pid == 0) _exit(0);
    waitpid(pid, nullptr, 0);
    return pid;
  }

  LogCapture log;
  NoxPermissions permissions;

 private:
  std::vector<pid_t> children_;
};

TEST_F(PermissionsTest, ListedGroupIsAdmittedWithoutReadingTheName) {
  for (int gid : {0, 1000, 2000, 3003}) EXPECT_TRUE(permissions.isAppAllowed(vanishedPid(), gid));
  EXPECT_EQ(4, log.count("|COMMON| Detected acceptable application."));
  EXPECT_EQ(0, log.count("Appname"));
}

TEST_F(PermissionsTest, UnlistedGroupIsRefusedByName) {
  EXPECT_FALSE(permissions.isAppAllowed(spawn("abcdef"), 1001));
  EXPECT_TRUE(log.has("|COMMON| Checking app abcd"));
  EXPECT_TRUE(log.has("|COMMON| Detected unacceptable application."));

  const pid_t gone = vanishedPid();
  EXPECT_FALSE(permissions.isAppAllowed(gone, 1001));
  EXPECT_TRUE(log.has("|COMMON| unable to get appname of process with pid=" + std::to_string(gone)));
}

TEST_F(PermissionsTest, NameEntryMatchesOnlyTheWholeName) {
  ASSERT_TRUE(permissions.allowName("abcd"));
  EXPECT_TRUE(permissions.isAppAllowed(spawn("abcdef"), 1001));  // read as "abcd"
  EXPECT_FALSE(permissions.isNameAllowed("abc"));
  EXPECT_FALSE(permissions.isNameAllowed("abcde"));
  EXPECT_FALSE(permissions.allowName(std::string(32, 'n').c_str()));
}

TEST_F(PermissionsTest, GetAppNameReadsAtMostFourBytes) {
  std::string name = "stale";
  EXPECT_TRUE(NoxUtils::GetAppName(spawn("ab"), name));
  EXPECT_EQ("ab", name);
  EXPECT_TRUE(NoxUtils::GetAppName(spawn("abcdef"), name));
  EXPECT_EQ("abcd", name);
  EXPECT_TRUE(log.has("|GENERIC| common/framework/src/NoxUtils:281"));
}

TEST_F(PermissionsTest, SetProcessCapabilitiesLocksNoSetuidFixup) {
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
