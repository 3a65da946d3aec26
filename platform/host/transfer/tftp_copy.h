// Room: how the file of a copy travels: the Expect scripts, TFTP, the programs that a copy runs.
// Used by: programs.
// May use: base, tftp, history, device, platform.
//
// TFTP sessions of a copy's worker and its programs, with the copy's report.
#pragma once

#include "tftp/session.h"

#include <string>

namespace ulmo {

// Each calls the session's function of the same name, adds the result to the report
// (copy_report.h), and returns it. put() and get() keep to the settings, and get() takes no more
// than a configuration may have.
int set_timeout(tftp::Session &session, int seconds);
int connect(tftp::Session &session, const std::string &server, int port);
int put(tftp::Session &session, const std::string &local, const std::string &remote);
int get(tftp::Session &session, const std::string &remote, const std::string &local);

} // namespace ulmo
