/* Registration: the variable table, load and unload. */
#include "config_copy_mib.h"

#include <string.h>

#include "platform/system_manager.h"

oid config_copy_mib_variables_oid[CC_ROOT_OID_LENGTH] = {CC_ROOT_OID};

#define COPY_COLUMN(magic, type, access, column)                                                                                           \
    {                                                                                                                                      \
        magic, type, access, get_ccCopyTable, 5, {                                                                                         \
            1, 1, 1, 1, column                                                                                                             \
        }                                                                                                                                  \
    }
#define ERROR_COLUMN(magic, type, column)                                                                                                  \
    {                                                                                                                                      \
        magic, type, NETSNMP_OLDAPI_RONLY, get_ccCopyErrorTable, 5, {                                                                      \
            1, 1, 2, 1, column                                                                                                             \
        }                                                                                                                                  \
    }

struct variable7 config_copy_mib_variables[CC_VARIABLE_COUNT] = {
    COPY_COLUMN(CC_MAGIC_PROTOCOL, ASN_INTEGER, NETSNMP_OLDAPI_RWRITE, CC_COLUMN_PROTOCOL),
    COPY_COLUMN(CC_MAGIC_SOURCE_FILE_TYPE, ASN_INTEGER, NETSNMP_OLDAPI_RWRITE, CC_COLUMN_SOURCE_FILE_TYPE),
    COPY_COLUMN(CC_MAGIC_DEST_FILE_TYPE, ASN_INTEGER, NETSNMP_OLDAPI_RWRITE, CC_COLUMN_DEST_FILE_TYPE),
    COPY_COLUMN(CC_MAGIC_SERVER_ADDRESS, ASN_IPADDRESS, NETSNMP_OLDAPI_RWRITE, CC_COLUMN_SERVER_ADDRESS),
    COPY_COLUMN(CC_MAGIC_FILE_NAME, ASN_OCTET_STR, NETSNMP_OLDAPI_RWRITE, CC_COLUMN_FILE_NAME),
    COPY_COLUMN(CC_MAGIC_USER_NAME, ASN_OCTET_STR, NETSNMP_OLDAPI_RWRITE, CC_COLUMN_USER_NAME),
    COPY_COLUMN(CC_MAGIC_USER_PASSWORD, ASN_OCTET_STR, NETSNMP_OLDAPI_RWRITE, CC_COLUMN_USER_PASSWORD),
    COPY_COLUMN(CC_MAGIC_NOTIFICATION_ON_COMPLETION, ASN_INTEGER, NETSNMP_OLDAPI_RWRITE, CC_COLUMN_NOTIFICATION_ON_COMPLETION),
    COPY_COLUMN(CC_MAGIC_STATE, ASN_INTEGER, NETSNMP_OLDAPI_RONLY, CC_COLUMN_STATE),
    COPY_COLUMN(CC_MAGIC_TIME_STARTED, ASN_TIMETICKS, NETSNMP_OLDAPI_RONLY, CC_COLUMN_TIME_STARTED),
    COPY_COLUMN(CC_MAGIC_TIME_COMPLETED, ASN_TIMETICKS, NETSNMP_OLDAPI_RONLY, CC_COLUMN_TIME_COMPLETED),
    COPY_COLUMN(CC_MAGIC_FAIL_CAUSE, ASN_INTEGER, NETSNMP_OLDAPI_RONLY, CC_COLUMN_FAIL_CAUSE),
    COPY_COLUMN(CC_MAGIC_ENTRY_ROW_STATUS, ASN_INTEGER, NETSNMP_OLDAPI_RWRITE, CC_COLUMN_ENTRY_ROW_STATUS),
    COPY_COLUMN(CC_MAGIC_SERVER_ADDRESS_TYPE, ASN_INTEGER, NETSNMP_OLDAPI_RWRITE, CC_COLUMN_SERVER_ADDRESS_TYPE),
    COPY_COLUMN(CC_MAGIC_SERVER_ADDRESS_REV1, ASN_OCTET_STR, NETSNMP_OLDAPI_RWRITE, CC_COLUMN_SERVER_ADDRESS_REV1),
    ERROR_COLUMN(CC_MAGIC_ERROR_DEVICE_ADDR_TYPE, ASN_INTEGER, CC_ERROR_COLUMN_DEVICE_ADDR_TYPE),
    ERROR_COLUMN(CC_MAGIC_ERROR_DEVICE_ADDR, ASN_OCTET_STR, CC_ERROR_COLUMN_DEVICE_ADDR),
    ERROR_COLUMN(CC_MAGIC_ERROR_SWITCH_WWN, ASN_OCTET_STR, CC_ERROR_COLUMN_SWITCH_WWN),
    ERROR_COLUMN(CC_MAGIC_ERROR_TEXT, ASN_OCTET_STR, CC_ERROR_COLUMN_TEXT),
};

#undef COPY_COLUMN
#undef ERROR_COLUMN

static constexpr char MODULE_NAME[] = "config_copy_mib";
static constexpr char SOURCE_PATH[] = "infra/system_manager/lib/libmib/configcopymib/config_copy_mib";

static struct keyedset unused_set = {}; /* made and destroyed with the undo list; has no role */

