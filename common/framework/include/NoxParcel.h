#ifndef NOX_PARCEL_H
#define NOX_PARCEL_H

// Parcel encodings of the client payloads: what follows the message id and token.
// Stateless; called on the loop thread. Decoders never fail towards the caller: a
// short Parcel yields zeros, an over-long string an empty field, an over-long list
// is skipped or capped. Allocation failure exits the process (status 1).

#include <binder/Parcel.h>
#include <utils/String16.h>

#include <string>
#include <vector>

#include "NoxTypes.h"

namespace NoxParcel {

// int32 count n, then n int32s. n > NOX_MAX_PARCEL_INTS leaves `out` as it was and
// consumes only the count; otherwise `out` is replaced (emptied when n < 1).
void unparcel(const android::Parcel& p, std::vector<int>& out);
// type, status, softAp.
void unparcel(const android::Parcel& p, _WlanInfo& out);
// int32 count, featureId, then featureStatus only when the count is 2 or more
// (otherwise featureStatus keeps the caller's value).
void unparcel(const android::Parcel& p, NoxFeatureInfoType& out);
// Five int32s, then five strings into the fixed fields; a string that does not fit
// strictly (in UTF-16 units) leaves its field empty.
void unparcel(const android::Parcel& p, NoxWwanInfoType& out);
// One String16, converted to UTF-8.
void unparcel(const android::Parcel& p, std::string& out);
// action, count (low 16 bits, capped at NOX_MAX_APPLIST_SIZE), then per entry
// pkg_name, uid, app_name. Entries are added to out.apps, which is not emptied first.
void unparcel(const android::Parcel& p, NoxAppInfoMsgDataType& out);

// featureId, featureStatus: no count in front, unlike the decoder.
void parcel(const NoxFeatureInfoType& in, android::Parcel& p);
void parcel(const NoxFeatureRespType& in, android::Parcel& p);
void parcel(const NoxNsrmBlockedUidType& in, android::Parcel& p);
void parcel(const NoxPolicyUpdateRespType& in, android::Parcel& p);
// numApps as one int32 and nothing else: the peer reads only the count.
void parcel(const NoxAppInfoMsgDataType& in, android::Parcel& p);

// Writes the UTF-8 text `str` as a String16; null writes the null string.
void writeStringToParcel(android::Parcel& p, const char* str);
// Zero-fills dest[0..size) and fills it only when src has fewer than `size` units;
// the UTF-8 result is cut at size - 1 bytes, so dest is always terminated.
void from16to8(const android::String16& src, char* dest, int size);
// Whole-string conversion; empty when the conversion fails.
void from16to8(const android::String16& src, std::string& dest);

}  // namespace NoxParcel

#endif  // NOX_PARCEL_H
