#include "NoxPortTracker.h"

#include "NoxLog.h"

int WdsPortTracker::getDormancyStatus() {
  if (!v4Tracker && !v6Tracker) return -1;
  if (!v6Tracker) return v4Tracker->getDormancy();
  if (!v4Tracker) return v6Tracker->getDormancy();
  // A failed query (-1) counts as active.
  const int v4 = v4Tracker->getDormancy();
  const int v6 = v6Tracker->getDormancy();
  return v4 != 0 || v6 != 0 ? 1 : 0;
}

void WdsPortTracker::checkDormRegNeeded() {
  if (dormRegRefCnt < 0) {
    NOX_LOG(NOX_LOG_WARN, NOX_MOD_TOV, "dormRegRefCnt negative!!");
    dormRegRefCnt = 0;
    return;
  }
  if (v4Tracker) v4Tracker->setDormancyEventReport(dormRegRefCnt != 0);
  if (v6Tracker) v6Tracker->setDormancyEventReport(dormRegRefCnt != 0);
}

void WdsPortTracker::updateDormancyStatus() { dispatchIfChanged(getDormancyStatus()); }

void WdsPortTracker::dormIndHdlr(NoxDormancyStatusType, void* portTracker) {
  if (portTracker == nullptr) return;
  static_cast<WdsPortTracker*>(portTracker)->updateDormancyStatus();
}

namespace {
// A mode that cannot be read counts as off.
bool filterModeOn(NoxDfsTracker& tracker) {
  bool on = false;
  tracker.getDfsFilterMode(on);
  return on;
}
}  // namespace

int DfsPortTracker::getFilterStatus() {
  if (!v4Tracker && !v6Tracker) return -1;
  if (!v6Tracker) return filterModeOn(*v4Tracker) ? 0 : 1;
  if (!v4Tracker) return filterModeOn(*v6Tracker) ? 0 : 1;
  if (!filterModeOn(*v4Tracker)) return 1;
  return filterModeOn(*v6Tracker) ? 0 : 1;
}

void DfsPortTracker::checkFilterRegNeeded() {
  if (filterRegRefCnt < 0) {
    NOX_LOG(NOX_LOG_WARN, NOX_MOD_TOV, "filterRegRefCnt negative!!");
    filterRegRefCnt = 0;
    return;
  }
  if (v4Tracker) v4Tracker->regFilterStatusChgInd(filterRegRefCnt != 0);
  if (v6Tracker) v6Tracker->regFilterStatusChgInd(filterRegRefCnt != 0);
}

void DfsPortTracker::updateFilterStatus() { dispatchIfChanged(getFilterStatus()); }

void DfsPortTracker::dfsFilteringIndHdlr(unsigned char, void* portTracker) {
  if (portTracker == nullptr) return;
  static_cast<DfsPortTracker*>(portTracker)->updateFilterStatus();
}
