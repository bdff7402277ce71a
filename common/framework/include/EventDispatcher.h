#ifndef NOX_EVENT_DISPATCHER_H
#define NOX_EVENT_DISPATCHER_H

#include <cstdio>
#include <cstdlib>
#include <list>
#include <map>
#include <memory>
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
    for (int n = 0; direct_ && n < kDirectIds; ++n)
      for (cbentry* entry : direct_[n]) delete entry;
    for (auto& id : others_)
      for (cbentry* entry : id.second) delete entry;
  }

  // Appends (cb, userData) after the handlers already registered for `id`.
  // Duplicates are not checked: a pair registered twice runs twice.
  void regEventCallback(T id, Callback cb, void* userData) {
    cbentry* entry = new (std::nothrow) cbentry{cb, userData, 0};
    if (entry == nullptr) outOfMemory();
    try {
      entries(id, true)->push_back(entry);
    } catch (const std::bad_alloc&) {
      outOfMemory();
    }
  }

  // Removes the first entry matching (cb, userData) under `id`. An entry being
  // called is only marked; the dispatch that is calling it frees it.
  void deregEventCallback(T id, Callback cb, void* userData) {
    Entries* list = entries(id, false);
    if (list == nullptr) return;
    for (auto it = list->begin(); it != list->end(); ++it) {
      cbentry* entry = *it;
      if (entry->cb != cb || entry->userData != userData) continue;
      if (entry->state == 0) {
        delete entry;
        list->erase(it);
      } else if (entry->state == 1) {
        entry->state = 2;
      }
      return;
    }
  }

  // Calls every handler registered for `id` with `data`, in registration order.
  // Handlers registered for `id` during the dispatch are called in it too.
  void dispatchEvent(T id, const void* data) {
    Entries* list = entries(id, false);
    if (list == nullptr) return;
    // A list never moves, and erasing another entry leaves `it` valid.
    for (auto it = list->begin(); it != list->end();) {
      cbentry* entry = *it;
      // A nested dispatch leaves an entry that an outer one is calling to that outer one.
      const bool ours = entry->state == 0;
      if (ours) entry->state = 1;
      entry->cb(id, data, entry->userData);
      if (!ours) {
        ++it;
      } else if (entry->state == 2) {
        delete entry;
        it = list->erase(it);
      } else {
        entry->state = 0;
        ++it;
      }
    }
  }

  // Number of entries registered for `id` (removed-while-running ones included).
  size_t count(T id) const {
    const Entries* list = const_cast<EventDispatcher*>(this)->entries(id, false);
    return list != nullptr ? list->size() : 0;
  }

 private:
  typedef std::list<cbentry*> Entries;
  // The framework's ids are small numbers: those index an array, found in one step on
  // every dispatch; any other id has a node of its own.
  static constexpr int kDirectIds = 32;

  Entries* entries(T id, bool create) {
    const long n = static_cast<long>(id);
    if (n >= 0 && n < kDirectIds) {
      if (!direct_) {
        if (!create) return nullptr;
        direct_.reset(new Entries[kDirectIds]);
      }
      return &direct_[n];
    }
    const auto it = others_.find(id);
    if (it != others_.end()) return &it->second;
    return create ? &others_[id] : nullptr;
  }

  [[noreturn]] static void outOfMemory() {
    printf("out of memory\n");
    exit(1);
  }

  std::unique_ptr<Entries[]> direct_;
  std::map<T, Entries> others_;
};

#endif  // NOX_EVENT_DISPATCHER_H
