// The write handler of ccCopyEntryRowStatus: creating, activating and destroying a row, and the
// undo list of its transactions.
#include "config_copy_mib.h"

#include <stdlib.h>
#include <string.h>

#include "platform/utilities.h"

struct keyedset ccCopyUndoList = {};

static int32_t change_time_flag; // cleared when a createAndGo or destroy is committed

static constexpr char HANDLER[] = "set_ccCopyEntryRowStatus"; // the function that the messages name
static constexpr oid ROW_STATUS_COLUMN[CC_COLUMN_OID_LENGTH] = {
    CC_COPY_COLUMN_OID(CC_COLUMN_ENTRY_ROW_STATUS)};

// --- undo list

// Removes the copy of a row from the list and returns it; the caller frees it. Null if there is
// none.
static struct ccCopyEntry *undo_take(int32_t index) {
    struct ccCopyEntry key;
    key.ccCopyIndex = index;
    return static_cast<struct ccCopyEntry *>(keyedset_remove(&ccCopyUndoList, &key));
}

static void undo_drop(int32_t index) {
    ccCopyEntry_free(undo_take(index));
}

void cc_undo_clear(void) {
    while (const void *copy = keyedset_find_nth_obj(&ccCopyUndoList, 1)) {
        undo_drop(static_cast<const struct ccCopyEntry *>(copy)->ccCopyIndex);
    }
}

void cc_undo_drop_orphans(void) {
    struct ccCopyEntry row = {}; // index 0: before every copy
    while (const void *copy = keyedset_find_nextgreater(&ccCopyUndoList, &row)) {
        row.ccCopyIndex = static_cast<const struct ccCopyEntry *>(copy)->ccCopyIndex;
        if (getCcCopyEntry(&row) != 0) {
            undo_drop(row.ccCopyIndex);
        }
    }
}

// Saves a copy of the row that the agent looked up for this variable.
static int undo_keep_last_read_row(void) {
    auto *copy = static_cast<struct ccCopyEntry *>(malloc(sizeof(struct ccCopyEntry)));
    if (copy == nullptr) {
        cc_log(EVTRACE_ERROR, "%s : Mallocing for entry into undolist failed\n", HANDLER);
        return SNMP_ERR_GENERR;
    }
    memcpy(copy, &cc_last_read_row, sizeof *copy);
    if (keyedset_add(&ccCopyUndoList, copy, copy) == nullptr) {
        ccCopyEntry_free(copy);
        cc_log(EVTRACE_ERROR, "%s : Adding undolist failed\n", HANDLER);
        return SNMP_ERR_GENERR;
    }
    return SNMP_ERR_NOERROR;
}

// --- phases

static bool creates(int32_t status) {
    return status == ROW_STATUS_CREATE_AND_GO || status == ROW_STATUS_CREATE_AND_WAIT;
}

// Creates the row of a new index and leaves a copy of it in *row.
static int create_row(int32_t index, struct ccCopyEntry *row) {
    struct ccCopyEntry *created = createCcCopyEntry();
    if (created == nullptr) {
        cc_log(EVTRACE_ERROR,
               "%s : RESERVE1 - Could not malloc for the ccCopyEntry for  a new entry \n", HANDLER);
        return SNMP_ERR_GENERR;
    }
    created->ccCopyIndex = index;
    cc_log(EVTRACE_DEBUG, "%s : Added new entry to ccCopyTable ( index = %d)\n", HANDLER, index);
    if (addCcCopyEntry(created) != 0) {
        cc_log(EVTRACE_ERROR, "%s : Adding a new entry (index = %d) failed\n", HANDLER, index);
        ccCopyEntry_free(created);
        return SNMP_ERR_GENERR;
    }
    memcpy(row, created, sizeof *row);
    return SNMP_ERR_NOERROR;
}

