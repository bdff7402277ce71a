#ifndef NOX_TESTS_WIRE_H
#define NOX_TESTS_WIRE_H

#include <linux/netlink.h>

#include <cstdint>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;
inline Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
template <typename T>
Bytes bytesOf(const T& value) {
  const uint8_t* p = reinterpret_cast<const uint8_t*>(&value);
  return Bytes(p, p + sizeof(T));
}
// A netlink message by hand, in host byte order: the header, then the body padded to 4
// bytes; `len` overrides the length field (0: the true length).
inline Bytes nlmsg(uint16_t type, uint32_t seq, const Bytes& body = {}, uint32_t len = 0,
                   uint16_t flags = 0, uint32_t port = 0) {
  Bytes b = bytesOf(nlmsghdr{len != 0 ? len : uint32_t(NLMSG_HDRLEN + body.size()), type, flags,
                             seq, port}) +
            body;
  b.resize(NLMSG_ALIGN(b.size()));
  return b;
}

// Parcel bytes by hand: little-endian int32s; a String16 is its unit count, the units,
// a 0 unit and zero padding to 4 bytes.
struct Wire {
  std::vector<uint8_t> b;
  Wire& i32(int32_t v) {
    for (int shift = 0; shift < 32; shift += 8) b.push_back(static_cast<uint32_t>(v) >> shift);
    return *this;
  }
  Wire& str(const std::u16string& s) {
    i32(static_cast<int32_t>(s.size()));
    for (char16_t c : s) b.insert(b.end(), {uint8_t(c & 0xff), uint8_t(c >> 8)});
    b.resize((b.size() + 5) & ~size_t{3});
    return *this;
  }
  Wire& app(const std::u16string& pkg, uint32_t uid) { return str(pkg).i32(uid).str(u"a"); }
  // A control-socket record: the big-endian length, then these bytes.
  std::vector<uint8_t> record() const {
    const uint32_t n = static_cast<uint32_t>(b.size());
    std::vector<uint8_t> out = {uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)};
    for (uint8_t byte : b) out.push_back(byte);
    return out;
  }
};

#endif  // NOX_TESTS_WIRE_H
