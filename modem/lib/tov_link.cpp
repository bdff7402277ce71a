#include "tov_link.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <utility>

#include "tov.h"

namespace tovhost {

namespace {

using Clock = std::chrono::steady_clock;

// Pauses between attempts to reach a modem that went away.
constexpr int kFirstRetryMs = 50;
constexpr int kLastRetryMs = 1000;
// How long the library's own sends (releases, repairs) may take.
constexpr int kPostMs = 1000;

thread_local bool tlLibraryThread = false;
thread_local int tlRunning = 0;  // the callback this thread is running, 0 none

bool readFull(int fd, void* buf, size_t len) {
  uint8_t* p = static_cast<uint8_t*>(buf);
  while (len > 0) {
    const ssize_t n = recv(fd, p, len, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n, len -= static_cast<size_t>(n);
  }
  return true;
}

// A connected stream socket to the simulator, or -1 with errno. Not waiting for a
// simulator whose backlog is full.
int dial() {
  const std::string path = tovwire::socketPath();
  sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof(addr.sun_path)) {
    errno = ENAMETOOLONG;
    return -1;
  }
  memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return -1;
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
      fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) != 0) {
    const int err = errno;
    close(fd);
    errno = err;
    return -1;
  }
  return fd;
}

int msUntil(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return left.count() < 0 ? 0 : static_cast<int>(std::min<int64_t>(left.count(), 1 << 30));
}

}  // namespace

Link& Link::instance() {
  static Link* link = new Link();  // never destroyed: its thread may outlive static destruction
  return *link;
}

bool Link::onLibraryThread() { return tlLibraryThread; }

bool Link::connect() {
  std::lock_guard<std::mutex> serial(connectMu_);
  std::unique_lock<std::mutex> lock(mu_);
  if (up_) return true;
  // The library's thread is bringing a lost connection back; callers retry meanwhile.
  if (reader_.joinable()) return false;
  const int fd = dial();
  static bool told = false;  // said once until a modem is reached
  if (fd < 0) {
    if (!std::exchange(told, true))
      fprintf(stderr,
              "tov: no modem at %s (%s); a modem simulator's socket is named by "
              "$%s\n",
              tovwire::socketPath().c_str(), strerror(errno), tovwire::kSocketEnv);
    return false;
  }
  told = false;
  fd_ = fd;
  up_ = true;
  closing_ = false;
  const uint64_t connection = ++connection_;
  reader_ = std::thread(&Link::run, this, fd, connection);
  return true;
}

void Link::disconnectIfUnused() {
  std::lock_guard<std::mutex> serial(connectMu_);
  std::unique_lock<std::mutex> lock(mu_);
  if (!starts_.empty() || !reader_.joinable()) return;
  shutdownLocked(lock);
}

// Ends the library's thread, which closes its descriptor. Called on that thread (from
// a callback) it is left to end by itself once the callback returns.
void Link::shutdownLocked(std::unique_lock<std::mutex>& lock) {
  closing_ = true;
  up_ = false;
  channels_.clear();
  if (fd_ >= 0) ::shutdown(fd_, SHUT_RDWR);
  cv_.notify_all();
  std::thread reader = std::move(reader_);
  if (tlLibraryThread) {
    reader.detach();
    return;
  }
  lock.unlock();
  if (reader.joinable()) reader.join();
  lock.lock();
}

uint32_t Link::nextSeqLocked() {
  const uint32_t seq = nextSeq_++;
  if (nextSeq_ == 0) nextSeq_ = 1;  // 0 marks frames nobody asked for
  return seq;
}

Link::SendResult Link::send(const std::vector<uint8_t>& frame, Clock::time_point deadline) {
  int fd;
  {
    std::unique_lock<std::mutex> lock(mu_);
    if (!cv_.wait_until(lock, deadline, [&] { return !writing_; })) return kUnsent;
    if (!up_ || fd_ < 0) return kFailed;
    fd = fd_;
    writing_ = true;  // the descriptor stays open meanwhile: its thread waits to close it
  }
  SendResult result = kSent;
  size_t sent = 0;
  while (sent < frame.size()) {
    const ssize_t n = ::send(fd, frame.data() + sent, frame.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      sent += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      pollfd p = {fd, POLLOUT, 0};
      const int left = msUntil(deadline);
      if (left > 0 && poll(&p, 1, left) >= 0) continue;
      result = sent == 0 ? kUnsent : kCut;
      // Deliberate: the rest of a cut frame can never be sent, so the stream is over.
      if (result == kCut) ::shutdown(fd, SHUT_RDWR);
      break;
    }
    result = kFailed;
    break;
  }
  std::lock_guard<std::mutex> lock(mu_);
  writing_ = false;
  cv_.notify_all();
  return result;
}

