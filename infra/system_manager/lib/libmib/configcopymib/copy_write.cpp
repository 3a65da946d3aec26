/* The one operation that changes a stored row, and the error rows that it makes for a failed copy to the fabric. */
#include "config_copy_mib.h"

#include <stdlib.h>
#include <string.h>

#include "platform/fabric.h"

/* A failure that both the debug history and the agent's log get, in the same words. */
#define LOG_FAILURE(format, ...)                                                                                                           \
    do {                                                                                                                                   \
        cc_log(EVTRACE_ERROR, format, __VA_ARGS__);                                                                                        \
        snmp_log(LOG_ERR, format, __VA_ARGS__);                                                                                            \
    } while (0)

static constexpr char FILL_NAME[] = "setCcCopyEntry"; /* whose work the messages report */

/* Gives the local switch's world-wide name, as it lies in memory. */
static bool local_switch_wwn(uint32_t (&wwn)[2]) {
    static constexpr uint32_t WWN_SERVICE = 46;
    static constexpr uint32_t TIMEOUT_SECONDS = 5;
    static_assert(sizeof wwn == CC_WWN_SIZE);
    void *response = nullptr;
    uint32_t length = 0;
    const int status =
        ctlmsg_req_resp(CTLMSG_REQ_SWITCH_WWN, 1, nullptr, &response, &length, 0, 0, WWN_SERVICE, msgbus_response_q, TIMEOUT_SECONDS);
    const bool known = status == 0 && response != nullptr;
    if (known) {
        memcpy(wwn, response, sizeof wwn);
    }
    free(response);
    return known;
}

/* Sets the device's address text; a failed conversion leaves the row without one. */
static void set_device_address(struct ccCopyErrorEntry *error, const struct inet_address *address) {
    const int status = ip_addr_to_str(address, error->ccCopyErrorDeviceAddr, CC_ERROR_ADDRESS_TEXT_SIZE - 1);
    if (status != 0) {
        LOG_FAILURE("%s: ip_addr_to_str() failed with error: %d\n", FILL_NAME, status);
        return;
    }
    cc_log(EVTRACE_DEBUG, "%s: device ip addr: %s, device ip addr type: %d\n", FILL_NAME, error->ccCopyErrorDeviceAddr,
           error->ccCopyErrorDeviceAddrType);
}

/* The fabric service has no address for the switch it runs on: take the management port's first. */
static void set_local_device_address(struct ccCopyErrorEntry *error) {
    uint32_t if_index = 0;
    if_index_mgmt_sup_port_init(&if_index, 0, 0);
    struct addrcfg_inet_addrs *addresses = nullptr;
    if (addrcfg_get_if_inet_addrs(msgbus_response_q, if_index, &addresses) != 0 || addresses == nullptr) {
        snmp_log(LOG_ERR, "%s: Failed to get ip address of local switch\n", FILL_NAME);
        return;
    }
    if (addresses->count == 0) {
        LOG_FAILURE("%s: no inet ip address for local switch\n", FILL_NAME);
    } else {
        error->ccCopyErrorDeviceAddrType = (int32_t)addresses->first.type;
        set_device_address(error, &addresses->first);
    }
    free(addresses);
}

static void log_error_row(const struct ccCopyErrorEntry *error, const char *status_text) {
    char wwn[24] = "11:22:33:44:55:66:77:88";
    const uint8_t *w = error->ccCopyErrorSwitchWwn;
    snprintf(wwn, sizeof wwn, "%02x:%02x:%02x:%02x:%02x:%02x:%02x:%02x", w[0], w[1], w[2], w[3], w[4], w[5], w[6], w[7]);
    cc_log(EVTRACE_DEBUG, "%s: curr_entry contents: %s : %s\n", FILL_NAME, wwn, status_text);
    /* This line shows the octets as signed numbers, as far as the same 24 octets hold them. */
    const auto *s = reinterpret_cast<const signed char *>(w);
    char signed_wwn[8 * sizeof "-128:"];
    snprintf(signed_wwn, sizeof signed_wwn, "%d:%d:%d:%d:%d:%d:%d:%d", s[0], s[1], s[2], s[3], s[4], s[5], s[6], s[7]);
    snprintf(wwn, sizeof wwn, "%.23s", signed_wwn);
    cc_log(EVTRACE_DEBUG, "%s:adding errorentry to errortable index object %s : %s\n", FILL_NAME, wwn, error->ccCopyErrorText);
}

/* Adds one error row for every switch that the fabric service reports; failures are logged and end it. */
static void fill_error_table_of(const struct ccCopyEntry *stored) {
    cc_log(EVTRACE_DEBUG, "%s: filling up ccCopyErrorTable\n", FILL_NAME);
    if (keyedset_size(&ccCopyErrorTable) == 0 &&
        keyedset_create(&ccCopyErrorTable, 1, 1, ccCopyErrorEntry_comp_func, 1) != KEYEDSET_CREATED) {
        cc_log(EVTRACE_ERROR, "%s: failed to createccCopyErrorTable indx obj\n", FILL_NAME);
        snmp_log(LOG_ERR, "%s: failed to create ccCopyErrorTable indx obj\n", FILL_NAME);
        return;
    }

    cc_log(EVTRACE_DEBUG, "%s: get switch wwn\n", FILL_NAME);
    uint32_t wwn[2];
    if (!local_switch_wwn(wwn)) {
        LOG_FAILURE("%s: unable to get local switch wwn\n", FILL_NAME);
        return;
    }

    cc_log(EVTRACE_DEBUG, "%s: calling fabstat_status_next_get(..)\n", FILL_NAME);
    struct fabstat_status status = {}; /* cursor and result of the walk */
    char text[FABSTAT_TEXT_SIZE + 1] = "";
    for (int32_t error_index = 1; fabstat_status_next_get(&status, text, FABSTAT_TEXT_SIZE, wwn[0], wwn[1]) == 0; error_index++) {
        struct ccCopyErrorEntry error = {};
        error.ccCopyIndex = stored->ccCopyIndex;
        error.ccCopyErrorIndex = error_index;
        error.ccCopyErrorDeviceAddrType = (int32_t)status.address.type;
        memcpy(error.ccCopyErrorSwitchWwn, status.wwn, sizeof error.ccCopyErrorSwitchWwn);
        snprintf(error.ccCopyErrorText, sizeof error.ccCopyErrorText, "%.*s", (int)FABSTAT_TEXT_SIZE, text);
        if (status.local == 1) {
            set_local_device_address(&error);
        } else {
            set_device_address(&error, &status.address);
        }
        log_error_row(&error, text);
        addCcCopyErrorEntry(stored, &error);
    }
    fabstat_status_clean();
}

uint32_t setCcCopyEntry(const struct ccCopyEntry *record, int32_t fill_error_table) {
    if (keyedset_size(&ccCopyTable) == 0) {
        return CCERR_NOT_FOUND;
    }
    auto *stored = static_cast<struct ccCopyEntry *>(keyedset_find(&ccCopyTable, record));
    if (stored == nullptr) {
        return CCERR_NOT_FOUND;
    }
    memcpy(stored, record, sizeof *stored);
    if (fill_error_table != 0) {
        fill_error_table_of(stored);
    }
    return 0;
}