static int reserve1(int32_t requested, unsigned char type, size_t length, bool row_was_read,
                    int32_t index) {
    cc_trace("%s(%d):DEBUG: %s :  Entering RESERVE1\n", HANDLER, __LINE__, HANDLER);
    if (type != ASN_INTEGER) {
        fprintf(stderr, "write to ccCopyEntryRowStatus not ASN_INTEGER\n");
        return SNMP_ERR_WRONGTYPE;
    }
    if (!cc_integer_length_ok(length)) {
        fprintf(stderr, "write to ccCopyEntryRowStatus: bad length\n");
        return SNMP_ERR_WRONGLENGTH;
    }
    if (requested < ROW_STATUS_ACTIVE || requested > ROW_STATUS_DESTROY ||
        requested == ROW_STATUS_NOT_IN_SERVICE || requested == ROW_STATUS_NOT_READY) {
        return SNMP_ERR_INCONSISTENTVALUE;
    }
    if (requested == ROW_STATUS_CREATE_AND_GO && row_was_read) {
        cc_log(EVTRACE_ERROR, "%s : CreateAndGo on a existing row\n", HANDLER);
        return SNMP_ERR_INCONSISTENTVALUE;
    }
    if ((requested == ROW_STATUS_ACTIVE || requested == ROW_STATUS_CREATE_AND_GO) &&
        copy_inprogress()) {
        cc_log(EVTRACE_ERROR, ": %s : Another Copy is in progress\n", HANDLER);
        log_set_error(CCERR_COPY_IN_PROGRESS, CC_ERROR_FACILITY);
        return SNMP_ERR_GENERR;
    }
    if (keyedset_size(&ccCopyTable) == 0) {
        cc_undo_clear(); // while there is no row, no age-out pass comes
    }
    if (row_was_read) {
        const int kept = undo_keep_last_read_row();
        if (kept != SNMP_ERR_NOERROR) {
            return kept;
        }
    }

    struct ccCopyEntry row;
    row.ccCopyIndex = index;
    if (getCcCopyEntry(&row) != 0) {
        if (requested == ROW_STATUS_DESTROY) {
            return SNMP_ERR_NOERROR;
        }
        if (index <= 0) {
            return SNMP_ERR_INCONSISTENTNAME;
        }
        const int created = create_row(index, &row);
        if (created != SNMP_ERR_NOERROR) {
            return created;
        }
    } else if (creates(requested)) {
        cc_log(EVTRACE_ERROR, "%s : CREATE on a existing row (index = %d)\n", HANDLER, index);
        return SNMP_ERR_INCONSISTENTVALUE;
    }

    cc_log(EVTRACE_DEBUG, "%s : Setting ccCopyEntryRowStatus to %d \n", HANDLER,
           row.ccCopyEntryRowStatus);
    row.ccCopyEntryRowStatus = requested;
    if (setCcCopyEntry(&row, 0) != 0) {
        cc_log(EVTRACE_ERROR, "%s : Setting a new entry (index = %d) failed\n", HANDLER, index);
        if (creates(requested)) {
            deleteCcCopyEntry(&row);
        }
        return SNMP_ERR_GENERR;
    }
    return SNMP_ERR_NOERROR;
}

static int reserve2(unsigned char *state, int32_t index) {
    CC_TRACE_AS(HANDLER, " :  Entering RESERVE2\n");
    if (state != nullptr) {
        *state = 1; // only into the read handler's buffer: no row changes
    }
    struct ccCopyEntry row;
    row.ccCopyIndex = index;
    if (getCcCopyEntry(&row) == 0) {
        row.reserve2_seen = 1;
        setCcCopyEntry(&row, 0);
    }
    return SNMP_ERR_NOERROR;
}

static int write_back(const struct ccCopyEntry *row, int32_t requested) {
    if (setCcCopyEntry(row, 0) != 0) {
        CC_TRACE_AS(HANDLER, " : Set to %d failed \n", requested);
        return SNMP_ERR_GENERR;
    }
    return SNMP_ERR_NOERROR;
}

static int action_phase(int32_t requested, int32_t index) {
    CC_TRACE_AS(HANDLER, " : Entering ACTION for index = %d \n", index);
    struct ccCopyEntry row;
    row.ccCopyIndex = index;
    const uint32_t status = getCcCopyEntry(&row);
    if (status == CCERR_NOT_FOUND) {
        CC_TRACE_AS(HANDLER, " : second long_ret %d \n", requested);
        return requested == ROW_STATUS_DESTROY ? SNMP_ERR_NOERROR : SNMP_ERR_GENERR;
    }
    if (status != 0) {
        CC_TRACE_AS(
            HANDLER,
            " :  Some Generic error while getting the informatiom for the entry  in ACTION %d \n",
            requested);
        return SNMP_ERR_GENERR;
    }
    CC_TRACE_AS(HANDLER, " : long_ret %d \n", requested);

    switch (requested) {
    case ROW_STATUS_DESTROY:
        if (handle_abort(&row) != 0) {
            return SNMP_ERR_GENERR;
        }
        deleteCcCopyEntry(&row);
        return SNMP_ERR_NOERROR;
    case ROW_STATUS_ACTIVE:
    case ROW_STATUS_CREATE_AND_GO: {
        const int started = validate_n_start_copy(&row, requested);
        if (started != SNMP_ERR_NOERROR) {
            // Deliberate: the line always shows 0.
            CC_TRACE_AS(HANDLER, " : Validation failed (ret_code = %d) \n", 0);
            return started;
        }
        return write_back(&row, requested);
    }
    default:
        row.ccCopyEntryRowStatus = row.ccCopyEntryRowStatus == ROW_STATUS_CREATE_AND_WAIT
                                       ? (int32_t)ROW_STATUS_NOT_READY
                                       : requested;
        return write_back(&row, requested);
    }
}

