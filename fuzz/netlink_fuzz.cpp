// Feeds arbitrary bytes as one received datagram through the netlink walk to the data
// state manager's handler (several messages to a datagram) and checks the interface
// records that come out.

#include <cutils/properties.h>
#include <diag_channel.h>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "Nox.h"
#include "NoxLog.h"
#include "NoxNetlinkSocket.h"

namespace {

void discardLine(const diag_msg_descriptor*, const char*) {}

// Where the fuzzer may have its own network namespace, a link named mdlnk0 (index 2 after
// lo) lets inputs past the name check. Its descriptor stays open, and with it the link.
void makeModemLink() {
  if (unshare(CLONE_NEWNET) != 0) return;
  const int fd = open("/dev/net/tun", O_RDWR);
  if (fd < 0) return;
  ifreq req = {};
  strncpy(req.ifr_name, "mdlnk0", IFNAMSIZ - 1);
  req.ifr_flags = IFF_TUN | IFF_NO_PI;
  if (ioctl(fd, TUNSETIFF, &req) != 0) close(fd);
}

template <size_t N>
void checkTerminated(const char (&field)[N]) {
  if (memchr(field, '\0', N) == nullptr) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Nox* const nox = [] {
    msg_host_set_sink(discardLine);
    NoxLog::logLevel = NOX_LOG_VERBOSE;  // still format every line
    makeModemLink();
    // No modem here: the library finds none and its start-up retries do not sleep.
    setenv("TOV_SIM_SOCKET", "/nonexistent/modemsim.sock", 1);
    NoxTov::sleepSeconds = [](unsigned int) -> unsigned int { return 0; };
    property_host_reset();
    property_set("persist.nox.feature", "4");
    return new Nox();
  }();

  // Exactly `size` bytes on the heap (aligned for a header), so that a read past the
  // datagram is caught.
  std::vector<uint8_t> datagram(data, data + size);
  bool overrun = false;
  NoxNetlinkSocket::WalkDatagram(datagram.data(), size, NoxDsm::HandleNlMsg, &nox->dsm, &overrun);

  for (const auto& entry : nox->dsm.getAllWwanInfo()) {
    if (entry.first.compare(0, 5, "mdlnk") != 0) abort();
    const _NoxDsmWwanInfoType& r = entry.second;
    if (r.state != NOX_NW_STATE_CONNECTED) abort();
    checkTerminated(r.ipAddr);
    checkTerminated(r.iface);
    checkTerminated(r.ipAddrV6);
    checkTerminated(r.ifaceV6);
    checkTerminated(r.mccMnc);
  }
  return 0;
}
