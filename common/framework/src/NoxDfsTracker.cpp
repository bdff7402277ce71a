#include "NoxDfsTracker.h"

#include <arpa/inet.h>

#include <cstring>
#include <new>

#include "NoxLog.h"
#include "tov_client_helper.h"

std::set<NoxDfsTracker*> NoxDfsTracker::activeTrackers;
tov_client_os_params NoxDfsTracker::nox_os_params;
uint64_t NoxDfsTracker::nextSerial = 1;

namespace {

constexpr size_t kPortSize = 17;
constexpr unsigned kRequestTimeoutMs = 1000;
constexpr uint32_t kStartTimeoutMs = 5000;
constexpr int kFamilyV4 = 2;
constexpr int kFamilyV6 = 10;
constexpr int kProtoTcp = 6;
constexpr int kProtoUdp = 17;
constexpr uint8_t kPrefixLen = 64;

// Handles are printed as the numbers they are in the host library.
int handleNumber(tov_client_type handle) {
  return static_cast<int>(reinterpret_cast<intptr_t>(handle));
}

unsigned int low32(const void* p) {
  return static_cast<unsigned int>(reinterpret_cast<uintptr_t>(p));
}

bool allZero(const uint8_t* bytes, size_t len) {
  for (size_t i = 0; i < len; ++i)
    if (bytes[i] != 0) return false;
  return true;
}

void setPorts(const NoxConnTrackFilter_s& filter, dfs_port_info_type_v01& info) {
  if (filter.srcPort != 0) {
    info.src_port_info.port = ntohs(filter.srcPort);
    info.valid_params |= DFS_PORT_INFO_FILTER_MASK_SRC_PORT_V01;
  }
  if (filter.dstPort != 0) {
    info.dest_port_info.port = ntohs(filter.dstPort);
    info.valid_params |= DFS_PORT_INFO_FILTER_MASK_DEST_PORT_V01;
  }
}

}  // namespace

NoxDfsTracker::NoxDfsTracker(const char* name, tov_ip_family_pref_type ipFamily, NoxCom& com)
    : mClientHandle(nullptr), mCom(com), mFilterIndReg(false), mIndCb(nullptr),
      mIndCbData(nullptr), serial(nextSerial++) {
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_TOV, "%s:%d",
          "NoxDfsTracker::NoxDfsTracker(const char*, tov_ip_family_pref_type, NoxCom&)", 69);
  activeTrackers.insert(this);
  connId.reset(new (std::nothrow) char[kPortSize]());
  if (!connId) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV, "NoxDfsTracker::NoxDfsTracker() connId malloc failed");
    return;
  }
  // Interface names are at most 15 characters: the terminator always fits.
  memcpy(connId.get(), name, strnlen(name, kPortSize - 1));
  mStarted = startTovDfs(ipFamily) == 1;
}

NoxDfsTracker::~NoxDfsTracker() {
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_TOV, "%s:%d", "NoxDfsTracker::~NoxDfsTracker()", 99);
  activeTrackers.erase(this);
  stopTovDfs();
  // The client's callback has returned for good: nothing more is posted for this tracker.
  mCom.cancelPosts(this);
}

template <typename Resp>
int NoxDfsTracker::send(unsigned msgId, void* req, unsigned reqLen, Resp& resp, const char* what) {
  memset(&resp, 0, sizeof(resp));
  const int rc = tov_client_send_msg_sync(mClientHandle, msgId, req, reqLen, &resp, sizeof(resp),
                                          kRequestTimeoutMs);
  if (rc != TOV_CLIENT_NO_ERR) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV, "%s: send TOV req failed error %d", what, rc);
    return -1;
  }
  if (resp.resp.result != TOV_RESULT_SUCCESS_V01) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV, "%s: TOV req responded with failure %d", what,
            resp.resp.error);
    return -1;
  }
  return 1;
}

