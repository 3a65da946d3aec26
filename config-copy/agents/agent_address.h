// Resolving and connecting to an agent without blocking other sessions: the Net-SNMP library would
// look up its name, and connect by TCP, while locked.
#pragma once

#include <chrono>
#include <string>

namespace config_copy {

// The agent as the user writes it ([transport:]host[:port], see snmpcmd(1)), with the host's name
// replaced by its address. Text of any other form (other transports, paths) is returned unchanged.
// Throws a Failure of unreachable if the name is not known or if a TCP connection is not
// established within a few seconds.
std::string reachable_address(const std::string &agent, std::chrono::seconds limit);

// Parts of the implementation.

struct AgentAddress {
    std::string transport; // with its colon; may be empty
    std::string host;
    std::string port; // may be empty
    bool is_understood = false;
};

AgentAddress parse_agent(const std::string &agent);

} // namespace config_copy
