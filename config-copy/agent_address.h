// Finding an agent without holding up the others: the Net-SNMP library would look its name up, and
// connect to it by TCP, while it is locked.
#pragma once

#include <string>

namespace config_copy {

// The agent as the user writes it ([transport:]host[:port], see snmpcmd(1)), with the host's name
// replaced by its address. What is no such form (other transports, paths) is returned as it is.
// Throws a Failure of unreachable when the name is not known, or no TCP connection comes about in
// some seconds.
std::string reachable_address(const std::string &agent);

// --- parts ---

struct AgentAddress {
    std::string transport; // with its colon; may be empty
    std::string host;
    std::string port; // may be empty
    bool is_understood = false;
};

AgentAddress parse_agent(const std::string &agent);

} // namespace config_copy
