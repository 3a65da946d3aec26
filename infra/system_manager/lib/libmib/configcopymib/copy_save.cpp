// Running to startup through the system manager: the request, its first answer, and the abort.
#include "config_copy_mib.h"

#include <arpa/inet.h>
#include <errno.h>
#include <string.h>

#include "platform/system_manager.h"
#include "platform/utilities.h"

msgbus_msg cfg_action_request = nullptr;

static struct warden_cfg_action start_request_of(const struct ccCopyEntry *record) {
    struct warden_cfg_action request = {};
    request.word0 = htonl(WARDEN_CFG_ACTION_WORD0);
    request.word1 = htonl(WARDEN_CFG_ACTION_WORD1);
    request.byte10 = 1;
    request.fabric = htonl(record->ccCopyDestFileType == COPY_FILE_FABRIC_STARTUP ? 1 : 0);
    request.all = htonl(record->ccCopyDestFileType == COPY_FILE_ALL_STARTUP ? 1 : 0);
    cc_format_as_its_own_format(request.user, sizeof request.user, get_snmp_username(0));
    cc_format_as_its_own_format(request.session, sizeof request.session, get_snmp_sessionid(0));
    return request;
}

static void drop_start_request(void) {
    msgbus_drop(msgbus_response_q, &cfg_action_request);
}

static void end_copy(struct ccCopyEntry *record, enum copy_state state) {
    record->ccCopyTimeCompleted = cc_now();
    record->ccCopyState = state;
}

static void refused(const char *function, struct ccCopyEntry *record) {
    end_copy(record, COPY_STATE_FAILED);
    record->ccCopyFailCause = COPY_FAIL_WARDEN_REFUSED;
    if (setCcCopyEntry(record, 0) != 0) {
        cc_log(EVTRACE_ERROR, "ERROR  %s : Set to entry (index= %d) failed \n", function,
               record->ccCopyIndex);
    }
    cc_notify_if_asked(record);
}

// Applies the status word of the first answer to the record.
static void take_answer(const char *function, struct ccCopyEntry *record, uint32_t status) {
    cc_log(EVTRACE_DEBUG, "%s : copy state : %s\n", function, syserr2str(status));
    if (ld_dbg_fp != nullptr) {
        fprintf(ld_dbg_fp, "%s : copy state : %s\n", function, syserr2str(status));
    }
    switch (status) {
    case WARDEN_CFG_ACTION_INITIATED: // the request is kept for the end message or an abort
        cc_log(EVTRACE_DEBUG, "%s : copy is initiated\n", function);
        break;
    case WARDEN_CFG_ACTION_DONE:
        // Deliberate: only the caller's copy ends; the stored row stays running.
        end_copy(record, COPY_STATE_SUCCESSFUL);
        drop_start_request();
        cc_log(EVTRACE_DEBUG, "%s : %s\n", function, "copy is done\n");
        break;
    default:
        cc_log(EVTRACE_ERROR, "%s : %s\n", function, "copy failed");
        refused(function, record);
        drop_start_request();
        break;
    }
}

uint32_t do_cp_runningtostartup(struct ccCopyEntry *record) {
    struct msgbus_recv_options options = {};
    options.wait = 1;
    cc_log(EVTRACE_DEBUG, "Sending request to warden to start copy running to startup");
    const struct warden_cfg_action request = start_request_of(record);
    drop_start_request(); // a request may outlive its row
    if (msgbus_send(msgbus_response_q, MSGBUS_NODE_LOCAL, MSGBUS_SAP_WARDEN,
                    MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION, &request, sizeof request,
                    &cfg_action_request, 0, 0) < 0) {
        const int error = errno;
        cc_log(EVTRACE_ERROR,
               "%s :  Unable to send message MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION: %s (%d).\n",
               __func__, strerror(error), error);
        // Deliberate: only the caller's copy ends; the stored row stays running.
        end_copy(record, COPY_STATE_FAILED);
        drop_start_request();
        return CCERR_SEND_FAILED;
    }

    msgbus_msg answer = nullptr;
    int32_t received;
    do {
        received = msgbus_recv(msgbus_response_q, &answer, &options);
    } while (received == -1 && errno == ETIME);
    if (received != 0) {
        cc_log(EVTRACE_ERROR,
               "%s : no response from warden (error id %x). may be copy is progress\n", __func__,
               (unsigned)received);
        if (ld_dbg_fp != nullptr) {
            fprintf(ld_dbg_fp,
                    "%s : no response from warden (error id %x). may be copy is progress\n",
                    __func__, (unsigned)received);
        }
        return 0;
    }

    const uint32_t opcode = msgbus_opc_get(answer);
    if (opcode != MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION) {
        cc_log(EVTRACE_ERROR, "%s: unknown message %d received, dropping.\n", __func__,
               (int)opcode);
    } else {
        // an answer without a status word is a failure
        static constexpr uint32_t NO_STATUS = CCERR_FAILED;
        uint32_t status = htonl(NO_STATUS);
        if (const void *payload = msgbus_payload_get(answer, sizeof status)) {
            memcpy(&status, payload, sizeof status);
        }
        take_answer(__func__, record, ntohl(status));
    }
    msgbus_drop(msgbus_response_q, &answer);
    return 0;
}

uint32_t handle_abort(const struct ccCopyEntry *record) {
    if (record->ccCopyState != COPY_STATE_RUNNING || !cc_is_running_to_startup(record)) {
        return 0;
    }
    cc_log(EVTRACE_DEBUG, "Sending request to warden to abort the copy running to startup");
    struct warden_cfg_abort request = {};
    request.token = htonl(msgbus_rr_token_get(cfg_action_request));
    msgbus_send(msgbus_response_q, MSGBUS_NODE_LOCAL, MSGBUS_SAP_WARDEN,
                MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION_ABORT, &request, sizeof request, nullptr, 0,
                0);
    drop_start_request();
    return 0;
}
