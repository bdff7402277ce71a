#ifndef NOX_PORT_TRACKER_H
#define NOX_PORT_TRACKER_H

#include <memory>
#include <string>

#include "EventDispatcher.h"
#include "NoxDfsTracker.h"
#include "NoxWdsTracker.h"

enum NoxTovWdsEventType : int {
  NOX_TOV_WDS_DORMANCY_STATUS_CHG_EV = 0,
};

enum NoxTovDfsEventType : int {
  NOX_TOV_DFS_FILTERING_STATUS_CHG_EV = 0,
};

// The payload of a status change: valid only during the callback.
struct NoxTovStatusChgInfo {
  std::string iface;
  int status;
};

// What one interface keeps of one modem service: the subscribers of its status
// changes, a tracker per IP family while the interface is connected with an address of
// that family, and the last combined status dispatched. Once created it stays until
// the NoxTov is destroyed, so registrations survive the interface going down and up.
// Loop thread only.
template <typename Tracker, typename Event>
class NoxPortTracker {
 public:
  explicit NoxPortTracker(const std::string& name) : iface(name) {}
  // The IPv4 tracker goes before the IPv6 one.
  ~NoxPortTracker() {
    v4Tracker.reset();
    v6Tracker.reset();
  }
  NoxPortTracker(const NoxPortTracker&) = delete;
  NoxPortTracker& operator=(const NoxPortTracker&) = delete;

  EventDispatcher<Event> dispatcher;
  std::unique_ptr<Tracker> v4Tracker;
  std::unique_ptr<Tracker> v6Tracker;
  int status = -1;
  std::string iface;

 protected:
  // Stores `now` and tells the subscribers, when it differs from the last status.
  void dispatchIfChanged(int now) {
    if (now == status) return;
    status = now;
    NoxTovStatusChgInfo info{iface, status};
    dispatcher.dispatchEvent(static_cast<Event>(0), &info);
  }
};

// Dormancy: 1 active, 0 dormant, -1 when there is no tracker.
class WdsPortTracker : public NoxPortTracker<NoxWdsTracker, NoxTovWdsEventType> {
 public:
  using NoxPortTracker::NoxPortTracker;

  // The combined dormancy, asked of the modem now: 1 if either family is active or
  // cannot tell, 0 when every family is dormant.
  int getDormancyStatus();
  // Keeps the dormancy report of both families as the registration count says.
  void checkDormRegNeeded();
  void updateDormancyStatus();
  // A family tracker's indication: the status is asked again (the value is not used).
  static void dormIndHdlr(NoxDormancyStatusType status, void* portTracker);

  int dormRegRefCnt = 0;
};

// Filtering: 0 while the filter mode is on, 1 while it is off, -1 when there is no
// tracker.
class DfsPortTracker : public NoxPortTracker<NoxDfsTracker, NoxTovDfsEventType> {
 public:
  using NoxPortTracker::NoxPortTracker;

  int getFilterStatus();
  void checkFilterRegNeeded();
  void updateFilterStatus();
  static void dfsFilteringIndHdlr(unsigned char mode, void* portTracker);

  int filterRegRefCnt = 0;
};

#endif  // NOX_PORT_TRACKER_H
