#ifndef NOX_WDS_TRACKER_H
#define NOX_WDS_TRACKER_H

#include <stdint.h>

#include <memory>
#include <set>

#include "NoxCom.h"
#include "tov_wds.h"

// Dormancy of one family as a WDS tracker hands it to its port tracker.
enum NoxDormancyStatusType : int {
  NOX_DORMANCY_STATUS_DORMANT = 0,
  NOX_DORMANCY_STATUS_ACTIVE = 1,
};

// One modem WDS client for one port (the interface name) and one IP family: reads the
// data link's dormancy, orders it dormant, and keeps the dormancy report on while its
// port tracker has registrations. Loop thread only, but for the library's indication
// callbacks, which post the indicated status to the loop (NoxCom::postEvent): a later
// status of the same tracker replaces one the loop has not taken yet.
class NoxWdsTracker {
 public:
  // Called on the loop thread with the indicated dormancy; `data` is mIndCbData.
  typedef void (*IndCb)(NoxDormancyStatusType status, void* data);

  // Starts the client at once; a client that fails to start leaves mWdsHandle -1 (or
  // the library's negative result), and the tracker's queries then fail.
  NoxWdsTracker(const char* devId, tov_ip_family_pref_type ipType, NoxCom& com);
  // Releases the client; a status still on its way to the loop is dropped.
  ~NoxWdsTracker();
  NoxWdsTracker(const NoxWdsTracker&) = delete;
  NoxWdsTracker& operator=(const NoxWdsTracker&) = delete;

  bool startTovWds(tov_ip_family_pref_type family);
  bool stopTovWds();
  // Whether the constructor's start succeeded (a client bound to its family).
  bool started() const { return mStarted; }
  // Switches the dormancy report; once the modem has it on, it stays on while the
  // client lives, whatever `enable` says.
  void setDormancyEventReport(bool enable);
  // 1 active, 0 dormant, -1 when the modem cannot tell.
  int getDormancy();
  // 0 when dormant already or ordered dormant, -1 when the order failed.
  int goDormant();

  // The library's indication callback (library thread); `userData` is the tracker.
  static void noxTovWdsIndHdlr(int userHandle, tov_service_id_type service, void* userData,
                               tov_wds_indication_id_type indId,
                               tov_wds_indication_data_type* indData);
  void processEventReportIndication(int userHandle, tov_wds_indication_data_type* indData);
  // Loop-side handler of a posted status; `tracker` may have gone meanwhile.
  static void wdsEventfdCallback(int fd, void* tracker, int status);

  NoxCom& mCom;
  std::unique_ptr<char[]> mTovPort;  // 17 bytes: the port name and its terminator
  uint32_t mEventMask;
  bool mDormReportOn;
  int mWdsHandle;
  // Set by the creator right after construction.
  IndCb mIndCb;
  void* mIndCbData;

  // Every live tracker; an indication whose tracker is no longer here is dropped.
  static std::set<NoxWdsTracker*> activeTrackers;

 private:
  bool mStarted = false;
};

#endif  // NOX_WDS_TRACKER_H
