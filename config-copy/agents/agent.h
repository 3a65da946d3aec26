// An agent, and what is needed to talk to it.
#pragma once

#include "config-copy/command_line/session_options.h"
#include "copy_client/session.h"

#include <memory>
#include <string>

namespace config_copy {

struct Agent {
    std::string name;  // as the user writes it
    std::string group; // of the hosts file; empty: none
    // Everything except the agent's address. Many agents may share it.
    std::shared_ptr<const netsnmp_session> settings;
    std::string sys_name; // for {name}; empty until it is asked for
    // Those that the hosts file gives the agent; null: none.
    std::shared_ptr<const SessionOptions> listed_options = nullptr;
};

} // namespace config_copy
