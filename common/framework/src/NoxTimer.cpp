#include "NoxTimer.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "NoxLog.h"

namespace {

constexpr long kNanosPerSecond = 1000000000L;
constexpr int kLastTimerId = 0x7fffffff;  // never handed out: the id after 0x7ffffffe is 1

struct Description {
  char text[256];
};

// "(Epoch)" is printed although the clock is the boot-time clock; log readers expect it.
Description describe(const NoxTimer::TimedEvent& e) {
  Description d;
  snprintf(d.text, sizeof(d.text),
           "TimedEvent id:%d callback:%p data:%p delay:%ldms time: %ld.%06ld (Epoch)", e.id,
           reinterpret_cast<void*>(e.callback), e.data,
           static_cast<long>(static_cast<int32_t>(e.delay)), static_cast<long>(e.time.tv_sec),
           static_cast<long>(e.time.tv_nsec));
  return d;
}

}  // namespace

int (*NoxTimer::clockGetTime)(clockid_t, timespec*) = ::clock_gettime;

bool NoxTimer::TimedEventCmp::operator()(const TimedEvent& a, const TimedEvent& b) const {
  return cmpTimeSpec(a.time, b.time) > 0;
}

NoxTimer::NoxTimer(INoxTimerMonitor* monitor) : monitor(monitor), lastTimerId(0) {}

int NoxTimer::addTimedCallback(long long delayMs, TimedCallback callback, void* data) {
  if (callback == nullptr) {
    NOX_LOG(NOX_LOG_WARN, NOX_MOD_COM,
            "addTimedCallback failed; cannot have NULL callback function");
    return -1;
  }
  TimedEvent event{0, {}, callback, data, delayMs};
  if (clockGetTime(CLOCK_BOOTTIME, &event.time) != 0) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_COM, "addTimedCallback failed; clock_gettime(): %s",
            strerror(errno));
    return -1;
  }
  addDelayToTimeval(delayMs, event.time);
  event.id = getNextTimerId();
  events.push_back(event);
  std::push_heap(events.begin(), events.end(), TimedEventCmp());
  NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COM, "Adding timed callback - %s", describe(event).text);

  // The id is deliberately left out: an equal twin already at the top also wakes the loop.
  const TimedEvent& top = events.front();
  if (monitor != nullptr && cmpTimeSpec(top.time, event.time) == 0 && top.callback == callback &&
      top.data == data && top.delay == delayMs) {
    monitor->notifyDelayChange();
  }
  return event.id;
}

void NoxTimer::removeTimedCallback(int id) {
  std::vector<TimedEvent> kept;
  kept.reserve(events.size());
  while (!events.empty()) {
    std::pop_heap(events.begin(), events.end(), TimedEventCmp());
    const TimedEvent event = events.back();
    events.pop_back();
    if (event.id == id) {
      NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COM, "Removing timed callback - %s", describe(event).text);
      continue;
    }
    kept.push_back(event);
    std::push_heap(kept.begin(), kept.end(), TimedEventCmp());
  }
  events.swap(kept);
}

void NoxTimer::processEvents() {
  while (timeUntilNextEvent() == 0) {
    std::pop_heap(events.begin(), events.end(), TimedEventCmp());
    TimedEvent event = events.back();
    events.pop_back();
    NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COM, "Callback triggered - %s", describe(event).text);

    const int ret = event.callback(event.data);
    if (ret == -1) continue;
    if (clockGetTime(CLOCK_BOOTTIME, &event.time) != 0) {
      NOX_LOG(NOX_LOG_ERROR, NOX_MOD_COM, "timeUntilNextCallback failed; clock_gettime(): %s",
              strerror(errno));
      return;
    }
    if (ret > 0) {
      event.delay = ret;
    } else if (ret < 0) {
      NOX_LOG(NOX_LOG_WARN, NOX_MOD_COM, "Invalid delay (%lld), using %lld instead",
              static_cast<long long>(ret), event.delay);
    }
    addDelayToTimeval(event.delay, event.time);
    events.push_back(event);
    std::push_heap(events.begin(), events.end(), TimedEventCmp());
    NOX_LOG(NOX_LOG_VERBOSE, NOX_MOD_COM, "Re-entering timed callback - %s", describe(event).text);
  }
}

int NoxTimer::timeUntilNextEvent() const {
  if (events.empty()) return -1;
  timespec now;
  if (clockGetTime(CLOCK_BOOTTIME, &now) != 0) {
    NOX_LOG(NOX_LOG_ERROR, NOX_MOD_COM, "timeUntilNextCallback failed; clock_gettime(): %s",
            strerror(errno));
    return -1;
  }
  timespec diff;
  subTimeSpec(events.front().time, now, diff);
  if (diff.tv_sec < 0 || (diff.tv_sec == 0 && diff.tv_nsec <= 0)) return 0;
  return static_cast<int>(diff.tv_sec * 1000 + (diff.tv_nsec + 999999) / 1000000);
}

int NoxTimer::getNextTimerId() {
  int id = lastTimerId + 1;
  if (id == kLastTimerId) id = 1;
  lastTimerId = id;
  return id;
}

void NoxTimer::log() const {
  NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_COM, "NoxTimer *******************************************");
  NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_COM, "    items queued: %zu", events.size());
  NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_COM, "    next item in: %dms", timeUntilNextEvent());
}

// Deliberate: the seconds use only the delay's low 32 bits and negative results are
// left unnormalised; due times and the logged descriptions depend on this arithmetic.
void NoxTimer::addDelayToTimeval(long long delayMs, timespec& t) {
  t.tv_sec += static_cast<int32_t>(delayMs) / 1000;
  t.tv_nsec += (delayMs % 1000) * 1000000;
  if (t.tv_nsec >= kNanosPerSecond) {
    t.tv_sec += 1;
    t.tv_nsec -= kNanosPerSecond;
  }
}

bool NoxTimer::addTimeSpec(const timespec& a, const timespec& b, timespec& out) {
  out.tv_sec = a.tv_sec + b.tv_sec;
  out.tv_nsec = a.tv_nsec + b.tv_nsec;
  if (out.tv_nsec >= kNanosPerSecond) {
    out.tv_sec += 1;
    out.tv_nsec -= kNanosPerSecond;
  }
  return true;
}

bool NoxTimer::subTimeSpec(const timespec& a, const timespec& b, timespec& out) {
  out.tv_sec = a.tv_sec - b.tv_sec;
  out.tv_nsec = a.tv_nsec - b.tv_nsec;
  if (out.tv_nsec < 0) {
    out.tv_sec -= 1;
    out.tv_nsec += kNanosPerSecond;
  }
  return true;
}

int NoxTimer::cmpTimeSpec(const timespec& a, const timespec& b) {
  if (a.tv_sec != b.tv_sec) return a.tv_sec < b.tv_sec ? -1 : 1;
  if (a.tv_nsec != b.tv_nsec) return a.tv_nsec < b.tv_nsec ? -1 : 1;
  return 0;
}
