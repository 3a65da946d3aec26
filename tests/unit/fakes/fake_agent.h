// The agent: its registry of variables, callbacks and alarms, its clock, and its logs. It behaves
// like a stock agent.
#ifndef TESTS_UNIT_FAKE_AGENT_H
#define TESTS_UNIT_FAKE_AGENT_H

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <string>
#include <utility>
#include <vector>

#include "fakes.h"

struct AgentFake : FakeBase {
    using Oid = std::vector<oid>;
    static constexpr int lookup_cache_default = 8;

    struct Registration {
        std::string name;
        const void *variables;
        size_t variable_size;
        size_t count;
        Oid root;
    };
    std::vector<Registration> registrations; // calls of register_mib()
    std::vector<Oid> unregistrations;        // calls of unregister_mib()
    std::vector<Oid> variables;              // what is registered: one OID per variable
    int register_result = 0; // unless 0, register_mib() returns this and registers nothing
    int lookup_cache_size = lookup_cache_default;

    struct Callback {
        int major;
        int minor;
        SNMPCallback *function;
        void *argument;
        bool operator==(const Callback &) const = default;
    };
    std::vector<Callback> callbacks; // the registered ones

    struct Alarm {
        unsigned int handle;
        unsigned int seconds;
        unsigned int flags;
        SNMPAlarmCallback *function;
        void *argument;
    };
    // the running ones; kept over a reset, because they live as long as the module's rows
    std::vector<Alarm> alarms;
    unsigned int last_alarm = 0; // the last handle given out

    timeval start{}; // wall clock

    bool debugging = false;
    // debugmsgtoken() and debugmsg(): token and text
    Calls<std::pair<std::string, std::string>> debug;
    Calls<std::string> details;             // snmp_set_detail()
    Calls<std::pair<int, std::string>> log; // snmp_log(): level and text

    // Whether a variable is registered at this OID or a prefix of it.
    bool serves(const Oid &name) const;

    void reset() override;
    void verify() override;
};

extern AgentFake fake_agent;

#endif
