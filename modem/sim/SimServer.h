#ifndef MODEMSIM_SIMSERVER_H
#define MODEMSIM_SIMSERVER_H

// Serves one ModemSim on a Unix stream socket to any number of library and command
// line connections, single-threaded on epoll, and runs the radio model's clock: the
// monotonic clock since construction, times `speed`, so that the radio's timers run
// `speed` times faster than the wall clock and its figures are in modelled time.

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "ModemSim.h"

namespace modemsim {

class SimServer {
 public:
  // `speed` is at least 1e-3.
  explicit SimServer(double speed = 1.0);
  ~SimServer();
  SimServer(const SimServer&) = delete;
  SimServer& operator=(const SimServer&) = delete;

  // Binds `path`, replacing a stale socket file but never one a live simulator serves.
  // False with the reason.
  bool listen(const std::string& path, std::string* error);
  // Serves until stop() (from a signal handler or another thread).
  void run();
  void stop();
  // For settings before run().
  ModemSim& sim() { return sim_; }

 private:
  struct Queued {
    int64_t dueMs;
    std::vector<uint8_t> bytes;
  };
  struct Conn {
    uint64_t id;
    int fd;
    std::vector<uint8_t> in;
    std::deque<Queued> out;
    size_t outSent = 0;  // bytes of out.front() already written
    bool closeAfterFlush = false;
    bool watchingOutput = false;
  };

  void accept();
  // Stops or resumes watching the listening socket (stopped: out of descriptors).
  void pauseAccepting(bool paused);
  void readFrom(uint64_t id);
  void send(const std::vector<Outgoing>& frames);
  void flush(uint64_t id);
  void close(uint64_t id);
  int timeoutMs() const;
  int64_t modelNowMs() const;
  // The radio's timers due by now, and what they send.
  void advance();
  void watchOutput(Conn& conn, bool on);

  ModemSim sim_;
  double speed_;
  int64_t startNs_;
  std::string path_;
  int listenFd_ = -1;
  int epollFd_ = -1;
  int wakeFd_ = -1;
  std::atomic<bool> stop_{false};
  int64_t acceptAgainMs_ = -1;  // when a paused listening socket is watched again; -1 watched
  bool outOfDescriptorsSaid_ = false;  // said once per process
  std::map<uint64_t, Conn> conns_;
  uint64_t nextConn_ = 1;
};

// Runs one command line against the simulator at `path`: its exit status and output,
// or -1 and the reason when the simulator cannot be reached.
int runCommand(const std::string& path, const std::vector<std::string>& args, std::string* text);

}  // namespace modemsim

#endif  // MODEMSIM_SIMSERVER_H