static int commit(int32_t requested, int32_t index) {
    if (requested == ROW_STATUS_DESTROY || requested == ROW_STATUS_CREATE_AND_GO) {
        change_time_flag = 0;
    }
    CC_TRACE_AS(HANDLER, " : COMMIT Removing the entry from undo list  (index = %d)\n", index);
    undo_drop(index);
    return SNMP_ERR_NOERROR;
}

static int free_phase(int32_t requested, int32_t index) {
    CC_TRACE_AS(HANDLER, " : Entering FREE for index = %d\n", index);
    struct ccCopyEntry row;
    row.ccCopyIndex = index;
    if (getCcCopyEntry(&row) == 0) {
        // Deliberate: the copy of a row that this transaction did not create stays in the undo list
        // until it ages out.
        if (!creates(row.ccCopyEntryRowStatus)) {
            return SNMP_ERR_NOERROR;
        }
        if (row.reserve2_seen == 1 && creates(requested)) {
            deleteCcCopyEntry(&row);
        }
    }
    if (creates(requested)) {
        undo_drop(index);
    }
    return SNMP_ERR_NOERROR;
}

// Restores the saved copy for an active or destroy request.
static int undo_change(int32_t requested, int32_t index) {
    struct ccCopyEntry *copy = undo_take(index);
    if (copy == nullptr) {
        cc_log(EVTRACE_ERROR,
               "%s : Could not get the structure for undo list for UNDO (index = %d)\n", HANDLER,
               index);
        return SNMP_ERR_GENERR;
    }
    if (requested != ROW_STATUS_DESTROY) {
        cc_log(EVTRACE_DEBUG, "%s : UNDO Setting back the value  (index = %d)\n", HANDLER, index);
        // fails if the same SET destroyed the row
        const uint32_t put_back = setCcCopyEntry(copy, 0);
        ccCopyEntry_free(copy);
        return put_back == 0 ? SNMP_ERR_NOERROR : SNMP_ERR_GENERR;
    }
    cc_log(EVTRACE_DEBUG, "%s : UNDO Adding the deleted entry (index = %d)\n", HANDLER, index);
    // Deliberate: the test is inverted. A row that could be restored is released and reported as a
    // failure. Releasing also removes it from the table, so a destroyed row never comes back.
    if (addCcCopyEntry(copy) == 0) {
        deleteCcCopyEntry(copy);
        return SNMP_ERR_GENERR;
    }
    ccCopyEntry_free(copy);
    return SNMP_ERR_NOERROR;
}

static int undo(int32_t requested, int32_t index) {
    cc_log(EVTRACE_DEBUG, "%s : Entering UNDO for index = %d\n", HANDLER, index);
    if (!creates(requested)) {
        return undo_change(requested, index);
    }
    struct ccCopyEntry *copy = undo_take(index);
    if (copy != nullptr) {
        ccCopyEntry_free(copy);
        return SNMP_ERR_NOERROR;
    }
    // deliberate: logged on success
    cc_log(EVTRACE_DEBUG, "%s : UNDO - Deleting the added entry (index = %d) failed\n", HANDLER,
           index);
    struct ccCopyEntry row;
    row.ccCopyIndex = index;
    deleteCcCopyEntry(&row);
    return SNMP_ERR_NOERROR;
}

int set_ccCopyEntryRowStatus(int action, unsigned char *var_val, unsigned char var_val_type,
                             size_t var_val_len, unsigned char *statP, oid *name, size_t name_len) {
    const bool well_formed = var_val_type == ASN_INTEGER && cc_integer_length_ok(var_val_len);
    const int32_t requested = well_formed ? cc_integer_value(var_val, var_val_len) : 0;
    const int32_t index = (int32_t)name[name_len - 1];
    int32_t instance_index; // COMMIT and UNDO read it from an OID of exactly a row's length
    switch (action) {
    case RESERVE1:
        return reserve1(requested, var_val_type, var_val_len, statP != nullptr, index);
    case RESERVE2:
        return reserve2(statP, index);
    case ACTION:
        return action_phase(requested, index);
    case COMMIT:
        copy_oid_index_parse(ROW_STATUS_COLUMN, CC_COLUMN_OID_LENGTH, name, name_len, 1,
                             &instance_index);
        return commit(requested, instance_index);
    case FREE:
        return free_phase(requested, index);
    case UNDO:
        copy_oid_index_parse(ROW_STATUS_COLUMN, CC_COLUMN_OID_LENGTH, name, name_len, 1,
                             &instance_index);
        return undo(requested, instance_index);
    default:
        return SNMP_ERR_NOERROR;
    }
}
