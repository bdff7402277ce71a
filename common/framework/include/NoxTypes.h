#ifndef NOX_TYPES_H
#define NOX_TYPES_H

// Client payload records and feature ids shared by the framework and the plug-ins.
// Text fields are fixed-size and always zero-terminated after decoding.

#include <stdint.h>

#include <set>

// Feature n is bit n of the feature mask.
enum NoxFeatureType : int {
  NOX_FEATURE_FDMGR = 0,  // descriptor-manager plug-in
  NOX_FEATURE_CTMGR = 1,  // connection-tracking plug-in
  NOX_FEATURE_NSRM = 2,
};

enum NoxPkgActionType : int {
  NOX_PKG_ACTION_ADD = 0,
  NOX_PKG_ACTION_REMOVE = 1,  // any action other than add is handled as a removal
};

// At most this many ints are taken from an int list; a longer list is skipped.
constexpr int NOX_MAX_PARCEL_INTS = 100;
// At most this many package entries are read from an application list.
constexpr int NOX_MAX_APPLIST_SIZE = 500;
// At most this many applications are kept, and this many APNs per interface, well above
// any device: a client cannot grow the daemon without bound.
constexpr size_t NOX_MAX_APPS = 10000;
constexpr size_t NOX_MAX_APNS_PER_IFACE = 64;

constexpr int NOX_IP_ADDR_SIZE = 46;  // textual IPv6 address and terminator
constexpr int NOX_IFACE_NAME_SIZE = 16;
constexpr int NOX_MCCMNC_SIZE = 7;
constexpr int NOX_PKG_NAME_SIZE = 256;

struct NoxFeatureInfoType {
  int32_t featureId;
  int32_t featureStatus;
};

struct NoxFeatureRespType {
  int32_t featureId;
  int32_t featureStatus;
  int32_t resultCode;
};

struct _WlanInfo {
  int32_t type;
  int32_t status;
  int32_t softAp;
};

struct NoxWwanInfoType {
  int32_t type;
  int32_t status;
  int32_t nwType;
  int32_t roaming;
  int32_t apn;
  char ipV4[NOX_IP_ADDR_SIZE];
  char ifaceV4[NOX_IFACE_NAME_SIZE];
  char ipV6[NOX_IP_ADDR_SIZE];
  char ifaceV6[NOX_IFACE_NAME_SIZE];
  char mccmnc[NOX_MCCMNC_SIZE];
};

// One installed package.
struct NoxAppInfoType {
  char pkg_name[NOX_PKG_NAME_SIZE];
  uint32_t uid;
  char app_name[NOX_PKG_NAME_SIZE];
};

// Orders package entries by uid, unsigned ascending; equal uids keep arrival order.
struct NoxAppInfoUidLess {
  bool operator()(const NoxAppInfoType& a, const NoxAppInfoType& b) const { return a.uid < b.uid; }
};

struct NoxAppInfoMsgDataType {
  int32_t action;    // NoxPkgActionType
  uint16_t numApps;  // at most NOX_MAX_APPLIST_SIZE after decoding
  std::multiset<NoxAppInfoType, NoxAppInfoUidLess> apps;
};

struct NoxNsrmBlockedUidType {
  int32_t nsrmBlockeUid;
  int32_t isBlocked;
};

struct NoxPolicyUpdateRespType {
  int32_t policy;
  int32_t result;
};

#endif  // NOX_TYPES_H
