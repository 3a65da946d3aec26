// Requests a save from the system manager, for the command line.
#pragma once

#include <string>

namespace ulmo {

// Makes the system manager copy the running configuration to the startup configuration of this
// switch, and waits for the end. Returns false, and nothing has been done, if no system manager
// runs. Throws std::runtime_error with the reason if the save was refused or has failed, and what
// the message bus throws.
bool request_save(const std::string &user);

} // namespace ulmo
