#include "NoxWdsTracker.h"

#include <cstring>
#include <new>

#include "NoxLog.h"

std::set<NoxWdsTracker*> NoxWdsTracker::activeTrackers;

namespace {

constexpr size_t kPortSize = 17;
constexpr uint32_t kDormancyReportBit = TOV_WDS_EVENT_DORM_STATUS_IND;

}  // namespace

NoxWdsTracker::NoxWdsTracker(const char* devId, tov_ip_family_pref_type ipType, NoxCom& com)
    : mCom(com), mEventMask(0), mDormReportOn(false), mWdsHandle(-1), mIndCb(nullptr),
      mIndCbData(nullptr) {
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_TOV, "NoxWdsTracker: CToR devId: %s ipType: %d", devId, ipType);
  activeTrackers.insert(this);
  mTovPort.reset(new (std::nothrow) char[kPortSize]());
  if (!mTovPort) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV, "NoxWdsTracker::NoxWdsTracker() mTovPort malloc failed");
    return;
  }
  // Interface names are at most 15 characters: the terminator always fits.
  memcpy(mTovPort.get(), devId, strnlen(devId, kPortSize - 1));
  mStarted = startTovWds(ipType);
}

NoxWdsTracker::~NoxWdsTracker() {
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_TOV, "NoxWdsTracker: DToR");
  activeTrackers.erase(this);
  stopTovWds();
  // The client's handler has returned for good: nothing more is posted for this tracker.
  mCom.cancelPosts(this);
}

bool NoxWdsTracker::startTovWds(tov_ip_family_pref_type family) {
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_TOV, "Start WDS service for ipFamily:%d", family);
  int err = 0;
  mWdsHandle = tov_wds_srvc_init_client(mTovPort.get(), noxTovWdsIndHdlr, this, &err);
  if (mWdsHandle < 0) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV, "tov_wds_svc_init_client err:%d for port:%s", err,
            mTovPort.get());
    return false;
  }
  const int rc = tov_wds_set_client_ip_pref(mWdsHandle, family, &err);
  if (rc < 0) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV, "tov_wds_set_client_ip_pref rc:%d err:%d", rc, err);
    return false;  // the client stays open
  }
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_TOV, "Started WDS service for port:%s", mTovPort.get());
  return true;
}

bool NoxWdsTracker::stopTovWds() {
  // Only -1 means "no client": a failed start leaves the library's negative result,
  // which the release then refuses.
  if (mWdsHandle == -1) {
    NOX_LOG(NOX_LOG_WARN, NOX_MOD_TOV, "WDS is not initialized for port:%s",
            mTovPort ? mTovPort.get() : "");
    return false;
  }
  int err = 0;
  const int rc = tov_wds_srvc_release_client(mWdsHandle, &err);
  if (rc < 0) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV, "tov_wds_svc_release_client failed, ret:%d, err:%d", rc,
            err);
    return false;
  }
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_TOV, "Stopped WDS service for port:%s", mTovPort.get());
  mEventMask = 0;
  mDormReportOn = false;
  mWdsHandle = -1;
  return true;
}

void NoxWdsTracker::setDormancyEventReport(bool enable) {
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_TOV, "setDormancyEventReport enable:%d", enable);
  if (mWdsHandle == -1) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV,
            "Cannot set dormancy event report for uninitialized wds tov port:%s",
            mTovPort ? mTovPort.get() : "");
    return;
  }
  // Deliberate: once on, the report is never switched off while the client lives.
  if ((mEventMask & kDormancyReportBit) != 0 && mDormReportOn) {
    NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_TOV, "Dormancy event already set on this port:%s",
            mTovPort.get());
    return;
  }
  tov_wds_event_report_params_type params;
  memset(&params, 0, sizeof(params));
  params.param_mask = mEventMask | kDormancyReportBit;
  params.report_dorm_status = enable ? 1 : 0;
  int err = 0;
  if (tov_wds_set_event_report(mWdsHandle, &params, &err) < 0) {
    // Deliberate: the result is printed as 1, as this line always has been.
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV, "failed to set dormancy event report, ret:%d, err:%d", 1,
            err);
    return;
  }
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_TOV, "Set dorm event report for TOV port:%s, as:%d", mTovPort.get(),
          enable);
  mEventMask = params.param_mask;
  mDormReportOn = enable;
}

