/* msgbus: the platform's inter-process message service. A message has an opcode (32 bits) and a
 * payload of up to MSGBUS_PAYLOAD_MAX octets, and goes to a service access point of a node. Payload
 * integers are in the byte order that the message's own contract names. */
#ifndef PLATFORM_MSGBUS_H
#define PLATFORM_MSGBUS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define MSGBUS_NODE_LOCAL 0xFE000000U /* the node that the sender runs on */
#define MSGBUS_SAP_WARDEN 3U          /* the system manager */
#define MSGBUS_SAP_AGENT                                                                           \
    28U /* the SNMP agent: worker status, configuration action begun and ended */
#define MSGBUS_PAYLOAD_MAX 4096U

/* A message that the bus keeps for its holder until msgbus_drop(). Null: no message. */
typedef struct msgbus_message *msgbus_msg;

/* An endpoint's address. `sap` 0 lets the bus choose; the other words are passed as the module has
 * them. */
struct msgbus_address {
    uint32_t word[6]; /* word 3 is the service access point that the endpoint speaks for */
};

struct msgbus_recv_options {
    uint32_t
        wait; /* 1: wait a short while for a message before ETIME is reported; 0: do not wait */
    uint32_t reserved[9];
};

/* The agent's own endpoint for requests and their answers. Valid from the load of the platform on;
 * the platform owns it. */
extern int32_t msgbus_response_q;

/* Makes an endpoint. `kind` is 1 for one-way messages and 4 for requests and answers; `second` is
 * always -1; `name` is for people who look at the bus. Returns a handle of 0 or more, or a negative
 * value with errno set. */
int32_t msgbus_bind(int32_t kind, int32_t second, const struct msgbus_address *address,
                    const char *name);

/* Gives the endpoint back. Always 0 for a handle that msgbus_bind() returned. */
int32_t msgbus_unbind(int32_t handle, int32_t second);

/* Sends one message. With `store` not null a copy of the request is kept there (the caller drops
 * it), it carries a token that no other request of this endpoint has, and its answer can be had
 * with msgbus_recv(). Does not wait for the receiver. The last two arguments are always 0. A
 * further request on the endpoint gives up the answer of the former one. Returns 0, or a negative
 * value with errno set and *store untouched: ENOENT or ECONNREFUSED when nobody serves the access
 * point. */
int32_t msgbus_send(int32_t handle, uint32_t node, uint32_t sap, uint32_t opcode,
                    const void *payload, uint32_t length, msgbus_msg *store, uint32_t eighth,
                    uint32_t ninth);

/* Takes the next message for the endpoint into *message, which the caller drops. Returns 0, or -1
 * with errno set: ETIME when there is none yet and asking again makes sense; anything else when
 * none will come, for example ECONNRESET when the peer is gone and ETIMEDOUT when it has been
 * silent for longer than the bus allows. */
int32_t msgbus_recv(int32_t handle, msgbus_msg *message, const struct msgbus_recv_options *options);

/* Releases *message and sets it to null; nothing happens when it is null already. The handle is the
 * endpoint that the message belongs to.
 */
void msgbus_drop(int32_t handle, msgbus_msg *message);

uint32_t msgbus_opc_get(msgbus_msg message);

/* The payload, which lives as long as the message, or null when the message carries fewer than
 * `at_least` octets. */
const void *msgbus_payload_get(msgbus_msg message, uint32_t at_least);

/* The request/response token of a sent request or of the answer to it, never 0; 0 for no message.
 */
uint32_t msgbus_rr_token_get(msgbus_msg message);

#ifdef __cplusplus
}
#endif
#endif
