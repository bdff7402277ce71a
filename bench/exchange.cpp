#include "exchange.h"

#include <algorithm>

namespace bench {

RecordWriter& RecordWriter::i32(int32_t v) {
  uint8_t b[4];
  writeLe32(b, v);
  body_.insert(body_.end(), b, b + 4);
  return *this;
}

RecordWriter& RecordWriter::str16(const std::string& ascii) {
  i32(static_cast<int32_t>(ascii.size()));
  for (char c : ascii) {
    body_.push_back(static_cast<uint8_t>(c));
    body_.push_back(0);
  }
  body_.push_back(0);
  body_.push_back(0);
  while (body_.size() % 4 != 0) body_.push_back(0);
  return *this;
}

std::vector<uint8_t> RecordWriter::frame() const {
  std::vector<uint8_t> out(kHeaderLen + body_.size());
  writeBe32(out.data(), static_cast<uint32_t>(body_.size()));
  std::copy(body_.begin(), body_.end(), out.begin() + kHeaderLen);
  return out;
}

void writeRequestFrame(uint8_t* out, int32_t token) {
  writeBe32(out, kRequestLen);
  writeLe32(out + 4, kMsgGetFeatureStatus);
  writeLe32(out + 8, token);
  writeLe32(out + 12, 1);
  writeLe32(out + 16, kFeatureNsrm);
}

void writeReplyFrame(uint8_t* out, int32_t featureId, int32_t status) {
  writeBe32(out, kReplyLen);
  writeLe32(out + 4, 1);
  writeLe32(out + 8, kMsgFeatureStatus);
  writeLe32(out + 12, featureId);
  writeLe32(out + 16, status);
}

std::vector<uint8_t> initDoneFrame() { return RecordWriter().i32(kMsgInitDone).i32(0).frame(); }

std::vector<uint8_t> wwanFrame(int32_t state, const std::string& iface, const std::string& ipv4,
                               const std::string& ipv6) {
  RecordWriter w;
  w.i32(kMsgWwanStateChange).i32(0);
  w.i32(0).i32(state).i32(13).i32(0).i32(0);  // type, state, network type LTE, roaming, APN
  w.str16(ipv4).str16(iface).str16(ipv6).str16(iface).str16("310260");
  return w.frame();
}

std::vector<uint8_t> appListFrame(int first, int count) {
  RecordWriter w;
  w.i32(kMsgAppListChange).i32(0).i32(0).i32(count);  // action 0: add
  for (int i = first; i < first + count; ++i)
    w.str16("com.example.app" + std::to_string(i)).i32(10000 + i).str16("1f:2a");
  return w.frame();
}

}  // namespace bench
