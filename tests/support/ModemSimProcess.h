#ifndef NOX_TESTS_MODEMSIMPROCESS_H
#define NOX_TESTS_MODEMSIMPROCESS_H

#include <sys/types.h>

#include <string>
#include <vector>

// The real modem simulator (modemsim serve) in a child process, on a socket of its
// own, with TOV_SIM_SOCKET pointing the host modem library at it while it lives. The
// constructor returns once the simulator answers; failures are test failures.
class ModemSimProcess {
 public:
  ModemSimProcess();
  ~ModemSimProcess();
  ModemSimProcess(const ModemSimProcess&) = delete;
  ModemSimProcess& operator=(const ModemSimProcess&) = delete;

  // Runs a modemsim command line against it and returns what it printed; a status
  // other than `expected` is a test failure.
  std::string cli(const std::vector<std::string>& args, int expected = 0);
  // The requests received since the last call, one line each without their numbers.
  std::vector<std::string> requests();
  // The simulator dies at once (SIGKILL); start() brings a new one up on the same socket.
  void kill();
  void start();
  // Stops (SIGSTOP) or continues (SIGCONT) the simulator: stopped, it reads nothing.
  void pause(bool stopped);
  const std::string& path() const { return path_; }

 private:
  std::string dir_;
  std::string path_;
  pid_t pid_ = -1;
};

// For tests that do not need a modem: the library finds none, and the start-up retries
// do not sleep.
void runWithoutModem();

#endif  // NOX_TESTS_MODEMSIMPROCESS_H
