#ifndef BENCH_EXCHANGE_H
#define BENCH_EXCHANGE_H

// The exchange every benchmark server answers and the load client drives, written from
// the control socket's wire format rather than taken from the daemon's code: a record is
// a 4-byte big-endian length, then a Parcel whose int32s are little-endian and whose
// strings are an int32 unit count, UTF-16LE units and a zero unit, padded to 4 bytes.

#include <endian.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

namespace bench {

constexpr int32_t kMsgGetFeatureStatus = 1;
constexpr int32_t kMsgFeatureStatus = 2;  // the answer to kMsgGetFeatureStatus
constexpr int32_t kMsgInitDone = 8;       // makes its sender the framework client
constexpr int32_t kMsgWwanStateChange = 10;
constexpr int32_t kMsgAppListChange = 12;
constexpr int32_t kFeatureNsrm = 2;
// What the daemon answers once it has stored its NSRM default; the reference servers
// send the same bytes.
constexpr int32_t kAnsweredStatus = 3;
constexpr int32_t kWwanConnected = 1;

constexpr size_t kHeaderLen = 4;
// {id 1, token, value count 1, feature 2}: the daemon reads a count before the values.
constexpr size_t kRequestLen = 16;
// {1, answer id 2, feature, status}.
constexpr size_t kReplyLen = 16;
constexpr size_t kRequestFrameLen = kHeaderLen + kRequestLen;
constexpr size_t kReplyFrameLen = kHeaderLen + kReplyLen;
// The daemon's record limit, which the reference servers share.
constexpr size_t kMaxRecordLen = 8192;

inline uint32_t readBe32(const uint8_t* p) {
  uint32_t v;
  memcpy(&v, p, 4);
  return be32toh(v);
}
inline int32_t readLe32(const uint8_t* p) {
  uint32_t v;
  memcpy(&v, p, 4);
  return static_cast<int32_t>(le32toh(v));
}
inline void writeBe32(uint8_t* p, uint32_t v) {
  v = htobe32(v);
  memcpy(p, &v, 4);
}
inline void writeLe32(uint8_t* p, int32_t v) {
  const uint32_t u = htole32(static_cast<uint32_t>(v));
  memcpy(p, &u, 4);
}

// Builds one record's Parcel; frame() puts the length prefix in front.
class RecordWriter {
 public:
  RecordWriter& i32(int32_t v);
  // ASCII text as a String16 (the benchmarks send nothing else).
  RecordWriter& str16(const std::string& ascii);
  std::vector<uint8_t> frame() const;
  size_t size() const { return body_.size(); }

 private:
  std::vector<uint8_t> body_;
};

// Writes the framed request "get feature status 2" with `token` into out[0..20).
void writeRequestFrame(uint8_t* out, int32_t token);
// Writes the framed answer {1, 2, featureId, status} into out[0..20).
void writeReplyFrame(uint8_t* out, int32_t featureId, int32_t status);
std::vector<uint8_t> initDoneFrame();
// The WWAN state change: mobile data in `state` on `iface`, with both address families.
std::vector<uint8_t> wwanFrame(int32_t state, const std::string& iface, const std::string& ipv4,
                               const std::string& ipv6);
// Applications first..first+count-1 as one "add" list, uids from 10000 up.
std::vector<uint8_t> appListFrame(int first, int count);

}  // namespace bench

#endif  // BENCH_EXCHANGE_H
