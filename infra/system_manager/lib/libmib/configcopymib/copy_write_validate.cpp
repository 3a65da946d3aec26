// Checks whether a request is complete and consistent enough to be started.
#include "config_copy_mib.h"

#include <string.h>
#include <strings.h>

#include "platform/utilities.h"

// Every rule is checked and each violation is traced; the last one that sets an error status
// determines it.
int32_t validate_entry(struct ccCopyEntry *record, int32_t *err_out, int32_t requested_status) {
    const int32_t protocol = record->ccCopyProtocol;
    const int32_t source = record->ccCopySourceFileType;
    const int32_t dest = record->ccCopyDestFileType;
    const bool user_set = record->ccCopyUserName[0] != '\0';
    const bool password_set = record->ccCopyUserPassword[0] != '\0';
    const bool file_name_set = record->ccCopyFileName[0] != '\0';
    int32_t valid = 1;
    *err_out = SNMP_ERR_NOERROR;

    const auto refuse = [&](uint32_t reason) {
        log_set_error(reason, CC_ERROR_FACILITY);
        *err_out = SNMP_ERR_GENERR;
        valid = 0;
    };
    if (dest == COPY_FILE_FABRIC_STARTUP && source != COPY_FILE_RUNNING) {
        CC_TRACE(" : only running to fabric_startupconfig allowed");
        refuse(CCERR_ONLY_RUNNING_TO_FABRIC);
    }
    if (dest == COPY_FILE_ALL_STARTUP && source != COPY_FILE_RUNNING) {
        CC_TRACE(" : only running to all_startupconfig allowed");
        refuse(CCERR_ONLY_RUNNING_TO_ALL);
    }
    if (source == COPY_FILE_KEX || dest == COPY_FILE_KEX || source == COPY_FILE_TYPE5 ||
        dest == COPY_FILE_TYPE5) {
        CC_TRACE(" : KEX file type is not supported ");
        *err_out = SNMP_ERR_WRONGVALUE;
        valid = 0;
    }
    if (source == COPY_FILE_NETWORK && dest == COPY_FILE_NETWORK) {
        CC_TRACE(" : Both source (=%d) and destination (=%d) cannot be network protocol  ", source,
                 dest);
        refuse(CCERR_BOTH_NETWORK);
    }
    if (source == COPY_FILE_NETWORK && dest == COPY_FILE_STARTUP) {
        CC_TRACE(" :source cannot be networkfile and destination cannot be startup file  ");
        refuse(CCERR_NETWORK_TO_STARTUP);
    }
    if (source == dest) {
        CC_TRACE(" : Both source (=%d) and destination (=%d) cannot be same  ", source, dest);
        refuse(CCERR_SAME_FILE_TYPE);
    }
    if (source != COPY_FILE_NETWORK && dest != COPY_FILE_NETWORK) {
        return valid;
    }

    // An incomplete network copy: an activation is refused; a createAndGo leaves the row to be
    // completed.
    const auto incomplete = [&] {
        if (requested_status == ROW_STATUS_ACTIVE) {
            *err_out = SNMP_ERR_INCONSISTENTVALUE;
        } else {
            record->ccCopyEntryRowStatus = ROW_STATUS_NOT_READY;
        }
        valid = 0;
    };
    if (protocol != COPY_PROTO_TFTP && protocol != COPY_PROTO_FTP && protocol != COPY_PROTO_SCP &&
        protocol != COPY_PROTO_SFTP) {
        record->ccCopyFailCause = COPY_FAIL_UNSUPPORTED_PROTOCOL;
        CC_TRACE(" : The CopyProtocol (=%d) should set if either source (=%d)  or destination "
                 "(=%d) is network ",
                 protocol, source, dest);
        incomplete();
    }
    if (record->ccCopyServerAddressRev1[0] == '\0') {
        CC_TRACE(" : The CopyServerAddressRev1 should be set if either source (=%d)  or "
                 "destination (=%d) is network ",
                 source, dest);
        incomplete();
    }
    // Deliberate: RCP is tested here although it was refused above.
    if ((protocol == COPY_PROTO_RCP || protocol == COPY_PROTO_SFTP) &&
        !(user_set && password_set && file_name_set)) {
        CC_TRACE(" :The Username and password must be set if  CopyProtocol ( = %d)  is either SFTP "
                 "or RCP",
                 protocol);
        incomplete();
    }
    static constexpr char ANONYMOUS[] = "anonymous";
    const bool anonymous =
        strncasecmp(record->ccCopyUserName, ANONYMOUS, sizeof ANONYMOUS - 1) == 0;
    if (protocol == COPY_PROTO_FTP && !(user_set && (anonymous || password_set))) {
        CC_TRACE(" :The Username and password must be set if  CopyProtocol ( = %d)  is FTP",
                 protocol);
        incomplete();
    }
    if (!file_name_set) {
        CC_TRACE(" : The CopyFileName must be set if  CopySourceFileType (=%d) or CopyDestFileType "
                 "(=%d) is NETWORK FILE",
                 source, dest);
        incomplete();
    }
    return valid;
}
