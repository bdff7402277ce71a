#ifndef NOX_DFS_TRACKER_H
#define NOX_DFS_TRACKER_H

#include <stddef.h>
#include <stdint.h>

#include <list>
#include <memory>
#include <set>

#include "NoxCom.h"
#include "data_filter_service_v01.h"
#include "tov.h"
#include "tov_cci.h"

// A connection filter as plug-ins hand it in for the power-save filters. Ports and
// addresses are in network byte order; a zero port or address means "any".
struct NoxConnTrackFilter_s {
  uint16_t family;   // 2 (IPv4) or 10 (IPv6)
  uint16_t dstPort;
  uint16_t srcPort;
  alignas(4) uint8_t dstAddr[16];  // IPv4 in the first 4 bytes
  alignas(4) uint8_t srcAddr[16];
  int32_t protocol;  // 6 (TCP) or 17 (UDP)
};

static_assert(offsetof(NoxConnTrackFilter_s, dstAddr) == 8, "dstAddr");
static_assert(offsetof(NoxConnTrackFilter_s, srcAddr) == 24, "srcAddr");
static_assert(offsetof(NoxConnTrackFilter_s, protocol) == 40, "protocol");
static_assert(sizeof(NoxConnTrackFilter_s) == 44, "connection filter");

// One modem DFS client for one port (the interface name) and one IP family: binds to
// the family, turns auto-exit on, installs and clears power-save filters, switches
// and reads the filter mode, and follows its changes. Loop thread only, but for the
// library's indication callbacks, which post the indicated mode to the loop
// (NoxCom::postEvent): a later mode of the same tracker replaces one the loop has not
// taken yet. Results: 1 success, -1 failure.
class NoxDfsTracker {
 public:
  // Called on the loop thread with the indicated mode (1 on, 0 off).
  typedef void (*IndCb)(unsigned char mode, void* data);

  // Starts the client at once; a client that fails to start stays, and its requests fail.
  NoxDfsTracker(const char* connId, tov_ip_family_pref_type ipFamily, NoxCom& com);
  // Releases the client. Installed filters and the mode stay as they are on the modem.
  ~NoxDfsTracker();
  NoxDfsTracker(const NoxDfsTracker&) = delete;
  NoxDfsTracker& operator=(const NoxDfsTracker&) = delete;

  int startTovDfs(tov_ip_family_pref_type family);
  int stopTovDfs();
  // Whether the constructor's start succeeded (bound, auto-exit on).
  bool started() const { return mStarted; }
  int setDfsFilterMode(bool on);
  int setDfsAutoExitFilterMode(bool on);
  int removeAllDfsFilters();
  // Once registered, the registration is never withdrawn: later calls return 1.
  int regFilterStatusChgInd(bool enable);
  // `mode` is left as it was on failure.
  int getDfsFilterMode(bool& mode);
  // Installs the filters 255 to a request, in list order; stops at the first filter
  // that cannot be built or request that fails (earlier requests stay installed).
  int addDfsFilters(const std::list<NoxConnTrackFilter_s>& filters);
  int setDfsFilterFromNoxFilter(const NoxConnTrackFilter_s& filter,
                                dfs_filter_rule_type_v01& rule);
  int sendAddFiltersReq(dfs_add_powersave_filters_req_msg_v01& req);

  // The library's indication callback (library thread); `indCbData` is the tracker.
  static void dfsIndCb(tov_client_type handle, unsigned msgId, void* indBuf, unsigned indBufLen,
                       void* indCbData);
  void handleDfsFilterModeInd(tov_client_type handle, bool mode);
  // Loop-side handler of a posted mode (1 on, 0 off); `tracker` may have gone meanwhile.
  static void dfsEventfdCallback(int fd, void* tracker, int mode);

  tov_client_type mClientHandle;
  NoxCom& mCom;
  std::unique_ptr<char[]> connId;  // 17 bytes: the port name and its terminator
  bool mFilterIndReg;
  // Set by the creator right after construction.
  IndCb mIndCb;
  void* mIndCbData;
  // Tells this client apart from every other one of the process, also from one created
  // later at the same address: what a policy installed through another client is unknown.
  const uint64_t serial;

  static std::set<NoxDfsTracker*> activeTrackers;
  // Shared by every client start, zeroed before each.
  static tov_client_os_params nox_os_params;

 private:
  static uint64_t nextSerial;
  bool mStarted = false;

  // Sends one request and checks its transport and result; `what` names the method
  // in the failure lines.
  template <typename Resp>
  int send(unsigned msgId, void* req, unsigned reqLen, Resp& resp, const char* what);
};

#endif  // NOX_DFS_TRACKER_H