int NoxDfsTracker::startTovDfs(tov_ip_family_pref_type family) {
  memset(&nox_os_params, 0, sizeof(nox_os_params));
  const int rc = tov_client_dfs_init_instance(connId.get(), dfs_get_service_object_v01(),
                                              TOV_CLIENT_INSTANCE_ANY, dfsIndCb, this,
                                              &nox_os_params, kStartTimeoutMs, &mClientHandle);
  if (rc != TOV_CLIENT_NO_ERR) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV, "NoxDfsTracker::startTovDfs: DFS client init error %d", rc);
    return -1;
  }
  if (family != TOV_IP_FAMILY_PREF_IPV4 && family != TOV_IP_FAMILY_PREF_IPV6) {
    stopTovDfs();
    return -1;
  }
  dfs_bind_client_req_msg_v01 req;
  memset(&req, 0, sizeof(req));
  req.ip_preference_valid = 1;
  req.ip_preference = static_cast<dfs_ip_family_enum_v01>(family);
  dfs_bind_client_resp_msg_v01 resp;
  if (send(TOV_DFS_BIND_CLIENT_REQ_V01, &req, sizeof(req), resp, "NoxDfsTracker::startTovDfs") != 1) {
    stopTovDfs();
    return -1;
  }
  if (setDfsAutoExitFilterMode(true) != 1) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV, "NoxDfsTracker::startTovDfs: set autoexit mode failed");
    stopTovDfs();
    return -1;
  }
  return 1;
}

int NoxDfsTracker::stopTovDfs() {
  // Also for a client that never started: the library refuses it, and that is logged.
  const int rc = tov_client_release(mClientHandle);
  if (rc != TOV_CLIENT_NO_ERR) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV, "NoxDfsTracker::stopTovDfs: TOV client release failed error %d",
            rc);
    return -1;
  }
  return 1;
}

int NoxDfsTracker::setDfsFilterMode(bool on) {
  dfs_set_powersave_filter_mode_req_msg_v01 req = {static_cast<uint8_t>(on ? 1 : 0)};
  dfs_set_powersave_filter_mode_resp_msg_v01 resp;
  return send(TOV_DFS_SET_POWERSAVE_FILTER_MODE_REQ_V01, &req, sizeof(req), resp,
              "NoxDfsTracker::setDfsFilterMode");
}

int NoxDfsTracker::setDfsAutoExitFilterMode(bool on) {
  dfs_set_autoexit_powersave_filter_mode_req_msg_v01 req = {static_cast<uint8_t>(on ? 1 : 0)};
  dfs_set_autoexit_powersave_filter_mode_resp_msg_v01 resp;
  return send(TOV_DFS_SET_AUTOEXIT_POWERSAVE_FILTER_MODE_REQ_V01, &req, sizeof(req), resp,
              "NoxDfsTracker::setDfsAutoExitFilterMode");
}

int NoxDfsTracker::removeAllDfsFilters() {
  NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_TOV, "NoxDfsTracker::removeAllDfsFilters enter");
  dfs_remove_all_powersave_filters_req_msg_v01 req = {};
  dfs_remove_all_powersave_filters_resp_msg_v01 resp;
  return send(TOV_DFS_REMOVE_ALL_POWERSAVE_FILTERS_REQ_V01, &req, sizeof(req), resp,
              "NoxDfsTracker::removeAllDfsFilters");
}

int NoxDfsTracker::getDfsFilterMode(bool& mode) {
  dfs_get_powersave_filter_mode_req_msg_v01 req = {};
  dfs_get_powersave_filter_mode_resp_msg_v01 resp;
  if (send(TOV_DFS_GET_POWERSAVE_FILTER_MODE_REQ_V01, &req, sizeof(req), resp,
           "NoxDfsTracker::getDfsFilterMode") != 1)
    return -1;
  if (!resp.powersave_filter_mode_valid) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV,
            "NoxDfsTracker::getDfsFilterMode: TOV req responded with invalid result");
    return -1;
  }
  mode = resp.powersave_filter_mode == 1;
  return 1;
}

