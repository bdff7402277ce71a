#ifndef DATA_FILTER_SERVICE_V01_H
#define DATA_FILTER_SERVICE_V01_H

/* The data filter service (DFS), interface version 1.6: the messages and types of its
 * power-save filters. While power-save filter mode is on, the modem drops downlink
 * packets that match none of the installed filters instead of waking the data link.
 * The layouts are fixed: the sizes are pinned below. */

#include <stddef.h>
#include <stdint.h>

#include "tov_cci.h"

#ifdef __cplusplus
extern "C" {
#endif

#define DFS_V01_IDL_MAJOR_VERS 0x01
#define DFS_V01_IDL_MINOR_VERS 0x06
#define DFS_V01_IDL_TOOL_VERS 0x06

#define DFS_MAX_POWERSAVE_FILTERS_V01 255
#define DFS_IPV6_ADDR_LEN_V01 16

/* Message ids; a response carries the id of its request. */
#define TOV_DFS_INDICATION_REGISTER_REQ_V01 0x0003
#define TOV_DFS_BIND_CLIENT_REQ_V01 0x0021
#define TOV_DFS_ADD_POWERSAVE_FILTERS_REQ_V01 0x0028
#define TOV_DFS_SET_POWERSAVE_FILTER_MODE_REQ_V01 0x0029
#define TOV_DFS_GET_POWERSAVE_FILTER_MODE_REQ_V01 0x002A
#define TOV_DFS_SET_AUTOEXIT_POWERSAVE_FILTER_MODE_REQ_V01 0x002B
#define TOV_DFS_POWERSAVE_FILTER_MODE_IND_V01 0x002C
#define TOV_DFS_REMOVE_ALL_POWERSAVE_FILTERS_REQ_V01 0x002D

/* The enums of the messages carry a sentinel at each end of the int32 range: every value
 * the wire can carry is then a value of the type, and each enum stays 32 bits wide. */
typedef enum {
  TOV_RESULT_TYPE_MIN_ENUM_VAL_V01 = -2147483647,
  TOV_RESULT_SUCCESS_V01 = 0,
  TOV_RESULT_FAILURE_V01 = 1,
  TOV_RESULT_TYPE_MAX_ENUM_VAL_V01 = 2147483647,
} tov_result_type_v01;

/* The modem's error code (tov.h's TOV_SERVICE_ERR_* values). */
typedef int32_t tov_error_type_v01;

/* The standard response: result, and the error when it failed. */
typedef struct {
  tov_result_type_v01 result;
  tov_error_type_v01 error;
} tov_response_type_v01;

typedef enum {
  DFS_IP_FAMILY_ENUM_MIN_ENUM_VAL_V01 = -2147483647,
  DFS_IP_FAMILY_IPV4_V01 = 0x04,
  DFS_IP_FAMILY_IPV6_V01 = 0x06,
  DFS_IP_FAMILY_ENUM_MAX_ENUM_VAL_V01 = 2147483647,
} dfs_ip_family_enum_v01;

typedef enum {
  DFS_XPORT_PROTOCOL_ENUM_MIN_ENUM_VAL_V01 = -2147483647,
  DFS_PROTO_NONE_V01 = 0x00,
  DFS_PROTO_ICMP_V01 = 0x01,
  DFS_PROTO_TCP_V01 = 0x06,
  DFS_PROTO_UDP_V01 = 0x11,
  DFS_PROTO_ESP_V01 = 0x32,
  DFS_PROTO_ICMP6_V01 = 0x3A,
  DFS_PROTO_TCP_UDP_V01 = 0xFD,
  DFS_XPORT_PROTOCOL_ENUM_MAX_ENUM_VAL_V01 = 2147483647,
} dfs_xport_protocol_enum_v01;

/* Valid-parameter masks: a bit set means the parameter is part of the rule. */
typedef uint64_t dfs_ipv4_filter_mask_v01;
#define DFS_IPV4_FILTER_MASK_SRC_ADDR_V01 ((dfs_ipv4_filter_mask_v01)0x01ull)
#define DFS_IPV4_FILTER_MASK_DEST_ADDR_V01 ((dfs_ipv4_filter_mask_v01)0x02ull)
#define DFS_IPV4_FILTER_MASK_TOS_V01 ((dfs_ipv4_filter_mask_v01)0x04ull)

typedef uint64_t dfs_ipv6_filter_mask_v01;
#define DFS_IPV6_FILTER_MASK_SRC_ADDR_V01 ((dfs_ipv6_filter_mask_v01)0x01ull)
#define DFS_IPV6_FILTER_MASK_DEST_ADDR_V01 ((dfs_ipv6_filter_mask_v01)0x02ull)
#define DFS_IPV6_FILTER_MASK_TRAFFIC_CLASS_V01 ((dfs_ipv6_filter_mask_v01)0x04ull)
#define DFS_IPV6_FILTER_MASK_FLOW_LABEL_V01 ((dfs_ipv6_filter_mask_v01)0x08ull)

typedef uint64_t dfs_port_info_filter_mask_v01;
#define DFS_PORT_INFO_FILTER_MASK_SRC_PORT_V01 ((dfs_port_info_filter_mask_v01)0x01ull)
#define DFS_PORT_INFO_FILTER_MASK_DEST_PORT_V01 ((dfs_port_info_filter_mask_v01)0x02ull)

typedef uint64_t dfs_icmp_filter_mask_v01;
#define DFS_ICMP_FILTER_MASK_MSG_TYPE_V01 ((dfs_icmp_filter_mask_v01)0x01ull)
#define DFS_ICMP_FILTER_MASK_MSG_CODE_V01 ((dfs_icmp_filter_mask_v01)0x02ull)

typedef uint64_t dfs_ipsec_filter_mask_v01;
#define DFS_IPSEC_FILTER_MASK_SPI_V01 ((dfs_ipsec_filter_mask_v01)0x01ull)

/* Addresses and ports are in host byte order. */
typedef struct {
  uint32_t ipv4_addr;
  uint32_t subnet_mask;
} dfs_ipv4_addr_type_v01;

typedef struct {
  uint8_t val;
  uint8_t mask;
} dfs_ipv4_tos_type_v01;

typedef struct {
  dfs_ipv4_filter_mask_v01 valid_params;
  dfs_ipv4_addr_type_v01 src_addr;
  dfs_ipv4_addr_type_v01 dest_addr;
  dfs_ipv4_tos_type_v01 tos;
} dfs_ipv4_info_type_v01;

typedef struct {
  uint8_t ipv6_address[DFS_IPV6_ADDR_LEN_V01];
  uint8_t prefix_len;
} dfs_ipv6_addr_type_v01;

typedef struct {
  uint8_t val;
  uint8_t mask;
} dfs_ipv6_trf_cls_type_v01;

typedef struct {
  dfs_ipv6_filter_mask_v01 valid_params;
  dfs_ipv6_addr_type_v01 src_addr;
  dfs_ipv6_addr_type_v01 dest_addr;
  dfs_ipv6_trf_cls_type_v01 trf_cls;
  uint32_t flow_label;
} dfs_ipv6_info_type_v01;

typedef struct {
  dfs_ip_family_enum_v01 ip_version;
  dfs_ipv4_info_type_v01 v4_info;
  dfs_ipv6_info_type_v01 v6_info;
} dfs_ip_filter_type_v01;

typedef struct {
  uint16_t port;
  uint16_t range; /* ports port..port+range */
} dfs_port_type_v01;

typedef struct {
  dfs_port_info_filter_mask_v01 valid_params;
  dfs_port_type_v01 src_port_info;
  dfs_port_type_v01 dest_port_info;
} dfs_port_info_type_v01;

typedef struct {
  dfs_icmp_filter_mask_v01 valid_params;
  uint8_t type;
  uint8_t code;
} dfs_icmp_info_type_v01;

typedef struct {
  dfs_ipsec_filter_mask_v01 valid_params;
  uint32_t spi;
} dfs_ipsec_info_type_v01;

typedef struct {
  dfs_xport_protocol_enum_v01 xport_protocol;
  dfs_port_info_type_v01 tcp_udp_info;
  dfs_port_info_type_v01 tcp_info;
  dfs_port_info_type_v01 udp_info;
  dfs_icmp_info_type_v01 icmp_info;
  dfs_ipsec_info_type_v01 esp_info;
} dfs_xport_filter_type_v01;

/* One filter: the packets it matches pass while filter mode is on. */
typedef struct {
  dfs_ip_filter_type_v01 ip_info;
  dfs_xport_filter_type_v01 xport_info;
} dfs_filter_rule_type_v01;

/* 0x03: which indications the client wants. */
typedef struct {
  uint8_t report_powersave_filter_mode_change_valid;
  uint8_t report_powersave_filter_mode_change;
  uint8_t report_low_latency_traffic_valid;
  uint8_t report_low_latency_traffic;
  uint8_t report_reverse_ip_filters_update_valid;
  uint8_t report_reverse_ip_filters_update;
} dfs_indication_register_req_msg_v01;

typedef struct {
  tov_response_type_v01 resp;
} dfs_indication_register_resp_msg_v01;

typedef struct {
  int32_t ep_type;
  uint32_t iface_id;
} dfs_data_ep_id_type_v01;

/* 0x21: binds the client to an IP family (and optionally a data path). */
typedef struct {
  uint8_t ip_preference_valid;
  dfs_ip_family_enum_v01 ip_preference;
  uint8_t ep_id_valid;
  dfs_data_ep_id_type_v01 ep_id;
  uint8_t mux_id_valid;
  uint8_t mux_id;
  uint8_t bind_subs_valid;
  uint32_t bind_subs;
  uint8_t data_path_valid;
  uint8_t data_path;
} dfs_bind_client_req_msg_v01;

typedef struct {
  tov_response_type_v01 resp;
} dfs_bind_client_resp_msg_v01;

/* 0x28: installs up to 255 filters. */
typedef struct {
  uint8_t powersave_filter_rules_valid;
  uint32_t powersave_filter_rules_len;
  dfs_filter_rule_type_v01 powersave_filter_rules[DFS_MAX_POWERSAVE_FILTERS_V01];
} dfs_add_powersave_filters_req_msg_v01;

/* Per installed rule: the modem's handle, and an opaque 64-bit cookie. */
typedef struct {
  tov_response_type_v01 resp;
  uint8_t filter_handles_valid;
  uint32_t filter_handles_len;
  uint32_t filter_handles[DFS_MAX_POWERSAVE_FILTERS_V01];
  uint8_t filter_cookies_valid;
  uint32_t filter_cookies_len;
  uint64_t filter_cookies[DFS_MAX_POWERSAVE_FILTERS_V01];
} dfs_add_powersave_filters_resp_msg_v01;

/* 0x29: filter mode on (1) or off (0). */
typedef struct {
  uint8_t powersave_filter_mode;
} dfs_set_powersave_filter_mode_req_msg_v01;

typedef struct {
  tov_response_type_v01 resp;
} dfs_set_powersave_filter_mode_resp_msg_v01;

/* 0x2a: the request is empty. */
typedef struct {
  char __placeholder;
} dfs_get_powersave_filter_mode_req_msg_v01;

typedef struct {
  tov_response_type_v01 resp;
  uint8_t powersave_filter_mode_valid;
  uint8_t powersave_filter_mode;
} dfs_get_powersave_filter_mode_resp_msg_v01;

/* 0x2b: with auto-exit on, uplink traffic ends filter mode by itself. */
typedef struct {
  uint8_t autoexit;
} dfs_set_autoexit_powersave_filter_mode_req_msg_v01;

typedef struct {
  tov_response_type_v01 resp;
} dfs_set_autoexit_powersave_filter_mode_resp_msg_v01;

/* 0x2c: the filter mode changed. */
typedef struct {
  uint8_t powersave_filter_mode;
} dfs_powersave_filter_mode_ind_msg_v01;

/* 0x2d: the request is empty. */
typedef struct {
  char __placeholder;
} dfs_remove_all_powersave_filters_req_msg_v01;

typedef struct {
  tov_response_type_v01 resp;
} dfs_remove_all_powersave_filters_resp_msg_v01;

/* The service object for these definitions: null when the versions asked for are not
 * the ones built here. */
tov_idl_service_object_type dfs_get_service_object_internal_v01(int32_t idl_maj_version,
                                                                int32_t idl_min_version,
                                                                int32_t library_version);

#define dfs_get_service_object_v01()                                          \
  dfs_get_service_object_internal_v01(DFS_V01_IDL_MAJOR_VERS, DFS_V01_IDL_MINOR_VERS, \
                                      DFS_V01_IDL_TOOL_VERS)

#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
static_assert(sizeof(dfs_filter_rule_type_v01) == 176, "filter rule");
static_assert(sizeof(dfs_add_powersave_filters_req_msg_v01) == 44888, "add filters request");
static_assert(sizeof(dfs_add_powersave_filters_resp_msg_v01) == 3088, "add filters response");
static_assert(sizeof(dfs_indication_register_req_msg_v01) == 6, "indication register request");
static_assert(sizeof(dfs_bind_client_req_msg_v01) == 32, "bind client request");
static_assert(sizeof(dfs_powersave_filter_mode_ind_msg_v01) == 1, "filter mode indication");
static_assert(offsetof(dfs_add_powersave_filters_req_msg_v01, powersave_filter_rules) == 8,
              "rules follow the present flag and the length");
#endif

#endif /* DATA_FILTER_SERVICE_V01_H */