CallStatus Link::call(uint16_t kind, const tovwire::Writer& body, unsigned timeoutMs,
                      std::vector<uint8_t>* answer, Start* start) {
  if (tlLibraryThread) return kRefused;
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  auto pending = std::make_shared<Pending>();
  pending->start = start;
  pending->releaseKind = start != nullptr ? start->releaseKind : 0;
  uint32_t seq;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (!up_) return kBroken;
    seq = nextSeqLocked();
    pending_[seq] = pending;
  }
  const SendResult sent = send(body.frame(kind, seq), deadline);
  std::unique_lock<std::mutex> lock(mu_);
  const bool done =
      sent == kSent && cv_.wait_until(lock, deadline, [&] { return pending->done; });
  if (!done && sent == kSent && pending->releaseKind != 0) {
    // The modem may still start the client: its answer then releases it.
    pending->abandoned = true;
    pending->start = nullptr;
    return kTimedOut;
  }
  pending_.erase(seq);
  if (sent == kFailed || (done && pending->broken)) return kBroken;
  if (!done) return kTimedOut;
  *answer = std::move(pending->body);
  return kAnswered;
}

void Link::post(uint16_t kind, const tovwire::Writer& body) {
  uint32_t seq;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (!up_) return;
    seq = nextSeqLocked();
  }
  send(body.frame(kind, seq), Clock::now() + std::chrono::milliseconds(kPostMs));
}

void Link::run(int fd, uint64_t connection) {
  tlLibraryThread = true;
  do {
    readLoop(fd);
  } while (lost(fd, connection) && reconnect(&fd, &connection));
}

void Link::readLoop(int fd) {
  std::vector<std::pair<uint16_t, tovwire::Writer>> replies;
  for (;;) {
    uint8_t head[tovwire::kHeaderSize];
    tovwire::Header header;
    if (!readFull(fd, head, sizeof(head)) || !tovwire::parseHeader(head, header, nullptr)) return;
    std::vector<uint8_t> body(header.length);
    if (!readFull(fd, body.data(), body.size())) return;
    dispatch(header, body, replies);
    for (const auto& r : replies) post(r.first, r.second);
    replies.clear();
  }
}

void Link::dispatch(const tovwire::Header& header, std::vector<uint8_t>& body,
                    std::vector<std::pair<uint16_t, tovwire::Writer>>& replies) {
  std::unique_lock<std::mutex> lock(mu_);
  if (header.kind & tovwire::kAnswer || header.kind == tovwire::kError) {
    const auto it = pending_.find(header.seq);
    if (it == pending_.end()) return;  // its caller gave up waiting
    const std::shared_ptr<Pending> p = it->second;
    if (p->releaseKind != 0) {
      tovwire::Reader in(body.data(), body.size());
      const int32_t rc = in.i32();
      in.i32();
      const uint32_t id = in.u32();
      const bool started = header.kind != tovwire::kError && in.done() && rc == 0;
      if (p->abandoned) {
        pending_.erase(it);
        if (started) {
          tovwire::Writer release;
          release.u32(id);
          replies.emplace_back(p->releaseKind, release);
        }
        return;
      }
      if (started) {
        const int handle = nextClient_++;
        Client& client = clients_[handle] = p->start->client;
        client.simId = id;
        client.connection = connection_;
        p->start->handle = handle;
        if (p->start->published) p->start->published(handle);
      }
    }
    p->done = true;
    p->broken = header.kind == tovwire::kError;
    p->body = std::move(body);
    cv_.notify_all();
    return;
  }
  tovwire::Reader in(body.data(), body.size());
  if (header.kind == tovwire::kSysEvent) {
    const uint32_t event = in.u32();
    in.u32();  // the modem's own count; handlers get this process's
    if (!in.done()) return;
    if (event == TOV_SYS_EVENT_MODEM_IN_SERVICE_IND) {
      ++restarts_;
      lock.unlock();
      restore(false);  // before the handlers hear that the modem is back
      lock.lock();
    }
    deliverSysEvent(event, lock);
    return;
  }
  if (header.kind != tovwire::kWdsIndication && header.kind != tovwire::kDfsIndication) return;
  const uint32_t simId = in.u32();
  if (!in.ok()) return;
  for (const auto& c : clients_) {
    if (c.second.simId != simId || c.second.connection != connection_ || !c.second.deliver)
      continue;
    const int handle = c.first;
    const auto deliver = c.second.deliver;
    runCallback(handle, [&] { deliver(handle, header.kind, in); }, lock);
    return;
  }
}

void Link::restore(bool hello) {
  std::vector<std::string> ports;
  size_t starts;
  {
    std::lock_guard<std::mutex> lock(mu_);
    starts = hello ? starts_.size() : 0;
    for (const auto& c : channels_) ports.insert(ports.end(), c.second, c.first);
  }
  for (size_t i = 0; i < starts; ++i) {
    tovwire::Writer body;
    body.u32(static_cast<uint32_t>(getpid()));
    post(tovwire::kHello, body);
  }
  for (const std::string& port : ports) {
    tovwire::Writer body;
    body.str(port);
    post(tovwire::kCtrlOpen, body);
  }
}

void Link::runCallback(int id, const std::function<void()>& fn,
                       std::unique_lock<std::mutex>& lock) {
  running_.insert(id);
  tlRunning = id;
  lock.unlock();
  fn();
  lock.lock();
  tlRunning = 0;
  running_.erase(running_.find(id));
  cv_.notify_all();
}

