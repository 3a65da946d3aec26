#include "fake_agent.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace {

constexpr long hundredths = 100;
constexpr long microseconds_of_a_hundredth = 10000;

__attribute__((format(printf, 1, 0))) std::string formatted(const char *format, va_list arguments) {
    char text[1024];
    vsnprintf(text, sizeof text, format, arguments);
    return text;
}

} // namespace

AgentFake fake_agent;

void AgentFake::reset() {
    registrations.clear();
    unregistrations.clear();
    variables.clear();
    register_result = 0;
    lookup_cache_size = lookup_cache_default;
    callbacks.clear();
    start = {};
    debugging = false;
    debug.take();
    details.take();
    log.take();
}

void AgentFake::verify() {
    for (const auto &[token, text] : debug.items) {
        unexpected("debugmsg " + token + ": " + text);
    }
    for (const std::string &text : details.items) {
        unexpected("snmp_set_detail \"" + text + "\"");
    }
    for (const auto &[level, text] : log.items) {
        unexpected("snmp_log " + text);
    }
}

bool AgentFake::serves(const Oid &name) const {
    return std::ranges::any_of(variables, [&](const Oid &variable) {
        return variable.size() <= name.size() &&
               std::equal(variable.begin(), variable.end(), name.begin());
    });
}

extern "C" {

int register_mib(const char *name, const struct variable *variables, size_t size, size_t count,
                 const oid *root, size_t root_length) {
    fake_agent.registrations.push_back({name, variables, size, count, {root, root + root_length}});
    if (fake_agent.register_result != MIB_REGISTERED_OK) {
        return fake_agent.register_result;
    }
    const auto *octets = reinterpret_cast<const unsigned char *>(variables);
    for (size_t i = 0; i < count; ++i) {
        const auto *one = reinterpret_cast<const struct variable7 *>(octets + i * size);
        AgentFake::Oid name_of(root, root + root_length);
        name_of.insert(name_of.end(), one->name, one->name + one->namelen);
        if (std::ranges::find(fake_agent.variables, name_of) != fake_agent.variables.end()) {
            return MIB_DUPLICATE_REGISTRATION;
        }
        fake_agent.variables.push_back(name_of);
    }
    return MIB_REGISTERED_OK;
}

// Like a stock agent, switches the lookup cache off while it works, and leaves it off if there was
// nothing to withdraw.
int unregister_mib(oid *name, size_t length) {
    const AgentFake::Oid wanted(name, name + length);
    fake_agent.unregistrations.push_back(wanted);
    if (std::erase(fake_agent.variables, wanted) == 0) {
        fake_agent.lookup_cache_size = 0;
        return MIB_NO_SUCH_REGISTRATION;
    }
    return MIB_UNREGISTERED_OK;
}

void netsnmp_set_lookup_cache_size(int size) {
    fake_agent.lookup_cache_size = size < 0 ? AgentFake::lookup_cache_default : size;
}

int netsnmp_get_lookup_cache_size(void) {
    return fake_agent.lookup_cache_size;
}

int snmp_register_callback(int major, int minor, SNMPCallback *function, void *argument) {
    fake_agent.callbacks.push_back({major, minor, function, argument});
    return SNMPERR_SUCCESS;
}

int snmp_unregister_callback(int major, int minor, SNMPCallback *function, void *argument,
                             int match_arguments) {
    return static_cast<int>(
        std::erase_if(fake_agent.callbacks, [&](const AgentFake::Callback &one) {
            return one.major == major && one.minor == minor && one.function == function &&
                   (match_arguments == 0 || one.argument == argument);
        }));
}

unsigned int snmp_alarm_register(unsigned int seconds, unsigned int flags,
                                 SNMPAlarmCallback *function, void *argument) {
    fake_agent.alarms.push_back({++fake_agent.last_alarm, seconds, flags, function, argument});
    return fake_agent.last_alarm;
}

void snmp_alarm_unregister(unsigned int handle) {
    EXPECT_EQ(std::erase_if(fake_agent.alarms,
                            [&](const AgentFake::Alarm &one) { return one.handle == handle; }),
              1U)
        << "no alarm " << handle;
}

u_long netsnmp_timeval_uptime(struct timeval *when) {
    const int64_t seconds = int64_t{when->tv_sec} - fake_agent.start.tv_sec;
    const int64_t microseconds = int64_t{when->tv_usec} - fake_agent.start.tv_usec;
    return static_cast<u_long>(seconds * hundredths + microseconds / microseconds_of_a_hundredth);
}

const_marker_t netsnmp_get_agent_starttime(void) {
    return &fake_agent.start;
}

int snmp_get_do_debugging(void) {
    return fake_agent.debugging ? 1 : 0;
}

void debugmsgtoken(const char *token, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    fake_agent.debug.items.emplace_back(token, formatted(format, arguments));
    va_end(arguments);
}

void debugmsg(const char *token, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    fake_agent.debug.items.emplace_back(token, formatted(format, arguments));
    va_end(arguments);
}

void snmp_set_detail(const char *text) {
    fake_agent.details.items.emplace_back(text);
}

int snmp_log(int level, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    fake_agent.log.items.emplace_back(level, formatted(format, arguments));
    va_end(arguments);
    return 0;
}

} // extern "C"
