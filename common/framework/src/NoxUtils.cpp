#include "NoxUtils.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "NoxLog.h"

const char* const NoxUtils::EMPTY_STRING = "";
bool NoxUtils::isInitNeeded = true;
std::map<NoxMsgEnumType, const char*> NoxUtils::msg;
std::map<NoxNetworkStateEnumType, const char*> NoxUtils::netState;
std::map<NoxRatType, const char*> NoxUtils::ratType;
std::map<NoxRatSubtype, const char*> NoxUtils::ratSubtype;
std::map<NoxRetType, const char*> NoxUtils::retType;

namespace {

template <typename E>
const char* lookup(const std::map<E, const char*>& table, E v, const char* missFormat) {
  if (NoxUtils::isInitNeeded) NoxUtils::init();
  auto it = table.find(v);
  if (it != table.end()) return it->second;
  NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_GENERIC, missFormat, static_cast<int>(v));
  return NoxUtils::EMPTY_STRING;
}

}  // namespace

void NoxUtils::init() {
  isInitNeeded = false;
  // Every allocation that fails, in a container or not, ends the same way.
  std::set_new_handler(exitOutOfMemory);

  msg.insert({
      {NOX_D_REQ_REQUEST_GET_APP_INFO_LIST, "NOX_D_REQ_REQUEST_GET_APP_INFO_LIST"},
      {NOX_S_REQ_GET_FEATURE_STATUS, "NOX_S_REQ_GET_FEATURE_STATUS"},
      {NOX_S_RSP_GET_FEATURE_STATUS, "NOX_S_RSP_GET_FEATURE_STATUS"},
      {NOX_S_REQ_SET_FEATURE_PREF, "NOX_S_REQ_SET_FEATURE_PREF"},
      {NOX_S_RESP_SET_FEATURE_PREF, "NOX_S_RESP_SET_FEATURE_PREF"},
      {NOX_S_REQ_REFRESH_NSRM_CONFIG, "NOX_S_REQ_REFRESH_NSRM_CONFIG"},
      {NOX_S_RSP_REFRESH_NSRM_CONFIG, "NOX_S_RSP_REFRESH_NSRM_CONFIG"},
      {NOX_D_NOTIFY_NSRM_BLOCKED_UID, "NOX_D_NOTIFY_NSRM_BLOCKED_UID"},
      {NOX_S_NOTIFY_INIT_DONE, "NOX_S_NOTIFY_INIT_DONE"},
      {NOX_S_NOTIFY_WLAN_STATE_CHG, "NOX_S_NOTIFY_WLAN_STATE_CHG"},
      {NOX_S_NOTIFY_WWAN_STATE_CHG, "NOX_S_NOTIFY_WWAN_STATE_CHG"},
      {NOX_S_NOTIFY_NSRM_BKG_EVT_STATE_CHG, "NOX_S_NOTIFY_NSRM_BKG_EVT_STATE_CHG"},
      {NOX_S_NOTIFY_APP_INFO_LIST_CHG, "NOX_S_NOTIFY_APP_INFO_LIST_CHG"},
      {NOX_S_NOTIFY_SCREEN_STATE_CHG, "NOX_S_NOTIFY_SCREEN_STATE_CHG"},
      {NOX_S_NOTIFY_TETHERING_STATE_CHG, "NOX_S_NOTIFY_TETHERING_STATE_CHG"},
  });

  retType.insert({
      {NOX_RET_ERR_READING_FILE_STAT, "NOX_RET_ERR_READING_FILE_STAT"},
      {NOX_RET_PARSER_NO_MATCH, "NOX_RET_PARSER_NO_MATCH"},
      {NOX_RET_PARSER_VALIDATION_FAIL, "NOX_RET_PARSER_VALIDATION_FAIL"},
      {NOX_RET_PARSER_TRAVERSE_FAIL, "NOX_RET_PARSER_TRAVERSE_FAIL"},
      {NOX_RET_PARSER_PARSE_FAIL, "NOX_RET_PARSER_PARSE_FAIL"},
      {NOX_RET_ERR_OPENING_FILE, "NOX_RET_ERR_OPENING_FILE"},
      {NOX_RET_INVALID_DATA, "NOX_RET_INVALID_DATA"},
      {NOX_RET_OUT_OF_MEM, "NOX_RET_OUT_OF_MEM"},
      {NOX_RET_ALREADY_EXISTS, "NOX_RET_ALREADY_EXISTS"},
      {NOX_RET_NOT_ALLOWED_NOW, "NOX_RET_NOT_ALLOWED_NOW"},
      {NOX_RET_ERROR, "NOX_RET_ERROR"},
      {NOX_RET_OK, "NOX_RET_OK"},
      {NOX_RET_PARSER_MATCH, "NOX_RET_PARSER_MATCH"},
  });

  ratType.insert({
      {NOX_RAT_WWAN, "rat_wwan"},
      {NOX_RAT_WLAN, "rat_wlan"},
      {NOX_RAT_ANY, "rat_any"},
      {NOX_RAT_NONE, "rat_none"},
      {NOX_RAT_INVALID, "rat_invalid"},
  });

  ratSubtype.insert({
      {NOX_RAT_SUBTYPE_UNKNOWN, "UNKNOWN"}, {NOX_RAT_SUBTYPE_GPRS, "GPRS"},
      {NOX_RAT_SUBTYPE_EDGE, "EDGE"},       {NOX_RAT_SUBTYPE_UMTS, "UMTS"},
      {NOX_RAT_SUBTYPE_CDMA2000, "CDMA2000"}, {NOX_RAT_SUBTYPE_EVDO_0, "EVDO_0"},
      {NOX_RAT_SUBTYPE_EVDO_A, "EVDO_A"},   {NOX_RAT_SUBTYPE_1XRTT, "1xRTT"},
      {NOX_RAT_SUBTYPE_HSDPA, "HSDPA"},     {NOX_RAT_SUBTYPE_HSUPA, "HSUPA"},
      {NOX_RAT_SUBTYPE_HSPA, "HSPA"},       {NOX_RAT_SUBTYPE_IDEN, "IDEN"},
      {NOX_RAT_SUBTYPE_EVDO_B, "EVDO_B"},   {NOX_RAT_SUBTYPE_LTE, "LTE"},
      {NOX_RAT_SUBTYPE_EHRPD, "EHRPD"},     {NOX_RAT_SUBTYPE_HSPAP, "HSPAP"},
      {NOX_RAT_SUBTYPE_WLAN_B, "WLAN_B"},   {NOX_RAT_SUBTYPE_WLAN_G, "WLAN_G"},
  });

  netState.insert({
      {NOX_NW_STATE_CONNECTING, "connecting"},
      {NOX_NW_STATE_CONNECTED, "connected"},
      {NOX_NW_STATE_SUSPENDED, "suspended"},
      {NOX_NW_STATE_DISCONNECTING, "disconnecting"},
      {NOX_NW_STATE_DISCONNECTED, "disconnected"},
      {NOX_NW_STATE_UNKNOWN, "unknown or invalid"},
  });
}

