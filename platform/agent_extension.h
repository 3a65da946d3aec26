/* The agent's extension interface: platform messages, notifications, and facts about the request
 * being served. Only the agent's one thread may use it, except that a worker forked during the
 * request may also call snmp_get_ctx_vrf_for_current_req(). */
#ifndef PLATFORM_AGENT_EXTENSION_H
#define PLATFORM_AGENT_EXTENSION_H

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <stdint.h>
#include <stdio.h>

#include "msgbus.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Payload: one signed 32-bit word in host order, the status of the copy. */
#define AGENT_OPC_WORKER_STATUS 10273U

/* Room for a notification OID that the dispatcher offers a handler, in sub-identifiers. */
#define AGENT_NOTIFICATION_OID_MAX 32U

/* Handles one message, which the dispatcher continues to own. `oid_buffer` has room for
 * AGENT_NOTIFICATION_OID_MAX sub-identifiers. On entry *oid_length is the outcome that the message
 * carries (0 success); a handler that returns a notification sets it to the length of the
 * notification's OID. If *send_flag is 1, the dispatcher sends the returned list and frees it. */
typedef netsnmp_variable_list *(*agent_message_handler)(msgbus_msg message, oid *oid_buffer,
                                                        uint32_t *oid_length, uint32_t *send_flag);

/* Delivers every later message of this opcode to the handler, on the agent's thread and between
 * requests. An opcode has one handler; registering again replaces it. Returns 0 or an errno value.
 * EINVAL: no handler was given. After any other error the subscription is in force, but messages of
 * other processes can't be received for now (EADDRINUSE: another agent has the access point). */
int register_for_notification(uint32_t opcode, agent_message_handler handler);

/* Ends the subscription. Returns 0, or ENOENT when there was none. */
int unregister_for_notification(uint32_t opcode);

/* Appends a binding after `previous`, or starts a list if that is null. The value is copied at
 * once; integers and time ticks are given as one 32-bit word. Returns the new binding, or null if
 * it can't be built; `previous` is then unchanged. */
netsnmp_variable_list *build_varbind(netsnmp_variable_list *previous, const void *value,
                                     uint8_t type, uint32_t value_length, const oid *name,
                                     uint32_t name_length);

/* Sends an SNMPv2 notification: sysUpTime.0 and snmpTrapOID.0 (RFC 3416, 4.2.6), followed by the
 * list, of which it takes ownership. `kind` is always 6, enterprise specific. Returns 0 or an errno
 * value. */
int enqueue_notification(int kind, const oid *notification, uint32_t notification_length,
                         netsnmp_variable_list *list);

/* User (securityName, or the one mapped to the community) and session of the request being served;
 * "" outside a request. The argument is always 0. The text is valid until the next call of the same
 * function. */
const char *get_snmp_username(int which);
const char *get_snmp_sessionid(int which);

/* The VRF that the context of the current request names. *status becomes non-zero, and the text "",
 * if it names none. */
const char *snmp_get_ctx_vrf_for_current_req(int *status);

/* Feeds the agent's liveness watchdog. */
void snmp_heartbeat_send(void);

enum mgmt_conf_change_kind {
    MGMT_CONF_CHANGE_STARTUP = 2,      /* the startup configuration was written */
    MGMT_CONF_CHANGE_STARTUP_SAVED = 3 /* running and startup configuration agree since then */
};

/* Marks the time of a configuration change of that kind as now. */
void set_mgmt_conf_last_change_time_extended(int kind);

/* The server argument of the start-time callback (class SNMP_CALLBACK_LIBRARY, minor id
 * AGENT_CALLBACK_STARTTIME_CHANGE). The agent raises the callback whenever it moves its start time
 * because the system clock was set. */
#define AGENT_CALLBACK_STARTTIME_CHANGE 9
#define AGENT_STARTTIME_ADDED 1U
#define AGENT_STARTTIME_SUBTRACTED 2U

struct agent_starttime_change {
    const uint32_t *seconds; /* size of the change */
    uint32_t direction;      /* AGENT_STARTTIME_ADDED, or anything else for subtracted */
};

/* The agent's debug file; null while it is not open. */
extern FILE *ld_dbg_fp;

#ifdef __cplusplus
}
#endif
#endif