/* The platform messages that handle_notifications() handles, in the order of their subscription. */
static constexpr uint32_t SUBSCRIPTIONS[] = {MSGBUS_OPC_WARDEN_CFG_ACTION_BEGIN, MSGBUS_OPC_WARDEN_CFG_ACTION_END, AGENT_OPC_WORKER_STATUS};

/* Withdraws the module's variables. A stock agent holds each variable as a registration of its own, so the root's withdrawal finds nothing
 * there, and a withdrawal that fails leaves the agent's lookup cache switched off: its size is put back. */
static void withdraw_variables(void) {
    const int cache_size = netsnmp_get_lookup_cache_size();
    unregister_mib(config_copy_mib_variables_oid, CC_ROOT_OID_LENGTH);
    for (const struct variable7 &variable : config_copy_mib_variables) {
        oid name[CC_COLUMN_OID_LENGTH];
        memcpy(name, config_copy_mib_variables_oid, sizeof config_copy_mib_variables_oid);
        memcpy(name + CC_ROOT_OID_LENGTH, variable.name, variable.namelen * sizeof(oid));
        unregister_mib(name, CC_ROOT_OID_LENGTH + (size_t)variable.namelen);
    }
    netsnmp_set_lookup_cache_size(cache_size);
}

int init_config_copy_mib(void) {
    /* The platform's, by the linker's --wrap, as is unregister_mib(): it registers the variables in the contexts of VRFs, too. */
    if (register_mib(MODULE_NAME, reinterpret_cast<struct variable *>(config_copy_mib_variables), sizeof(struct variable7),
                     CC_VARIABLE_COUNT, config_copy_mib_variables_oid, CC_ROOT_OID_LENGTH) != MIB_REGISTERED_OK &&
        snmp_get_do_debugging() != 0) {
        debugmsgtoken("trace", "%s(): %s, %d:\n", __func__, SOURCE_PATH, __LINE__);
        debugmsg("trace", "%s(): %s, %d:\n", __func__, SOURCE_PATH, __LINE__);
        debugmsgtoken("register_mib", "%s registration failed\n", MODULE_NAME);
        debugmsg("register_mib", "%s registration failed\n", MODULE_NAME);
    }

    /* An unload leaves the callback in place: after a reload there is still one. */
    snmp_unregister_callback(SNMP_CALLBACK_LIBRARY, AGENT_CALLBACK_STARTTIME_CHANGE, cc_handle_starttime_change, nullptr, 1);
    snmp_register_callback(SNMP_CALLBACK_LIBRARY, AGENT_CALLBACK_STARTTIME_CHANGE, cc_handle_starttime_change, nullptr);

    const int undo_list = keyedset_create(&ccCopyUndoList, 0, 1, ccCopyEntry_comp_func, 1);
    const int unused = keyedset_create(&unused_set, 0, 1, ccCopyEntry_comp_func, 1);
    if (undo_list != KEYEDSET_CREATED || unused != KEYEDSET_CREATED) {
        withdraw_variables();
        return 0;
    }
    int result = 0;
    for (const uint32_t opcode : SUBSCRIPTIONS) {
        result = register_for_notification(opcode, handle_notifications);
    }
    return result;
}

void deinit_config_copy_mib(void) {
    withdraw_variables();
    cc_undo_clear();
    keyedset_destroy(&ccCopyUndoList);
    keyedset_destroy(&unused_set);
    for (const uint32_t opcode : SUBSCRIPTIONS) {
        unregister_for_notification(opcode);
    }
}

void set_ccCopyTable_setmethods(uint8_t magic, WriteMethod **write_method) {
    switch (magic) {
    case CC_MAGIC_PROTOCOL:
        *write_method = set_ccCopyProtocol;
        break;
    case CC_MAGIC_SOURCE_FILE_TYPE:
        *write_method = set_ccCopySourceFileType;
        break;
    case CC_MAGIC_DEST_FILE_TYPE:
        *write_method = set_ccCopyDestFileType;
        break;
    case CC_MAGIC_SERVER_ADDRESS:
        *write_method = set_ccCopyServerAddress;
        break;
    case CC_MAGIC_FILE_NAME:
        *write_method = set_ccCopyFileName;
        break;
    case CC_MAGIC_USER_NAME:
        *write_method = set_ccCopyUserName;
        break;
    case CC_MAGIC_USER_PASSWORD:
        *write_method = set_ccCopyUserPassword;
        break;
    case CC_MAGIC_NOTIFICATION_ON_COMPLETION:
        *write_method = set_ccCopyNotificationOnCompletion;
        break;
    case CC_MAGIC_ENTRY_ROW_STATUS:
        *write_method = set_ccCopyEntryRowStatus;
        break;
    case CC_MAGIC_SERVER_ADDRESS_TYPE:
        *write_method = set_ccCopyServerAddressType;
        break;
    case CC_MAGIC_SERVER_ADDRESS_REV1:
        *write_method = set_ccCopyServerAddressRev1;
        break;
    default: /* read-only: the agent's preset stays */
        break;
    }
}

unsigned char *get_config_copy_mib(struct variable *vp, oid *name, size_t *length, int exact, size_t *var_len, WriteMethod **write_method) {
    if (header_generic(vp, name, length, exact, var_len, write_method) == MATCH_SUCCEEDED) {
        snmp_set_detail("");
    }
    return nullptr;
}
