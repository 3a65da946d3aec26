// The error table: its store, and the rows for a failed copy to the fabric.
#include "config_copy_mib.h"

#include <stdlib.h>
#include <string.h>

#include "platform/fabric.h"

struct keyedset ccCopyErrorTable = {};

// --- the store

int8_t ccCopyErrorEntry_comp_func(const void *a, const void *b) {
    if (a == nullptr || b == nullptr) {
        return -1;
    }
    const auto *first = static_cast<const struct ccCopyErrorEntry *>(a);
    const auto *second = static_cast<const struct ccCopyErrorEntry *>(b);
    if (second->ccCopyIndex != first->ccCopyIndex) {
        return (int8_t)INTCMP(second->ccCopyIndex, first->ccCopyIndex);
    }
    return (int8_t)INTCMP(second->ccCopyErrorIndex, first->ccCopyErrorIndex);
}

uint32_t addCcCopyErrorEntry(const struct ccCopyEntry *, const struct ccCopyErrorEntry *record) {
    static constexpr uint32_t NO_MEMORY = 5; // not a module status code
    auto *stored = static_cast<struct ccCopyErrorEntry *>(malloc(sizeof(struct ccCopyErrorEntry)));
    if (stored == nullptr) {
        cc_log(EVTRACE_ERROR, "%s : Mallocing for ccCopyErrorEntryFailed\n", __func__);
        return NO_MEMORY;
    }
    memcpy(stored, record, sizeof *stored);
    if (keyedset_add(&ccCopyErrorTable, stored, stored) == nullptr) {
        // A copy that fails again reports its switches under the same keys. Deliberate: the first
        // errors stay.
        free(stored);
        cc_log(EVTRACE_ERROR, "%s : failed to add to index object\n", __func__);
        return CCERR_FAILED;
    }
    return 0;
}

uint32_t getCcCopyErrorEntry(struct ccCopyErrorEntry *buffer) {
    if (keyedset_size(&ccCopyErrorTable) == 0) {
        cc_log(EVTRACE_DEBUG, "%s : ccCopyErrorTable empty\n", __func__);
        return CCERR_NOT_FOUND;
    }
    const void *stored = keyedset_find(&ccCopyErrorTable, buffer);
    if (stored == nullptr) {
        return CCERR_NOT_FOUND;
    }
    memcpy(buffer, stored, sizeof *buffer);
    cc_log(EVTRACE_DEBUG, "%s : found entry in ccCopyErrorTable\n", __func__);
    return 0;
}

uint32_t getnextCcCopyErrorEntry(struct ccCopyErrorEntry *buffer) {
    if (keyedset_size(&ccCopyErrorTable) == 0) {
        cc_log(EVTRACE_DEBUG, "%s : ccCopyTable empty\n", __func__);
        return CCERR_NOT_FOUND;
    }
    const void *stored = keyedset_find_nextgreater(&ccCopyErrorTable, buffer);
    if (stored == nullptr) {
        return CCERR_NOT_FOUND;
    }
    memcpy(buffer, stored, sizeof *buffer);
    cc_log(EVTRACE_DEBUG, "%s :found entry in ccCopyErrorTable\n", __func__);
    return 0;
}

uint32_t deleteCcCopyErrorEntries(const struct ccCopyEntry *key) {
    if (key == nullptr) {
        cc_log(EVTRACE_DEBUG, "%s : entry provided is NULL\n", __func__);
        return 0;
    }
    if (keyedset_size(&ccCopyErrorTable) == 0) {
        cc_log(EVTRACE_DEBUG, "%s : ccCopyErrorTable empty forcopy index: %d\n", __func__,
               key->ccCopyIndex);
        return 0;
    }
    struct ccCopyErrorEntry walk = {};
    walk.ccCopyIndex = key->ccCopyIndex;
    for (;;) {
        const void *next = keyedset_find_nextgreater(&ccCopyErrorTable, &walk);
        if (next == nullptr ||
            static_cast<const struct ccCopyErrorEntry *>(next)->ccCopyIndex != key->ccCopyIndex) {
            break;
        }
        memcpy(&walk, next, sizeof walk);
        free(keyedset_remove(&ccCopyErrorTable, &walk));
    }
    if (keyedset_size(&ccCopyErrorTable) == 0) {
        keyedset_destroy(&ccCopyErrorTable);
    }
    return 0;
}

uint32_t getFirstErrorEntryForNextCopyEntry(struct ccCopyErrorEntry *buffer) {
    struct ccCopyEntry request;
    request.ccCopyIndex = buffer->ccCopyIndex;
    while (getnextCcCopyEntry(&request) == 0) {
        // Deliberate: the store's very first record, whatever copy request it belongs to.
        const void *first = keyedset_find_nth_obj(&ccCopyErrorTable, 1);
        if (first != nullptr) {
            memcpy(buffer, first, sizeof *buffer);
            cc_log(EVTRACE_DEBUG, "%s : found copyIndex: %d\n", __func__, request.ccCopyIndex);
            cc_log(EVTRACE_DEBUG, "%s : found entry\n", __func__);
            return 0;
        }
        cc_log(EVTRACE_DEBUG, "%s : ccCopyErrorTable empty forccCopyIndex: %d\n ", __func__,
               request.ccCopyIndex);
    }
    return CCERR_NOT_FOUND;
}