const char* NoxUtils::getNoxMsgStr(NoxMsgEnumType v) {
  return lookup(msg, v, "nox_msg_enum_type=%d string value is not known");
}

const char* NoxUtils::getNoxRetTypeStr(NoxRetType v) {
  return lookup(retType, v, "NoxRetType=%d string value is not known");
}

const char* NoxUtils::getNoxRatStr(NoxRatType v) {
  return lookup(ratType, v, "nox_rat_type=%d string value is not known");
}

const char* NoxUtils::getNoxRatSubTypeStr(NoxRatSubtype v) {
  return lookup(ratSubtype, v, "nox_rat_subtype=%d string value is not known");
}

const char* NoxUtils::getNoxNwStateStr(NoxNetworkStateEnumType v) {
  return lookup(netState, v, "nox_network_state_enum_type=%d string value is not known");
}

bool NoxUtils::GetAppName(int pid, std::string& name) {
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_GENERIC, "%s:%d", "common/framework/src/NoxUtils", 281);
  char buf[1025] = {};
  if (snprintf(buf, sizeof(buf), "/proc/%d/cmdline", pid) < 1) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_GENERIC, "Unable to format /proc/<PID>/comm for pid %d: %s", pid,
            strerror(errno));
    return false;
  }
  const int fd = open(buf, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_GENERIC, "Unable to open %s to get command name: %s", buf,
            strerror(errno));
    return false;
  }
  // Deliberately reads only 4 bytes: the name is the head of the command line,
  // and admission by name compares against exactly that.
  const ssize_t n = read(fd, buf, 4);
  if (n < 1) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_GENERIC, "Unable to read command name from %s: %s", buf,
            strerror(errno));
    close(fd);
    return false;
  }
  buf[n] = '\0';
  name = buf;
  close(fd);
  NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_GENERIC, "Found appName=%s", name.c_str());
  return true;
}

void NoxUtils::exitOutOfMemory() {
  fputs("out of memory\n", stdout);
  fflush(stdout);
  exit(1);
}
