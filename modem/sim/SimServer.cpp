#include "SimServer.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace modemsim {

namespace {

constexpr uint64_t kListenId = 1;
constexpr uint64_t kWakeId = 2;
constexpr uint64_t kFirstConn = 16;
// A peer that stops reading is dropped once this much waits for it.
constexpr size_t kMaxQueued = 4 * size_t(tovwire::kMaxBody);
// Out of descriptors, the listening socket rests this long (or until a connection ends).
constexpr int64_t kAcceptPauseMs = 1000;

int64_t nowNs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

int64_t nowMs() { return nowNs() / 1000000; }

bool address(const std::string& path, sockaddr_un* addr, std::string* error) {
  memset(addr, 0, sizeof(*addr));
  addr->sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(addr->sun_path)) {
    *error = "socket path '" + path + "' is empty or too long";
    return false;
  }
  memcpy(addr->sun_path, path.c_str(), path.size() + 1);
  return true;
}

}  // namespace

SimServer::SimServer(double speed) : speed_(std::max(speed, 1e-3)), startNs_(nowNs()) {}

SimServer::~SimServer() {
  for (auto& c : conns_) ::close(c.second.fd);
  if (listenFd_ >= 0) {
    ::close(listenFd_);
    unlink(path_.c_str());
  }
  if (wakeFd_ >= 0) ::close(wakeFd_);
  if (epollFd_ >= 0) ::close(epollFd_);
}

bool SimServer::listen(const std::string& path, std::string* error) {
  sockaddr_un addr;
  if (!address(path, &addr, error)) return false;
  struct stat st;
  if (lstat(path.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode)) {
      *error = path + " exists and is not a socket";
      return false;
    }
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool live = probe >= 0 && connect(probe, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
    if (probe >= 0) ::close(probe);
    if (live) {
      *error = "another modemsim serves " + path;
      return false;
    }
    unlink(path.c_str());  // stale: nobody accepts on it
  }
  listenFd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (listenFd_ < 0 || bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
      ::listen(listenFd_, 128) != 0) {
    *error = "cannot serve on " + path + ": " + strerror(errno);
    if (listenFd_ >= 0) ::close(listenFd_);
    listenFd_ = -1;
    return false;
  }
  path_ = path;
  epollFd_ = epoll_create1(EPOLL_CLOEXEC);
  wakeFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (epollFd_ < 0 || wakeFd_ < 0) {
    *error = std::string("cannot create the event loop: ") + strerror(errno);
    return false;
  }
  epoll_event ev = {};
  ev.events = EPOLLIN;
  ev.data.u64 = kListenId;
  epoll_ctl(epollFd_, EPOLL_CTL_ADD, listenFd_, &ev);
  ev.data.u64 = kWakeId;
  epoll_ctl(epollFd_, EPOLL_CTL_ADD, wakeFd_, &ev);
  return true;
}

void SimServer::stop() {
  stop_ = true;
  const uint64_t one = 1;
  if (write(wakeFd_, &one, sizeof(one)) < 0) {
  }  // async-signal-safe; a full counter already wakes the loop
}

void SimServer::run() {
  epoll_event events[16];
  while (!stop_) {
    const int n = epoll_wait(epollFd_, events, 16, timeoutMs());
    if (n < 0 && errno != EINTR) break;
    for (int i = 0; i < n; ++i) {
      const uint64_t id = events[i].data.u64;
      if (id == kListenId) {
        accept();
      } else if (id == kWakeId) {
        uint64_t v;
        while (read(wakeFd_, &v, sizeof(v)) > 0) {
        }
      } else if (conns_.count(id) != 0) {
        if (events[i].events & EPOLLOUT) flush(id);
        if (conns_.count(id) != 0 && (events[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR)))
          readFrom(id);
      }
    }
    if (acceptAgainMs_ >= 0 && nowMs() >= acceptAgainMs_) pauseAccepting(false);
    advance();
    // Delayed answers that are due now.
    std::vector<uint64_t> ids;
    for (const auto& c : conns_) ids.push_back(c.first);
    for (uint64_t id : ids)
      if (conns_.count(id) != 0) flush(id);
  }
}

