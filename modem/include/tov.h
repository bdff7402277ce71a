#ifndef TOV_H
#define TOV_H

/* The modem messaging library: library start and release, the per-port control
 * channel, system events, and the error codes and types shared by its services.
 * Every call may block the calling thread until the modem answers, at most for its
 * timeout; callbacks run on the library's own thread. A call that would wait for the
 * modem fails at once when made there (TOV_INTERNAL_ERR, TOV_CLIENT_INTERNAL_ERR for
 * the tov_cci.h calls); the releases may be made there, and then do not wait.
 * When the modem restarts or goes away, the library tells the handlers
 * (TOV_SYS_EVENT_MODEM_OUT_OF_SERVICE_IND), reconnects by itself, opens again the
 * control channels it had opened and then tells them TOV_SYS_EVENT_MODEM_IN_SERVICE_IND;
 * library handles stay valid, clients of the old modem do not. */

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Results of the library calls; a service error leaves the modem's code in *err. */
#define TOV_NO_ERR 0
#define TOV_INTERNAL_ERR (-1)
#define TOV_SERVICE_ERR (-2)
#define TOV_TIMEOUT_ERR (-3)
#define TOV_EXTENDED_ERR (-4)
#define TOV_PORT_NOT_OPEN_ERR (-5)
#define TOV_INVALID_HANDLE_ERR (-6)

/* Modem error codes (the value left in *err, and the error of a response message). */
#define TOV_SERVICE_ERR_NONE 0
#define TOV_SERVICE_ERR_MALFORMED_MSG 1
#define TOV_SERVICE_ERR_NO_MEMORY 2
#define TOV_SERVICE_ERR_INTERNAL 3
#define TOV_SERVICE_ERR_INVALID_CLIENT_ID 5
#define TOV_SERVICE_ERR_INVALID_ARG 0x30
#define TOV_SERVICE_ERR_INVALID_OPERATION 0x52

typedef enum {
  TOV_IP_FAMILY_PREF_IPV4 = 4,
  TOV_IP_FAMILY_PREF_IPV6 = 6,
  TOV_IP_FAMILY_PREF_UNSPECIFIED = 8,
} tov_ip_family_pref_type;

typedef enum {
  TOV_WDS_SERVICE = 1,
  TOV_DFS_SERVICE = 0x30,
} tov_service_id_type;

typedef enum {
  TOV_SYS_EVENT_MODEM_OUT_OF_SERVICE_IND = 0,
  TOV_SYS_EVENT_MODEM_IN_SERVICE_IND = 1,
} tov_sys_event_type;

typedef struct {
  uint32_t restart_count; /* modem restarts seen by this library */
} tov_sys_event_info_type;

typedef void (*tov_sys_event_rx_hdlr)(tov_sys_event_type event,
                                      const tov_sys_event_info_type* info, void* user_data);

/* Starts the library: a handle >= 0, or a negative result when the modem cannot be
 * reached or refuses. `handler` receives system events until tov_release. */
int tov_init(tov_sys_event_rx_hdlr handler, void* user_data);

/* Ends what tov_init started. TOV_NO_ERR, or TOV_INVALID_HANDLE_ERR for a handle that
 * is not started. After it returns the handler is not running and will not run. */
int tov_release(int handle);

/* Opens the control channel of modem port `dev_id`; service clients on a port need
 * one. TOV_NO_ERR or a negative result (*err: the modem's code). */
int tov_dev_connection_init(const char* dev_id, int* err);

#ifdef __cplusplus
}
#endif

#endif /* TOV_H */
