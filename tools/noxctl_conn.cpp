#include "noxctl_conn.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace noxctl {

namespace {

// The daemon sends at most 1024 bytes; anything far beyond that means we lost the framing.
constexpr uint32_t kMaxIncomingRecord = 64 * 1024;
constexpr int kDrainPollMs = 2;

int64_t nowMs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace

Deadline Deadline::after(int ms) {
  Deadline d;
  d.atMs_ = nowMs() + std::max(ms, 0);
  d.spanMs_ = ms;
  return d;
}

Deadline Deadline::never() { return Deadline(); }

int Deadline::remainingMs() const {
  if (atMs_ < 0) return -1;
  return static_cast<int>(std::max<int64_t>(atMs_ - nowMs(), 0));
}

Connection::~Connection() {
  if (fd_ >= 0) close(fd_);
}

Result Connection::fail(const std::string& what, int err) {
  error_ = what + ": " + strerror(err);
  return Result::kFailed;
}

Result Connection::timedOut(const std::string& what, Deadline deadline) {
  error_ = what + " within " + std::to_string(deadline.spanMs()) + " ms";
  return Result::kTimedOut;
}

Result Connection::peerPid(int* pid) {
  ucred cred = {};
  socklen_t len = sizeof(cred);
  if (getsockopt(fd_, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0)
    return fail("cannot get the credentials of noxd at " + path_, errno);
  *pid = cred.pid;
  return Result::kOk;
}

Result Connection::open(const std::string& path, Deadline deadline) {
  path_ = path;
  sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(addr.sun_path)) {
    error_ = "cannot connect to " + path + ": socket path is empty or longer than " +
             std::to_string(sizeof(addr.sun_path) - 1) + " bytes";
    return Result::kFailed;
  }
  memcpy(addr.sun_path, path.data(), path.size());

  fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) return fail("cannot create a socket", errno);
  // connect() waits while the daemon's backlog is full; the send timeout bounds that wait.
  const int ms = deadline.remainingMs();
  if (ms >= 0) {
    timeval tv = {ms / 1000, (ms % 1000) * 1000};
    if (ms == 0) tv.tv_usec = 1;  // 0 would mean no limit
    setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
  }
  int rc;
  do {
    rc = connect(fd_, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr));
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) {
    if (errno == EAGAIN) return timedOut("noxd at " + path + " accepted no connection", deadline);
    return fail("cannot connect to " + path, errno);
  }
  const int flags = fcntl(fd_, F_GETFL);
  if (flags < 0 || fcntl(fd_, F_SETFL, flags | O_NONBLOCK) != 0)
    return fail("cannot set up the connection to " + path, errno);
  return Result::kOk;
}

Result Connection::send(const std::vector<uint8_t>& record, Deadline deadline) {
  const uint32_t len = static_cast<uint32_t>(record.size());
  std::vector<uint8_t> frame = {static_cast<uint8_t>(len >> 24), static_cast<uint8_t>(len >> 16),
                                static_cast<uint8_t>(len >> 8), static_cast<uint8_t>(len)};
  frame.insert(frame.end(), record.begin(), record.end());

  size_t done = 0;
  while (done < frame.size()) {
    const ssize_t n = ::send(fd_, frame.data() + done, frame.size() - done, MSG_NOSIGNAL);
    if (n > 0) {
      done += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      pollfd p = {fd_, POLLOUT, 0};
      const int r = poll(&p, 1, deadline.remainingMs());
      if (r == 0) return timedOut("noxd did not take the message", deadline);
      if (r < 0 && errno != EINTR) return fail("cannot wait for noxd", errno);
      continue;
    }
    return fail("cannot send to noxd", errno);
  }
  return Result::kOk;
}

Result Connection::waitUntilRead(Deadline deadline) {
  for (;;) {
    // For a Unix stream socket SIOCOUTQ counts the bytes the peer has not read yet.
    int unread = 0;
    if (ioctl(fd_, SIOCOUTQ, &unread) != 0) return fail("cannot query the connection", errno);
    pollfd p = {fd_, 0, 0};
    if (unread == 0) {
      // A peer that closes without reading also empties the queue: tell the two apart.
      if (poll(&p, 1, 0) > 0 && (p.revents & (POLLHUP | POLLERR)) != 0) break;
      return Result::kOk;
    }
    const int left = deadline.remainingMs();
    if (left == 0) return timedOut("noxd did not read the message", deadline);
    const int wait = left < 0 ? kDrainPollMs : std::min(left, kDrainPollMs);
    if (poll(&p, 1, wait) > 0 && (p.revents & (POLLHUP | POLLERR)) != 0) break;
  }
  error_ = "noxd closed the connection without reading the message (client not admitted?)";
  return Result::kFailed;
}

Result Connection::receive(std::vector<uint8_t>* record, Deadline deadline) {
  for (;;) {
    if (input_.size() >= 4) {
      const uint32_t len = (uint32_t{input_[0]} << 24) | (uint32_t{input_[1]} << 16) |
                           (uint32_t{input_[2]} << 8) | uint32_t{input_[3]};
      if (len > kMaxIncomingRecord) {
        error_ = "noxd sent a record of " + std::to_string(len) + " bytes, more than " +
                 std::to_string(kMaxIncomingRecord);
        return Result::kFailed;
      }
      if (input_.size() - 4 >= len) {
        record->assign(input_.begin() + 4, input_.begin() + 4 + len);
        input_.erase(input_.begin(), input_.begin() + 4 + len);
        return Result::kOk;
      }
    }
    if (ended_) {
      if (input_.empty()) return Result::kEnded;
      error_ = "noxd closed the connection in the middle of a record";
      return Result::kFailed;
    }
    pollfd p = {fd_, POLLIN, 0};
    const int r = poll(&p, 1, deadline.remainingMs());
    if (r == 0) return timedOut("no answer from noxd", deadline);
    if (r < 0) {
      if (errno == EINTR) continue;
      return fail("cannot wait for noxd", errno);
    }
    uint8_t buf[4096];
    const ssize_t n = recv(fd_, buf, sizeof(buf), 0);
    if (n > 0) {
      input_.insert(input_.end(), buf, buf + n);
    } else if (n == 0) {
      ended_ = true;
    } else if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
      return fail("cannot read from noxd", errno);
    }
  }
}

}  // namespace noxctl
