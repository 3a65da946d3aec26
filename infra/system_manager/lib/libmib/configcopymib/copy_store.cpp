// The record store: the rows of ccCopyTable. All other sources work on copies of rows.
#include "config_copy_mib.h"

#include <stdlib.h>
#include <string.h>
#include <time.h>

struct keyedset ccCopyTable = {};
int32_t child_copy_running = 0;
unsigned int ageouttimer = 0;

int8_t search_all_cmp(const void *, const void *) {
    return 0;
}

static constexpr unsigned int AGE_OUT_PERIOD_SECONDS = 101;

// The rows in COPY_STATE_RUNNING and, if it is known which one is the only one, its index;
// otherwise 0. Written whenever a row comes, changes or goes, so that no activation and no end of a
// copy looks at every row.
static uint32_t running_rows = 0;
static int32_t only_running_index = 0;

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

static void count_running(const struct ccCopyEntry *record) {
    if (record->ccCopyState == COPY_STATE_RUNNING) {
        only_running_index = ++running_rows == 1 ? record->ccCopyIndex : 0;
    }
}

static void uncount_running(const struct ccCopyEntry *record) {
    if (record->ccCopyState == COPY_STATE_RUNNING) {
        --running_rows;
        only_running_index = 0;
    }
}

uint32_t addCcCopyEntry(struct ccCopyEntry *record) {
    if (keyedset_size(&ccCopyTable) != 0) {
        if (keyedset_add(&ccCopyTable, record, record) != record) {
            return CCERR_FAILED;
        }
        count_running(record);
        return 0;
    }
    keyedset_create(&ccCopyTable, 1, 1, ccCopyEntry_comp_func, 1);
    // Deliberate: the first insertion takes any result other than null as success, later ones only
    // the record itself.
    if (keyedset_add(&ccCopyTable, record, record) == nullptr) {
        return CCERR_FAILED;
    }
    running_rows = 0;
    count_running(record);
    ageouttimer =
        snmp_alarm_register(AGE_OUT_PERIOD_SECONDS, SA_REPEAT, cfgentry_age_timer_handler, nullptr);
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

uint32_t setCcCopyEntry(const struct ccCopyEntry *record, int32_t fill_error_table) {
    if (keyedset_size(&ccCopyTable) == 0) {
        return CCERR_NOT_FOUND;
    }
    auto *stored = static_cast<struct ccCopyEntry *>(keyedset_find(&ccCopyTable, record));
    if (stored == nullptr) {
        return CCERR_NOT_FOUND;
    }
    uncount_running(stored);
    memcpy(stored, record, sizeof *stored);
    count_running(stored);
    if (fill_error_table != 0) {
        cc_errors_fill(stored);
    }
    return 0;
}

uint32_t getnextCcCopyEntry(struct ccCopyEntry *buffer) {
    if (keyedset_size(&ccCopyTable) == 0) {
        return CCERR_NOT_FOUND;
    }
    return copy_out(buffer->ccCopyIndex == 0 ? keyedset_find_nth_obj(&ccCopyTable, 1)
                                             : keyedset_find_nextgreater(&ccCopyTable, buffer),
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
    uncount_running(removed);
    ccCopyEntry_free(removed);
    if (keyedset_size(&ccCopyTable) == 0) {
        snmp_alarm_unregister(ageouttimer);
        keyedset_destroy(&ccCopyTable);
    }
    return 0;
}

uint32_t get_config_entry_with_status(int32_t state, struct ccCopyEntry *buffer) {
    // No row before the only running one can be found.
    const bool is_known = state == COPY_STATE_RUNNING && only_running_index > 0;
    buffer->ccCopyIndex = is_known ? only_running_index - 1 : 0;
    while (getnextCcCopyEntry(buffer) == 0) {
        if (buffer->ccCopyState == state) {
            return 0;
        }
    }
    return CCERR_FAILED;
}

bool copy_inprogress(void) {
    return running_rows != 0 || child_copy_running == 1;
}
