/* The record store and the module's two logs: the platform's debug history and the private trace file. */
#include "config_copy_mib.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <new>

struct keyedset ccCopyTable = {};
int32_t child_copy_running = 0;
unsigned int ageouttimer = 0;
int32_t is_snmp_debug_enabled = 0;

static FILE *trace_stream = nullptr; /* set by trace_file_get(); open for the rest of the process's life */

/* --- logs ------------------------------------------------------------------------------------------------------------------------- */

static constexpr uint32_t HISTORY_MODULE_ID = 0x730000;
static constexpr size_t LOG_MESSAGE_SIZE = 512;

void cc_log(uint32_t subtype, const char *format, ...) {
    const int saved_errno = errno;
    const bool to_history = evtrace_hist_event_subtype_check(HISTORY_MODULE_ID, subtype) == 0;
    const bool to_print = evtrace_chk_int(subtype, 0, 0, 1) != 0;
    if (to_history || to_print) {
        char message[LOG_MESSAGE_SIZE];
        va_list arguments;
        va_start(arguments, format);
        vsnprintf(message, sizeof message, format, arguments);
        va_end(arguments);
        if (to_history) {
            evtrace_hist_event(HISTORY_MODULE_ID, subtype, (uint32_t)strlen(message), message);
        }
        if (to_print) {
            dbgprint("%s", message);
        }
    }
    errno = saved_errno;
}

/* Opens a file for appending under a name that anyone can guess: what somebody else may have planted there, a link, a pipe or a file of his
 * own, is refused, and nobody else reads what managers asked for. A descriptor, or -1. */
static int open_private(const char *name) {
    const int descriptor = open(name, O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    struct stat status;
    if (descriptor >= 0 && (fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode) || status.st_uid != geteuid() ||
                            status.st_nlink != 1 || fchmod(descriptor, 0600) != 0)) {
        close(descriptor);
        return -1;
    }
    return descriptor;
}

FILE *trace_file_get(void) {
    if (trace_stream != nullptr) {
        return trace_stream;
    }
    char name[128];
    snprintf(name, sizeof name, "%s.%d", "/tmp/cfg_snmp_debug.log", (int)getpid());
    const int descriptor = open_private(name);
    FILE *stream = descriptor < 0 ? nullptr : fdopen(descriptor, "a");
    if (stream == nullptr) {
        if (descriptor >= 0) {
            close(descriptor);
        }
        fprintf(stderr, "Can't open %s", name);
        return nullptr;
    }
    trace_stream = stream;
    return trace_stream;
}

void cc_trace(const char *format, ...) {
    if (is_snmp_debug_enabled == 0) {
        return;
    }
    const int saved_errno = errno;
    FILE *stream = trace_file_get();
    if (stream != nullptr) {
        const time_t now = time(nullptr);
        char stamp[26]; /* ctime_r(3) */
        fprintf(stream, "[%.24s] ", ctime_r(&now, stamp));
        va_list arguments;
        va_start(arguments, format);
        vfprintf(stream, format, arguments);
        va_end(arguments);
        fputc('\n', stream);
        fflush(stream); /* a crash loses no record */
    }
    errno = saved_errno;
}

int8_t search_all_cmp(const void *, const void *) {
    return 0;
}

/* --- rows ------------------------------------------------------------------------------------------------------------------------- */

static constexpr unsigned int AGE_OUT_PERIOD_SECONDS = 101;

int8_t ccCopyEntry_comp_func(const void *a, const void *b) {
    if (a == nullptr || b == nullptr) {
        return -1;
    }
    const auto *first = static_cast<const struct ccCopyEntry *>(a);
    const auto *second = static_cast<const struct ccCopyEntry *>(b);
    return (int8_t)INTCMP(second->ccCopyIndex, first->ccCopyIndex);
}

