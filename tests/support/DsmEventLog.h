#ifndef NOX_TESTS_DSMEVENTLOG_H
#define NOX_TESTS_DSMEVENTLOG_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "NoxDsm.h"

// Subscribes to every data-state event of one NoxDsm and records them in arrival order.
class DsmEventLog {
 public:
  explicit DsmEventLog(NoxDsm& dsm) : dsm_(dsm) {
    for (int e = 0; e <= kLast; ++e) dsm_.dispatcher.regEventCallback(NoxDsmEvent(e), record, this);
  }
  ~DsmEventLog() {
    for (int e = 0; e <= kLast; ++e)
      dsm_.dispatcher.deregEventCallback(NoxDsmEvent(e), record, this);
  }
  void clear() { ids.clear(), payloads.clear(); }
  // The payload of the event at `index`, as T.
  template <typename T>
  T at(size_t index) const {
    T value{};
    const bool found = index < ids.size() && payloads[index].size() == sizeof(T);
    EXPECT_TRUE(found) << "no event #" << index << " with a payload of " << sizeof(T) << " bytes";
    if (found) memcpy(&value, payloads[index].data(), sizeof(T));
    return value;
  }
  // The payload of the last event `id`, as T.
  template <typename T>
  T last(NoxDsmEvent id) const {
    return at<T>(static_cast<size_t>(ids.rend() - std::find(ids.rbegin(), ids.rend(), id)) - 1);
  }

  std::vector<NoxDsmEvent> ids;
  // Copies (a payload lives only during its dispatch); empty for a null payload.
  std::vector<std::vector<uint8_t>> payloads;

 private:
  static const int kLast = NOX_DSM_MCC_MNC_CHANGE_EVENT;
  static void record(NoxDsmEvent id, const void* data, void* self) {
    // clang-format off
    const size_t size[kLast + 1] = {sizeof(_WlanInfo), sizeof(_NoxDsmWwanIfaceInfoType),
                                    sizeof(_NoxDsmWwanApnInfoType), 4, 4, 4, 4, 0, NOX_MCCMNC_SIZE};
    // clang-format on
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    DsmEventLog* log = static_cast<DsmEventLog*>(self);
    log->ids.push_back(id);
    log->payloads.emplace_back(bytes, bytes ? bytes + size[id] : bytes);
  }

  NoxDsm& dsm_;
};

#endif  // NOX_TESTS_DSMEVENTLOG_H
