#ifndef NOX_UTILS_H
#define NOX_UTILS_H

#include <map>
#include <string>

// Client message ids. The numbering is deliberate and not alphabetical.
enum NoxMsgEnumType : int {
  NOX_D_REQ_REQUEST_GET_APP_INFO_LIST = 0,
  NOX_S_REQ_GET_FEATURE_STATUS = 1,
  NOX_S_RSP_GET_FEATURE_STATUS = 2,
  NOX_S_REQ_SET_FEATURE_PREF = 3,
  NOX_S_RESP_SET_FEATURE_PREF = 4,
  NOX_S_REQ_REFRESH_NSRM_CONFIG = 5,
  NOX_S_RSP_REFRESH_NSRM_CONFIG = 6,
  NOX_D_NOTIFY_NSRM_BLOCKED_UID = 7,
  NOX_S_NOTIFY_INIT_DONE = 8,
  NOX_S_NOTIFY_WLAN_STATE_CHG = 9,
  NOX_S_NOTIFY_WWAN_STATE_CHG = 10,
  NOX_S_NOTIFY_NSRM_BKG_EVT_STATE_CHG = 11,
  NOX_S_NOTIFY_APP_INFO_LIST_CHG = 12,
  NOX_S_NOTIFY_SCREEN_STATE_CHG = 13,
  NOX_S_NOTIFY_TETHERING_STATE_CHG = 14,
};

// Return codes; there is deliberately no 0, success is 1.
enum NoxRetType : int {
  NOX_RET_ERR_READING_FILE_STAT = -11,
  NOX_RET_PARSER_NO_MATCH = -10,
  NOX_RET_PARSER_VALIDATION_FAIL = -9,
  NOX_RET_PARSER_TRAVERSE_FAIL = -8,
  NOX_RET_PARSER_PARSE_FAIL = -7,
  NOX_RET_ERR_OPENING_FILE = -6,
  NOX_RET_INVALID_DATA = -5,
  NOX_RET_OUT_OF_MEM = -4,
  NOX_RET_ALREADY_EXISTS = -3,
  NOX_RET_NOT_ALLOWED_NOW = -2,
  NOX_RET_ERROR = -1,
  NOX_RET_OK = 1,
  NOX_RET_PARSER_MATCH = 2,
};

enum NoxRatType : int {
  NOX_RAT_WWAN = 0,
  NOX_RAT_WLAN = 1,
  NOX_RAT_ANY = 2,
  NOX_RAT_NONE = 3,
  NOX_RAT_INVALID = 4,
};

// Radio technology; the gap from 16 to 19 is deliberate.
enum NoxRatSubtype : int {
  NOX_RAT_SUBTYPE_UNKNOWN = 0,
  NOX_RAT_SUBTYPE_GPRS = 1,
  NOX_RAT_SUBTYPE_EDGE = 2,
  NOX_RAT_SUBTYPE_UMTS = 3,
  NOX_RAT_SUBTYPE_CDMA2000 = 4,
  NOX_RAT_SUBTYPE_EVDO_0 = 5,
  NOX_RAT_SUBTYPE_EVDO_A = 6,
  NOX_RAT_SUBTYPE_1XRTT = 7,
  NOX_RAT_SUBTYPE_HSDPA = 8,
  NOX_RAT_SUBTYPE_HSUPA = 9,
  NOX_RAT_SUBTYPE_HSPA = 10,
  NOX_RAT_SUBTYPE_IDEN = 11,
  NOX_RAT_SUBTYPE_EVDO_B = 12,
  NOX_RAT_SUBTYPE_LTE = 13,
  NOX_RAT_SUBTYPE_EHRPD = 14,
  NOX_RAT_SUBTYPE_HSPAP = 15,
  NOX_RAT_SUBTYPE_WLAN_B = 20,
  NOX_RAT_SUBTYPE_WLAN_G = 21,
};

enum NoxNetworkStateEnumType : int {
  NOX_NW_STATE_CONNECTING = 0,
  NOX_NW_STATE_CONNECTED = 1,
  NOX_NW_STATE_SUSPENDED = 2,
  NOX_NW_STATE_DISCONNECTING = 3,
  NOX_NW_STATE_DISCONNECTED = 4,
  NOX_NW_STATE_UNKNOWN = 5,
};

// Printable names of the shared enumerations, and the process-name lookup.
// Lookups never fail: an unknown value logs a debug line and yields "".
class NoxUtils {
 public:
  // Fills the five tables (insert-if-absent) and makes exitOutOfMemory the process's
  // new-handler. The daemon calls it once at start, before any other thread exists, so
  // that later lookups only read.
  static void init();

  static const char* getNoxMsgStr(NoxMsgEnumType v);
  static const char* getNoxRetTypeStr(NoxRetType v);
  static const char* getNoxRatStr(NoxRatType v);
  static const char* getNoxRatSubTypeStr(NoxRatSubtype v);
  static const char* getNoxNwStateStr(NoxNetworkStateEnumType v);

  // First bytes (at most 4) of /proc/<pid>/cmdline; false when it cannot be read.
  static bool GetAppName(int pid, std::string& name);

  // Allocation failure inside a container: prints "out of memory\n" on standard
  // output and exits with status 1.
  [[noreturn]] static void exitOutOfMemory();

  static const char* const EMPTY_STRING;
  static bool isInitNeeded;
  static std::map<NoxMsgEnumType, const char*> msg;
  static std::map<NoxNetworkStateEnumType, const char*> netState;
  static std::map<NoxRatType, const char*> ratType;
  static std::map<NoxRatSubtype, const char*> ratSubtype;
  static std::map<NoxRetType, const char*> retType;
};

#endif  // NOX_UTILS_H
