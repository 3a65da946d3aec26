// Registration: the variable table, load and unload.
#include "config_copy_mib.h"

#include <string.h>

#include "platform/system_manager.h"

oid config_copy_mib_variables_oid[CC_ROOT_OID_LENGTH] = {CC_ROOT_OID};

struct variable7 config_copy_mib_variables[CC_VARIABLE_COUNT] = {
#define COPY_VARIABLE(name, number, type, access, ...)                                             \
    {CC_MAGIC_##number, type, NETSNMP_OLDAPI_##access,                                             \
     get_ccCopyTable,   5,    {1, 1, 1, 1, CC_COLUMN_##number}},
#define ERROR_VARIABLE(name, number, type, access, ...)                                            \
    {CC_MAGIC_ERROR_##number, type, NETSNMP_OLDAPI_##access,                                       \
     get_ccCopyErrorTable,    5,    {1, 1, 2, 1, CC_ERROR_COLUMN_##number}},
    CC_COPY_COLUMNS(COPY_VARIABLE) CC_ERROR_COLUMNS(ERROR_VARIABLE)
#undef COPY_VARIABLE
#undef ERROR_VARIABLE
};

static constexpr char MODULE_NAME[] = "config_copy_mib";
static constexpr char SOURCE_PATH[] =
    "infra/system_manager/lib/libmib/configcopymib/config_copy_mib";

// created and destroyed with the undo list, otherwise unused
static struct keyedset unused_set = {};

// The platform messages that handle_notifications() handles, in the order of subscription.
static constexpr uint32_t SUBSCRIPTIONS[] = {
    MSGBUS_OPC_WARDEN_CFG_ACTION_BEGIN, MSGBUS_OPC_WARDEN_CFG_ACTION_END, AGENT_OPC_WORKER_STATUS};

// Withdraws the module's variables. A stock agent has a separate registration for each variable, so
// withdrawing the root finds nothing, and a failed withdrawal leaves the agent's lookup cache
// switched off. The cache gets its size back here.
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
    // The linker's --wrap replaces this and unregister_mib() with the platform's versions, which
    // also register the variables in the contexts of VRFs.
    if (register_mib(MODULE_NAME, reinterpret_cast<struct variable *>(config_copy_mib_variables),
                     sizeof(struct variable7), CC_VARIABLE_COUNT, config_copy_mib_variables_oid,
                     CC_ROOT_OID_LENGTH) != MIB_REGISTERED_OK &&
        snmp_get_do_debugging() != 0) {
        debugmsgtoken("trace", "%s(): %s, %d:\n", __func__, SOURCE_PATH, __LINE__);
        debugmsg("trace", "%s(): %s, %d:\n", __func__, SOURCE_PATH, __LINE__);
        debugmsgtoken("register_mib", "%s registration failed\n", MODULE_NAME);
        debugmsg("register_mib", "%s registration failed\n", MODULE_NAME);
    }

    // Unloading leaves the callback registered, so remove it first: after a reload there must still
    // be only one.
    snmp_unregister_callback(SNMP_CALLBACK_LIBRARY, AGENT_CALLBACK_STARTTIME_CHANGE,
                             cc_handle_starttime_change, nullptr, 1);
    snmp_register_callback(SNMP_CALLBACK_LIBRARY, AGENT_CALLBACK_STARTTIME_CHANGE,
                           cc_handle_starttime_change, nullptr);

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
#define METHOD_RWRITE(name, number)                                                                \
    case CC_MAGIC_##number:                                                                        \
        *write_method = set_##name;                                                                \
        break;
#define METHOD_RONLY(name, number) // keep the agent's preset
#define METHOD(name, number, type, access, ...) METHOD_##access(name, number)
        CC_COPY_COLUMNS(METHOD)
#undef METHOD
#undef METHOD_RONLY
#undef METHOD_RWRITE
    default:
        break;
    }
}

unsigned char *get_config_copy_mib(struct variable *vp, oid *name, size_t *length, int exact,
                                   size_t *var_len, WriteMethod **write_method) {
    if (header_generic(vp, name, length, exact, var_len, write_method) == MATCH_SUCCEEDED) {
        snmp_set_detail("");
    }
    return nullptr;
}