int SimServer::timeoutMs() const {
  int64_t earliest = -1;
  for (const auto& c : conns_)
    if (!c.second.out.empty() && (earliest < 0 || c.second.out.front().dueMs < earliest))
      earliest = c.second.out.front().dueMs;
  int64_t wait = earliest < 0 ? -1 : std::max<int64_t>(0, earliest - nowMs());
  if (acceptAgainMs_ >= 0) {
    const int64_t acceptWait = std::max<int64_t>(0, acceptAgainMs_ - nowMs());
    wait = wait < 0 ? acceptWait : std::min(wait, acceptWait);
  }
  const int64_t radioAt = sim_.nextRadioEventMs();
  if (radioAt >= 0) {
    // Rounded up: woken early, the loop would only wait again.
    const double left = (double(radioAt) - double(modelNowMs())) / speed_;
    const int64_t radioWait = std::max<int64_t>(0, static_cast<int64_t>(left) + 1);
    wait = wait < 0 ? radioWait : std::min(wait, radioWait);
  }
  return static_cast<int>(std::min<int64_t>(wait, INT32_MAX));
}

int64_t SimServer::modelNowMs() const {
  return static_cast<int64_t>(double(nowNs() - startNs_) * speed_ / 1e6);
}

void SimServer::advance() {
  std::vector<Outgoing> out;
  sim_.advance(modelNowMs(), out);
  send(out);
}

void SimServer::pauseAccepting(bool paused) {
  if (paused == (acceptAgainMs_ >= 0)) return;
  acceptAgainMs_ = paused ? nowMs() + kAcceptPauseMs : -1;
  epoll_event ev = {};
  ev.events = EPOLLIN;
  ev.data.u64 = kListenId;
  epoll_ctl(epollFd_, paused ? EPOLL_CTL_DEL : EPOLL_CTL_ADD, listenFd_, &ev);
}

void SimServer::accept() {
  for (;;) {
    const int fd = accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0 && (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)) {
      // The peer waits in the backlog; retrying at once would only spin.
      if (!outOfDescriptorsSaid_)
        fprintf(stderr, "modemsim: cannot accept: %s; trying again every second\n", strerror(errno));
      outOfDescriptorsSaid_ = true;
      pauseAccepting(true);
      return;
    }
    if (fd < 0) return;  // EAGAIN
    const uint64_t id = nextConn_++ + kFirstConn;
    epoll_event ev = {};
    ev.events = EPOLLIN;
    ev.data.u64 = id;
    if (epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &ev) != 0) {
      ::close(fd);
      continue;
    }
    conns_[id] = Conn{id, fd, {}, {}, 0, false, false};
  }
}

void SimServer::readFrom(uint64_t id) {
  Conn* conn = &conns_.at(id);
  uint8_t buf[65536];
  for (;;) {
    const ssize_t n = recv(conn->fd, buf, sizeof(buf), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) break;
    if (n <= 0) {
      close(id);
      return;
    }
    if (conn->closeAfterFlush) continue;  // a refused stream: what follows is not read
    conn->in.insert(conn->in.end(), buf, buf + n);
    while (conn->in.size() >= tovwire::kHeaderSize && !conn->closeAfterFlush) {
      tovwire::Header header;
      std::string why;
      if (!tovwire::parseHeader(conn->in.data(), header, &why)) {
        tovwire::Writer refusal;
        refusal.str(why);
        conn->in.clear();
        send({{id, refusal.frame(tovwire::kError, 0), false}});
        if (conns_.count(id) == 0) return;
        conn = &conns_.at(id);
        conn->closeAfterFlush = true;
        flush(id);
        return;
      }
      if (conn->in.size() < tovwire::kHeaderSize + header.length) break;
      std::vector<uint8_t> body(conn->in.begin() + tovwire::kHeaderSize,
                                conn->in.begin() + tovwire::kHeaderSize + header.length);
      conn->in.erase(conn->in.begin(), conn->in.begin() + tovwire::kHeaderSize + header.length);
      std::vector<Outgoing> out;
      sim_.advance(modelNowMs(), out);
      sim_.handleFrame(id, header, body, out);
      send(out);
      if (conns_.count(id) == 0) return;
      conn = &conns_.at(id);
    }
  }
}

