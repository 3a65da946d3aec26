// The request that the agent is said to serve.
#pragma once

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

namespace host_test {

extern netsnmp_agent_session *current_session; // null: none

} // namespace host_test
