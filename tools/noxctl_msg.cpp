#include "noxctl_msg.h"

#include <binder/Parcel.h>
#include <cutils/jstring.h>

#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace noxctl {

namespace {

using Args = std::vector<std::string>;

// The daemon skips or cuts what is over its limits (NOX_MAX_PARCEL_INTS, NOX_MAX_APPLIST_SIZE,
// the field sizes) silently; noxctl refuses it, so that nothing sent with it goes missing.

std::u16string toUtf16(const std::string& text) {
  size_t len = 0;
  char16_t* units = strdup8to16(text.c_str(), &len);
  if (units == nullptr) {
    fputs("noxctl: out of memory\n", stderr);
    exit(1);
  }
  std::u16string out(units, len);
  free(units);
  return out;
}

Field intField(int32_t value) { return Field{false, value, std::string()}; }
Field textField(const std::string& text) { return Field{true, 0, text}; }

// The daemon keeps texts in zero-terminated fields of `size` bytes and drops a text that does
// not fit with its terminator, counted in UTF-16 units.
bool checkText(const std::string& what, const std::string& text, size_t size, std::string* error) {
  if (toUtf16(text).size() < size) return true;
  *error =
      what + " '" + text + "' is too long (at most " + std::to_string(size - 1) + " characters)";
  return false;
}

bool parseInts(const std::string& command, const Args& args, size_t first,
               std::vector<int32_t>* out, std::string* error) {
  for (size_t i = first; i < args.size(); ++i) {
    int32_t v;
    if (!parseInt32(args[i], &v)) {
      *error = command + ": '" + args[i] + "' is not a 32-bit number";
      return false;
    }
    out->push_back(v);
  }
  return true;
}

// One int argument.
bool buildSingle(const std::string& command, int32_t id, const Args& args, Message* out,
                 std::string* error) {
  std::vector<int32_t> values;
  if (args.size() != 1) {
    *error = command + " takes one number";
    return false;
  }
  if (!parseInts(command, args, 0, &values, error)) return false;
  out->id = id;
  out->payload = {intField(1), intField(values[0])};
  return true;
}

bool buildList(const std::string& command, int32_t id, const Args& args, Message* out,
               std::string* error) {
  std::vector<int32_t> values;
  if (args.empty() || args.size() > static_cast<size_t>(NOX_MAX_PARCEL_INTS)) {
    *error = command + " takes 1 to " + std::to_string(NOX_MAX_PARCEL_INTS) + " numbers";
    return false;
  }
  if (!parseInts(command, args, 0, &values, error)) return false;
  out->id = id;
  out->payload = {intField(static_cast<int32_t>(values.size()))};
  for (int32_t v : values) out->payload.push_back(intField(v));
  return true;
}

bool buildFeature(const Args& args, Message* out, std::string* error) {
  std::vector<int32_t> values;
  const bool get = !args.empty() && args[0] == "get";
  const bool set = !args.empty() && args[0] == "set";
  if ((!get && !set) || args.size() != (get ? 2u : 3u)) {
    *error = "feature takes 'get ID' or 'set ID STATUS'";
    return false;
  }
  if (!parseInts("feature", args, 1, &values, error)) return false;
  // The daemon reads a count of the values that follow in front of them.
  out->id = get ? NOX_S_REQ_GET_FEATURE_STATUS : NOX_S_REQ_SET_FEATURE_PREF;
  out->payload = {intField(static_cast<int32_t>(values.size()))};
  for (int32_t v : values) out->payload.push_back(intField(v));
  return true;
}

// A field of a command with named options.
struct FieldDef {
  const char* option;  // without its leading "--"
  bool isText;
  int32_t defaultValue;
  size_t size;  // texts: the daemon's field size in bytes
};

const FieldDef kWlanFields[] = {
    {"type", false, 0, 0}, {"status", false, 0, 0}, {"softap", false, 0, 0}};

// A connected state by default: that is what brings an interface up in the daemon.
const FieldDef kWwanFields[] = {{"type", false, 0, 0},
                                {"status", false, 1, 0},
                                {"nw-type", false, 0, 0},
                                {"roaming", false, 0, 0},
                                {"apn", false, 0, 0},
                                {"ipv4", true, 0, NOX_IP_ADDR_SIZE},
                                {"iface", true, 0, NOX_IFACE_NAME_SIZE},
                                {"ipv6", true, 0, NOX_IP_ADDR_SIZE},
                                {"iface-v6", true, 0, NOX_IFACE_NAME_SIZE},
                                {"mccmnc", true, 0, NOX_MCCMNC_SIZE}};

// Fills the fields from "--name VALUE" or "--name=VALUE" options and, when `positional`,
// from exactly one value per field in order.
template <size_t N>
bool buildFields(const std::string& command, int32_t id, const FieldDef (&defs)[N], bool positional,
                 const Args& args, Message* out, std::string* error) {
  std::vector<Field> fields;
  for (const FieldDef& s : defs) fields.push_back(Field{s.isText, s.defaultValue, ""});
  bool given[N] = {};
  std::vector<std::string> values;

  auto assign = [&](size_t i, const std::string& value) {
    const std::string what = std::string("--") + defs[i].option;
    if (given[i]) {
      *error = command + ": " + what + " given twice";
      return false;
    }
    given[i] = true;
    if (defs[i].isText) {
      fields[i].text = value;
      return checkText(command + " " + what, value, defs[i].size, error);
    }
    if (parseInt32(value, &fields[i].value)) return true;
    *error = command + ": " + what + " '" + value + "' is not a 32-bit number";
    return false;
  };

  for (size_t a = 0; a < args.size(); ++a) {
    const std::string& arg = args[a];
    if (arg.compare(0, 2, "--") != 0) {
      values.push_back(arg);
      continue;
    }
    const size_t eq = arg.find('=');
    const std::string name = arg.substr(2, eq == std::string::npos ? std::string::npos : eq - 2);
    size_t i = 0;
    while (i < N && name != defs[i].option) ++i;
    if (i == N) {
      *error = command + ": unknown option " + arg.substr(0, eq);
      return false;
    }
    std::string value;
    if (eq != std::string::npos) {
      value = arg.substr(eq + 1);
    } else if (a + 1 < args.size()) {
      value = args[++a];
    } else {
      *error = command + ": " + arg + " needs a value";
      return false;
    }
    if (!assign(i, value)) return false;
  }

  if (!values.empty()) {
    if (!positional || values.size() != N) {
      *error = positional ? command + " takes " + std::to_string(N) + " numbers or named options"
                          : command + " takes named options only, not '" + values[0] + "'";
      return false;
    }
    for (size_t i = 0; i < N; ++i)
      if (!assign(i, values[i])) return false;
  }
  out->id = id;
  out->payload = fields;
  return true;
}

bool isHex(const std::string& s) {
  return !s.empty() && s.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

// UID:PKG[:HEX[:HEX...]]; the hex numbers travel as one text joined by ':'.
bool parseAppEntry(const std::string& entry, std::vector<Field>* out, std::string* error) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (;;) {
    const size_t colon = entry.find(':', start);
    parts.push_back(entry.substr(start, colon - start));
    if (colon == std::string::npos) break;
    start = colon + 1;
  }
  const std::string bad = "apps: bad entry '" + entry + "': ";
  errno = 0;
  char* end = nullptr;
  const unsigned long long uid = strtoull(parts[0].c_str(), &end, 10);
  if (parts[0].empty() || parts[0].find_first_not_of("0123456789") != std::string::npos ||
      errno != 0 || uid > 0xffffffffULL) {
    *error = bad + "the uid must be a number up to 4294967295 (want UID:PKG[:HEX...])";
    return false;
  }
  if (parts.size() < 2 || parts[1].empty()) {
    *error = bad + "no package name (want UID:PKG[:HEX...])";
    return false;
  }
  std::string numbers;
  for (size_t i = 2; i < parts.size(); ++i) {
    if (!isHex(parts[i])) {
      *error = bad + "'" + parts[i] + "' is not a hexadecimal number";
      return false;
    }
    numbers += (i > 2 ? ":" : "") + parts[i];
  }
  if (!checkText("apps: package name", parts[1], NOX_PKG_NAME_SIZE, error) ||
      !checkText("apps: number list", numbers, NOX_PKG_NAME_SIZE, error))
    return false;
  out->push_back(textField(parts[1]));
  out->push_back(intField(static_cast<int32_t>(static_cast<uint32_t>(uid))));
  out->push_back(textField(numbers));
  return true;
}

bool buildApps(const Args& args, Message* out, std::string* error) {
  const bool add = !args.empty() && args[0] == "add";
  const bool remove = !args.empty() && args[0] == "remove";
  if ((!add && !remove) || args.size() < 2) {
    *error = "apps takes 'add' or 'remove' and one or more UID:PKG[:HEX...] entries";
    return false;
  }
  if (args.size() - 1 > static_cast<size_t>(NOX_MAX_APPLIST_SIZE)) {
    *error = "apps takes at most " + std::to_string(NOX_MAX_APPLIST_SIZE) + " entries";
    return false;
  }
  out->id = NOX_S_NOTIFY_APP_INFO_LIST_CHG;
  out->payload = {intField(add ? 0 : 1), intField(static_cast<int32_t>(args.size() - 1))};
  for (size_t i = 1; i < args.size(); ++i)
    if (!parseAppEntry(args[i], &out->payload, error)) return false;
  return true;
}

bool buildRaw(const Args& args, Message* out, std::string* error) {
  std::vector<int32_t> values;
  if (args.empty()) {
    *error = "raw takes an ID and optional numbers";
    return false;
  }
  if (!parseInts("raw", args, 0, &values, error)) return false;
  out->id = values[0];
  out->payload.clear();
  for (size_t i = 1; i < values.size(); ++i) out->payload.push_back(intField(values[i]));
  return true;
}

std::string joinWords(const std::vector<int32_t>& words, size_t from) {
  std::string out;
  for (size_t i = from; i < words.size(); ++i) out += " " + std::to_string(words[i]);
  return out;
}

}  // namespace

