#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "NoxCom.h"
#include "NoxTimer.h"
#include "TestLog.h"

namespace {

bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1 || errno != EBADF; }

int newEventFd() { return eventfd(0, EFD_NONBLOCK); }

void signal(int efd) {
  const uint64_t one = 1;
  ASSERT_EQ(static_cast<ssize_t>(sizeof(one)), write(efd, &one, sizeof(one)));
}

class ComTest : public ::testing::Test {
 protected:
  void SetUp() override { NoxCom::setNoxClientFd(-1); }
  void TearDown() override {
    for (int fd : owned_)
      if (isOpen(fd)) close(fd);
  }

  int own(int fd) {
    owned_.push_back(fd);
    return fd;
  }
  void socketPair(int sv[2]) {
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv));
    own(sv[0]);
    own(sv[1]);
  }
  // Registers `fd` with a handler that records its number and drains it.
  void watch(int fd) {
    ASSERT_TRUE(com_.addComEventHandler(fd, &ComTest::onEvent, this, nullptr, EPOLLIN | EPOLLHUP));
  }
  void pass(int timeoutMs = 0) { com_.processEvents(timeoutMs, timer_); }
  std::string text(const std::string& s) { return "|COMMON:COM| " + s; }

  static void onEvent(int fd, void* data) {
    auto* self = static_cast<ComTest*>(data);
    self->called_.push_back(fd);
    char buf[64];
    while (read(fd, buf, sizeof(buf)) > 0) {
    }
    if (self->onEventHook_) self->onEventHook_(fd);
  }
  static int onTimer(void* data) {
    static_cast<ComTest*>(data)->timerHook_();
    return -1;
  }

  LogCapture log_;
  NoxCom com_;
  NoxTimer timer_{nullptr};
  std::vector<int> called_;
  std::function<void(int)> onEventHook_;
  std::function<void()> timerHook_;
  std::vector<int> owned_;
};

TEST_F(ComTest, ReadyDescriptorsAreHandledLastReturnedFirstAtMostFourPerWait) {
  std::vector<int> fds;
  for (int i = 0; i < 5; ++i) {
    fds.push_back(own(newEventFd()));
    watch(fds.back());
  }
  // The kernel returns ready descriptors in the order they became ready.
  for (int fd : fds) signal(fd);
  pass();
  EXPECT_EQ((std::vector<int>{fds[3], fds[2], fds[1], fds[0]}), called_);
  EXPECT_EQ(1, log_.count("there are 4 file descriptor(s) with events pending"));
  EXPECT_EQ(1, log_.count("there are 1 file descriptor(s) with events pending"));
  called_.clear();
  pass();
  EXPECT_EQ(std::vector<int>{fds[4]}, called_);
}

TEST_F(ComTest, RemovingAnUnknownDescriptorLeavesNoEntry) {
  const int fd = own(newEventFd());
  log_.clear();
  com_.removeComEventHandler(fd);
  ASSERT_EQ(1u, log_.lines().size());
  EXPECT_EQ(text("NoxCom::removeComEventHandler fd " + std::to_string(fd)), log_.lines()[0].text);
  watch(fd);  // would fail if a default entry had been left behind

  // Deliberate: a descriptor epoll refuses (a regular file) is still stored and approved.
  char path[] = "/tmp/noxcom-XXXXXX";
  const int file = own(mkstemp(path));
  unlink(path);
  EXPECT_TRUE(com_.addComEventHandler(file, &ComTest::onEvent, this, nullptr, EPOLLIN));
  EXPECT_TRUE(log_.has("|GENERIC| Error: Cannot add NoxCom event handler"));
  EXPECT_TRUE(NoxCom::isApprovedFd(file));
  EXPECT_FALSE(com_.addComEventHandler(file, &ComTest::onEvent, this, nullptr, EPOLLIN));
  com_.removeComEventHandler(file);
}

TEST_F(ComTest, EventOfDescriptorRemovedEarlierInThePassIsSkippedNotClosed) {
  const int victim = own(newEventFd());
  const int remover = own(newEventFd());
  watch(victim);
  watch(remover);
  int reused = -1;
  onEventHook_ = [&](int fd) {
    if (fd != remover) return;
    com_.removeComEventHandler(victim);
    close(victim);
    reused = own(newEventFd());  // the kernel hands out the lowest free number again
    watch(reused);
  };
  signal(victim);
  signal(remover);
  pass();
  ASSERT_EQ(victim, reused);
  EXPECT_EQ(std::vector<int>{remover}, called_);
  EXPECT_TRUE(isOpen(reused));
  EXPECT_TRUE(NoxCom::isApprovedFd(reused));
  // The new descriptor is served normally afterwards.
  onEventHook_ = nullptr;
  signal(reused);
  pass();
  EXPECT_EQ((std::vector<int>{remover, reused}), called_);

  // A timed callback run right after the wait belongs to the same pass.
  called_.clear();
  int renewed = -1;
  timerHook_ = [&] {
    com_.removeComEventHandler(reused);
    close(reused);
    renewed = own(newEventFd());
    watch(renewed);
  };
  ASSERT_GT(timer_.addTimedCallback(0, &ComTest::onTimer, this), 0);
  signal(reused);
  pass();
  ASSERT_EQ(reused, renewed);
  EXPECT_TRUE(called_.empty());
  EXPECT_TRUE(NoxCom::isApprovedFd(renewed));
}

TEST_F(ComTest, SendFramesWithBigEndianLengthUpTo1024Bytes) {
  int sv[2];
  socketPair(sv);
  watch(sv[0]);
  std::vector<uint8_t> payload(1024, 0x5a);
  NoxCom::sendMessage(sv[0], payload.data(), 1024);
  std::vector<uint8_t> got(2048);
  ASSERT_EQ(1028, read(sv[1], got.data(), got.size()));
  EXPECT_EQ((std::vector<uint8_t>{0x00, 0x00, 0x04, 0x00}), std::vector<uint8_t>(got.begin(), got.begin() + 4));
  EXPECT_EQ(0x5a, got[1027]);

  payload.push_back(0x5a);
  NoxCom::sendMessage(sv[0], payload.data(), 1025);
  EXPECT_EQ(-1, read(sv[1], got.data(), got.size()));
  EXPECT_TRUE(log_.has(text("Unsolicited message size larger than max allowed size, cannot send")));

  // Descriptor 0 is the framework client.
  NoxCom::setNoxClientFd(sv[0]);
  NoxCom::sendUnsolicitedMsg(0, NOX_S_NOTIFY_TETHERING_STATE_CHG);
  ASSERT_EQ(12, read(sv[1], got.data(), got.size()));
  EXPECT_EQ((std::vector<uint8_t>{0, 0, 0, 8, 1, 0, 0, 0, 14, 0, 0, 0}),
            std::vector<uint8_t>(got.begin(), got.begin() + 12));
}

TEST_F(ComTest, WakeEndsAWaitWithoutLimitAndIsDrained) {
  std::thread waker([this] { com_.wake(); });
  pass(-1);  // returns only once the wake-up descriptor is readable
  waker.join();
  EXPECT_EQ(1, log_.count("there are 1 file descriptor(s) with events pending"));
  log_.clear();
  pass(0);
  EXPECT_EQ(0, log_.count("file descriptor(s) with events pending"));
}

}  // namespace
