#ifndef TOV_WIRE_H
#define TOV_WIRE_H

// The wire between the host modem library and the modem simulator (modemsim): a Unix
// stream socket, by default at kDefaultSocket, or at the path in $TOV_SIM_SOCKET.
//
// Frame: a 16-byte header, then `length` bytes of body. All integers little-endian.
//
//   offset 0  u32 magic     0x57564f54 ("TOVW")
//   offset 4  u16 version   kVersion; a frame of another version is refused
//   offset 6  u16 kind      one of Kind; an answer is its request's kind | kAnswer
//   offset 8  u32 length    body bytes, at most kMaxBody (8 MiB)
//   offset 12 u32 seq       chosen by the sender of a request, repeated by its answer;
//                           0 in indications and events
//
// A body is a sequence of fields and must be consumed exactly: a field cut short or
// bytes left over make the frame malformed. Field types: u8, u16, u32, u64, i32;
// str = u16 length then that many bytes (no terminator, at most kMaxString); text =
// u32 length then bytes (at most kMaxBody); msg = a DFS message, encoded as below.
//
// Library requests and their answers (every answer starts with i32 rc, i32 err: rc is
// the call's result as tov.h or tov_cci.h define it, err the modem's error code; the
// fields after them are only present when rc is 0):
//
//   kHello        u32 pid                       -> rc err
//   kBye                                         -> rc err
//   kCtrlOpen     str port                      -> rc err
//   kWdsStart     str port                      -> rc err u32 client
//   kWdsIpPref    u32 client, u32 family        -> rc err
//   kWdsEventReport u32 client, u32 mask, u8 chan_rate, u8 bearer_tech, u8 dorm_status
//                                               -> rc err
//   kWdsGetDormancy u32 client                  -> rc err u32 dorm_status
//   kWdsGoDormant u32 client                    -> rc err
//   kWdsRelease   u32 client                    -> rc err
//   kDfsStart     str port, u32 instance        -> rc err u32 client
//   kDfsRequest   u32 client, u16 msg_id, msg   -> rc err msg (the response)
//   kDfsRelease   u32 client                    -> rc err
//
// Simulator to library, unasked (seq 0):
//
//   kWdsIndication u32 client, u32 ind_id, u64 event_mask, u32 dorm_status
//   kDfsIndication u32 client, u16 msg_id, msg
//   kSysEvent      u32 event, u32 restart_count
//
// Command line (modemsim's subcommands): kCli u16 argc, then argc str -> i32 status,
// text. Status 0 is success; the text is what the command prints. An answer that would
// not fit kMaxBody is status 1 with a text that says so.
//
// A frame the simulator cannot take is answered with kError (str reason, the frame's
// seq or 0) and, when the header itself is bad, the connection is closed: a stream
// cannot be resynchronised. The library drops a frame it cannot take; a bad header
// ends its connection.
//
// DFS messages (msg) are encoded field by field in the order of their C structures
// in data_filter_service_v01.h, each integer at its own width (an enum as i32, a
// bool as u8), arrays of a fixed size in full, and a list as u8 valid, u32 len, then
// len elements (len at most the list's size). A request with an empty C structure is
// empty on the wire.

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "tov_cci.h"

namespace tovwire {

constexpr uint32_t kMagic = 0x57564f54;
constexpr uint16_t kVersion = 1;
constexpr size_t kHeaderSize = 16;
constexpr uint32_t kMaxBody = 8 << 20;
constexpr size_t kMaxString = 255;
constexpr const char* kSocketEnv = "TOV_SIM_SOCKET";
constexpr const char* kDefaultSocket = "/tmp/modemsim.sock";

enum Kind : uint16_t {
  kHello = 1,
  kBye = 2,
  kCtrlOpen = 3,
  kWdsStart = 4,
  kWdsIpPref = 5,
  kWdsEventReport = 6,
  kWdsGetDormancy = 7,
  kWdsGoDormant = 8,
  kWdsRelease = 9,
  kDfsStart = 10,
  kDfsRequest = 11,
  kDfsRelease = 12,
  kWdsIndication = 32,
  kDfsIndication = 33,
  kSysEvent = 34,
  kCli = 64,
  kError = 127,
  kAnswer = 0x8000,
};

struct Header {
  uint32_t magic;
  uint16_t version;
  uint16_t kind;
  uint32_t length;
  uint32_t seq;
};

// The socket path: $TOV_SIM_SOCKET when set and not empty, else kDefaultSocket.
std::string socketPath();

// Reads a header from kHeaderSize bytes; false with the reason for a wrong magic,
// version or length.
bool parseHeader(const uint8_t* bytes, Header& header, std::string* why);

// Builds fields; frame() gives the whole frame around what was written.
class Writer {
 public:
  Writer& u8(uint8_t v);
  Writer& u16(uint16_t v);
  Writer& u32(uint32_t v);
  Writer& u64(uint64_t v);
  Writer& i32(int32_t v) { return u32(static_cast<uint32_t>(v)); }
  Writer& str(const std::string& s);  // cut to kMaxString
  Writer& text(const std::string& s);
  Writer& bytes(const void* data, size_t len);
  const std::vector<uint8_t>& body() const { return body_; }
  size_t size() const { return body_.size(); }
  std::vector<uint8_t> frame(uint16_t kind, uint32_t seq) const;

 private:
  std::vector<uint8_t> body_;
};

// Reads fields from a body. A read past the end fails and every later read fails too,
// so a decoder checks ok() (or done()) once at the end.
class Reader {
 public:
  Reader(const uint8_t* data, size_t len) : p_(data), n_(len) {}
  uint8_t u8();
  uint16_t u16();
  uint32_t u32();
  uint64_t u64();
  int32_t i32() { return static_cast<int32_t>(u32()); }
  std::string str();
  std::string text();
  // The rest of the body (for a msg field); empties the reader.
  std::vector<uint8_t> rest();
  bool ok() const { return ok_; }
  // Everything read, nothing left over.
  bool done() const { return ok_ && n_ == 0; }
  void fail() { ok_ = false; }

 private:
  bool take(void* out, size_t len);
  const uint8_t* p_;
  size_t n_;
  bool ok_ = true;
};

// The size of the C structure of DFS message `msgId` of `type`, 0 when there is no
// such message.
size_t dfsStructSize(tov_idl_type_of_msg_type type, unsigned int msgId);

// Encodes the C structure `c` (`len` bytes, which must be its size; 0 is also taken
// for an empty request) of DFS message `msgId`. False for an unknown message, a wrong
// length or a list longer than its array.
bool encodeDfs(tov_idl_type_of_msg_type type, unsigned int msgId, const void* c, size_t len,
               Writer& out);

// Decodes DFS message `msgId` from `in` (which must then be used up) into `c`, whose
// size `len` must be the message's. `c` is zeroed first. False for an unknown message,
// a wrong size or malformed bytes.
bool decodeDfs(tov_idl_type_of_msg_type type, unsigned int msgId, Reader& in, void* c, size_t len);

}  // namespace tovwire

#endif  // TOV_WIRE_H
