#ifndef TOV_CCI_H
#define TOV_CCI_H

/* The common client interface: synchronous requests to a service client, decoding of
 * its indications, and its release. Messages are the C structures of a service's
 * definitions (for instance data_filter_service_v01.h). */

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int tov_client_error_type;
#define TOV_CLIENT_NO_ERR 0
#define TOV_CLIENT_INTERNAL_ERR (-1)
#define TOV_CLIENT_SERVICE_ERR (-2)
#define TOV_CLIENT_TRANSPORT_ERR (-3)
#define TOV_CLIENT_DECODE_ERR (-4)
#define TOV_CLIENT_ENCODE_ERR (-5)
#define TOV_CLIENT_PARAM_ERR (-6)
#define TOV_CLIENT_INVALID_HANDLE (-7)
#define TOV_CLIENT_TIMEOUT_ERR (-8)

/* A client handle. Opaque: it names a client inside the library and is never a
 * pointer to be followed. */
typedef struct tov_client_struct* tov_client_type;

/* A service's message definitions, from its dfs_get_service_object...() call. */
typedef struct tov_idl_service_object* tov_idl_service_object_type;

typedef enum {
  TOV_IDL_REQUEST = 0,
  TOV_IDL_RESPONSE = 1,
  TOV_IDL_INDICATION = 2,
} tov_idl_type_of_msg_type;

/* Operating-system parameters of a client start. Nothing in them is required on a
 * host; callers zero them. */
typedef struct {
  int ext_signal;
  int sig;
  int timer_sig;
} tov_client_os_params;

/* Called on the library's thread with the encoded indication; decode it with
 * tov_client_message_decode. `ind_buf` is valid only during the call. */
typedef void (*tov_client_ind_cb)(tov_client_type user_handle, unsigned int msg_id, void* ind_buf,
                                  unsigned int ind_buf_len, void* ind_cb_data);

/* Sends request `msg_id` and waits at most `timeout_msecs` for its response, decoded
 * into `resp_c_struct`. TOV_CLIENT_NO_ERR when a response arrived (its own result field
 * tells whether the modem did it), else a negative error. */
tov_client_error_type tov_client_send_msg_sync(tov_client_type user_handle, unsigned int msg_id,
                                               void* req_c_struct, unsigned int req_c_struct_len,
                                               void* resp_c_struct, unsigned int resp_c_struct_len,
                                               unsigned int timeout_msecs);

/* Decodes an encoded message of the client's service into its C structure. */
tov_client_error_type tov_client_message_decode(tov_client_type user_handle,
                                                tov_idl_type_of_msg_type req_resp_ind,
                                                unsigned int message_id, const void* msg_buf,
                                                unsigned int msg_buf_len, void* c_struct,
                                                unsigned int c_struct_len);

/* Ends the client. Once it returns, whatever the modem answered, its indication
 * callback is not running and will not run, and the handle is no longer valid. */
tov_client_error_type tov_client_release(tov_client_type user_handle);

#ifdef __cplusplus
}
#endif

#endif /* TOV_CCI_H */
