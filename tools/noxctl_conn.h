#ifndef NOX_TOOLS_NOXCTL_CONN_H
#define NOX_TOOLS_NOXCTL_CONN_H

#include <stdint.h>

#include <string>
#include <vector>

namespace noxctl {

// kEnded: the daemon closed the connection cleanly between records.
enum class Result { kOk, kFailed, kTimedOut, kEnded };

// A point in time on the monotonic clock, or never.
class Deadline {
 public:
  static Deadline after(int ms);
  static Deadline never();
  // Milliseconds left, at least 0; -1 for never (the poll() convention).
  int remainingMs() const;
  // The span it was made with, for messages.
  int spanMs() const { return spanMs_; }

 private:
  int64_t atMs_ = -1;
  int spanMs_ = -1;
};

// One connection to the daemon's control socket. Each record on it is a 4-byte big-endian
// length followed by that many bytes. Every call that fails leaves one line in error().
class Connection {
 public:
  Connection() = default;
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  Result open(const std::string& path, Deadline deadline);
  // Sends the whole record (length prefix added here) or fails.
  Result send(const std::vector<uint8_t>& record, Deadline deadline);
  // Returns once the daemon has read every byte sent so far. The daemon drops unread data
  // when it sees a hang-up, so closing before this returns could lose a message. Fails if
  // the daemon hung up instead.
  Result waitUntilRead(Deadline deadline);
  // Reads the next record (without its length prefix).
  Result receive(std::vector<uint8_t>* record, Deadline deadline);
  // The process id of the daemon on the other end.
  Result peerPid(int* pid);

  const std::string& error() const { return error_; }

 private:
  Result fail(const std::string& what, int err);
  Result timedOut(const std::string& what, Deadline deadline);

  int fd_ = -1;
  std::string path_;
  std::string error_;
  std::vector<uint8_t> input_;
  bool ended_ = false;
};

}  // namespace noxctl

#endif  // NOX_TOOLS_NOXCTL_CONN_H
