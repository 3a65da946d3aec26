// The end of a copy: the platform's messages, and the completion notification.
#include "config_copy_mib.h"

#include <string.h>
#include <sys/time.h>
#include <time.h>

#include "platform/system_manager.h"

// --- time

struct ccTime cc_now(void) {
    struct timeval now = {};
    gettimeofday(&now, nullptr);
    return {(int32_t)now.tv_sec, (int32_t)now.tv_usec};
}

static struct timeval timeval_of(struct ccTime when) {
    struct timeval moment = {};
    moment.tv_sec = when.tv_sec;
    moment.tv_usec = when.tv_usec;
    return moment;
}

uint32_t cc_uptime_of(struct ccTime when) {
    struct timeval moment = timeval_of(when);
    return (uint32_t)netsnmp_timeval_uptime(&moment);
}

bool cc_is_before_agents_start(struct ccTime when) {
    struct timeval moment = timeval_of(when);
    if constexpr (sizeof(long) > sizeof(uint32_t)) {
        return (long)netsnmp_timeval_uptime(&moment) < 0;
    }
    const auto *start = static_cast<const struct timeval *>(netsnmp_get_agent_starttime());
    return timercmp(&moment, start, <);
}

// --- completion notification

// The notification's OID. build_notification() sets the last sub-identifier to the row's index.
static oid notification_oid[CC_NOTIFICATION_OID_LENGTH] = {CC_ROOT_OID, 2, 1, 1, 0};

// The server's address as last parsed. Deliberate: an address text that does not parse leaves the
// previous address.
static struct inet_address notification_address;

// The bindings of one row, in order. A binding that can't be built is left out.
struct binding_list {
    int32_t index;
    netsnmp_variable_list *head;
    netsnmp_variable_list *last;
};

static void add_binding(struct binding_list &list, oid column, uint8_t type, const void *value,
                        uint32_t length) {
    const oid instance[CC_ROW_OID_LENGTH] = {CC_COPY_COLUMN_OID(column), (oid)list.index};
    netsnmp_variable_list *built =
        build_varbind(list.last, value, type, length, instance, CC_ROW_OID_LENGTH);
    if (built == nullptr) {
        return;
    }
    if (list.head == nullptr) {
        list.head = built;
    }
    list.last = built;
}

static void add_integer(struct binding_list &list, oid column, uint8_t type, int32_t value) {
    add_binding(list, column, type, &value, sizeof value);
}

netsnmp_variable_list *build_notification(const struct ccCopyEntry *record, oid *oid_buffer,
                                          uint32_t *oid_length) {
    notification_oid[CC_NOTIFICATION_OID_LENGTH - 1] = (oid)record->ccCopyIndex;
    ip_addr_from_str(record->ccCopyServerAddressRev1, &notification_address);
    const uint32_t address_type = notification_address.type;
    // Deliberate: for a moment before the agent's start a GET returns 0, and this does not.
    const int32_t started = (int32_t)cc_uptime_of(record->ccCopyTimeStarted);
    const int32_t completed = (int32_t)cc_uptime_of(record->ccCopyTimeCompleted);
    const uint32_t file_name_length = (uint32_t)strnlen(record->ccCopyFileName, CC_FILE_NAME_SIZE);

    struct binding_list list = {record->ccCopyIndex, nullptr, nullptr};
    if (address_type == INET_ADDRESS_IPV4) {
        add_binding(list, CC_COLUMN_SERVER_ADDRESS, ASN_IPADDRESS, notification_address.octets, 4);
    }
    if (address_type == INET_ADDRESS_IPV4 || address_type == INET_ADDRESS_IPV6) {
        // Deliberate: all 16 octets, for an IPv4 address too.
        add_binding(list, CC_COLUMN_SERVER_ADDRESS_REV1, ASN_OCTET_STR, notification_address.octets,
                    sizeof notification_address.octets);
    }
    add_binding(list, CC_COLUMN_FILE_NAME, ASN_OCTET_STR, record->ccCopyFileName, file_name_length);
    add_integer(list, CC_COLUMN_STATE, ASN_INTEGER, record->ccCopyState);
    add_integer(list, CC_COLUMN_TIME_STARTED, ASN_TIMETICKS, started);
    add_integer(list, CC_COLUMN_TIME_COMPLETED, ASN_TIMETICKS, completed);
    add_integer(list, CC_COLUMN_FAIL_CAUSE, ASN_INTEGER, record->ccCopyFailCause);
    add_integer(list, CC_COLUMN_SERVER_ADDRESS_TYPE, ASN_INTEGER, record->ccCopyServerAddressType);

    memmove(oid_buffer, notification_oid, sizeof notification_oid);
    *oid_length = CC_NOTIFICATION_OID_LENGTH;
    cc_log(EVTRACE_DEBUG,
           "%s: Sending ccCopyCompletion notification : ccCopyServerAddressRev1 = %.*s, "
           "ccCopyFileName= %.*s,ccCopyState=%d, "
           "ccCopyTimeStarted=%d, "
           "ccCopyTimeCompleted = %d, ccCopyFailCause=%d, ccCopyServerAddressType = %d\n",
           __func__, CC_ADDRESS_TEXT_SIZE, record->ccCopyServerAddressRev1, CC_FILE_NAME_SIZE,
           record->ccCopyFileName, record->ccCopyState, started, completed, record->ccCopyFailCause,
           record->ccCopyServerAddressType);
    return list.head;
}

