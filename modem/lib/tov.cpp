// Library start, control channels and the WDS client calls of the host library.

#include "tov.h"

#include <unistd.h>

#include <cstring>

#include "tov_link.h"
#include "tov_wds.h"

using tovhost::Link;
using tovwire::Reader;
using tovwire::Writer;

namespace {

// How long a call waits for the modem unless its caller says otherwise.
constexpr unsigned kTimeoutMs = 5000;
constexpr tovhost::Codes kCodes = {TOV_TIMEOUT_ERR, TOV_PORT_NOT_OPEN_ERR, TOV_INTERNAL_ERR};
constexpr size_t kMaxPortName = 15;

bool validPort(const char* port) {
  return port != nullptr && *port != '\0' && strnlen(port, kMaxPortName + 1) <= kMaxPortName;
}

// Values from the wire become enums only when they are values the headers name:
// anything but dormant is active.
tov_wds_dorm_status_type dormancy(uint32_t v) {
  return v == TOV_WDS_DORM_STATUS_DORMANT ? TOV_WDS_DORM_STATUS_DORMANT : TOV_WDS_DORM_STATUS_ACTIVE;
}
bool knownIndication(uint32_t v) {
  return v == TOV_WDS_SRVC_PKT_SRVC_STATUS_IND_MSG || v == TOV_WDS_SRVC_EVENT_REPORT_IND_MSG;
}

// A request on an existing WDS client: its id first, then `fields`.
template <typename F>
int wdsCall(uint16_t kind, int handle, int* err, F fields, std::vector<uint8_t>* rest = nullptr) {
  if (err != nullptr) *err = TOV_SERVICE_ERR_NONE;
  uint32_t simId = 0;
  bool live = false;
  if (!Link::instance().clientId(handle, &simId, &live)) return TOV_INVALID_HANDLE_ERR;
  if (!live) return TOV_PORT_NOT_OPEN_ERR;
  Writer body;
  body.u32(simId);
  fields(body);
  return tovhost::request(kind, body, kTimeoutMs, kCodes, err, rest);
}

}  // namespace

extern "C" {

int tov_init(tov_sys_event_rx_hdlr handler, void* user_data) {
  Link& link = Link::instance();
  if (!link.connect()) return TOV_PORT_NOT_OPEN_ERR;
  Writer body;
  body.u32(static_cast<uint32_t>(getpid()));
  int err = 0;
  const int rc = tovhost::request(tovwire::kHello, body, kTimeoutMs, kCodes, &err, nullptr);
  if (rc != TOV_NO_ERR) {
    link.disconnectIfUnused();
    return rc;
  }
  return link.addStart([handler, user_data](uint32_t event, uint32_t restarts) {
    if (handler == nullptr || event > TOV_SYS_EVENT_MODEM_IN_SERVICE_IND) return;
    tov_sys_event_info_type info = {restarts};
    handler(static_cast<tov_sys_event_type>(event), &info, user_data);
  });
}

int tov_release(int handle) {
  Link& link = Link::instance();
  if (!link.removeStart(handle)) return TOV_INVALID_HANDLE_ERR;
  int err = 0;
  // The modem's answer does not matter: this process is done with the library.
  tovhost::release(tovwire::kBye, Writer(), kTimeoutMs, kCodes, &err);
  link.disconnectIfUnused();
  return TOV_NO_ERR;
}

int tov_dev_connection_init(const char* dev_id, int* err) {
  if (err != nullptr) *err = TOV_SERVICE_ERR_NONE;
  if (!validPort(dev_id)) return TOV_INTERNAL_ERR;
  Writer body;
  body.str(dev_id);
  const int rc = tovhost::request(tovwire::kCtrlOpen, body, kTimeoutMs, kCodes, err, nullptr);
  if (rc == TOV_NO_ERR) Link::instance().addChannel(dev_id);
  return rc;
}

int tov_wds_srvc_init_client(const char* dev_id, tov_wds_indication_hdlr_type hdlr, void* user_data,
                             int* err) {
  if (err != nullptr) *err = TOV_SERVICE_ERR_NONE;
  if (!validPort(dev_id)) return TOV_INTERNAL_ERR;
  Writer body;
  body.str(dev_id);
  tovhost::Start start;
  start.releaseKind = tovwire::kWdsRelease;
  start.client.deliver = [hdlr, user_data](int handle, uint16_t kind, Reader& ind) {
    if (kind != tovwire::kWdsIndication || hdlr == nullptr) return;
    const uint32_t id = ind.u32();
    tov_wds_indication_data_type data;
    memset(&data, 0, sizeof(data));
    data.event_report.event_mask = static_cast<unsigned long>(ind.u64());
    data.event_report.dorm_status = dormancy(ind.u32());
    if (!ind.done() || !knownIndication(id)) return;
    hdlr(handle, TOV_WDS_SERVICE, user_data, static_cast<tov_wds_indication_id_type>(id), &data);
  };
  std::vector<uint8_t> rest;
  // Every failure is -1: callers take -1 for "no client".
  if (tovhost::request(tovwire::kWdsStart, body, kTimeoutMs, kCodes, err, &rest, &start) !=
          TOV_NO_ERR ||
      start.handle == 0)
    return TOV_INTERNAL_ERR;
  return start.handle;
}

int tov_wds_set_client_ip_pref(int handle, tov_ip_family_pref_type ip_family, int* err) {
  return wdsCall(tovwire::kWdsIpPref, handle, err,
                 [&](Writer& w) { w.u32(static_cast<uint32_t>(ip_family)); });
}

int tov_wds_set_event_report(int handle, tov_wds_event_report_params_type* params, int* err) {
  if (params == nullptr) {
    if (err != nullptr) *err = TOV_SERVICE_ERR_NONE;
    return TOV_INTERNAL_ERR;
  }
  return wdsCall(tovwire::kWdsEventReport, handle, err, [&](Writer& w) {
    w.u32(params->param_mask)
        .u8(params->report_chan_rate)
        .u8(params->report_bearer_tech)
        .u8(params->report_dorm_status);
  });
}

int tov_wds_get_dormancy_status(int handle, tov_wds_dorm_status_type* status, int* err) {
  if (status == nullptr) {
    if (err != nullptr) *err = TOV_SERVICE_ERR_NONE;
    return TOV_INTERNAL_ERR;
  }
  std::vector<uint8_t> rest;
  const int rc = wdsCall(tovwire::kWdsGetDormancy, handle, err, [](Writer&) {}, &rest);
  if (rc != TOV_NO_ERR) return rc;
  Reader in(rest.data(), rest.size());
  const uint32_t value = in.u32();
  if (!in.done()) return TOV_INTERNAL_ERR;
  *status = dormancy(value);
  return TOV_NO_ERR;
}

int tov_wds_go_dormant_req(int handle, int* err) {
  return wdsCall(tovwire::kWdsGoDormant, handle, err, [](Writer&) {});
}

int tov_wds_srvc_release_client(int handle, int* err) {
  if (err != nullptr) *err = TOV_SERVICE_ERR_NONE;
  Link& link = Link::instance();
  uint32_t simId = 0;
  bool live = false;
  if (!link.clientId(handle, &simId, &live) || !link.removeClient(handle))
    return TOV_INVALID_HANDLE_ERR;
  if (!live) return TOV_PORT_NOT_OPEN_ERR;
  Writer body;
  body.u32(simId);
  return tovhost::release(tovwire::kWdsRelease, body, kTimeoutMs, kCodes, err);
}

}  // extern "C"
