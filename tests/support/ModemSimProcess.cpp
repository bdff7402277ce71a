#include "ModemSimProcess.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <sstream>
#include <thread>

#include "NoxTov.h"
#include "SimServer.h"

ModemSimProcess::ModemSimProcess() {
  char dir[] = "/tmp/noxsim-XXXXXX";
  if (mkdtemp(dir) == nullptr) {
    ADD_FAILURE() << "mkdtemp failed";
    return;
  }
  dir_ = dir;
  path_ = dir_ + "/sim.sock";
  start();
}

void ModemSimProcess::start() {
  const char* argv[] = {MODEMSIM_PATH, "--socket", path_.c_str(), "serve", nullptr};
  pid_ = fork();
  if (pid_ == 0) {
    // A test that dies must not leave the simulator holding its output open.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    execv(MODEMSIM_PATH, const_cast<char**>(argv));
    _exit(127);
  }
  if (pid_ < 0) {
    ADD_FAILURE() << "cannot start " << MODEMSIM_PATH;
    return;
  }
  setenv("TOV_SIM_SOCKET", path_.c_str(), 1);
  std::string text;
  for (int i = 0; i < 1000; ++i) {
    if (modemsim::runCommand(path_, {"log", "--clear"}, &text) == 0) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ADD_FAILURE() << "the modem simulator does not answer: " << text;
}

ModemSimProcess::~ModemSimProcess() {
  kill();
  unlink(path_.c_str());
  rmdir(dir_.c_str());
}

void ModemSimProcess::pause(bool stopped) {
  if (pid_ >= 0) ::kill(pid_, stopped ? SIGSTOP : SIGCONT);
}

void ModemSimProcess::kill() {
  if (pid_ < 0) return;
  ::kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

std::string ModemSimProcess::cli(const std::vector<std::string>& args, int expected) {
  std::string text;
  const int status = modemsim::runCommand(path_, args, &text);
  if (status != expected) {
    std::string line;
    for (const std::string& a : args) line += " " + a;
    ADD_FAILURE() << "modemsim" << line << ": status " << status << ": " << text;
  }
  return text;
}

std::vector<std::string> ModemSimProcess::requests() {
  std::istringstream in(cli({"log", "--clear"}));
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);)
    lines.push_back(line.substr(line.find(' ') + 1));
  return lines;
}

void runWithoutModem() {
  setenv("TOV_SIM_SOCKET", "/nonexistent/modemsim.sock", 1);
  NoxTov::sleepSeconds = [](unsigned int) -> unsigned int { return 0; };
}