int NoxDfsTracker::regFilterStatusChgInd(bool enable) {
  // Deliberate: a registration is never withdrawn, so the modem keeps reporting.
  if (mFilterIndReg) return 1;
  mFilterIndReg = enable;  // kept also when the request fails
  dfs_indication_register_req_msg_v01 req;
  memset(&req, 0, sizeof(req));
  req.report_powersave_filter_mode_change_valid = 1;
  req.report_powersave_filter_mode_change = enable ? 1 : 0;
  dfs_indication_register_resp_msg_v01 resp;
  return send(TOV_DFS_INDICATION_REGISTER_REQ_V01, &req, sizeof(req), resp,
              "NoxDfsTracker::regFilterStatusChgInd");
}

int NoxDfsTracker::setDfsFilterFromNoxFilter(const NoxConnTrackFilter_s& filter,
                                             dfs_filter_rule_type_v01& rule) {
  memset(&rule, 0, sizeof(rule));
  dfs_ip_filter_type_v01& ip = rule.ip_info;
  if (filter.family == kFamilyV4) {
    ip.ip_version = DFS_IP_FAMILY_IPV4_V01;
    uint32_t addr;
    memcpy(&addr, filter.srcAddr, sizeof(addr));
    if (addr != 0) {
      ip.v4_info.src_addr.ipv4_addr = ntohl(addr);
      ip.v4_info.src_addr.subnet_mask = 0xFFFFFFFF;
      ip.v4_info.valid_params |= DFS_IPV4_FILTER_MASK_SRC_ADDR_V01;
    }
    memcpy(&addr, filter.dstAddr, sizeof(addr));
    if (addr != 0) {
      ip.v4_info.dest_addr.ipv4_addr = ntohl(addr);
      ip.v4_info.dest_addr.subnet_mask = 0xFFFFFFFF;
      ip.v4_info.valid_params |= DFS_IPV4_FILTER_MASK_DEST_ADDR_V01;
    }
  } else if (filter.family == kFamilyV6) {
    ip.ip_version = DFS_IP_FAMILY_IPV6_V01;
    // Deliberate: with a source, the destination is set too, zero or not; without a
    // source, neither is.
    if (!allZero(filter.srcAddr, sizeof(filter.srcAddr))) {
      memcpy(ip.v6_info.src_addr.ipv6_address, filter.srcAddr, sizeof(filter.srcAddr));
      ip.v6_info.src_addr.prefix_len = kPrefixLen;
      ip.v6_info.valid_params |= DFS_IPV6_FILTER_MASK_SRC_ADDR_V01;
      memcpy(ip.v6_info.dest_addr.ipv6_address, filter.dstAddr, sizeof(filter.dstAddr));
      ip.v6_info.dest_addr.prefix_len = kPrefixLen;
      ip.v6_info.valid_params |= DFS_IPV6_FILTER_MASK_DEST_ADDR_V01;
    }
  } else {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV, "NoxDfsTracker::setDfsFilterFromNoxFilter: unknown IP family %d",
            filter.family);
    return -1;
  }
  rule.xport_info.xport_protocol = static_cast<dfs_xport_protocol_enum_v01>(filter.protocol);
  if (filter.protocol == kProtoTcp) {
    setPorts(filter, rule.xport_info.tcp_info);
  } else if (filter.protocol == kProtoUdp) {
    setPorts(filter, rule.xport_info.udp_info);
  } else {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV,
            "NoxDfsTracker::setDfsFilterFromNoxFilter: unknown transport proto %d", filter.protocol);
    return -1;
  }
  return 1;
}

