// The file of --hosts: a line for each agent, with options of its own behind it. A line [NAME]
// begins a group, whose options count for the agents below it unless they have their own.
#pragma once

#include "config-copy/agents/agent.h"
#include "config-copy/command_line/session_options.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace config_copy {

struct ListedAgent {
    std::string name;
    std::string group; // empty: none
    std::size_t line;
    // Of the group and the agent. Lines with the same words share them.
    std::shared_ptr<const SessionOptions> options;
};

struct HostsFile {
    std::vector<ListedAgent> agents;
    std::vector<std::string> groups;
    std::size_t line_of_secret = 0; // the first with a passphrase or a community; 0: none
};

// Reads the text of a hosts file. Throws a Failure of usage that names `where` and the line.
HostsFile hosts_in(std::string_view text, const std::string &where);

// The agents in a hosts file, or on standard input for "-"; only those of the groups, unless there
// are none. `defaults` are the options of all of them. The library must be initialised. Throws a
// Failure of usage.
std::vector<Agent> read_hosts(const std::string &file, const std::vector<std::string> &groups,
                              const SessionOptions &defaults);

std::string name_of_hosts(const std::string &file);

} // namespace config_copy
