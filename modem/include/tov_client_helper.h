#ifndef TOV_CLIENT_HELPER_H
#define TOV_CLIENT_HELPER_H

/* Starting a client of a service on a given modem port. */

#include "tov_cci.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Any instance of the service. */
#define TOV_CLIENT_INSTANCE_ANY 0xffff

/* Starts a client of `service_obj` on port `dev_str`, waiting at most `timeout` ms.
 * TOV_CLIENT_NO_ERR with the handle in *user_handle, else a negative error (and
 * *user_handle untouched). `ind_cb` receives the client's indications. */
tov_client_error_type tov_client_dfs_init_instance(const char* dev_str,
                                                   tov_idl_service_object_type service_obj,
                                                   int instance_id, tov_client_ind_cb ind_cb,
                                                   void* ind_cb_data,
                                                   tov_client_os_params* os_params,
                                                   uint32_t timeout,
                                                   tov_client_type* user_handle);

#ifdef __cplusplus
}
#endif

#endif /* TOV_CLIENT_HELPER_H */