int NoxDfsTracker::addDfsFilters(const std::list<NoxConnTrackFilter_s>& filters) {
  dfs_add_powersave_filters_req_msg_v01 req;
  memset(&req, 0, sizeof(req));
  int b = 0;
  int n = 0;
  const int total = static_cast<int>(filters.size());
  for (const NoxConnTrackFilter_s& filter : filters) {
    if (setDfsFilterFromNoxFilter(filter, req.powersave_filter_rules[b]) != 1) {
      NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV, "NoxDfsTracker::addDfsFilters: set DFS filter failed");
      return -1;
    }
    ++n;
    if (b == DFS_MAX_POWERSAVE_FILTERS_V01 - 1 || n == total) {
      req.powersave_filter_rules_valid = 1;
      req.powersave_filter_rules_len = static_cast<uint32_t>(b + 1);
      if (sendAddFiltersReq(req) != 1) {
        NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV, "NoxDfsTracker::addDfsFilters: send add filters req failed");
        return -1;
      }
      // Deliberate: the position is the last index inside the batch, not overall.
      NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_TOV,
              "NoxDfsTracker::addDfsFilters: send DFS add filters req, current filters position %d", b);
      memset(&req, 0, sizeof(req));
      b = 0;
    } else {
      ++b;
    }
  }
  NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_TOV, "NoxDfsTracker::addDfsFilters: add %d DFS filters", n);
  return 1;
}

int NoxDfsTracker::sendAddFiltersReq(dfs_add_powersave_filters_req_msg_v01& req) {
  dfs_add_powersave_filters_resp_msg_v01 resp;
  return send(TOV_DFS_ADD_POWERSAVE_FILTERS_REQ_V01, &req, sizeof(req), resp,
              "NoxDfsTracker::sendAddFiltersReq");
}

void NoxDfsTracker::dfsIndCb(tov_client_type handle, unsigned msgId, void* indBuf,
                             unsigned indBufLen, void* indCbData) {
  if (indBuf == nullptr || indCbData == nullptr) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV,
            "NoxDfsTracker::dfsIndCb: NULL pointer, ind_buf=0x%x, ind_cb_data=0x%x", low32(indBuf),
            low32(indCbData));
    return;
  }
  NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_TOV, "NoxDfsTracker::dfsIndCb: Received DFS IND id %d", msgId);
  if (msgId != TOV_DFS_POWERSAVE_FILTER_MODE_IND_V01) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV, "NoxDfsTracker::dfsIndCb: No handler for DFS IND id %d",
            msgId);
    return;
  }
  dfs_powersave_filter_mode_ind_msg_v01 ind = {0};
  const int rc = tov_client_message_decode(handle, TOV_IDL_INDICATION, msgId, indBuf, indBufLen,
                                           &ind, sizeof(ind));
  if (rc != TOV_CLIENT_NO_ERR) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV, "NoxDfsTracker::dfsIndCb: Invalid filter mode ind msg error %d",
            rc);
    return;
  }
  static_cast<NoxDfsTracker*>(indCbData)->handleDfsFilterModeInd(handle,
                                                                 ind.powersave_filter_mode == 1);
}

void NoxDfsTracker::handleDfsFilterModeInd(tov_client_type handle, bool mode) {
  if (handle != mClientHandle) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV,
            "NoxDfsTracker::handleDfsFilterModeInd Provided TOV handle %d doesn't match stored handle %d",
            handleNumber(handle), handleNumber(mClientHandle));
    return;
  }
  // This thread is not the loop's. A mode still queued for this tracker is replaced.
  mCom.postEvent(dfsEventfdCallback, this, mode ? 1 : 0);
}

void NoxDfsTracker::dfsEventfdCallback(int fd, void* tracker, int mode) {
  NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_TOV, "NoxDfsTracker::dfsEventfdCallback: fd %d", fd);
  NoxDfsTracker* self = static_cast<NoxDfsTracker*>(tracker);
  if (activeTrackers.count(self) != 0 && self->mIndCb != nullptr)
    self->mIndCb(static_cast<unsigned char>(mode), self->mIndCbData);
}
