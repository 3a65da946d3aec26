// The request that the agent is serving, and what the agent's side remembers from its start.
#pragma once

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <string>

namespace ulmo {

// Null when none is being served.
const netsnmp_pdu *current_request();

// Who has sent it, as access control knows it: the user, or the name that stands for the community,
// which is itself as good as a password. Empty when there is none.
std::string requester_name();

// The network address that it came from, or the name of its transport where there is no address.
std::string requester_address();

// Keeps where the service manager's watchdog listens: the agent takes it out of its environment
// once it is up.
void remember_watchdog();

// Opens ld_dbg_fp when the setting `agent_debug_file` names a file and it is not open yet. A link
// in its place is refused.
void open_debug_file();

} // namespace ulmo
