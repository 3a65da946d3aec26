// Starting a copy: the checks at the activation, and the fork of a worker.
#include "config_copy_mib.h"

#include <string.h>
#include <unistd.h>

// the function that the messages name
static constexpr char LAUNCH[] = "validate_n_start_copy";

static pid_t worker_pid = 0; // of the last fork; written by start_copy(), only logged

bool cc_is_running_to_startup(const struct ccCopyEntry *record) {
    return record->ccCopySourceFileType == COPY_FILE_RUNNING &&
           (record->ccCopyDestFileType == COPY_FILE_STARTUP ||
            record->ccCopyDestFileType == COPY_FILE_FABRIC_STARTUP ||
            record->ccCopyDestFileType == COPY_FILE_ALL_STARTUP);
}

uint32_t start_copy(struct ccCopyEntry *record) {
    if (child_copy_running == 1) {
        cc_log(EVTRACE_ERROR, "%s: child process is still running\n", __func__);
        return CCERR_FAILED;
    }
    // The linker's --wrap replaces this fork with the platform's, which closes the worker's
    // inherited descriptors and watches the worker until it ends.
    worker_pid = fork();
    if (worker_pid == 0) {
        copy_function(record);
        cc_log(EVTRACE_DEBUG, "%s : exit = child_id %d\n", __func__, (int)getpid());
        _exit(0); // always 0: the outcome travels in the status message
    }
    // Deliberate: a failed fork (-1) counts as a started worker.
    child_copy_running = 1;
    cc_log(EVTRACE_DEBUG, "%s : Created the process to copy with pid = %d\n", __func__,
           (int)worker_pid);
    return 0;
}

// Writes the row, which shows the copy as running from now on, and forks the worker.
static int32_t start_worker(struct ccCopyEntry *record) {
    if (setCcCopyEntry(record, 0) != 0) {
        CC_TRACE_AS(LAUNCH, " : Set to entry (index= %d) failed just before starting the copy \n",
                    record->ccCopyIndex);
        return SNMP_ERR_GENERR;
    }
    return start_copy(record) == 0 ? SNMP_ERR_NOERROR : SNMP_ERR_GENERR;
}

int32_t validate_n_start_copy(struct ccCopyEntry *record, int32_t row_status_value) {
    CC_TRACE(": Copy requested with: ccCopyServerAddressRev1 = %.*s,ccCopyFileName= %.*s, "
             "ccCopyUserName=%.*s, ccCopyTimeStarted=%d "
             "ccCopyProtocol = %d ccCopySourceFileType = %d, ccCopyDestFileType= %d, "
             "ccCopyServerAddressType= %d\n",
             CC_ADDRESS_TEXT_SIZE, record->ccCopyServerAddressRev1, CC_FILE_NAME_SIZE,
             record->ccCopyFileName, CC_CREDENTIAL_SIZE, record->ccCopyUserName,
             (int32_t)cc_uptime_of(record->ccCopyTimeStarted), record->ccCopyProtocol,
             record->ccCopySourceFileType, record->ccCopyDestFileType,
             record->ccCopyServerAddressType);
    int32_t error_status = SNMP_ERR_NOERROR;
    if (validate_entry(record, &error_status, row_status_value) != 1) {
        CC_TRACE(" : Validation failed row index = %d \n", record->ccCopyIndex);
        record->ccCopyTimeStarted = {0, 0};
        if (setCcCopyEntry(record, 0) != 0) {
            CC_TRACE(" : Set to entry (index= %d) failed after valdation failed\n",
                     record->ccCopyIndex);
            return SNMP_ERR_GENERR;
        }
        return error_status;
    }

    record->ccCopyEntryRowStatus = ROW_STATUS_ACTIVE;
    record->ccCopyState = COPY_STATE_RUNNING;
    record->ccCopyTimeStarted = cc_now();

    const int32_t source = record->ccCopySourceFileType;
    const int32_t dest = record->ccCopyDestFileType;
    if (source == COPY_FILE_NETWORK || dest == COPY_FILE_NETWORK) {
        const char *server = record->ccCopyServerAddressRev1;
        // deliberately only these two spellings
        if (strcmp(server, "0.0.0.0") == 0 || strcmp(server, "127.0.0.1") == 0) {
            CC_TRACE(" : Localhost address received (%s).  Disallowing this operation.", server);
            return SNMP_ERR_WRONGVALUE;
        }
        return start_worker(record);
    }
    if (source == COPY_FILE_STARTUP && dest == COPY_FILE_RUNNING) {
        return start_worker(record);
    }
    if (cc_is_running_to_startup(record)) {
        if (setCcCopyEntry(record, 0) != 0) {
            cc_log(EVTRACE_ERROR,
                   "%s : Set to entry (index= %d) failed just beforestarting copy running to "
                   "startup\n",
                   __func__, record->ccCopyIndex);
            return SNMP_ERR_GENERR;
        }
        do_cp_runningtostartup(record); // only the row shows the result
    }
    // The row-status handler writes the record back, so take what the table holds now. After the
    // exchange this is deliberately a running row even if the request could not be sent or was
    // answered as already done. For any other pair of local files it is the unchanged row.
    getCcCopyEntry(record);
    return SNMP_ERR_NOERROR;
}
