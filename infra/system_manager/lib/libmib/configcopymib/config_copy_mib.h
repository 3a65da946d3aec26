// The module's private header: the copy request record and the error record, their values, the
// status codes, and what each source provides to the others. Everything runs on the agent's one
// thread, except for what the copy worker runs in its own process (copy_function and the functions
// that it calls).
//
// Functions marked CC_EXPORT are in the symbol table under their own names.
#ifndef CONFIG_COPY_MIB_H
#define CONFIG_COPY_MIB_H

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>
#include <net-snmp/agent/util_funcs.h>

#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "platform/agent_extension.h"
#include "platform/copy_table.h"
#include "platform/evtrace.h"
#include "platform/inet_address.h"
#include "platform/keyedset.h"
#include "platform/msgbus.h"

#define CC_EXPORT __attribute__((visibility("default")))

// --- values

// Module status codes.
#define CCERR_FAILED 0x40490001U
#define CCERR_NOT_FOUND 0x40490002U
#define CCERR_SEND_FAILED 0x40490009U
// Reasons of refused requests, for log_set_error() together with CC_ERROR_FACILITY.
#define CCERR_COPY_IN_PROGRESS 0x40490049U
#define CCERR_ONLY_RUNNING_TO_FABRIC 0x4049004AU
#define CCERR_BOTH_NETWORK 0x4049004BU
#define CCERR_NETWORK_TO_STARTUP 0x4049004CU
#define CCERR_SAME_FILE_TYPE 0x4049004DU
#define CCERR_ONLY_RUNNING_TO_ALL 0x4049005BU
#define CC_ERROR_FACILITY 584U

// The columns of ccCopyTable: name, number (CC_COLUMN_…), ASN.1 type, access, and the reader that
// answers a GET with the field that it reads.
#define CC_COPY_COLUMNS(COLUMN)                                                                    \
    COLUMN(ccCopyProtocol, PROTOCOL, ASN_INTEGER, RWRITE, integer_value, ccCopyProtocol)           \
    COLUMN(ccCopySourceFileType, SOURCE_FILE_TYPE, ASN_INTEGER, RWRITE, integer_value,             \
           ccCopySourceFileType)                                                                   \
    COLUMN(ccCopyDestFileType, DEST_FILE_TYPE, ASN_INTEGER, RWRITE, integer_value,                 \
           ccCopyDestFileType)                                                                     \
    COLUMN(ccCopyServerAddress, SERVER_ADDRESS, ASN_IPADDRESS, RWRITE, ipv4_value,                 \
           ccCopyServerAddressRev1)                                                                \
    COLUMN(ccCopyFileName, FILE_NAME, ASN_OCTET_STR, RWRITE, text_value, ccCopyFileName)           \
    COLUMN(ccCopyUserName, USER_NAME, ASN_OCTET_STR, RWRITE, text_value, ccCopyUserName)           \
    COLUMN(ccCopyUserPassword, USER_PASSWORD, ASN_OCTET_STR, RWRITE, undisclosed_value,            \
           ccCopyUserPassword)                                                                     \
    COLUMN(ccCopyNotificationOnCompletion, NOTIFICATION_ON_COMPLETION, ASN_INTEGER, RWRITE,        \
           integer_value, ccCopyNotificationOnCompletion)                                          \
    COLUMN(ccCopyState, STATE, ASN_INTEGER, RONLY, integer_value, ccCopyState)                     \
    COLUMN(ccCopyTimeStarted, TIME_STARTED, ASN_TIMETICKS, RONLY, ticks_value, ccCopyTimeStarted)  \
    COLUMN(ccCopyTimeCompleted, TIME_COMPLETED, ASN_TIMETICKS, RONLY, ticks_value,                 \
           ccCopyTimeCompleted)                                                                    \
    COLUMN(ccCopyFailCause, FAIL_CAUSE, ASN_INTEGER, RONLY, integer_value, ccCopyFailCause)        \
    COLUMN(ccCopyEntryRowStatus, ENTRY_ROW_STATUS, ASN_INTEGER, RWRITE, integer_value,             \
           ccCopyEntryRowStatus)                                                                   \
    COLUMN(ccCopyServerAddressType, SERVER_ADDRESS_TYPE, ASN_INTEGER, RWRITE, integer_value,       \
           ccCopyServerAddressType)                                                                \
    COLUMN(ccCopyServerAddressRev1, SERVER_ADDRESS_REV1, ASN_OCTET_STR, RWRITE, address_value,     \
           ccCopyServerAddressRev1)

