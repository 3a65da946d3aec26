/* Fabric and address services: this switch's identity, each switch's outcome of the last
 * fabric-wide action, and the management addresses. */
#ifndef PLATFORM_FABRIC_H
#define PLATFORM_FABRIC_H

#include <stddef.h>
#include <stdint.h>

#include "inet_address.h"

#ifdef __cplusplus
extern "C" {
#endif

#define SWITCH_WWN_SIZE 8U

/* The answer begins with the local switch's world-wide name, SWITCH_WWN_SIZE octets. */
#define CTLMSG_REQ_SWITCH_WWN 1282U

/* Sends a request to a service of the switch and waits at most `timeout` seconds for the answer.
 * Returns 0 on success. *response is null, or heap memory of *length octets, which the caller must
 * free(3). */
int ctlmsg_req_resp(uint32_t request, int second, const void *third, void **response,
                    uint32_t *length, int sixth, int seventh, uint32_t destination, int32_t queue,
                    uint32_t timeout);

/* One switch of the fabric: cursor and result of the walk. All zero starts a walk. */
struct fabstat_status {
    uint8_t wwn[SWITCH_WWN_SIZE];
    uint32_t local;              /* 1: the switch that asks */
    struct inet_address address; /* of a remote switch; the local one has none here */
};

#define FABSTAT_TEXT_SIZE 256U

/* Steps to the next switch and writes its outcome to `text`: at most `size` octets, with a
 * terminator if the text is shorter. The local world-wide name is passed as the two 32-bit halves
 * of its octets as stored in memory. Returns 0, or non-zero at the end of the walk. */
int fabstat_status_next_get(struct fabstat_status *status, char *text, uint32_t size,
                            uint32_t local_wwn_first, uint32_t local_wwn_second);

/* Releases the resources of the walk. */
void fabstat_status_clean(void);

/* The interface index of the supervisor's management port; the last two arguments are always 0. */
void if_index_mgmt_sup_port_init(uint32_t *if_index, uint32_t second, uint32_t third);

struct addrcfg_inet_addrs {
    uint32_t reserved0;
    uint32_t count; /* addresses that follow */
    uint32_t reserved2;
    struct inet_address first;
};

/* The addresses of an interface. Returns 0 and a list in heap memory, which the caller must
 * free(3), or non-zero on failure. */
int addrcfg_get_if_inet_addrs(int32_t queue, uint32_t if_index,
                              struct addrcfg_inet_addrs **addresses);

#ifdef __cplusplus
}
static_assert(offsetof(addrcfg_inet_addrs, count) == 4 && offsetof(addrcfg_inet_addrs, first) == 12,
              "layout of the address list");
#endif
#endif
