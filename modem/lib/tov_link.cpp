#include "tov_link.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "tov.h"

namespace tovhost {

namespace {

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

bool writeFull(int fd, const std::vector<uint8_t>& bytes) {
  const uint8_t* p = bytes.data();
  size_t len = bytes.size();
  while (len > 0) {
    const ssize_t n = send(fd, p, len, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n, len -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

Link& Link::instance() {
  static Link* link = new Link();  // never destroyed: its thread may outlive static destruction
  return *link;
}

bool Link::connect() {
  std::lock_guard<std::mutex> serial(connectMu_);
  std::unique_lock<std::mutex> lock(mu_);
  if (up_) return true;
  // A connection that was lost: its thread has ended or is ending.
  if (reader_.joinable()) shutdownLocked(lock);

  const std::string path = tovwire::socketPath();
  sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof(addr.sun_path)) return false;
  memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
    close(fd);
    return false;
  }
  fd_ = fd;
  up_ = true;
  closing_ = false;
  const uint64_t connection = ++connection_;
  reader_ = std::thread(&Link::readLoop, this, fd, connection);
  return true;
}

void Link::disconnectIfUnused() {
  std::lock_guard<std::mutex> serial(connectMu_);
  std::unique_lock<std::mutex> lock(mu_);
  if (!starts_.empty() || !reader_.joinable()) return;
  shutdownLocked(lock);
}

// Ends the reader thread and closes the descriptor. Nobody writes meanwhile: a writer
// holds writeMu_ and checks fd_ under mu_ first.
void Link::shutdownLocked(std::unique_lock<std::mutex>& lock) {
  closing_ = true;
  const int fd = fd_;
  if (fd >= 0) ::shutdown(fd, SHUT_RDWR);
  std::thread reader = std::move(reader_);
  lock.unlock();
  if (reader.joinable()) reader.join();
  std::lock_guard<std::mutex> writing(writeMu_);
  lock.lock();
  if (fd_ == fd && fd >= 0) {
    close(fd);
    fd_ = -1;
  }
  up_ = false;
}

CallStatus Link::call(uint16_t kind, const tovwire::Writer& body, unsigned timeoutMs,
                      std::vector<uint8_t>* answer) {
  Pending pending;
  uint32_t seq;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (!up_) return kBroken;
    seq = nextSeq_++;
    if (nextSeq_ == 0) nextSeq_ = 1;  // 0 marks frames nobody asked for
    pending_[seq] = &pending;
  }
  const std::vector<uint8_t> frame = body.frame(kind, seq);
  bool sent = false;
  {
    std::lock_guard<std::mutex> writing(writeMu_);
    int fd;
    {
      std::lock_guard<std::mutex> lock(mu_);
      fd = up_ ? fd_ : -1;
    }
    if (fd >= 0) sent = writeFull(fd, frame);
  }
  std::unique_lock<std::mutex> lock(mu_);
  const bool done = sent && cv_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                         [&] { return pending.done; });
  pending_.erase(seq);
  if (!sent || (done && pending.broken)) return kBroken;
  if (!done) return kTimedOut;
  *answer = std::move(pending.body);
  return kAnswered;
}

void Link::readLoop(int fd, uint64_t connection) {
  for (;;) {
    uint8_t head[tovwire::kHeaderSize];
    tovwire::Header header;
    if (!readFull(fd, head, sizeof(head)) || !tovwire::parseHeader(head, header, nullptr)) break;
    std::vector<uint8_t> body(header.length);
    if (!readFull(fd, body.data(), body.size())) break;
    dispatch(header, body);
  }
  lost(connection);
}

void Link::dispatch(const tovwire::Header& header, std::vector<uint8_t>& body) {
  std::unique_lock<std::mutex> lock(mu_);
  if (header.kind & tovwire::kAnswer || header.kind == tovwire::kError) {
    const auto it = pending_.find(header.seq);
    if (it == pending_.end()) return;  // its caller gave up waiting
    it->second->done = true;
    it->second->broken = header.kind == tovwire::kError;
    it->second->body = std::move(body);
    cv_.notify_all();
    return;
  }
  tovwire::Reader in(body.data(), body.size());
  if (header.kind == tovwire::kSysEvent) {
    const uint32_t event = in.u32();
    const uint32_t restarts = in.u32();
    if (in.done()) deliverSysEvent(event, restarts, lock);
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

void Link::runCallback(int id, const std::function<void()>& fn,
                       std::unique_lock<std::mutex>& lock) {
  running_ = id;
  lock.unlock();
  fn();
  lock.lock();
  running_ = 0;
  cv_.notify_all();
}

void Link::waitIdle(int id, std::unique_lock<std::mutex>& lock) {
  // A callback that releases its own client must not wait for itself.
  if (std::this_thread::get_id() == reader_.get_id()) return;
  cv_.wait(lock, [&] { return running_ != id; });
}

void Link::lost(uint64_t connection) {
  std::unique_lock<std::mutex> lock(mu_);
  if (connection != connection_) return;
  up_ = false;
  for (auto& p : pending_) {
    p.second->done = true;
    p.second->broken = true;
  }
  cv_.notify_all();
  if (closing_) return;
  // The modem is gone as far as this process can tell.
  deliverSysEvent(TOV_SYS_EVENT_MODEM_OUT_OF_SERVICE_IND, 0, lock);
}

void Link::deliverSysEvent(uint32_t event, uint32_t restarts, std::unique_lock<std::mutex>& lock) {
  std::vector<int> starts;
  for (const auto& s : starts_) starts.push_back(s.first);
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

int Link::addClient(Client client) {
  std::lock_guard<std::mutex> lock(mu_);
  const int handle = nextClient_++;
  clients_[handle] = std::move(client);
  return handle;
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

uint64_t Link::connection() {
  std::lock_guard<std::mutex> lock(mu_);
  return up_ ? connection_ : 0;
}

int request(uint16_t kind, const tovwire::Writer& body, unsigned timeoutMs, const Codes& codes,
            int* err, std::vector<uint8_t>* rest) {
  if (err != nullptr) *err = TOV_SERVICE_ERR_NONE;
  std::vector<uint8_t> answer;
  switch (Link::instance().call(kind, body, timeoutMs, &answer)) {
    case kTimedOut:
      return codes.timeout;
    case kBroken:
      return codes.broken;
    case kAnswered:
      break;
  }
  tovwire::Reader in(answer.data(), answer.size());
  const int32_t rc = in.i32();
  const int32_t code = in.i32();
  if (!in.ok() || rc > 0) return codes.malformed;
  if (err != nullptr) *err = code;
  if (rc != 0) return rc;
  if (rest != nullptr) *rest = in.rest();
  return TOV_NO_ERR;
}

}  // namespace tovhost
