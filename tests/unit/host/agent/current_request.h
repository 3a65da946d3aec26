// Sets the request that the agent appears to be serving.
#pragma once

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

namespace host_test {

extern netsnmp_agent_session *current_session; // null if there is none

} // namespace host_test
