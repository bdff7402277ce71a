#ifndef NOX_TOV_H
#define NOX_TOV_H

#include <list>
#include <map>
#include <memory>
#include <string>

#include "NoxDfsTracker.h"
#include "NoxDsm.h"
#include "NoxPortTracker.h"
#include "NoxWdsTracker.h"
#include "tov.h"

class NoxCom;
class NoxConfig;
class NoxTimer;

// The modem-side controller: starts the modem messaging library, keeps a WDS and a DFS
// port tracker per interface, creates and deletes their per-family trackers as the
// data state manager reports interfaces, and offers the plug-ins dormancy and
// power-save filter operations. Everything runs on the loop thread but the library's
// system-event callback, which only logs.
//
// For plug-ins: an interface is "not found" until a registration or a connect event
// has created its port tracker; operations on it then return -1 (or do nothing).
class NoxTov {
 public:
  typedef void (*DormancyStatusCb)(NoxTovWdsEventType event, const void* info, void* data);
  typedef void (*FilteringStatusCb)(NoxTovDfsEventType event, const void* info, void* data);

  // Only stores the references: `config` may not be constructed yet.
  NoxTov(NoxDsm& dsm, NoxCom& com, NoxTimer& timer, NoxConfig& config);
  // Deletes every tracker (their modem clients are released) and ends the library.
  ~NoxTov();
  NoxTov(const NoxTov&) = delete;
  NoxTov& operator=(const NoxTov&) = delete;

  // Starts the library, retrying after 3, 5, 10, 15 and 30 s (blocking the caller);
  // then follows the interface events and takes up the interfaces already connected.
  // After six failures nothing is followed.
  void init();
  void dumpTrackerInfo();

  // Status-change subscriptions; the callback gets a NoxTovStatusChgInfo*. Returns 0,
  // or -1 when the port tracker cannot be had. Deliberate: a registration that has to
  // create the port tracker is counted (dormancy) or not (filtering) but not stored.
  int regDormancyStatusChgEvent(std::string iface, DormancyStatusCb cb, void* data);
  int deRegDormancyStatusChgEvent(std::string iface, DormancyStatusCb cb, void* data);
  int regFilteringStatusChgEvent(std::string iface, FilteringStatusCb cb, void* data);
  int deRegFilteringStatusChgEvent(std::string iface, FilteringStatusCb cb, void* data);

  // 1 active, 0 dormant, -1 unknown: asked of the modem when nobody is registered,
  // else the last status dispatched.
  int getDormancyStatus(std::string iface);
  // 0 filtering, 1 not, -1 unknown; asked or cached as getDormancyStatus.
  int getFilterStatus(std::string iface);
  // 0 dormant or ordered dormant, -1 failure or unknown interface.
  int goDormant(std::string iface);
  // Every interface; always 0.
  int goDormant();
  void setDfsFilterMode(std::string iface, bool on);
  // 1 when the filters were installed; -1 on failure or when nothing was sent.
  int addDfsFilters(std::string iface, const std::list<NoxConnTrackFilter_s>& v4Filters,
                    const std::list<NoxConnTrackFilter_s>& v6Filters);
  int clearAllDfsFilters(std::string iface);

  // One IP family's power-save filters, for policies that bring each family to its own
  // state (`family` 4 or 6). 1 on success; -1 on failure, or when the interface has no
  // started DFS client of that family. Setting the mode reads the filtering status
  // back at once and tells its subscribers, from within the call, when it changed.
  int setFamilyFilterMode(const std::string& iface, int family, bool on);
  int getFamilyFilterMode(const std::string& iface, int family, bool& on);
  int addFamilyFilters(const std::string& iface, int family,
                    const std::list<NoxConnTrackFilter_s>& filters);
  int clearFamilyFilters(const std::string& iface, int family);
  // The family's DFS client: 0 while there is no started one, else a number that
  // changes whenever a client is created anew. The modem keeps filters and mode across
  // clients, so a new number means that what the port has is unknown again.
  uint64_t dfsClientId(const std::string& iface, int family) const;

  // Interface changes from the data state manager; `cbData` is the NoxTov.
  static void dsmEventHandler(NoxDsmEvent event, const void* data, void* cbData);
  void processDsmEvent(NoxDsmEvent event, const void* data);
  void handleWwanIfChangeEvent(const _NoxDsmWwanIfaceInfoType* info);
  void handleDfsWwanIfChangeEvent(const _NoxDsmWwanIfaceInfoType* info);
  // The interfaces already connected, as connect events.
  void handleWwanIfStatus();

  // How long one data-state event may keep the loop on client starts before the rest
  // waits for a later pass (a slow modem must not hold other clients, netlink and timers).
  static const long long kConnectBudgetMs = 1500;

  // The library's system-event callback (library thread); it only logs.
  static void noxTovSysEventHdlr(tov_sys_event_type event, const tov_sys_event_info_type* info,
                                 void* userData);
  void processSysEvent(const tov_sys_event_info_type* info);
  bool initTovCtrlChannel(const char* port);

  typedef std::map<std::string, std::unique_ptr<WdsPortTracker>> WdsPortTrackers;
  typedef std::map<std::string, std::unique_ptr<DfsPortTracker>> DfsPortTrackers;
  const WdsPortTrackers& wdsPortTrackers() const { return mWdsPortTrackers; }
  const DfsPortTrackers& dfsPortTrackers() const { return mDfsPortTrackers; }

  // The library handle; -1 when the library is not started.
  static int mTovHandle;
  // Blocks for the retry delays: ::sleep, unless the daemon or a test puts its own wait
  // here. As ::sleep, it returns the seconds left: a wait cut short ends the retries.
  static unsigned int (*sleepSeconds)(unsigned int seconds);

  NoxDsm& mDsm;
  NoxCom& mCom;
  NoxTimer& mTimer;  // stored, not used
  NoxConfig& mConfig;

 private:
  WdsPortTracker* findWds(const std::string& iface);
  // A family tracker for `port` in `slot`, calling back into the port tracker.
  bool addWdsTracker(WdsPortTracker& port, std::unique_ptr<NoxWdsTracker>& slot,
                     tov_ip_family_pref_type family);
  DfsPortTracker* findDfs(const std::string& iface);
  NoxDfsTracker* findDfs(const std::string& iface, int family) const;
  // Whether a client may still be started during this event (the budget is not spent
  // and no start has failed); marks the interface for a retry when not.
  bool mayStart(const std::string& iface);
  // Starts are tried again later: at once for a spent budget, with a growing delay
  // for a failure, up to kMaxStartRetries times.
  void retryLater(const std::string& iface, bool failed);
  static int onRetry(void* retry);

  struct Retry {
    NoxTov* tov;
    std::string iface;
    int attempts = 0;  // failed ones, in a row
    int timerId = -1;
    bool askedInPass = false;  // asked for again during the current event
  };
  std::map<std::string, std::unique_ptr<Retry>> mRetries;
  long long mPassDeadline = 0;  // monotonic ms; 0 outside a data-state event
  bool mPassFailed = false;

  WdsPortTrackers mWdsPortTrackers;
  DfsPortTrackers mDfsPortTrackers;
};

#endif  // NOX_TOV_H
