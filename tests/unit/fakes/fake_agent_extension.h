// The agent's extension interface. In the journal: "heartbeat" and "configuration changed 2".
#ifndef TESTS_UNIT_FAKE_AGENT_EXTENSION_H
#define TESTS_UNIT_FAKE_AGENT_EXTENSION_H

#include <map>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "fakes.h"
#include "platform/agent_extension.h"

// One binding of a notification: its name, its type, and its value as text: a number, or octets in
// hexadecimal.
struct Binding {
    std::vector<oid> name;
    int type;
    std::string value;
    bool operator==(const Binding &) const = default;
};
std::ostream &operator<<(std::ostream &out, const Binding &binding);
// Reads a list and frees it.
std::vector<Binding> taken_bindings(netsnmp_variable_list *list);

struct AgentExtensionFake : FakeBase {
    std::map<uint32_t, agent_message_handler> handlers; // the registered ones, by opcode
    std::vector<uint32_t> registered;                   // opcodes in order of registration
    std::vector<uint32_t> unregistered;
    std::map<uint32_t, int> register_results; // results other than 0, by opcode

    std::set<oid> unbuildable; // columns whose bindings can't be built
    struct Notification {
        int kind;
        std::vector<oid> name;
        std::vector<Binding> bindings;
    };
    Calls<Notification> notifications; // sent ones
    int enqueue_result = 0;

    std::string user = "operator";
    std::string session = "session-1";
    std::string vrf = "red";
    int vrf_status = 0;

    void reset() override;
    void verify() override;
};

extern AgentExtensionFake fake_agent_extension;

#endif
