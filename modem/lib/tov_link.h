#ifndef TOV_LINK_H
#define TOV_LINK_H

// The host library's one connection to the modem simulator, and its thread. Internal
// to the library.

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "tov_wire.h"

namespace tovhost {

// What a call came back with.
enum CallStatus { kAnswered, kTimedOut, kBroken };

// A library client: its id at the simulator, the connection it lives on, and what its
// indications are delivered to (on the library's thread).
struct Client {
  uint32_t simId = 0;
  uint64_t connection = 0;
  // Called with the indication's body after the client id; set by the service.
  std::function<void(int handle, uint16_t kind, tovwire::Reader& body)> deliver;
};

class Link {
 public:
  static Link& instance();

  // Connects when there is no connection. False when the simulator cannot be reached.
  bool connect();
  // Closes the connection once nothing is started on it any more.
  void disconnectIfUnused();

  // Sends a request and waits at most `timeoutMs` for its answer body.
  CallStatus call(uint16_t kind, const tovwire::Writer& body, unsigned timeoutMs,
                  std::vector<uint8_t>* answer);

  // Library starts (tov_init handles) and their system-event handlers.
  int addStart(std::function<void(uint32_t event, uint32_t restarts)> handler);
  bool removeStart(int handle);

  // Clients; handles are > 0 and never reused while the process lives.
  int addClient(Client client);
  // The client's simulator id; false when the handle is unknown. `live` tells whether
  // it still belongs to the current connection.
  bool clientId(int handle, uint32_t* simId, bool* live);
  // Forgets the client and returns once none of its callbacks is running (unless
  // called from one). False when the handle is unknown.
  bool removeClient(int handle);
  bool isClient(int handle);

  // The current connection's number (0 when there is none).
  uint64_t connection();

 private:
  Link() = default;
  void readLoop(int fd, uint64_t connection);
  void dispatch(const tovwire::Header& header, std::vector<uint8_t>& body);
  void lost(uint64_t connection);
  // Calls every start's system-event handler, one after the other.
  void deliverSysEvent(uint32_t event, uint32_t restarts, std::unique_lock<std::mutex>& lock);
  void shutdownLocked(std::unique_lock<std::mutex>& lock);
  // Runs `fn` as the callback of `id` (a client handle, or -start handle), so that its
  // removal can wait for it.
  void runCallback(int id, const std::function<void()>& fn, std::unique_lock<std::mutex>& lock);
  void waitIdle(int id, std::unique_lock<std::mutex>& lock);

  struct Pending {
    bool done = false;
    bool broken = false;
    std::vector<uint8_t> body;
  };

  std::mutex connectMu_;  // one connect or disconnect at a time; taken before mu_
  std::mutex writeMu_;    // one frame written at a time; taken before mu_
  std::mutex mu_;
  std::condition_variable cv_;
  int fd_ = -1;
  bool up_ = false;
  bool closing_ = false;
  uint64_t connection_ = 0;
  std::thread reader_;
  uint32_t nextSeq_ = 1;
  std::map<uint32_t, Pending*> pending_;
  std::map<int, std::function<void(uint32_t, uint32_t)>> starts_;
  int nextStart_ = 1;
  std::map<int, Client> clients_;
  int nextClient_ = 1;
  int running_ = 0;  // the callback being called: client handle, -start handle, 0 none
};

// Maps a call's outcome and its answer's "rc err" prefix to a result of `codes`:
// TOV_NO_ERR and the fields after the prefix, or the failure. `timeout`, `broken` and
// `malformed` are the family's codes for those outcomes.
struct Codes {
  int timeout;
  int broken;
  int malformed;
};
int request(uint16_t kind, const tovwire::Writer& body, unsigned timeoutMs, const Codes& codes,
            int* err, std::vector<uint8_t>* rest);

}  // namespace tovhost

#endif  // TOV_LINK_H