void SimServer::send(const std::vector<Outgoing>& frames) {
  const int64_t now = nowMs();
  std::vector<uint64_t> touched;
  for (const Outgoing& o : frames) {
    const auto it = conns_.find(o.connection);
    if (it == conns_.end()) continue;
    Conn& conn = it->second;
    int64_t due = now + (o.delayed ? sim_.delayMs() : 0);
    // Frames leave in the order they were made.
    if (!conn.out.empty()) due = std::max(due, conn.out.back().dueMs);
    conn.out.push_back({due, o.frame});
    touched.push_back(o.connection);
  }
  for (uint64_t id : touched)
    if (conns_.count(id) != 0) flush(id);
}

void SimServer::flush(uint64_t id) {
  Conn& conn = conns_.at(id);
  const int64_t now = nowMs();
  size_t queued = 0;
  for (const Queued& q : conn.out) queued += q.bytes.size();
  if (queued > kMaxQueued) {
    close(id);
    return;
  }
  while (!conn.out.empty() && conn.out.front().dueMs <= now) {
    const std::vector<uint8_t>& bytes = conn.out.front().bytes;
    const ssize_t n =
        ::send(conn.fd, bytes.data() + conn.outSent, bytes.size() - conn.outSent, MSG_NOSIGNAL);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
      watchOutput(conn, true);
      return;
    }
    if (n < 0) {
      close(id);
      return;
    }
    conn.outSent += static_cast<size_t>(n);
    if (conn.outSent == bytes.size()) {
      conn.out.pop_front();
      conn.outSent = 0;
    }
  }
  watchOutput(conn, false);
  if (conn.out.empty() && conn.closeAfterFlush) close(id);
}

void SimServer::watchOutput(Conn& conn, bool on) {
  if (conn.watchingOutput == on) return;
  conn.watchingOutput = on;
  epoll_event ev = {};
  ev.events = on ? (EPOLLIN | EPOLLOUT) : EPOLLIN;
  ev.data.u64 = conn.id;
  epoll_ctl(epollFd_, EPOLL_CTL_MOD, conn.fd, &ev);
}

void SimServer::close(uint64_t id) {
  const auto it = conns_.find(id);
  if (it == conns_.end()) return;
  epoll_ctl(epollFd_, EPOLL_CTL_DEL, it->second.fd, nullptr);
  ::close(it->second.fd);
  conns_.erase(it);
  sim_.connectionClosed(id);
  pauseAccepting(false);  // its descriptor is free now
}

int runCommand(const std::string& path, const std::vector<std::string>& args, std::string* text) {
  sockaddr_un addr;
  if (!address(path, &addr, text)) return -1;
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
    *text = "cannot reach the modem simulator at " + path + ": " + strerror(errno);
    if (fd >= 0) ::close(fd);
    return -1;
  }
  const timeval timeout = {10, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
  tovwire::Writer request;
  request.u16(static_cast<uint16_t>(args.size()));
  for (const std::string& a : args) request.str(a);
  const std::vector<uint8_t> frame = request.frame(tovwire::kCli, 1);
  auto io = [fd](bool out, uint8_t* p, size_t len) {
    while (len > 0) {
      const ssize_t n = out ? ::send(fd, p, len, MSG_NOSIGNAL) : recv(fd, p, len, 0);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      p += n, len -= static_cast<size_t>(n);
    }
    return true;
  };
  uint8_t head[tovwire::kHeaderSize];
  tovwire::Header header;
  std::vector<uint8_t> body;
  bool ok = io(true, const_cast<uint8_t*>(frame.data()), frame.size()) &&
            io(false, head, sizeof(head)) && tovwire::parseHeader(head, header, text);
  if (ok) {
    body.resize(header.length);
    ok = io(false, body.data(), body.size());
  }
  ::close(fd);
  if (!ok) {
    if (text->empty()) *text = "no answer from the modem simulator at " + path;
    return -1;
  }
  tovwire::Reader in(body.data(), body.size());
  if (header.kind == tovwire::kError) {
    *text = "the modem simulator refused the command: " + in.str();
    return -1;
  }
  const int32_t status = in.i32();
  *text = in.text();
  if (header.kind != (tovwire::kCli | tovwire::kAnswer) || !in.done()) {
    *text = "malformed answer from the modem simulator";
    return -1;
  }
  return status;
}

}  // namespace modemsim
