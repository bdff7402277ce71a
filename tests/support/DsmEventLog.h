#ifndef NOX_TESTS_DSMEVENTLOG_H
#define NOX_TESTS_DSMEVENTLOG_H

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "NoxDsm.h"

// Subscribes to every data-state event of one NoxDsm and keeps a copy of each payload,
// in arrival order (a payload lives only during its dispatch).
class DsmEventLog {
 public:
  struct Event {
    NoxDsmEvent id;
    std::vector<uint8_t> payload;  // empty for a null payload
    template <typename T>
    T as() const {
      T value{};
      if (payload.size() != sizeof(T))
        ADD_FAILURE() << "event " << id << " payload size";
      else
        memcpy(&value, payload.data(), sizeof(T));
      return value;
    }
  };

  explicit DsmEventLog(NoxDsm& dsm) : dsm_(dsm) {
    for (int e = 0; e <= kLast; ++e) dsm_.dispatcher.regEventCallback(NoxDsmEvent(e), record, this);
  }
  ~DsmEventLog() {
    for (int e = 0; e <= kLast; ++e)
      dsm_.dispatcher.deregEventCallback(NoxDsmEvent(e), record, this);
  }

  std::vector<NoxDsmEvent> ids() const {
    std::vector<NoxDsmEvent> out;
    for (const Event& e : events) out.push_back(e.id);
    return out;
  }
  // The payload of the last event `id`, as T.
  template <typename T>
  T last(NoxDsmEvent id) const {
    for (auto it = events.rbegin(); it != events.rend(); ++it)
      if (it->id == id) return it->template as<T>();
    ADD_FAILURE() << "no event " << id;
    return T{};
  }

  std::vector<Event> events;

 private:
  static const int kLast = NOX_DSM_MCC_MNC_CHANGE_EVENT;

  static void record(NoxDsmEvent id, const void* data, void* self) {
    static const size_t kSizes[kLast + 1] = {sizeof(_WlanInfo),
                                             sizeof(_NoxDsmWwanIfaceInfoType),
                                             sizeof(_NoxDsmWwanApnInfoType),
                                             4,
                                             4,
                                             4,
                                             4,
                                             0,
                                             NOX_MCCMNC_SIZE};
    Event e{id, {}};
    if (data != nullptr) {
      const uint8_t* bytes = static_cast<const uint8_t*>(data);
      e.payload.assign(bytes, bytes + kSizes[id]);
    }
    static_cast<DsmEventLog*>(self)->events.push_back(e);
  }

  NoxDsm& dsm_;
};

#endif  // NOX_TESTS_DSMEVENTLOG_H