void Link::waitIdle(int id, std::unique_lock<std::mutex>& lock) {
  // A callback that releases its own client or start must not wait for itself.
  const size_t self = tlRunning == id ? 1 : 0;
  cv_.wait(lock, [&] { return running_.count(id) == self; });
}

bool Link::lost(int fd, uint64_t connection) {
  std::unique_lock<std::mutex> lock(mu_);
  cv_.wait(lock, [&] { return !writing_; });  // a writer's wait is bounded by its deadline
  close(fd);
  if (connection != connection_) return false;  // a connection left behind by a release
  fd_ = -1;
  up_ = false;
  for (auto it = pending_.begin(); it != pending_.end();) {
    if (it->second->abandoned) {  // its client went with the connection
      it = pending_.erase(it);
      continue;
    }
    it->second->done = true;
    it->second->broken = true;
    ++it;
  }
  cv_.notify_all();
  if (retiredLocked()) return false;
  // The modem is gone as far as this process can tell.
  deliverSysEvent(TOV_SYS_EVENT_MODEM_OUT_OF_SERVICE_IND, lock);
  return !retiredLocked();
}

bool Link::retiredLocked() const {
  return closing_ || reader_.get_id() != std::this_thread::get_id();
}

bool Link::reconnect(int* fd, uint64_t* connection) {
  int pauseMs = kFirstRetryMs;
  std::unique_lock<std::mutex> lock(mu_);
  for (;;) {
    cv_.wait_for(lock, std::chrono::milliseconds(pauseMs), [&] { return retiredLocked(); });
    if (retiredLocked()) return false;
    lock.unlock();
    const int next = dial();
    lock.lock();
    if (next >= 0 && !retiredLocked()) {
      *fd = fd_ = next;
      up_ = true;
      *connection = ++connection_;
      ++restarts_;
      break;
    }
    if (next >= 0) close(next);
    pauseMs = std::min(pauseMs * 2, kLastRetryMs);
  }
  lock.unlock();
  restore(true);
  lock.lock();
  deliverSysEvent(TOV_SYS_EVENT_MODEM_IN_SERVICE_IND, lock);
  return true;
}

void Link::deliverSysEvent(uint32_t event, std::unique_lock<std::mutex>& lock) {
  std::vector<int> starts;
  for (const auto& s : starts_) starts.push_back(s.first);
  const uint32_t restarts = restarts_;
  for (int handle : starts) {
    const auto it = starts_.find(handle);  // a handler may have released another start
    if (it == starts_.end()) continue;
    const auto handler = it->second;
    runCallback(-handle, [&] { handler(event, restarts); }, lock);
  }
}

int Link::addStart(std::function<void(uint32_t, uint32_t)> handler) {
  std::lock_guard<std::mutex> lock(mu_);
  const int handle = nextStart_++;
  starts_[handle] = std::move(handler);
  return handle;
}

bool Link::removeStart(int handle) {
  std::unique_lock<std::mutex> lock(mu_);
  if (starts_.erase(handle) == 0) return false;
  waitIdle(-handle, lock);
  return true;
}

void Link::addChannel(const std::string& port) {
  std::lock_guard<std::mutex> lock(mu_);
  ++channels_[port];
}

bool Link::clientId(int handle, uint32_t* simId, bool* live) {
  std::lock_guard<std::mutex> lock(mu_);
  const auto it = clients_.find(handle);
  if (it == clients_.end()) return false;
  *simId = it->second.simId;
  *live = up_ && it->second.connection == connection_;
  return true;
}

bool Link::removeClient(int handle) {
  std::unique_lock<std::mutex> lock(mu_);
  if (clients_.erase(handle) == 0) return false;
  waitIdle(handle, lock);
  return true;
}

bool Link::isClient(int handle) {
  std::lock_guard<std::mutex> lock(mu_);
  return clients_.count(handle) != 0;
}

int request(uint16_t kind, const tovwire::Writer& body, unsigned timeoutMs, const Codes& codes,
            int* err, std::vector<uint8_t>* rest, Start* start) {
  if (err != nullptr) *err = TOV_SERVICE_ERR_NONE;
  std::vector<uint8_t> answer;
  switch (Link::instance().call(kind, body, timeoutMs, &answer, start)) {
    case kTimedOut:
      return codes.timeout;
    case kBroken:
      return codes.broken;
    case kRefused:
      return codes.internal;
    case kAnswered:
      break;
  }
  tovwire::Reader in(answer.data(), answer.size());
  const int32_t rc = in.i32();
  const int32_t code = in.i32();
  if (!in.ok() || rc > 0) return codes.internal;
  if (err != nullptr) *err = code;
  if (rc != 0) return rc;
  if (rest != nullptr) *rest = in.rest();
  return TOV_NO_ERR;
}

int release(uint16_t kind, const tovwire::Writer& body, unsigned timeoutMs, const Codes& codes,
            int* err) {
  if (!Link::onLibraryThread()) return request(kind, body, timeoutMs, codes, err, nullptr);
  if (err != nullptr) *err = TOV_SERVICE_ERR_NONE;
  Link::instance().post(kind, body);
  return TOV_NO_ERR;
}

}  // namespace tovhost
