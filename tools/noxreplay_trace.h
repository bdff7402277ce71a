#ifndef NOX_TOOLS_NOXREPLAY_TRACE_H
#define NOX_TOOLS_NOXREPLAY_TRACE_H

// A trace: what happens to a phone over some hours, as text, one event a line.
//
//   # a comment; blank lines are skipped
//   TIME screen on|off
//   TIME tethering on|off
//   TIME data connect IFACE [ADDRESS...]   mobile data up on IFACE (IPv4 and/or IPv6)
//   TIME data disconnect IFACE
//   TIME traffic IFACE up|down [--family v4|v6] [--proto tcp|udp] [--src-port N]
//        [--dst-port N] [--count N]       packets, as `modemsim traffic` takes them
//   TIME end                               where the trace ends; nothing may follow
//
// TIME is [[H:]MM:]SS[.mmm] from the start of the trace; times never go back.

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

namespace noxreplay {

struct Event {
  enum Kind { kScreen, kTethering, kDataConnect, kDataDisconnect, kTraffic, kEnd };
  int64_t atMs = 0;
  int line = 0;
  Kind kind = kEnd;
  bool on = false;                // screen, tethering
  std::vector<std::string> args;  // data: IFACE [ADDRESS...]; traffic: what follows "traffic"
};

// Reads a whole trace. False with one line in *error ("LINE: what is wrong"). A trace
// without an end line ends at its last event.
bool parseTrace(std::istream& in, std::vector<Event>* events, std::string* error);

// "H:MM:SS.mmm", for reports.
std::string formatTime(int64_t ms);

}  // namespace noxreplay

#endif  // NOX_TOOLS_NOXREPLAY_TRACE_H