void cc_notify_if_asked(const struct ccCopyEntry *record) {
    static constexpr int ENTERPRISE_SPECIFIC = 6;
    if (record->ccCopyNotificationOnCompletion != TRUTH_TRUE) {
        return;
    }
    oid notification[CC_NOTIFICATION_OID_LENGTH];
    uint32_t length = 0;
    netsnmp_variable_list *bindings = build_notification(record, notification, &length);
    enqueue_notification(ENTERPRISE_SPECIFIC, notification, length, bindings);
}

// --- messages

uint32_t handle_copy_done(int32_t status) {
    child_copy_running = 0;
    cc_log(EVTRACE_ERROR, "%s : Copy is done with status %d\n", __func__, status);
    struct ccCopyEntry row = {};
    if (get_config_entry_with_status(COPY_STATE_RUNNING, &row) != 0) {
        cc_log(EVTRACE_ERROR, "%s : No copy is running... %d \n", __func__, row.ccCopyIndex);
    } else {
        row.ccCopyTimeCompleted = cc_now();
        row.ccCopyState = status == 0 ? COPY_STATE_SUCCESSFUL : COPY_STATE_FAILED;
        // deliberate: after a success this reads 1
        row.ccCopyFailCause = status == 0 ? (int32_t)COPY_FAIL_GENERAL : status;
        if (setCcCopyEntry(&row, 0) != 0) {
            cc_log(EVTRACE_ERROR, "%s : Set to entry (index= %d) failed \n", __func__,
                   row.ccCopyIndex);
        }
    }
    // Deliberate: also when no copy is running; then for the table's last row.
    cc_notify_if_asked(&row);
    return 0;
}

// Deliberate: both record a general failure.
uint32_t handle_copy_failure(void) {
    return handle_copy_done(COPY_FAIL_GENERAL);
}
uint32_t handle_copy_success(void) {
    return handle_copy_done(COPY_FAIL_GENERAL);
}

static void worker_reported(const char *function, msgbus_msg message) {
    int32_t status; // host order
    const void *payload = msgbus_payload_get(message, sizeof status);
    if (payload == nullptr) {
        cc_log(EVTRACE_ERROR, "%s: MSGBUS Payload NULL\n", function);
        handle_copy_done(COPY_FAIL_GENERAL);
        return;
    }
    memcpy(&status, payload, sizeof status);
    handle_copy_done(status);
}

static void action_begun(const char *function) {
    struct ccCopyEntry row = {};
    if (get_config_entry_with_status(COPY_STATE_WAITING, &row) != 0) {
        return;
    }
    row.ccCopyState = COPY_STATE_RUNNING; // deliberately without a further check
    if (setCcCopyEntry(&row, 0) != 0) {
        cc_log(EVTRACE_ERROR, "ERROR  %s : Set to entry (index= %d) failed \n", function,
               row.ccCopyIndex);
    }
}

// The bindings of a notification to send, with *send_flag set, or null.
static netsnmp_variable_list *action_ended(const char *function, bool failed, oid *oid_buffer,
                                           uint32_t *oid_length, uint32_t *send_flag) {
    struct ccCopyEntry row = {};
    if (get_config_entry_with_status(COPY_STATE_RUNNING, &row) != 0) {
        return nullptr;
    }
    if (!cc_is_running_to_startup(&row)) {
        cc_log(EVTRACE_DEBUG, "%s: copy run2start not initiated by us. ignore it\n", function);
        return nullptr;
    }
    row.ccCopyTimeCompleted = cc_now();
    const bool notify = row.ccCopyNotificationOnCompletion == TRUTH_TRUE;
    int32_t fill_error_table = 0;
    if (failed) {
        cc_log(EVTRACE_ERROR, "%s: COPY failed\n", function);
        row.ccCopyState = COPY_STATE_FAILED;
        row.ccCopyFailCause = COPY_FAIL_WARDEN_FAILED;
        fill_error_table = row.ccCopyDestFileType == COPY_FILE_FABRIC_STARTUP ? 1 : 0;
    } else {
        cc_log(EVTRACE_DEBUG, "%s: COPY SUCCESSFULL trap enabled %d\n", function, notify ? 1 : 0);
        row.ccCopyState = COPY_STATE_SUCCESSFUL;
        set_mgmt_conf_last_change_time_extended(MGMT_CONF_CHANGE_STARTUP);
        set_mgmt_conf_last_change_time_extended(MGMT_CONF_CHANGE_STARTUP_SAVED);
    }
    if (setCcCopyEntry(&row, fill_error_table) != 0) {
        cc_log(EVTRACE_ERROR, "ERROR  %s : Set to entry (index= %d) failed \n", function,
               row.ccCopyIndex);
    }
    msgbus_drop(msgbus_response_q, &cfg_action_request);
    if (!notify) {
        return nullptr;
    }
    *send_flag = 1;
    return build_notification(&row, oid_buffer, oid_length);
}

netsnmp_variable_list *handle_notifications(msgbus_msg message, oid *oid_buffer,
                                            uint32_t *oid_length, uint32_t *send_flag) {
    *send_flag = 0;
    switch (msgbus_opc_get(message)) {
    case AGENT_OPC_WORKER_STATUS:
        worker_reported(__func__, message);
        return nullptr;
    case MSGBUS_OPC_WARDEN_CFG_ACTION_BEGIN:
        action_begun(__func__);
        return nullptr;
    case MSGBUS_OPC_WARDEN_CFG_ACTION_END:
        // the dispatcher left the outcome there
        return action_ended(__func__, *oid_length != 0, oid_buffer, oid_length, send_flag);
    default:
        return nullptr;
    }
}
