/* The numbers of CONFIG-COPY-MIB's copy table, for the module that serves it and for its SNMP
 * clients. */
#ifndef PLATFORM_COPY_TABLE_H
#define PLATFORM_COPY_TABLE_H

/* The root 1.3.6.1.4.1.41927.9.96, and the OID of an instance up to its column. ccCopyTable is
 * indexed by the request's number (1 to 2147483647), ccCopyErrorTable by that number and a number
 * within the request. */
#define CC_ROOT_OID 1, 3, 6, 1, 4, 1, 41927, 9, 96
#define CC_COPY_COLUMN_OID(column) CC_ROOT_OID, 1, 1, 1, 1, (column)
#define CC_ERROR_COLUMN_OID(column) CC_ROOT_OID, 1, 1, 2, 1, (column)
#define CC_INDEX_MAX 2147483647

/* The longest file name, and the longest user name or password, in octets. */
#define CC_FILE_NAME_MAX 128
#define CC_CREDENTIAL_SIZE 41

/* Columns of ccCopyTable. */
enum cc_column {
    CC_COLUMN_PROTOCOL = 2,
    CC_COLUMN_SOURCE_FILE_TYPE = 3,
    CC_COLUMN_DEST_FILE_TYPE = 4,
    CC_COLUMN_SERVER_ADDRESS = 5,
    CC_COLUMN_FILE_NAME = 6,
    CC_COLUMN_USER_NAME = 7,
    CC_COLUMN_USER_PASSWORD = 8,
    CC_COLUMN_NOTIFICATION_ON_COMPLETION = 9,
    CC_COLUMN_STATE = 10,
    CC_COLUMN_TIME_STARTED = 11,
    CC_COLUMN_TIME_COMPLETED = 12,
    CC_COLUMN_FAIL_CAUSE = 13,
    CC_COLUMN_ENTRY_ROW_STATUS = 14,
    CC_COLUMN_SERVER_ADDRESS_TYPE = 15,
    CC_COLUMN_SERVER_ADDRESS_REV1 = 16,
};

/* Columns of ccCopyErrorTable. */
enum cc_error_column {
    CC_ERROR_COLUMN_DEVICE_ADDR_TYPE = 2,
    CC_ERROR_COLUMN_DEVICE_ADDR = 3,
    CC_ERROR_COLUMN_SWITCH_WWN = 4,
    CC_ERROR_COLUMN_TEXT = 5,
};

/* Values of ccCopyProtocol. */
enum copy_protocol {
    COPY_PROTO_TFTP = 1,
    COPY_PROTO_FTP = 2,
    COPY_PROTO_RCP = 3,
    COPY_PROTO_SCP = 4,
    COPY_PROTO_SFTP = 5
};

/* Values of ccCopySourceFileType and ccCopyDestFileType. */
enum copy_file_type {
    COPY_FILE_NETWORK = 1,
    COPY_FILE_KEX = 2,
    COPY_FILE_STARTUP = 3,
    COPY_FILE_RUNNING = 4,
    COPY_FILE_TYPE5 = 5,
    COPY_FILE_FABRIC_STARTUP = 6,
    COPY_FILE_ALL_STARTUP = 7,
};

/* Values of ccCopyState. */
enum copy_state {
    COPY_STATE_WAITING = 1,
    COPY_STATE_RUNNING = 2,
    COPY_STATE_SUCCESSFUL = 3,
    COPY_STATE_FAILED = 4
};

/* Values of ccCopyFailCause. */
enum copy_fail_cause {
    COPY_FAIL_GENERAL = 1,
    COPY_FAIL_BAD_FILE_NAME = 2,
    COPY_FAIL_TIMEOUT = 3,
    COPY_FAIL_NO_SPACE = 4,
    COPY_FAIL_BAD_CONFIG = 5, /* the file is not a configuration */
    COPY_FAIL_UNSUPPORTED_PROTOCOL = 6,
    COPY_FAIL_CONFIG_NOT_APPLIED = 7, /* the configuration was refused while it was applied */
    COPY_FAIL_WARDEN_REFUSED = 8,     /* the system manager refused to start */
    COPY_FAIL_WARDEN_FAILED = 9,      /* the system manager reported a failed copy */
};

/* RowStatus of SNMPv2-TC (RFC 2579). */
enum row_status {
    ROW_STATUS_ACTIVE = 1,
    ROW_STATUS_NOT_IN_SERVICE = 2,
    ROW_STATUS_NOT_READY = 3,
    ROW_STATUS_CREATE_AND_GO = 4,
    ROW_STATUS_CREATE_AND_WAIT = 5,
    ROW_STATUS_DESTROY = 6,
};

/* TruthValue of SNMPv2-TC (RFC 2579). */
enum truth_value { TRUTH_TRUE = 1, TRUTH_FALSE = 2 };

#endif
