#ifndef NOX_DSM_H
#define NOX_DSM_H

#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <stdint.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "EventDispatcher.h"
#include "NoxDsmTypes.h"
#include "NoxTypes.h"
#include "NoxUtils.h"

class Nox;
class NoxCom;
class NoxConfig;
class NoxNetlinkSocket;

// Data-state events; the payload each carries is valid only during the dispatch.
enum NoxDsmEvent : int {
  NOX_DSM_WLAN_STATUS_CHANGE_EVENT = 0,            // _WlanInfo
  NOX_DSM_WWAN_INTERFACE_STATUS_CHANGE_EVENT = 1,  // _NoxDsmWwanIfaceInfoType
  NOX_DSM_WWAN_APN_STATUS_CHANGE_EVENT = 2,        // _NoxDsmWwanApnInfoType
  NOX_DSM_WWAN_NW_TYPE_CHANGE_EVENT = 3,           // int32_t, the new nwType
  NOX_DSM_SCREEN_STATE_CHANGE_EVENT = 4,           // int32_t, the new screen state
  NOX_DSM_TETHERING_STATE_CHANGE_EVENT = 5,        // int32_t, the new tethering state
  NOX_DSM_NSRM_STATUS_CHANGE_EVENT = 6,            // int32_t, the accepted NSRM status
  NOX_DSM_APP_INFO_LIST_CHANGE_EVENT = 7,          // no payload (null)
  NOX_DSM_MCC_MNC_CHANGE_EVENT = 8,                // char[7], the new MCC-MNC
};

typedef int32_t NoxApnType;
// The first integer of the client's notification.
typedef int32_t NoxTetheringStateType;
typedef int32_t NoxScreenStateType;

// What NoxDsm knows of one mobile-data interface. The member initialisers are the
// default record.
struct _NoxDsmWwanInfoType {
  int32_t type = 0;
  int32_t nwType = -1;                   // NoxRatSubtype
  int32_t state = NOX_NW_STATE_UNKNOWN;  // NoxNetworkStateEnumType
  int32_t roaming = 0;
  std::vector<NoxApnType> apnList;  // APNs up, in arrival order, no duplicates
  char ipAddr[NOX_IP_ADDR_SIZE] = {};
  char iface[NOX_IFACE_NAME_SIZE] = {};
  char ipAddrV6[NOX_IP_ADDR_SIZE] = {};
  char ifaceV6[NOX_IFACE_NAME_SIZE] = {};
  char mccMnc[NOX_MCCMNC_SIZE] = {};
};

typedef std::map<std::string, _NoxDsmWwanInfoType> NoxDsmWwanIfaceMap;

// One installed package.
struct NoxDsmAppInfoDataType {
  // new[]-allocated and zero-terminated; owned by the map entry. NoxDsm frees it with
  // delete[] when it erases the entry; whoever else erases one must do the same.
  char* pkg_name;
  // The ":"-separated hexadecimal numbers of the package's app_name.
  std::set<uint32_t> appNameIds;
};

// Keyed by uid; packages sharing a uid are kept side by side.
typedef std::unordered_multimap<uint32_t, NoxDsmAppInfoDataType> NoxDsmAppInfoMap;

// The daemon's record of the device's data state: WLAN, mobile data per interface and
// APN, tethering, screen, NSRM status and the installed applications. Fed by client
// commands (through Nox's dispatcher) and by route netlink; raises data-state events on
// `dispatcher`. Everything runs on the loop thread, and subscribers are called
// synchronously, with NoxDsm already updated.
class NoxDsm {
 public:
  // Reads the NSRM switch from `config` (which must already hold the feature mask),
  // opens the route-netlink socket on `com`, registers for client commands on `nox`'s
  // dispatcher and loads the kernel's current addresses, IPv4 then IPv6.
  NoxDsm(Nox& nox, NoxConfig& config, NoxCom& com);
  // Frees the application list, takes the netlink socket off the loop and closes it,
  // and withdraws the command handlers.
  ~NoxDsm();
  NoxDsm(const NoxDsm&) = delete;
  NoxDsm& operator=(const NoxDsm&) = delete;

  // Handler of client commands 1, 3, 8, 9, 10, 12, 13 and 14; `cbData` is the NoxDsm.
  static void processNoxCmd(NoxMsgEnumType cmd, const void* data, void* cbData);
  // Read handler of the netlink descriptor; `cbData` is the NoxDsm. If the kernel
  // dropped notifications, the addresses are loaded again.
  static void noxEvtCallback(int fd, void* cbData);