// --- the outcome on each switch of the fabric

// Reports a failure to the debug history and to the agent's log in the same words.
#define LOG_FAILURE(format, ...)                                                                   \
    do {                                                                                           \
        cc_log(EVTRACE_ERROR, format, __VA_ARGS__);                                                \
        snmp_log(LOG_ERR, format, __VA_ARGS__);                                                    \
    } while (0)

static constexpr char FILL_NAME[] = "setCcCopyEntry"; // the function that the messages name

// Fetches the local switch's world-wide name, as stored in memory.
static bool local_switch_wwn(uint32_t (&wwn)[2]) {
    static constexpr uint32_t WWN_SERVICE = 46;
    static constexpr uint32_t TIMEOUT_SECONDS = 5;
    static_assert(sizeof wwn == CC_WWN_SIZE);
    void *response = nullptr;
    uint32_t length = 0;
    const int status = ctlmsg_req_resp(CTLMSG_REQ_SWITCH_WWN, 1, nullptr, &response, &length, 0, 0,
                                       WWN_SERVICE, msgbus_response_q, TIMEOUT_SECONDS);
    const bool known = status == 0 && response != nullptr;
    if (known) {
        memcpy(wwn, response, sizeof wwn);
    }
    free(response);
    return known;
}

// Sets the text of the device's address. If the conversion fails, the row has none.
static void set_device_address(struct ccCopyErrorEntry *error, const struct inet_address *address) {
    const int status =
        ip_addr_to_str(address, error->ccCopyErrorDeviceAddr, CC_ERROR_ADDRESS_TEXT_SIZE - 1);
    if (status != 0) {
        LOG_FAILURE("%s: ip_addr_to_str() failed with error: %d\n", FILL_NAME, status);
        return;
    }
    cc_log(EVTRACE_DEBUG, "%s: device ip addr: %s, device ip addr type: %d\n", FILL_NAME,
           error->ccCopyErrorDeviceAddr, error->ccCopyErrorDeviceAddrType);
}

// The fabric service gives no address for the switch it runs on, so use the first one of the
// management port.
static void set_local_device_address(struct ccCopyErrorEntry *error) {
    uint32_t if_index = 0;
    if_index_mgmt_sup_port_init(&if_index, 0, 0);
    struct addrcfg_inet_addrs *addresses = nullptr;
    if (addrcfg_get_if_inet_addrs(msgbus_response_q, if_index, &addresses) != 0 ||
        addresses == nullptr) {
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
    snprintf(wwn, sizeof wwn, "%02x:%02x:%02x:%02x:%02x:%02x:%02x:%02x", w[0], w[1], w[2], w[3],
             w[4], w[5], w[6], w[7]);
    cc_log(EVTRACE_DEBUG, "%s: curr_entry contents: %s : %s\n", FILL_NAME, wwn, status_text);
    // This line shows the octets as signed numbers, as many as fit into the same 24 octets.
    const auto *s = reinterpret_cast<const signed char *>(w);
    char signed_wwn[8 * sizeof "-128:"];
    snprintf(signed_wwn, sizeof signed_wwn, "%d:%d:%d:%d:%d:%d:%d:%d", s[0], s[1], s[2], s[3], s[4],
             s[5], s[6], s[7]);
    snprintf(wwn, sizeof wwn, "%.23s", signed_wwn);
    cc_log(EVTRACE_DEBUG, "%s:adding errorentry to errortable index object %s : %s\n", FILL_NAME,
           wwn, error->ccCopyErrorText);
}

void cc_errors_fill(const struct ccCopyEntry *stored) {
    cc_log(EVTRACE_DEBUG, "%s: filling up ccCopyErrorTable\n", FILL_NAME);
    if (keyedset_size(&ccCopyErrorTable) == 0 &&
        keyedset_create(&ccCopyErrorTable, 1, 1, ccCopyErrorEntry_comp_func, 1) !=
            KEYEDSET_CREATED) {
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
    struct fabstat_status status = {}; // cursor and result of the walk
    char text[FABSTAT_TEXT_SIZE + 1] = "";
    for (int32_t error_index = 1;
         fabstat_status_next_get(&status, text, FABSTAT_TEXT_SIZE, wwn[0], wwn[1]) == 0;
         error_index++) {
        struct ccCopyErrorEntry error = {};
        error.ccCopyIndex = stored->ccCopyIndex;
        error.ccCopyErrorIndex = error_index;
        error.ccCopyErrorDeviceAddrType = (int32_t)status.address.type;
        memcpy(error.ccCopyErrorSwitchWwn, status.wwn, sizeof error.ccCopyErrorSwitchWwn);
        snprintf(error.ccCopyErrorText, sizeof error.ccCopyErrorText, "%.*s",
                 (int)FABSTAT_TEXT_SIZE, text);
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
