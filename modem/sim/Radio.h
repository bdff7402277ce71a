#ifndef MODEMSIM_RADIO_H
#define MODEMSIM_RADIO_H

// The radio of one modem port as an energy model: idle (dormant) or connected, with a
// promotion at the start of each connection. Time is the caller's, in milliseconds of
// the modelled clock, and never goes back; power is in milliwatts, so that energy comes
// out exact in microjoules (mW x ms).

#include <cstdint>
#include <string>

namespace modemsim {

// The network's and the radio's figures. The defaults, and where each comes from, are in
// modem/sim/radio.conf, which a `modemsim serve --radio FILE` may replace.
struct RadioParams {
  int64_t inactivityMs =
      10000;                  // the network releases the connection after this long without traffic
  int64_t promotionMs = 260;  // idle to connected
  int64_t promotionMw = 1210;
  int64_t connectedMw = 1060;
  int64_t idleMw = 20;

  // Reads "name value" lines ('#' starts a comment) over the defaults. False with the
  // reason ("FILE:LINE: ...") for an unknown name or a value that is not a whole number
  // (inactivity and promotion 0 to 3600000, powers 0 to 100000).
  bool load(const std::string& path, std::string* error);
  std::string describe() const;
};

// What a radio has spent up to some time. connectedMs includes promotionMs.
struct RadioTotals {
  int64_t idleMs = 0;
  int64_t connectedMs = 0;
  int64_t promotionMs = 0;
  uint64_t promotions = 0;
  uint64_t energyUj = 0;

  RadioTotals& operator+=(const RadioTotals& other);
};

class Radio {
 public:
  // Connected since `now`, as after its data call's set-up, with no inactivity timer
  // running: the timer starts with the first packet.
  explicit Radio(int64_t now) : since_(now), promotionEnd_(now) {}

  bool connected() const { return connected_; }
  // A packet at `now`: an idle radio is promoted (returns true); the inactivity timer
  // restarts, to run from the end of the promotion at the earliest.
  bool packet(int64_t now, const RadioParams& params);
  // Connected at the network's word: an idle radio is promoted (returns true) and held,
  // without a timer, until the next packet. A connected radio is left as it is.
  // Deliberate: the tests that set the dormancy by hand rely on no release of its own.
  bool connect(int64_t now, const RadioParams& params);
  // The connection released at `now`; true when it was connected.
  bool release(int64_t now);
  // When the inactivity timer releases the connection; -1 when no timer runs.
  int64_t releaseAt() const { return releaseAt_; }
  RadioTotals totals(int64_t now, const RadioParams& params) const;
  // Totals start again from zero at `now`; the state stays as it is.
  void resetTotals(int64_t now);

 private:
  void account(int64_t to);

  bool connected_ = true;
  int64_t since_;         // the totals run up to here
  int64_t promotionEnd_;  // the current connection's promotion ends here
  int64_t releaseAt_ = -1;
  RadioTotals sum_;
};

}  // namespace modemsim

#endif  // MODEMSIM_RADIO_H
