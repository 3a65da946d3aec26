// The request that the agent is serving, and what the agent's side keeps from its start.
#pragma once

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <string>

namespace ulmo {

// The request being served; null if there is none.
const netsnmp_pdu *current_request();

// The requester's name in access control: the user, or the security name of the community (the
// community itself is a kind of password). Empty if there is none.
std::string requester_name();

// The requester's network address, or the name of its transport if that has no address.
std::string requester_address();

// Keeps the address of the service manager's watchdog: the agent removes it from its environment
// when it is up.
void remember_watchdog();

// Opens ld_dbg_fp if the setting `agent_debug_file` names a file and it is not open yet. A symbolic
// link under that name is refused.
void open_debug_file();

} // namespace ulmo
