#ifndef NOX_DSM_TYPES_H
#define NOX_DSM_TYPES_H

// Payloads of the data-state events that separately built plug-ins read. Their byte
// layouts are fixed: change nothing here without rebuilding every plug-in.

#include <stddef.h>
#include <stdint.h>

// Payload of NOX_DSM_WWAN_INTERFACE_STATUS_CHANGE_EVENT. Texts are zero-terminated.
struct _NoxDsmWwanIfaceInfoType {
  int32_t status;  // NoxNetworkStateEnumType; 4 (disconnected) once the record is gone
  char ifaceName[16];
  char ipAddr[46];  // IPv4 address text, empty when there is none
  char ipAddrV6[46];
};

static_assert(offsetof(_NoxDsmWwanIfaceInfoType, status) == 0, "status");
static_assert(offsetof(_NoxDsmWwanIfaceInfoType, ifaceName) == 4, "ifaceName");
static_assert(offsetof(_NoxDsmWwanIfaceInfoType, ipAddr) == 20, "ipAddr");
static_assert(offsetof(_NoxDsmWwanIfaceInfoType, ipAddrV6) == 66, "ipAddrV6");
static_assert(sizeof(_NoxDsmWwanIfaceInfoType) == 112, "interface event payload");

// Payload of NOX_DSM_WWAN_APN_STATUS_CHANGE_EVENT; zero-filled before it is filled in.
struct _NoxDsmWwanApnInfoType {
  int32_t type;
  int32_t state;    // NoxNetworkStateEnumType
  int32_t roaming;  // always 0: never filled in
  int32_t apn;      // the last APN up on the interface; 9 when there is none
  int32_t nwType;   // NoxRatSubtype
  char ipAddr[46];  // at most 15 characters
  char iface[16];
  char ipAddrV6[46];
  char ifaceV6[16];
  char mccMnc[7];
};

static_assert(offsetof(_NoxDsmWwanApnInfoType, type) == 0, "type");
static_assert(offsetof(_NoxDsmWwanApnInfoType, state) == 4, "state");
static_assert(offsetof(_NoxDsmWwanApnInfoType, roaming) == 8, "roaming");
static_assert(offsetof(_NoxDsmWwanApnInfoType, apn) == 12, "apn");
static_assert(offsetof(_NoxDsmWwanApnInfoType, nwType) == 16, "nwType");
static_assert(offsetof(_NoxDsmWwanApnInfoType, ipAddr) == 20, "ipAddr");
static_assert(offsetof(_NoxDsmWwanApnInfoType, iface) == 66, "iface");
static_assert(offsetof(_NoxDsmWwanApnInfoType, ipAddrV6) == 82, "ipAddrV6");
static_assert(offsetof(_NoxDsmWwanApnInfoType, ifaceV6) == 128, "ifaceV6");
static_assert(offsetof(_NoxDsmWwanApnInfoType, mccMnc) == 144, "mccMnc");
static_assert(sizeof(_NoxDsmWwanApnInfoType) == 152, "APN event payload");

#endif  // NOX_DSM_TYPES_H
