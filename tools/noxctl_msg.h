#ifndef NOX_TOOLS_NOXCTL_MSG_H
#define NOX_TOOLS_NOXCTL_MSG_H

#include <stdint.h>

#include <string>
#include <vector>

#include "NoxTypes.h"
#include "NoxUtils.h"

namespace noxctl {

// The largest record the daemon reads; a longer one ends the connection.
constexpr size_t kMaxOutgoingRecord = 8192;

// One payload field: an int32, or a text sent as a String16.
struct Field {
  bool isText;
  int32_t value;
  std::string text;
};

// A client message before it gets its token.
struct Message {
  int32_t id = 0;
  std::vector<Field> payload;
};

// Parses a 32-bit number: decimal (signed) or 0x-prefixed hexadecimal up to 0xffffffff.
bool parseInt32(const std::string& s, int32_t* out);

// Builds the message of command `command` (any but "listen") from its arguments. Returns
// false with one line in *error when the command or its arguments are bad.
bool buildMessage(const std::string& command, const std::vector<std::string>& args, Message* out,
                  std::string* error);

// The record bytes (without length prefix): id, token, then the payload.
std::vector<uint8_t> encode(const Message& msg, int32_t token);

// A record from the daemon: its leading word (1 for every message), the id, then the rest of
// the payload read as int32s.
struct DaemonMessage {
  int32_t marker = 0;
  int32_t id = 0;
  std::vector<int32_t> words;
};

DaemonMessage decode(const std::vector<uint8_t>& record);
// One line for people and scripts, without newline, e.g. "feature 2 status 3".
std::string describe(const DaemonMessage& msg);

}  // namespace noxctl

#endif  // NOX_TOOLS_NOXCTL_MSG_H
