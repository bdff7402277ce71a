#include "NoxCom.h"

#include <arpa/inet.h>
#include <binder/Parcel.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "NoxLog.h"
#include "NoxTimer.h"

namespace {
constexpr unsigned int kMaxMessageSize = 1024;
constexpr int64_t kDropLogIntervalMs = 10000;

// `err` is the failed call's errno, taken before any log line can change it.
void logSysError(const char* what, int err = errno) {
  NOX_LOG(NOX_LOG_ERROR, NOX_MOD_GENERIC, "Error: %s", what);
  NOX_LOG(NOX_LOG_ERROR, NOX_MOD_GENERIC, "    %s (Errno %d)", strerror(err), err);
}

// send(), without the cancellation bookkeeping glibc wraps it in once a process has a
// second thread (the modem library's): the loop thread is never cancelled, and this
// runs twice for every reply.
ssize_t sendNow(int fd, const void* data, size_t len) {
  return syscall(SYS_sendto, fd, data, len, MSG_NOSIGNAL, nullptr, 0);
}
}  // namespace

std::vector<uint8_t> NoxCom::approvedFd;
int NoxCom::noxClientFd = -1;

NoxCom::NoxCom() : loopThread(std::this_thread::get_id()) {
  epollFd = epoll_create(4);
  if (epollFd < 0) fatal("Cannot create epoll instance");
  wakeFd = static_cast<int>(syscall(SYS_eventfd2, 0, EFD_NONBLOCK));
  if (wakeFd < 0) fatal("Cannot create eventfd instance");
  addComEventHandler(wakeFd, clearRead, nullptr, nullptr, EPOLLIN | EPOLLHUP);
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COM, "NoxCom is ready. epollFd:%d", epollFd);
}

NoxCom::~NoxCom() { comHandlers.clear(); }

void NoxCom::fatal(const char* message) {
  const int err = errno;
  NOX_LOG(NOX_LOG_ERROR, NOX_MOD_GENERIC, "Critical Error, Aborting: %s", message);
  NOX_LOG(NOX_LOG_ERROR, NOX_MOD_GENERIC, "    %s (Errno %d)", strerror(err), err);
  abort();
}

bool NoxCom::addComEventHandler(int fd, ComEventCallback cb, void* data, ComCloseCallback closeCb,
                                int events) {
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COM,
          "NoxCom::addComEventHandler fd %d, ComEventCallback %p, void* %p, ComCloseCallback %p, "
          "events %d",
          fd, reinterpret_cast<void*>(cb), data, reinterpret_cast<void*>(closeCb), events);
  const Registration r = {fd, cb, data, closeCb, events};
  if (std::this_thread::get_id() != loopThread) {
    {
      std::lock_guard<std::mutex> lock(handOverMutex);
      handedOver.push_back(r);
    }
    wake();
    return true;
  }
  return registerHandler(r);
}

bool NoxCom::postEvent(ComPostCallback cb, void* target, int value) {
  {
    std::lock_guard<std::mutex> lock(handOverMutex);
    auto same = std::find_if(posted.begin(), posted.end(),
                             [&](const Posted& p) { return p.cb == cb && p.target == target; });
    if (same != posted.end()) {
      same->value = value;
      return true;  // its wake-up is still pending
    }
    if (posted.size() >= kMaxPosted) {
      ++dropped;
      return false;
    }
    posted.push_back({cb, target, value});
  }
  wake();
  return true;
}

void NoxCom::cancelPosts(void* target) {
  // Also what this pass has already taken but not yet delivered.
  for (Posted& p : delivering)
    if (p.target == target) p.cb = nullptr;
  std::lock_guard<std::mutex> lock(handOverMutex);
  posted.erase(std::remove_if(posted.begin(), posted.end(),
                              [&](const Posted& p) { return p.target == target; }),
               posted.end());
}

uint64_t NoxCom::droppedPosts() const {
  std::lock_guard<std::mutex> lock(handOverMutex);
  return dropped;
}

