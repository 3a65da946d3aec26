// Notifications, sent by the stock agent to the receivers that its snmpd.conf names.
#include "platform/agent_extension.h"

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace ulmo {
namespace {

constexpr std::array<oid, 9> sys_up_time{1, 3, 6, 1, 2, 1, 1, 3, 0};
constexpr std::array<oid, 11> snmp_trap_oid{1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};
constexpr uint32_t ip_address_length = 4;

bool is_word_type(uint8_t type) {
    return type == ASN_INTEGER || type == ASN_UNSIGNED || type == ASN_TIMETICKS ||
           type == ASN_COUNTER;
}

// A variable binding as a list of its own; null if it can't be built.
netsnmp_variable_list *single_binding(const oid *name, size_t name_length, uint8_t type,
                                      const void *value, size_t value_length) {
    netsnmp_variable_list *list = nullptr;
    return snmp_varlist_add_variable(&list, name, name_length, type, value, value_length);
}

// The agent represents a 32-bit word as a long.
netsnmp_variable_list *word_binding(const oid *name, size_t name_length, uint8_t type,
                                    const void *value) {
    uint32_t word = 0;
    std::memcpy(&word, value, sizeof word);
    const long native = type == ASN_INTEGER ? static_cast<long>(static_cast<int32_t>(word))
                                            : static_cast<long>(word);
    return single_binding(name, name_length, type, &native, sizeof native);
}

} // namespace
} // namespace ulmo

extern "C" {

netsnmp_variable_list *build_varbind(netsnmp_variable_list *previous, const void *value,
                                     uint8_t type, uint32_t value_length, const oid *name,
                                     uint32_t name_length) {
    if (name == nullptr || name_length == 0 || name_length > MAX_OID_LEN ||
        (value == nullptr && value_length > 0)) {
        return nullptr;
    }
    netsnmp_variable_list *binding = nullptr;
    if (!ulmo::is_word_type(type)) {
        if (type == ASN_IPADDRESS && value_length != ulmo::ip_address_length) {
            return nullptr; // the library takes any length
        }
        binding = ulmo::single_binding(name, name_length, type, value, value_length);
    } else if (value_length == sizeof(uint32_t)) {
        binding = ulmo::word_binding(name, name_length, type, value);
    }
    if (binding != nullptr && previous != nullptr) {
        binding->next_variable = previous->next_variable;
        previous->next_variable = binding;
    }
    return binding;
}

int enqueue_notification(int kind, const oid *notification, uint32_t notification_length,
                         netsnmp_variable_list *list) {
    int error = 0;
    if (kind != SNMP_TRAP_ENTERPRISESPECIFIC || notification == nullptr ||
        notification_length == 0 || notification_length > MAX_OID_LEN) {
        error = EINVAL;
    } else {
        const auto up_time = static_cast<uint32_t>(netsnmp_get_agent_uptime());
        netsnmp_variable_list *head =
            build_varbind(nullptr, &up_time, ASN_TIMETICKS, sizeof up_time,
                          ulmo::sys_up_time.data(), ulmo::sys_up_time.size());
        netsnmp_variable_list *trap =
            head == nullptr
                ? nullptr
                : build_varbind(head, notification, ASN_OBJECT_ID,
                                static_cast<uint32_t>(notification_length * sizeof(oid)),
                                ulmo::snmp_trap_oid.data(), ulmo::snmp_trap_oid.size());
        if (trap != nullptr) {
            trap->next_variable = list;
            send_v2trap(head); // sends a copy of it
            trap->next_variable = nullptr;
        } else {
            error = ENOMEM;
        }
        snmp_free_varbind(head);
    }
    snmp_free_varbind(list);
    return error;
}

} // extern "C"
