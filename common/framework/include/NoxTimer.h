#ifndef NOX_TIMER_H
#define NOX_TIMER_H

#include <time.h>

#include <vector>

// The timer's owner. Called on the loop thread when a newly added callback
// becomes the earliest one, so that a wait with a longer timeout can be ended.
class INoxTimerMonitor {
 public:
  virtual void notifyDelayChange() = 0;
  virtual ~INoxTimerMonitor() = default;
};

// Pending timed callbacks on the boot-time clock, kept in a min-heap by due time.
// Single-threaded: every operation runs on the loop thread; there is no lock.
class NoxTimer {
 public:
  // Returns -1 when done, 0 to re-arm with the same delay, > 0 to re-arm with that
  // many milliseconds (which becomes the stored delay).
  typedef int (*TimedCallback)(void* data);

  struct TimedEvent {
    int id;
    timespec time;  // absolute due time on CLOCK_BOOTTIME
    TimedCallback callback;
    void* data;
    long long delay;  // ms that set the current due time
  };

  // Orders the heap so that its top is the earliest due event; ties are unordered.
  struct TimedEventCmp {
    bool operator()(const TimedEvent& a, const TimedEvent& b) const;
  };

  // `monitor` (may be null) is borrowed and must outlive the timer.
  explicit NoxTimer(INoxTimerMonitor* monitor);

  // Schedules `callback(data)` `delayMs` from now (zero or negative: due at once).
  // Returns its id, or -1 for a null callback or an unreadable clock. Notifies the
  // monitor when the new event is the earliest.
  int addTimedCallback(long long delayMs, TimedCallback callback, void* data);
  // Drops every pending event with this id; the monitor is not told. A callback
  // that is running is not pending, so it cannot cancel its own re-arming.
  void removeTimedCallback(int id);
  // Runs every due callback (including ones added or re-armed due meanwhile) and
  // re-arms each by its return value; returns once the earliest event is in the future.
  void processEvents();
  // Milliseconds until the earliest due time, rounded up; 0 when due; -1 when
  // nothing is pending or the clock cannot be read. Usable as an epoll timeout.
  int timeUntilNextEvent() const;
  // Next id: 1, 2, ..., 0x7ffffffe, then 1 again; never checked against pending ids.
  int getNextTimerId();
  // Writes the queue length and the time to the next event at debug level.
  void log() const;

  // Adds a millisecond delay to `t` in place (the seconds take the delay's low 32
  // bits; negative results are not normalised).
  void addDelayToTimeval(long long delayMs, timespec& t);
  // out = a + b and out = a - b, with one carry or borrow; both return true.
  static bool addTimeSpec(const timespec& a, const timespec& b, timespec& out);
  static bool subTimeSpec(const timespec& a, const timespec& b, timespec& out);
  // -1, 0 or 1, by seconds then nanoseconds.
  static int cmpTimeSpec(const timespec& a, const timespec& b);

  // Clock reader, ::clock_gettime unless a test substitutes a fake clock.
  static int (*clockGetTime)(clockid_t clockId, timespec* now);

 protected:
  std::vector<TimedEvent> events;
  INoxTimerMonitor* monitor;
  int lastTimerId;
};

#endif  // NOX_TIMER_H