  // Whether the asked status of NSRM (feature 2) holds. An unset status property is
  // set to "3" and every status then holds.
  bool getFeatureStatus(NoxFeatureInfoType* info);
  // Fills in the feature's status and sends it to the framework client.
  void handleGetFeatureEvent(NoxFeatureInfoType* info);
  // Stores a new NSRM status (1, 2 or 3) and answers the framework client with result 0
  // on success and -2 when refused. Null: no answer.
  void setFeatureStatus(NoxFeatureInfoType* info);

  _WlanInfo getWlanInfo() const;
  // The stored screen and tethering states: the inverse of the client's integer, so
  // 0 for a client's 1 and 1 for its 0 (start values: screen 0, tethering 1).
  int32_t getScreenState() const { return screenState; }
  int32_t getTetheringState() const { return tetheringState; }
  // The record of `iface`, or the default record.
  _NoxDsmWwanInfoType getWwanInfo(const char* iface) const;
  // Always the default record: there is deliberately no lookup by APN.
  _NoxDsmWwanInfoType getWwanInfo(NoxApnType apn) const;
  NoxDsmWwanIfaceMap getAllWwanInfo() const;
  // The live application list, for the plug-ins; valid as long as the NoxDsm.
  NoxDsmAppInfoMap& GetAppInfoMap();

  // Raise NOX_DSM_WWAN_INTERFACE_STATUS_CHANGE_EVENT (status 4 and no addresses when
  // `ifName` has no record) and NOX_DSM_WWAN_APN_STATUS_CHANGE_EVENT (nothing when it
  // has none).
  void dispatchWwanEvent(const char* ifName);
  void dispatchApnEvent(const char* ifName);

  // Client notifications, never given null.
  void handleWlanEvent(_WlanInfo* info);
  // True when `cur` is part of a DHCP renewal of the connected WLAN `prev` and must not
  // be reported.
  bool isDhcpRenewState(_WlanInfo& cur, _WlanInfo& prev);
  void handleWwanEvent(NoxWwanInfoType* info);
  void handleTetheringEvent(NoxTetheringStateType* state);
  void handleScreenEvent(NoxScreenStateType* state);

  // Handles one route-netlink message for interfaces named "mdlnk*". `len` is the number
  // of bytes readable at `msg`; a message shorter than its headers say, or than the
  // headers it needs, is logged and dropped. `cbData` is the NoxDsm.
  static void HandleNlMsg(void* cbData, nlmsghdr* msg, unsigned int len);
  void handleNlLinkUp(char* ifName, int family);
  void handleNlLinkDown(char* ifName);
  // `ifa` must be followed by an attribute holding a whole address of its family
  // (HandleNlMsg checks that).
  void handleNlNewAddr(char* ifName, ifaddrmsg* ifa);
  // Remembers the kernel's index of `ifName` while it has a record.
  void rememberIndex(int index, const char* ifName);

  // Applies a client's application-list message: -1 (map unchanged) when it holds more
  // than NOX_MAX_APPLIST_SIZE entries or would take the list over NOX_MAX_APPS,
  // otherwise 1.
  int AddAppInfoList(const NoxAppInfoMsgDataType* msg);

  // The netlink descriptor, for watching only.
  int netlinkFd() const;

  // Subscribers register here for the data-state events.
  EventDispatcher<NoxDsmEvent> dispatcher;

 private:
  void dumpAddresses();
  void dumpAddresses(unsigned char family);
  // After lost notifications: a record whose interface is gone goes as a link-down.
  void forgetVanishedInterfaces();
  void insertApp(const NoxAppInfoType& app);
  bool knownApp(const NoxAppInfoType& app) const;
  void removeApp(const NoxAppInfoType& app);

  std::unique_ptr<NoxNetlinkSocket> nlSocket;
  Nox& nox;
  NoxConfig& config;
  NoxCom& com;
  _WlanInfo wlanInfo;
  NoxDsmWwanIfaceMap wwanIfaceMap;
  // The kernel's index of each record netlink created or updated: an interface deleted
  // with its addresses can no longer be named when their deletions arrive.
  std::map<int, std::string> nlIndexNames;
  int32_t tetheringState;
  int32_t screenState;
  NoxDsmAppInfoMap appInfoMap;
  bool inDhcpRenew;
  bool nsrmEnabled;
  char mccMnc[NOX_MCCMNC_SIZE];
};

#endif  // NOX_DSM_H