int NoxWdsTracker::getDormancy() {
  tov_wds_dorm_status_type status = TOV_WDS_DORM_STATUS_ACTIVE;
  int err = 0;
  const int rc = tov_wds_get_dormancy_status(mWdsHandle, &status, &err);
  if (rc < 0) {
    // The text names goDormant on purpose: log readers match it.
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV,
            "NoxWdsTracker::goDormant: Failed to get dormancy status, ret %d err %d", rc, err);
    return -1;
  }
  const int result = status == TOV_WDS_DORM_STATUS_ACTIVE ? NOX_DORMANCY_STATUS_ACTIVE
                                                          : NOX_DORMANCY_STATUS_DORMANT;
  NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_TOV, "NoxWdsTracker::getDormancy: iface %s dormancy status %d",
          mTovPort.get(), result);
  return result;
}

int NoxWdsTracker::goDormant() {
  if (getDormancy() == NOX_DORMANCY_STATUS_DORMANT) {
    NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_TOV, "NoxWdsTracker::goDormant: iface: %s is already dormant",
            mTovPort.get());
    return 0;
  }
  // Active, or the query failed: ask anyway.
  NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_TOV, "NoxWdsTracker::goDormant: iface: %s go dormant",
          mTovPort.get());
  int err = 0;
  const int rc = tov_wds_go_dormant_req(mWdsHandle, &err);
  if (rc < 0) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV, "NoxWdsTracker::goDormant: Failed to go dormant, ret %d err %d",
            rc, err);
    return -1;
  }
  return 0;
}

void NoxWdsTracker::noxTovWdsIndHdlr(int userHandle, tov_service_id_type service, void* userData,
                                     tov_wds_indication_id_type indId,
                                     tov_wds_indication_data_type* indData) {
  if (service != TOV_WDS_SERVICE) {
    NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_TOV, "ignoring non WDS service[%d] indication", service);
    return;
  }
  if (userData == nullptr) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV,
            "user_data is null, no handler available to process indication:%d", indId);
    return;
  }
  if (indId != TOV_WDS_SRVC_EVENT_REPORT_IND_MSG) {
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_TOV, "No handler to process wds indication:%d", indId);
    return;
  }
  static_cast<NoxWdsTracker*>(userData)->processEventReportIndication(userHandle, indData);
}

void NoxWdsTracker::processEventReportIndication(int userHandle,
                                                 tov_wds_indication_data_type* indData) {
  if (userHandle != mWdsHandle) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV, "invalid user_handle received in wds indication:%d",
            userHandle);
    return;
  }
  if (indData == nullptr) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_TOV, "received null ind_data from wds indication");
    return;
  }
  const unsigned long mask = indData->event_report.event_mask;
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_TOV, "received wds indication with event mask:%ld",
          static_cast<long>(mask));
  if ((mask & kDormancyReportBit) == 0) return;
  const NoxDormancyStatusType status = indData->event_report.dorm_status == TOV_WDS_DORM_STATUS_DORMANT
                                           ? NOX_DORMANCY_STATUS_DORMANT
                                           : NOX_DORMANCY_STATUS_ACTIVE;
  // This thread is not the loop's. A status still queued for this tracker is replaced.
  mCom.postEvent(wdsEventfdCallback, this, status);
}

void NoxWdsTracker::wdsEventfdCallback(int fd, void* tracker, int status) {
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_TOV, "wdsEventfdCallback fd %d", fd);
  NoxWdsTracker* self = static_cast<NoxWdsTracker*>(tracker);
  if (activeTrackers.count(self) != 0 && self->mIndCb != nullptr)
    self->mIndCb(static_cast<NoxDormancyStatusType>(status), self->mIndCbData);
}
