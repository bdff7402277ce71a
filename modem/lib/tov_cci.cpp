// DFS clients of the host library: start, synchronous requests, indication decoding
// and release, and the service object of the DFS definitions.

#include <cstring>

#include "data_filter_service_v01.h"
#include "tov.h"
#include "tov_cci.h"
#include "tov_client_helper.h"
#include "tov_link.h"

using tovhost::Link;
using tovwire::Reader;
using tovwire::Writer;

struct tov_idl_service_object {
  uint32_t service_id;
  int32_t major;
  int32_t minor;
};

namespace {

tov_idl_service_object gDfsService = {TOV_DFS_SERVICE, DFS_V01_IDL_MAJOR_VERS,
                                      DFS_V01_IDL_MINOR_VERS};

constexpr tovhost::Codes kCodes = {TOV_CLIENT_TIMEOUT_ERR, TOV_CLIENT_TRANSPORT_ERR,
                                   TOV_CLIENT_INTERNAL_ERR};
constexpr size_t kMaxPortName = 15;

// A handle is the library's number of the client, never an address.
tov_client_type toHandle(int n) {
  return reinterpret_cast<tov_client_type>(static_cast<uintptr_t>(n));
}
int fromHandle(tov_client_type h) {
  const uintptr_t n = reinterpret_cast<uintptr_t>(h);
  return n > 0 && n <= 0x7fffffff ? static_cast<int>(n) : 0;
}

}  // namespace

extern "C" {

tov_idl_service_object_type dfs_get_service_object_internal_v01(int32_t idl_maj_version,
                                                                int32_t idl_min_version,
                                                                int32_t library_version) {
  if (idl_maj_version != DFS_V01_IDL_MAJOR_VERS || idl_min_version > DFS_V01_IDL_MINOR_VERS ||
      library_version != DFS_V01_IDL_TOOL_VERS)
    return nullptr;
  return &gDfsService;
}

tov_client_error_type tov_client_dfs_init_instance(const char* dev_str,
                                                   tov_idl_service_object_type service_obj,
                                                   int instance_id, tov_client_ind_cb ind_cb,
                                                   void* ind_cb_data, tov_client_os_params*,
                                                   uint32_t timeout, tov_client_type* user_handle) {
  if (dev_str == nullptr || *dev_str == '\0' || strnlen(dev_str, kMaxPortName + 1) > kMaxPortName ||
      service_obj != &gDfsService || user_handle == nullptr)
    return TOV_CLIENT_PARAM_ERR;
  Writer body;
  body.str(dev_str).u32(static_cast<uint32_t>(instance_id));
  tovhost::Start start;
  start.releaseKind = tovwire::kDfsRelease;
  // The handle is the caller's before the client can receive an indication.
  start.published = [user_handle](int handle) { *user_handle = toHandle(handle); };
  start.client.deliver = [ind_cb, ind_cb_data](int handle, uint16_t kind, Reader& ind) {
    if (kind != tovwire::kDfsIndication || ind_cb == nullptr) return;
    const uint16_t msgId = ind.u16();
    if (!ind.ok()) return;
    std::vector<uint8_t> msg = ind.rest();
    // Never a null buffer, also for an empty indication.
    uint8_t none = 0;
    ind_cb(toHandle(handle), msgId, msg.empty() ? &none : msg.data(),
           static_cast<unsigned int>(msg.size()), ind_cb_data);
  };
  std::vector<uint8_t> rest;
  const int rc = tovhost::request(tovwire::kDfsStart, body, timeout, kCodes, nullptr, &rest, &start);
  if (rc != TOV_CLIENT_NO_ERR) return rc;
  return start.handle != 0 ? TOV_CLIENT_NO_ERR : TOV_CLIENT_INTERNAL_ERR;
}

tov_client_error_type tov_client_send_msg_sync(tov_client_type user_handle, unsigned int msg_id,
                                               void* req_c_struct, unsigned int req_c_struct_len,
                                               void* resp_c_struct, unsigned int resp_c_struct_len,
                                               unsigned int timeout_msecs) {
  uint32_t simId = 0;
  bool live = false;
  if (!Link::instance().clientId(fromHandle(user_handle), &simId, &live))
    return TOV_CLIENT_INVALID_HANDLE;
  if (resp_c_struct == nullptr ||
      resp_c_struct_len != tovwire::dfsStructSize(TOV_IDL_RESPONSE, msg_id))
    return TOV_CLIENT_PARAM_ERR;
  Writer body;
  body.u32(simId).u16(static_cast<uint16_t>(msg_id));
  if (msg_id > 0xffff ||
      !tovwire::encodeDfs(TOV_IDL_REQUEST, msg_id, req_c_struct, req_c_struct_len, body))
    return TOV_CLIENT_ENCODE_ERR;
  if (!live) return TOV_CLIENT_TRANSPORT_ERR;
  std::vector<uint8_t> rest;
  const int rc = tovhost::request(tovwire::kDfsRequest, body, timeout_msecs, kCodes, nullptr, &rest);
  if (rc != TOV_CLIENT_NO_ERR) return rc;
  Reader in(rest.data(), rest.size());
  if (!tovwire::decodeDfs(TOV_IDL_RESPONSE, msg_id, in, resp_c_struct, resp_c_struct_len))
    return TOV_CLIENT_DECODE_ERR;
  return TOV_CLIENT_NO_ERR;
}

tov_client_error_type tov_client_message_decode(tov_client_type user_handle,
                                                tov_idl_type_of_msg_type req_resp_ind,
                                                unsigned int message_id, const void* msg_buf,
                                                unsigned int msg_buf_len, void* c_struct,
                                                unsigned int c_struct_len) {
  if (!Link::instance().isClient(fromHandle(user_handle))) return TOV_CLIENT_INVALID_HANDLE;
  if (msg_buf == nullptr && msg_buf_len != 0) return TOV_CLIENT_PARAM_ERR;
  Reader in(static_cast<const uint8_t*>(msg_buf), msg_buf_len);
  if (!tovwire::decodeDfs(req_resp_ind, message_id, in, c_struct, c_struct_len))
    return TOV_CLIENT_DECODE_ERR;
  return TOV_CLIENT_NO_ERR;
}

tov_client_error_type tov_client_release(tov_client_type user_handle) {
  Link& link = Link::instance();
  const int handle = fromHandle(user_handle);
  uint32_t simId = 0;
  bool live = false;
  if (!link.clientId(handle, &simId, &live) || !link.removeClient(handle))
    return TOV_CLIENT_INVALID_HANDLE;
  if (!live) return TOV_CLIENT_TRANSPORT_ERR;
  Writer body;
  body.u32(simId);
  return tovhost::release(tovwire::kDfsRelease, body, 5000, kCodes, nullptr);
}

}  // extern "C"
