#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
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

// Each post is made while the loop is still busy with the previous one, so every post
// lands in the middle of a pass; one taken too early would leave the loop waiting.
TEST_F(ComTest, EveryPostFromAnotherThreadEndsTheWaitAndIsHandled) {
  static constexpr int kPosts = 3000;
  static std::atomic<int> last, posts;
  static std::atomic<bool> stuck;
  last = -1, posts = 0, stuck = false;
  auto onPosted = [](int, void*, int value) {
    last = value;
    const auto bound = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (posts <= value + 1 && value + 1 < kPosts && std::chrono::steady_clock::now() < bound)
      std::this_thread::yield();
  };
  std::thread poster([&] {
    for (int i = 0; i < kPosts && !stuck; ++i) {
      com_.postEvent(onPosted, nullptr, i);
      ++posts;
      const auto bound = std::chrono::steady_clock::now() + std::chrono::seconds(5);
      while (last != i && !stuck) {
        if (std::chrono::steady_clock::now() > bound) stuck = true;
        std::this_thread::yield();
      }
    }
    if (stuck) com_.wake();  // a failure must not hang the loop below
  });
  while (last != kPosts - 1 && !stuck) pass(-1);
  poster.join();
  EXPECT_FALSE(stuck) << "post " << last + 1 << " waited for an unrelated event";
  log_.clear();
  pass(0);  // the wake-up descriptor was drained
  EXPECT_EQ(0, log_.count("file descriptor(s) with events pending"));
}

TEST_F(ComTest, PostsKeepTheLatestValuePerTargetAndDropBeyondTheBound) {
  std::vector<std::pair<void*, int>> got;
  static std::vector<std::pair<void*, int>>* sink;
  sink = &got;
  auto onPosted = [](int, void* target, int value) { sink->emplace_back(target, value); };
  char targets[300];
  for (int v : {1, 2, 3}) EXPECT_TRUE(com_.postEvent(onPosted, &targets[0], v));
  int dropped = 0;
  for (char& t : targets) dropped += com_.postEvent(onPosted, &t, 9) ? 0 : 1;
  EXPECT_EQ(300 - 256, dropped);
  EXPECT_EQ(uint64_t(dropped), com_.droppedPosts());
  com_.cancelPosts(&targets[1]);
  pass();
  ASSERT_EQ(255u, got.size());
  EXPECT_EQ(std::make_pair(static_cast<void*>(&targets[0]), 9), got[0]);  // the latest, in place
  EXPECT_EQ(static_cast<void*>(&targets[2]), got[1].first);
  EXPECT_EQ(1, log_.count(text("hand-over queue full: 44 posted events dropped (44 since start)")));
  // More drops soon after are counted, not logged again at once.
  for (char& t : targets) com_.postEvent(onPosted, &t, 9);
  pass();
  EXPECT_EQ(uint64_t(2 * dropped), com_.droppedPosts());
  EXPECT_EQ(1, log_.count("hand-over queue full"));
}

}  // namespace
