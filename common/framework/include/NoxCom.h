#ifndef NOX_COM_H
#define NOX_COM_H

#include <sys/epoll.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "NoxUtils.h"

class NoxTimer;

// Called on the loop thread when the descriptor is ready / when its handler is removed.
typedef void (*ComEventCallback)(int fd, void* data);
typedef void (*ComCloseCallback)(int fd, void* data);
// Called on the loop thread with a value posted from another thread; `fd` is the
// descriptor it came through (the loop's wake-up descriptor).
typedef void (*ComPostCallback)(int fd, void* target, int value);

// The daemon's single-threaded descriptor loop (epoll, level-triggered) and its
// outbound message path. The loop thread is the one that constructs it; everything
// runs there but wake() and the registrations of other threads.
class NoxCom {
 public:
  struct ComHandlerObject {
    ComEventCallback cb = nullptr;
    ComCloseCallback closeCb = nullptr;
    void* data = nullptr;
    bool registered = false;
  };

  // Creates the epoll instance and the wake-up eventfd; aborts the process on failure.
  NoxCom();
  // Empties the registry; the epoll and wake-up descriptors stay open.
  ~NoxCom();
  NoxCom(const NoxCom&) = delete;
  NoxCom& operator=(const NoxCom&) = delete;

  // Registers `fd` for `events` and approves it. False (nothing changes) when `fd`
  // already has a handler or is negative. The caller keeps ownership of the descriptor.
  // From any other thread (the modem library's) the registration is handed to the
  // loop, which makes it at the end of its current or next pass; the call then
  // returns true at once.
  bool addComEventHandler(int fd, ComEventCallback cb, void* data, ComCloseCallback closeCb,
                          int events);
  // Hands `value` for `target` to the loop from any thread, without waiting for it: the
  // loop calls cb(fd, target, value) at the end of its current or next pass, in the
  // order posted. A value still queued for the same `cb` and `target` is replaced where
  // it stands (only the latest counts). At most kMaxPosted wait; a post beyond them is
  // dropped, counted and logged (at most once every 10 s), and false is returned.
  bool postEvent(ComPostCallback cb, void* target, int value);
  // Forgets what is queued for `target` (loop thread): its owner is going away.
  void cancelPosts(void* target);
  // Posts dropped because the queue was full, since construction.
  uint64_t droppedPosts() const;
  // Unregisters `fd`, runs its close callback and unapproves it; never closes it.
  void removeComEventHandler(int fd);
  // One wait of at most `timeoutMs` (-1: no limit) for up to 4 events, then the due
  // timers, then the handlers of the ready descriptors, last returned first, then what
  // other threads handed over (taken after the wake-up descriptor was drained, so that
  // no hand-over waits for an unrelated event).
  void processEvents(int timeoutMs, NoxTimer& timer);
  // Ends a wait in progress. The only operation safe from any thread.
  void wake();

  // Drains a descriptor; the event callback of the wake-up descriptor.
  static void clearRead(int fd, void* data);
  // Sends one framed message (4-byte big-endian length, then `len` <= 1024 bytes) to
  // an approved descriptor; fd 0 means the framework client. A failed send unapproves
  // the destination, which is then dropped at its next event.
  static void sendMessage(int fd, const void* data, unsigned int len);
  // Sends the payload-free message {1, msgType}.
  static void sendUnsolicitedMsg(int fd, NoxMsgEnumType msgType);

  // The descriptors whose event callback is `cb`, ascending.
  std::vector<int> descriptorsServedBy(ComEventCallback cb) const;

  static bool isApprovedFd(int fd) {
    return fd >= 0 && static_cast<size_t>(fd) < approvedFd.size() && approvedFd[fd] != 0;
  }
  static void addApprovedFd(int fd);
  static void remApprovedFd(int fd);
  static int getNoxClientFd();
  static void setNoxClientFd(int fd);

 private:
  static const int kMaxEvents = 4;
  static const size_t kMaxPosted = 256;

  struct Registration {
    int fd;
    ComEventCallback cb;
    void* data;
    ComCloseCallback closeCb;
    int events;
  };

  [[noreturn]] static void fatal(const char* message);
  void handleEvent(const epoll_event& ev, int remaining);
  bool registerHandler(const Registration& r);
  void takeHandedOver();
  void reportDrops();

  int epollFd;
  int wakeFd;
  epoll_event events[kMaxEvents];
  // Indexed by descriptor number (the loop's descriptors are small numbers): a look-up
  // is one index on every event.
  std::vector<ComHandlerObject> comHandlers;
  // Descriptors removed since the current wait returned (by a timed callback or a handler);
  // their stale events are skipped.
  std::set<int> removedInPass;
  bool inPass = false;
  const std::thread::id loopThread;
  struct Posted {
    ComPostCallback cb;
    void* target;
    int value;
  };
  // Registrations and posts from other threads. The lock is held only to add or take
  // them, never while a handler runs, so another thread never waits for the loop.
  mutable std::mutex handOverMutex;
  std::vector<Registration> handedOver;
  std::vector<Posted> posted;
  std::vector<Posted> delivering;  // loop thread: the batch being delivered
  uint64_t dropped = 0;
  uint64_t dropsLogged = 0;    // loop thread: the count the last drop line gave
  int64_t dropsLoggedMs = -1;  // loop thread: when that line was written

  static std::vector<uint8_t> approvedFd;  // indexed by descriptor number: 1 approved
  static int noxClientFd;
};

#endif  // NOX_COM_H
