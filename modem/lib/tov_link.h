#ifndef TOV_LINK_H
#define TOV_LINK_H

// The host library's one connection to the modem simulator, and its thread. Internal
// to the library.

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tov_wire.h"

namespace tovhost {

// What a call came back with. kRefused: made on the library's own thread, which is the
// one that would read its answer.
enum CallStatus { kAnswered, kTimedOut, kBroken, kRefused };

// A library client: its id at the simulator, the connection it lives on, and what its
// indications are delivered to (on the library's thread).
struct Client {
  uint32_t simId = 0;
  uint64_t connection = 0;
  // Called with the indication's body after the client id; set by the service.
  std::function<void(int handle, uint16_t kind, tovwire::Reader& body)> deliver;
};

// A client start: the answer "rc err u32 id" registers `client` on the library's thread
// as it arrives, before any indication behind it is read. `published` is then called
// with the new handle, still before the caller is woken. When the caller has given up
// waiting, the started client is released at once with `releaseKind` instead.
struct Start {
  Client client;
  uint16_t releaseKind = 0;
  std::function<void(int handle)> published;
  int handle = 0;  // set when registered
};

class Link {
 public:
  static Link& instance();

  // Connects when there is no connection and none is being re-established. False when
  // the simulator cannot be reached (said once on stderr, until it is reached).
  bool connect();
  // Closes the connection once nothing is started on it any more.
  void disconnectIfUnused();

  // Sends a request and waits for its answer body; the whole call, the send included,
  // takes at most `timeoutMs`. A frame that cannot be sent whole in time ends the
  // connection (a stream cut mid-frame cannot go on), which is then re-established.
  CallStatus call(uint16_t kind, const tovwire::Writer& body, unsigned timeoutMs,
                  std::vector<uint8_t>* answer, Start* start = nullptr);
  // Sends a request without waiting for its answer, which is dropped.
  void post(uint16_t kind, const tovwire::Writer& body);
  // True on the library's own thread (its callbacks run there).
  static bool onLibraryThread();

  // Library starts (tov_init handles) and their system-event handlers.
  int addStart(std::function<void(uint32_t event, uint32_t restarts)> handler);
  bool removeStart(int handle);
  // A control channel was opened on `port`: it is opened again after a modem restart.
  void addChannel(const std::string& port);

  // The client's simulator id; false when the handle is unknown. `live` tells whether
  // it still belongs to the current connection. Handles are > 0 and never reused
  // while the process lives.
  bool clientId(int handle, uint32_t* simId, bool* live);
  // Forgets the client and returns once none of its callbacks is running (unless
  // called from one). False when the handle is unknown.
  bool removeClient(int handle);
  bool isClient(int handle);

 private:
  struct Pending {
    bool done = false;
    bool broken = false;
    bool abandoned = false;  // its caller timed out; only a start is kept for its answer
    std::vector<uint8_t> body;
    Start* start = nullptr;  // the caller's, valid while it waits
    uint16_t releaseKind = 0;
  };
  enum SendResult { kSent, kUnsent, kCut, kFailed };

  Link() = default;
  // The library's thread: reads one connection after the other until closed.
  void run(int fd, uint64_t connection);
  void readLoop(int fd);
  // Handles one frame from the modem; `replies` collects what must be posted back.
  void dispatch(const tovwire::Header& header, std::vector<uint8_t>& body,
                std::vector<std::pair<uint16_t, tovwire::Writer>>& replies);
  // The connection ended: fails its calls, closes `fd` and tells the starts. True when
  // the thread should wait for the modem to come back.
  bool lost(int fd, uint64_t connection);
  // True when this thread is no longer the library's current one, or is being ended.
  bool retiredLocked() const;
  // Connects again, with a growing pause between attempts, until connected (true) or
  // closed (false).
  bool reconnect(int* fd, uint64_t* connection);
  // Tells a modem that came back what this process had started and opened.
  void restore(bool hello);
  SendResult send(const std::vector<uint8_t>& frame,
                  std::chrono::steady_clock::time_point deadline);
  // Calls every start's system-event handler, one after the other.
  void deliverSysEvent(uint32_t event, std::unique_lock<std::mutex>& lock);
  void shutdownLocked(std::unique_lock<std::mutex>& lock);
  // Runs `fn` as the callback of `id` (a client handle, or -start handle), so that its
  // removal can wait for it.
  void runCallback(int id, const std::function<void()>& fn, std::unique_lock<std::mutex>& lock);
  void waitIdle(int id, std::unique_lock<std::mutex>& lock);
  uint32_t nextSeqLocked();

  std::mutex connectMu_;  // one connect or disconnect at a time; taken before mu_
  std::mutex mu_;
  std::condition_variable cv_;
  bool writing_ = false;  // one frame written at a time
  int fd_ = -1;  // owned by the library's thread, which closes it when nobody is writing
  bool up_ = false;
  bool closing_ = false;
  uint64_t connection_ = 0;
  std::thread reader_;
  uint32_t nextSeq_ = 1;
  uint32_t restarts_ = 0;  // modem restarts this process has seen
  std::map<uint32_t, std::shared_ptr<Pending>> pending_;
  std::map<int, std::function<void(uint32_t, uint32_t)>> starts_;
  int nextStart_ = 1;
  std::map<std::string, int> channels_;  // control channels opened, per port
  std::map<int, Client> clients_;
  int nextClient_ = 1;
  std::multiset<int> running_;  // the callbacks being called: client handle or -start handle
};

// Maps a call's outcome and its answer's "rc err" prefix to a result of `codes`:
// TOV_NO_ERR and the fields after the prefix, or the failure. `timeout`, `broken` and
// `internal` are the family's codes for those outcomes; `internal` also for a malformed
// answer and for a call made on the library's thread.
struct Codes {
  int timeout;
  int broken;
  int internal;
};
int request(uint16_t kind, const tovwire::Writer& body, unsigned timeoutMs, const Codes& codes,
            int* err, std::vector<uint8_t>* rest, Start* start = nullptr);
// A release (or the library's stop): on the library's own thread it is sent without
// waiting and succeeds; elsewhere it is a request.
int release(uint16_t kind, const tovwire::Writer& body, unsigned timeoutMs, const Codes& codes,
            int* err);

}  // namespace tovhost

#endif  // TOV_LINK_H
