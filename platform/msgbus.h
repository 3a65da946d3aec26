/* msgbus: the platform's message service between processes. A message has an opcode (32 bits) and a
 * payload of up to MSGBUS_PAYLOAD_MAX octets, and is sent to a service access point of a node. The
 * byte order of integers in a payload is part of each message's own contract. */
#ifndef PLATFORM_MSGBUS_H
#define PLATFORM_MSGBUS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The node that the sender runs on. */
#define MSGBUS_NODE_LOCAL 0xFE000000U

/* Service access points: the system manager; the SNMP agent, which receives the status of workers
 * and the begin and end of configuration actions. */
#define MSGBUS_SAP_WARDEN 3U
#define MSGBUS_SAP_AGENT 28U

#define MSGBUS_PAYLOAD_MAX 4096U

/* A message that the bus keeps for its holder until msgbus_drop(). Null means no message. */
typedef struct msgbus_message *msgbus_msg;

/* The address of an endpoint. With `sap` 0 the bus chooses; the other words are passed as the
 * module sets them. */
struct msgbus_address {
    uint32_t word[6]; /* word 3 is the service access point that the endpoint speaks for */
};

struct msgbus_recv_options {
    uint32_t
        wait; /* 1: wait a short while for a message before ETIME is reported; 0: do not wait */
    uint32_t reserved[9];
};

/* The agent's own endpoint for requests and their answers. Valid once the platform is loaded, and
 * owned by the platform. */
extern int32_t msgbus_response_q;

/* Creates an endpoint. `kind` is 1 for one-way messages and 4 for requests with answers; `second`
 * is always -1; `name` is for people who look at the bus. Returns a handle of 0 or more, or a
 * negative value with errno set. */
int32_t msgbus_bind(int32_t kind, int32_t second, const struct msgbus_address *address,
                    const char *name);

/* Closes the endpoint. Always returns 0 for a handle of msgbus_bind(). */
int32_t msgbus_unbind(int32_t handle, int32_t second);

/* Sends one message. A receiver that is not there or takes no more is waited for, but only for a
 * moment: by the agent no longer than for an answer. If `store` is not null, a copy of the request
 * is kept there, which the caller must drop; the request then carries a token that is unique on
 * this endpoint, and its answer can be received with msgbus_recv(). A further request on the
 * endpoint abandons the answer to the previous one. The last two arguments are always 0. Returns 0,
 * or a negative value with errno set and *store unchanged: ENOENT or ECONNREFUSED if no process
 * serves the access point, EAGAIN if its process takes no more. */
int32_t msgbus_send(int32_t handle, uint32_t node, uint32_t sap, uint32_t opcode,
                    const void *payload, uint32_t length, msgbus_msg *store, uint32_t eighth,
                    uint32_t ninth);

/* Stores the next message for the endpoint in *message, which the caller must drop. Returns 0, or
 * -1 with errno set. ETIME: no message yet, and asking again makes sense. Any other value: none
 * will come, for example ECONNRESET if the peer has gone, or ETIMEDOUT if it has been silent for
 * longer than the bus allows. */
int32_t msgbus_recv(int32_t handle, msgbus_msg *message, const struct msgbus_recv_options *options);

/* Releases *message and sets it to null; does nothing if it is null already. The handle is the
 * endpoint that the message belongs to. */
void msgbus_drop(int32_t handle, msgbus_msg *message);

uint32_t msgbus_opc_get(msgbus_msg message);

/* The payload, valid as long as the message; null if the message has fewer than `at_least`
 * octets. */
const void *msgbus_payload_get(msgbus_msg message, uint32_t at_least);

/* The token that a sent request and its answer share, never 0; 0 for a null message. */
uint32_t msgbus_rr_token_get(msgbus_msg message);

#ifdef __cplusplus
}
#endif
#endif