bool parseInt32(const std::string& s, int32_t* out) {
  const bool hex = s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X');
  const std::string digits = hex ? s.substr(2) : s;
  if (digits.empty() || digits[0] == '+' || isspace(static_cast<unsigned char>(digits[0])) ||
      (hex && digits[0] == '-'))
    return false;
  errno = 0;
  char* end = nullptr;
  const long long v = strtoll(digits.c_str(), &end, hex ? 16 : 10);
  if (errno != 0 || *end != '\0') return false;
  if (hex ? v > 0xffffffffLL : (v < INT32_MIN || v > INT32_MAX)) return false;
  *out = static_cast<int32_t>(static_cast<uint32_t>(v));
  return true;
}

bool buildMessage(const std::string& command, const Args& args, Message* out, std::string* error) {
  if (command == "init-done") {
    if (!args.empty()) {
      *error = "init-done takes no arguments";
      return false;
    }
    out->id = NOX_S_NOTIFY_INIT_DONE;
    out->payload.clear();
    return true;
  }
  if (command == "feature") return buildFeature(args, out, error);
  if (command == "wlan")
    return buildFields(command, NOX_S_NOTIFY_WLAN_STATE_CHG, kWlanFields, true, args, out, error);
  if (command == "wwan")
    return buildFields(command, NOX_S_NOTIFY_WWAN_STATE_CHG, kWwanFields, false, args, out, error);
  if (command == "screen")
    return buildSingle(command, NOX_S_NOTIFY_SCREEN_STATE_CHG, args, out, error);
  if (command == "tethering")
    return buildSingle(command, NOX_S_NOTIFY_TETHERING_STATE_CHG, args, out, error);
  if (command == "nsrm-bkg")
    return buildList(command, NOX_S_NOTIFY_NSRM_BKG_EVT_STATE_CHG, args, out, error);
  if (command == "nsrm-config")
    return buildList(command, NOX_S_RSP_REFRESH_NSRM_CONFIG, args, out, error);
  if (command == "apps") return buildApps(args, out, error);
  if (command == "raw") return buildRaw(args, out, error);
  *error = "unknown command '" + command + "'";
  return false;
}