bool NoxCom::registerHandler(const Registration& r) {
  if (r.fd < 0) {
    NOX_LOG(NOX_LOG_WARN, NOX_MOD_COM, "fd=%d is not a descriptor", r.fd);
    return false;
  }
  if (static_cast<size_t>(r.fd) < comHandlers.size() && comHandlers[r.fd].registered) {
    NOX_LOG(NOX_LOG_WARN, NOX_MOD_COM, "fd=%d is already in comHandlers", r.fd);
    return false;
  }
  epoll_event ev = {};
  ev.events = static_cast<uint32_t>(r.events);
  ev.data.fd = r.fd;
  // Deliberate: a failed registration still stores the handler; it is simply never called.
  if (epoll_ctl(epollFd, EPOLL_CTL_ADD, r.fd, &ev) < 0)
    logSysError("Cannot add NoxCom event handler");
  if (static_cast<size_t>(r.fd) >= comHandlers.size()) comHandlers.resize(r.fd + 1);
  comHandlers[r.fd] = ComHandlerObject{r.cb, r.closeCb, r.data, true};
  addApprovedFd(r.fd);
  return true;
}

void NoxCom::takeHandedOver() {
  std::vector<Registration> registrations;
  {
    std::lock_guard<std::mutex> lock(handOverMutex);
    registrations.swap(handedOver);
    delivering.swap(posted);
  }
  for (const Registration& r : registrations) registerHandler(r);
  // By index: a callback may cancel later entries (cancelPosts) but never adds here.
  for (size_t i = 0; i < delivering.size(); ++i) {
    const Posted p = delivering[i];
    if (p.cb != nullptr) p.cb(wakeFd, p.target, p.value);
  }
  delivering.clear();
  reportDrops();
}

void NoxCom::reportDrops() {
  uint64_t count;
  {
    std::lock_guard<std::mutex> lock(handOverMutex);
    count = dropped;
  }
  if (count == dropsLogged) return;
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  const int64_t nowMs = int64_t(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
  if (dropsLoggedMs >= 0 && nowMs - dropsLoggedMs < kDropLogIntervalMs) return;
  NOX_LOG(NOX_LOG_WARN, NOX_MOD_COM,
          "hand-over queue full: %llu posted events dropped (%llu since start)",
          static_cast<unsigned long long>(count - dropsLogged),
          static_cast<unsigned long long>(count));
  dropsLogged = count;
  dropsLoggedMs = nowMs;
}

void NoxCom::removeComEventHandler(int fd) {
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COM, "NoxCom::removeComEventHandler fd %d", fd);
  epoll_ctl(epollFd, EPOLL_CTL_DEL, fd, nullptr);
  if (fd >= 0 && static_cast<size_t>(fd) < comHandlers.size()) {
    const ComHandlerObject handler = comHandlers[fd];
    if (handler.closeCb != nullptr) handler.closeCb(fd, handler.data);
    comHandlers[fd] = ComHandlerObject();  // by index: the callback may have grown the table
  }
  remApprovedFd(fd);
  if (inPass) removedInPass.insert(fd);
}

void NoxCom::processEvents(int timeoutMs, NoxTimer& timer) {
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COM, "waiting on events (%dms)", timeoutMs);
  const int n = epoll_wait(epollFd, events, kMaxEvents, timeoutMs);
  if (n == -1) {
    if (errno == EINTR) return;
    logSysError("epoll_wait error");
    return;
  }
  // The pass starts with the wait: a timed callback that runs now may already remove
  // a descriptor whose event the wait returned.
  inPass = true;
  removedInPass.clear();
  timer.processEvents();
  for (int i = n - 1; i >= 0; --i) handleEvent(events[i], i + 1);
  inPass = false;
  removedInPass.clear();
  // Last: whatever was handed over before the wake-up descriptor was drained above is
  // taken now; what comes later left the descriptor readable for the next wait.
  takeHandedOver();
}

