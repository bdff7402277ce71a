#include "noxreplay_trace.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace noxreplay {

namespace {

constexpr size_t kMaxIfaceName = 15;

bool wholeNumber(const std::string& s, long min, long max, long* out = nullptr) {
  char* end = nullptr;
  const long v = strtol(s.c_str(), &end, 10);
  if (s.empty() || s[0] == '-' || s[0] == '+' || *end != '\0' || v < min || v > max) return false;
  if (out != nullptr) *out = v;
  return true;
}

// [[H:]MM:]SS[.mmm]
bool parseTime(const std::string& text, int64_t* ms) {
  std::vector<std::string> fields;
  std::stringstream in(text);
  for (std::string f; std::getline(in, f, ':');) fields.push_back(f);
  if (fields.empty() || fields.size() > 3 || text.back() == ':') return false;
  std::string& last = fields.back();
  long fraction = 0;
  const size_t dot = last.find('.');
  if (dot != std::string::npos) {
    std::string digits = last.substr(dot + 1);
    if (digits.empty() || digits.size() > 3 || !wholeNumber(digits, 0, 999, &fraction))
      return false;
    for (size_t i = digits.size(); i < 3; ++i) fraction *= 10;
    last.resize(dot);
  }
  int64_t total = 0;
  for (size_t i = 0; i < fields.size(); ++i) {
    long v;
    // Hours are unbounded (up to a year); minutes and seconds after the first field are below 60.
    const long max = i == 0 ? 366L * 24 * 3600 : 59;
    if (!wholeNumber(fields[i], 0, max, &v)) return false;
    total = total * 60 + v;
  }
  *ms = total * 1000 + fraction;
  return true;
}

bool validIface(const std::string& name) {
  if (name.empty() || name.size() > kMaxIfaceName) return false;
  for (char c : name)
    if (c <= ' ' || c > '~') return false;
  return true;
}

bool validAddress(const std::string& text) {
  unsigned char buf[16];
  return inet_pton(AF_INET, text.c_str(), buf) == 1 || inet_pton(AF_INET6, text.c_str(), buf) == 1;
}

// IFACE up|down, then option pairs with their values checked.
std::string checkTraffic(const std::vector<std::string>& a) {
  if (a.size() < 2 || !validIface(a[0]) || (a[1] != "up" && a[1] != "down"))
    return "traffic takes IFACE up|down [OPTIONS]";
  for (size_t i = 2; i < a.size(); i += 2) {
    if (i + 1 >= a.size()) return a[i] + " needs a value";
    const std::string& o = a[i];
    const std::string& v = a[i + 1];
    const bool good = (o == "--family" && (v == "v4" || v == "v6")) ||
                      (o == "--proto" && (v == "tcp" || v == "udp")) ||
                      ((o == "--src-port" || o == "--dst-port") && wholeNumber(v, 0, 65535)) ||
                      (o == "--count" && wholeNumber(v, 1, 1000000));
    if (!good) return "bad traffic option '" + o + " " + v + "'";
  }
  return "";
}

// The event of one line's words after its time; an empty text when it is good.
std::string parseEvent(const std::vector<std::string>& w, Event* e) {
  const std::string& what = w[0];
  if (what == "screen" || what == "tethering") {
    if (w.size() != 2 || (w[1] != "on" && w[1] != "off")) return what + " takes on or off";
    e->kind = what == "screen" ? Event::kScreen : Event::kTethering;
    e->on = w[1] == "on";
    return "";
  }
  if (what == "data") {
    const bool connect = w.size() >= 3 && w.size() <= 5 && w[1] == "connect";
    const bool disconnect = w.size() == 3 && w[1] == "disconnect";
    if (!connect && !disconnect) return "data takes connect IFACE [ADDRESS...] or disconnect IFACE";
    if (!validIface(w[2])) return "'" + w[2] + "' is not an interface name";
    e->kind = connect ? Event::kDataConnect : Event::kDataDisconnect;
    e->args.assign(w.begin() + 2, w.end());
    for (size_t i = 1; i < e->args.size(); ++i)
      if (!validAddress(e->args[i])) return "'" + e->args[i] + "' is not an IP address";
    return "";
  }
  if (what == "traffic") {
    e->kind = Event::kTraffic;
    e->args.assign(w.begin() + 1, w.end());
    return checkTraffic(e->args);
  }
  if (what == "end") {
    e->kind = Event::kEnd;
    return w.size() == 1 ? "" : "end takes nothing";
  }
  return "unknown event '" + what + "'";
}

}  // namespace

bool parseTrace(std::istream& in, std::vector<Event>* events, std::string* error) {
  events->clear();
  int number = 0;
  for (std::string line; std::getline(in, line);) {
    ++number;
    std::istringstream words(line.substr(0, line.find('#')));
    std::vector<std::string> w;
    for (std::string word; words >> word;) w.push_back(word);
    if (w.empty()) continue;
    auto fail = [&](const std::string& why) {
      *error = std::to_string(number) + ": " + why;
      return false;
    };
    if (!events->empty() && events->back().kind == Event::kEnd)
      return fail("nothing may follow end");
    Event e;
    e.line = number;
    if (!parseTime(w[0], &e.atMs)) return fail("'" + w[0] + "' is not a time ([[H:]MM:]SS[.mmm])");
    if (!events->empty() && e.atMs < events->back().atMs) return fail("the time goes back");
    if (w.size() < 2) return fail("no event after the time");
    const std::string why = parseEvent(std::vector<std::string>(w.begin() + 1, w.end()), &e);
    if (!why.empty()) return fail(why);
    events->push_back(e);
  }
  if (events->empty()) {
    *error = "the trace has no events";
    return false;
  }
  return true;
}

std::string formatTime(int64_t ms) {
  char s[40];
  snprintf(s, sizeof(s), "%lld:%02lld:%02lld.%03lld", static_cast<long long>(ms / 3600000),
           static_cast<long long>(ms / 60000 % 60), static_cast<long long>(ms / 1000 % 60),
           static_cast<long long>(ms % 1000));
  return s;
}

}  // namespace noxreplay
