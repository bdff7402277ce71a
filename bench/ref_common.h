#ifndef BENCH_REF_COMMON_H
#define BENCH_REF_COMMON_H

// What the reference servers share, whatever loop drives them: the listening socket,
// accepting, and the exchange answered as the daemon answers it. Single-threaded: every
// function runs on the loop's thread.

#include <cutils/record_stream.h>
#include <stddef.h>
#include <stdint.h>

#include "exchange.h"

namespace bench {

// A non-blocking listening Unix stream socket at `path` (a stale socket file is
// replaced). Exits the process on failure.
int listenOn(const char* path);
// One pending connection, non-blocking; -1 when none is left (or on error).
int acceptClient(int listenFd);

// Handles one record from `fd`: "init done" makes `fd` the framework client; "get
// feature status" is answered to the framework client with two sends, the length and
// then the body, as the daemon sends every message. Anything else is ignored.
void handleRecord(int fd, const uint8_t* record, size_t len);
// Forgets `fd` as the framework client if it was; called before it is closed.
void forgetClient(int fd);

// A connection read through libcutils' record stream.
struct RecordConn {
  int fd;
  RecordStream* stream;
};
// Takes ownership of `fd`.
RecordConn* openRecordConn(int fd);
// Releases the stream and closes the descriptor; the caller has unregistered it.
void closeRecordConn(RecordConn* conn);
// Handles every complete record that can be read now. False once the peer has closed
// or the read failed: the caller then unregisters and closes the connection.
bool serveRecords(RecordConn* conn);

// The floor: one read per readiness into a buffer of the connection's own, every
// complete request answered, and all the answers of the batch in one send.
struct RawConn {
  int fd;
  size_t used;
  uint8_t in[16384];
};
RawConn* openRawConn(int fd);
void closeRawConn(RawConn* conn);
// Same contract as serveRecords.
bool serveRaw(RawConn* conn);

// SIGTERM ends the process with status 0, so that a profiler sees a normal exit.
void exitOnTerm();

}  // namespace bench

#endif  // BENCH_REF_COMMON_H
