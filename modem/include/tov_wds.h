#ifndef TOV_WDS_H
#define TOV_WDS_H

/* The wireless data service (WDS): one client per port and IP family reads the data
 * link's dormancy, orders it dormant, and receives event reports. A client handle is
 * an int >= 0; every call returns TOV_NO_ERR or a negative result of tov.h, with the
 * modem's code in *err. */

#include "tov.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
  TOV_WDS_DORM_STATUS_DORMANT = 1,
  TOV_WDS_DORM_STATUS_ACTIVE = 2,
} tov_wds_dorm_status_type;

/* Event-report parameter mask bits. */
#define TOV_WDS_EVENT_CHAN_RATE_IND 0x00000001u
#define TOV_WDS_EVENT_XFER_STATS_IND 0x00000002u
#define TOV_WDS_EVENT_BEARER_TECH_IND 0x00000004u
#define TOV_WDS_EVENT_DORM_STATUS_IND 0x00000008u

/* What an event-report request turns on; only the fields whose bit is in param_mask
 * are sent. */
typedef struct {
  uint32_t param_mask;
  uint8_t report_chan_rate;
  uint8_t report_bearer_tech;
  uint8_t report_dorm_status;
} tov_wds_event_report_params_type;

typedef enum {
  TOV_WDS_SRVC_PKT_SRVC_STATUS_IND_MSG = 1,
  TOV_WDS_SRVC_EVENT_REPORT_IND_MSG = 2,
} tov_wds_indication_id_type;

/* An event report: event_mask tells which fields are set. */
typedef struct {
  unsigned long event_mask;
  tov_wds_dorm_status_type dorm_status;
} tov_wds_event_report_type;

typedef union {
  tov_wds_event_report_type event_report;
} tov_wds_indication_data_type;

/* Called on the library's thread; `ind_data` is valid only during the call. */
typedef void (*tov_wds_indication_hdlr_type)(int user_handle, tov_service_id_type service_id,
                                             void* user_data, tov_wds_indication_id_type ind_id,
                                             tov_wds_indication_data_type* ind_data);

/* Starts a WDS client on port `dev_id` (its control channel must be open): the client
 * handle (>= 0), or -1 with the modem's code in *err (0 when the modem did not answer).
 * `hdlr` gets the client's indications. */
int tov_wds_srvc_init_client(const char* dev_id, tov_wds_indication_hdlr_type hdlr, void* user_data,
                             int* err);
/* Binds the client to an IP family (4 or 6); a new client is IPv4. */
int tov_wds_set_client_ip_pref(int handle, tov_ip_family_pref_type ip_family, int* err);
int tov_wds_set_event_report(int handle, tov_wds_event_report_params_type* params, int* err);
int tov_wds_get_dormancy_status(int handle, tov_wds_dorm_status_type* status, int* err);
int tov_wds_go_dormant_req(int handle, int* err);
/* Ends the client. Once it returns, whatever the modem answered, the client's handler
 * is not running and will not run, and the handle is no longer valid. */
int tov_wds_srvc_release_client(int handle, int* err);

#ifdef __cplusplus
}
#endif

#endif /* TOV_WDS_H */
