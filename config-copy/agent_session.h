// A session with an agent that the user names, and what troubles it in words for the user.
#pragma once

#include "config-copy/copy_table.h"
#include "config-copy/failure.h"
#include "copy_client/session.h"

#include <string>

namespace config_copy {

// `defaults` is what the command line and snmp.conf say, without the agent; it must outlive the
// session. A signal stops it. A verbose one tells each message on standard error. Throws Trouble,
// and a Failure when the agent's name is not known.
Session session_with(const netsnmp_session &defaults, const std::string &agent, bool is_verbose);

Failure failure_of(const Trouble &trouble, const std::string &agent);

} // namespace config_copy