std::vector<uint8_t> encode(const Message& msg, int32_t token) {
  android::Parcel parcel;
  parcel.writeInt32(msg.id);
  parcel.writeInt32(token);
  for (const Field& f : msg.payload) {
    if (f.isText) {
      const std::u16string units = toUtf16(f.text);
      parcel.writeString16(units.data(), units.size());
    } else {
      parcel.writeInt32(f.value);
    }
  }
  return std::vector<uint8_t>(parcel.data(), parcel.data() + parcel.dataSize());
}

DaemonMessage decode(const std::vector<uint8_t>& record) {
  android::Parcel parcel;
  DaemonMessage msg;
  if (parcel.setData(record.data(), record.size()) != android::OK) return msg;
  msg.marker = parcel.readInt32();
  msg.id = parcel.readInt32();
  while (parcel.dataAvail() >= 4) msg.words.push_back(parcel.readInt32());
  return msg;
}

std::string describe(const DaemonMessage& msg) {
  const std::vector<int32_t>& w = msg.words;
  if (msg.marker != 1)
    return "unknown record " + std::to_string(msg.marker) + " " + std::to_string(msg.id) +
           joinWords(w, 0);
  auto word = [&w](size_t i) { return std::to_string(i < w.size() ? w[i] : 0); };
  switch (msg.id) {
    case NOX_D_REQ_REQUEST_GET_APP_INFO_LIST:
      return "app-list-request";
    case NOX_S_RSP_GET_FEATURE_STATUS:
      return "feature " + word(0) + " status " + word(1);
    case NOX_S_RESP_SET_FEATURE_PREF:
      return "feature " + word(0) + " status " + word(1) + " result " + word(2);
    case NOX_D_NOTIFY_NSRM_BLOCKED_UID:
      return "blocked-uid " + word(0) + " blocked " + word(1);
    default:
      return "message " + std::to_string(msg.id) + joinWords(w, 0);
  }
}

}  // namespace noxctl
