#include "tov_wire.h"

#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "data_filter_service_v01.h"

namespace tovwire {

std::string socketPath() {
  const char* env = getenv(kSocketEnv);
  return env != nullptr && *env != '\0' ? env : kDefaultSocket;
}

namespace {
uint32_t le32(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
uint16_t le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }
}  // namespace

bool parseHeader(const uint8_t* bytes, Header& h, std::string* why) {
  h.magic = le32(bytes);
  h.version = le16(bytes + 4);
  h.kind = le16(bytes + 6);
  h.length = le32(bytes + 8);
  h.seq = le32(bytes + 12);
  std::string reason;
  if (h.magic != kMagic)
    reason = "bad magic";
  else if (h.version != kVersion)
    reason = "unsupported version " + std::to_string(h.version);
  else if (h.length > kMaxBody)
    reason = "body of " + std::to_string(h.length) + " bytes is too long";
  if (reason.empty()) return true;
  if (why != nullptr) *why = reason;
  return false;
}

Writer& Writer::u8(uint8_t v) {
  body_.push_back(v);
  return *this;
}
Writer& Writer::u16(uint16_t v) { return u8(static_cast<uint8_t>(v)).u8(static_cast<uint8_t>(v >> 8)); }
Writer& Writer::u32(uint32_t v) {
  return u16(static_cast<uint16_t>(v)).u16(static_cast<uint16_t>(v >> 16));
}
Writer& Writer::u64(uint64_t v) {
  return u32(static_cast<uint32_t>(v)).u32(static_cast<uint32_t>(v >> 32));
}
Writer& Writer::str(const std::string& s) {
  const size_t n = s.size() < kMaxString ? s.size() : kMaxString;
  u16(static_cast<uint16_t>(n));
  return bytes(s.data(), n);
}
Writer& Writer::text(const std::string& s) {
  const size_t n = s.size() < kMaxBody - 4 ? s.size() : kMaxBody - 4;
  u32(static_cast<uint32_t>(n));
  return bytes(s.data(), n);
}
Writer& Writer::bytes(const void* data, size_t len) {
  const uint8_t* p = static_cast<const uint8_t*>(data);
  body_.insert(body_.end(), p, p + len);
  return *this;
}

std::vector<uint8_t> Writer::frame(uint16_t kind, uint32_t seq) const {
  Writer h;
  h.u32(kMagic).u16(kVersion).u16(kind).u32(static_cast<uint32_t>(body_.size())).u32(seq);
  std::vector<uint8_t> out = h.body_;
  out.insert(out.end(), body_.begin(), body_.end());
  return out;
}

bool Reader::take(void* out, size_t len) {
  if (!ok_ || n_ < len) {
    ok_ = false;
    memset(out, 0, len);
    return false;
  }
  memcpy(out, p_, len);
  p_ += len;
  n_ -= len;
  return true;
}

uint8_t Reader::u8() {
  uint8_t b[1];
  take(b, 1);
  return b[0];
}
uint16_t Reader::u16() {
  uint8_t b[2];
  take(b, 2);
  return le16(b);
}
uint32_t Reader::u32() {
  uint8_t b[4];
  take(b, 4);
  return le32(b);
}
uint64_t Reader::u64() {
  const uint64_t lo = u32();
  return lo | uint64_t(u32()) << 32;
}
std::string Reader::str() {
  const uint16_t n = u16();
  if (n > kMaxString || n > n_) {
    ok_ = false;
    return std::string();
  }
  std::string s(reinterpret_cast<const char*>(p_), n);
  p_ += n, n_ -= n;
  return s;
}
std::string Reader::text() {
  const uint32_t n = u32();
  if (n > n_) {
    ok_ = false;
    return std::string();
  }
  std::string s(reinterpret_cast<const char*>(p_), n);
  p_ += n, n_ -= n;
  return s;
}
std::vector<uint8_t> Reader::rest() {
  std::vector<uint8_t> out(p_, p_ + n_);
  p_ += n_, n_ = 0;
  return out;
}

namespace {

// One function per structure serves both directions: Enc writes each field, Dec reads
// it in place. A list's length is checked against its array before its elements.
struct Enc {
  Writer& w;
  bool ok = true;
  template <typename T>
  void operator()(T& v) {
    if constexpr (std::is_enum<T>::value) {
      w.i32(static_cast<int32_t>(v));
    } else if constexpr (sizeof(T) == 1) {
      w.u8(static_cast<uint8_t>(v));
    } else if constexpr (sizeof(T) == 2) {
      w.u16(static_cast<uint16_t>(v));
    } else if constexpr (sizeof(T) == 4) {
      w.u32(static_cast<uint32_t>(v));
    } else {
      static_assert(sizeof(T) == 8, "field width");
      w.u64(static_cast<uint64_t>(v));
    }
  }
  template <typename T, size_t N>
  void array(T (&a)[N]) {
    for (T& v : a) (*this)(v);
  }
  template <typename T, size_t N, typename F>
  void list(uint8_t& valid, uint32_t& len, T (&a)[N], F element) {
    (*this)(valid);
    if (len > N) {
      ok = false;
      return;
    }
    (*this)(len);
    for (uint32_t i = 0; i < len; ++i) element(*this, a[i]);
  }
};

struct Dec {
  Reader& r;
  bool ok = true;
  template <typename T>
  void operator()(T& v) {
    if constexpr (std::is_enum<T>::value) {
      v = static_cast<T>(r.i32());
    } else if constexpr (sizeof(T) == 1) {
      v = static_cast<T>(r.u8());
    } else if constexpr (sizeof(T) == 2) {
      v = static_cast<T>(r.u16());
    } else if constexpr (sizeof(T) == 4) {
      v = static_cast<T>(r.u32());
    } else {
      static_assert(sizeof(T) == 8, "field width");
      v = static_cast<T>(r.u64());
    }
  }
  template <typename T, size_t N>
  void array(T (&a)[N]) {
    for (T& v : a) (*this)(v);
  }
  template <typename T, size_t N, typename F>
  void list(uint8_t& valid, uint32_t& len, T (&a)[N], F element) {
    (*this)(valid);
    (*this)(len);
    if (!r.ok() || len > N) {
      ok = false;
      len = 0;
      return;
    }
    for (uint32_t i = 0; i < len && r.ok(); ++i) element(*this, a[i]);
  }
};

template <typename IO>
void io(IO& c, tov_response_type_v01& m) {
  c(m.result), c(m.error);
}
template <typename IO>
void io(IO& c, dfs_ipv4_addr_type_v01& m) {
  c(m.ipv4_addr), c(m.subnet_mask);
}
template <typename IO>
void io(IO& c, dfs_ipv6_addr_type_v01& m) {
  c.array(m.ipv6_address), c(m.prefix_len);
}
template <typename IO>
void io(IO& c, dfs_port_info_type_v01& m) {
  c(m.valid_params);
  c(m.src_port_info.port), c(m.src_port_info.range);
  c(m.dest_port_info.port), c(m.dest_port_info.range);
}
template <typename IO>
void io(IO& c, dfs_filter_rule_type_v01& m) {
  dfs_ip_filter_type_v01& ip = m.ip_info;
  c(ip.ip_version);
  c(ip.v4_info.valid_params), io(c, ip.v4_info.src_addr), io(c, ip.v4_info.dest_addr);
  c(ip.v4_info.tos.val), c(ip.v4_info.tos.mask);
  c(ip.v6_info.valid_params), io(c, ip.v6_info.src_addr), io(c, ip.v6_info.dest_addr);
  c(ip.v6_info.trf_cls.val), c(ip.v6_info.trf_cls.mask), c(ip.v6_info.flow_label);
  dfs_xport_filter_type_v01& x = m.xport_info;
  c(x.xport_protocol);
  io(c, x.tcp_udp_info), io(c, x.tcp_info), io(c, x.udp_info);
  c(x.icmp_info.valid_params), c(x.icmp_info.type), c(x.icmp_info.code);
  c(x.esp_info.valid_params), c(x.esp_info.spi);
}

template <typename IO>
void io(IO& c, dfs_indication_register_req_msg_v01& m) {
  c(m.report_powersave_filter_mode_change_valid), c(m.report_powersave_filter_mode_change);
  c(m.report_low_latency_traffic_valid), c(m.report_low_latency_traffic);
  c(m.report_reverse_ip_filters_update_valid), c(m.report_reverse_ip_filters_update);
}
template <typename IO>
void io(IO& c, dfs_bind_client_req_msg_v01& m) {
  c(m.ip_preference_valid), c(m.ip_preference);
  c(m.ep_id_valid), c(m.ep_id.ep_type), c(m.ep_id.iface_id);
  c(m.mux_id_valid), c(m.mux_id);
  c(m.bind_subs_valid), c(m.bind_subs);
  c(m.data_path_valid), c(m.data_path);
}
template <typename IO>
void io(IO& c, dfs_add_powersave_filters_req_msg_v01& m) {
  c.list(m.powersave_filter_rules_valid, m.powersave_filter_rules_len, m.powersave_filter_rules,
         [](IO& cc, dfs_filter_rule_type_v01& rule) { io(cc, rule); });
}
template <typename IO>
void io(IO& c, dfs_add_powersave_filters_resp_msg_v01& m) {
  io(c, m.resp);
  c.list(m.filter_handles_valid, m.filter_handles_len, m.filter_handles,
         [](IO& cc, uint32_t& v) { cc(v); });
  c.list(m.filter_cookies_valid, m.filter_cookies_len, m.filter_cookies,
         [](IO& cc, uint64_t& v) { cc(v); });
}
template <typename IO>
void io(IO& c, dfs_get_powersave_filter_mode_resp_msg_v01& m) {
  io(c, m.resp), c(m.powersave_filter_mode_valid), c(m.powersave_filter_mode);
}
// Single-byte requests and the indication.
template <typename IO>
void io(IO& c, dfs_set_powersave_filter_mode_req_msg_v01& m) {
  c(m.powersave_filter_mode);
}
template <typename IO>
void io(IO& c, dfs_set_autoexit_powersave_filter_mode_req_msg_v01& m) {
  c(m.autoexit);
}
template <typename IO>
void io(IO& c, dfs_powersave_filter_mode_ind_msg_v01& m) {
  c(m.powersave_filter_mode);
}
// Empty requests.
template <typename IO>
void io(IO&, dfs_get_powersave_filter_mode_req_msg_v01&) {}
template <typename IO>
void io(IO&, dfs_remove_all_powersave_filters_req_msg_v01&) {}

// Calls f with a pointer of the C type of (type, msgId), null when there is none. The
// responses that hold only the standard result share one type.
template <typename F>
bool withType(tov_idl_type_of_msg_type type, unsigned int msgId, F f) {
  switch (type) {
    case TOV_IDL_REQUEST:
      switch (msgId) {
        case TOV_DFS_INDICATION_REGISTER_REQ_V01:
          return f(static_cast<dfs_indication_register_req_msg_v01*>(nullptr));
        case TOV_DFS_BIND_CLIENT_REQ_V01:
          return f(static_cast<dfs_bind_client_req_msg_v01*>(nullptr));
        case TOV_DFS_ADD_POWERSAVE_FILTERS_REQ_V01:
          return f(static_cast<dfs_add_powersave_filters_req_msg_v01*>(nullptr));
        case TOV_DFS_SET_POWERSAVE_FILTER_MODE_REQ_V01:
          return f(static_cast<dfs_set_powersave_filter_mode_req_msg_v01*>(nullptr));
        case TOV_DFS_GET_POWERSAVE_FILTER_MODE_REQ_V01:
          return f(static_cast<dfs_get_powersave_filter_mode_req_msg_v01*>(nullptr));
        case TOV_DFS_SET_AUTOEXIT_POWERSAVE_FILTER_MODE_REQ_V01:
          return f(static_cast<dfs_set_autoexit_powersave_filter_mode_req_msg_v01*>(nullptr));
        case TOV_DFS_REMOVE_ALL_POWERSAVE_FILTERS_REQ_V01:
          return f(static_cast<dfs_remove_all_powersave_filters_req_msg_v01*>(nullptr));
      }
      return false;
    case TOV_IDL_RESPONSE:
      switch (msgId) {
        case TOV_DFS_INDICATION_REGISTER_REQ_V01:
        case TOV_DFS_BIND_CLIENT_REQ_V01:
        case TOV_DFS_SET_POWERSAVE_FILTER_MODE_REQ_V01:
        case TOV_DFS_SET_AUTOEXIT_POWERSAVE_FILTER_MODE_REQ_V01:
        case TOV_DFS_REMOVE_ALL_POWERSAVE_FILTERS_REQ_V01:
          return f(static_cast<tov_response_type_v01*>(nullptr));
        case TOV_DFS_ADD_POWERSAVE_FILTERS_REQ_V01:
          return f(static_cast<dfs_add_powersave_filters_resp_msg_v01*>(nullptr));
        case TOV_DFS_GET_POWERSAVE_FILTER_MODE_REQ_V01:
          return f(static_cast<dfs_get_powersave_filter_mode_resp_msg_v01*>(nullptr));
      }
      return false;
    case TOV_IDL_INDICATION:
      if (msgId == TOV_DFS_POWERSAVE_FILTER_MODE_IND_V01)
        return f(static_cast<dfs_powersave_filter_mode_ind_msg_v01*>(nullptr));
      return false;
  }
  return false;
}

template <typename T>
constexpr bool isEmpty() {
  return std::is_same<T, dfs_get_powersave_filter_mode_req_msg_v01>::value ||
         std::is_same<T, dfs_remove_all_powersave_filters_req_msg_v01>::value;
}

}  // namespace

// The responses of one standard result are declared as structures of their own in the
// service's header, all laid out as tov_response_type_v01.
static_assert(sizeof(dfs_bind_client_resp_msg_v01) == sizeof(tov_response_type_v01), "response");
static_assert(sizeof(dfs_remove_all_powersave_filters_resp_msg_v01) == sizeof(tov_response_type_v01),
              "response");

size_t dfsStructSize(tov_idl_type_of_msg_type type, unsigned int msgId) {
  size_t size = 0;
  withType(type, msgId, [&](auto* typed) {
    size = sizeof(*typed);
    return true;
  });
  return size;
}

bool encodeDfs(tov_idl_type_of_msg_type type, unsigned int msgId, const void* c, size_t len,
               Writer& out) {
  return withType(type, msgId, [&](auto* typed) {
    using T = std::remove_pointer_t<decltype(typed)>;
    if (isEmpty<T>() && len == 0) return true;
    if (len != sizeof(T) || c == nullptr) return false;
    T copy;
    memcpy(&copy, c, sizeof(T));
    Writer w;
    Enc enc{w};
    io(enc, copy);
    if (!enc.ok) return false;
    out.bytes(w.body().data(), w.size());
    return true;
  });
}

bool decodeDfs(tov_idl_type_of_msg_type type, unsigned int msgId, Reader& in, void* c, size_t len) {
  return withType(type, msgId, [&](auto* typed) {
    using T = std::remove_pointer_t<decltype(typed)>;
    if (len != sizeof(T) || c == nullptr) return false;
    T* value = static_cast<T*>(c);
    memset(value, 0, sizeof(T));
    Dec dec{in};
    io(dec, *value);
    return dec.ok && in.done();
  });
}

}  // namespace tovwire