// The same for ccCopyErrorTable, whose numbers are CC_ERROR_COLUMN_….
#define CC_ERROR_COLUMNS(COLUMN)                                                                   \
    COLUMN(ccCopyErrorDeviceAddrType, DEVICE_ADDR_TYPE, ASN_INTEGER, RONLY, integer_value,         \
           ccCopyErrorDeviceAddrType)                                                              \
    COLUMN(ccCopyErrorDeviceAddr, DEVICE_ADDR, ASN_OCTET_STR, RONLY, device_address_value,         \
           ccCopyErrorDeviceAddr)                                                                  \
    COLUMN(ccCopyErrorSwitchWwn, SWITCH_WWN, ASN_OCTET_STR, RONLY, wwn_value,                      \
           ccCopyErrorSwitchWwn)                                                                   \
    COLUMN(ccCopyErrorText, TEXT, ASN_OCTET_STR, RONLY, text_value, ccCopyErrorText)

// Magic numbers of the registered variables, by which the read handlers tell them apart: 4 and 25
// for the first column of each table.
enum cc_magic {
#define MAGIC_OF_COPY_COLUMN(name, number, ...) CC_MAGIC_##number = CC_COLUMN_##number + 2,
#define MAGIC_OF_ERROR_COLUMN(name, number, ...)                                                   \
    CC_MAGIC_ERROR_##number = CC_ERROR_COLUMN_##number + 23,
    CC_COPY_COLUMNS(MAGIC_OF_COPY_COLUMN) CC_ERROR_COLUMNS(MAGIC_OF_ERROR_COLUMN)
#undef MAGIC_OF_COPY_COLUMN
#undef MAGIC_OF_ERROR_COLUMN
};

// Lengths of OIDs: of the root, of a column (the prefix of an instance), and of an instance of
// ccCopyTable.
#define CC_ROOT_OID_LENGTH 9
#define CC_COLUMN_OID_LENGTH 14
#define CC_ROW_OID_LENGTH (CC_COLUMN_OID_LENGTH + 1)

// --- records

#define CC_FILE_NAME_SIZE 256
#define CC_ADDRESS_TEXT_SIZE 64

// A point in wall-clock time; 0, 0 means not yet.
struct ccTime {
    int32_t tv_sec;
    int32_t tv_usec;
};

// One row of ccCopyTable. A text ends with a NUL or fills its field: a user name or password of 41
// octets has no terminator inside the field, so a reader takes at most the field's size.
struct ccCopyEntry {
    int32_t ccCopyIndex; // the store's key, 1..2147483647
    int32_t ccCopyProtocol;
    int32_t ccCopySourceFileType;
    int32_t ccCopyDestFileType;
    uint32_t ccCopyServerAddress; // keeps the column order; never read or written
    char ccCopyFileName[CC_FILE_NAME_SIZE];
    // local file of the copy; only the worker writes and reads it
    char ccCopySrcFileName[CC_FILE_NAME_SIZE];
    // the terminator of a user name of 41 octets is the first octet of the password
    char ccCopyUserName[CC_CREDENTIAL_SIZE];
    char ccCopyUserPassword[CC_CREDENTIAL_SIZE];
    // TruthValue, or any other 32-bit value that the manager wrote
    int32_t ccCopyNotificationOnCompletion;
    int32_t ccCopyState;
    int32_t create_time; // seconds since the epoch, wraps
    struct ccTime ccCopyTimeStarted;
    struct ccTime ccCopyTimeCompleted;
    int32_t ccCopyFailCause;
    int32_t reserve2_seen; // 1 once a SET of the row status has reached RESERVE2
    int32_t ccCopyEntryRowStatus;
    int32_t ccCopyServerAddressType;                    // InetAddressType
    char ccCopyServerAddressRev1[CC_ADDRESS_TEXT_SIZE]; // the server's address as text
};
static_assert(offsetof(ccCopyEntry, ccCopyFileName) == 20 &&
                  offsetof(ccCopyEntry, ccCopySrcFileName) == 276 &&
                  offsetof(ccCopyEntry, ccCopyUserName) == 532 &&
                  offsetof(ccCopyEntry, ccCopyUserPassword) == 573 &&
                  offsetof(ccCopyEntry, ccCopyNotificationOnCompletion) == 616 &&
                  offsetof(ccCopyEntry, create_time) == 624 &&
                  offsetof(ccCopyEntry, ccCopyTimeStarted) == 628 &&
                  offsetof(ccCopyEntry, ccCopyFailCause) == 644 &&
                  offsetof(ccCopyEntry, ccCopyEntryRowStatus) == 652 &&
                  offsetof(ccCopyEntry, ccCopyServerAddressRev1) == 660 &&
                  sizeof(ccCopyEntry) == 724,
              "the copy request record has the same layout everywhere");

