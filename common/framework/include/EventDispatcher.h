#ifndef NOX_EVENT_DISPATCHER_H
#define NOX_EVENT_DISPATCHER_H

#include <cstdio>
#include <cstdlib>
#include <map>
#include <new>

// Ordered registry from event id to callbacks. Handlers of one id run in
// registration order; a handler may register and deregister handlers (itself
// included) while a dispatch is running. Loop thread only, no lock.
template <typename T>
class EventDispatcher {
 public:
  typedef void (*Callback)(T id, const void* data, void* userData);

  struct cbentry {
    Callback cb;
    void* userData;
    int state;  // 0 idle, 1 being called, 2 removed while being called
  };

  EventDispatcher() = default;
  EventDispatcher(const EventDispatcher&) = delete;
  EventDispatcher& operator=(const EventDispatcher&) = delete;
  ~EventDispatcher() {
    for (auto& entry : registry) delete entry.second;
  }

  // Appends (cb, userData) after the handlers already registered for `id`.
  // Duplicates are not checked: a pair registered twice runs twice.
  void regEventCallback(T id, Callback cb, void* userData) {
    cbentry* entry = new (std::nothrow) cbentry{cb, userData, 0};
    if (entry == nullptr) outOfMemory();
    try {
      registry.insert(typename Registry::value_type(id, entry));  // after equal keys
    } catch (const std::bad_alloc&) {
      outOfMemory();
    }
    changed = true;
  }

  // Removes the first entry matching (cb, userData) under `id`. An entry being
  // called is only marked; the dispatch that is calling it frees it.
  void deregEventCallback(T id, Callback cb, void* userData) {
    auto range = registry.equal_range(id);
    for (auto it = range.first; it != range.second; ++it) {
      cbentry* entry = it->second;
      if (entry->cb != cb || entry->userData != userData) continue;
      if (entry->state == 0) {
        delete entry;
        registry.erase(it);
        changed = true;
      } else if (entry->state == 1) {
        entry->state = 2;
      }
      return;
    }
  }

  // Calls every handler registered for `id` with `data`, in registration order.
  // Handlers registered for `id` during the dispatch are called in it too.
  void dispatchEvent(T id, const void* data) {
    auto it = registry.lower_bound(id);
    auto end = registry.upper_bound(id);
    changed = false;
    while (it != end) {
      cbentry* entry = it->second;
      // A nested dispatch leaves an entry that an outer one is calling to that outer one.
      const bool ours = entry->state == 0;
      if (ours) entry->state = 1;
      entry->cb(id, data, entry->userData);
      // The range end is recomputed after every call: a nested dispatch may have
      // cleared the changed flag after the registry did change.
      end = registry.upper_bound(id);
      if (!ours) {
        ++it;
      } else if (entry->state == 2) {
        delete entry;
        it = registry.erase(it);
      } else {
        entry->state = 0;
        ++it;
      }
    }
  }

  // Number of entries registered for `id` (removed-while-running ones included).
  size_t count(T id) const { return registry.count(id); }

 private:
  typedef std::multimap<T, cbentry*> Registry;

  [[noreturn]] static void outOfMemory() {
    printf("out of memory\n");
    exit(1);
  }

  Registry registry;
  bool changed = false;
};

#endif  // NOX_EVENT_DISPATCHER_H
