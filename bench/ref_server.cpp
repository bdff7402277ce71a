// Reference servers for the control-socket exchange: the same accept, framing and
// answers (ref_common) on five event loops, so that the daemon's request path can be
// compared with what the loop alone costs.
//
//   ref_server MODE SOCKET
//     raw       epoll, one read and one send per batch: the floor
//     records   epoll with libcutils' record stream, two sends per answer
//     looper    the same on Android's Looper (libutils)
//     libevent  the same on libevent
//     sdevent   the same on systemd's sd-event
#include <errno.h>
#include <event2/event.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <systemd/sd-event.h>
#include <unistd.h>
#include <utils/Looper.h>

#include "ref_common.h"

namespace bench {
namespace {

constexpr int kMaxEvents = 64;

// Plain epoll, level-triggered; data.ptr is null for the listening socket.
template <typename Conn, Conn* (*open)(int), void (*closeConn)(Conn*), bool (*serve)(Conn*)>
int runEpoll(int listenFd) {
  const int ep = epoll_create1(EPOLL_CLOEXEC);
  epoll_event ev = {};
  ev.events = EPOLLIN;
  ev.data.ptr = nullptr;
  epoll_ctl(ep, EPOLL_CTL_ADD, listenFd, &ev);
  epoll_event events[kMaxEvents];
  for (;;) {
    const int n = epoll_wait(ep, events, kMaxEvents, -1);
    for (int i = 0; i < n; ++i) {
      Conn* conn = static_cast<Conn*>(events[i].data.ptr);
      if (conn == nullptr) {
        int fd;
        while ((fd = acceptClient(listenFd)) >= 0) {
          epoll_event add = {};
          add.events = EPOLLIN;
          add.data.ptr = open(fd);
          epoll_ctl(ep, EPOLL_CTL_ADD, fd, &add);
        }
        continue;
      }
      if (!serve(conn)) {
        epoll_ctl(ep, EPOLL_CTL_DEL, conn->fd, nullptr);
        closeConn(conn);
      }
    }
  }
}

// Android's Looper: a plain callback per descriptor.
android::sp<android::Looper> gLooper;

int looperClient(int fd, int, void* data) {
  RecordConn* conn = static_cast<RecordConn*>(data);
  if (serveRecords(conn)) return 1;
  gLooper->removeFd(fd);
  closeRecordConn(conn);
  return 1;  // already removed
}

int looperAccept(int listenFd, int, void*) {
  int fd;
  while ((fd = acceptClient(listenFd)) >= 0)
    gLooper->addFd(fd, android::Looper::POLL_CALLBACK, android::Looper::EVENT_INPUT, looperClient,
                   openRecordConn(fd));
  return 1;
}

int runLooper(int listenFd) {
  gLooper = new android::Looper(false);
  gLooper->addFd(listenFd, android::Looper::POLL_CALLBACK, android::Looper::EVENT_INPUT,
                 looperAccept, nullptr);
  for (;;) gLooper->pollOnce(-1);
}

// libevent: one persistent read event per descriptor.
struct EventConn {
  RecordConn* conn;
  event* ev;
};
event_base* gBase;

void eventClient(evutil_socket_t, short, void* data) {
  EventConn* c = static_cast<EventConn*>(data);
  if (serveRecords(c->conn)) return;
  event_free(c->ev);
  closeRecordConn(c->conn);
  delete c;
}

void eventAccept(evutil_socket_t listenFd, short, void*) {
  int fd;
  while ((fd = acceptClient(listenFd)) >= 0) {
    EventConn* c = new EventConn{openRecordConn(fd), nullptr};
    c->ev = event_new(gBase, fd, EV_READ | EV_PERSIST, eventClient, c);
    event_add(c->ev, nullptr);
  }
}

int runLibevent(int listenFd) {
  gBase = event_base_new();
  event* listening = event_new(gBase, listenFd, EV_READ | EV_PERSIST, eventAccept, nullptr);
  event_add(listening, nullptr);
  return event_base_dispatch(gBase);
}

// systemd's sd-event: one I/O source per descriptor.
struct SdConn {
  RecordConn* conn;
  sd_event_source* source;
};

int sdClient(sd_event_source*, int, uint32_t, void* data) {
  SdConn* c = static_cast<SdConn*>(data);
  if (serveRecords(c->conn)) return 0;
  sd_event_source_disable_unref(c->source);
  closeRecordConn(c->conn);
  delete c;
  return 0;
}

int sdAccept(sd_event_source* source, int listenFd, uint32_t, void*) {
  sd_event* loop = sd_event_source_get_event(source);
  int fd;
  while ((fd = acceptClient(listenFd)) >= 0) {
    SdConn* c = new SdConn{openRecordConn(fd), nullptr};
    sd_event_add_io(loop, &c->source, fd, EPOLLIN, sdClient, c);
  }
  return 0;
}

int runSdEvent(int listenFd) {
  sd_event* loop = nullptr;
  if (sd_event_new(&loop) < 0) return 1;
  sd_event_add_io(loop, nullptr, listenFd, EPOLLIN, sdAccept, nullptr);
  return sd_event_loop(loop);
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  using namespace bench;
  if (argc != 3) {
    fprintf(stderr, "usage: ref_server raw|records|looper|libevent|sdevent SOCKET\n");
    return 2;
  }
  const char* mode = argv[1];
  exitOnTerm();
  const int listenFd = listenOn(argv[2]);
  if (strcmp(mode, "raw") == 0)
    return runEpoll<RawConn, openRawConn, closeRawConn, serveRaw>(listenFd);
  if (strcmp(mode, "records") == 0)
    return runEpoll<RecordConn, openRecordConn, closeRecordConn, serveRecords>(listenFd);
  if (strcmp(mode, "looper") == 0) return runLooper(listenFd);
  if (strcmp(mode, "libevent") == 0) return runLibevent(listenFd);
  if (strcmp(mode, "sdevent") == 0) return runSdEvent(listenFd);
  fprintf(stderr, "ref_server: unknown mode '%s'\n", mode);
  return 2;
}
