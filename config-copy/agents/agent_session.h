// A session with the agent that the user names, and its errors in the user's terms.
#pragma once

#include "config-copy/copy_table.h"
#include "config-copy/failure.h"
#include "copy_client/session.h"

#include <chrono>
#include <string>

namespace config_copy {

// `defaults` holds the settings of the command line and snmp.conf, without the agent; it must
// outlive the session. A signal stops the session. If verbose, each message is printed on standard
// error. Throws Trouble, and a Failure if the agent's name is not known. It takes at most `limit`,
// and what is left of that is the session's deadline.
Session session_with(const netsnmp_session &defaults, const std::string &agent, bool is_verbose,
                     std::chrono::seconds limit);

// The same with an agent whose address is known, as from reachable_address().
Session session_at(const netsnmp_session &defaults, const Peer &peer, bool is_verbose,
                   std::chrono::seconds limit);

Failure failure_of(const Trouble &trouble, const std::string &agent);

} // namespace config_copy
