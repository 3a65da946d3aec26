// Ageing of rows, and of the records kept for them.
#include "config_copy_mib.h"

#include <time.h>

static constexpr int32_t AGE_LIMIT_SECONDS = 305;

void cfgentry_age_timer_handler(unsigned int, void *) {
    cc_log(EVTRACE_DEBUG, "%s : enter...\n", __func__);
    struct ccCopyEntry row = {};
    while (getnextCcCopyEntry(&row) == 0) {
        const time_t now = time(nullptr);
        const int32_t age = (int32_t)((uint32_t)now - (uint32_t)row.create_time);
        if (age <= AGE_LIMIT_SECONDS) {
            continue;
        }
        if (row.ccCopyState == COPY_STATE_RUNNING &&
            row.ccCopyEntryRowStatus != ROW_STATUS_DESTROY) {
            continue;
        }
        cc_log(EVTRACE_DEBUG,
               "%s: Deleting the aged out entry %d (curtime = %ld, entrycreatetetime = %ld \n",
               __func__, row.ccCopyIndex, (long)now, (long)row.create_time);
        deleteCcCopyEntry(&row);
    }
    // A stale copy must not meet a later row of the same index, and copies must not pile up.
    cc_undo_drop_orphans();
}

int cc_handle_starttime_change(int, int, void *serverarg, void *) {
    const auto *change = static_cast<const struct agent_starttime_change *>(serverarg);
    struct ccCopyEntry row = {};
    while (getnextCcCopyEntry(&row) == 0) {
        const uint32_t created = (uint32_t)row.create_time;
        row.create_time =
            (int32_t)(change->direction == AGENT_STARTTIME_ADDED ? created + *change->seconds
                                                                 : created - *change->seconds);
        setCcCopyEntry(&row, 0);
        snmp_heartbeat_send();
    }
    return 0;
}