struct ccCopyEntry *createCcCopyEntry(void) {
    auto *record = static_cast<struct ccCopyEntry *>(malloc(sizeof(struct ccCopyEntry)));
    if (record == nullptr) {
        return nullptr;
    }
    record->ccCopyIndex = 0;
    record->ccCopyProtocol = COPY_PROTO_TFTP;
    record->ccCopySourceFileType = COPY_FILE_NETWORK;
    record->ccCopyDestFileType = COPY_FILE_STARTUP;
    memset(record->ccCopyFileName, 0, sizeof record->ccCopyFileName);
    memset(record->ccCopyUserName, 0, sizeof record->ccCopyUserName);
    memset(record->ccCopyUserPassword, 0, sizeof record->ccCopyUserPassword);
    record->ccCopyNotificationOnCompletion = TRUTH_FALSE;
    record->ccCopyState = COPY_STATE_WAITING;
    record->create_time = (int32_t)time(nullptr);
    record->ccCopyTimeStarted = {0, 0};
    record->ccCopyTimeCompleted = {0, 0};
    record->ccCopyFailCause = COPY_FAIL_GENERAL;
    record->reserve2_seen = 0;
    record->ccCopyEntryRowStatus = 0;
    record->ccCopyServerAddressType = INET_ADDRESS_UNKNOWN;
    memset(record->ccCopyServerAddressRev1, 0, sizeof record->ccCopyServerAddressRev1);
    return record;
}

void ccCopyEntry_free(struct ccCopyEntry *record) {
    free(record);
}

uint32_t addCcCopyEntry(struct ccCopyEntry *record) {
    if (keyedset_size(&ccCopyTable) != 0) {
        return keyedset_add(&ccCopyTable, record, record) == record ? 0 : CCERR_FAILED;
    }
    keyedset_create(&ccCopyTable, 1, 1, ccCopyEntry_comp_func, 1);
    /* Deliberate: the first insertion counts any result but null as success, later ones only the record itself. */
    if (keyedset_add(&ccCopyTable, record, record) == nullptr) {
        return CCERR_FAILED;
    }
    ageouttimer = snmp_alarm_register(AGE_OUT_PERIOD_SECONDS, SA_REPEAT, cfgentry_age_timer_handler, nullptr);
    return 0;
}

static uint32_t copy_out(const void *stored, struct ccCopyEntry *buffer) {
    if (stored == nullptr) {
        return CCERR_NOT_FOUND;
    }
    memcpy(buffer, stored, sizeof *buffer);
    return 0;
}

uint32_t getCcCopyEntry(struct ccCopyEntry *buffer) {
    if (keyedset_size(&ccCopyTable) == 0) {
        return CCERR_NOT_FOUND;
    }
    return copy_out(keyedset_find(&ccCopyTable, buffer), buffer);
}

uint32_t getnextCcCopyEntry(struct ccCopyEntry *buffer) {
    if (keyedset_size(&ccCopyTable) == 0) {
        return CCERR_NOT_FOUND;
    }
    return copy_out(buffer->ccCopyIndex == 0 ? keyedset_find_nth_obj(&ccCopyTable, 1) : keyedset_find_nextgreater(&ccCopyTable, buffer),
                    buffer);
}

uint32_t deleteCcCopyEntry(const struct ccCopyEntry *key) {
    if (keyedset_size(&ccCopyTable) == 0) {
        return CCERR_FAILED;
    }
    deleteCcCopyErrorEntries(key);
    auto *removed = static_cast<struct ccCopyEntry *>(keyedset_remove(&ccCopyTable, key));
    if (removed == nullptr) {
        return CCERR_FAILED;
    }
    ccCopyEntry_free(removed);
    if (keyedset_size(&ccCopyTable) == 0) {
        snmp_alarm_unregister(ageouttimer);
        keyedset_destroy(&ccCopyTable);
    }
    return 0;
}

uint32_t get_config_entry_with_status(int32_t state, struct ccCopyEntry *buffer) {
    buffer->ccCopyIndex = 0;
    while (getnextCcCopyEntry(buffer) == 0) {
        if (buffer->ccCopyState == state) {
            return 0;
        }
    }
    return CCERR_FAILED;
}

bool copy_inprogress(void) {
    struct ccCopyEntry running;
    return get_config_entry_with_status(COPY_STATE_RUNNING, &running) == 0 || child_copy_running == 1;
}
