#include "ref_common.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace bench {

namespace {

int gFrameworkFd = -1;

[[noreturn]] void die(const char* what) {
  fprintf(stderr, "ref_server: %s: %s\n", what, strerror(errno));
  exit(1);
}

}  // namespace

int listenOn(const char* path) {
  sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  if (strlen(path) >= sizeof(addr.sun_path)) {
    fprintf(stderr, "ref_server: socket path too long: %s\n", path);
    exit(2);
  }
  strcpy(addr.sun_path, path);
  unlink(path);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) die("socket");
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) < 0) die(path);
  if (listen(fd, 128) < 0) die("listen");
  return fd;
}

int acceptClient(int listenFd) {
  return accept4(listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
}

void handleRecord(int fd, const uint8_t* record, size_t len) {
  if (len < 8) return;
  const int32_t id = readLe32(record);
  if (id == kMsgInitDone) {
    gFrameworkFd = fd;
    return;
  }
  if (id != kMsgGetFeatureStatus || len < kRequestLen || gFrameworkFd < 0) return;
  uint8_t frame[kReplyFrameLen];
  writeReplyFrame(frame, readLe32(record + 12), kAnsweredStatus);
  // A failed send is the peer's loss: its hang-up ends the connection at the next read.
  if (send(gFrameworkFd, frame, kHeaderLen, MSG_NOSIGNAL) == static_cast<ssize_t>(kHeaderLen))
    send(gFrameworkFd, frame + kHeaderLen, kReplyLen, MSG_NOSIGNAL);
}

void forgetClient(int fd) {
  if (fd == gFrameworkFd) gFrameworkFd = -1;
}

RecordConn* openRecordConn(int fd) {
  return new RecordConn{fd, record_stream_new(fd, kMaxRecordLen)};
}

void closeRecordConn(RecordConn* conn) {
  forgetClient(conn->fd);
  record_stream_free(conn->stream);
  close(conn->fd);
  delete conn;
}

bool serveRecords(RecordConn* conn) {
  for (;;) {
    void* record = nullptr;
    size_t len = 0;
    const int ret = record_stream_get_next(conn->stream, &record, &len);
    if (ret == 0 && record != nullptr) {
      handleRecord(conn->fd, static_cast<const uint8_t*>(record), len);
      continue;
    }
    return ret == -1 && errno == EAGAIN;
  }
}

RawConn* openRawConn(int fd) {
  RawConn* conn = new RawConn;
  conn->fd = fd;
  conn->used = 0;
  return conn;
}

void closeRawConn(RawConn* conn) {
  forgetClient(conn->fd);
  close(conn->fd);
  delete conn;
}

bool serveRaw(RawConn* conn) {
  const ssize_t n = read(conn->fd, conn->in + conn->used, sizeof(conn->in) - conn->used);
  if (n == 0) return false;
  if (n < 0) return errno == EAGAIN || errno == EINTR;
  conn->used += static_cast<size_t>(n);

  uint8_t out[sizeof(conn->in) / kRequestFrameLen * kReplyFrameLen];
  size_t outLen = 0;
  size_t pos = 0;
  while (conn->used - pos >= kHeaderLen) {
    const size_t len = readBe32(conn->in + pos);
    if (len > kMaxRecordLen) return false;
    if (conn->used - pos - kHeaderLen < len) break;
    const uint8_t* record = conn->in + pos + kHeaderLen;
    pos += kHeaderLen + len;
    if (len < 8) continue;
    const int32_t id = readLe32(record);
    if (id == kMsgInitDone) {
      handleRecord(conn->fd, record, len);
    } else if (id == kMsgGetFeatureStatus && len >= kRequestLen && outLen < sizeof(out)) {
      writeReplyFrame(out + outLen, readLe32(record + 12), kAnsweredStatus);
      outLen += kReplyFrameLen;
    }
  }
  memmove(conn->in, conn->in + pos, conn->used - pos);
  conn->used -= pos;
  // The floor answers on the connection that asked; the load client is the framework client.
  if (outLen > 0) send(conn->fd, out, outLen, MSG_NOSIGNAL);
  return true;
}

void exitOnTerm() {
  signal(SIGTERM, [](int) { _exit(0); });
}

}  // namespace bench
