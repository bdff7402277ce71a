// Arbitrary bytes from a connected client of a real noxd loop: the record stream,
// parcelAndDispatch, every decoder and every command handler run on them, with the
// data state manager, the modem controller (against the simulator, served from a
// thread of this process) and the sample plug-ins behind them. What the decoders hand
// the handlers is checked: every text ends inside its field, an application list holds at
// most NOX_MAX_APPLIST_SIZE entries, in uid order.

#include <cutils/properties.h>
#include <cutils/record_stream.h>
#include <diag_channel.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "Nox.h"
#include "NoxLog.h"
#include "SimServer.h"

namespace {

void discardLine(const diag_msg_descriptor*, const char*) {}

template <size_t N>
void checkTerminated(const char (&field)[N]) {
  if (memchr(field, '\0', N) == nullptr) abort();
}
void checkWwan(NoxMsgEnumType, const void* data, void*) {
  const NoxWwanInfoType& w = *static_cast<const NoxWwanInfoType*>(data);
  checkTerminated(w.ipV4), checkTerminated(w.ifaceV4), checkTerminated(w.ipV6);
  checkTerminated(w.ifaceV6), checkTerminated(w.mccmnc);
}
void checkApps(NoxMsgEnumType, const void* data, void*) {
  const NoxAppInfoMsgDataType& m = *static_cast<const NoxAppInfoMsgDataType*>(data);
  if (m.numApps > NOX_MAX_APPLIST_SIZE || m.apps.size() > m.numApps) abort();
  uint32_t lastUid = 0;
  for (const NoxAppInfoType& a : m.apps) {
    checkTerminated(a.pkg_name), checkTerminated(a.app_name);
    if (a.uid < lastUid) abort();
    lastUid = a.uid;
  }
}

Nox* start() {
  msg_host_set_sink(discardLine);
  NoxLog::logLevel = NOX_LOG_VERBOSE;  // still format every line
  NoxUtils::init();
  char dir[] = "/tmp/noxfuzz-XXXXXX";
  if (mkdtemp(dir) == nullptr) abort();
  const std::string path = std::string(dir) + "/sim.sock";
  // Never destroyed: its thread serves until the process ends.
  modemsim::SimServer* const sim = new modemsim::SimServer();
  std::string error;
  if (!sim->listen(path, &error)) abort();
  std::thread([sim] { sim->run(); }).detach();
  setenv("TOV_SIM_SOCKET", path.c_str(), 1);
  property_host_reset();
  property_set("persist.nox.feature", "7");
  Nox::pluginDir = NOX_FUZZ_PLUGIN_DIR;
  Nox* const nox = new Nox();
  nox->dispatcher.regEventCallback(NOX_S_NOTIFY_WWAN_STATE_CHG, checkWwan, nullptr);
  nox->dispatcher.regEventCallback(NOX_S_NOTIFY_APP_INFO_LIST_CHG, checkApps, nullptr);
  return nox;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Nox* const nox = start();
  int sv[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv) != 0) return 0;
  nox->com.addComEventHandler(sv[1], Nox::processNoxEvent,
                              new NoxClientConn{nox, record_stream_new(sv[1], 8192)},
                              Nox::processNoxCloseEvent, EPOLLIN | EPOLLHUP);
  for (size_t sent = 0; sent < size;) {
    const ssize_t n = write(sv[0], data + sent, size - sent);
    if (n <= 0) break;
    sent += static_cast<size_t>(n);
  }
  // The end of what the client sends; it keeps reading, so nothing it gets is lost.
  shutdown(sv[0], SHUT_WR);
  // Still ours while the client callback serves the number: once the daemon has ended
  // the connection, the number may already be an eventfd of the modem library's.
  auto connected = [&] {
    for (int fd : nox->com.descriptorsServedBy(Nox::processNoxEvent))
      if (fd == sv[1]) return true;
    return false;
  };
  for (int pass = 0; pass < 8 && connected(); ++pass) nox->com.processEvents(0, nox->timer);
  if (connected()) {
    nox->com.removeComEventHandler(sv[1]);
    close(sv[1]);
  }
  close(sv[0]);
  return 0;
}
