#include "NoxParcel.h"

#include <cutils/jstring.h>

#include <cstdlib>
#include <cstring>
#include <new>

#include "NoxLog.h"
#include "NoxUtils.h"

using android::Parcel;
using android::String16;

namespace NoxParcel {

void unparcel(const Parcel& p, std::vector<int>& out) {
  const int32_t n = p.readInt32();
  if (n > NOX_MAX_PARCEL_INTS) {
    NOX_LOG(NOX_LOG_INFO, NOX_MOD_COM, "Parcel ints %d greater than allowed %d", n,
            NOX_MAX_PARCEL_INTS);
    return;
  }
  out.clear();
  if (n < 1) return;
  try {
    out.reserve(n);
  } catch (const std::bad_alloc&) {
    NoxUtils::exitOutOfMemory();
  }
  for (int32_t i = 0; i < n; ++i) out.push_back(p.readInt32());
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COM, "      data: %d ints", static_cast<int>(out.size()));
}

void unparcel(const Parcel& p, _WlanInfo& out) {
  out.type = p.readInt32();
  out.status = p.readInt32();
  out.softAp = p.readInt32();
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COM, "      data: type:%d status:%d softAp: %d", out.type,
          out.status, out.softAp);
}

void unparcel(const Parcel& p, NoxFeatureInfoType& out) {
  const int32_t count = p.readInt32();
  out.featureId = p.readInt32();
  if (count < 2) {
    NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COM, "      data: featureId:%d", out.featureId);
    return;
  }
  out.featureStatus = p.readInt32();
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COM, "      data: feature id: %d, feature status: %d",
          out.featureId, out.featureStatus);
}

void unparcel(const Parcel& p, NoxWwanInfoType& out) {
  out.type = p.readInt32();
  out.status = p.readInt32();
  out.nwType = p.readInt32();
  out.roaming = p.readInt32();
  out.apn = p.readInt32();
  from16to8(p.readString16(), out.ipV4, sizeof(out.ipV4));
  from16to8(p.readString16(), out.ifaceV4, sizeof(out.ifaceV4));
  from16to8(p.readString16(), out.ipV6, sizeof(out.ipV6));
  from16to8(p.readString16(), out.ifaceV6, sizeof(out.ifaceV6));
  from16to8(p.readString16(), out.mccmnc, sizeof(out.mccmnc));
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COM,
          "     data: type:%d status:%d nwType:%d roaming:%d apn:%d ipV4:%s ifaceV4:%s ipV6:%s "
          "ifaceV6:%s mccmnc = %s",
          out.type, out.status, out.nwType, out.roaming, out.apn, out.ipV4, out.ifaceV4, out.ipV6,
          out.ifaceV6, out.mccmnc);
}

void unparcel(const Parcel& p, std::string& out) {
  from16to8(p.readString16(), out);
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COM, "      data: string='%s'", out.c_str());
}

void unparcel(const Parcel& p, NoxAppInfoMsgDataType& out) {
  out.action = p.readInt32();
  // Only the low 16 bits of the count are kept: 65537 announces one entry.
  out.numApps = static_cast<uint16_t>(p.readInt32());
  if (out.numApps > NOX_MAX_APPLIST_SIZE) {
    NOX_LOG(NOX_LOG_WARN, NOX_MOD_COM,
            "API info results (%d) is greater than NOX_MAX_APPLIST_SIZE (%d)", out.numApps,
            NOX_MAX_APPLIST_SIZE);
    out.numApps = NOX_MAX_APPLIST_SIZE;
  }
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COM, "      data: App info for %d applications", out.numApps);
  for (int i = 0; i < out.numApps; ++i) {
    NoxAppInfoType entry;
    from16to8(p.readString16(), entry.pkg_name, sizeof(entry.pkg_name));
    entry.uid = static_cast<uint32_t>(p.readInt32());
    from16to8(p.readString16(), entry.app_name, sizeof(entry.app_name));
    try {
      out.apps.insert(entry);  // after any equal uid already present
    } catch (const std::bad_alloc&) {
      NoxUtils::exitOutOfMemory();
    }
  }
}

void parcel(const NoxFeatureInfoType& in, Parcel& p) {
  p.writeInt32(in.featureId);
  p.writeInt32(in.featureStatus);
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COM, "parceled: feature id: %d, feature status: %d",
          in.featureId, in.featureStatus);
}

void parcel(const NoxFeatureRespType& in, Parcel& p) {
  p.writeInt32(in.featureId);
  p.writeInt32(in.featureStatus);
  p.writeInt32(in.resultCode);
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COM,
          "parceled: feature id: %d, feature status: %d, result code: %d", in.featureId,
          in.featureStatus, in.resultCode);
}

void parcel(const NoxNsrmBlockedUidType& in, Parcel& p) {
  p.writeInt32(in.nsrmBlockeUid);
  p.writeInt32(in.isBlocked);
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COM, "  parceled: nsrmBlockeUid:%d isBlocked:%d",
          in.nsrmBlockeUid, in.isBlocked);
}

void parcel(const NoxPolicyUpdateRespType& in, Parcel& p) {
  p.writeInt32(in.policy);
  p.writeInt32(in.result);
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COM, "  parceled: PolicyUpdateResp policy:%d result:%d",
          in.policy, in.result);
}

void parcel(const NoxAppInfoMsgDataType& in, Parcel& p) {
  p.writeInt32(in.numApps);
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COM, "      parceled: num of apps:%d", in.numApps);
}

void writeStringToParcel(Parcel& p, const char* str) {
  size_t len = 0;  // a null str converts to null, which writes the null string
  char16_t* s16 = strdup8to16(str, &len);
  p.writeString16(s16, len);
  free(s16);
}

void from16to8(const String16& src, char* dest, int size) {
  if (size > 0) memset(dest, 0, size);
  const int len = static_cast<int>(src.size());
  if (size <= len) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_COM, "source (length: %d) is longer than dest (length: %d)",
            len, size);
    return;
  }
  char* s8 = strndup16to8(src.string(), src.size());
  if (s8 == nullptr) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_COM, "NoxParcel::from16to8() strndup16to8() returned NULL");
    return;
  }
  // Non-ASCII text can need more bytes than units; cut it to the field.
  const size_t n = strnlen(s8, size - 1);
  memcpy(dest, s8, n);
  free(s8);
}

void from16to8(const String16& src, std::string& dest) {
  char* s8 = strndup16to8(src.string(), src.size());
  if (s8 == nullptr) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_COM, "NoxParcel::from16to8() strndup16to8() returned NULL");
    dest.clear();
    return;
  }
  dest = s8;
  free(s8);
}

}  // namespace NoxParcel