#define CC_ERROR_ADDRESS_TEXT_SIZE 129
#define CC_ERROR_TEXT_SIZE 257
#define CC_WWN_SIZE 8

// One row of ccCopyErrorTable.
struct ccCopyErrorEntry {
    int32_t ccCopyIndex;      // first key: the copy request
    int32_t ccCopyErrorIndex; // second key, counted from 1 within the request
    int32_t ccCopyErrorDeviceAddrType;
    char ccCopyErrorDeviceAddr[CC_ERROR_ADDRESS_TEXT_SIZE];
    uint8_t ccCopyErrorSwitchWwn[CC_WWN_SIZE];
    char ccCopyErrorText[CC_ERROR_TEXT_SIZE];
};

// The registration record of one variable, as register_mib() takes it.
#define CC_VARIABLE_COUNT 19
static_assert(sizeof(void *) != 4 || (sizeof(struct variable7) == 40 && 13 * sizeof(oid) == 52 &&
                                      sizeof(struct agent_starttime_change) == 8),
              "the 32-bit target's sizes");

extern "C" {

// --- the two logs (copy_log.cpp)

// Formats a message once and passes it to the debug history and to the debug print, unless neither
// takes it. `subtype` is EVTRACE_DEBUG or EVTRACE_ERROR. Messages longer than 511 octets are cut.
// Keeps errno.
void cc_log(uint32_t subtype, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Appends a record to the private trace file if is_snmp_debug_enabled is set. Never fails. Keeps
// errno.
void cc_trace(const char *format, ...) __attribute__((format(printf, 1, 2)));
// The same with the usual prefix (function, line, and function again) before the text. CC_TRACE_AS
// shows another name than that of the function.
#define CC_TRACE(format, ...) CC_TRACE_AS(__func__, format __VA_OPT__(, ) __VA_ARGS__)
#define CC_TRACE_AS(name, format, ...)                                                             \
    cc_trace("%s(%d):%s" format, name, __LINE__, name __VA_OPT__(, ) __VA_ARGS__)

// non-zero: write the trace file; set only from outside the module
CC_EXPORT extern int32_t is_snmp_debug_enabled;
CC_EXPORT FILE *trace_file_get(void);

// --- module frame (config_copy_mib.cpp)

CC_EXPORT extern oid config_copy_mib_variables_oid[CC_ROOT_OID_LENGTH];
CC_EXPORT extern struct variable7 config_copy_mib_variables[CC_VARIABLE_COUNT];

// The agent calls these to load and unload the module, any number of times in one process.
CC_EXPORT int init_config_copy_mib(void);
CC_EXPORT void deinit_config_copy_mib(void);
CC_EXPORT void set_ccCopyTable_setmethods(uint8_t magic, WriteMethod **write_method);
CC_EXPORT unsigned char *get_config_copy_mib(struct variable *vp, oid *name, size_t *length,
                                             int exact, size_t *var_len,
                                             WriteMethod **write_method);

// --- rows (copy_store.cpp)

// the rows; exists exactly while there is one; written by the store
extern struct keyedset ccCopyTable;
// 1 while a worker runs; set by start_copy(), cleared by handle_copy_done()
extern int32_t child_copy_running;
CC_EXPORT extern unsigned int ageouttimer; // handle of the age-out alarm; written by the store

// A heap record with all defaults and index 0. The caller owns it until addCcCopyEntry() takes it.
// Null when memory is exhausted.
CC_EXPORT struct ccCopyEntry *createCcCopyEntry(void);
CC_EXPORT uint32_t addCcCopyEntry(struct ccCopyEntry *record);
// These copy the stored row into the caller's buffer. The buffer's ccCopyIndex is the key; for
// getnext it is the index before the row, and 0 starts at the first row.
CC_EXPORT uint32_t getCcCopyEntry(struct ccCopyEntry *buffer);
CC_EXPORT uint32_t getnextCcCopyEntry(struct ccCopyEntry *buffer);
// Overwrites the stored row of the record's index with the record, and fills the error table with
// the fabric's switches if asked to. Returns 0 or CCERR_NOT_FOUND.
CC_EXPORT uint32_t setCcCopyEntry(const struct ccCopyEntry *record, int32_t fill_error_table);
CC_EXPORT uint32_t deleteCcCopyEntry(const struct ccCopyEntry *key);
CC_EXPORT int8_t ccCopyEntry_comp_func(const void *a, const void *b);
CC_EXPORT void ccCopyEntry_free(struct ccCopyEntry *record);
// The first row in that state. Returns CCERR_FAILED if there is none; the buffer then holds the
// last row.
CC_EXPORT uint32_t get_config_entry_with_status(int32_t state, struct ccCopyEntry *buffer);
CC_EXPORT bool copy_inprogress(void);
CC_EXPORT int8_t search_all_cmp(const void *a, const void *b);

// --- read access (copy_read.cpp)

// the last row that the read handler answered from; returned values point into it
extern struct ccCopyEntry cc_last_read_row;

CC_EXPORT unsigned char *get_ccCopyTable(struct variable *vp, oid *name, size_t *length, int exact,
                                         size_t *var_len, WriteMethod **write_method);
CC_EXPORT uint32_t copy_row_lookup(const oid *prefix, size_t prefix_len, oid *name, size_t *length,
                                   int exact, struct ccCopyEntry *record);
CC_EXPORT uint32_t copy_oid_index_parse(const oid *prefix, size_t prefix_len, const oid *name,
                                        size_t length, int exact, int32_t *index);

CC_EXPORT unsigned char *get_ccCopyErrorTable(struct variable *vp, oid *name, size_t *length,
                                              int exact, size_t *var_len,
                                              WriteMethod **write_method);

// --- error rows (copy_errors.cpp)

// exists while it holds a row, and from its creation to its first row
extern struct keyedset ccCopyErrorTable;

CC_EXPORT int8_t ccCopyErrorEntry_comp_func(const void *a, const void *b);
CC_EXPORT uint32_t addCcCopyErrorEntry(const struct ccCopyEntry *copy_request,
                                       const struct ccCopyErrorEntry *record);
CC_EXPORT uint32_t getCcCopyErrorEntry(struct ccCopyErrorEntry *buffer);
CC_EXPORT uint32_t getnextCcCopyErrorEntry(struct ccCopyErrorEntry *buffer);
CC_EXPORT uint32_t deleteCcCopyErrorEntries(const struct ccCopyEntry *key);
CC_EXPORT uint32_t getFirstErrorEntryForNextCopyEntry(struct ccCopyErrorEntry *buffer);
// Adds a row for every switch that the fabric service reports. A failure is logged and ends the
// walk.
void cc_errors_fill(const struct ccCopyEntry *stored);

// --- write access (copy_write*.cpp)

// Write methods as the agent calls them, once per phase (RESERVE1 0 .. UNDO 5). The result is an
// SNMP error status.
CC_EXPORT WriteMethod set_ccCopyProtocol, set_ccCopySourceFileType, set_ccCopyDestFileType,
    set_ccCopyServerAddress, set_ccCopyFileName, set_ccCopyUserName, set_ccCopyUserPassword,
    set_ccCopyNotificationOnCompletion, set_ccCopyEntryRowStatus, set_ccCopyServerAddressType,
    set_ccCopyServerAddressRev1;

// Copies of the rows whose status a SET changes, from RESERVE1 to the end of the transaction;
// written by the row-status handler.
extern struct keyedset ccCopyUndoList;
// Remove from the undo list and free: every copy; every copy whose row no longer exists.
void cc_undo_clear(void);
void cc_undo_drop_orphans(void);

// The value of an INTEGER that a manager wrote: its low 32 bits.
int32_t cc_integer_value(const unsigned char *value, size_t length);
// Whether an INTEGER may have this length: 0..4 octets, or a long as a 64-bit agent passes it.
bool cc_integer_length_ok(size_t length);

// Returns 1 if the request may be started. Otherwise returns 0, with *err_out an SNMP error status
// or 0. May change the record's row status and fail cause.
CC_EXPORT int32_t validate_entry(struct ccCopyEntry *record, int32_t *err_out,
                                 int32_t requested_status);

// --- execution (copy_launch.cpp, copy_worker.cpp, copy_transfer.cpp, copy_save.cpp)

CC_EXPORT int32_t validate_n_start_copy(struct ccCopyEntry *record, int32_t row_status_value);
CC_EXPORT uint32_t start_copy(struct ccCopyEntry *record);
CC_EXPORT uint32_t copy_function(struct ccCopyEntry *record);

enum copy_direction { COPY_DOWNLOAD = 1, COPY_UPLOAD = 2 };
// These move one file. The result is 0 or a fail cause.
CC_EXPORT int32_t do_nw_upload_download(int32_t direction, char *work_dir,
                                        struct ccCopyEntry *entry);
CC_EXPORT int32_t do_nw_upload_download_on_vrf(int32_t direction, char *work_dir,
                                               struct ccCopyEntry *entry);
CC_EXPORT int32_t tftperr2miberr(int32_t tftp_error);

// the last start request to the system manager, kept during its exchange
extern msgbus_msg cfg_action_request;
CC_EXPORT uint32_t do_cp_runningtostartup(struct ccCopyEntry *record);
CC_EXPORT uint32_t handle_abort(const struct ccCopyEntry *record);
// Formats the text with itself as the format, so a '%' in it is a conversion. The arguments are
// harmless (copy_format.cpp).
void cc_format_as_its_own_format(char *out, size_t size, const char *text);
// Whether the copy is from the running configuration to a startup configuration: this switch's, the
// fabric's, or all.
bool cc_is_running_to_startup(const struct ccCopyEntry *record);

CC_EXPORT uint32_t send_status_2_parent(int32_t status);

// --- completion (copy_complete.cpp)

CC_EXPORT netsnmp_variable_list *handle_notifications(msgbus_msg message, oid *oid_buffer,
                                                      uint32_t *oid_length, uint32_t *send_flag);
CC_EXPORT uint32_t handle_copy_done(int32_t status);
CC_EXPORT uint32_t handle_copy_failure(void);
CC_EXPORT uint32_t handle_copy_success(void);

#define CC_NOTIFICATION_OID_LENGTH 13
// The bindings of ccCopyCompletion for the row; the caller sends them. `oid_buffer` has room for
// CC_NOTIFICATION_OID_LENGTH sub-identifiers.
CC_EXPORT netsnmp_variable_list *build_notification(const struct ccCopyEntry *record,
                                                    oid *oid_buffer, uint32_t *oid_length);

// Sends the completion notification of a row that asks for it.
void cc_notify_if_asked(const struct ccCopyEntry *record);

// --- ageing (copy_age.cpp)

CC_EXPORT void cfgentry_age_timer_handler(unsigned int clientreg, void *clientarg);
CC_EXPORT int cc_handle_starttime_change(int major, int minor, void *serverarg, void *clientarg);

// The current wall-clock time.
struct ccTime cc_now(void);
// The agent's uptime at that moment in hundredths of a second (netsnmp_timeval_uptime()), as
// TimeTicks: the low 32 bits, which wrap after 497 days.
uint32_t cc_uptime_of(struct ccTime when);
// The uptime of such a moment is negative, but a long of 32 bits does not show it.
bool cc_is_before_agents_start(struct ccTime when);

} // extern "C"

// The result of a call that waits for a child program. SIGCHLD is at its default during the call,
// whatever the agent has set.
template <typename Call> auto with_default_sigchld(Call call) {
    void (*const previous)(int) = signal(SIGCHLD, SIG_DFL);
    const auto result = call();
    signal(SIGCHLD, previous);
    return result;
}
#endif