void NoxCom::handleEvent(const epoll_event& ev, int remaining) {
  const int fd = ev.data.fd;
  const uint32_t mask = ev.events;
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COM, "there are %d file descriptor(s) with events pending",
          remaining);
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COM, "%d events pending, handling %d for %d", remaining,
          static_cast<int>(mask), fd);

  // The number may already belong to a new descriptor (a client accepted or an eventfd
  // created since): never act on it, and never close it a second time.
  if (removedInPass.count(fd) != 0) {
    NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COM, "fd %d was removed during this pass, skipping its event",
            fd);
    return;
  }
  if (mask & EPOLLHUP) {
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_COM, "fd '%d' sent HUP.", fd);
    removeComEventHandler(fd);
    close(fd);
    return;
  }
  if ((mask & (EPOLLIN | EPOLLPRI | EPOLLERR)) == 0) {
    std::string flags;
    if (mask & EPOLLIN) flags += "EPOLLIN ";
    if (mask & EPOLLOUT) flags += "EPOLLOUT ";
    if (mask & EPOLLHUP) flags += "EPOLLHUP ";
    if (mask & EPOLLET) flags += "EPOLLET ";
    NOX_LOG(NOX_LOG_WARN, NOX_MOD_COM, "Unhandled epoll event: %s [flags 0%o]", flags.c_str(),
            mask);
    return;
  }
  if (!isApprovedFd(fd)) {
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_COM, "fd %d is not on approved list, cannot process event", fd);
    removeComEventHandler(fd);
    close(fd);
    return;
  }
  if (fd < 0 || static_cast<size_t>(fd) >= comHandlers.size() || !comHandlers[fd].registered) {
    NOX_LOG(NOX_LOG_WARN, NOX_MOD_COM, "fd '%d' does not have an event handler registered", fd);
    return;
  }
  const ComHandlerObject handler = comHandlers[fd];
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COM, "fd '%d' is processing events [callback:%p, data:%p]", fd,
          reinterpret_cast<void*>(handler.cb), handler.data);
  if (handler.cb == nullptr) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_COM, "no callback registered");
    return;
  }
  handler.cb(fd, handler.data);
}

void NoxCom::wake() {
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COM, "NoxCom::wake() EX");
  const uint64_t one = 1;
  const ssize_t rv = write(wakeFd, &one, sizeof(one));
  if (rv < static_cast<ssize_t>(sizeof(one)))
    NOX_LOG(NOX_LOG_WARN, NOX_MOD_COM, "Error in writing rv: %d, error: %s", static_cast<int>(rv),
            strerror(errno));
}

void NoxCom::clearRead(int fd, void*) {
  char buf[256];
  // Deliberate: only -1 ends the drain; this is only registered for the eventfd.
  while (read(fd, buf, sizeof(buf)) != -1) {
  }
  if (errno != EAGAIN)
    NOX_LOG(NOX_LOG_WARN, NOX_MOD_COM, "Error while clearing the read buffer on fd %d", fd);
}

void NoxCom::sendMessage(int fd, const void* data, unsigned int len) {
  if (len > kMaxMessageSize) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_COM,
            "Unsolicited message size larger than max allowed size, cannot send");
    return;
  }
  if (fd == 0) fd = noxClientFd;
  if (!isApprovedFd(fd)) {
    NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_COM, "Cannot send message to fd='%d', not on approved list", fd);
    return;
  }
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COM, "sending message to fd '%d', address:%p bytes:%d", fd, data,
          static_cast<int>(len));
  const uint32_t header = htonl(len);
  if (sendNow(fd, &header, sizeof(header)) == -1) {
    logSysError("send() error while sending parcel size");
    remApprovedFd(fd);
    return;
  }
  if (sendNow(fd, data, len) == -1) {
    logSysError("send() error while sending parcel");
    remApprovedFd(fd);
  }
}

void NoxCom::sendUnsolicitedMsg(int fd, NoxMsgEnumType msgType) {
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COM, "sending unsolicited message. fd:%d type:%s (%d) VOID", fd,
          NoxUtils::getNoxMsgStr(msgType), static_cast<int>(msgType));
  android::Parcel p;
  p.writeInt32(1);
  p.writeInt32(msgType);
  sendMessage(fd, p.data(), static_cast<unsigned int>(p.dataSize()));
}

std::vector<int> NoxCom::descriptorsServedBy(ComEventCallback cb) const {
  std::vector<int> fds;
  for (size_t fd = 0; fd < comHandlers.size(); ++fd)
    if (comHandlers[fd].registered && comHandlers[fd].cb == cb) fds.push_back(static_cast<int>(fd));
  return fds;
}

void NoxCom::addApprovedFd(int fd) {
  if (fd < 0) return;
  if (static_cast<size_t>(fd) >= approvedFd.size()) approvedFd.resize(fd + 1);
  approvedFd[fd] = 1;
}
void NoxCom::remApprovedFd(int fd) {
  if (isApprovedFd(fd)) approvedFd[fd] = 0;
}
int NoxCom::getNoxClientFd() { return noxClientFd; }
void NoxCom::setNoxClientFd(int fd) { noxClientFd = fd; }
