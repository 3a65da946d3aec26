#include "fake_agent_extension.h"

#include <cerrno>

#include "journal.h"

namespace {

constexpr uint32_t instance_length = 15;
constexpr uint32_t column_position = 13;

} // namespace

AgentExtensionFake fake_agent_extension;

std::ostream &operator<<(std::ostream &out, const Binding &binding) {
    for (const oid one : binding.name) {
        out << "." << one;
    }
    return out << " (" << binding.type << ") " << binding.value;
}

static std::string text_of_value(const netsnmp_variable_list &one) {
    switch (one.type) {
    case ASN_INTEGER:
        EXPECT_EQ(one.val_len, sizeof(long));
        return std::to_string(*one.val.integer);
    case ASN_TIMETICKS:
        EXPECT_EQ(one.val_len, sizeof(long));
        return std::to_string(static_cast<u_long>(*one.val.integer));
    default:
        return hex(one.val.string, one.val_len);
    }
}

std::vector<Binding> taken_bindings(netsnmp_variable_list *list) {
    std::vector<Binding> bindings;
    for (const netsnmp_variable_list *one = list; one != nullptr; one = one->next_variable) {
        bindings.push_back(
            {{one->name, one->name + one->name_length}, one->type, text_of_value(*one)});
    }
    snmp_free_varbind(list);
    return bindings;
}

void AgentExtensionFake::reset() {
    handlers.clear();
    registered.clear();
    unregistered.clear();
    register_results.clear();
    unbuildable.clear();
    notifications.take();
    enqueue_result = 0;
    user = "operator";
    session = "session-1";
    vrf = "red";
    vrf_status = 0;
    ld_dbg_fp = nullptr;
}

void AgentExtensionFake::verify() {
    for (const Notification &one : notifications.items) {
        unexpected("enqueue_notification with " + std::to_string(one.bindings.size()) +
                   " bindings");
    }
}

extern "C" {

FILE *ld_dbg_fp = nullptr;

int register_for_notification(uint32_t opcode, agent_message_handler handler) {
    fake_agent_extension.registered.push_back(opcode);
    if (const auto result = fake_agent_extension.register_results.find(opcode);
        result != fake_agent_extension.register_results.end()) {
        return result->second;
    }
    fake_agent_extension.handlers[opcode] = handler;
    return 0;
}

int unregister_for_notification(uint32_t opcode) {
    fake_agent_extension.unregistered.push_back(opcode);
    return fake_agent_extension.handlers.erase(opcode) == 1 ? 0 : ENOENT;
}

netsnmp_variable_list *build_varbind(netsnmp_variable_list *previous, const void *value,
                                     uint8_t type, uint32_t value_length, const oid *name,
                                     uint32_t name_length) {
    EXPECT_EQ(name_length, instance_length);
    EXPECT_TRUE(previous == nullptr || previous->next_variable == nullptr)
        << "not the end of the list";
    if (fake_agent_extension.unbuildable.contains(name[column_position])) {
        return nullptr;
    }
    long word = 0;
    if (type == ASN_INTEGER || type == ASN_TIMETICKS) {
        EXPECT_EQ(value_length, sizeof(int32_t));
        word = type == ASN_INTEGER ? long{*static_cast<const int32_t *>(value)}
                                   : static_cast<long>(*static_cast<const uint32_t *>(value));
        value = &word;
        value_length = sizeof word;
    }
    netsnmp_variable_list *list = nullptr;
    netsnmp_variable_list *added =
        snmp_varlist_add_variable(&list, name, name_length, type, value, value_length);
    EXPECT_NE(added, nullptr);
    if (previous != nullptr) {
        previous->next_variable = added;
    }
    return added;
}

int enqueue_notification(int kind, const oid *notification, uint32_t notification_length,
                         netsnmp_variable_list *list) {
    fake_agent_extension.notifications.items.push_back(
        {kind, {notification, notification + notification_length}, taken_bindings(list)});
    return fake_agent_extension.enqueue_result;
}

const char *get_snmp_username(int which) {
    EXPECT_EQ(which, 0);
    return fake_agent_extension.user.c_str();
}

const char *get_snmp_sessionid(int which) {
    EXPECT_EQ(which, 0);
    return fake_agent_extension.session.c_str();
}

const char *snmp_get_ctx_vrf_for_current_req(int *status) {
    EXPECT_EQ(*status, 0);
    *status = fake_agent_extension.vrf_status;
    return fake_agent_extension.vrf_status == 0 ? fake_agent_extension.vrf.c_str() : "";
}

void snmp_heartbeat_send(void) {
    journal.note("heartbeat");
}

void set_mgmt_conf_last_change_time_extended(int kind) {
    journal.note("configuration changed " + std::to_string(kind));
}

} // extern "C"
