// Repeats a module's registrations in each SNMP context (RFC 3411, 3.3.1) that names a VRF.
#include "base/c_boundary.h"
#include "base/settings.h"
#include "platform/copy_table.h"
#include "platform/host/agent/copies.h"
#include "platform/host/agent/workers.h"
#include "platform/host/history/log.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <algorithm>
#include <string>
#include <vector>

namespace ulmo {
namespace {

// The contexts with registrations of a module, used on the agent's thread only. Registrations are
// withdrawn from these contexts, whatever the setting says by then.
std::vector<std::string> &contexts() {
    // never destroyed: lives as long as the process
    static auto *const names = new std::vector<std::string>;
    return *names;
}

void read_contexts() {
    contexts().clear();
    for (const std::string &name : list_setting("vrf_context")) {
        if (std::find(contexts().begin(), contexts().end(), name) == contexts().end()) {
            contexts().push_back(name);
        }
    }
}

int on_row_status(netsnmp_mib_handler *, netsnmp_handler_registration *,
                  netsnmp_agent_request_info *request, netsnmp_request_info *) {
    if (request->mode == MODE_SET_COMMIT || request->mode == MODE_SET_UNDO) {
        row_status_is_set();
    }
    return SNMP_ERR_NOERROR;
}

// Before the module's own handler, which the agent calls next.
void watch_row_status(const char *context) {
    const variable *column = copy_watch().rows().column(CC_COLUMN_ENTRY_ROW_STATUS);
    netsnmp_subtree *tree =
        column != nullptr ? netsnmp_subtree_find(column->name, column->namelen, nullptr, context)
                          : nullptr;
    if (tree == nullptr || tree->reginfo == nullptr) {
        return;
    }
    netsnmp_mib_handler *handler = netsnmp_create_handler("copy_watch", on_row_status);
    if (handler != nullptr) {
        handler->flags |= MIB_HANDLER_AUTO_NEXT;
        netsnmp_inject_handler(tree->reginfo, handler);
    }
}

} // namespace
} // namespace ulmo

extern "C" {

// A module's link replaces its calls of register_mib() and unregister_mib() with these (ld(1),
// --wrap).
int __wrap_register_mib(const char *module, const struct variable *variables, size_t variable_size,
                        size_t count, const oid *root, size_t root_length) {
    const int result = register_mib(module, variables, variable_size, count, root, root_length);
    const auto tell = [module](const char *why) {
        ulmo::log_error("%s: contexts: %s", module, why);
    };
    const auto repeat = [&] {
        ulmo::copy_watch().learn(variables, variable_size, count, root, root_length);
        ulmo::watch_row_status("");
        ulmo::read_contexts();
        for (const std::string &name : ulmo::contexts()) {
            if (register_mib_context(module, variables, variable_size, count, root, root_length,
                                     DEFAULT_MIB_PRIORITY, 0, 0, nullptr, name.c_str(), -1,
                                     0) != MIB_REGISTERED_OK) {
                ulmo::log_error("%s can't be registered in context %s", module, name.c_str());
            }
            ulmo::watch_row_status(name.c_str());
        }
    };
    ulmo::quietly(repeat, tell);
    return result;
}

int __wrap_unregister_mib(oid *name, size_t length) {
    for (const std::string &context : ulmo::contexts()) {
        unregister_mib_context(name, length, DEFAULT_MIB_PRIORITY, 0, 0, context.c_str());
    }
    return unregister_mib(name, length);
}

} // extern "C"
