// Decodes arbitrary bytes as every client payload and checks what comes out.

#include <diag_channel.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "NoxLog.h"
#include "NoxParcel.h"

namespace {

void discardLine(const diag_msg_descriptor*, const char*) {}

// Decoding must leave every fixed-size field terminated inside its array.
template <size_t N>
void checkTerminated(const char (&field)[N]) {
  if (memchr(field, '\0', N) == nullptr) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = [] {
    msg_host_set_sink(discardLine);
    NoxLog::logLevel = NOX_LOG_VERBOSE;  // still format every line, over decoded text
    return true;
  }();
  (void)quiet;

  android::Parcel p;
  if (p.setData(data, size) != android::OK) return 0;

  std::vector<int> ints = {-1};
  NoxParcel::unparcel(p, ints);
  if (ints.size() > static_cast<size_t>(NOX_MAX_PARCEL_INTS)) abort();

  p.setDataPosition(0);
  _WlanInfo wlan;
  NoxParcel::unparcel(p, wlan);

  p.setDataPosition(0);
  NoxFeatureInfoType feature = {0, 0};
  NoxParcel::unparcel(p, feature);

  p.setDataPosition(0);
  NoxWwanInfoType wwan;
  memset(&wwan, 'x', sizeof(wwan));
  NoxParcel::unparcel(p, wwan);
  checkTerminated(wwan.ipV4);
  checkTerminated(wwan.ifaceV4);
  checkTerminated(wwan.ipV6);
  checkTerminated(wwan.ifaceV6);
  checkTerminated(wwan.mccmnc);

  p.setDataPosition(0);
  std::string text;
  NoxParcel::unparcel(p, text);

  p.setDataPosition(0);
  NoxAppInfoMsgDataType apps;
  NoxParcel::unparcel(p, apps);
  if (apps.numApps > NOX_MAX_APPLIST_SIZE || apps.apps.size() > apps.numApps) abort();
  uint32_t lastUid = 0;
  for (const NoxAppInfoType& a : apps.apps) {
    checkTerminated(a.pkg_name);
    checkTerminated(a.app_name);
    if (a.uid < lastUid) abort();
    lastUid = a.uid;
  }

  android::Parcel out;
  NoxParcel::parcel(apps, out);
  if (out.dataSize() != 4) abort();
  return 0;
}
